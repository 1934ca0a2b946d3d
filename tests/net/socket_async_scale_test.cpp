// Asynchronous socket handler under load and under concurrent use: a
// thousand clients on one worker, registrations changed by other threads and
// by callbacks while the worker dispatches, deletion while sockets are busy.
// ctest-labels: tsan
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <vekutil/errors.h>
#include <vekutil/instrument.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>

#include "async_support.hpp"

namespace {

using namespace asynctest;
using namespace std::chrono_literals;

// The test process holds both ends of every connection.
bool ensure_descriptors(rlim_t wanted) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  if (limit.rlim_cur >= wanted) return true;
  if (limit.rlim_max < wanted) return false;
  limit.rlim_cur = wanted;
  return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

// Server side of one connection, touched only by the worker thread until
// the worker is deleted.
struct Conn {
  int ready_calls = 0;
  int empty_reads = 0;
  int eof_calls = 0;
  int other_calls = 0;
  long long echoed = 0;
};

struct EchoFarm {
  void* worker = nullptr;
  std::vector<std::unique_ptr<Conn>> conns;
  int accept_failures = 0;
  int deleted_calls = 0;

  EchoFarm() = default;
  EchoFarm(const EchoFarm&) = delete;
  EchoFarm& operator=(const EchoFarm&) = delete;
  ~EchoFarm() { stop(); }
  void stop() {
    if (worker) socket_async_worker_delete(worker);
    worker = nullptr;
  }

  static int on_data(int status, void* socket, void* custom) {
    auto* conn = static_cast<Conn*>(custom);
    if (status != 0) {
      ++conn->other_calls;
      return SOCKET_ASYNC_DESTROY;
    }
    ++conn->ready_calls;
    char buf[2048];
    ssize_t n = recv(socket_descriptor(socket), buf, sizeof buf, MSG_DONTWAIT);
    if (n == 0) {
      ++conn->eof_calls;
      return SOCKET_ASYNC_DESTROY;
    }
    if (n < 0) {
      ++conn->empty_reads;
      return SOCKET_ASYNC_KEEP;
    }
    conn->echoed += n;
    return socket_send2(socket, buf, (int)n, 0) == 0 ? SOCKET_ASYNC_KEEP : SOCKET_ASYNC_DESTROY;
  }

