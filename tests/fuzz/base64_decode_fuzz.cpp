// fuzz-seconds: 10
// Decoding arbitrary text either fails cleanly or yields bytes that encode
// back to text decoding to the same bytes.
#include <cstdint>
#include <string>

#include <vekutil/base64.h>

#include "fuzz_util.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  unsigned char* bytes = nullptr;
  int length = -1;
  if (base64_decode(text.c_str(), &bytes, &length) != 0) {
    if (bytes) std::abort();
    return 0;
  }
  if (length < 0 || static_cast<size_t>(length) > text.size() * 3 / 4 + 2) std::abort();
  require_round_trip(bytes, length, base64_encode, base64_decode);
  vekFree(bytes);
  return 0;
}
