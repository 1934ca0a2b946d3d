// Runs an operation with its Nth allocation failing, N = 1, 2, ... until it
// completes; each run must leave the block count where it started.
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

// Blocks that appeared or went since `before`, one line per source position;
// "" when none. A few hash B-tree nodes are tolerated: process-wide trees
// keep split-off nodes until they are empty.
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

// op() runs, checks, releases and returns true on success. Returns the runs
// with a failure injected (at least one). Big operations may fail only
// every step-th allocation: N = 1, 1 + step, ...
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
