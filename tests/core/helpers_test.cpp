// ctest-labels: tsan
// String, clock and shared-object loader helpers.
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

#include <vekutil/errors.h>
#include <vekutil/loader.h>
#include <vekutil/memory.h>
#include <vekutil/strutil.h>
#include <vekutil/timeutil.h>

#include "vek_test.hpp"

namespace {

class Helpers : public vektest::LeakCheckedTest {};

TEST_F(Helpers, FormatUsesOneBufferPerThreadAndCutsLongText) {
  const char* mine = format("%s-%d", "main", 1);
  std::string other;
  std::thread([&] { other = format("%s-%d", "worker", 2); }).join();
  EXPECT_STREQ(mine, "main-1") << "another thread's format must not overwrite this one";
  EXPECT_EQ(other, "worker-2");

  std::string longer(VEK_FORMAT_BUFFER_SIZE + 100, 'L');
  EXPECT_EQ(std::strlen(format("%s", longer.c_str())), (size_t)VEK_FORMAT_BUFFER_SIZE - 1);

  char buf[8];
  EXPECT_EQ(format_r(buf, sizeof buf, "%d", 1234567890), buf);
  EXPECT_STREQ(buf, "1234567");
  EXPECT_EQ(format_r(nullptr, 8, "x"), nullptr);
  EXPECT_EQ(format_r(buf, 0, "x"), nullptr);
}

TEST_F(Helpers, CloneStringCopiesThroughTheAllocator) {
  long long blocks = vekMemoryBlockUsed();
  char* all = clone_string("hello", -1);
  char* part = clone_string("hello", 3);
  char* beyond = clone_string("hi", 50);
  char* empty = clone_string("hello", 0);
  EXPECT_EQ(vekMemoryBlockUsed(), blocks + 4);
  EXPECT_STREQ(all, "hello");
  EXPECT_STREQ(part, "hel");
  EXPECT_STREQ(beyond, "hi");
  EXPECT_STREQ(empty, "");
  EXPECT_EQ(clone_string(nullptr, -1), nullptr);
  for (char* s : {all, part, beyond, empty}) _vekFree(s, VEK_HERE);
}

TEST_F(Helpers, ReplaceAndAffixTests) {
  char path[] = "a\\b\\c";
  EXPECT_EQ(replace_string(path, '\\', '/'), 2);
  EXPECT_STREQ(path, "a/b/c");
  EXPECT_EQ(replace_string(path, 'x', 'y'), 0);
  EXPECT_EQ(replace_string(nullptr, 'x', 'y'), ERR_INVALID_PARAMETER);

  EXPECT_TRUE(str_starts_with("library", "lib"));
  EXPECT_TRUE(str_starts_with("lib", ""));
  EXPECT_FALSE(str_starts_with("li", "lib"));
  EXPECT_TRUE(str_ends_with("file.log", ".log"));
  EXPECT_TRUE(str_ends_with(".log", ".log"));
  EXPECT_FALSE(str_ends_with("log", ".log"));
  EXPECT_FALSE(str_starts_with(nullptr, "a"));
  EXPECT_FALSE(str_ends_with("a", nullptr));
}

TEST_F(Helpers, ClockAndStopwatch) {
  long long ms = time_now();
  long long s = time_now_in_sec();
  EXPECT_LE(std::llabs(ms / 1000 - s), 1);

  char buf[32];
  EXPECT_EQ(time_sprintf(nullptr, 32, "%Y", ms), nullptr);
  EXPECT_EQ(time_sprintf(buf, 0, "%Y", ms), nullptr);
  EXPECT_EQ(time_sprintf(buf, sizeof buf, nullptr, ms), nullptr);
  ASSERT_EQ(time_sprintf(buf, sizeof buf, "%Y-%m-%d", ms), buf);
  EXPECT_EQ(std::strlen(buf), 10u);
  EXPECT_STREQ(time_sprintf(buf, 3, "%Y-%m-%d", ms), "") << "text that does not fit leaves an empty string";

  VEK_MSTIMER timer;
  mstimer_start(&timer);
  usleep(20000);
  long long elapsed = mstimer_elapsed(&timer);
  EXPECT_GE(elapsed, 20);
  EXPECT_LT(elapsed, 5000);
  EXPECT_GE(mstimer_restart(&timer), elapsed);
  EXPECT_LT(mstimer_elapsed(&timer), 1000);
  EXPECT_EQ(mstimer_elapsed(nullptr), 0);
  EXPECT_EQ(mstimer_restart(nullptr), 0);
  mstimer_start(nullptr);
}

TEST_F(Helpers, LoaderFindsSymbolsAndRefusesBadInput) {
  void* libc = nullptr;
  ASSERT_EQ(loader_load(&libc, "libc.so.6"), 0);
  auto len = reinterpret_cast<size_t (*)(const char*)>(loader_get_symbol(libc, "strlen"));
  ASSERT_NE(len, nullptr);
  EXPECT_EQ(len("four"), 4u);
  EXPECT_EQ(loader_get_symbol(libc, "no_such_symbol_here"), nullptr);
  EXPECT_EQ(loader_get_symbol(libc, nullptr), nullptr);
  EXPECT_EQ(loader_get_symbol(nullptr, "strlen"), nullptr);
  EXPECT_EQ(loader_unload(libc), 0);

  vektest::LogCapture log;
  void* missing = &missing;
  EXPECT_EQ(loader_load(&missing, "/nonexistent/libnothing.so"), ERR_NOT_FOUND);
  EXPECT_EQ(missing, nullptr);
  EXPECT_TRUE(log.contains("loader_load(/nonexistent/libnothing.so): dlopen failed["));
  EXPECT_EQ(loader_load(nullptr, "libc.so.6"), ERR_INVALID_PARAMETER);
  EXPECT_EQ(loader_load(&missing, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(loader_unload(nullptr), ERR_INVALID_HANDLE);
}

}  // namespace
