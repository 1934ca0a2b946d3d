// Hash B-tree: keyed and positional access, ownership on delete, and a
// randomised comparison against std::map that checks counts and positions
// after every step.
#include <climits>
#include <cstdint>
#include <initializer_list>
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

std::vector<long long> keys_in_walk_order(void* t) {
  std::vector<long long> keys;
  btree_foreach_ex(
      t, [](long long hash, const void*, void* args) { static_cast<std::vector<long long>*>(args)->push_back(hash); },
      &keys);
  return keys;
}

int g_freed = 0;
void count_free(void*) { ++g_freed; }

TEST_F(BtreeTest, KeysAtBothEndsOfTheRangeSortAsSignedNumbers) {
  void* t = nullptr;
  ASSERT_EQ(0, btree_create_ex(&t, nullptr, nullptr, BTREE_OPTION_NO_LOCK));
  const long long keys[] = {LLONG_MAX, 0, LLONG_MIN, -1, 1, LLONG_MIN + 1, LLONG_MAX - 1};
  for (int i = 0; i < 7; ++i) ASSERT_EQ(item(i), btree_insert_with_hash(t, item(i), keys[i]));
  std::vector<long long> want = {LLONG_MIN, LLONG_MIN + 1, -1, 0, 1, LLONG_MAX - 1, LLONG_MAX};
  EXPECT_EQ(want, keys_in_walk_order(t));
  EXPECT_EQ(0, btree_index_by_hash(t, LLONG_MIN));
  EXPECT_EQ(6, btree_index_by_hash(t, LLONG_MAX));
  EXPECT_EQ(item(0), btree_find_by_index(t, 6));
  EXPECT_EQ(item(2), btree_find_less_by_hash(t, LLONG_MIN));
  EXPECT_EQ(item(0), btree_find_less_by_hash(t, LLONG_MAX));
  EXPECT_EQ(item(5), btree_find_less_by_hash(t, -2));
  EXPECT_EQ(item(0), btree_delete_by_hash(t, LLONG_MAX));
  EXPECT_EQ(nullptr, btree_find_by_hash(t, LLONG_MAX)) << "an emptied slot must not match the greatest key";
  EXPECT_EQ(item(4), btree_find_less_by_hash(t, LLONG_MAX - 2));
  EXPECT_EQ(item(6), btree_find_less_by_hash(t, LLONG_MAX));
  EXPECT_EQ(item(2), btree_delete_by_index(t, 0));
  EXPECT_EQ(nullptr, btree_find_less_by_hash(t, LLONG_MIN));
  btree_delete(t);
}

TEST_F(BtreeTest, FindLessAndPositionLookups) {
  void* t = nullptr;
  ASSERT_EQ(0, btree_create(&t, nullptr, nullptr));
  EXPECT_EQ(nullptr, btree_find_less_by_hash(t, 5)) << "empty tree";
  EXPECT_EQ(nullptr, btree_find_by_index(t, 0));
  for (int i = 0; i < 100; ++i) btree_insert_with_hash(t, item(i), 10LL * i);
  EXPECT_EQ(nullptr, btree_find_less_by_hash(t, -1));
  EXPECT_EQ(item(0), btree_find_less_by_hash(t, 0));
  EXPECT_EQ(item(4), btree_find_less_by_hash(t, 49));
  EXPECT_EQ(item(5), btree_find_less_by_hash(t, 50));
  EXPECT_EQ(item(99), btree_find_less_by_hash(t, LLONG_MAX));
  EXPECT_EQ(nullptr, btree_find_by_index(t, btree_count(t)));
  EXPECT_EQ(nullptr, btree_find_by_index(t, -1));
  EXPECT_EQ(nullptr, btree_find_by_index(t, INT_MIN));
  EXPECT_EQ(item(37), btree_find_by_index(t, 37));
  EXPECT_EQ(37, btree_index_by_hash(t, 370));
  EXPECT_EQ(-1, btree_index_by_hash(t, 371));
  btree_delete(t);
}

