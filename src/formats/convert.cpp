// Strict text-to-number conversions.
//
// Integers accumulate in 64 bits and test the next step against a cut-off
// (the type's maximum divided by the base) and a limit (the remainder) before
// taking it, so overflow is detected exactly for each width, and a '-' uses
// the bounds of the negative side so the most negative value converts.
//
// Floating-point text accumulates the digits into a mantissa (extended
// precision for double, single precision for float), counts the decimal
// exponent, and scales once by a power of ten built by repeated squaring.
#include <vekutil/convert.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

#include <vekutil/errors.h>

namespace {

constexpr bool is_space(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Value of a character as a digit (0-35), or kNotDigit.
constexpr unsigned char kNotDigit = 0xFF;
struct DigitTable {
  unsigned char v[256];
};
constexpr DigitTable make_digit_table() {
  DigitTable t{};
  for (int c = 0; c < 256; ++c) t.v[c] = kNotDigit;
  for (int c = '0'; c <= '9'; ++c) t.v[c] = static_cast<unsigned char>(c - '0');
  for (int c = 'A'; c <= 'Z'; ++c) t.v[c] = t.v[c - 'A' + 'a'] = static_cast<unsigned char>(c - 'A' + 10);
  return t;
}
constexpr DigitTable kDigits = make_digit_table();
inline unsigned digit_of(unsigned char c) { return kDigits.v[c]; }

// ---------------------------------------------------------------- integers --

using Wide = unsigned long long;

// Largest magnitude a value may reach, per base: cut-off and last-digit limit.
struct Bounds {
  Wide cut[37];
  unsigned char limit[37];
};
constexpr Bounds make_bounds(Wide max) {
  Bounds b{};
  for (unsigned base = 2; base <= 36; ++base) {
    b.cut[base] = max / base;
    b.limit[base] = static_cast<unsigned char>(max % base);
  }
  return b;
}

template <class T>
struct IntBounds {
  static constexpr Wide kMaxPositive = static_cast<Wide>(std::numeric_limits<T>::max());
  // -min as an unsigned magnitude (0 for unsigned types).
  static constexpr Wide kMaxNegative =
      std::is_signed_v<T> ? static_cast<Wide>(-(std::numeric_limits<T>::min() + 1)) + 1 : 0;
  static constexpr Bounds kPositive = make_bounds(kMaxPositive);
  static constexpr Bounds kNegative = make_bounds(kMaxNegative);
};

// Reads digits below base from p into *acc. Returns the first character not
// taken, or nullptr on overflow. BaseC is a compile-time base (0: use base).
template <unsigned BaseC>
inline const unsigned char* read_digits(const unsigned char* p, unsigned base, Wide cut, unsigned limit,
                                        Wide* acc) {
  const unsigned b = BaseC ? BaseC : base;
  Wide v = 0;
  for (;; ++p) {
    const unsigned d = digit_of(*p);
    if (d >= b) break;
    if (v > cut || (v == cut && d > limit)) return nullptr;
    v = v * b + d;
  }
  *acc = v;
  return p;
}

template <class T>
int convert_integer(T* value, const char* str, char** endptr, int base) {
  if (endptr) *endptr = nullptr;
  if (!value || !str) return ERR_INVALID_PARAMETER;
  *value = 0;
  if (base < 0 || base == 1 || base > 36) return ERR_INVALID_PARAMETER;

  auto p = reinterpret_cast<const unsigned char*>(str);
  while (is_space(*p)) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  if (negative && !std::is_signed_v<T>) return ERR_CONVERT_RANGE;

  if (base == 0) {
    if (*p != '0') {
      base = 10;
    } else if ((p[1] == 'x' || p[1] == 'X') && digit_of(p[2]) < 16) {
      base = 16;
      p += 2;
    } else {
      base = 8;
    }
  }
  const Bounds& bounds = negative ? IntBounds<T>::kNegative : IntBounds<T>::kPositive;
  const auto ubase = static_cast<unsigned>(base);
  Wide magnitude = 0;
  const unsigned char* end =
      ubase == 10 ? read_digits<10>(p, 10, bounds.cut[10], bounds.limit[10], &magnitude)
                  : read_digits<0>(p, ubase, bounds.cut[ubase], bounds.limit[ubase], &magnitude);
  if (!end) return ERR_CONVERT_RANGE;
  if (end == p) return ERR_CONVERT_NO_DIGITS;

  // Unsigned-to-signed conversion is modular, so 0 - magnitude is exact even
  // for the most negative value.
  *value = static_cast<T>(negative ? Wide{0} - magnitude : magnitude);
  if (endptr) *endptr = const_cast<char*>(reinterpret_cast<const char*>(end));
  return 0;
}

// ---------------------------------------------------------- floating point --

template <class F>
struct FloatTraits;
template <>
struct FloatTraits<double> {
  using Mantissa = long double;
  using Scale = long double;
  static constexpr int kExactDigits = 19;  // below 2^64: exact in the mantissa
  static constexpr int kSquares = 11;      // 10^1 ... 10^1024
  static constexpr long kMinExponent = -1021;
  static constexpr long kMaxExponent = 1024;
};
template <>
struct FloatTraits<float> {
  using Mantissa = float;
  using Scale = double;  // keeps 1e-40 or 1e38 from over- or underflowing midway
  static constexpr int kExactDigits = 7;  // below 2^24
  static constexpr int kSquares = 8;      // 10^1 ... 10^128
  static constexpr long kMinExponent = -125;
  static constexpr long kMaxExponent = 128;
};

// Powers 10^(2^k), each the square of the one before.
template <class S, int N>
struct SquaredTens {
  S p[N];
};
template <class S, int N>
constexpr SquaredTens<S, N> make_squared_tens() {
  SquaredTens<S, N> t{};
  t.p[0] = 10;
  for (int k = 1; k < N; ++k) t.p[k] = t.p[k - 1] * t.p[k - 1];
  return t;
}

// 10^n for 0 <= n < 2^N, multiplying the squares of the set bits from the
// lowest bit up.
template <class S, int N>
S power_of_ten(unsigned n) {
  static constexpr SquaredTens<S, N> kTens = make_squared_tens<S, N>();
  S result = 1;
  for (int k = 0; n != 0; ++k, n >>= 1)
    if (n & 1) result *= kTens.p[k];
  return result;
}

// Digit accumulator: an integer while that is exact, then the mantissa type.
// Both orders give the same value, the integer is just faster.
template <class M, int ExactDigits>
struct DigitAccumulator {
  std::uint64_t small = 0;
  int small_digits = 0;
  M big = 0;
  bool spilled = false;

  void add(unsigned d) {
    if (!spilled) {
      if (small_digits < ExactDigits) {
        small = small * 10 + d;
        ++small_digits;
        return;
      }
      big = static_cast<M>(small);
      spilled = true;
    }
    big = big * 10 + static_cast<M>(d);
  }
  M value() const { return spilled ? big : static_cast<M>(small); }
};

inline bool is_decimal(unsigned char c) { return static_cast<unsigned>(c - '0') < 10; }

template <class F>
int convert_floating(F* value, const char* str, char** endptr) {
  using Traits = FloatTraits<F>;
  if (endptr) *endptr = nullptr;
  if (!value || !str) return ERR_INVALID_PARAMETER;
  *value = 0;

  auto p = reinterpret_cast<const unsigned char*>(str);
  while (is_space(*p)) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';

  DigitAccumulator<typename Traits::Mantissa, Traits::kExactDigits> mantissa;
  bool any_digit = false;
  long long exponent = 0;
  for (; is_decimal(*p); ++p, any_digit = true) mantissa.add(*p - '0');
  if (*p == '.') {
    for (++p; is_decimal(*p); ++p, any_digit = true, --exponent) mantissa.add(*p - '0');
  }
  if (!any_digit) return ERR_CONVERT_NO_DIGITS;

  if (*p == 'e' || *p == 'E') {
    ++p;
    bool exp_negative = false;
    if (*p == '+' || *p == '-') exp_negative = *p++ == '-';
    long long written = 0;
    for (; is_decimal(*p); ++p)
      if (written < 1000000000) written = written * 10 + (*p - '0');  // far past any limit already
    exponent += exp_negative ? -written : written;
  }
  if (exponent < Traits::kMinExponent || exponent > Traits::kMaxExponent) return ERR_CONVERT_RANGE;

  typename Traits::Mantissa m = mantissa.value();
  if (negative) m = -m;
  using Scale = typename Traits::Scale;
  const Scale scale = power_of_ten<Scale, Traits::kSquares>(static_cast<unsigned>(exponent < 0 ? -exponent : exponent));
  const Scale scaled = exponent < 0 ? static_cast<Scale>(m) / scale : static_cast<Scale>(m) * scale;
  // Within the written exponent limits a value may still lie beyond the
  // largest F ("1e50" as a float): that is a range error, never infinity.
  const F result = static_cast<F>(scaled);
  if (!std::isfinite(result)) return ERR_CONVERT_RANGE;
  *value = result;
  if (endptr) *endptr = const_cast<char*>(reinterpret_cast<const char*>(p));
  return 0;
}

}  // namespace

extern "C" {

int convert_to_d(double* value, const char* str, char** endptr) { return convert_floating(value, str, endptr); }
int convert_to_f(float* value, const char* str, char** endptr) { return convert_floating(value, str, endptr); }

int convert_to_ull(unsigned long long* value, const char* str, char** endptr, int base) {
  return convert_integer(value, str, endptr, base);
}
int convert_to_ll(long long* value, const char* str, char** endptr, int base) {
  return convert_integer(value, str, endptr, base);
}
int convert_to_ui(unsigned int* value, const char* str, char** endptr, int base) {
  return convert_integer(value, str, endptr, base);
}
int convert_to_i(int* value, const char* str, char** endptr, int base) {
  return convert_integer(value, str, endptr, base);
}
int convert_to_us(unsigned short* value, const char* str, char** endptr, int base) {
  return convert_integer(value, str, endptr, base);
}
int convert_to_s(short* value, const char* str, char** endptr, int base) {
  return convert_integer(value, str, endptr, base);
}
int convert_to_uc(unsigned char* value, const char* str, char** endptr, int base) {
  return convert_integer(value, str, endptr, base);
}
int convert_to_c(char* value, const char* str, char** endptr, int base) {
  return convert_integer(value, str, endptr, base);
}

}  // extern "C"
