// The HTTP client against nginx over http and https, `openssl s_server -WWW`
// requiring a client certificate, and real proxies in front of nginx.
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

// Points the system CA paths (SSL_CERT_FILE) at a file while it lives.
class CaFileEnv {
 public:
  explicit CaFileEnv(const std::string& file) { setenv("SSL_CERT_FILE", file.c_str(), 1); }
  ~CaFileEnv() { unsetenv("SSL_CERT_FILE"); }
};

// One set of peers for the whole suite: nginx serving a big random file, a
// small one and a page over http and https; openssl s_server -WWW requiring
// a client certificate; and the three proxies in front of nginx.
struct Peers {
  Peers() {
    const vektest::TestPki& pki = vektest::test_pki();
    std::string big(kBigSize, '\0');
    std::mt19937_64 rng(16);
    for (size_t i = 0; i < big.size(); i += 8) {
      const auto v = rng();
      std::memcpy(&big[i], &v, 8);
    }
    vektest::write_file(big_file, big);
    vektest::write_file(root + "/small.txt", "small file\n");
    vektest::write_file(root + "/page.txt", "through the proxy\n");
    vektest::write_file(dir.file("hello.txt"), "hello over TLS\n");
    s_server_ok = pki.ok &&
                  s_server.start({"openssl", "s_server", "-quiet", "-accept",
                                  "127.0.0.1:" + std::to_string(s_server_port), "-cert", pki.file("server.pem"), "-key",
                                  pki.file("server.key"), "-CAfile", pki.file("ca.pem"), "-Verify", "1", "-WWW"},
                                 dir.file("s_server.log"), {}, dir.path()) &&
                  s_server.wait_tcp_port(s_server_port);
    proxies_ok = tinyproxy.start_tinyproxy(dir, "proxyuser", "proxypass") && dante.start_dante(dir) &&
                 microsocks.start_microsocks(dir, "socksuser", "sockspass");
  }

  vektest::TempDir dir;
  std::string root = dir.file("www"), big_file = root + "/big.bin";
  bool root_made = std::filesystem::create_directory(root);  // before nginx starts on it
  httptest::NginxPeer nginx{dir, root};
  vektest::PeerProcess s_server;
  int s_server_port = vektest::free_tcp_port();
  bool s_server_ok = false;
  vektest::ProxyPeer tinyproxy, dante, microsocks;
  bool proxies_ok = false;
};

class HttpNginxTest : public vektest::LeakCheckedTest {
 protected:
  static void SetUpTestSuite() {
    ssl_init();
    void* s = nullptr;
    socket_create(&s);
    socket_delete(s);
    socket_instrument_handle();
    peers_ = new Peers;
  }
  static void TearDownTestSuite() { delete peers_; }
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_TRUE(vektest::test_pki().ok) << "openssl could not make the test certificates";
    ASSERT_TRUE(peers_->nginx.ok()) << "nginx did not start";
  }

  static inline Peers* peers_ = nullptr;
};

// The big file whole, then resumed by a range request from a third of the
// way in, over http and https.
TEST_F(HttpNginxTest, BigFileArrivesWholeAndResumes) {
  vektest::TempDir dir;
  const std::string whole = vektest::read_file(peers_->big_file), out = dir.file("big.out");
  const size_t resume_at = kBigSize / 3 + 123;
  for (const size_t offset : {size_t{0}, resume_at}) {
    for (const std::string& url : {peers_->nginx.http("/big.bin"), peers_->nginx.https("/big.bin")}) {
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
      EXPECT_EQ(crc_of(peers_->big_file), crc_of(out));
    }
  }
}

TEST_F(HttpNginxTest, NotFoundGoesToMemoryAndA307IsRepeatedOnce) {
  vektest::TempDir dir;
  const std::string out = dir.file("never.out");
  Exchange missing;
  missing.req->file = out.c_str();
  ASSERT_EQ(0, missing.call(peers_->nginx.https("/missing.bin")));
  EXPECT_EQ(404, missing.resp->status);
  EXPECT_NE(std::string::npos, missing.body().find("404 Not Found")) << missing.body();
  EXPECT_FALSE(std::filesystem::exists(out));

  const int hits_before = peers_->nginx.logged(" /r307 HTTP/", 0);
  Exchange moved;
  ASSERT_EQ(0, moved.call(peers_->nginx.http("/r307")));
  EXPECT_EQ(307, moved.resp->status);
  EXPECT_EQ(hits_before + 2, peers_->nginx.logged(" /r307 HTTP/", hits_before + 2));
}

