// ctest-labels: tsan
// Remote syslog: datagrams byte for byte, the collector fed by raw datagrams,
// util-linux logger and busy senders, and rsyslog receiving what we send.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
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

// Polls a file (bounded, 10 s) until it contains needle; returns its last text.
std::string wait_for_text(const std::string& path, const std::string& needle,
                          const std::function<void()>& each_try = {}) {
  std::string text;
  for (int i = 0; i < 200 && text.find(needle) == std::string::npos; ++i) {
    if (each_try) each_try();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    text = vektest::read_file(path);
  }
  return text;
}

class SyslogTest : public vektest::LeakCheckedTest {};

// Refusals first: a datagram sent despite one would show up in place of the
// next expected one.
TEST_F(SyslogTest, DatagramsAreExactBytesOrRefused) {
  RawUdp sink;
  const std::string server = sink.address(), huge(65536, 'x');
  const long long jan5 = 1736071245123LL;  // early in a month: the day is blank-padded
  struct Case {
    const char* server;
    int facility, level;
    long long timestamp;  // -1 with no hostname: the short call
    const char *hostname, *message;
    int rc;
    std::string expected;
  };
  const Case cases[] = {
      {nullptr, 1, 5, -1, nullptr, "m", ERR_INVALID_PARAMETER, ""},
      {nullptr, 1, 5, jan5, "h", "m", ERR_INVALID_PARAMETER, ""},
      {server.c_str(), 1, 5, -1, nullptr, nullptr, ERR_INVALID_PARAMETER, ""},
      {server.c_str(), 1, 5, jan5, "h", nullptr, ERR_INVALID_PARAMETER, ""},
      {server.c_str(), 1, 5, -1, nullptr, huge.c_str(), ERR_UDP_TOO_LARGE, ""},
      {server.c_str(), 1, 5, jan5, "h", huge.c_str(), ERR_UDP_TOO_LARGE, ""},
      {server.c_str(), 1, 5, -1, nullptr, "hello", 0, "<13>hello "},
      {server.c_str(), 0, 0, 0, nullptr, "zero time is no time", 0, "<0>zero time is no time "},
      {server.c_str(), 23, 7, -1, nullptr, "", 0, "<191> "},
      {server.c_str(), 3, 3, jan5, nullptr, "disk full", 0, "<27>" + local_time(jan5) + " disk full "},
      {server.c_str(), 16, 4, jan5, "edge node 7", "link down", 0,
       "<132>" + local_time(jan5) + " edge_node_7 link down "},
      {server.c_str(), 1, 6, -1, " a  b ", "x", 0, "<14>_a__b_ x "},
      {server.c_str(), 1, 6, -1, "host", "line\n", 0, "<14>host line\n "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.expected) + " " + std::to_string(c.rc));
    EXPECT_EQ(c.rc, c.timestamp == -1 && !c.hostname
                        ? syslog_remote(c.server, c.facility, c.level, c.message)
                        : syslog_remote_ex(c.server, c.facility, c.level, c.timestamp, c.hostname, c.message));
    if (c.rc != 0) continue;
    EXPECT_EQ(c.expected, sink.receive().value_or("<nothing>"));
  }
  EXPECT_FALSE(sink.receive(100).has_value());
  EXPECT_NE(std::string::npos, local_time(jan5).find("Jan  5")) << "time zone moved the test date";
}

// Deleting must end the receiver promptly however much traffic arrives, and
// never while a callback is still running.
TEST_F(SyslogTest, DeleteWhileDatagramsArrive) {
  struct Busy {
    std::atomic<int> inside{0};
    std::atomic<long> calls{0};
  };
  auto on_message = [](int, int, long long, const char*, const char*, void* custom) {
    auto* b = static_cast<Busy*>(custom);
    b->inside.fetch_add(1);
    b->calls.fetch_add(1);
    b->inside.fetch_sub(1);
  };
  for (int round = 0; round < (vektest::kSanitized ? 3 : 8); ++round) {
    Busy busy;
    void* collector = nullptr;
    ASSERT_EQ(0, syslog_collector_create(&collector, 0, on_message, &busy));
    const int port = syslog_collector_port(collector);
    std::atomic<bool> run{true};
    std::thread sender([&] {
      RawUdp out;
      for (int i = 0; run.load() && i < 2000000; ++i) out.send_to(port, "<11>flood\n");
    });
    for (int i = 0; i < 10000 && busy.calls.load() < 50; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_GE(busy.calls.load(), 50) << "the collector took nothing in";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, syslog_collector_delete(collector));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(0, busy.inside.load());
    run = false;
    sender.join();
  }
}

struct Received {
  int facility, level;
  long long timestamp;
  std::string hostname, message, thread_name;
  size_t stack_size;
};

