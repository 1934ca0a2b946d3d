// The FTP server under load: 1,000 sessions open at once, each logging in,
// listing, retrieving a small file and quitting; and one session's NOOP
// round trip while another client sits on half a command line and a third
// stops reading a 100 MB download. Under ThreadSanitizer with 50 sessions.
// ctest-labels: tsan
#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <memory>

#include "ftp_fixture.hpp"

namespace {

using namespace ftptest;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kSessions = 50;
#else
constexpr int kSessions = 1000;
#endif
constexpr int kClientThreads = 25;

class FtpLoadTest : public ServerTest {
 protected:
  void SetUp() override {
    struct rlimit lim;
    getrlimit(RLIMIT_NOFILE, &lim);
    lim.rlim_cur = lim.rlim_max;  // each session holds about five descriptors at its peak
    setrlimit(RLIMIT_NOFILE, &lim);
    ServerTest::SetUp();
    vektest::write_file(path("small.txt"), "small file contents\n");
  }

  // LIST and RETR over passive connections; true when both deliver.
  static bool list_and_retrieve(Control& c) {
    Transfer list = passive_transfer(c, "LIST", 30000);
    Transfer retr = passive_transfer(c, "RETR small.txt", 30000);
    return list.opened.rfind("125 ", 0) == 0 && list.done == "226 Transfer complete.\r\n" &&
           list.data.find(" small.txt\r\n") != std::string::npos && retr.opened.rfind("125 ", 0) == 0 &&
           retr.data == "small file contents\n" && retr.done == "226 [small.txt] Transfer complete.\r\n";
  }
};

TEST_F(FtpLoadTest, ThousandConcurrentSessionsAllSucceed) {
  struct rlimit lim;
  getrlimit(RLIMIT_NOFILE, &lim);
  if (lim.rlim_cur < (rlim_t)kSessions * 5 + 100) GTEST_SKIP() << "descriptor limit too low: " << lim.rlim_cur;
  start(nullptr);
  std::atomic<int> succeeded{0};
  std::barrier all_logged_in(kClientThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kClientThreads; ++t) {
    threads.emplace_back([&] {
      std::vector<std::unique_ptr<Control>> mine;
      std::vector<bool> ok;
      for (int i = 0; i < kSessions / kClientThreads; ++i) {
        mine.push_back(std::make_unique<Control>(port_));
        ok.push_back(mine.back()->greeting() == "220 FTP server ready\r\n" && mine.back()->login("reader"));
      }
      all_logged_in.arrive_and_wait();  // every session is open at this point
      for (size_t i = 0; i < mine.size(); ++i) {
        ok[i] = ok[i] && list_and_retrieve(*mine[i]);
        ok[i] = ok[i] && mine[i]->cmd("QUIT", 30000) == "221 Goodbye.\r\n";
        if (ok[i]) ++succeeded;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(kSessions, succeeded.load());
  stop();  // the fixture then checks that the block count is back
}

// Median NOOP round trip in ms over n tries.
double noop_median_ms(Control& c, int n) {
  std::vector<double> times;
  for (int i = 0; i < n; ++i) {
    auto t0 = Clock::now();
    EXPECT_EQ("250 NOOP command successful.\r\n", c.cmd("NOOP"));
    times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

TEST_F(FtpLoadTest, StalledClientsDoNotDelayOthers) {
  int fd = open(path("big.bin").c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_EQ(0, ftruncate(fd, 100 << 20));  // 100 MB, sparse
  close(fd);
  start(nullptr);
  Control probe(port_), half_line(port_), slow_reader(port_);
  half_line.send_raw("NO");
  ASSERT_TRUE(slow_reader.login("reader"));
  int data = connect_passive(slow_reader.cmd("PASV"));
  ASSERT_GE(data, 0);
  slow_reader.send_raw("RETR big.bin\r\n");
  EXPECT_EQ("125 Data connection open, Transfer starting.\r\n", slow_reader.line());
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the socket buffers fill up
  double during = noop_median_ms(probe, 20);
  EXPECT_LT(during, 100.0) << "NOOP median " << during << " ms while others stall";
  close(data);  // the download fails and the slow session goes on
  EXPECT_EQ("552 [big.bin] Transfer failed.\r\n", slow_reader.line(10000));
  EXPECT_EQ("250 NOOP command successful.\r\n", slow_reader.cmd("NOOP"));
  half_line.send_raw("OP\r\n");
  EXPECT_EQ("250 NOOP command successful.\r\n", half_line.line());
}

}  // namespace
