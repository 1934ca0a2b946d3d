// ctest-labels: tsan
// Remote syslog: datagrams checked byte for byte on a raw socket, the
// collector fed by raw datagrams, util-linux logger and four busy senders,
// and rsyslog receiving what we send.
#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include <vekutil/vekutil.h>

#include "peer.hpp"
#include "raw_udp.hpp"
#include "vek_test.hpp"

namespace {

using vektest::RawUdp;

std::string local_time(long long ms) {
  const time_t seconds = static_cast<time_t>(ms / 1000);
  tm parts{};
  localtime_r(&seconds, &parts);
  char text[64];
  strftime(text, sizeof text, "%b %e %H:%M:%S", &parts);
  return text;
}

// ---- sending ---------------------------------------------------------------

class SyslogSendTest : public vektest::LeakCheckedTest {};

TEST_F(SyslogSendTest, DatagramsAreExactBytes) {
  RawUdp sink;
  const long long jan5 = 1736071245123LL;  // early in a month: the day is blank-padded
  struct Case {
    int facility, level;
    long long timestamp;
    const char* hostname;
    std::string message, expected;
  };
  const Case cases[] = {
      {1, 5, -1, nullptr, "hello", "<13>hello "},
      {0, 0, 0, nullptr, "zero time is no time", "<0>zero time is no time "},
      {23, 7, -1, nullptr, "", "<191> "},
      {3, 3, jan5, nullptr, "disk full", "<27>" + local_time(jan5) + " disk full "},
      {16, 4, jan5, "edge node 7", "link down", "<132>" + local_time(jan5) + " edge_node_7 link down "},
      {1, 6, -1, " a  b ", "x", "<14>_a__b_ x "},
      {1, 6, -1, "host", "line\n", "<14>host line\n "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    int rc = c.timestamp == -1 && !c.hostname
                 ? syslog_remote(sink.address().c_str(), c.facility, c.level, c.message.c_str())
                 : syslog_remote_ex(sink.address().c_str(), c.facility, c.level, c.timestamp, c.hostname,
                                    c.message.c_str());
    ASSERT_EQ(0, rc);
    EXPECT_EQ(c.expected, sink.receive().value_or("<nothing>"));
  }
  EXPECT_NE(std::string::npos, local_time(jan5).find("Jan  5")) << "time zone moved the test date";
}

TEST_F(SyslogSendTest, RefusesMissingOrOversizedInput) {
  RawUdp sink;
  const std::string huge(65536, 'x');
  struct Case {
    const char* server;
    const char* message;
    int expected;
  };
  const std::string server = sink.address();
  const Case cases[] = {
      {nullptr, "m", ERR_INVALID_PARAMETER},
      {server.c_str(), nullptr, ERR_INVALID_PARAMETER},
      {server.c_str(), huge.c_str(), ERR_UDP_TOO_LARGE},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.expected, syslog_remote(c.server, 1, 5, c.message));
    EXPECT_EQ(c.expected, syslog_remote_ex(c.server, 1, 5, time_now(), "h", c.message));
  }
  EXPECT_FALSE(sink.receive(100).has_value());
}

// ---- collecting ------------------------------------------------------------

struct Received {
  int facility, level;
  long long timestamp;
  std::string hostname, message;
  std::string thread_name;
  size_t stack_size;
};

// Gathers what the collector hands to its callback.
class Inbox {
 public:
  static void on_message(int facility, int level, long long timestamp, const char* hostname, const char* message,
                         void* custom) {
    auto* inbox = static_cast<Inbox*>(custom);
    Received r{facility, level, timestamp, hostname, message, "", 0};
    if (inbox->inspect_thread_) inspect_thread(&r);
    std::lock_guard<std::mutex> guard(inbox->lock_);
    inbox->messages_.push_back(std::move(r));
    inbox->arrived_.notify_all();
  }

