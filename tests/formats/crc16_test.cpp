#include <vekutil/crc16.h>

#include <string>

#include "vek_test.hpp"

namespace {

class Crc16Test : public vektest::LeakCheckedTest {};

TEST_F(Crc16Test, KnownVectorsForBothUsualSeeds) {
  EXPECT_EQ(0x29B1, hash_crc16_ccitt("123456789", 9, 0xFFFF));
  EXPECT_EQ(0x31C3, hash_crc16_ccitt("123456789", 9, 0));
}

TEST_F(Crc16Test, EmptyOrNullInputReturnsSeed) {
  EXPECT_EQ(0x1234, hash_crc16_ccitt("abc", 0, 0x1234));
  EXPECT_EQ(0xFFFF, hash_crc16_ccitt(nullptr, 10, 0xFFFF));
}

TEST_F(Crc16Test, ChainsThroughTheSeedWithoutFinalInversion) {
  const std::string a = "first part,", b = " second part";
  const std::string whole = a + b;
  const unsigned short first = hash_crc16_ccitt(a.data(), static_cast<unsigned short>(a.size()), 0xFFFF);
  EXPECT_EQ(hash_crc16_ccitt(whole.data(), static_cast<unsigned short>(whole.size()), 0xFFFF),
            hash_crc16_ccitt(b.data(), static_cast<unsigned short>(b.size()), first));
}

TEST_F(Crc16Test, MaximumLengthStaysInsideTheBuffer) {
  std::string big(65535, 'x');
  // Must read exactly 65535 bytes (ASan reports any overrun of the string).
  const unsigned short all = hash_crc16_ccitt(big.data(), 65535, 0xFFFF);
  EXPECT_NE(all, hash_crc16_ccitt(big.data(), 65534, 0xFFFF));
}

}  // namespace
