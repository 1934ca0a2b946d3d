// Doubly linked list of element pointers in insertion order, with an
// optional read-write lock and an optional key index (a lock-free B-tree that
// the list's own lock guards).
#include <vekutil/btree.h>
#include <vekutil/errors.h>
#include <vekutil/list.h>
#include <vekutil/rwlock.h>

#include "core/internal.hpp"
#include "core/scoped_lock.hpp"

#define LIST_SOURCE "src/list.c"

struct _LIST_NODE {
  _LIST_NODE* prev;
  _LIST_NODE* next;
  long long hash;
  void* element;
};

struct _LIST {
  _LIST_NODE* head;
  _LIST_NODE* tail;
  void* search_btree;
  int count;
  list_hash hash_func;
  list_free free_func;
  void* lock;
};

namespace {

using List = _LIST;
using Node = _LIST_NODE;

// The index has no lock of its own and is listed in the registry like every
// tree; the list releases the elements itself.
constexpr int kIndexOptions = BTREE_OPTION_NO_LOCK;

// count is read without the lock (list_count, list_itr_get), so it is
// always written and read atomically.
inline int read_count(const List* l) { return __atomic_load_n(&l->count, __ATOMIC_RELAXED); }
inline void add_count(List* l, int delta) { __atomic_store_n(&l->count, l->count + delta, __ATOMIC_RELAXED); }

// The node at position index (0 <= index < count), walking from the nearer end.
Node* node_at(const List* l, int index) {
  if (index < 0 || index >= l->count) return nullptr;
  if (index <= l->count / 2) {
    Node* n = l->head;
    while (index-- > 0) n = n->next;
    return n;
  }
  Node* n = l->tail;
  for (int i = l->count - 1; i > index; --i) n = n->prev;
  return n;
}

// Links n in front of `before`, or at the tail when before is null.
void link_before(List* l, Node* n, Node* before) {
  n->next = before;
  n->prev = before ? before->prev : l->tail;
  if (n->prev)
    n->prev->next = n;
  else
    l->head = n;
  if (before)
    before->prev = n;
  else
    l->tail = n;
  add_count(l, 1);
}

void unlink(List* l, Node* n) {
  if (n->prev)
    n->prev->next = n->next;
  else
    l->head = n->next;
  if (n->next)
    n->next->prev = n->prev;
  else
    l->tail = n->prev;
  add_count(l, -1);
}

Node* new_node(void* e) {
  Node* n = vek::alloc_record<Node>(LIST_SOURCE, __LINE__);
  if (n) n->element = e;
  return n;
}

// Indexes n's element under its key: 0, or a result code when the key is
// taken or the index cannot grow.
int index_node(List* l, Node* n) {
  if (!l->search_btree) return 0;
  n->hash = l->hash_func(n->element);
  // The tree hands back the element already filed under the key, which is
  // the same pointer when an element is inserted twice: the count tells.
  int before = btree_count(l->search_btree);
  void* filed = btree_insert_with_hash(l->search_btree, n->element, n->hash);
  if (!filed) return ERR_NO_MEMORY;
  return btree_count(l->search_btree) > before ? 0 : ERR_ALREADY_EXISTS;
}

// Unlinks n, drops it from the index, releases its element if the list owns
// it, and releases the node. Called under the write lock.
void remove_node(List* l, Node* n) {
  unlink(l, n);
  if (l->search_btree) btree_delete_by_hash(l->search_btree, n->hash);
  if (l->free_func) l->free_func(n->element);
  _vekFree(n, LIST_SOURCE, __LINE__);
}

Node* node_with_hash(const List* l, long long hash) {
  for (Node* n = l->head; n; n = n->next)
    if (n->hash == hash) return n;
  return nullptr;
}

// Inserts e at position index (count means the tail); position is resolved
// under the lock. Returns 0 or a result code, leaving the list unchanged.
template <class Position>
int insert_where(void* handle, void* e, Position position) {
  List* l = static_cast<List*>(handle);
  if (!l) return ERR_INVALID_HANDLE;
  if (!e) return ERR_INVALID_PARAMETER;
  Node* n = new_node(e);
  if (!n) return ERR_NO_MEMORY;
  int rc = 0;
  {
    vek::ScopedLock lock(l->lock, LIST_SOURCE, __LINE__, vek::ScopedLock::kWrite);
    int index = position(l);
    if (!lock.held()) {
      rc = ERR_SYSTEM;
    } else if (index < 0 || index > l->count) {
      rc = ERR_INVALID_PARAMETER;
    } else if ((rc = index_node(l, n)) == 0) {
      link_before(l, n, index == l->count ? nullptr : node_at(l, index));
      return 0;
    }
  }
  _vekFree(n, LIST_SOURCE, __LINE__);
  return rc;
}

int delete_hash(List* l, long long hash) {
  vek::ScopedLock lock(l->lock, LIST_SOURCE, __LINE__, vek::ScopedLock::kWrite);
  if (!lock.held()) return ERR_SYSTEM;
  Node* n = node_with_hash(l, hash);
  if (!n) return ERR_NOT_FOUND;
  remove_node(l, n);
  return 0;
}

}  // namespace

