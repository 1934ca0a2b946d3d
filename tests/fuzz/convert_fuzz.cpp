// fuzz-seconds: 20
// Arbitrary text through the number readers. For every result the end
// pointer stays inside the text and failures use the documented codes;
// accepted doubles are close to strtod's, and in base 10 every valid integer
// agrees with strtoll, including the range limits.
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <vekutil/convert.h>
#include <vekutil/errors.h>

namespace {

bool is_failure_code(int rc) { return rc == ERR_CONVERT_NO_DIGITS || rc == ERR_CONVERT_RANGE; }

// Leading white space, one optional sign, then at least one decimal digit.
bool is_decimal_integer(const char* s) {
  while (*s == ' ' || (*s >= '\t' && *s <= '\r')) ++s;
  if (*s == '+' || *s == '-') ++s;
  return *s >= '0' && *s <= '9';
}

void check_double(const std::string& text) {
  const char* s = text.c_str();
  double value = -1;
  char* end = nullptr;
  const int rc = convert_to_d(&value, s, &end);
  if (is_failure_code(rc)) {
    if (end != nullptr || value != 0) std::abort();
    return;
  }
  if (rc != 0 || end <= s || end > s + text.size()) std::abort();
  // Compare with the C library on the same span, when it reads the same
  // syntax (it also knows hexadecimal, inf and nan, which are not accepted).
  const std::string number(s, static_cast<size_t>(end - s));
  char* c_end = nullptr;
  const double expected = std::strtod(number.c_str(), &c_end);
  if (c_end != number.c_str() + number.size()) return;
  if (std::isinf(expected) || std::isinf(value) || std::fabs(expected) < 1e-290) return;
  if (std::fabs(value - expected) > std::fabs(expected) * 1e-12) std::abort();
}

void check_integer(const std::string& text) {
  const char* s = text.c_str();
  for (int base : {0, 10, 16}) {
    long long value = 1;
    char* end = nullptr;
    const int rc = convert_to_ll(&value, s, &end, base);
    if (rc == 0 ? (end <= s || end > s + text.size()) : (end != nullptr || value != 0)) std::abort();
    if (rc != 0 && !is_failure_code(rc)) std::abort();
    if (base != 10 || !is_decimal_integer(s)) continue;
    errno = 0;
    char* c_end = nullptr;
    const long long expected = std::strtoll(s, &c_end, 10);
    if (errno == ERANGE ? rc != ERR_CONVERT_RANGE : (rc != 0 || value != expected || end != c_end)) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  check_double(text);
  check_integer(text);
  return 0;
}
