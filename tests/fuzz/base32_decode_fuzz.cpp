// fuzz-seconds: 10
// Decoding arbitrary text never fails on non-null input, never reads past the
// terminator, and its bytes survive a re-encode and decode.
#include <cstdint>
#include <string>

#include <vekutil/base32.h>

#include "fuzz_util.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);  // stops at an embedded zero
  unsigned char* bytes = nullptr;
  int length = -1;
  if (base32_decode(text.c_str(), &bytes, &length) != 0) std::abort();
  if (length < 0 || static_cast<size_t>(length) > text.size() * 5 / 8) std::abort();
  if (length > 0) require_round_trip(bytes, length, base32_encode, base32_decode);
  vekFree(bytes);
  return 0;
}
