// JSON tree: constructors, editors, getters and deletion. The parser lives in
// json.parse.cpp, the printer in json.print.cpp.
#include <cctype>
#include <climits>
#include <cmath>
#include <cstring>

#include "formats/json.internal.hpp"

using namespace vek::json;

namespace vek::json {

namespace {

// Conversions toward zero that saturate instead of invoking undefined
// behaviour for values outside the target range (and give 0 for NaN).
long long to_long_long(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 9223372036854775808.0) return LLONG_MAX;
  if (value <= -9223372036854775808.0) return LLONG_MIN;
  return static_cast<long long>(value);
}

int to_int(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 2147483648.0) return INT_MAX;
  if (value <= -2147483649.0) return INT_MIN;
  return static_cast<int>(value);
}

}  // namespace

void set_number(JSON* item, double value) {
  item->type = JSON_NUMBER;
  item->valuedouble = value;
  item->valueint = to_int(value);
  item->valuelonglong = to_long_long(value);
  item->valueuint = static_cast<unsigned int>(item->valuelonglong);
}

void set_integer(JSON* item, long long value, double as_double) {
  item->type = JSON_NUMBER;
  item->valuelonglong = value;
  item->valueuint = static_cast<unsigned int>(value);
  item->valueint = static_cast<int>(item->valueuint);
  item->valuedouble = as_double;
}

}  // namespace vek::json

namespace {

JSON* create_tagged(int type) {
  JSON* item = new_node(__LINE__);
  if (item) item->type = type;
  return item;
}

// A shallow copy of item that shares its children and text.
JSON* create_reference(const JSON* item) {
  JSON* ref = new_node(__LINE__);
  if (!ref) return nullptr;
  *ref = *item;
  ref->type |= JSON_IS_REFERENCE;
  ref->string = nullptr;
  ref->next = ref->prev = nullptr;
  return ref;
}

// Appends item behind the last child. Refuses to link a node into its own
// chain twice (or into itself): that would turn the chain into a loop.
void append_child(JSON* array, JSON* item) {
  if (!array || !item || array == item) return;
  JSON* last = array->child;
  if (!last) {
    array->child = item;
    return;
  }
  for (;;) {
    if (last == item) return;
    if (!last->next) break;
    last = last->next;
  }
  last->next = item;
  item->prev = last;
}

// Builds an array from count values, one child per value, linked in order.
template <class T, class MakeChild>
JSON* create_array_of(const T* values, int count, MakeChild make_child) {
  if (count > 0 && !values) return nullptr;
  JSON* array = create_tagged(JSON_ARRAY);
  if (!array) return nullptr;
  JSON* last = nullptr;
  for (int i = 0; i < count; ++i) {
    JSON* child = make_child(values[i]);
    if (!child) {
      json_Delete(array);
      return nullptr;
    }
    link_after(array, last, child);
    last = child;
  }
  return array;
}

JSON* child_at(JSON* array, int which) {
  if (!array) return nullptr;
  JSON* c = array->child;
  while (c && which-- > 0) c = c->next;
  return c;
}

JSON* child_named(JSON* object, const char* key) {
  if (!object) return nullptr;
  JSON* c = object->child;
  while (c && json_strcasecmp(c->string, key) != 0) c = c->next;
  return c;
}

// Unlinks child (a member of parent's chain) and returns it standing alone.
JSON* unlink_child(JSON* parent, JSON* child) {
  if (!child) return nullptr;
  if (child->prev) child->prev->next = child->next;
  if (child->next) child->next->prev = child->prev;
  if (child == parent->child) parent->child = child->next;
  child->next = child->prev = nullptr;
  return child;
}

// Puts replacement into old's place in parent's chain and deletes old.
void replace_child(JSON* parent, JSON* old, JSON* replacement) {
  replacement->next = old->next;
  replacement->prev = old->prev;
  if (replacement->next) replacement->next->prev = replacement;
  if (replacement->prev) replacement->prev->next = replacement;
  if (old == parent->child) parent->child = replacement;
  old->next = old->prev = nullptr;
  json_Delete(old);
}

// Typed access: a child qualifies only when its whole type equals the wanted
// tag, so a reference node never does.
char* string_of(JSON* item) { return item && item->type == JSON_STRING ? item->valuestring : nullptr; }

template <class T>
T* number_field(JSON* item, T JSON::*field) {
  return item && item->type == JSON_NUMBER ? &(item->*field) : nullptr;
}

int* bool_of(JSON* item) {
  if (!item || (item->type != JSON_TRUE && item->type != JSON_FALSE)) return nullptr;
  item->valueint = item->type == JSON_TRUE ? 1 : 0;
  return &item->valueint;
}

}  // namespace