// A collector on a port of its own, gathering what it hands to its callback.
class SyslogCollectorTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_EQ(0, syslog_collector_create(&collector_, 0, on_message, this));
    port_ = syslog_collector_port(collector_);
    ASSERT_GT(port_, 0);
  }
  void TearDown() override {
    EXPECT_EQ(0, syslog_collector_delete(collector_));
    LeakCheckedTest::TearDown();
  }

  static void on_message(int facility, int level, long long timestamp, const char* host, const char* message,
                         void* custom) {
    Received r{facility, level, timestamp, host, message, "", 0};
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    r.thread_name = name;
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
      pthread_attr_getstacksize(&attr, &r.stack_size);
      pthread_attr_destroy(&attr);
    }
    auto* self = static_cast<SyslogCollectorTest*>(custom);
    std::lock_guard<std::mutex> guard(self->lock_);
    self->received_.push_back(std::move(r));
    self->arrived_.notify_all();
  }

  // What arrived once a message satisfies done, or after 5 s.
  template <class Pred>
  std::vector<Received> wait_for(Pred done) {
    std::unique_lock<std::mutex> guard(lock_);
    arrived_.wait_for(guard, std::chrono::seconds(5),
                      [&] { return std::any_of(received_.begin(), received_.end(), done); });
    return received_;
  }
  std::vector<Received> until_message(const std::string& text) {
    return wait_for([&](const Received& r) { return r.message == text; });
  }

  std::mutex lock_;
  std::condition_variable arrived_;
  std::vector<Received> received_;
  void* collector_ = nullptr;
  int port_ = 0;
};

