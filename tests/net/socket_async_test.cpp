// Asynchronous socket handler: refused calls, capacity, what each callback
// return value does, statuses (ready, error, inactivity), the order of one
// pass, accepting on the default workers, deletion, high descriptors.
// ctest-labels: tsan
#include <fcntl.h>
#include <sys/resource.h>
#include <vekutil/errors.h>

#include <algorithm>
#include <future>
#include <thread>

#include "async_support.hpp"

namespace {

using namespace asynctest;
using namespace std::chrono_literals;

int keep(int, void*, void*) { return SOCKET_ASYNC_KEEP; }

TEST_F(AsyncTest, RefusedCallsLeaveEverythingUnchanged) {
  void* handle = nullptr;
  EXPECT_EQ(ERR_INVALID_PARAMETER, socket_async_worker_create(nullptr, "w", 4, 0, 100));
  EXPECT_EQ(ERR_INVALID_PARAMETER, socket_async_worker_create(&handle, "w", 0, 0, 100));
  EXPECT_EQ(nullptr, handle);
  socket_async_worker_delete(nullptr);

  Listener listener;
  Pair pair, other;
  ASSERT_TRUE(pair.open(listener) && other.open(listener));
  void* unopened = nullptr;
  ASSERT_EQ(0, socket_create(&unopened));
  Worker w;
  ASSERT_EQ(0, w.created());
  ASSERT_EQ(0, socket_async_worker_add_recv(w.get(), pair.server_end, 0, keep, nullptr));

  struct Case {
    const char* what;
    int expected;
    int got;
  } cases[] = {
      {"add without worker", ERR_INVALID_PARAMETER,
       socket_async_worker_add_recv(nullptr, other.server_end, 0, keep, nullptr)},
      {"add without socket", ERR_INVALID_PARAMETER, socket_async_worker_add_recv(w.get(), nullptr, 0, keep, nullptr)},
      {"add without callback", ERR_INVALID_PARAMETER,
       socket_async_worker_add_recv(w.get(), other.server_end, 0, nullptr, nullptr)},
      {"add twice", ERR_ASYNC_ALREADY_ADDED, socket_async_worker_add_recv(w.get(), pair.server_end, 0, keep, nullptr)},
      {"add in the other mode", ERR_ASYNC_ALREADY_ADDED,
       socket_async_worker_add_accept(w.get(), pair.server_end, 0, keep, nullptr)},
      {"add without descriptor", ERR_SOCKET_NOT_OPEN,
       socket_async_worker_add_recv(w.get(), unopened, 0, keep, nullptr)},
      {"remove without worker", ERR_INVALID_PARAMETER, socket_async_worker_remove_recv(nullptr, pair.server_end)},
      {"remove without socket", ERR_INVALID_PARAMETER, socket_async_worker_remove_recv(w.get(), nullptr)},
      {"remove unregistered", ERR_ASYNC_NOT_ADDED, socket_async_worker_remove_recv(w.get(), other.server_end)},
      {"remove in the wrong mode", ERR_ASYNC_BAD_MODE, socket_async_worker_remove_accept(w.get(), pair.server_end)},
      {"resume without socket", ERR_INVALID_PARAMETER, socket_async_worker_resume_recv(w.get(), nullptr)},
      {"resume unregistered", ERR_ASYNC_NOT_ADDED, socket_async_worker_resume_recv(w.get(), other.server_end)},
      {"resume in the wrong mode", ERR_ASYNC_BAD_MODE, socket_async_worker_resume_accept(w.get(), pair.server_end)},
      {"default acceptor absent", ERR_INVALID_PARAMETER,
       socket_async_accept_begin(listener.server(), 0, keep, nullptr)},
      {"default receiver absent", ERR_INVALID_PARAMETER, socket_async_recv_begin(other.server_end, 0, keep, nullptr)},
      {"default end absent", ERR_INVALID_PARAMETER, socket_async_recv_end(pair.server_end)},
      {"default resume absent", ERR_INVALID_PARAMETER, socket_async_accept_resume(listener.server())},
  };
  for (const Case& c : cases) EXPECT_EQ(c.expected, c.got) << c.what;
  EXPECT_EQ(nullptr, registered_entry(other.server_end));
  EXPECT_EQ(nullptr, registered_entry(unopened));
  EXPECT_EQ(0, socket_async_worker_resume_recv(w.get(), pair.server_end)) << "resuming an armed socket";
  EXPECT_EQ(0, socket_async_worker_remove_recv(w.get(), pair.server_end));
  EXPECT_EQ(nullptr, registered_entry(pair.server_end));
  socket_delete(unopened);
}

TEST_F(AsyncTest, CapacityIsOneLessThanMaxSocket) {
  Listener listener;
  Pair a, b;
  ASSERT_TRUE(a.open(listener) && b.open(listener));
  Worker w(2);
  ASSERT_EQ(0, w.created());
  EXPECT_EQ(0, socket_async_worker_add_recv(w.get(), a.server_end, 0, keep, nullptr));
  EXPECT_EQ(ERR_ASYNC_FULL, socket_async_worker_add_recv(w.get(), b.server_end, 0, keep, nullptr));
  EXPECT_EQ(nullptr, registered_entry(b.server_end));
  EXPECT_EQ(0, socket_async_worker_remove_recv(w.get(), a.server_end));
  EXPECT_EQ(0, socket_async_worker_add_recv(w.get(), b.server_end, 0, keep, nullptr));
  EXPECT_EQ(0, socket_async_worker_remove_recv(w.get(), b.server_end));

  Worker single(1);
  ASSERT_EQ(0, single.created());
  EXPECT_EQ(ERR_ASYNC_FULL, socket_async_worker_add_recv(single.get(), a.server_end, 0, keep, nullptr));
}

// Each return value, seen over two messages: the first call answers with
// the value, the second message shows whether the socket is still watched.
TEST_F(AsyncTest, ReturnValuesDecideWhatHappensToTheSocket) {
  struct Case {
    int reply;
    bool still_registered;
    bool destroyed;
    bool called_again;  // without a resume
    bool called_after_resume;
    const char* log_text;
  } cases[] = {
      {SOCKET_ASYNC_KEEP, true, false, true, true, nullptr},
      {SOCKET_ASYNC_PAUSE, true, false, false, true, nullptr},
      {5, true, false, false, true, "_socket_async_handler(): Invalid return code[5]\n"},
      {-4, true, false, false, true, "_socket_async_handler(): Invalid return code[-4]\n"},
      {SOCKET_ASYNC_END, false, false, false, false, nullptr},
      {SOCKET_ASYNC_DESTROY, false, true, false, false, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reply);
    vektest::LogCapture log;
    Listener listener;
    Pair pair;
    ASSERT_TRUE(pair.open(listener));
    Probe probe;
    probe.reply = c.reply;
    {
      Worker w;
      ASSERT_EQ(0, socket_async_worker_add_recv(w.get(), pair.server_end, 0, Probe::callback, &probe));
      ASSERT_TRUE(send_all(pair.client, "one"));
      ASSERT_TRUE(probe.wait_calls(1));
      ASSERT_TRUE(send_all(pair.client, "two"));
      EXPECT_EQ(c.called_again, probe.wait_calls(2, 300));
      if (!c.destroyed) {
        EXPECT_EQ(c.still_registered, registered_entry(pair.server_end) != nullptr);
      }
      if (!c.destroyed) {
        EXPECT_EQ(c.still_registered ? 0 : ERR_ASYNC_NOT_ADDED,
                  socket_async_worker_resume_recv(w.get(), pair.server_end));
      }
      if (c.called_after_resume) {
        EXPECT_TRUE(probe.wait_calls(2));
      }
      if (c.destroyed) {
        pair.server_end = nullptr;  // the worker deleted it
        EXPECT_EQ("", recv_bytes(pair.client, 1)) << "the client sees the close";
      }
      probe.reply = SOCKET_ASYNC_KEEP;
      w.destroy();
    }
    EXPECT_EQ(0, probe.empty_reads);
    EXPECT_EQ(c.log_text != nullptr, log.contains("Invalid return code")) << log.text();
    if (c.log_text) {
      EXPECT_TRUE(log.contains(c.log_text)) << log.text();
    }
  }
}

TEST_F(AsyncTest, IdleSocketTimesOutAtTheNextPassWithActivity) {
  Listener listener;
  Pair idle, busy;
  ASSERT_TRUE(idle.open(listener) && busy.open(listener));
  Probe idle_probe, busy_probe;
  Worker w(8, 50);
  ASSERT_EQ(0, socket_async_worker_add_recv(w.get(), idle.server_end, 200, Probe::callback, &idle_probe));
  ASSERT_EQ(0, socket_async_worker_add_recv(w.get(), busy.server_end, 0, Probe::callback, &busy_probe));

  std::this_thread::sleep_for(600ms);
  EXPECT_EQ(0u, idle_probe.calls()) << "no pass with activity yet";
  ASSERT_TRUE(send_all(busy.client, "wake"));
  ASSERT_TRUE(idle_probe.wait_calls(1));
  ASSERT_TRUE(busy_probe.wait_calls(1));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, idle_probe.seen()[0]);
  EXPECT_EQ(0, busy_probe.seen()[0]);