// With ssl_verify_peer the server must chain to a known CA (the system's,
// here pointed at the test CA) and its certificate must name the host;
// s_server in turn serves only a client that shows a certificate.
TEST_F(HttpNginxTest, CertificatesAreCheckedBothWays) {
  ASSERT_TRUE(peers_->s_server_ok) << "openssl s_server did not start";
  const std::string port = std::to_string(peers_->nginx.https_port()), by_address = "127.0.0.1:" + port;
  const std::string client = vektest::test_pki().file("client.ca.packed.pem"), small = "small file\n";
  const std::string s_server = "https://127.0.0.1:" + std::to_string(peers_->s_server_port) + "/hello.txt";
  constexpr int kFails = 1;  // any error
  struct Case {
    const char* what;
    std::string url;
    bool verify, test_ca_known;
    const char *override_host, *client_cert;
    int rc, options;
    std::string body;
  };
  const Case cases[] = {
      {"address in the certificate", peers_->nginx.https("/small.txt"), true, true, nullptr, nullptr, 0,
       HTTP_RESPONSE_HTTP11, small},
      {"name in the certificate", peers_->nginx.https("/small.txt", "localhost"), true, true, nullptr, nullptr, 0,
       HTTP_RESPONSE_HTTP11, small},
      {"unknown CA", peers_->nginx.https("/small.txt", "localhost"), true, false, nullptr, nullptr, ERR_SSL_CONNECT, 0,
       ""},
      {"name not in the certificate", "https://wrong.example:" + port + "/small.txt", true, true, by_address.c_str(),
       nullptr, ERR_SSL_CONNECT, 0, ""},
      {"no verification accepts anything", "https://wrong.example:" + port + "/small.txt", false, false,
       by_address.c_str(), nullptr, 0, HTTP_RESPONSE_HTTP11, small},
      {"client certificate required and shown", s_server, true, true, nullptr, client.c_str(), 0, HTTP_RESPONSE_HTTP10,
       "hello over TLS\n"},
      {"client certificate required, none shown", s_server, false, false, nullptr, nullptr, kFails, 0, ""},
      {"client certificate file missing", s_server, false, false, nullptr, "/no/such/client.pem", ERR_SSL_CTX_FILE, 0,
       ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::unique_ptr<CaFileEnv> env(c.test_ca_known ? new CaFileEnv(vektest::test_pki().file("ca.pem")) : nullptr);
    Exchange x;
    x.req->timeout = 2000;
    x.req->ssl_verify_peer = c.verify;
    x.req->override_host = c.override_host;
    x.req->ssl_cert_path = c.client_cert;
    const int rc = x.call(c.url);
    EXPECT_TRUE(c.rc == kFails ? rc != 0 : rc == c.rc)
        << "got " << rc << "\n" << vektest::read_file(peers_->dir.file("s_server.log"));
    EXPECT_EQ(rc ? 0 : 200, x.resp->status);
    EXPECT_EQ(c.options, x.resp->options);
    EXPECT_EQ(c.body, x.body());
  }
  EXPECT_TRUE(peers_->nginx.logged("sni=localhost")) << "the server name goes out in the handshake";
}

TEST_F(HttpNginxTest, EveryProxyTypeCarriesHttpAndHttps) {
  ASSERT_TRUE(peers_->proxies_ok) << "tinyproxy, danted or microsocks did not start";
  struct Case {
    const char* what;
    vektest::ProxyPeer* proxy;
    int type;
    const char *user, *pass;
    int rc;
  };
  const Case cases[] = {
      {"HTTP CONNECT", &peers_->tinyproxy, SOCKET_PROXY_HTTP, "proxyuser", "proxypass", 0},
      {"HTTP CONNECT, wrong password", &peers_->tinyproxy, SOCKET_PROXY_HTTP, "proxyuser", "wrong",
       ERR_SOCKET_PROXY_AUTH},
      {"SOCKS4", &peers_->dante, SOCKET_PROXY_SOCKS4, nullptr, nullptr, 0},
      // Dante speaks SOCKS4 without the 4a extension: the refusal comes through as such.
      {"SOCKS4a", &peers_->dante, SOCKET_PROXY_SOCKS4A, nullptr, nullptr, ERR_SOCKET_PROXY_REFUSED},
      {"SOCKS5", &peers_->dante, SOCKET_PROXY_SOCKS5, nullptr, nullptr, 0},
      {"SOCKS5 with a password", &peers_->microsocks, SOCKET_PROXY_SOCKS5, "socksuser", "sockspass", 0},
      {"SOCKS5, wrong password", &peers_->microsocks, SOCKET_PROXY_SOCKS5, "socksuser", "wrong", ERR_SOCKET_PROXY_AUTH},
  };
  for (const Case& c : cases) {
    for (const std::string& url : {peers_->nginx.http("/page.txt"), peers_->nginx.https("/page.txt", "localhost")}) {
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
