// Allocation-failure harness: replaces the library's allocator table with one
// that fails exactly the Nth allocation, and runs an operation with N = 1, 2,
// ... until it completes without reaching N. Every run must end with the
// library's block count back at its start value, whether the operation
// failed or not (the operation deletes whatever it got).
#pragma once

#include <gtest/gtest.h>

#include <atomic>

#include <vekutil/memory.h>

namespace vektest {

class FailingAllocator {
 public:
  FailingAllocator();
  ~FailingAllocator();
  FailingAllocator(const FailingAllocator&) = delete;
  FailingAllocator& operator=(const FailingAllocator&) = delete;

  // Lets n - 1 allocations through from now on and fails the nth.
  void fail_nth(long n);
  // Lets every allocation through.
  void disarm() { fail_nth(0); }
  // True when the armed failure happened.
  bool failure_happened() const;

 private:
  VEK_MEMORY_FUNCTIONS saved_;
};

// op() runs the operation, checks the result it gives, releases everything
// it made and returns true when the operation itself succeeded. Returns the
// number of runs with a failure injected (at least one allocation must have
// happened, so a harness that never failed anything is caught).
template <typename Op>
int for_each_allocation_failure(Op op, int max_runs = 20000) {
  FailingAllocator allocator;
  long long start = vekMemoryBlockUsed();
  int runs = 0;
  for (long n = 1; n <= max_runs; ++n) {
    allocator.fail_nth(n);
    bool succeeded = op();
    bool injected = allocator.failure_happened();
    allocator.disarm();
    EXPECT_EQ(start, vekMemoryBlockUsed()) << "blocks left behind with allocation " << n << " failing";
    if (!injected) {
      EXPECT_TRUE(succeeded) << "the operation failed although no allocation did";
      break;
    }
    ++runs;
    if (::testing::Test::HasFailure()) break;  // one report per operation is enough
  }
  EXPECT_GT(runs, 0) << "the operation allocated nothing";
  return runs;
}

}  // namespace vektest