  // The limit stays passed: a kept socket is reported idle at every pass
  // with activity, even when data arrives, and it does not hold up the
  // ready socket behind it.
  ASSERT_TRUE(send_all(idle.client, "late"));
  ASSERT_TRUE(send_all(busy.client, "more"));
  ASSERT_TRUE(busy_probe.wait_calls(2));
  ASSERT_TRUE(idle_probe.wait_calls(2));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, idle_probe.seen()[1]);
  EXPECT_EQ(0, busy_probe.seen()[1]);
  std::lock_guard<std::mutex> lock(busy_probe.m);
  EXPECT_EQ("wakemore", busy_probe.received);
}

TEST_F(AsyncTest, UrgentDataIsReportedAsSocketError) {
  Listener listener;
  Pair pair;
  ASSERT_TRUE(pair.open(listener));
  Probe probe;
  probe.reply = SOCKET_ASYNC_END;
  Worker w;
  ASSERT_EQ(0, socket_async_worker_add_recv(w.get(), pair.server_end, 0, Probe::callback, &probe));
  ASSERT_EQ(1, send(pair.client, "!", 1, MSG_OOB));
  ASSERT_TRUE(probe.wait_calls(1));
  EXPECT_EQ(ERR_SOCKET_FAILED, probe.seen()[0]);
}

