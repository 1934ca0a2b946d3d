#include <vekutil/crc16.h>

#include <string>

#include "vek_test.hpp"

namespace {

class Crc16Test : public vektest::LeakCheckedTest {};

TEST_F(Crc16Test, KnownVectorsSeedsAndChaining) {
  EXPECT_EQ(0x29B1, hash_crc16_ccitt("123456789", 9, 0xFFFF));
  EXPECT_EQ(0x31C3, hash_crc16_ccitt("123456789", 9, 0));
  // Empty or null input returns the seed; with no final inversion the result
  // of one part is the seed of the next.
  EXPECT_EQ(0x1234, hash_crc16_ccitt("abc", 0, 0x1234));
  EXPECT_EQ(0xFFFF, hash_crc16_ccitt(nullptr, 10, 0xFFFF));
  EXPECT_EQ(0x29B1, hash_crc16_ccitt("6789", 4, hash_crc16_ccitt("12345", 5, 0xFFFF)));
}

TEST_F(Crc16Test, MaximumLengthStaysInsideTheBuffer) {
  std::string big(65535, 'x');
  // Must read exactly 65535 bytes (ASan reports any overrun of the string).
  const unsigned short all = hash_crc16_ccitt(big.data(), 65535, 0xFFFF);
  EXPECT_NE(all, hash_crc16_ccitt(big.data(), 65534, 0xFFFF));
}

}  // namespace
