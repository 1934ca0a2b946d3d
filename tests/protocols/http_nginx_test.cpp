// The HTTP client against nginx over http and https (a 64 MiB file checked
// by CRC, resume with a range request, 404 and 307, certificate checks),
// against `openssl s_server -WWW` requiring a client certificate, and
// through real proxies to nginx: tinyproxy (HTTP CONNECT with Basic
// authorisation), dante-server (SOCKS4 and SOCKS5; it refuses SOCKS4a) and
// microsocks (SOCKS5 with a password).
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>

#include <vekutil/crc32.h>
#include <vekutil/errors.h>
#include <vekutil/http.h>
#include <vekutil/socket.h>
#include <vekutil/ssl.h>

#include "http_peers.hpp"
#include "proxy_peers.hpp"

namespace {

using httptest::Exchange;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kBigSize = 16u << 20;
#else
constexpr size_t kBigSize = 64u << 20;
#endif

unsigned crc_of(const std::string& path) {
  unsigned crc = 0;
  return hash_file_crc32(path.c_str(), &crc) == 0 ? crc : 0xDEADu;
}

// SSL_CERT_FILE names the CA file that the system CA paths stand for, for the
// lifetime of the object.
class CaFileEnv {
 public:
  explicit CaFileEnv(const std::string& file) { setenv("SSL_CERT_FILE", file.c_str(), 1); }
  ~CaFileEnv() { unsetenv("SSL_CERT_FILE"); }
};

// One set of peers for the whole suite: nginx serving a big random file, a
// small one and a page over http and https; openssl s_server -WWW requiring
// a client certificate; and the three proxies in front of nginx.
class HttpNginxTest : public vektest::LeakCheckedTest {
 protected:
  static void SetUpTestSuite() {
    ssl_init();
    void* s = nullptr;
    socket_create(&s);
    socket_delete(s);
    socket_instrument_handle();
    dir_ = new vektest::TempDir;
    const vektest::TestPki& pki = vektest::test_pki();
    const std::string root = dir_->file("www");
    mkdir(root.c_str(), 0755);
    std::string big(kBigSize, '\0');
    std::mt19937_64 rng(16);
    for (size_t i = 0; i < big.size(); i += 8) {
      const auto v = rng();
      std::memcpy(&big[i], &v, 8);
    }
    vektest::write_file(root + "/big.bin", big);
    vektest::write_file(root + "/small.txt", "small file\n");
    vektest::write_file(root + "/page.txt", "through the proxy\n");
    vektest::write_file(dir_->file("hello.txt"), "hello over TLS\n");
    big_ = root + "/big.bin";
    nginx_ = new httptest::NginxPeer(*dir_, root);
    s_server_port_ = vektest::free_tcp_port();
    s_server_ = new vektest::PeerProcess;
    s_server_ok_ = pki.ok &&
                   s_server_->start({"openssl", "s_server", "-quiet", "-accept", "127.0.0.1:" + std::to_string(s_server_port_),
                                     "-cert", pki.file("server.pem"), "-key", pki.file("server.key"), "-CAfile",
                                     pki.file("ca.pem"), "-Verify", "1", "-WWW"},
                                    dir_->file("s_server.log"), {}, dir_->path()) &&
                   s_server_->wait_tcp_port(s_server_port_);
    tinyproxy_ = new vektest::ProxyPeer;
    dante_ = new vektest::ProxyPeer;
    microsocks_ = new vektest::ProxyPeer;
    proxies_ok_ = tinyproxy_->start_tinyproxy(*dir_, "proxyuser", "proxypass") && dante_->start_dante(*dir_) &&
                  microsocks_->start_microsocks(*dir_, "socksuser", "sockspass");
  }
  static void TearDownTestSuite() {
    delete microsocks_;
    delete dante_;
    delete tinyproxy_;
    delete s_server_;
    delete nginx_;
    delete dir_;
  }
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_TRUE(vektest::test_pki().ok) << "openssl could not make the test certificates";
    ASSERT_TRUE(nginx_->ok()) << "nginx did not start";
  }
  static std::string s_server_url() { return "https://127.0.0.1:" + std::to_string(s_server_port_) + "/hello.txt"; }

