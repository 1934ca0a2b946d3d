// Property tree: names to values in insertion order, with lookups that ignore
// the case of the name.
//
// Entries live in one array in insertion order, each holding its name and
// value in a single block ("name\0value\0"). A hash table of entry indices,
// chained through the entries, makes lookups constant time: a server may
// send thousands of header lines, and a linear search per insert would make
// reading them quadratic. The hash is seeded per tree so that names chosen
// to collide in one process do not collide in another tree.
#include <vekutil/ptree.h>

#include "containers/ptree.internal.hpp"

#include <atomic>
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/ptree.c";
constexpr int kNoEntry = -1;
constexpr int kFirstCapacity = 8;

struct Entry {
  char* block;  // name, terminator, value, terminator
  size_t block_size;  // bytes allocated for block
  int key_len;
  unsigned hash;
  int next;  // next entry in the same bucket, or kNoEntry
  const char* key() const { return block; }
  const char* value() const { return block + key_len + 1; }
};

struct PTree {
  Entry* entries;
  int count;
  int capacity;  // entries allocated; the bucket count is twice this
  int* buckets;
  unsigned seed;
};

inline unsigned char lower(unsigned char c) { return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + 32) : c; }

unsigned name_hash(const char* key, size_t len, unsigned seed) {
  std::uint32_t h = 2166136261u ^ seed;
  for (size_t i = 0; i < len; ++i) {
    h ^= lower(static_cast<unsigned char>(key[i]));
    h *= 16777619u;
  }
  h ^= h >> 15;
  h *= 0x2c1b3c6du;
  h ^= h >> 12;
  return h;
}

bool same_name(const char* a, const char* b, size_t len) {
  for (size_t i = 0; i < len; ++i)
    if (lower(static_cast<unsigned char>(a[i])) != lower(static_cast<unsigned char>(b[i]))) return false;
  return true;
}

unsigned next_seed(const void* tree) {
  static std::atomic<unsigned> counter{0x9e3779b9u};
  const unsigned c = counter.fetch_add(0x9e3779b9u, std::memory_order_relaxed);
  return c ^ static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(tree) >> 4);
}

inline int bucket_of(const PTree* t, unsigned hash) {
  return static_cast<int>(hash & static_cast<unsigned>(2 * t->capacity - 1));
}

int find_index(const PTree* t, const char* key, size_t len, unsigned hash) {
  if (t->capacity == 0) return kNoEntry;
  for (int i = t->buckets[bucket_of(t, hash)]; i != kNoEntry; i = t->entries[i].next) {
    const Entry& e = t->entries[i];
    if (e.hash == hash && static_cast<size_t>(e.key_len) == len && same_name(e.key(), key, len)) return i;
  }
  return kNoEntry;
}

// A new "name\0value\0" block.
char* make_block(const char* key, size_t key_len, const char* value, int line, size_t* size) {
  const size_t value_len = std::strlen(value);
  *size = key_len + value_len + 2;
  auto* block = static_cast<char*>(_vekMalloc(*size, kSource, line));
  if (!block) return nullptr;
  std::memcpy(block, key, key_len);
  block[key_len] = '\0';
  std::memcpy(block + key_len + 1, value, value_len + 1);
  return block;
}

// Doubles the entry array and rebuilds the bucket table for it. Either both
// allocations succeed or the tree is left as it was.
int grow(PTree* t) {
  const int new_capacity = t->capacity ? t->capacity * 2 : kFirstCapacity;
  if (new_capacity > INT_MAX / 4 / static_cast<int>(sizeof(Entry))) return ERR_NO_MEMORY;
  auto* buckets = static_cast<int*>(_vekMalloc(sizeof(int) * 2 * static_cast<size_t>(new_capacity), kSource, __LINE__));
  if (!buckets) return ERR_NO_MEMORY;
  void* grown = t->entries
                    ? _vekRealloc(t->entries, sizeof(Entry) * static_cast<size_t>(new_capacity), kSource, __LINE__)
                    : _vekMalloc(sizeof(Entry) * static_cast<size_t>(new_capacity), kSource, __LINE__);
  if (!grown) {
    _vekFree(buckets, kSource, __LINE__);
    return ERR_NO_MEMORY;
  }
  vek::release(t->buckets, kSource, __LINE__);
  t->entries = static_cast<Entry*>(grown);
  t->buckets = buckets;
  t->capacity = new_capacity;
  for (int b = 0; b < 2 * new_capacity; ++b) t->buckets[b] = kNoEntry;
  for (int i = 0; i < t->count; ++i) {
    int& head = t->buckets[bucket_of(t, t->entries[i].hash)];
    t->entries[i].next = head;
    head = i;
  }
  return 0;
}

}  // namespace