int list_create_ex(void** handle, list_hash hash_func, list_free free_func, int options) {
  if (!handle) return ERR_INVALID_HANDLE;
  List* l = vek::alloc_record<List>(LIST_SOURCE, __LINE__);
  if (!l) return ERR_NO_MEMORY;
  l->hash_func = hash_func;
  l->free_func = free_func;
  int rc = 0;
  if (!(options & LIST_OPTION_NO_LOCK)) rc = rwlock_create_ex(&l->lock, 0, "list_create_ex");
  if (rc == 0 && hash_func)
    rc = _btree_create_ex(&l->search_btree, hash_func, nullptr, kIndexOptions, LIST_SOURCE, __LINE__);
  if (rc != 0) {
    if (l->lock) rwlock_delete(l->lock);
    _vekFree(l, LIST_SOURCE, __LINE__);
    return rc;
  }
  *handle = l;
  return 0;
}

int list_create(void** handle, list_hash hash_func, list_free free_func) {
  return list_create_ex(handle, hash_func, free_func, 0);
}

void list_clear(void* handle) {
  while (list_delete_by_index(handle, 0) == 0) {
  }
}

void list_delete(void* handle) {
  List* l = static_cast<List*>(handle);
  if (!l) return;
  list_clear(l);
  // Whatever a failed lock left behind still goes.
  while (l->head) remove_node(l, l->head);
  btree_delete(l->search_btree);
  if (l->lock) rwlock_delete(l->lock);
  _vekFree(l, LIST_SOURCE, __LINE__);
}

int list_insert_at_tail(void* handle, void* e) {
  return insert_where(handle, e, [](const List* l) { return l->count; });
}

int list_insert_at_head(void* handle, void* e) {
  return insert_where(handle, e, [](const List*) { return 0; });
}

int list_insert_at_index(void* handle, void* e, int index) {
  return insert_where(handle, e, [index](const List*) { return index; });
}

// The index has no lock of its own: lookups read it under the list's read
// lock, since inserts and deletions change it under the write lock.
void* list_find_by_hash(void* handle, long long hash) {
  List* l = static_cast<List*>(handle);
  if (!l || !l->search_btree) return nullptr;
  vek::ScopedLock lock(l->lock, LIST_SOURCE, __LINE__, vek::ScopedLock::kRead);
  return lock.held() ? btree_find_by_hash(l->search_btree, hash) : nullptr;
}

void* list_find_by_object(void* handle, const void* e) {
  List* l = static_cast<List*>(handle);
  if (!l || !l->search_btree) return nullptr;
  vek::ScopedLock lock(l->lock, LIST_SOURCE, __LINE__, vek::ScopedLock::kRead);
  return lock.held() ? btree_find_by_object(l->search_btree, e) : nullptr;
}

