// Hash B-tree of order 4: at most three keys and four children per node. Each
// node keeps the element count of every child subtree, so an element can be
// reached by its position in key order as fast as by its key.
//
// Unused key slots hold kEmptyKey (the greatest key) besides their null
// element, so the slot for a key is found by counting the keys below it,
// without branches; a slot only matches when its element is set.
#include <climits>
#include <cstdint>
#include <cstring>

#include <vekutil/btree.h>
#include <vekutil/crc32.h>
#include <vekutil/errors.h>
#include <vekutil/instrument.h>
#include <vekutil/json.h>
#include <vekutil/rwlock.h>
#include <vekutil/strutil.h>

#include "core/instrumented.hpp"
#include "core/internal.hpp"
#include "core/scoped_lock.hpp"

#define BTREE_SOURCE "src/btree.c"

namespace {

constexpr int kMaxKeys = 3;
constexpr long long kEmptyKey = LLONG_MAX;
// Every node but the root holds at least one key, so a tree of at most
// INT_MAX elements is never deeper than 32 levels.
constexpr int kMaxDepth = 40;

}  // namespace

struct _BTREE_NODE {
  _BTREE_NODE* parent;
  _BTREE_NODE* children[kMaxKeys + 1];
  int counts[kMaxKeys + 1];
  long long hashs[kMaxKeys];
  void* elems[kMaxKeys];
};

struct _BTREE {
  _BTREE_NODE* root;
  btree_free free_func;
  btree_hash hash_func;
  void* lock;
  char* lock_name;
  const char* created_by_file;
  int created_by_line;
  // Private tail: creation options, and the element count mirrored for the
  // instrumentation renderers, which must not take the tree's lock.
  int options;
  int published_count;
};

void* g_btree_instrument_handle = nullptr;

namespace {

using Node = _BTREE_NODE;
using Tree = _BTREE;

// ---------------------------------------------------------------- nodes

inline int key_count(const Node* n) {
  return n->elems[2] ? 3 : n->elems[1] ? 2 : n->elems[0] ? 1 : 0;
}

inline bool is_leaf(const Node* n) { return n->children[0] == nullptr; }

inline int subtree_size(const Node* n) {
  return n->counts[0] + n->counts[1] + n->counts[2] + n->counts[3] + key_count(n);
}

// The slot of the first key not below key: also the child to descend into.
inline int slot_for(const Node* n, long long key) {
  return (n->hashs[0] < key) + (n->hashs[1] < key) + (n->hashs[2] < key);
}

inline bool slot_matches(const Node* n, int slot, long long key) {
  return slot < kMaxKeys && n->hashs[slot] == key && n->elems[slot] != nullptr;
}

inline void clear_slot(Node* n, int slot) {
  n->hashs[slot] = kEmptyKey;
  n->elems[slot] = nullptr;
}

inline void set_child(Node* n, int index, Node* child, int count) {
  n->children[index] = child;
  n->counts[index] = count;
  if (child) child->parent = n;
}

Node* new_node() {
  Node* n = vek::alloc_record<Node>(BTREE_SOURCE, __LINE__);
  if (n)
    for (int i = 0; i < kMaxKeys; ++i) n->hashs[i] = kEmptyKey;
  return n;
}

void free_node(Node* n) { _vekFree(n, BTREE_SOURCE, __LINE__); }

inline int tree_size(const Tree* t) { return t->root ? subtree_size(t->root) : 0; }

inline void publish_count(Tree* t) { __atomic_store_n(&t->published_count, tree_size(t), __ATOMIC_RELAXED); }

inline long long element_key(const Tree* t, const void* e) {
  return t->hash_func ? t->hash_func(e) : (long long)(intptr_t)e;
}

// The nodes from the root down to a node of interest, with the slot taken in
// each: the child index on the way, the key slot at the last level.
struct Path {
  Node* node[kMaxDepth];
  int slot[kMaxDepth];
  int depth = 0;

