// Socket create, listen, connect and accept with their 1st, 2nd, ...
// allocation failing: each gives its documented failure result and once the
// caller has deleted what it got, nothing is left behind.
#include <string>

#include <vekutil/vekutil.h>

#include "alloc_failure.hpp"
#include "net_test_util.hpp"
#include "vek_test.hpp"

namespace {

using vektest::for_each_allocation_failure;

class NetAllocFailureTest : public vektest::AllocFailureFixture {
 protected:
  // The registry and the instrumentation handle are made on first use and
  // kept for the process: make them before any count is taken.
  static void SetUpTestSuite() {
    void* warm = nullptr;
    if (socket_create(&warm) == 0) socket_delete(warm);
    socket_instrument_handle();
  }
};

TEST_F(NetAllocFailureTest, SocketCreate) {
  for_each_allocation_failure([] {
    void* socket = nullptr;
    int rc = socket_create(&socket);
    if (rc != 0) {
      EXPECT_EQ(ERR_NO_MEMORY, rc);
      EXPECT_EQ(nullptr, socket);
      return false;
    }
    // Whatever failed on the way, a socket handed out is a registered one.
    struct Search {
      void* wanted;
      bool found;
    } search{socket, false};
    socket_foreach([](const void* elem, void* custom) {
      auto* s = static_cast<Search*>(custom);
      if (elem == s->wanted) s->found = true;
    }, &search);
    EXPECT_TRUE(search.found) << "a socket missing from the registry";
    socket_delete(socket);
    return true;
  });
}

// One whole exchange: listen on a port the system picks, connect, accept,
// one line each way.
bool listen_connect_accept() {
  void* server = nullptr;
  int rc = socket_listen(&server, "127.0.0.1:0");
  if (rc != 0) {
    EXPECT_EQ(ERR_NO_MEMORY, rc);
    if (server) socket_unlisten(server);
    return false;
  }
  std::string address = nettest::loopback(nettest::local_port(static_cast<SERVER_SOCKET*>(server)->s));

  bool ok = false;
  void* client = nullptr;
  rc = socket_create(&client);
  if (rc != 0) {
    EXPECT_EQ(ERR_NO_MEMORY, rc);
  } else if ((rc = socket_connect_ex(client, address.c_str(), 2000)) != 0) {
    EXPECT_EQ(ERR_NO_MEMORY, rc);
  } else {
    void* accepted = socket_accept(server, 2000);
    if (!accepted) {
      EXPECT_EQ(ERR_NO_MEMORY, socket_error(server));
    } else {
      char line[8] = {};  // whole buffers move: 0 on success
      EXPECT_EQ(0, socket_send(client, "ping\n", 5));
      EXPECT_EQ(0, socket_recv(accepted, line, 5, 2000));
      EXPECT_EQ(0, socket_send(accepted, "pong\n", 5));
      EXPECT_EQ(0, socket_recv(client, line, 5, 2000));
      EXPECT_EQ(std::string("pong\n"), line);
      ok = true;
      socket_delete(accepted);
    }
  }
  if (client) socket_delete(client);
  socket_unlisten(server);
  return ok;
}

TEST_F(NetAllocFailureTest, ListenConnectAccept) { for_each_allocation_failure(listen_connect_accept); }

}  // namespace
