// Datagram sockets: the library on both ends, a Python peer, and refusals.
#include <functional>

#include "net_test_util.hpp"
#include "vek_test.hpp"

namespace {

using namespace nettest;

class UdpTest : public vektest::LeakCheckedTest {};

// A UDP handle deleted at the end of the scope.
struct Udp {
  void* h = nullptr;
  Udp() { udp_create(&h); }
  ~Udp() { udp_delete(h); }
  int port() const { return local_port(udp_descriptor(h)); }
};

TEST_F(UdpTest, RefusedCallsGiveResultCodes) {
  Udp unopened;
  char buf[8];
  int len = 8;
  int too_long = 65536;
  int negative = -1;
  char* from = nullptr;
  const struct {
    const char* what;
    int expected;
    std::function<int()> call;
  } cases[] = {
      {"create NULL", ERR_INVALID_HANDLE, [] { return udp_create(nullptr); }},
      {"send NULL", ERR_INVALID_HANDLE, [] { return udp_send(nullptr, "x", 1, "127.0.0.1:9"); }},
      {"recv2 NULL", ERR_INVALID_HANDLE, [&] { return udp_recv2(nullptr, buf, &len, nullptr, 1); }},
      {"delete NULL", ERR_INVALID_HANDLE, [] { return udp_delete(nullptr); }},
      {"descriptor NULL", ERR_INVALID_HANDLE, [] { return udp_descriptor(nullptr); }},
      {"isopen NULL", 0, [] { return udp_isopen(nullptr); }},
      {"send NULL data", ERR_INVALID_PARAMETER, [&] { return udp_send(unopened.h, nullptr, 1, "127.0.0.1:9"); }},
      {"send NULL addr", ERR_INVALID_PARAMETER, [&] { return udp_send(unopened.h, "x", 1, nullptr); }},
      {"send length -2", ERR_INVALID_PARAMETER, [&] { return udp_send(unopened.h, "x", -2, "127.0.0.1:9"); }},
      {"recv NULL data", ERR_INVALID_PARAMETER, [&] { return udp_recv(unopened.h, nullptr, &len, nullptr); }},
      {"recv NULL length", ERR_INVALID_PARAMETER, [&] { return udp_recv(unopened.h, buf, nullptr, nullptr); }},
      {"recv length -1", ERR_INVALID_PARAMETER, [&] { return udp_recv(unopened.h, buf, &negative, nullptr); }},
      {"recv 65536", ERR_UDP_TOO_LARGE, [&] { return udp_recv(unopened.h, buf, &too_long, nullptr); }},
      {"recv2 65536", ERR_UDP_TOO_LARGE, [&] { return udp_recv2(unopened.h, buf, &too_long, nullptr, 1); }},
      {"peek 65536", ERR_UDP_TOO_LARGE, [&] { return udp_peek(unopened.h, buf, &too_long, nullptr); }},
      {"close unopened", 0, [&] { return udp_close(unopened.h); }},
      {"isopen unopened", 0, [&] { return udp_isopen(unopened.h); }},
      {"bind unresolvable", ERR_SOCKET_HOST_NOT_FOUND, [&] { return udp_bind(unopened.h, "no such host:1"); }},
      {"bind bad port", ERR_INVALID_PARAMETER, [&] { return udp_bind(unopened.h, "127.0.0.1:65536"); }},
      {"failed bind closed its descriptor", 0, [&] { return udp_descriptor(unopened.h); }},
  };
  for (const auto& c : cases) EXPECT_EQ(c.expected, c.call()) << c.what;
  const int null_handle[] = {udp_open(nullptr), udp_bind(nullptr, "127.0.0.1:0"), udp_enable_broadcast(nullptr),
                             udp_recv(nullptr, buf, &len, nullptr), udp_peek(nullptr, buf, &len, nullptr),
                             udp_close(nullptr), udp_error(nullptr)};
  for (const int& rc : null_handle) EXPECT_EQ(ERR_INVALID_HANDLE, rc) << "null handle, call " << &rc - null_handle;
  EXPECT_EQ(nullptr, from);
}

TEST_F(UdpTest, LibraryOnBothEnds) {
  Udp rx, tx;
  ASSERT_EQ(0, udp_bind(rx.h, "127.0.0.1:0"));
  ASSERT_EQ(0, udp_open(tx.h));
  EXPECT_EQ(1, udp_isopen(tx.h));
  EXPECT_EQ(0, udp_enable_broadcast(tx.h));
  const std::string to = loopback(rx.port());

  // Nothing yet: the timed receive gives up.
  char buf[UDP_MAX_DATAGRAM];
  int len = sizeof buf;
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, udp_recv2(rx.h, buf, &len, nullptr, 100));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, udp_error(rx.h));

  // A text with length -1 carries its terminator.
  ASSERT_EQ(0, udp_send(tx.h, "hello", -1, to.c_str()));
  char* from = nullptr;
  len = sizeof buf;
  ASSERT_EQ(6, udp_peek(rx.h, buf, &len, &from));
  EXPECT_EQ(6, len);
  EXPECT_EQ(loopback(local_port(udp_descriptor(tx.h))), vektest::take_text(from));
  // Peeking leaves it queued: the receive returns it again.
  len = sizeof buf;
  ASSERT_EQ(6, udp_recv2(rx.h, buf, &len, &from, 1000));
  EXPECT_STREQ("hello", buf);
  vektest::take_text(from);

  // The largest datagram passes; one byte more is refused unsent.
  const std::string biggest = pattern(65507);  // the most IPv4 carries
  ASSERT_EQ(0, udp_send(tx.h, biggest.data(), (int)biggest.size(), to.c_str()));
  len = sizeof buf;
  ASSERT_EQ((int)biggest.size(), udp_recv(rx.h, buf, &len, nullptr));
  EXPECT_TRUE(std::string(buf, (size_t)len) == biggest);
  const std::string too_big(65536, 'x');
  EXPECT_EQ(ERR_UDP_TOO_LARGE, udp_send(tx.h, too_big.data(), 65536, to.c_str()));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, udp_recv2(rx.h, buf, &len, nullptr, 50));

  EXPECT_EQ(ERR_SOCKET_HOST_NOT_FOUND, udp_send(tx.h, "x", 1, "nowhere.invalid:9"));
  EXPECT_EQ(ERR_SOCKET_HOST_NOT_FOUND, udp_error(tx.h));
  // An empty datagram is "nothing sent".
  EXPECT_EQ(ERR_SOCKET_SEND, udp_send(tx.h, "", 0, to.c_str()));

  EXPECT_EQ(0, udp_close(tx.h));
  EXPECT_EQ(0, udp_isopen(tx.h));
  // Sending on a closed record fails with the system's reason.
  EXPECT_EQ(ERR_SOCKET_SEND, udp_send(tx.h, "x", 1, to.c_str()));
  // A failed receive is the system's -1, and the sender text is still made.
  len = 8;
  from = nullptr;
  EXPECT_EQ(-1, udp_recv(tx.h, buf, &len, &from));
  EXPECT_EQ(-1, len);
  EXPECT_EQ("0.0.0.0:0", vektest::take_text(from));
}

