// CRC-32, reflected, polynomial 0xEDB88320.
//
// Three ways to the same value, fastest first:
// - on processors with carry-less multiplication, blocks of 64 bytes are
//   folded four lanes at a time and reduced to 32 bits at the end;
// - otherwise "slicing by 16": sixteen derived tables let one step fold
//   sixteen input bytes with independent look-ups;
// - the classic one-table loop handles the remaining tail bytes.
// Every path computes the same polynomial remainder, so results are
// bit-for-bit those of the one-table loop (the tests compare them).
#include <vekutil/crc32.h>

#include <immintrin.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kSlices = 16;
constexpr std::uint32_t kPolynomial = 0xEDB88320u;

struct CrcTables {
  std::uint32_t t[kSlices][256];
};

constexpr CrcTables make_tables() {
  CrcTables tables{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ kPolynomial : c >> 1;
    tables.t[0][i] = c;
  }
  // t[s][i]: the CRC contribution of byte i followed by s zero bytes.
  for (int s = 1; s < kSlices; ++s)
    for (int i = 0; i < 256; ++i)
      tables.t[s][i] = (tables.t[s - 1][i] >> 8) ^ tables.t[0][tables.t[s - 1][i] & 0xFF];
  return tables;
}

constexpr CrcTables kTables = make_tables();
// The classic single table; the byte-at-a-time loop uses only this one.
constexpr const std::uint32_t (&CRCTable)[256] = kTables.t[0];

static_assert(CRCTable[1] == 0x77073096u && CRCTable[255] == 0x2D02EF8Du);

inline std::uint32_t load_le32(const unsigned char* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;  // x86_64 is little-endian
}

std::uint32_t crc_sliced(std::uint32_t c, const unsigned char* p, std::size_t n) {
  const auto& t = kTables.t;
  while (n >= kSlices) {
    const std::uint32_t a = load_le32(p) ^ c;
    const std::uint32_t b = load_le32(p + 4);
    const std::uint32_t d = load_le32(p + 8);
    const std::uint32_t e = load_le32(p + 12);
    c = t[15][a & 0xFF] ^ t[14][(a >> 8) & 0xFF] ^ t[13][(a >> 16) & 0xFF] ^ t[12][a >> 24] ^
        t[11][b & 0xFF] ^ t[10][(b >> 8) & 0xFF] ^ t[9][(b >> 16) & 0xFF] ^ t[8][b >> 24] ^
        t[7][d & 0xFF] ^ t[6][(d >> 8) & 0xFF] ^ t[5][(d >> 16) & 0xFF] ^ t[4][d >> 24] ^
        t[3][e & 0xFF] ^ t[2][(e >> 8) & 0xFF] ^ t[1][(e >> 16) & 0xFF] ^ t[0][e >> 24];
    p += kSlices;
    n -= kSlices;
  }
  while (n--) c = (c >> 8) ^ CRCTable[(c ^ *p++) & 0xFF];
  return c;
}

#define VEK_CLMUL_TARGET gnu::target("pclmul,sse4.1")

[[VEK_CLMUL_TARGET]] inline __m128i load(const unsigned char* q) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
}

// Moves the remainder a forward by the distance k stands for and adds the
// next data.
[[VEK_CLMUL_TARGET]] inline __m128i fold(__m128i a, __m128i k, __m128i next) {
  return _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(a, k, 0x00), _mm_clmulepi64_si128(a, k, 0x11)), next);
}