  void push(Node* n, int s) {
    node[depth] = n;
    slot[depth] = s;
    ++depth;
  }
};

// ---------------------------------------------------------------- lookup

// The element filed under key, or null.
void* find_key(const Tree* t, long long key) {
  const Node* n = t->root;
  while (n) {
    int slot = slot_for(n, key);
    if (slot_matches(n, slot, key)) return n->elems[slot];
    n = n->children[slot];
  }
  return nullptr;
}

// The position of key in key order, or -1.
int position_of_key(const Tree* t, long long key) {
  const Node* n = t->root;
  int position = 0;
  while (n) {
    int slot = slot_for(n, key);
    for (int i = 0; i < slot; ++i) position += n->counts[i] + 1;
    if (slot_matches(n, slot, key)) return position + n->counts[slot];
    n = n->children[slot];
  }
  return -1;
}

// Fills path down to the key's slot; false when the key is absent.
bool locate_key(const Tree* t, long long key, Path& path) {
  Node* n = t->root;
  while (n) {
    int slot = slot_for(n, key);
    path.push(n, slot);
    if (slot_matches(n, slot, key)) return true;
    n = n->children[slot];
  }
  return false;
}

// Fills path down to the slot of the element at position index; false when
// index is out of range.
bool locate_index(const Tree* t, int index, Path& path) {
  if (index < 0) return false;
  Node* n = t->root;
  while (n) {
    int keys = key_count(n);
    int i = 0;
    for (; i <= keys; ++i) {
      if (index < n->counts[i]) break;  // inside child i
      index -= n->counts[i];
      if (i < keys) {
        if (index == 0) {
          path.push(n, i);
          return true;
        }
        --index;
      }
    }
    if (i > keys) return false;
    path.push(n, i);
    n = n->children[i];
  }
  return false;
}

void* element_at(const Tree* t, int index) {
  Path path;
  if (!locate_index(t, index, path)) return nullptr;
  return path.node[path.depth - 1]->elems[path.slot[path.depth - 1]];
}

// The element with key, else the one with the greatest key below it. The
// keys passed on the way down grow with depth, so the last one passed wins.
void* find_at_or_below(const Tree* t, long long key) {
  const Node* n = t->root;
  void* below = nullptr;
  while (n) {
    int slot = slot_for(n, key);
    if (slot_matches(n, slot, key)) return n->elems[slot];
    if (slot > 0) below = n->elems[slot - 1];
    n = n->children[slot];
  }
  return below;
}

// In key order: recursion into all children but the last, a loop on it.
template <class Visit>
void walk(const Node* n, Visit& visit) {
  while (n) {
    int keys = key_count(n);
    for (int i = 0; i < keys; ++i) {
      walk(n->children[i], visit);
      visit(n->hashs[i], n->elems[i]);
    }
    n = n->children[keys];
  }
}

// ---------------------------------------------------------------- insertion

// Puts key and element at slot of a node that has room; right becomes the
// child right of the new key.
void place(Node* n, int slot, long long key, void* elem, Node* right, int right_count) {
  for (int j = key_count(n); j > slot; --j) {
    n->hashs[j] = n->hashs[j - 1];
    n->elems[j] = n->elems[j - 1];
    n->children[j + 1] = n->children[j];
    n->counts[j + 1] = n->counts[j];
  }
  n->hashs[slot] = key;
  n->elems[slot] = elem;
  set_child(n, slot + 1, right, right_count);
}

// A full node with one more key: four keys and five children.
struct Overfull {
  long long hashs[kMaxKeys + 1];
  void* elems[kMaxKeys + 1];
  Node* children[kMaxKeys + 2];
  int counts[kMaxKeys + 2];
};

// Splits full node n, which receives one more key at slot, into n (the two
// lowest keys) and spare (the highest); the middle key is returned through
// up_key/up_elem for the parent.
void split(Node* n, int slot, long long key, void* elem, Node* right, int right_count, Node* spare,
           long long& up_key, void*& up_elem) {
  Overfull w;
  for (int i = 0, j = 0; i <= kMaxKeys; ++i) {
    if (i == slot) {
      w.hashs[i] = key;
      w.elems[i] = elem;
      continue;
    }
    w.hashs[i] = n->hashs[j];
    w.elems[i] = n->elems[j];
    ++j;
  }
  for (int i = 0, j = 0; i <= kMaxKeys + 1; ++i) {
    if (i == slot + 1) {
      w.children[i] = right;
      w.counts[i] = right_count;
      continue;
    }
    w.children[i] = n->children[j];
    w.counts[i] = n->counts[j];
    ++j;
  }

  std::memset(n->children, 0, sizeof n->children);
  std::memset(n->counts, 0, sizeof n->counts);
  for (int i = 0; i < kMaxKeys; ++i) clear_slot(n, i);
  for (int i = 0; i < 2; ++i) {
    n->hashs[i] = w.hashs[i];
    n->elems[i] = w.elems[i];
  }
  for (int i = 0; i < 3; ++i) set_child(n, i, w.children[i], w.counts[i]);

  spare->hashs[0] = w.hashs[3];
  spare->elems[0] = w.elems[3];
  set_child(spare, 0, w.children[3], w.counts[3]);
  set_child(spare, 1, w.children[4], w.counts[4]);

  up_key = w.hashs[2];
  up_elem = w.elems[2];
}

// Adds elem under key; returns elem, the element already filed under key,
// or null when a node could not be allocated (the tree is then unchanged).
void* insert_locked(Tree* t, void* elem, long long key) {
  if (!t->root) {
    Node* root = new_node();
    if (!root) return nullptr;
    root->hashs[0] = key;
    root->elems[0] = elem;
    t->root = root;
    return elem;
  }

  Path path;
  for (Node* n = t->root;;) {
    int slot = slot_for(n, key);
    if (slot_matches(n, slot, key)) return n->elems[slot];
    path.push(n, slot);
    if (is_leaf(n)) break;
    n = n->children[slot];
  }

  // Every full node from the leaf upward splits, and a full root adds a new
  // root above: allocate all of them first so a failure changes nothing.
  int splits = 0;
  while (splits < path.depth && key_count(path.node[path.depth - 1 - splits]) == kMaxKeys) ++splits;
  int needed = splits + (splits == path.depth ? 1 : 0);
  Node* spare[kMaxDepth + 1];
  for (int i = 0; i < needed; ++i) {
    spare[i] = new_node();
    if (!spare[i]) {
      while (i > 0) free_node(spare[--i]);
      return nullptr;
    }
  }

  long long up_key = key;
  void* up_elem = elem;
  Node* right = nullptr;
  int right_count = 0;
  int level = path.depth - 1;
  for (int used = 0;; ++used, --level) {
    Node* n = path.node[level];
    int slot = path.slot[level];
    if (key_count(n) < kMaxKeys) {
      place(n, slot, up_key, up_elem, right, right_count);
      break;
    }
    Node* sibling = spare[used];
    split(n, slot, up_key, up_elem, right, right_count, sibling, up_key, up_elem);
    right = sibling;
    right_count = subtree_size(sibling);
    if (level == 0) {
      Node* root = spare[used + 1];
      root->hashs[0] = up_key;
      root->elems[0] = up_elem;
      set_child(root, 0, n, subtree_size(n));
      set_child(root, 1, right, right_count);
      root->parent = nullptr;
      t->root = root;
      break;
    }
    path.node[level - 1]->counts[path.slot[level - 1]] = subtree_size(n);
  }
  // Above the node that took the last key every subtree grew by one.
  for (int d = 0; d < level; ++d) path.node[d]->counts[path.slot[d]] += 1;
  return elem;
}

// ---------------------------------------------------------------- deletion

// Moves the key left of child ci of parent down into that (empty) child and
// the greatest key of the left sibling up into the parent.
void borrow_from_left(Node* parent, int ci) {
  Node* left = parent->children[ci - 1];
  Node* n = parent->children[ci];
  int lk = key_count(left);
  set_child(n, 1, n->children[0], n->counts[0]);
  n->hashs[0] = parent->hashs[ci - 1];
  n->elems[0] = parent->elems[ci - 1];
  set_child(n, 0, left->children[lk], left->counts[lk]);
  parent->hashs[ci - 1] = left->hashs[lk - 1];
  parent->elems[ci - 1] = left->elems[lk - 1];
  clear_slot(left, lk - 1);
  left->children[lk] = nullptr;
  left->counts[lk] = 0;
  parent->counts[ci - 1] = subtree_size(left);
  parent->counts[ci] = subtree_size(n);
}

// The mirror image: the least key of the right sibling goes up.
void borrow_from_right(Node* parent, int ci) {
  Node* right = parent->children[ci + 1];
  Node* n = parent->children[ci];
  int rk = key_count(right);
  n->hashs[0] = parent->hashs[ci];
  n->elems[0] = parent->elems[ci];
  set_child(n, 1, right->children[0], right->counts[0]);
  parent->hashs[ci] = right->hashs[0];
  parent->elems[ci] = right->elems[0];
  for (int j = 0; j < rk - 1; ++j) {
    right->hashs[j] = right->hashs[j + 1];
    right->elems[j] = right->elems[j + 1];
  }
  for (int j = 0; j < rk; ++j) {
    right->children[j] = right->children[j + 1];
    right->counts[j] = right->counts[j + 1];
  }
  clear_slot(right, rk - 1);
  right->children[rk] = nullptr;
  right->counts[rk] = 0;
  parent->counts[ci] = subtree_size(n);
  parent->counts[ci + 1] = subtree_size(right);
}

// Joins children k and k+1 of parent with the key between them into child
// k and releases child k+1. The caller ensures the result fits one node.
void merge(Node* parent, int k) {
  Node* a = parent->children[k];
  Node* b = parent->children[k + 1];
  int ak = key_count(a);
  int bk = key_count(b);
  a->hashs[ak] = parent->hashs[k];
  a->elems[ak] = parent->elems[k];
  for (int j = 0; j < bk; ++j) {
    a->hashs[ak + 1 + j] = b->hashs[j];
    a->elems[ak + 1 + j] = b->elems[j];
  }
  for (int j = 0; j <= bk; ++j) set_child(a, ak + 1 + j, b->children[j], b->counts[j]);

  int pk = key_count(parent);
  for (int j = k; j < pk - 1; ++j) {
    parent->hashs[j] = parent->hashs[j + 1];
    parent->elems[j] = parent->elems[j + 1];
  }
  for (int j = k + 1; j < pk; ++j) {
    parent->children[j] = parent->children[j + 1];
    parent->counts[j] = parent->counts[j + 1];
  }
  clear_slot(parent, pk - 1);
  parent->children[pk] = nullptr;
  parent->counts[pk] = 0;
  parent->counts[k] = subtree_size(a);
  free_node(b);
}

// Refills emptied nodes from the bottom of path upward.
void rebalance(Tree* t, Path& path) {
  for (int d = path.depth - 1; d >= 0; --d) {
    Node* n = path.node[d];
    if (key_count(n) > 0) return;
    if (d == 0) {
      t->root = n->children[0];
      if (t->root) t->root->parent = nullptr;
      free_node(n);
      return;
    }
    Node* parent = path.node[d - 1];
    int ci = path.slot[d - 1];
    if (ci > 0 && key_count(parent->children[ci - 1]) > 1) {
      borrow_from_left(parent, ci);
      return;
    }
    if (ci < key_count(parent) && key_count(parent->children[ci + 1]) > 1) {
      borrow_from_right(parent, ci);
      return;
    }
    merge(parent, ci > 0 ? ci - 1 : ci);
  }
}

// Removes the element at the end of path and returns it.
void* remove_located(Tree* t, Path& path) {
  Node* n = path.node[path.depth - 1];
  int slot = path.slot[path.depth - 1];
  void* elem = n->elems[slot];

  if (!is_leaf(n)) {
    // Take the in-order predecessor's place: the greatest key of the left
    // subtree, which always sits in a leaf.
    Node* holder = n;
    int holder_slot = slot;
    n = n->children[slot];
    while (!is_leaf(n)) {
      int keys = key_count(n);
      path.push(n, keys);
      n = n->children[keys];
    }
    slot = key_count(n) - 1;
    path.push(n, slot);
    holder->hashs[holder_slot] = n->hashs[slot];
    holder->elems[holder_slot] = n->elems[slot];
  }

  int keys = key_count(n);
  for (int j = slot; j < keys - 1; ++j) {
    n->hashs[j] = n->hashs[j + 1];
    n->elems[j] = n->elems[j + 1];
  }
  clear_slot(n, keys - 1);
  for (int d = 0; d < path.depth - 1; ++d) path.node[d]->counts[path.slot[d]] -= 1;
  rebalance(t, path);
  return elem;
}

void free_subtree(Node* n, btree_free free_func) {
  if (!n) return;
  for (int i = 0; i <= kMaxKeys; ++i) free_subtree(n->children[i], free_func);
  if (free_func)
    for (int i = 0; i < key_count(n); ++i) free_func(n->elems[i]);
  free_node(n);
}

// Hands a removed element to the tree's free_func (then the caller gets
// null) or back to the caller.
void* surrender(const Tree* t, void* elem) {
  if (elem && t->free_func) {
    t->free_func(elem);
    return nullptr;
  }
  return elem;
}

template <class Locate>
void* delete_where(Tree* t, Locate locate) {
  void* elem = nullptr;
  {
    vek::ScopedLock lock(t->lock, BTREE_SOURCE, __LINE__, vek::ScopedLock::kWrite);
    if (!lock.held()) return nullptr;
    Path path;
    if (locate(path)) {
      elem = remove_located(t, path);
      publish_count(t);
    }
  }
  // Released outside the lock: no other thread can reach it any more.
  return surrender(t, elem);
}

// Lookups of the _ex forms: with BTREE_OPTION_KEEP_READLOCK a hit returns
// with the read lock still held.
template <class Find>
void* find_locked(Tree* t, int options, int line, Find find) {
  vek::ScopedLock lock(t->lock, BTREE_SOURCE, line, vek::ScopedLock::kRead);
  if (!lock.held()) return nullptr;
  void* elem = find();
  if (elem && (options & BTREE_OPTION_KEEP_READLOCK)) lock.keep();
  return elem;
}

// The shared bodies of the exported calls, so that one entry point never
// goes through another's (interposable) symbol.
void* insert_hash(Tree* t, void* e, long long hash) {
  vek::ScopedLock lock(t->lock, BTREE_SOURCE, __LINE__, vek::ScopedLock::kWrite);
  if (!lock.held()) return nullptr;
  void* result = insert_locked(t, e, hash);
  if (result == e) publish_count(t);
  return result;
}

void* find_hash(Tree* t, long long hash, int options) {
  return find_locked(t, options, __LINE__, [&] { return find_key(t, hash); });
}

void* find_index(Tree* t, int index, int options) {
  return find_locked(t, options, __LINE__, [&] { return element_at(t, index); });
}

void* delete_hash(Tree* t, long long hash) {
  return delete_where(t, [&](Path& path) { return locate_key(t, hash, path); });
}

// ---------------------------------------------------------------- instrumentation

void render_header(JSON* row) {
  static const char* const kTitles[] = {"Created by File", "Line Number", "Count", "Has Lock"};
  for (const char* title : kTitles) json_AddItemToArray(row, json_CreateString(title));
}

void render_row(const void* item, JSON* row) {
  const Tree* t = static_cast<const Tree*>(item);
  json_AddItemToArray(row, json_CreateString(t->created_by_file));
  json_AddItemToArray(row, json_CreateInteger(t->created_by_line));
  json_AddItemToArray(row, json_CreateInteger(__atomic_load_n(&t->published_count, __ATOMIC_RELAXED)));
  json_AddItemToArray(row, json_CreateString(t->lock ? "Lock" : ""));
}

void render_detail(const void* item, JSON* object) {
  const Tree* t = static_cast<const Tree*>(item);
  int count = __atomic_load_n(&t->published_count, __ATOMIC_RELAXED);
  json_AddItemToObject(object, "Created by File", json_CreateString(t->created_by_file));
  json_AddItemToObject(object, "Created by Line", json_CreateString(format("%d", t->created_by_line)));
  json_AddItemToObject(object, "Count", json_CreateString(format("Count %d", count)));
}

}  // namespace

