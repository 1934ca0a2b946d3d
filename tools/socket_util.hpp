// Socket helpers shared by the tool's network commands.
#pragma once

#include <unistd.h>

#include <vekutil/socket.h>

namespace vektool {

// Connected sockets close with a zero linger, which resets the connection and
// drops whatever the kernel has not sent yet: wait (at most timeout ms) until
// the peer has taken everything, then delete the socket.
inline void drain_then_delete(void* sock, int timeout) {
  for (int waited = 0; waited < timeout; waited += 10) {
    int unsent = 0;
    if (socket_check_queues(sock, nullptr, &unsent) != 0 || unsent == 0) break;
    usleep(10000);
  }
  socket_delete(sock);
}

}  // namespace vektool