TEST_F(BtreeTest, KeyFunctionsAndStringClashes) {
  EXPECT_EQ(0xCBF43926LL, btree_str_hash("123456789")) << "zero-extended, never negative";
  EXPECT_EQ(0, btree_str_hash(""));
  int i = -5;
  long long ll = LLONG_MIN;
  EXPECT_EQ(-5, btree_int_hash(&i));
  EXPECT_EQ(LLONG_MIN, btree_int64_hash(&ll));
  EXPECT_EQ(0, btree_str_hash(nullptr) | btree_int_hash(nullptr) | btree_int64_hash(nullptr));

  void* t = nullptr;
  ASSERT_EQ(0, btree_create(&t, btree_str_hash, nullptr));
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
  void* t = nullptr;
  ASSERT_EQ(0, btree_create(&t, nullptr, nullptr));
  for (int i = 0; i < 10; ++i) btree_insert(t, item(9 - i));
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(i, btree_index_by_hash(t, (long long)(intptr_t)item(i)));
    EXPECT_EQ(item(i), btree_find_by_object(t, item(i)));
  }
  EXPECT_EQ(item(3), btree_delete_by_object(t, item(3)));
  EXPECT_EQ(nullptr, btree_delete_by_object(t, item(3)));
  EXPECT_EQ(9, btree_count(t));
  btree_delete(t);
}

TEST_F(BtreeTest, FindByFuncReturnsTheLastMatchInKeyOrder) {
  void* t = nullptr;
  ASSERT_EQ(0, btree_create(&t, nullptr, nullptr));
  auto all = [](const void*, void*) { return 0; };
  auto none = [](const void*, void*) { return 1; };
  auto even = [](const void* e, void*) { return item_index(e) % 2; };
  EXPECT_EQ(nullptr, btree_find_by_func(t, all, nullptr));
  for (int i = 0; i < 50; ++i) btree_insert_with_hash(t, item(i), -i);  // item 0 has the greatest key
  EXPECT_EQ(item(0), btree_find_by_func(t, all, nullptr));
  EXPECT_EQ(nullptr, btree_find_by_func(t, none, nullptr));
  EXPECT_EQ(item(0), btree_find_by_func(t, even, nullptr));
  EXPECT_EQ(nullptr, btree_find_by_func(t, nullptr, nullptr));
  btree_delete(t);
}

TEST_F(BtreeTest, OwnershipOnDeleteAndClear) {
  void* owning = nullptr;
  void* plain = nullptr;
  ASSERT_EQ(0, btree_create(&owning, nullptr, count_free));
  ASSERT_EQ(0, btree_create(&plain, nullptr, nullptr));
  for (int i = 0; i < 20; ++i) {
    btree_insert_with_hash(owning, item(i), i);
    btree_insert_with_hash(plain, item(i), i);
  }
  g_freed = 0;
  EXPECT_EQ(nullptr, btree_delete_by_hash(owning, 3)) << "found and released";
  EXPECT_EQ(nullptr, btree_delete_by_index(owning, 0));
  EXPECT_EQ(2, g_freed);
  EXPECT_EQ(nullptr, btree_delete_by_hash(owning, 3)) << "not found";
  EXPECT_EQ(2, g_freed);
  EXPECT_EQ(item(3), btree_delete_by_hash(plain, 3));
  btree_clear(owning);
  EXPECT_EQ(20, g_freed);
  EXPECT_EQ(0, btree_count(owning));
  EXPECT_EQ(item(5), btree_insert_with_hash(owning, item(5), 5)) << "a cleared tree is usable";
  btree_delete(owning);
  EXPECT_EQ(21, g_freed) << "delete releases what is left";
  btree_delete(plain);
}