  static inline vektest::TempDir* dir_ = nullptr;
  static inline httptest::NginxPeer* nginx_ = nullptr;
  static inline std::string big_;
  static inline vektest::PeerProcess* s_server_ = nullptr;
  static inline int s_server_port_ = 0;
  static inline bool s_server_ok_ = false;
  static inline vektest::ProxyPeer *tinyproxy_ = nullptr, *dante_ = nullptr, *microsocks_ = nullptr;
  static inline bool proxies_ok_ = false;
};

// The big file whole, then resumed by a range request from a third of the
// way in, over http and https.
TEST_F(HttpNginxTest, BigFileArrivesWholeAndResumes) {
  vektest::TempDir dir;
  const std::string whole = vektest::read_file(big_), out = dir.file("big.out");
  const size_t resume_at = kBigSize / 3 + 123;
  for (const size_t offset : {size_t{0}, resume_at}) {
    for (const std::string& url : {nginx_->http("/big.bin"), nginx_->https("/big.bin")}) {
      SCOPED_TRACE(url + " from " + std::to_string(offset));
      vektest::write_file(out, whole.substr(0, offset));
      Exchange x;
      x.req->file = out.c_str();
      x.req->offset = static_cast<int>(offset);
      ASSERT_EQ(0, x.call(url));
      EXPECT_EQ(offset ? 206 : 200, x.resp->status);
      EXPECT_EQ(static_cast<int>(kBigSize - offset), x.resp->data_len);
      if (offset) {
        EXPECT_EQ("bytes " + std::to_string(offset) + "-" + std::to_string(kBigSize - 1) + "/" +
                      std::to_string(kBigSize),
                  x.header("Content-Range"));
      }
      EXPECT_EQ(crc_of(big_), crc_of(out));
    }
  }
}

TEST_F(HttpNginxTest, NotFoundGoesToMemoryAndA307IsRepeatedOnce) {
  vektest::TempDir dir;
  const std::string out = dir.file("never.out");
  Exchange missing;
  missing.req->file = out.c_str();
  ASSERT_EQ(0, missing.call(nginx_->https("/missing.bin")));
  EXPECT_EQ(404, missing.resp->status);
  EXPECT_NE(std::string::npos, missing.body().find("404 Not Found")) << missing.body();
  EXPECT_FALSE(std::filesystem::exists(out));

  const int hits_before = nginx_->logged(" /r307 HTTP/", 0);
  Exchange moved;
  ASSERT_EQ(0, moved.call(nginx_->http("/r307")));
  EXPECT_EQ(307, moved.resp->status);
  EXPECT_EQ(hits_before + 2, nginx_->logged(" /r307 HTTP/", hits_before + 2));
}

// With ssl_verify_peer the server must chain to a known CA (the system's,
// here pointed at the test CA) and its certificate must name the host.
TEST_F(HttpNginxTest, VerificationChecksTheChainAndTheName) {
  const std::string port = std::to_string(nginx_->https_port());
  const std::string by_address = "127.0.0.1:" + port;
  struct Case {
    const char* what;
    std::string url;
    bool verify;
    bool test_ca_known;
    const char* override_host;
    int rc;
  };
  const Case cases[] = {
      {"address in the certificate", nginx_->https("/small.txt"), true, true, nullptr, 0},
      {"name in the certificate", nginx_->https("/small.txt", "localhost"), true, true, nullptr, 0},
      {"unknown CA", nginx_->https("/small.txt", "localhost"), true, false, nullptr, ERR_SSL_CONNECT},
      {"name not in the certificate", "https://wrong.example:" + port + "/small.txt", true, true, by_address.c_str(),
       ERR_SSL_CONNECT},
      {"no verification accepts anything", "https://wrong.example:" + port + "/small.txt", false, false,
       by_address.c_str(), 0},
  };
  for (const Case& c : cases) {
    std::unique_ptr<CaFileEnv> env(c.test_ca_known ? new CaFileEnv(vektest::test_pki().file("ca.pem")) : nullptr);
    Exchange x;
    x.req->ssl_verify_peer = c.verify;
    x.req->override_host = c.override_host;
    EXPECT_EQ(c.rc, x.call(c.url)) << c.what;
    if (c.rc == 0) {
      EXPECT_EQ("small file\n", x.body()) << c.what;
    }
  }
  EXPECT_TRUE(nginx_->logged("sni=localhost"))
      << "the server name goes out in the handshake";
}

