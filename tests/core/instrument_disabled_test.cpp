// test-main: own
// The registry switched off before anything is made: calls report it, containers work unlisted.
#include <gtest/gtest.h>

#include <vekutil/btree.h>
#include <vekutil/errors.h>
#include <vekutil/instrument.h>
#include <vekutil/list.h>
#include <vekutil/memory.h>

namespace {

void header(JSON*) {}
void row(const void*, JSON*) {}

TEST(InstrumentDisabled, EveryCallReportsTheSwitch) {
  EXPECT_EQ(1, instrument_global_is_disabled());
  void* g = nullptr;
  EXPECT_EQ(ERR_DISABLED, instrument_create(&g, "x", header, row, row));
  EXPECT_EQ(nullptr, g);
  int item = 0;
  JSON* json = nullptr;
  const int results[] = {  // checked before the arguments
      instrument_create(nullptr, nullptr, nullptr, nullptr, nullptr), instrument_add(nullptr, &item),
      instrument_remove(nullptr, &item), instrument_count(nullptr), instrument_list(nullptr, &json),
      instrument_detail(nullptr, 0, &json), instrument_delete(nullptr)};
  for (int r : results) EXPECT_EQ(ERR_DISABLED, r);
  EXPECT_EQ(0, instrument_global_disable()) << "setting it again is harmless";
}

TEST(InstrumentDisabled, ContainersWorkUnlisted) {
  long long blocks = vekMemoryBlockUsed();
  void* t = nullptr;
  ASSERT_EQ(0, btree_create(&t, btree_int64_hash, nullptr));
  EXPECT_EQ(nullptr, btree_instrument_handle());
  long long k = 5;
  EXPECT_EQ(&k, btree_insert(t, &k));
  EXPECT_EQ(1, btree_count(t));
  btree_delete(t);

  void* l = nullptr;
  ASSERT_EQ(0, list_create(&l, btree_int64_hash, nullptr));
  EXPECT_EQ(0, list_insert_at_tail(l, &k));
  EXPECT_EQ(&k, list_find_by_hash(l, 5));
  list_delete(l);
  EXPECT_EQ(blocks, vekMemoryBlockUsed()) << "nothing is kept for a registry that is off";
}

}  // namespace

int main(int argc, char** argv) {
  instrument_global_disable();
  vekMemoryInitEx(1);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
