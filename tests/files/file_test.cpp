// ctest-labels: tsan
// Files and directories on real trees: stream, paths, copy/move/chmod, rolling,
// lock files, file information; listing, walking, creation and deletion.
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <thread>
#include <vector>

#include <vekutil/directory.h>
#include <vekutil/file.h>
#include <vekutil/file.lock.h>
#include <vekutil/fileinfo.h>

#include "vek_test.hpp"

namespace {

namespace fs = std::filesystem;
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
  // root/{a.txt, empty/, l1/{b.txt, l2/{c.txt, l3/{d.txt, e.txt}}}}
  std::string make_tree() {
    for (const char* d : {"root", "root/empty", "root/l1", "root/l1/l2", "root/l1/l2/l3"}) mkdir(f(d).c_str(), 0700);
    for (const char* file : {"root/a.txt", "root/l1/b.txt", "root/l1/l2/c.txt", "root/l1/l2/l3/d.txt", "root/l1/l2/l3/e.txt"})
      write_file(f(file), file);
    return f("root");
  }
};
using DirectoryTest = FileTest;

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

TEST_F(FileTest, NamesAreCheckedAndAbsolutePathsCleanedUpLexicallyWithTheirKeptQuirks) {
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

  EXPECT_EQ(0, file_is_valid_name("a/../b", 1));
  EXPECT_EQ(ERR_FILE_TRAVERSAL, file_is_valid_name("a/../b", 0));
  for (const char* bad : {"a:b", "a?", "*", "<x", "x>", "a|b"}) EXPECT_EQ(ERR_FILE_INVALID_NAME, file_is_valid_name(bad, 1)) << bad;
  EXPECT_EQ(ERR_INVALID_PARAMETER, file_is_valid_name(nullptr, 1));
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
  write_file(path, "");
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

int record_path(const char* name, void*, void* custom) {
  static_cast<std::vector<std::string>*>(custom)->push_back(name);
  return 0;
}

std::vector<std::string> walk(const std::string& name, int recursive) {
  std::vector<std::string> seen;
  EXPECT_EQ(0, directory_foreach(name.c_str(), recursive, record_path, &seen));
  return seen;
}

// An independent post-order listing in the system's directory order.
void post_order(const fs::path& d, std::vector<std::string>& out) {
  for (const auto& e : fs::directory_iterator(d)) {
    if (e.is_directory()) post_order(e.path(), out);
    out.push_back(e.path().string());
  }
}

std::vector<std::string> list2(const std::string& name, const char* pattern, int* count) {
  char** names = nullptr;
  *count = directory_query2(name.c_str(), pattern, &names);
  std::vector<std::string> out;
  for (char** p = names; p && *p; ++p) {
    out.push_back(*p);
    vekFree(*p);
  }
  vekFree(names);
  return out;
}

TEST_F(DirectoryTest, RecursiveWalkVisitsContentsBeforeEachDirectory) {
  std::string root = make_tree();
  std::vector<std::string> expected;
  post_order(root, expected);
  EXPECT_EQ(expected, walk(root, 1));
  EXPECT_EQ(9u, expected.size());

  std::vector<std::string> top = walk(root + "/", 2);  // only 1 is recursive
  EXPECT_EQ(3u, top.size());
  for (const std::string& p : top) EXPECT_EQ(std::string::npos, p.find("//"));
  EXPECT_EQ(ERR_SYSTEM, directory_foreach(f("missing").c_str(), 1, record_path, nullptr));
}

TEST_F(DirectoryTest, RecursiveDeleteRemovesTheTreeAndNothingElse) {
  std::string root = make_tree();
  mkdir(f("outside").c_str(), 0700);
  write_file(f("outside/keep"), "keep");
  ASSERT_EQ(0, symlink(f("outside").c_str(), f("root/l1/link").c_str()));
  ASSERT_EQ(0, symlink(f("outside").c_str(), f("top").c_str()));
  ASSERT_EQ(0, symlink(f("gone").c_str(), f("root/l1/l2/dangling").c_str()));
  EXPECT_EQ(0, directory_delete_recursive(root.c_str()));
  EXPECT_EQ(0, directory_delete_recursive((f("top") + "//").c_str())) << "a trailing '/' does not follow the link";
  EXPECT_FALSE(exists("root"));
  EXPECT_FALSE(exists("top"));
  EXPECT_EQ("keep", read_file(f("outside/keep"))) << "links are removed, not followed";
  EXPECT_EQ(ERR_SYSTEM, directory_delete_recursive(f("missing").c_str()));
}

TEST_F(DirectoryTest, QueryFiltersWithShellPatternsAndCountsBeyondTheArray) {
  for (const char* n : {"1.log", "2.log", "3.log", "4.log", "5.log", "a\\b"}) write_file(f(n), "");
  char* e[2] = {nullptr, nullptr};
  EXPECT_EQ(5, directory_query(dir.path().c_str(), "*.log", e, 2));
  for (char* name : e) {
    EXPECT_TRUE(name && std::string(name).ends_with(".log"));
    vekFree(name);
  }
  EXPECT_EQ(6, directory_query(dir.path().c_str(), nullptr, nullptr, -1));
  EXPECT_EQ(1, directory_query(dir.path().c_str(), "a\\*", nullptr, -1)) << "backslash is literal";
  EXPECT_EQ(ERR_SYSTEM, directory_query(f("1.log").c_str(), nullptr, nullptr, -1));

  int count = 0;
  std::vector<std::string> names = list2(dir.path(), "*.log", &count);
  EXPECT_EQ(5, count);
  EXPECT_EQ(5u, std::set<std::string>(names.begin(), names.end()).size());
  list2(f("missing"), nullptr, &count);
  EXPECT_EQ(ERR_SYSTEM, count);
}

TEST_F(DirectoryTest, UnreadableDirectoryIsASystemErrorAndTheWalkGoesOn) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads mode-000 directories";
  mkdir(f("closed").c_str(), 0700);
  write_file(f("closed/inside"), "x");
  chmod(f("closed").c_str(), 0);
  EXPECT_EQ(ERR_SYSTEM, directory_query(f("closed").c_str(), nullptr, nullptr, -1));
  EXPECT_EQ(std::vector<std::string>{f("closed")}, walk(dir.path(), 1));
  chmod(f("closed").c_str(), 0700);
}

