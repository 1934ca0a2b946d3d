// Default main of the test binaries: debug-mode allocation, so that every
// test can check byte and block accounting and a double release is caught.
#include <gtest/gtest.h>

#include <vekutil/memory.h>

int main(int argc, char** argv) {
  vekMemoryInitEx(1);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