char* json_strdup(const char* str) {
  if (!str) str = "";
  size_t size = std::strlen(str) + 1;
  char* copy = static_cast<char*>(_vekMalloc(size, kSource, __LINE__));
  if (copy) std::memcpy(copy, str, size);
  return copy;
}

int json_strcasecmp(const char* s1, const char* s2) {
  if (!s1) return s2 ? 1 : 0;
  if (!s2) return 1;
  const unsigned char* a = reinterpret_cast<const unsigned char*>(s1);
  const unsigned char* b = reinterpret_cast<const unsigned char*>(s2);
  for (; std::tolower(*a) == std::tolower(*b); ++a, ++b)
    if (*a == 0) return 0;
  return std::tolower(*a) - std::tolower(*b);
}

JSON* json_CreateNull(void) { return create_tagged(JSON_NULL); }
JSON* json_CreateTrue(void) { return create_tagged(JSON_TRUE); }
JSON* json_CreateFalse(void) { return create_tagged(JSON_FALSE); }
JSON* json_CreateArray(void) { return create_tagged(JSON_ARRAY); }
JSON* json_CreateObject(void) { return create_tagged(JSON_OBJECT); }

JSON* json_CreateNumber(double num) {
  JSON* item = new_node(__LINE__);
  if (item) set_number(item, num);
  return item;
}

JSON* json_CreateInteger(long long num) {
  JSON* item = new_node(__LINE__);
  if (item) set_integer(item, num, static_cast<double>(num));
  return item;
}

JSON* json_CreateString(const char* string) {
  JSON* item = new_node(__LINE__);
  if (!item) return nullptr;
  item->valuestring = json_strdup(string);
  if (!item->valuestring) {
    _vekFree(item, kSource, __LINE__);
    return nullptr;
  }
  item->type = JSON_STRING;
  return item;
}

JSON* json_CreateIntArray(const int* numbers, int count) {
  return create_array_of(numbers, count, [](int n) { return json_CreateInteger(n); });
}

JSON* json_CreateLongLongArray(const long long* numbers, int count) {
  return create_array_of(numbers, count, [](long long n) { return json_CreateInteger(n); });
}

JSON* json_CreateDoubleArray(const double* numbers, int count) {
  return create_array_of(numbers, count, [](double n) { return json_CreateNumber(n); });
}

JSON* json_CreateFloatArray(const float* numbers, int count) {
  return create_array_of(numbers, count, [](float n) { return json_CreateNumber(n); });
}

JSON* json_CreateBoolArray(const char* values, int count) {
  return create_array_of(values, count, [](char b) { return b ? json_CreateTrue() : json_CreateFalse(); });
}

JSON* json_CreateStringArray(const char** strings, int count) {
  return create_array_of(strings, count, [](const char* s) { return json_CreateString(s); });
}

void json_AddItemToArray(JSON* array, JSON* item) { append_child(array, item); }

void json_AddItemToObject(JSON* object, const char* string, JSON* item) {
  if (!object || !item) return;
  // Should the copy fail, the member is still linked (keyless) so that the
  // tree, not the caller, owns it: nothing leaks and nothing dangles.
  char* key = json_strdup(string);
  vek::release(item->string, kSource, __LINE__);
  item->string = key;
  append_child(object, item);
}

void json_AddItemReferenceToArray(JSON* array, JSON* item) {
  if (!array || !item) return;
  JSON* ref = create_reference(item);
  if (ref) append_child(array, ref);
}

void json_AddItemReferenceToObject(JSON* object, const char* string, JSON* item) {
  if (!object || !item) return;
  JSON* ref = create_reference(item);
  if (ref) json_AddItemToObject(object, string, ref);
}

