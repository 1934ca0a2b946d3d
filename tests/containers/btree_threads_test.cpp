// ctest-labels: tsan
// The tree's lock under readers and writers, the _ex read lock, listing trees as they change.
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <vekutil/btree.h>
#include <vekutil/instrument.h>
#include <vekutil/json.h>
#include <vekutil/list.h>

#include "vek_test.hpp"

namespace {

using BtreeThreadsTest = vektest::LeakCheckedTest;

constexpr int kKeys = 2000;
char g_items[kKeys];

TEST_F(BtreeThreadsTest, ReadersSeeConsistentTreesWhileWritersChangeThem) {
  void* t = nullptr;
  ASSERT_EQ(0, btree_create(&t, nullptr, nullptr));
  // Even keys stay for the whole test; writers add and remove odd ones.
  for (int i = 0; i < kKeys; i += 2) btree_insert_with_hash(t, &g_items[i], i);
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};

  std::vector<std::thread> writers, readers;
  for (int w = 0; w < 2; ++w)
    writers.emplace_back([&, w] {
      for (int round = 0; round < 3000; ++round) {
        int k = 2 * ((round * 7 + w * 13) % (kKeys / 2)) + 1;
        btree_insert_with_hash(t, &g_items[k], k);
        btree_delete_by_hash(t, k);
      }
    });
  for (int r = 0; r < 2; ++r)
    readers.emplace_back([&] {
      while (!stop.load()) {
        for (int k = 0; k < kKeys; k += 50) bad += btree_find_by_hash(t, k) != &g_items[k];
        void* last = btree_find_less_by_hash(t, kKeys);
        bad += (last != &g_items[kKeys - 1] && last != &g_items[kKeys - 2]) + (btree_count(t) < kKeys / 2);
      }
    });
  for (auto& w : writers) w.join();
  stop = true;
  for (auto& r : readers) r.join();
  EXPECT_EQ(0, bad.load());
  EXPECT_EQ(kKeys / 2, btree_count(t));
  btree_delete(t);
}

TEST_F(BtreeThreadsTest, ExLookupHoldsTheReadLockUntilUnlock) {
  void* t = nullptr;
  ASSERT_EQ(0, btree_create(&t, nullptr, nullptr));
  btree_insert_with_hash(t, &g_items[0], 1);
  ASSERT_EQ(&g_items[0], btree_find_by_hash_ex(t, 1, BTREE_OPTION_KEEP_READLOCK));
  std::atomic<bool> deleted{false};
  std::thread writer([&] {
    btree_delete_by_hash(t, 1);
    deleted = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(deleted.load()) << "the element must stay while the caller holds the lock";
  EXPECT_EQ(0, btree_unlock(t));
  writer.join();
  EXPECT_TRUE(deleted.load());
  EXPECT_EQ(0, btree_count(t));
  btree_delete(t);
}

TEST_F(BtreeThreadsTest, RegistryListsTreesWhileTheyChange) {
  ASSERT_NE(nullptr, btree_instrument_handle());
  void* list = nullptr;  // its index tree has no lock: the row reads a mirrored count
  ASSERT_EQ(0, list_create(&list, btree_int_hash, nullptr));
  static int values[500];
  for (int i = 0; i < 500; ++i) values[i] = i;
  std::atomic<bool> stop{false};
  std::thread lister([&] {
    while (!stop.load()) {
      JSON* json = nullptr;
      if (instrument_list(btree_instrument_handle(), &json) == 0) json_Delete(json);
      void* t = nullptr;  // trees come and go meanwhile
      btree_create(&t, nullptr, nullptr);
      btree_delete(t);
    }
  });
  for (int round = 0; round < 20; ++round) {
    for (int i = 0; i < 500; ++i) list_insert_at_tail(list, &values[i]);
    list_clear(list);
  }
  stop = true;
  lister.join();
  list_delete(list);
}

}  // namespace
