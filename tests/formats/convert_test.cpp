#include <vekutil/convert.h>
#include <vekutil/errors.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

#include "vek_test.hpp"

namespace {

class ConvertTest : public vektest::LeakCheckedTest {};

// Code, value and characters taken (-1 when the end pointer came back null).
template <class T>
struct Outcome { int rc; T value; long consumed; };

template <class T, class Fn, class... Base>
Outcome<T> run(Fn fn, const char* text, Base... base) {
  T value{};
  char* end = reinterpret_cast<char*>(1);
  const int rc = fn(&value, text, &end, base...);
  return {rc, value, end ? static_cast<long>(end - text) : -1};
}
Outcome<double> run_d(const char* text) { return run<double>(convert_to_d, text); }

// The value is compared on success, and always for doubles (0 on failure).
template <class T>
void expect(const Outcome<T>& got, const char* text, int rc, T value, long consumed) {
  EXPECT_EQ(rc, got.rc) << '"' << text << '"';
  if (rc == 0 || std::is_floating_point_v<T>) {
    EXPECT_EQ(value, got.value) << '"' << text << '"';
  }
  EXPECT_EQ(consumed, got.consumed) << '"' << text << '"';
}

// Minimum, maximum and one beyond each, for one integer width.
template <class T, class Fn>
void check_width(Fn fn, const char* min, const char* max, const char* below, const char* above, T min_value,
                 T max_value) {
  expect(run<T>(fn, min, 10), min, 0, min_value, static_cast<long>(std::strlen(min)));
  expect(run<T>(fn, max, 10), max, 0, max_value, static_cast<long>(std::strlen(max)));
  for (const char* out_of_range : {below, above}) {
    const auto r = run<T>(fn, out_of_range, 10);
    expect(r, out_of_range, ERR_CONVERT_RANGE, T{0}, -1);
    EXPECT_EQ(T{0}, r.value) << out_of_range;
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
  // Overflow far beyond the limit, in other bases, and any minus sign on an unsigned type.
  EXPECT_EQ(ERR_CONVERT_RANGE, run<int>(convert_to_i, "99999999999999999999999", 10).rc);
  EXPECT_EQ(0, run<unsigned char>(convert_to_uc, "ff", 16).rc);
  EXPECT_EQ(ERR_CONVERT_RANGE, run<unsigned char>(convert_to_uc, "100", 16).rc);
  EXPECT_EQ(-128, run<char>(convert_to_c, "-0x80", 0).value);
  EXPECT_EQ(ERR_CONVERT_RANGE, run<char>(convert_to_c, "0x80", 0).rc);
  EXPECT_EQ(0xFFFFFFFFFFFFFFFFull, run<unsigned long long>(convert_to_ull, "01777777777777777777777", 0).value);
  EXPECT_EQ(ERR_CONVERT_RANGE, run<unsigned long long>(convert_to_ull, "02000000000000000000000", 0).rc);
  EXPECT_EQ(ERR_CONVERT_RANGE, run<unsigned int>(convert_to_ui, "-0", 10).rc);
  EXPECT_EQ(ERR_CONVERT_RANGE, run<unsigned long long>(convert_to_ull, " -5", 0).rc);
  EXPECT_EQ(ERR_CONVERT_RANGE, run<unsigned short>(convert_to_us, "-", 10).rc);
  expect(run<unsigned int>(convert_to_ui, "+7", 10), "+7", 0, 7u, 2);
}

TEST_F(ConvertTest, PrefixesSignsWhiteSpaceEndPointerAndNullArguments) {
  const int none = ERR_CONVERT_NO_DIGITS;
  const struct { const char* text; int base, rc, value; long consumed; } cases[] = {
      {"010", 0, 0, 8, 3}, {"0x10", 0, 0, 16, 4}, {"0X1f", 0, 0, 31, 4},
      {"0x", 0, 0, 0, 1},  // no hex digit: the 0 is an octal number
      {"0789", 0, 0, 7, 2}, {"0x1F", 16, 0, 0, 1}, {"z", 36, 0, 35, 1}, {"1012", 2, 0, 5, 3},
      {" \t\n-42xyz", 10, 0, -42, 6}, {"--1", 10, none, 0, -1}, {"- 1", 10, none, 0, -1}, {"", 10, none, 0, -1},
      {"   ", 10, none, 0, -1}, {"+", 10, none, 0, -1}, {"-", 10, none, 0, -1}, {"abc", 10, none, 0, -1},
      {"x1", 10, none, 0, -1},
  };
  for (const auto& c : cases) expect(run<int>(convert_to_i, c.text, c.base), c.text, c.rc, c.value, c.consumed);
  expect(run<long long>(convert_to_ll, " \t\n-42xyz", 10), "ll", 0, -42LL, 6);
  expect(run<long long>(convert_to_ll, "0x1F", 16), "ll 0x1F", 0, 0LL, 1);
  for (int bad_base : {-1, 1, 37}) EXPECT_EQ(ERR_INVALID_PARAMETER, run<int>(convert_to_i, "1", bad_base).rc);

  int i = 5;
  char* end = reinterpret_cast<char*>(1);
  EXPECT_EQ(ERR_INVALID_PARAMETER, convert_to_i(&i, nullptr, &end, 10));
  EXPECT_EQ(nullptr, end);
  EXPECT_EQ(0, convert_to_i(&i, "12", nullptr, 10));  // the end pointer is optional
  EXPECT_EQ(12, i);
  EXPECT_EQ(ERR_INVALID_PARAMETER, convert_to_f(nullptr, "1", nullptr));
}

TEST_F(ConvertTest, DoubleSyntaxAndExponentLimitsAndTheFloatLimits) {
  const int none = ERR_CONVERT_NO_DIGITS, range = ERR_CONVERT_RANGE;
  const struct { const char* text; int rc; double value; long consumed; } cases[] = {
      {"  -12.5e1xyz", 0, -125.0, 9}, {".5", 0, 0.5, 2}, {"5.", 0, 5.0, 2},
      {"7e+x", 0, 7.0, 3},  // an exponent without digits adds nothing but is consumed
      {"0x1p3", 0, 0.0, 1},  // hexadecimal floats stop after the 0
      {"", none, 0, -1}, {"+", none, 0, -1}, {".", none, 0, -1}, {"-.e5", none, 0, -1}, {"abc", none, 0, -1},
      {"inf", none, 0, -1}, {"nan", none, 0, -1}, {"e5", none, 0, -1},
      // The written exponent, fraction digits included, is limited, not the value.
      {"1e1025", range, 0, -1}, {"0.5e-1021", range, 0, -1}, {"10e-1022", range, 0, -1},
      {"1e99999999999999999999999", range, 0, -1}, {"-1e-99999999999999999999999", range, 0, -1},
      // Within the written limits but beyond the largest double: never infinity.
      {"1e1024", range, 0, -1}, {"-2e308", range, 0, -1}, {"18e307", range, 0, -1},
  };
  for (const auto& c : cases) expect(run_d(c.text), c.text, c.rc, c.value, c.consumed);
  for (const char* fits : {"1e300", "1.7e308", "1e-1021"}) EXPECT_EQ(0, run_d(fits).rc) << fits;

  EXPECT_NEAR(1e38f, run<float>(convert_to_f, "1e38").value, 1e31f);
  EXPECT_NEAR(3.1415927f, run<float>(convert_to_f, "3.1415927").value, 1e-6f);
  expect(run<float>(convert_to_f, "-0.25"), "-0.25", 0, -0.25f, 5);
  for (const char* too_big : {"1e129", "1e50", "-1e39", "400000000000000000000000000000000000000"})
    expect(run<float>(convert_to_f, too_big), too_big, ERR_CONVERT_RANGE, 0.0f, -1);
  expect(run<float>(convert_to_f, "1e-126"), "1e-126", ERR_CONVERT_RANGE, 0.0f, -1);
  expect(run<float>(convert_to_f, "."), ".", ERR_CONVERT_NO_DIGITS, 0.0f, -1);
}

TEST_F(ConvertTest, DoubleValuesAreCloseToCorrectlyRounded) {
  for (const char* text : {"0", "1", "-0.1", "3.14159265358979", "2.5e-3", "1e22", "1.7976931348623157e308",
                           "2.2250738585072014e-308", "123456789012345678901234567890",
                           "0.000000000000000000000000000001", "9007199254740993", "4.9406564584124654e-300",
                           "6.02214076e23"}) {
    const auto r = run_d(text);
    ASSERT_EQ(0, r.rc) << text;
    const double expected = std::strtod(text, nullptr);
    EXPECT_NEAR(expected, r.value, std::fabs(expected) * 4e-16) << text;
    EXPECT_EQ(static_cast<long>(std::strlen(text)), r.consumed);
  }
}

}  // namespace
