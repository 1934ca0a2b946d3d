/* Instrumentation registry: lists the live objects of each module as JSON. */
#ifndef VEKUTIL_INSTRUMENT_H
#define VEKUTIL_INSTRUMENT_H

#include <vekutil/defs.h>
#include <vekutil/json.h>

VEK_BEGIN_DECLS

/* Appends the titles of a module's list columns to the header row. */
typedef void (*instrument_header_callback)(JSON* array);
/* Appends one item's list columns to a row, or its detail fields to an object. */
typedef void (*instrument_callback)(const void* item, JSON* json);

VEK_API extern int g_vek_instrument_disable;

VEK_API int instrument_create(void** handle, const char* name, instrument_header_callback list_header_func,
                              instrument_callback list_func, instrument_callback detail_func);
VEK_API int instrument_delete(void* handle);
VEK_API int instrument_add(void* handle, void* item);
VEK_API int instrument_remove(void* handle, void* item);
VEK_API int instrument_count(void* handle);
VEK_API int instrument_list(void* handle, JSON** json);
VEK_API int instrument_detail(void* handle, long long hash, JSON** json);
VEK_API int instrument_global_disable(void);
VEK_API int instrument_global_is_disabled(void);

VEK_END_DECLS

#endif