// Each datagram is followed by a sentinel: it is handed over before it or
// dropped, and bad ones never stop the collector.
TEST_F(SyslogCollectorTest, DatagramsAreHandedOverOrDropped) {
  RawUdp sender;
  const std::string big = "<14>" + std::string(65507 - 4, 'b');
  struct Case {
    std::string datagram;
    bool delivered;
    int level;
    std::string message;
  };
  const Case cases[] = {
      {"<13>hello\n", true, 5, "hello"},
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
    {
      std::lock_guard<std::mutex> guard(lock_);
      received_.clear();
    }
    const long long before = time_now();
    ASSERT_TRUE(sender.send_to(port_, c.datagram));
    ASSERT_TRUE(sender.send_to(port_, "<7>sentinel\n"));
    const std::vector<Received> got = until_message("sentinel");
    ASSERT_FALSE(got.empty());
    for (const Received& r : got) {
      EXPECT_EQ("127.0.0.1", r.hostname);
      EXPECT_GE(r.timestamp, before);
      EXPECT_LE(r.timestamp, time_now());
      EXPECT_EQ("Syslog UDP List", r.thread_name);  // the kernel keeps 15 characters
      EXPECT_GE(r.stack_size, 256u * 1024u);
    }
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
  const std::pair<const char*, int> cases[] = {{"user.notice", 5}, {"local0.warning", 4}, {"daemon.err", 3},
                                               {"local7.debug", 7}};
  for (const auto& [priority, level] : cases) {
    const std::string text = std::string("logger says ") + priority;
    ASSERT_EQ(0, vektest::run_program({"logger", "-n", "127.0.0.1", "-P", std::to_string(port_), "-d", "--rfc3164",
                                       "-p", priority, "-t", "vektest", text}));
    // logger sends no newline, so the dropped last byte is the text's own.
    const std::string tail = "vektest: " + text.substr(0, text.size() - 1);
    const auto got = wait_for([&](const Received& r) { return r.message.ends_with(tail); });
    ASSERT_FALSE(got.empty()) << priority;
    EXPECT_EQ(level, got.back().level) << priority;
    EXPECT_EQ(0, got.back().facility);
    EXPECT_EQ("127.0.0.1", got.back().hostname);
  }
}

// Four senders push datagrams as fast as they can. UDP may drop under that
// load; every datagram that arrives must be handed over intact.
TEST_F(SyslogCollectorTest, FourSendersFloodOneCollector) {
  const int per_sender = vektest::kSanitized ? 10000 : 100000;
  struct Tally {
    std::atomic<long> good{0}, bad{0};
    long total() const { return good.load() + bad.load(); }
  } tally;
  auto check = [](int facility, int level, long long, const char* host, const char* message, void* custom) {
    auto* t = static_cast<Tally*>(custom);
    int sender = -1, seq = -1;
    char tail = 0;
    const bool ok = facility == 0 && std::strcmp(host, "127.0.0.1") == 0 &&
                    std::sscanf(message, "sender %d seq %d%c", &sender, &seq, &tail) == 2 && sender >= 0 &&
                    sender < 4 && level == sender + 1;
    (ok ? t->good : t->bad).fetch_add(1);
  };
  void* flood = nullptr;
  ASSERT_EQ(0, syslog_collector_create(&flood, 0, check, &tally));
  const int port = syslog_collector_port(flood);
  std::vector<std::thread> senders;
  for (int s = 0; s < 4; ++s)
    senders.emplace_back([port, s, per_sender] {
      RawUdp out;
      for (int i = 0; i < per_sender; ++i)
        out.send_to(port, "<" + std::to_string(9 + s) + ">sender " + std::to_string(s) + " seq " + std::to_string(i) +
                              "\n");
    });
  for (std::thread& t : senders) t.join();
  // Let the collector drain its queue: stop when the count stands still.
  for (long last = -1, i = 0; i < 100 && tally.total() != last; ++i) {
    last = tally.total();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(0, syslog_collector_delete(flood));
  const long sent = 4L * per_sender;
  std::printf("[ report   ] 4 senders x %d datagrams: %ld received (%.1f%%)\n", per_sender, tally.good.load(),
              100.0 * tally.good.load() / sent);
  EXPECT_EQ(0, tally.bad.load());
  EXPECT_GT(tally.good.load(), 0);
  EXPECT_LE(tally.good.load(), sent);
}

TEST_F(SyslogCollectorTest, RefusesBadArgumentsAndBusyPorts) {
  void* other = nullptr;
  EXPECT_EQ(ERR_INVALID_PARAMETER, syslog_collector_create(nullptr, 0, on_message, nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, syslog_collector_create(&other, 0, nullptr, nullptr));
  EXPECT_EQ(nullptr, other);
  EXPECT_EQ(ERR_INVALID_PARAMETER, syslog_collector_delete(nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, syslog_collector_port(nullptr));
  RawUdp holder;  // bound without address reuse: the port is taken
  EXPECT_EQ(ERR_SOCKET_BIND, syslog_collector_create(&other, holder.port(), on_message, nullptr));
  EXPECT_EQ(nullptr, other);
}

// rsyslogd in the foreground, unprivileged, on a loopback port, writing
// facility|severity|host|tag+text of every message into one file.
TEST_F(SyslogTest, RsyslogRecordsFacilityLevelHostAndMessage) {
  if (!vektest::have_program("rsyslogd")) GTEST_SKIP() << "rsyslog is not installed";
  vektest::TempDir dir;
  const int port = vektest::free_udp_port();
  const std::string server = "127.0.0.1:" + std::to_string(port);
  const std::string out = dir.file("messages.log"), conf = dir.file("rsyslog.conf");
  vektest::write_file(conf, "global(workDirectory=\"" + dir.path() + "\")\nmodule(load=\"imudp\")\n" +
                                "input(type=\"imudp\" address=\"127.0.0.1\" port=\"" +
                                std::to_string(port) + "\")\n" +
                                "template(name=\"fields\" type=\"string\" string=\"%syslogfacility%|"
                                "%syslogseverity%|%hostname%|%syslogtag%%msg%\\n\")\n" +
                                "*.* action(type=\"omfile\" file=\"" + out + "\" template=\"fields\")\n");
  vektest::PeerProcess rsyslogd;
  ASSERT_TRUE(rsyslogd.start({"rsyslogd", "-n", "-f", conf, "-i", dir.file("rsyslogd.pid")}, dir.file("rsyslogd.out")));
  // UDP has no handshake: probe until a message shows up in the file.
  const auto probe = [&] { syslog_remote_ex(server.c_str(), 1, 7, time_now(), "probe", "ready?"); };
  ASSERT_NE(std::string::npos, wait_for_text(out, "ready?", probe).find("ready?"));
  struct Case {
    int facility, level;
    const char *hostname, *message, *expected;
  } const cases[] = {
      {20, 3, "edge node", "vekapp: disk full on /var", "\n20|3|edge_node|vekapp: disk full on /var \n"},
      {1, 6, "db1", "vekapp[42]: started", "\n1|6|db1|vekapp[42]: started \n"},
      {4, 0, "x y z", "auth: emergency", "\n4|0|x_y_z|auth: emergency \n"},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(0, syslog_remote_ex(server.c_str(), c.facility, c.level, time_now(), c.hostname, c.message));
    EXPECT_NE(std::string::npos, wait_for_text(out, c.message).find(c.expected)) << c.expected;
  }
}

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
  const auto send = [&] { syslog_remote(("127.0.0.1:" + std::to_string(port)).c_str(), 1, 6, "tool check"); };
  const std::string printed = wait_for_text(dir.file("out.txt"), "127.0.0.1 6 ", send);
  EXPECT_NE(std::string::npos, printed.find(" 127.0.0.1 6 tool check\n")) << printed;
}

}  // namespace
