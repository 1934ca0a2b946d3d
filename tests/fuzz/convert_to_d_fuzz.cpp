// fuzz-seconds: 10
// Arbitrary text: every result is one of the documented codes, the end
// pointer stays inside the text, and accepted numbers are close to strtod's.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <vekutil/convert.h>
#include <vekutil/errors.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const char* s = text.c_str();
  double value = -1;
  char* end = nullptr;
  const int rc = convert_to_d(&value, s, &end);
  if (rc == ERR_CONVERT_NO_DIGITS || rc == ERR_CONVERT_RANGE) {
    if (end != nullptr || value != 0) std::abort();
    return 0;
  }
  if (rc != 0 || end <= s || end > s + text.size()) std::abort();

  // Compare with the C library on the same span, when it reads the same
  // syntax (it also knows hexadecimal, inf and nan, which are not accepted).
  const std::string number(s, static_cast<size_t>(end - s));
  char* c_end = nullptr;
  const double expected = std::strtod(number.c_str(), &c_end);
  if (c_end != number.c_str() + number.size()) return 0;
  if (std::isinf(expected) || std::isinf(value) || std::fabs(expected) < 1e-290) return 0;
  if (std::fabs(value - expected) > std::fabs(expected) * 1e-12) std::abort();
  return 0;
}
