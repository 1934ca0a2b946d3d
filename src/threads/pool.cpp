// Thread pool. Detached workers take work items from one queue; the pool
// starts another worker when a put finds more items queued than workers
// counted, up to the maximum. A scheduler thread keeps timed work in a B-tree
// keyed by due time (unique: a taken millisecond pushes the newcomer 1 ms
// later) and moves each item into the queue when it falls due; repeating work
// goes back into the schedule after each run.
//
// A pool made by thread_pool_init2 holds only three forwarding targets: no
// queue, threads or schedule.
#include <algorithm>
#include <atomic>
#include <new>

#include <vekutil/btree.h>
#include <vekutil/mutex.h>
#include <vekutil/pool.h>
#include <vekutil/queue.h>
#include <vekutil/schevent.h>
#include <vekutil/strutil.h>
#include <vekutil/threads.h>
#include <vekutil/timeutil.h>

#include "core/internal.hpp"
#include "core/scoped_lock.hpp"

namespace {

constexpr const char* kSource = "src/pool.c";
constexpr int kWorkerStackSize = 32768;
constexpr int kSchedulerStackSize = 16384;
constexpr int kIdleRunsTolerated = 10;
constexpr int kCountedWorkersPollMs = 200;
constexpr int kRemainingWorkersPollMs = 5;
constexpr int kSchedulerNapMs = 2000;
constexpr int kOneShot = -1;
constexpr int kCancelled = -2;
constexpr const char* kShutdownWho = "_thread_shutdown_func()";

struct _POOL_WORK_ITEM {
  thread_pool_callback pc;
  void* a;
  void* b;
  void* c;
  std::atomic<int> interval;  // ms between runs; kOneShot; kCancelled (written by any thread)
  long long next_exec_time;   // due time, ms since the epoch; the key in the schedule
};

struct _POOL_OBJECT {
  void* queue;
  void* mux;
  // Last queue_put/queue_get result: a hint written by every thread on every
  // item, so it gets a cache line of its own.
  alignas(64) std::atomic<int> queue_depth;
  alignas(64) int min_threads;
  int max_threads;
  std::atomic<int> cur_threads;  // changed under mux, read without it as a growth hint
  int stack_size;
  int thread_idle_count;
  int threads_created;
  void* sch_thread;
  void* sch_schevt;
  void* sch_btree;
  std::atomic<int> is_shutdown;
  thread_pool_put_work_callback put_callback;
  thread_pool_put_scheduled_work_callback put_sch_callback;
  thread_pool_end_scheduled_work_callback end_sch_callback;
  // Shutdown bookkeeping. Every worker thread that exists, counted or not,
  // must take one shutdown item before the queue can be deleted.
  int unreleased_workers;         // under mux: workers that have not taken a shutdown item
  int shutdown_items;             // under mux: shutdown items queued and not yet taken
  std::atomic<int> live_workers;  // worker threads that may still touch the pool
};

struct _POOL_WORKER_OBJECT {
  int id;
  _POOL_OBJECT* po;
  _POOL_WORK_ITEM* current_item;
};

// The marker item that tells a worker to end; it never runs.
void _thread_shutdown_func(int, void*, void*, void*) {}

_POOL_OBJECT* as_pool(void* handle) { return static_cast<_POOL_OBJECT*>(handle); }

// A zeroed record with its atomics constructed.
template <class T>
T* make_record(int line) {
  void* p = vek::zalloc(sizeof(T), kSource, line);
  return p ? new (p) T() : nullptr;
}

void release(void* p, int line) { _vekFree(p, kSource, line); }

_POOL_WORK_ITEM* make_item(thread_pool_callback func, void* a, void* b, void* c, int interval) {
  auto* item = make_record<_POOL_WORK_ITEM>(__LINE__);
  if (!item) return nullptr;
  item->pc = func;
  item->a = a;
  item->b = b;
  item->c = c;
  item->interval.store(interval, std::memory_order_relaxed);
  return item;
}

// Files the item under its due time (mux held). A due time that is taken
// moves the item 1 ms later until it fits. False if the tree cannot store it.
bool file_in_schedule(_POOL_OBJECT* po, _POOL_WORK_ITEM* item) {
  for (;;) {
    void* holder = btree_insert_with_hash(po->sch_btree, item, item->next_exec_time);
    if (holder == item) return true;
    if (!holder) return false;
    ++item->next_exec_time;
  }
}

// ---------------------------------------------------------------- workers

void* worker_main(void* arg);

// Starts worker number id (mux held). False if it could not be started.
bool start_worker(_POOL_OBJECT* po, int id) {
  auto* worker = make_record<_POOL_WORKER_OBJECT>(__LINE__);
  if (!worker) return false;
  worker->id = id;
  worker->po = po;
  char name[48];
  format_r(name, sizeof name, "Thread Pool Handler [%d]", id);
  THREAD_EX_ARGS ex{name, po->stack_size, 0};
  ++po->unreleased_workers;
  po->live_workers.fetch_add(1);
  if (thread_create_detached_ex(worker_main, worker, &ex) == 0) return true;
  --po->unreleased_workers;
  po->live_workers.fetch_sub(1);
  release(worker, __LINE__);
  return false;
}

// A put that left more items queued than workers counted starts one more
// worker, numbered after the counted ones. A pool that is shutting down
// starts none: every worker it has is about to be ended.
void add_worker_for(_POOL_OBJECT* po, int depth) {
  vek::ScopedLock guard(po->mux, kSource, __LINE__);
  const int id = po->cur_threads.load();
  if (po->is_shutdown.load() || depth <= id || id >= po->max_threads) return;
  if (!start_worker(po, id)) return;
  po->cur_threads.fetch_add(1);
  ++po->threads_created;
}

// The worker's last words: after the final decrement it never touches the
// pool again, so the pool may be freed at once.
void end_worker(_POOL_WORKER_OBJECT* worker, _POOL_WORK_ITEM* shutdown_item) {
  _POOL_OBJECT* po = worker->po;
  {
    vek::ScopedLock guard(po->mux, kSource, __LINE__);
    if (shutdown_item) {
      po->cur_threads.fetch_sub(1);
      --po->shutdown_items;
    }
    --po->unreleased_workers;
  }
  if (shutdown_item) release(shutdown_item, __LINE__);
  release(worker, __LINE__);
  po->live_workers.fetch_sub(1, std::memory_order_release);
}

// A worker that keeps finding the queue empty while the pool is above its
// minimum stops being counted (it goes on running), which lets a later put
// start a fresh one.
void account_idle_run(_POOL_OBJECT* po, int& idle_runs) {
  if (po->queue_depth.load(std::memory_order_relaxed) != 0 || po->cur_threads.load() <= po->min_threads) {
    idle_runs = 0;
    return;
  }
  if (idle_runs++ <= po->thread_idle_count) return;
  vek::ScopedLock guard(po->mux, kSource, __LINE__);
  if (po->cur_threads.load() > po->min_threads) po->cur_threads.fetch_sub(1);
}

// Puts repeating work back into the schedule: a punctual job keeps its
// cadence, a late one counts from now.
void reschedule(_POOL_OBJECT* po, _POOL_WORK_ITEM* item, int interval) {
  const long long now = time_now();
  bool filed;
  {
    vek::ScopedLock guard(po->mux, kSource, __LINE__);
    item->next_exec_time = std::max(item->next_exec_time, now) + interval;
    filed = file_in_schedule(po, item);
  }
  if (!filed) {
    log_vek_error("thread_pool(): cannot reschedule work, dropped\n");
    release(item, __LINE__);
    return;
  }
  schevent_interrupt(po->sch_schevt);
}

void* worker_main(void* arg) {
  auto* worker = static_cast<_POOL_WORKER_OBJECT*>(arg);
  _POOL_OBJECT* po = worker->po;
  int idle_runs = 0;
  for (;;) {
    void* taken = nullptr;
    const int depth = queue_get(po->queue, &taken, -1);
    po->queue_depth.store(depth, std::memory_order_relaxed);
    if (depth < 0) break;
    auto* item = static_cast<_POOL_WORK_ITEM*>(taken);
    worker->current_item = item;
    if (item->pc == _thread_shutdown_func) {
      end_worker(worker, item);
      return nullptr;
    }
    // Cancelled: skipped, and kept alive because its owner may still hold
    // the handle.
    if (item->interval.load(std::memory_order_relaxed) == kCancelled) {
      item->interval.store(kOneShot, std::memory_order_relaxed);
      continue;
    }
    item->pc(worker->id, item->a, item->b, item->c);
    account_idle_run(po, idle_runs);
    const int interval = item->interval.load(std::memory_order_relaxed);
    if (interval < 1)
      release(item, __LINE__);
    else
      reschedule(po, item, interval);
  }
  end_worker(worker, nullptr);
  return nullptr;
}

// ---------------------------------------------------------------- scheduler

// Sleeps until the earliest item is due, then moves it into the work queue.
// An interrupt (new work, shutdown) ends the sleep: the caller looks again.
void release_earliest_when_due(_POOL_OBJECT* po) {
  auto* earliest = static_cast<_POOL_WORK_ITEM*>(btree_find_by_index(po->sch_btree, 0));
  if (!earliest) return;
  const long long due = earliest->next_exec_time;
  if (schevent_waituntil(po->sch_schevt, due) != 0) return;
  auto* item = static_cast<_POOL_WORK_ITEM*>(btree_delete_by_hash(po->sch_btree, due));
  if (!item) return;
  const int depth = queue_put(po->queue, item);
  po->queue_depth.store(depth, std::memory_order_relaxed);
  if (depth < 0) {
    log_vek_error("thread_pool_scheduler(): queue_put failed[%d], work dropped\n", depth);
    release(item, __LINE__);
  }
}

// Nothing scheduled: a nap that new work or shutdown cuts short, then a
// sleep until the next interrupt.
void wait_for_work(_POOL_OBJECT* po) {
  if (schevent_waitfor(po->sch_schevt, kSchedulerNapMs) != 0) return;
  // An interrupt that coincided with the end of the nap is dropped by the
  // sleep; what it announced is visible here.
  if (po->is_shutdown.load() || btree_count(po->sch_btree) > 0) return;
  schevent_wait(po->sch_schevt);
}

void* scheduler_main(void* arg) {
  auto* po = static_cast<_POOL_OBJECT*>(arg);
  while (!po->is_shutdown.load()) {
    if (btree_count(po->sch_btree) > 0)
      release_earliest_when_due(po);
    else
      wait_for_work(po);
  }
  return nullptr;
}

bool start_scheduler(_POOL_OBJECT* po) {
  if (_btree_create_ex(&po->sch_btree, btree_int64_hash, nullptr, BTREE_OPTION_NO_INSTRUMENT, kSource, __LINE__) != 0)
    return false;
  if (schevent_create(&po->sch_schevt) != 0) return false;
  THREAD_EX_ARGS ex{"Thread Pool Scheduler", kSchedulerStackSize, 0};
  if (thread_create_ex(&po->sch_thread, scheduler_main, po, &ex) == 0) return true;
  if (po->sch_thread) thread_delete(po->sch_thread);
  po->sch_thread = nullptr;
  return false;
}

// ---------------------------------------------------------------- shutdown

bool queue_shutdown_item(_POOL_OBJECT* po) {
  if (thread_pool_put_work(po, kShutdownWho, _thread_shutdown_func, nullptr, nullptr, nullptr) < 0) return false;
  ++po->shutdown_items;
  return true;
}

void wait_for_counted_workers(_POOL_OBJECT* po) {
  for (;;) {
    {
      vek::ScopedLock guard(po->mux, kSource, __LINE__);
      if (po->cur_threads.load() < 1 || po->live_workers.load() == 0) return;
    }
    thread_sleep(kCountedWorkersPollMs);
  }
}

// Workers that the idle rule stopped counting got no shutdown item of their
// own; each gets one now, so no thread still waits on the queue when it is
// deleted.
void end_remaining_workers(_POOL_OBJECT* po) {
  for (;;) {
    {
      vek::ScopedLock guard(po->mux, kSource, __LINE__);
      while (po->shutdown_items < po->unreleased_workers)
        if (!queue_shutdown_item(po)) break;
    }
    if (po->live_workers.load(std::memory_order_acquire) == 0) return;
    thread_sleep(kRemainingWorkersPollMs);
  }
}

// Work the scheduler released after the last worker ended.
void release_unrun_items(_POOL_OBJECT* po) {
  void* item = nullptr;
  while (queue_get(po->queue, &item, 0) >= 0) release(item, __LINE__);
}

// The schedule tree and the scheduled event are left in place.
void shut_down(_POOL_OBJECT* po) {
  po->is_shutdown.store(1);
  if (po->sch_schevt) schevent_interrupt(po->sch_schevt);
  {
    vek::ScopedLock guard(po->mux, kSource, __LINE__);
    for (int i = 0; i < po->cur_threads.load(); ++i)
      if (!queue_shutdown_item(po)) break;
  }
  wait_for_counted_workers(po);
  end_remaining_workers(po);
  if (po->sch_thread) {
    thread_join(po->sch_thread, nullptr);
    thread_delete(po->sch_thread);
  }
  release_unrun_items(po);
  queue_delete(po->queue);
  mutex_delete(po->mux);
  release(po, __LINE__);
}

}  // namespace

