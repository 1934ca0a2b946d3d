// File information on real files: numbers, texts and bad input.
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>

#include <vekutil/fileinfo.h>

#include "vek_test.hpp"

namespace {

class FileinfoTest : public vektest::LeakCheckedTest {
 protected:
  vektest::TempDir dir;
};

TEST_F(FileinfoTest, RegularFileTimesAsUtcTextAndSizesBeyondTwoGigabytes) {
  setenv("TZ", "UTC", 1);
  tzset();
  std::string path = dir.file("f");
  vektest::write_file(path, "");
  ASSERT_EQ(0, truncate(path.c_str(), 5LL << 30));  // sparse: no disk space used
  struct timeval times[2] = {{1709802301, 0}, {1709802301, 0}};  // 2024-03-07 09:05:01
  ASSERT_EQ(0, utimes(path.c_str(), times));
  void* info = nullptr;
  ASSERT_EQ(0, fileinfo_create(&info, path.c_str()));
  EXPECT_EQ(5LL << 30, fileinfo_size(info));
  EXPECT_EQ(1, fileinfo_isfile(info));
  EXPECT_EQ(0, fileinfo_isdirectory(info));
  EXPECT_STREQ("Regular File", fileinfo_type_str(info));
  EXPECT_EQ(1709802301u, fileinfo_modified_time(info));
  EXPECT_STREQ("03/07/2024  9:05:01", fileinfo_modified_time_str(info));
  EXPECT_STREQ("03/07/2024  9:05:01", fileinfo_accessed_time_str(info));
  fileinfo_delete(info);
  unsetenv("TZ");
  tzset();
}

TEST_F(FileinfoTest, DirectoriesWithTrailingSeparatorAndOtherTypes) {
  mkdir(dir.file("d").c_str(), 0700);
  void* info = nullptr;
  for (const char* name : {"d", "d/", "d\\"}) {
    ASSERT_EQ(0, fileinfo_create(&info, dir.file(name).c_str())) << name;
    EXPECT_STREQ("Directory", fileinfo_type_str(info));
    fileinfo_delete(info);
  }
  ASSERT_EQ(0, fileinfo_create(&info, "/"));
  EXPECT_EQ(1, fileinfo_isdirectory(info));
  // A FIFO is "Unknown" and leaves the record's type number as it was.
  ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
  ASSERT_EQ(0, fileinfo_query(info, dir.file("fifo").c_str()));
  EXPECT_STREQ("Unknown", fileinfo_type_str(info));
  EXPECT_EQ(1, fileinfo_isdirectory(info));
  fileinfo_delete(info);
}

TEST_F(FileinfoTest, EmptyRecordMissingFilesAndNullHandles) {
  void* info = &info;
  EXPECT_EQ(ERR_FILE_NOT_FOUND, fileinfo_create(&info, dir.file("missing").c_str()));
  EXPECT_EQ(nullptr, info);
  ASSERT_EQ(0, fileinfo_create(&info, nullptr));
  EXPECT_EQ(0, fileinfo_isfile(info) + fileinfo_isdirectory(info) + fileinfo_size(info));
  EXPECT_EQ(ERR_FILE_NOT_FOUND, fileinfo_query(info, dir.file("missing").c_str()));
  EXPECT_EQ(ERR_INVALID_PARAMETER, fileinfo_query(info, nullptr));
  fileinfo_delete(info);

  EXPECT_EQ(ERR_INVALID_HANDLE, fileinfo_query(nullptr, dir.path().c_str()));
  EXPECT_EQ(4294960288u, fileinfo_created_time(nullptr));
  EXPECT_EQ(nullptr, fileinfo_type_str(nullptr));
}

}  // namespace
