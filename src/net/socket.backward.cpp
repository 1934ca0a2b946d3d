// Socket entry points without a source position: they pass "Backward", 0.
#include <vekutil/socket.h>

int socket_create(void** handle) { return _socket_create(handle, VEK_BACKWARD_FILE, 0); }

int socket_listen(void** server_handle, const char* addr) {
  return _socket_listen(server_handle, addr, VEK_BACKWARD_FILE, 0);
}
