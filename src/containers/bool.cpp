// Bit fields over words of 8, 16, 32 and 64 bits, and booleans from text.
#include <vekutil/bool.h>

#include <cctype>
#include <climits>
#include <cstdint>

namespace {

template <class W>
constexpr unsigned kWidth = sizeof(W) * CHAR_BIT;

template <class W>
int get_bit(const W* source, unsigned int bit) {
  if (!source) return 0;
  return static_cast<int>((source[bit / kWidth<W>] >> (bit % kWidth<W>)) & 1u);
}

template <class W>
void set_bit(W* source, unsigned int bit, int value) {
  if (!source) return;
  const W mask = static_cast<W>(W{1} << (bit % kWidth<W>));
  W& word = source[bit / kWidth<W>];
  word = value ? static_cast<W>(word | mask) : static_cast<W>(word & ~mask);
}

// Bit counts above 32 are cut to 32: the result is an int.
inline int clamp_length(int length) { return length > 32 ? 32 : length; }

}  // namespace

extern "C" {

int bool_getbit(const void* source, unsigned int bit) { return get_bit(static_cast<const unsigned char*>(source), bit); }
int bool_getbit_from_char(const unsigned char* source, unsigned int bit) { return get_bit(source, bit); }
int bool_getbit_from_short(const unsigned short* source, unsigned int bit) { return get_bit(source, bit); }
int bool_getbit_from_int(const unsigned int* source, unsigned int bit) { return get_bit(source, bit); }
int bool_getbit_from_longlong(const unsigned long long* source, unsigned int bit) { return get_bit(source, bit); }

void bool_setbit(void* source, unsigned int bit, int value) {
  set_bit(static_cast<unsigned char*>(source), bit, value);
}
void bool_setbit_from_char(unsigned char* source, unsigned int bit, int value) { set_bit(source, bit, value); }
void bool_setbit_from_short(unsigned short* source, unsigned int bit, int value) { set_bit(source, bit, value); }
void bool_setbit_from_int(unsigned int* source, unsigned int bit, int value) { set_bit(source, bit, value); }
void bool_setbit_from_longlong(unsigned long long* source, unsigned int bit, int value) {
  set_bit(source, bit, value);
}

int bool_getbits(const void* source, unsigned int bit, int length) {
  if (!source) return 0;
  const auto* bytes = static_cast<const unsigned char*>(source);
  std::uint32_t result = 0;
  for (int i = 0; i < clamp_length(length); ++i)
    result |= static_cast<std::uint32_t>(get_bit(bytes, bit + static_cast<unsigned>(i))) << i;
  return static_cast<int>(result);
}

int bool_setbits(void* source, unsigned int bit, int length, int value) {
  if (!source) return 0;
  auto* bytes = static_cast<unsigned char*>(source);
  const auto bits = static_cast<std::uint32_t>(value);
  for (int i = 0; i < clamp_length(length); ++i) set_bit(bytes, bit + static_cast<unsigned>(i), (bits >> i) & 1u);
  return 0;
}

int bool_get(const char* str) {
  if (!str) return 0;
  const auto is_digit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
  switch (str[0]) {
    case 'T': case 'Y': case 't': case 'y':
      return 1;
    case 'F': case 'N': case 'f': case 'n': case '\0':
      return 0;
    case '0':
      return is_digit(str[1]) ? 1 : 0;
    default:
      break;
  }
  if (is_digit(str[0])) return 1;
  return is_digit(str[1]) && str[0] == '-' ? 1 : 0;
}

}  // extern "C"
