/* File information: size, type and the three times of a file, each time
 * also as preformatted local-time text "MM/DD/YYYY HH:MM:SS" (hour padded
 * with a space). Sizes are 64-bit, files of 2 GiB and more included. */
#ifndef VEKUTIL_FILEINFO_H
#define VEKUTIL_FILEINFO_H

#include <time.h>
#include <vekutil/defs.h>
#include <vekutil/errors.h>

VEK_BEGIN_DECLS

#define FILEINFO_TYPE_FILE 1
#define FILEINFO_TYPE_DIRECTORY 2
#define FILEINFO_TEXT_SIZE 36

/* The record behind a file-information handle; the field order is part of
 * the interface. */
typedef struct _FILEINFO {
  int type;       /* 1 regular file, 2 directory, otherwise left as it was */
  long long size; /* bytes */
  time_t cTime;   /* status change */
  time_t mTime;   /* modification */
  time_t aTime;   /* access */
  char type2[FILEINFO_TEXT_SIZE]; /* "Regular File", "Directory" or "Unknown" */
  char cTime2[FILEINFO_TEXT_SIZE];
  char mTime2[FILEINFO_TEXT_SIZE];
  char aTime2[FILEINFO_TEXT_SIZE];
} _FILEINFO;

/* Makes an empty record and, when name is not null, fills it from name. On
 * failure *handle is null and the code is returned (ERR_NO_MEMORY,
 * ERR_FILE_NOT_FOUND). ERR_INVALID_PARAMETER for a null handle pointer. */
VEK_API int fileinfo_create(void** handle, const char* name);
/* Fills the record from name (one trailing '/' or '\' ignored).
 * ERR_FILE_NOT_FOUND when name cannot be examined, ERR_INVALID_HANDLE for a
 * null handle, ERR_INVALID_PARAMETER for a null name. */
VEK_API int fileinfo_query(void* handle, const char* name);
VEK_API int fileinfo_delete(void* handle);

/* Accessors; a null handle gives ERR_INVALID_HANDLE (as unsigned for the
 * times) or NULL for the texts, which point into the record. */
VEK_API long long fileinfo_size(void* handle);
VEK_API unsigned int fileinfo_created_time(void* handle);
VEK_API unsigned int fileinfo_modified_time(void* handle);
VEK_API unsigned int fileinfo_accessed_time(void* handle);
VEK_API int fileinfo_isfile(void* handle);
VEK_API int fileinfo_isdirectory(void* handle);
VEK_API const char* fileinfo_created_time_str(void* handle);
VEK_API const char* fileinfo_modified_time_str(void* handle);
VEK_API const char* fileinfo_accessed_time_str(void* handle);
VEK_API const char* fileinfo_type_str(void* handle);

VEK_END_DECLS

#endif
