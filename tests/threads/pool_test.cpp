// ctest-labels: tsan
#include <dirent.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <set>
#include <thread>
#include <vector>

#include <vekutil/errors.h>
#include <vekutil/pool.h>
#include <vekutil/queue.h>
#include <vekutil/timeutil.h>

#include "vek_test.hpp"

namespace {

using Clock = std::chrono::steady_clock;

long long realtime_us() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec * 1000000LL + ts.tv_nsec / 1000;
}

// Waits (bounded) until done() holds.
template <class Pred>
bool eventually(Pred done, int limit_ms = 5000) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(limit_ms);
  while (!done()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

int process_thread_count() {
  int n = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* e = readdir(dir)) n += e->d_name[0] != '.';
    closedir(dir);
  }
  return n;
}

// The blocks the allocator holds, with the source that took each.
using Blocks = std::map<void*, std::string>;
void note_block(int, time_t, void* header, char*, int, const char* file, int, int, void* blocks) {
  (*static_cast<Blocks*>(blocks))[header] = file ? file : "?";
}
Blocks held_blocks() {
  Blocks blocks;
  vekMemoryDumpForeach(note_block, &blocks);
  return blocks;
}

// Registry groups and the like are made on first use and live for the
// process; make them before the first test takes its snapshot.
class Warmup : public ::testing::Environment {
 public:
  void SetUp() override {
    void* pool = nullptr;
    thread_pool_init(&pool, 1, 1, 0);
    thread_pool_uninit(pool);
  }
};
const auto* const g_warmup = ::testing::AddGlobalTestEnvironment(new Warmup);

// Every test accounts for each block it leaves. A pool that was shut down
// leaves exactly its schedule: the tree (with its read-write lock, the lock's
// name and registry entry) and the scheduled event. Cancelled items stay
// too, because their handles stay valid. Nothing else may remain: no queue,
// mutex, event, worker or pool record.
class PoolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    before_ = held_blocks();
    threads_ = process_thread_count();
  }
  void TearDown() override {
    std::map<std::string, int> left;
    for (const auto& [header, file] : held_blocks())
      if (!before_.count(header)) ++left[file];
    EXPECT_EQ(pools_shut_down_, left["src/schevent.c"]);
    EXPECT_EQ(pools_shut_down_, left["src/rwlock.c"]);
    EXPECT_EQ(pools_shut_down_, left["src/strutil.c"]);
    EXPECT_GE(left["src/btree.c"], pools_shut_down_);
    EXPECT_EQ(kept_items_, left["src/pool.c"]);
    for (const auto& [file, n] : left) {
      static const std::set<std::string> schedule_parts{"src/schevent.c", "src/rwlock.c", "src/strutil.c",
                                                        "src/btree.c", "src/pool.c"};
      if (n > 0) {
        EXPECT_TRUE(schedule_parts.count(file)) << n << " block(s) of " << file << " left";
      }
    }
    // Detached workers are gone shortly after they leave the pool.
    EXPECT_TRUE(eventually([&] { return process_thread_count() == threads_; }, 2000))
        << process_thread_count() << " threads, " << threads_ << " before";
  }
  void* make_pool(int min, int max) {
    void* pool = nullptr;
    thread_pool_init(&pool, min, max, 1048576);
    EXPECT_NE(nullptr, pool);
    return pool;
  }
  void shut_down(void* pool) {
    thread_pool_uninit(pool);
    ++pools_shut_down_;
  }
  int kept_items_ = 0;

 private:
  Blocks before_;
  int threads_ = 0;
  int pools_shut_down_ = 0;
};

void count_run(int, void* counter, void*, void*) { static_cast<std::atomic<int>*>(counter)->fetch_add(1); }

