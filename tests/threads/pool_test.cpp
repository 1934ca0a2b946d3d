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
#include <thread>
#include <vector>

#include <vekutil/errors.h>
#include <vekutil/pool.h>
#include <vekutil/timeutil.h>

#include "vek_test.hpp"

namespace {

using Clock = std::chrono::steady_clock;

long long realtime_us() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec * 1000000LL + ts.tv_nsec / 1000;
}

template <class Pred>
bool eventually(Pred done, int limit_ms = 5000) {
  for (auto end = Clock::now() + std::chrono::milliseconds(limit_ms); !done(); ) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

int thread_count() {
  int n = 0;
  DIR* dir = opendir("/proc/self/task");
  while (dirent* e = readdir(dir)) n += e->d_name[0] != '.';
  closedir(dir);
  return n;
}

using Blocks = std::map<void*, std::string>;  // header -> allocating source
void note_block(int, time_t, void* header, char*, int, const char* file, int, int, void* blocks) {
  (*static_cast<Blocks*>(blocks))[header] = file ? file : "?";
}
Blocks held_blocks() {
  Blocks blocks;
  vekMemoryDumpForeach(note_block, &blocks);
  return blocks;
}

// Registry groups live for the process: make them before the first snapshot.
struct Warmup : ::testing::Environment {
  void SetUp() override {
    void* pool = nullptr;
    thread_pool_init(&pool, 1, 1, 0);
    thread_pool_uninit(pool);
  }
};
const auto* const g_warmup = ::testing::AddGlobalTestEnvironment(new Warmup);

// A pool shut down leaves exactly its schedule (tree, lock, lock name, event) plus
// the items still in it or cancelled; no queue, mutex, event, worker or thread.
class PoolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    before_ = held_blocks();
    threads_ = thread_count();
  }
  void TearDown() override {
    std::map<std::string, int> left;
    for (const auto& [header, file] : held_blocks()) left[file] += !before_.count(header);
    for (const char* file : {"src/schevent.c", "src/rwlock.c", "src/strutil.c"})
      EXPECT_EQ(pools_, left[file]) << file;
    EXPECT_GE(left["src/btree.c"], pools_);
    EXPECT_EQ(kept_items_, left["src/pool.c"]);
    for (const char* file : {"src/queue.c", "src/mutex.c", "src/event.c", "src/threads.c"})
      EXPECT_EQ(0, left[file]) << file;
    EXPECT_TRUE(eventually([&] { return thread_count() == threads_; }, 2000)) << "worker threads left behind";
  }
  void* make_pool(int min, int max) {
    void* pool = nullptr;
    thread_pool_init(&pool, min, max, 1048576);
    EXPECT_NE(nullptr, pool);
    return pool;
  }
  void shut_down(void* pool) {
    thread_pool_uninit(pool);
    ++pools_;
  }
  int kept_items_ = 0;

 private:
  Blocks before_;
  int threads_ = 0, pools_ = 0;
};

void count_run(int, void* counter, void*, void*) { ++*static_cast<std::atomic<int>*>(counter); }

TEST_F(PoolTest, NullHandlesAndBadArguments) {
  void* h = nullptr;
  thread_pool_init(nullptr, 1, 1, 0);
  thread_pool_init2(nullptr, nullptr, nullptr, nullptr);
  thread_pool_uninit(nullptr);
  auto refused = [&](void* pool, thread_pool_callback func, void* handle, int code) {
    EXPECT_EQ(code, thread_pool_put_work(pool, "t", func, &h, &h, &h));
    EXPECT_EQ(code, thread_pool_put_scheduled_work(pool, "t", &h, 1, 0, func, &h, &h, &h));
    EXPECT_EQ(code, thread_pool_end_scheduled_work(pool, handle));
  };
  refused(nullptr, count_run, &h, ERR_INVALID_HANDLE);
  void* pool = make_pool(1, 1);
  refused(pool, nullptr, nullptr, ERR_INVALID_PARAMETER);
  shut_down(pool);
  thread_pool_init2(&pool, nullptr, nullptr, nullptr);  // forwarding to nobody
  refused(pool, count_run, &h, ERR_INVALID_HANDLE);
  thread_pool_uninit(pool);
}

