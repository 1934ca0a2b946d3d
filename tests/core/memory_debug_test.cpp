// test-main: own
// ctest-labels: tsan
// The allocator in debug mode: accounting, bad pointers, the out-of-memory
// hook, the live list and the memory report.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/errors.h>
#include <vekutil/memory.h>

#include "vek_test.hpp"

namespace {

constexpr long long H = (long long)VEK_MEMORY_HDR_SIZE;

VEK_MEMORY_HDR* header_of(void* p) { return (VEK_MEMORY_HDR*)((char*)p - VEK_MEMORY_HDR_SIZE); }

#if defined(__SANITIZE_ADDRESS__)
#define SKIP_IF_FREED_MEMORY_IS_GUARDED() GTEST_SKIP() << "reads released memory, which the address sanitizer forbids"
#else
#define SKIP_IF_FREED_MEMORY_IS_GUARDED() (void)0
#endif

struct Snapshot {
  long long used = vekMemoryUsed();
  long long used_max = vekMemoryUsedMax();
  long long blocks = vekMemoryBlockUsed();
  long long biggest = vekMemoryBlockUsedMax();
};

class DebugMemory : public vektest::LeakCheckedTest {};

TEST_F(DebugMemory, MallocReallocFreeKeepExactAccounts) {
  Snapshot before;
  char* p = (char*)vekMalloc(100);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ((uintptr_t)p % 16, 0u);
  EXPECT_EQ(vekMemoryUsed(), before.used + 100 + H);
  EXPECT_EQ(vekMemoryBlockUsed(), before.blocks + 1);
  EXPECT_GE(vekMemoryUsedMax(), vekMemoryUsed());
  EXPECT_GE(vekMemoryBlockUsedMax(), 100);
  std::memset(p, 'x', 100);

  Snapshot grown;
  char* q = (char*)vekRealloc(p, 10);
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(vekMemoryUsed(), grown.used - 90);
  EXPECT_EQ(vekMemoryBlockUsed(), grown.blocks);
  EXPECT_EQ(vekMemoryUsedMax(), grown.used_max);
  EXPECT_EQ(vekMemoryBlockUsedMax(), grown.biggest);
  EXPECT_EQ(std::string(q, 10), std::string(10, 'x'));
  EXPECT_EQ(header_of(q)->mh_type, 1u);
  EXPECT_EQ(header_of(q)->mh_size, 10u);

  // Growth by realloc raises neither peak, unlike malloc.
  Snapshot small;
  const size_t big = (size_t)(small.used_max + small.biggest + 4096);
  char* r = (char*)vekRealloc(q, big);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(vekMemoryUsed(), small.used - 10 + (long long)big);
  EXPECT_GT(vekMemoryUsed(), vekMemoryUsedMax());
  EXPECT_EQ(vekMemoryUsedMax(), small.used_max);
  EXPECT_EQ(vekMemoryBlockUsedMax(), small.biggest);

  _vekFree(r, VEK_HERE);
  EXPECT_EQ(vekMemoryUsed(), before.used);
  EXPECT_EQ(vekMemoryBlockUsed(), before.blocks);

  // A NULL pointer makes realloc allocate: a fresh "m" block.
  char* fresh = (char*)vekRealloc(nullptr, 7);
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(header_of(fresh)->mh_type, 0u);
  EXPECT_EQ(vekMemoryUsed(), before.used + 7 + H);
  vekFree(fresh);
}

TEST_F(DebugMemory, ZeroSizesAndCallocAreRefused) {
  vektest::LogCapture log;
  Snapshot before;
  EXPECT_EQ(_vekMalloc(0, "zero.c", 11), nullptr);
  EXPECT_TRUE(log.contains("vekMalloc(size[0]): invalid size! zero.c(11)\n"));

  void* p = vekMalloc(8);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(_vekRealloc(p, 0, "zero.c", 12), nullptr);
  EXPECT_TRUE(log.contains("vekRealloc(size[0]): invalid size! zero.c(12)\n"));
  EXPECT_EQ(header_of(p)->mh_tag, VEK_MEMORY_TAG_LIVE) << "a zero-size realloc must not release the block";
  vekFree(p);

  std::string text_before = log.text();
  EXPECT_EQ(vekCalloc(4, 4), nullptr);
  EXPECT_EQ(log.text(), text_before) << "calloc in debug mode is refused silently";
  EXPECT_EQ(vekMemoryUsed(), before.used);
  EXPECT_EQ(vekMemoryBlockUsed(), before.blocks);
}

TEST_F(DebugMemory, BadPointersAreLoggedAndLeftAlone) {
  vektest::LogCapture log;
  Snapshot before;

  _vekFree(nullptr, VEK_HERE);
  _vekFree((void*)UINTPTR_MAX, "bad.c", 1);
  EXPECT_TRUE(log.contains("trying to free pointer from freed area\n"));

  // Memory never made here: its "header" holds no live tag.
  alignas(16) static unsigned char foreign[256];
  _vekFree(foreign + 128, "bad.c", 2);
  EXPECT_TRUE(log.contains("vekFree(): invalid address! bad.c(2)"));
  EXPECT_EQ(_vekRealloc(foreign + 128, 10, "bad.c", 3), nullptr);
  EXPECT_EQ(_vekRealloc((void*)UINTPTR_MAX, 11, "bad.c", 4), nullptr);
  EXPECT_TRUE(log.contains("vekRealloc(size[10]): invalid address!\n"));
  EXPECT_TRUE(log.contains("vekRealloc(size[11]): invalid address!\n"));

  EXPECT_EQ(vekMemoryUsed(), before.used);
  EXPECT_EQ(vekMemoryBlockUsed(), before.blocks);
}

TEST_F(DebugMemory, DoubleFreeIsReportedAndReleasedDataIsPoisoned) {
  SKIP_IF_FREED_MEMORY_IS_GUARDED();
  vektest::LogCapture log;
  unsigned char* p = (unsigned char*)vekMalloc(24);
  ASSERT_NE(p, nullptr);
  std::memset(p, 0x11, 24);
  _vekFree(p, "twice.c", 1);
  Snapshot after_first;
  _vekFree(p, "twice.c", 2);
  EXPECT_TRUE(log.contains("vekFree(): invalid address! twice.c(2)"));
  EXPECT_EQ(vekMemoryUsed(), after_first.used);
  EXPECT_EQ(vekMemoryBlockUsed(), after_first.blocks);
}

TEST_F(DebugMemory, ReleasedDataReadsAsFF) {
  SKIP_IF_FREED_MEMORY_IS_GUARDED();
  unsigned char* p = (unsigned char*)vekMalloc(200);
  ASSERT_NE(p, nullptr);
  std::memset(p, 0x22, 200);
  vekFree(p);
  // The allocator may reuse the first bytes for its own bookkeeping; the
  // middle of a 200-byte block stays as the release left it.
  for (int i = 64; i < 192; ++i) ASSERT_EQ(p[i], 0xFF) << "byte " << i;
}

int g_hook_calls;
int g_hook_kind, g_hook_size;
void* g_hook_ptr;
void record_hook(int kind, int size, void* ptr) {
  ++g_hook_calls;
  g_hook_kind = kind;
  g_hook_size = size;
  g_hook_ptr = ptr;
}
void* failing_malloc(size_t) { return nullptr; }
void* failing_realloc(void*, size_t) { return nullptr; }

// Installs a table whose allocation fails, and the recording hook.
class FailingTable {
 public:
  FailingTable() : saved_(vekMemoryGetFunctions()) {
    VEK_MEMORY_FUNCTIONS f = saved_;
    f.mallocFunc = failing_malloc;
    f.reallocFunc = failing_realloc;
    vekMemorySetFunctions(f);
    vekMemorySetErrCallback(record_hook);
    g_hook_calls = 0;
  }
  ~FailingTable() {
    vekMemorySetFunctions(saved_);
    vekMemorySetErrCallback(nullptr);
  }