// ---------------------------------------------------------------- interface

void* btree_instrument_handle(void) {
  return vek::lazy_instrument_group(&g_btree_instrument_handle, "btree_instrument_handle()", render_header,
                                    render_row, render_detail);
}

int _btree_create_ex(void** handle, btree_hash hash_func, btree_free free_func, int options, const char* file,
                     int line) {
  if (!handle) return ERR_INVALID_HANDLE;
  Tree* t = vek::alloc_record<Tree>(BTREE_SOURCE, __LINE__);
  if (!t) return ERR_NO_MEMORY;
  t->hash_func = hash_func;
  t->free_func = free_func;
  t->created_by_file = file;
  t->created_by_line = line;
  t->options = options;

  if (!(options & BTREE_OPTION_NO_LOCK)) {
    char name[128];
    format_r(name, sizeof name, "btree[%s:%d]", file ? file : "", line);
    t->lock_name = clone_string(name, -1);
    int rc = t->lock_name ? rwlock_create_ex(&t->lock, 0, t->lock_name) : ERR_NO_MEMORY;
    if (rc != 0) {
      if (t->lock) rwlock_delete(t->lock);
      vek::release(t->lock_name, BTREE_SOURCE, __LINE__);
      _vekFree(t, BTREE_SOURCE, __LINE__);
      return rc;
    }
  }
  if (!(options & BTREE_OPTION_NO_INSTRUMENT)) instrument_add(btree_instrument_handle(), t);
  *handle = t;
  return 0;
}

