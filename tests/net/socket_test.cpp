// Stream sockets on loopback: the library on both ends and raw POSIX peers
// on the other, the dispatcher contract, failures of the peer,
// the logging callbacks, statistics, registry and address helpers.
#include <sys/select.h>

#include <functional>

#include "alloc_failure.hpp"
#include "net_test_util.hpp"
#include "vek_test.hpp"

namespace {

using namespace nettest;

// What the logging callbacks saw (only the test's own thread uses watched
// sockets): "fn ret oserr" and "fn:len" lines, and the owner label.
std::vector<std::string> g_results, g_buffers;
std::string g_owner_seen;

void on_result(void*, const char* owner, int, const char* fn, int ret, int oserr) {
  g_owner_seen = owner ? owner : "";
  g_results.push_back(std::string(fn) + " " + std::to_string(ret) + " " + std::to_string(oserr));
}
void on_buffer(void*, const char*, int, const char* fn, const char*, int len) {
  g_buffers.push_back(std::string(fn) + ":" + std::to_string(len));
}
void watch(void* s) {
  g_results.clear();
  g_buffers.clear();
  socket_set_log_callbacks(s, on_buffer, on_result);
}
std::vector<std::string> take_results() { return std::exchange(g_results, {}); }

// The listener is made before the leak count starts and kept past its end.
class SocketTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_EQ(0, listener_.rc());
  }
  const Listener& listener() const { return listener_; }

 private:
  Listener listener_;
};

// ---- refused calls ---------------------------------------------------------

