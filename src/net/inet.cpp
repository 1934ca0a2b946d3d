// IPv4 address helpers: "host[:port]" texts, name lookups, interface
// addresses.
//
// Lookups go through getaddrinfo (first IPv4 address, as gethostbyname would
// give) because it is safe to call from several threads at once. Names that
// cannot be host names are refused without asking the resolver, so a typo
// never turns into a query on the network.
#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <vekutil/inet.h>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/inet.c";
constexpr size_t kMaxHostName = 253;
constexpr size_t kMaxLabel = 63;
constexpr int kAddrTextSize = 24;  // "255.255.255.255:65535" and the terminator
constexpr size_t kMaxInterfaceName = IFNAMSIZ - 1;

bool is_host_char(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
         c == '.';
}

bool ends_with_ci(const char* s, size_t n, const char* suffix) {
  const size_t m = std::strlen(suffix);
  return n >= m && strncasecmp(s + n - m, suffix, m) == 0;
}

// A text the resolver could know: letters, digits, '-', '_' and '.', labels
// of 1 to 63 characters, 253 in all. Names under "invalid" never resolve.
bool plausible_host_name(const char* host) {
  const size_t n = std::strlen(host);
  if (n == 0 || n > kMaxHostName) return false;
  size_t label = 0;
  for (size_t i = 0; i < n; ++i) {
    if (!is_host_char(host[i])) return false;
    if (host[i] == '.') {
      if (label == 0 && i + 1 < n) return false;
      label = 0;
    } else if (++label > kMaxLabel) {
      return false;
    }
  }
  return !ends_with_ci(host, n, ".invalid") && !ends_with_ci(host, n, ".invalid.") && strcasecmp(host, "invalid") != 0;
}

int lookup(const char* host, struct in_addr* addr) {
  if (inet_aton(host, addr) != 0) return 0;
  if (!plausible_host_name(host)) return ERR_SOCKET_HOST_NOT_FOUND;
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* found = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &found) != 0 || !found) return ERR_SOCKET_HOST_NOT_FOUND;
  *addr = reinterpret_cast<struct sockaddr_in*>(found->ai_addr)->sin_addr;
  freeaddrinfo(found);
  return 0;
}

// The decimal port after the ':': 1 to 5 digits, at most 65535.
bool parse_port(const char* text, unsigned short* port) {
  unsigned long value = 0;
  size_t digits = 0;
  for (; text[digits]; ++digits) {
    if (text[digits] < '0' || text[digits] > '9' || digits == 5) return false;
    value = value * 10 + (unsigned long)(text[digits] - '0');
  }
  if (digits == 0 || value > 65535) return false;
  *port = (unsigned short)value;
  return true;
}

char* new_text(const char* text) {
  const size_t n = std::strlen(text) + 1;
  char* copy = static_cast<char*>(_vekMalloc(n, kSource, __LINE__));
  if (copy) std::memcpy(copy, text, n);
  return copy;
}

}  // namespace

int host2addr(const char* host, struct in_addr* addr) {
  if (!host || !addr) return ERR_SOCKET_HOST_NOT_FOUND;
  return lookup(host, addr);
}

int host2int(const char* host, unsigned int* network_number) {
  struct in_addr addr;
  if (!network_number || host2addr(host, &addr) != 0) return ERR_SOCKET_HOST_NOT_FOUND;
  *network_number = ntohl(addr.s_addr);
  return 0;
}

int inet_host2int(const char* host, unsigned int* network_number) { return host2int(host, network_number); }

// The host part is looked up from a copy, so the caller's text is never
// written to (it may be a literal or shared between threads).
int make_addr(const char* addr, struct sockaddr_in* sin) {
  if (!addr || !sin) return ERR_INVALID_PARAMETER;
  std::memset(sin, 0, sizeof(*sin));
  sin->sin_family = AF_INET;
  const char* colon = std::strchr(addr, ':');
  const size_t host_len = colon ? (size_t)(colon - addr) : std::strlen(addr);
  if (host_len > kMaxHostName) return ERR_SOCKET_HOST_NOT_FOUND;
  char host[kMaxHostName + 1];
  std::memcpy(host, addr, host_len);
  host[host_len] = '\0';
  unsigned short port = 0;
  if (colon && !parse_port(colon + 1, &port)) return ERR_INVALID_PARAMETER;
  int rc = host2addr(host, &sin->sin_addr);
  if (rc != 0) return rc;
  sin->sin_port = htons(port);
  return 0;
}

int inet_host2ip(const char* host, char** ip_address) {
  if (!host || !ip_address) return ERR_INVALID_PARAMETER;
  *ip_address = nullptr;
  struct sockaddr_in sin;
  int rc = make_addr(host, &sin);
  if (rc != 0) return rc;
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &sin.sin_addr, text, sizeof(text));
  *ip_address = new_text(text);
  return *ip_address ? 0 : ERR_NO_MEMORY;
}

char* make_string_from_addr(struct sockaddr_in* sin) {
  if (!sin) return nullptr;
  char* text = static_cast<char*>(_vekMalloc(kAddrTextSize, kSource, __LINE__));
  if (!text) return nullptr;
  char ip[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &sin->sin_addr, ip, sizeof(ip));
  snprintf(text, kAddrTextSize, "%s:%d", ip, (int)ntohs(sin->sin_port));
  return text;
}

int inet_adapter_get_ip(const char* iface, char** ip_address) {
  if (!iface || !ip_address) return ERR_INVALID_PARAMETER;
  *ip_address = nullptr;
  if (std::strlen(iface) > kMaxInterfaceName) return ERR_INVALID_PARAMETER;
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    log_vek_error("inet_adapter_get_ip(%s): socket failed[%d]\n", iface, errno);
    return ERR_SYSTEM;
  }
  struct ifreq req;
  std::memset(&req, 0, sizeof(req));
  std::memcpy(req.ifr_name, iface, std::strlen(iface));
  req.ifr_addr.sa_family = AF_INET;
  const int rc = ioctl(fd, SIOCGIFADDR, &req);
  const int e = errno;
  close(fd);
  if (rc != 0) {
    log_vek_error("inet_adapter_get_ip(%s): ioctl(SIOCGIFADDR) failed[%d]\n", iface, e);
    return ERR_SYSTEM;
  }
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &reinterpret_cast<struct sockaddr_in*>(&req.ifr_addr)->sin_addr, text, sizeof(text));
  *ip_address = new_text(text);
  return *ip_address ? 0 : ERR_NO_MEMORY;
}
