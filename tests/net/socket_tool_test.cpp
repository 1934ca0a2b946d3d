// The "connect" and "listen" tool commands against raw peers, openssl,
// microsocks and each other.
#include "net_test_util.hpp"
#include "vek_test.hpp"

namespace {

using namespace nettest;

const std::string kKeyHex = "000102030405060708090a0b0c0d0e0f";
const std::string kIvHex = "f0e0d0c0b0a090807060504030201000";
const std::string kSecure = kKeyHex + ":" + kIvHex;

class SocketToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tool_ = vektest::tool_path();
    if (tool_.empty()) GTEST_SKIP() << "the vekutil tool is not built here";
  }
  // Runs the tool to its end in a thread; collect() returns status and stdout.
  void run_async(std::vector<std::string> args, std::string input) {
    args.insert(args.begin(), tool_);
    out_.clear();
    runner_ = std::thread([this, args, input] { status_ = vektest::run_program(args, &out_, input, 20000); });
  }
  std::pair<int, std::string> collect() {
    runner_.join();
    return {status_, out_};
  }
  int run(std::vector<std::string> args, std::string* out = nullptr, const std::string& input = "") {
    args.insert(args.begin(), tool_);
    return vektest::run_program(args, out, input, 20000);
  }

  std::string tool_;

 private:
  std::thread runner_;
  int status_ = -1;
  std::string out_;
};

std::string cbc(bool encrypt, const std::string& in) { return openssl_cbc(encrypt, kKeyHex, kIvHex, in, true); }

bool port_bound(int port) {
  int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in sin = vektest::loopback_sockaddr(port);
  const bool taken = bind(probe, reinterpret_cast<const sockaddr*>(&sin), sizeof sin) != 0;
  close(probe);
  return taken;
}

// Waits until 127.0.0.1:port is listening, without connecting (the tool serves one client). The
// kernel's table is costly to read, so only once the port is bound.
bool wait_listening(int port) {
  char wanted[48];
  std::snprintf(wanted, sizeof wanted, " 0100007F:%04X 00000000:0000 0A ", port);
  for (int i = 0; i < 500; ++i) {
    if (port_bound(port) && vektest::read_file("/proc/net/tcp").find(wanted) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

TEST_F(SocketToolTest, UsageAndFailures) {
  std::string out;
  const struct {
    std::vector<std::string> args;
    int status;
  } cases[] = {
      {{"listen", "--help"}, 0},
      {{"connect"}, 2},
      {{"listen"}, 2},
      {{"connect", "127.0.0.1:1", "--proxy", "ftp://x:1"}, 2},
      {{"connect", "127.0.0.1:1", "--secure", "00:11"}, 2},
      {{"connect", "127.0.0.1:1", "--bogus"}, 2},
      {{"connect", "127.0.0.1:1"}, 1},                      // nothing listens
      {{"connect", "no such host:1"}, 1},
      {{"listen", "127.0.0.1:65536"}, 1},
  };
  for (const auto& c : cases) EXPECT_EQ(c.status, run(c.args, &out)) << c.args.back();
  out.clear();
  EXPECT_EQ(0, run({"connect", "--help"}, &out));
  EXPECT_EQ(0u, out.rfind("usage: vekutil connect HOST:PORT", 0)) << out;
}

// Plain, and secure where the wire carries openssl enc of each direction.
TEST_F(SocketToolTest, ConnectCopiesBothWays) {
  const bool have_openssl = vektest::have_program("openssl");
  const struct {
    bool secure;
    size_t n;
  } cases[] = {{false, 300000}, {true, 0}, {true, 5}, {true, 16}, {true, 1000}, {true, 70001}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.n) + (c.secure ? " secure" : " plain"));
    if (c.secure && !have_openssl) continue;
    RawListener raw;
    const std::string input = pattern(c.n, (unsigned)c.n), reply = pattern(c.n + 3, 77);
    std::vector<std::string> args = {"connect", raw.addr()};
    if (c.secure) args.insert(args.end(), {"--secure", kSecure});
    run_async(args, input);
    int fd = raw.accept_fd();
    ASSERT_GE(fd, 0);
    // The tool ends its direction after the input.
    EXPECT_TRUE(read_to_end(fd) == (c.secure ? cbc(true, input) : input));
    write_all(fd, c.secure ? cbc(true, reply) : reply);
    close(fd);
    auto [status, out] = collect();
    EXPECT_EQ(0, status);
    EXPECT_TRUE(out == reply);
  }
}

// listen serves one client (connect here), plain or secure: both directions arrive whole.
TEST_F(SocketToolTest, ConnectAndListenTalk) {
  for (const bool secure : {false, true}) {
    SCOPED_TRACE(secure ? "secure" : "plain");
    const int port = vektest::free_tcp_port();
    const std::string greeting = pattern(70000, 3), input = pattern(200000, 9);
    std::vector<std::string> listen = {"listen", loopback(port)}, connect = {"connect", loopback(port)};
    if (secure) {
      listen.insert(listen.end(), {"--secure", kSecure});
      connect.insert(connect.end(), {"--secure", kSecure});
    }
    run_async(listen, greeting);
    ASSERT_TRUE(wait_listening(port));
    std::string out;
    EXPECT_EQ(0, run(connect, &out, input));
    EXPECT_TRUE(out == greeting);
    auto [status, received] = collect();
    EXPECT_EQ(0, status);
    EXPECT_TRUE(received == input);
  }
}

// Through a proxy that ends both directions when one ends (no half-close):
// everything sent still arrives, and the tool ends cleanly.
TEST_F(SocketToolTest, SecureConnectThroughSocks5) {
  if (!vektest::have_program("microsocks") || !vektest::have_program("openssl"))
    GTEST_SKIP() << "microsocks or openssl missing";
  const int proxy_port = vektest::free_tcp_port();
  vektest::PeerProcess proxy;
  ASSERT_TRUE(proxy.start({"microsocks", "-i", "127.0.0.1", "-p", std::to_string(proxy_port), "-u", "u", "-P", "p"}));
  ASSERT_TRUE(proxy.wait_tcp_port(proxy_port));
  RawListener target;
  const std::string input = pattern(100000, 4);
  run_async({"connect", target.addr(), "--proxy", "socks5://u:p@" + loopback(proxy_port), "--secure", kSecure}, input);
  int fd = target.accept_fd();
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(cbc(false, read_to_end(fd)) == input);
  close(fd);
  auto [status, out] = collect();
  EXPECT_EQ(0, status);
  EXPECT_EQ("", out);
  proxy.stop();
}

}  // namespace
