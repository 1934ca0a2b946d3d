// Blob: growable byte buffer and packed array of fixed-size records.
//
// Invariants kept by every operation: 0 <= len <= size, unused == size - len,
// and every byte from len to size is zero.
#include <vekutil/blob.h>

#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/blob.c";
constexpr int kDefaultSize = 1024;

inline _BLOB* as_blob(void* handle) { return static_cast<_BLOB*>(handle); }

// Makes room for `needed` more bytes. Nothing happens while more than that is
// free; otherwise the buffer doubles, or grows to len + needed when doubling
// is not enough.
int blob_grow(_BLOB* b, long long needed) {
  if (b->unused > needed) return 0;
  const long long new_size = (needed - b->unused > b->size) ? needed + b->len : 2LL * b->size;
  if (new_size > INT_MAX) return ERR_NO_MEMORY;
  auto* grown = static_cast<char*>(_vekRealloc(b->buffer, static_cast<size_t>(new_size), kSource, __LINE__));
  if (!grown) return ERR_NO_MEMORY;
  std::memset(grown + b->size, 0, static_cast<size_t>(new_size - b->size));
  b->buffer = grown;
  b->size = static_cast<int>(new_size);
  b->unused = b->size - b->len;
  return 0;
}

// Copies n bytes; short runs with a few overlapping word moves instead of a
// library call, since blobs are mostly built from small pieces.
inline void copy_bytes(char* dst, const char* src, size_t n) {
  if (n > 32) {
    std::memcpy(dst, src, n);
  } else if (n >= 16) {
    char head[16], tail[16];
    std::memcpy(head, src, 16);
    std::memcpy(tail, src + n - 16, 16);
    std::memcpy(dst, head, 16);
    std::memcpy(dst + n - 16, tail, 16);
  } else if (n >= 8) {
    std::uint64_t head, tail;
    std::memcpy(&head, src, 8);
    std::memcpy(&tail, src + n - 8, 8);
    std::memcpy(dst, &head, 8);
    std::memcpy(dst + n - 8, &tail, 8);
  } else if (n >= 4) {
    std::uint32_t head, tail;
    std::memcpy(&head, src, 4);
    std::memcpy(&tail, src + n - 4, 4);
    std::memcpy(dst, &head, 4);
    std::memcpy(dst + n - 4, &tail, 4);
  } else if (n > 0) {
    const char first = src[0], middle = src[n / 2], last = src[n - 1];
    dst[0] = first;
    dst[n / 2] = middle;
    dst[n - 1] = last;
  }
}

// Grows like blob_grow, for a copy from *data: a source inside the blob's
// own buffer is followed to where the buffer moved.
int grow_for_copy(_BLOB* b, long long needed, const void** data) {
  const char* src = static_cast<const char*>(*data);
  const bool inside = src && src >= b->buffer && src < b->buffer + b->size;
  const std::ptrdiff_t offset = inside ? src - b->buffer : 0;
  const int rc = blob_grow(b, needed);
  if (rc == 0 && inside) *data = b->buffer + offset;
  return rc;
}

// The append that needs growth, zero bytes or refuses its length.
[[gnu::noinline]] int append_slow(_BLOB* b, const void* data, int data_len) {
  if (data_len < 0) return ERR_INVALID_PARAMETER;
  const int rc = grow_for_copy(b, data_len, &data);
  if (rc != 0) return rc;
  if (data)
    copy_bytes(b->buffer + b->len, static_cast<const char*>(data), static_cast<size_t>(data_len));
  else
    std::memset(b->buffer + b->len, 0, static_cast<size_t>(data_len));
  b->len += data_len;
  b->unused -= data_len;
  return 0;
}

// Common checks of the array operations; on success *out is the blob.
int array_blob(void* handle, _BLOB** out) {
  if (!handle) return ERR_INVALID_PARAMETER;
  _BLOB* b = as_blob(handle);
  if (b->array_length <= 0) return ERR_BLOB_NOT_ARRAY;
  *out = b;
  return 0;
}

