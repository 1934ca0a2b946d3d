/* Resource limits of the process as numbers. An unlimited value reads as -1.
 * The functions return 0 on success and pass a failing system call's errno
 * through as a positive number. */
#ifndef VEKUTIL_RLIMIT_H
#define VEKUTIL_RLIMIT_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Lifts the soft and hard core-file size limits to unlimited. */
VEK_API int rlimit_enable_core_files(void);

/* Store the soft and hard limit; ERR_INVALID_PARAMETER if either pointer is
 * NULL. */
VEK_API int rlimit_get_max_threads(int* soft_limit, int* hard_limit);
VEK_API int rlimit_get_max_open_files(int* soft_limit, int* hard_limit);
VEK_API int rlimit_get_core_file_limits(int* soft_limit, int* hard_limit);

VEK_END_DECLS

#endif
