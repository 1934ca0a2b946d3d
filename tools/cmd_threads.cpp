// Demo section "locks and threads": a mutex, a read-write lock, an event
// opened by a second thread, and a semaphore counting the work it did.
#include <cstdio>

#include <vekutil/vekutil.h>

#include "command.hpp"

namespace {

struct Shared {
  void* mutex;
  void* ready;      // event: opened by the worker when it is done
  void* semaphore;  // one signal per unit of work
  int total;
};

void* worker(void* arg) {
  auto* shared = static_cast<Shared*>(arg);
  for (int i = 1; i <= 3; ++i) {
    MUTEX_LOCK(shared->mutex);
    shared->total += i;
    MUTEX_UNLOCK(shared->mutex);
    semaphore_signal(shared->semaphore);
  }
  event_unlock(shared->ready);
  return nullptr;
}

bool demo_mutex_and_rwlock() {
  void* rw = nullptr;
  if (rwlock_create_ex(&rw, 0, "demo table") != 0) return false;
  bool ok = RWLOCK_READLOCK(rw) == 0 && RWLOCK_READLOCK(rw) == 0;
  std::printf("  rwlock \"demo table\": two readers inside at once: %s\n", ok ? "yes" : "no");
  rwlock_unlock(rw);
  rwlock_unlock(rw);
  ok = ok && RWLOCK_WRITELOCK(rw) == 0 && rwlock_unlock(rw) == 0;
  rwlock_delete(rw);
  return ok;
}

int demo_threads() {
  Shared shared = {};
  if (MUTEX_CREATE(&shared.mutex, "demo counter", 0) != 0) return 1;
  bool ok = event_create_ex(&shared.ready, "demo ready", 0) == 0 && semaphore_create(&shared.semaphore) == 0;
  std::printf("  mutex \"demo counter\" locked twice by one thread: %s\n",
              ok && MUTEX_LOCK(shared.mutex) == 0 && MUTEX_LOCK(shared.mutex) == 0 ? "yes (recursive)" : "no");
  MUTEX_UNLOCK(shared.mutex);
  MUTEX_UNLOCK(shared.mutex);
  ok = ok && demo_mutex_and_rwlock();

  void* thread = nullptr;
  ok = ok && thread_create(&thread, worker, &shared) == 0;
  int waited = ok ? EVENT_WAIT(shared.ready, 5000) : -1;
  std::printf("  event \"demo ready\" opened by thread %d: %s\n", thread ? thread_id(thread) : 0,
              waited == 0 ? "yes" : "no");
  if (thread) {
    thread_join(thread, nullptr);
    thread_delete(thread);
  }
  std::printf("  semaphore counted %d units of work, counter is %d\n", semaphore_count(shared.semaphore),
              shared.total);
  ok = ok && waited == 0 && semaphore_count(shared.semaphore) == 3 && shared.total == 6;

  semaphore_delete(shared.semaphore);
  event_delete(shared.ready);
  mutex_delete(shared.mutex);
  return ok ? 0 : 1;
}

vektool::DemoRegistrar demo_section{{"locks and threads", 30, demo_threads}};

}  // namespace