  // Waits until a message satisfies done (or times out); returns a copy.
  template <class Pred>
  std::vector<Received> wait_for(Pred done, int timeout_ms = 5000) {
    std::unique_lock<std::mutex> guard(lock_);
    arrived_.wait_for(guard, std::chrono::milliseconds(timeout_ms), [&] {
      for (const Received& r : messages_)
        if (done(r)) return true;
      return false;
    });
    return messages_;
  }
  std::vector<Received> until_message(const std::string& text) {
    return wait_for([&](const Received& r) { return r.message == text; });
  }
  void clear() {
    std::lock_guard<std::mutex> guard(lock_);
    messages_.clear();
  }
  void inspect_threads() { inspect_thread_ = true; }

 private:
  static void inspect_thread(Received* r) {
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    r->thread_name = name;
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
      pthread_attr_getstacksize(&attr, &r->stack_size);
      pthread_attr_destroy(&attr);
    }
  }

  std::mutex lock_;
  std::condition_variable arrived_;
  std::vector<Received> messages_;
  std::atomic<bool> inspect_thread_{false};
};

class SyslogCollectorTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_EQ(0, syslog_collector_create(&collector_, 0, Inbox::on_message, &inbox_));
    port_ = syslog_collector_port(collector_);
    ASSERT_GT(port_, 0);
  }
  void TearDown() override {
    EXPECT_EQ(0, syslog_collector_delete(collector_));
    LeakCheckedTest::TearDown();
  }

  Inbox inbox_;
  void* collector_ = nullptr;
  int port_ = 0;
};

TEST_F(SyslogCollectorTest, HandsOverLevelSenderReceiveTimeAndMessage) {
  inbox_.inspect_threads();
  RawUdp sender;
  const long long before = time_now();
  ASSERT_TRUE(sender.send_to(port_, "<13>hello\n"));
  const std::vector<Received> got = inbox_.until_message("hello");
  const long long after = time_now();
  ASSERT_EQ(1u, got.size());
  EXPECT_EQ(0, got[0].facility);
  EXPECT_EQ(5, got[0].level);
  EXPECT_EQ("127.0.0.1", got[0].hostname);
  EXPECT_GE(got[0].timestamp, before);
  EXPECT_LE(got[0].timestamp, after);
  EXPECT_EQ("Syslog UDP List", got[0].thread_name);  // the kernel keeps 15 characters
  EXPECT_GE(got[0].stack_size, 256u * 1024u);
}

TEST_F(SyslogCollectorTest, MalformedDatagramsNeverStopTheCollector) {
  RawUdp sender;
  const std::string big = "<14>" + std::string(65507 - 4, 'b');
  struct Case {
    std::string datagram;
    bool delivered;
    int level;
    std::string message;
  };
  const Case cases[] = {
      {"", false, 0, ""},
      {"<", false, 0, ""},  // the dropped last byte leaves nothing
      {"<>", true, 0, ""},
      {"<>\n", true, 0, ""},
      {"<13 no close\n", true, 5, " no close"},
      {"<12345678901234567890>x\n", true, 2, "x"},  // 20 digits, taken modulo 8
      {"<-5>negative\n", true, 0, "negative"},
      {"<13>no newline", true, 5, "no newlin"},
      {std::string("<13>a\0b\n", 8), true, 5, "a"},
      {"x<13>late bracket\n", false, 0, ""},
      {"no priority\n", false, 0, ""},
      {big, true, 6, std::string(16384 - 4 - 1, 'b')},  // cut to the receive buffer
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.datagram.substr(0, 40)));
    inbox_.clear();
    ASSERT_TRUE(sender.send_to(port_, c.datagram));
    ASSERT_TRUE(sender.send_to(port_, "<7>sentinel\n"));
    const std::vector<Received> got = inbox_.until_message("sentinel");
    ASSERT_FALSE(got.empty());
    ASSERT_EQ("sentinel", got.back().message);
    ASSERT_EQ(c.delivered ? 2u : 1u, got.size());
    if (c.delivered) {
      EXPECT_EQ(c.level, got[0].level);
      EXPECT_EQ(0, got[0].facility);
      EXPECT_EQ(c.message, got[0].message);
    }
  }
}

