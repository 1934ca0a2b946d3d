// ctest-labels: tsan
// Sockets under load: many connect/accept/close cycles, more than 1024
// descriptors open at once, and one socket used by a sender, a receiver and
// the instrumentation renderer at the same time.
#include <sys/select.h>

#include "net_test_util.hpp"
#include "vek_test.hpp"

namespace {

using namespace nettest;

class SocketStressTest : public vektest::LeakCheckedTest {};

TEST_F(SocketStressTest, ConnectAcceptCloseCycles) {
  Listener l;
  ASSERT_EQ(0, l.rc());
  const std::string addr = l.addr();
  const int registered = registered_sockets();
  const int cycles = scaled(10000);
  int failures = 0;
  for (int i = 0; i < cycles && failures == 0; ++i) {
    void* c = nullptr;
    socket_create(&c);
    if (socket_connect_ex(c, addr.c_str(), 2000) != 0) ++failures;
    void* a = socket_accept(l.get(), 2000);
    if (!a) ++failures;
    // The client goes first: its close resets, so no side keeps a TIME_WAIT.
    socket_delete(c);
    if (a) socket_delete(a);
  }
  EXPECT_EQ(0, failures);
  EXPECT_EQ(registered, registered_sockets());
}

TEST_F(SocketStressTest, ElevenHundredSocketsWithDescriptorsAbove1024) {
  constexpr int kSockets = 1100;
  DescriptorLimit limit(2 * kSockets + 64);
  if (!limit.ok()) GTEST_SKIP() << "the hard descriptor limit is too low";
  Listener l;
  ASSERT_EQ(0, l.rc());
  std::vector<Sock> clients, accepted;
  for (int i = 0; i < kSockets; ++i) {
    clients.emplace_back();
    ASSERT_EQ(0, socket_connect(clients.back().get(), l.addr().c_str())) << i;
    accepted.push_back(l.accept());
    ASSERT_TRUE(accepted.back()) << i;
  }
  ASSERT_GT(socket_descriptor(accepted.back().get()), 2048);

  // Time-outs and transfers on the highest descriptors.
  int checked = 0;
  for (int i = kSockets - 1; i >= 0 && checked < 8; --i) {
    void* c = clients[i].get();
    void* a = accepted[i].get();
    if (socket_descriptor(a) < 1024 || socket_descriptor(c) < 1024) continue;
    char buf[64];
    EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_recv(a, buf, 1, 20));
    int len = sizeof buf;
    EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_recv2(c, buf, &len, 20));
    const std::string msg = "high descriptor " + std::to_string(socket_descriptor(a));
    EXPECT_EQ(0, socket_send2(c, msg.c_str(), -1, 1000));
    EXPECT_EQ(0, socket_recv(a, buf, (int)msg.size() + 1, 1000));
    EXPECT_EQ(msg, buf);
    // A peer that stops reading: the send times out instead of hanging.
    if (checked == 0) {
      const std::string big = pattern(16 << 20);
      EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_send2(a, big.data(), (int)big.size(), 100));
    }
    fd_set set;
    FD_ZERO(&set);
    EXPECT_EQ(ERR_INVALID_PARAMETER, socket_select(socket_descriptor(a), &set, nullptr, nullptr, 0));
    ++checked;
  }
  EXPECT_EQ(8, checked);
  // The connect path on a high descriptor, too.
  Sock extra;
  ASSERT_EQ(0, socket_connect_ex(extra.get(), l.addr().c_str(), 1000));
  EXPECT_GT(socket_descriptor(extra.get()), 1024);
  Sock extra_accepted = l.accept();
  EXPECT_TRUE(extra_accepted);
  // Clients first: their reset drops what the accepted ends still hold to
  // send, so closing those does not linger.
  clients.clear();
}

void ignore_row(const void*, void*) {}

TEST_F(SocketStressTest, SenderReceiverAndRendererShareOneSocket) {
  Listener l;
  ASSERT_EQ(0, l.rc());
  Pair p = connect_pair(l);
  ASSERT_TRUE(p.server);
  const int rounds = scaled(2000, 10);
  std::atomic<bool> done{false};
  std::thread renderer([&] {
    while (!done) {
      JSON* json = nullptr;
      if (instrument_list(socket_instrument_handle(), &json) == 0) json_Delete(json);
      json = nullptr;
      if (instrument_detail(socket_instrument_handle(), vektest::registry_key(p.client.get()), &json) == 0)
        json_Delete(json);
      socket_foreach(ignore_row, nullptr);
    }
  });
  // One thread sends on the client while another receives on it (echoed by
  // the server end in a third).
  std::thread echo([&] {
    char buf[100];
    for (int i = 0; i < rounds; ++i) {
      if (socket_recv(p.server.get(), buf, 100, 5000) != 0) break;
      if (socket_send2(p.server.get(), buf, 100, 5000) != 0) break;
    }
  });
  std::thread sender([&] {
    const std::string msg = pattern(100);
    for (int i = 0; i < rounds; ++i)
      if (socket_send2(p.client.get(), msg.data(), 100, 5000) != 0) break;
  });
  int received = 0;
  char buf[100];
  for (int i = 0; i < rounds; ++i)
    if (socket_recv(p.client.get(), buf, 100, 5000) == 0) ++received;
  sender.join();
  echo.join();
  done = true;
  renderer.join();
  EXPECT_EQ(rounds, received);
  unsigned int in = 0, out = 0;
  socket_get_statistics(p.client.get(), nullptr, &in, &out);
  EXPECT_EQ(100u * rounds, in);
  EXPECT_EQ(100u * rounds, out);
}

}  // namespace
