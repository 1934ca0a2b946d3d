// ctest-labels: tsan
// The allocator in debug mode: accounts, bad pointers, hook, live list, report.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <thread>
#include <vector>

#include <vekutil/errors.h>
#include <vekutil/memory.h>

#include "vek_test.hpp"

namespace {

constexpr long long H = (long long)VEK_MEMORY_HDR_SIZE;
VEK_MEMORY_HDR* header_of(void* p) { return (VEK_MEMORY_HDR*)((char*)p - VEK_MEMORY_HDR_SIZE); }

std::string text(const char* fmt, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  return buf;
}

// The four accounts, compared as one value.
struct Counters {
  long long used = vekMemoryUsed(), used_max = vekMemoryUsedMax();
  long long blocks = vekMemoryBlockUsed(), biggest = vekMemoryBlockUsedMax();
  bool operator==(const Counters&) const = default;
  Counters moved(long long bytes, long long block_delta) const {
    Counters c = *this;
    c.used += bytes, c.blocks += block_delta;
    return c;
  }
  friend std::ostream& operator<<(std::ostream& os, const Counters& c) {
    return os << c.used << "(" << c.used_max << ") bytes, " << c.blocks << " blocks, biggest " << c.biggest;
  }
};

class DebugMemory : public vektest::LeakCheckedTest {};

TEST_F(DebugMemory, AccountsFollowMallocReallocAndFree) {
  Counters start;
  char* p = (char*)vekMalloc(100);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ((uintptr_t)p % 16, 0u);
  EXPECT_EQ(vekMemoryUsed(), start.used + 100 + H);
  EXPECT_EQ(vekMemoryBlockUsed(), start.blocks + 1);
  EXPECT_GE(vekMemoryBlockUsedMax(), 100);
  std::memset(p, 'x', 100);

  Counters before = {};  // shrinking lowers the total; neither peak moves
  p = (char*)vekRealloc(p, 10);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(Counters{}, before.moved(-90, 0));
  EXPECT_EQ(std::string(p, 10), std::string(10, 'x'));
  EXPECT_EQ(header_of(p)->mh_type, 1u);

  before = {};  // growing past both peaks raises neither
  size_t big = (size_t)(before.used_max + before.biggest + 4096);
  p = (char*)vekRealloc(p, big);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(Counters{}, before.moved((long long)big - 10, 0));
  vekFree(p);
}

TEST_F(DebugMemory, RefusedRequestsAndForeignPointersChangeNothing) {
  vektest::LogCapture log;
  char* p = (char*)vekMalloc(8);
  Counters start;
  EXPECT_EQ(_vekMalloc(0, "z.c", 11), nullptr);
  EXPECT_EQ(_vekRealloc(p, 0, "z.c", 12), nullptr);
  EXPECT_EQ(header_of(p)->mh_tag, VEK_MEMORY_TAG_LIVE) << "a refused realloc keeps the block";
  std::string before_calloc = log.text();
  EXPECT_EQ(vekCalloc(4, 4), nullptr);
  EXPECT_EQ(log.text(), before_calloc) << "debug calloc is refused without a log line";

  alignas(16) static unsigned char foreign[256];  // no live tag in front
  _vekFree(nullptr, VEK_HERE);
  _vekFree((void*)UINTPTR_MAX, "bad.c", 1);
  _vekFree(foreign + 128, "bad.c", 2);
  EXPECT_EQ(_vekRealloc(foreign + 128, 10, "bad.c", 3), nullptr);
  EXPECT_EQ(_vekRealloc((void*)UINTPTR_MAX, 11, "bad.c", 4), nullptr);
  for (const char* line : {"vekMalloc(size[0]): invalid size! z.c(11)\n", "vekRealloc(size[0]): invalid size! z.c(12)\n",
                           "trying to free pointer from freed area\n", "vekFree(): invalid address! bad.c(2)",
                           "vekRealloc(size[10]): invalid address!\n", "vekRealloc(size[11]): invalid address!\n"})
    EXPECT_TRUE(log.contains(line)) << line;
  EXPECT_EQ(Counters{}, start);
  vekFree(p);
}

TEST_F(DebugMemory, DoubleFreeIsCaughtAndReleasedDataIsPoisoned) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "reads released memory, which the sanitizers forbid";
#endif
  vektest::LogCapture log;
  unsigned char* p = (unsigned char*)vekMalloc(200);
  std::memset(p, 0x22, 200);
  _vekFree(p, "twice.c", 1);
  Counters after_first;
  for (int i = 64; i < 192; ++i) ASSERT_EQ(p[i], 0xFF) << "byte " << i;
  _vekFree(p, "twice.c", 2);
  EXPECT_TRUE(log.contains("vekFree(): invalid address! twice.c(2)"));
  EXPECT_EQ(Counters{}, after_first);
}

