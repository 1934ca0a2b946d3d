// Base64 with a settable padding character.
//
// Encoding looks up two output characters at once from a 4096-entry table of
// character pairs (one per 12-bit half of a 3-byte group) and, while eight
// input bytes remain readable, turns six of them into one 8-byte store.
// Decoding runs a fast loop over complete groups of alphabet characters and
// finishes the text (last group, padding, errors) in a careful
// character-by-character tail.
#include <vekutil/base64.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/base64.c";
constexpr char g_base64_charset[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::atomic<char> g_base64_default_pad_char{'='};

// Two characters per entry, the first in the low byte (the order they take
// in memory on this little-endian machine).
struct PairTable {
  std::uint16_t pair[4096];
};
constexpr PairTable make_pair_table() {
  PairTable t{};
  for (int v = 0; v < 4096; ++v)
    t.pair[v] = static_cast<std::uint16_t>(static_cast<unsigned char>(g_base64_charset[v >> 6]) |
                                           (static_cast<unsigned char>(g_base64_charset[v & 63]) << 8));
  return t;
}
constexpr PairTable kPairs = make_pair_table();

constexpr std::uint8_t kInvalid = 0xFF;
struct DecodeTable {
  std::uint8_t v[256];
};
constexpr DecodeTable make_decode_table() {
  DecodeTable t{};
  for (int c = 0; c < 256; ++c) t.v[c] = kInvalid;
  for (int i = 0; i < 64; ++i) t.v[static_cast<unsigned char>(g_base64_charset[i])] = static_cast<std::uint8_t>(i);
  return t;
}
constexpr DecodeTable kDecode = make_decode_table();

inline std::uint8_t sextet(char c) { return kDecode.v[static_cast<unsigned char>(c)]; }

// The decode table once per position in a group, already shifted into place
// for a 24-bit group value; a foreign character sets bit 31.
constexpr std::uint32_t kBad = 0x80000000u;
struct ShiftedTables {
  std::uint32_t t[4][256];
};
constexpr ShiftedTables make_shifted_tables() {
  ShiftedTables s{};
  for (int pos = 0; pos < 4; ++pos)
    for (int c = 0; c < 256; ++c)
      s.t[pos][c] = kDecode.v[c] == kInvalid ? kBad : std::uint32_t{kDecode.v[c]} << (18 - 6 * pos);
  return s;
}
constexpr ShiftedTables kShifted = make_shifted_tables();

// The 24-bit value of four characters (the low 32 bits of chars, first
// character in the low byte); bit 31 set when any is foreign.
inline std::uint32_t group_value(std::uint32_t chars) {
  return kShifted.t[0][chars & 0xFF] | kShifted.t[1][(chars >> 8) & 0xFF] | kShifted.t[2][(chars >> 16) & 0xFF] |
         kShifted.t[3][chars >> 24];
}

// Decodes the part of the text the fast loop left: at most one partial group,
// padding and anything malformed. Returns the bytes written or -1.
long decode_tail(const char* p, const char* end, unsigned char* w, char pad) {
  unsigned char* const start = w;
  std::uint32_t acc = 0;
  int chars = 0;  // alphabet characters in the current group
  int pads = 0;
  for (; p < end; ++p) {
    const std::uint8_t v = sextet(*p);
    if (v != kInvalid && pads == 0) {
      acc = (acc << 6) | v;
      if (++chars == 4) {
        *w++ = static_cast<unsigned char>(acc >> 16);
        *w++ = static_cast<unsigned char>(acc >> 8);
        *w++ = static_cast<unsigned char>(acc);
        acc = 0;
        chars = 0;
      }
    } else if (pad != '\0' && *p == pad && chars >= 2 && chars + pads < 4) {
      ++pads;
    } else {
      return -1;  // foreign character, misplaced padding, or text after it
    }
  }
  if (pads > 0 && chars + pads != 4) return -1;
  if (chars == 1) return -1;  // six bits cannot make a byte
  if (chars == 2) {
    *w++ = static_cast<unsigned char>(acc >> 4);
  } else if (chars == 3) {
    *w++ = static_cast<unsigned char>(acc >> 10);
    *w++ = static_cast<unsigned char>(acc >> 2);
  }
  return w - start;
}

}  // namespace

