// CRC-16 (CCITT) and CRC-32: vectors, chaining, a bitwise reference, files.
#include <string>

#include <vekutil/crc16.h>
#include <vekutil/crc32.h>

#include "vek_test.hpp"

namespace {

using CrcTest = vektest::LeakCheckedTest;

TEST_F(CrcTest, Crc16KnownVectorsSeedsChainingAndTheLongestInput) {
  EXPECT_EQ(0x29B1, hash_crc16_ccitt("123456789", 9, 0xFFFF));
  EXPECT_EQ(0x31C3, hash_crc16_ccitt("123456789", 9, 0));
  // Empty or null input returns the seed; with no final inversion the result
  // of one part is the seed of the next.
  EXPECT_EQ(0x1234, hash_crc16_ccitt("abc", 0, 0x1234));
  EXPECT_EQ(0xFFFF, hash_crc16_ccitt(nullptr, 10, 0xFFFF));
  EXPECT_EQ(0x29B1, hash_crc16_ccitt("6789", 4, hash_crc16_ccitt("12345", 5, 0xFFFF)));
  std::string big(65535, 'x');  // read exactly: the address sanitizer reports any overrun
  const unsigned short all = hash_crc16_ccitt(big.data(), 65535, 0xFFFF);
  EXPECT_NE(all, hash_crc16_ccitt(big.data(), 65534, 0xFFFF));
}

// Straightforward bit-at-a-time reference, independent of any table.
unsigned int bitwise_crc32(const std::string& s) {
  unsigned int c = 0xFFFFFFFFu;
  for (unsigned char b : s) {
    c ^= b;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
  }
  return ~c;
}

TEST_F(CrcTest, Crc32KnownVectorsAndEveryLengthAndAlignmentMatchBitwiseReference) {
  EXPECT_EQ(0xCBF43926u, hash_crc32("123456789", 9));
  EXPECT_EQ(0x414FA339u, hash_crc32("The quick brown fox jumps over the lazy dog", 43));
  EXPECT_EQ(0u, hash_crc32("", 0));
  EXPECT_EQ(0u, hash_crc32(nullptr, 5));
  std::string data;
  for (int i = 0; i < 300; ++i) data.push_back(static_cast<char>(i * 131 + 7));
  for (size_t off = 0; off < 8; ++off)
    for (size_t len = 1; off + len <= data.size(); len += (len < 40 ? 1 : 17)) {
      ASSERT_EQ(bitwise_crc32(data.substr(off, len)), hash_crc32(data.data() + off, static_cast<unsigned>(len)))
          << "off " << off << " len " << len;
    }
  std::string large;
  for (int i = 0; i < 100003; ++i) large.push_back(static_cast<char>((i * 7919) >> 3));
  EXPECT_EQ(bitwise_crc32(large), hash_crc32(large.data(), static_cast<unsigned>(large.size())));
}

TEST_F(CrcTest, Crc32IncrementalEqualsOneShotAtAnySplit) {
  const std::string text = "incremental checksums must not depend on where the caller splits the input";
  const unsigned int whole = hash_crc32(text.data(), static_cast<unsigned>(text.size()));
  for (size_t cut = 0; cut <= text.size(); ++cut) {
    unsigned int crc;
    hash_crc32_init(&crc);
    hash_crc32_calc(&crc, text.data(), static_cast<unsigned>(cut));
    hash_crc32_calc(&crc, text.data() + cut, static_cast<unsigned>(text.size() - cut));
    hash_crc32_end(&crc);
    ASSERT_EQ(whole, crc) << cut;
  }
  hash_crc32_init(nullptr);  // null pointers are ignored, not dereferenced
  hash_crc32_calc(nullptr, "x", 1);
  hash_crc32_end(nullptr);
}

TEST_F(CrcTest, Crc32FileChecksumCoversWholeFileAcrossBlocks) {
  vektest::TempDir dir;
  std::string body;
  for (int i = 0; i < 5000; ++i) body.push_back(static_cast<char>(i % 251));
  vektest::write_file(dir.file("f.bin"), body);
  unsigned int crc = 0;
  ASSERT_EQ(0, hash_file_crc32(dir.file("f.bin").c_str(), &crc));
  EXPECT_EQ(hash_crc32(body.data(), static_cast<unsigned>(body.size())), crc);

  vektest::write_file(dir.file("empty"), "");
  ASSERT_EQ(0, hash_file_crc32(dir.file("empty").c_str(), &crc));
  EXPECT_EQ(0u, crc);
  EXPECT_EQ(-1, hash_file_crc32(dir.file("missing").c_str(), &crc));
  EXPECT_EQ(-1, hash_file_crc32(nullptr, &crc));
  EXPECT_EQ(-1, hash_file_crc32(dir.file("f.bin").c_str(), nullptr));
}

}  // namespace
