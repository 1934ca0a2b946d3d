// ctest-labels: tsan
// Read-write locks: readers share, a writer waits for them.
#include <atomic>
#include <thread>

#include "lock_test.hpp"

namespace {

using RwlockTest = locktest::LockTest;

TEST_F(RwlockTest, ReadersShareAndAWriterWaitsForThem) {
  void* rw = nullptr;
  ASSERT_EQ(0, rwlock_create_ex(&rw, 0, "shared"));
  ASSERT_EQ(0, RWLOCK_READLOCK(rw));
  ASSERT_EQ(0, rwlock_readlock(rw));  // a second reader in the same thread

  std::atomic<bool> writer_in{false};
  std::thread writer([&] {
    EXPECT_EQ(0, RWLOCK_WRITELOCK(rw));
    writer_in = true;
    EXPECT_EQ(0, rwlock_unlock(rw));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(writer_in) << "a writer must wait for the readers";
  EXPECT_EQ(0, rwlock_unlock(rw));
  EXPECT_EQ(0, rwlock_unlock(rw));
  writer.join();
  EXPECT_TRUE(writer_in);
  EXPECT_EQ(0, rwlock_error(rw));
  EXPECT_EQ(0, rwlock_delete(rw));
}

}  // namespace
