// The "tls" sub-command (a TLS client on standard input and output) and the
// demo section "tls" (a handshake with itself over loopback).
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <vekutil/vekutil.h>

#include "command.hpp"
#include "socket_util.hpp"

namespace {

constexpr const char* kDetails =
    "Connects, shakes hands and prints protocol, cipher, peer subject and the\n"
    "verification result on standard error, then copies standard input to the\n"
    "connection and the connection to standard output until the peer closes.\n"
    "  --ca FILE       trust the CA certificates in FILE\n"
    "  --verify        refuse a server whose certificate does not verify\n"
    "                  (against the system CAs when --ca is not given)\n"
    "  --cert PEMFILE  present this certificate chain and key (one PEM file)\n"
    "  --pass PHRASE   pass phrase of the key in PEMFILE\n";

struct TlsOptions {
  std::string address;
  const char* ca = nullptr;
  const char* cert = nullptr;  // certificate chain and key in one PEM file
  const char* pass = nullptr;
  bool verify = false;
};

// 0 when the arguments make sense, else 2 after a hint.
int parse(int argc, char** argv, TlsOptions* o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool has_value = i + 1 < argc;
    if (a == "--verify") {
      o->verify = true;
    } else if ((a == "--ca" || a == "--cert" || a == "--pass") && has_value) {
      (a == "--ca" ? o->ca : a == "--cert" ? o->cert : o->pass) = argv[++i];
    } else if (a[0] != '-' && o->address.empty()) {
      o->address = a;
    } else {
      return vektool::usage_error("tls", ("unexpected '" + a + "'").c_str());
    }
  }
  if (o->address.empty() || o->address.find(':') == std::string::npos)
    return vektool::usage_error("tls", "HOST:PORT is required");
  if (o->pass && !o->cert) return vektool::usage_error("tls", "--pass goes with --cert");
  return 0;
}

int fail(const char* what, const char* detail) {
  std::fprintf(stderr, "vekutil tls: %s%s%s\n", what, detail && *detail ? ": " : "", detail ? detail : "");
  return 1;
}

// The context the options ask for; NULL after printing why not.
void* make_context(const TlsOptions& o) {
  void* ctx = nullptr;
  if (ssl_ctx_create(&ctx) != 0) return fail("cannot create a TLS context", nullptr), nullptr;
  int r = 0;
  const char* failed = nullptr;
  if (o.pass) ssl_ctx_set_passwd(ctx, o.pass);
  if (o.cert && (r = ssl_ctx_set_packed_file(ctx, o.cert)) != 0) failed = o.cert;
  if (!failed && o.ca && (r = ssl_ctx_set_calist_file(ctx, o.ca)) != 0) failed = o.ca;
  if (!failed && o.verify && !o.ca && (r = ssl_ctx_set_calist_load_system(ctx)) != 0) failed = "system CA paths";
  if (failed) {
    std::fprintf(stderr, "vekutil tls: cannot load %s: %s\n", failed, ssl_ctx_error(ctx));
    ssl_ctx_delete(ctx);
    return nullptr;
  }
  ssl_ctx_set_verify(ctx, 0, o.verify ? 1 : 0);
  return ctx;
}

void print_session(void* sock, bool verify_requested) {
  SSL* ssl = ssl_get_raw_object(sock);
  std::fprintf(stderr, "protocol: %s\ncipher: %s\n", SSL_get_version(ssl), ssl_get_cipher(sock));
  X509* cert = ssl_get_peer_certificate(sock);
  char subject[512] = "(no certificate)";
  if (cert) X509_NAME_oneline(X509_get_subject_name(cert), subject, sizeof subject);
  X509_free(cert);
  std::fprintf(stderr, "peer: %s\n", subject);
  const long result = SSL_get_verify_result(ssl);
  std::fprintf(stderr, "verification: %s%s%s\n", ssl_verify_peer(sock) ? "ok" : "failed: ",
               ssl_verify_peer(sock) ? "" : X509_verify_cert_error_string(result),
               verify_requested ? "" : " (not enforced)");
}

