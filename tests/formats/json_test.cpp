#include <array>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include <vekutil/errors.h>
#include <vekutil/json.h>
#include <vekutil/threads.h>

#include "vek_test.hpp"

namespace {

struct TreeDeleter {
  void operator()(JSON* j) const { json_Delete(j); }
};
using Tree = std::unique_ptr<JSON, TreeDeleter>;

using vektest::take_text;
std::string compact(JSON* j) { return take_text(json_PrintUnformatted(j)); }
std::string pretty(JSON* j) { return take_text(print_value(j, 0, 1)); }

// Parses from a block of exactly the text's size: the sanitizer sees any overread.
Tree parse_exact(const std::string& text, size_t* error_offset = nullptr) {
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));
  std::memcpy(copy, text.c_str(), text.size() + 1);
  const char* at = nullptr;
  Tree tree(json_ParseEx(copy, &at));
  if (error_offset) *error_offset = at ? static_cast<size_t>(at - copy) : std::string::npos;
  std::free(copy);
  return tree;
}

std::string reprint(const std::string& text) {
  Tree t(json_Parse(text.c_str()));
  return t ? compact(t.get()) : "<null>";
}

std::string nested(int depth, const char* open, const char* inner, const char* close) {
  std::string s;
  for (int i = 0; i < depth; ++i) s += open;
  s += inner;
  for (int i = 0; i < depth; ++i) s += close;
  return s;
}

class Json : public vektest::LeakCheckedTest {};

TEST_F(Json, ParsesDocumentsAndFindsKeysWithoutRegardToCase) {
  Tree root(json_Parse("  {\"A\":1, \"list\" : [true, false, null, \"x\"], \"o\":{}}"));
  EXPECT_STREQ("A", json_GetObjectItem(root.get(), "a")->string);
  JSON* list = json_GetObjectItem(root.get(), "LIST");
  EXPECT_EQ(4, json_GetArraySize(list));
  EXPECT_EQ(json_GetArrayItem(list, 0), json_GetArrayItem(list, -3));
  EXPECT_EQ(nullptr, json_GetArrayItem(list, 4));
  EXPECT_EQ(nullptr, json_GetObjectItem(root.get(), "missing"));
  Tree dup(json_Parse("{\"k\":1,\"K\":2}"));  // both kept, the first one found
  EXPECT_EQ(1, *json_GetObjectItemAsInt(dup.get(), "K"));
}

TEST_F(Json, RejectsMalformedTextAndReportsWhereItStopped) {
  const struct { const char* text; size_t stop; } cases[] = {
      {"[1,2,]", 5}, {"{\"a\" 1}", 5}, {"{\"a\":1,}", 7},    {"{1:2}", 1},   {"[1 2]", 3},
      {"", 0},       {"   ", 3},       {"nul", 0},           {"[\"abc", 5},  {"{\"a\":\"b", 7},
      {"[tru]", 1},  {"+1", 0},        {"[1,\n 2,\n x]", 9}, {"{\"a\\", 3},
  };
  for (const auto& c : cases) {
    size_t stop = 0;
    EXPECT_FALSE(parse_exact(c.text, &stop)) << c.text;
    EXPECT_EQ(c.stop, stop) << c.text;
  }
  // An unterminated string at the top level is the text read so far.
  Tree open_string = parse_exact("\"abc\\");
  ASSERT_TRUE(open_string);
  EXPECT_STREQ("abc", open_string->valuestring);

  EXPECT_EQ(nullptr, json_Parse(nullptr));
  const char* at = "x";
  EXPECT_EQ(nullptr, json_ParseEx(nullptr, &at));
  EXPECT_EQ(nullptr, at);
  EXPECT_TRUE(Tree(json_ParseEx("[1]", &at)));
  EXPECT_EQ(nullptr, at);
}

