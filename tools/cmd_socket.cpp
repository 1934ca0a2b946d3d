// "connect" and "listen": a tiny netcat over the library's sockets, with
// proxies and the secure stream; and the demo section "sockets".
//
// With --secure the whole input travels as one AES-CBC stream padded at the
// end in the PKCS#7 way (the stream's own padding of a short last message is
// exactly that), so the bytes on the wire are what `openssl enc -aes-*-cbc
// -K KEY -iv IV` makes of the input. The receiving side holds back the last
// block until the peer closes, then removes the padding.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <vekutil/vekutil.h>

#include "command.hpp"
#include "socket_util.hpp"

namespace {

constexpr int kPiece = 65536;
constexpr int kBlock = 16;

struct Options {
  std::string addr;
  bool have_proxy = false;
  std::string proxy_addr, proxy_user, proxy_pass;
  int proxy_type = SOCKET_PROXY_NONE;
  bool secure = false;
  std::vector<unsigned char> key, iv;
  int timeout = 5000;
};

bool parse_hex(const std::string& text, std::vector<unsigned char>* out) {
  if (text.size() % 2 != 0) return false;
  out->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    char pair[3] = {text[i], text[i + 1], 0};
    char* end = nullptr;
    long v = std::strtol(pair, &end, 16);
    if (*end || !std::isxdigit((unsigned char)pair[0])) return false;
    out->push_back(static_cast<unsigned char>(v));
  }
  return true;
}

// KEYHEX:IVHEX with a key of 16, 24 or 32 bytes and an IV of 16.
bool parse_secure(const std::string& text, Options* o) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos || !parse_hex(text.substr(0, colon), &o->key) ||
      !parse_hex(text.substr(colon + 1), &o->iv))
    return false;
  const size_t k = o->key.size();
  return (k == 16 || k == 24 || k == 32) && o->iv.size() == kBlock;
}

bool parse_proxy(const std::string& url, Options* o) {
  vektool::ProxyUrl proxy;
  if (!vektool::parse_proxy_url(url, &proxy)) return false;
  o->proxy_type = proxy.type;
  o->proxy_addr = proxy.addr;
  o->proxy_user = proxy.user;
  o->proxy_pass = proxy.pass;
  o->have_proxy = true;
  return true;
}

// Parses the common options; returns 0, or the exit code of a usage error.
int parse_options(int argc, char** argv, bool allow_proxy, Options* o) {
  const char* command = argv[0];
  using vektool::usage_error;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "--proxy" && allow_proxy) {
      if (!has_value || !parse_proxy(argv[++i], o))
        return usage_error(command, "--proxy wants http|socks4|socks4a|socks5://[USER:PASS@]HOST:PORT");
    } else if (arg == "--secure") {
      if (!has_value || !parse_secure(argv[++i], o))
        return usage_error(command, "--secure wants KEYHEX:IVHEX (key of 16, 24 or 32 bytes, IV of 16)");
    } else if (arg == "--timeout") {
      if (!has_value || (o->timeout = std::atoi(argv[++i])) <= 0)
        return usage_error(command, "--timeout wants a positive number of milliseconds");
    } else if (arg.rfind("--", 0) == 0 || !o->addr.empty()) {
      return usage_error(command, ("unexpected argument '" + arg + "'").c_str());
    } else {
      o->addr = arg;
    }
  }
  if (o->addr.empty()) return usage_error(command, "an address is required");
  return 0;
}