struct Gate {
  std::atomic<bool> open{false};
  std::atomic<int> running{0}, most{0}, done{0}, bad_ids{0};
};
void wait_at_gate(int id, void* arg, void*, void*) {
  auto* g = static_cast<Gate*>(arg);
  g->bad_ids += id < 0 || id >= 4;
  const int now = ++g->running;
  for (int seen = g->most; now > seen && !g->most.compare_exchange_weak(seen, now);) {
  }
  while (!g->open) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  --g->running;
  ++g->done;
}

// A blocked burst grows a 2..4 pool to at most 4; after it, single jobs find the
// queue empty and the extra workers go uncounted, yet shutdown ends them all.
TEST_F(PoolTest, GrowsToTheMaximumAndEndsIdleWorkersAtShutdown) {
  void* pool = make_pool(2, 4);
  Gate gate;
  for (int i = 0; i < 10; ++i) thread_pool_put_work(pool, "burst", wait_at_gate, &gate, nullptr, nullptr);
  EXPECT_TRUE(eventually([&] { return gate.running >= 3; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_LE(gate.most.load(), 4);
  gate.open = true;
  EXPECT_TRUE(eventually([&] { return gate.done == 10; }));
  EXPECT_EQ(0, gate.bad_ids.load());
  std::atomic<int> runs{0};
  for (int i = 0; i < 120; ++i) {
    ASSERT_GE(thread_pool_put_work(pool, "trickle", count_run, &runs, nullptr, nullptr), 1);
    ASSERT_TRUE(eventually([&] { return runs == i + 1; }));
  }
  shut_down(pool);
}

struct Lateness {
  std::mutex m;
  std::vector<long long> us;  // run time minus the earliest possible due time
  size_t ran() {
    std::lock_guard<std::mutex> lock(m);
    return us.size();
  }
};
struct Due {
  Lateness* log;
  long long due_us;
};
void record_lateness(int, void* arg, void*, void*) {
  auto* due = static_cast<Due*>(arg);
  const long long late = realtime_us() - due->due_us;
  std::lock_guard<std::mutex> lock(due->log->m);
  due->log->us.push_back(late);
}

TEST_F(PoolTest, ScheduledWorkNeverRunsEarlyAndRunsSoonAfter) {
  void* pool = make_pool(2, 2);
  Lateness log;
  constexpr int kItems = 200;
  std::vector<Due> dues(kItems);
  for (int i = 0; i < kItems; ++i) {
    const int interval = 5 + (i * 37) % 600;  // mixed order over 0.6 s
    dues[i] = {&log, (time_now() + interval) * 1000};
    ASSERT_EQ(0, thread_pool_put_scheduled_work(pool, "t", nullptr, interval, 0, record_lateness, &dues[i], 0, 0));
    if (i % 20 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(7));
  }
  EXPECT_TRUE(eventually([&] { return log.ran() == kItems; }));
  shut_down(pool);
  std::sort(log.us.begin(), log.us.end());
  std::printf("lateness us: min %lld median %lld max %lld\n", log.us[0], log.us[kItems / 2], log.us.back());
  EXPECT_GE(log.us[0], 0) << "ran before it was due";
  EXPECT_LT(log.us[kItems / 2], 20000);  // 20 ms when idle; room for a loaded machine below
  EXPECT_LT(log.us.back(), 500000);
}

TEST_F(PoolTest, ItemsDueInTheSameMillisecondRunOneMillisecondApart) {
  void* pool = make_pool(1, 1);
  Lateness log;
  std::vector<Due> dues(5);
  for (int attempt = 0; attempt < 50; ++attempt) {
    log.us.clear();
    const long long start = time_now();
    for (int k = 0; k < 5; ++k) {
      dues[k] = {&log, (start + 30 + k) * 1000};  // the k-th of one millisecond is pushed k ms back
      thread_pool_put_scheduled_work(pool, "same", nullptr, 30, 0, record_lateness, &dues[k], nullptr, nullptr);
    }
    const bool same_ms = time_now() == start;
    ASSERT_TRUE(eventually([&] { return log.ran() == 5; }));
    if (same_ms) break;
  }
  shut_down(pool);
  EXPECT_GE(*std::min_element(log.us.begin(), log.us.end()), 0);
}

TEST_F(PoolTest, RepeatingWorkKeepsItsCadenceUntilCancelled) {
  void* pool = make_pool(2, 2);
  Lateness log;
  constexpr int kEveryMs = 40;
  std::vector<Due> due{{&log, (time_now() + kEveryMs) * 1000}};
  void* handle = nullptr;
  ASSERT_EQ(0, thread_pool_put_scheduled_work(pool, "tick", &handle, kEveryMs, 1, record_lateness, &due[0], 0, 0));
  EXPECT_TRUE(eventually([&] { return log.ran() >= 5; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(5));  // back in the schedule
  EXPECT_EQ(0, thread_pool_end_scheduled_work(pool, handle));
  const size_t at_cancel = log.ran();
  std::this_thread::sleep_for(std::chrono::milliseconds(4 * kEveryMs));
  EXPECT_EQ(at_cancel, log.ran()) << "cancelled between runs: no further run";
  EXPECT_EQ(0, thread_pool_end_scheduled_work(pool, handle)) << "a cancelled handle stays valid";

  // A cancelled one-shot never runs.
  std::atomic<int> runs{0};
  ASSERT_EQ(0, thread_pool_put_scheduled_work(pool, "once", &handle, 20, 0, count_run, &runs, nullptr, nullptr));
  thread_pool_end_scheduled_work(pool, handle);
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_EQ(0, runs.load());
  shut_down(pool);
  kept_items_ = 2;

  // Run k is due k periods after the first: never earlier, and no drift.
  for (size_t k = 0; k < log.us.size(); ++k) {
    EXPECT_GE(log.us[k] - (long long)k * kEveryMs * 1000, 0) << "run " << k;
    EXPECT_LT(log.us[k] - (long long)k * kEveryMs * 1000, kEveryMs * 1000) << "run " << k;
  }
}

TEST_F(PoolTest, ShutdownReturnsWithAnIdleOrDistantSchedule) {
  auto quick_shutdown = [&](void* pool) {
    auto start = Clock::now();
    shut_down(pool);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1500));
  };
  void* pool = make_pool(2, 2);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));  // the scheduler is asleep
  quick_shutdown(pool);
  pool = make_pool(1, 3);
  std::atomic<int> runs{0};
  thread_pool_put_scheduled_work(pool, "in an hour", nullptr, 3600 * 1000, 0, count_run, &runs, nullptr, nullptr);
  quick_shutdown(pool);
  kept_items_ = 1;  // left in the schedule
}

std::vector<std::string> g_host_calls;
void host_put(const char* who, thread_pool_callback func, void* a, void*, void*) {
  g_host_calls.push_back(std::string("put ") + who + (func == count_run && a ? " ok" : " bad"));
}
void host_schedule(const char* who, void** handle, int interval, int repeat, thread_pool_callback, void*, void*,
                   void*) {
  g_host_calls.push_back(std::string("schedule ") + who + " " + std::to_string(interval) + " " +
                         std::to_string(repeat));
  *handle = &g_host_calls;
}
void host_end(void* handle) { g_host_calls.push_back(handle ? "end" : "end null"); }

TEST_F(PoolTest, ForwardingPoolHandsEveryCallToTheHost) {
  void* pool = nullptr;
  void* handle = nullptr;
  thread_pool_init2(&pool, host_put, host_schedule, host_end);
  EXPECT_EQ(0, thread_pool_put_work(pool, "alpha", count_run, &handle, nullptr, nullptr));
  EXPECT_EQ(0, thread_pool_put_scheduled_work(pool, "beta", &handle, 250, 1, count_run, nullptr, nullptr, nullptr));
  EXPECT_EQ(&g_host_calls, handle);
  EXPECT_EQ(0, thread_pool_end_scheduled_work(pool, nullptr)) << "the host decides what a null handle means";
  EXPECT_EQ((std::vector<std::string>{"put alpha ok", "schedule beta 250 1", "end null"}), g_host_calls);
  thread_pool_uninit(pool);
}

}  // namespace
