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

// True when g has the fixed layout: 'H' stands for an upper-case hex digit,
// 'C' for a capital letter, 'I' for either.
bool well_formed(const std::string& g) {
  static const std::string layout = "HHHHHHHH-HHHH-CCCC-HHHH-IIIIIIIIIIII";
  if (g.size() != layout.size()) return false;
  for (size_t i = 0; i < g.size(); ++i) {
    const bool hex = std::isdigit(static_cast<unsigned char>(g[i])) || (g[i] >= 'A' && g[i] <= 'F');
    const bool capital = g[i] >= 'A' && g[i] <= 'Z';
    const char want = layout[i];
    if (!(want == 'H' ? hex : want == 'C' ? capital : want == 'I' ? hex || capital : g[i] == want)) return false;
  }
  return true;
}
int counter(const std::string& g) { return std::stoi(g.substr(9, 4), nullptr, 16); }

TEST_F(GuidTest, CounterCountsUpWithinOneClockValueAndRestartsAtOne) {
  // Within one millisecond the counter field goes 0001, 0002, ...; on a new
  // clock value it restarts at 0001. Seed and hardware fields never change.
  std::string prev = make();
  bool saw_increment = false;
  for (int i = 0; i < 2000; ++i) {
    const std::string g = make();
    ASSERT_TRUE(well_formed(g)) << g;
    ASSERT_EQ(prev.substr(19), g.substr(19));
    ASSERT_TRUE(counter(g) == 1 || counter(g) == counter(prev) + 1) << prev << " " << g;
    if (counter(g) == counter(prev) + 1) {
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
  std::vector<std::string> made(kThreads * kEach);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&made, t] {
      for (int i = 0; i < kEach; ++i) made[t * kEach + i] = make();
    });
  for (auto& th : threads) th.join();
  std::vector<int> seen(0x10000, 0);
  for (const auto& g : made) {
    ASSERT_TRUE(well_formed(g)) << g;
    ++seen[static_cast<size_t>(counter(g))];
  }
  EXPECT_EQ(0, seen[0]);
  for (size_t k = 2; k < seen.size(); ++k) ASSERT_LE(seen[k], seen[k - 1]) << "counter " << k;
}

}  // namespace
