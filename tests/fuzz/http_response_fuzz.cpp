// fuzz-seconds: 60
// Arbitrary bytes as a server's reply: a socket whose receive slot hands out
// the input in pieces (then one time-out, then the peer's close) drives the
// reading half of the exchange, header parsing and every body reader, into
// memory or a file. No crash, no leak, and memory in use stays within a fixed
// multiple of what was received. The first input byte chooses the request:
// bit 0 a GET into /dev/null, bit 1 a resume offset, bits 2-4 the piece size.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <vekutil/errors.h>
#include <vekutil/http.h>
#include <vekutil/memory.h>
#include <vekutil/socket.h>

namespace {

// Allocation accounting: bytes in use and their peak.
std::atomic<long long> g_in_use{0};
std::atomic<long long> g_peak{0};

void note(long long delta) {
  const long long now = g_in_use.fetch_add(delta) + delta;
  long long peak = g_peak.load();
  while (now > peak && !g_peak.compare_exchange_weak(peak, now)) {
  }
}
void* counting_malloc(size_t n) {
  void* p = std::malloc(n);
  if (p) note(static_cast<long long>(malloc_usable_size(p)));
  return p;
}
void* counting_calloc(size_t n, size_t m) {
  void* p = std::calloc(n, m);
  if (p) note(static_cast<long long>(malloc_usable_size(p)));
  return p;
}
void* counting_realloc(void* old, size_t n) {
  const long long before = old ? static_cast<long long>(malloc_usable_size(old)) : 0;
  void* p = std::realloc(old, n);
  if (p) note(static_cast<long long>(malloc_usable_size(p)) - before);
  return p;
}
void counting_free(void* p) {
  if (p) note(-static_cast<long long>(malloc_usable_size(p)));
  std::free(p);
}
char* counting_strdup(const char* s) {
  const size_t n = std::strlen(s) + 1;
  auto* p = static_cast<char*>(counting_malloc(n));
  if (p) std::memcpy(p, s, n);
  return p;
}

// The input, handed out in pieces of at most `piece` bytes; at its end one
// time-out (the header read may wait it out), then the peer's close.
struct Feed {
  const char* data;
  size_t size, pos, piece;
  bool timed_out;
};

int feed_recv2(void* socket, char* buffer, int* length, int) {
  auto* s = static_cast<ABSTRACT_SOCKET*>(socket);
  auto* f = static_cast<Feed*>(s->handle);
  if (f->pos == f->size) {
    *length = 0;
    s->err = f->timed_out ? ERR_SOCKET_CLOSED : ERR_SOCKET_TIMEOUT;
    f->timed_out = true;
    return s->err;
  }
  const size_t n = std::min({static_cast<size_t>(*length), f->piece, f->size - f->pos});
  std::memcpy(buffer, f->data + f->pos, n);
  f->pos += n;
  *length = static_cast<int>(n);
  return 0;
}

int feed_recv(void* socket, char* buffer, int length, int timeout) {
  while (length > 0) {
    int n = length;
    const int rc = feed_recv2(socket, buffer, &n, timeout);
    if (rc != 0) return rc;
    buffer += n;
    length -= n;
  }
  return 0;
}

int feed_close(void* socket) {
  static_cast<ABSTRACT_SOCKET*>(socket)->handle = nullptr;
  return 0;
}

int g_dev_null = -1;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  VEK_MEMORY_FUNCTIONS funcs = vekMemoryGetFunctions();
  funcs.mallocFunc = counting_malloc;
  funcs.callocFunc = counting_calloc;
  funcs.reallocFunc = counting_realloc;
  funcs.freeFunc = counting_free;
  funcs.strdupFunc = counting_strdup;
  vekMemorySetFunctions(funcs);
  vekMemoryInit();
  g_dev_null = open("/dev/null", O_RDWR | O_CLOEXEC);
  // The socket registry and its index nodes live for the whole process: one
  // socket kept alive keeps them from shrinking and growing per input.
  static void* keep_alive = nullptr;
  socket_create(&keep_alive);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  static constexpr size_t kPieces[] = {1, 2, 7, 64, 512, 4096, 16384, 65536};
  const unsigned options = data[0];
  Feed feed{reinterpret_cast<const char*>(data + 1), size - 1, 0, kPieces[(options >> 2) & 7], false};

  const long long blocks_before = vekMemoryBlockUsed();
  const long long base = g_in_use.load();
  g_peak.store(base);

  HTTP_REQUEST* req = nullptr;
  HTTP_RESPONSE* resp = nullptr;
  void* socket = nullptr;
  if (http_request_create(&req) != 0 || http_response_create(&resp) != 0 || socket_create(&socket) != 0) std::abort();
  req->url = "http://fuzz.invalid/";
  req->method = HTTP_METHOD_GET;
  req->timeout = 1000;
  if (options & 1) req->file = "/dev/null";
  if (options & 2) req->offset = 100;

  auto* s = static_cast<ABSTRACT_SOCKET*>(socket);
  s->s = dup(g_dev_null);  // the dispatchers want an open descriptor
  s->handle = &feed;
  s->a_recv = feed_recv;
  s->a_recv2 = feed_recv2;
  s->a_send = [](void*, const char*, int) { return 0; };
  s->a_send2 = [](void*, const char*, int, int) { return 0; };
  s->a_close = feed_close;

  const int rc = _http_read_response(req, resp, socket);
  if (rc > 0 || resp->data_len < 0 || (resp->data && resp->data[resp->data_len] != '\0')) std::abort();

  socket_delete(socket);
  http_request_delete(req);
  http_response_delete(resp);

  // A few input bytes make a property entry of a few dozen; bodies grow by doubling.
  const long long peak = g_peak.load() - base;
  if (peak > 64 * static_cast<long long>(size) + (1 << 20)) std::abort();
  if (vekMemoryBlockUsed() != blocks_before) std::abort();
  return 0;
}
