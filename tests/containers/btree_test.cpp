// Hash B-tree: keyed and positional access, ownership, a model against std::map.
#include <climits>
#include <cstdint>
#include <map>
#include <random>
#include <vector>

#include <vekutil/btree.h>
#include <vekutil/errors.h>

#include "vek_test.hpp"

namespace {

using BtreeTest = vektest::LeakCheckedTest;

// Elements are slots of a fixed array; each slot's key lives beside it.
constexpr int kPool = 4096;
char g_items[kPool];
long long g_keys[kPool];
void* item(int i) { return &g_items[i]; }
int item_index(const void* e) { return static_cast<int>(static_cast<const char*>(e) - g_items); }
long long pooled_key(const void* e) { return g_keys[item_index(e)]; }
int g_freed = 0;
void count_free(void*) { ++g_freed; }

void* new_tree(btree_hash hash = nullptr, btree_free free = nullptr, int options = 0) {
  void* t = nullptr;
  EXPECT_EQ(0, btree_create_ex(&t, hash, free, options));
  return t;
}

std::vector<long long> keys_in_walk_order(void* t) {
  std::vector<long long> keys;
  btree_foreach_ex(
      t, [](long long hash, const void*, void* out) { static_cast<std::vector<long long>*>(out)->push_back(hash); },
      &keys);
  return keys;
}

TEST_F(BtreeTest, KeyFunctionsAndStringClashes) {
  EXPECT_EQ(0xCBF43926LL, btree_str_hash("123456789")) << "zero-extended, never negative";
  EXPECT_EQ(0, btree_str_hash(""));
  int i = -5;
  long long ll = LLONG_MIN;
  EXPECT_EQ(-5, btree_int_hash(&i));
  EXPECT_EQ(LLONG_MIN, btree_int64_hash(&ll));
  EXPECT_EQ(0, btree_str_hash(nullptr) | btree_int_hash(nullptr) | btree_int64_hash(nullptr));

  void* t = new_tree(btree_str_hash);
  char a[] = "plumless", b[] = "buckeroo";
  ASSERT_EQ(btree_str_hash(a), btree_str_hash(b));
  EXPECT_EQ(a, btree_insert(t, a));
  EXPECT_EQ(a, btree_insert(t, b)) << "the tree compares keys, never the strings";
  EXPECT_EQ(1, btree_count(t));
  EXPECT_EQ(a, btree_find_by_object(t, b));
  EXPECT_EQ(nullptr, btree_insert(t, nullptr)) << "a null element is refused";
  btree_delete(t);
}

TEST_F(BtreeTest, WithoutHashFunctionTheAddressIsTheKey) {
  void* t = new_tree();
  auto all = [](const void*, void*) { return 0; };
  auto even = [](const void* e, void*) { return item_index(e) % 2; };
  EXPECT_EQ(nullptr, btree_find_by_func(t, all, nullptr));
  for (int i = 49; i >= 0; --i) btree_insert(t, item(i));
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(i, btree_index_by_hash(t, (long long)(intptr_t)item(i)));
    EXPECT_EQ(item(i), btree_find_by_object(t, item(i)));
  }
  // The search by function returns the last match in key order.
  EXPECT_EQ(item(49), btree_find_by_func(t, all, nullptr));
  EXPECT_EQ(item(48), btree_find_by_func(t, even, nullptr));
  EXPECT_EQ(nullptr, btree_find_by_func(t, [](const void*, void*) { return 1; }, nullptr));
  EXPECT_EQ(nullptr, btree_find_by_func(t, nullptr, nullptr));
  EXPECT_EQ(item(3), btree_delete_by_object(t, item(3)));
  EXPECT_EQ(nullptr, btree_delete_by_object(t, item(3)));
  EXPECT_EQ(49, btree_count(t));
  btree_delete(t);
}

TEST_F(BtreeTest, OwnershipOnDeleteAndClear) {
  void* owning = new_tree(nullptr, count_free);
  for (int i = 0; i < 20; ++i) btree_insert_with_hash(owning, item(i), i);
  g_freed = 0;
  EXPECT_EQ(nullptr, btree_delete_by_hash(owning, 3)) << "found and released";
  EXPECT_EQ(nullptr, btree_delete_by_index(owning, 0));
  EXPECT_EQ(2, g_freed);
  EXPECT_EQ(nullptr, btree_delete_by_hash(owning, 3)) << "not found";
  EXPECT_EQ(2, g_freed);
  btree_clear(owning);
  EXPECT_EQ(20, g_freed);
  EXPECT_EQ(0, btree_count(owning));
  EXPECT_EQ(item(5), btree_insert_with_hash(owning, item(5), 5)) << "a cleared tree is usable";
  btree_delete(owning);
  EXPECT_EQ(21, g_freed) << "delete releases what is left";
}

TEST_F(BtreeTest, NullHandlesNullElementsAndExplicitLocks) {
  EXPECT_EQ(ERR_INVALID_HANDLE, btree_count(nullptr) | btree_readlock(nullptr));
  EXPECT_EQ(nullptr, btree_insert_with_hash(nullptr, item(0), 1));
  btree_delete(nullptr);
  void* t = new_tree(pooled_key);  // the hash function never sees a null element
  EXPECT_EQ(nullptr, btree_find_by_index(t, INT_MIN));
  EXPECT_EQ(nullptr, btree_insert(t, nullptr));
  EXPECT_EQ(nullptr, btree_delete_by_object(t, nullptr));
  btree_foreach(t, nullptr, nullptr);
  btree_delete(t);

  void* locked = new_tree();
  void* bare = new_tree(nullptr, nullptr, BTREE_OPTION_NO_LOCK);
  btree_insert_with_hash(locked, item(1), 1);
  ASSERT_EQ(0, btree_readlock(locked));
  EXPECT_EQ(item(1), btree_find_less_by_hash(locked, 2)) << "lookups take the read lock a second time";
  EXPECT_EQ(0, btree_unlock(locked));
  // A miss of an _ex lookup releases the lock: a writer gets in afterwards.
  EXPECT_EQ(nullptr, btree_find_by_index_ex(locked, 5, BTREE_OPTION_KEEP_READLOCK));
  EXPECT_EQ(0, btree_writelock(locked));
  EXPECT_EQ(0, btree_unlock(locked));
  EXPECT_EQ(0, btree_readlock(bare) | btree_writelock(bare) | btree_unlock(bare)) << "no lock: nothing to do";
  btree_delete(locked);
  btree_delete(bare);
}