TEST_F(HttpNginxTest, ServerRequiringACertificateServesOnlyAClientThatHasOne) {
  ASSERT_TRUE(s_server_ok_) << "openssl s_server did not start";
  const std::string client_packed = vektest::test_pki().file("client.ca.packed.pem");
  Exchange with;
  with.req->ssl_cert_path = client_packed.c_str();
  with.req->ssl_verify_peer = 1;
  {
    CaFileEnv env(vektest::test_pki().file("ca.pem"));
    ASSERT_EQ(0, with.call(s_server_url())) << vektest::read_file(dir_->file("s_server.log"));
  }
  EXPECT_EQ(200, with.resp->status);
  EXPECT_EQ(HTTP_RESPONSE_HTTP10, with.resp->options);
  EXPECT_EQ("hello over TLS\n", with.body());

  Exchange without;
  without.req->timeout = 2000;
  EXPECT_NE(0, without.call(s_server_url()));
  EXPECT_NE(200, without.resp->status);

  Exchange missing_file;
  missing_file.req->ssl_cert_path = "/no/such/client.pem";
  EXPECT_EQ(ERR_SSL_CTX_FILE, missing_file.call(s_server_url()));
}

TEST_F(HttpNginxTest, EveryProxyTypeCarriesHttpAndHttps) {
  ASSERT_TRUE(proxies_ok_) << "tinyproxy, danted or microsocks did not start";
  struct Case {
    const char* what;
    vektest::ProxyPeer* proxy;
    int type;
    const char* user;
    const char* pass;
    int rc;
  };
  const Case cases[] = {
      {"HTTP CONNECT", tinyproxy_, SOCKET_PROXY_HTTP, "proxyuser", "proxypass", 0},
      {"HTTP CONNECT, wrong password", tinyproxy_, SOCKET_PROXY_HTTP, "proxyuser", "wrong", ERR_SOCKET_PROXY_AUTH},
      {"SOCKS4", dante_, SOCKET_PROXY_SOCKS4, nullptr, nullptr, 0},
      // Dante speaks SOCKS4 without the 4a extension: the refusal comes through as such.
      {"SOCKS4a", dante_, SOCKET_PROXY_SOCKS4A, nullptr, nullptr, ERR_SOCKET_PROXY_REFUSED},
      {"SOCKS5", dante_, SOCKET_PROXY_SOCKS5, nullptr, nullptr, 0},
      {"SOCKS5 with a password", microsocks_, SOCKET_PROXY_SOCKS5, "socksuser", "sockspass", 0},
      {"SOCKS5, wrong password", microsocks_, SOCKET_PROXY_SOCKS5, "socksuser", "wrong", ERR_SOCKET_PROXY_AUTH},
  };
  for (const Case& c : cases) {
    for (const std::string& url : {nginx_->http("/page.txt"), nginx_->https("/page.txt", "localhost")}) {
      const std::string address = c.proxy->address();
      std::string user = c.user ? c.user : "", pass = c.pass ? c.pass : "";
      Exchange x;
      x.req->proxy.type = c.type;
      x.req->proxy.addr = const_cast<char*>(address.c_str());
      x.req->proxy.user = c.user ? user.data() : nullptr;
      x.req->proxy.pass = c.pass ? pass.data() : nullptr;
      x.req->ssl_verify_peer = 0;
      EXPECT_EQ(c.rc, x.call(url)) << c.what << " " << url;
      if (c.rc == 0) {
        EXPECT_EQ(200, x.resp->status) << c.what << " " << url;
        EXPECT_EQ("through the proxy\n", x.body()) << c.what << " " << url;
      }
    }
  }
}

}  // namespace
