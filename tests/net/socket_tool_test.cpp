// The "connect" and "listen" tool commands against raw peers, openssl,
// microsocks and each other.
#include <climits>
#include <filesystem>

#include "net_test_util.hpp"
#include "peer.hpp"
#include "vek_test.hpp"

namespace {

using namespace nettest;

const std::string kKeyHex = "000102030405060708090a0b0c0d0e0f";
const std::string kIvHex = "f0e0d0c0b0a090807060504030201000";

// The tool sits beside the tests in the build tree (not built under the
// sanitizers).
std::string tool_path() {
  char self[PATH_MAX] = {};
  if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return "";
  const std::filesystem::path p = std::filesystem::path(self).parent_path().parent_path() / "tools" / "vekutil";
  return std::filesystem::exists(p) ? p.string() : "";
}

class SocketToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tool_ = tool_path();
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

std::string openssl_cbc(bool encrypt, const std::string& in) {
  std::string out;
  EXPECT_EQ(0, vektest::run_program({"openssl", "enc", encrypt ? "-e" : "-d", "-aes-128-cbc", "-K", kKeyHex, "-iv",
                                     kIvHex},
                                    &out, in));
  return out;
}

TEST_F(SocketToolTest, UsageAndFailures) {
  std::string out;
  struct Case {
    std::vector<std::string> args;
    int status;
  };
  const Case cases[] = {
      {{"connect", "--help"}, 0},
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
  for (const Case& c : cases) EXPECT_EQ(c.status, run(c.args, &out)) << c.args.back();
  out.clear();
  EXPECT_EQ(0, run({"connect", "--help"}, &out));
  EXPECT_EQ(0u, out.rfind("usage: vekutil connect HOST:PORT", 0)) << out;
}

TEST_F(SocketToolTest, ConnectCopiesBothWays) {
  RawListener raw;
  const std::string input = pattern(300000, 5);
  run_async({"connect", raw.addr()}, input);
  int fd = raw.accept_fd();
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(read_to_end(fd) == input);  // the tool ends its direction after the input
  write_all(fd, "reply from the peer");
  close(fd);
  auto [status, out] = collect();
  EXPECT_EQ(0, status);
  EXPECT_EQ("reply from the peer", out);
}

TEST_F(SocketToolTest, ListenServesOneClient) {
  const int port = vektest::free_tcp_port();
  run_async({"listen", "127.0.0.1:" + std::to_string(port)}, "greetings from listen\n");
  int fd = -1;
  for (int i = 0; i < 250 && fd < 0; ++i) {
    fd = raw_connect(port);
    if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_GE(fd, 0);
  EXPECT_EQ("greetings from listen\n", read_to_end(fd));
  write_all(fd, "client data");
  shutdown(fd, SHUT_WR);
  auto [status, out] = collect();
  close(fd);
  EXPECT_EQ(0, status);
  EXPECT_EQ("client data", out);
}

TEST_F(SocketToolTest, SecureStreamIsOpensslEncOfTheInput) {
  if (!vektest::have_program("openssl")) GTEST_SKIP() << "openssl missing";
  for (size_t n : {0, 5, 16, 1000, 70001}) {
    SCOPED_TRACE(n);
    RawListener raw;
    const std::string input = pattern(n, (unsigned)n);
    run_async({"connect", raw.addr(), "--secure", kKeyHex + ":" + kIvHex}, input);
    int fd = raw.accept_fd();
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(read_to_end(fd) == openssl_cbc(true, input));
    const std::string reply = pattern(n + 3, 77);
    write_all(fd, openssl_cbc(true, reply));
    close(fd);
    auto [status, out] = collect();
    EXPECT_EQ(0, status);
    EXPECT_TRUE(out == reply);
  }
}

TEST_F(SocketToolTest, ConnectAndListenTalkSecurely) {
  const int listen_port = vektest::free_tcp_port();
  const std::string secure = kKeyHex + ":" + kIvHex;
  run_async({"listen", "127.0.0.1:" + std::to_string(listen_port), "--secure", secure}, "");
  // The tool serves one client: wait for its port by trying to bind it.
  for (int i = 0; i < 250; ++i) {
    int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(static_cast<uint16_t>(listen_port));
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool taken = bind(probe, reinterpret_cast<sockaddr*>(&sin), sizeof sin) != 0;
    close(probe);
    if (taken) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const std::string input = pattern(200000, 9);
  std::string out;
  EXPECT_EQ(0, run({"connect", loopback(listen_port), "--secure", secure}, &out, input));
  EXPECT_EQ("", out);
  auto [status, received] = collect();
  EXPECT_EQ(0, status);
  EXPECT_TRUE(received == input);
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
  run_async({"connect", target.addr(), "--proxy", "socks5://u:p@" + loopback(proxy_port), "--secure",
             kKeyHex + ":" + kIvHex},
            input);
  int fd = target.accept_fd();
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(openssl_cbc(false, read_to_end(fd)) == input);
  close(fd);
  auto [status, out] = collect();
  EXPECT_EQ(0, status);
  EXPECT_EQ("", out);
  proxy.stop();
}

}  // namespace
