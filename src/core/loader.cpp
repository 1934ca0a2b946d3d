// Run-time loading of shared objects.
#include <dlfcn.h>

#include <vekutil/loader.h>

#include "core/internal.hpp"

int loader_load(void** handle, const char* path) {
  if (!handle || !path) return ERR_INVALID_PARAMETER;
  *handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!*handle) {
    const char* why = dlerror();
    log_vek_error("loader_load(%s): dlopen failed[%s]\n", path, why ? why : "");
    return ERR_NOT_FOUND;
  }
  return 0;
}

void* loader_get_symbol(void* handle, const char* name) {
  if (!handle || !name) return nullptr;
  return dlsym(handle, name);
}

int loader_unload(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  if (dlclose(handle) != 0) {
    const char* why = dlerror();
    log_vek_error("loader_unload(): dlclose failed[%s]\n", why ? why : "");
    return ERR_SYSTEM;
  }
  return 0;
}