TEST_F(SocketTest, RefusedCallsGiveResultCodes) {
  Sock unopened;
  Sock emptied;
  emptied.rec()->a_send = nullptr;
  emptied.rec()->a_recv2 = nullptr;
  Pair open = connect_pair(listener());
  ASSERT_TRUE(open.server);
  char buf[16];
  int len = 0;
  int zero_len = 0;
  void* out_handle = nullptr;
  char* text = nullptr;
  sockaddr_in sin;
  in_addr ia;
  unsigned int n;
  const struct {
    const char* what;
    int expected;
    std::function<int()> call;
  } cases[] = {
      {"create NULL", ERR_INVALID_HANDLE, [] { return socket_create(nullptr); }},
      {"delete NULL", ERR_INVALID_HANDLE, [] { return socket_delete(nullptr); }},
      {"connect NULL", ERR_INVALID_HANDLE, [] { return socket_connect(nullptr, "127.0.0.1:1"); }},
      {"send NULL", ERR_INVALID_HANDLE, [] { return socket_send(nullptr, "x", 1); }},
      {"recv2 NULL", ERR_INVALID_HANDLE, [&] { return socket_recv2(nullptr, buf, &len, 10); }},
      {"unlisten NULL", ERR_INVALID_HANDLE, [] { return socket_unlisten(nullptr); }},
      {"peer port NULL", 58528, [] { return (int)socket_peer_port(nullptr); }},
      {"isopen NULL", 0, [] { return socket_isopen(nullptr); }},
      {"local address NULL", ERR_INVALID_HANDLE, [&] { return socket_local_address(nullptr, &text); }},
      {"accept NULL", 0, [] { return socket_accept(nullptr, 0) == nullptr ? 0 : 1; }},
      {"tcp recv2 NULL", ERR_INVALID_HANDLE, [&] { return tcp_recv2(nullptr, buf, &len, 1); }},
      {"make_addr NULL text", ERR_INVALID_PARAMETER, [&] { return make_addr(nullptr, &sin); }},
      {"make_addr NULL sin", ERR_INVALID_PARAMETER, [] { return make_addr("127.0.0.1:1", nullptr); }},
      {"host2addr NULL", ERR_SOCKET_HOST_NOT_FOUND, [&] { return host2addr(nullptr, &ia); }},
      {"host2addr NULL out", ERR_SOCKET_HOST_NOT_FOUND, [] { return host2addr("127.0.0.1", nullptr); }},
      {"host2int NULL", ERR_SOCKET_HOST_NOT_FOUND, [&] { return host2int(nullptr, &n); }},
      {"inet_host2ip NULL", ERR_INVALID_PARAMETER, [&] { return inet_host2ip(nullptr, &text); }},
      {"adapter NULL", ERR_INVALID_PARAMETER, [&] { return inet_adapter_get_ip(nullptr, &text); }},
      {"adapter long name", ERR_INVALID_PARAMETER, [&] { return inet_adapter_get_ip("a-very-long-ifname", &text); }},
      // A socket never connected.
      {"send unopened", ERR_SOCKET_NOT_OPEN, [&] { return socket_send(unopened.get(), "x", 1); }},
      {"recv unopened", ERR_SOCKET_NOT_OPEN, [&] { return socket_recv(unopened.get(), buf, 1, 1); }},
      {"recv NULL buffer", ERR_INVALID_PARAMETER, [&] { return socket_recv(unopened.get(), nullptr, 1, 1); }},
      {"recv2 NULL length", ERR_INVALID_PARAMETER, [&] { return socket_recv2(unopened.get(), buf, nullptr, 1); }},
      {"shutdown unopened", ERR_SOCKET_NOT_OPEN, [&] { return socket_shutdown(unopened.get()); }},
      {"local address unopened", ERR_SOCKET_NOT_OPEN, [&] { return socket_local_address(unopened.get(), &text); }},
      {"io queues unopened", ERR_SOCKET_NOT_OPEN, [&] { return socket_set_io_queues(unopened.get(), 1, 1); }},
      {"emptied send slot", ERR_SOCKET_NO_OPERATION, [&] { return socket_send(emptied.get(), "x", 1); }},
      {"emptied recv2 slot", ERR_SOCKET_NO_OPERATION, [&] { return socket_recv2(emptied.get(), nullptr, nullptr, 1); }},
      // Bad lengths and time-outs on an open socket.
      {"send length -2", ERR_INVALID_PARAMETER, [&] { return socket_send(open.client.get(), "x", -2); }},
      {"send NULL data", ERR_INVALID_PARAMETER, [&] { return socket_send(open.client.get(), nullptr, 1); }},
      {"recv length -1", ERR_INVALID_PARAMETER, [&] { return socket_recv(open.client.get(), buf, -1, 1); }},
      {"recv2 length 0", ERR_INVALID_PARAMETER, [&] { return socket_recv2(open.client.get(), buf, &zero_len, 1); }},
      {"send time-out -2", ERR_SOCKET_FAILED, [&] { return socket_send2(open.client.get(), "x", 1, -2); }},
      {"recv time-out -2", ERR_SOCKET_BAD_TIMEOUT, [&] { return socket_recv(open.client.get(), buf, 1, -2); }},
      {"recv2 time-out -2", ERR_SOCKET_BAD_TIMEOUT, [&] {
         len = 4;
         return socket_recv2(open.client.get(), buf, &len, -2);
       }},
      {"accept time-out -2", EINVAL, [&] {
         return socket_accept(listener().get(), -2) == nullptr ? socket_error(listener().get()) : 0;
       }},
      {"listen into NULL text", ERR_INVALID_PARAMETER, [&] {
         int rc = socket_listen(&out_handle, nullptr);
         socket_unlisten(out_handle);
         return rc;
       }},
  };
  for (const auto& c : cases) EXPECT_EQ(c.expected, c.call()) << c.what;
  const int null_handle[] = {socket_close(nullptr), socket_shutdown(nullptr), socket_reconnect(nullptr),
                             socket_send2(nullptr, "x", 1, 10), socket_recv(nullptr, buf, 1, 10),
                             socket_listen(nullptr, "127.0.0.1:0"), socket_error(nullptr),
                             socket_get_statistics(nullptr, nullptr, nullptr, nullptr),
                             socket_set_log_callbacks(nullptr, nullptr, nullptr), socket_set_owner(nullptr, "x"),
                             socket_set_io_queues(nullptr, 1, 1), socket_check_queues(nullptr, nullptr, nullptr),
                             tcp_send(nullptr, "x", 1), tcp_recv(nullptr, buf, 1, 1)};
  for (const int& rc : null_handle) EXPECT_EQ(ERR_INVALID_HANDLE, rc) << "null handle, call " << &rc - null_handle;
  // The open pair survived the refused calls.
  EXPECT_EQ(0, socket_send(open.client.get(), "ok", 2));
  EXPECT_EQ(0, socket_recv(open.server.get(), buf, 2, 1000));
}

