// JSON printer: a tree back to text, compact or formatted. Everything is
// appended to one growing buffer. Containers nest through an explicit stack,
// not recursion, so printing takes a small, fixed amount of the thread's
// stack; the nesting depth is bounded and a reference that leads back into
// its own ancestry is refused.
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "formats/json.internal.hpp"

using namespace vek::json;

namespace {

// The text being produced.
class Output {
 public:
  Output() = default;
  ~Output() { vek::release(buf_, kSource, __LINE__); }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // Room for n more bytes and the terminating zero; false when out of memory.
  bool reserve(size_t n) { return len_ + n < cap_ || grow(n); }

  // The next free byte; valid after reserve() until `advance`.
  char* cursor() { return buf_ + len_; }
  void advance(size_t n) { len_ += n; }

  bool put(const char* text, size_t n) {
    if (!reserve(n)) return false;
    std::memcpy(buf_ + len_, text, n);
    len_ += n;
    return true;
  }
  bool put(char c) {
    if (!reserve(1)) return false;
    buf_[len_++] = c;
    return true;
  }
  bool put_tabs(int count) {
    if (count <= 0) return true;
    if (!reserve(static_cast<size_t>(count))) return false;
    std::memset(buf_ + len_, '\t', static_cast<size_t>(count));
    len_ += static_cast<size_t>(count);
    return true;
  }

  // Hands the text to the caller, or nullptr on failure. Much unused room
  // is given back (when that fails, the text keeps its larger block).
  char* take(bool ok) {
    if (!ok || !reserve(0)) return nullptr;
    if (cap_ - len_ > len_ / 8 + 64) resize(len_ + 1);
    buf_[len_] = '\0';
    char* text = buf_;
    buf_ = nullptr;
    return text;
  }

 private:
  bool grow(size_t n) {
    size_t want = cap_ ? cap_ * 2 : 256;
    if (want < len_ + n + 1) want = len_ + n + 1;
    return resize(want);
  }

  // Gives the text a block of the given size; on failure buf_ stays the
  // valid block it was.
  bool resize(size_t size) {
    char* block = static_cast<char*>(_vekRealloc(buf_, size, kSource, __LINE__));
    if (!block) return false;
    buf_ = block;
    cap_ = size;
    return true;
  }

