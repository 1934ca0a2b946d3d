// test-main: own
// Directory walks in default allocator mode, where releasing NULL counts a
// block down: a walk that frees NULL makes the count drift and hide leaks.
#include <string>

#include <vekutil/vekutil.h>

#include "vek_test.hpp"

namespace {

int nothing(const char*, void*, void*) { return 0; }

// Operations on a small tree, each repeated so that a drift stands out.
struct Walk {
  const char* name;
  void (*run)(const std::string& top);
};

void make_tree(const std::string& top) {
  directory_create_recursive((top + "/a/b/c").c_str());
  directory_create_recursive((top + "/d").c_str());
  vektest::write_file(top + "/a/one.txt", "1");
  vektest::write_file(top + "/a/b/c/two.txt", "2");
}

const Walk kWalks[] = {
    {"delete recursive", [](const std::string& top) { directory_delete_recursive(top.c_str()); }},
    {"create recursive", [](const std::string& top) { directory_create_recursive((top + "/x/y/").c_str()); }},
    {"foreach", [](const std::string& top) { directory_foreach(top.c_str(), 1, nothing, nullptr); }},
    {"query2", [](const std::string& top) {
       char** names = nullptr;
       int n = directory_query2((top + "/a").c_str(), "*", &names);
       for (int i = 0; i < n; ++i) vekFree(names[i]);
       if (n >= 0) vekFree(names);
     }},
};

TEST(DirectoryDefaultMemory, WalksKeepTheBlockCountExact) {
  vektest::TempDir dir;
  const std::string top = dir.file("tree");
  for (const Walk& walk : kWalks) {
    SCOPED_TRACE(walk.name);
    long long blocks = vekMemoryBlockUsed();
    for (int i = 0; i < 20; ++i) {
      make_tree(top);
      walk.run(top);
    }
    EXPECT_EQ(blocks, vekMemoryBlockUsed());
  }
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