TEST_F(BtreeTest, NullHandlesAndNullArguments) {
  for (int rc : {_btree_create_ex(nullptr, nullptr, nullptr, 0, "f", 1), btree_count(nullptr),
                 btree_index_by_hash(nullptr, 1), btree_readlock(nullptr), btree_writelock(nullptr),
                 btree_unlock(nullptr)})
    EXPECT_EQ(ERR_INVALID_HANDLE, rc);
  auto match = [](const void*, void*) { return 0; };
  for (void* p : {btree_insert(nullptr, item(0)), btree_insert_with_hash(nullptr, item(0), 1),
                  btree_find_by_hash_ex(nullptr, 1, BTREE_OPTION_KEEP_READLOCK), btree_find_by_object(nullptr, item(0)),
                  btree_find_by_index(nullptr, 0), btree_find_less_by_hash(nullptr, 0),
                  btree_find_by_func(nullptr, match, nullptr), btree_delete_by_hash(nullptr, 1),
                  btree_delete_by_object(nullptr, item(0)), btree_delete_by_index(nullptr, 0)})
    EXPECT_EQ(nullptr, p);
  btree_foreach(nullptr, [](const void*, void*) {}, nullptr);
  btree_clear(nullptr);
  btree_delete(nullptr);

  // The hash function never sees a null element.
  void* t = nullptr;
  ASSERT_EQ(0, btree_create(&t, pooled_key, nullptr));
  EXPECT_EQ(nullptr, btree_insert(t, nullptr));
  EXPECT_EQ(nullptr, btree_find_by_object(t, nullptr));
  EXPECT_EQ(nullptr, btree_delete_by_object(t, nullptr));
  btree_foreach(t, nullptr, nullptr);
  btree_foreach_ex(t, nullptr, nullptr);
  btree_delete(t);
}

TEST_F(BtreeTest, ExplicitLocks) {
  void* locked = nullptr;
  void* bare = nullptr;
  ASSERT_EQ(0, btree_create(&locked, nullptr, nullptr));
  ASSERT_EQ(0, btree_create_ex(&bare, nullptr, nullptr, BTREE_OPTION_NO_LOCK));
  btree_insert_with_hash(locked, item(1), 1);
  // The tree's own lookups take the read lock a second time.
  ASSERT_EQ(0, btree_readlock(locked));
  EXPECT_EQ(item(1), btree_find_less_by_hash(locked, 2));
  EXPECT_EQ(0, btree_unlock(locked));
  // A miss of an _ex lookup releases the lock: a writer gets in afterwards.
  EXPECT_EQ(nullptr, btree_find_by_index_ex(locked, 5, BTREE_OPTION_KEEP_READLOCK));
  EXPECT_EQ(0, btree_writelock(locked));
  EXPECT_EQ(0, btree_unlock(locked));
  EXPECT_EQ(0, btree_readlock(bare) | btree_writelock(bare) | btree_unlock(bare)) << "no lock: nothing to do";
  btree_delete(locked);
  btree_delete(bare);
}

// ---------------------------------------------------------------- model test

// The tree beside a std::map; positions come from a sorted key vector that
// mirrors the map.
class Model {
 public:
  explicit Model(void* tree) : t_(tree) {}

  void insert(int i) {
    long long key = g_keys[i];
    void* got = btree_insert(t_, item(i));
    auto it = map_.find(key);
    ASSERT_EQ(it != map_.end() ? it->second : item(i), got) << "a clash returns the element already filed";
    if (it != map_.end()) return;
    map_[key] = item(i);
    sorted_.insert(std::lower_bound(sorted_.begin(), sorted_.end(), key), key);
    ASSERT_EQ(position(key), btree_index_by_hash(t_, key));
  }

  // Deletion by key and by object both go by key: the element filed under
  // it comes back, whichever it is.
  void erase_key(long long key, void* got) {
    auto it = map_.find(key);
    ASSERT_EQ(it != map_.end() ? it->second : nullptr, got);
    if (it != map_.end()) forget(key);
  }

  void erase_position(int pos) {
    void* got = btree_delete_by_index(t_, pos);
    ASSERT_EQ(at(pos), got);
    if (got) forget(sorted_[pos]);
  }

  void find_position(int pos) { ASSERT_EQ(at(pos), btree_find_by_index(t_, pos)); }

  void find_less(long long key) {
    auto it = map_.upper_bound(key);
    ASSERT_EQ(it == map_.begin() ? nullptr : std::prev(it)->second, btree_find_less_by_hash(t_, key));
  }

