// Shared by the JSON model's parser, printer and tree functions. Not installed.
#pragma once

#include <vekutil/json.h>

#include "core/internal.hpp"

namespace vek::json {

// The source name every allocation of this module is booked under.
inline constexpr const char* kSource = "src/json.c";

inline constexpr int kTypeMask = 0xFF;

inline int type_of(const JSON* item) { return item->type & kTypeMask; }
inline bool is_reference(const JSON* item) { return (item->type & JSON_IS_REFERENCE) != 0; }

// A zero-filled node, or nullptr when the allocator is exhausted.
inline JSON* new_node(int line) { return alloc_record<JSON>(kSource, line); }

// Links child behind last, or as parent's first child when last is null.
inline void link_after(JSON* parent, JSON* last, JSON* child) {
  if (last) {
    last->next = child;
    child->prev = last;
  } else {
    parent->child = child;
  }
}

// Fills the numeric fields of a number node from a double or an exact integer.
void set_number(JSON* item, double value);
void set_integer(JSON* item, long long value, double as_double);

}  // namespace vek::json
