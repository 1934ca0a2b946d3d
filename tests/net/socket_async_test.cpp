// Asynchronous socket handler: its calls, callback results and statuses,
// deletion, scale, and registrations changed while a worker dispatches.
// ctest-labels: tsan
#include <fcntl.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cstdio>
#include <future>
#include <memory>
#include <mutex>

#include "net_test_util.hpp"
#include "vek_test.hpp"

namespace {

using namespace std::chrono_literals;

using nettest::kSanitized;
using nettest::Listener;
using nettest::raw_connect;
using nettest::write_all;
constexpr int kPatienceMs = 10000;  // only a failing test waits this long

template <class Done>
bool eventually(Done done, int ms = kPatienceMs) {
  for (int waited = 0; !done(); waited += 2) {
    if (waited >= ms) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

// True when the peer closed (or reset) the connection within the patience.
bool sees_close(int fd) {
  timeval tv{kPatienceMs / 1000, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  char c;
  return recv(fd, &c, 1, 0) <= 0 && errno != EAGAIN;
}

// A raw client and the library socket that accepted it.
struct Pair {
  int client;
  void* end = nullptr;
  explicit Pair(const Listener& listener) : client(raw_connect(listener.port())) {
    if (client >= 0) end = socket_accept(listener.get(), kPatienceMs);
  }
  ~Pair() {
    if (client >= 0) close(client);
    if (end) socket_delete(end);
  }
  bool ok() const { return client >= 0 && end; }
};

void* entry_of(void* socket) {
  return __atomic_load_n(&static_cast<ABSTRACT_SOCKET*>(socket)->async_handle, __ATOMIC_ACQUIRE);
}

// Records what a worker hands to one socket's callback and answers with
// reply (on_deletion in the deletion call; DESTROY at the end of the stream).
// A ready call in receive mode drains what waits without blocking, so a call
// that finds nothing to read counts as stray.
struct Probe {
  std::atomic<int> reply{SOCKET_ASYNC_KEEP};
  int on_deletion = SOCKET_ASYNC_KEEP;
  std::atomic<int> calls{0}, stray{0}, eofs{0}, deleted{0};
  std::atomic<long long> bytes{0};
  std::atomic<bool> registered{true};  // cleared by owners while they hold the socket unregistered
  std::atomic<int> while_unregistered{0};
  bool accept_mode = false;
  bool echo = false;  // sends back what it read
  std::mutex m;
  std::vector<int> statuses;

  // True when the call found the end of the stream.
  bool record(int status, void* socket) {
    {
      std::lock_guard<std::mutex> lock(m);
      statuses.push_back(status);
    }
    if (status == ERR_ASYNC_WORKER_DELETED) ++deleted;
    if (!registered) ++while_unregistered;
    if (status == 0 && !accept_mode) {
      char buf[2048];
      ssize_t n = recv(socket_descriptor(socket), buf, sizeof buf, MSG_DONTWAIT);
      if (n > 0) bytes += n;
      if (n > 0 && echo) socket_send2(socket, buf, (int)n, 0);
      if (n < 0) ++stray;
      if (n == 0) ++eofs;
      ++calls;
      return n == 0;
    }
    ++calls;
    return false;
  }
  std::vector<int> seen() {
    std::lock_guard<std::mutex> lock(m);
    return statuses;
  }
  static int callback(int status, void* socket, void* custom) {
    auto* probe = static_cast<Probe*>(custom);
    if (probe->record(status, socket)) return SOCKET_ASYNC_DESTROY;
    return status == ERR_ASYNC_WORKER_DELETED ? probe->on_deletion : probe->reply.load();
  }
};

struct Worker {
  void* handle = nullptr;
  int created;
  explicit Worker(int max_socket = 64, int timeout = 100)
      : created(socket_async_worker_create(&handle, "test worker", max_socket, 0, timeout)) {}
  ~Worker() { stop(); }
  void stop() {
    if (handle) socket_async_worker_delete(handle);
    handle = nullptr;
  }
  int add(void* socket, Probe& probe, int timeout = 0) {
    return socket_async_worker_add_recv(handle, socket, timeout, Probe::callback, &probe);
  }
};

class AsyncTest : public vektest::LeakCheckedTest {};

TEST_F(AsyncTest, RefusedCallsAndCapacity) {
  void* handle = nullptr;
  EXPECT_EQ(ERR_INVALID_PARAMETER, socket_async_worker_create(nullptr, "w", 4, 0, 100));
  EXPECT_EQ(ERR_INVALID_PARAMETER, socket_async_worker_create(&handle, "w", 0, 0, 100));
  socket_async_worker_delete(nullptr);
  Listener listener;
  Pair pair(listener), other(listener);
  ASSERT_TRUE(pair.ok() && other.ok());
  void* unopened = nullptr;
  ASSERT_EQ(0, socket_create(&unopened));
  Probe probe;
  Worker w(2), none(1);
  ASSERT_EQ(0, w.add(pair.end, probe));
  auto cb = Probe::callback;
  struct {
    const char* what;
    int expected, got;
  } cases[] = {
      {"no worker", ERR_INVALID_PARAMETER, socket_async_worker_add_recv(nullptr, other.end, 0, cb, nullptr)},
      {"no socket", ERR_INVALID_PARAMETER, socket_async_worker_add_recv(w.handle, nullptr, 0, cb, nullptr)},
      {"no callback", ERR_INVALID_PARAMETER, socket_async_worker_add_recv(w.handle, other.end, 0, nullptr, nullptr)},
      {"twice", ERR_ASYNC_ALREADY_ADDED, w.add(pair.end, probe)},
      {"twice, other mode", ERR_ASYNC_ALREADY_ADDED,
       socket_async_worker_add_accept(w.handle, pair.end, 0, cb, nullptr)},
      {"no descriptor", ERR_SOCKET_NOT_OPEN, w.add(unopened, probe)},
      {"full (max_socket 2)", ERR_ASYNC_FULL, w.add(other.end, probe)},
      {"full (max_socket 1)", ERR_ASYNC_FULL, none.add(other.end, probe)},
      {"remove, no worker", ERR_INVALID_PARAMETER, socket_async_worker_remove_recv(nullptr, pair.end)},
      {"remove, no socket", ERR_INVALID_PARAMETER, socket_async_worker_remove_recv(w.handle, nullptr)},
      {"remove unregistered", ERR_ASYNC_NOT_ADDED, socket_async_worker_remove_recv(w.handle, other.end)},
      {"remove, other worker", ERR_ASYNC_NOT_ADDED, socket_async_worker_remove_recv(none.handle, pair.end)},
      {"remove, wrong mode", ERR_ASYNC_BAD_MODE, socket_async_worker_remove_accept(w.handle, pair.end)},
      {"resume, no socket", ERR_INVALID_PARAMETER, socket_async_worker_resume_recv(w.handle, nullptr)},
      {"resume unregistered", ERR_ASYNC_NOT_ADDED, socket_async_worker_resume_recv(w.handle, other.end)},
      {"resume, wrong mode", ERR_ASYNC_BAD_MODE, socket_async_worker_resume_accept(w.handle, pair.end)},
      {"resume while armed", 0, socket_async_worker_resume_recv(w.handle, pair.end)},
      {"no default acceptor", ERR_INVALID_PARAMETER, socket_async_accept_begin(listener.get(), 0, cb, nullptr)},
      {"no default receiver", ERR_INVALID_PARAMETER, socket_async_recv_begin(other.end, 0, cb, nullptr)},
      {"no default to leave", ERR_INVALID_PARAMETER, socket_async_recv_end(pair.end)},
  };
  for (const auto& c : cases) EXPECT_EQ(c.expected, c.got) << c.what;
  EXPECT_EQ(nullptr, entry_of(other.end));
  EXPECT_EQ(0, socket_async_worker_remove_recv(w.handle, pair.end));
  EXPECT_EQ(nullptr, entry_of(pair.end));
  EXPECT_EQ(0, w.add(other.end, probe)) << "a freed slot is reused";
  socket_delete(unopened);
}

// Each return value, seen over two messages: the first call answers with it,
// the second message shows whether the socket is still watched.
TEST_F(AsyncTest, ReturnValuesDecideWhatHappensToTheSocket) {
  struct {
    int reply;
    bool registered, destroyed, called_again, called_after_resume;
  } cases[] = {
      {SOCKET_ASYNC_KEEP, true, false, true, true},
      {SOCKET_ASYNC_PAUSE, true, false, false, true},
      {5, true, false, false, true},
      {-4, true, false, false, true},
      {SOCKET_ASYNC_END, false, false, false, false},
      {SOCKET_ASYNC_DESTROY, false, true, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply);
    vektest::LogCapture log;
    Listener listener;
    Pair pair(listener);
    ASSERT_TRUE(pair.ok());
    Probe probe;
    probe.reply = c.reply;
    Worker w;
    ASSERT_EQ(0, w.add(pair.end, probe));
    ASSERT_TRUE(write_all(pair.client, "one"));
    ASSERT_TRUE(eventually([&] { return probe.calls == 1; }));
    ASSERT_TRUE(write_all(pair.client, "two"));
    EXPECT_EQ(c.called_again, eventually([&] { return probe.calls == 2; }, c.called_again ? kPatienceMs : 300));
    if (c.destroyed) {
      pair.end = nullptr;
      EXPECT_TRUE(sees_close(pair.client));
    } else {
      EXPECT_EQ(c.registered, entry_of(pair.end) != nullptr);
      EXPECT_EQ(c.registered ? 0 : ERR_ASYNC_NOT_ADDED, socket_async_worker_resume_recv(w.handle, pair.end));
    }
    EXPECT_EQ(c.called_after_resume,
              eventually([&] { return probe.calls == 2; }, c.called_after_resume ? kPatienceMs : 0));
    w.stop();
    EXPECT_EQ(0, probe.stray.load());
    bool invalid = c.reply > 0 || c.reply < SOCKET_ASYNC_DESTROY;
    std::string line = "_socket_async_handler(): Invalid return code[" + std::to_string(c.reply) + "]\n";
    EXPECT_EQ(invalid, log.contains(line)) << log.text();
  }
}

TEST_F(AsyncTest, StatusesForDataErrorsAndIdleSockets) {
  Listener listener;
  Pair idle(listener), busy(listener), urgent(listener);
  ASSERT_TRUE(idle.ok() && busy.ok() && urgent.ok());
  Probe idle_probe, busy_probe, urgent_probe;
  urgent_probe.reply = SOCKET_ASYNC_END;
  Worker w(8, 50);
  ASSERT_EQ(0, w.add(idle.end, idle_probe, 200));
  ASSERT_EQ(0, w.add(busy.end, busy_probe));
  ASSERT_EQ(0, w.add(urgent.end, urgent_probe));

  std::this_thread::sleep_for(600ms);
  EXPECT_EQ(0, idle_probe.calls.load()) << "idleness is only noticed in a pass with activity";
  ASSERT_TRUE(write_all(busy.client, "wake"));
  ASSERT_TRUE(eventually([&] { return idle_probe.calls == 1 && busy_probe.calls == 1; }));
  EXPECT_EQ(std::vector<int>{ERR_SOCKET_TIMEOUT}, idle_probe.seen());
  EXPECT_EQ(std::vector<int>{0}, busy_probe.seen());

  // The limit stays passed, even when data arrives; a kept idle socket does
  // not hold up the ready socket behind it.
  ASSERT_TRUE(write_all(idle.client, "late") && write_all(busy.client, "more"));
  ASSERT_TRUE(eventually([&] { return idle_probe.calls >= 2 && busy_probe.bytes == 8; }));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, idle_probe.seen()[1]);

  ASSERT_EQ(1, send(urgent.client, "!", 1, MSG_OOB));
  ASSERT_TRUE(eventually([&] { return urgent_probe.calls == 1; }));
  EXPECT_EQ(std::vector<int>{ERR_SOCKET_FAILED}, urgent_probe.seen());
}

// Three sockets become ready in one pass; the first ends its registration,
// so the last moves into its slot and is served right after it.
TEST_F(AsyncTest, OnePassServesEveryReadySocketOnceInSlotOrder) {
  Listener listener;
  Pair gate(listener), a(listener), b(listener), c(listener);
  ASSERT_TRUE(gate.ok() && a.ok() && b.ok() && c.ok());
  static std::mutex order_mutex;
  static std::string order;
  static std::promise<void> gate_entered, release;
  order.clear();
  gate_entered = {};
  release = {};
  auto callback = [](int status, void* socket, void* tag) {
    char buf[64];
    if (status != 0 || recv(socket_descriptor(socket), buf, sizeof buf, MSG_DONTWAIT) <= 0) return SOCKET_ASYNC_END;
    char name = *static_cast<const char*>(tag);
    if (name == 'g') {
      gate_entered.set_value();
      release.get_future().wait();  // holds the worker while the others get their data
      return SOCKET_ASYNC_KEEP;
    }
    std::lock_guard<std::mutex> lock(order_mutex);
    order += name;
    return name == 'a' ? SOCKET_ASYNC_END : SOCKET_ASYNC_KEEP;
  };
  Worker w;
  for (auto [pair, tag] : {std::pair{&gate, "g"}, std::pair{&a, "a"}, std::pair{&b, "b"}, std::pair{&c, "c"}})
    ASSERT_EQ(0, socket_async_worker_add_recv(w.handle, pair->end, 0, callback, const_cast<char*>(tag)));
  ASSERT_TRUE(write_all(gate.client, "g"));
  gate_entered.get_future().wait();
  for (Pair* p : {&a, &b, &c}) ASSERT_TRUE(write_all(p->client, "x"));
  release.set_value();
  auto served = [&] {
    std::lock_guard<std::mutex> lock(order_mutex);
    return order.size() == 3;
  };
  ASSERT_TRUE(eventually(served));
  std::lock_guard<std::mutex> lock(order_mutex);
  EXPECT_EQ("acb", order);
}

// The echo server of the default workers: the acceptor takes clients and
// registers them with the receiver from inside its callback.
int echo(int status, void* socket, void*) {
  if (status != 0) return SOCKET_ASYNC_DESTROY;
  char buf[512];
  int len = sizeof buf;
  if (socket_recv2(socket, buf, &len, 0) != 0) return SOCKET_ASYNC_DESTROY;
  return socket_send2(socket, buf, len, 0) == 0 ? SOCKET_ASYNC_KEEP : SOCKET_ASYNC_DESTROY;
}

int accept_one(int status, void* server, void* accepted) {
  if (status != 0) return SOCKET_ASYNC_END;
  ++*static_cast<std::atomic<int>*>(accepted);  // before the client can see its echo
  void* client = socket_accept(server, 0);
  if (client && socket_async_recv_begin(client, 0, echo, nullptr) != 0) socket_delete(client);
  return SOCKET_ASYNC_KEEP;
}

TEST_F(AsyncTest, DefaultWorkersAcceptAndEcho) {
  ASSERT_EQ(0, socket_async_default_init(16, 0, 100));
  void* acceptor = g_socket_async_default_acceptor;
  ASSERT_TRUE(acceptor && g_socket_async_default_receiver);
  EXPECT_EQ(0, socket_async_default_init(16, 0, 100));
  EXPECT_EQ(acceptor, g_socket_async_default_acceptor) << "existing default workers are kept";

  Listener listener;
  std::atomic<int> accepted{0};
  ASSERT_EQ(0, socket_async_accept_begin(listener.get(), 0, accept_one, &accepted));
  EXPECT_EQ(0, socket_async_accept_resume(listener.get()));
  int first = raw_connect(listener.port()), second = raw_connect(listener.port());
  ASSERT_TRUE(write_all(first, "hello") && write_all(second, "world"));
  char reply[11] = {};
  EXPECT_EQ(5, recv(first, reply, 5, MSG_WAITALL));
  EXPECT_EQ(5, recv(second, reply + 5, 5, MSG_WAITALL));
  EXPECT_STREQ("helloworld", reply);
  EXPECT_EQ(2, accepted.load());
  close(first);  // its callback sees the end of the stream and destroys it
  EXPECT_EQ(0, socket_async_accept_end(listener.get()));
  EXPECT_EQ(ERR_ASYNC_NOT_ADDED, socket_async_accept_end(listener.get()));

  EXPECT_EQ(0, socket_async_default_uninit());  // the second client is destroyed in its deletion call
  EXPECT_TRUE(!g_socket_async_default_acceptor && !g_socket_async_default_receiver);
  EXPECT_TRUE(sees_close(second));
  close(second);
}

TEST_F(AsyncTest, DeletionHandsEverySocketBackOnce) {
  Listener listener;
  Pair armed(listener), paused(listener), kept(listener);
  ASSERT_TRUE(armed.ok() && paused.ok() && kept.ok());
  Probe armed_probe, paused_probe, kept_probe, listener_probe;
  armed_probe.on_deletion = SOCKET_ASYNC_DESTROY;  // honoured
  paused_probe.reply = SOCKET_ASYNC_PAUSE;
  kept_probe.on_deletion = SOCKET_ASYNC_END;
  listener_probe.accept_mode = true;
  listener_probe.on_deletion = SOCKET_ASYNC_DESTROY;
  void* server = nullptr;
  ASSERT_EQ(0, socket_listen(&server, "127.0.0.1:0"));
  {
    Worker w(8, -1);  // waits without limit: only the wake-up ends the wait
    ASSERT_EQ(0, w.add(armed.end, armed_probe));
    ASSERT_EQ(0, w.add(paused.end, paused_probe));
    ASSERT_EQ(0, w.add(kept.end, kept_probe));
    ASSERT_EQ(0, socket_async_worker_add_accept(w.handle, server, 0, Probe::callback, &listener_probe));
    ASSERT_TRUE(write_all(paused.client, "p"));
    ASSERT_TRUE(eventually([&] { return paused_probe.calls == 1; }));
    auto deleted = std::async(std::launch::async, [&] { w.stop(); });
    ASSERT_EQ(std::future_status::ready, deleted.wait_for(std::chrono::milliseconds(kPatienceMs)));
  }
  const std::vector<int> deletion{ERR_ASYNC_WORKER_DELETED};
  EXPECT_EQ(deletion, armed_probe.seen());
  EXPECT_EQ((std::vector<int>{0, ERR_ASYNC_WORKER_DELETED}), paused_probe.seen());
  EXPECT_EQ(deletion, kept_probe.seen());
  EXPECT_EQ(deletion, listener_probe.seen());
  armed.end = nullptr;  // destroyed by the worker, as was the listener
  EXPECT_TRUE(!entry_of(paused.end) && !entry_of(kept.end));

  // A worker that never had anything armed sleeps untimed; deletion wakes it.
  auto idle = std::async(std::launch::async, [] { Worker empty(4, -1); });
  EXPECT_EQ(std::future_status::ready, idle.wait_for(std::chrono::milliseconds(kPatienceMs)));
}

// ---- scale -----------------------------------------------------------------

std::string numbered(int client, int message) {
  char text[32];
  std::snprintf(text, sizeof text, "c%04d m%03d\n", client, message);
  return text;
}

// Every client sends its numbered messages one at a time and checks that
// each echo is the message it sent. Returns the clients that got them all.
int drive_clients(const std::vector<int>& fds, int messages, std::string* problem) {
  int poll_fd = epoll_create1(EPOLL_CLOEXEC);
  std::vector<int> next(fds.size(), 0);
  std::vector<std::string> pending(fds.size());
  for (size_t i = 0; i < fds.size(); ++i) {
    epoll_event ev{EPOLLIN, {.u32 = (uint32_t)i}};
    epoll_ctl(poll_fd, EPOLL_CTL_ADD, fds[i], &ev);
    write_all(fds[i], numbered((int)i, 0));
  }
  int finished = 0;
  std::vector<epoll_event> events(256);
  for (int idle = 0; finished < (int)fds.size() && problem->empty() && idle < 30;) {
    int n = epoll_wait(poll_fd, events.data(), (int)events.size(), 1000);
    idle = n > 0 ? 0 : idle + 1;
    for (int k = 0; k < n; ++k) {
      size_t i = events[k].data.u32;
      char buf[256];
      ssize_t got = recv(fds[i], buf, sizeof buf, 0);
      if (got <= 0) *problem = "client " + std::to_string(i) + " lost its connection";
      pending[i].append(buf, got > 0 ? (size_t)got : 0);
      for (std::string want = numbered((int)i, next[i]); pending[i].size() >= want.size();
           want = numbered((int)i, next[i])) {
        if (pending[i].compare(0, want.size(), want) != 0) *problem = "client got " + pending[i] + ", not " + want;
        pending[i].erase(0, want.size());
        if (++next[i] == messages) {
          ++finished;
          break;
        }
        write_all(fds[i], numbered((int)i, next[i]));
      }
    }
  }
  close(poll_fd);
  return finished;
}

struct Farm {
  void* worker = nullptr;
  std::vector<std::unique_ptr<Probe>> conns;  // touched by the worker thread only, until it is deleted
  int highest_fd = 0;
  std::atomic<int> refused{0};
};

int farm_accept(int status, void* server, void* custom) {
  auto* farm = static_cast<Farm*>(custom);
  if (status != 0) return SOCKET_ASYNC_END;
  void* client = socket_accept(server, 0);
  farm->conns.push_back(std::make_unique<Probe>());
  farm->conns.back()->echo = true;
  if (!client ||
      socket_async_worker_add_recv(farm->worker, client, 0, Probe::callback, farm->conns.back().get()) != 0) {
    ++farm->refused;
    if (client) socket_delete(client);
  } else if (socket_descriptor(client) > farm->highest_fd) {
    farm->highest_fd = socket_descriptor(client);
  }
  return SOCKET_ASYNC_KEEP;
}

TEST_F(AsyncTest, ThousandClientsOnOneWorkerGetEveryMessageOnceInOrder) {
  const int clients = 1000, messages = kSanitized ? 10 : 100;
  nettest::DescriptorLimit limit(2 * clients + 64);
  if (!limit.ok()) GTEST_SKIP() << "too few descriptors";

  Farm farm;
  Listener listener;
  ASSERT_EQ(0, socket_async_worker_create(&farm.worker, "echo farm", 1024, 0, 100));
  ASSERT_EQ(0, socket_async_worker_add_accept(farm.worker, listener.get(), 0, farm_accept, &farm));
  std::vector<int> fds;
  for (int i = 0; i < clients; ++i) fds.push_back(raw_connect(listener.port()));
  std::string problem;
  EXPECT_EQ(clients, drive_clients(fds, messages, &problem)) << problem;
  for (int fd : fds) close(fd);
  EXPECT_TRUE(eventually([] { return instrument_count(socket_instrument_handle()) == 0; })) << "ends not seen";
  socket_async_worker_delete(farm.worker);

  EXPECT_EQ(0, farm.refused.load());
  EXPECT_GE(farm.highest_fd, 1024) << "descriptors beyond an fd_set were served";
  ASSERT_EQ((size_t)clients, farm.conns.size());
  int faulty = 0;
  for (const auto& conn : farm.conns)
    faulty += conn->eofs != 1 || conn->stray != 0 ||
              std::count(conn->statuses.begin(), conn->statuses.end(), 0) != conn->calls ||
              conn->bytes != (long long)numbered(0, 0).size() * messages || conn->calls > messages + 1;
  EXPECT_EQ(0, faulty) << "connections with a lost, repeated or stray callback";
}

// ---- concurrent changes ----------------------------------------------------

std::vector<std::unique_ptr<Pair>> open_pairs(const Listener& listener, int count) {
  std::vector<std::unique_ptr<Pair>> pairs;
  for (int i = 0; i < count; ++i) pairs.push_back(std::make_unique<Pair>(listener));
  return pairs;
}

TEST_F(AsyncTest, OtherThreadsAddRemoveAndResumeWhileTheWorkerDispatches) {
  const int threads = 4, per_thread = 4, rounds = kSanitized ? 60 : 300;
  Listener listener;
  auto pairs = open_pairs(listener, threads * per_thread);
  std::vector<Probe> probes(pairs.size());
  Worker w(64, 20);
  std::atomic<int> wrong{0};
  std::vector<std::thread> owners;
  for (int t = 0; t < threads; ++t) {
    owners.emplace_back([&, t] {
      for (int r = 0; r < rounds; ++r) {
        size_t i = (size_t)(t * per_thread + r % per_thread);
        void* end = pairs[i]->end;
        probes[i].reply = r % 2 ? SOCKET_ASYNC_PAUSE : SOCKET_ASYNC_KEEP;
        probes[i].registered = true;
        wrong += w.add(end, probes[i]) != 0;
        write_all(pairs[i]->client, "x");
        wrong += socket_async_worker_resume_recv(w.handle, end) != 0;
        if (r % 3) std::this_thread::yield();
        wrong += socket_async_worker_remove_recv(w.handle, end) != 0;
        probes[i].registered = false;  // from here on no callback may run for it
        wrong += socket_async_worker_resume_recv(w.handle, end) != ERR_ASYNC_NOT_ADDED;
      }
    });
  }
  for (auto& t : owners) t.join();
  w.stop();
  EXPECT_EQ(0, wrong.load());
  int calls = 0;
  for (Probe& p : probes) {
    EXPECT_EQ(0, p.while_unregistered.load()) << "a callback ran after its removal returned";
    EXPECT_EQ(0, p.stray.load()) << "a stale readiness report reached a callback";
    calls += p.calls;
  }
  EXPECT_GT(calls, 0);
}

// Each callback resumes its ring neighbour, and in turn unregisters and
// re-registers itself (its return value must then be ignored) or moves its
// neighbour to the end of the slot list, all inside the dispatch pass.
struct RingMember {
  Probe probe;
  void* worker = nullptr;
  void* socket = nullptr;
  RingMember* next = nullptr;
  std::atomic<int> failed_changes{0};
};

int ring_callback(int status, void* socket, void* custom) {
  auto* me = static_cast<RingMember*>(custom);
  me->probe.record(status, socket);
  if (status != 0) return SOCKET_ASYNC_KEEP;
  socket_async_worker_resume_recv(me->worker, me->next->socket);
  auto move_to_end = [](RingMember* m) {
    return socket_async_worker_remove_recv(m->worker, m->socket) == 0 &&
           socket_async_worker_add_recv(m->worker, m->socket, 0, ring_callback, m) == 0;
  };
  switch (me->probe.calls % 3) {
    case 0:
      me->failed_changes += !move_to_end(me);
      return 12345;
    case 1:
      me->failed_changes += !move_to_end(me->next);
      return SOCKET_ASYNC_KEEP;
    default:
      return SOCKET_ASYNC_PAUSE;
  }
}

TEST_F(AsyncTest, CallbacksChangeRegistrationsFromInsideTheirPass) {
  const int ring = 8, rounds = kSanitized ? 40 : 200;
  vektest::LogCapture log;
  Listener listener;
  auto pairs = open_pairs(listener, ring);
  std::vector<RingMember> members(ring);
  Worker w(ring + 1, 20);
  for (int i = 0; i < ring; ++i) {
    members[i].worker = w.handle;
    members[i].socket = pairs[i]->end;
    members[i].next = &members[(i + 1) % ring];
  }
  for (auto& m : members) ASSERT_EQ(0, socket_async_worker_add_recv(w.handle, m.socket, 0, ring_callback, &m));
  for (long long r = 1; r <= rounds; ++r) {
    // Wakes the sockets that paused after their last data all at once.
    for (auto& m : members) socket_async_worker_resume_recv(w.handle, m.socket);
    for (auto& p : pairs) write_all(p->client, "ab");
    auto all_in = [&] {
      long long got = 0;
      for (auto& m : members) got += m.probe.bytes;
      return got == 2 * ring * r;
    };
    ASSERT_TRUE(eventually(all_in)) << "round " << r;
  }
  w.stop();
  for (auto& m : members) {
    EXPECT_EQ(0, m.failed_changes.load());
    EXPECT_EQ(0, m.probe.stray.load());
    EXPECT_EQ(1, m.probe.deleted.load());
  }
  EXPECT_FALSE(log.contains("Invalid return code")) << "the return value of a removed socket was applied";
}

TEST_F(AsyncTest, DeletingAWorkerWhileItsSocketsAreBusy) {
  Listener listener;
  auto pairs = open_pairs(listener, 16);
  std::vector<Probe> probes(pairs.size());
  Worker w(32, 1000);
  for (size_t i = 0; i < pairs.size(); ++i) {
    fcntl(pairs[i]->client, F_SETFL, O_NONBLOCK);
    probes[i].on_deletion = i % 2 ? SOCKET_ASYNC_END : SOCKET_ASYNC_DESTROY;
    ASSERT_EQ(0, w.add(pairs[i]->end, probes[i]));
  }
  std::atomic<bool> stop{false};
  std::thread flood([&] {
    std::string chunk(256, 'z');
    while (!stop)
      for (auto& p : pairs) send(p->client, chunk.data(), chunk.size(), MSG_NOSIGNAL);
  });
  ASSERT_TRUE(eventually([&] { return probes.back().calls > 10; }));
  w.stop();
  std::vector<int> calls_at_deletion;
  for (Probe& p : probes) calls_at_deletion.push_back(p.calls);
  std::this_thread::sleep_for(50ms);
  stop = true;
  flood.join();
  for (size_t i = 0; i < pairs.size(); ++i) {
    EXPECT_EQ(1, probes[i].deleted.load());
    EXPECT_EQ(ERR_ASYNC_WORKER_DELETED, probes[i].seen().back());
    EXPECT_EQ(calls_at_deletion[i], probes[i].calls.load()) << "called after deletion";
    EXPECT_EQ(0, probes[i].stray.load());
    if (i % 2 == 0) pairs[i]->end = nullptr;  // destroyed by the worker
  }
}

}  // namespace