void* list_find_by_index(void* handle, int index) {
  List* l = static_cast<List*>(handle);
  if (!l) return nullptr;
  vek::ScopedLock lock(l->lock, LIST_SOURCE, __LINE__, vek::ScopedLock::kRead);
  if (!lock.held()) return nullptr;
  Node* n = node_at(l, index);
  return n ? n->element : nullptr;
}

int list_count(void* handle) {
  List* l = static_cast<List*>(handle);
  return l ? read_count(l) : ERR_INVALID_HANDLE;
}

int list_delete_by_index(void* handle, int index) {
  List* l = static_cast<List*>(handle);
  if (!l) return ERR_INVALID_HANDLE;
  vek::ScopedLock lock(l->lock, LIST_SOURCE, __LINE__, vek::ScopedLock::kWrite);
  if (!lock.held()) return ERR_SYSTEM;
  Node* n = node_at(l, index);
  if (!n) return ERR_INVALID_PARAMETER;
  remove_node(l, n);
  return 0;
}

int list_delete_by_hash(void* handle, long long hash) {
  List* l = static_cast<List*>(handle);
  if (!l) return ERR_INVALID_HANDLE;
  if (!l->search_btree) return ERR_LIST_NO_INDEX;
  return delete_hash(l, hash);
}

int list_delete_by_object(void* handle, const void* e) {
  List* l = static_cast<List*>(handle);
  if (!l) return ERR_INVALID_HANDLE;
  if (!l->search_btree) return ERR_LIST_NO_INDEX;
  if (!e) return ERR_INVALID_PARAMETER;
  return delete_hash(l, l->hash_func(e));
}

void list_foreach(void* handle, list_fefunc func, void* args) {
  List* l = static_cast<List*>(handle);
  if (!l || !func) return;
  vek::ScopedLock lock(l->lock, LIST_SOURCE, __LINE__, vek::ScopedLock::kRead);
  if (!lock.held()) return;
  for (Node* n = l->head; n; n = n->next) func(n->element, args);
}

int list_itr_get(void* handle, void** iterator, int index) {
  List* l = static_cast<List*>(handle);
  if (!l) return ERR_INVALID_HANDLE;
  if (!iterator || index < 0 || index >= read_count(l)) return ERR_INVALID_PARAMETER;
  vek::ScopedLock lock(l->lock, LIST_SOURCE, __LINE__, vek::ScopedLock::kRead);
  if (!lock.held()) return ERR_SYSTEM;
  Node* n = node_at(l, index);  // the list may have shrunk meanwhile
  *iterator = n;
  return n ? 0 : ERR_INVALID_PARAMETER;
}

void* list_itr_curr(void** iterator) {
  if (!iterator || !*iterator) return nullptr;
  return static_cast<Node*>(*iterator)->element;
}

void* list_itr_next(void** iterator) {
  if (!iterator || !*iterator) return nullptr;
  Node* n = static_cast<Node*>(*iterator)->next;
  *iterator = n;
  return n ? n->element : nullptr;
}

void* list_itr_prev(void** iterator) {
  if (!iterator || !*iterator) return nullptr;
  Node* n = static_cast<Node*>(*iterator)->prev;
  *iterator = n;
  return n ? n->element : nullptr;
}

int list_lock(void* handle) {
  List* l = static_cast<List*>(handle);
  if (!l) return ERR_INVALID_HANDLE;
  return l->lock ? _rwlock_readlock(l->lock, LIST_SOURCE, __LINE__) : 0;
}

int list_unlock(void* handle) {
  List* l = static_cast<List*>(handle);
  if (!l) return ERR_INVALID_HANDLE;
  return l->lock ? rwlock_unlock(l->lock) : 0;
}
