// test-main: own
// The allocator in default mode: the table is called directly and only the
// block counter is kept, failed requests and NULL releases included.
#include <cstdint>
#include <cstring>
#include <string>

#include <vekutil/memory.h>

#include "vek_test.hpp"

namespace {

class DefaultMemory : public vektest::LeakCheckedTest {};

TEST_F(DefaultMemory, OnlyMallocAndFreeMoveTheBlockCounter) {
  long long blocks = vekMemoryBlockUsed();
  void* p = vekMalloc(100);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(vekMemoryBlockUsed(), blocks + 1);
  p = vekRealloc(p, 5000);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(vekMemoryBlockUsed(), blocks + 1);
  EXPECT_EQ(vekMemoryUsed(), 0);  // bytes are counted in debug mode only
  vekFree(p);
  EXPECT_EQ(vekMemoryBlockUsed(), blocks);
  EXPECT_EQ(vekMalloc(0), nullptr);  // refused before it reaches the table
  EXPECT_EQ(vekMemoryBlockUsed(), blocks);
}

// The counter is allowed to drift: NULL releases and calloc'd blocks lower
// it, failed requests raise it.
TEST(DefaultMemoryCounter, DriftsExactlyAsDocumented) {
  long long blocks = vekMemoryBlockUsed();
  vekFree(nullptr);
  EXPECT_EQ(vekMemoryBlockUsed(), blocks - 1);
  unsigned char* z = (unsigned char*)vekCalloc(10, 10);
  ASSERT_NE(z, nullptr);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(z[i], 0);
  EXPECT_EQ(vekMemoryBlockUsed(), blocks - 1);
  vekFree(z);
  EXPECT_EQ(vekMemoryBlockUsed(), blocks - 2);
  VEK_MEMORY_FUNCTIONS saved = vekMemoryGetFunctions();
  VEK_MEMORY_FUNCTIONS failing = saved;
  failing.mallocFunc = [](size_t) -> void* { return nullptr; };
  vekMemorySetFunctions(failing);
  EXPECT_EQ(vekMalloc(10), nullptr);
  EXPECT_EQ(vekMalloc(10), nullptr);
  vekMemorySetFunctions(saved);
  EXPECT_EQ(vekMemoryBlockUsed(), blocks);
}

int g_calls;
int g_kind, g_size;
void* g_ptr;
void record(int kind, int size, void* ptr) {
  ++g_calls;
  g_kind = kind;
  g_size = size;
  g_ptr = ptr;
}

TEST(DefaultMemoryFailure, HookAndLogNameTheRequest) {
  vektest::LogCapture log;
  void* kept = vekMalloc(16);
  std::memcpy(kept, "still here", 11);
  VEK_MEMORY_FUNCTIONS saved = vekMemoryGetFunctions();
  VEK_MEMORY_FUNCTIONS failing = saved;
  failing.mallocFunc = [](size_t) -> void* { return nullptr; };
  failing.callocFunc = [](size_t, size_t) -> void* { return nullptr; };
  failing.reallocFunc = [](void*, size_t) -> void* { return nullptr; };
  vekMemorySetFunctions(failing);
  vekMemorySetErrCallback(record);
  g_calls = 0;

  long long blocks = vekMemoryBlockUsed();
  EXPECT_EQ(_vekMalloc(33, "a.c", 1), nullptr);
  EXPECT_EQ(g_calls, 1);
  EXPECT_EQ(g_kind, 0);
  EXPECT_EQ(g_size, 33);
  EXPECT_EQ(g_ptr, nullptr);
  EXPECT_TRUE(log.contains("vekMalloc(size[33]): at [a.c:1] running out of memory(handle[" +
                           std::to_string(blocks + 1) + "])\n"));

  EXPECT_EQ(_vekCalloc(3, 44, "b.c", 2), nullptr);
  EXPECT_EQ(g_kind, 1);
  EXPECT_EQ(g_size, 44);  // the element size
  EXPECT_EQ(g_ptr, nullptr);
  EXPECT_TRUE(log.contains("vekCalloc(size[44]): at [b.c:2] running out of memory(handle["));

  EXPECT_EQ(_vekRealloc(kept, 55, "c.c", 3), nullptr);
  EXPECT_EQ(g_calls, 3);
  EXPECT_EQ(g_kind, 1);
  EXPECT_EQ(g_size, 55);
  EXPECT_EQ(g_ptr, kept);
  EXPECT_TRUE(log.contains("vekRealloc(size[55]): at [c.c:3] running out of memory(handle["));

  vekMemorySetErrCallback(nullptr);
  EXPECT_EQ(_vekMalloc(1, "d.c", 4), nullptr);  // no hook: just the log line
  EXPECT_EQ(g_calls, 3);
  vekMemorySetFunctions(saved);
  EXPECT_STREQ((char*)kept, "still here");  // the failed realloc left it alone
  vekFree(kept);
  vekFree(nullptr);  // the two failed mallocs were counted: take them back
  vekFree(nullptr);
}

TEST(DefaultMemoryZeroSize, RefusedWithoutReleasing) {
  vektest::LogCapture log;
  EXPECT_EQ(_vekMalloc(0, "z.c", 5), nullptr);
  EXPECT_TRUE(log.contains("vekMalloc(size[0]): invalid size! z.c(5)\n"));
  char* p = (char*)vekMalloc(4);
  std::memcpy(p, "abc", 4);
  EXPECT_EQ(_vekRealloc(p, 0, "z.c", 6), nullptr);
  EXPECT_TRUE(log.contains("vekRealloc(size[0]): invalid size! z.c(6)\n"));
  EXPECT_STREQ(p, "abc");
  vekFree(p);
}

int g_table_calls;
void* counting_memset(void* p, int v, size_t n) { return ++g_table_calls, std::memset(p, v, n); }
void* counting_memcpy(void* d, const void* s, size_t n) { return ++g_table_calls, std::memcpy(d, s, n); }
void* counting_memmove(void* d, const void* s, size_t n) { return ++g_table_calls, std::memmove(d, s, n); }
char* counting_strdup(const char* s) { return ++g_table_calls, ::strdup(s); }

TEST(DefaultMemoryTable, ByteOperationsGoThroughTheTable) {
  VEK_MEMORY_FUNCTIONS saved = vekMemoryGetFunctions();
  VEK_MEMORY_FUNCTIONS table = saved;
  table.memsetFunc = counting_memset;
  table.memcpyFunc = counting_memcpy;
  table.memmoveFunc = counting_memmove;
  table.strdupFunc = counting_strdup;
  vekMemorySetFunctions(table);
  VEK_MEMORY_FUNCTIONS back = vekMemoryGetFunctions();
  EXPECT_EQ(std::memcmp(&back, &table, sizeof table), 0);

  g_table_calls = 0;
  char buf[16];
  EXPECT_EQ(vekMemset(buf, 'a', 8), buf);
  EXPECT_EQ(vekMemcpy(buf + 8, "bcdefgh", 8), buf + 8);
  EXPECT_EQ(vekMemmove(buf + 1, buf, 4), buf + 1);
  char* copy = vekStrdup(buf);
  EXPECT_STREQ(copy, "aaaaaaaabcdefgh");
  EXPECT_EQ(g_table_calls, 4);
  std::free(copy);  // a plain block of the standard allocator
  vekMemorySetFunctions(saved);
}

}  // namespace

int main(int argc, char** argv) {
  // The table is filled statically: an allocation before initialisation works.
  void* early = vekMalloc(8);
  vekFree(early);
  vekMemoryInitEx(0);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
