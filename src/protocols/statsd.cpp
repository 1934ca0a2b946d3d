// statsd publisher: one UDP socket per publisher, one datagram per metric,
// sends serialised by the publisher's mutex so that threads can share it.
#include <vekutil/statsd.h>

#include <cstdio>

#include <vekutil/mutex.h>
#include <vekutil/udp.h>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/statsd.c";
// Metric texts are formatted into a buffer of this size; longer ones are cut.
constexpr int kMetricBufferSize = 256;

struct _STATSD_OBJECT {
  char* address;  // "host:port" as given, owned copy
  void* socket;   // UDP socket used for every send
  void* mux;      // serialises the sends
};

void destroy(_STATSD_OBJECT* st) {
  if (st->socket) udp_delete(st->socket);
  if (st->mux) mutex_delete(st->mux);
  vek::release(st->address, kSource, __LINE__);
  _vekFree(st, kSource, __LINE__);
}

char* copy_text(const char* text, int line) {
  const size_t n = std::strlen(text) + 1;
  auto* copy = static_cast<char*>(_vekMalloc(n, kSource, line));
  if (copy) std::memcpy(copy, text, n);
  return copy;
}

// The length snprintf reports is that of the uncut text; the datagram holds
// what fitted.
int fitted_length(int printed) {
  if (printed < 0) return 0;
  return printed < kMetricBufferSize ? printed : kMetricBufferSize - 1;
}

int send_metric(_STATSD_OBJECT* st, const char* text, int length) {
  MUTEX_LOCK(st->mux);
  const int rc = udp_send(st->socket, text, length, st->address);
  MUTEX_UNLOCK(st->mux);
  return rc;
}

// Formats "bucket:value|<kind>" and sends it.
int publish(void* handle, const char* bucket, int value, const char* kind) {
  if (!handle || !bucket) return ERR_INVALID_PARAMETER;
  char text[kMetricBufferSize];
  const int printed = std::snprintf(text, sizeof text, "%s:%d|%s", bucket, value, kind);
  return send_metric(static_cast<_STATSD_OBJECT*>(handle), text, fitted_length(printed));
}

}  // namespace

int statsd_create(void** handle, const char* address) {
  if (!handle || !address) return ERR_INVALID_PARAMETER;
  *handle = nullptr;
  auto* st = vek::alloc_record<_STATSD_OBJECT>(kSource, __LINE__);
  if (!st) return ERR_NO_MEMORY;
  int rc = MUTEX_CREATE(&st->mux, nullptr, 0);
  if (rc == 0 && !(st->address = copy_text(address, __LINE__))) rc = ERR_NO_MEMORY;
  if (rc == 0) rc = udp_create(&st->socket);
  if (rc == 0) rc = udp_open(st->socket);
  if (rc != 0) {
    destroy(st);
    return rc;
  }
  *handle = st;
  return 0;
}

int statsd_delete(void* handle) {
  if (!handle) return ERR_INVALID_PARAMETER;
  destroy(static_cast<_STATSD_OBJECT*>(handle));
  return 0;
}

int statsd_publish_gauge(void* handle, const char* bucket, int value) { return publish(handle, bucket, value, "g"); }

int statsd_publish_timing(void* handle, const char* bucket, int value) { return publish(handle, bucket, value, "ms"); }

int statsd_publish_counter(void* handle, const char* bucket, int value, float sampling) {
  // A NaN rate compares unequal to 0 and is printed like any other rate.
  if (!(sampling != 0.0f)) return publish(handle, bucket, value, "c");
  if (!handle || !bucket) return ERR_INVALID_PARAMETER;
  char text[kMetricBufferSize];
  const int printed = std::snprintf(text, sizeof text, "%s:%d|c|@%0.2lf", bucket, value, (double)sampling);
  return send_metric(static_cast<_STATSD_OBJECT*>(handle), text, fitted_length(printed));
}
