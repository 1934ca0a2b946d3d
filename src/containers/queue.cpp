// First-in first-out queue of opaque pointers. The items live in a ring that
// doubles (or jumps to the maximum) when it is full. Every field changes under
// the queue's mutex; consumers sleep on an event that is open exactly while
// the queue holds items, so they never sleep holding the mutex. The event is
// opened by the put that makes the count 1 and closed by the get that makes
// it 0, both under the mutex, so its state always mirrors the count.
#include <climits>
#include <cstring>
#include <initializer_list>

#include <vekutil/event.h>
#include <vekutil/instrument.h>
#include <vekutil/json.h>
#include <vekutil/mutex.h>
#include <vekutil/queue.h>
#include <vekutil/strutil.h>

#include "core/instrumented.hpp"
#include "core/internal.hpp"
#include "core/scoped_lock.hpp"

void* g_queue_instrument_handle = nullptr;

namespace {

constexpr const char* kSource = "src/queue.c";
constexpr int kInitialSlots = 32;

struct _QUEUE_OBJECT {
  int max_size;  // -1 (any negative value): no limit
  int count;
  int options;   // caller's option bits plus the QUEUE_STATE_* bits
  int cur_size;  // slots in the ring
  int head;      // slot the next put writes (wraps lazily, just before a write)
  int tail;      // slot the next get reads
  void** items;
  void* lock;
  void* evt;
  char* name;
  const char* created_by_file;
  int created_by_line;
  queue_on_item_callback cb_on_next_item;
  queue_on_item_callback cb_on_next_item_after_error;
  void* cb_custom;
};

_QUEUE_OBJECT* as_queue(void* handle) { return static_cast<_QUEUE_OBJECT*>(handle); }
const _QUEUE_OBJECT* as_queue(const void* handle) { return static_cast<const _QUEUE_OBJECT*>(handle); }

bool has_limit(const _QUEUE_OBJECT* q) { return q->max_size >= 0; }

// The capacity the ring grows to when it is full, or ERR_QUEUE_FULL when the
// maximum forbids growing. With a maximum of at least twice the capacity the
// ring jumps straight to the maximum.
int grown_capacity(const _QUEUE_OBJECT* q) {
  if (q->cur_size > INT_MAX / 2) return ERR_NO_MEMORY;
  const int doubled = q->cur_size * 2;
  if (!has_limit(q)) return doubled;
  if (q->max_size == q->cur_size) return ERR_QUEUE_FULL;
  if (q->max_size >= doubled) return q->max_size;
  return doubled;
}

// Called with the lock held on a full ring (head == tail, or tail == 0 and
// head == cur_size). The wrapped front part keeps its slots; the older part
// from tail moves to the end of the new ring.
int grow(_QUEUE_OBJECT* q) {
  const int capacity = grown_capacity(q);
  if (capacity < 0) return capacity;
  auto* ring = static_cast<void**>(vek::zalloc(sizeof(void*) * (size_t)capacity, kSource, __LINE__));
  if (!ring) return ERR_NO_MEMORY;
  const int old_size = q->cur_size;
  if (q->tail == 0) {
    std::memcpy(ring, q->items, sizeof(void*) * (size_t)old_size);
  } else {
    const int growth = capacity - old_size;
    std::memcpy(ring, q->items, sizeof(void*) * (size_t)q->head);
    std::memcpy(ring + q->tail + growth, q->items + q->tail, sizeof(void*) * (size_t)(old_size - q->tail));
    q->tail += growth;
  }
  _vekFree(q->items, kSource, __LINE__);
  q->items = ring;
  q->cur_size = capacity;
  return 0;
}

void raise_flag_if_armed(_QUEUE_OBJECT* q) {
  if ((q->options & QUEUE_OPTION_FLAG) && !(q->options & QUEUE_STATE_FLAG_ACKED))
    q->options |= QUEUE_STATE_FLAG_RAISED;
}

// The one-shot callback is disarmed before it runs, so a callback that arms
// it again is not lost.
void notify_owner(_QUEUE_OBJECT* q) {
  if (queue_on_item_callback next = q->cb_on_next_item) {
    q->cb_on_next_item = nullptr;
    next(q, q->cb_custom);
  }
  if (q->cb_on_next_item_after_error && (q->options & QUEUE_STATE_GET_FAILED)) {
    q->options &= ~QUEUE_STATE_GET_FAILED;
    q->cb_on_next_item_after_error(q, q->cb_custom);
  }
}

// Removes the oldest item (lock held, count > 0); returns the count left.
int take_oldest(_QUEUE_OBJECT* q, void** item) {
  *item = q->items[q->tail];
  q->items[q->tail] = nullptr;
  if (++q->tail == q->cur_size) q->tail = 0;
  if (--q->count == 0) event_lock(q->evt);
  return q->count;
}

// A get that waited in vain (lock held, queue empty).
void note_failed_get(_QUEUE_OBJECT* q) {
  q->options |= QUEUE_STATE_GET_FAILED;
  if (q->options & QUEUE_OPTION_FLAG_RESET) q->options &= ~(QUEUE_STATE_FLAG_RAISED | QUEUE_STATE_FLAG_ACKED);
}

// The event wait takes an int; longer time-outs are cut to the longest wait
// it can express.
int event_timeout(long timeout) {
  if (timeout > INT_MAX) return INT_MAX;
  if (timeout < INT_MIN) return INT_MIN;
  return (int)timeout;
}

const char* text_or_empty(const char* s) { return s ? s : ""; }

// Registry renderers. They run under the registry's lock and take the
// queue's own lock to read a consistent state.
void render_header(JSON* row) {
  for (const char* title : {"Created by File", "Line Number", "Count", "Has Lock"})
    json_AddItemToArray(row, json_CreateString(title));
}

void render_row(const void* item, JSON* row) {
  const _QUEUE_OBJECT* q = as_queue(item);
  int count;
  {
    vek::ScopedLock guard(q->lock, kSource, __LINE__);
    count = q->count;
  }
  json_AddItemToArray(row, json_CreateString(text_or_empty(q->created_by_file)));
  json_AddItemToArray(row, json_CreateNumber(q->created_by_line));
  json_AddItemToArray(row, json_CreateNumber(count));
  json_AddItemToArray(row, json_CreateString(q->lock ? "Lock" : ""));
}

void add_number_text(JSON* object, const char* key, int value) {
  json_AddItemToObject(object, key, json_CreateString(format("%d", value)));
}

void render_detail(const void* item, JSON* object) {
  const _QUEUE_OBJECT* q = as_queue(item);
  vek::ScopedLock guard(q->lock, kSource, __LINE__);
  json_AddItemToObject(object, "Name", json_CreateString(text_or_empty(q->name)));
  add_number_text(object, "Count", q->count);
  add_number_text(object, "Max Size", q->max_size);
  add_number_text(object, "Current Size", q->cur_size);
  add_number_text(object, "Options", q->options);
  json_AddItemToObject(object, "Uses Callback", json_CreateString(q->cb_on_next_item ? "True" : "False"));
}

void destroy(_QUEUE_OBJECT* q) {
  if (q->lock) mutex_delete(q->lock);
  if (q->evt) event_delete(q->evt);
  if (q->name) _vekFree(q->name, kSource, __LINE__);
  if (q->items) _vekFree(q->items, kSource, __LINE__);
  _vekFree(q, kSource, __LINE__);
}

}  // namespace