// Folding with carry-less multiplication over n bytes (n >= 64 and a
// multiple of 16). The constants are x^k mod P for the reflected polynomial
// at the fold distances used (512+64, 512, 128+64, 128, 64 and 32 bits),
// then P itself and the Barrett constant floor(x^64 / P).
[[VEK_CLMUL_TARGET]] std::uint32_t crc_folded(std::uint32_t crc, const unsigned char* p,
                                                            std::size_t n) {
  const __m128i k1k2 = _mm_set_epi64x(0x01c6e41596, 0x0154442bd4);
  const __m128i k3k4 = _mm_set_epi64x(0x00ccaa009e, 0x01751997d0);
  const __m128i k5k0 = _mm_set_epi64x(0x0000000000, 0x0163cd6124);
  const __m128i poly = _mm_set_epi64x(0x01f7011641, 0x01db710641);
  __m128i x1 = _mm_xor_si128(load(p), _mm_cvtsi32_si128(static_cast<int>(crc)));
  __m128i x2 = load(p + 16), x3 = load(p + 32), x4 = load(p + 48);
  p += 64;
  n -= 64;
  for (; n >= 64; p += 64, n -= 64) {
    x1 = fold(x1, k1k2, load(p));
    x2 = fold(x2, k1k2, load(p + 16));
    x3 = fold(x3, k1k2, load(p + 32));
    x4 = fold(x4, k1k2, load(p + 48));
  }
  x1 = fold(x1, k3k4, x2);
  x1 = fold(x1, k3k4, x3);
  x1 = fold(x1, k3k4, x4);
  for (; n >= 16; p += 16, n -= 16) x1 = fold(x1, k3k4, load(p));

  // 128 -> 64 bits.
  const __m128i low32 = _mm_setr_epi32(~0, 0, ~0, 0);
  __m128i x2r = _mm_clmulepi64_si128(x1, k3k4, 0x10);
  x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), x2r);
  x2r = _mm_srli_si128(x1, 4);
  x1 = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x1, low32), k5k0, 0x00), x2r);
  // 64 -> 32 bits (Barrett reduction).
  x2r = _mm_clmulepi64_si128(_mm_and_si128(x1, low32), poly, 0x10);
  x2r = _mm_clmulepi64_si128(_mm_and_si128(x2r, low32), poly, 0x00);
  x1 = _mm_xor_si128(x1, x2r);
  return static_cast<std::uint32_t>(_mm_extract_epi32(x1, 1));
}

bool have_carryless_multiply() {
  static const bool supported = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  }();
  return supported;
}

std::uint32_t crc_update(std::uint32_t c, const unsigned char* p, std::size_t n) {
  if (n >= 64 && have_carryless_multiply()) {
    const std::size_t bulk = n & ~static_cast<std::size_t>(15);
    c = crc_folded(c, p, bulk);
    p += bulk;
    n -= bulk;
  }
  return crc_sliced(c, p, n);
}

}  // namespace

extern "C" {

unsigned int hash_crc32(const char* data, unsigned int datalen) {
  if (!data || datalen == 0) return 0;
  return ~crc_update(0xFFFFFFFFu, reinterpret_cast<const unsigned char*>(data), datalen);
}

void hash_crc32_init(unsigned int* crc) {
  if (crc) *crc = 0xFFFFFFFFu;
}

void hash_crc32_calc(unsigned int* crc, const char* data, unsigned int datalen) {
  if (!crc || !data) return;
  *crc = crc_update(*crc, reinterpret_cast<const unsigned char*>(data), datalen);
}

void hash_crc32_end(unsigned int* crc) {
  if (crc) *crc = ~*crc;
}

int hash_file_crc32(const char* filename, unsigned int* crc32) {
  if (!filename || !crc32) return -1;
  std::FILE* fp = std::fopen(filename, "rb");
  if (!fp) return -1;
  unsigned int crc;
  hash_crc32_init(&crc);
  char block[2048];
  std::size_t got;
  while ((got = std::fread(block, 1, sizeof block, fp)) > 0)
    hash_crc32_calc(&crc, block, static_cast<unsigned int>(got));
  const bool failed = std::ferror(fp) != 0;
  std::fclose(fp);
  if (failed) return -1;
  hash_crc32_end(&crc);
  *crc32 = crc;
  return 0;
}

}  // extern "C"
