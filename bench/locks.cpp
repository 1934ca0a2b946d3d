// Locks against raw POSIX threads, in one run:
//  - an uncontended lock+unlock pair of our mutex against a raw recursive
//    pthread mutex;
//  - a ping-pong between two threads over two events against the same
//    ping-pong over two plain mutex+condition-variable gates.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>
#include <thread>

#include <vekutil/event.h>
#include <vekutil/mutex.h>

namespace {

void BM_MutexLockUnlock(benchmark::State& state) {
  void* m = nullptr;
  mutex_create(&m);
  for (auto _ : state) {
    mutex_lock(m);
    mutex_unlock(m);
  }
  mutex_delete(m);
}
BENCHMARK(BM_MutexLockUnlock);

void BM_PthreadRecursiveLockUnlock(benchmark::State& state) {
  pthread_mutex_t m = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
  for (auto _ : state) {
    pthread_mutex_lock(&m);
    pthread_mutex_unlock(&m);
  }
  pthread_mutex_destroy(&m);
}
BENCHMARK(BM_PthreadRecursiveLockUnlock);

// One round trip per iteration: open "ping", wait for "pong", close it.
// The partner waits for "ping", closes it and opens "pong".
void BM_EventPingPong(benchmark::State& state) {
  void* ping = nullptr;
  void* pong = nullptr;
  event_create(&ping);
  event_create(&pong);
  std::atomic<bool> stop{false};
  std::thread partner([&] {
    for (;;) {
      event_wait(ping, -1);
      event_lock(ping);
      if (stop.load()) break;
      event_unlock(pong);
    }
  });
  for (auto _ : state) {
    event_unlock(ping);
    event_wait(pong, -1);
    event_lock(pong);
  }
  stop = true;
  event_unlock(ping);
  partner.join();
  event_delete(ping);
  event_delete(pong);
}
BENCHMARK(BM_EventPingPong)->UseRealTime();

// The same protocol on plain gates: a mutex, a condition variable, a flag.
struct Gate {
  pthread_mutex_t mux = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
  bool open = false;

  void set(bool value) {
    pthread_mutex_lock(&mux);
    open = value;
    pthread_cond_broadcast(&cond);
    pthread_mutex_unlock(&mux);
  }
  void wait() {
    pthread_mutex_lock(&mux);
    while (!open) pthread_cond_wait(&cond, &mux);
    pthread_mutex_unlock(&mux);
  }
};

void BM_CondvarPingPong(benchmark::State& state) {
  Gate ping, pong;
  std::atomic<bool> stop{false};
  std::thread partner([&] {
    for (;;) {
      ping.wait();
      ping.set(false);
      if (stop.load()) break;
      pong.set(true);
    }
  });
  for (auto _ : state) {
    ping.set(true);
    pong.wait();
    pong.set(false);
  }
  stop = true;
  ping.set(true);
  partner.join();
}
BENCHMARK(BM_CondvarPingPong)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
