/* Run-time loading of shared objects. */
#ifndef VEKUTIL_LOADER_H
#define VEKUTIL_LOADER_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Opens the shared object at path into *handle: 0, ERR_INVALID_PARAMETER for
 * NULL arguments, ERR_NOT_FOUND (with a log line) if it cannot be loaded. */
VEK_API int loader_load(void** handle, const char* path);
/* The address of symbol name, or NULL. */
VEK_API void* loader_get_symbol(void* handle, const char* name);
/* Closes the object: 0, ERR_INVALID_HANDLE for NULL, ERR_SYSTEM on failure. */
VEK_API int loader_unload(void* handle);

VEK_END_DECLS

#endif