TEST_F(Json, NestingIsBoundedInParserPrinterAndDeletion) {
  EXPECT_EQ(nested(JSON_MAX_DEPTH, "[", "1", "]"), reprint(nested(JSON_MAX_DEPTH, "[", "1", "]")));
  EXPECT_FALSE(json_Parse(nested(JSON_MAX_DEPTH + 1, "[", "1", "]").c_str()));
  EXPECT_TRUE(Tree(json_Parse(nested(JSON_MAX_DEPTH, "{\"k\":", "1", "}").c_str())));
  EXPECT_FALSE(json_Parse(nested(JSON_MAX_DEPTH + 1, "{\"k\":", "1", "}").c_str()));
  EXPECT_FALSE(parse_exact(nested(100000, "[", "", "")));

  // Parsing, printing and deleting take a small, fixed amount of stack: the
  // deepest document works on a thread with a 32 KiB stack.
  struct Work {
    std::string text = nested(JSON_MAX_DEPTH / 2, "{\"k\":[", "1", "]}");
    std::string compact, pretty;
  } work;
  auto on_small_stack = [](void* arg) -> void* {
    auto* w = static_cast<Work*>(arg);
    JSON* tree = json_Parse(w->text.c_str());
    w->compact = take_text(json_PrintUnformatted(tree));
    w->pretty = take_text(print_value(tree, 0, 1));
    json_Delete(tree);
    return nullptr;
  };
  THREAD_EX_ARGS ex{"small stack", 32768, 0};
  void* thread = nullptr;
  ASSERT_EQ(0, thread_create_ex(&thread, on_small_stack, &work, &ex));
  thread_join(thread, nullptr);
  thread_delete(thread);
  EXPECT_TRUE(work.text == work.compact) << work.compact.substr(0, 80);
  std::string flattened = work.pretty;
  std::erase_if(flattened, [](char c) { return c == '\t' || c == '\n'; });
  EXPECT_TRUE(work.compact == flattened) << flattened.substr(0, 80);

  // A tree built deeper than the parser allows cannot be printed, but it
  // can be deleted however deep it is.
  Tree root(json_CreateArray());
  JSON* inner = root.get();
  for (int i = 0; i < 100000; ++i) {
    JSON* child = json_CreateObject();
    json_AddItemToObject(inner, "k", child);
    inner = child;
  }
  EXPECT_EQ("<null>", compact(root.get()));
  EXPECT_EQ("<null>", pretty(root.get()));

  // A reference back to an enclosing container makes a cycle...
  Tree loop(json_CreateArray());
  json_AddItemToArray(loop.get(), json_CreateInteger(1));
  json_AddItemReferenceToArray(loop.get(), loop.get());
  json_AddItemReferenceToArray(loop.get(), loop.get());
  EXPECT_EQ("<null>", compact(loop.get()));
  // ...while the same node referenced twice side by side is fine.
  Tree shared(json_CreateArray());
  Tree leaf(json_CreateIntArray(std::array<int, 2>{7, 8}.data(), 2));
  json_AddItemReferenceToArray(shared.get(), leaf.get());
  json_AddItemReferenceToArray(shared.get(), leaf.get());
  EXPECT_EQ("[[7,8],[7,8]]", compact(shared.get()));
}

TEST_F(Json, ParsesNumbersExactly) {
  // Integers are exact in 64 bits with their low 32 bits in the int fields;
  // they print from the 64-bit value only while its double is within epsilon.
  const struct { const char *text; long long value; const char* printed; } integers[] = {
      {"123456789012345", 123456789012345LL, "123456789012345"}, {"-5", -5, "-5"},
      {"4294967296", 1LL << 32, "4294967296"}, {"9007199254740993", 9007199254740993LL, "9007199254740992"},
      {"9223372036854775807", LLONG_MAX, "9223372036854775808"},
      {"-9223372036854775808", LLONG_MIN, "-9223372036854775808"}};
  for (const auto& c : integers) {
    JSON item{};
    EXPECT_STREQ("", parse_number(&item, c.text));
    EXPECT_EQ(c.value, item.valuelonglong) << c.text;
    EXPECT_EQ(static_cast<int>(c.value), item.valueint) << c.text;
    EXPECT_EQ(static_cast<unsigned>(c.value), item.valueuint) << c.text;
    EXPECT_EQ(static_cast<double>(c.value), item.valuedouble) << c.text;
    EXPECT_EQ(c.printed, take_text(print_number(&item))) << c.text;
  }
  Tree fraction(json_Parse("[1.5,-2.75e2,3000000000.5,18446744073709551616]"));
  EXPECT_EQ(1, *json_GetArrayItemAsInt(fraction.get(), 0));
  EXPECT_EQ(-275, *json_GetArrayItemAsInt(fraction.get(), 1));
  EXPECT_EQ(3000000000LL, *json_GetArrayItemAsLongLong(fraction.get(), 2));
  EXPECT_EQ(INT_MAX, *json_GetArrayItemAsInt(fraction.get(), 2));
  EXPECT_EQ(18446744073709551616.0, *json_GetArrayItemAsDouble(fraction.get(), 3));
  EXPECT_EQ("[1.500000,-275,3.000000e+09,18446744073709551616]", compact(fraction.get()));

  // Odd but settled forms: "00" is 0 followed by "0", a lone '-' is 0,
  // the byte after '.' always counts as a digit.
  const struct { const char *text, *rest; double value; } odd[] = {
      {"00", "0", 0}, {"-", "", 0}, {"0123", "", 123}, {"1.e5]", "]", 6.35}, {"1.", "", 1}, {"2ex", "x", 2}};
  for (const auto& c : odd) {
    JSON item{};
    EXPECT_STREQ(c.rest, parse_number(&item, c.text)) << c.text;
    EXPECT_DOUBLE_EQ(c.value, item.valuedouble) << c.text;
    EXPECT_EQ(static_cast<long long>(c.value), item.valuelonglong) << c.text;
  }
}

