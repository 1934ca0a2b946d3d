// ctest-labels: tsan
// Directory listing, walking, creation and deletion on real trees inside a
// private temporary directory.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <string>
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

struct Visit {
  std::string path;
  bool is_dir;
};

int record_visit(const char* name, void* info, void* custom) {
  static_cast<std::vector<Visit>*>(custom)->push_back({name, fileinfo_isdirectory(info) == 1});
  return 0;
}

std::vector<Visit> walk(const std::string& name, int recursive) {
  std::vector<Visit> seen;
  EXPECT_EQ(0, directory_foreach(name.c_str(), recursive, record_visit, &seen));
  return seen;
}

// Independent post-order listing in the system's directory order.
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
  if (*count < 0) return out;
  for (char** p = names; *p; ++p) {
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
  std::vector<Visit> seen = walk(root, 1);
  ASSERT_EQ(expected.size(), seen.size());
  for (size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(expected[i], seen[i].path) << i;
  auto at = [&](const std::string& rel) {
    for (size_t i = 0; i < seen.size(); ++i)
      if (seen[i].path == root + "/" + rel) return int(i);
    return -1;
  };
  EXPECT_LT(at("l1/l2/l3/d.txt"), at("l1/l2/l3"));
  EXPECT_LT(at("l1/l2/l3"), at("l1/l2"));
  EXPECT_LT(at("l1/l2"), at("l1"));
  EXPECT_TRUE(seen[at("l1/l2/l3")].is_dir);
  EXPECT_FALSE(seen[at("a.txt")].is_dir);

  // Without recursion only the top level; a trailing '/' adds no second one;
  // any recursive value but 1 does not descend.
  std::vector<Visit> top = walk(root + "/", 0);
  EXPECT_EQ(3u, top.size());
  for (const Visit& v : top) EXPECT_EQ(root + "/" + fs::path(v.path).filename().string(), v.path);
  EXPECT_EQ(3u, walk(root, 2).size());
  EXPECT_EQ(ERR_SYSTEM, directory_foreach(f("missing").c_str(), 1, record_visit, nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, directory_foreach(nullptr, 1, record_visit, nullptr));
}

TEST_F(DirectoryTest, RecursiveDeleteRemovesTheTreeAndNothingElse) {
  std::string root = make_tree();
  mkdir(f("outside").c_str(), 0700);
  vektest::write_file(f("outside/keep"), "keep");
  vektest::write_file(f("sibling"), "keep");
  ASSERT_EQ(0, symlink(f("outside").c_str(), f("root/l1/link").c_str()));
  EXPECT_EQ(0, directory_delete_recursive(root.c_str()));
  EXPECT_FALSE(exists("root"));
  EXPECT_EQ("keep", vektest::read_file(f("outside/keep"))) << "links are removed, not followed";
  EXPECT_TRUE(exists("sibling"));

  ASSERT_EQ(0, symlink(f("outside").c_str(), f("top").c_str()));
  EXPECT_EQ(0, directory_delete_recursive(f("top").c_str()));
  EXPECT_FALSE(exists("top"));
  EXPECT_TRUE(exists("outside/keep"));
  EXPECT_EQ(ERR_SYSTEM, directory_delete_recursive(f("missing").c_str()));
  EXPECT_EQ(ERR_INVALID_PARAMETER, directory_delete_recursive(nullptr));
}

TEST_F(DirectoryTest, QueryFiltersWithShellPatternsAndCountsBeyondTheArray) {
  for (const char* n : {"1.log", "2.log", "3.log", "4.log", "5.log", "notes.txt", "a\\b"}) vektest::write_file(f(n), "");
  char* e[2] = {nullptr, nullptr};
  EXPECT_EQ(5, directory_query(dir.path().c_str(), "*.log", e, 2));
  for (char* name : e) {
    ASSERT_NE(nullptr, name);
    EXPECT_TRUE(std::string(name).ends_with(".log"));
    vekFree(name);
  }
  EXPECT_EQ(5, directory_query(dir.path().c_str(), "*.log", nullptr, -1));
  EXPECT_EQ(7, directory_query(dir.path().c_str(), nullptr, nullptr, -1));
  EXPECT_EQ(1, directory_query(dir.path().c_str(), "a\\*", nullptr, -1)) << "backslash is literal";
  EXPECT_EQ(0, directory_query(dir.path().c_str(), "*.none", nullptr, -1));
  EXPECT_EQ(ERR_SYSTEM, directory_query(f("missing").c_str(), nullptr, nullptr, -1));
  EXPECT_EQ(ERR_SYSTEM, directory_query(f("notes.txt").c_str(), nullptr, nullptr, -1));
  EXPECT_EQ(ERR_INVALID_PARAMETER, directory_query(nullptr, nullptr, nullptr, -1));

  int count = 0;
  std::vector<std::string> names = list2(dir.path(), "*.log", &count);
  EXPECT_EQ(5, count);
  EXPECT_EQ(5u, std::set<std::string>(names.begin(), names.end()).size());
  EXPECT_EQ(0u, list2(f("missing"), nullptr, &count).size());
  EXPECT_EQ(ERR_SYSTEM, count);
  EXPECT_EQ(ERR_INVALID_PARAMETER, directory_query2(dir.path().c_str(), nullptr, nullptr));
}

TEST_F(DirectoryTest, UnreadableDirectoryIsASystemError) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads mode-000 directories";
  mkdir(f("closed").c_str(), 0700);
  vektest::write_file(f("closed/inside"), "x");
  chmod(f("closed").c_str(), 0);
  EXPECT_EQ(ERR_SYSTEM, directory_query(f("closed").c_str(), nullptr, nullptr, -1));
  EXPECT_EQ(1u, walk(dir.path(), 1).size()) << "the walk reports it and goes on";
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
  for (int rounds = 0; !done || rounds < 2; ++rounds) {
    int count = 0;
    std::vector<std::string> names = list2(dir.path(), nullptr, &count);
    ASSERT_GE(count, last) << "nothing is ever deleted here";
    ASSERT_EQ(size_t(count), names.size());
    ASSERT_EQ(names.size(), std::set<std::string>(names.begin(), names.end()).size());
    last = count;
  }
  grower.join();
  EXPECT_EQ(kFiles, last);
}

TEST_F(DirectoryTest, CreateAndCurrentDirectory) {
  EXPECT_EQ(0, directory_create(f("one").c_str()));
  EXPECT_EQ(17, directory_create(f("one").c_str()));
  EXPECT_EQ(ENOENT, directory_create(f("no/such").c_str()));
  EXPECT_EQ(0, directory_create_recursive(f("one/a/b/c/").c_str()));
  EXPECT_EQ(0, directory_create_recursive(f("one/a/b/c").c_str()));
  EXPECT_TRUE(fs::is_directory(f("one/a/b/c")));
  EXPECT_EQ(ERR_INVALID_PARAMETER, directory_create_recursive(nullptr));
  EXPECT_EQ(0, directory_delete(f("one/a/b/c").c_str()));
  EXPECT_EQ(-1, directory_delete(f("one").c_str()));
  EXPECT_TRUE(exists("one/a/b"));

  char saved[4096], here[4096];
  ASSERT_NE(nullptr, directory_cwd_get(saved, sizeof saved));
  ASSERT_EQ(0, directory_cwd_set(dir.path().c_str()));
  EXPECT_EQ(dir.path(), std::string(directory_cwd_get(here, sizeof here)));
  EXPECT_EQ(nullptr, directory_cwd_get(nullptr, 100));
  EXPECT_EQ(nullptr, directory_cwd_get(here, 2));
  EXPECT_EQ(-1, directory_cwd_set(f("missing").c_str()));
  ASSERT_EQ(0, directory_cwd_set(saved));
}

}  // namespace
