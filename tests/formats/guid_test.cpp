// ctest-labels: tsan
#include <vekutil/guid.h>
#include <vekutil/memory.h>

#include <cctype>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "vek_test.hpp"

namespace {

class GuidTest : public vektest::LeakCheckedTest {
 protected:
  // The generator's mutex lives for the whole process; make it before the
  // first test starts counting blocks.
  static void SetUpTestSuite() { guid_init(); }

  static std::string make() {
    char* g = guid_create();
    EXPECT_NE(nullptr, g);
    std::string text = g ? g : "";
    vekFree(g);
    return text;
  }
};

bool all_of(const std::string& s, size_t from, size_t n, int (*pred)(int)) {
  for (size_t i = from; i < from + n; ++i)
    if (!pred(static_cast<unsigned char>(s[i]))) return false;
  return true;
}
int is_upper_hex(int c) { return std::isdigit(c) || (c >= 'A' && c <= 'F'); }
int is_capital(int c) { return c >= 'A' && c <= 'Z'; }
int is_id_char(int c) { return is_upper_hex(c) || is_capital(c); }

TEST_F(GuidTest, FiveFieldsOfFixedWidth) {
  const std::string g = make();
  ASSERT_EQ(36u, g.size()) << g;
  EXPECT_EQ('-', g[8]);
  EXPECT_EQ('-', g[13]);
  EXPECT_EQ('-', g[18]);
  EXPECT_EQ('-', g[23]);
  EXPECT_TRUE(all_of(g, 0, 8, is_upper_hex)) << g;
  EXPECT_TRUE(all_of(g, 9, 4, is_upper_hex)) << g;
  EXPECT_TRUE(all_of(g, 14, 4, is_capital)) << g;
  EXPECT_TRUE(all_of(g, 19, 4, is_upper_hex)) << g;
  EXPECT_TRUE(all_of(g, 24, 12, is_id_char)) << g;
}

TEST_F(GuidTest, CounterCountsUpWithinOneClockValueAndRestartsAtOne) {
  // Within one millisecond the counter field goes 0001, 0002, ...; on a new
  // clock value it restarts at 0001. Seed and hardware fields never change.
  std::string prev = make();
  bool saw_increment = false;
  for (int i = 0; i < 2000; ++i) {
    const std::string g = make();
    ASSERT_EQ(prev.substr(19), g.substr(19));
    const int count = std::stoi(g.substr(9, 4), nullptr, 16);
    const int before = std::stoi(prev.substr(9, 4), nullptr, 16);
    ASSERT_TRUE(count == 1 || count == before + 1) << prev << " " << g;
    if (count == before + 1) {
      saw_increment = true;
      EXPECT_EQ(prev.substr(0, 8), g.substr(0, 8));
    }
    prev = g;
  }
  EXPECT_TRUE(saw_increment);
}

TEST_F(GuidTest, ConcurrentCallersDrawCounterValuesInSequence) {
  // Every clock value hands out 1, 2, ..., m under the generator's lock, so
  // over all identifiers value k can never be seen more often than k - 1; a
  // lost update would repeat a value without its predecessor.
  constexpr int kThreads = 4, kEach = 300;
  // A fresh clock value, so no run of counter values began before this test.
  std::this_thread::sleep_for(std::chrono::milliseconds(3));
  std::vector<std::vector<std::string>> made(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&made, t] {
      for (int i = 0; i < kEach; ++i) made[t].push_back(make());
    });
  for (auto& th : threads) th.join();
  std::vector<int> seen(0x10000, 0);
  for (const auto& list : made)
    for (const auto& g : list) {
      ASSERT_EQ(36u, g.size());
      ++seen[static_cast<size_t>(std::stoi(g.substr(9, 4), nullptr, 16))];
    }
  EXPECT_EQ(0, seen[0]);
  for (size_t k = 2; k < seen.size(); ++k) ASSERT_LE(seen[k], seen[k - 1]) << "counter " << k;
}

}  // namespace
