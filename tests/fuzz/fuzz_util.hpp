// Shared checks for the fuzz targets.
#pragma once

#include <cstdlib>
#include <cstring>

#include <vekutil/memory.h>

// Encodes bytes, decodes the text again and aborts unless the same bytes come
// back; frees everything it made.
inline void require_round_trip(const unsigned char* bytes, int length,
                               int (*encode)(const unsigned char*, int, char**),
                               int (*decode)(const char*, unsigned char**, int*)) {
  char* text = nullptr;
  if (encode(bytes, length, &text) != 0) std::abort();
  unsigned char* again = nullptr;
  int again_length = -1;
  if (decode(text, &again, &again_length) != 0 || again_length != length ||
      std::memcmp(again, bytes, static_cast<size_t>(length)) != 0)
    std::abort();
  vekFree(again);
  vekFree(text);
}