TEST_F(SocketTest, MalformedOrUnknownAddressesAreRefusedBeforeAnyTraffic) {
  const struct {
    const char* addr;
    int expected;
  } cases[] = {
      {nullptr, ERR_INVALID_PARAMETER},
      {"127.0.0.1", ERR_INVALID_PARAMETER},        // no port
      {"127.0.0.1:0", ERR_INVALID_PARAMETER},      // port 0
      {"127.0.0.1:65536", ERR_INVALID_PARAMETER},  // beyond the port range
      {"127.0.0.1:99999999", ERR_INVALID_PARAMETER},
      {"127.0.0.1:80x", ERR_INVALID_PARAMETER},
      {"127.0.0.1:-1", ERR_INVALID_PARAMETER},
      {"127.0.0.1:", ERR_INVALID_PARAMETER},
      {"", ERR_SOCKET_HOST_NOT_FOUND},
      {":80", ERR_SOCKET_HOST_NOT_FOUND},
      {"no such host:80", ERR_SOCKET_HOST_NOT_FOUND},
      {"no-such-host.invalid:80", ERR_SOCKET_HOST_NOT_FOUND},
      {"a..b:80", ERR_SOCKET_HOST_NOT_FOUND},
  };
  Sock s;
  for (const auto& c : cases) {
    watch(s.get());
    EXPECT_EQ(c.expected, socket_connect(s.get(), c.addr)) << (c.addr ? c.addr : "NULL");
    EXPECT_EQ(c.expected, socket_error(s.get()));
    EXPECT_EQ(0, socket_isopen(s.get()));
    std::vector<std::string> log = take_results();
    ASSERT_EQ(1u, log.size());
    EXPECT_EQ("connect(make_addr) " + std::to_string(c.expected) + " 0", log[0]);
  }
  EXPECT_EQ(ERR_INVALID_PARAMETER, socket_connect_ex(s.get(), listener().addr().c_str(), -2));
}

TEST_F(SocketTest, ConnectFailuresLeaveTheSocketClosed) {
  Sock s;
  watch(s.get());
  // Port 1 on loopback: nothing listens there.
  const int rc = socket_connect(s.get(), "127.0.0.1:1");
  EXPECT_TRUE(rc == ERR_SOCKET_CONNECT || rc == ERR_SOCKET_FAILED) << rc;
  EXPECT_EQ(ECONNREFUSED, socket_error(s.get()));
  EXPECT_EQ(0, socket_isopen(s.get()));
  std::vector<std::string> log = take_results();
  ASSERT_EQ(1u, log.size());
  EXPECT_EQ("connect() " + std::to_string(rc) + " " + std::to_string(ECONNREFUSED), log[0]);

  // A listener whose queue is full answers no more handshakes.
  RawListener full(0);
  std::vector<int> queued;
  for (int i = 0; i < 4; ++i) queued.push_back(raw_connect(full.port(), SOCK_NONBLOCK));
  watch(s.get());
  EXPECT_EQ(ERR_TIMEOUT, socket_connect_ex(s.get(), full.addr().c_str(), 200));
  EXPECT_EQ(ERR_TIMEOUT, socket_error(s.get()));
  EXPECT_EQ(0, socket_isopen(s.get()));
  log = take_results();
  ASSERT_EQ(1u, log.size());
  EXPECT_EQ("connect(timeout) -7002 0", log[0]);
  for (int fd : queued) close(fd);
}

// ---- the library on both ends ---------------------------------------------------