bool write_all(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Copies standard input to the connection and the connection to standard
// output until the peer closes. The end of standard input stops only that
// direction: the answer may still be on its way.
int copy_streams(void* sock) {
  SSL* ssl = ssl_get_raw_object(sock);
  static char buf[65536];
  bool stdin_open = true;
  for (;;) {
    pollfd fds[2] = {{socket_descriptor(sock), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    if (SSL_pending(ssl) == 0 && poll(fds, stdin_open ? 2 : 1, -1) < 0) {
      if (errno == EINTR) continue;
      return fail("poll failed", std::strerror(errno));
    }
    if (SSL_pending(ssl) > 0 || fds[0].revents) {
      // A short time-out: what arrived may be TLS's own records only.
      int len = sizeof buf;
      const int r = socket_recv2(sock, buf, &len, 10);
      if (r == ERR_SOCKET_TIMEOUT) continue;
      if (r == ERR_SOCKET_CLOSED) return 0;
      if (r != 0) return fail("receiving failed", ssl_error(sock));
      if (!write_all(STDOUT_FILENO, buf, static_cast<size_t>(len))) return fail("writing standard output failed", std::strerror(errno));
    }
    if (stdin_open && fds[1].revents) {
      const ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        stdin_open = false;
        continue;
      }
      if (socket_send(sock, buf, static_cast<int>(n)) != 0) return fail("sending failed", ssl_error(sock));
    }
  }
}

int run_tls(int argc, char** argv) {
  TlsOptions o;
  if (const int bad = parse(argc, argv, &o)) return bad;
  ssl_init();
  void* ctx = make_context(o);
  if (!ctx) return 1;
  void* sock = nullptr;
  int rc = 1;
  if (socket_create(&sock) != 0) {
    fail("cannot create a socket", nullptr);
  } else if (const int r = socket_connect_ex(sock, o.address.c_str(), 10000); r != 0) {
    std::fprintf(stderr, "vekutil tls: cannot connect to %s (error %d)\n", o.address.c_str(), r);
  } else if (ssl_connect(sock, ctx) != 0) {
    fail("handshake failed", ssl_error(sock));
    if (SSL* ssl = ssl_get_raw_object(sock); ssl && SSL_get_verify_result(ssl) != X509_V_OK)
      std::fprintf(stderr, "verification: failed: %s\n", X509_verify_cert_error_string(SSL_get_verify_result(ssl)));
  } else {
    print_session(sock, o.verify);
    rc = copy_streams(sock);
  }
  vektool::drain_then_delete(sock, 10000);
  ssl_ctx_delete(ctx);
  return rc;
}

// ---- demo -------------------------------------------------------------------

// A throw-away self-signed P-256 certificate and key in one PEM file.
bool write_self_signed(const char* path) {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* cert = X509_new();
  bool ok = key && cert;
  if (ok) {
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("vekutil demo"), -1, -1, 0);
    X509_set_issuer_name(cert, name);
    ok = X509_sign(cert, key, EVP_sha256()) > 0;
  }
  FILE* f = ok ? std::fopen(path, "w") : nullptr;
  ok = f && PEM_write_X509(f, cert) && PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr);
  if (f) std::fclose(f);
  X509_free(cert);
  EVP_PKEY_free(key);
  return ok;
}

int demo_tls() {
  ssl_init();
  std::printf("  %s, TLS available: %s\n", ssl_get_version(), ssl_is_available() ? "yes" : "no");
  char pem[] = "/tmp/vekutil-tls-demo.XXXXXX";
  const int fd = mkstemp(pem);
  if (fd < 0) return 1;
  close(fd);
  void *server_ctx = nullptr, *client_ctx = nullptr, *listener = nullptr, *client = nullptr, *server = nullptr;
  bool ok = write_self_signed(pem) && ssl_ctx_create(&server_ctx) == 0 && ssl_ctx_create(&client_ctx) == 0 &&
            ssl_ctx_set_packed_file(server_ctx, pem) == 0 && ssl_ctx_check(server_ctx) == 1 &&
            socket_listen(&listener, "127.0.0.1:0") == 0;
  if (ok) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(static_cast<SERVER_SOCKET*>(listener)->s, reinterpret_cast<sockaddr*>(&a), &len);
    const std::string addr = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    int accepted = -1;
    std::thread acceptor([&] {
      server = socket_accept(listener, 5000);
      if (server) accepted = ssl_accept(server, server_ctx);
    });
    ok = socket_create(&client) == 0 && socket_connect(client, addr.c_str()) == 0 && ssl_connect(client, client_ctx) == 0;
    acceptor.join();
    ok = ok && accepted == 0;
    std::printf("  loopback handshake with a self-signed certificate: %s\n", ok ? "done" : "failed");
  }
  char reply[6] = {};
  if (ok) {
    ok = socket_send(client, "hello", 5) == 0 && socket_recv(server, reply, 5, 5000) == 0;
    std::printf("  cipher %s, peer verified: %s (no CA list given), server read \"%s\"\n", ssl_get_cipher(client),
                ssl_verify_peer(client) ? "yes" : "no", reply);
  }
  socket_delete(client);
  socket_delete(server);
  if (listener) socket_unlisten(listener);
  ssl_ctx_delete(client_ctx);
  ssl_ctx_delete(server_ctx);
  unlink(pem);
  return ok ? 0 : 1;
}

vektool::Registrar tls_command{{"tls", "tls HOST:PORT [--ca FILE] [--verify] [--cert PEMFILE [--pass PHRASE]]",
                                 "TLS client on stdin/stdout", run_tls, kDetails}};
vektool::DemoRegistrar demo_section{{"tls", 65, demo_tls}};

}  // namespace
