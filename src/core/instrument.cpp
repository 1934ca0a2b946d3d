// Instrumentation registry: one group per module, indexing the module's live
// objects by address and assembling their renderings into JSON. The rows
// themselves come from the module's callbacks, run with the group's mutex
// held.
#include <cstdint>

#include <vekutil/btree.h>
#include <vekutil/errors.h>
#include <vekutil/instrument.h>
#include <vekutil/json.h>
#include <vekutil/log.h>
#include <vekutil/mutex.h>

#include "core/internal.hpp"
#include "core/scoped_lock.hpp"

#define INSTRUMENT_SOURCE "src/instrument.c"

struct _INSTRUMENT_HANDLE {
  void* mux;
  void* btree;
  const char* name;
  instrument_header_callback header_func;
  instrument_callback list_func;
  instrument_callback detail_func;
};

struct _INSTRUMENT_FOREACH {
  _INSTRUMENT_HANDLE* obj;
  JSON* json;
};

int g_vek_instrument_disable = 0;

namespace {

using Group = _INSTRUMENT_HANDLE;

// The group's tree: keyed by address, owns nothing, no lock of its own (the
// group's mutex serves) and never listed itself.
constexpr int kGroupTreeOptions = BTREE_OPTION_NO_LOCK | BTREE_OPTION_NO_INSTRUMENT;
constexpr int kGroupMutexOptions = MUTEX_OPT_NO_INSTRUMENT;

inline bool disabled() { return g_vek_instrument_disable != 0; }

void append_row(long long hash, const void* item, void* args) {
  _INSTRUMENT_FOREACH* walk = static_cast<_INSTRUMENT_FOREACH*>(args);
  JSON* row = json_CreateArray();
  json_AddItemToArray(row, json_CreateInteger(hash));
  walk->obj->list_func(item, row);
  json_AddItemToArray(walk->json, row);
}

}  // namespace

int instrument_create(void** handle, const char* name, instrument_header_callback list_header_func,
                      instrument_callback list_func, instrument_callback detail_func) {
  if (disabled()) return ERR_DISABLED;
  if (!handle || !list_header_func || !list_func || !detail_func) return ERR_INVALID_PARAMETER;
  Group* g = vek::alloc_record<Group>(INSTRUMENT_SOURCE, __LINE__);
  if (!g) return ERR_NO_MEMORY;
  g->name = name;
  g->header_func = list_header_func;
  g->list_func = list_func;
  g->detail_func = detail_func;
  if (_mutex_create_ex(&g->mux, "instrument_create", kGroupMutexOptions, INSTRUMENT_SOURCE, __LINE__) != 0 ||
      _btree_create_ex(&g->btree, nullptr, nullptr, kGroupTreeOptions, INSTRUMENT_SOURCE, __LINE__) != 0) {
    if (g->mux) mutex_delete(g->mux);
    _vekFree(g, INSTRUMENT_SOURCE, __LINE__);
    return ERR_NO_MEMORY;
  }
  *handle = g;
  return 0;
}

int instrument_delete(void* handle) {
  if (disabled()) return ERR_DISABLED;
  Group* g = static_cast<Group*>(handle);
  if (!g) return ERR_INVALID_PARAMETER;
  btree_delete(g->btree);
  mutex_delete(g->mux);
  _vekFree(g, INSTRUMENT_SOURCE, __LINE__);
  return 0;
}

int instrument_add(void* handle, void* item) {
  if (disabled()) return ERR_DISABLED;
  Group* g = static_cast<Group*>(handle);
  if (!g || !item) return ERR_INVALID_PARAMETER;
  bool exists;
  void* filed = nullptr;
  {
    // Looked up first: inserting the same item again would hand back the
    // item itself, indistinguishable from a fresh insertion.
    vek::ScopedLock lock(g->mux, INSTRUMENT_SOURCE, __LINE__);
    exists = btree_find_by_object(g->btree, item) != nullptr;
    if (!exists) filed = btree_insert(g->btree, item);
  }
  if (exists) {
    log_vek_error("instrument_add(%s): item already exists!\n", g->name);
    return ERR_ALREADY_EXISTS;
  }
  return filed ? 0 : ERR_NO_MEMORY;
}

int instrument_remove(void* handle, void* item) {
  if (disabled()) return ERR_DISABLED;
  Group* g = static_cast<Group*>(handle);
  if (!g || !item) return ERR_INVALID_PARAMETER;
  void* removed;
  {
    vek::ScopedLock lock(g->mux, INSTRUMENT_SOURCE, __LINE__);
    removed = btree_delete_by_object(g->btree, item);
  }
  if (!removed) {
    log_vek_error("instrument_remove(%s): item not found!\n", g->name);
    return ERR_NOT_FOUND;
  }
  return 0;
}

int instrument_count(void* handle) {
  if (disabled()) return ERR_DISABLED;
  Group* g = static_cast<Group*>(handle);
  if (!g) return ERR_INVALID_PARAMETER;
  vek::ScopedLock lock(g->mux, INSTRUMENT_SOURCE, __LINE__);
  return btree_count(g->btree);
}

int instrument_list(void* handle, JSON** json) {
  if (disabled()) return ERR_DISABLED;
  Group* g = static_cast<Group*>(handle);
  if (!g || !json) return ERR_INVALID_PARAMETER;
  vek::ScopedLock lock(g->mux, INSTRUMENT_SOURCE, __LINE__);
  JSON* list = json_CreateArray();
  JSON* header = json_CreateArray();
  json_AddItemToArray(header, json_CreateString("Hash"));
  g->header_func(header);
  json_AddItemToArray(list, header);
  _INSTRUMENT_FOREACH walk{g, list};
  btree_foreach_ex(g->btree, append_row, &walk);
  *json = list;
  return 0;
}

int instrument_detail(void* handle, long long hash, JSON** json) {
  if (disabled()) return ERR_DISABLED;
  Group* g = static_cast<Group*>(handle);
  if (!g || !json) return ERR_INVALID_PARAMETER;
  vek::ScopedLock lock(g->mux, INSTRUMENT_SOURCE, __LINE__);
  void* item = btree_find_by_hash(g->btree, hash);
  if (!item) return ERR_NOT_FOUND;
  JSON* detail = json_CreateObject();
  g->detail_func(item, detail);
  *json = detail;
  return 0;
}

int instrument_global_disable(void) {
  g_vek_instrument_disable = 1;
  return 0;
}

int instrument_global_is_disabled(void) { return g_vek_instrument_disable; }