// Three sockets become ready in one pass; the first ends its registration,
// so the last one moves into its slot and is served right after it.
TEST_F(AsyncTest, OnePassServesEveryReadySocketOnceInSlotOrder) {
  Listener listener;
  Pair gate, a, b, c;
  ASSERT_TRUE(gate.open(listener) && a.open(listener) && b.open(listener) && c.open(listener));

  struct Shared {
    std::mutex m;
    std::vector<char> order;
    std::promise<void> gate_entered;
    std::promise<void> release;
  } shared;
  struct Tagged {
    Shared* shared;
    char tag;
    int reply;
  } gate_tag{&shared, 'g', SOCKET_ASYNC_KEEP}, ta{&shared, 'a', SOCKET_ASYNC_END}, tb{&shared, 'b', SOCKET_ASYNC_KEEP},
      tc{&shared, 'c', SOCKET_ASYNC_KEEP};
  auto callback = [](int status, void* socket, void* custom) {
    auto* t = static_cast<Tagged*>(custom);
    char buf[64];
    if (status != 0 || recv(socket_descriptor(socket), buf, sizeof buf, MSG_DONTWAIT) <= 0) return SOCKET_ASYNC_END;
    if (t->tag == 'g') {
      t->shared->gate_entered.set_value();
      t->shared->release.get_future().wait();  // holds the worker while the others get data
    } else {
      std::lock_guard<std::mutex> lock(t->shared->m);
      t->shared->order.push_back(t->tag);
    }
    return t->reply;
  };
  Worker w;
  for (auto [pair, tag] : {std::pair{&gate, &gate_tag}, std::pair{&a, &ta}, std::pair{&b, &tb}, std::pair{&c, &tc}})
    ASSERT_EQ(0, socket_async_worker_add_recv(w.get(), pair->server_end, 0, callback, tag));
  ASSERT_TRUE(send_all(gate.client, "g"));
  shared.gate_entered.get_future().wait();
  for (Pair* p : {&a, &b, &c}) ASSERT_TRUE(send_all(p->client, "x"));
  shared.release.set_value();

  for (int i = 0; i < 500; ++i) {
    {
      std::lock_guard<std::mutex> lock(shared.m);
      if (shared.order.size() >= 3) break;
    }
    std::this_thread::sleep_for(10ms);
  }
  std::lock_guard<std::mutex> lock(shared.m);
  EXPECT_EQ((std::vector<char>{'a', 'c', 'b'}), shared.order);
  EXPECT_EQ(nullptr, registered_entry(a.server_end));
}

