// ctest-labels: tsan
// statsd publisher: exact datagrams, one publisher shared by threads, and the
// statsd daemon from the npm registry aggregating what we send.
#include <chrono>
#include <cmath>
#include <filesystem>
#include <set>
#include <thread>
#include <vector>

#include <vekutil/vekutil.h>

#include "peer.hpp"
#include "raw_udp.hpp"
#include "vek_test.hpp"

namespace {

using vektest::RawUdp;

class StatsdTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_EQ(0, statsd_create(&publisher_, sink_.address().c_str()));
  }
  void TearDown() override {
    EXPECT_EQ(0, statsd_delete(publisher_));
    LeakCheckedTest::TearDown();
  }

  RawUdp sink_;
  void* publisher_ = nullptr;
};

TEST_F(StatsdTest, MetricsAreExactDatagrams) {
  enum Kind { kGauge, kTiming, kCounter };
  struct Case {
    Kind kind;
    const char* bucket;
    int value;
    float sampling;
    std::string expected;
  };
  const std::string long_bucket(300, 'b');
  const Case cases[] = {
      {kGauge, "temp", 42, 0, "temp:42|g"},
      {kGauge, "temp", -7, 0, "temp:-7|g"},
      {kTiming, "db.query", 120, 0, "db.query:120|ms"},
      {kCounter, "hits", 3, 0.0f, "hits:3|c"},
      {kCounter, "hits", 3, 0.5f, "hits:3|c|@0.50"},
      {kCounter, "hits", 1, 0.1f, "hits:1|c|@0.10"},
      {kCounter, "hits", 1, 0.005f, "hits:1|c|@0.00"},  // 0.005f lies just below 0.005
      {kCounter, "hits", 2, -0.0f, "hits:2|c"},
      {kCounter, "hits", 2, NAN, "hits:2|c|@nan"},
      {kCounter, "min", -2147483647 - 1, 1.0f, "min:-2147483648|c|@1.00"},
      {kGauge, "", 0, 0, ":0|g"},
      {kGauge, long_bucket.c_str(), 1, 0, long_bucket.substr(0, 255)},  // cut to the buffer
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    int rc = c.kind == kGauge    ? statsd_publish_gauge(publisher_, c.bucket, c.value)
             : c.kind == kTiming ? statsd_publish_timing(publisher_, c.bucket, c.value)
                                 : statsd_publish_counter(publisher_, c.bucket, c.value, c.sampling);
    ASSERT_EQ(0, rc);
    EXPECT_EQ(c.expected, sink_.receive().value_or("<nothing>"));
  }
}

TEST_F(StatsdTest, RefusesMissingArguments) {
  void* other = nullptr;
  EXPECT_EQ(ERR_INVALID_PARAMETER, statsd_create(nullptr, "127.0.0.1:1"));
  EXPECT_EQ(ERR_INVALID_PARAMETER, statsd_create(&other, nullptr));
  EXPECT_EQ(nullptr, other);
  EXPECT_EQ(ERR_INVALID_PARAMETER, statsd_delete(nullptr));
  for (void* handle : {static_cast<void*>(nullptr), publisher_}) {
    const char* bucket = handle ? nullptr : "b";
    EXPECT_EQ(ERR_INVALID_PARAMETER, statsd_publish_gauge(handle, bucket, 1));
    EXPECT_EQ(ERR_INVALID_PARAMETER, statsd_publish_timing(handle, bucket, 1));
    EXPECT_EQ(ERR_INVALID_PARAMETER, statsd_publish_counter(handle, bucket, 1, 0.5f));
    EXPECT_EQ(ERR_INVALID_PARAMETER, statsd_publish_counter(handle, bucket, 1, 0.0f));
  }
  EXPECT_FALSE(sink_.receive(100).has_value());
}

// Threads share one publisher: every datagram must arrive whole, never two
// metrics mixed into one.
TEST_F(StatsdTest, ThreadsShareOnePublisher) {
  const int threads = 4, per_thread = vektest::kSanitized ? 500 : 5000;
  const auto expected = [](int t, int i) {
    const char* kinds[] = {"|g", "|ms", "|c|@0.25"};
    return "worker." + std::to_string(t) + ":" + std::to_string(i) + kinds[i % 3];
  };
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([this, t, per_thread] {
      const std::string bucket = "worker." + std::to_string(t);
      for (int i = 0; i < per_thread; ++i) {
        const int rc = (i % 3 == 0)   ? statsd_publish_gauge(publisher_, bucket.c_str(), i)
                       : (i % 3 == 1) ? statsd_publish_timing(publisher_, bucket.c_str(), i)
                                      : statsd_publish_counter(publisher_, bucket.c_str(), i, 0.25f);
        ASSERT_EQ(0, rc);
      }
    });
  std::set<std::string> seen;
  int malformed = 0;
  while (auto datagram = sink_.receive(500)) {
    int t = -1, i = -1;
    const bool ok = std::sscanf(datagram->c_str(), "worker.%d:%d|", &t, &i) == 2 && t >= 0 && t < threads &&
                    i >= 0 && *datagram == expected(t, i);
    malformed += ok ? 0 : 1;
    seen.insert(*datagram);
  }
  for (std::thread& w : workers) w.join();
  EXPECT_EQ(0, malformed);
  // Loopback with a large receive queue loses nothing at this rate; allow a
  // little for a machine under heavy load.
  EXPECT_GE(seen.size(), static_cast<size_t>(threads * per_thread * 9 / 10));
}

