// Shared checks for the fuzz targets.
#pragma once

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include <vekutil/btree.h>
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

// The library's live blocks counted by source position, leaving out the
// nodes of hash B-trees: a process-wide tree (the socket registry, the
// instrumentation groups) that had entries added and removed again may keep
// a node it split off, or lose one, so their number depends on history.
// Everything else - tree records, locks, sessions, buffers - is counted.
using BlockCensus = std::map<std::string, long>;

inline void count_live_block(int, time_t, void*, char*, int, const char* file, int line, int, void* custom) {
  (*static_cast<BlockCensus*>(custom))[std::string(file ? file : "?") + "(" + std::to_string(line) + ")"] += 1;
}

inline BlockCensus walk_live_blocks() {
  BlockCensus census;
  vekMemoryDumpForeach(count_live_block, &census);
  return census;
}

// The position of a tree node: the one new block when a private tree files
// its first element.
inline std::string tree_node_position() {
  static const std::string position = [] {
    void* tree = nullptr;
    if (btree_create_ex(&tree, nullptr, nullptr, BTREE_OPTION_NO_LOCK | BTREE_OPTION_NO_INSTRUMENT) != 0) std::abort();
    BlockCensus before = walk_live_blocks();
    static int element;
    btree_insert_with_hash(tree, &element, 1);
    std::string found;
    for (const auto& [where, n] : walk_live_blocks())
      if (n > (before.count(where) ? before.at(where) : 0)) found = where;
    btree_delete(tree);
    return found;
  }();
  return position;
}

inline BlockCensus block_census() {
  const std::string& node = tree_node_position();
  BlockCensus census = walk_live_blocks();
  census.erase(node);
  return census;
}
