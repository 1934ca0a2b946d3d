// Allocation-failure harness: replaces the library's allocator table with one
// that fails exactly the Nth allocation, and runs an operation with N = 1, 2,
// ... until it completes without reaching N. Every run must end with the
// library's block count back at its start value, whether the operation
// failed or not (the operation deletes whatever it got).
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>

#include <vekutil/memory.h>

#include "vek_test.hpp"

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

// The library's live blocks counted by source position ("file(line)").
using BlockCensus = std::map<std::string, long>;
BlockCensus take_block_census();

// What is live now and was not in `before`, or the reverse, as one line per
// source position; "" when nothing changed. Hash B-tree nodes are the one
// exception: a process-wide tree (the socket registry, the instrumentation
// groups) that had an entry added and removed again may keep a node it split
// off, because nodes are only merged once empty. A few such nodes are
// tolerated; a tree record, its lock or any other block is not.
std::string block_changes(const BlockCensus& before);

// A leak-checked test whose check allows for those kept tree nodes.
class AllocFailureFixture : public LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    census_ = take_block_census();
  }
  void TearDown() override { EXPECT_EQ("", block_changes(census_)) << "accounted blocks leaked by the test"; }

 private:
  BlockCensus census_;
};

// op() runs the operation, checks the result it gives, releases everything
// it made and returns true when the operation itself succeeded. Returns the
// number of runs with a failure injected (at least one allocation must have
// happened, so a harness that never failed anything is caught). Operations
// that make thousands of allocations, or that are slow to fail, may fail
// only every step-th one: N = 1, 1 + step, 1 + 2 * step, ...
template <typename Op>
int for_each_allocation_failure(Op op, int max_runs = 20000, int step = 1) {
  FailingAllocator allocator;
  BlockCensus start = take_block_census();
  int runs = 0;
  for (long n = 1; runs < max_runs; n += step) {
    allocator.fail_nth(n);
    bool succeeded = op();
    bool injected = allocator.failure_happened();
    allocator.disarm();
    EXPECT_EQ("", block_changes(start)) << "blocks left behind with allocation " << n << " failing";
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
