// 36-character identifiers.
#include <vekutil/guid.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include <vekutil/hardwareid.h>
#include <vekutil/mutex.h>
#include <vekutil/random.h>
#include <vekutil/timeutil.h>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/guid.c";
constexpr size_t kGuidLength = 36;

// Written once by guid_init, read-only afterwards.
std::once_flag g_guid_once;
void* g_guid_mux = nullptr;
unsigned int g_guid_seed = 0;
long long g_guid_xor = 0;
// Under g_guid_mux: the last masked clock value and its counter.
long long g_guid_time = 0;
unsigned int g_guid_counter = 0;

// Counter value for the masked clock value t: restarts at 1 on a new value.
unsigned int next_counter(long long t) {
  MUTEX_LOCK(g_guid_mux);
  if (t != g_guid_time) {
    g_guid_time = t;
    g_guid_counter = 1;
  } else {
    ++g_guid_counter;
  }
  const unsigned int counter = g_guid_counter;
  MUTEX_UNLOCK(g_guid_mux);
  return counter;
}

// The first interface's hardware address, or twelve random letters.
void hardware_field(char out[13]) {
  HWID_ENTRY first;
  int count = 1;
  if (hardwareid_list(&first, &count) == 0 && count == 1) {
    std::memcpy(out, first.hwid, 12);
  } else {
    random_string(out, 12);
  }
  out[12] = '\0';
}

}  // namespace

extern "C" {

void guid_init(void) {
  std::call_once(g_guid_once, [] {
    if (MUTEX_CREATE(&g_guid_mux, "guid", 0) != 0) return;
    random_init();
    randomize(&g_guid_seed, sizeof g_guid_seed);
    randomize(&g_guid_xor, sizeof g_guid_xor);
  });
}

char* guid_create(void) {
  guid_init();
  if (!g_guid_mux) return nullptr;

  const long long t = time_now() ^ g_guid_xor;
  char clock_hex[17];
  std::snprintf(clock_hex, sizeof clock_hex, "%08llX", static_cast<unsigned long long>(t));

  // The counter keeps its low four digits should one clock value ever see
  // more than 65535 identifiers, so the text always has its fixed length.
  const unsigned int counter = next_counter(t) & 0xFFFF;
  char seed_hex[9];
  std::snprintf(seed_hex, sizeof seed_hex, "%04X", g_guid_seed);
  char letters[5];
  random_string(letters, 4);
  letters[4] = '\0';
  char hardware[13];
  hardware_field(hardware);

  char* guid = static_cast<char*>(_vekMalloc(kGuidLength + 1, kSource, __LINE__));
  if (!guid) return nullptr;
  std::snprintf(guid, kGuidLength + 1, "%.8s-%04X-%.4s-%.4s-%.12s", clock_hex, counter, letters, seed_hex, hardware);
  return guid;
}

}  // extern "C"
