// TLS over loopback: bulk transfer of 1 GiB through socket_send/socket_recv
// on morphed sockets beside a raw SSL_write/SSL_read loop, and full
// handshakes (connect, handshake, close) beside raw OpenSSL calls. Both
// sides use the same certificate, cipher and context settings.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/memory.h>
#include <vekutil/socket.h>
#include <vekutil/ssl.h>

namespace {

constexpr long long kBulkBytes = 1LL << 30;
constexpr int kChunk = 1 << 20;  // bytes per send and receive call

// A self-signed P-256 certificate and its key in one PEM file, made once.
const char* pem_file() {
  static std::string path = [] {
    char name[] = "/tmp/vekutil-bench-tls.XXXXXX";
    const int fd = mkstemp(name);
    if (fd >= 0) close(fd);
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* subject = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("bench"), -1, -1, 0);
    X509_set_issuer_name(cert, subject);
    X509_sign(cert, key, EVP_sha256());
    FILE* f = std::fopen(name, "w");
    PEM_write_X509(f, cert);
    PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr);
    std::fclose(f);
    X509_free(cert);
    EVP_PKEY_free(key);
    std::atexit([] { unlink(pem_file()); });
    return std::string(name);
  }();
  return path.c_str();
}

// ---- ours ---------------------------------------------------------------------

struct VekContexts {
  void* client = nullptr;
  void* server = nullptr;
  VekContexts() {
    ssl_init();
    ssl_ctx_create(&client);
    ssl_ctx_create(&server);
    ssl_ctx_set_packed_file(server, pem_file());
  }
  ~VekContexts() {
    ssl_ctx_delete(client);
    ssl_ctx_delete(server);
  }
};

struct VekListener {
  void* h = nullptr;
  std::string addr;
  VekListener() {
    socket_listen(&h, "127.0.0.1:0");
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(static_cast<SERVER_SOCKET*>(h)->s, reinterpret_cast<sockaddr*>(&a), &len);
    addr = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
  }
  ~VekListener() { socket_unlisten(h); }
};

// One TLS connection of the library with itself: *client and *server.
bool vek_connect(const VekContexts& ctx, VekListener& l, void** client, void** server) {
  int accepted = -1;
  std::thread acceptor([&] {
    *server = socket_accept(l.h, 5000);
    if (*server) accepted = ssl_accept(*server, ctx.server);
  });
  bool ok = socket_create(client) == 0 && socket_connect(*client, l.addr.c_str()) == 0 &&
            ssl_connect(*client, ctx.client) == 0;
  acceptor.join();
  return ok && accepted == 0;
}

void BM_TlsBulk_Vek(benchmark::State& state) {
  VekContexts ctx;
  VekListener l;
  void *client = nullptr, *server = nullptr;
  if (!vek_connect(ctx, l, &client, &server)) state.SkipWithError("no TLS connection");
  std::vector<char> out(kChunk, 'v'), in(kChunk);
  for (auto _ : state) {
    std::thread sender([&] {
      for (long long n = 0; n < kBulkBytes; n += kChunk) socket_send(client, out.data(), kChunk);
    });
    for (long long n = 0; n < kBulkBytes; n += kChunk) socket_recv(server, in.data(), kChunk, 10000);
    sender.join();
  }
  state.SetBytesProcessed(state.iterations() * kBulkBytes);
  socket_delete(client);
  socket_delete(server);
}
BENCHMARK(BM_TlsBulk_Vek)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_TlsHandshake_Vek(benchmark::State& state) {
  VekContexts ctx;
  VekListener l;
  std::atomic<bool> stop{false};
  std::thread server([&] {
    for (;;) {
      void* s = socket_accept(l.h, -1);
      if (stop) {
        socket_delete(s);
        return;
      }
      if (s) ssl_accept(s, ctx.server);
      socket_delete(s);
    }
  });
  for (auto _ : state) {
    void* c = nullptr;
    socket_create(&c);
    if (socket_connect(c, l.addr.c_str()) != 0 || ssl_connect(c, ctx.client) != 0) state.SkipWithError("handshake");
    socket_delete(c);
  }
  stop = true;
  void* wake = nullptr;  // one more client ends the server's wait
  socket_create(&wake);
  socket_connect(wake, l.addr.c_str());
  server.join();
  socket_delete(wake);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TlsHandshake_Vek)->MinTime(1.0)->UseRealTime()->Unit(benchmark::kMicrosecond);