TEST_F(PoolTest, NullHandlesAndBadArguments) {
  void* handle = nullptr;
  thread_pool_init(nullptr, 1, 1, 0);
  thread_pool_init2(nullptr, nullptr, nullptr, nullptr);
  thread_pool_uninit(nullptr);
  EXPECT_EQ(ERR_INVALID_HANDLE, thread_pool_put_work(nullptr, "t", count_run, nullptr, nullptr, nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE,
            thread_pool_put_scheduled_work(nullptr, "t", &handle, 1, 0, count_run, nullptr, nullptr, nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, thread_pool_end_scheduled_work(nullptr, &handle));

  void* pool = make_pool(1, 1);
  EXPECT_EQ(ERR_INVALID_PARAMETER, thread_pool_put_work(pool, "t", nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER,
            thread_pool_put_scheduled_work(pool, "t", &handle, 1, 0, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, thread_pool_end_scheduled_work(pool, nullptr));
  shut_down(pool);

  // A forwarding pool without targets has nothing to run work on.
  thread_pool_init2(&pool, nullptr, nullptr, nullptr);
  ASSERT_NE(nullptr, pool);
  EXPECT_EQ(ERR_INVALID_HANDLE, thread_pool_put_work(pool, "t", count_run, nullptr, nullptr, nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE,
            thread_pool_put_scheduled_work(pool, "t", &handle, 1, 0, count_run, nullptr, nullptr, nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, thread_pool_end_scheduled_work(pool, &handle));
  thread_pool_uninit(pool);
}

struct Nested {
  void* pool;
  std::atomic<int> runs{0};
  std::atomic<int> bad_ids{0};
};

void run_and_spawn(int id, void* arg, void* depth, void*) {
  auto* n = static_cast<Nested*>(arg);
  if (id < 0 || id >= 3) ++n->bad_ids;
  ++n->runs;
  const auto left = reinterpret_cast<intptr_t>(depth);
  if (left > 0) thread_pool_put_work(n->pool, "nested", run_and_spawn, n, reinterpret_cast<void*>(left - 1), nullptr);
}

TEST_F(PoolTest, RunsEveryOneShotItemOnceIncludingWorkPutByWork) {
  Nested n;
  n.pool = make_pool(2, 3);
  constexpr int kItems = 2000;
  for (int i = 0; i < kItems; ++i)
    ASSERT_GE(thread_pool_put_work(n.pool, "test", run_and_spawn, &n, reinterpret_cast<void*>(i % 3 == 0), nullptr),
              1);
  const int expected = kItems + (kItems + 2) / 3;
  EXPECT_TRUE(eventually([&] { return n.runs.load() == expected; }));
  shut_down(n.pool);
  EXPECT_EQ(expected, n.runs.load());
  EXPECT_EQ(0, n.bad_ids.load()) << "worker numbers stay below the maximum";
}

struct Gate {
  std::atomic<bool> open{false};
  std::atomic<int> running{0}, most_running{0}, done{0};
  std::mutex m;
  std::set<int> ids;
};

void wait_at_gate(int id, void* arg, void*, void*) {
  auto* g = static_cast<Gate*>(arg);
  const int now = ++g->running;
  int seen = g->most_running.load();
  while (now > seen && !g->most_running.compare_exchange_weak(seen, now)) {
  }
  {
    std::lock_guard<std::mutex> lock(g->m);
    g->ids.insert(id);
  }
  while (!g->open.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  --g->running;
  ++g->done;
}

TEST_F(PoolTest, GrowsOneWorkerPerPutUpToTheMaximum) {
  void* pool = make_pool(2, 4);
  Gate gate;
  for (int i = 0; i < 10; ++i) thread_pool_put_work(pool, "test", wait_at_gate, &gate, nullptr, nullptr);
  // Ten blocked jobs: the two first workers plus at most two grown ones.
  EXPECT_TRUE(eventually([&] { return gate.running.load() >= 3; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_LE(gate.most_running.load(), 4);
  gate.open = true;
  EXPECT_TRUE(eventually([&] { return gate.done.load() == 10; }));
  shut_down(pool);
  for (int id : gate.ids) EXPECT_TRUE(id >= 0 && id < 4) << id;
}

// Workers that stopped being counted after a burst still end at shutdown.
TEST_F(PoolTest, ShutdownEndsWorkersUncountedWhileIdle) {
  void* pool = make_pool(1, 4);
  Gate gate;
  for (int i = 0; i < 8; ++i) thread_pool_put_work(pool, "burst", wait_at_gate, &gate, nullptr, nullptr);
  EXPECT_TRUE(eventually([&] { return gate.running.load() >= 2; }));
  gate.open = true;
  EXPECT_TRUE(eventually([&] { return gate.done.load() == 8; }));
  // One item at a time: every run finds the queue empty and counts as idle.
  std::atomic<int> runs{0};
  for (int i = 0; i < 120; ++i) {
    thread_pool_put_work(pool, "trickle", count_run, &runs, nullptr, nullptr);
    ASSERT_TRUE(eventually([&] { return runs.load() == i + 1; }));
  }
  shut_down(pool);
}

// Runs scheduled one-shot items and records how late each ran, in
// microseconds after the earliest moment it could have been due.
struct Lateness {
  std::mutex m;
  std::vector<long long> late_us;
  std::atomic<int> early{0};
};
struct Due {
  Lateness* log;
  long long due_us;
};

void record_lateness(int, void* arg, void*, void*) {
  auto* due = static_cast<Due*>(arg);
  const long long late = realtime_us() - due->due_us;
  if (late < 0) ++due->log->early;
  std::lock_guard<std::mutex> lock(due->log->m);
  due->log->late_us.push_back(late);
}

TEST_F(PoolTest, ScheduledWorkNeverRunsEarlyAndRunsSoonAfter) {
  void* pool = make_pool(2, 2);
  Lateness log;
  constexpr int kItems = 200;
  std::vector<Due> dues(kItems);
  for (int i = 0; i < kItems; ++i) {
    const int interval = 5 + (i * 37) % 600;  // spread over 0.6 s, in mixed order
    dues[i] = {&log, (time_now() + interval) * 1000};
    ASSERT_EQ(0, thread_pool_put_scheduled_work(pool, "test", nullptr, interval, 0, record_lateness, &dues[i],
                                                nullptr, nullptr));
    if (i % 20 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(7));
  }
  EXPECT_TRUE(eventually([&] {
    std::lock_guard<std::mutex> lock(log.m);
    return log.late_us.size() == kItems;
  }));
  shut_down(pool);
  EXPECT_EQ(0, log.early.load()) << "scheduled work ran before it was due";
  std::sort(log.late_us.begin(), log.late_us.end());
  ASSERT_EQ((size_t)kItems, log.late_us.size());
  const long long p50 = log.late_us[kItems / 2], p99 = log.late_us[kItems * 99 / 100], max = log.late_us.back();
  std::printf("scheduled lateness (us): min %lld median %lld p99 %lld max %lld over %d items\n", log.late_us[0],
              p50, p99, max, kItems);
  // 20 ms on an idle machine; the bound here leaves room for a loaded one.
  EXPECT_LT(p50, 20000);
  EXPECT_LT(max, 500000);
}

TEST_F(PoolTest, ItemsDueInTheSameMillisecondRunOneMillisecondApart) {
  void* pool = make_pool(1, 1);
  Lateness log;
  constexpr int kSame = 5;
  std::vector<Due> dues(kSame);
  for (int attempt = 0; attempt < 50; ++attempt) {
    // Schedule the whole group within one millisecond, or try again.
    const long long start = time_now();
    for (int k = 0; k < kSame; ++k) {
      dues[k] = {&log, (start + 30 + k) * 1000};
      thread_pool_put_scheduled_work(pool, "same", nullptr, 30, 0, record_lateness, &dues[k], nullptr, nullptr);
    }
    const bool same_ms = time_now() == start;
    EXPECT_TRUE(eventually([&] {
      std::lock_guard<std::mutex> lock(log.m);
      return log.late_us.size() == (size_t)kSame;
    }));
    if (same_ms) break;
    log.late_us.clear();
    log.early = 0;
  }
  shut_down(pool);
  EXPECT_EQ(0, log.early.load()) << "the k-th item of one millisecond is due k ms later";
}

struct Ticks {
  std::atomic<int> runs{0};
  std::mutex m;
  std::vector<long long> at_us;
};

void tick(int, void* arg, void*, void*) {
  auto* t = static_cast<Ticks*>(arg);
  {
    std::lock_guard<std::mutex> lock(t->m);
    t->at_us.push_back(realtime_us());
  }
  ++t->runs;
}

TEST_F(PoolTest, RepeatingWorkKeepsItsCadenceUntilCancelled) {
  void* pool = make_pool(2, 2);
  Ticks ticks;
  void* handle = nullptr;
  constexpr int kEveryMs = 40;
  const long long first_due_us = (time_now() + kEveryMs) * 1000;
  ASSERT_EQ(0, thread_pool_put_scheduled_work(pool, "tick", &handle, kEveryMs, 1, tick, &ticks, nullptr, nullptr));
  ASSERT_NE(nullptr, handle);
  EXPECT_TRUE(eventually([&] { return ticks.runs.load() >= 5; }));
  // Cancel while the item waits in the schedule, well before its next run.
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(0, thread_pool_end_scheduled_work(pool, handle));
  const int at_cancel = ticks.runs.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(4 * kEveryMs));
  EXPECT_LE(ticks.runs.load(), at_cancel + 1) << "at most the run already due";
  // The cancelled handle stays valid: cancelling again is harmless.
  EXPECT_EQ(0, thread_pool_end_scheduled_work(pool, handle));
  shut_down(pool);
  kept_items_ = 1;  // the cancelled item, kept for its handle

  std::lock_guard<std::mutex> lock(ticks.m);
  for (size_t k = 0; k < ticks.at_us.size(); ++k)
    EXPECT_GE(ticks.at_us[k], first_due_us + (long long)k * kEveryMs * 1000) << "run " << k << " came early";
  // No drift: the fifth run is not a whole period behind its slot.
  EXPECT_LT(ticks.at_us[4], first_due_us + 5LL * kEveryMs * 1000);
}

TEST_F(PoolTest, CancelledOneShotNeverRuns) {
  void* pool = make_pool(1, 1);
  std::atomic<int> runs{0};
  void* handle = nullptr;
  ASSERT_EQ(0, thread_pool_put_scheduled_work(pool, "once", &handle, 30, 0, count_run, &runs, nullptr, nullptr));
  EXPECT_EQ(0, thread_pool_end_scheduled_work(pool, handle));
  std::this_thread::sleep_for(std::chrono::milliseconds(80));
  EXPECT_EQ(0, runs.load());
  shut_down(pool);
  kept_items_ = 1;
}

TEST_F(PoolTest, ShutdownReturnsPromptlyWithIdleOrDistantSchedule) {
  // Idle schedule: the scheduler sleeps until it is woken.
  void* pool = make_pool(2, 2);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  auto start = Clock::now();
  shut_down(pool);
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1500));

  // Work due in an hour does not hold the shutdown up; it stays in the
  // abandoned schedule.
  pool = make_pool(1, 3);
  std::atomic<int> runs{0};
  ASSERT_EQ(0, thread_pool_put_scheduled_work(pool, "later", nullptr, 3600 * 1000, 0, count_run, &runs, nullptr,
                                              nullptr));
  start = Clock::now();
  shut_down(pool);
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1500));
  EXPECT_EQ(0, runs.load());
  kept_items_ = 1;  // still in the schedule
}

struct Forwarded {
  std::vector<std::string> calls;
  void* handle_seen = nullptr;
  int interval = 0, repeat = 0;
  thread_pool_callback func = nullptr;
  void* a = nullptr;
};
Forwarded* g_forwarded = nullptr;

void forward_put(const char* who, thread_pool_callback func, void* a, void*, void*) {
  g_forwarded->calls.push_back(std::string("put ") + who);
  g_forwarded->func = func;
  g_forwarded->a = a;
}
void forward_put_scheduled(const char* who, void** handle, int interval, int repeat, thread_pool_callback,
                           void*, void*, void*) {
  g_forwarded->calls.push_back(std::string("schedule ") + who);
  g_forwarded->interval = interval;
  g_forwarded->repeat = repeat;
  if (handle) *handle = g_forwarded;
}
void forward_end(void* handle) {
  g_forwarded->calls.push_back("end");
  g_forwarded->handle_seen = handle;
}

TEST_F(PoolTest, ForwardingPoolHandsEveryCallToTheHost) {
  Forwarded host;
  g_forwarded = &host;
  void* pool = nullptr;
  thread_pool_init2(&pool, forward_put, forward_put_scheduled, forward_end);
  ASSERT_NE(nullptr, pool);
  int marker = 0;
  EXPECT_EQ(0, thread_pool_put_work(pool, "alpha", count_run, &marker, nullptr, nullptr));
  EXPECT_EQ(count_run, host.func);
  EXPECT_EQ(&marker, host.a);
  void* handle = nullptr;
  EXPECT_EQ(0, thread_pool_put_scheduled_work(pool, "beta", &handle, 250, 1, count_run, nullptr, nullptr, nullptr));
  EXPECT_EQ(&host, handle);
  EXPECT_EQ(250, host.interval);
  EXPECT_EQ(1, host.repeat);
  EXPECT_EQ(0, thread_pool_end_scheduled_work(pool, nullptr)) << "the host decides what a null handle means";
  EXPECT_EQ(nullptr, host.handle_seen);
  EXPECT_EQ((std::vector<std::string>{"put alpha", "schedule beta", "end"}), host.calls);
  thread_pool_uninit(pool);
  g_forwarded = nullptr;
}

}  // namespace
