// The process log: start-up roll into ten generations, the banner, time
// stamps and the cut-off that ends logging for the run.
#include <sys/stat.h>

#include <cstdio>
#include <regex>
#include <string>

#include <vekutil/errors.h>
#include <vekutil/log.h>

#include "vek_test.hpp"

namespace {

// Points the log at nothing again and closes the stream a test opened
// (vekLogInit never closes an earlier one).
class LogTest : public vektest::LeakCheckedTest {
 protected:
  void TearDown() override {
    FILE* f = g_log_file;
    g_log_file = nullptr;
    if (f) fclose(f);
    LeakCheckedTest::TearDown();
  }
  vektest::TempDir dir_;
  std::string log_ = dir_.file("app.log");

  std::string generation(int i) const { return log_ + "." + std::to_string(i); }
  bool exists(const std::string& path) const {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
  }
};

const std::regex kBanner(
    "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d ==========================Log Started==========================\n");

void custom_hook(const char*, ...) {}

TEST_F(LogTest, NullNameStoresTheHookAndLeavesLoggingOff) {
  EXPECT_EQ(vekLogInit(nullptr, custom_hook), 0);
  EXPECT_EQ(g_vek_log_err_func, custom_hook);
  EXPECT_EQ(g_log_file, nullptr);
  EXPECT_EQ(vekLogInit(nullptr, nullptr), 0);
  EXPECT_EQ(g_vek_log_err_func, custom_hook) << "a NULL hook keeps the earlier one";
  log_vek_error("nowhere\n");  // logging off: nothing happens
}

TEST_F(LogTest, UnwritablePathIsNotFound) {
  EXPECT_EQ(vekLogInit(dir_.file("missing/dir/app.log").c_str(), nullptr), ERR_NOT_FOUND);
  EXPECT_EQ(g_log_file, nullptr);
}

TEST_F(LogTest, EntriesCarryATimeStampAndNoAddedLineFeed) {
  ASSERT_EQ(vekLogInit(log_.c_str(), nullptr), 0);
  log_vek_error("first %d", 1);
  log_vek_error("second %s\n", "line");
  std::string text = vektest::read_file(log_);
  std::regex expected(
      "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d =+Log Started=+\n"
      "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d first 1"
      "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d second line\n");
  EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST_F(LogTest, LogOfExactlyTheRollSizeIsAppendedTo) {
  std::string old(16384, 'o');
  vektest::write_file(log_, old);
  ASSERT_EQ(vekLogInit(log_.c_str(), nullptr), 0);
  std::string text = vektest::read_file(log_);
  ASSERT_GT(text.size(), old.size());
  EXPECT_EQ(text.substr(0, old.size()), old);
  EXPECT_TRUE(std::regex_match(text.substr(old.size()), kBanner));
  EXPECT_FALSE(exists(generation(1)));
}

TEST_F(LogTest, LongerLogIsRolledThroughTenGenerations) {
  std::string old(16385, 'n');
  vektest::write_file(log_, old);
  for (int i = 1; i <= 10; ++i)
    if (i != 4) vektest::write_file(generation(i), "generation " + std::to_string(i));

  ASSERT_EQ(vekLogInit(log_.c_str(), nullptr), 0);
  EXPECT_TRUE(std::regex_match(vektest::read_file(log_), kBanner)) << "a fresh log holds only the banner";
  EXPECT_EQ(vektest::read_file(generation(1)), old);
  EXPECT_EQ(vektest::read_file(generation(2)), "generation 1");
  EXPECT_EQ(vektest::read_file(generation(4)), "generation 3");
  EXPECT_FALSE(exists(generation(5))) << "the missing generation 4 leaves a gap one step later";
  EXPECT_EQ(vektest::read_file(generation(6)), "generation 5");
  EXPECT_EQ(vektest::read_file(generation(10)), "generation 9");
  EXPECT_FALSE(exists(generation(11)));
  // The old generation 10 is gone: no file holds its text any more.
  for (int i = 1; i <= 10; ++i) EXPECT_NE(vektest::read_file(generation(i)), "generation 10");
}

TEST_F(LogTest, LoggingStopsForGoodPastTheCutOff) {
  ASSERT_EQ(vekLogInit(log_.c_str(), nullptr), 0);
  const std::string line(99, 'x');
  int written = 0;
  while (ftell(g_log_file) <= 32768 && written < 1000) {
    log_vek_error("%s\n", line.c_str());
    ++written;
  }
  ASSERT_LT(written, 1000);
  FILE* stream = g_log_file;
  long size_at_cut = ftell(stream);
  log_vek_error("dropped\n");
  EXPECT_EQ(g_log_file, nullptr) << "the stream is given up, not closed";
  log_vek_error("dropped too\n");
  std::string text = vektest::read_file(log_);
  EXPECT_EQ((long)text.size(), size_at_cut);
  EXPECT_EQ(text.find("dropped"), std::string::npos);
  g_log_file = stream;  // let the fixture close it
}

TEST_F(LogTest, RollWithoutAStreamOrNameDoesNotCrash) {
  _log_roll(nullptr, log_.c_str());
  FILE* f = nullptr;
  _log_roll(&f, nullptr);
  EXPECT_EQ(f, nullptr);
  vektest::write_file(log_, "old");
  _log_roll(&f, log_.c_str());
  ASSERT_NE(f, nullptr);
  fclose(f);
  EXPECT_EQ(vektest::read_file(generation(1)), "old");
  EXPECT_EQ(vektest::read_file(log_), "");
}

}  // namespace