TEST_F(SocketTest, LibraryOnBothEndsMovesExactBytes) {
  Pair p = connect_pair(listener());
  ASSERT_TRUE(p.server);
  EXPECT_EQ(1, socket_isopen(p.client.get()));
  EXPECT_EQ(listener().addr(), socket_peer(p.client.get()));
  EXPECT_EQ(0x7F000001u, socket_peer_address(p.client.get()));
  EXPECT_EQ(listener().port(), socket_peer_port(p.client.get()));
  char* local = nullptr;
  ASSERT_EQ(0, socket_local_address(p.client.get(), &local));
  EXPECT_EQ(std::string(local), socket_peer(p.server.get()));
  _vekFree(local, __FILE__, __LINE__);
  EXPECT_EQ(p.client.rec()->s, socket_descriptor(p.client.get()));

  // A text sent with length -1 carries its terminator: 4 bytes for "abc".
  ASSERT_EQ(0, socket_send(p.client.get(), "abc", -1));
  char buf[8] = {1, 1, 1, 1, 1, 1, 1, 1};
  ASSERT_EQ(0, socket_recv(p.server.get(), buf, 4, 1000));
  EXPECT_STREQ("abc", buf);

  // recv2 takes what is there, at most the given length.
  ASSERT_EQ(0, socket_send2(p.server.get(), "hello", 5, 1000));
  int len = 3;
  ASSERT_EQ(0, socket_recv2(p.client.get(), buf, &len, 1000));
  EXPECT_EQ(3, len);
  len = 8;
  ASSERT_EQ(0, socket_recv2(p.client.get(), buf, &len, 1000));
  EXPECT_EQ("lo", std::string(buf, (size_t)len));

  // A large transfer in both directions at once.
  const std::string up = pattern(3 << 20, 1), down = pattern(2 << 20, 2);
  std::string got_up(up.size(), '\0'), got_down(down.size(), '\0');
  std::thread sender([&] { EXPECT_EQ(0, socket_send2(p.client.get(), up.data(), (int)up.size(), 10000)); });
  std::thread replier([&] { EXPECT_EQ(0, socket_send2(p.server.get(), down.data(), (int)down.size(), 10000)); });
  EXPECT_EQ(0, socket_recv(p.server.get(), got_up.data(), (int)got_up.size(), 10000));
  EXPECT_EQ(0, socket_recv(p.client.get(), got_down.data(), (int)got_down.size(), 10000));
  sender.join();
  replier.join();
  EXPECT_TRUE(up == got_up);
  EXPECT_TRUE(down == got_down);

  // Shutdown is seen by the other end as the end of the stream.
  EXPECT_EQ(0, socket_shutdown(p.client.get()));
  EXPECT_EQ(ERR_SOCKET_CLOSED, socket_recv(p.server.get(), buf, 1, 1000));
  EXPECT_EQ(ERR_SOCKET_CLOSED, socket_error(p.server.get()));
}

TEST_F(SocketTest, RawPosixPeersOnEitherSide) {
  const std::string data = pattern(1 << 20, 7);
  {  // library client, raw server
    RawListener raw;
    Sock c;
    ASSERT_EQ(0, socket_connect(c.get(), raw.addr().c_str()));
    int fd = raw.accept_fd();
    ASSERT_GE(fd, 0);
    std::thread t([&] { EXPECT_EQ(0, socket_send(c.get(), data.data(), (int)data.size())); });
    EXPECT_TRUE(read_exact(fd, data.size()) == data);
    t.join();
    ASSERT_TRUE(write_all(fd, "pong"));
    char buf[4];
    EXPECT_EQ(0, socket_recv(c.get(), buf, 4, 1000));
    EXPECT_EQ("pong", std::string(buf, 4));
    close(fd);
  }
  {  // raw client, library server
    int fd = raw_connect(listener().port());
    ASSERT_GE(fd, 0);
    Sock a = listener().accept();
    ASSERT_TRUE(a);
    EXPECT_EQ(loopback(local_port(fd)), socket_peer(a.get()));
    std::thread t([&] { EXPECT_TRUE(write_all(fd, data)); });
    std::string got(data.size(), '\0');
    EXPECT_EQ(0, socket_recv(a.get(), got.data(), (int)got.size(), 5000));
    t.join();
    EXPECT_TRUE(got == data);
    close(fd);
    EXPECT_EQ(ERR_SOCKET_CLOSED, socket_recv(a.get(), got.data(), 1, 1000));
  }
}

// ---- a peer that misbehaves ---------------------------------------------------------