// Random operations against a std::map (a sorted vector for positions), every step.
void run_model(unsigned seed, int pool, int options) {
  std::mt19937_64 rng(seed);
  // Keys over the whole signed range, ends included; some repeat so elements clash.
  const long long ends[] = {LLONG_MIN, LLONG_MAX, 0, -1};
  for (int i = 0; i < kPool; ++i) g_keys[i] = i < 4 ? ends[i] : i % 97 == 4 ? g_keys[i / 2] : (long long)rng();
  void* t = nullptr;
  ASSERT_EQ(0, btree_create_ex(&t, pooled_key, nullptr, options));
  std::map<long long, void*> map;
  std::vector<long long> sorted;
  auto position = [&](long long key) {
    return (int)(std::lower_bound(sorted.begin(), sorted.end(), key) - sorted.begin());
  };
  auto at = [&](int pos) { return pos >= 0 && pos < (int)sorted.size() ? map[sorted[pos]] : nullptr; };
  auto check_all = [&] {
    ASSERT_EQ(sorted, keys_in_walk_order(t));
    for (int pos = 0; pos < (int)sorted.size(); ++pos) {
      ASSERT_EQ(at(pos), btree_find_by_index(t, pos));
      ASSERT_EQ(pos, btree_index_by_hash(t, sorted[pos]));
    }
  };
  int emptied = 0;
  for (int step = 0; step < 200000; ++step) {
    // Phases that mostly delete drain the tree, often down to nothing.
    int op = (int)(rng() % 100);
    if ((step / 3000) % 2 == 1 && op < 40 && op % 4 != 0) op += 40;
    const int size = (int)sorted.size(), i = (int)(rng() % (unsigned)pool);
    const int pos = (int)(rng() % (unsigned)(size + 2)) - 1;  // one out of range at each end
    void *want, *got;
    int shifted = -1;  // the position where keys moved up or down by one
    if (op < 40) {
      auto it = map.find(g_keys[i]);
      want = it != map.end() ? it->second : item(i);  // a clash returns the element already filed
      got = btree_insert(t, item(i));
      if (it == map.end()) {
        map[g_keys[i]] = item(i);
        sorted.insert(sorted.begin() + position(g_keys[i]), g_keys[i]);
        shifted = position(g_keys[i]);
      }
    } else if (op < 72) {
      // By key, by position or by object; the last goes by key as well.
      const bool by_pos = op >= 52 && op < 62;
      const bool found = by_pos ? pos >= 0 && pos < size : map.count(g_keys[i]) != 0;
      const long long key = by_pos ? (found ? sorted[pos] : 0) : g_keys[i];
      want = found ? map[key] : nullptr;
      got = op < 52  ? btree_delete_by_hash(t, key)
            : by_pos ? btree_delete_by_index(t, pos)
                     : btree_delete_by_object(t, item(i));
      if (found) {
        map.erase(key);
        shifted = position(key);
        sorted.erase(sorted.begin() + shifted);
      }
    } else if (op < 86) {
      want = at(pos);
      got = btree_find_by_index(t, pos);
    } else {
      // Next to a key (wrapping at the ends of the range) or anywhere.
      const long long probe = (op % 2) ? (long long)((unsigned long long)g_keys[i] + rng() % 3 - 1) : (long long)rng();
      auto it = map.upper_bound(probe);
      want = it == map.begin() ? nullptr : std::prev(it)->second;
      got = btree_find_less_by_hash(t, probe);
      const bool filed = map.count(probe) != 0;
      ASSERT_EQ(filed ? position(probe) : -1, btree_index_by_hash(t, probe)) << "seed " << seed << " step " << step;
      ASSERT_EQ(filed ? map[probe] : nullptr, btree_find_by_hash(t, probe)) << "seed " << seed << " step " << step;
    }
    ASSERT_EQ(want, got) << "seed " << seed << " step " << step << " op " << op;
    ASSERT_EQ((int)map.size(), btree_count(t)) << "seed " << seed << " step " << step;
    if (shifted >= 0 && shifted < (int)sorted.size()) {
      ASSERT_EQ(shifted, btree_index_by_hash(t, sorted[shifted])) << "seed " << seed << " step " << step;
    }
    if (step % 2000 == 0) check_all();
    emptied += map.empty();
  }
  check_all();
  EXPECT_TRUE(pool > 400 || emptied > 0) << "the drain phases must empty small trees";
  btree_delete(t);
}

TEST_F(BtreeTest, RandomOperationsAgreeWithStdMap) {
  // Small pools keep the tree shallow and exercise the root's collapse;
  // large ones make deep trees with many merges and borrows.
  run_model(1, 40, 0);
  run_model(2, 400, BTREE_OPTION_NO_LOCK);
  run_model(3, 4096, 0);
  run_model(4, 1500, BTREE_OPTION_NO_INSTRUMENT);
}

}  // namespace
