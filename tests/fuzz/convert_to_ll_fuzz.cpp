// fuzz-seconds: 10
// Arbitrary text in bases 0, 10 and 16: the end pointer stays inside the
// text, and every valid decimal integer agrees with strtoll, including the
// range limits.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <vekutil/convert.h>
#include <vekutil/errors.h>

namespace {

// Leading white space, one optional sign, then at least one decimal digit.
bool is_decimal_integer(const char* s) {
  while (*s == ' ' || (*s >= '\t' && *s <= '\r')) ++s;
  if (*s == '+' || *s == '-') ++s;
  return *s >= '0' && *s <= '9';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const char* s = text.c_str();
  for (int base : {0, 10, 16}) {
    long long value = 1;
    char* end = nullptr;
    const int rc = convert_to_ll(&value, s, &end, base);
    if (rc == 0 ? (end <= s || end > s + text.size()) : (end != nullptr || value != 0)) std::abort();
    if (rc != 0 && rc != ERR_CONVERT_NO_DIGITS && rc != ERR_CONVERT_RANGE) std::abort();
  }

  if (!is_decimal_integer(s)) return 0;
  long long value = 1;
  char* end = nullptr;
  const int rc = convert_to_ll(&value, s, &end, 10);
  errno = 0;
  char* c_end = nullptr;
  const long long expected = std::strtoll(s, &c_end, 10);
  if (errno == ERANGE) {
    if (rc != ERR_CONVERT_RANGE) std::abort();
  } else if (rc != 0 || value != expected || end != c_end) {
    std::abort();
  }
  return 0;
}
