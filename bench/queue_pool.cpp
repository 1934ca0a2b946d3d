// Queue hand-over between producer and consumer threads, and a flood of
// empty tasks through a two-worker pool, each beside glib's equivalent on the
// same work.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include <vekutil/pool.h>
#include <vekutil/queue.h>

#ifdef VEK_HAVE_GLIB
#include <glib.h>
#endif

namespace {

constexpr int kItemsPerRound = 200000;
constexpr int kTasksPerRound = 1000000;

// Items are small non-null numbers (glib refuses null).
void* as_item(uintptr_t n) { return reinterpret_cast<void*>(n + 1); }

// Runs producers and consumers that pass kItemsPerRound items per round.
template <class Put, class Get>
void hand_over(benchmark::State& state, Put put, Get get) {
  const int pairs = static_cast<int>(state.range(0));
  const int per_thread = kItemsPerRound / pairs;
  for (auto _ : state) {
    std::vector<std::thread> threads;
    for (int t = 0; t < pairs; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < per_thread; ++i) put(as_item(i));
      });
      threads.emplace_back([&] {
        uintptr_t sum = 0;
        for (int i = 0; i < per_thread; ++i) sum += reinterpret_cast<uintptr_t>(get());
        benchmark::DoNotOptimize(sum);
      });
    }
    for (auto& t : threads) t.join();
  }
  state.SetItemsProcessed(state.iterations() * per_thread * pairs);
}

void BM_Queue_Vek(benchmark::State& state) {
  void* q = nullptr;
  queue_create(&q);
  hand_over(
      state, [q](void* item) { queue_put(q, item); },
      [q] {
        void* item = nullptr;
        queue_get(q, &item, -1);
        return item;
      });
  queue_delete(q);
}
BENCHMARK(BM_Queue_Vek)->Arg(1)->Arg(4)->ArgName("pairs")->UseRealTime()->Unit(benchmark::kMillisecond);

// Waits until every task of the round has run.
void wait_for(const std::atomic<int>& done, int target) {
  while (done.load(std::memory_order_acquire) < target) std::this_thread::sleep_for(std::chrono::microseconds(100));
}

std::atomic<int> g_tasks_done{0};

void empty_task(int, void*, void*, void*) { g_tasks_done.fetch_add(1, std::memory_order_relaxed); }

void BM_Pool_Vek(benchmark::State& state) {
  void* pool = nullptr;
  thread_pool_init(&pool, 2, 2, 0);
  for (auto _ : state) {
    g_tasks_done = 0;
    for (int i = 0; i < kTasksPerRound; ++i) thread_pool_put_work(pool, "bench", empty_task, nullptr, nullptr, nullptr);
    wait_for(g_tasks_done, kTasksPerRound);
  }
  state.SetItemsProcessed(state.iterations() * kTasksPerRound);
  thread_pool_uninit(pool);
}
BENCHMARK(BM_Pool_Vek)->UseRealTime()->Unit(benchmark::kMillisecond);

#ifdef VEK_HAVE_GLIB
void BM_Queue_Glib(benchmark::State& state) {
  GAsyncQueue* q = g_async_queue_new();
  hand_over(
      state, [q](void* item) { g_async_queue_push(q, item); }, [q] { return g_async_queue_pop(q); });
  g_async_queue_unref(q);
}
BENCHMARK(BM_Queue_Glib)->Arg(1)->Arg(4)->ArgName("pairs")->UseRealTime()->Unit(benchmark::kMillisecond);

void glib_empty_task(gpointer, gpointer) { g_tasks_done.fetch_add(1, std::memory_order_relaxed); }

void BM_Pool_Glib(benchmark::State& state) {
  GThreadPool* pool = g_thread_pool_new(glib_empty_task, nullptr, 2, FALSE, nullptr);
  for (auto _ : state) {
    g_tasks_done = 0;
    for (int i = 0; i < kTasksPerRound; ++i) g_thread_pool_push(pool, as_item(i), nullptr);
    wait_for(g_tasks_done, kTasksPerRound);
  }
  state.SetItemsProcessed(state.iterations() * kTasksPerRound);
  g_thread_pool_free(pool, FALSE, TRUE);
}
BENCHMARK(BM_Pool_Glib)->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