TEST_F(Json, ParsedDoublesAreCorrectlyRounded) {
  std::mt19937_64 rng(42);
  char text[64];
  for (int i = 0; i < 20000; ++i) {
    double v = std::ldexp(static_cast<double>(rng() >> 11), static_cast<int>(rng() % 140) - 90);
    const char* format = i % 3 == 0 ? "%.17g" : i % 3 == 1 ? "%.6f" : "%.3e";
    std::snprintf(text, sizeof text, format, (i & 1) ? -v : v);
    JSON item{};
    ASSERT_NE(nullptr, parse_number(&item, text));
    ASSERT_EQ(std::strtod(text, nullptr), item.valuedouble) << text;
  }
  Tree huge(json_Parse("[1e400,-1e400,1e-400,123456789012345678901234567890.5,-123456789012345678901234567890]"));
  EXPECT_EQ(HUGE_VAL, *json_GetArrayItemAsDouble(huge.get(), 0));
  EXPECT_EQ(LLONG_MIN, *json_GetArrayItemAsLongLong(huge.get(), 1));
  EXPECT_EQ(0.0, *json_GetArrayItemAsDouble(huge.get(), 2));
  EXPECT_EQ(1.2345678901234568e29, *json_GetArrayItemAsDouble(huge.get(), 3));
  EXPECT_EQ(-1.2345678901234568e29, *json_GetArrayItemAsDouble(huge.get(), 4));
}

TEST_F(Json, PrintsNumbersByTheFirstRuleThatHolds) {
  const auto num = json_CreateNumber;
  const auto integer = json_CreateInteger;
  const struct { JSON* node; const char* text; } cases[] = {
      {num(2.5), "2.500000"}, {num(-0.5), "-0.500000"}, {num(-0.0), "0"}, {num(1e3), "1000"},
      {num(1e-7), "1.000000e-07"}, {num(3000000000.5), "3.000000e+09"}, {num(1e20), "100000000000000000000"},
      {num(-1e20), "-100000000000000000000"}, {num(1e-20), "0"}, {num(-1e-20), "0"}, {num(-1e-10), "-1.000000e-10"},
      {num(0.0078125), "0.007812"},  // a tie: the C library's rounding
      {num(999999999.9999999), "1000000000.000000"}, {num(HUGE_VAL), "null"}, {num(NAN), "null"},
      {integer(LLONG_MIN), "-9223372036854775808"}, {integer(LLONG_MAX), "9223372036854775808"},
      {integer(9007199254740993LL), "9007199254740992"}, {integer(4611686018427387904LL), "4611686018427387904"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.text, take_text(print_number(c.node))) << c.text;
    json_Delete(c.node);
  }
  Tree n(json_CreateInteger(-7));
  EXPECT_EQ(4294967289u, n->valueuint);
  EXPECT_EQ(-7.0, n->valuedouble);
  Tree d(json_CreateNumber(-3.9));
  EXPECT_EQ(-3, d->valueint);
  EXPECT_EQ(-3, d->valuelonglong);
}

