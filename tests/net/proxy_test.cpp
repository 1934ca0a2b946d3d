// Tunnels through real proxies started on loopback with generated
// configurations: tinyproxy (HTTP CONNECT), dante (SOCKS4, SOCKS5 with and
// without username/password), microsocks (SOCKS5 with username/password),
// and a short Python SOCKS4a server (dante does not speak 4a). Fake proxies
// on raw sockets give malformed and missing replies.
#include <memory>

#include "net_test_util.hpp"
#include "vek_test.hpp"

namespace {

using namespace nettest;

const std::string kGreeting = "hello from target\n";

// A fake proxy: answers every client with a canned reply, then holds the
// connection until the client gives up, or ends it in order (unread request
// bytes would turn a plain close into a reset).
RawServer::Serve fake_proxy(std::string reply, bool hold) {
  return [=](int fd, const std::atomic<bool>&) {
    read_exact(fd, 1, 1000);
    write_all(fd, reply);
    if (!hold) shutdown(fd, SHUT_WR);
    read_to_end(fd, 2000);
  };
}

// The target greets every client first.
void expect_greeting(void* s) {
  std::string greeting(kGreeting.size(), '\0');
  ASSERT_EQ(0, socket_recv(s, greeting.data(), (int)greeting.size(), 5000));
  EXPECT_EQ(kGreeting, greeting);
}

// One case through a proxy, and what must come of it.
struct Tunnel {
  const char* what;
  int type;
  const char* user;
  const char* pass;
  std::string target;
  int expected;
};

class ProxyTest : public vektest::LeakCheckedTest {
 protected:
  void TearDown() override {
    for (auto& p : proxies_) p->stop();
    proxies_.clear();
    LeakCheckedTest::TearDown();
  }

  // Starts a proxy program and waits for its port; false if it did not come up.
  bool start(const std::vector<std::string>& argv, int port) {
    proxies_.push_back(std::make_unique<vektest::PeerProcess>());
    vektest::PeerProcess& p = *proxies_.back();
    return p.start(argv, dir_.file("proxy" + std::to_string(proxies_.size()) + ".log")) && p.wait_tcp_port(port);
  }
  std::string write_config(const std::string& name, const std::string& text) {
    vektest::write_file(dir_.file(name), text);
    return dir_.file(name);
  }
  // Dante on port, refusing the forbidden target, with the given SOCKS method.
  std::string dante_config(int port, const std::string& method) {
    return write_config("danted.conf",
                        "logoutput: " + dir_.file("d.log") + "\ninternal: 127.0.0.1 port = " + std::to_string(port) +
                            "\nexternal: 127.0.0.1\nclientmethod: none\nsocksmethod: " + method +
                            "\nuser.privileged: root\nuser.unprivileged: nobody\n" +
                            "client pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }\n" +
                            "socks block { from: 0.0.0.0/0 to: 0.0.0.0/0 port = " + std::to_string(forbidden_.port()) +
                            " }\nsocks pass { from: 127.0.0.0/8 to: 127.0.0.0/8 }\n");
  }
  std::string logs() const {
    std::string all;
    for (size_t i = 1; i <= proxies_.size(); ++i)
      all += vektest::read_file(dir_.file("proxy" + std::to_string(i) + ".log"));
    return all;
  }

  // Runs each case; a tunnel that opens must carry the greeting and an echo.
  void run_cases(const std::string& proxy_addr, const std::vector<Tunnel>& cases) {
    for (const Tunnel& c : cases) {
      SCOPED_TRACE(std::string(c.what) + " via " + proxy_addr + " to " + c.target);
      std::string addr = proxy_addr;
      SOCKET_PROXY_INFO info{c.type, addr.data(), const_cast<char*>(c.user), const_cast<char*>(c.pass)};
      Sock s;
      const int rc = socket_connect_thru_proxy(s.get(), &info, c.target.c_str(), 5000);
      EXPECT_EQ(c.expected, rc) << logs();
      if (rc != 0) {
        EXPECT_EQ(0, socket_isopen(s.get()));
        EXPECT_EQ(c.expected, socket_error(s.get()));
        continue;
      }
      expect_greeting(s.get());
      ASSERT_EQ(0, socket_send(s.get(), "ping", 4));
      char echo[4];
      ASSERT_EQ(0, socket_recv(s.get(), echo, 4, 5000));
      EXPECT_EQ("ping", std::string(echo, 4));
    }
  }

