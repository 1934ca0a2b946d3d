// ctest-labels: tsan
// Thread pool: bounded growth, stacks, scheduling, cancelling, forwarding.
#include <dirent.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/errors.h>
#include <vekutil/json.h>
#include <vekutil/pool.h>
#include <vekutil/timeutil.h>

#include "vek_test.hpp"

namespace {

using Clock = std::chrono::steady_clock;

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

template <class Pred>
bool eventually(Pred done, int limit_ms = 5000) {
  for (auto end = Clock::now() + std::chrono::milliseconds(limit_ms); !done(); sleep_ms(1))
    if (Clock::now() > end) return false;
  return true;
}

int thread_count() {
  int n = 0;
  DIR* dir = opendir("/proc/self/task");
  while (dirent* e = readdir(dir)) n += e->d_name[0] != '.';
  closedir(dir);
  return n;
}

// Threads the runtime starts once (the sanitizer's) are up before tests count threads.
struct Warmup : ::testing::Environment {
  void SetUp() override {
    void* pool = nullptr;
    thread_pool_init(&pool, 1, 1, 0);
    thread_pool_uninit(pool);
  }
};
const auto* const g_warmup = ::testing::AddGlobalTestEnvironment(new Warmup);

// Every block a test took comes back, and no pool thread outlives its pool.
class PoolTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    threads_ = thread_count();
  }
  void TearDown() override {
    EXPECT_TRUE(eventually([&] { return thread_count() == threads_; }, 2000)) << "pool threads left behind";
    LeakCheckedTest::TearDown();
  }
  static void* make_pool(int min, int max, int stack_size = 0) {
    void* pool = nullptr;
    thread_pool_init(&pool, min, max, stack_size);
    EXPECT_NE(nullptr, pool);
    return pool;
  }
  int threads_ = 0;
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
  thread_pool_uninit(pool);
  thread_pool_init2(&pool, nullptr, nullptr, nullptr);  // forwarding to nobody
  refused(pool, count_run, &h, ERR_INVALID_HANDLE);
  thread_pool_uninit(pool);
}

struct Gate {
  std::atomic<bool> open{false};
  std::atomic<int> running{0}, done{0}, bad_ids{0};
};
void wait_at_gate(int id, void* arg, void*, void*) {
  auto* g = static_cast<Gate*>(arg);
  g->bad_ids += id < 0 || id >= 4;
  ++g->running;
  while (!g->open) sleep_ms(1);
  --g->running;
  ++g->done;
}

// Bursts grow a 1..4 pool, single jobs retire the extras: never more than 4 + scheduler.
TEST_F(PoolTest, NeverMoreWorkersThanTheMaximumAcrossBursts) {
  void* pool = make_pool(1, 4);
  const int bound = threads_ + 4 + 1;
  for (int round = 0; round < 5; ++round) {
    Gate gate;
    for (int i = 0; i < 10; ++i) thread_pool_put_work(pool, "burst", wait_at_gate, &gate, nullptr, nullptr);
    EXPECT_TRUE(eventually([&] { return gate.running >= 2; }));
    EXPECT_LE(thread_count(), bound) << "round " << round;
    gate.open = true;
    ASSERT_TRUE(eventually([&] { return gate.done == 10; }));
    EXPECT_EQ(0, gate.bad_ids.load());
    std::atomic<int> runs{0};
    for (int i = 0; i < 40; ++i) {
      ASSERT_GE(thread_pool_put_work(pool, "trickle", count_run, &runs, nullptr, nullptr), 1);
      ASSERT_TRUE(eventually([&] { return runs == i + 1; }));
    }
    EXPECT_TRUE(eventually([&] { return thread_count() <= bound; }, 2000)) << "round " << round;
  }
  EXPECT_LE(thread_count(), bound);
  thread_pool_uninit(pool);

  // With no minimum the last worker retires too; the next put starts one.
  pool = make_pool(0, 1);
  std::atomic<int> runs{0};
  for (int i = 0; i < 60; ++i) {
    thread_pool_put_work(pool, "alone", count_run, &runs, nullptr, nullptr);
    ASSERT_TRUE(eventually([&] { return runs == i + 1; })) << "job " << i;
  }
  thread_pool_uninit(pool);
}

// Workers get the stack asked for above 32 KiB, else 256 KiB: enough for deep documents.
struct StackProbe {
  std::atomic<size_t> size{0};
  std::atomic<int> parsed{-1};
};
void probe_stack(int, void* arg, void* doc, void*) {
  auto* probe = static_cast<StackProbe*>(arg);
  pthread_attr_t attr;
  size_t size = 0;
  if (pthread_getattr_np(pthread_self(), &attr) == 0) {
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
  }
  JSON* tree = json_Parse(static_cast<const char*>(doc));
  probe->parsed = tree != nullptr;
  json_Delete(tree);
  probe->size = size;
}

