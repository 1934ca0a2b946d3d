// Hex dumps of byte ranges, to standard output or into an allocated string.
#include <cstdio>
#include <cstring>

#include <vekutil/hexdump.h>

#include "core/hexdump.internal.hpp"
#include "core/internal.hpp"

namespace vek {
namespace {

constexpr int kRowBytes = 16;

char shown_char(unsigned char c, bool mask_quotes) {
  if (mask_quotes && (c == '"' || c == '\\')) return '*';
  // Printable in the default ("C") locale, whatever locale the process set.
  return (c >= 0x20 && c < 0x7f) ? (char)c : '.';
}

// One row under construction; a full row with an 8-digit offset is 80 bytes.
struct Row {
  char text[96];
  int used = 0;
  void add(const char* fmt, unsigned value) {
    used += std::snprintf(text + used, sizeof text - used, fmt, value);
  }
  void add_chars(const char* chars, int n) {
    std::memcpy(text + used, chars, n);
    used += n;
  }
};

}  // namespace

bool hex_rows(const unsigned char* data, size_t len, bool mask_quotes, HexSink sink, void* ctx) {
  Row row;
  char chars[kRowBytes];
  for (size_t i = 0; i < len; ++i) {
    int col = (int)(i % kRowBytes);
    if (col == 0) {
      row.used = 0;
      row.add("  %4.4x:", (unsigned)i);
    }
    row.add(" %2.2x", data[i]);
    chars[col] = shown_char(data[i], mask_quotes);
    if (col == 7) row.add_chars(" -", 2);
    if (col == kRowBytes - 1) {
      row.add_chars("  ", 2);
      row.add_chars(chars, kRowBytes);
      row.add_chars("\n", 1);
      sink(row.text, row.used, ctx);
    }
  }
  int rest = (int)(len % kRowBytes);
  if (rest == 0) return false;
  // Pad the missing columns (and the missing " -" of a row shorter than 8).
  int width = (kRowBytes - rest) * 3 + (rest < 8 ? 2 : 0);
  row.used += std::snprintf(row.text + row.used, sizeof row.text - row.used, "%*s  ", width, "");
  row.add_chars(chars, rest);
  sink(row.text, row.used, ctx);
  return true;
}

}  // namespace vek

namespace {

void write_to_stream(const char* text, size_t len, void* ctx) { std::fwrite(text, 1, len, (FILE*)ctx); }

// An allocated string being filled, never written past its capacity.
struct StringSink {
  char* buffer;
  size_t capacity;
  size_t used;
};

void append_to_string(const char* text, size_t len, void* ctx) {
  auto* s = static_cast<StringSink*>(ctx);
  size_t room = s->capacity - 1 - s->used;
  if (len > room) len = room;
  std::memcpy(s->buffer + s->used, text, len);
  s->used += len;
  s->buffer[s->used] = '\0';
}

}  // namespace

void hexdump_console(const void* data, int len) {
  if (!data || len < 1) return;
  if (vek::hex_rows(static_cast<const unsigned char*>(data), (size_t)len, false, write_to_stream, stdout))
    std::fputc('\n', stdout);
}

char* hexdump(const void* data, int len) {
  if (!data) return nullptr;
  size_t rows = len > 0 ? (size_t)len / 16 : 0;
  size_t capacity = rows * 80 + 160;
  char* text = static_cast<char*>(_vekMalloc(capacity, "src/hexdump.c", __LINE__));
  if (!text) return nullptr;
  StringSink sink{text, capacity, 0};
  sink.used = (size_t)std::snprintf(text, capacity, "HEXDUMP AT [0x%p] (%d bytes)\n", data, len);
  bool short_row = len > 0 && vek::hex_rows(static_cast<const unsigned char*>(data), (size_t)len, false,
                                            append_to_string, &sink);
  // The text never ends in a line feed: drop the one of the last full row
  // (or of the header line when there are no rows).
  if (!short_row && sink.used > 0 && text[sink.used - 1] == '\n') text[sink.used - 1] = '\0';
  return text;
}
