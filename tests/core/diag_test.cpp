// Resource-limit getters in both styles, the platform-error wrappers and
// the console allocation tracer.
#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <vekutil/debug.h>
#include <vekutil/errors.h>
#include <vekutil/lasterror.h>
#include <vekutil/memory.h>
#include <vekutil/rlimit.h>

#include "vek_test.hpp"

namespace {

class DiagTest : public vektest::LeakCheckedTest {};

using NumericGetter = int (*)(int*, int*);
using TextGetter = int (*)(char**);

struct LimitCase {
  int resource;
  NumericGetter numeric;
  TextGetter text;
  const char* sentence;
};

const LimitCase kLimits[] = {
    {RLIMIT_NPROC, rlimit_get_max_threads, debug_get_max_threads, "Max Threads -> (Soft:%d) (Hard:%d)"},
    {RLIMIT_NOFILE, rlimit_get_max_open_files, debug_get_max_open_files, "Max Open Files -> (Soft:%d) (Hard:%d)"},
    {RLIMIT_CORE, rlimit_get_core_file_limits, debug_get_core_file_limits, "Core Limits -> (Soft:%d) (Hard:%d)"},
};

TEST_F(DiagTest, LimitGettersAgreeWithTheSystem) {
  for (const LimitCase& c : kLimits) {
    SCOPED_TRACE(c.sentence);
    struct rlimit limit;
    ASSERT_EQ(getrlimit(c.resource, &limit), 0);
    int soft = 0, hard = 0;
    EXPECT_EQ(c.numeric(nullptr, &hard), ERR_INVALID_PARAMETER);
    EXPECT_EQ(c.numeric(&soft, nullptr), ERR_INVALID_PARAMETER);
    ASSERT_EQ(c.numeric(&soft, &hard), 0);
    EXPECT_EQ(soft, (int)limit.rlim_cur);
    EXPECT_EQ(hard, (int)limit.rlim_max);

    EXPECT_EQ(c.text(nullptr), 0) << "a NULL msg is accepted";
    char* msg = nullptr;
    ASSERT_EQ(c.text(&msg), 0);
    ASSERT_NE(msg, nullptr);
    char expected[96];
    std::snprintf(expected, sizeof expected, c.sentence, soft, hard);
    EXPECT_STREQ(msg, expected);
    _vekFree(msg, VEK_HERE);
  }
}

TEST_F(DiagTest, EnablingCoreFilesLiftsBothLimits) {
  int rc = rlimit_enable_core_files();
  if (rc == EPERM) GTEST_SKIP() << "not allowed to raise the hard limit here";
  ASSERT_EQ(rc, 0);
  EXPECT_EQ(debug_enable_core_files(), 0);
  int soft = 0, hard = 0;
  ASSERT_EQ(rlimit_get_core_file_limits(&soft, &hard), 0);
  EXPECT_EQ(soft, -1);  // unlimited, cut to int
  EXPECT_EQ(hard, -1);
}

TEST_F(DiagTest, PlatformErrorsPassTheSystemValuesThrough) {
  errno = ENOENT;
  EXPECT_EQ(get_last_platform_error(), ENOENT);
  EXPECT_EQ(get_last_platform_net_error(), ENOENT);
  EXPECT_STREQ(get_last_platform_error_str(), strerror(ENOENT));
  EXPECT_STREQ(get_platform_error_str(EACCES), strerror(EACCES));
}

TEST_F(DiagTest, TracedAllocationPrintsBothEnds) {
  testing::internal::CaptureStdout();
  void* p = debug_malloc(12, "label", "trace.c", 7);
  debug_free(p, "label", "trace.c", 8);
  std::string out = testing::internal::GetCapturedStdout();
  ASSERT_NE(p, nullptr);
  char expected[200];
  std::snprintf(expected, sizeof expected, "=M= %p - 12 - label (trace.c:7)\n=F= %p - label (trace.c:8)\n", p, p);
  EXPECT_EQ(out, expected);
}

}  // namespace