void* queue_instrument_handle(void) {
  return vek::lazy_instrument_group(&g_queue_instrument_handle, "queue_instrument_handle()", render_header,
                                    render_row, render_detail);
}

int _queue_create_ex(void** handle, int max_size, int options, const char* file, int line) {
  if (!handle) return ERR_INVALID_HANDLE;
  *handle = nullptr;
  auto* q = vek::alloc_record<_QUEUE_OBJECT>(kSource, __LINE__);
  if (!q) return ERR_NO_MEMORY;
  q->items = static_cast<void**>(vek::zalloc(sizeof(void*) * kInitialSlots, kSource, __LINE__));
  if (!q->items) {
    destroy(q);
    return ERR_NO_MEMORY;
  }
  q->max_size = max_size;
  q->options = options;
  q->cur_size = kInitialSlots;
  q->created_by_file = file;
  q->created_by_line = line;
  q->name = clone_string(format("queue[%s:%d]", file ? file : "NULL", line), -1);
  int rc = _mutex_create_ex(&q->lock, q->name, 0, file, line);
  if (rc == 0) rc = event_create_ex(&q->evt, q->name, 0);
  if (rc != 0) {
    destroy(q);
    return rc;
  }
  // A disabled registry refuses every group; the queue works without it.
  instrument_add(queue_instrument_handle(), q);
  *handle = q;
  return 0;
}

int _queue_create(void** handle, const char* file, int line) { return _queue_create_ex(handle, -1, 0, file, line); }

int queue_delete(void* handle) {
  _QUEUE_OBJECT* q = as_queue(handle);
  if (!q) return ERR_INVALID_HANDLE;
  instrument_remove(queue_instrument_handle(), q);
  destroy(q);
  return 0;
}

