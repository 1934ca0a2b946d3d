// Tunnels through proxies: HTTP CONNECT, SOCKS4, SOCKS4a and SOCKS5.
//
// The socket first connects to the proxy, then the handshake asks it for a
// connection to the target; afterwards the socket carries the target's
// bytes as if it were connected directly, and any layer (TLS, the secure
// stream) can be installed on it. The handshake never reads past the
// proxy's reply, so data the target sends first stays in the stream.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include <vekutil/socket.h>

#include "net/net.internal.hpp"

namespace {

constexpr int kMaxName = 255;               // host, user and password, as SOCKS5 can carry them
constexpr int kMaxHttpReplyHeader = 8192;   // bytes of reply header read before giving up
constexpr int kMaxStatusLine = 255;

using vek::net::as_socket;

struct Target {
  char host[kMaxName + 1];
  unsigned short port;
};

// "host:port" with a host of 1 to 255 characters and a port of 1 to 65535.
bool parse_target(const char* text, Target* t) {
  const char* colon = std::strrchr(text, ':');
  if (!colon || colon == text || colon - text > kMaxName) return false;
  unsigned long port = 0;
  const char* p = colon + 1;
  if (!*p || std::strlen(p) > 5) return false;
  for (; *p; ++p) {
    if (*p < '0' || *p > '9') return false;
    port = port * 10 + (unsigned long)(*p - '0');
  }
  if (port == 0 || port > 65535) return false;
  std::memcpy(t->host, text, (size_t)(colon - text));
  t->host[colon - text] = '\0';
  t->port = (unsigned short)port;
  return true;
}

bool fits(const char* text) { return !text || std::strlen(text) <= kMaxName; }

// Base64 with padding, whatever padding the process chose for its codec:
// proxies expect the standard form.
int base64(const unsigned char* in, int len, char* out) {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  int o = 0;
  for (int i = 0; i < len; i += 3) {
    const unsigned v = (unsigned)in[i] << 16 | (i + 1 < len ? (unsigned)in[i + 1] << 8 : 0u) |
                       (i + 2 < len ? (unsigned)in[i + 2] : 0u);
    out[o++] = kAlphabet[(v >> 18) & 63];
    out[o++] = kAlphabet[(v >> 12) & 63];
    out[o++] = i + 1 < len ? kAlphabet[(v >> 6) & 63] : '=';
    out[o++] = i + 2 < len ? kAlphabet[v & 63] : '=';
  }
  out[o] = '\0';
  return o;
}

// The handshake's sends and receives, sharing what is left of the time-out.
class Handshake {
 public:
  Handshake(ABSTRACT_SOCKET* s, int timeout) : s_(s), timeout_(timeout), deadline_(timeout) {}

  int send(const void* data, int len) { return socket_send2(s_, static_cast<const char*>(data), len, left()); }
  int recv(void* data, int len) { return len == 0 ? 0 : socket_recv(s_, static_cast<char*>(data), len, left()); }

 private:
  // A spent time-out still gets one short wait, which then reports it.
  int left() const {
    if (timeout_ <= 0) return -1;
    const int rest = deadline_.left();
    return rest > 0 ? rest : 1;
  }

