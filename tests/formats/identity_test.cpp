// ctest-labels: tsan
// Random bytes, letters and integers; GUIDs across threads; hardware ids.
#include <arpa/inet.h>

#include <cctype>
#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/guid.h>
#include <vekutil/hardwareid.h>
#include <vekutil/memory.h>
#include <vekutil/random.h>

#include "vek_test.hpp"

namespace {

class RandomTest : public vektest::LeakCheckedTest {};

TEST_F(RandomTest, LettersBytesAndIntegersFillExactlyWhatWasAskedAndVary) {
  char buffer[2001];
  std::memset(buffer, '#', sizeof buffer);
  random_init();
  EXPECT_EQ(buffer, random_string(buffer, 2000));
  const std::string text(buffer, 2000);
  EXPECT_EQ(std::string::npos, text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ"));
  EXPECT_EQ(26u, std::set<char>(text.begin(), text.end()).size());  // 2000 draws miss one with negligible odds
  EXPECT_EQ('#', buffer[2000]);

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

// g has the layout: 'H' upper-case hex digit, 'C' capital letter, 'I' either.
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

class HardwareIdTest : public vektest::LeakCheckedTest {};

TEST_F(HardwareIdTest, ListedInterfacesHaveAddressesAndHexIdsWithinTheCapacity) {
  const int interfaces = hardwareid_count();
  ASSERT_GE(interfaces, 0);
  HWID_ENTRY entries[64];
  int count = 64;
  ASSERT_EQ(0, hardwareid_list(entries, &count));
  EXPECT_LE(count, interfaces);  // loopback and friends are left out
  for (int i = 0; i < count; ++i) {
    const HWID_ENTRY& e = entries[i];
    EXPECT_STREQ("MAC Address", e.type);
    EXPECT_EQ(37401, e.type_nls);
    ASSERT_EQ(12u, std::strlen(e.hwid));
    EXPECT_STRNE("000000000000", e.hwid);
    EXPECT_EQ(std::string::npos, std::string(e.hwid).find_first_not_of("0123456789ABCDEF")) << e.hwid;
    in_addr addr;
    EXPECT_EQ(1, inet_pton(AF_INET, e.ip, &addr)) << e.ip;
  }
  // The capacity limits the entries filled.
  HWID_ENTRY first[2];
  std::memset(first, 0x55, sizeof first);
  count = 1;
  ASSERT_EQ(0, hardwareid_list(first, &count));
  EXPECT_LE(count, 1);
  EXPECT_EQ(0x55, static_cast<unsigned char>(first[1].type[0]));  // the second slot is untouched
  count = 0;
  EXPECT_EQ(0, hardwareid_list(first, &count));
  EXPECT_EQ(0, count);
  count = 4;
  EXPECT_EQ(-1, hardwareid_list(nullptr, &count));
  EXPECT_EQ(0, count);
  EXPECT_EQ(-1, hardwareid_list(first, nullptr));
}

}  // namespace