TEST_F(SyslogCollectorTest, ReceivesWhatUtilLinuxLoggerSends) {
  if (!vektest::have_program("logger")) GTEST_SKIP() << "logger (bsdutils) is not installed";
  struct Case {
    const char* priority;
    int level;
  };
  const Case cases[] = {{"user.notice", 5}, {"local0.warning", 4}, {"daemon.err", 3}, {"local7.debug", 7}};
  for (const Case& c : cases) {
    const std::string text = std::string("logger says ") + c.priority;
    ASSERT_EQ(0, vektest::run_program({"logger", "-n", "127.0.0.1", "-P", std::to_string(port_), "-d",
                                       "--rfc3164", "-p", c.priority, "-t", "vektest", text}));
    // logger sends no newline, so the dropped last byte is the text's own.
    const std::string expected_tail = "vektest: " + text.substr(0, text.size() - 1);
    const auto got = inbox_.wait_for([&](const Received& r) {
      return r.message.size() >= expected_tail.size() &&
             r.message.compare(r.message.size() - expected_tail.size(), std::string::npos, expected_tail) == 0;
    });
    ASSERT_FALSE(got.empty()) << c.priority;
    EXPECT_EQ(c.level, got.back().level) << c.priority;
    EXPECT_EQ(0, got.back().facility);
    EXPECT_EQ("127.0.0.1", got.back().hostname);
  }
}

