// The last operating-system error, as a number or a text.
#include <cerrno>
#include <cstring>

#include <vekutil/lasterror.h>

const char* get_platform_error_str(int err) { return strerror(err); }
const char* get_last_platform_error_str(void) { return strerror(errno); }
int get_last_platform_error(void) { return errno; }
int get_last_platform_net_error(void) { return errno; }
