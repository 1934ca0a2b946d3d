// Creation entry points without a source position.
#include <vekutil/btree.h>

int btree_create_ex(void** handle, btree_hash hash_func, btree_free free_func, int options) {
  return _btree_create_ex(handle, hash_func, free_func, options, VEK_BACKWARD_FILE, 0);
}

int btree_create(void** handle, btree_hash hash_func, btree_free free_func) {
  return btree_create_ex(handle, hash_func, free_func, 0);
}