int g_hook_calls, g_hook_kind, g_hook_size;
void record_hook(int kind, int size, void*) { ++g_hook_calls, g_hook_kind = kind, g_hook_size = size; }

TEST_F(DebugMemory, OutOfMemoryCallsTheHookAndLogsTheCounters) {
  vektest::LogCapture log;
  void* live = vekMalloc(40);
  Counters c;
  VEK_MEMORY_FUNCTIONS saved = vekMemoryGetFunctions(), failing = saved;
  failing.mallocFunc = [](size_t) -> void* { return nullptr; };
  failing.reallocFunc = [](void*, size_t) -> void* { return nullptr; };
  vekMemorySetFunctions(failing);
  vekMemorySetErrCallback(record_hook);
  g_hook_calls = 0;
  EXPECT_EQ(_vekMalloc(50, "oom.c", 7), nullptr);
  EXPECT_EQ(_vekMalloc(SIZE_MAX - 8, "oom.c", 8), nullptr);  // no room for a header: no wrap-around
  EXPECT_EQ(_vekRealloc(live, 60, "oom.c", 9), nullptr);     // no hook on this path
  vekMemorySetFunctions(saved);
  vekMemorySetErrCallback(nullptr);

  EXPECT_EQ(g_hook_calls, 2);
  EXPECT_EQ(g_hook_kind, 0);
  EXPECT_EQ(g_hook_size, (int)(SIZE_MAX - 8));
  EXPECT_TRUE(log.contains(text(
      "vekMalloc(size[50]): running out of memory(memory[%d(%d)] handle[%d] maxblock[%d])  oom.c(7)\n", (int)c.used,
      (int)c.used_max, (int)c.blocks, (int)c.biggest)));
  // A failed realloc leaves the old block valid, linked and counted.
  EXPECT_TRUE(log.contains(text("vekMalloc(size[60]): running out of memory(memory[%d(%d)] handle[%d] maxblock[%d])\n",
                                (int)c.used, (int)c.used_max, (int)c.blocks, (int)c.biggest)));
  EXPECT_EQ(Counters{}, c);
  std::memset(live, 'x', 40);
  _vekFree(live, "oom.c", 10);
  EXPECT_FALSE(log.contains("invalid address"));
  EXPECT_EQ(Counters{}, c.moved(-40 - H, -1));
}

struct Seen {
  char* data;
  int size, line;
  std::string file;
};
void collect(int, time_t, void*, char* data, int size, const char* file, int line, int, void* custom) {
  auto* seen = static_cast<std::vector<Seen>*>(custom);
  if (seen->size() < 2) seen->push_back({data, size, line, file});
}