  ABSTRACT_SOCKET* s_;
  int timeout_;
  vek::net::Deadline deadline_;
};

// ---- HTTP CONNECT -------------------------------------------------------------

int http_status(const char* line) {
  // "HTTP/1.x NNN reason"
  if (std::strncmp(line, "HTTP/", 5) != 0) return -1;
  const char* sp = std::strchr(line, ' ');
  if (!sp || std::strlen(sp) < 4) return -1;
  int status = 0;
  for (int i = 1; i <= 3; ++i) {
    if (sp[i] < '0' || sp[i] > '9') return -1;
    status = status * 10 + (sp[i] - '0');
  }
  return (sp[4] == '\0' || sp[4] == ' ' || sp[4] == '\r') ? status : -1;
}

// Reads the reply header byte by byte up to its empty line, keeping the
// status line.
int read_http_reply(Handshake& h, char* status_line) {
  int kept = 0;
  unsigned int last4 = 0;
  bool in_first_line = true;
  for (int n = 0; n < kMaxHttpReplyHeader; ++n) {
    char c;
    if (int rc = h.recv(&c, 1)) return rc;
    if (in_first_line) {
      if (c == '\r' || c == '\n') in_first_line = false;
      else if (kept < kMaxStatusLine) status_line[kept++] = c;
    }
    last4 = last4 << 8 | (unsigned char)c;
    if ((last4 & 0xFFFFFFFFu) == 0x0D0A0D0Au || (last4 & 0xFFFFu) == 0x0A0Au) {
      status_line[kept] = '\0';
      return 0;
    }
  }
  return ERR_SOCKET_PROXY_REPLY;
}

int http_connect(Handshake& h, const Target& t, const SOCKET_PROXY_INFO* proxy) {
  char request[2048];
  int len = snprintf(request, sizeof(request), "CONNECT %s:%u HTTP/1.1\r\nHost: %s:%u\r\n", t.host, t.port, t.host,
                     t.port);
  if (proxy->user) {
    char credentials[2 * kMaxName + 2];
    const int n = snprintf(credentials, sizeof(credentials), "%s:%s", proxy->user, proxy->pass ? proxy->pass : "");
    char encoded[(sizeof(credentials) + 2) / 3 * 4 + 1];
    base64(reinterpret_cast<const unsigned char*>(credentials), n, encoded);
    len += snprintf(request + len, sizeof(request) - (size_t)len, "Proxy-Authorization: Basic %s\r\n", encoded);
  }
  len += snprintf(request + len, sizeof(request) - (size_t)len, "\r\n");
  if (int rc = h.send(request, len)) return rc;
  char status_line[kMaxStatusLine + 1];
  if (int rc = read_http_reply(h, status_line)) return rc;
  const int status = http_status(status_line);
  if (status < 100) return ERR_SOCKET_PROXY_REPLY;
  if (status >= 200 && status < 300) return 0;
  return status == 407 || status == 401 ? ERR_SOCKET_PROXY_AUTH : ERR_SOCKET_PROXY_REFUSED;
}

// ---- SOCKS4 and SOCKS4a ----------------------------------------------------------

int socks4_connect(Handshake& h, const Target& t, const SOCKET_PROXY_INFO* proxy, bool proxy_resolves) {
  unsigned char request[9 + 2 * (kMaxName + 1)];
  int len = 0;
  request[len++] = 4;  // version
  request[len++] = 1;  // CONNECT
  request[len++] = (unsigned char)(t.port >> 8);
  request[len++] = (unsigned char)(t.port & 0xFF);
  struct in_addr ip;
  if (proxy_resolves) {
    ip.s_addr = htonl(1);  // 0.0.0.1: "the name follows"
  } else if (host2addr(t.host, &ip) != 0) {
    return ERR_SOCKET_HOST_NOT_FOUND;
  }
  std::memcpy(request + len, &ip.s_addr, 4);
  len += 4;
  const char* user = proxy->user ? proxy->user : "";
  std::memcpy(request + len, user, std::strlen(user) + 1);
  len += (int)std::strlen(user) + 1;
  if (proxy_resolves) {
    std::memcpy(request + len, t.host, std::strlen(t.host) + 1);
    len += (int)std::strlen(t.host) + 1;
  }
  if (int rc = h.send(request, len)) return rc;
  unsigned char reply[8];
  if (int rc = h.recv(reply, sizeof(reply))) return rc;
  if (reply[0] != 0) return ERR_SOCKET_PROXY_REPLY;
  switch (reply[1]) {
    case 90:  // granted
      return 0;
    case 91:  // rejected or failed
      return ERR_SOCKET_PROXY_REFUSED;
    case 92:  // no ident service to confirm the user id
    case 93:  // the user id does not match
      return ERR_SOCKET_PROXY_AUTH;
    default:
      return ERR_SOCKET_PROXY_REPLY;
  }
}

// ---- SOCKS5 -------------------------------------------------------------------------

int socks5_authenticate(Handshake& h, const SOCKET_PROXY_INFO* proxy) {
  const unsigned char with_user[] = {5, 2, 0, 2};
  const unsigned char anonymous[] = {5, 1, 0};
  if (int rc = proxy->user ? h.send(with_user, sizeof(with_user)) : h.send(anonymous, sizeof(anonymous))) return rc;
  unsigned char choice[2];
  if (int rc = h.recv(choice, 2)) return rc;
  if (choice[0] != 5) return ERR_SOCKET_PROXY_REPLY;
  if (choice[1] == 0) return 0;
  // 0xFF: none of our methods will do, i.e. credentials are wanted.
  if (choice[1] == 0xFF || (choice[1] == 2 && !proxy->user)) return ERR_SOCKET_PROXY_AUTH;
  if (choice[1] != 2) return ERR_SOCKET_PROXY_REPLY;
  const char* pass = proxy->pass ? proxy->pass : "";
  const size_t ulen = std::strlen(proxy->user);
  const size_t plen = std::strlen(pass);
  unsigned char request[3 + 2 * kMaxName];
  int len = 0;
  request[len++] = 1;  // version of the username/password exchange
  request[len++] = (unsigned char)ulen;
  std::memcpy(request + len, proxy->user, ulen);
  len += (int)ulen;
  request[len++] = (unsigned char)plen;
  std::memcpy(request + len, pass, plen);
  len += (int)plen;
  if (int rc = h.send(request, len)) return rc;
  unsigned char status[2];
  if (int rc = h.recv(status, 2)) return rc;
  if (status[0] != 1 && status[0] != 5) return ERR_SOCKET_PROXY_REPLY;
  return status[1] == 0 ? 0 : ERR_SOCKET_PROXY_AUTH;
}

// The bound address that ends the reply: its length by address type.
int socks5_address_length(Handshake& h, unsigned char type, int* length) {
  switch (type) {
    case 1:
      *length = 4;
      return 0;
    case 4:
      *length = 16;
      return 0;
    case 3: {
      unsigned char n;
      if (int rc = h.recv(&n, 1)) return rc;
      *length = n;
      return 0;
    }
    default:
      return ERR_SOCKET_PROXY_REPLY;
  }
}

int socks5_connect(Handshake& h, const Target& t, const SOCKET_PROXY_INFO* proxy) {
  if (int rc = socks5_authenticate(h, proxy)) return rc;
  unsigned char request[7 + kMaxName];
  int len = 0;
  request[len++] = 5;  // version
  request[len++] = 1;  // CONNECT
  request[len++] = 0;  // reserved
  struct in_addr ip;
  if (inet_pton(AF_INET, t.host, &ip) == 1) {
    request[len++] = 1;
    std::memcpy(request + len, &ip.s_addr, 4);
    len += 4;
  } else {
    const size_t n = std::strlen(t.host);
    request[len++] = 3;
    request[len++] = (unsigned char)n;
    std::memcpy(request + len, t.host, n);
    len += (int)n;
  }
  request[len++] = (unsigned char)(t.port >> 8);
  request[len++] = (unsigned char)(t.port & 0xFF);
  if (int rc = h.send(request, len)) return rc;
  unsigned char reply[4];
  if (int rc = h.recv(reply, 4)) return rc;
  if (reply[0] != 5) return ERR_SOCKET_PROXY_REPLY;
  if (reply[1] != 0) return reply[1] <= 8 ? ERR_SOCKET_PROXY_REFUSED : ERR_SOCKET_PROXY_REPLY;
  int addr_len = 0;
  if (int rc = socks5_address_length(h, reply[3], &addr_len)) return rc;
  unsigned char bound[255 + 2];
  return h.recv(bound, addr_len + 2);
}

int tunnel(Handshake& h, const Target& t, const SOCKET_PROXY_INFO* proxy) {
  switch (proxy->type) {
    case SOCKET_PROXY_HTTP:
      return http_connect(h, t, proxy);
    case SOCKET_PROXY_SOCKS4:
      return socks4_connect(h, t, proxy, false);
    case SOCKET_PROXY_SOCKS4A:
      return socks4_connect(h, t, proxy, true);
    default:
      return socks5_connect(h, t, proxy);
  }
}

}  // namespace

