// Loopback helpers shared by the benchmarks that start peer servers.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace vekbench {

inline sockaddr_in loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

// A TCP port the system hands out on 127.0.0.1 (bound to 0, then released).
inline int free_port() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = loopback(0);
  socklen_t len = sizeof a;
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

// A connected descriptor to 127.0.0.1:port, or -1.
inline int connect_loopback(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in a = loopback(port);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// True once something accepts on 127.0.0.1:port.
inline bool accepts(int port) {
  const int fd = connect_loopback(port);
  if (fd >= 0) close(fd);
  return fd >= 0;
}

}  // namespace vekbench
