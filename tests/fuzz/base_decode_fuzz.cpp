// fuzz-seconds: 20
// Arbitrary text through both decoders. Base32 never fails on non-null input
// and never reads past the terminator; base64 either fails cleanly or, like
// base32, yields bytes that encode back to text decoding to the same bytes.
#include <cstdint>
#include <string>

#include <vekutil/base32.h>
#include <vekutil/base64.h>

#include "fuzz_util.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);  // stops at an embedded zero
  unsigned char* bytes = nullptr;
  int length = -1;
  if (base32_decode(text.c_str(), &bytes, &length) != 0) std::abort();
  if (length < 0 || static_cast<size_t>(length) > text.size() * 5 / 8) std::abort();
  if (length > 0) require_round_trip(bytes, length, base32_encode, base32_decode);
  vekFree(bytes);

  bytes = nullptr;
  length = -1;
  if (base64_decode(text.c_str(), &bytes, &length) != 0) {
    if (bytes) std::abort();
    return 0;
  }
  if (length < 0 || static_cast<size_t>(length) > text.size() * 3 / 4 + 2) std::abort();
  require_round_trip(bytes, length, base64_encode, base64_decode);
  vekFree(bytes);
  return 0;
}
