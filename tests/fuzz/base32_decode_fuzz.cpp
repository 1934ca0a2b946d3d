// fuzz-seconds: 10
// Decoding arbitrary text never fails on non-null input, never reads past the
// terminator, and its bytes survive a re-encode and decode.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <vekutil/base32.h>
#include <vekutil/memory.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);  // stops at an embedded zero
  unsigned char* bytes = nullptr;
  int length = -1;
  if (base32_decode(text.c_str(), &bytes, &length) != 0) std::abort();
  if (length < 0 || static_cast<size_t>(length) > text.size() * 5 / 8) std::abort();
  if (length > 0) {
    char* again = nullptr;
    if (base32_encode(bytes, length, &again) != 0) std::abort();
    unsigned char* round = nullptr;
    int round_length = -1;
    if (base32_decode(again, &round, &round_length) != 0 || round_length != length ||
        std::memcmp(round, bytes, static_cast<size_t>(length)) != 0)
      std::abort();
    vekFree(round);
    vekFree(again);
  }
  vekFree(bytes);
  return 0;
}
