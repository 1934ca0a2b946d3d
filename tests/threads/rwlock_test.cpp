// ctest-labels: tsan
// Read-write locks: shared readers, exclusive writers, null handles.
#include <atomic>
#include <thread>
#include <vector>

#include <vek_test.hpp>
#include <vekutil/errors.h>
#include <vekutil/rwlock.h>

namespace {

// The first lock makes the registry group, which lives for the whole
// process: make it before the leak accounting starts.
class RwlockTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    void* warm = nullptr;
    rwlock_create(&warm);
    rwlock_delete(warm);
    LeakCheckedTest::SetUp();
  }
};

TEST_F(RwlockTest, ReadersShareAndAWriterExcludesThem) {
  void* rw = nullptr;
  ASSERT_EQ(0, rwlock_create_ex(&rw, 0, "shared"));
  ASSERT_EQ(0, RWLOCK_READLOCK(rw));
  ASSERT_EQ(0, rwlock_readlock(rw));  // a second reader in the same thread

  std::atomic<bool> writer_in{false};
  std::thread writer([&] {
    ASSERT_EQ(0, RWLOCK_WRITELOCK(rw));
    writer_in = true;
    ASSERT_EQ(0, rwlock_unlock(rw));
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

TEST_F(RwlockTest, ConcurrentWritersKeepACounterExact) {
  void* rw = nullptr;
  ASSERT_EQ(0, rwlock_create(&rw));
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; ++i) {
        if (i % 2) {
          ASSERT_EQ(0, rwlock_writelock(rw));
          ++counter;
        } else {
          ASSERT_EQ(0, rwlock_readlock(rw));
          EXPECT_GE(counter, 0);
        }
        ASSERT_EQ(0, rwlock_unlock(rw));
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(4 * 2500, counter);
  EXPECT_EQ(0, rwlock_delete(rw));
}

TEST_F(RwlockTest, NullHandlesAreRefused) {
  EXPECT_EQ(ERR_INVALID_HANDLE, rwlock_create(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, rwlock_readlock(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, RWLOCK_WRITELOCK(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, rwlock_unlock(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, rwlock_delete(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, rwlock_error(nullptr));
}

}  // namespace
