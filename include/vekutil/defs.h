/* Common declarations shared by every public vekutil header. */
#ifndef VEKUTIL_DEFS_H
#define VEKUTIL_DEFS_H

#ifdef __cplusplus
#define VEK_BEGIN_DECLS extern "C" {
#define VEK_END_DECLS }
#else
#define VEK_BEGIN_DECLS
#define VEK_END_DECLS
#endif

/* Marks a declaration as part of the exported interface; everything else in
 * the shared library is hidden. */
#if defined(__GNUC__)
#define VEK_API __attribute__((visibility("default")))
#define VEK_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define VEK_API
#define VEK_PRINTF(fmt, args)
#endif

/* The source location handed to the positional ("_name") entry points by the
 * convenience macros, and the one the location-less entry points forward. */
#define VEK_HERE __FILE__, __LINE__
#define VEK_BACKWARD_FILE "Backward"

#endif
