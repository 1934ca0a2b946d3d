// ctest-labels: tsan
// String, clock, loader, resource-limit helpers and hex dumps.
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <thread>

#include <vekutil/hexdump.h>
#include <vekutil/memory.h>
#include <vekutil/vekutil.h>

#include "vek_test.hpp"

namespace {

class Helpers : public vektest::LeakCheckedTest {};

TEST_F(Helpers, FormattingAndStrings) {
  const char* mine = format("%s-%d", "main", 1);
  std::string other;
  std::thread([&] { other = format("%s", "worker"); }).join();
  EXPECT_STREQ(mine, "main-1") << "each thread has its own buffer";
  EXPECT_EQ(other, "worker");
  std::string longer(VEK_FORMAT_BUFFER_SIZE + 100, 'L');
  EXPECT_EQ(std::strlen(format("%s", longer.c_str())), (size_t)VEK_FORMAT_BUFFER_SIZE - 1);
  char buf[8];
  EXPECT_STREQ(format_r(buf, sizeof buf, "%d", 1234567890), "1234567");
  EXPECT_EQ(format_r(buf, 0, "x"), nullptr);

  char* part = clone_string("hello", 3);
  char* all = clone_string("hi", 50);
  EXPECT_STREQ(part, "hel");
  EXPECT_STREQ(all, "hi");
  EXPECT_EQ(clone_string(nullptr, -1), nullptr);
  vekFree(part);
  vekFree(all);

  char path[] = "a\\b\\c";
  EXPECT_EQ(replace_string(path, '\\', '/'), 2);
  EXPECT_STREQ(path, "a/b/c");
  EXPECT_EQ(replace_string(nullptr, 'x', 'y'), ERR_INVALID_PARAMETER);
  EXPECT_TRUE(str_starts_with("lib", "") && str_ends_with(".log", ".log"));
  EXPECT_FALSE(str_starts_with("li", "lib") || str_ends_with("log", ".log") || str_ends_with("a", nullptr));
}

TEST_F(Helpers, ClockAndStopwatch) {
  EXPECT_LE(std::llabs(time_now() / 1000 - time_now_in_sec()), 1);
  char buf[32];
  EXPECT_EQ(time_sprintf(buf, 0, "%Y", 0), nullptr);
  EXPECT_EQ(std::strlen(time_sprintf(buf, sizeof buf, "%Y-%m-%d", time_now())), 10u);
  EXPECT_STREQ(time_sprintf(buf, 3, "%Y-%m-%d", 0), "") << "text that does not fit";
  VEK_MSTIMER timer;
  mstimer_start(&timer);
  usleep(20000);
  long long elapsed = mstimer_elapsed(&timer);
  EXPECT_GE(elapsed, 20);
  EXPECT_GE(mstimer_restart(&timer), elapsed);
  EXPECT_EQ(mstimer_elapsed(nullptr) + mstimer_restart(nullptr), 0);
}

TEST_F(Helpers, LoaderFindsSymbolsAndRefusesBadInput) {
  void* libc = nullptr;
  ASSERT_EQ(loader_load(&libc, "libc.so.6"), 0);
  auto len = reinterpret_cast<size_t (*)(const char*)>(loader_get_symbol(libc, "strlen"));
  ASSERT_NE(len, nullptr);
  EXPECT_EQ(len("four"), 4u);
  EXPECT_EQ(loader_get_symbol(libc, "no_such_symbol_here"), nullptr);
  EXPECT_EQ(loader_get_symbol(nullptr, "strlen"), nullptr);
  EXPECT_EQ(loader_unload(libc), 0);
  vektest::LogCapture log;
  void* missing = &missing;
  EXPECT_EQ(loader_load(&missing, "/nonexistent/libnothing.so"), ERR_NOT_FOUND);
  EXPECT_EQ(missing, nullptr);
  EXPECT_TRUE(log.contains("loader_load(/nonexistent/libnothing.so): dlopen failed["));
  EXPECT_EQ(loader_load(nullptr, "libc.so.6"), ERR_INVALID_PARAMETER);
  EXPECT_EQ(loader_unload(nullptr), ERR_INVALID_HANDLE);
}

TEST_F(Helpers, LimitGettersInBothStyles) {
  const struct {
    int resource;
    int (*numeric)(int*, int*);
    int (*text)(char**);
    const char* sentence;
  } cases[] = {
      {RLIMIT_NPROC, rlimit_get_max_threads, debug_get_max_threads, "Max Threads -> (Soft:%d) (Hard:%d)"},
      {RLIMIT_NOFILE, rlimit_get_max_open_files, debug_get_max_open_files, "Max Open Files -> (Soft:%d) (Hard:%d)"},
      {RLIMIT_CORE, rlimit_get_core_file_limits, debug_get_core_file_limits, "Core Limits -> (Soft:%d) (Hard:%d)"},
  };
  for (const auto& c : cases) {
    struct rlimit limit;
    ASSERT_EQ(getrlimit(c.resource, &limit), 0);
    int soft = 0, hard = 0;
    EXPECT_EQ(c.numeric(nullptr, &hard), ERR_INVALID_PARAMETER);
    EXPECT_EQ(c.numeric(&soft, nullptr), ERR_INVALID_PARAMETER);
    ASSERT_EQ(c.numeric(&soft, &hard), 0);
    EXPECT_EQ(soft, (int)limit.rlim_cur);  // unlimited reads as -1
    EXPECT_EQ(hard, (int)limit.rlim_max);
    EXPECT_EQ(c.text(nullptr), 0) << "a NULL msg is accepted";
    char* msg = nullptr;
    ASSERT_EQ(c.text(&msg), 0);
    char expected[96];
    std::snprintf(expected, sizeof expected, c.sentence, soft, hard);
    EXPECT_STREQ(msg, expected);
    vekFree(msg);
  }
}

TEST_F(Helpers, TracedAllocation) {
  testing::internal::CaptureStdout();
  void* p = debug_malloc(12, "label", "trace.c", 7);
  debug_free(p, "label", "trace.c", 8);
  std::string out = testing::internal::GetCapturedStdout();
  char expected[200];
  std::snprintf(expected, sizeof expected, "=M= %p - 12 - label (trace.c:7)\n=F= %p - label (trace.c:8)\n", p, p);
  EXPECT_EQ(out, expected);
}

std::string dump(const void* data, int len) {
  char* text = hexdump(data, len);
  std::string s = text ? text : "<null>";
  vekFree(text);
  return s;
}
std::string heading(const void* data, int len) {
  char line[80];
  std::snprintf(line, sizeof line, "HEXDUMP AT [0x%p] (%d bytes)\n", data, len);
  return line;
}
std::string console(const void* data, int len) {
  testing::internal::CaptureStdout();
  hexdump_console(data, len);
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

const unsigned char kBytes[] = "0123456789abcdef\x01\x7f\x80\"\\ ~";
const std::string kRow = "  0000: 30 31 32 33 34 35 36 37 - 38 39 61 62 63 64 65 66  0123456789abcdef";

class Hexdump : public vektest::LeakCheckedTest {};

TEST_F(Hexdump, RowsPaddingEmptyNullAndLongRanges) {
  std::string five = "  0000: 30 31 32 33 34" + std::string(37, ' ') + "01234";
  std::string tail = "  0010: 01 7f 80 22" + std::string(40, ' ') + "...\"";  // quotes as themselves
  std::string eight = "  0000: 30 31 32 33 34 35 36 37 -" + std::string(26, ' ') + "01234567";
  const struct { int len; std::string rows; } cases[] = {{16, kRow}, {5, five}, {20, kRow + "\n" + tail}, {8, eight}};
  for (const auto& c : cases) {
    EXPECT_EQ(dump(kBytes, c.len), heading(kBytes, c.len) + c.rows) << "no line feed at the end";
    EXPECT_EQ(console(kBytes, c.len), c.rows + "\n");
  }

  std::string head = heading(kBytes, 0);
  EXPECT_EQ(dump(kBytes, 0), head.substr(0, head.size() - 1));
  EXPECT_EQ(dump(nullptr, 16), "<null>");
  EXPECT_EQ(console(kBytes, 0) + console(kBytes, -1) + console(nullptr, 16), "");
  // Offsets past 0xffff grow a digit; the buffer must still hold every row.
  static unsigned char big[70000];
  std::string text = dump(big, (int)sizeof big);
  EXPECT_EQ(text.size(), heading(big, sizeof big).size() + 4375 * 76 + (4375 - 4096) - 1);
  EXPECT_NE(text.find("\n  10000: 00 00"), std::string::npos);
}

}  // namespace
