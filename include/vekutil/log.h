/* The process log: one time-stamped line per internal failure. */
#ifndef VEKUTIL_LOG_H
#define VEKUTIL_LOG_H

#include <stdio.h>
#include <vekutil/defs.h>

VEK_BEGIN_DECLS

typedef void (*vek_log_err_func)(const char* format, ...);

VEK_API extern FILE* g_log_file;
VEK_API extern vek_log_err_func g_vek_log_err_func;

VEK_API int vekLogInit(const char* filename, vek_log_err_func func);
VEK_API void log_vek_error(const char* format, ...) VEK_PRINTF(1, 2);
VEK_API void _log_roll(FILE** file, const char* filename);

VEK_END_DECLS

#endif