// ---- raw OpenSSL ----------------------------------------------------------------

// Contexts set up as ssl_ctx_create does.
SSL_CTX* raw_ctx(bool server) {
  SSL_CTX* c = SSL_CTX_new(TLS_method());
  SSL_CTX_set_session_cache_mode(c, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(c, 0);
  SSL_CTX_set_options(c, SSL_OP_NO_TICKET | SSL_OP_IGNORE_UNEXPECTED_EOF);
  if (server) {
    SSL_CTX_use_certificate_chain_file(c, pem_file());
    SSL_CTX_use_PrivateKey_file(c, pem_file(), SSL_FILETYPE_PEM);
  }
  return c;
}

struct RawListener {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  RawListener() {
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    listen(fd, 128);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  }
  ~RawListener() { close(fd); }
  int dial() const {
    const int c = socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return connect(c, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 ? c : (close(c), -1);
  }
};

SSL* raw_handshake(SSL_CTX* ctx, int fd, bool server) {
  SSL* ssl = SSL_new(ctx);
  SSL_set_fd(ssl, fd);
  if ((server ? SSL_accept(ssl) : SSL_connect(ssl)) == 1) return ssl;
  SSL_free(ssl);
  return nullptr;
}

void raw_close(SSL* ssl, int fd) {
  if (ssl) {
    SSL_shutdown(ssl);
    SSL_free(ssl);
  }
  close(fd);
}

void BM_TlsBulk_OpenSSL(benchmark::State& state) {
  SSL_CTX* cctx = raw_ctx(false);
  SSL_CTX* sctx = raw_ctx(true);
  RawListener l;
  int sfd = -1;
  SSL* server = nullptr;
  std::thread acceptor([&] {
    sfd = accept(l.fd, nullptr, nullptr);
    server = raw_handshake(sctx, sfd, true);
  });
  const int cfd = l.dial();
  SSL* client = raw_handshake(cctx, cfd, false);
  acceptor.join();
  if (!client || !server) state.SkipWithError("no TLS connection");
  std::vector<char> out(kChunk, 'o'), in(kChunk);
  for (auto _ : state) {
    std::thread sender([&] {
      for (long long n = 0; n < kBulkBytes; n += kChunk) SSL_write(client, out.data(), kChunk);
    });
    for (long long n = 0; n < kBulkBytes;) {
      const int r = SSL_read(server, in.data(), kChunk);
      if (r <= 0) break;
      n += r;
    }
    sender.join();
  }
  state.SetBytesProcessed(state.iterations() * kBulkBytes);
  raw_close(client, cfd);
  raw_close(server, sfd);
  SSL_CTX_free(cctx);
  SSL_CTX_free(sctx);
}
BENCHMARK(BM_TlsBulk_OpenSSL)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_TlsHandshake_OpenSSL(benchmark::State& state) {
  SSL_CTX* cctx = raw_ctx(false);
  SSL_CTX* sctx = raw_ctx(true);
  RawListener l;
  std::thread server([&] {
    for (;;) {
      const int fd = accept(l.fd, nullptr, nullptr);
      if (fd < 0) return;  // the listener was shut down
      raw_close(raw_handshake(sctx, fd, true), fd);
    }
  });
  for (auto _ : state) {
    const int fd = l.dial();
    SSL* ssl = fd >= 0 ? raw_handshake(cctx, fd, false) : nullptr;
    if (!ssl) state.SkipWithError("handshake");
    raw_close(ssl, fd);
  }
  shutdown(l.fd, SHUT_RDWR);
  server.join();
  state.SetItemsProcessed(state.iterations());
  SSL_CTX_free(cctx);
  SSL_CTX_free(sctx);
}
BENCHMARK(BM_TlsHandshake_OpenSSL)->MinTime(1.0)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

// Other programs share the machine: by default every case runs three times,
// the cases interleaved at random, and the median is what to compare.
int main(int argc, char** argv) {
  vekMemoryInit();
  std::vector<char*> args(argv, argv + argc);
  char repetitions[] = "--benchmark_repetitions=3";
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  char aggregates[] = "--benchmark_report_aggregates_only=true";
  if (argc == 1) args.insert(args.end(), {repetitions, interleave, aggregates});
  int count = static_cast<int>(args.size());
  args.push_back(nullptr);
  argv = args.data();
  argc = count;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