JSON* json_DetachItemFromArray(JSON* array, int which) { return unlink_child(array, child_at(array, which)); }

void json_DeleteItemFromArray(JSON* array, int which) { json_Delete(json_DetachItemFromArray(array, which)); }

void json_ReplaceItemInArray(JSON* array, int which, JSON* newitem) {
  JSON* old = child_at(array, which);
  if (old && newitem && old != newitem) replace_child(array, old, newitem);
}

JSON* json_DetachItemFromObject(JSON* object, const char* string) {
  return unlink_child(object, child_named(object, string));
}

void json_DeleteItemFromObject(JSON* object, const char* string) {
  json_Delete(json_DetachItemFromObject(object, string));
}

void json_ReplaceItemInObject(JSON* object, const char* string, JSON* newitem) {
  JSON* old = child_named(object, string);
  if (!old || !newitem || old == newitem) return;
  // The node owns its key, so an earlier one is released rather than lost.
  vek::release(newitem->string, kSource, __LINE__);
  newitem->string = json_strdup(string);
  replace_child(object, old, newitem);
}

namespace {

void free_node(JSON* c) {
  if (!is_reference(c)) vek::release(c->valuestring, kSource, __LINE__);
  vek::release(c->string, kSource, __LINE__);
  _vekFree(c, kSource, __LINE__);
}

}  // namespace

// Iterative, so that no tree is too deep to delete, and touching each node
// once: a container whose children are being deleted waits on a stack that
// is threaded through its own (no longer needed) prev pointer.
void json_Delete(JSON* c) {
  JSON* waiting = nullptr;
  for (;;) {
    while (c) {
      if (!is_reference(c) && c->child) {
        JSON* child = c->child;
        c->child = nullptr;
        c->prev = waiting;
        waiting = c;
        c = child;
        continue;
      }
      JSON* next = c->next;
      free_node(c);
      c = next;
    }
    if (!waiting) return;
    JSON* done = waiting;
    waiting = done->prev;
    c = done->next;
    free_node(done);
  }
}

int json_GetArraySize(JSON* array) {
  int count = 0;
  for (JSON* c = array ? array->child : nullptr; c; c = c->next) ++count;
  return count;
}

JSON* json_GetArrayItem(JSON* array, int item) { return child_at(array, item); }

JSON* json_GetObjectItem(JSON* object, const char* string) { return child_named(object, string); }

int json_ObjectForeach(JSON* object, json_fefunc callback, void* custom) {
  if (!object || !callback) return ERR_INVALID_HANDLE;
  for (JSON* c = object->child; c; c = c->next) callback(c, custom);
  return 0;
}

char* json_GetArrayItemAsString(JSON* object, int item) { return string_of(child_at(object, item)); }
int* json_GetArrayItemAsInt(JSON* object, int item) { return number_field(child_at(object, item), &JSON::valueint); }
unsigned int* json_GetArrayItemAsUInt(JSON* object, int item) {
  return number_field(child_at(object, item), &JSON::valueuint);
}
long long* json_GetArrayItemAsLongLong(JSON* object, int item) {
  return number_field(child_at(object, item), &JSON::valuelonglong);
}
double* json_GetArrayItemAsDouble(JSON* object, int item) {
  return number_field(child_at(object, item), &JSON::valuedouble);
}
int* json_GetArrayItemAsBool(JSON* object, int item) { return bool_of(child_at(object, item)); }

char* json_GetObjectItemAsString(JSON* object, const char* string) { return string_of(child_named(object, string)); }
int* json_GetObjectItemAsInt(JSON* object, const char* string) {
  return number_field(child_named(object, string), &JSON::valueint);
}
unsigned int* json_GetObjectItemAsUInt(JSON* object, const char* string) {
  return number_field(child_named(object, string), &JSON::valueuint);
}
long long* json_GetObjectItemAsLongLong(JSON* object, const char* string) {
  return number_field(child_named(object, string), &JSON::valuelonglong);
}
double* json_GetObjectItemAsDouble(JSON* object, const char* string) {
  return number_field(child_named(object, string), &JSON::valuedouble);
}
int* json_GetObjectItemAsBool(JSON* object, const char* string) { return bool_of(child_named(object, string)); }