TEST_F(SocketTest, PeerFailuresGiveDocumentedCodes) {
  auto recv_of = [](int n, int timeout) {
    return [=](void* s) {
      char buf[10];
      return socket_recv(s, buf, n, timeout);
    };
  };
  // recv2 that must come back empty.
  auto empty_recv2 = [](int timeout) {
    return [=](void* s) {
      char buf[4];
      int len = 4;
      const int rc = socket_recv2(s, buf, &len, timeout);
      return len == 0 ? rc : 1;
    };
  };
  auto send_of = [](size_t size, int times, int timeout, int pause_ms) {
    return [=](void* s) {
      std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
      const std::string big = pattern(size);
      int rc = 0;
      for (int i = 0; i < times && rc == 0; ++i) rc = socket_send2(s, big.data(), (int)big.size(), timeout);
      return rc;
    };
  };
  // Peers that end the connection give up their descriptor.
  auto nothing = [](int&) {};
  auto reset = [](int& fd) { reset_close(std::exchange(fd, -1)); };
  auto close_after = [](std::string last_words) {
    return [=](int& fd) {
      write_all(fd, last_words);
      close(std::exchange(fd, -1));
    };
  };
  const struct {
    const char* what;
    std::function<void(int& peer_fd)> peer;  // what the raw peer does first
    std::function<int(void* s)> call;       // what the library then tries
    int expected;
    std::vector<int> errs;  // what socket_error may then say (empty: anything)
  } cases[] = {
      {"closes before all arrived", close_after("1234"), recv_of(10, 2000), ERR_SOCKET_CLOSED, {ERR_SOCKET_CLOSED}},
      {"resets while we read", reset, recv_of(10, 2000), ERR_SOCKET_RECV, {ECONNRESET}},
      {"resets, then we send (no SIGPIPE)", reset, send_of(1 << 20, 4, 1000, 20), ERR_SOCKET_SEND,
       {EPIPE, ECONNRESET}},
      {"stops reading", nothing, send_of(32 << 20, 1, 300, 0), ERR_SOCKET_TIMEOUT, {ERR_SOCKET_TIMEOUT}},
      {"sends nothing (recv)", nothing, recv_of(4, 100), ERR_SOCKET_TIMEOUT, {ERR_SOCKET_TIMEOUT}},
      {"sends nothing (recv2)", nothing, empty_recv2(100), ERR_SOCKET_TIMEOUT, {}},
      {"closes at once (recv2)", close_after(""), empty_recv2(1000), ERR_SOCKET_CLOSED, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    RawListener raw;
    Sock s;
    ASSERT_EQ(0, socket_connect(s.get(), raw.addr().c_str()));
    int fd = raw.accept_fd();
    ASSERT_GE(fd, 0);
    c.peer(fd);
    EXPECT_EQ(c.expected, c.call(s.get()));
    const int err = socket_error(s.get());
    EXPECT_TRUE(c.errs.empty() || std::find(c.errs.begin(), c.errs.end(), err) != c.errs.end()) << "err " << err;
    if (fd >= 0) close(fd);
  }
}

// ---- logging callbacks and statistics --------------------------------------------------

TEST_F(SocketTest, LogCallbacksSeeEveryStage) {
  Sock c;
  socket_set_owner(c.get(), "client-under-test");
  EXPECT_STREQ("client-under-test", socket_get_owner(c.get()));
  watch(c.get());
  ASSERT_EQ(0, socket_connect(c.get(), listener().addr().c_str()));
  Sock a = listener().accept();
  ASSERT_TRUE(a);
  ASSERT_EQ(0, socket_send(c.get(), "ping", 4));
  ASSERT_EQ(0, socket_send(a.get(), "pong!", 5));
  char buf[8];
  ASSERT_EQ(0, socket_recv(c.get(), buf, 5, 1000));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_recv(c.get(), buf, 1, 50));
  socket_shutdown(a.get());
  EXPECT_EQ(ERR_SOCKET_CLOSED, socket_recv(c.get(), buf, 1, 1000));
  const std::vector<std::string> expected_results = {
      "connect() 0 0", "send() 0 0", "recv() 0 0", "recv() 0 " + std::to_string(EAGAIN), "recv() -7209 0"};
  EXPECT_EQ(expected_results, take_results());
  EXPECT_EQ("client-under-test", g_owner_seen);
  const std::vector<std::string> expected_buffers = {"send():4", "recv():5"};
  EXPECT_EQ(expected_buffers, g_buffers);
  socket_set_log_callbacks(c.get(), nullptr, nullptr);
}

TEST_F(SocketTest, StatisticsAreKeptByTheDispatchers) {
  Pair p = connect_pair(listener());
  ASSERT_TRUE(p.server);
  long long connected = 0;
  unsigned int in = 1, out = 1;
  ASSERT_EQ(0, socket_get_statistics(p.client.get(), &connected, &in, &out));
  EXPECT_NEAR((double)time_now(), (double)connected, 5000.0);
  EXPECT_EQ(0u, in);
  EXPECT_EQ(0u, out);
  socket_send(p.client.get(), "12345", 5);
  socket_send(p.client.get(), "abc", -1);  // the terminator counts
  socket_get_statistics(p.client.get(), nullptr, nullptr, &out);
  EXPECT_EQ(9u, out);
  char buf[32];
  // socket_recv counts what was asked for, even when less arrived.
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_recv(p.server.get(), buf, 20, 100));
  socket_get_statistics(p.server.get(), nullptr, &in, nullptr);
  EXPECT_EQ(20u, in);
  // socket_recv2 counts what it got.
  socket_send(p.client.get(), "xyz", 3);
  int len = 32;
  ASSERT_EQ(0, socket_recv2(p.server.get(), buf, &len, 1000));
  socket_get_statistics(p.server.get(), nullptr, &in, nullptr);
  EXPECT_EQ(20u + (unsigned)len, in);
  EXPECT_EQ(0u, p.client.rec()->current_send);
  EXPECT_EQ(0u, p.server.rec()->current_recv);
}

