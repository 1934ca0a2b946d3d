/* Property tree: an ordered map from names to text values, as used for HTTP
 * headers. Both name and value are copied. Lookups ignore the case of ASCII
 * letters in the name; a walk visits the entries in the order their names
 * were first inserted. A property tree belongs to one thread at a time.
 *
 * A null handle gives ERR_INVALID_HANDLE (-7008) from the calls that return
 * int, and NULL from ptree_find_by_key.
 */
#ifndef VEKUTIL_PTREE_H
#define VEKUTIL_PTREE_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Called once per entry by ptree_foreach. Return 0 to go on; any other value
 * ends the walk and becomes the result of ptree_foreach. The callback must
 * not insert into the tree it walks. */
typedef int (*ptree_fefunc)(const char* key, const char* value, void* custom);

/* An empty tree in *handle. ERR_INVALID_PARAMETER for a null handle pointer,
 * ERR_NO_MEMORY. */
VEK_API int ptree_create(void** handle);
/* Frees the tree and every name and value in it. */
VEK_API int ptree_delete(void* handle);

/* Sets the value of key. A name already present (ignoring case) keeps its
 * place and its first spelling and gets the new value; a new name goes to
 * the end. ERR_INVALID_PARAMETER for a null or empty key or a null value;
 * ERR_NO_MEMORY leaves the tree as it was. */
VEK_API int ptree_insert(void* handle, const char* key, const char* value);

/* The value of key (ignoring case), or NULL when it is absent. The text
 * belongs to the tree and stays valid until key is set again or the tree is
 * deleted. */
VEK_API const char* ptree_find_by_key(void* handle, const char* key);

/* Calls func for every entry in insertion order; 0 or the callback's first
 * non-zero result. ERR_INVALID_PARAMETER for a null func. */
VEK_API int ptree_foreach(void* handle, ptree_fefunc func, void* custom);

/* Number of entries. */
VEK_API int ptree_count(void* handle);

VEK_END_DECLS

#endif