// Address of record `index`, or nullptr when it is not a pushed record that
// lies inside the buffer (the record size may have been changed since).
char* record_at(_BLOB* b, int index) {
  if (index < 0 || index >= b->array_cur) return nullptr;
  const long long offset = static_cast<long long>(index) * b->array_length;
  if (offset + b->array_length > b->size) return nullptr;
  return b->buffer + offset;
}

}  // namespace

extern "C" {

int blob_create(void** handle, int initial_length) {
  if (!handle) return ERR_INVALID_PARAMETER;
  *handle = nullptr;
  const int size = initial_length < 1 ? kDefaultSize : initial_length;
  auto* b = vek::alloc_record<_BLOB>(kSource, __LINE__);
  if (!b) return ERR_NO_MEMORY;
  b->buffer = static_cast<char*>(vek::zalloc(static_cast<size_t>(size), kSource, __LINE__));
  if (!b->buffer) {
    _vekFree(b, kSource, __LINE__);
    return ERR_NO_MEMORY;
  }
  b->size = size;
  b->unused = size;
  *handle = b;
  return 0;
}

int blob_clone(void* handle, void** new_blob) {
  if (!handle || !new_blob) return ERR_INVALID_PARAMETER;
  const _BLOB* src = as_blob(handle);
  if (src->len == INT_MAX) return ERR_NO_MEMORY;
  const int rc = blob_create(new_blob, src->len + 1);
  if (rc != 0) return rc;
  _BLOB* copy = as_blob(*new_blob);
  std::memcpy(copy->buffer, src->buffer, static_cast<size_t>(src->len));
  copy->len = src->len;
  copy->unused = copy->size - copy->len;
  copy->array_length = src->array_length;
  copy->array_cur = src->array_cur;
  return 0;
}

void blob_delete(void* handle) {
  if (!handle) return;
  _vekFree(as_blob(handle)->buffer, kSource, __LINE__);
  _vekFree(handle, kSource, __LINE__);
}

void blob_delete_object(void* handle) {
  if (handle) _vekFree(handle, kSource, __LINE__);
}

void* blob_get_buffer(void* handle) { return handle ? as_blob(handle)->buffer : nullptr; }

int blob_get_length(void* handle) { return handle ? as_blob(handle)->len : ERR_INVALID_HANDLE; }

int blob_append(void* handle, const void* data, int data_len) {
  if (!handle) return ERR_INVALID_HANDLE;
  _BLOB* b = as_blob(handle);
  // Fast path for the common small append that fits; everything else
  // (growth, zero fill, bad length) goes out of line.
  if (data && data_len >= 0 && b->unused > data_len) {
    copy_bytes(b->buffer + b->len, static_cast<const char*>(data), static_cast<size_t>(data_len));
    b->len += data_len;
    b->unused -= data_len;
    return 0;
  }
  return append_slow(b, data, data_len);
}

int blob_append_string(void* handle, const char* str) {
  if (!handle) return ERR_INVALID_HANDLE;
  if (!str) return ERR_INVALID_PARAMETER;
  const size_t n = std::strlen(str);
  if (n > static_cast<size_t>(INT_MAX)) return ERR_NO_MEMORY;
  return blob_append(handle, str, static_cast<int>(n));
}

int blob_format_append(void* handle, const char* msg, ...) {
  if (!handle) return ERR_INVALID_HANDLE;
  if (!msg) return ERR_INVALID_PARAMETER;
  _BLOB* b = as_blob(handle);
  // The formatter fails (-1) only on texts it cannot produce at all; a few
  // larger buffers are tried before giving up.
  constexpr int kFailedFormatRetries = 3;
  int failures = 0;
  int rc = 0;
  va_list args;
  va_start(args, msg);
  for (;;) {
    va_list attempt;
    va_copy(attempt, args);
    const int n = std::vsnprintf(b->buffer + b->len, static_cast<size_t>(b->unused), msg, attempt);
    va_end(attempt);
    if (n >= 0 && n < b->unused) {
      b->len += n;
      b->unused -= n;
      break;
    }
    if (n < 0 && ++failures > kFailedFormatRetries) {
      rc = ERR_INVALID_PARAMETER;
    } else {
      rc = blob_grow(b, n < 0 ? static_cast<long long>(b->size) : static_cast<long long>(n) + 1);
    }
    if (rc != 0) {
      std::memset(b->buffer + b->len, 0, static_cast<size_t>(b->unused));  // drop the partial text
      break;
    }
  }
  va_end(args);
  return rc;
}

int blob_clear(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  _BLOB* b = as_blob(handle);
  std::memset(b->buffer, 0, static_cast<size_t>(b->size));
  b->len = 0;
  b->unused = b->size;
  return 0;
}

int blob_truncate(void* handle, int length) {
  if (!handle) return ERR_INVALID_HANDLE;
  _BLOB* b = as_blob(handle);
  if (length < 0) {
    if (b->len + length <= 0) {
      blob_clear(b);
    } else {
      b->len += length;
      b->unused -= length;
      std::memset(b->buffer + b->len, 0, static_cast<size_t>(-static_cast<long long>(length)));
    }
  } else if (length > b->len) {
    // Extends over bytes the caller wrote into the free space; never past
    // the allocation.
    b->len = length < b->size ? length : b->size;
    b->unused = b->size - b->len;
  }
  return b->len;
}

int blob_file2blob(void* blob, const char* filename) {
  if (!blob || !filename) return ERR_INVALID_PARAMETER;
  std::FILE* fp = std::fopen(filename, "rb");
  if (!fp) return ERR_FILE_OPEN;
  char block[1024];
  size_t got;
  int rc = 0;
  while (rc == 0 && (got = std::fread(block, 1, sizeof block, fp)) > 0) rc = blob_append(blob, block, static_cast<int>(got));
  std::fclose(fp);
  return rc;
}

int blob_array_init(void* handle, int record_size) {
  if (!handle || record_size < 0) return ERR_INVALID_PARAMETER;
  as_blob(handle)->array_length = record_size;
  return 0;
}

int blob_array_push(void* handle, void* data) {
  _BLOB* b = nullptr;
  if (const int rc = array_blob(handle, &b); rc != 0) return rc;
  if (!data) return ERR_INVALID_PARAMETER;
  const long long end = (static_cast<long long>(b->array_cur) + 1) * b->array_length;
  // Room both for the record at its slot and for len to advance by one
  // record (the two coincide while the blob holds only records).
  const void* record = data;
  while (b->size < end || b->unused < b->array_length) {
    const int rc = grow_for_copy(b, 2LL * b->size, &record);
    if (rc != 0) return rc;
  }
  std::memmove(b->buffer + (end - b->array_length), record, static_cast<size_t>(b->array_length));
  b->len += b->array_length;
  b->unused -= b->array_length;
  return ++b->array_cur;
}

int blob_array_count(void* handle) {
  _BLOB* b = nullptr;
  if (const int rc = array_blob(handle, &b); rc != 0) return rc;
  return b->array_cur;
}

int blob_array_get_buffer(void* handle, int index, void** ptr) {
  _BLOB* b = nullptr;
  if (const int rc = array_blob(handle, &b); rc != 0) return rc;
  char* record = record_at(b, index);
  if (!record || !ptr) return ERR_INVALID_PARAMETER;
  *ptr = record;
  return 0;
}

int blob_array_set(void* handle, int index, void* buffer) {
  _BLOB* b = nullptr;
  if (const int rc = array_blob(handle, &b); rc != 0) return rc;
  char* record = record_at(b, index);
  if (!record || !buffer) return ERR_INVALID_PARAMETER;
  std::memmove(record, buffer, static_cast<size_t>(b->array_length));
  return 0;
}

int blob_array_get(void* handle, int index, void* buffer) {
  _BLOB* b = nullptr;
  if (const int rc = array_blob(handle, &b); rc != 0) return rc;
  const char* record = record_at(b, index);
  if (!record || !buffer) return ERR_INVALID_PARAMETER;
  std::memcpy(buffer, record, static_cast<size_t>(b->array_length));
  return 0;
}

}  // extern "C"
