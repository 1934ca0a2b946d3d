// Test certificates made once per process with openssl: a CA, server
// (127.0.0.1, localhost) and client certificates, a self-signed rogue, and
// the packed and pass-phrase variants the script below lists.
#pragma once

#include <string>

#include "peer.hpp"
#include "vek_test.hpp"

namespace vektest {

// 64 characters: the longest pass phrase a TLS context keeps.
inline const std::string kPassPhrase = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-+";

struct TestPki {
  TempDir dir;
  bool ok = false;

  TestPki() {
    const std::string script = "set -e; cd '" + dir.path() + "'; exec 2>pki.log\n"
        "key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out $1.key; }\n"
        "sign() { key $1; openssl req -new -key $1.key -subj \"$2\" |"
        "  openssl x509 -req -CA ca.pem -CAkey ca.key -set_serial $3 -days 2 $4 -out $1.pem; }\n"
        "echo 'subjectAltName=DNS:localhost,IP:127.0.0.1' > san.ext\n"
        "key ca; openssl req -x509 -new -key ca.key -subj '/CN=vektest CA' -days 2 -out ca.pem\n"
        "sign server /CN=127.0.0.1 2 '-extfile san.ext'; sign client '/CN=vektest client' 3\n"
        "key rogue; openssl req -x509 -new -key rogue.key -subj /CN=127.0.0.1 -days 2 -out rogue.pem\n"
        "openssl pkey -in server.key -aes256 -passout 'pass:" + kPassPhrase + "' -out server.enc.key\n"
        "cat server.pem ca.pem server.key > packed.pem\n"
        "cat client.pem ca.pem client.key > client.ca.packed.pem\n"
        "openssl pkey -in client.key -aes256 -passout 'pass:" + kPassPhrase +
        "' | cat client.pem - > client.packed.pem\n";
    ok = run_program({"sh", "-c", script}) == 0;
  }
  std::string file(const char* name) const { return dir.file(name); }
};

inline const TestPki& test_pki() {
  static TestPki pki;
  return pki;
}

}  // namespace vektest
