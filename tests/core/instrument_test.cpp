// The registry: a group's bookkeeping and messages, and the B-tree's own rows.
#include <cstdint>

#include <vekutil/btree.h>
#include <vekutil/errors.h>
#include <vekutil/instrument.h>
#include <vekutil/json.h>
#include <vekutil/memory.h>

#include "vek_test.hpp"

namespace {

using InstrumentTest = vektest::LeakCheckedTest;

using vektest::registry_key;
const auto print = vektest::compact_json;

// A toy module: items are ints, one column each.
void header(JSON* row) { json_AddItemToArray(row, json_CreateString("Value")); }
void row(const void* item, JSON* r) { json_AddItemToArray(r, json_CreateInteger(*static_cast<const int*>(item))); }
void detail(const void* item, JSON* o) {
  json_AddItemToObject(o, "value", json_CreateInteger(*static_cast<const int*>(item)));
}

TEST_F(InstrumentTest, GroupBookkeepingMessagesAndNullArguments) {
  void* g = nullptr;
  ASSERT_EQ(0, instrument_create(&g, "toy", header, row, detail));

  JSON* list = nullptr;
  ASSERT_EQ(0, instrument_list(g, &list));
  EXPECT_EQ("[[\"Hash\",\"Value\"]]", print(list)) << "an empty group lists only its titles";
  json_Delete(list);

  int a = 7, b = -3;
  vektest::LogCapture log;
  EXPECT_EQ(0, instrument_add(g, &a));
  EXPECT_EQ(0, instrument_add(g, &b));
  EXPECT_EQ(ERR_ALREADY_EXISTS, instrument_add(g, &a));
  EXPECT_TRUE(log.contains("instrument_add(toy): item already exists!\n"));
  EXPECT_EQ(2, instrument_count(g));

  ASSERT_EQ(0, instrument_list(g, &list));
  ASSERT_EQ(3, json_GetArraySize(list));
  // Rows follow the addresses in ascending order.
  const int* first = registry_key(&a) < registry_key(&b) ? &a : &b;
  const int* second = first == &a ? &b : &a;
  EXPECT_EQ("[" + std::to_string(registry_key(first)) + "," + std::to_string(*first) + "]",
            print(json_GetArrayItem(list, 1)));
  EXPECT_EQ("[" + std::to_string(registry_key(second)) + "," + std::to_string(*second) + "]",
            print(json_GetArrayItem(list, 2)));
  long long hash = *json_GetArrayItemAsLongLong(json_GetArrayItem(list, 1), 0);
  json_Delete(list);

  JSON* obj = nullptr;
  ASSERT_EQ(0, instrument_detail(g, hash, &obj)) << "the list's first column finds the object";
  EXPECT_EQ("{\"value\":" + std::to_string(*first) + "}", print(obj));
  json_Delete(obj);
  EXPECT_EQ(ERR_NOT_FOUND, instrument_detail(g, hash + 1, &obj));

  EXPECT_EQ(0, instrument_remove(g, &a));
  EXPECT_EQ(ERR_NOT_FOUND, instrument_remove(g, &a));
  EXPECT_TRUE(log.contains("instrument_remove(toy): item not found!\n"));
  EXPECT_EQ(1, instrument_count(g));
  EXPECT_EQ(0, instrument_delete(g)) << "deleting a group leaves its objects alone";
  EXPECT_EQ(-3, b);

  void* unmade = nullptr;
  EXPECT_EQ(ERR_INVALID_PARAMETER, instrument_create(&unmade, "toy", header, nullptr, detail));
  EXPECT_EQ(nullptr, unmade);
  EXPECT_EQ(ERR_INVALID_PARAMETER, instrument_add(nullptr, &a));
  EXPECT_EQ(0, instrument_global_is_disabled());
}

// The tree's row in its group's list, or null.
JSON* row_of(JSON* list, const void* tree) {
  for (int i = 1; i < json_GetArraySize(list); ++i) {
    JSON* r = json_GetArrayItem(list, i);
    if (*json_GetArrayItemAsLongLong(r, 0) == registry_key(tree)) return r;
  }
  return nullptr;
}

TEST_F(InstrumentTest, TreesRenderTheirOwnRows) {
  void* locked = nullptr;
  void* bare = nullptr;
  void* hidden = nullptr;
  ASSERT_EQ(0, _btree_create_ex(&locked, nullptr, nullptr, 0, "src/demo.c", 77));
  ASSERT_EQ(0, _btree_create_ex(&bare, nullptr, nullptr, BTREE_OPTION_NO_LOCK, "src/other.c", 5));
  ASSERT_EQ(0, _btree_create_ex(&hidden, nullptr, nullptr, BTREE_OPTION_NO_INSTRUMENT, "src/x.c", 1));
  for (long long k = 0; k < 3; ++k) btree_insert_with_hash(locked, &locked, k);

  void* group = btree_instrument_handle();
  ASSERT_NE(nullptr, group);
  JSON* list = nullptr;
  ASSERT_EQ(0, instrument_list(group, &list));
  EXPECT_EQ("[\"Hash\",\"Created by File\",\"Line Number\",\"Count\",\"Has Lock\"]", print(json_GetArrayItem(list, 0)));
  EXPECT_EQ("[" + std::to_string(registry_key(locked)) + ",\"src/demo.c\",77,3,\"Lock\"]", print(row_of(list, locked)));
  EXPECT_EQ("[" + std::to_string(registry_key(bare)) + ",\"src/other.c\",5,0,\"\"]", print(row_of(list, bare)));
  EXPECT_EQ(nullptr, row_of(list, hidden));
  json_Delete(list);

  JSON* obj = nullptr;
  ASSERT_EQ(0, instrument_detail(group, registry_key(locked), &obj));
  EXPECT_EQ("{\"Created by File\":\"src/demo.c\",\"Created by Line\":\"77\",\"Count\":\"Count 3\"}", print(obj));
  json_Delete(obj);

  btree_delete(locked);
  ASSERT_EQ(0, instrument_list(group, &list));
  EXPECT_EQ(nullptr, row_of(list, locked)) << "a deleted tree leaves the registry";
  json_Delete(list);
  btree_delete(bare);
  btree_delete(hidden);
}

}  // namespace
