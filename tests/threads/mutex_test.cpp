// Single-thread lock use and misuse, null handles, and the registry's rows for
// mutexes, read-write locks and events. Misuse is what the thread sanitizer
// reports: no tsan label here.
#include <cerrno>

#include "lock_test.hpp"

#include <vekutil/errors.h>
#include <vekutil/instrument.h>
#include <vekutil/json.h>
#include <vekutil/schevent.h>
#include <vekutil/semaphore.h>
#include <vekutil/threads.h>

namespace {

using MutexTest = locktest::LockTest;

TEST_F(MutexTest, UnlockWithoutHoldingReportsBothPositions) {
  vektest::LogCapture log;
  void* m = nullptr;
  ASSERT_EQ(0, mutex_create_ex(&m, "loose", 0));
  const int locked_at = __LINE__ + 1;
  ASSERT_EQ(0, MUTEX_LOCK(m));
  ASSERT_EQ(0, mutex_unlock(m));
  EXPECT_EQ(ERR_SYSTEM, mutex_unlock(m));
  EXPECT_EQ(EPERM, mutex_error(m));
  EXPECT_TRUE(log.contains("mutex_unlock(name[loose]): at[")) << log.text();
  EXPECT_TRUE(log.contains(":Backward(0)] pthread_mutex_unlock failed[1] locked_by[")) << log.text();
  EXPECT_TRUE(log.contains(std::string(__FILE__) + "(" + std::to_string(locked_at) + ")]\n")) << log.text();
  EXPECT_EQ(0, mutex_delete(m));
}

TEST_F(MutexTest, DeletingAHeldMutexReleasesItAndFreesTheRecord) {
  vektest::LogCapture log;
  void* once = nullptr;
  ASSERT_EQ(0, mutex_create_ex(&once, "held once", 0));
  ASSERT_EQ(0, mutex_lock(once));
  EXPECT_EQ(0, mutex_delete(once));
  EXPECT_FALSE(log.contains("failed")) << "one unlock repairs a mutex held once: " << log.text();

  // Held twice, the destroy still fails and is logged; the record is freed anyway.
  void* twice = nullptr;
  ASSERT_EQ(0, mutex_create_ex(&twice, "held twice", 0));
  ASSERT_EQ(0, mutex_lock(twice));
  ASSERT_EQ(0, mutex_lock(twice));
  EXPECT_EQ(0, mutex_delete(twice));
  EXPECT_TRUE(log.contains("mutex_delete(name[held twice]): pthread_mutex_destroy failed[16]\n")) << log.text();
}

TEST_F(MutexTest, NullHandlesAreRefused) {
  for (int rc : {mutex_lock(nullptr), rwlock_readlock(nullptr), EVENT_WAIT(nullptr, 10), schevent_wait(nullptr),
                 semaphore_wait(nullptr), thread_join(nullptr, nullptr)})
    EXPECT_EQ(ERR_INVALID_HANDLE, rc);
}

using vektest::compact_json;
using vektest::registry_key;
std::string at_line(int line) { return std::string(__FILE__) + " [Line " + std::to_string(line) + "]"; }

// The header row and the row of object, each as compact JSON text.
std::string listing_of(void* group, const void* object) {
  JSON* list = nullptr;
  if (instrument_list(group, &list) != 0) return "(no list)";
  std::string found = compact_json(json_GetArrayItem(list, 0));
  for (int i = 1; i < json_GetArraySize(list); ++i) {
    long long* key = json_GetArrayItemAsLongLong(json_GetArrayItem(list, i), 0);
    if (key && *key == registry_key(object)) found += " " + compact_json(json_GetArrayItem(list, i));
  }
  json_Delete(list);
  return found;
}

// The detail object as compact JSON text, or the registry's result code.
std::string detail_of(void* group, const void* object) {
  JSON* detail = nullptr;
  int rc = instrument_detail(group, registry_key(object), &detail);
  if (rc != 0) return std::to_string(rc);
  std::string text = compact_json(detail);
  json_Delete(detail);
  return text;
}

TEST_F(MutexTest, MutexShowsNameCreatorLastLockAndUsage) {
  const std::string name(70, 'n'), kept(64, 'n');
  void* m = nullptr;
  const int created_at = __LINE__ + 1;
  ASSERT_EQ(0, MUTEX_CREATE(&m, name.c_str(), 0));
  ASSERT_EQ(0, MUTEX_LOCK(m));
  ASSERT_EQ(0, mutex_lock(m));
  ASSERT_EQ(0, mutex_unlock(m));   // one of two nested unlocks already clears the flag
  ASSERT_EQ(0, mutex_trylock(m));  // the owner may take it again; records nothing
  auto expected = [&](int age) {
    return R"({"name":")" + kept + R"(","created by file":")" + at_line(created_at) +
           R"(","is_locked":"False","lock by file":"Backward [Line 0]","lock by thread":")" +
           std::to_string(thread_id(nullptr)) + R"(","locked time":")" + std::to_string(age) +
           R"( seconds ago","usage count":"2","last error":"0"})";
  };
  const std::string shown = detail_of(mutex_instrument_handle(), m);
  EXPECT_TRUE(shown == expected(0) || shown == expected(1)) << shown << "\n" << expected(0);
  const std::string listed = listing_of(mutex_instrument_handle(), m);
  EXPECT_EQ(0u, listed.find(R"(["Hash","Name","Is Locked","Locked Time","Usage"] [)" + std::to_string(registry_key(m)) +
                            ",\"" + kept + "\",0,"))
      << listed;
  EXPECT_EQ(",2]", listed.substr(listed.size() - 3));
  EXPECT_EQ(0, mutex_unlock(m));
  EXPECT_EQ(0, mutex_unlock(m));
  EXPECT_EQ(0, mutex_error(m));
  ASSERT_EQ(0, mutex_delete(m));
  EXPECT_EQ(std::to_string(ERR_NOT_FOUND), detail_of(mutex_instrument_handle(), m)) << "deleted ones leave";
}

