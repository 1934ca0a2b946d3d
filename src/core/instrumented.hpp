// Registry plumbing shared by the instrumented modules (locks, events, trees,
// queues): the lazily made group of each module and small builders for the
// rows and detail objects their renderers produce.
#pragma once

#include <pthread.h>

#include <vekutil/instrument.h>
#include <vekutil/json.h>
#include <vekutil/strutil.h>

#include "core/internal.hpp"
#include "core/scoped_lock.hpp"

namespace vek {

// Returns the module's group in *slot, making it on first use. Another
// thread may read *slot at any time, hence the atomic accesses. While the
// registry is disabled the group stays NULL and every later add or remove
// just returns ERR_DISABLED, which the modules ignore.
inline void* lazy_instrument_group(void** slot, const char* name, instrument_header_callback header,
                                   instrument_callback list, instrument_callback detail) {
  void* group = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
  if (group) return group;
  static pthread_mutex_t init = PTHREAD_MUTEX_INITIALIZER;
  ScopedLock once(init);
  group = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
  if (!group) {
    instrument_create(&group, name, header, list, detail);
    __atomic_store_n(slot, group, __ATOMIC_RELEASE);
  }
  return group;
}

// The group if it exists, without making it (for removal).
inline void* existing_group(void** slot) { return __atomic_load_n(slot, __ATOMIC_ACQUIRE); }

inline void add_titles(JSON* row, const char* const* titles, int count) {
  for (int i = 0; i < count; ++i) json_AddItemToArray(row, json_CreateString(titles[i]));
}

inline void add_number(JSON* row, long long value) { json_AddItemToArray(row, json_CreateInteger(value)); }

inline void add_text(JSON* object, const char* key, const char* value) {
  json_AddItemToObject(object, key, json_CreateString(value));
}

inline void add_count(JSON* object, const char* key, int value) { add_text(object, key, format("%d", value)); }

// "file [Line n]", with "NULL" for a position never recorded.
inline void add_position(JSON* object, const char* key, const char* file, int line) {
  add_text(object, key, format("%s [Line %d]", file ? file : "NULL", line));
}

}  // namespace vek