// ---- listening, registry, instrumentation ----------------------------------------------

TEST_F(SocketTest, ListenAndAcceptEdges) {
  EXPECT_EQ(nullptr, socket_accept(listener().get(), 100));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_error(listener().get()));
  EXPECT_EQ(nullptr, socket_accept(listener().get(), 0));

  const struct {
    std::string addr;
    int expected;
  } cases[] = {
      {listener().addr(), ERR_SOCKET_BIND},  // taken by the fixture's listener
      {"no such host:1", ERR_SOCKET_HOST_NOT_FOUND},
      {"127.0.0.1:70000", ERR_INVALID_PARAMETER},
  };
  for (const auto& c : cases) {
    void* srv = nullptr;
    EXPECT_EQ(c.expected, socket_listen(&srv, c.addr.c_str())) << c.addr;
    ASSERT_NE(nullptr, srv);  // kept even on failure
    EXPECT_EQ(c.expected == ERR_SOCKET_BIND ? EADDRINUSE : c.expected, static_cast<SERVER_SOCKET*>(srv)->err);
    EXPECT_EQ(0, socket_unlisten(srv));
  }
  // A listener without a descriptor.
  void* srv = nullptr;
  ASSERT_EQ(0, SOCKET_LISTEN(&srv, "127.0.0.1:0"));
  EXPECT_EQ(SOCKET_TYPE_SERVER, static_cast<SERVER_SOCKET*>(srv)->type);
  EXPECT_STREQ("127.0.0.1:0", static_cast<SERVER_SOCKET*>(srv)->laddr);
  close(static_cast<SERVER_SOCKET*>(srv)->s);
  static_cast<SERVER_SOCKET*>(srv)->s = 0;
  EXPECT_EQ(nullptr, socket_accept(srv, 10));
  EXPECT_EQ(ERR_SOCKET_NOT_LISTENING, socket_error(srv));
  socket_unlisten(srv);
}

TEST_F(SocketTest, RegistryAndInstrumentationListLiveSockets) {
  const int before = registered_sockets();
  Pair p = connect_pair(listener());
  ASSERT_TRUE(p.server);
  void* made_here = nullptr;
  const int line = __LINE__ + 1;
  ASSERT_EQ(0, SOCKET_CREATE(&made_here));
  EXPECT_EQ(before + 3, registered_sockets());

  JSON* list = nullptr;
  ASSERT_EQ(0, instrument_list(socket_instrument_handle(), &list));
  const std::string text = vektest::compact_json(list);
  json_Delete(list);
  EXPECT_NE(std::string::npos, text.find("[\"Hash\",\"Peer\",\"Sending\",\"Receiving\"]")) << text;
  EXPECT_NE(std::string::npos,
            text.find("[" + std::to_string(vektest::registry_key(p.client.get())) + ",\"" + listener().addr() + "\",0,0]"))
      << text;
  EXPECT_NE(std::string::npos, text.find("[" + std::to_string(vektest::registry_key(made_here)) + ",null,0,0]")) << text;

  socket_send(p.client.get(), "abc", 3);
  JSON* detail = nullptr;
  ASSERT_EQ(0, instrument_detail(socket_instrument_handle(), vektest::registry_key(p.client.get()), &detail));
  std::string d = vektest::compact_json(detail);
  json_Delete(detail);
  const std::string prefix = "{\"name\":\"" + listener().addr() + "\",\"created by file\":\"Backward [Line 0]\"," +
                             "\"sending\":\"0\",\"receiving\":\"0\",\"bytes in\":\"0\",\"bytes out\":\"3\"," +
                             "\"connect time\":\"";
  EXPECT_EQ(prefix, d.substr(0, prefix.size())) << d;
  EXPECT_NE(std::string::npos, d.find(" ms ago\",\"last error\":\"0\"}")) << d;

  ASSERT_EQ(0, instrument_detail(socket_instrument_handle(), vektest::registry_key(made_here), &detail));
  d = vektest::compact_json(detail);
  json_Delete(detail);
  EXPECT_NE(std::string::npos, d.find("\"created by file\":\"" + std::string(__FILE__) + " [Line " +
                                      std::to_string(line) + "]\""))
      << d;
  socket_delete(made_here);
  EXPECT_EQ(ERR_NOT_FOUND, instrument_detail(socket_instrument_handle(), vektest::registry_key(made_here), &detail));
  EXPECT_EQ(before + 2, registered_sockets());
}

