// Asynchronous socket handler: one thread per worker waits for readiness of
// every armed descriptor, then, under the worker's recursive lock, walks the
// slot list in order and calls each ready (or idle too long) socket's
// callback; the callback's return value decides what happens to the socket.
//
// The thread waits with epoll rather than select, so descriptors of any
// number work and a wait costs nothing per idle socket. The walk still goes
// through the slots in slot order, so callers see the same order, the same
// statuses and the same inactivity rule (tested only in passes with
// activity) as a select loop would give them. The walk ends once every
// reported socket was served, unless some socket has an inactivity limit:
// then it visits every slot, so that an idle socket is noticed at the next
// pass with activity wherever it sits, and a timed-out socket its owner
// keeps cannot use up a pass and starve the ready sockets behind it. Per-slot readiness and
// deadlines live in a compact array beside obj_list so that the walk over
// idle slots touches little memory.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vekutil/mutex.h>
#include <vekutil/schevent.h>
#include <vekutil/socket.async.h>
#include <vekutil/socket.h>
#include <vekutil/threads.h>
#include <vekutil/timeutil.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>

#include "core/internal.hpp"

void* g_socket_async_default_acceptor = nullptr;
void* g_socket_async_default_receiver = nullptr;

namespace {

constexpr const char* kSource = "src/socket.async.c";
constexpr const char* kThreadName = "Async Socket Handler";
// Callbacks are caller code and run on the worker's own thread.
constexpr int kWorkerStackSize = 256 * 1024;
constexpr int kNameCapacity = 68;
constexpr int kMaxEventsPerWait = 1024;
constexpr uint64_t kWakeMarker = 0;  // epoll data of the wake descriptor (serial 0 is never given out)
constexpr uint32_t kErrorEvents = EPOLLERR | EPOLLPRI;
constexpr long long kNoDeadline = LLONG_MAX;

static_assert(offsetof(ABSTRACT_SOCKET, s) == offsetof(SERVER_SOCKET, s) &&
                  offsetof(ABSTRACT_SOCKET, async_handle) == offsetof(SERVER_SOCKET, async_handle),
              "both socket records start with the same fields");

struct _SOCK_ASYNC_WORKER;

// One registered socket.
struct _SOCK_ASYNC_OBJ {
  int async_mode;
  int async_index;  // its slot in obj_list
  socket_async_callback async_callback;
  void* async_custom;
  int timeout;              // inactivity limit in ms; 0 or less: none
  long long last_activity;  // ms time of the last data event
  ABSTRACT_SOCKET* client_socket;
  SERVER_SOCKET* server_socket;
  _SOCK_ASYNC_WORKER* worker;
  uint32_t serial;       // registration number, carried in the wait's reports
  uint32_t served_pass;  // last pass whose walk called it, so a walk never calls it twice
  int armed_fd;          // descriptor in the wait set; -1 while disarmed
};

// What the walk reads for every slot it visits, kept apart from the entries.
struct SlotState {
  long long deadline;   // last_activity + timeout, or kNoDeadline
  uint32_t ready_pass;  // pass in which the wait reported the slot's descriptor
  uint32_t ready_events;
};

struct _SOCK_ASYNC_WORKER {
  char name[kNameCapacity];
  int socket_count;  // registered sockets + 1: slot 0 is never used
  int socket_max;
  int timed_count;             // registered sockets with an inactivity limit
  std::atomic<int> set_count;  // descriptors armed; read by the thread without mux
  int fd_max;                  // highest descriptor ever armed
  int timeout;
  _SOCK_ASYNC_OBJ** obj_list;
  SlotState* slots;               // socket_max entries, moved together with obj_list
  _SOCK_ASYNC_OBJ** armed_by_fd;  // entry armed on each descriptor, fd_capacity entries
  int fd_capacity;
  int poll_fd;  // epoll instance of the armed descriptors
  int wake_fd;  // eventfd in the instance: deletion cuts the current wait short
  struct epoll_event* events;
  int events_capacity;
  uint32_t pass;
  uint32_t next_serial;
  _SOCK_ASYNC_OBJ* in_callback;  // entry whose callback runs now
  bool in_callback_removed;      // ... and that was unregistered from inside it
  void* mux;
  void* schevent;
  void* thread;
  std::atomic<int> is_stopping;
};

// The worker whose thread is the calling thread, if any.
thread_local _SOCK_ASYNC_WORKER* t_running_worker = nullptr;

class WorkerLock {
 public:
  explicit WorkerLock(_SOCK_ASYNC_WORKER* w) : w_(w) { _mutex_lock(w_->mux, kSource, __LINE__); }
  ~WorkerLock() { _mutex_unlock(w_->mux, kSource, __LINE__); }
  WorkerLock(const WorkerLock&) = delete;
  WorkerLock& operator=(const WorkerLock&) = delete;