extern "C" {

int ptree_create(void** handle) {
  if (!handle) return ERR_INVALID_PARAMETER;
  *handle = nullptr;
  auto* t = vek::alloc_record<PTree>(kSource, __LINE__);
  if (!t) return ERR_NO_MEMORY;
  t->seed = next_seed(t);
  *handle = t;
  return 0;
}

int ptree_delete(void* handle) {
  auto* t = static_cast<PTree*>(handle);
  if (!t) return ERR_INVALID_HANDLE;
  for (int i = 0; i < t->count; ++i) _vekFree(t->entries[i].block, kSource, __LINE__);
  vek::release(t->entries, kSource, __LINE__);
  vek::release(t->buckets, kSource, __LINE__);
  _vekFree(t, kSource, __LINE__);
  return 0;
}

int ptree_insert(void* handle, const char* key, const char* value) {
  auto* t = static_cast<PTree*>(handle);
  if (!t) return ERR_INVALID_HANDLE;
  if (!key || !*key || !value) return ERR_INVALID_PARAMETER;
  const size_t key_len = std::strlen(key);
  if (key_len > INT_MAX / 2) return ERR_INVALID_PARAMETER;
  const unsigned hash = name_hash(key, key_len, t->seed);
  const int existing = find_index(t, key, key_len, hash);
  if (existing != kNoEntry) {
    Entry& e = t->entries[existing];
    size_t size = 0;
    char* block = make_block(e.key(), static_cast<size_t>(e.key_len), value, __LINE__, &size);
    if (!block) return ERR_NO_MEMORY;
    _vekFree(e.block, kSource, __LINE__);
    e.block = block;
    e.block_size = size;
    return 0;
  }
  if (t->count == t->capacity) {
    const int rc = grow(t);
    if (rc != 0) return rc;
  }
  size_t size = 0;
  char* block = make_block(key, key_len, value, __LINE__, &size);
  if (!block) return ERR_NO_MEMORY;
  Entry& e = t->entries[t->count];
  e.block = block;
  e.block_size = size;
  e.key_len = static_cast<int>(key_len);
  e.hash = hash;
  int& head = t->buckets[bucket_of(t, hash)];
  e.next = head;
  head = t->count++;
  return 0;
}

const char* ptree_find_by_key(void* handle, const char* key) {
  const auto* t = static_cast<const PTree*>(handle);
  if (!t || !key) return nullptr;
  const size_t len = std::strlen(key);
  const int i = find_index(t, key, len, name_hash(key, len, t->seed));
  return i == kNoEntry ? nullptr : t->entries[i].value();
}

int ptree_foreach(void* handle, ptree_fefunc func, void* custom) {
  const auto* t = static_cast<const PTree*>(handle);
  if (!t) return ERR_INVALID_HANDLE;
  if (!func) return ERR_INVALID_PARAMETER;
  for (int i = 0; i < t->count; ++i) {
    const int rc = func(t->entries[i].key(), t->entries[i].value(), custom);
    if (rc != 0) return rc;
  }
  return 0;
}

int ptree_count(void* handle) {
  const auto* t = static_cast<const PTree*>(handle);
  return t ? t->count : ERR_INVALID_HANDLE;
}

}  // extern "C"

int ptree_append_value(void* handle, const char* key, const char* value, const char* separator) {
  auto* t = static_cast<PTree*>(handle);
  if (!t) return ERR_INVALID_HANDLE;
  if (!key || !*key || !value || !separator) return ERR_INVALID_PARAMETER;
  const size_t key_len = std::strlen(key);
  const int existing = find_index(t, key, key_len, name_hash(key, key_len, t->seed));
  if (existing == kNoEntry) return ptree_insert(handle, key, value);
  Entry& e = t->entries[existing];
  const size_t used = static_cast<size_t>(e.key_len) + 1 + std::strlen(e.value()) + 1;
  const size_t sep_len = std::strlen(separator), value_len = std::strlen(value);
  const size_t needed = used + sep_len + value_len;
  if (needed > static_cast<size_t>(INT_MAX)) return ERR_NO_MEMORY;
  if (needed > e.block_size) {
    // Doubling keeps a value built from many pieces linear in its length.
    const size_t size = std::max(needed, std::min<size_t>(2 * e.block_size, INT_MAX));
    void* grown = _vekRealloc(e.block, size, kSource, __LINE__);
    if (!grown) return ERR_NO_MEMORY;
    e.block = static_cast<char*>(grown);
    e.block_size = size;
  }
  char* end = e.block + used - 1;  // the value's terminator
  std::memcpy(end, separator, sep_len);
  std::memcpy(end + sep_len, value, value_len + 1);
  return 0;
}
