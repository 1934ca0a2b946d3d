#include <vekutil/version.h>

#define VEK_STR2(x) #x
#define VEK_STR(x) VEK_STR2(x)

const char* vekutil_version(void) {
  return VEK_STR(VEKUTIL_VERSION_MAJOR) "." VEK_STR(VEKUTIL_VERSION_MINOR) "." VEK_STR(VEKUTIL_VERSION_PATCH);
}
