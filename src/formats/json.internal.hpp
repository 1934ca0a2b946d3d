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

// The open containers of a walk over a tree or a text: the first few on the
// stack, deeper ones in an allocated block, so the walk uses a bounded
// amount of stack however deep the document is.
template <class Frame>
class FrameStack {
 public:
  FrameStack() = default;
  ~FrameStack() {
    if (frames_ != inline_) _vekFree(frames_, kSource, __LINE__);
  }
  FrameStack(const FrameStack&) = delete;
  FrameStack& operator=(const FrameStack&) = delete;

  bool empty() const { return size_ == 0; }
  int size() const { return size_; }
  Frame& top() { return frames_[size_ - 1]; }
  const Frame& operator[](int i) const { return frames_[i]; }
  void pop() { --size_; }

  // False when out of memory.
  bool push(const Frame& frame) {
    if (size_ == capacity_ && !grow()) return false;
    frames_[size_++] = frame;
    return true;
  }

 private:
  static constexpr int kInline = 32;

  bool grow() {
    const int capacity = capacity_ * 2;
    auto* block = static_cast<Frame*>(_vekMalloc(sizeof(Frame) * static_cast<size_t>(capacity), kSource, __LINE__));
    if (!block) return false;
    std::memcpy(static_cast<void*>(block), frames_, sizeof(Frame) * static_cast<size_t>(size_));
    if (frames_ != inline_) _vekFree(frames_, kSource, __LINE__);
    frames_ = block;
    capacity_ = capacity;
    return true;
  }

  Frame inline_[kInline];
  Frame* frames_ = inline_;
  int size_ = 0;
  int capacity_ = kInline;
};

// Fills the numeric fields of a number node from a double or an exact integer.
void set_number(JSON* item, double value);
void set_integer(JSON* item, long long value, double as_double);

}  // namespace vek::json