void btree_delete(void* handle) {
  Tree* t = static_cast<Tree*>(handle);
  if (!t) return;
  if (!(t->options & BTREE_OPTION_NO_INSTRUMENT))
    instrument_remove(__atomic_load_n(&g_btree_instrument_handle, __ATOMIC_ACQUIRE), t);
  btree_clear(t);
  if (t->lock) rwlock_delete(t->lock);
  vek::release(t->lock_name, BTREE_SOURCE, __LINE__);
  _vekFree(t, BTREE_SOURCE, __LINE__);
}

void btree_clear(void* handle) {
  Tree* t = static_cast<Tree*>(handle);
  if (!t) return;
  vek::ScopedLock lock(t->lock, BTREE_SOURCE, __LINE__, vek::ScopedLock::kWrite);
  if (!lock.held()) return;
  free_subtree(t->root, t->free_func);
  t->root = nullptr;
  publish_count(t);
}

long long btree_str_hash(const void* a) {
  if (!a) return 0;
  const char* s = static_cast<const char*>(a);
  return (long long)hash_crc32(s, (unsigned int)std::strlen(s));
}

long long btree_int_hash(const void* a) { return a ? (long long)*static_cast<const int*>(a) : 0; }

long long btree_int64_hash(const void* a) { return a ? *static_cast<const long long*>(a) : 0; }

