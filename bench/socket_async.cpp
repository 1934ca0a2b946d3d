// Echo round trips per second with 10, 100 and 1000 clients on loopback:
// one asynchronous worker whose callbacks echo through the socket
// dispatchers, beside a plain single-threaded epoll echo loop. Both serve
// the same client driver: every client keeps one 64-byte message in flight.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vekutil/memory.h>
#include <vekutil/socket.async.h>
#include <vekutil/socket.h>

#include <cstdint>
#include <thread>
#include <vector>

namespace {

constexpr int kMessage = 64;
constexpr int kRoundTripsPerIteration = 20000;

int listen_raw(int* port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 1024) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    close(fd);
    return -1;
  }
  *port = ntohs(addr.sin_port);
  return fd;
}

int connect_raw(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons((uint16_t)port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// The clients, identical for both servers: each sends a message, waits for
// all of its echo, sends the next, until the iteration's budget is spent.
class Driver {
 public:
  explicit Driver(const std::vector<int>& fds) : fds_(fds), got_(fds.size(), 0) {
    poll_fd_ = epoll_create1(EPOLL_CLOEXEC);
    for (size_t i = 0; i < fds_.size(); ++i) {
      epoll_event ev{};
      ev.events = EPOLLIN;
      ev.data.u32 = (uint32_t)i;
      epoll_ctl(poll_fd_, EPOLL_CTL_ADD, fds_[i], &ev);
    }
  }
  ~Driver() { close(poll_fd_); }

  // Returns false if the server stopped answering.
  bool run(int round_trips) {
    char message[kMessage] = {};
    int sent = 0, done = 0, in_flight = 0;
    for (size_t i = 0; i < fds_.size() && sent < round_trips; ++i, ++sent, ++in_flight)
      send(fds_[i], message, kMessage, MSG_NOSIGNAL);
    std::vector<epoll_event> events(fds_.size());
    while (in_flight > 0) {
      int n = epoll_wait(poll_fd_, events.data(), (int)events.size(), 5000);
      if (n <= 0) return false;
      for (int k = 0; k < n; ++k) {
        size_t i = events[k].data.u32;
        char buf[4 * kMessage];
        ssize_t r = recv(fds_[i], buf, sizeof buf, 0);
        if (r <= 0) return false;
        got_[i] += (int)r;
        while (got_[i] >= kMessage) {
          got_[i] -= kMessage;
          ++done;
          --in_flight;
          if (sent < round_trips) {
            send(fds_[i], message, kMessage, MSG_NOSIGNAL);
            ++sent;
            ++in_flight;
          }
        }
      }
    }
    return done == round_trips;
  }

 private:
  std::vector<int> fds_;
  std::vector<int> got_;
  int poll_fd_;
};

void run_driver(benchmark::State& state, const std::vector<int>& clients) {
  Driver driver(clients);
  for (auto _ : state) {
    if (!driver.run(kRoundTripsPerIteration)) {
      state.SkipWithError("the echo server stopped answering");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kRoundTripsPerIteration);
}

// ---- ours: one worker, echo in the callback -------------------------------

int echo_callback(int status, void* socket, void*) {
  if (status != 0) return SOCKET_ASYNC_DESTROY;
  char buf[2048];
  int len = sizeof buf;
  if (socket_recv2(socket, buf, &len, 0) != 0) return SOCKET_ASYNC_DESTROY;
  return socket_send2(socket, buf, len, 0) == 0 ? SOCKET_ASYNC_KEEP : SOCKET_ASYNC_DESTROY;
}

void BM_Echo_AsyncWorker(benchmark::State& state) {
  const int clients = (int)state.range(0);
  void* server = nullptr;
  void* worker = nullptr;
  if (socket_listen(&server, "127.0.0.1:0") != 0 || socket_async_worker_create(&worker, "bench", 1024, 0, 100) != 0) {
    state.SkipWithError("no listener or worker");
    return;
  }
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  getsockname(socket_descriptor(server), reinterpret_cast<sockaddr*>(&addr), &len);
  std::vector<int> fds;
  for (int i = 0; i < clients; ++i) {
    fds.push_back(connect_raw(ntohs(addr.sin_port)));
    void* accepted = socket_accept(server, 5000);
    if (fds.back() < 0 || !accepted || socket_async_worker_add_recv(worker, accepted, 0, echo_callback, nullptr) != 0) {
      state.SkipWithError("could not connect a client");
      break;
    }
  }
  run_driver(state, fds);
  for (int fd : fds) close(fd);        // each callback sees the end and destroys its socket
  socket_async_worker_delete(worker);  // whatever is left gets the deletion call
  socket_unlisten(server);
}

// ---- the peer: a plain epoll echo loop on one thread ----------------------

void epoll_echo_loop(int poll_fd, int stop_fd) {
  std::vector<epoll_event> events(1024);
  for (;;) {
    int n = epoll_wait(poll_fd, events.data(), (int)events.size(), 100);
    for (int k = 0; k < n; ++k) {
      int fd = events[k].data.fd;
      if (fd == stop_fd) return;
      char buf[2048];
      ssize_t r = recv(fd, buf, sizeof buf, 0);
      if (r > 0) {
        send(fd, buf, (size_t)r, MSG_NOSIGNAL);
      } else {
        epoll_ctl(poll_fd, EPOLL_CTL_DEL, fd, nullptr);
        close(fd);
      }
    }
  }
}

void BM_Echo_PlainEpoll(benchmark::State& state) {
  const int clients = (int)state.range(0);
  int port = 0;
  int listener = listen_raw(&port);
  int poll_fd = epoll_create1(EPOLL_CLOEXEC);
  int stop_fd = eventfd(0, EFD_CLOEXEC);
  auto watch = [poll_fd](int fd) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(poll_fd, EPOLL_CTL_ADD, fd, &ev);
  };
  watch(stop_fd);
  std::vector<int> fds, accepted;
  for (int i = 0; i < clients; ++i) {
    fds.push_back(connect_raw(port));
    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    accepted.push_back(fd);
    watch(fd);
  }
  std::thread server(epoll_echo_loop, poll_fd, stop_fd);
  run_driver(state, fds);
  uint64_t one = 1;
  if (write(stop_fd, &one, sizeof one) < 0) state.SkipWithError("could not stop the loop");
  server.join();
  for (int fd : fds) close(fd);
  for (int fd : accepted) close(fd);
  close(stop_fd);
  close(poll_fd);
  close(listener);
}

// Ours and the peer alternate per size, so that a change in the machine's
// load hits both sides of a ratio alike.
#define ECHO_BENCH(fn, clients) \
  BENCHMARK(fn)->Arg(clients)->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond)
ECHO_BENCH(BM_Echo_AsyncWorker, 10);
ECHO_BENCH(BM_Echo_PlainEpoll, 10);
ECHO_BENCH(BM_Echo_AsyncWorker, 100);
ECHO_BENCH(BM_Echo_PlainEpoll, 100);
ECHO_BENCH(BM_Echo_AsyncWorker, 1000);
ECHO_BENCH(BM_Echo_PlainEpoll, 1000);

}  // namespace

BENCHMARK_MAIN();