  vektest::TempDir dir_;
  RawServer target_{echo_after(kGreeting)};
  RawServer forbidden_{echo_after(kGreeting)};  // a second target on a port the proxies refuse
  const std::string to_ = target_.addr(), by_name_ = "localhost:" + std::to_string(target_.port()),
                    barred_ = forbidden_.addr();

 private:
  std::vector<std::unique_ptr<vektest::PeerProcess>> proxies_;
};

TEST_F(ProxyTest, TinyproxyHttpConnect) {
  if (!vektest::have_program("tinyproxy")) GTEST_SKIP() << "tinyproxy missing";
  const int open_port = vektest::free_tcp_port(), auth_port = vektest::free_tcp_port();
  auto config = [&](int port, const std::string& extra) {
    return "Port " + std::to_string(port) + "\nListen 127.0.0.1\nTimeout 30\nLogLevel Info\nMaxClients 20\n" +
           "Allow 127.0.0.1\nConnectPort " + std::to_string(target_.port()) + "\n" + extra;
  };
  ASSERT_TRUE(start({"tinyproxy", "-d", "-c", write_config("open.conf", config(open_port, ""))}, open_port));
  ASSERT_TRUE(start({"tinyproxy", "-d", "-c", write_config("auth.conf", config(auth_port, "BasicAuth alice s3cret\n"))},
                    auth_port));
  run_cases(loopback(open_port), {
      {"plain", SOCKET_PROXY_HTTP, nullptr, nullptr, to_, 0},
      {"by name", SOCKET_PROXY_HTTP, nullptr, nullptr, by_name_, 0},
      {"forbidden port", SOCKET_PROXY_HTTP, nullptr, nullptr, barred_, ERR_SOCKET_PROXY_REFUSED},
  });
  run_cases(loopback(auth_port), {
      {"authorised", SOCKET_PROXY_HTTP, "alice", "s3cret", to_, 0},
      {"wrong password", SOCKET_PROXY_HTTP, "alice", "wrong", to_, ERR_SOCKET_PROXY_AUTH},
      {"no credentials", SOCKET_PROXY_HTTP, nullptr, nullptr, to_, ERR_SOCKET_PROXY_AUTH},
  });
}

TEST_F(ProxyTest, DanteSocks4AndSocks5) {
  if (!vektest::have_program("danted")) GTEST_SKIP() << "danted missing";
  if (geteuid() != 0) GTEST_SKIP() << "dante needs root to switch to its unprivileged user";
  const int port = vektest::free_tcp_port();
  ASSERT_TRUE(start({"danted", "-f", dante_config(port, "none"), "-N", "1"}, port))
      << vektest::read_file(dir_.file("d.log"));
  run_cases(loopback(port), {
      {"SOCKS4", SOCKET_PROXY_SOCKS4, "anyone", nullptr, to_, 0},
      {"SOCKS4 resolved here", SOCKET_PROXY_SOCKS4, nullptr, nullptr, by_name_, 0},
      {"SOCKS4 forbidden port", SOCKET_PROXY_SOCKS4, nullptr, nullptr, barred_, ERR_SOCKET_PROXY_REFUSED},
      {"SOCKS4 unknown name", SOCKET_PROXY_SOCKS4, nullptr, nullptr, "nowhere.invalid:80", ERR_SOCKET_HOST_NOT_FOUND},
      {"SOCKS5", SOCKET_PROXY_SOCKS5, nullptr, nullptr, to_, 0},
      {"SOCKS5 by name", SOCKET_PROXY_SOCKS5, nullptr, nullptr, by_name_, 0},
      {"SOCKS5 offering credentials", SOCKET_PROXY_SOCKS5, "u", "p", to_, 0},
      {"SOCKS5 forbidden port", SOCKET_PROXY_SOCKS5, nullptr, nullptr, barred_, ERR_SOCKET_PROXY_REFUSED},
  });
}

// Dante checks usernames against the system's password files. The test
// shows it a copy with one extra user, bind-mounted in a mount namespace of
// its own, so the machine's files are never touched.
TEST_F(ProxyTest, DanteSocks5WithUsernameAndPassword) {
  if (!vektest::have_program("danted") || !vektest::have_program("unshare") || !vektest::have_program("openssl"))
    GTEST_SKIP() << "danted, unshare or openssl missing";
  if (vektest::run_program({"unshare", "-m", "true"}) != 0) GTEST_SKIP() << "no mount namespaces here";
  std::string hash;
  ASSERT_EQ(0, vektest::run_program({"openssl", "passwd", "-6", "-salt", "vektest", "s3cret"}, &hash));
  hash.erase(hash.find_last_not_of("\n") + 1);
  vektest::write_file(dir_.file("passwd"),
                      vektest::read_file("/etc/passwd") + "vekproxy:x:64123:65534::/nonexistent:/usr/sbin/nologin\n");
  vektest::write_file(dir_.file("shadow"),
                      vektest::read_file("/etc/shadow") + "vekproxy:" + hash + ":19000:0:99999:7:::\n");
  const int port = vektest::free_tcp_port();
  const std::string script = "mount --bind " + dir_.file("passwd") + " /etc/passwd && mount --bind " +
                             dir_.file("shadow") + " /etc/shadow && exec danted -f " + dante_config(port, "username") +
                             " -N 1";
  ASSERT_TRUE(start({"unshare", "-m", "sh", "-c", script}, port)) << vektest::read_file(dir_.file("d.log"));
  run_cases(loopback(port), {
      {"right password", SOCKET_PROXY_SOCKS5, "vekproxy", "s3cret", to_, 0},
      {"wrong password", SOCKET_PROXY_SOCKS5, "vekproxy", "wrong", to_, ERR_SOCKET_PROXY_AUTH},
      {"no credentials", SOCKET_PROXY_SOCKS5, nullptr, nullptr, to_, ERR_SOCKET_PROXY_AUTH},
      {"forbidden port", SOCKET_PROXY_SOCKS5, "vekproxy", "s3cret", barred_, ERR_SOCKET_PROXY_REFUSED},
  });
}

TEST_F(ProxyTest, MicrosocksSocks5WithUsernameAndPassword) {
  if (!vektest::have_program("microsocks")) GTEST_SKIP() << "microsocks missing";
  const int port = vektest::free_tcp_port();
  ASSERT_TRUE(start({"microsocks", "-i", "127.0.0.1", "-p", std::to_string(port), "-u", "bob", "-P", "pa55"}, port));
  // A port with nothing behind it: the proxy cannot connect.
  const int closed_port = vektest::free_tcp_port();
  run_cases(loopback(port), {
      {"right password", SOCKET_PROXY_SOCKS5, "bob", "pa55", to_, 0},
      {"by name", SOCKET_PROXY_SOCKS5, "bob", "pa55", by_name_, 0},
      {"wrong password", SOCKET_PROXY_SOCKS5, "bob", "nope", to_, ERR_SOCKET_PROXY_AUTH},
      {"no credentials", SOCKET_PROXY_SOCKS5, nullptr, nullptr, to_, ERR_SOCKET_PROXY_AUTH},
      {"nothing behind the port", SOCKET_PROXY_SOCKS5, "bob", "pa55", loopback(closed_port), ERR_SOCKET_PROXY_REFUSED},
  });
}

// A minimal SOCKS4a server: resolves the name itself, allows one port.
constexpr const char* kSocks4aServer = R"PY(
import socket, struct, sys, threading, select
allowed = int(sys.argv[2])
srv = socket.socket(); srv.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
srv.bind(('127.0.0.1', int(sys.argv[1]))); srv.listen(16)
def read_until_nul(c):
    out = b''
    while True:
        b = c.recv(1)
        if not b or b == b'\0': return out
        out += b
def serve(c):
    head = c.recv(8, socket.MSG_WAITALL)
    ver, cmd, port = struct.unpack('>BBH', head[:4])
    read_until_nul(c)
    host = socket.inet_ntoa(head[4:8])
    if head[4:7] == b'\0\0\0' and head[7] != 0:
        host = read_until_nul(c).decode()
    try:
        if port != allowed: raise OSError('forbidden')
        t = socket.create_connection((socket.gethostbyname(host), port))
    except OSError:
        c.sendall(b'\0\x5b' + b'\0' * 6); c.close(); return
    c.sendall(b'\0\x5a' + b'\0' * 6)
    while True:
        r, _, _ = select.select([c, t], [], [])
        for s in r:
            d = s.recv(65536)
            if not d: c.close(); t.close(); return
            (t if s is c else c).sendall(d)
while True:
    c, _ = srv.accept()
    threading.Thread(target=serve, args=(c,), daemon=True).start()
)PY";