void* btree_insert_with_hash(void* handle, void* e, long long hash) {
  Tree* t = static_cast<Tree*>(handle);
  // A null element would read as an empty slot.
  return t && e ? insert_hash(t, e, hash) : nullptr;
}

void* btree_insert(void* handle, void* e) {
  Tree* t = static_cast<Tree*>(handle);
  return t && e ? insert_hash(t, e, element_key(t, e)) : nullptr;
}

void* btree_find_by_hash_ex(void* handle, long long hash, int options) {
  Tree* t = static_cast<Tree*>(handle);
  return t ? find_hash(t, hash, options) : nullptr;
}

void* btree_find_by_hash(void* handle, long long hash) {
  Tree* t = static_cast<Tree*>(handle);
  return t ? find_hash(t, hash, 0) : nullptr;
}

void* btree_find_by_object_ex(void* handle, const void* e, int options) {
  Tree* t = static_cast<Tree*>(handle);
  return t && e ? find_hash(t, element_key(t, e), options) : nullptr;
}

void* btree_find_by_object(void* handle, const void* e) {
  Tree* t = static_cast<Tree*>(handle);
  return t && e ? find_hash(t, element_key(t, e), 0) : nullptr;
}

void* btree_find_by_index_ex(void* handle, int index, int options) {
  Tree* t = static_cast<Tree*>(handle);
  return t ? find_index(t, index, options) : nullptr;
}

