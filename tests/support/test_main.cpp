// Default main: debug-mode allocation, so tests check bytes and blocks and catch double frees.
#include <gtest/gtest.h>

#include <vekutil/memory.h>

int main(int argc, char** argv) {
  vekMemoryInitEx(1);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
