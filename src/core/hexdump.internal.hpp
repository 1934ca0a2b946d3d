// The hex-dump row writer shared by the hex dumps and the memory report.
#pragma once

#include <cstddef>

namespace vek {

// Receives one piece of dump text (not terminated).
using HexSink = void (*)(const char* text, size_t len, void* ctx);

// Writes the rows for len bytes of data: every full row of sixteen bytes
// ends in a line feed; a short last row is padded to the width of a full one
// and left without its line feed. With mask_quotes, '"' and '\\' show as '*'
// in the character column (the memory report quotes its dumps). Returns true
// when the last row was short.
bool hex_rows(const unsigned char* data, size_t len, bool mask_quotes, HexSink sink, void* ctx);

}  // namespace vek