void* btree_find_by_index(void* handle, int index) {
  Tree* t = static_cast<Tree*>(handle);
  return t ? find_index(t, index, 0) : nullptr;
}

int btree_index_by_hash(void* handle, long long hash) {
  Tree* t = static_cast<Tree*>(handle);
  if (!t) return ERR_INVALID_HANDLE;
  vek::ScopedLock lock(t->lock, BTREE_SOURCE, __LINE__, vek::ScopedLock::kRead);
  if (!lock.held()) return -1;
  return position_of_key(t, hash);
}

void* btree_find_less_by_hash(void* handle, long long hash) {
  Tree* t = static_cast<Tree*>(handle);
  if (!t) return nullptr;
  return find_locked(t, 0, __LINE__, [&] { return find_at_or_below(t, hash); });
}

void* btree_find_by_func(void* handle, btree_comparer func, void* custom) {
  Tree* t = static_cast<Tree*>(handle);
  if (!t || !func) return nullptr;
  vek::ScopedLock lock(t->lock, BTREE_SOURCE, __LINE__, vek::ScopedLock::kRead);
  if (!lock.held()) return nullptr;
  void* last_match = nullptr;
  auto visit = [&](long long, void* elem) {
    if (func(elem, custom) == 0) last_match = elem;
  };
  walk(t->root, visit);
  return last_match;
}

