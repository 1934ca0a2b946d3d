// File stream, paths, delete/copy/move/chmod, rolling, lock files, file information.
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include <vekutil/file.h>
#include <vekutil/file.lock.h>
#include <vekutil/fileinfo.h>

#include "vek_test.hpp"

namespace {

using vektest::read_file;
using vektest::write_file;

class FileTest : public vektest::LeakCheckedTest {
 protected:
  vektest::TempDir dir;
  std::string f(const std::string& name) const { return dir.file(name); }
  bool exists(const std::string& name) const { return access(f(name).c_str(), F_OK) == 0; }
  mode_t mode_of(const std::string& name) const {
    struct stat st{};
    stat(f(name).c_str(), &st);
    return st.st_mode & 07777;
  }
};

std::string absolute(const char* path) { return vektest::take_text(file_absolute_path(path)); }

TEST_F(FileTest, StreamDeliversEveryByteAcrossRefillsThenStaysAtEnd) {
  std::string data;
  for (int i = 0; i < 10000; ++i) data += char(i * 7);
  write_file(f("data"), data);
  void* s = nullptr;
  ASSERT_EQ(0, filestream_open(&s, f("data").c_str()));
  std::string got;
  char ch;
  while (filestream_read(s, &ch) == 0) got += ch;
  EXPECT_EQ(data, got);
  EXPECT_EQ(-1, filestream_read(s, &ch));
  EXPECT_EQ(0, filestream_close(s));

  EXPECT_EQ(ERR_FILE_NOT_FOUND, filestream_open(&s, f("missing").c_str()));
  EXPECT_EQ(ERR_INVALID_PARAMETER, filestream_read(nullptr, &ch));
}

TEST_F(FileTest, NameChecks) {
  EXPECT_EQ(0, file_is_valid_name("a/../b", 1));
  EXPECT_EQ(ERR_FILE_TRAVERSAL, file_is_valid_name("a/../b", 0));
  for (const char* bad : {"a:b", "a?", "*", "<x", "x>", "a|b"}) EXPECT_EQ(ERR_FILE_INVALID_NAME, file_is_valid_name(bad, 1)) << bad;
  EXPECT_EQ(ERR_INVALID_PARAMETER, file_is_valid_name(nullptr, 1));
}

TEST_F(FileTest, AbsolutePathCleansUpLexicallyIncludingItsKeptQuirks) {
  EXPECT_EQ("/x/y", absolute("//x\\y/./z/.."));
  EXPECT_EQ("/a/c", absolute("/a/b/../c"));
  EXPECT_EQ("", absolute("/a/.."));
  EXPECT_EQ("/srv/ucfg", absolute("/srv/u/.cfg"));
  EXPECT_EQ("<null>", absolute(nullptr));

  char saved[4096];
  ASSERT_NE(nullptr, getcwd(saved, sizeof saved));
  ASSERT_EQ(0, chdir(dir.path().c_str()));
  EXPECT_EQ(dir.path(), absolute("."));
  EXPECT_EQ(dir.path() + "/a/b/", absolute("a//b/"));
  std::string to_root = "a/..";  // then one ".." per component of the temp path
  for (char c : dir.path()) to_root += c == '/' ? "/.." : "";
  EXPECT_EQ("", absolute(to_root.c_str()));
  ASSERT_EQ(0, chdir(saved));
}

TEST_F(FileTest, DeleteCopyAndMove) {
  write_file(f("src"), std::string(5000, 'q') + "tail");
  mkdir(f("full").c_str(), 0700);
  write_file(f("full/keep"), "keep");
  EXPECT_EQ(ERR_SYSTEM, file_delete(f("full").c_str()));
  EXPECT_EQ("keep", read_file(f("full/keep")));
  EXPECT_EQ(0, file_delete(f("full/keep").c_str()));
  EXPECT_EQ(0, file_delete(f("full").c_str()));
  EXPECT_EQ(ERR_FILE_NOT_FOUND, file_delete(f("full").c_str()));

  EXPECT_EQ(0, file_copy(f("src").c_str(), f("copy").c_str()));
  EXPECT_EQ(read_file(f("src")), read_file(f("copy")));
  EXPECT_EQ(ERR_FILE_NOT_FOUND, file_copy(f("missing").c_str(), f("x").c_str()));
  EXPECT_EQ(ERR_FILE_CREATE, file_copy(f("src").c_str(), f("no/dir/x").c_str()));
  EXPECT_EQ(ERR_FILE_CREATE, file_copy(f("src").c_str(), (dir.path() + "//src").c_str()));
  EXPECT_EQ(read_file(f("copy")), read_file(f("src"))) << "a copy onto itself keeps the source";
  EXPECT_EQ(ERR_SYSTEM, file_copy(dir.path().c_str(), f("x").c_str())) << "a directory reads as an error";

  struct timeval old_times[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(0, utimes(f("copy").c_str(), old_times));
  EXPECT_EQ(0, file_move(f("copy").c_str(), f("moved").c_str()));
  EXPECT_FALSE(exists("copy"));
  struct stat st{};
  stat(f("moved").c_str(), &st);
  EXPECT_GT(st.st_mtime, time(nullptr) - 60) << "a moved file is touched";
  EXPECT_EQ(ERR_FILE_NOT_FOUND, file_move(f("copy").c_str(), f("again").c_str()));
}

TEST_F(FileTest, ChmodGrantsEachFlagToEveryone) {
  write_file(f("m"), "");
  const struct { int flags; mode_t bits; } table[] = {{1, 0444}, {2, 0222}, {3, 0666}, {4, 0111}, {5, 0555}, {7, 0777}, {0, 0}};
  for (auto row : table) {
    EXPECT_EQ(0, file_chmod(f("m").c_str(), row.flags));
    EXPECT_EQ(row.bits, mode_of("m")) << row.flags;
  }
  EXPECT_EQ(-1, file_chmod(f("missing").c_str(), 7));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(FileTest, RollShiftsNumberedCopiesAndLeavesOverlongNamesAlone) {
  for (const char* n : {"log", "log.1", "log.2"}) write_file(f(n), n);
  file_roll(f("log").c_str(), 2);
  EXPECT_FALSE(exists("log"));
  EXPECT_EQ("log", read_file(f("log.1")));
  EXPECT_EQ("log.1", read_file(f("log.2")));
  EXPECT_FALSE(exists("log.3"));
  write_file(f("log"), "new");
  file_roll(f("log").c_str(), 0);
  file_roll(f("log").c_str(), -2);  // deletes "log.-2" only
  file_roll(nullptr, 3);
  EXPECT_EQ("new", read_file(f("log")));
  EXPECT_EQ("log", read_file(f("log.1")));

  // Cut to 146 bytes, every "name.N" would be the file's own prefix.
  std::string name = f(std::string(150 - dir.path().size(), 'n'));
  std::string prefix = name.substr(0, 146);
  write_file(name, "current");
  write_file(prefix, "other");
  file_roll(name.c_str(), 3);
  EXPECT_EQ("current", read_file(name));
  EXPECT_EQ("other", read_file(prefix));
}

TEST_F(FileTest, LockFileIsExclusiveEmptyAndReleasable) {
  int id = -1, second = -1;
  ASSERT_EQ(0, file_lock(f("lock").c_str(), &id));
  EXPECT_EQ(ERR_FILE_ACCESS_DENIED, file_lock(f("lock").c_str(), &second));
  EXPECT_EQ(0, second);
  EXPECT_EQ("", read_file(f("lock")));
  EXPECT_EQ(0700, mode_of("lock"));
  EXPECT_EQ(0, file_unlock(f("lock").c_str(), id));
  EXPECT_FALSE(exists("lock"));
  ASSERT_EQ(0, file_lock(f("lock").c_str(), &id));
  EXPECT_EQ(0, file_unlock(f("lock").c_str(), id));
  EXPECT_EQ(ERR_SYSTEM, file_lock(f("no/dir/lock").c_str(), &second));
  write_file(f("held"), "");
  EXPECT_EQ(ERR_SYSTEM, file_unlock(f("held").c_str(), -1));
  EXPECT_TRUE(exists("held")) << "a failed unlock keeps the file";
}

using FileinfoTest = FileTest;

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