TEST_F(PoolTest, WorkersGetTheStackAskedForOrAtLeast256KiB) {
  const std::string deep = std::string(400, '[') + std::string(400, ']');
  for (const auto& [asked, least] : {std::pair{0, 256 << 10}, {32768, 256 << 10}, {65536, 65536}, {1 << 20, 1 << 20}}) {
    void* pool = make_pool(1, 1, asked);
    StackProbe probe;
    thread_pool_put_work(pool, "probe", probe_stack, &probe, const_cast<char*>(deep.c_str()), nullptr);
    ASSERT_TRUE(eventually([&] { return probe.size != 0; }));
    EXPECT_GE(probe.size.load(), (size_t)least) << "asked for " << asked;
    EXPECT_EQ(1, probe.parsed.load());
    thread_pool_uninit(pool);
  }
}

struct Ran {
  std::mutex m;
  std::vector<long long> at;  // time_now() of each run
  size_t count() {
    std::lock_guard<std::mutex> lock(m);
    return at.size();
  }
};
void note_run(int, void* arg, void*, void*) {
  auto* ran = static_cast<Ran*>(arg);
  std::lock_guard<std::mutex> lock(ran->m);
  ran->at.push_back(time_now());
}

// Never early, whatever order the items were put in.
TEST_F(PoolTest, ScheduledAndRepeatingWorkNeverRunEarlyAndStopWhenCancelled) {
  void* pool = make_pool(2, 2);
  constexpr int kItems = 100;
  std::vector<Ran> ran(kItems);
  std::vector<long long> due(kItems);
  for (int i = 0; i < kItems; ++i) {
    const int interval = i < 5 ? 30 : 5 + (i * 37) % 300;
    due[i] = time_now() + interval;
    ASSERT_EQ(0, thread_pool_put_scheduled_work(pool, "t", nullptr, interval, 0, note_run, &ran[i], 0, 0));
  }
  ASSERT_TRUE(eventually([&] { return std::all_of(ran.begin(), ran.end(), [](Ran& r) { return r.count() == 1; }); }));
  for (int i = 0; i < kItems; ++i) EXPECT_GE(ran[i].at[0], due[i]) << "item " << i;

  // Run k of repeating work is due k periods after the first: never earlier.
  Ran tick;
  constexpr int kEveryMs = 20;
  const long long first = time_now() + kEveryMs;
  void* handle = nullptr;
  ASSERT_EQ(0, thread_pool_put_scheduled_work(pool, "tick", &handle, kEveryMs, 1, note_run, &tick, 0, 0));
  EXPECT_TRUE(eventually([&] { return tick.count() >= 4; }));
  EXPECT_EQ(0, thread_pool_end_scheduled_work(pool, handle));
  sleep_ms(5 * kEveryMs);  // a run that was under way ends, even on a loaded machine
  const size_t at_cancel = tick.count();
  sleep_ms(3 * kEveryMs);
  EXPECT_EQ(at_cancel, tick.count()) << "no run after the cancel";
  thread_pool_uninit(pool);
  for (size_t k = 0; k < tick.at.size(); ++k) EXPECT_GE(tick.at[k], first + (long long)k * kEveryMs) << "run " << k;
}

// Cancelling before, during or after a run, once or twice: no use after free, no late run.
struct Job {
  std::atomic<bool> hold{false}, in_run{false};
  std::atomic<int> runs{0};
};
void job(int, void* arg, void*, void*) {
  auto* j = static_cast<Job*>(arg);
  j->in_run = true;
  while (j->hold) sleep_ms(1);
  ++j->runs;
  j->in_run = false;
}

TEST_F(PoolTest, CancelAtEveryStageOfARun) {
  enum When { kBefore, kDuring, kAfter };
  void* pool = make_pool(2, 2);
  std::deque<Job> jobs;  // outlive the pool: a queued run may still come
  for (int repeat : {0, 1})
    for (When when : {kBefore, kDuring, kAfter})
      for (int cancels : {1, 2}) {
        Job& j = jobs.emplace_back();
        j.hold = when == kDuring;
        void* handle = nullptr;
        const int interval = when == kBefore ? 60000 : 5;
        ASSERT_EQ(0, thread_pool_put_scheduled_work(pool, "job", &handle, interval, repeat, job, &j, 0, 0));
        ASSERT_TRUE(eventually([&] { return when != kDuring || j.in_run; }));
        ASSERT_TRUE(eventually([&] { return when != kAfter || j.runs >= 1; }));
        for (int i = 0; i < cancels; ++i) EXPECT_EQ(0, thread_pool_end_scheduled_work(pool, handle));
        const int runs_at_cancel = j.runs + (j.in_run ? 1 : 0);
        j.hold = false;
        sleep_ms(30);
        EXPECT_LE(j.runs.load(), runs_at_cancel + 1) << "repeat " << repeat << " when " << when;
        EXPECT_TRUE(when != kBefore || j.runs == 0);
      }
  std::atomic<int> runs{0};
  thread_pool_put_scheduled_work(pool, "in an hour", nullptr, 3600 * 1000, 1, count_run, &runs, nullptr, nullptr);
  thread_pool_uninit(pool);  // frees what is still scheduled, and returns at once
  EXPECT_EQ(0, runs.load());
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
