// ctest-labels: tsan
// List: key index, ownership, iterators, bad arguments, a model against std::list.
#include <algorithm>
#include <initializer_list>
#include <list>
#include <map>
#include <random>
#include <thread>
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
int g_freed = 0;
void count_free(void*) { ++g_freed; }

std::vector<void*> walk(void* l) {
  std::vector<void*> out;
  list_foreach(
      l, [](const void* e, void* args) { static_cast<std::vector<void*>*>(args)->push_back(const_cast<void*>(e)); },
      &out);
  return out;
}

// The same walk through the iterator, from the tail back to the head.
std::vector<void*> walk_backwards(void* l) {
  std::vector<void*> out;
  void* it = nullptr;
  if (list_itr_get(l, &it, list_count(l) - 1) != 0) return out;
  for (void* e = list_itr_curr(&it); it && (int)out.size() <= list_count(l); e = list_itr_prev(&it))
    out.insert(out.begin(), e);
  return out;
}

TEST_F(ListTest, KeyIndexGoesByKeyWhicheverElementHoldsIt) {
  for (int i = 0; i < kPool; ++i) g_items[i] = i * 10;
  void* l = nullptr;
  ASSERT_EQ(0, list_create(&l, btree_int64_hash, nullptr));
  EXPECT_EQ(0, list_insert_at_tail(l, item(1)));
  EXPECT_EQ(0, list_insert_at_tail(l, item(2)));
  long long twin = 10;
  EXPECT_EQ(ERR_ALREADY_EXISTS, list_insert_at_head(l, &twin));
  EXPECT_EQ(ERR_ALREADY_EXISTS, list_insert_at_tail(l, item(1))) << "the same element twice";
  EXPECT_EQ(item(1), list_find_by_object(l, &twin));
  EXPECT_EQ(0, list_delete_by_object(l, &twin));
  EXPECT_EQ(nullptr, list_find_by_hash(l, 10)) << "deletion leaves the index";
  EXPECT_EQ((std::vector<void*>{item(2)}), walk(l));
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
  EXPECT_EQ(0, list_lock(l)) << "no lock: nothing to do";
  EXPECT_EQ(0, list_unlock(l));
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

TEST_F(ListTest, IteratorsLocksAndBadArguments) {
  void* l = nullptr;
  ASSERT_EQ(0, list_create(&l, nullptr, nullptr));
  void* it = item(0);
  EXPECT_EQ(ERR_INVALID_PARAMETER, list_itr_get(l, &it, 0)) << "empty list";
  EXPECT_EQ(ERR_INVALID_PARAMETER, list_insert_at_tail(l, nullptr));
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
  for (void* p : {list_itr_curr(&it), list_itr_next(&it), list_itr_prev(&it)}) EXPECT_EQ(nullptr, p);
  EXPECT_EQ(0, list_unlock(l));
  list_delete(l);

  EXPECT_EQ(ERR_INVALID_HANDLE, list_insert_at_tail(nullptr, item(0)));
  EXPECT_EQ(nullptr, list_itr_next(nullptr));
  list_delete(nullptr);
}

// Random operations against a std::list and a key map; whole order both ways every 500 steps.
void run_model(unsigned seed, int steps) {
  std::mt19937 rng(seed);
  for (int i = 0; i < kPool; ++i) g_items[i] = i < 2 ? (i ? LLONG_MAX : LLONG_MIN) : (long long)rng() - (1LL << 31);
  void* l = nullptr;
  ASSERT_EQ(0, list_create(&l, btree_int64_hash, nullptr));
  std::list<void*> model;
  std::map<long long, void*> keys;
  auto at = [&](int pos) { return std::next(model.begin(), pos); };
  for (int step = 0; step < steps; ++step) {
    const int size = (int)model.size(), op = (int)(rng() % 100);
    const int pos = (int)(rng() % (unsigned)(size + 3)) - 1;  // out of range at both ends
    void* e = item((int)(rng() % kPool));
    const long long key = *static_cast<long long*>(e);
    const bool taken = keys.count(key) != 0;
    if (op < 45) {
      const int where = op < 15 ? 0 : op < 30 ? size : pos;
      const int rc = op < 15   ? list_insert_at_head(l, e)
                     : op < 30 ? list_insert_at_tail(l, e)
                               : list_insert_at_index(l, e, pos);
      const bool fits = where >= 0 && where <= size;
      ASSERT_EQ(!fits ? ERR_INVALID_PARAMETER : taken ? ERR_ALREADY_EXISTS : 0, rc) << "step " << step;
      if (rc == 0) {
        model.insert(at(where), e);
        keys[key] = e;
      }
    } else if (op < 60) {
      const bool fits = pos >= 0 && pos < size;
      ASSERT_EQ(fits ? 0 : ERR_INVALID_PARAMETER, list_delete_by_index(l, pos)) << "step " << step;
      if (fits) {
        keys.erase(*static_cast<long long*>(*at(pos)));
        model.erase(at(pos));
      }
    } else if (op < 75) {
      const int rc = op < 68 ? list_delete_by_hash(l, key) : list_delete_by_object(l, e);
      ASSERT_EQ(taken ? 0 : ERR_NOT_FOUND, rc) << "step " << step;
      if (taken) {
        model.remove(keys[key]);
        keys.erase(key);
      }
    } else if (op < 90) {
      ASSERT_EQ(pos >= 0 && pos < size ? *at(pos) : nullptr, list_find_by_index(l, pos)) << "step " << step;
    } else {
      ASSERT_EQ(taken ? keys[key] : nullptr, list_find_by_hash(l, key)) << "step " << step;
    }
    ASSERT_EQ((int)model.size(), list_count(l)) << "step " << step;
    if (step % 500 == 0) {
      const std::vector<void*> want(model.begin(), model.end());
      ASSERT_EQ(want, walk(l)) << "step " << step;
      ASSERT_EQ(want, walk_backwards(l)) << "step " << step << ": the tail must stay linked backwards";
    }
  }
  list_delete(l);
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kModelSteps = 20000;
#else
constexpr int kModelSteps = 200000;
#endif

TEST_F(ListTest, RandomOperationsAgreeWithStdList) {
  for (unsigned seed : {11u, 12u, 13u}) run_model(seed, kModelSteps);
}

// Lookups by key race with inserts and deletions that rebuild the index.
TEST_F(ListTest, KeyLookupsWhileOtherThreadsChangeTheIndex) {
  for (int i = 0; i < kPool; ++i) g_items[i] = i;
  void* l = nullptr;
  ASSERT_EQ(0, list_create(&l, btree_int64_hash, nullptr));
  std::vector<std::thread> threads;
  for (int w = 0; w < 2; ++w)
    threads.emplace_back([l, w] {
      for (int round = 0; round < 20; ++round)
        for (int i = w; i < kPool; i += 2) {
          list_insert_at_tail(l, item(i));
          if (i % 3 == 0) list_delete_by_hash(l, i);
        }
    });
  threads.emplace_back([l] {
    for (int round = 0; round < 20; ++round)
      for (int i = 0; i < kPool; ++i) {
        for (void* found : {list_find_by_hash(l, i), list_find_by_object(l, item(i))})
          EXPECT_TRUE(!found || found == item(i));
      }
  });
  for (auto& t : threads) t.join();
  list_delete(l);
}

}  // namespace
