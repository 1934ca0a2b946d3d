// Demo section "asynchronous sockets": an echo server on loopback whose
// listening socket is served by the default acceptor and whose clients are
// served by the default receiver. Three clients greet it; while they are
// connected the socket registry is listed as JSON.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <vekutil/instrument.h>
#include <vekutil/vekutil.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "command.hpp"

namespace {

constexpr int kClients = 3;
constexpr int kReplyWaitMs = 5000;

std::atomic<int> g_echoed_bytes{0};

// Receiver callback: echoes what arrived; the end of the stream, an error or
// the worker's deletion destroys the server's end of the connection.
int echo_client(int status, void* socket, void*) {
  if (status != 0) return SOCKET_ASYNC_DESTROY;
  char buf[512];
  int len = sizeof buf;
  if (socket_recv2(socket, buf, &len, 0) != 0) return SOCKET_ASYNC_DESTROY;
  g_echoed_bytes += len;
  return socket_send2(socket, buf, len, 0) == 0 ? SOCKET_ASYNC_KEEP : SOCKET_ASYNC_DESTROY;
}

// Acceptor callback: takes one waiting client and hands it to the receiver.
int accept_client(int status, void* server, void*) {
  if (status != 0) return SOCKET_ASYNC_END;  // the listener belongs to the demo
  void* client = socket_accept(server, 0);
  if (client && socket_async_recv_begin(client, 30000, echo_client, nullptr) != 0) socket_delete(client);
  return SOCKET_ASYNC_KEEP;
}

int listening_port(void* server) {
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  if (getsockname(socket_descriptor(server), reinterpret_cast<sockaddr*>(&addr), &len) != 0) return -1;
  return ntohs(addr.sin_port);
}

// Connects, sends a greeting and waits for its echo; prints the round trip.
bool greet(void* client, const char* address, int n) {
  char greeting[32];
  std::snprintf(greeting, sizeof greeting, "hello from client %d", n);
  int len = (int)std::strlen(greeting);
  char echo[32] = {};
  bool ok = socket_connect(client, address) == 0 && socket_send(client, greeting, len) == 0 &&
            socket_recv(client, echo, len, kReplyWaitMs) == 0;
  std::printf("  client %d sent \"%s\", got back \"%s\"\n", n, greeting, ok ? echo : "(nothing)");
  return ok && std::memcmp(greeting, echo, (size_t)len) == 0;
}

void list_registry() {
  JSON* json = nullptr;
  if (instrument_list(socket_instrument_handle(), &json) != 0 || !json) return;
  char* text = json_PrintUnformatted(json);
  std::printf("  socket registry: %s\n", text ? text : "(none)");
  _vekFree(text, __FILE__, __LINE__);
  json_Delete(json);
}

int demo_async_sockets() {
  void* server = nullptr;
  if (socket_listen(&server, "127.0.0.1:0") != 0) {
    if (server) socket_unlisten(server);
    return 1;
  }
  char address[32];
  std::snprintf(address, sizeof address, "127.0.0.1:%d", listening_port(server));
  bool ok =
      socket_async_default_init(64, 0, 100) == 0 && socket_async_accept_begin(server, 0, accept_client, nullptr) == 0;
  std::printf("  echo server on %s: listener on \"Default Acceptor\", clients on \"Default Receiver\"\n", address);

  void* clients[kClients] = {};
  for (int i = 0; ok && i < kClients; ++i) ok = socket_create(&clients[i]) == 0 && greet(clients[i], address, i + 1);
  if (ok) list_registry();

  for (void* client : clients)
    if (client) socket_delete(client);
  socket_async_accept_end(server);
  socket_async_default_uninit();  // server ends still registered are destroyed by their callbacks
  socket_unlisten(server);
  std::printf("  echoed %d bytes; after shutdown %d sockets are left\n", g_echoed_bytes.load(),
              instrument_count(socket_instrument_handle()));
  return ok && instrument_count(socket_instrument_handle()) == 0 ? 0 : 1;
}

vektool::DemoRegistrar demo_section{{"asynchronous sockets", 82, demo_async_sockets}};

}  // namespace