int socket_connect_thru_proxy(void* socket, const SOCKET_PROXY_INFO* proxy, const char* target, int timeout) {
  if (!socket) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(socket);
  if (!target) return s->err = ERR_INVALID_PARAMETER;
  if (!proxy || proxy->type == SOCKET_PROXY_NONE) return socket_connect_ex(s, target, timeout);
  Target t;
  if (proxy->type < SOCKET_PROXY_HTTP || proxy->type > SOCKET_PROXY_SOCKS5 || !proxy->addr ||
      !parse_target(target, &t) || !fits(proxy->user) || !fits(proxy->pass) || timeout < -1)
    return s->err = ERR_INVALID_PARAMETER;
  Handshake h(s, timeout);
  int rc = socket_connect_ex(s, proxy->addr, timeout);
  if (rc != 0) return rc;
  rc = tunnel(h, t, proxy);
  if (rc != 0) {
    // A failed send or receive has already put its cause in err.
    const bool proxy_said_no = rc == ERR_SOCKET_PROXY_REFUSED || rc == ERR_SOCKET_PROXY_AUTH ||
                               rc == ERR_SOCKET_PROXY_REPLY || rc == ERR_SOCKET_HOST_NOT_FOUND;
    socket_close(s);
    if (proxy_said_no) s->err = rc;
  }
  return rc;
}
