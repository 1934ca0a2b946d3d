#include <vekutil/errors.h>
#include <vekutil/ptree.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "vek_test.hpp"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

class PTreeTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_EQ(0, ptree_create(&tree_));
  }
  void TearDown() override {
    EXPECT_EQ(0, ptree_delete(tree_));
    LeakCheckedTest::TearDown();
  }
  static Entries walk(void* tree) {
    Entries out;
    ptree_foreach(
        tree,
        [](const char* k, const char* v, void* custom) {
          static_cast<Entries*>(custom)->emplace_back(k, v);
          return 0;
        },
        &out);
    return out;
  }
  void* tree_ = nullptr;
};

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

TEST_F(PTreeTest, NamesIgnoreCaseKeepTheirFirstSpellingAndPlaceAndWalksStopOnRequest) {
  ASSERT_EQ(0, ptree_insert(tree_, "Content-Type", "text/plain"));
  ASSERT_EQ(0, ptree_insert(tree_, "Host", "a:80"));
  ASSERT_EQ(0, ptree_insert(tree_, "content-TYPE", "text/html"));
  ASSERT_EQ(0, ptree_insert(tree_, "X-Empty", ""));
  EXPECT_EQ(3, ptree_count(tree_));
  EXPECT_STREQ("text/html", ptree_find_by_key(tree_, "CONTENT-type"));
  EXPECT_STREQ("", ptree_find_by_key(tree_, "x-empty"));
  EXPECT_EQ(nullptr, ptree_find_by_key(tree_, "Content-Typ"));
  EXPECT_EQ(nullptr, ptree_find_by_key(tree_, "Content-Type2"));
  EXPECT_EQ((Entries{{"Content-Type", "text/html"}, {"Host", "a:80"}, {"X-Empty", ""}}), walk(tree_));

  for (const char* k : {"a", "b", "c"}) ASSERT_EQ(0, ptree_insert(tree_, k, "v"));
  int visits = 0;
  const int rc = ptree_foreach(
      tree_, [](const char* k, const char*, void* custom) { return ++*static_cast<int*>(custom), k[0] == 'b' ? 42 : 0; },
      &visits);
  EXPECT_EQ(42, rc);
  EXPECT_EQ(5, visits) << "three names before a, b";
}

TEST_F(PTreeTest, MatchesAModelOverManyRandomInsertsThroughGrowth) {
  std::mt19937 rng(7);
  Entries model;  // insertion order, first spelling
  for (int i = 0; i < 5000; ++i) {
    std::string key = "h" + std::to_string(rng() % 1500);
    if (rng() % 2) key = lower(key) == key ? "H" + key.substr(1) : key;
    const std::string value = std::to_string(i);
    ASSERT_EQ(0, ptree_insert(tree_, key.c_str(), value.c_str()));
    auto it = std::find_if(model.begin(), model.end(), [&](const auto& e) { return lower(e.first) == lower(key); });
    if (it == model.end())
      model.emplace_back(key, value);
    else
      it->second = value;
  }
  ASSERT_EQ(static_cast<int>(model.size()), ptree_count(tree_));
  EXPECT_EQ(model, walk(tree_));
  for (const auto& [key, value] : model) {
    const char* found = ptree_find_by_key(tree_, lower(key).c_str());
    ASSERT_NE(nullptr, found) << key;
    EXPECT_EQ(value, found);
  }
}

TEST_F(PTreeTest, RefusedCalls) {
  const struct { const char* what; int got; int want; } cases[] = {
      {"create into null", ptree_create(nullptr), ERR_INVALID_PARAMETER},
      {"delete null", ptree_delete(nullptr), ERR_INVALID_HANDLE},
      {"insert null tree", ptree_insert(nullptr, "a", "b"), ERR_INVALID_HANDLE},
      {"insert null key", ptree_insert(tree_, nullptr, "b"), ERR_INVALID_PARAMETER},
      {"insert empty key", ptree_insert(tree_, "", "b"), ERR_INVALID_PARAMETER},
      {"insert null value", ptree_insert(tree_, "a", nullptr), ERR_INVALID_PARAMETER},
      {"foreach null tree", ptree_foreach(nullptr, [](const char*, const char*, void*) { return 0; }, nullptr),
       ERR_INVALID_HANDLE},
      {"foreach null func", ptree_foreach(tree_, nullptr, nullptr), ERR_INVALID_PARAMETER},
      {"count null", ptree_count(nullptr), ERR_INVALID_HANDLE},
  };
  for (const auto& c : cases) EXPECT_EQ(c.want, c.got) << c.what;
  EXPECT_EQ(nullptr, ptree_find_by_key(nullptr, "a"));
  EXPECT_EQ(nullptr, ptree_find_by_key(tree_, nullptr));
  EXPECT_EQ(0, ptree_count(tree_)) << "refused inserts leave nothing behind";
}

}  // namespace