TEST_F(ProxyTest, PythonSocks4a) {
  if (!vektest::have_program("python3")) GTEST_SKIP() << "python3 missing";
  const int port = vektest::free_tcp_port();
  ASSERT_TRUE(start({"python3", "-c", kSocks4aServer, std::to_string(port), std::to_string(target_.port())}, port));
  run_cases(loopback(port), {
      {"by name", SOCKET_PROXY_SOCKS4A, "me", nullptr, by_name_, 0},
      {"by address", SOCKET_PROXY_SOCKS4A, nullptr, nullptr, to_, 0},
      {"forbidden port", SOCKET_PROXY_SOCKS4A, nullptr, nullptr, barred_, ERR_SOCKET_PROXY_REFUSED},
  });
}

TEST_F(ProxyTest, MalformedMissingAndRefusedArguments) {
  const struct {
    const char* what;
    int type;
    std::string reply;
    int expected;
  } fakes[] = {
      {"HTTP: not HTTP at all", SOCKET_PROXY_HTTP, "SSH-2.0-OpenSSH\r\n\r\n", ERR_SOCKET_PROXY_REPLY},
      {"HTTP: no status code", SOCKET_PROXY_HTTP, "HTTP/1.1 OK\r\n\r\n", ERR_SOCKET_PROXY_REPLY},
      {"HTTP: endless header", SOCKET_PROXY_HTTP, "HTTP/1.1 200 OK\r\n" + std::string(9000, 'x'),
       ERR_SOCKET_PROXY_REPLY},
      {"HTTP: closes mid-header", SOCKET_PROXY_HTTP, "HTTP/1.1 200 OK\r\n", ERR_SOCKET_CLOSED},
      {"HTTP: refused", SOCKET_PROXY_HTTP, "HTTP/1.0 403 Forbidden\r\n\r\n", ERR_SOCKET_PROXY_REFUSED},
      {"HTTP: bare newlines accepted", SOCKET_PROXY_HTTP, "HTTP/1.0 200 Connection established\n\n" + kGreeting, 0},
      {"SOCKS4: wrong version", SOCKET_PROXY_SOCKS4, std::string("\x04\x5a\0\0\0\0\0\0", 8), ERR_SOCKET_PROXY_REPLY},
      {"SOCKS4: unknown code", SOCKET_PROXY_SOCKS4, std::string("\0\x10\0\0\0\0\0\0", 8), ERR_SOCKET_PROXY_REPLY},
      {"SOCKS4: user id refused", SOCKET_PROXY_SOCKS4A, std::string("\0\x5d\0\0\0\0\0\0", 8), ERR_SOCKET_PROXY_AUTH},
      {"SOCKS5: wrong version", SOCKET_PROXY_SOCKS5, std::string("\x04\0", 2), ERR_SOCKET_PROXY_REPLY},
      {"SOCKS5: method not offered", SOCKET_PROXY_SOCKS5, std::string("\x05\x01", 2), ERR_SOCKET_PROXY_REPLY},
      {"SOCKS5: no acceptable method", SOCKET_PROXY_SOCKS5, std::string("\x05\xff", 2), ERR_SOCKET_PROXY_AUTH},
      {"SOCKS5: bad address type", SOCKET_PROXY_SOCKS5, std::string("\x05\0\x05\0\0\x09", 6), ERR_SOCKET_PROXY_REPLY},
      {"SOCKS5: unknown reply code", SOCKET_PROXY_SOCKS5, std::string("\x05\0\x05\x42\0\x01", 6),
       ERR_SOCKET_PROXY_REPLY},
      {"SOCKS5: silent", SOCKET_PROXY_SOCKS5, "", ERR_SOCKET_TIMEOUT},
  };
  for (const auto& f : fakes) {
    SCOPED_TRACE(f.what);
    RawServer fake(fake_proxy(f.reply, f.expected != ERR_SOCKET_CLOSED));
    std::string addr = fake.addr();
    SOCKET_PROXY_INFO info{f.type, addr.data(), nullptr, nullptr};
    Sock s;
    const int rc = socket_connect_thru_proxy(s.get(), &info, to_.c_str(), 300);
    EXPECT_EQ(f.expected, rc);
    EXPECT_EQ(rc == 0 ? 1 : 0, socket_isopen(s.get()));
    if (rc == 0) expect_greeting(s.get());
  }

  std::string proxy_addr = "127.0.0.1:1";
  std::string long_name(256, 'u');
  SOCKET_PROXY_INFO http{SOCKET_PROXY_HTTP, proxy_addr.data(), nullptr, nullptr};
  SOCKET_PROXY_INFO bad_type{7, proxy_addr.data(), nullptr, nullptr};
  SOCKET_PROXY_INFO no_addr{SOCKET_PROXY_SOCKS5, nullptr, nullptr, nullptr};
  SOCKET_PROXY_INFO long_user{SOCKET_PROXY_SOCKS5, proxy_addr.data(), long_name.data(), nullptr};
  SOCKET_PROXY_INFO none{SOCKET_PROXY_NONE, nullptr, nullptr, nullptr};
  Sock s;
  const char* target = to_.c_str();
  const struct {
    const char* what;
    void* sock;
    const SOCKET_PROXY_INFO* proxy;
    const char* target;
    int timeout;
    int expected;
  } bad[] = {
      {"NULL socket", nullptr, &http, target, 100, ERR_INVALID_HANDLE},
      {"NULL target", s.get(), &http, nullptr, 100, ERR_INVALID_PARAMETER},
      {"unknown type", s.get(), &bad_type, target, 100, ERR_INVALID_PARAMETER},
      {"no proxy address", s.get(), &no_addr, target, 100, ERR_INVALID_PARAMETER},
      {"user too long", s.get(), &long_user, target, 100, ERR_INVALID_PARAMETER},
      {"target without port", s.get(), &http, "localhost", 100, ERR_INVALID_PARAMETER},
      {"target port 0", s.get(), &http, "localhost:0", 100, ERR_INVALID_PARAMETER},
      {"target port 65536", s.get(), &http, "localhost:65536", 100, ERR_INVALID_PARAMETER},
      {"time-out below -1", s.get(), &http, target, -2, ERR_INVALID_PARAMETER},
      {"proxy not listening", s.get(), &http, target, 1000, ERR_SOCKET_FAILED},
  };
  for (const auto& b : bad) {
    const int rc = socket_connect_thru_proxy(b.sock, b.proxy, b.target, b.timeout);
    if (b.expected == ERR_SOCKET_FAILED)
      EXPECT_TRUE(rc == ERR_SOCKET_FAILED || rc == ERR_SOCKET_CONNECT) << b.what << ": " << rc;
    else
      EXPECT_EQ(b.expected, rc) << b.what;
  }
  // No proxy at all: a direct connection.
  const SOCKET_PROXY_INFO* direct[] = {&none, nullptr};
  for (const SOCKET_PROXY_INFO* p : direct) {
    ASSERT_EQ(0, socket_connect_thru_proxy(s.get(), p, target, 1000));
    expect_greeting(s.get());
    EXPECT_EQ(to_, socket_peer(s.get()));
  }
}

}  // namespace