  // Accepts one client per call and registers it with the same worker from
  // inside the callback.
  static int on_listener(int status, void* server, void* custom) {
    auto* farm = static_cast<EchoFarm*>(custom);
    if (status != 0) {
      ++farm->deleted_calls;
      return SOCKET_ASYNC_DESTROY;
    }
    void* client = socket_accept(server, 0);
    if (!client) {
      ++farm->accept_failures;
      return SOCKET_ASYNC_KEEP;
    }
    farm->conns.push_back(std::make_unique<Conn>());
    if (socket_async_worker_add_recv(farm->worker, client, 0, on_data, farm->conns.back().get()) != 0) {
      ++farm->accept_failures;
      socket_delete(client);
    }
    return SOCKET_ASYNC_KEEP;
  }
};

std::string numbered(int client, int message) {
  char text[32];
  std::snprintf(text, sizeof text, "c%04d m%03d\n", client, message);
  return text;
}

// Every client sends its numbered messages one at a time, checks that each
// echo is exactly the message it sent, and closes after the last one.
// Returns the number of clients that saw every echo in order.
int drive_clients(const std::vector<int>& fds, int messages, std::string* problem) {
  int poll_fd = epoll_create1(EPOLL_CLOEXEC);
  std::vector<int> next(fds.size(), 0);
  std::vector<std::string> pending(fds.size());
  for (size_t i = 0; i < fds.size(); ++i) {
    fcntl(fds[i], F_SETFL, fcntl(fds[i], F_GETFL) | O_NONBLOCK);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u32 = (uint32_t)i;
    epoll_ctl(poll_fd, EPOLL_CTL_ADD, fds[i], &ev);
    send_all(fds[i], numbered((int)i, 0));
  }
  int finished = 0;
  int idle_waits = 0;
  std::vector<epoll_event> events(256);
  while (finished < (int)fds.size() && idle_waits < 30) {
    int n = epoll_wait(poll_fd, events.data(), (int)events.size(), 1000);
    idle_waits = n > 0 ? 0 : idle_waits + 1;
    for (int k = 0; k < n; ++k) {
      size_t i = events[k].data.u32;
      char buf[256];
      ssize_t got = recv(fds[i], buf, sizeof buf, 0);
      if (got <= 0) {
        *problem = "client " + std::to_string(i) + " lost its connection";
        epoll_ctl(poll_fd, EPOLL_CTL_DEL, fds[i], nullptr);
        continue;
      }
      pending[i].append(buf, (size_t)got);
      std::string expected = numbered((int)i, next[i]);
      while (pending[i].size() >= expected.size()) {
        if (pending[i].compare(0, expected.size(), expected) != 0) {
          *problem = "client " + std::to_string(i) + " got " + pending[i] + " instead of " + expected;
          pending[i].clear();
          break;
        }
        pending[i].erase(0, expected.size());
        if (++next[i] == messages) {
          ++finished;
          epoll_ctl(poll_fd, EPOLL_CTL_DEL, fds[i], nullptr);
          break;
        }
        send_all(fds[i], numbered((int)i, next[i]));
        expected = numbered((int)i, next[i]);
      }
    }
  }
  close(poll_fd);
  return problem->empty() ? finished : -1;
}

TEST_F(AsyncTest, ThousandClientsOnOneWorkerGetEveryMessageOnceInOrder) {
  const int clients = 1000;
  const int messages = kSanitized ? 10 : 100;
  if (!ensure_descriptors(2 * clients + 64)) GTEST_SKIP() << "descriptor limit too low";

  EchoFarm farm;
  Listener listener;
  void* server = listener.take();  // the worker unlistens it on deletion
  ASSERT_EQ(0, socket_async_worker_create(&farm.worker, "echo farm", 1024, 0, 100));
  ASSERT_EQ(0, socket_async_worker_add_accept(farm.worker, server, 0, EchoFarm::on_listener, &farm));

  std::vector<int> fds;
  for (int i = 0; i < clients; ++i) {
    int fd = connect_raw(listener.port());
    ASSERT_GE(fd, 0) << "client " << i;
    fds.push_back(fd);
  }
  std::string problem;
  int finished = drive_clients(fds, messages, &problem);
  for (int fd : fds) close(fd);
  EXPECT_EQ(clients, finished) << problem;

  // Wait until the worker saw every end of stream (the conns vector only
  // grows on the worker thread, so count through the socket registry).
  for (int i = 0; i < kPatienceMs / 10 && instrument_count(socket_instrument_handle()) > 0; ++i)
    std::this_thread::sleep_for(10ms);
  EXPECT_EQ(0, instrument_count(socket_instrument_handle())) << "sockets still open";
  farm.stop();

  EXPECT_EQ(1, farm.deleted_calls) << "only the listener was left";
  EXPECT_EQ(0, farm.accept_failures);
  ASSERT_EQ((size_t)clients, farm.conns.size());
  const long long bytes_each = (long long)numbered(0, 0).size() * messages;
  int faulty = 0;
  for (const auto& conn : farm.conns) {
    bool right = conn->eof_calls == 1 && conn->empty_reads == 0 && conn->other_calls == 0 &&
                 conn->echoed == bytes_each && conn->ready_calls <= messages + 1;
    faulty += !right;
  }
  EXPECT_EQ(0, faulty) << "connections with a lost, repeated or stray callback";
}

// Per-socket record for the concurrency tests.
struct Watched {
  Pair pair;
  std::atomic<bool> owner_registered{false};  // set before add, cleared after remove returned
  std::atomic<int> calls{0};
  std::atomic<int> calls_while_unregistered{0};
  std::atomic<int> empty_reads{0};
  std::atomic<long long> received{0};
  std::atomic<int> deleted_calls{0};
  void* worker = nullptr;
  Watched* next = nullptr;  // ring neighbour for the in-callback test