extern "C" {

void base64_set_pad(char pad) { g_base64_default_pad_char.store(pad, std::memory_order_relaxed); }

int base64_sizeof(int asciiSize) {
  const long long v = static_cast<long long>(asciiSize) * 4 / 3;
  return static_cast<int>(v + 4 - (v % 4));
}

int base64_encode(const unsigned char* in, int inlen, char** out) {
  if (!out) return -1;
  *out = nullptr;
  if (!in || inlen < 0 || inlen > INT_MAX / 4 * 3 - 6) return -1;
  char* text = static_cast<char*>(_vekMalloc(static_cast<size_t>(base64_sizeof(inlen)) + 1, kSource, __LINE__));
  if (!text) return -1;

  char* w = text;
  const unsigned char* p = in;
  const unsigned char* const end = in + inlen;
  const unsigned char* const end3 = in + inlen / 3 * 3;
  // Two groups per step; the load reads two bytes beyond them.
  for (; end - p >= 8; p += 6, w += 8) {
    std::uint64_t raw;
    std::memcpy(&raw, p, 8);
    const std::uint64_t v = __builtin_bswap64(raw);  // p[0] in the top byte
    const auto a = static_cast<std::uint32_t>(v >> 40), b = static_cast<std::uint32_t>(v >> 16);
    const std::uint64_t chars = std::uint64_t{kPairs.pair[(a >> 12) & 0xFFF]} |
                                (std::uint64_t{kPairs.pair[a & 0xFFF]} << 16) |
                                (std::uint64_t{kPairs.pair[(b >> 12) & 0xFFF]} << 32) |
                                (std::uint64_t{kPairs.pair[b & 0xFFF]} << 48);
    std::memcpy(w, &chars, 8);
  }
  for (; p < end3; p += 3, w += 4) {
    const std::uint32_t v = (std::uint32_t{p[0]} << 16) | (std::uint32_t{p[1]} << 8) | p[2];
    std::memcpy(w, &kPairs.pair[v >> 12], 2);
    std::memcpy(w + 2, &kPairs.pair[v & 0xFFF], 2);
  }
  const int rest = inlen % 3;
  if (rest > 0) {
    const char pad = g_base64_default_pad_char.load(std::memory_order_relaxed);
    const std::uint32_t v = (std::uint32_t{p[0]} << 16) | (rest == 2 ? std::uint32_t{p[1]} << 8 : 0);
    *w++ = g_base64_charset[v >> 18];
    *w++ = g_base64_charset[(v >> 12) & 63];
    *w++ = rest == 2 ? g_base64_charset[(v >> 6) & 63] : pad;
    *w++ = pad;  // a '\0' pad simply ends the text early
  }
  *w = '\0';
  *out = text;
  return 0;
}

int base64_decode(const char* in, unsigned char** out, int* outlen) {
  if (out) *out = nullptr;
  if (outlen) *outlen = 0;
  if (!in || !out || !outlen) return -1;
  const size_t len = std::strlen(in);
  if (len / 4 > static_cast<size_t>(INT_MAX) / 3 - 1) return -1;
  auto* data = static_cast<unsigned char*>(_vekMalloc(len / 4 * 3 + 3, kSource, __LINE__));
  if (!data) return -1;

  unsigned char* w = data;
  const char* p = in;
  const char* const end = in + len;
  // Complete groups of four alphabet characters, two at a time while more
  // text follows (one 8-byte store of which the last two bytes are
  // overwritten later; the buffer has room for them). Stops at the first
  // group holding anything else: padding, or an error the tail reports.
  for (; end - p >= 12; p += 8, w += 6) {
    std::uint64_t chars;
    std::memcpy(&chars, p, 8);
    const std::uint32_t a = group_value(static_cast<std::uint32_t>(chars));
    const std::uint32_t b = group_value(static_cast<std::uint32_t>(chars >> 32));
    if ((a | b) & kBad) break;
    const std::uint64_t bytes = __builtin_bswap64((std::uint64_t{a} << 40) | (std::uint64_t{b} << 16));
    std::memcpy(w, &bytes, 8);
  }
  for (; end - p >= 4; p += 4, w += 3) {
    std::uint32_t chars;
    std::memcpy(&chars, p, 4);
    const std::uint32_t v = group_value(chars);
    if (v & kBad) break;
    w[0] = static_cast<unsigned char>(v >> 16);
    w[1] = static_cast<unsigned char>(v >> 8);
    w[2] = static_cast<unsigned char>(v);
  }
  const long tail = decode_tail(p, end, w, g_base64_default_pad_char.load(std::memory_order_relaxed));
  if (tail < 0) {
    _vekFree(data, kSource, __LINE__);
    return -1;
  }
  w += tail;
  *w = 0;
  *outlen = static_cast<int>(w - data);
  *out = data;
  return 0;
}

}  // extern "C"