void thread_pool_init(void** pool, int minthreads, int maxthreads, int stack_size) {
  (void)stack_size;  // workers always get kWorkerStackSize
  if (!pool) return;
  minthreads = std::max(minthreads, 0);
  maxthreads = std::max(maxthreads, minthreads);
  auto* po = make_record<_POOL_OBJECT>(__LINE__);
  if (!po) return;
  po->stack_size = kWorkerStackSize;
  if (_mutex_create_ex(&po->mux, nullptr, 0, kSource, __LINE__) != 0) {
    release(po, __LINE__);
    return;
  }
  if (_queue_create(&po->queue, kSource, __LINE__) != 0) {
    mutex_delete(po->mux);
    release(po, __LINE__);
    return;
  }
  po->min_threads = minthreads;
  po->max_threads = maxthreads;
  po->cur_threads.store(minthreads);
  po->thread_idle_count = kIdleRunsTolerated;
  {
    vek::ScopedLock guard(po->mux, kSource, __LINE__);
    for (int id = 0; id < minthreads && start_worker(po, id); ++id) ++po->threads_created;
  }
  if (!start_scheduler(po)) {
    void* schedule = po->sch_btree;
    void* wakeup = po->sch_schevt;
    shut_down(po);
    if (schedule) btree_delete(schedule);
    if (wakeup) schevent_delete(wakeup);
    return;
  }
  *pool = po;
}

