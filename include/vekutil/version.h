/* Library version. */
#ifndef VEKUTIL_VERSION_H
#define VEKUTIL_VERSION_H

#include <vekutil/defs.h>

#define VEKUTIL_VERSION_MAJOR 0
#define VEKUTIL_VERSION_MINOR 1
#define VEKUTIL_VERSION_PATCH 0

VEK_BEGIN_DECLS

/* The version of the library actually loaded, as "major.minor.patch". */
VEK_API const char* vekutil_version(void);

VEK_END_DECLS

#endif