  void check_count() { ASSERT_EQ((int)map_.size(), btree_count(t_)); }

  void check_all() {
    ASSERT_EQ(sorted_, keys_in_walk_order(t_));
    for (int pos = 0; pos < (int)sorted_.size(); ++pos) {
      ASSERT_EQ(at(pos), btree_find_by_index(t_, pos));
      ASSERT_EQ(pos, btree_index_by_hash(t_, sorted_[pos]));
    }
  }

 private:
  void* at(int pos) { return pos >= 0 && pos < (int)sorted_.size() ? map_[sorted_[pos]] : nullptr; }
  int position(long long key) {
    return (int)(std::lower_bound(sorted_.begin(), sorted_.end(), key) - sorted_.begin());
  }

  void forget(long long key) {
    map_.erase(key);
    int pos = position(key);
    sorted_.erase(sorted_.begin() + pos);
    // The successor moved down by one position.
    if (pos < (int)sorted_.size()) {
      ASSERT_EQ(pos, btree_index_by_hash(t_, sorted_[pos]));
    }
  }

  void* t_;
  std::map<long long, void*> map_;
  std::vector<long long> sorted_;
};

// Keys spread over the whole signed range, the ends included, with some
// repeated so that different elements clash.
void fill_keys(std::mt19937_64& rng) {
  for (int i = 0; i < kPool; ++i) g_keys[i] = (long long)rng();
  g_keys[0] = LLONG_MIN;
  g_keys[1] = LLONG_MAX;
  g_keys[2] = 0;
  g_keys[3] = -1;
  for (int i = 4; i < kPool; i += 97) g_keys[i] = g_keys[i / 2];
}

void run_model(unsigned seed, int pool, int steps) {
  std::mt19937_64 rng(seed);
  fill_keys(rng);
  void* t = nullptr;
  ASSERT_EQ(0, btree_create(&t, pooled_key, nullptr));
  Model model(t);
  auto pick = [&] { return (int)(rng() % (unsigned)pool); };
  int emptied = 0;
  for (int step = 0; step < steps; ++step) {
    // Phases that mostly delete drain the tree, often down to nothing.
    bool draining = (step / 3000) % 2 == 1;
    int op = (int)(rng() % 100);
    if (draining && op < 40 && op % 4 != 0) op += 40;
    int size = btree_count(t);
    int pos = (int)(rng() % (unsigned)(size + 2)) - 1;  // one out of range at each end
    if (op < 40) {
      model.insert(pick());
    } else if (op < 52) {
      long long key = g_keys[pick()];
      model.erase_key(key, btree_delete_by_hash(t, key));
    } else if (op < 62) {
      model.erase_position(pos);
    } else if (op < 72) {
      int i = pick();
      model.erase_key(g_keys[i], btree_delete_by_object(t, item(i)));
    } else if (op < 86) {
      model.find_position(pos);
    } else {
      // Next to a key (wrapping at the ends of the range) or anywhere.
      long long probe = (op % 2) ? (long long)((unsigned long long)g_keys[pick()] + rng() % 3 - 1) : (long long)rng();
      model.find_less(probe);
    }
    if (::testing::Test::HasFatalFailure()) {
      ADD_FAILURE() << "seed " << seed << " step " << step;
      break;
    }
    model.check_count();
    if (step % 2000 == 0) model.check_all();
    if (btree_count(t) == 0) ++emptied;
  }
  model.check_all();
  if (pool <= 400) {
    EXPECT_GT(emptied, 0) << "the drain phases must empty small trees";
  }
  btree_delete(t);
}

TEST_F(BtreeTest, RandomOperationsAgreeWithStdMap) {
  // Small pools keep the tree shallow and exercise the root's collapse;
  // large ones make deep trees with many merges and borrows.
  run_model(1, 40, 200000);
  run_model(2, 400, 200000);
  run_model(3, 4096, 200000);
  run_model(4, 1500, 200000);
}

}  // namespace
