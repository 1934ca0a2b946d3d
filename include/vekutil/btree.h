/* Hash B-tree: a set of opaque element pointers kept in ascending order of a
 * signed 64-bit key, reachable by key and by position. Keys are unique. A tree
 * may carry its own read-write lock and lists itself in the instrumentation
 * registry unless asked not to. */
#ifndef VEKUTIL_BTREE_H
#define VEKUTIL_BTREE_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Computes an element's key. */
typedef long long (*btree_hash)(const void* elem);
/* Releases an element the tree owns. */
typedef void (*btree_free)(void* elem);
/* Walk callbacks; their results are not read. */
typedef void (*btree_fefunc)(const void* elem, void* args);
typedef void (*btree_fefunc_ex)(long long hash, const void* elem, void* args);
/* Predicate of btree_find_by_func: 0 means "match". */
typedef int (*btree_comparer)(const void* elem, void* custom);

/* Creation options. */
#define BTREE_OPTION_NO_LOCK 1       /* no lock: the caller serialises all access */
#define BTREE_OPTION_NO_INSTRUMENT 4 /* not listed in the instrumentation registry */
/* Lookup option of the _ex forms: return holding the read lock when found. */
#define BTREE_OPTION_KEEP_READLOCK 2

/* The instrumentation group of all trees, made on first use. */
VEK_API extern void* g_btree_instrument_handle;
VEK_API void* btree_instrument_handle(void);

/* Creation and teardown. A null hash_func keys an element by its address. */
VEK_API int _btree_create_ex(void** handle, btree_hash hash_func, btree_free free_func, int options,
                             const char* file, int line);
VEK_API int btree_create_ex(void** handle, btree_hash hash_func, btree_free free_func, int options);
VEK_API int btree_create(void** handle, btree_hash hash_func, btree_free free_func);
VEK_API void btree_delete(void* handle);
VEK_API void btree_clear(void* handle);

/* Key functions: CRC-32 of a string, an int and a long long behind a pointer. */
VEK_API long long btree_str_hash(const void* a);
VEK_API long long btree_int_hash(const void* a);
VEK_API long long btree_int64_hash(const void* a);

/* Insertion: returns e, or the element already filed under the same key. */
VEK_API void* btree_insert(void* handle, void* e);
VEK_API void* btree_insert_with_hash(void* handle, void* e, long long hash);

/* Lookup. */
VEK_API void* btree_find_by_hash(void* handle, long long hash);
VEK_API void* btree_find_by_hash_ex(void* handle, long long hash, int options);
VEK_API void* btree_find_by_object(void* handle, const void* e);
VEK_API void* btree_find_by_object_ex(void* handle, const void* e, int options);
VEK_API void* btree_find_by_index(void* handle, int index);
VEK_API void* btree_find_by_index_ex(void* handle, int index, int options);
VEK_API int btree_index_by_hash(void* handle, long long hash);
VEK_API void* btree_find_less_by_hash(void* handle, long long hash);
VEK_API void* btree_find_by_func(void* handle, btree_comparer func, void* custom);
VEK_API int btree_count(void* handle);

/* Walks in ascending key order under the read lock. The callback must not
 * change the tree. */
VEK_API void btree_foreach(void* handle, btree_fefunc func, void* args);
VEK_API void btree_foreach_ex(void* handle, btree_fefunc_ex func, void* args);

/* Deletion: with a free_func the element is released and NULL returned;
 * without one the element is handed back to the caller. */
VEK_API void* btree_delete_by_hash(void* handle, long long hash);
VEK_API void* btree_delete_by_object(void* handle, const void* e);
VEK_API void* btree_delete_by_index(void* handle, int index);

/* Explicit locking for several calls in one step. Only the read lock may be
 * held while calling the tree's other functions. */
VEK_API int btree_readlock(void* handle);
VEK_API int btree_writelock(void* handle);
VEK_API int btree_unlock(void* handle);

VEK_END_DECLS

#endif