 private:
  _SOCK_ASYNC_WORKER* w_;
};

bool valid_mode(int mode) { return mode == SOCKET_ASYNC_MODE_RECV || mode == SOCKET_ASYNC_MODE_ACCEPT; }

// The two fields the handler uses, from either kind of socket record.
int* socket_descriptor_field(int mode, void* socket) {
  if (mode == SOCKET_ASYNC_MODE_ACCEPT) return &static_cast<SERVER_SOCKET*>(socket)->s;
  return &static_cast<ABSTRACT_SOCKET*>(socket)->s;
}

void** async_handle_field(int mode, void* socket) {
  if (mode == SOCKET_ASYNC_MODE_ACCEPT) return &static_cast<SERVER_SOCKET*>(socket)->async_handle;
  return &static_cast<ABSTRACT_SOCKET*>(socket)->async_handle;
}

// async_handle is claimed and cleared by whichever worker thread or caller
// registers and unregisters, so every access is atomic.
_SOCK_ASYNC_OBJ* registered_entry(int mode, void* socket) {
  return static_cast<_SOCK_ASYNC_OBJ*>(__atomic_load_n(async_handle_field(mode, socket), __ATOMIC_ACQUIRE));
}

void* socket_of(const _SOCK_ASYNC_OBJ* e) {
  if (e->async_mode == SOCKET_ASYNC_MODE_ACCEPT) return e->server_socket;
  return e->client_socket;
}

long long deadline_after(long long activity, int timeout) { return timeout > 0 ? activity + timeout : kNoDeadline; }

uint64_t event_data(const _SOCK_ASYNC_OBJ* e, int fd) { return (uint64_t)e->serial << 32 | (uint32_t)fd; }

// ---- arming ---------------------------------------------------------------

bool reserve_fd_table(_SOCK_ASYNC_WORKER* w, int fd) {
  if (fd < w->fd_capacity) return true;
  int capacity = w->fd_capacity ? w->fd_capacity : 64;
  while (capacity <= fd) capacity *= 2;
  void* grown = _vekRealloc(w->armed_by_fd, sizeof(_SOCK_ASYNC_OBJ*) * (size_t)capacity, kSource, __LINE__);
  if (!grown) return false;
  w->armed_by_fd = static_cast<_SOCK_ASYNC_OBJ**>(grown);
  for (int i = w->fd_capacity; i < capacity; ++i) w->armed_by_fd[i] = nullptr;
  w->fd_capacity = capacity;
  return true;
}

// Puts the entry's descriptor into the wait set. A descriptor still claimed
// by another entry was closed by its owner without unregistering (closing
// drops it from the set); that entry loses its claim.
int arm(_SOCK_ASYNC_WORKER* w, _SOCK_ASYNC_OBJ* e) {
  if (e->armed_fd >= 0) return 0;
  int fd = *socket_descriptor_field(e->async_mode, socket_of(e));
  if (fd <= 0) return ERR_SOCKET_NOT_OPEN;
  if (!reserve_fd_table(w, fd)) return ERR_NO_MEMORY;
  _SOCK_ASYNC_OBJ* stale = w->armed_by_fd[fd];
  if (stale && stale != e) {
    stale->armed_fd = -1;
    w->set_count.fetch_sub(1, std::memory_order_relaxed);
  }
  struct epoll_event ev = {};
  ev.events = EPOLLIN | EPOLLPRI;
  ev.data.u64 = event_data(e, fd);
  int rc = epoll_ctl(w->poll_fd, EPOLL_CTL_ADD, fd, &ev);
  if (rc != 0 && errno == EEXIST) rc = epoll_ctl(w->poll_fd, EPOLL_CTL_MOD, fd, &ev);
  if (rc != 0) {
    log_vek_error("socket_async_arm(name[%s],fd[%d]): epoll_ctl failed[%d]\n", w->name, fd, errno);
    w->armed_by_fd[fd] = nullptr;
    return ERR_SYSTEM;
  }
  w->armed_by_fd[fd] = e;
  e->armed_fd = fd;
  if (fd > w->fd_max) w->fd_max = fd;
  // The thread sleeps on the scheduled event only while nothing is armed.
  if (w->set_count.fetch_add(1, std::memory_order_acq_rel) == 0) schevent_interrupt(w->schevent);
  return 0;
}

void disarm(_SOCK_ASYNC_WORKER* w, _SOCK_ASYNC_OBJ* e) {
  int fd = e->armed_fd;
  if (fd < 0) return;
  e->armed_fd = -1;
  w->set_count.fetch_sub(1, std::memory_order_relaxed);
  if (w->armed_by_fd[fd] != e) return;  // closed behind our back and taken over since
  w->armed_by_fd[fd] = nullptr;
  // Fails harmlessly when the owner already closed the descriptor.
  epoll_ctl(w->poll_fd, EPOLL_CTL_DEL, fd, nullptr);
}

// ---- slots ----------------------------------------------------------------

// Constant-time removal: the last entry moves into the freed slot.
void unregister(_SOCK_ASYNC_WORKER* w, _SOCK_ASYNC_OBJ* e) {
  disarm(w, e);
  int slot = e->async_index;
  int last = w->socket_count - 1;
  if (slot != last) {
    w->obj_list[slot] = w->obj_list[last];
    w->obj_list[slot]->async_index = slot;
    w->slots[slot] = w->slots[last];
  }
  w->obj_list[last] = nullptr;
  w->slots[last] = SlotState{kNoDeadline, 0, 0};
  if (e->timeout > 0) --w->timed_count;
  __atomic_store_n(async_handle_field(e->async_mode, socket_of(e)), nullptr, __ATOMIC_RELEASE);
  if (w->in_callback == e) w->in_callback_removed = true;
  _vekFree(e, kSource, __LINE__);
  --w->socket_count;
}

void destroy_socket(int mode, void* socket) {
  if (mode == SOCKET_ASYNC_MODE_ACCEPT)
    socket_unlisten(socket);
  else
    socket_delete(socket);
}

int add_socket(void* handle, int mode, void* socket, int timeout, socket_async_callback callback, void* custom) {
  auto* w = static_cast<_SOCK_ASYNC_WORKER*>(handle);
  if (!w || !socket || !callback) return ERR_INVALID_PARAMETER;
  if (!valid_mode(mode)) return ERR_ASYNC_BAD_MODE;
  if (registered_entry(mode, socket)) return ERR_ASYNC_ALREADY_ADDED;
  if (*socket_descriptor_field(mode, socket) <= 0) return ERR_SOCKET_NOT_OPEN;
  auto* e = vek::alloc_record<_SOCK_ASYNC_OBJ>(kSource, __LINE__);
  if (!e) return ERR_NO_MEMORY;

  WorkerLock lock(w);
  int rc = 0;
  void* unclaimed = nullptr;
  if (w->is_stopping.load(std::memory_order_acquire))
    rc = ERR_ASYNC_WORKER_DELETED;
  else if (w->socket_count >= w->socket_max)
    rc = ERR_ASYNC_FULL;
  else if (!__atomic_compare_exchange_n(async_handle_field(mode, socket), &unclaimed, e, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE))
    rc = ERR_ASYNC_ALREADY_ADDED;  // another thread registered it meanwhile
  if (rc != 0) {
    _vekFree(e, kSource, __LINE__);
    return rc;
  }
  e->async_mode = mode;
  e->async_callback = callback;
  e->async_custom = custom;
  e->timeout = timeout;
  e->last_activity = time_now() + w->timeout;
  if (mode == SOCKET_ASYNC_MODE_ACCEPT)
    e->server_socket = static_cast<SERVER_SOCKET*>(socket);
  else
    e->client_socket = static_cast<ABSTRACT_SOCKET*>(socket);
  e->worker = w;
  e->armed_fd = -1;
  if (++w->next_serial == 0) ++w->next_serial;
  e->serial = w->next_serial;
  e->async_index = w->socket_count;
  w->obj_list[e->async_index] = e;
  w->slots[e->async_index] = SlotState{deadline_after(e->last_activity, timeout), 0, 0};
  ++w->socket_count;
  if (timeout > 0) ++w->timed_count;
  rc = arm(w, e);
  if (rc != 0) unregister(w, e);
  return rc;
}

// The entry of a socket registered with this worker in this mode, or the
// code that says why there is none. Called under mux.
int find_entry(_SOCK_ASYNC_WORKER* w, int mode, void* socket, _SOCK_ASYNC_OBJ** found) {
  _SOCK_ASYNC_OBJ* e = registered_entry(mode, socket);
  if (!e || e->worker != w) return ERR_ASYNC_NOT_ADDED;
  if (e->async_mode != mode) return ERR_ASYNC_BAD_MODE;
  *found = e;
  return 0;
}

int remove_socket(void* handle, int mode, void* socket) {
  auto* w = static_cast<_SOCK_ASYNC_WORKER*>(handle);
  if (!w || !socket) return ERR_INVALID_PARAMETER;
  if (!valid_mode(mode)) return ERR_ASYNC_BAD_MODE;
  WorkerLock lock(w);
  _SOCK_ASYNC_OBJ* e = nullptr;
  int rc = find_entry(w, mode, socket, &e);
  if (rc == 0) unregister(w, e);
  return rc;
}

int resume_socket(void* handle, int mode, void* socket) {
  auto* w = static_cast<_SOCK_ASYNC_WORKER*>(handle);
  if (!w || !socket) return ERR_INVALID_PARAMETER;
  WorkerLock lock(w);
  _SOCK_ASYNC_OBJ* e = nullptr;
  int rc = find_entry(w, mode, socket, &e);
  return rc == 0 ? arm(w, e) : rc;
}

// ---- the dispatch pass ----------------------------------------------------

// Carries out a callback's decision; true when the entry left its slot.
bool apply_return(_SOCK_ASYNC_WORKER* w, _SOCK_ASYNC_OBJ* e, int decision) {
  switch (decision) {
    case SOCKET_ASYNC_KEEP:
      return false;
    case SOCKET_ASYNC_PAUSE:
      disarm(w, e);
      return false;
    case SOCKET_ASYNC_END:
      unregister(w, e);
      return true;
    case SOCKET_ASYNC_DESTROY: {
      int mode = e->async_mode;
      void* socket = socket_of(e);
      unregister(w, e);
      destroy_socket(mode, socket);
      return true;
    }
    default:
      log_vek_error("_socket_async_handler(): Invalid return code[%d]\n", decision);
      disarm(w, e);
      return false;
  }
}

// Turns the wait's reports into slot marks for this pass; returns how many
// registered sockets were reported.
int mark_ready(_SOCK_ASYNC_WORKER* w, int reported) {
  if (++w->pass == 0) ++w->pass;
  int ready = 0;
  for (int i = 0; i < reported; ++i) {
    uint64_t data = w->events[i].data.u64;
    if (data == kWakeMarker) continue;
    int fd = (int)(uint32_t)data;
    _SOCK_ASYNC_OBJ* e = fd < w->fd_capacity ? w->armed_by_fd[fd] : nullptr;
    // A report can be older than a removal or re-registration that happened
    // while the thread was waiting: only the current registration counts.
    if (!e || e->serial != (uint32_t)(data >> 32) || e->armed_fd != fd) continue;
    SlotState& slot = w->slots[e->async_index];
    slot.ready_pass = w->pass;
    slot.ready_events = w->events[i].events;
    ++ready;
  }
  return ready;
}

// The status the slot's entry is called with in this pass, or 1 if it is
// not due.
int due_status(const SlotState& slot, uint32_t pass, long long now) {
  bool reported = slot.ready_pass == pass;
  if (reported && (slot.ready_events & kErrorEvents)) return ERR_SOCKET_FAILED;
  if (slot.deadline < now) return ERR_SOCKET_TIMEOUT;
  if (reported) return 0;
  return 1;
}

void walk_slots(_SOCK_ASYNC_WORKER* w, int ready) {
  const uint32_t pass = w->pass;
  long long now = time_now();
  int served = 0;  // reported sockets called so far
  int i = 1;
  while (i < w->socket_count && (served < ready || w->timed_count > 0)) {
    int status = due_status(w->slots[i], pass, now);
    _SOCK_ASYNC_OBJ* e = w->obj_list[i];
    if (status == 1 || e->served_pass == pass) {
      ++i;
      continue;
    }
    e->served_pass = pass;
    if (w->slots[i].ready_pass == pass) ++served;
    if (status == 0) {
      e->last_activity = now;
      w->slots[i].deadline = deadline_after(now, e->timeout);
    }
    w->in_callback = e;
    w->in_callback_removed = false;
    int decision = e->async_callback(status, socket_of(e), e->async_custom);
    bool removed_inside = w->in_callback_removed;
    w->in_callback = nullptr;
    now = time_now();
    // Whatever left slot i, the slot now holds the entry moved into it.
    if (removed_inside) continue;
    if (!apply_return(w, e, decision)) ++i;
  }
}

void dispatch(_SOCK_ASYNC_WORKER* w, int reported) {
  WorkerLock lock(w);
  int ready = mark_ready(w, reported);
  if (w->socket_count > 1 && ready > 0) walk_slots(w, ready);
}

int wait_ms(const _SOCK_ASYNC_WORKER* w) { return w->timeout < 0 ? -1 : w->timeout; }

void* _socket_async_handler(void* arg) {
  auto* w = static_cast<_SOCK_ASYNC_WORKER*>(arg);
  t_running_worker = w;
  while (!w->is_stopping.load(std::memory_order_acquire)) {
    if (w->set_count.load(std::memory_order_acquire) == 0) {
      schevent_wait(w->schevent);
      continue;
    }
    int reported = epoll_wait(w->poll_fd, w->events, w->events_capacity, wait_ms(w));
    if (reported > 0) {
      dispatch(w, reported);
    } else if (reported < 0 && errno != EINTR) {
      int error = errno;
      int count;
      {
        WorkerLock lock(w);
        count = w->socket_count;
      }
      log_vek_error("_socket_async_handler(name[%s]): epoll_wait failed[%d]\n", w->name, error);
      log_vek_error("socket_select():  ret[%d] socket_count[%d]\n", ERR_SOCKET_FAILED, count);
      thread_sleep(w->timeout > 0 ? w->timeout : 1);
    }
  }
  t_running_worker = nullptr;
  return nullptr;
}

// ---- creation and deletion -------------------------------------------------

void free_worker(_SOCK_ASYNC_WORKER* w) {
  if (w->thread) thread_delete(w->thread);
  if (w->poll_fd >= 0) close(w->poll_fd);
  if (w->wake_fd >= 0) close(w->wake_fd);
  if (w->mux) mutex_delete(w->mux);
  if (w->schevent) schevent_delete(w->schevent);
  vek::release(w->obj_list, kSource, __LINE__);
  vek::release(w->slots, kSource, __LINE__);
  vek::release(w->armed_by_fd, kSource, __LINE__);
  vek::release(w->events, kSource, __LINE__);
  _vekFree(w, kSource, __LINE__);
}

int open_wait_set(_SOCK_ASYNC_WORKER* w) {
  w->poll_fd = epoll_create1(EPOLL_CLOEXEC);
  if (w->poll_fd < 0) {
    log_vek_error("socket_async_worker_create(name[%s]): epoll_create1 failed[%d]\n", w->name, errno);
    return ERR_SYSTEM;
  }
  w->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (w->wake_fd < 0) {
    log_vek_error("socket_async_worker_create(name[%s]): eventfd failed[%d]\n", w->name, errno);
    return ERR_SYSTEM;
  }
  struct epoll_event ev = {};
  ev.events = EPOLLIN;
  ev.data.u64 = kWakeMarker;
  if (epoll_ctl(w->poll_fd, EPOLL_CTL_ADD, w->wake_fd, &ev) != 0) {
    log_vek_error("socket_async_worker_create(name[%s]): epoll_ctl failed[%d]\n", w->name, errno);
    return ERR_SYSTEM;
  }
  return 0;
}

template <class T>
T* alloc_array(int count, int line) {
  return static_cast<T*>(vek::zalloc(sizeof(T) * (size_t)count, kSource, line));
}

int build_worker(_SOCK_ASYNC_WORKER* w, const char* name, int max_socket, int timeout) {
  vek::copy_name(w->name, 65, name);
  w->socket_count = 1;
  w->socket_max = max_socket;
  w->timeout = timeout;
  w->poll_fd = -1;
  w->wake_fd = -1;
  w->events_capacity = (max_socket < kMaxEventsPerWait ? max_socket : kMaxEventsPerWait) + 1;
  w->obj_list = alloc_array<_SOCK_ASYNC_OBJ*>(max_socket, __LINE__);
  w->slots = alloc_array<SlotState>(max_socket, __LINE__);
  w->events = alloc_array<struct epoll_event>(w->events_capacity, __LINE__);
  if (!w->obj_list || !w->slots || !w->events) return ERR_NO_MEMORY;
  for (int i = 0; i < max_socket; ++i) w->slots[i].deadline = kNoDeadline;
  int rc = _mutex_create_ex(&w->mux, nullptr, 0, kSource, __LINE__);
  if (rc != 0) return rc;
  rc = schevent_create(&w->schevent);
  if (rc != 0) return rc;
  return open_wait_set(w);
}

int start_thread(_SOCK_ASYNC_WORKER* w, int thread_priority) {
  THREAD_EX_ARGS ex = {kThreadName, kWorkerStackSize, thread_priority};
  return thread_create_ex(&w->thread, _socket_async_handler, w, &ex);
}

int create_default(void** global, const char* name, int max_socket, int priority, int timeout) {
  if (*global) return 0;
  return socket_async_worker_create(global, name, max_socket, priority, timeout);
}

}  // namespace

