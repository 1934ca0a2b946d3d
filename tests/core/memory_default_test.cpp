// test-main: own
// ctest-labels: tsan
// The allocator in default mode: only the block counter, failures and NULL releases included.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/vekutil.h>

#include "vek_test.hpp"

namespace {

TEST(DefaultMemory, BlockCounterMovesOnlyWithMallocAndFree) {
  long long blocks = vekMemoryBlockUsed();
  void* p = vekMalloc(100);
  p = vekRealloc(p, 5000);
  unsigned char* z = (unsigned char*)vekCalloc(10, 10);
  ASSERT_TRUE(p && z);
  EXPECT_EQ(std::string((char*)z, 100), std::string(100, '\0'));
  EXPECT_EQ(vekMemoryBlockUsed(), blocks + 1);
  EXPECT_EQ(vekMemoryUsed(), 0) << "bytes are counted in debug mode only";
  vekFree(p);
  vekFree(z);  // calloc'd blocks were never counted: the counter drifts
  vekFree(nullptr);
  EXPECT_EQ(vekMemoryBlockUsed(), blocks - 2);
  // realloc of NULL is a new block: counted, so its release is balanced.
  blocks = vekMemoryBlockUsed();
  void* fresh = vekRealloc(nullptr, 32);
  ASSERT_NE(nullptr, fresh);
  EXPECT_EQ(vekMemoryBlockUsed(), blocks + 1);
  vekFree(fresh);
  EXPECT_EQ(vekMemoryBlockUsed(), blocks);
}

int g_calls, g_kind, g_size;
void* g_ptr;
void record(int kind, int size, void* ptr) { ++g_calls, g_kind = kind, g_size = size, g_ptr = ptr; }

TEST(DefaultMemory, FailuresCallTheHookLogAndCountMallocs) {
  vektest::LogCapture log;
  char* kept = (char*)vekMalloc(16);
  std::strcpy(kept, "still here");
  VEK_MEMORY_FUNCTIONS saved = vekMemoryGetFunctions(), failing = saved;
  failing.mallocFunc = [](size_t) -> void* { return nullptr; };
  failing.callocFunc = [](size_t, size_t) -> void* { return nullptr; };
  failing.reallocFunc = [](void*, size_t) -> void* { return nullptr; };
  vekMemorySetFunctions(failing);
  vekMemorySetErrCallback(record);
  long long blocks = vekMemoryBlockUsed();

  EXPECT_EQ(_vekMalloc(33, "a.c", 1), nullptr);
  EXPECT_EQ(vekMemoryBlockUsed(), blocks + 1) << "a failed request is counted";
  EXPECT_EQ(g_kind * 1000 + g_size, 33);
  EXPECT_EQ(_vekCalloc(3, 44, "b.c", 2), nullptr);
  EXPECT_EQ(g_kind * 1000 + g_size, 1044) << "calloc reports the element size";
  EXPECT_EQ(_vekRealloc(kept, 55, "c.c", 3), nullptr);
  EXPECT_EQ(g_kind * 1000 + g_size, 1055);
  EXPECT_EQ(g_ptr, kept);
  EXPECT_EQ(g_calls, 3);
  vekMemorySetFunctions(saved);
  vekMemorySetErrCallback(nullptr);

  std::string n = std::to_string(blocks + 1);
  EXPECT_TRUE(log.contains("vekMalloc(size[33]): at [a.c:1] running out of memory(handle[" + n + "])\n"));
  EXPECT_TRUE(log.contains("vekCalloc(size[44]): at [b.c:2] running out of memory(handle[" + n + "])\n"));
  EXPECT_TRUE(log.contains("vekRealloc(size[55]): at [c.c:3] running out of memory(handle[" + n + "])\n"));
  EXPECT_STREQ(kept, "still here") << "a failed realloc keeps the old block";
  vekFree(kept);
  vekFree(nullptr);  // take back the counted failure
  EXPECT_EQ(vekMemoryBlockUsed(), blocks - 1);
}

int g_table_calls;
char* counting_strdup(const char* s) { return ++g_table_calls, ::strdup(s); }

TEST(DefaultMemory, ByteOperationsUseTheTableInForce) {
  VEK_MEMORY_FUNCTIONS saved = vekMemoryGetFunctions(), table = saved;
  table.strdupFunc = counting_strdup;
  vekMemorySetFunctions(table);
  char* copy = vekStrdup("abc");
  vekMemorySetFunctions(saved);
  EXPECT_STREQ(copy, "abc");
  EXPECT_EQ(g_table_calls, 1);
  std::free(copy);  // a plain block of the table's allocator
}

// The count stays exact across threads, also for blocks freed by another thread.
TEST(DefaultMemory, BlockCounterIsExactUnderConcurrency) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  constexpr int kRounds = 2000;
#else
  constexpr int kRounds = 200000;
#endif
  const long long blocks = vekMemoryBlockUsed();
  std::vector<void*> left_behind(8);
  for (int wave = 0; wave < 2; ++wave) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([&, t] {
        for (int i = 0; i < kRounds; ++i) vekFree(vekMalloc(16 + i % 64));
        if (wave == 0) left_behind[t] = vekMalloc(8);
        else vekFree(left_behind[t]);
      });
    for (auto& t : threads) t.join();
    EXPECT_EQ(vekMemoryBlockUsed(), blocks + (wave == 0 ? 4 : 0)) << "wave " << wave;
  }
}

int nothing(const char*, void*, void*) { return 0; }

// Operations on a small tree, each repeated so that a drift stands out.
struct Walk {
  const char* name;
  void (*run)(const std::string& top);
};

void make_tree(const std::string& top) {
  directory_create_recursive((top + "/a/b/c").c_str());
  directory_create_recursive((top + "/d").c_str());
  vektest::write_file(top + "/a/one.txt", "1");
  vektest::write_file(top + "/a/b/c/two.txt", "2");
}

const Walk kWalks[] = {
    {"delete recursive", [](const std::string& top) { directory_delete_recursive(top.c_str()); }},
    {"create recursive", [](const std::string& top) { directory_create_recursive((top + "/x/y/").c_str()); }},
    {"foreach", [](const std::string& top) { directory_foreach(top.c_str(), 1, nothing, nullptr); }},
    {"query2", [](const std::string& top) {
       char** names = nullptr;
       int n = directory_query2((top + "/a").c_str(), "*", &names);
       for (int i = 0; i < n; ++i) vekFree(names[i]);
       if (n >= 0) vekFree(names);
     }},
};

// Releasing NULL counts a block down in this mode: a directory walk that
// frees NULL would make the count drift and hide real leaks.
TEST(DefaultMemory, DirectoryWalksKeepTheBlockCountExact) {
  vektest::TempDir dir;
  const std::string top = dir.file("tree");
  for (const Walk& walk : kWalks) {
    SCOPED_TRACE(walk.name);
    long long blocks = vekMemoryBlockUsed();
    for (int i = 0; i < 20; ++i) {
      make_tree(top);
      walk.run(top);
    }
    EXPECT_EQ(blocks, vekMemoryBlockUsed());
  }
}

}  // namespace

int main(int argc, char** argv) {
  // The table is filled statically: an allocation before initialisation works.
  vekFree(vekMalloc(8));
  vekMemoryInitEx(0);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