struct EchoServer {
  std::mutex m;
  std::vector<int> accept_statuses;
  std::vector<int> client_statuses;

  static int on_client(int status, void* socket, void* custom) {
    auto* self = static_cast<EchoServer*>(custom);
    {
      std::lock_guard<std::mutex> lock(self->m);
      self->client_statuses.push_back(status);
    }
    if (status != 0) return SOCKET_ASYNC_DESTROY;
    char buf[512];
    int len = sizeof buf;
    if (socket_recv2(socket, buf, &len, 0) != 0) return SOCKET_ASYNC_DESTROY;
    return socket_send2(socket, buf, len, 0) == 0 ? SOCKET_ASYNC_KEEP : SOCKET_ASYNC_DESTROY;
  }
  static int on_listener(int status, void* server, void* custom) {
    auto* self = static_cast<EchoServer*>(custom);
    {
      std::lock_guard<std::mutex> lock(self->m);
      self->accept_statuses.push_back(status);
    }
    if (status != 0) return SOCKET_ASYNC_DESTROY;
    void* client = socket_accept(server, 0);
    if (client && socket_async_recv_begin(client, 0, on_client, self) != 0) socket_delete(client);
    return SOCKET_ASYNC_KEEP;
  }
};

TEST_F(AsyncTest, DefaultWorkersAcceptAndEcho) {
  ASSERT_EQ(0, socket_async_default_init(16, 0, 100));
  void* acceptor = g_socket_async_default_acceptor;
  ASSERT_NE(nullptr, acceptor);
  ASSERT_NE(nullptr, g_socket_async_default_receiver);
  EXPECT_EQ(0, socket_async_default_init(16, 0, 100));
  EXPECT_EQ(acceptor, g_socket_async_default_acceptor) << "existing default workers are kept";

  EchoServer server;
  Listener listener;
  ASSERT_EQ(0, socket_async_accept_begin(listener.server(), 0, EchoServer::on_listener, &server));
  EXPECT_EQ(0, socket_async_accept_resume(listener.server()));
  int first = connect_raw(listener.port());
  int second = connect_raw(listener.port());
  ASSERT_TRUE(first >= 0 && second >= 0);
  ASSERT_TRUE(send_all(first, "hello") && send_all(second, "world"));
  EXPECT_EQ("hello", recv_bytes(first, 5));
  EXPECT_EQ("world", recv_bytes(second, 5));
  close(first);  // its callback sees the end of stream and destroys it
  EXPECT_EQ(0, socket_async_accept_end(listener.server()));
  EXPECT_EQ(ERR_ASYNC_NOT_ADDED, socket_async_accept_end(listener.server()));

  // The second client is still registered: deletion hands it over.
  EXPECT_EQ(0, socket_async_default_uninit());
  EXPECT_EQ(nullptr, g_socket_async_default_acceptor);
  EXPECT_EQ(nullptr, g_socket_async_default_receiver);
  EXPECT_EQ("", recv_bytes(second, 1)) << "destroyed on deletion";
  close(second);
  std::lock_guard<std::mutex> lock(server.m);
  EXPECT_EQ(2u, server.accept_statuses.size());
  ASSERT_FALSE(server.client_statuses.empty());
  EXPECT_EQ(ERR_ASYNC_WORKER_DELETED, server.client_statuses.back());
  EXPECT_EQ(1, (int)std::count(server.client_statuses.begin(), server.client_statuses.end(), ERR_ASYNC_WORKER_DELETED));
}

