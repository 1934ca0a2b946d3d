/* The last operating-system error, as a number or a text. */
#ifndef VEKUTIL_LASTERROR_H
#define VEKUTIL_LASTERROR_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* strerror(err). */
VEK_API const char* get_platform_error_str(int err);
/* strerror(errno). */
VEK_API const char* get_last_platform_error_str(void);
/* errno. */
VEK_API int get_last_platform_error(void);
/* errno as well: sockets report their errors through it on this platform. */
VEK_API int get_last_platform_net_error(void);

VEK_END_DECLS

#endif