int socket_async_worker_create(void** handle, const char* name, int max_socket, int thread_priority, int timeout) {
  if (!handle || max_socket < 1) return ERR_INVALID_PARAMETER;
  auto* w = vek::alloc_record<_SOCK_ASYNC_WORKER>(kSource, __LINE__);
  if (!w) return ERR_NO_MEMORY;
  int rc = build_worker(w, name, max_socket, timeout);
  if (rc == 0) rc = start_thread(w, thread_priority);
  if (rc != 0) {
    free_worker(w);
    return rc;
  }
  *handle = w;
  return 0;
}

void socket_async_worker_delete(void* handle) {
  auto* w = static_cast<_SOCK_ASYNC_WORKER*>(handle);
  if (!w) return;
  if (t_running_worker == w) {
    log_vek_error("socket_async_worker_delete(name[%s]): called from its own callback\n", w->name);
    return;
  }
  w->is_stopping.store(1, std::memory_order_release);
  // Wake the thread whether it sleeps with nothing armed or waits for
  // readiness, so the join does not wait for a time-out.
  schevent_interrupt(w->schevent);
  uint64_t one = 1;
  if (write(w->wake_fd, &one, sizeof one) < 0)
    log_vek_error("socket_async_worker_delete(name[%s]): write failed[%d]\n", w->name, errno);
  thread_join(w->thread, nullptr);
  {
    WorkerLock lock(w);
    while (w->socket_count > 1) {
      _SOCK_ASYNC_OBJ* e = w->obj_list[w->socket_count - 1];
      int mode = e->async_mode;
      void* socket = socket_of(e);
      socket_async_callback callback = e->async_callback;
      void* custom = e->async_custom;
      unregister(w, e);
      if (callback(ERR_ASYNC_WORKER_DELETED, socket, custom) == SOCKET_ASYNC_DESTROY) destroy_socket(mode, socket);
    }
  }
  free_worker(w);
}