int queue_put(void* handle, void* item) {
  _QUEUE_OBJECT* q = as_queue(handle);
  if (!q) return ERR_INVALID_HANDLE;
  vek::ScopedLock guard(q->lock, kSource, __LINE__);
  if (has_limit(q) && q->count >= q->max_size) return ERR_QUEUE_FULL;
  if (q->count == q->cur_size) {
    const int rc = grow(q);
    if (rc != 0) return rc;
  }
  if (q->head == q->cur_size) q->head = 0;
  q->items[q->head++] = item;
  const int count = ++q->count;
  raise_flag_if_armed(q);
  if (count == 1) event_unlock(q->evt);
  notify_owner(q);
  return count;
}

int queue_get(void* handle, void** item, long timeout) {
  _QUEUE_OBJECT* q = as_queue(handle);
  if (!q) return ERR_INVALID_HANDLE;
  if (!item) return ERR_INVALID_PARAMETER;
  *item = nullptr;
  {
    // Items waiting: the event is open and the wait would pass at once.
    vek::ScopedLock guard(q->lock, kSource, __LINE__);
    if (q->count > 0) return take_oldest(q, item);
  }
  const int wait_ms = event_timeout(timeout);
  for (;;) {
    const int rc = _event_wait(q->evt, wait_ms, kSource, __LINE__);
    vek::ScopedLock guard(q->lock, kSource, __LINE__);
    if (q->count > 0) return take_oldest(q, item);
    // Woken, but another consumer was first: wait again.
    if (rc == 0) continue;
    note_failed_get(q);
    return rc;
  }
}

int queue_count(void* handle) {
  _QUEUE_OBJECT* q = as_queue(handle);
  if (!q) return ERR_INVALID_HANDLE;
  vek::ScopedLock guard(q->lock, kSource, __LINE__);
  return q->count;
}

int queue_set_max_size(void* handle, int max_size) {
  _QUEUE_OBJECT* q = as_queue(handle);
  if (!q) return ERR_INVALID_HANDLE;
  vek::ScopedLock guard(q->lock, kSource, __LINE__);
  q->max_size = max_size;
  return 0;
}

int queue_set_name(void* handle, const char* name) {
  _QUEUE_OBJECT* q = as_queue(handle);
  if (!q) return ERR_INVALID_HANDLE;
  char* copy = nullptr;
  if (name && !(copy = clone_string(name, -1))) return ERR_NO_MEMORY;
  vek::ScopedLock guard(q->lock, kSource, __LINE__);
  if (q->name) _vekFree(q->name, kSource, __LINE__);
  q->name = copy;
  return 0;
}

int queue_set_callbacks(void* handle, queue_on_item_callback next_item, queue_on_item_callback next_item_after_error,
                        void* custom) {
  _QUEUE_OBJECT* q = as_queue(handle);
  if (!q) return ERR_INVALID_HANDLE;
  vek::ScopedLock guard(q->lock, kSource, __LINE__);
  if (next_item) q->cb_on_next_item = next_item;
  if (next_item_after_error) q->cb_on_next_item_after_error = next_item_after_error;
  q->cb_custom = custom;
  return 0;
}

int queue_set_flag(void* handle) {
  _QUEUE_OBJECT* q = as_queue(handle);
  if (!q) return ERR_INVALID_HANDLE;
  vek::ScopedLock guard(q->lock, kSource, __LINE__);
  q->options |= QUEUE_STATE_FLAG_RAISED;
  return 0;
}

int queue_get_flag(void* handle) {
  _QUEUE_OBJECT* q = as_queue(handle);
  if (!q) return ERR_INVALID_HANDLE;
  vek::ScopedLock guard(q->lock, kSource, __LINE__);
  if (!(q->options & QUEUE_STATE_FLAG_RAISED)) return 0;
  q->options = (q->options & ~QUEUE_STATE_FLAG_RAISED) | QUEUE_STATE_FLAG_ACKED;
  return 1;
}

// The refusal releases the lock like every other path.
int queue_clr_flag(void* handle) {
  _QUEUE_OBJECT* q = as_queue(handle);
  if (!q) return ERR_INVALID_HANDLE;
  vek::ScopedLock guard(q->lock, kSource, __LINE__);
  if (q->count > 0) return ERR_QUEUE_NOT_EMPTY;
  q->options &= ~(QUEUE_STATE_FLAG_RAISED | QUEUE_STATE_FLAG_ACKED);
  return 0;
}
