/* 36-character unique identifiers: "TTTTTTTT-CCCC-RRRR-SSSS-HHHHHHHHHHHH"
 * (clock, counter within one clock value, random letters, per-process seed,
 * hardware address or random letters). */
#ifndef VEKUTIL_GUID_H
#define VEKUTIL_GUID_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Prepares the generator once: its mutex, the random seed and mask. Call it
 * before threads start; guid_create also runs it on first use. */
VEK_API void guid_init(void);

/* A newly allocated identifier text (free it with _vekFree), or NULL when
 * allocation fails. */
VEK_API char* guid_create(void);

VEK_END_DECLS

#endif