int socket_async_worker_add_accept(void* handle, void* server_socket, int timeout, socket_async_callback callback,
                                   void* custom) {
  return add_socket(handle, SOCKET_ASYNC_MODE_ACCEPT, server_socket, timeout, callback, custom);
}

int socket_async_worker_add_recv(void* handle, void* client_socket, int timeout, socket_async_callback callback,
                                 void* custom) {
  return add_socket(handle, SOCKET_ASYNC_MODE_RECV, client_socket, timeout, callback, custom);
}

int socket_async_worker_remove_accept(void* handle, void* socket) {
  return remove_socket(handle, SOCKET_ASYNC_MODE_ACCEPT, socket);
}

int socket_async_worker_remove_recv(void* handle, void* socket) {
  return remove_socket(handle, SOCKET_ASYNC_MODE_RECV, socket);
}

int socket_async_worker_resume_accept(void* handle, void* server_socket) {
  return resume_socket(handle, SOCKET_ASYNC_MODE_ACCEPT, server_socket);
}

int socket_async_worker_resume_recv(void* handle, void* client_socket) {
  return resume_socket(handle, SOCKET_ASYNC_MODE_RECV, client_socket);
}

int socket_async_default_init(int max_socket, int priority, int timeout) {
  int rc = create_default(&g_socket_async_default_acceptor, "Default Acceptor", max_socket, priority, timeout);
  if (rc != 0) return rc;
  return create_default(&g_socket_async_default_receiver, "Default Receiver", max_socket, priority, timeout);
}