// ---- address helpers, select, queues ---------------------------------------------------

TEST_F(SocketTest, AddressHelpers) {
  const struct {
    const char* text;
    const char* ip;  // nullptr: refused
    int port;
  } cases[] = {
      {"127.0.0.1:8080", "127.0.0.1", 8080}, {"localhost", "127.0.0.1", 0},  {"localhost:65535", "127.0.0.1", 65535},
      {"10.1.2.3:1", "10.1.2.3", 1},         {"127.1:22", "127.0.0.1", 22},  {"bad_host!:1", nullptr, 0},
      {"x.invalid", nullptr, 0},
  };
  for (const auto& c : cases) {
    char writable[64];
    std::snprintf(writable, sizeof writable, "%s", c.text);
    sockaddr_in sin;
    const int rc = make_addr(writable, &sin);
    EXPECT_STREQ(c.text, writable);  // the caller's text is left as it was
    if (!c.ip) {
      EXPECT_EQ(ERR_SOCKET_HOST_NOT_FOUND, rc) << c.text;
      continue;
    }
    ASSERT_EQ(0, rc) << c.text;
    EXPECT_EQ(AF_INET, sin.sin_family);
    EXPECT_EQ(c.port, ntohs(sin.sin_port)) << c.text;
    char* s = make_string_from_addr(&sin);
    EXPECT_EQ(std::string(c.ip) + ":" + std::to_string(c.port), vektest::take_text(s));
    char* ip = nullptr;
    ASSERT_EQ(0, inet_host2ip(c.text, &ip));
    EXPECT_EQ(c.ip, vektest::take_text(ip));
  }
  unsigned int n = 0;
  ASSERT_EQ(0, host2int("127.0.0.2", &n));
  EXPECT_EQ(0x7F000002u, n);
  ASSERT_EQ(0, inet_host2int("localhost", &n));
  EXPECT_EQ(0x7F000001u, n);
  char* ip = nullptr;
  EXPECT_EQ(ERR_SOCKET_HOST_NOT_FOUND, inet_host2ip("nowhere.invalid:80", &ip));
  EXPECT_EQ(nullptr, ip);
  ASSERT_EQ(0, inet_adapter_get_ip("lo", &ip));
  EXPECT_EQ("127.0.0.1", vektest::take_text(ip));
  EXPECT_EQ(ERR_SYSTEM, inet_adapter_get_ip("vekno0", &ip));
  EXPECT_EQ(nullptr, ip);
  char name[256] = {};
  gethostname(name, sizeof name - 1);
  ASSERT_NE(nullptr, socket_get_hostname());
  EXPECT_STREQ(name, socket_get_hostname());
}

TEST_F(SocketTest, SelectOverTheCallersSets) {
  EXPECT_EQ(1024, socket_get_fd_setsize());
  Pair p = connect_pair(listener());
  ASSERT_TRUE(p.server);
  const int fd = socket_descriptor(p.server.get());
  ASSERT_LT(fd, 1024);
  fd_set rd;
  FD_ZERO(&rd);
  FD_SET(fd, &rd);
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_select(fd, &rd, nullptr, nullptr, 50));
  socket_send(p.client.get(), "x", 1);
  FD_ZERO(&rd);
  FD_SET(fd, &rd);
  EXPECT_EQ(1, socket_select(fd, &rd, nullptr, nullptr, 1000));
  EXPECT_TRUE(FD_ISSET(fd, &rd));
  // Descriptors that do not fit in an fd_set are refused.
  EXPECT_EQ(ERR_INVALID_PARAMETER, socket_select(1024, &rd, nullptr, nullptr, 10));
  EXPECT_EQ(ERR_INVALID_PARAMETER, socket_select(-2, &rd, nullptr, nullptr, 10));

  int recvq = -1, sendq = -1;
  for (int i = 0; i < 100 && recvq != 1; ++i) socket_check_queues(p.server.get(), &recvq, &sendq);
  EXPECT_EQ(1, recvq);
  EXPECT_EQ(0, sendq);
  EXPECT_EQ(0, socket_set_io_queues(p.server.get(), 8192, -1));
  EXPECT_EQ(0, socket_set_io_queues(p.server.get(), -1, 8192));
}