  // Drains what is waiting; false if nothing was.
  bool drain(void* socket) {
    char buf[512];
    ssize_t n = recv(socket_descriptor(socket), buf, sizeof buf, MSG_DONTWAIT);
    if (n > 0) received += n;
    if (n < 0) ++empty_reads;
    return n > 0;
  }
};

int pausing_callback(int status, void* socket, void* custom) {
  auto* w = static_cast<Watched*>(custom);
  if (status == ERR_ASYNC_WORKER_DELETED) {
    ++w->deleted_calls;
    return SOCKET_ASYNC_KEEP;
  }
  if (!w->owner_registered) ++w->calls_while_unregistered;
  int n = ++w->calls;
  w->drain(socket);
  return n % 2 ? SOCKET_ASYNC_PAUSE : SOCKET_ASYNC_KEEP;
}

TEST_F(AsyncTest, OtherThreadsAddRemoveAndResumeWhileTheWorkerDispatches) {
  const int threads = 4, per_thread = 4;
  const int rounds = kSanitized ? 60 : 300;
  Listener listener;
  std::vector<std::unique_ptr<Watched>> socks;
  for (int i = 0; i < threads * per_thread; ++i) {
    socks.push_back(std::make_unique<Watched>());
    ASSERT_TRUE(socks.back()->pair.open(listener));
  }
  Worker worker(64, 20);
  std::atomic<int> wrong_results{0};
  auto expect = [&](int expected, int got) {
    if (expected != got) ++wrong_results;
  };

  std::vector<std::thread> owners;
  for (int t = 0; t < threads; ++t) {
    owners.emplace_back([&, t] {
      for (int r = 0; r < rounds; ++r) {
        Watched& w = *socks[(size_t)(t * per_thread + r % per_thread)];
        w.owner_registered = true;
        expect(0, socket_async_worker_add_recv(worker.get(), w.pair.server_end, 0, pausing_callback, &w));
        send_all(w.pair.client, "x");
        expect(0, socket_async_worker_resume_recv(worker.get(), w.pair.server_end));
        if (r % 3) std::this_thread::yield();
        expect(0, socket_async_worker_remove_recv(worker.get(), w.pair.server_end));
        w.owner_registered = false;
        expect(ERR_ASYNC_NOT_ADDED, socket_async_worker_resume_recv(worker.get(), w.pair.server_end));
      }
    });
  }
  for (auto& t : owners) t.join();
  worker.destroy();

  EXPECT_EQ(0, wrong_results.load());
  int calls = 0;
  for (const auto& w : socks) {
    EXPECT_EQ(0, w->calls_while_unregistered.load()) << "a callback ran after its removal returned";
    EXPECT_EQ(0, w->empty_reads.load()) << "a stale readiness report reached a callback";
    EXPECT_EQ(0, w->deleted_calls.load());
    calls += w->calls;
  }
  EXPECT_GT(calls, 0);
}

// Each callback resumes its ring neighbour, and in turn unregisters and
// re-registers itself or its neighbour, all from inside the dispatch pass.
int ring_callback(int status, void* socket, void* custom) {
  auto* w = static_cast<Watched*>(custom);
  if (status == ERR_ASYNC_WORKER_DELETED) {
    ++w->deleted_calls;
    return SOCKET_ASYNC_KEEP;
  }
  w->drain(socket);
  int n = ++w->calls;
  socket_async_worker_resume_recv(w->worker, w->next->pair.server_end);
  switch (n % 3) {
    case 0:  // leaves and comes back; the return value no longer applies
      if (socket_async_worker_remove_recv(w->worker, socket) != 0 ||
          socket_async_worker_add_recv(w->worker, socket, 0, ring_callback, w) != 0)
        ++w->calls_while_unregistered;
      return 12345;
    case 1:  // moves the neighbour to the end of the slot list
      if (socket_async_worker_remove_recv(w->worker, w->next->pair.server_end) != 0 ||
          socket_async_worker_add_recv(w->worker, w->next->pair.server_end, 0, ring_callback, w->next) != 0)
        ++w->calls_while_unregistered;
      return SOCKET_ASYNC_KEEP;
    default:
      return SOCKET_ASYNC_PAUSE;
  }
}

TEST_F(AsyncTest, CallbacksChangeRegistrationsFromInsideTheirPass) {
  const int ring = 8;
  const int rounds = kSanitized ? 40 : 200;
  vektest::LogCapture log;
  Listener listener;
  std::vector<std::unique_ptr<Watched>> socks;
  for (int i = 0; i < ring; ++i) {
    socks.push_back(std::make_unique<Watched>());
    ASSERT_TRUE(socks.back()->pair.open(listener));
  }
  Worker worker(ring + 1, 20);
  for (int i = 0; i < ring; ++i) {
    socks[(size_t)i]->worker = worker.get();
    socks[(size_t)i]->next = socks[(size_t)((i + 1) % ring)].get();
  }
  for (auto& w : socks)
    ASSERT_EQ(0, socket_async_worker_add_recv(worker.get(), w->pair.server_end, 0, ring_callback, w.get()));

  long long sent = 0;
  for (int r = 0; r < rounds; ++r) {
    // A socket that paused after its last data is woken by the next data's
    // neighbour, or here when every socket paused at once.
    for (auto& w : socks) socket_async_worker_resume_recv(worker.get(), w->pair.server_end);
    for (auto& w : socks) send_all(w->pair.client, "ab");
    sent += 2 * ring;
    long long got = 0;
    for (int i = 0; i < kPatienceMs; ++i) {
      got = 0;
      for (auto& w : socks) got += w->received;
      if (got == sent) break;
      std::this_thread::sleep_for(1ms);
    }
    ASSERT_EQ(sent, got) << "round " << r;
  }
  worker.destroy();

  for (const auto& w : socks) {
    EXPECT_EQ(0, w->calls_while_unregistered.load()) << "a registration change from inside failed";
    EXPECT_EQ(0, w->empty_reads.load());
    EXPECT_EQ(1, w->deleted_calls.load());
    EXPECT_EQ(nullptr, registered_entry(w->pair.server_end));
  }
  EXPECT_FALSE(log.contains("Invalid return code")) << "return value of a removed socket was applied";
}

int busy_callback(int status, void* socket, void* custom) {
  auto* w = static_cast<Watched*>(custom);
  if (status == ERR_ASYNC_WORKER_DELETED) {
    ++w->deleted_calls;
    // Half of the owners let the worker destroy their socket.
    return (w->pair.client & 1) ? SOCKET_ASYNC_DESTROY : SOCKET_ASYNC_END;
  }
  ++w->calls;
  w->drain(socket);
  return SOCKET_ASYNC_KEEP;
}

TEST_F(AsyncTest, DeletingAWorkerWhileItsSocketsAreBusy) {
  const int count = 16;
  Listener listener;
  std::vector<std::unique_ptr<Watched>> socks;
  for (int i = 0; i < count; ++i) {
    socks.push_back(std::make_unique<Watched>());
    ASSERT_TRUE(socks.back()->pair.open(listener));
    fcntl(socks.back()->pair.client, F_SETFL, O_NONBLOCK);
  }
  Worker worker(count + 1, 1000);
  for (auto& w : socks) {
    ASSERT_EQ(0, socket_async_worker_add_recv(worker.get(), w->pair.server_end, 0, busy_callback, w.get()));
  }
  std::atomic<bool> stop{false};
  std::thread flood([&] {
    std::string chunk(256, 'z');
    while (!stop)
      for (auto& w : socks) (void)send(w->pair.client, chunk.data(), chunk.size(), MSG_NOSIGNAL);
  });
  std::this_thread::sleep_for(100ms);
  worker.destroy();
  std::vector<int> calls_after_delete;
  for (auto& w : socks) calls_after_delete.push_back(w->calls);
  std::this_thread::sleep_for(50ms);
  stop = true;
  flood.join();

  for (size_t i = 0; i < socks.size(); ++i) {
    Watched& w = *socks[i];
    EXPECT_EQ(1, w.deleted_calls.load());
    EXPECT_EQ(calls_after_delete[i], w.calls.load()) << "called after deletion";
    EXPECT_EQ(0, w.empty_reads.load());
    EXPECT_GT(w.calls.load(), 0);
    if (w.pair.client & 1) w.pair.server_end = nullptr;  // destroyed by the worker
  }
}

}  // namespace