int socket_async_default_uninit(void) {
  socket_async_worker_delete(g_socket_async_default_acceptor);
  g_socket_async_default_acceptor = nullptr;
  socket_async_worker_delete(g_socket_async_default_receiver);
  g_socket_async_default_receiver = nullptr;
  return 0;
}

int socket_async_accept_begin(void* server_socket, int timeout, socket_async_callback callback, void* custom) {
  return socket_async_worker_add_accept(g_socket_async_default_acceptor, server_socket, timeout, callback, custom);
}

int socket_async_accept_end(void* server_socket) {
  return socket_async_worker_remove_accept(g_socket_async_default_acceptor, server_socket);
}

int socket_async_accept_resume(void* server_socket) {
  return socket_async_worker_resume_accept(g_socket_async_default_acceptor, server_socket);
}

int socket_async_recv_begin(void* client_socket, int timeout, socket_async_callback callback, void* custom) {
  return socket_async_worker_add_recv(g_socket_async_default_receiver, client_socket, timeout, callback, custom);
}

int socket_async_recv_end(void* client_socket) {
  return socket_async_worker_remove_recv(g_socket_async_default_receiver, client_socket);
}

int socket_async_recv_resume(void* client_socket) {
  return socket_async_worker_resume_recv(g_socket_async_default_receiver, client_socket);
}
