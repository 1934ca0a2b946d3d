// One-time preparation of OpenSSL. OpenSSL 3 initialises and locks itself,
// so what is left is loading its error texts, recording its version for
// callers and seeding the random generator; the callbacks older releases
// needed for threads do not exist any more.
#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <mutex>

#include <vekutil/random.h>
#include <vekutil/ssl.h>

#include "core/internal.hpp"

char g_ssl_version[256];

extern "C" {

void ssl_init(void) {
  static std::once_flag once;
  std::call_once(once, [] {
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    vek::copy_name(g_ssl_version, sizeof g_ssl_version, OpenSSL_version(OPENSSL_VERSION));
    random_init();
  });
}

const char* ssl_get_version(void) { return g_ssl_version; }

int ssl_is_available(void) { return 1; }

}  // extern "C"
