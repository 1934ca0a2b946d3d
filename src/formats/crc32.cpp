// CRC-32, reflected, polynomial 0xEDB88320.
//
// The bulk loop is "slicing by 16": sixteen derived tables let one step fold
// sixteen input bytes with independent look-ups. Every derived table is built
// from the classic byte table, so results are bit-for-bit those of the
// one-table loop, which still handles the head and tail bytes.
#include <vekutil/crc32.h>

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

std::uint32_t crc_update(std::uint32_t c, const unsigned char* p, std::size_t n) {
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
