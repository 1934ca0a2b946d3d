// statsd publishing and syslog collecting against the plain system calls.
//
//   Publish/*:  4 threads send the same metric texts, ours through one shared
//               statsd publisher, the peer with a bare sendto loop on one
//               socket (address resolved once, no lock).
//   Collect/*:  a batch of datagrams waits in the receive queue while the
//               receiver is held; the time from release until the whole batch
//               was handed over. Ours is the syslog collector with a callback
//               that counts; the peer is a recvfrom loop that counts.
// Ratios ours/peer: Publish_Statsd / Publish_Sendto and
// Collect_Collector / Collect_Recvfrom.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include <vekutil/vekutil.h>

namespace {

sockaddr_in loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

// A bound UDP socket on loopback with a large receive queue.
int bound_socket(int* port) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  const int queue = 4 * 1024 * 1024;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &queue, sizeof queue);
  sockaddr_in addr = loopback(0);
  socklen_t size = sizeof addr;
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size);
  *port = ntohs(addr.sin_port);
  return fd;
}

// ---- publishing --------------------------------------------------------------

// The metric text of iteration i, as the publisher formats it.
int format_metric(char* text, size_t size, int i) {
  switch (i % 3) {
    case 0: return std::snprintf(text, size, "%s:%d|g", "bench.queue.depth", i);
    case 1: return std::snprintf(text, size, "%s:%d|ms", "bench.request.time", i & 1023);
    default: return std::snprintf(text, size, "%s:%d|c|@%0.2lf", "bench.requests", 1, 0.25);
  }
}

// The sink is never read: once its queue is full the kernel drops what
// arrives, the same for both contenders.
int g_sink_fd = -1, g_sink_port = 0;
void* g_publisher = nullptr;
int g_send_fd = -1;

void BM_Publish_Statsd(benchmark::State& state) {
  if (state.thread_index() == 0) {
    g_sink_fd = bound_socket(&g_sink_port);
    statsd_create(&g_publisher, ("127.0.0.1:" + std::to_string(g_sink_port)).c_str());
  }
  int i = state.thread_index();
  for (auto _ : state) {
    int rc;
    switch (i % 3) {
      case 0: rc = statsd_publish_gauge(g_publisher, "bench.queue.depth", i); break;
      case 1: rc = statsd_publish_timing(g_publisher, "bench.request.time", i & 1023); break;
      default: rc = statsd_publish_counter(g_publisher, "bench.requests", 1, 0.25f); break;
    }
    benchmark::DoNotOptimize(rc);
    ++i;
  }
  if (state.thread_index() == 0) {
    statsd_delete(g_publisher);
    close(g_sink_fd);
  }
}
BENCHMARK(BM_Publish_Statsd)->Threads(4)->UseRealTime()->MinTime(1.0);

void BM_Publish_Sendto(benchmark::State& state) {
  if (state.thread_index() == 0) {
    g_sink_fd = bound_socket(&g_sink_port);
    g_send_fd = socket(AF_INET, SOCK_DGRAM, 0);
  }
  const sockaddr_in to = loopback(g_sink_port);
  int i = state.thread_index();
  char text[256];
  for (auto _ : state) {
    const int n = format_metric(text, sizeof text, i++);
    benchmark::DoNotOptimize(sendto(g_send_fd, text, (size_t)n, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to));
  }
  if (state.thread_index() == 0) {
    close(g_send_fd);
    close(g_sink_fd);
  }
}
BENCHMARK(BM_Publish_Sendto)->Threads(4)->UseRealTime()->MinTime(1.0);

// ---- collecting --------------------------------------------------------------

constexpr int kBatch = 2000;

// Holds the receiver on the first datagram of a batch until released, then
// counts the rest.
struct Gate {
  std::mutex lock;
  std::condition_variable changed;
  bool holding = false;  // the receiver waits at the gate
  bool open = false;
  long counted = 0;

  void on_datagram() {
    std::unique_lock<std::mutex> guard(lock);
    if (!open) {
      holding = true;
      changed.notify_all();
      changed.wait(guard, [&] { return open; });
    }
    if (++counted == kBatch + 1) changed.notify_all();
  }
  // Closes the gate and has the receiver stopped at it by one datagram.
  void hold(int sender_fd, const sockaddr_in& to) {
    {
      std::lock_guard<std::mutex> guard(lock);
      open = holding = false;
      counted = 0;
    }
    sendto(sender_fd, "<13>hold\n", 9, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    std::unique_lock<std::mutex> guard(lock);
    changed.wait(guard, [&] { return holding; });
  }
  void release_and_wait() {
    std::unique_lock<std::mutex> guard(lock);
    open = true;
    changed.notify_all();
    changed.wait(guard, [&] { return counted == kBatch + 1; });
  }
};

// One iteration: queue a batch behind the held receiver, then time how long
// it takes to get through it.
void run_batches(benchmark::State& state, Gate& gate, int port) {
  const int sender = socket(AF_INET, SOCK_DGRAM, 0);
  const sockaddr_in to = loopback(port);
  char text[64];
  for (auto _ : state) {
    state.PauseTiming();
    gate.hold(sender, to);
    for (int i = 0; i < kBatch; ++i) {
      const int n = std::snprintf(text, sizeof text, "<14>Nov 23 10:00:00 host app[7]: message %d\n", i);
      sendto(sender, text, (size_t)n, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    }
    state.ResumeTiming();
    gate.release_and_wait();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
  close(sender);
}

void BM_Collect_Collector(benchmark::State& state) {
  Gate gate;
  void* collector = nullptr;
  syslog_collector_create(
      &collector, 0,
      [](int, int level, long long, const char*, const char* message, void* custom) {
        benchmark::DoNotOptimize(level);
        benchmark::DoNotOptimize(message);
        static_cast<Gate*>(custom)->on_datagram();
      },
      &gate);
  run_batches(state, gate, syslog_collector_port(collector));
  syslog_collector_delete(collector);
}
BENCHMARK(BM_Collect_Collector)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_Collect_Recvfrom(benchmark::State& state) {
  Gate gate;
  int port = 0;
  const int fd = bound_socket(&port);
  std::atomic<bool> stop{false};
  std::thread receiver([&] {
    char buffer[16384];
    while (!stop.load(std::memory_order_relaxed)) {
      sockaddr_in from{};
      socklen_t size = sizeof from;
      const ssize_t n = recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &size);
      if (n > 0) gate.on_datagram();
    }
  });
  run_batches(state, gate, port);
  stop = true;
  shutdown(fd, SHUT_RDWR);
  receiver.join();
  close(fd);
}
BENCHMARK(BM_Collect_Recvfrom)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
