// Base32 in dash-separated groups of eight characters.
#include <vekutil/base32.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/base32.c";
constexpr char g_base32_encode_table[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
constexpr int kGroupChars = 8;  // characters between dashes; 40 bits

std::atomic<char> g_base32_pad{'='};

// Five-bit value of an encoded character, or -1 for characters to skip.
constexpr int kSkip = -1;
struct DecodeTable {
  signed char v[256];
};
constexpr DecodeTable make_decode_table() {
  DecodeTable t{};
  for (int c = 0; c < 256; ++c) t.v[c] = kSkip;
  for (int c = 'A'; c <= 'Z'; ++c) {
    t.v[c] = static_cast<signed char>(c - 'A');
    t.v[c - 'A' + 'a'] = static_cast<signed char>(c - 'A');
  }
  for (int c = '2'; c <= '7'; ++c) t.v[c] = static_cast<signed char>(26 + c - '2');
  return t;
}
constexpr DecodeTable kDecode = make_decode_table();

}  // namespace

extern "C" {

void base32_set_pad(char pad) { g_base32_pad.store(pad, std::memory_order_relaxed); }

int base32_encode(const unsigned char* in, int inlen, char** out) {
  if (!out) return ERR_INVALID_PARAMETER;
  *out = nullptr;
  if (!in || inlen < 1) return ERR_INVALID_PARAMETER;

  // Eight characters and a dash (or the terminator) per five input bytes.
  const size_t capacity = static_cast<size_t>(inlen) / 5 * 9 + 9;
  char* text = static_cast<char*>(_vekMalloc(capacity, kSource, __LINE__));
  if (!text) return ERR_NO_MEMORY;

  char* w = text;
  std::uint32_t bits = 0;  // pending input bits, right-aligned
  int nbits = 0;
  int in_group = 0;  // characters written in the current group
  int written = 0;   // characters written, dashes not counted
  int pos = 0;
  while (pos < inlen || nbits > 0) {
    if (nbits < 5) {
      if (pos < inlen) {
        bits = (bits << 8) | in[pos++];
        nbits += 8;
      } else {
        bits <<= 5 - nbits;  // zero-fill the last group
        nbits = 5;
      }
    }
    nbits -= 5;
    *w++ = g_base32_encode_table[(bits >> nbits) & 31];
    ++written;
    if (++in_group == kGroupChars && (pos < inlen || nbits > 0)) {
      *w++ = '-';
      in_group = 0;
    }
  }
  const char pad = g_base32_pad.load(std::memory_order_relaxed);
  if (pad != '\0')
    for (; written % kGroupChars != 0; ++written) *w++ = pad;
  *w = '\0';
  *out = text;
  return 0;
}

int base32_decode(const char* in, unsigned char** out, int* outlen) {
  if (out) *out = nullptr;
  if (outlen) *outlen = 0;
  if (!in || !out || !outlen) return ERR_INVALID_PARAMETER;

  const size_t inlen = std::strlen(in);
  if (inlen / 8 > static_cast<size_t>(INT_MAX) / 5) return ERR_NO_MEMORY;
  const size_t capacity = inlen * 5 / 8 + 2;
  auto* data = static_cast<unsigned char*>(vek::zalloc(capacity, kSource, __LINE__));
  if (!data) return ERR_NO_MEMORY;

  const char pad = g_base32_pad.load(std::memory_order_relaxed);
  std::uint32_t bits = 0;
  int nbits = 0;
  size_t n = 0;
  for (const char* p = in; *p && !(pad != '\0' && *p == pad); ++p) {
    const int v = kDecode.v[static_cast<unsigned char>(*p)];
    if (v == kSkip) continue;
    bits = (bits << 5) | static_cast<std::uint32_t>(v);
    nbits += 5;
    if (nbits >= 8) {
      nbits -= 8;
      data[n++] = static_cast<unsigned char>(bits >> nbits);
    }
  }
  *out = data;
  *outlen = static_cast<int>(n);
  return 0;
}

}  // extern "C"
