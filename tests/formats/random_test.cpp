#include <vekutil/random.h>

#include <cstring>
#include <set>
#include <string>

#include "vek_test.hpp"

namespace {

class RandomTest : public vektest::LeakCheckedTest {};

TEST_F(RandomTest, RandomStringWritesOnlyCapitalLettersAndNoTerminator) {
  char buffer[2001];
  std::memset(buffer, '#', sizeof buffer);
  random_init();
  EXPECT_EQ(buffer, random_string(buffer, 2000));
  const std::string text(buffer, 2000);
  EXPECT_EQ(std::string::npos, text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ"));
  EXPECT_EQ(26u, std::set<char>(text.begin(), text.end()).size());  // 2000 draws miss one with negligible odds
  EXPECT_EQ('#', buffer[2000]);
}

TEST_F(RandomTest, RandomizeFillsExactlyTheRequestedBytesAndIntegersVary) {
  unsigned char a[40] = {}, b[40] = {};
  EXPECT_EQ(a, randomize(a, 32));
  randomize(b, 32);
  EXPECT_NE(0, std::memcmp(a, b, 32));
  for (int i = 32; i < 40; ++i) EXPECT_EQ(0, a[i]);
  EXPECT_EQ(nullptr, randomize(nullptr, 10));
  EXPECT_EQ(nullptr, random_string(nullptr, 10));
  EXPECT_EQ(a, randomize(a, 0));
  std::set<long long> values;
  std::set<int> ints;
  for (int i = 0; i < 16; ++i) {
    values.insert(random_int64());
    ints.insert(random_int());
  }
  EXPECT_GT(values.size(), 14u);
  EXPECT_GT(ints.size(), 14u);
}

}  // namespace
