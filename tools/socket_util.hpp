// Socket helpers shared by the tool's network commands.
#pragma once

#include <unistd.h>

#include <cstring>
#include <string>

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

struct ProxyUrl {
  int type = SOCKET_PROXY_NONE;
  std::string addr;  // host:port
  std::string user;  // empty: no authentication
  std::string pass;
};

// "http|socks4|socks4a|socks5://[USER:PASS@]HOST:PORT[/]" into *proxy;
// false if malformed.
inline bool parse_proxy_url(const std::string& text, ProxyUrl* proxy) {
  static const std::pair<const char*, int> kSchemes[] = {{"http://", SOCKET_PROXY_HTTP},
                                                         {"socks4://", SOCKET_PROXY_SOCKS4},
                                                         {"socks4a://", SOCKET_PROXY_SOCKS4A},
                                                         {"socks5://", SOCKET_PROXY_SOCKS5}};
  for (const auto& [scheme, type] : kSchemes) {
    if (text.rfind(scheme, 0) != 0) continue;
    std::string rest = text.substr(std::strlen(scheme));
    if (!rest.empty() && rest.back() == '/') rest.pop_back();
    const size_t at = rest.rfind('@');
    if (at != std::string::npos) {
      const std::string credentials = rest.substr(0, at);
      const size_t colon = credentials.find(':');
      proxy->user = credentials.substr(0, colon);
      proxy->pass = colon == std::string::npos ? "" : credentials.substr(colon + 1);
      rest = rest.substr(at + 1);
    }
    if (rest.find(':') == std::string::npos || rest.find('/') != std::string::npos) return false;
    proxy->addr = rest;
    proxy->type = type;
    return true;
  }
  return false;
}

}  // namespace vektool
