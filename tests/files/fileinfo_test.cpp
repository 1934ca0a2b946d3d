// File information on real files: numbers, texts and bad input.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include <vekutil/fileinfo.h>

#include "vek_test.hpp"

namespace {

class FileinfoTest : public vektest::LeakCheckedTest {
 protected:
  vektest::TempDir dir;
};

TEST_F(FileinfoTest, RegularFileWithFixedTimesInUtc) {
  setenv("TZ", "UTC", 1);
  tzset();
  std::string path = dir.file("f");
  vektest::write_file(path, "12345");
  struct timeval times[2] = {{1709802301, 0}, {1709802301, 0}};  // 2024-03-07 09:05:01
  ASSERT_EQ(0, utimes(path.c_str(), times));
  void* info = nullptr;
  ASSERT_EQ(0, fileinfo_create(&info, path.c_str()));
  EXPECT_EQ(5, fileinfo_size(info));
  EXPECT_EQ(1, fileinfo_isfile(info));
  EXPECT_EQ(0, fileinfo_isdirectory(info));
  EXPECT_STREQ("Regular File", fileinfo_type_str(info));
  EXPECT_EQ(1709802301u, fileinfo_modified_time(info));
  EXPECT_EQ(1709802301u, fileinfo_accessed_time(info));
  EXPECT_STREQ("03/07/2024  9:05:01", fileinfo_modified_time_str(info));
  EXPECT_STREQ("03/07/2024  9:05:01", fileinfo_accessed_time_str(info));
  EXPECT_EQ(19u, strlen(fileinfo_created_time_str(info)));
  EXPECT_EQ(0, fileinfo_delete(info));
  unsetenv("TZ");
  tzset();
}

TEST_F(FileinfoTest, DirectoryWithTrailingSeparatorAndOtherTypes) {
  mkdir(dir.file("d").c_str(), 0700);
  void* info = nullptr;
  for (const char* suffix : {"d", "d/", "d\\"}) {
    ASSERT_EQ(0, fileinfo_create(&info, dir.file(suffix).c_str())) << suffix;
    EXPECT_EQ(1, fileinfo_isdirectory(info));
    EXPECT_STREQ("Directory", fileinfo_type_str(info));
    fileinfo_delete(info);
  }
  ASSERT_EQ(0, fileinfo_create(&info, "/"));
  EXPECT_EQ(1, fileinfo_isdirectory(info));
  // Querying a FIFO into a record that held a directory keeps the type number.
  ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
  ASSERT_EQ(0, fileinfo_query(info, dir.file("fifo").c_str()));
  EXPECT_STREQ("Unknown", fileinfo_type_str(info));
  EXPECT_EQ(1, fileinfo_isdirectory(info));
  fileinfo_delete(info);
}

TEST_F(FileinfoTest, SizesBeyondTwoGigabytes) {
  std::string path = dir.file("big");
  int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, ftruncate(fd, 5LL << 30));  // sparse: no disk space used
  close(fd);
  void* info = nullptr;
  ASSERT_EQ(0, fileinfo_create(&info, path.c_str()));
  EXPECT_EQ(5LL << 30, fileinfo_size(info));
  fileinfo_delete(info);
}

TEST_F(FileinfoTest, EmptyRecordMissingFilesAndNullHandles) {
  void* info = reinterpret_cast<void*>(1);
  EXPECT_EQ(ERR_FILE_NOT_FOUND, fileinfo_create(&info, dir.file("missing").c_str()));
  EXPECT_EQ(nullptr, info);
  ASSERT_EQ(0, fileinfo_create(&info, nullptr));
  EXPECT_EQ(0, fileinfo_isfile(info));
  EXPECT_EQ(0, fileinfo_isdirectory(info));
  EXPECT_EQ(0, fileinfo_size(info));
  EXPECT_EQ(ERR_FILE_NOT_FOUND, fileinfo_query(info, dir.file("missing").c_str()));
  EXPECT_EQ(ERR_INVALID_PARAMETER, fileinfo_query(info, nullptr));
  fileinfo_delete(info);

  EXPECT_EQ(ERR_INVALID_PARAMETER, fileinfo_create(nullptr, "x"));
  EXPECT_EQ(ERR_INVALID_HANDLE, fileinfo_query(nullptr, dir.path().c_str()));
  EXPECT_EQ(ERR_INVALID_HANDLE, fileinfo_delete(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, fileinfo_size(nullptr));
  EXPECT_EQ(4294960288u, fileinfo_created_time(nullptr));
  EXPECT_EQ(4294960288u, fileinfo_modified_time(nullptr));
  EXPECT_EQ(4294960288u, fileinfo_accessed_time(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, fileinfo_isfile(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, fileinfo_isdirectory(nullptr));
  EXPECT_EQ(nullptr, fileinfo_type_str(nullptr));
  EXPECT_EQ(nullptr, fileinfo_modified_time_str(nullptr));
}

}  // namespace