int btree_count(void* handle) {
  Tree* t = static_cast<Tree*>(handle);
  if (!t) return ERR_INVALID_HANDLE;
  vek::ScopedLock lock(t->lock, BTREE_SOURCE, __LINE__, vek::ScopedLock::kRead);
  return tree_size(t);
}

void btree_foreach(void* handle, btree_fefunc func, void* args) {
  Tree* t = static_cast<Tree*>(handle);
  if (!t || !func) return;
  vek::ScopedLock lock(t->lock, BTREE_SOURCE, __LINE__, vek::ScopedLock::kRead);
  if (!lock.held()) return;
  auto visit = [&](long long, void* elem) { func(elem, args); };
  walk(t->root, visit);
}

void btree_foreach_ex(void* handle, btree_fefunc_ex func, void* args) {
  Tree* t = static_cast<Tree*>(handle);
  if (!t || !func) return;
  vek::ScopedLock lock(t->lock, BTREE_SOURCE, __LINE__, vek::ScopedLock::kRead);
  if (!lock.held()) return;
  auto visit = [&](long long hash, void* elem) { func(hash, elem, args); };
  walk(t->root, visit);
}

void* btree_delete_by_hash(void* handle, long long hash) {
  Tree* t = static_cast<Tree*>(handle);
  return t ? delete_hash(t, hash) : nullptr;
}

void* btree_delete_by_object(void* handle, const void* e) {
  Tree* t = static_cast<Tree*>(handle);
  return t && e ? delete_hash(t, element_key(t, e)) : nullptr;
}

void* btree_delete_by_index(void* handle, int index) {
  Tree* t = static_cast<Tree*>(handle);
  if (!t) return nullptr;
  return delete_where(t, [&](Path& path) { return locate_index(t, index, path); });
}

int btree_readlock(void* handle) {
  Tree* t = static_cast<Tree*>(handle);
  if (!t) return ERR_INVALID_HANDLE;
  return t->lock ? _rwlock_readlock(t->lock, BTREE_SOURCE, __LINE__) : 0;
}

int btree_writelock(void* handle) {
  Tree* t = static_cast<Tree*>(handle);
  if (!t) return ERR_INVALID_HANDLE;
  return t->lock ? _rwlock_writelock(t->lock, BTREE_SOURCE, __LINE__) : 0;
}

int btree_unlock(void* handle) {
  Tree* t = static_cast<Tree*>(handle);
  if (!t) return ERR_INVALID_HANDLE;
  return t->lock ? rwlock_unlock(t->lock) : 0;
}
