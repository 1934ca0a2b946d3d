/* List: a doubly linked list of opaque element pointers in insertion order,
 * with an optional read-write lock and an optional key index that gives
 * lookup by key and refuses two elements with the same key. */
#ifndef VEKUTIL_LIST_H
#define VEKUTIL_LIST_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

typedef long long (*list_hash)(const void* elem);
typedef void (*list_free)(void* elem);
typedef void (*list_fefunc)(const void* elem, void* args);

#define LIST_OPTION_NO_LOCK 1

/* Creation and teardown. With hash_func the list keeps a key index; with
 * free_func it releases every element it deletes. */
VEK_API int list_create_ex(void** handle, list_hash hash_func, list_free free_func, int options);
VEK_API int list_create(void** handle, list_hash hash_func, list_free free_func);
VEK_API void list_delete(void* handle);
VEK_API void list_clear(void* handle);

/* Insertion; index runs from 0 (new head) to the count (new tail). */
VEK_API int list_insert_at_tail(void* handle, void* e);
VEK_API int list_insert_at_head(void* handle, void* e);
VEK_API int list_insert_at_index(void* handle, void* e, int index);

/* Lookup. The by-key forms need the index; all take the read lock. */
VEK_API void* list_find_by_hash(void* handle, long long hash);
VEK_API void* list_find_by_object(void* handle, const void* e);
VEK_API void* list_find_by_index(void* handle, int index);
VEK_API int list_count(void* handle);

/* Deletion. */
VEK_API int list_delete_by_index(void* handle, int index);
VEK_API int list_delete_by_hash(void* handle, long long hash);
VEK_API int list_delete_by_object(void* handle, const void* e);

/* Iteration. The iterator calls take no lock: hold list_lock around a walk. */
VEK_API void list_foreach(void* handle, list_fefunc func, void* args);
VEK_API int list_itr_get(void* handle, void** iterator, int index);
VEK_API void* list_itr_curr(void** iterator);
VEK_API void* list_itr_next(void** iterator);
VEK_API void* list_itr_prev(void** iterator);
VEK_API int list_lock(void* handle);
VEK_API int list_unlock(void* handle);

VEK_END_DECLS

#endif
