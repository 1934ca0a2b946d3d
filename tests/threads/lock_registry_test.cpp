// What the registry shows of mutexes, read-write locks and events: list
// rows, detail objects, key order and the recorded positions.
#include <cstdint>
#include <string>
#include <vector>

#include <vek_test.hpp>
#include <vekutil/errors.h>
#include <vekutil/event.h>
#include <vekutil/instrument.h>
#include <vekutil/json.h>
#include <vekutil/memory.h>
#include <vekutil/mutex.h>
#include <vekutil/rwlock.h>

namespace {

long long key_of(const void* object) { return (long long)(intptr_t)object; }

std::vector<std::string> keys_of(const JSON* object) {
  std::vector<std::string> keys;
  for (const JSON* child = object->child; child; child = child->next) keys.push_back(child->string);
  return keys;
}

std::string text_of(JSON* json) {
  char* printed = json_PrintUnformatted(json);
  std::string text = printed ? printed : "";
  _vekFree(printed, __FILE__, __LINE__);
  return text;
}

// The list's header row and the row of one object, as compact JSON text.
struct Listing {
  std::string header;
  std::string row;
};

Listing listing_of(void* group, const void* object) {
  JSON* list = nullptr;
  Listing found;
  if (instrument_list(group, &list) != 0) return found;
  found.header = text_of(json_GetArrayItem(list, 0));
  for (int i = 1; i < json_GetArraySize(list); ++i) {
    JSON* row = json_GetArrayItem(list, i);
    long long* key = json_GetArrayItemAsLongLong(row, 0);
    if (key && *key == key_of(object)) found.row = text_of(row);
  }
  json_Delete(list);
  return found;
}

// Detail objects are handed to the test to inspect, then deleted.
struct Detail {
  explicit Detail(void* group, const void* object) { result = instrument_detail(group, key_of(object), &json); }
  ~Detail() { json_Delete(json); }
  std::string operator[](const char* key) const {
    const char* value = json_GetObjectItemAsString(json, key);
    return value ? value : "(missing)";
  }
  int result = -1;
  JSON* json = nullptr;
};

// Every group is made once and lives for the process: make them before
// the leak accounting starts.
class LockRegistryTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    void* warm = nullptr;
    rwlock_create(&warm);
    rwlock_delete(warm);
    event_create(&warm);
    event_delete(warm);
    mutex_create(&warm);
    mutex_delete(warm);
    LeakCheckedTest::SetUp();
  }
};

TEST_F(LockRegistryTest, MutexShowsNameCreatorLastLockAndUsage) {
  const std::string long_name(70, 'n');
  void* m = nullptr;
  const int created_at = __LINE__ + 1;
  ASSERT_EQ(0, MUTEX_CREATE(&m, long_name.c_str(), 0));
  ASSERT_EQ(0, MUTEX_LOCK(m));
  ASSERT_EQ(0, mutex_lock(m));
  ASSERT_EQ(0, mutex_unlock(m));  // one of two nested unlocks already clears the flag
  ASSERT_EQ(0, mutex_trylock(m));  // records nothing
  {
    Detail d(mutex_instrument_handle(), m);
    ASSERT_EQ(0, d.result);
    EXPECT_EQ((std::vector<std::string>{"name", "created by file", "is_locked", "lock by file", "lock by thread",
                                        "locked time", "usage count", "last error"}),
              keys_of(d.json));
    EXPECT_EQ(std::string(64, 'n'), d["name"]);
    EXPECT_EQ(std::string(__FILE__) + " [Line " + std::to_string(created_at) + "]", d["created by file"]);
    EXPECT_EQ("False", d["is_locked"]);
    EXPECT_EQ("Backward [Line 0]", d["lock by file"]);
    EXPECT_EQ("2", d["usage count"]);
    EXPECT_EQ("0", d["last error"]);
    EXPECT_EQ(std::string("0 seconds ago").size(), d["locked time"].size());
  }
  Listing l = listing_of(mutex_instrument_handle(), m);
  EXPECT_EQ(R"(["Hash","Name","Is Locked","Locked Time","Usage"])", l.header);
  EXPECT_EQ(0u, l.row.find("[" + std::to_string(key_of(m)) + ",\"" + std::string(64, 'n') + "\",0,")) << l.row;
  EXPECT_EQ(",2]", l.row.substr(l.row.size() - 3));
  mutex_unlock(m);
  mutex_unlock(m);
  ASSERT_EQ(0, mutex_delete(m));
  EXPECT_EQ(ERR_NOT_FOUND, Detail(mutex_instrument_handle(), m).result) << "deleted mutexes leave the list";
}