// Four senders, each pushing the same number of datagrams as fast as they
// can. UDP may drop under that load; every datagram that arrives must be
// handed over intact, and the count is reported.
TEST_F(SyslogCollectorTest, FourSendersFloodOneCollector) {
  const int per_sender = vektest::kSanitized ? 10000 : 100000;
  std::atomic<long> well_formed{0}, malformed{0};
  struct Tally {
    std::atomic<long>* good;
    std::atomic<long>* bad;
  } tally{&well_formed, &malformed};
  void* flood = nullptr;
  auto check = [](int facility, int level, long long, const char* host, const char* message, void* custom) {
    auto* t = static_cast<Tally*>(custom);
    int sender = -1, seq = -1;
    char tail = 0;
    const bool ok = facility == 0 && std::strcmp(host, "127.0.0.1") == 0 &&
                    std::sscanf(message, "sender %d seq %d%c", &sender, &seq, &tail) == 2 && sender >= 0 &&
                    sender < 4 && level == sender + 1;
    (ok ? t->good : t->bad)->fetch_add(1);
  };
  ASSERT_EQ(0, syslog_collector_create(&flood, 0, check, &tally));
  const int port = syslog_collector_port(flood);
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> senders;
  for (int s = 0; s < 4; ++s)
    senders.emplace_back([port, s, per_sender] {
      RawUdp out;
      for (int i = 0; i < per_sender; ++i)
        out.send_to(port, "<" + std::to_string(8 + s + 1) + ">sender " + std::to_string(s) + " seq " +
                              std::to_string(i) + "\n");
    });
  for (std::thread& t : senders) t.join();
  // Let the collector drain its queue: stop when the count stands still.
  long last = -1;
  for (int i = 0; i < 100 && well_formed.load() + malformed.load() != last; ++i) {
    last = well_formed.load() + malformed.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(0, syslog_collector_delete(flood));
  const long sent = 4L * per_sender;
  std::printf("[ report   ] 4 senders x %d datagrams: %ld received (%.1f%%), %ld malformed, %.2f s\n", per_sender,
              well_formed.load(), 100.0 * well_formed.load() / sent, malformed.load(), seconds);
  RecordProperty("datagrams_sent", std::to_string(sent));
  RecordProperty("datagrams_received", std::to_string(well_formed.load()));
  EXPECT_EQ(0, malformed.load());
  EXPECT_GT(well_formed.load(), 0);
  EXPECT_LE(well_formed.load(), sent);
}

TEST_F(SyslogCollectorTest, RefusesBadArgumentsAndBusyPorts) {
  void* other = nullptr;
  EXPECT_EQ(ERR_INVALID_PARAMETER, syslog_collector_create(nullptr, 0, Inbox::on_message, nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, syslog_collector_create(&other, 0, nullptr, nullptr));
  EXPECT_EQ(nullptr, other);
  EXPECT_EQ(ERR_INVALID_PARAMETER, syslog_collector_delete(nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, syslog_collector_port(nullptr));
  RawUdp holder;  // bound without address reuse: the port is taken
  EXPECT_EQ(ERR_SOCKET_BIND, syslog_collector_create(&other, holder.port(), Inbox::on_message, nullptr));
  EXPECT_EQ(nullptr, other);
}

// Deleting must end the receiver promptly however much traffic arrives, and
// never while a callback is still running.
class SyslogStopTest : public vektest::LeakCheckedTest {};

TEST_F(SyslogStopTest, DeleteWhileDatagramsArrive) {
  struct Busy {
    std::atomic<int> inside{0};
    std::atomic<long> calls{0};
  };
  for (int round = 0; round < (vektest::kSanitized ? 3 : 8); ++round) {
    Busy busy;
    void* collector = nullptr;
    ASSERT_EQ(0, syslog_collector_create(
                     &collector, 0,
                     [](int, int, long long, const char*, const char*, void* custom) {
                       auto* b = static_cast<Busy*>(custom);
                       b->inside.fetch_add(1);
                       b->calls.fetch_add(1);
                       b->inside.fetch_sub(1);
                     },
                     &busy));
    const int port = syslog_collector_port(collector);
    std::atomic<bool> run{true};
    std::thread sender([&] {
      RawUdp out;
      for (int i = 0; run.load() && i < 2000000; ++i) out.send_to(port, "<11>flood\n");
    });
    while (busy.calls.load() < 50) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, syslog_collector_delete(collector));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(0, busy.inside.load());
    EXPECT_LT(took, std::chrono::seconds(5));
    run = false;
    sender.join();
  }
}

// ---- rsyslog ---------------------------------------------------------------

// rsyslogd from Debian, run in the foreground without privileges on a
// loopback port, writing facility, severity, host and text of every message
// it gets into one file.
class Rsyslog {
 public:
  bool start() {
    if (!vektest::have_program("rsyslogd")) return false;
    port_ = vektest::free_udp_port();
    out_ = dir_.file("messages.log");
    const std::string conf = dir_.file("rsyslog.conf");
    vektest::write_file(conf, "global(workDirectory=\"" + dir_.path() +
                                  "\")\n"
                                  "module(load=\"imudp\")\n"
                                  "input(type=\"imudp\" address=\"127.0.0.1\" port=\"" +
                                  std::to_string(port_) +
                                  "\")\n"
                                  "template(name=\"fields\" type=\"string\" "
                                  "string=\"%syslogfacility%|%syslogseverity%|%hostname%|%syslogtag%%msg%\\n\")\n"
                                  "*.* action(type=\"omfile\" file=\"" +
                                  out_ + "\" template=\"fields\")\n");
    if (!process_.start({"rsyslogd", "-n", "-f", conf, "-i", dir_.file("rsyslogd.pid")}, dir_.file("rsyslogd.out")))
      return false;
    // UDP has no handshake: probe until a message shows up in the file.
    for (int i = 0; i < 100; ++i) {
      syslog_remote_ex(server().c_str(), 1, 7, time_now(), "probe", "ready?");
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      if (vektest::read_file(out_).find("ready?") != std::string::npos) return true;
    }
    return false;
  }
  std::string server() const { return "127.0.0.1:" + std::to_string(port_); }
  // Waits until a line of the output file contains needle; returns that line.
  std::string line_with(const std::string& needle) const {
    for (int i = 0; i < 100; ++i) {
      std::ifstream in(out_);
      std::string line;
      while (std::getline(in, line))
        if (line.find(needle) != std::string::npos) return line;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return "";
  }

 private:
  vektest::TempDir dir_;
  vektest::PeerProcess process_;
  std::string out_;
  int port_ = 0;
};

TEST(SyslogRsyslogTest, RsyslogRecordsFacilityLevelHostAndMessage) {
  Rsyslog rsyslog;
  if (!vektest::have_program("rsyslogd")) GTEST_SKIP() << "rsyslog is not installed";
  ASSERT_TRUE(rsyslog.start());
  struct Case {
    int facility, level;
    const char* hostname;
    const char* message;
    std::string expected;
  };
  const Case cases[] = {
      {20, 3, "edge node", "vekapp: disk full on /var", "20|3|edge_node|vekapp: disk full on /var "},
      {1, 6, "db1", "vekapp[42]: started", "1|6|db1|vekapp[42]: started "},
      {4, 0, "x y z", "auth: emergency", "4|0|x_y_z|auth: emergency "},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(0, syslog_remote_ex(rsyslog.server().c_str(), c.facility, c.level, time_now(), c.hostname, c.message));
    EXPECT_EQ(c.expected, rsyslog.line_with(c.message));
  }
}

// ---- the command-line tool -------------------------------------------------

TEST(UdpToolTest, SyslogStatsdAndSyslogdCommands) {
  const std::string tool = vektest::tool_path();
  if (tool.empty()) GTEST_SKIP() << "the vekutil tool is not built";
  RawUdp sink;
  struct Case {
    std::vector<std::string> args;
    int exit_code;
    std::string datagram_start;  // empty: nothing is sent
  };
  const Case cases[] = {
      {{"statsd", sink.address(), "api.calls:3|c", "--rate", "0.5"}, 0, "api.calls:3|c|@0.50"},
      {{"statsd", sink.address(), "queue:-4|g"}, 0, "queue:-4|g"},
      {{"statsd", sink.address(), "queue:x|g"}, 2, ""},
      {{"statsd", sink.address(), "t:1|ms", "--rate", "0.5"}, 2, ""},
      {{"syslog", sink.address(), "--facility", "3", "--level", "4", "--hostname", "a b", "up"}, 0, "<28>"},
      {{"syslog", sink.address(), "--level", "9", "x"}, 2, ""},
      {{"syslog", "127.0.0.1", "no port"}, 2, ""},
      {{"syslogd", "--help"}, 0, ""},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv = {tool};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    EXPECT_EQ(c.exit_code, vektest::run_program(argv)) << testing::PrintToString(c.args);
    const std::string got = sink.receive(c.datagram_start.empty() ? 100 : 2000).value_or("");
    EXPECT_EQ(c.datagram_start, got.substr(0, c.datagram_start.size())) << testing::PrintToString(c.args);
    EXPECT_TRUE(c.datagram_start != "<28>" || got.find(" a_b up ") != std::string::npos) << got;
  }
  // The collector command prints one line per message.
  vektest::TempDir dir;
  vektest::PeerProcess syslogd;
  const int port = vektest::free_udp_port();
  ASSERT_TRUE(syslogd.start({tool, "syslogd", "--listen", std::to_string(port), "--out", dir.file("out.txt")}));
  std::string printed;
  for (int i = 0; i < 100 && printed.find("127.0.0.1 6 ") == std::string::npos; ++i) {
    syslog_remote(("127.0.0.1:" + std::to_string(port)).c_str(), 1, 6, "tool check");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    printed = vektest::read_file(dir.file("out.txt"));
  }
  EXPECT_NE(std::string::npos, printed.find(" 127.0.0.1 6 tool check\n")) << printed;
}

}  // namespace