TEST_F(DirectoryTest, Query2StaysConsistentWhileTheDirectoryGrows) {
  constexpr int kFiles = 400;
  std::atomic<bool> done{false};
  std::thread grower([&] {
    for (int i = 0; i < kFiles; ++i) write_file(f("g" + std::to_string(i)), "");
    done = true;
  });
  int last = 0;
  for (bool finished = false; !finished;) {
    finished = done;  // the listing below then sees every file
    int count = 0;
    std::vector<std::string> names = list2(dir.path(), nullptr, &count);
    ASSERT_GE(count, last);
    ASSERT_EQ(size_t(count), std::set<std::string>(names.begin(), names.end()).size());
    last = count;
  }
  grower.join();
  EXPECT_EQ(kFiles, last);
}

TEST_F(DirectoryTest, CreateAndDelete) {
  EXPECT_EQ(0, directory_create(f("one").c_str()));
  EXPECT_EQ(17, directory_create(f("one").c_str()));
  EXPECT_EQ(0, directory_create_recursive(f("one/a/b/c/").c_str()));
  EXPECT_TRUE(fs::is_directory(f("one/a/b/c")));
  EXPECT_EQ(0, directory_create_recursive(f("one/a").c_str())) << "an existing directory is fine";
  EXPECT_NE(0, directory_create_recursive("/proc/no/such/dir"));
  write_file(f("file"), "");
  EXPECT_EQ(ENOTDIR, directory_create_recursive(f("file").c_str()));
  EXPECT_EQ(0, directory_delete(f("one/a/b/c").c_str()));
  EXPECT_EQ(-1, directory_delete(f("one").c_str()));
  EXPECT_TRUE(exists("one/a/b"));

  EXPECT_EQ(nullptr, directory_cwd_get(nullptr, 100)) << "never a buffer from outside the allocator";
}

}  // namespace