TEST_F(Json, FixedNotationMatchesTheCLibrary) {
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> exponent(-6, 9);
  char expected[64];
  for (int i = 0; i < 50000; ++i) {
    double v = std::pow(10.0, exponent(rng)) * ((i & 1) ? -1 : 1);
    if (i % 5 == 0) v = std::round(v * 1000) / 1000 + 0.0005;  // near ties
    if (std::fabs(v) < 1e-6 || std::fabs(v) > 1e9 || v == std::floor(v)) continue;
    std::snprintf(expected, sizeof expected, "%f", v);
    Tree node(json_CreateNumber(v));
    ASSERT_EQ(expected, take_text(print_number(node.get()))) << v;
  }
}

TEST_F(Json, StringsDecodeEscapesAndDropControlBytesWhenPrinted) {
  // Surrogates stay separate three-byte sequences.
  const struct { const char *text, *value; } decoded[] = {
      {"\"a\\u00e9b\"", "a\xc3\xa9" "b"}, {"\"\\u20ac\"", "\xe2\x82\xac"}, {"\"h\xc3\xa9llo\"", "h\xc3\xa9llo"},
      {"\"\\ud83d\\ude00\"", "\xed\xa0\xbd\xed\xb8\x80"}, {"\"\\u4\"", "\x04"},
      {"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\\q\\u41x\"", "\"\\/\b\f\n\r\tqA"}};
  for (const auto& c : decoded) {
    Tree t(json_Parse(c.text));
    ASSERT_TRUE(t) << c.text;
    EXPECT_STREQ(c.value, t->valuestring) << c.text;
  }
  Tree control(json_CreateString("\001a\tb\037\177"));
  EXPECT_EQ("\"a\\tb\x7f\"", compact(control.get()));
  EXPECT_EQ("\"\"", take_text(print_string_ptr("\x01")));
  EXPECT_EQ("", take_text(print_string_ptr(nullptr)));
  // Long text with escapes and dropped bytes everywhere, across the slices
  // the printer works in.
  std::string text, expected;
  for (int i = 0; i < 125; ++i) {
    text += "ab\"\\\n\x02\t\xc3";
    expected += "ab\\\"\\\\\\n\\t\xc3";
  }
  EXPECT_EQ("\"" + expected + "\"", take_text(print_string_ptr(text.c_str())));
  // A raw control byte ends a string: inside a document that is an error.
  EXPECT_FALSE(json_Parse("[\"a\tb\"]"));
  EXPECT_FALSE(json_Parse("[\"a\\\tb\"]"));
}

TEST_F(Json, RoundTripsAndFormattedLayout) {
  // Text after the value is not examined; literals compare only their prefix;
  // a \u with fewer than four hex digits never reaches past the quote.
  const struct { const char *text, *printed; } docs[] = {
      {"{\"a\":[1,2],\"b\":{\"c\":\"d\",\"e\":[]},\"f\":-12.250000,\"g\":[{},[[]]],\"h\":\"\\\"q\\\"\"}", nullptr},
      {"[\"\",0,-1,true,false,null,{\"\":\"\"}]", nullptr}, {"[] trailing", "[]"}, {"1 xyz", "1"},
      {"nullx", "null"}, {"[\"\\u4\",\"\\u\"]", "[\"\",\"\"]"}};
  for (const auto& d : docs) EXPECT_EQ(d.printed ? d.printed : d.text, reprint(d.text)) << d.text;

  Tree root(json_Parse("{\"a\":[1,2]}"));
  EXPECT_EQ("{\n\t\"a\":\t[1, 2]\n}", pretty(root.get()));
  EXPECT_EQ(compact(root.get()), take_text(json_Print(root.get())));
  Tree nested_doc(json_Parse("{\"o\":{\"x\":1,\"y\":{}},\"l\":[{\"k\":true}]}"));
  EXPECT_EQ("{\n\t\"o\":\t{\n\t\t\"x\":\t1,\n\t\t\"y\":\t{\n\t\t}\n\t},\n\t\"l\":\t[{\n\t\t\t\"k\":\ttrue\n\t\t}]\n}",
            pretty(nested_doc.get()));
  Tree empty(json_CreateObject());
  EXPECT_EQ("{\n}", pretty(empty.get()));
  EXPECT_EQ("{\n\t\t}", take_text(print_object(empty.get(), 2, 1)));
  EXPECT_EQ("[]", take_text(print_array(empty.get(), 0, 1)));

  // An unknown tag prints as nothing: the whole text is refused.
  Tree bad(json_CreateArray());
  json_AddItemToArray(bad.get(), json_CreateNull());
  bad->child->type = 7;
  EXPECT_EQ("<null>", compact(bad.get()));
  EXPECT_EQ("<null>", compact(nullptr));
}