 private:
  VEK_MEMORY_FUNCTIONS saved_;
};

TEST_F(DebugMemory, OutOfMemoryCallsTheHookAndLogs) {
  vektest::LogCapture log;
  void* live = vekMalloc(40);  // made while the table still works
  ASSERT_NE(live, nullptr);
  Snapshot before;
  {
    FailingTable failing;
    EXPECT_EQ(_vekMalloc(50, "oom.c", 7), nullptr);
    EXPECT_EQ(g_hook_calls, 1);
    EXPECT_EQ(g_hook_kind, 0);
    EXPECT_EQ(g_hook_size, 50);
    EXPECT_EQ(g_hook_ptr, nullptr);
    char expected[200];
    std::snprintf(expected, sizeof expected,
                  "vekMalloc(size[50]): running out of memory(memory[%d(%d)] handle[%d] maxblock[%d])  oom.c(7)\n",
                  (int)before.used, (int)before.used_max, (int)before.blocks, (int)before.biggest);
    EXPECT_TRUE(log.contains(expected)) << log.text();

    // A size that cannot carry a header fails instead of wrapping around.
    EXPECT_EQ(_vekMalloc(SIZE_MAX - 8, "oom.c", 8), nullptr);
    EXPECT_EQ(g_hook_calls, 2);

    // realloc: no hook, no location in the line, and the old block is lost
    // to the accounting (the system still holds it).
    EXPECT_EQ(_vekRealloc(live, 60, "oom.c", 9), nullptr);
    EXPECT_EQ(g_hook_calls, 2);
    std::snprintf(expected, sizeof expected,
                  "vekMalloc(size[60]): running out of memory(memory[%d(%d)] handle[%d] maxblock[%d])\n",
                  (int)(before.used - 40 - H), (int)before.used_max, (int)before.blocks - 1, (int)before.biggest);
    EXPECT_TRUE(log.contains(expected)) << log.text();
  }
  EXPECT_EQ(vekMemoryUsed(), before.used - 40 - H);
  EXPECT_EQ(vekMemoryBlockUsed(), before.blocks - 1);
  EXPECT_EQ(header_of(live)->mh_tag, VEK_MEMORY_TAG_FREED);
  std::free(header_of(live));
}

struct Seen {
  int index;
  void* header;
  char* data;
  int size;
  std::string file;
  int line;
  int type;
};

void collect(int index, time_t, void* header, char* data, int size, const char* file, int line, int type,
             void* custom) {
  auto* seen = static_cast<std::vector<Seen>*>(custom);
  if (seen->size() < 3) seen->push_back({index, header, data, size, file ? file : "", line, type});
}

TEST_F(DebugMemory, LiveListStaysLinkedWhicheverBlockGoes) {
  void* a = _vekMalloc(1, "list.c", 1);
  void* b = _vekMalloc(2, "list.c", 2);
  void* c = _vekMalloc(3, "list.c", 3);
  void* d = _vekMalloc(4, "list.c", 4);
  _vekFree(c, VEK_HERE);  // from the middle
  _vekFree(d, VEK_HERE);  // the head

  std::vector<Seen> seen;
  vekMemoryDumpForeach(collect, &seen);
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].index, 0);
  EXPECT_EQ(seen[0].data, (char*)b);
  EXPECT_EQ(seen[0].header, (void*)header_of(b));
  EXPECT_EQ(seen[0].size, 2);
  EXPECT_EQ(seen[0].file, "list.c");
  EXPECT_EQ(seen[0].line, 2);
  EXPECT_EQ(seen[0].type, 0);
  EXPECT_EQ(seen[1].index, 1);
  EXPECT_EQ(seen[1].data, (char*)a);

  void* a2 = vekRealloc(a, 30);  // the list now starts with the moved block
  seen.clear();
  vekMemoryDumpForeach(collect, &seen);
  EXPECT_EQ(seen[0].data, (char*)a2);
  EXPECT_EQ(seen[0].type, 1);
  EXPECT_EQ(seen[1].data, (char*)b);
  vekFree(a2);
  vekFree(b);
  vekMemoryDumpForeach(nullptr, nullptr);  // no callback: nothing happens
}