TEST_F(LockRegistryTest, UnlistedMutexAndNeverLockedPosition) {
  void* hidden = nullptr;
  void* shown = nullptr;
  ASSERT_EQ(0, mutex_create_ex(&hidden, "hidden", MUTEX_OPT_NO_INSTRUMENT));
  ASSERT_EQ(0, mutex_create(&shown));
  EXPECT_EQ(ERR_NOT_FOUND, Detail(mutex_instrument_handle(), hidden).result);
  {
    Detail d(mutex_instrument_handle(), shown);
    EXPECT_EQ("", d["name"]);
    EXPECT_EQ("Backward [Line 0]", d["created by file"]);
    EXPECT_EQ("NULL [Line 0]", d["lock by file"]);
  }
  EXPECT_EQ(0, mutex_delete(hidden));
  EXPECT_EQ(0, mutex_delete(shown));
}

TEST_F(LockRegistryTest, RwlockShowsCountersAndCurrentHolders) {
  void* rw = nullptr;
  ASSERT_EQ(0, rwlock_create_ex(&rw, 0, "table"));
  {
    Detail d(rwlock_instrument_handle(), rw);
    EXPECT_EQ("NULL [Line 0]", d["last lock by file"]);
  }
  ASSERT_EQ(0, rwlock_readlock(rw));
  const int read_at = __LINE__ + 1;
  ASSERT_EQ(0, RWLOCK_READLOCK(rw));
  ASSERT_EQ(0, rwlock_unlock(rw));
  Listing l = listing_of(rwlock_instrument_handle(), rw);
  EXPECT_EQ(R"(["Hash","Name","Current Lock Count"])", l.header);
  EXPECT_EQ("[" + std::to_string(key_of(rw)) + ",\"table\",1]", l.row);
  {
    Detail d(rwlock_instrument_handle(), rw);
    EXPECT_EQ((std::vector<std::string>{"name", "last lock by file", "readlock count", "writelock count", "unlock count",
                                        "delta", "last error"}),
              keys_of(d.json));
    EXPECT_EQ(std::string(__FILE__) + " [Line " + std::to_string(read_at) + "]", d["last lock by file"]);
    EXPECT_EQ("2", d["readlock count"]);
    EXPECT_EQ("0", d["writelock count"]);
    EXPECT_EQ("1", d["unlock count"]);
    EXPECT_EQ("1", d["delta"]);
  }
  ASSERT_EQ(0, rwlock_unlock(rw));
  ASSERT_EQ(0, rwlock_delete(rw));
  EXPECT_EQ(ERR_NOT_FOUND, Detail(rwlock_instrument_handle(), rw).result);
}

TEST_F(LockRegistryTest, EventShowsGateWaitersAndLastWaiter) {
  void* e = nullptr;
  ASSERT_EQ(0, event_create_ex(&e, "door", 7));
  Listing l = listing_of(event_instrument_handle(), e);
  EXPECT_EQ(R"(["Hash","Name","Is Locked","Wait Count"])", l.header);
  EXPECT_EQ("[" + std::to_string(key_of(e)) + ",\"door\",1,0]", l.row);
  {
    Detail d(event_instrument_handle(), e);
    EXPECT_EQ("NULL [Line 0]", d["block by file"]);
  }
  const int waited_at = __LINE__ + 1;
  EXPECT_EQ(ERR_TIMEOUT, EVENT_WAIT(e, 0));
  ASSERT_EQ(0, event_unlock(e));
  EXPECT_EQ(0, EVENT_WAIT(e, 0));
  EXPECT_EQ("[" + std::to_string(key_of(e)) + ",\"door\",0,0]", listing_of(event_instrument_handle(), e).row);
  {
    Detail d(event_instrument_handle(), e);
    EXPECT_EQ((std::vector<std::string>{"name", "wait count", "block by file", "usage", "last error"}), keys_of(d.json));
    EXPECT_EQ(std::string(__FILE__) + " [Line " + std::to_string(waited_at + 2) + "]", d["block by file"]);
    EXPECT_EQ("2", d["usage"]);
    EXPECT_EQ("-7002", d["last error"]) << "a later success does not clear the error";
  }
  ASSERT_EQ(0, event_delete(e));
  EXPECT_EQ(ERR_NOT_FOUND, Detail(event_instrument_handle(), e).result);
}

}  // namespace