TEST_F(Json, BuildsAndEditsTrees) {
  const int ints[] = {1, -2, 3};
  const char* strings[] = {"a", nullptr, "c"};
  Tree root(json_CreateObject());
  json_AddItemToObject(root.get(), "ints", json_CreateIntArray(ints, 3));
  json_AddItemToObject(root.get(), "longs", json_CreateLongLongArray(std::array{4611686018427387904LL}.data(), 1));
  json_AddItemToObject(root.get(), "doubles", json_CreateDoubleArray(std::array{0.5, 2.0}.data(), 2));
  json_AddItemToObject(root.get(), "floats", json_CreateFloatArray(std::array{0.25f}.data(), 1));
  json_AddItemToObject(root.get(), "bools", json_CreateBoolArray(std::array<char, 3>{1, 0, 7}.data(), 3));
  json_AddItemToObject(root.get(), "strings", json_CreateStringArray(strings, 3));
  json_AddItemToObject(root.get(), "none", json_CreateIntArray(ints, -1));
  EXPECT_EQ(
      "{\"ints\":[1,-2,3],\"longs\":[4611686018427387904],\"doubles\":[0.500000,2],\"floats\":[0.250000],"
      "\"bools\":[true,false,true],\"strings\":[\"a\",\"\",\"c\"],\"none\":[]}",
      compact(root.get()));
  EXPECT_EQ(nullptr, json_CreateIntArray(nullptr, 2));

  // A node already in the chain is not linked twice.
  JSON* ints_node = json_GetObjectItem(root.get(), "ints");
  json_AddItemToArray(ints_node, json_GetArrayItem(ints_node, 2));
  json_AddItemToArray(ints_node, ints_node);
  EXPECT_EQ(3, json_GetArraySize(ints_node));
  // A key the item already had is replaced.
  JSON* renamed = json_CreateNull();
  renamed->string = json_strdup("old");
  json_AddItemToObject(root.get(), "new", renamed);
  EXPECT_EQ(renamed, json_GetObjectItem(root.get(), "NEW"));

  Tree detached(json_DetachItemFromObject(root.get(), "INTS"));
  ASSERT_TRUE(detached);
  EXPECT_EQ(nullptr, detached->next);
  EXPECT_EQ(nullptr, detached->prev);
  EXPECT_STREQ("longs", root->child->string);
  EXPECT_EQ(nullptr, root->child->prev);
  json_DeleteItemFromArray(detached.get(), 1);
  EXPECT_EQ("[1,3]", compact(detached.get()));
  json_DeleteItemFromArray(detached.get(), -5);
  EXPECT_EQ("[3]", compact(detached.get()));
  EXPECT_EQ(nullptr, json_DetachItemFromArray(detached.get(), 1));
  json_ReplaceItemInArray(detached.get(), 0, json_CreateString("r"));
  EXPECT_EQ("[\"r\"]", compact(detached.get()));
  Tree unused(json_CreateTrue());
  json_ReplaceItemInArray(detached.get(), 3, unused.get());  // past the end: stays ours

  JSON* replacement = json_CreateInteger(5);
  replacement->string = json_strdup("stale");
  json_ReplaceItemInObject(root.get(), "Doubles", replacement);  // takes the key as asked for
  json_DeleteItemFromObject(root.get(), "bools");
  json_DeleteItemFromObject(root.get(), "nothing");
  json_Delete(json_DetachItemFromObject(root.get(), "new"));
  EXPECT_EQ(
      "{\"longs\":[4611686018427387904],\"Doubles\":5,\"floats\":[0.250000],\"strings\":[\"a\",\"\",\"c\"],"
      "\"none\":[]}",
      compact(root.get()));

  int visited = 0;
  EXPECT_EQ(0, json_ObjectForeach(
                   root.get(), [](JSON*, void* count) { return ++*static_cast<int*>(count); }, &visited));
  EXPECT_EQ(5, visited);
  EXPECT_EQ(ERR_INVALID_HANDLE, json_ObjectForeach(nullptr, nullptr, nullptr));
}

