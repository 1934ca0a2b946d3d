// Thread pool. Detached workers take work items from one queue; the pool
// starts another worker when a put finds more items queued than workers
// counted, up to the maximum, and a worker that keeps finding nothing to do
// while the pool is above its minimum ends. A scheduler thread keeps timed
// work in a B-tree keyed by due time (unique: a taken millisecond pushes the
// newcomer 1 ms later) and moves each item into the queue when it falls due;
// repeating work goes back into the schedule after each run.
//
// Scheduled work is known to its owner by a serial number, never by address:
// the pool looks the number up among its live items, so cancelling work that
// has run and been freed is harmless. Everything about a scheduled item's
// state (in the schedule, queued, running, cancelled) changes under mux.
//
// A pool made by thread_pool_init2 holds only three forwarding targets: no
// queue, threads or schedule.
#include <algorithm>
#include <atomic>
#include <cstdint>
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
#include "threads/threads.internal.hpp"

namespace {

constexpr const char* kSource = "src/pool.c";
constexpr int kSchedulerStackSize = 16384;
constexpr int kIdleRunsTolerated = 10;
constexpr int kCountedWorkersPollMs = 200;
constexpr int kRemainingWorkersPollMs = 5;
constexpr int kSchedulerNapMs = 2000;
constexpr int kOneShot = -1;
constexpr int kCancelled = -2;
constexpr const char* kShutdownWho = "_thread_shutdown_func()";
constexpr int kTreeOptions = BTREE_OPTION_NO_LOCK | BTREE_OPTION_NO_INSTRUMENT;  // mux guards them

struct _POOL_WORK_ITEM {
  thread_pool_callback pc;
  void* a;
  void* b;
  void* c;
  int interval;             // ms between runs; kOneShot; kCancelled once cancelled
  long long next_exec_time;  // due time, ms since the epoch; the key in the schedule
  long long serial;          // scheduled work: its handle; 0 for plain work
  bool scheduled;            // in the schedule (not queued, not running)
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
  // Scheduled work by serial number (under mux), and the last number given.
  void* live_items;
  long long last_serial;
  // Shutdown bookkeeping. Every worker thread that exists must take one
  // shutdown item, or end by itself, before the queue can be deleted.
  int unreleased_workers;         // under mux: workers that have not ended or taken a shutdown item
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
  item->interval = interval;
  return item;
}

void* handle_of(const _POOL_WORK_ITEM* item) { return reinterpret_cast<void*>(static_cast<intptr_t>(item->serial)); }
long long serial_of(void* handle) { return static_cast<long long>(reinterpret_cast<intptr_t>(handle)); }

// Files the item under its due time (mux held). A due time that is taken
// moves the item 1 ms later until it fits. False if the tree cannot store it.
bool file_in_schedule(_POOL_OBJECT* po, _POOL_WORK_ITEM* item) {
  for (;;) {
    void* holder = btree_insert_with_hash(po->sch_btree, item, item->next_exec_time);
    if (holder == item) {
      item->scheduled = true;
      return true;
    }
    if (!holder) return false;
    ++item->next_exec_time;
  }
}

// Scheduled work the pool no longer needs: forgotten and freed (mux held).
void retire_item(_POOL_OBJECT* po, _POOL_WORK_ITEM* item) {
  btree_delete_by_hash(po->live_items, item->serial);
  release(item, __LINE__);
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
  if (po->unreleased_workers >= po->max_threads) return;
  if (!start_worker(po, id)) return;
  po->cur_threads.fetch_add(1);
  ++po->threads_created;
}

// The worker's last words: after the final decrement it never touches the
// pool again, so the pool may be freed at once. A retiring worker has done
// its bookkeeping already.
void end_worker(_POOL_WORKER_OBJECT* worker, _POOL_WORK_ITEM* shutdown_item, bool retired = false) {
  _POOL_OBJECT* po = worker->po;
  if (!retired) {
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

// A worker that keeps finding the queue empty after its runs while the pool
// is above its minimum stops being counted and ends: true when this worker
// is to end now. The queue is looked at again under mux, where puts decide
// whether to start a worker: work put meanwhile keeps this worker, and once
// it has left the count a put may start a fresh one.
bool retire_when_idle(_POOL_OBJECT* po, int& idle_runs) {
  if (po->queue_depth.load(std::memory_order_relaxed) != 0 || po->cur_threads.load() <= po->min_threads) {
    idle_runs = 0;
    return false;
  }
  if (idle_runs++ <= po->thread_idle_count) return false;
  vek::ScopedLock guard(po->mux, kSource, __LINE__);
  if (po->cur_threads.load() <= po->min_threads || po->is_shutdown.load() || queue_count(po->queue) > 0) return false;
  po->cur_threads.fetch_sub(1);
  --po->unreleased_workers;
  return true;
}

// Scheduled work taken from the queue: false when it was cancelled meanwhile
// (it is freed then); else it is marked as running.
bool claim_scheduled(_POOL_OBJECT* po, _POOL_WORK_ITEM* item) {
  vek::ScopedLock guard(po->mux, kSource, __LINE__);
  if (item->interval != kCancelled) return true;
  retire_item(po, item);
  return false;
}

// After a run of scheduled work: repeating work goes back into the schedule,
// a punctual job keeping its cadence and a late one counting from now; work
// that ran once or was cancelled during the run is freed.
void finish_scheduled(_POOL_OBJECT* po, _POOL_WORK_ITEM* item) {
  const long long now = time_now();
  {
    vek::ScopedLock guard(po->mux, kSource, __LINE__);
    if (item->interval < 1) {
      retire_item(po, item);
      return;
    }
    item->next_exec_time = std::max(item->next_exec_time, now) + item->interval;
    if (!file_in_schedule(po, item)) {
      log_vek_error("thread_pool(): cannot reschedule work, dropped\n");
      retire_item(po, item);
      return;
    }
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
    const bool scheduled = item->serial != 0;
    if (scheduled && !claim_scheduled(po, item)) continue;
    item->pc(worker->id, item->a, item->b, item->c);
    if (scheduled)
      finish_scheduled(po, item);
    else
      release(item, __LINE__);
    worker->current_item = nullptr;
    if (retire_when_idle(po, idle_runs)) {
      end_worker(worker, nullptr, true);
      return nullptr;
    }
  }
  end_worker(worker, nullptr);
  return nullptr;
}

// ---------------------------------------------------------------- scheduler

// Sleeps until the earliest item is due, then moves it into the work queue.
// An interrupt (new work, cancelling, shutdown) ends the sleep: the caller
// looks again. The schedule is read under mux, since cancelling frees items.
void release_earliest_when_due(_POOL_OBJECT* po) {
  long long due;
  {
    vek::ScopedLock guard(po->mux, kSource, __LINE__);
    auto* earliest = static_cast<_POOL_WORK_ITEM*>(btree_find_by_index(po->sch_btree, 0));
    if (!earliest) return;
    due = earliest->next_exec_time;
  }
  if (schevent_waituntil(po->sch_schevt, due) != 0) return;
  _POOL_WORK_ITEM* item;
  {
    vek::ScopedLock guard(po->mux, kSource, __LINE__);
    item = static_cast<_POOL_WORK_ITEM*>(btree_delete_by_hash(po->sch_btree, due));
    if (!item) return;
    item->scheduled = false;
  }
  const int depth = queue_put(po->queue, item);
  po->queue_depth.store(depth, std::memory_order_relaxed);
  if (depth < 0) {
    log_vek_error("thread_pool_scheduler(): queue_put failed[%d], work dropped\n", depth);
    vek::ScopedLock guard(po->mux, kSource, __LINE__);
    retire_item(po, item);
  }
}

int schedule_size(_POOL_OBJECT* po) {
  vek::ScopedLock guard(po->mux, kSource, __LINE__);
  return btree_count(po->sch_btree);
}

// Nothing scheduled: a nap that new work or shutdown cuts short, then a
// sleep until the next interrupt.
void wait_for_work(_POOL_OBJECT* po) {
  if (schevent_waitfor(po->sch_schevt, kSchedulerNapMs) != 0) return;
  // An interrupt that coincided with the end of the nap is dropped by the
  // sleep; what it announced is visible here.
  if (po->is_shutdown.load() || schedule_size(po) > 0) return;
  schevent_wait(po->sch_schevt);
}

void* scheduler_main(void* arg) {
  auto* po = static_cast<_POOL_OBJECT*>(arg);
  while (!po->is_shutdown.load()) {
    if (schedule_size(po) > 0)
      release_earliest_when_due(po);
    else
      wait_for_work(po);
  }
  return nullptr;
}

bool start_scheduler(_POOL_OBJECT* po) {
  if (_btree_create_ex(&po->sch_btree, btree_int64_hash, nullptr, kTreeOptions, kSource, __LINE__) != 0) return false;
  if (_btree_create_ex(&po->live_items, btree_int64_hash, nullptr, kTreeOptions, kSource, __LINE__) != 0)
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

// Every worker still running gets a shutdown item of its own, so no thread
// still waits on the queue when it is deleted.
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

// Work that never ran: queued after the last worker ended, or still in the
// schedule.
void release_unrun_items(_POOL_OBJECT* po) {
  void* item = nullptr;
  while (queue_get(po->queue, &item, 0) >= 0) release(item, __LINE__);
  if (!po->sch_btree) return;
  while (void* scheduled = btree_find_by_index(po->sch_btree, 0)) {
    btree_delete_by_hash(po->sch_btree, static_cast<_POOL_WORK_ITEM*>(scheduled)->next_exec_time);
    release(scheduled, __LINE__);
  }
}

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
  if (po->sch_btree) btree_delete(po->sch_btree);
  if (po->live_items) btree_delete(po->live_items);
  if (po->sch_schevt) schevent_delete(po->sch_schevt);
  queue_delete(po->queue);
  mutex_delete(po->mux);
  release(po, __LINE__);
}

}  // namespace

void thread_pool_init(void** pool, int minthreads, int maxthreads, int stack_size) {
  if (!pool) return;
  minthreads = std::max(minthreads, 0);
  maxthreads = std::max(maxthreads, minthreads);
  auto* po = make_record<_POOL_OBJECT>(__LINE__);
  if (!po) return;
  po->stack_size = vek::threads::caller_code_stack(stack_size);
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
    shut_down(po);
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
  {
    vek::ScopedLock guard(po->mux, kSource, __LINE__);
    item->serial = ++po->last_serial;
    item->next_exec_time = time_now() + interval;
    if (btree_insert_with_hash(po->live_items, item, item->serial) != item || !file_in_schedule(po, item)) {
      btree_delete_by_hash(po->live_items, item->serial);
      release(item, __LINE__);
      return ERR_NO_MEMORY;
    }
    // Set before the lock is released: a due item may run and be gone before
    // this call returns, and its handle is still fine to cancel then.
    if (handle) *handle = handle_of(item);
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
  if (!po->live_items) return ERR_INVALID_HANDLE;
  bool was_scheduled = false;
  {
    vek::ScopedLock guard(po->mux, kSource, __LINE__);
    auto* item = static_cast<_POOL_WORK_ITEM*>(btree_find_by_hash(po->live_items, serial_of(handle)));
    if (!item) return 0;  // ran, or cancelled, and gone: nothing left to stop
    item->interval = kCancelled;
    // Waiting in the schedule: nobody else holds it, so it goes now. Queued
    // or running work is freed by its worker.
    if (item->scheduled) {
      btree_delete_by_hash(po->sch_btree, item->next_exec_time);
      retire_item(po, item);
      was_scheduled = true;
    }
  }
  if (was_scheduled) schevent_interrupt(po->sch_schevt);
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
