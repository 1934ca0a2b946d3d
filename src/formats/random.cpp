// Random values from the OpenSSL generator.
#include <vekutil/random.h>

#include <openssl/rand.h>
#include <sys/random.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>

namespace {

std::atomic<bool> g_random_is_init{false};

// The generator practically never fails once seeded; should it, the kernel
// source fills the buffer rather than leaving it predictable.
void fill_random(unsigned char* p, size_t n) {
  while (n > 0) {
    const int chunk = n > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(n);
    if (RAND_bytes(p, chunk) != 1) {
      const ssize_t got = getrandom(p, static_cast<size_t>(chunk), 0);
      if (got <= 0) {
        if (got < 0 && errno == EINTR) continue;
        return;
      }
      p += got;
      n -= static_cast<size_t>(got);
      continue;
    }
    p += chunk;
    n -= static_cast<size_t>(chunk);
  }
}

}  // namespace

extern "C" {

void random_init(void) {
  if (g_random_is_init.exchange(true)) return;
  if (RAND_load_file("/dev/urandom", 1024) <= 0) RAND_load_file("/dev/random", 1024);
}

void* randomize(void* buffer, unsigned int size) {
  if (!buffer) return nullptr;
  random_init();
  fill_random(static_cast<unsigned char*>(buffer), size);
  return buffer;
}

int random_int(void) {
  int v = 0;
  randomize(&v, sizeof v);
  return v;
}

long long random_int64(void) {
  long long v = 0;
  randomize(&v, sizeof v);
  return v;
}

char* random_string(char* buffer, unsigned int size) {
  if (!buffer) return nullptr;
  // Bytes at or above 234 (= 9 * 26) are drawn again so that every letter is
  // equally likely.
  constexpr unsigned kLimit = 26 * (256 / 26);
  unsigned char pool[64];
  unsigned used = sizeof pool;
  for (unsigned int i = 0; i < size;) {
    if (used == sizeof pool) {
      randomize(pool, sizeof pool);
      used = 0;
    }
    const unsigned b = pool[used++];
    if (b < kLimit) buffer[i++] = static_cast<char>('A' + b % 26);
  }
  return buffer;
}

}  // extern "C"
