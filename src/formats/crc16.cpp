// CRC-16/CCITT, polynomial 0x1021, computed a byte at a time without a table:
// the two shifts of x fold the polynomial's taps at bits 12, 5 and 0.
#include <vekutil/crc16.h>

#include <cstdint>

extern "C" unsigned short hash_crc16_ccitt(const void* addr, unsigned short len, unsigned short seed) {
  if (!addr) return seed;
  const auto* p = static_cast<const unsigned char*>(addr);
  std::uint16_t c = seed;
  for (unsigned i = 0; i < len; ++i) {
    std::uint16_t x = static_cast<std::uint16_t>((c >> 8) ^ p[i]);
    x ^= x >> 4;
    c = static_cast<std::uint16_t>((c << 8) ^ (x << 12) ^ (x << 5) ^ x);
  }
  return c;
}