TEST_F(MutexTest, UnlistedMutexAndNeverLockedPosition) {
  void* hidden = nullptr;
  void* shown = nullptr;
  ASSERT_EQ(0, mutex_create_ex(&hidden, "hidden", MUTEX_OPT_NO_INSTRUMENT));
  ASSERT_EQ(0, mutex_create(&shown));
  EXPECT_EQ(std::to_string(ERR_NOT_FOUND), detail_of(mutex_instrument_handle(), hidden));
  EXPECT_EQ(0u, detail_of(mutex_instrument_handle(), shown)
                    .find(R"({"name":"","created by file":"Backward [Line 0]","is_locked":"False",)"
                          R"("lock by file":"NULL [Line 0]","lock by thread":"0",)"));
  EXPECT_EQ(0, mutex_delete(hidden));
  EXPECT_EQ(0, mutex_delete(shown));
}

TEST_F(MutexTest, RwlockShowsCountersAndCurrentHolders) {
  void* rw = nullptr;
  ASSERT_EQ(0, rwlock_create_ex(&rw, 0, "table"));
  EXPECT_EQ(R"({"name":"table","last lock by file":"NULL [Line 0]","readlock count":"0","writelock count":"0",)"
            R"("unlock count":"0","delta":"0","last error":"0"})",
            detail_of(rwlock_instrument_handle(), rw));
  ASSERT_EQ(0, rwlock_readlock(rw));
  const int read_at = __LINE__ + 1;
  ASSERT_EQ(0, RWLOCK_READLOCK(rw));
  ASSERT_EQ(0, rwlock_unlock(rw));
  EXPECT_EQ(R"(["Hash","Name","Current Lock Count"] [)" + std::to_string(registry_key(rw)) + R"(,"table",1])",
            listing_of(rwlock_instrument_handle(), rw));
  EXPECT_EQ(R"({"name":"table","last lock by file":")" + at_line(read_at) +
                R"(","readlock count":"2","writelock count":"0","unlock count":"1","delta":"1","last error":"0"})",
            detail_of(rwlock_instrument_handle(), rw));
  ASSERT_EQ(0, rwlock_unlock(rw));
  ASSERT_EQ(0, rwlock_delete(rw));
  EXPECT_EQ(std::to_string(ERR_NOT_FOUND), detail_of(rwlock_instrument_handle(), rw));
}

TEST_F(MutexTest, EventShowsGateWaitersAndLastWaiter) {
  void* e = nullptr;
  ASSERT_EQ(0, event_create_ex(&e, "door", 7));
  const std::string row_start = R"(["Hash","Name","Is Locked","Wait Count"] [)" + std::to_string(registry_key(e));
  EXPECT_EQ(row_start + R"(,"door",1,0])", listing_of(event_instrument_handle(), e));
  EXPECT_EQ(R"({"name":"door","wait count":"0","block by file":"NULL [Line 0]","usage":"0","last error":"0"})",
            detail_of(event_instrument_handle(), e));
  EXPECT_EQ(ERR_TIMEOUT, EVENT_WAIT(e, 0));
  ASSERT_EQ(0, event_unlock(e));
  const int waited_at = __LINE__ + 1;
  EXPECT_EQ(0, EVENT_WAIT(e, 0));
  EXPECT_EQ(row_start + R"(,"door",0,0])", listing_of(event_instrument_handle(), e));
  // A later success does not clear the error of the timed-out wait.
  EXPECT_EQ(R"({"name":"door","wait count":"0","block by file":")" + at_line(waited_at) +
                R"(","usage":"2","last error":"-7002"})",
            detail_of(event_instrument_handle(), e));
  ASSERT_EQ(0, event_delete(e));
  EXPECT_EQ(std::to_string(ERR_NOT_FOUND), detail_of(event_instrument_handle(), e));
}

}  // namespace
