/* Diagnostics for developers: resource limits as ready-made sentences and
 * console-traced allocation. */
#ifndef VEKUTIL_DEBUG_H
#define VEKUTIL_DEBUG_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Lifts the core-file size limits to unlimited: 0, or errno on failure. */
VEK_API int debug_enable_core_files(void);

/* Put a new sentence such as "Max Threads -> (Soft:%d) (Hard:%d)" in *msg
 * (release it with _vekFree) and return 0. A NULL msg is accepted: nothing is
 * formatted and 0 is returned. errno if the limit cannot be read,
 * ERR_NO_MEMORY if the copy cannot be made. */
VEK_API int debug_get_max_threads(char** msg);
VEK_API int debug_get_max_open_files(char** msg);
VEK_API int debug_get_core_file_limits(char** msg);

/* Standard malloc(i) / free(a), traced on standard output with the label s
 * and the caller's position; not accounted by the memory manager. */
VEK_API void* debug_malloc(int i, const char* s, const char* file, int line);
VEK_API void debug_free(void* a, const char* s, const char* file, int line);

VEK_END_DECLS

#endif