void thread_pool_init2(void** pool, thread_pool_put_work_callback put_callback,
                       thread_pool_put_scheduled_work_callback put_sch_callback,
                       thread_pool_end_scheduled_work_callback end_sch_callback) {
  if (!pool) return;
  auto* po = make_record<_POOL_OBJECT>(__LINE__);
  if (!po) return;
  po->put_callback = put_callback;
  po->put_sch_callback = put_sch_callback;
  po->end_sch_callback = end_sch_callback;
  *pool = po;
}

int thread_pool_put_work(void* pool, const char* who, thread_pool_callback func, void* a, void* b, void* c) {
  _POOL_OBJECT* po = as_pool(pool);
  if (!po) return ERR_INVALID_HANDLE;
  if (!func) return ERR_INVALID_PARAMETER;
  if (po->put_callback) {
    po->put_callback(who, func, a, b, c);
    return 0;
  }
  if (!po->queue) return ERR_INVALID_HANDLE;
  _POOL_WORK_ITEM* item = make_item(func, a, b, c, kOneShot);
  if (!item) return ERR_NO_MEMORY;
  const int depth = queue_put(po->queue, item);
  po->queue_depth.store(depth, std::memory_order_relaxed);
  if (depth < 0) {
    release(item, __LINE__);
    return depth;
  }
  if (depth > po->cur_threads.load() && po->cur_threads.load() < po->max_threads) add_worker_for(po, depth);
  return depth;
}