TEST_F(DebugMemory, ShowCopiesOnlyLiveBlocks) {
  char* p = (char*)vekMalloc(6);
  ASSERT_NE(p, nullptr);
  std::memcpy(p, "hello", 6);
  unsigned char* copy = nullptr;
  int len = 0;
  long address = (long)(intptr_t)header_of(p);
  EXPECT_EQ(vekMemoryShow(address, nullptr, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(vekMemoryShow(address, &copy, nullptr), ERR_INVALID_PARAMETER);
  ASSERT_EQ(vekMemoryShow(address, &copy, &len), 0);
  EXPECT_EQ(len, 6);
  EXPECT_STREQ((char*)copy, "hello");
  vekFree(copy);

  EXPECT_EQ(vekMemoryShow((long)(intptr_t)p, &copy, &len), ERR_CORRUPTED);  // data, not header
  EXPECT_EQ(vekMemoryShow(12345, &copy, &len), ERR_CORRUPTED);
  vekFree(p);
  EXPECT_EQ(vekMemoryShow(address, &copy, &len), ERR_CORRUPTED);  // released
}

// The report line of one block, built from its header fields.
std::string block_line(int index, void* data, const char* file, int line, const char* type, const std::string& dump) {
  VEK_MEMORY_HDR* h = header_of(data);
  char head[160];
  std::snprintf(head, sizeof head, "%-5u, %p, %10lu, %6lu, %s%s(%d),", (unsigned)index, (void*)h,
                (unsigned long)h->mh_time, (unsigned long)h->mh_size, type, file, line);
  return head + dump + "\n";
}

TEST_F(DebugMemory, DumpWritesTheReportByteForByte) {
  vektest::TempDir dir;
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir.path().c_str()), 0);

  // 40 bytes, only the first 32 dumped; a realloc'd block; a 5-byte block.
  unsigned char* forty = (unsigned char*)_vekMalloc(40, "dump.c", 10);
  for (int i = 0; i < 40; ++i) forty[i] = (unsigned char)(0x30 + i);
  char* moved = (char*)_vekMalloc(3, "dump.c", 20);
  moved = (char*)_vekRealloc(moved, 4, "dump.c", 21);
  std::memcpy(moved, "\x7f\x80\x20~", 4);
  char* five = (char*)_vekMalloc(5, "dump.c", 30);
  std::memcpy(five, "a\"\\\nz", 5);

  ASSERT_EQ(vekMemoryDump(nullptr, 0), 0);
  std::string report = vektest::read_file(".memorylist");
  ASSERT_EQ(chdir(cwd), 0);

  char totals[200];
  std::snprintf(totals, sizeof totals, "MEMORY ALLOCATED, %llu\nMAX ALLOCATED, %llu\nBIGGEST BLOCK ALLOCATED, %llu\n\n",
                vekMemoryUsed(), vekMemoryUsedMax(), vekMemoryBlockUsedMax());
  std::string expected = std::string(totals) + "BLOCK, ADDRESS, TIME, SIZE, TYPE, LOCATION, DUMP \n";
  expected += block_line(0, five, "dump.c", 30, "m, ",
                         "\"  0000: 61 22 5c 0a 7a" + std::string(35, ' ') + "  a**.z\n\"");
  expected += block_line(1, moved, "dump.c", 21, "r, ",
                         "\"  0000: 7f 80 20 7e" + std::string(38, ' ') + "  .. ~\n\"");
  expected += block_line(2, forty, "dump.c", 10, "m, ",
                         "\"  0000: 30 31 32 33 34 35 36 37 - 38 39 3a 3b 3c 3d 3e 3f  0123456789:;<=>?\n"
                         "  0010: 40 41 42 43 44 45 46 47 - 48 49 4a 4b 4c 4d 4e 4f  @ABCDEFGHIJKLMNO\n\"");
  ASSERT_GE(report.size(), expected.size());
  EXPECT_EQ(report.substr(0, expected.size()), expected);

  EXPECT_EQ(vekMemoryDump((dir.path() + "/missing/dir/report").c_str(), 0), ERR_SYSTEM);
  vekFree(five);
  vekFree(moved);
  vekFree(forty);
}

TEST_F(DebugMemory, ConcurrentThreadsKeepTheListAndTotalsExact) {
  constexpr int kThreads = 4, kRounds = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      void* held[8] = {};
      for (int i = 0; i < kRounds; ++i) {
        int slot = i % 8;
        vekFree(held[slot]);
        held[slot] = i % 3 == 0 ? nullptr : vekMalloc(16 + (size_t)(t * 8 + slot));
        if (i % 5 == 0 && held[slot]) held[slot] = vekRealloc(held[slot], 64);
      }
      for (void* p : held) vekFree(p);
    });
  }
  for (auto& th : threads) th.join();
}

}  // namespace

int main(int argc, char** argv) {
  vekMemoryInitEx(1);  // before the first allocation
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