// The statsd daemon (npm package "statsd", installed on first use beside the
// test binary) run with the machine's node. A small backend keeps running
// totals over all flushes (counters added, gauges replaced, timer samples
// collected) and rewrites them as sorted lines "c|g|t NAME VALUE" each flush.
class StatsdDaemon {
 public:
  // Empty when the daemon runs; otherwise why it could not be started.
  std::string start() {
    namespace fs = std::filesystem;
    const std::string root = fs::path(__FILE__).parent_path().parent_path().parent_path();
    const std::string install = fs::read_symlink("/proc/self/exe").parent_path() / "peers/statsd";
    std::string log;
    if (vektest::run_program({root + "/scripts/install-statsd.sh", install}, &log, "", 300000) != 0)
      return "installing statsd with npm failed: " + log;
    port_ = vektest::free_udp_port();
    const int mgmt_port = vektest::free_tcp_port();
    totals_ = dir_.file("totals.txt");
    vektest::write_file(dir_.file("backend.js"), R"(
var fs = require('fs'), totals = {};
exports.init = function (startup, config, events) {
  events.on('flush', function (ts, m) {
    for (var k in m.counters) totals['c ' + k] = (totals['c ' + k] || 0) + m.counters[k];
    for (var k in m.gauges) totals['g ' + k] = m.gauges[k];
    for (var k in m.timers) totals['t ' + k] = (totals['t ' + k] || []).concat(m.timers[k]).sort((a, b) => a - b);
    fs.writeFileSync(config.totalsFile, Object.keys(totals).sort().map(k => k + ' ' + totals[k] + '\n').join(''));
  });
  return true;
};
)");
    vektest::write_file(dir_.file("config.js"),
                        "{ port: " + std::to_string(port_) + ", address: \"127.0.0.1\", mgmt_port: " +
                            std::to_string(mgmt_port) + ", mgmt_address: \"127.0.0.1\", flushInterval: 200, " +
                            "backends: [\"" + dir_.file("backend.js") + "\"], totalsFile: \"" + totals_ +
                            "\", deleteIdleStats: true }\n");
    if (!process_.start({"node", install + "/node_modules/statsd/stats.js", dir_.file("config.js")},
                        dir_.file("statsd.log")))
      return "node could not be started";
    if (!process_.wait_tcp_port(mgmt_port, 20000)) return "statsd did not come up: " + read_log();
    return "";
  }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string read_log() const { return vektest::read_file(dir_.file("statsd.log")); }
  std::string totals() const { return vektest::read_file(totals_); }

 private:
  vektest::TempDir dir_;
  vektest::PeerProcess process_;
  std::string totals_;
  int port_ = 0;
};

class StatsdDaemonTest : public vektest::LeakCheckedTest {};

TEST_F(StatsdDaemonTest, DaemonAggregatesGaugesCountersAndTimings) {
  StatsdDaemon daemon;
  const std::string problem = daemon.start();
  if (!problem.empty()) GTEST_SKIP() << problem;
  void* publisher = nullptr;
  ASSERT_EQ(0, statsd_create(&publisher, daemon.address().c_str()));
  ASSERT_EQ(0, statsd_publish_gauge(publisher, "vek.temperature", 42));
  ASSERT_EQ(0, statsd_publish_counter(publisher, "vek.hits", 3, 0.0f));
  ASSERT_EQ(0, statsd_publish_counter(publisher, "vek.hits", 2, 0.0f));
  ASSERT_EQ(0, statsd_publish_counter(publisher, "vek.sampled", 3, 0.5f));  // counts as 6
  ASSERT_EQ(0, statsd_publish_counter(publisher, "vek.sampled", 1, 0.1f));  // counts as 10
  ASSERT_EQ(0, statsd_publish_timing(publisher, "vek.latency", 120));
  ASSERT_EQ(0, statsd_publish_timing(publisher, "vek.latency", 80));
  ASSERT_EQ(0, statsd_delete(publisher));

  const std::vector<std::string> expected = {"c statsd.bad_lines_seen 0\n", "c statsd.metrics_received 7\n",
                                             "c vek.hits 5\n", "c vek.sampled 16\n", "g vek.temperature 42\n",
                                             "t vek.latency 80,120\n"};
  const auto has_all = [&](const std::string& text) {
    for (const std::string& line : expected)
      if (text.find(line) == std::string::npos) return false;
    return true;
  };
  std::string totals = daemon.totals();
  for (int i = 0; i < 100 && !has_all(totals); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    totals = daemon.totals();
  }
  for (const std::string& line : expected) EXPECT_NE(std::string::npos, totals.find(line)) << line << totals;
}

}  // namespace