int thread_pool_put_scheduled_work(void* pool, const char* who, void** handle, int interval, int repeat,
                                   thread_pool_callback func, void* a, void* b, void* c) {
  _POOL_OBJECT* po = as_pool(pool);
  if (!po) return ERR_INVALID_HANDLE;
  if (!func) return ERR_INVALID_PARAMETER;
  if (po->put_sch_callback) {
    po->put_sch_callback(who, handle, interval, repeat, func, a, b, c);
    return 0;
  }
  if (!po->sch_btree) return ERR_INVALID_HANDLE;
  interval = std::max(interval, 0);
  _POOL_WORK_ITEM* item = make_item(func, a, b, c, repeat ? interval : kOneShot);
  if (!item) return ERR_NO_MEMORY;
  bool filed;
  {
    vek::ScopedLock guard(po->mux, kSource, __LINE__);
    item->next_exec_time = time_now() + interval;
    // Stored before the item is filed: a due item may run and be gone before
    // this call returns.
    if (handle) *handle = item;
    filed = file_in_schedule(po, item);
    if (!filed && handle) *handle = nullptr;
  }
  if (!filed) {
    release(item, __LINE__);
    return ERR_NO_MEMORY;
  }
  schevent_interrupt(po->sch_schevt);
  return 0;
}

int thread_pool_end_scheduled_work(void* pool, void* handle) {
  _POOL_OBJECT* po = as_pool(pool);
  if (!po) return ERR_INVALID_HANDLE;
  if (po->end_sch_callback) {
    po->end_sch_callback(handle);
    return 0;
  }
  if (!handle) return ERR_INVALID_PARAMETER;
  if (!po->sch_btree) return ERR_INVALID_HANDLE;
  static_cast<_POOL_WORK_ITEM*>(handle)->interval.store(kCancelled, std::memory_order_relaxed);
  return 0;
}

void thread_pool_uninit(void* pool) {
  _POOL_OBJECT* po = as_pool(pool);
  if (!po) return;
  if (!po->queue) {
    release(po, __LINE__);
    return;
  }
  shut_down(po);
}
