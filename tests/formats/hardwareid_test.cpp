#include <vekutil/hardwareid.h>

#include <arpa/inet.h>

#include <cstring>
#include <string>

#include "vek_test.hpp"

namespace {

class HardwareIdTest : public vektest::LeakCheckedTest {};

TEST_F(HardwareIdTest, ListedInterfacesHaveAddressesAndHexIds) {
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
}

TEST_F(HardwareIdTest, CapacityLimitsTheEntriesFilledAndNullArgumentsFail) {
  HWID_ENTRY first[2];
  std::memset(first, 0x55, sizeof first);
  int count = 1;
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
