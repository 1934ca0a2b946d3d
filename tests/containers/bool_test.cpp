#include <vekutil/bool.h>

#include "vek_test.hpp"

namespace {

class BoolTest : public vektest::LeakCheckedTest {};

TEST_F(BoolTest, BitRunsCrossByteBoundaries) {
  const unsigned char bytes[] = {0xAB, 0xCD}, ones[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(0xDA, bool_getbits(bytes, 4, 8));
  EXPECT_EQ(0xCDAB, bool_getbits(bytes, 0, 16));
  EXPECT_EQ(0, bool_getbits(bytes, 0, 0));
  EXPECT_EQ(-1, bool_getbits(ones, 3, 40));  // at most 32 bits
  unsigned char run[3] = {0xFF, 0x00, 0xFF};
  EXPECT_EQ(0, bool_setbits(run, 6, 4, 0x6));  // bits 6..9 <- 0110, nothing else
  EXPECT_EQ(0xBF, run[0]);
  EXPECT_EQ(0x01, run[1]);
  EXPECT_EQ(0xFF, run[2]);
  EXPECT_EQ(0x6, bool_getbits(run, 6, 4));
}

// Bit b lives in word b / width: each width must agree with itself.
template <class W, class Get, class Set>
void check_word_width(Get get, Set set) {
  constexpr unsigned kWidth = sizeof(W) * 8;
  W words[3] = {0, 0, 0};
  for (unsigned bit : {0u, kWidth - 1, kWidth, 3 * kWidth - 1}) {
    set(words, bit, 1);
    EXPECT_EQ(1, get(words, bit)) << bit;
  }
  EXPECT_EQ(static_cast<W>(W{1} | (W{1} << (kWidth - 1))), words[0]);
  EXPECT_EQ(W{1}, words[1]);
  EXPECT_EQ(static_cast<W>(W{1} << (kWidth - 1)), words[2]);
  EXPECT_EQ(0, get(words, 1));
  set(words, kWidth - 1, 0);
  EXPECT_EQ(W{1}, words[0]);
  set(words, 5, 42);  // any non-zero value sets
  EXPECT_EQ(1, get(words, 5));
}

TEST_F(BoolTest, AllWordWidthsAndNullSources) {
  check_word_width<unsigned char>(bool_getbit_from_char, bool_setbit_from_char);
  check_word_width<unsigned short>(bool_getbit_from_short, bool_setbit_from_short);
  check_word_width<unsigned int>(bool_getbit_from_int, bool_setbit_from_int);
  check_word_width<unsigned long long>(bool_getbit_from_longlong, bool_setbit_from_longlong);
  check_word_width<unsigned char>(bool_getbit, bool_setbit);
  // Null sources read zero and are not written.
  EXPECT_EQ(0, bool_getbit(nullptr, 3) | bool_getbit_from_longlong(nullptr, 3) | bool_getbits(nullptr, 0, 8));
  bool_setbit(nullptr, 1, 1);
  bool_setbit_from_int(nullptr, 1, 1);
  EXPECT_EQ(0, bool_setbits(nullptr, 0, 8, 0xFF));
}

TEST_F(BoolTest, BooleanFromText) {
  for (const char* yes : {"1", "01", "00", "07", "9", "-3", "yes", "Y", "true", "T", "t"})
    EXPECT_EQ(1, bool_get(yes)) << yes;
  for (const char* no : {"0", "0x", "+5", "no", "N", "false", "F", "f", "", "-", "-x", "abc", " 1"})
    EXPECT_EQ(0, bool_get(no)) << '"' << no << '"';
  EXPECT_EQ(0, bool_get(nullptr));
}

}  // namespace
