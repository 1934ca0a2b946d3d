// Loopback sockets beside raw POSIX code doing the same work on the same
// connections:
//  - 1 GiB in 64 KiB pieces through socket_send/socket_recv vs send/recv
//    loops on the very same descriptors;
//  - the secure stream vs OpenSSL EVP AES-128-CBC plus send/recv loops;
//  - connect + accept + close cycles vs the raw calls setting the same
//    socket options.
// Ratios are ours / raw of the reported times.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/vekutil.h>

namespace {

constexpr int kPiece = 64 * 1024;
constexpr long long kPlainBytes = 1LL << 30;
constexpr long long kSecureBytes = 256LL << 20;
constexpr int kCyclesPerRound = 2000;

const unsigned char kKey[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const unsigned char kIv[16] = {16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1};

// A connected pair made by the library: client and accepted end.
struct Pair {
  void* server = nullptr;
  void* client = nullptr;
  void* accepted = nullptr;
  std::string addr;

  Pair() {
    socket_listen(&server, "127.0.0.1:0");
    sockaddr_in sin{};
    socklen_t len = sizeof(sin);
    getsockname(static_cast<SERVER_SOCKET*>(server)->s, reinterpret_cast<sockaddr*>(&sin), &len);
    addr = "127.0.0.1:" + std::to_string(ntohs(sin.sin_port));
    socket_create(&client);
    socket_connect(client, addr.c_str());
    accepted = socket_accept(server, 5000);
  }
  ~Pair() {
    socket_delete(client);
    if (accepted) socket_delete(accepted);
    socket_unlisten(server);
  }
};

bool raw_send_all(int fd, const char* p, size_t n) {
  while (n > 0) {
    ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

bool raw_recv_all(int fd, char* p, size_t n) {
  while (n > 0) {
    ssize_t r = recv(fd, p, n, 0);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

// CPU time of the whole process (every thread), in milliseconds: on a
// shared machine it varies much less than the wall clock.
double process_cpu_ms() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return (u.ru_utime.tv_sec + u.ru_stime.tv_sec) * 1e3 + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e3;
}

// Adds the counter "cpu_ms": process CPU per iteration.
class CpuMeter {
 public:
  explicit CpuMeter(benchmark::State& state) : state_(state), start_(process_cpu_ms()) {}
  ~CpuMeter() {
    if (state_.iterations() > 0) state_.counters["cpu_ms"] = (process_cpu_ms() - start_) / (double)state_.iterations();
  }

 private:
  benchmark::State& state_;
  double start_;
};

// Moves `total` bytes per iteration: a sender thread runs send_piece, this
// thread runs recv_piece, piece by piece.
template <class Send, class Recv>
void transfer(benchmark::State& state, long long total, Send send_piece, Recv recv_piece) {
  const long long pieces = total / kPiece;
  std::vector<char> out(kPiece, 'x'), in(kPiece);
  CpuMeter cpu(state);
  for (auto _ : state) {
    std::thread sender([&] {
      for (long long i = 0; i < pieces; ++i)
        if (!send_piece(out.data())) break;
    });
    for (long long i = 0; i < pieces; ++i)
      if (!recv_piece(in.data())) {
        state.SkipWithError("receive failed");
        break;
      }
    sender.join();
  }
  state.SetBytesProcessed(state.iterations() * pieces * kPiece);
}

void BM_Stream_Vek(benchmark::State& state) {
  Pair p;
  transfer(
      state, kPlainBytes, [&](char* d) { return socket_send(p.client, d, kPiece) == 0; },
      [&](char* d) { return socket_recv(p.accepted, d, kPiece, 10000) == 0; });
}

void BM_Stream_Raw(benchmark::State& state) {
  Pair p;
  const int out_fd = socket_descriptor(p.client), in_fd = socket_descriptor(p.accepted);
  transfer(
      state, kPlainBytes, [&](char* d) { return raw_send_all(out_fd, d, kPiece); },
      [&](char* d) { return raw_recv_all(in_fd, d, kPiece); });
}

void BM_Secure_Vek(benchmark::State& state) {
  Pair p;
  stcp_morph(p.client, kKey, kIv, 128);
  stcp_morph(p.accepted, kKey, kIv, 128);
  transfer(
      state, kSecureBytes, [&](char* d) { return socket_send(p.client, d, kPiece) == 0; },
      [&](char* d) { return socket_recv(p.accepted, d, kPiece, 10000) == 0; });
}

void BM_Secure_RawEvp(benchmark::State& state) {
  Pair p;
  const int out_fd = socket_descriptor(p.client), in_fd = socket_descriptor(p.accepted);
  EVP_CIPHER_CTX* enc = EVP_CIPHER_CTX_new();
  EVP_CIPHER_CTX* dec = EVP_CIPHER_CTX_new();
  EVP_EncryptInit_ex(enc, EVP_aes_128_cbc(), nullptr, kKey, kIv);
  EVP_DecryptInit_ex(dec, EVP_aes_128_cbc(), nullptr, kKey, kIv);
  EVP_CIPHER_CTX_set_padding(enc, 0);
  EVP_CIPHER_CTX_set_padding(dec, 0);
  transfer(
      state, kSecureBytes,
      [&](char* d) {
        int n = 0;
        auto* u = reinterpret_cast<unsigned char*>(d);
        return EVP_EncryptUpdate(enc, u, &n, u, kPiece) == 1 && raw_send_all(out_fd, d, kPiece);
      },
      [&](char* d) {
        int n = 0;
        auto* u = reinterpret_cast<unsigned char*>(d);
        return raw_recv_all(in_fd, d, kPiece) && EVP_DecryptUpdate(dec, u, &n, u, kPiece) == 1;
      });
  EVP_CIPHER_CTX_free(enc);
  EVP_CIPHER_CTX_free(dec);
}

void BM_ConnectCycle_Vek(benchmark::State& state) {
  void* server = nullptr;
  socket_listen(&server, "127.0.0.1:0");
  sockaddr_in sin{};
  socklen_t len = sizeof(sin);
  getsockname(static_cast<SERVER_SOCKET*>(server)->s, reinterpret_cast<sockaddr*>(&sin), &len);
  const std::string addr = "127.0.0.1:" + std::to_string(ntohs(sin.sin_port));
  void* client = nullptr;
  socket_create(&client);
  CpuMeter cpu(state);
  for (auto _ : state) {
    for (int i = 0; i < kCyclesPerRound; ++i) {
      if (socket_connect_ex(client, addr.c_str(), 5000) != 0) {
        state.SkipWithError("connect failed");
        break;
      }
      void* accepted = socket_accept(server, -1);
      socket_close(client);
      socket_delete(accepted);
    }
  }
  state.SetItemsProcessed(state.iterations() * kCyclesPerRound);
  socket_delete(client);
  socket_unlisten(server);
}

void set_int(int fd, int level, int name, int value) { setsockopt(fd, level, name, &value, sizeof(value)); }

void set_linger(int fd, int seconds) {
  linger l{1, seconds};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof(l));
}

// The library's connect, spelled out: the same options, non-blocking
// connect, a wait, SO_ERROR, back to blocking.
int raw_connect(const sockaddr_in& to) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  set_int(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  set_int(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  set_int(fd, SOL_SOCKET, SO_OOBINLINE, 1);
  set_linger(fd, 0);
  const int flags = fcntl(fd, F_GETFL, 0);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  fcntl(fd, F_SETFL, flags);
  pollfd p{fd, POLLOUT, 0};
  poll(&p, 1, 5000);
  int err = 0;
  socklen_t len = sizeof(err);
  getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
  return fd;
}

void BM_ConnectCycle_Raw(benchmark::State& state) {
  int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  set_int(lfd, SOL_SOCKET, SO_REUSEADDR, 1);
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(lfd, reinterpret_cast<sockaddr*>(&sin), sizeof(sin));
  listen(lfd, 1024);
  socklen_t len = sizeof(sin);
  getsockname(lfd, reinterpret_cast<sockaddr*>(&sin), &len);
  CpuMeter cpu(state);
  for (auto _ : state) {
    for (int i = 0; i < kCyclesPerRound; ++i) {
      int cfd = raw_connect(sin);
      sockaddr_in peer{};
      socklen_t plen = sizeof(peer);
      int afd = accept4(lfd, reinterpret_cast<sockaddr*>(&peer), &plen, SOCK_CLOEXEC);
      set_int(afd, IPPROTO_TCP, TCP_NODELAY, 1);
      set_linger(afd, 10);
      close(cfd);
      close(afd);
    }
  }
  state.SetItemsProcessed(state.iterations() * kCyclesPerRound);
  close(lfd);
}

BENCHMARK(BM_Stream_Vek)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_Stream_Raw)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_Secure_Vek)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_Secure_RawEvp)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_ConnectCycle_Vek)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK(BM_ConnectCycle_Raw)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
