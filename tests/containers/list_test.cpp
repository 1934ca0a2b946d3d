// List: positional insert and delete, the key index, ownership, iterators,
// and a randomised comparison against std::list.
#include <algorithm>
#include <initializer_list>
#include <list>
#include <map>
#include <random>
#include <vector>

#include <vekutil/btree.h>
#include <vekutil/errors.h>
#include <vekutil/list.h>

#include "vek_test.hpp"

namespace {

using ListTest = vektest::LeakCheckedTest;

// Elements are the keys themselves, so btree_int64_hash keys them.
constexpr int kPool = 512;
long long g_items[kPool];
void* item(int i) { return &g_items[i]; }

std::vector<void*> walk(void* l) {
  std::vector<void*> out;
  list_foreach(l, [](const void* e, void* args) { static_cast<std::vector<void*>*>(args)->push_back(const_cast<void*>(e)); }, &out);
  return out;
}

int g_freed = 0;
void count_free(void*) { ++g_freed; }

TEST_F(ListTest, PositionalInsertKeepsHeadAndTailLinked) {
  for (int i = 0; i < kPool; ++i) g_items[i] = i;
  void* l = nullptr;
  ASSERT_EQ(0, list_create(&l, nullptr, nullptr));
  EXPECT_EQ(0, list_insert_at_index(l, item(2), 0)) << "position 0 of an empty list";
  EXPECT_EQ(0, list_insert_at_head(l, item(0)));
  EXPECT_EQ(0, list_insert_at_index(l, item(1), 1));
  EXPECT_EQ(0, list_insert_at_index(l, item(4), 3)) << "position count appends";
  EXPECT_EQ(0, list_insert_at_tail(l, item(5)));
  EXPECT_EQ(0, list_insert_at_index(l, item(3), 3));
  EXPECT_EQ(ERR_INVALID_PARAMETER, list_insert_at_index(l, item(9), 7)) << "count + 1";
  EXPECT_EQ(ERR_INVALID_PARAMETER, list_insert_at_index(l, item(9), -1));
  EXPECT_EQ(ERR_INVALID_PARAMETER, list_insert_at_tail(l, nullptr));
  EXPECT_EQ((std::vector<void*>{item(0), item(1), item(2), item(3), item(4), item(5)}), walk(l));
  EXPECT_EQ(6, list_count(l));

  // The tail stays reachable backwards after every kind of insert.
  void* it = nullptr;
  ASSERT_EQ(0, list_itr_get(l, &it, 5));
  for (int i = 5; i >= 0; --i) {
    EXPECT_EQ(item(i), list_itr_curr(&it));
    list_itr_prev(&it);
  }
  EXPECT_EQ(nullptr, it);

  EXPECT_EQ(0, list_delete_by_index(l, 5));
  EXPECT_EQ(0, list_delete_by_index(l, 0));
  EXPECT_EQ(ERR_INVALID_PARAMETER, list_delete_by_index(l, 4));
  EXPECT_EQ(ERR_INVALID_PARAMETER, list_delete_by_index(l, -1));
  EXPECT_EQ(0, list_insert_at_tail(l, item(6)));
  EXPECT_EQ((std::vector<void*>{item(1), item(2), item(3), item(4), item(6)}), walk(l));
  EXPECT_EQ(item(6), list_find_by_index(l, 4));
  EXPECT_EQ(nullptr, list_find_by_index(l, 5));
  EXPECT_EQ(nullptr, list_find_by_index(l, -1));
  list_delete(l);
}

TEST_F(ListTest, KeyIndexRefusesDuplicatesAndFindsByKey) {
  for (int i = 0; i < kPool; ++i) g_items[i] = i * 10;
  void* l = nullptr;
  ASSERT_EQ(0, list_create(&l, btree_int64_hash, nullptr));
  EXPECT_EQ(0, list_insert_at_tail(l, item(1)));
  EXPECT_EQ(0, list_insert_at_tail(l, item(2)));
  long long twin = 10;
  EXPECT_EQ(ERR_ALREADY_EXISTS, list_insert_at_head(l, &twin));
  EXPECT_EQ(ERR_ALREADY_EXISTS, list_insert_at_tail(l, item(1))) << "the same element twice";
  EXPECT_EQ(2, list_count(l));
  EXPECT_EQ(item(1), list_find_by_hash(l, 10));
  EXPECT_EQ(item(1), list_find_by_object(l, &twin));
  EXPECT_EQ(nullptr, list_find_by_hash(l, 30));
  EXPECT_EQ(ERR_NOT_FOUND, list_delete_by_hash(l, 30));
  EXPECT_EQ(0, list_delete_by_object(l, &twin)) << "by key, whichever element holds it";
  EXPECT_EQ(nullptr, list_find_by_hash(l, 10)) << "deletion leaves the index";
  EXPECT_EQ(0, list_insert_at_tail(l, &twin)) << "the key is free again";
  EXPECT_EQ(0, list_delete_by_hash(l, 20));
  EXPECT_EQ((std::vector<void*>{&twin}), walk(l));
  list_delete(l);

  ASSERT_EQ(0, list_create(&l, nullptr, nullptr));
  EXPECT_EQ(ERR_LIST_NO_INDEX, list_delete_by_hash(l, 10));
  EXPECT_EQ(ERR_LIST_NO_INDEX, list_delete_by_object(l, &twin));
  EXPECT_EQ(nullptr, list_find_by_hash(l, 10));
  EXPECT_EQ(nullptr, list_find_by_object(l, &twin));
  list_delete(l);
}

TEST_F(ListTest, FreeFunctionOwnsDeletedElements) {
  void* l = nullptr;
  ASSERT_EQ(0, list_create_ex(&l, nullptr, count_free, LIST_OPTION_NO_LOCK));
  for (int i = 0; i < 10; ++i) list_insert_at_tail(l, item(i));
  g_freed = 0;
  list_delete_by_index(l, 3);
  EXPECT_EQ(1, g_freed);
  list_clear(l);
  EXPECT_EQ(10, g_freed);
  EXPECT_EQ(0, list_count(l));
  for (int i = 0; i < 4; ++i) list_insert_at_head(l, item(i));
  list_delete(l);
  EXPECT_EQ(14, g_freed);
}

TEST_F(ListTest, IteratorsAndLocks) {
  void* l = nullptr;
  ASSERT_EQ(0, list_create(&l, nullptr, nullptr));
  void* it = item(0);
  EXPECT_EQ(ERR_INVALID_PARAMETER, list_itr_get(l, &it, 0)) << "empty list";
  for (int i = 0; i < 5; ++i) list_insert_at_tail(l, item(i));
  EXPECT_EQ(ERR_INVALID_PARAMETER, list_itr_get(l, nullptr, 0));
  EXPECT_EQ(ERR_INVALID_PARAMETER, list_itr_get(l, &it, 5));
  ASSERT_EQ(0, list_lock(l));
  ASSERT_EQ(0, list_itr_get(l, &it, 2)) << "the read lock may be held twice";
  EXPECT_EQ(item(2), list_itr_curr(&it));
  EXPECT_EQ(item(3), list_itr_next(&it));
  EXPECT_EQ(item(4), list_itr_next(&it));
  EXPECT_EQ(nullptr, list_itr_next(&it));
  EXPECT_EQ(nullptr, it);
  EXPECT_EQ(nullptr, list_itr_curr(&it));
  EXPECT_EQ(nullptr, list_itr_next(&it));
  EXPECT_EQ(nullptr, list_itr_prev(&it));
  EXPECT_EQ(0, list_unlock(l));
  list_delete(l);

  ASSERT_EQ(0, list_create_ex(&l, nullptr, nullptr, LIST_OPTION_NO_LOCK));
  EXPECT_EQ(0, list_lock(l));
  EXPECT_EQ(0, list_unlock(l));
  list_delete(l);
}

TEST_F(ListTest, NullHandles) {
  void* it = nullptr;
  for (int rc : {list_create(nullptr, nullptr, nullptr), list_insert_at_tail(nullptr, item(0)),
                 list_insert_at_head(nullptr, item(0)), list_insert_at_index(nullptr, item(0), 0), list_count(nullptr),
                 list_delete_by_index(nullptr, 0), list_delete_by_hash(nullptr, 0),
                 list_delete_by_object(nullptr, item(0)), list_itr_get(nullptr, &it, 0), list_lock(nullptr),
                 list_unlock(nullptr)})
    EXPECT_EQ(ERR_INVALID_HANDLE, rc);
  for (void* p : {list_find_by_hash(nullptr, 0), list_find_by_object(nullptr, item(0)), list_find_by_index(nullptr, 0),
                  list_itr_curr(nullptr), list_itr_next(nullptr), list_itr_prev(nullptr)})
    EXPECT_EQ(nullptr, p);
  list_foreach(nullptr, [](const void*, void*) {}, nullptr);
  list_clear(nullptr);
  list_delete(nullptr);
}

// Runs the same random operations on the list and on a std::list, with a key
// set mirroring the index; compares after every step.
void run_model(unsigned seed, int steps) {
  std::mt19937 rng(seed);
  for (int i = 0; i < kPool; ++i) g_items[i] = (long long)rng() - (1LL << 31);
  g_items[0] = LLONG_MIN;
  g_items[1] = LLONG_MAX;
  void* l = nullptr;
  ASSERT_EQ(0, list_create(&l, btree_int64_hash, nullptr));
  std::list<void*> model;
  std::map<long long, void*> keys;
  auto at = [&](int pos) { return std::next(model.begin(), pos); };

  for (int step = 0; step < steps; ++step) {
    int size = (int)model.size();
    int op = (int)(rng() % 100);
    int pos = (int)(rng() % (unsigned)(size + 3)) - 1;  // out of range at both ends
    void* e = item((int)(rng() % kPool));
    long long key = *static_cast<long long*>(e);
    bool taken = keys.count(key) != 0;
    if (op < 45) {
      int rc = op < 15 ? list_insert_at_head(l, e) : op < 30 ? list_insert_at_tail(l, e) : list_insert_at_index(l, e, pos);
      int where = op < 15 ? 0 : op < 30 ? size : pos;
      if (where < 0 || where > size) {
        ASSERT_EQ(ERR_INVALID_PARAMETER, rc) << "step " << step;
      } else if (taken) {
        ASSERT_EQ(ERR_ALREADY_EXISTS, rc) << "step " << step;
      } else {
        ASSERT_EQ(0, rc) << "step " << step;
        model.insert(at(where), e);
        keys[key] = e;
      }
    } else if (op < 60) {
      int rc = list_delete_by_index(l, pos);
      if (pos < 0 || pos >= size) {
        ASSERT_EQ(ERR_INVALID_PARAMETER, rc) << "step " << step;
      } else {
        ASSERT_EQ(0, rc) << "step " << step;
        keys.erase(*static_cast<long long*>(*at(pos)));
        model.erase(at(pos));
      }
    } else if (op < 75) {
      int rc = op < 68 ? list_delete_by_hash(l, key) : list_delete_by_object(l, e);
      if (!taken) {
        ASSERT_EQ(ERR_NOT_FOUND, rc) << "step " << step;
      } else {
        ASSERT_EQ(0, rc) << "step " << step;
        model.remove(keys[key]);
        keys.erase(key);
      }
    } else if (op < 90) {
      void* want = pos >= 0 && pos < size ? *at(pos) : nullptr;
      ASSERT_EQ(want, list_find_by_index(l, pos)) << "step " << step;
    } else {
      ASSERT_EQ(taken ? keys[key] : nullptr, list_find_by_hash(l, key)) << "step " << step;
    }
    ASSERT_EQ((int)model.size(), list_count(l)) << "step " << step;
    if (step % 500 == 0) {
      ASSERT_EQ(std::vector<void*>(model.begin(), model.end()), walk(l)) << "step " << step;
    }
  }
  list_delete(l);
}

TEST_F(ListTest, RandomOperationsAgreeWithStdList) {
  for (unsigned seed : {11u, 12u, 13u}) run_model(seed, 200000);
}

}  // namespace