TEST_F(SocketTest, CloseReconnectAndDelete) {
  vektest::LogCapture log;
  Sock c;
  ASSERT_EQ(0, socket_connect(c.get(), listener().addr().c_str()));
  Sock first = listener().accept();
  ASSERT_TRUE(first);
  EXPECT_EQ(0, socket_close(c.get()));
  EXPECT_EQ(0, socket_isopen(c.get()));
  EXPECT_EQ(ERR_SOCKET_NOT_OPEN, socket_close(c.get()));
  EXPECT_TRUE(log.contains("socket_close(Backward:0): failed[socket is zero]\n")) << log.text();
  // The close reset the connection (linger 0).
  char buf[1];
  EXPECT_EQ(ERR_SOCKET_RECV, socket_recv(first.get(), buf, 1, 1000));
  EXPECT_EQ(ECONNRESET, socket_error(first.get()));

  ASSERT_EQ(0, socket_reconnect(c.get()));
  EXPECT_EQ(listener().addr(), socket_peer(c.get()));
  Sock second = listener().accept();
  ASSERT_TRUE(second);
  EXPECT_EQ(0, socket_send(c.get(), "again", 5));
  char again[5];
  EXPECT_EQ(0, socket_recv(second.get(), again, 5, 1000));
  // Connecting an open socket closes the old connection first.
  ASSERT_EQ(0, socket_connect(c.get(), listener().addr().c_str()));
  Sock third = listener().accept();
  ASSERT_TRUE(third);
  EXPECT_EQ(ERR_SOCKET_RECV, socket_recv(second.get(), buf, 1, 1000));
}

// Listen, create, connect, accept, secure both ends, one message each way and
// the local address: whichever allocation fails, the step gives ERR_NO_MEMORY
// (a socket handed out is a registered one), and once the caller has deleted
// what it got nothing is left behind.
bool whole_exchange() {
  const unsigned char key[16] = {}, iv[16] = {};
  void *server = nullptr, *client = nullptr, *accepted = nullptr;
  char* local = nullptr;
  char line[8] = {};
  const int before = registered_sockets();
  int rc = socket_listen(&server, "127.0.0.1:0");
  if (rc == 0) rc = socket_create(&client);
  EXPECT_TRUE(rc == 0 ? registered_sockets() == before + 1 : client == nullptr) << "a socket handed out unregistered";
  const std::string addr = rc == 0 ? loopback(local_port(static_cast<SERVER_SOCKET*>(server)->s)) : "";
  if (rc == 0) rc = socket_connect_ex(client, addr.c_str(), 2000);
  if (rc == 0 && !(accepted = socket_accept(server, 2000))) rc = socket_error(server);
  EXPECT_TRUE(rc != 0 || registered_sockets() == before + 2) << "an accepted socket missing from the registry";
  if (rc == 0) rc = stcp_morph(client, key, iv, 128);
  if (rc == 0) rc = stcp_morph(accepted, key, iv, 128);
  if (rc == 0) {
    EXPECT_EQ(0, socket_send(client, "ping\n", 5));
    EXPECT_EQ(0, socket_recv(accepted, line, 5, 2000));
    EXPECT_EQ(0, socket_send(accepted, "pong\n", 5));
    EXPECT_EQ(0, socket_recv(client, line, 5, 2000));
    EXPECT_STREQ("pong\n", line);
    rc = socket_local_address(accepted, &local);
  }
  EXPECT_TRUE(rc == 0 || rc == ERR_NO_MEMORY) << rc;
  if (local) _vekFree(local, __FILE__, __LINE__);
  if (accepted) socket_delete(accepted);
  if (client) socket_delete(client);
  if (server) socket_unlisten(server);
  return rc == 0;
}

TEST_F(SocketTest, AllocationFailuresLeaveNothingBehind) { vektest::for_each_allocation_failure(whole_exchange); }

}  // namespace
