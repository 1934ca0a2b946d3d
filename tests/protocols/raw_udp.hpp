// A plain POSIX UDP socket on loopback for the protocol tests: it receives
// what the library sends, byte for byte, and sends raw datagrams to it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "peer.hpp"

namespace vektest {

class RawUdp {
 public:
  // Bound to 127.0.0.1 on a port the system picks, with a large receive queue.
  RawUdp() {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int queue = 4 * 1024 * 1024;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &queue, sizeof queue);
    sockaddr_in addr = loopback_sockaddr(0);
    socklen_t size = sizeof addr;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &size) == 0)
      port_ = ntohs(addr.sin_port);
  }
  ~RawUdp() {
    if (fd_ >= 0) close(fd_);
  }
  RawUdp(const RawUdp&) = delete;
  RawUdp& operator=(const RawUdp&) = delete;

  int port() const { return port_; }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

  // The next datagram, or nothing after timeout_ms.
  std::optional<std::string> receive(int timeout_ms = 2000) const {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return std::nullopt;
    std::string data(65536, '\0');
    const ssize_t n = recv(fd_, data.data(), data.size(), 0);
    if (n < 0) return std::nullopt;
    data.resize(static_cast<size_t>(n));
    return data;
  }

  bool send_to(int port, const std::string& data) const {
    sockaddr_in addr = loopback_sockaddr(port);
    return sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr) ==
           static_cast<ssize_t>(data.size());
  }

 private:
  int fd_ = -1;
  int port_ = -1;
};

// Sanitizer builds run the heavy loops with fewer rounds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

}  // namespace vektest
