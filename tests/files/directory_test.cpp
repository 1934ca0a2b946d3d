// ctest-labels: tsan
// Directory listing, walking, creation and deletion on real trees.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>
#include <vector>

#include <vekutil/directory.h>
#include <vekutil/fileinfo.h>

#include "vek_test.hpp"

namespace {

namespace fs = std::filesystem;

class DirectoryTest : public vektest::LeakCheckedTest {
 protected:
  vektest::TempDir dir;
  std::string f(const std::string& name) const { return dir.file(name); }
  bool exists(const std::string& name) const { return access(f(name).c_str(), F_OK) == 0; }

  // root/{a.txt, empty/, l1/{b.txt, l2/{c.txt, l3/{d.txt, e.txt}}}}
  std::string make_tree() {
    for (const char* d : {"root", "root/empty", "root/l1", "root/l1/l2", "root/l1/l2/l3"}) mkdir(f(d).c_str(), 0700);
    for (const char* file : {"root/a.txt", "root/l1/b.txt", "root/l1/l2/c.txt", "root/l1/l2/l3/d.txt", "root/l1/l2/l3/e.txt"})
      vektest::write_file(f(file), file);
    return f("root");
  }
};

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
  vektest::write_file(f("outside/keep"), "keep");
  ASSERT_EQ(0, symlink(f("outside").c_str(), f("root/l1/link").c_str()));
  ASSERT_EQ(0, symlink(f("outside").c_str(), f("top").c_str()));
  ASSERT_EQ(0, symlink(f("gone").c_str(), f("root/l1/l2/dangling").c_str()));
  EXPECT_EQ(0, directory_delete_recursive(root.c_str()));
  EXPECT_EQ(0, directory_delete_recursive((f("top") + "//").c_str())) << "a trailing '/' does not follow the link";
  EXPECT_FALSE(exists("root"));
  EXPECT_FALSE(exists("top"));
  EXPECT_EQ("keep", vektest::read_file(f("outside/keep"))) << "links are removed, not followed";
  EXPECT_EQ(ERR_SYSTEM, directory_delete_recursive(f("missing").c_str()));
}

TEST_F(DirectoryTest, QueryFiltersWithShellPatternsAndCountsBeyondTheArray) {
  for (const char* n : {"1.log", "2.log", "3.log", "4.log", "5.log", "a\\b"}) vektest::write_file(f(n), "");
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
  vektest::write_file(f("closed/inside"), "x");
  chmod(f("closed").c_str(), 0);
  EXPECT_EQ(ERR_SYSTEM, directory_query(f("closed").c_str(), nullptr, nullptr, -1));
  EXPECT_EQ(std::vector<std::string>{f("closed")}, walk(dir.path(), 1));
  chmod(f("closed").c_str(), 0700);
}

TEST_F(DirectoryTest, Query2StaysConsistentWhileTheDirectoryGrows) {
  constexpr int kFiles = 400;
  std::atomic<bool> done{false};
  std::thread grower([&] {
    for (int i = 0; i < kFiles; ++i) vektest::write_file(f("g" + std::to_string(i)), "");
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
  vektest::write_file(f("file"), "");
  EXPECT_EQ(ENOTDIR, directory_create_recursive(f("file").c_str()));
  EXPECT_EQ(0, directory_delete(f("one/a/b/c").c_str()));
  EXPECT_EQ(-1, directory_delete(f("one").c_str()));
  EXPECT_TRUE(exists("one/a/b"));

  EXPECT_EQ(nullptr, directory_cwd_get(nullptr, 100)) << "never a buffer from outside the allocator";
}

}  // namespace
