/* Directories: listing with shell patterns, walking, creation and deletion,
 * each also for whole trees. */
#ifndef VEKUTIL_DIRECTORY_H
#define VEKUTIL_DIRECTORY_H

#include <vekutil/defs.h>
#include <vekutil/errors.h>

VEK_BEGIN_DECLS

/* Called by directory_foreach for every entry: name is the entry's full path,
 * fileinfo_entry a file-information handle (<vekutil/fileinfo.h>) valid only
 * during the call. The result is ignored. */
typedef int (*directory_fefunc)(const char* name, void* fileinfo_entry, void* custom);

/* chdir and getcwd with their own results. directory_cwd_get refuses a null
 * buffer (NULL, errno EINVAL) rather than letting the system allocate one. */
VEK_API int directory_cwd_set(const char* buffer);
VEK_API char* directory_cwd_get(char* buffer, int len);

/* Counts the entries of directory name ("." and ".." left out) that match
 * the shell pattern (every entry when pattern is null; backslash is an
 * ordinary character), in the order the system lists them, and stores
 * copies of the first count of them in entries (free each with _vekFree).
 * Returns the number of all matching entries, also those beyond count, so
 * entries NULL and count -1 only counts. ERR_SYSTEM when the directory cannot
 * be opened, ERR_INVALID_PARAMETER for a null name, ERR_NO_MEMORY. */
VEK_API int directory_query(const char* name, const char* pattern, char** entries, int count);
/* Like directory_query, but allocates the list: *entries receives a
 * null-terminated array of copies (free each name, then the array) and the
 * result is the number of names. A directory that grows meanwhile is listed
 * again. */
VEK_API int directory_query2(const char* name, const char* pattern, char*** entries);

/* Calls func for every entry of name, in listing order. With recursive 1 the
 * walk first descends into each subdirectory, so a directory's contents come
 * before the directory itself. Symbolic links are reported but never
 * descended into. Returns 0, or the negative result of listing name. */
VEK_API int directory_foreach(const char* name, int recursive, directory_fefunc func, void* custom);

/* mkdir with permission bits 0771: 0 or the positive errno value. */
VEK_API int directory_create(const char* name);
/* Creates every missing ancestor of name and then name; existing ones are
 * fine. 0 when name is a directory at the end; else the positive errno of
 * creating it (ENOTDIR when something else is in its place), or
 * ERR_INVALID_PARAMETER / ERR_NO_MEMORY. */
VEK_API int directory_create_recursive(const char* name);
/* rmdir with its own result (0, or -1 with errno). */
VEK_API int directory_delete(const char* name);
/* Deletes everything below name, then name. Symbolic links are removed,
 * never followed, also when one is swapped in for a directory during the
 * walk: nothing outside the tree is touched. ERR_SYSTEM when name cannot be
 * opened, else 0. */
VEK_API int directory_delete_recursive(const char* name);

VEK_END_DECLS

#endif