TEST_F(DebugMemory, LiveListWalkAndShow) {
  void* a = _vekMalloc(1, "list.c", 1);
  char* b = (char*)_vekMalloc(6, "list.c", 2);
  void* c = _vekMalloc(3, "list.c", 3);
  void* d = _vekMalloc(4, "list.c", 4);
  std::memcpy(b, "hello", 6);
  vekFree(c);  // unlink from the middle, then the head
  vekFree(d);
  std::vector<Seen> seen;
  vekMemoryDumpForeach(collect, &seen);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].data, b);
  EXPECT_EQ(seen[0].file + ":" + std::to_string(seen[0].line) + " " + std::to_string(seen[0].size), "list.c:2 6");
  EXPECT_EQ(seen[1].data, (char*)a);
  vekMemoryDumpForeach(nullptr, nullptr);

  unsigned char* copy = nullptr;
  int len = 0;
  long address = (long)(intptr_t)header_of(b);
  EXPECT_EQ(vekMemoryShow(address, nullptr, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(vekMemoryShow(address, &copy, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(vekMemoryShow((long)(intptr_t)b, &copy, &len), ERR_CORRUPTED);  // data, not header
  EXPECT_EQ(vekMemoryShow(12345, &copy, &len), ERR_CORRUPTED);
  ASSERT_EQ(vekMemoryShow(address, &copy, &len), 0);
  EXPECT_EQ(len, 6);
  EXPECT_STREQ((char*)copy, "hello");
  vekFree(copy);
  vekFree(b);
  EXPECT_EQ(vekMemoryShow(address, &copy, &len), ERR_CORRUPTED);  // released
  vekFree(a);
}

std::string report_line(int index, void* data, const char* location, const std::string& dump) {
  VEK_MEMORY_HDR* h = header_of(data);
  return text("%-5u, %p, %10lu, %6lu, %s,", (unsigned)index, (void*)h, (unsigned long)h->mh_time,
                              (unsigned long)h->mh_size, location) +
         "\"" + dump + "\n\"\n";
}

TEST_F(DebugMemory, ReportIsWrittenByteForByte) {
  vektest::TempDir dir;
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  unsigned char* forty = (unsigned char*)_vekMalloc(40, "dump.c", 10);  // only 32 bytes shown
  for (int i = 0; i < 40; ++i) forty[i] = (unsigned char)(0x30 + i);
  char* moved = (char*)_vekRealloc(_vekMalloc(3, "dump.c", 20), 4, "dump.c", 21);
  std::memcpy(moved, "\x7f\x80 ~", 4);
  char* five = (char*)_vekMalloc(5, "dump.c", 30);
  std::memcpy(five, "a\"\\\nz", 5);  // quote and backslash show as '*'
  int rc = vekMemoryDump(nullptr, 0);
  std::string report = vektest::read_file(".memorylist");
  ASSERT_EQ(chdir(cwd), 0);
  ASSERT_EQ(rc, 0);

  std::string expected =
      text("MEMORY ALLOCATED, %llu\nMAX ALLOCATED, %llu\nBIGGEST BLOCK ALLOCATED, %llu\n\n",
                           vekMemoryUsed(), vekMemoryUsedMax(), vekMemoryBlockUsedMax()) +
      "BLOCK, ADDRESS, TIME, SIZE, TYPE, LOCATION, DUMP \n" +
      report_line(0, five, "m, dump.c(30)", "  0000: 61 22 5c 0a 7a" + std::string(37, ' ') + "a**.z") +
      report_line(1, moved, "r, dump.c(21)", "  0000: 7f 80 20 7e" + std::string(40, ' ') + ".. ~") +
      report_line(2, forty, "m, dump.c(10)",
                  "  0000: 30 31 32 33 34 35 36 37 - 38 39 3a 3b 3c 3d 3e 3f  0123456789:;<=>?\n"
                  "  0010: 40 41 42 43 44 45 46 47 - 48 49 4a 4b 4c 4d 4e 4f  @ABCDEFGHIJKLMNO");
  EXPECT_EQ(report.substr(0, expected.size()), expected);
  EXPECT_EQ(vekMemoryDump(dir.file("missing/report").c_str(), 0), ERR_SYSTEM);
  vekFree(five);
  vekFree(moved);
  vekFree(forty);
}

TEST_F(DebugMemory, ThreadsKeepListAndTotalsExact) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      void* held[8] = {};
      for (int i = 0; i < 2000; ++i) {
        void*& slot = held[i % 8];
        vekFree(slot);
        slot = i % 3 ? vekMalloc(16 + (size_t)t) : nullptr;
        if (slot && i % 5 == 0) slot = vekRealloc(slot, 64);
      }
      for (void* p : held) vekFree(p);
    });
  for (auto& th : threads) th.join();
}

}  // namespace