TEST_F(Json, TypedGettersPointIntoTheNodeAndNeverDefault) {
  Tree root(json_Parse("{\"s\":\"text\",\"n\":-1,\"t\":true,\"f\":false,\"z\":null}"));
  ASSERT_TRUE(root);
  EXPECT_EQ(json_GetObjectItem(root.get(), "s")->valuestring, json_GetObjectItemAsString(root.get(), "S"));
  EXPECT_STREQ("text", json_GetArrayItemAsString(root.get(), 0));
  int* n = json_GetObjectItemAsInt(root.get(), "n");
  ASSERT_NE(nullptr, n);
  *n = 9;
  EXPECT_EQ(9, *json_GetArrayItemAsInt(root.get(), 1));
  EXPECT_EQ(4294967295u, *json_GetObjectItemAsUInt(root.get(), "n"));
  EXPECT_EQ(-1, *json_GetObjectItemAsLongLong(root.get(), "n"));
  EXPECT_EQ(-1.0, *json_GetObjectItemAsDouble(root.get(), "n"));
  EXPECT_EQ(-1.0, *json_GetArrayItemAsDouble(root.get(), 1));

  JSON* f = json_GetObjectItem(root.get(), "f");
  f->valueint = 42;
  int* fb = json_GetObjectItemAsBool(root.get(), "f");
  ASSERT_EQ(&f->valueint, fb);
  EXPECT_EQ(0, *fb);
  EXPECT_EQ(1, *json_GetObjectItemAsBool(root.get(), "t"));
  EXPECT_EQ(1, *json_GetArrayItemAsBool(root.get(), 2));

  // Wrong type, missing item or null tree: no value, never a default.
  const void* none[] = {json_GetObjectItemAsBool(root.get(), "n"), json_GetObjectItemAsInt(root.get(), "s"),
                        json_GetObjectItemAsString(root.get(), "z"), json_GetObjectItemAsDouble(root.get(), "x"),
                        json_GetArrayItemAsLongLong(root.get(), 9),  json_GetArrayItemAsUInt(nullptr, 0),
                        json_GetObjectItemAsString(nullptr, "s")};
  for (const void* p : none) EXPECT_EQ(nullptr, p);
}

TEST_F(Json, ReferencesShareNeverFreeTheirTargetAndFailTypedGetters) {
  Tree target(json_Parse("{\"list\":[1,2],\"name\":\"n\"}"));
  JSON* list = json_GetObjectItem(target.get(), "list");
  Tree holder(json_CreateArray());
  json_AddItemReferenceToArray(holder.get(), list);
  json_AddItemReferenceToArray(holder.get(), json_GetObjectItem(target.get(), "name"));
  EXPECT_EQ(JSON_ARRAY | JSON_IS_REFERENCE, holder->child->type);
  EXPECT_EQ(list->child, holder->child->child);
  EXPECT_EQ(nullptr, holder->child->string);
  EXPECT_EQ(nullptr, json_GetArrayItemAsString(holder.get(), 1));
  EXPECT_EQ("[[1,2],\"n\"]", compact(holder.get()));
  json_DeleteItemFromArray(holder.get(), 0);
  holder.reset();
  Tree refs(json_CreateObject());
  json_AddItemReferenceToObject(refs.get(), "s", json_GetObjectItem(target.get(), "name"));
  EXPECT_EQ(nullptr, json_GetObjectItemAsString(refs.get(), "s"));
  EXPECT_EQ("{\"s\":\"n\"}", compact(refs.get()));
  EXPECT_EQ("{\"list\":[1,2],\"name\":\"n\"}", compact(target.get()));
}

TEST_F(Json, StringHelpers) {
  const struct { const char *a, *b; int result; } compares[] = {
      {nullptr, nullptr, 0}, {nullptr, "a", 1}, {"a", nullptr, 1}, {"KeY", "kEy", 0}, {"xA", "Xb", 'a' - 'b'},
      {"abC", "ab", 'c'}};
  for (const auto& c : compares) EXPECT_EQ(c.result, json_strcasecmp(c.a, c.b)) << (c.a ? c.a : "<null>");
  EXPECT_EQ("", take_text(json_strdup(nullptr)));
  EXPECT_EQ("copy", take_text(json_strdup("copy")));
  EXPECT_STREQ("x ", skip("\x01\t\n \x20x "));
  EXPECT_STREQ("\x80", skip("\x80"));
  EXPECT_EQ(nullptr, skip(nullptr));
}

}  // namespace
