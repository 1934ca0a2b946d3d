// The process log: start-up roll, the banner, and the cut-off for the run.
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <regex>

#include <vekutil/errors.h>
#include <vekutil/log.h>

#include "vek_test.hpp"

namespace {

const std::string kStamp = "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d ";
const std::regex kBannerOnly(kStamp + "=+Log Started=+\n");

// Closes whatever stream a test left open: vekLogInit never closes one.
class LogTest : public vektest::LeakCheckedTest {
 protected:
  void TearDown() override {
    if (g_log_file) fclose(g_log_file);
    g_log_file = nullptr;
    LeakCheckedTest::TearDown();
  }
  vektest::TempDir dir_;
  std::string log_ = dir_.file("app.log");
  std::string gen(int i) const { return log_ + "." + std::to_string(i); }
};

void hook(const char*, ...) {}

TEST_F(LogTest, InitWithoutNameOrWithBadPath) {
  EXPECT_EQ(vekLogInit(nullptr, hook), 0);
  EXPECT_EQ(vekLogInit(nullptr, nullptr), 0);
  EXPECT_EQ(g_vek_log_err_func, hook) << "a NULL hook keeps the earlier one";
  EXPECT_EQ(g_log_file, nullptr) << "logging stays off";
  EXPECT_EQ(vekLogInit(dir_.file("missing/app.log").c_str(), nullptr), ERR_NOT_FOUND);
  EXPECT_EQ(g_log_file, nullptr);
}

TEST_F(LogTest, EntriesAreStampedAndLogOfRollSizeIsAppendedTo) {
  std::string old(16384, 'o');
  vektest::write_file(log_, old);
  ASSERT_EQ(vekLogInit(log_.c_str(), nullptr), 0);
  log_vek_error("first %d", 1);  // no line feed is added
  log_vek_error("second\n");
  std::string text = vektest::read_file(log_);
  EXPECT_EQ(text.substr(0, old.size()), old);
  EXPECT_TRUE(std::regex_match(text.substr(old.size()),
                               std::regex(kStamp + "=+Log Started=+\n" + kStamp + "first 1" + kStamp + "second\n")))
      << text.substr(old.size());
}

TEST_F(LogTest, LongerLogIsRolledThroughTenGenerations) {
  std::string old(16385, 'n');
  vektest::write_file(log_, old);
  for (int i = 1; i <= 10; ++i)
    if (i != 4) vektest::write_file(gen(i), "gen " + std::to_string(i));
  ASSERT_EQ(vekLogInit(log_.c_str(), nullptr), 0);
  EXPECT_TRUE(std::regex_match(vektest::read_file(log_), kBannerOnly));
  EXPECT_EQ(vektest::read_file(gen(1)), old);
  EXPECT_EQ(vektest::read_file(gen(2)), "gen 1");
  EXPECT_EQ(vektest::read_file(gen(4)), "gen 3");
  struct stat st;
  EXPECT_NE(stat(gen(5).c_str(), &st), 0) << "the missing generation leaves a gap one step on";
  EXPECT_EQ(vektest::read_file(gen(10)), "gen 9") << "the old generation 10 is deleted first";
  EXPECT_NE(stat(gen(11).c_str(), &st), 0);
}

// Generations that would be cut to the name itself: no roll, the log is kept.
TEST_F(LogTest, NameTooLongForItsGenerationsKeepsTheLog) {
  std::string name = dir_.file("");
  name += std::string(146 - name.size(), 'L');
  const std::string old(16385, 'k');
  vektest::write_file(name, old);
  ASSERT_EQ(vekLogInit(name.c_str(), nullptr), 0);
  const std::string text = vektest::read_file(name);
  EXPECT_EQ(text.substr(0, old.size()), old);
  EXPECT_TRUE(std::regex_match(text.substr(old.size()), kBannerOnly));
}

int open_descriptors() {
  int n = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) n += entry.exists() ? 1 : 0;
  return n;
}

TEST_F(LogTest, LoggingStopsForGoodPastTheCutOffAndClosesTheLog) {
  const int descriptors = open_descriptors();
  ASSERT_EQ(vekLogInit(log_.c_str(), nullptr), 0);
  for (int i = 0; i < 1000 && ftell(g_log_file) <= 32768; ++i) log_vek_error("%099d\n", i);
  long size_at_cut = ftell(g_log_file);
  ASSERT_GT(size_at_cut, 32768);
  log_vek_error("dropped\n");
  EXPECT_EQ(g_log_file, nullptr) << "the stream is given up";
  EXPECT_EQ(open_descriptors(), descriptors) << "and closed";
  log_vek_error("dropped too\n");
  EXPECT_EQ((long)vektest::read_file(log_).size(), size_at_cut);
}

}  // namespace
