// The HTTP client through real proxies to nginx, for http and https URLs:
// tinyproxy (HTTP CONNECT with Basic authorisation), dante-server (SOCKS4 and
// SOCKS5; it refuses SOCKS4a) and microsocks (SOCKS5 with a password).
#include <sys/stat.h>

#include <string>

#include <vekutil/errors.h>
#include <vekutil/http.h>
#include <vekutil/socket.h>
#include <vekutil/ssl.h>

#include "http_peers.hpp"

namespace {

using httptest::Exchange;

// One proxy program on its own loopback port, with a generated
// configuration where it needs one.
class ProxyPeer {
 public:
  bool start_tinyproxy(const vektest::TempDir& dir, const std::string& user, const std::string& pass) {
    port_ = vektest::free_tcp_port();
    const std::string conf = dir.file("tinyproxy.conf");
    vektest::write_file(conf, "Port " + std::to_string(port_) + "\nListen 127.0.0.1\nTimeout 30\nMaxClients 20\n" +
                                  "Allow 127.0.0.1\nLogLevel Info\nLogFile \"" + dir.file("tinyproxy.log") +
                                  "\"\nPidFile \"" + dir.file("tinyproxy.pid") + "\"\nBasicAuth " + user + " " +
                                  pass + "\n");
    return process_.start({"tinyproxy", "-d", "-c", conf}, dir.file("tinyproxy.out")) &&
           process_.wait_tcp_port(port_);
  }
  bool start_dante(const vektest::TempDir& dir) {
    port_ = vektest::free_tcp_port();
    const std::string conf = dir.file("danted.conf");
    vektest::write_file(conf, "logoutput: " + dir.file("danted.log") + "\ninternal: 127.0.0.1 port = " +
                                  std::to_string(port_) +
                                  "\nexternal: 127.0.0.1\nclientmethod: none\nsocksmethod: none\n"
                                  "user.privileged: root\nuser.unprivileged: nobody\n"
                                  "client pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }\n"
                                  "socks pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }\n");
    return process_.start({"/usr/sbin/danted", "-f", conf, "-p", dir.file("danted.pid")}, dir.file("danted.out")) &&
           process_.wait_tcp_port(port_);
  }
  bool start_microsocks(const vektest::TempDir& dir, const std::string& user, const std::string& pass) {
    port_ = vektest::free_tcp_port();
    return process_.start({"microsocks", "-i", "127.0.0.1", "-p", std::to_string(port_), "-u", user, "-P", pass},
                          dir.file("microsocks.out")) &&
           process_.wait_tcp_port(port_);
  }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  vektest::PeerProcess process_;
  int port_ = 0;
};

class HttpProxyTest : public vektest::LeakCheckedTest {
 protected:
  static void SetUpTestSuite() {
    ssl_init();
    void* s = nullptr;
    socket_create(&s);
    socket_delete(s);
    socket_instrument_handle();
    dir_ = new vektest::TempDir;
    pki_ = new httptest::TestPki(*dir_);
    const std::string root = dir_->file("www");
    mkdir(root.c_str(), 0755);
    vektest::write_file(root + "/page.txt", "through the proxy\n");
    nginx_ = new httptest::NginxPeer(*dir_, *pki_, root);
    tinyproxy_ = new ProxyPeer;
    dante_ = new ProxyPeer;
    microsocks_ = new ProxyPeer;
    started_ = pki_->ok && nginx_->ok() && tinyproxy_->start_tinyproxy(*dir_, "proxyuser", "proxypass") &&
               dante_->start_dante(*dir_) && microsocks_->start_microsocks(*dir_, "socksuser", "sockspass");
  }
  static void TearDownTestSuite() {
    delete microsocks_;
    delete dante_;
    delete tinyproxy_;
    delete nginx_;
    delete pki_;
    delete dir_;
  }
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_TRUE(started_) << "nginx, tinyproxy, danted or microsocks did not start";
  }

  static vektest::TempDir* dir_;
  static httptest::TestPki* pki_;
  static httptest::NginxPeer* nginx_;
  static ProxyPeer* tinyproxy_;
  static ProxyPeer* dante_;
  static ProxyPeer* microsocks_;
  static bool started_;
};
vektest::TempDir* HttpProxyTest::dir_ = nullptr;
httptest::TestPki* HttpProxyTest::pki_ = nullptr;
httptest::NginxPeer* HttpProxyTest::nginx_ = nullptr;
ProxyPeer* HttpProxyTest::tinyproxy_ = nullptr;
ProxyPeer* HttpProxyTest::dante_ = nullptr;
ProxyPeer* HttpProxyTest::microsocks_ = nullptr;
bool HttpProxyTest::started_ = false;

TEST_F(HttpProxyTest, EveryProxyTypeCarriesHttpAndHttps) {
  struct Case {
    const char* what;
    ProxyPeer* proxy;
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
      EXPECT_EQ(c.rc, x.get(url)) << c.what << " " << url;
      if (c.rc == 0) {
        EXPECT_EQ(200, x.resp->status) << c.what << " " << url;
        EXPECT_EQ("through the proxy\n", x.body()) << c.what << " " << url;
      }
    }
  }
}

}  // namespace