TEST_F(AsyncTest, DeletionHandsEverySocketBackOnce) {
  Listener listener;
  Pair armed, paused, kept;
  ASSERT_TRUE(armed.open(listener) && paused.open(listener) && kept.open(listener));
  Probe armed_probe, paused_probe, kept_probe, listener_probe;
  armed_probe.reply = SOCKET_ASYNC_DESTROY;  // honoured in the deletion call too
  paused_probe.reply = SOCKET_ASYNC_PAUSE;
  kept_probe.reply = SOCKET_ASYNC_END;
  listener_probe.accept_mode = true;
  listener_probe.reply = SOCKET_ASYNC_DESTROY;
  void* server = listener.take();

  // Waits without a time-out: only the wake-up on deletion ends the wait.
  Worker w(8, -1);
  ASSERT_EQ(0, socket_async_worker_add_recv(w.get(), armed.server_end, 0, Probe::callback, &armed_probe));
  ASSERT_EQ(0, socket_async_worker_add_recv(w.get(), paused.server_end, 0, Probe::callback, &paused_probe));
  ASSERT_EQ(0, socket_async_worker_add_recv(w.get(), kept.server_end, 0, Probe::callback, &kept_probe));
  ASSERT_EQ(0, socket_async_worker_add_accept(w.get(), server, 0, Probe::callback, &listener_probe));
  ASSERT_TRUE(send_all(paused.client, "p"));
  ASSERT_TRUE(paused_probe.wait_calls(1));

  auto deleted = std::async(std::launch::async, [&] { w.destroy(); });
  ASSERT_EQ(std::future_status::ready, deleted.wait_for(std::chrono::milliseconds(kPatienceMs)));
  EXPECT_EQ((std::vector<int>{ERR_ASYNC_WORKER_DELETED}), armed_probe.seen());
  EXPECT_EQ((std::vector<int>{0, ERR_ASYNC_WORKER_DELETED}), paused_probe.seen());
  EXPECT_EQ((std::vector<int>{ERR_ASYNC_WORKER_DELETED}), kept_probe.seen());
  EXPECT_EQ((std::vector<int>{ERR_ASYNC_WORKER_DELETED}), listener_probe.seen());
  armed.server_end = nullptr;  // destroyed by the worker, as was the listener
  EXPECT_EQ(nullptr, registered_entry(paused.server_end));
  EXPECT_EQ(nullptr, registered_entry(kept.server_end));

  // A worker that never had anything armed sleeps untimed; deletion wakes it.
  auto idle = std::async(std::launch::async, [] {
    Worker empty(4, -1);
    std::this_thread::sleep_for(50ms);
  });
  EXPECT_EQ(std::future_status::ready, idle.wait_for(std::chrono::milliseconds(kPatienceMs)));
}

TEST_F(AsyncTest, DescriptorsAbove1024AreWatched) {
  rlimit limit{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
  if (limit.rlim_cur < 1600) GTEST_SKIP() << "descriptor limit too low";
  Listener listener;
  Pair pair;
  ASSERT_TRUE(pair.open(listener));
  auto* sock = static_cast<ABSTRACT_SOCKET*>(pair.server_end);
  int high = fcntl(sock->s, F_DUPFD_CLOEXEC, 1500);
  ASSERT_GE(high, 1500);
  close(sock->s);
  sock->s = high;

  Probe probe;
  Worker w;
  ASSERT_EQ(0, socket_async_worker_add_recv(w.get(), pair.server_end, 0, Probe::callback, &probe));
  ASSERT_TRUE(send_all(pair.client, "high"));
  ASSERT_TRUE(probe.wait_calls(1));
  std::lock_guard<std::mutex> lock(probe.m);
  EXPECT_EQ("high", probe.received);
}

}  // namespace