TEST_F(UdpTest, PythonPeerBothWays) {
  if (!vektest::have_program("python3")) GTEST_SKIP() << "python3 missing";
  Udp rx, tx;
  ASSERT_EQ(0, udp_bind(rx.h, "127.0.0.1:0"));
  ASSERT_EQ(0, udp_open(tx.h));
  // The peer sends one datagram to rx, then echoes the first one it gets.
  const std::string script =
      "import socket,sys\n"
      "s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(('127.0.0.1', 0))\n"
      "s.sendto(b'from python', ('127.0.0.1', int(sys.argv[1])))\n"
      "s.settimeout(10)\n"
      "d,a=s.recvfrom(65535); s.sendto(d.upper(), a)\n";
  vektest::PeerProcess py;
  ASSERT_TRUE(py.start({"python3", "-c", script, std::to_string(rx.port())}));
  char buf[256];
  int len = sizeof buf;
  char* from = nullptr;
  ASSERT_EQ(11, udp_recv2(rx.h, buf, &len, &from, 10000));
  EXPECT_EQ("from python", std::string(buf, (size_t)len));
  const std::string python_addr = vektest::take_text(from);
  ASSERT_EQ(0, udp_send(rx.h, "echo me", 7, python_addr.c_str()));
  len = sizeof buf;
  ASSERT_EQ(7, udp_recv2(rx.h, buf, &len, nullptr, 10000));
  EXPECT_EQ("ECHO ME", std::string(buf, (size_t)len));
  EXPECT_TRUE(py.wait_exit(5000));
}

}  // namespace
