#include <vekutil/convert.h>
#include <vekutil/errors.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vek_test.hpp"

namespace {

class ConvertTest : public vektest::LeakCheckedTest {};

// Result of one conversion: code, value, and how many characters were taken
// (-1 when the end pointer came back null).
template <class T>
struct Outcome {
  int rc;
  T value;
  long consumed;
};

template <class T, class Fn>
Outcome<T> run(Fn fn, const char* text, int base) {
  T value{};
  char* end = reinterpret_cast<char*>(1);
  const int rc = fn(&value, text, &end, base);
  return {rc, value, end ? static_cast<long>(end - text) : -1};
}

// Minimum, maximum and one beyond each, for one integer width.
template <class T, class Fn>
void check_width(Fn fn, const char* min, const char* max, const char* below, const char* above, T min_value,
                 T max_value) {
  auto lo = run<T>(fn, min, 10);
  EXPECT_EQ(0, lo.rc) << min;
  EXPECT_EQ(min_value, lo.value) << min;
  EXPECT_EQ(static_cast<long>(std::strlen(min)), lo.consumed);
  auto hi = run<T>(fn, max, 10);
  EXPECT_EQ(0, hi.rc) << max;
  EXPECT_EQ(max_value, hi.value) << max;
  for (const char* out_of_range : {below, above}) {
    auto r = run<T>(fn, out_of_range, 10);
    EXPECT_EQ(ERR_CONVERT_RANGE, r.rc) << out_of_range;
    EXPECT_EQ(T{0}, r.value) << out_of_range;
    EXPECT_EQ(-1, r.consumed) << out_of_range;
  }
}

TEST_F(ConvertTest, EveryIntegerWidthConvertsItsExactRange) {
  check_width<unsigned char>(convert_to_uc, "0", "255", "-1", "256", 0, 255);
  check_width<char>(convert_to_c, "-128", "127", "-129", "128", -128, 127);
  check_width<unsigned short>(convert_to_us, "0", "65535", "-1", "65536", 0, 65535);
  check_width<short>(convert_to_s, "-32768", "32767", "-32769", "32768", -32768, 32767);
  check_width<unsigned int>(convert_to_ui, "0", "4294967295", "-1", "4294967296", 0u, 4294967295u);
  check_width<int>(convert_to_i, "-2147483648", "2147483647", "-2147483649", "2147483648", INT32_MIN, INT32_MAX);
  check_width<unsigned long long>(convert_to_ull, "0", "18446744073709551615", "-1", "18446744073709551616", 0ull,
                                  18446744073709551615ull);
  check_width<long long>(convert_to_ll, "-9223372036854775808", "9223372036854775807", "-9223372036854775809",
                         "9223372036854775808", INT64_MIN, INT64_MAX);
  // Overflow far beyond the limit, and in other bases.
  EXPECT_EQ(ERR_CONVERT_RANGE, run<int>(convert_to_i, "99999999999999999999999", 10).rc);
  EXPECT_EQ(0, run<unsigned char>(convert_to_uc, "ff", 16).rc);
  EXPECT_EQ(ERR_CONVERT_RANGE, run<unsigned char>(convert_to_uc, "100", 16).rc);
  EXPECT_EQ(-128, run<char>(convert_to_c, "-0x80", 0).value);
  EXPECT_EQ(ERR_CONVERT_RANGE, run<char>(convert_to_c, "0x80", 0).rc);
  EXPECT_EQ(0xFFFFFFFFFFFFFFFFull, run<unsigned long long>(convert_to_ull, "01777777777777777777777", 0).value);
  EXPECT_EQ(ERR_CONVERT_RANGE, run<unsigned long long>(convert_to_ull, "02000000000000000000000", 0).rc);
}

TEST_F(ConvertTest, UnsignedTypesRefuseAnyMinusSign) {
  EXPECT_EQ(ERR_CONVERT_RANGE, run<unsigned int>(convert_to_ui, "-0", 10).rc);
  EXPECT_EQ(ERR_CONVERT_RANGE, run<unsigned long long>(convert_to_ull, " -5", 0).rc);
  EXPECT_EQ(ERR_CONVERT_RANGE, run<unsigned short>(convert_to_us, "-", 10).rc);
  auto plus = run<unsigned int>(convert_to_ui, "+7", 10);
  EXPECT_EQ(0, plus.rc);
  EXPECT_EQ(7u, plus.value);
}

TEST_F(ConvertTest, BaseZeroDetectsPrefixesGivenBasesDoNot) {
  EXPECT_EQ(8, run<int>(convert_to_i, "010", 0).value);
  EXPECT_EQ(16, run<int>(convert_to_i, "0x10", 0).value);
  EXPECT_EQ(31, run<int>(convert_to_i, "0X1f", 0).value);
  auto bare = run<int>(convert_to_i, "0x", 0);  // no hex digit: the 0 is an octal number
  EXPECT_EQ(0, bare.rc);
  EXPECT_EQ(0, bare.value);
  EXPECT_EQ(1, bare.consumed);
  auto octal_stop = run<int>(convert_to_i, "0789", 0);
  EXPECT_EQ(7, octal_stop.value);
  EXPECT_EQ(2, octal_stop.consumed);
  auto given = run<long long>(convert_to_ll, "0x1F", 16);
  EXPECT_EQ(0, given.value);
  EXPECT_EQ(1, given.consumed);
  EXPECT_EQ(35, run<int>(convert_to_i, "z", 36).value);
  EXPECT_EQ(5, run<int>(convert_to_i, "101", 2).value);
  auto stop_at_base = run<int>(convert_to_i, "1012", 2);
  EXPECT_EQ(5, stop_at_base.value);
  EXPECT_EQ(3, stop_at_base.consumed);
  for (int bad_base : {-1, 1, 37}) EXPECT_EQ(ERR_INVALID_PARAMETER, run<int>(convert_to_i, "1", bad_base).rc);
}

TEST_F(ConvertTest, WhiteSpaceSignsAndEndPointer) {
  auto r = run<long long>(convert_to_ll, " \t\n-42xyz", 10);
  EXPECT_EQ(0, r.rc);
  EXPECT_EQ(-42, r.value);
  EXPECT_EQ(6, r.consumed);
  // Only one sign, and no space after it.
  EXPECT_EQ(ERR_CONVERT_NO_DIGITS, run<int>(convert_to_i, "--1", 10).rc);
  EXPECT_EQ(ERR_CONVERT_NO_DIGITS, run<int>(convert_to_i, "- 1", 10).rc);
}

TEST_F(ConvertTest, TextWithoutDigitsAndNullPointers) {
  for (const char* text : {"", "   ", "+", "-", "abc", "x1"}) {
    auto r = run<int>(convert_to_i, text, 10);
    EXPECT_EQ(ERR_CONVERT_NO_DIGITS, r.rc) << '"' << text << '"';
    EXPECT_EQ(-1, r.consumed);
  }
  int i = 5;
  char* end = reinterpret_cast<char*>(1);
  EXPECT_EQ(ERR_INVALID_PARAMETER, convert_to_i(&i, nullptr, &end, 10));
  EXPECT_EQ(nullptr, end);
  EXPECT_EQ(ERR_INVALID_PARAMETER, convert_to_i(nullptr, "1", &end, 10));
  EXPECT_EQ(0, convert_to_i(&i, "12", nullptr, 10));  // the end pointer is optional
  EXPECT_EQ(12, i);
  double d = 1;
  EXPECT_EQ(ERR_INVALID_PARAMETER, convert_to_d(&d, nullptr, nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, convert_to_d(nullptr, "1", nullptr));
  float f = 1;
  EXPECT_EQ(ERR_INVALID_PARAMETER, convert_to_f(&f, nullptr, nullptr));
}

Outcome<double> run_d(const char* text) {
  double v = -1;
  char* end = reinterpret_cast<char*>(1);
  const int rc = convert_to_d(&v, text, &end);
  return {rc, v, end ? static_cast<long>(end - text) : -1};
}

TEST_F(ConvertTest, DoubleSyntax) {
  auto r = run_d("  -12.5e1xyz");
  EXPECT_EQ(0, r.rc);
  EXPECT_EQ(-125.0, r.value);
  EXPECT_EQ(9, r.consumed);
  EXPECT_EQ(0.5, run_d(".5").value);
  auto trailing_dot = run_d("5.");
  EXPECT_EQ(5.0, trailing_dot.value);
  EXPECT_EQ(2, trailing_dot.consumed);
  auto bare_e = run_d("7e+x");  // an exponent without digits adds nothing but is consumed
  EXPECT_EQ(7.0, bare_e.value);
  EXPECT_EQ(3, bare_e.consumed);
  for (const char* text : {"", "+", ".", "-.e5", "abc", "inf", "nan", "e5"}) {
    auto bad = run_d(text);
    EXPECT_EQ(ERR_CONVERT_NO_DIGITS, bad.rc) << text;
    EXPECT_EQ(0.0, bad.value) << text;
    EXPECT_EQ(-1, bad.consumed) << text;
  }
  auto hex = run_d("0x1p3");  // hexadecimal floats stop after the 0
  EXPECT_EQ(0.0, hex.value);
  EXPECT_EQ(1, hex.consumed);
}

TEST_F(ConvertTest, DoubleExponentLimitsCountFractionDigits) {
  EXPECT_EQ(0, run_d("1e300").rc);
  EXPECT_EQ(0, run_d("1e1024").rc);
  EXPECT_EQ(ERR_CONVERT_RANGE, run_d("1e1025").rc);
  EXPECT_EQ(0, run_d("1e-1021").rc);
  EXPECT_EQ(ERR_CONVERT_RANGE, run_d("0.5e-1021").rc);
  EXPECT_EQ(ERR_CONVERT_RANGE, run_d("10e-1022").rc);  // the written exponent counts, not the value
  EXPECT_EQ(ERR_CONVERT_RANGE, run_d("1e99999999999999999999999").rc);
  EXPECT_EQ(ERR_CONVERT_RANGE, run_d("-1e-99999999999999999999999").rc);
  EXPECT_EQ(-1, run_d("1e1025").consumed);
}

TEST_F(ConvertTest, DoubleValuesAreCloseToCorrectlyRounded) {
  const char* const texts[] = {"0",          "1",           "-0.1",        "3.14159265358979",   "2.5e-3",
                               "1e22",       "1.7976931348623157e308",     "2.2250738585072014e-308",
                               "123456789012345678901234567890", "0.000000000000000000000000000001",
                               "9007199254740993", "4.9406564584124654e-300", "6.02214076e23"};
  for (const char* text : texts) {
    auto r = run_d(text);
    ASSERT_EQ(0, r.rc) << text;
    const double expected = std::strtod(text, nullptr);
    EXPECT_NEAR(expected, r.value, std::fabs(expected) * 4e-16) << text;
    EXPECT_EQ(static_cast<long>(std::strlen(text)), r.consumed);
  }
}

TEST_F(ConvertTest, FloatUsesItsOwnLimits) {
  float f = -1;
  char* end = nullptr;
  EXPECT_EQ(0, convert_to_f(&f, "1e38", &end));
  EXPECT_NEAR(1e38f, f, 1e31f);
  EXPECT_EQ(ERR_CONVERT_RANGE, convert_to_f(&f, "1e129", &end));
  EXPECT_EQ(nullptr, end);
  EXPECT_EQ(0.0f, f);
  EXPECT_EQ(ERR_CONVERT_RANGE, convert_to_f(&f, "1e-126", &end));
  EXPECT_EQ(0, convert_to_f(&f, "-0.25", &end));
  EXPECT_EQ(-0.25f, f);
  EXPECT_EQ(0, convert_to_f(&f, "3.1415927", &end));
  EXPECT_NEAR(3.1415927f, f, 1e-6f);
  EXPECT_EQ(ERR_CONVERT_NO_DIGITS, convert_to_f(&f, ".", &end));
}

}  // namespace