  char* buf_ = nullptr;
  size_t len_ = 0;
  size_t cap_ = 0;
};

// ---------------------------------------------------------------- numbers

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Decimal digits of v at out; returns the end.
char* put_unsigned(char* out, uint64_t v) {
  char tmp[20];
  char* p = tmp + sizeof tmp;
  while (v >= 100) {
    unsigned pair = static_cast<unsigned>(v % 100) * 2;
    v /= 100;
    *--p = kDigitPairs[pair + 1];
    *--p = kDigitPairs[pair];
  }
  if (v >= 10) {
    unsigned pair = static_cast<unsigned>(v) * 2;
    *--p = kDigitPairs[pair + 1];
    *--p = kDigitPairs[pair];
  } else {
    *--p = static_cast<char>('0' + v);
  }
  size_t n = static_cast<size_t>(tmp + sizeof tmp - p);
  std::memcpy(out, p, n);
  return out + n;
}

// "%lld".
char* put_signed(char* out, long long v) {
  if (v < 0) {
    *out++ = '-';
    return put_unsigned(out, 0 - static_cast<uint64_t>(v));
  }
  return put_unsigned(out, static_cast<uint64_t>(v));
}

// Any printf conversion of one double. The decimal point is always '.',
// whatever numeric locale the process has chosen.
char* put_printf(char* out, size_t room, const char* format, double v) {
  int n = std::snprintf(out, room, format, v);
  if (n < 0) return out;
  if (static_cast<size_t>(n) >= room) n = static_cast<int>(room - 1);
  for (int i = 0; i < n; ++i)
    if (out[i] == ',') out[i] = '.';
  return out + n;
}

// "%.0f" of a double that is (within epsilon of) a whole number.
char* put_whole(char* out, size_t room, double v) {
  if (v == std::floor(v) && std::fabs(v) < 9.2e18 && !(v == 0 && std::signbit(v)))
    return put_signed(out, static_cast<long long>(v));
  return put_printf(out, room, "%.0f", v);
}

// "%f" of a double with 1e-6 <= |v| <= 1e9. v * 1e6 is below 2^53, so the
// digits are exact whenever its rounding cannot be in doubt; near a tie the
// C library decides.
char* put_fixed(char* out, size_t room, double v) {
  double scaled = std::fabs(v) * 1e6;
  double whole = std::floor(scaled);
  double fraction = scaled - whole;
  if (std::fabs(fraction - 0.5) <= scaled * 4.5e-16) return put_printf(out, room, "%f", v);
  uint64_t micros = static_cast<uint64_t>(whole) + (fraction > 0.5 ? 1 : 0);
  if (v < 0) *out++ = '-';
  out = put_unsigned(out, micros / 1000000);
  *out++ = '.';
  unsigned rest = static_cast<unsigned>(micros % 1000000);
  for (int i = 5; i >= 0; --i, rest /= 10) out[i] = static_cast<char>('0' + rest % 10);
  return out + 6;
}

// Enough for "%.0f" of the largest double (309 digits) and a sign.
constexpr size_t kNumberRoom = 330;

// The first rule that holds: the exact 64-bit integer when the double is
// within epsilon of it; a whole double; tiny or huge values in "%e"; the
// rest in "%f". A double that is not finite prints as null, as JSON has no
// text for it.
bool write_number(Output& o, const JSON* item) {
  if (!o.reserve(kNumberRoom)) return false;
  char* start = o.cursor();
  long long integer = item->valuelonglong;
  double v = item->valuedouble;
  char* end;
  constexpr long double kEpsilon = DBL_EPSILON;
  if (std::fabs(static_cast<long double>(integer) - static_cast<long double>(v)) <= kEpsilon) {
    end = put_signed(start, integer);
  } else if (!std::isfinite(v)) {
    std::memcpy(start, "null", 4);
    end = start + 4;
  } else if (std::fabs(std::floor(v) - v) <= DBL_EPSILON) {
    end = put_whole(start, kNumberRoom, v);
  } else if (std::fabs(v) < 1e-6 || std::fabs(v) > 1e9) {
    end = put_printf(start, kNumberRoom, "%e", v);
  } else {
    end = put_fixed(start, kNumberRoom, v);
  }
  o.advance(static_cast<size_t>(end - start));
  return true;
}

// ---------------------------------------------------------------- strings

// How each byte of a string is printed: kPlain as itself, kDrop not at all,
// kEnd is the terminating zero, anything else is the letter after '\'.
constexpr char kPlain = 0, kDrop = 1, kEnd = 2;

constexpr auto kStringBytes = [] {
  struct Table {
    char action[256];
  } t{};
  for (int c = 1; c < 32; ++c) t.action[c] = kDrop;
  t.action[0] = kEnd;
  struct Escape {
    unsigned char byte;
    char letter;
  };
  for (Escape e : {Escape{'\b', 'b'}, Escape{'\t', 't'}, Escape{'\n', 'n'}, Escape{'\f', 'f'}, Escape{'\r', 'r'},
                   Escape{'"', '"'}, Escape{'\\', '\\'}})
    t.action[e.byte] = e.letter;
  return t;
}();

// A quoted, escaped string; a null text prints as nothing at all. The text
// is read once, in slices whose worst-case output (two bytes per input
// byte) is reserved ahead, so no length is taken first.
bool write_string(Output& o, const char* text) {
  if (!text) return true;
  constexpr int kSlice = 64;
  const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
  if (!o.put('"')) return false;
  for (;;) {
    if (!o.reserve(2 * kSlice + 1)) return false;
    char* out = o.cursor();
    char* const start = out;
    char action = kPlain;
    for (int i = 0; i < kSlice; ++i) {
      unsigned char c = *in;
      action = kStringBytes.action[c];
      if (action == kEnd) break;
      ++in;
      if (action == kPlain) {
        *out++ = static_cast<char>(c);
      } else if (action != kDrop) {
        *out++ = '\\';
        *out++ = action;
      }
    }
    if (action == kEnd) *out++ = '"';
    o.advance(static_cast<size_t>(out - start));
    if (action == kEnd) return true;
  }
}

// ---------------------------------------------------------------- containers

// An array or object being printed: the node, the child printed last
// (null before the first) and the indentation depth of the node.
struct OpenContainer {
  const JSON* node;
  const JSON* last;
  int depth;
  bool is_object;
};

// False beyond the nesting limit, or for a reference that leads back to a
// container being printed (its children are an open container's children).
bool may_open(const FrameStack<OpenContainer>& open, const JSON* item) {
  if (open.size() >= JSON_MAX_DEPTH) return false;
  if (is_reference(item) && item->child)
    for (int i = 0; i < open.size(); ++i)
      if (open[i].node->child == item->child) return false;
  return true;
}

bool write_scalar(Output& o, const JSON* item) {
  switch (type_of(item)) {
    case JSON_FALSE: return o.put("false", 5);
    case JSON_TRUE: return o.put("true", 4);
    case JSON_NULL: return o.put("null", 4);
    case JSON_NUMBER: return write_number(o, item);
    case JSON_STRING: return write_string(o, item->valuestring);
    default: return false;
  }
}

// What comes before a member's value: formatted objects put each member on
// its own line, indented with tabs, with a tab between key and value.
bool write_key(Output& o, const JSON* member, int depth, bool fmt) {
  if (fmt && !o.put_tabs(depth)) return false;
  return write_string(o, member->string) && (fmt ? o.put(":\t", 2) : o.put(':'));
}

// Moves to the next child of the innermost open container, writing the
// separator; closes the containers that are done. Returns the next value to
// print, or null when the tree is done (*ok tells whether all went well).
const JSON* next_value(Output& o, FrameStack<OpenContainer>& open, bool fmt, bool* ok) {
  while (!open.empty()) {
    OpenContainer& c = open.top();
    const JSON* next = c.last ? c.last->next : c.node->child;
    if (c.last) {
      if (c.is_object)
        *ok = (!next || o.put(',')) && (!fmt || o.put('\n'));
      else if (next)
        *ok = fmt ? o.put(", ", 2) : o.put(',');
      if (!*ok) return nullptr;
    }
    if (next) {
      c.last = next;
      if (c.is_object && !(*ok = write_key(o, next, c.depth + 1, fmt))) return nullptr;
      return next;
    }
    const int depth = c.depth;
    const bool is_object = c.is_object;
    open.pop();
    if (is_object && fmt && !(*ok = o.put_tabs(depth))) return nullptr;
    if (!(*ok = o.put(is_object ? '}' : ']'))) return nullptr;
  }
  return nullptr;
}

// Prints the tree at root; `as` forces the kind of the root (an array or
// object printer called on any node), 0 takes it from the node.
bool write_tree(Output& o, const JSON* root, int depth, bool fmt, int as = 0) {
  FrameStack<OpenContainer> open;
  const JSON* item = root;
  int item_depth = depth;
  while (item) {
    const int type = item == root && as ? as : type_of(item);
    if (type == JSON_ARRAY || type == JSON_OBJECT) {
      const bool is_object = type == JSON_OBJECT;
      if (!may_open(open, item) || !open.push({item, nullptr, item_depth, is_object})) return false;
      if (!(is_object && fmt ? o.put("{\n", 2) : o.put(is_object ? '{' : '['))) return false;
    } else if (!write_scalar(o, item)) {
      return false;
    }
    bool ok = true;
    item = next_value(o, open, fmt, &ok);
    if (!ok) return false;
    if (item) item_depth = open.top().depth + 1;
  }
  return true;
}

}  // namespace

char* print_value(JSON* item, int depth, int fmt) {
  if (!item) return nullptr;
  Output o;
  return o.take(write_tree(o, item, depth, fmt != 0));
}

char* print_object(JSON* item, int depth, int fmt) {
  if (!item) return nullptr;
  Output o;
  return o.take(write_tree(o, item, depth, fmt != 0, JSON_OBJECT));
}

char* print_array(JSON* item, int depth, int fmt) {
  if (!item) return nullptr;
  Output o;
  return o.take(write_tree(o, item, depth, fmt != 0, JSON_ARRAY));
}

char* print_number(JSON* item) {
  if (!item) return nullptr;
  Output o;
  return o.take(write_number(o, item));
}

char* print_string(JSON* item) { return item ? print_string_ptr(item->valuestring) : nullptr; }

char* print_string_ptr(const char* str) {
  Output o;
  return o.take(write_string(o, str));
}

char* json_PrintUnformatted(JSON* item) { return print_value(item, 0, 0); }

// Deliberately the same compact text as json_PrintUnformatted.
char* json_Print(JSON* item) { return print_value(item, 0, 0); }