bool write_out(const void* data, size_t n) {
  const char* p = static_cast<const char*>(data);
  while (n > 0) {
    ssize_t w = write(1, p, n);
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

// Copies standard input to the socket and the socket to standard output.
class Relay {
 public:
  Relay(void* sock, bool secure) : sock_(sock), secure_(secure) {}

  // Ends when both directions have ended: standard input at its end and
  // the peer closed.
  int run() {
    bool stdin_open = true, peer_open = true;
    std::vector<char> buf(kPiece + kBlock);
    while (stdin_open || peer_open) {
      pollfd fds[2] = {{peer_open ? socket_descriptor(sock_) : -1, POLLIN, 0}, {stdin_open ? 0 : -1, POLLIN, 0}};
      if (poll(fds, 2, -1) < 0) continue;
      if (fds[1].revents & (POLLIN | POLLHUP | POLLERR)) {
        const ssize_t n = read(0, buf.data(), kPiece);
        if (n > 0 ? !send_input(buf.data(), static_cast<size_t>(n)) : !end_input()) return fail("send");
        if (n <= 0) stdin_open = false;
      }
      if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
        const int rc = secure_ ? receive_secure(buf.data()) : receive_plain(buf.data());
        if (rc < 0) return fail("receive");
        if (rc == 0) peer_open = false;
      }
    }
    return 0;
  }

 private:
  bool send_input(const char* data, size_t n) {
    if (!secure_) return socket_send(sock_, data, static_cast<int>(n)) == 0;
    // Whole blocks go now; a remainder waits for more input or the end.
    pending_.append(data, n);
    const size_t whole = pending_.size() - pending_.size() % kBlock;
    if (whole == 0) return true;
    std::string out = pending_.substr(0, whole);  // encrypted in place by the send
    pending_.erase(0, whole);
    return socket_send(sock_, out.data(), static_cast<int>(out.size())) == 0;
  }

  // The final padding, then the end of our direction.
  bool end_input() {
    if (secure_) {
      std::string last = pending_.empty() ? std::string(kBlock, static_cast<char>(kBlock)) : pending_;
      if (socket_send(sock_, last.data(), static_cast<int>(last.size())) != 0) return false;
    }
    shutdown(socket_descriptor(sock_), SHUT_WR);
    return true;
  }

  // 1 to go on, 0 when the peer closed, -1 on failure.
  int receive_plain(char* buf) {
    int len = kPiece;
    const int rc = socket_recv2(sock_, buf, &len, -1);
    if (rc == ERR_SOCKET_CLOSED) return 0;
    if (rc != 0) return -1;
    return write_out(buf, static_cast<size_t>(len)) ? 1 : -1;
  }

  int receive_secure(char* buf) {
    int waiting = 0;
    socket_check_queues(sock_, &waiting, nullptr);
    if (waiting == 0) return finish_secure();
    int n = waiting - waiting % kBlock;
    if (n == 0) n = kBlock;
    if (n > kPiece) n = kPiece;
    const int rc = socket_recv(sock_, buf, n, 30000);
    if (rc == ERR_SOCKET_CLOSED) return finish_secure();
    if (rc != 0) return -1;
    // The newest block is held back: it may be the padded last one.
    if (!write_out(held_.data(), held_.size())) return -1;
    held_.assign(buf + n - kBlock, kBlock);
    return write_out(buf, static_cast<size_t>(n - kBlock)) ? 1 : -1;
  }

  int finish_secure() {
    if (held_.empty()) return 0;
    const int pad = static_cast<unsigned char>(held_.back());
    if (pad < 1 || pad > kBlock) return -1;
    for (int i = kBlock - pad; i < kBlock; ++i)
      if (static_cast<unsigned char>(held_[static_cast<size_t>(i)]) != pad) return -1;
    return write_out(held_.data(), static_cast<size_t>(kBlock - pad)) ? 0 : -1;
  }

  int fail(const char* what) const {
    std::fprintf(stderr, "vekutil: %s failed (socket error %d)\n", what, socket_error(sock_));
    return 1;
  }

  void* sock_;
  bool secure_;
  std::string pending_;
  std::string held_;
};

int morph_if_secure(void* sock, const Options& o) {
  if (!o.secure) return 0;
  return stcp_morph(sock, o.key.data(), o.iv.data(), static_cast<int>(o.key.size() * 8));
}

int run_connect(int argc, char** argv) {
  Options o;
  if (int rc = parse_options(argc, argv, true, &o)) return rc;
  o.secure = !o.key.empty();
  void* sock = nullptr;
  if (socket_create(&sock) != 0) return 1;
  SOCKET_PROXY_INFO proxy{o.proxy_type, o.proxy_addr.data(), o.proxy_user.empty() ? nullptr : o.proxy_user.data(),
                          o.proxy_pass.data()};
  int rc = socket_connect_thru_proxy(sock, o.have_proxy ? &proxy : nullptr, o.addr.c_str(), o.timeout);
  if (rc != 0) {
    std::fprintf(stderr, "vekutil connect: cannot connect to %s (result %d, error %d)\n", o.addr.c_str(), rc,
                 socket_error(sock));
    socket_delete(sock);
    return 1;
  }
  rc = morph_if_secure(sock, o) == 0 ? Relay(sock, o.secure).run() : 1;
  vektool::drain_then_delete(sock, o.timeout);
  return rc;
}

int run_listen(int argc, char** argv) {
  Options o;
  if (int rc = parse_options(argc, argv, false, &o)) return rc;
  o.secure = !o.key.empty();
  const bool port_only = o.addr.find(':') == std::string::npos;
  const std::string addr = port_only ? "0.0.0.0:" + o.addr : o.addr;
  void* server = nullptr;
  int rc = socket_listen(&server, addr.c_str());
  if (rc != 0) {
    std::fprintf(stderr, "vekutil listen: cannot listen on %s (result %d, error %d)\n", addr.c_str(), rc,
                 socket_error(server));
    socket_unlisten(server);
    return 1;
  }
  // The port the system chose must be told; otherwise only to a terminal.
  if (isatty(2) || (addr.size() >= 2 && addr.compare(addr.size() - 2, 2, ":0") == 0)) {
    sockaddr_in sin{};
    socklen_t len = sizeof(sin);
    getsockname(static_cast<SERVER_SOCKET*>(server)->s, reinterpret_cast<sockaddr*>(&sin), &len);
    char* text = make_string_from_addr(&sin);
    std::fprintf(stderr, "listening on %s\n", text ? text : addr.c_str());
    vekFree(text);
  }
  void* client = socket_accept(server, -1);
  socket_unlisten(server);
  if (!client) {
    std::fprintf(stderr, "vekutil listen: accept failed\n");
    return 1;
  }
  rc = morph_if_secure(client, o) == 0 ? Relay(client, o.secure).run() : 1;
  vektool::drain_then_delete(client, o.timeout);
  return rc;
}

// ---- demo -----------------------------------------------------------------------

void print_json(const char* title, JSON* json) {
  char* text = json_PrintUnformatted(json);
  std::printf("%s %s\n", title, text ? text : "(none)");
  vekFree(text);
  json_Delete(json);
}

int demo_sockets() {
  void* server = nullptr;
  if (socket_listen(&server, "127.0.0.1:0") != 0) {
    socket_unlisten(server);
    return 1;
  }
  sockaddr_in sin{};
  socklen_t len = sizeof(sin);
  getsockname(static_cast<SERVER_SOCKET*>(server)->s, reinterpret_cast<sockaddr*>(&sin), &len);
  char* addr = make_string_from_addr(&sin);
  void* client = nullptr;
  socket_create(&client);
  socket_set_owner(client, "demo client");
  int rc = socket_connect(client, addr);
  void* accepted = rc == 0 ? socket_accept(server, 1000) : nullptr;
  std::printf("listening on %s, connect %d, accepted peer %s\n", addr, rc, accepted ? socket_peer(accepted) : "-");
  bool ok = accepted != nullptr;
  char buf[64] = {};
  if (ok) {
    ok = socket_send(client, "plain hello", -1) == 0 && socket_recv(accepted, buf, 12, 1000) == 0;
    std::printf("plain: \"%s\"\n", buf);
    const unsigned char key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const unsigned char iv[16] = {0};
    char secret[] = "secure stream hello";
    ok = ok && stcp_morph(client, key, iv, 128) == 0 && stcp_morph(accepted, key, iv, 128) == 0 &&
         socket_send(client, secret, sizeof secret) == 0 && socket_recv(accepted, buf, sizeof secret, 1000) == 0;
    std::printf("secure: \"%s\" (%zu bytes, %zu on the wire)\n", buf, sizeof secret, (sizeof secret + 15) / 16 * 16);
    JSON* json = nullptr;
    if (instrument_list(socket_instrument_handle(), &json) == 0) print_json("sockets:", json);
    json = nullptr;
    if (instrument_detail(socket_instrument_handle(), (long long)(intptr_t)client, &json) == 0)
      print_json("client:", json);
  }
  if (accepted) socket_delete(accepted);
  socket_delete(client);
  socket_unlisten(server);
  vekFree(addr);
  return ok ? 0 : 1;
}

constexpr const char* kOptionDetails =
    "  --proxy URL          http|socks4|socks4a|socks5://[USER:PASS@]HOST:PORT (connect only)\n"
    "  --secure KEYHEX:IVHEX  AES-CBC secure stream; a key of 16, 24 or 32 bytes, an IV of 16\n"
    "  --timeout MS         time-out of the connect and of the final drain (default 5000)\n";

vektool::Registrar reg_connect{{"connect", "connect HOST:PORT [--proxy URL] [--secure KEYHEX:IVHEX] [--timeout MS]",
                                "copy stdin to a connection, it to stdout", run_connect, kOptionDetails}};
vektool::Registrar reg_listen{{"listen", "listen [ADDR:]PORT [--secure KEYHEX:IVHEX] [--timeout MS]",
                               "accept one client, copy stdin to it, it to stdout", run_listen, kOptionDetails}};
vektool::DemoRegistrar demo{{"sockets", 80, demo_sockets}};

}  // namespace
