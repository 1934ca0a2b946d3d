// JSON parser: text to a tree of JSON nodes. Arrays and objects nest through
// an explicit stack of open containers, not through recursion, so parsing
// takes a small, fixed amount of the thread's stack whatever the depth (which
// is still bounded by JSON_MAX_DEPTH). No routine ever reads past the
// terminating zero.
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "formats/json.internal.hpp"

using namespace vek::json;

namespace {

// One parse: the first place that failed.
struct Parser {
  const char* error = nullptr;

  const char* fail(const char* at) {
    if (!error) error = at;
    return nullptr;
  }
};

inline const char* skip_space(const char* in) {
  while (static_cast<unsigned char>(*in - 1) < 32) ++in;  // bytes 1..32
  return in;
}

inline bool is_digit(char c) { return static_cast<unsigned char>(c - '0') < 10; }

// ---------------------------------------------------------------- strings

// Ends a string's raw text: '"', or any byte below 32 (the zero included).
inline bool ends_string(unsigned char c) { return c == '"' || c < 32; }

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Writes a UTF-16 code unit as one to three bytes of UTF-8. Surrogates are
// not joined: each one becomes its own three-byte sequence.
char* put_utf8(char* out, unsigned code) {
  if (code < 0x80) {
    *out++ = static_cast<char>(code);
  } else if (code < 0x800) {
    *out++ = static_cast<char>(0xC0 | (code >> 6));
    *out++ = static_cast<char>(0x80 | (code & 0x3F));
  } else {
    *out++ = static_cast<char>(0xE0 | (code >> 12));
    *out++ = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    *out++ = static_cast<char>(0x80 | (code & 0x3F));
  }
  return out;
}

// Decodes the raw text [in, end) (no closing quote inside) into out, which
// holds at least end-in bytes: no escape yields more bytes than it spans.
char* unescape(const char* in, const char* end, char* out) {
  while (in < end) {
    char c = *in++;
    if (c != '\\') {
      *out++ = c;
      continue;
    }
    if (in == end) break;  // a backslash right before the end escapes nothing
    char e = *in++;
    switch (e) {
      case 'b': *out++ = '\b'; break;
      case 'f': *out++ = '\f'; break;
      case 'n': *out++ = '\n'; break;
      case 'r': *out++ = '\r'; break;
      case 't': *out++ = '\t'; break;
      case 'u': {
        // Up to four hex digits are read; four characters are stepped over
        // whatever they were, but never beyond the end of the string.
        unsigned code = 0;
        for (int i = 0; i < 4 && in + i < end; ++i) {
          int h = hex_value(in[i]);
          if (h < 0) break;
          code = code * 16 + static_cast<unsigned>(h);
        }
        in += end - in < 4 ? end - in : 4;
        out = put_utf8(out, code);
        break;
      }
      default: *out++ = e; break;  // '"', '\\', '/' and anything else as itself
    }
  }
  return out;
}

const char* string_at(Parser& p, JSON* item, const char* str) {
  if (*str != '"') return p.fail(str);
  const char* begin = str + 1;
  // Sizing pass: find the end of the raw text; an escaped byte never ends it
  // (unless it is a control byte, which ends the string in any case).
  const char* end = begin;
  bool escaped = false;
  for (;;) {
    unsigned char c = static_cast<unsigned char>(*end);
    if (ends_string(c)) break;
    if (c == '\\') {
      if (static_cast<unsigned char>(end[1]) < 32) break;
      escaped = true;
      ++end;
    }
    ++end;
  }
  size_t span = static_cast<size_t>(end - begin);
  char* text = static_cast<char*>(_vekMalloc(span + 1, kSource, __LINE__));
  if (!text) return p.fail(str);
  char* stop = escaped ? unescape(begin, end, text) : (std::memcpy(text, begin, span), text + span);
  *stop = '\0';
  item->valuestring = text;
  item->type = JSON_STRING;
  // An unterminated string stops at the control byte; callers that need more
  // text fail there.
  return *end == '"' ? end + 1 : end;
}

// ---------------------------------------------------------------- numbers

constexpr double kExactPowersOf10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                       1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
constexpr uint64_t kMaxExactMantissa = uint64_t{1} << 53;

// mantissa * 10^exponent. Exact operands give a correctly rounded result;
// others go through pow.
double scale10(double mantissa, long long exponent) {
  if (exponent == 0) return mantissa;
  if (mantissa <= static_cast<double>(kMaxExactMantissa) && exponent >= -22 && exponent <= 22)
    return exponent > 0 ? mantissa * kExactPowersOf10[exponent] : mantissa / kExactPowersOf10[-exponent];
  if (exponent > 0 || exponent < -308) return mantissa * std::pow(10.0, static_cast<double>(exponent));
  return mantissa / std::pow(10.0, static_cast<double>(-exponent));
}

// The pieces of a number's text, gathered in one scan.
struct NumberScan {
  const char* end = nullptr;
  bool negative = false;
  uint64_t integer = 0;        // integer digits, exactly, wrapping on overflow
  size_t integer_digits = 0;   // integer digits from the first non-zero one
  size_t fraction_digits = 0;  // digits after '.'
  bool has_fraction = false;   // a '.' was read
  bool has_exponent = false;   // an 'e' or 'E' was read
  bool odd_fraction = false;   // the byte after '.' was not a digit
};

// The number read from [begin, end), correctly rounded, for well-formed text.
// Returns false when the text cannot be read that way.
bool read_double(const char* begin, const char* end, double* value) {
  const char* digits = *begin == '-' ? begin + 1 : begin;
  auto [ptr, ec] = std::from_chars(digits, end, *value);
  if (ec != std::errc() || ptr != end) {
    // Trailing "e", "e+" or "e-" without digits mean an exponent of 0.
    if (ec != std::errc() || (*ptr != 'e' && *ptr != 'E')) return false;
  }
  if (*begin == '-') *value = -*value;
  return true;
}

// The slow path for what from_chars rejects (exponents beyond the range of
// double, a non-digit right after '.'): the mantissa times a power of ten.
double compose_double(const NumberScan& s, const char* text) {
  const char* c = text + (s.negative ? 1 : 0);
  if (*c == '0') ++c;
  double mantissa = 0;
  long long scale = 0;
  for (; is_digit(*c); ++c) {
    if (mantissa < 1e18)
      mantissa = mantissa * 10 + (*c - '0');
    else
      ++scale;
  }
  if (*c == '.') {
    ++c;
    // The byte after '.' counts as a digit whatever it is (see scan_number).
    bool first = *c != '\0';
    for (; first || is_digit(*c); ++c, first = false) {
      if (std::fabs(mantissa) >= 1e18) continue;
      mantissa = mantissa * 10 + (static_cast<unsigned char>(*c) - '0');
      --scale;
    }
  }
  long long exponent = 0;
  if (*c == 'e' || *c == 'E') {
    ++c;
    bool minus = *c == '-';
    if (*c == '+' || *c == '-') ++c;
    uint32_t e = 0;
    for (; is_digit(*c); ++c) e = e * 10 + static_cast<uint32_t>(*c - '0');
    exponent = static_cast<int32_t>(e);
    if (minus) exponent = -exponent;
  }
  long long power = scale + exponent;
  if (power > 100000) power = 100000;
  if (power < -100000) power = -100000;
  double value = mantissa < 0 ? -scale10(-mantissa, power) : scale10(mantissa, power);
  return s.negative ? -value : value;
}

NumberScan scan_number(const char* c) {
  NumberScan s;
  if (*c == '-') {
    s.negative = true;
    ++c;
  }
  if (*c == '0') ++c;  // one leading zero; a second one is not part of the number
  if (*c >= '1' && *c <= '9') {
    uint64_t n = 0;
    const char* first = c;
    for (; is_digit(*c); ++c) n = n * 10 + static_cast<uint64_t>(*c - '0');
    s.integer = n;
    s.integer_digits = static_cast<size_t>(c - first);
  }
  if (*c == '.') {
    s.has_fraction = true;
    ++c;
    // The byte after '.' is taken as a digit even when it is none, so that
    // "1.e5" reads 'e' as a digit; only the terminating zero is left alone.
    const char* first = c;
    if (*c != '\0') {
      s.odd_fraction = !is_digit(*c);
      ++c;
    }
    while (is_digit(*c)) ++c;
    s.fraction_digits = static_cast<size_t>(c - first);
  }
  if (*c == 'e' || *c == 'E') {
    s.has_exponent = true;
    ++c;
    if (*c == '+' || *c == '-') ++c;
    while (is_digit(*c)) ++c;
  }
  s.end = c;
  return s;
}

const char* number_at(JSON* item, const char* text) {
  NumberScan s = scan_number(text);
  if (!s.has_fraction && !s.has_exponent) {
    // The integer is exact in 64 bits; its double is correctly rounded.
    uint64_t magnitude = s.integer;
    long long value = static_cast<long long>(s.negative ? 0 - magnitude : magnitude);
    double as_double;
    if (s.integer_digits <= 19)
      as_double = s.negative ? -static_cast<double>(magnitude) : static_cast<double>(magnitude);
    else if (!read_double(text, s.end, &as_double))
      as_double = compose_double(s, text);
    set_integer(item, value, as_double);
    return s.end;
  }
  // Up to 15 digits without exponent are exact operands, the common case;
  // the rest is read correctly rounded by the library.
  bool short_decimal = !s.has_exponent && s.integer_digits + s.fraction_digits <= 15;
  double value;
  if (s.odd_fraction || short_decimal || !read_double(text, s.end, &value)) value = compose_double(s, text);
  set_number(item, value);
  return s.end;
}

// ---------------------------------------------------------------- containers

// Links a fresh node behind prev (or as parent's first child).
JSON* append_new(JSON* parent, JSON* prev) {
  JSON* child = new_node(__LINE__);
  if (child) link_after(parent, prev, child);
  return child;
}

// An object member's key and the ':' after it; returns the position of its
// value.
const char* key_at(Parser& p, JSON* member, const char* text) {
  text = string_at(p, member, skip_space(text));
  if (!text) return nullptr;
  member->string = member->valuestring;
  member->valuestring = nullptr;
  text = skip_space(text);
  if (*text != ':') return p.fail(text);
  return skip_space(text + 1);
}

// Everything but arrays and objects.
const char* scalar_at(Parser& p, JSON* item, const char* text) {
  switch (*text) {
    case 'n':
      if (std::strncmp(text, "null", 4) != 0) break;
      item->type = JSON_NULL;
      return text + 4;
    case 'f':
      if (std::strncmp(text, "false", 5) != 0) break;
      item->type = JSON_FALSE;
      return text + 5;
    case 't':
      if (std::strncmp(text, "true", 4) != 0) break;
      item->type = JSON_TRUE;
      item->valueint = 1;
      return text + 4;
    case '"': return string_at(p, item, text);
    default:
      if (*text == '-' || is_digit(*text)) return number_at(item, text);
      break;
  }
  return p.fail(text);
}

// An array or object being filled: its node and its last child so far.
struct OpenContainer {
  JSON* node;
  JSON* last;
  bool is_object;
};

inline char closing(bool is_object) { return is_object ? '}' : ']'; }

// Parses the value at text into item and returns the position after it.
// A container pushes itself and goes on with its first child; a complete
// value closes containers or moves on to the next sibling. Members made
// before a failure stay linked, for the caller to free with the root.
// `expect`, when set, is the character the value must start with.
const char* value_at(Parser& p, JSON* item, const char* text, char expect = 0) {
  if (!text) return nullptr;
  if (expect && *text != expect) return p.fail(text);
  FrameStack<OpenContainer> open;
  for (;;) {
    if (*text == '[' || *text == '{') {
      const bool is_object = *text == '{';
      item->type = is_object ? JSON_OBJECT : JSON_ARRAY;
      if (open.size() >= JSON_MAX_DEPTH) return p.fail(text);
      text = skip_space(text + 1);
      if (*text != closing(is_object)) {
        JSON* child = append_new(item, nullptr);
        if (!child || !open.push({item, child, is_object})) return p.fail(text);
        if (is_object && !(text = key_at(p, child, text))) return nullptr;
        item = child;
        continue;
      }
      ++text;  // empty
    } else if (!(text = scalar_at(p, item, text))) {
      return nullptr;
    }
    // A value is complete.
    for (;;) {
      if (open.empty()) return text;
      text = skip_space(text);
      OpenContainer& c = open.top();
      if (*text == closing(c.is_object)) {
        ++text;
        open.pop();
        continue;
      }
      if (*text != ',') return p.fail(text);
      JSON* child = append_new(c.node, c.last);
      if (!child) return p.fail(text);
      c.last = child;
      text = c.is_object ? key_at(p, child, text + 1) : skip_space(text + 1);
      if (!text) return nullptr;
      item = child;
      break;
    }
  }
}

}  // namespace

const char* skip(const char* in) { return in ? skip_space(in) : nullptr; }

const char* parse_value(JSON* item, const char* value) {
  Parser p;
  return item ? value_at(p, item, value) : nullptr;
}

const char* parse_object(JSON* item, const char* value) {
  Parser p;
  return item && value ? value_at(p, item, value, '{') : nullptr;
}

const char* parse_array(JSON* item, const char* value) {
  Parser p;
  return item && value ? value_at(p, item, value, '[') : nullptr;
}

const char* parse_string(JSON* item, const char* str) {
  Parser p;
  return item && str ? string_at(p, item, str) : nullptr;
}

const char* parse_number(JSON* item, const char* num) { return item && num ? number_at(item, num) : nullptr; }

JSON* json_ParseEx(const char* text, const char** error_at) {
  if (error_at) *error_at = nullptr;
  if (!text) return nullptr;
  JSON* root = new_node(__LINE__);
  Parser p;
  if (root && value_at(p, root, skip_space(text))) return root;
  json_Delete(root);
  if (error_at) *error_at = p.error ? p.error : text;
  return nullptr;
}

JSON* json_Parse(const char* value) { return json_ParseEx(value, nullptr); }
