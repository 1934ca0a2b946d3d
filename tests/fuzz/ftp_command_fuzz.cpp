// fuzz-seconds: 60
// Drives a live FTP server's command path (line assembly, splitting, dispatch,
// every handler) over a real control connection. Each input is one session:
// raw bytes, or lines whose first byte picks a command word and whose rest is
// its argument; the passive data connections are opened, so transfers run.
// Each session gets its own server, so its command threads are gone when the
// live blocks are compared (tree nodes aside, see fuzz_util.hpp); nothing
// outside the root may change.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include <vekutil/ftp.server.h>
#include <vekutil/socket.async.h>
#include <vekutil/socket.h>

#include "fuzz_util.hpp"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kWords[] = {
    "USER", "PASS", "SYST", "PASV", "LIST", "PORT", "NLST", "QUIT", "TYPE", "REST", "RETR", "RNFR",
    "RNTO", "CWD",  "XCWD", "PWD",  "XPWD", "STOR", "DELE", "MKD",  "XMKD", "RMD",  "XRMD", "CDUP",
    "XCUP", "APPE", "ALLO", "NOOP", "SIZE", "noop", "",     "..",   "/",    "LIST ../", "RETR ../outside/secret"};
constexpr const char* kArgs[] = {"..", "../outside", "out_link", "/../", "sub", "file.txt", "*", "../root2",
                                 "127,0,0,1,0,21", "A", "I", "1"};

struct Harness {
  std::string base, root;
  void* server = nullptr;
  int port = 0;
  BlockCensus blocks;
  std::map<std::string, std::string> outside;
};

Harness* g_h = nullptr;

std::map<std::string, std::string> snapshot(const std::string& base) {
  std::map<std::string, std::string> out;
  for (const auto& e : fs::recursive_directory_iterator(base)) {
    std::string p = e.path().string();
    if (p.compare(0, base.size() + 6, base + "/root/") == 0 || p == base + "/root") continue;
    std::ifstream in(p, std::ios::binary);
    out[p] = e.is_regular_file() ? std::string(std::istreambuf_iterator<char>(in), {}) : "<dir>";
  }
  return out;
}

void reset_root(const std::string& base) {
  std::error_code ec;
  fs::remove_all(base + "/root", ec);
  fs::create_directories(base + "/root/sub");
  std::ofstream(base + "/root/file.txt") << "inside\n";
  fs::create_directory_symlink(base + "/outside", base + "/root/out_link", ec);
}

int auth(const char* user, const char* password, const char*) {
  return std::strcmp(password, "pw") == 0 && user[0] >= '1' && user[0] <= '3' ? user[0] - '0' : 0;
}

int connect_to(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// The bytes of one session from the input.
std::string session_bytes(const uint8_t* data, size_t size) {
  std::string out = "USER ";
  out += static_cast<char>('0' + (size > 0 ? data[0] % 4 : 3));
  out += "\r\nPASS pw\r\n";
  if (size == 0) return out;
  bool raw = data[0] & 0x80;
  if (raw) return out.append(reinterpret_cast<const char*>(data + 1), size - 1);
  size_t i = 1;
  while (i < size) {
    size_t end = i;
    while (end < size && data[end] != '\n') ++end;
    if (end > i) {
      uint8_t pick = data[i];
      out += kWords[pick % (sizeof kWords / sizeof kWords[0])];
      if (pick & 0x40) {
        out += ' ';
        out += kArgs[(pick >> 1) % (sizeof kArgs / sizeof kArgs[0])];
      }
      out.append(reinterpret_cast<const char*>(data + i + 1), end - i - 1);
      out += "\r\n";
    }
    i = end + 1;
  }
  return out;
}

// Sends the session and reads replies until the server closes; connects to
// every announced passive port (sending nothing: an upload is empty).
void run_session(const std::string& bytes) {
  int ctl = connect_to(g_h->port);
  if (ctl < 0) std::abort();
  size_t sent = 0;
  std::string replies;
  std::vector<int> data;
  auto deadline = Clock::now() + std::chrono::seconds(60);
  bool closed = false;
  while (!closed) {
    if (Clock::now() > deadline) std::abort();  // a session that never ends
    if (sent < bytes.size()) {
      ssize_t n = send(ctl, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) sent += static_cast<size_t>(n);
      if (n < 0 && errno != EAGAIN) sent = bytes.size();
      if (sent == bytes.size()) shutdown(ctl, SHUT_WR);
    }
    std::vector<pollfd> fds = {{ctl, POLLIN, 0}};
    for (int d : data) fds.push_back({d, POLLIN, 0});
    poll(fds.data(), fds.size(), 50);
    for (size_t k = 1; k < fds.size(); ++k) {
      if (!(fds[k].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char sink[4096];
      if (recv(fds[k].fd, sink, sizeof sink, 0) <= 0) {
        close(fds[k].fd);
        data.erase(std::find(data.begin(), data.end(), fds[k].fd));
      }
    }
    if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR))) continue;
    char buf[4096];
    ssize_t n = recv(ctl, buf, sizeof buf, 0);
    if (n <= 0) {
      closed = true;
      break;
    }
    replies.append(buf, static_cast<size_t>(n));
    size_t at;
    while ((at = replies.find("\r\n")) != std::string::npos) {
      std::string line = replies.substr(0, at);
      replies.erase(0, at + 2);
      unsigned p1, p2;
      if (std::sscanf(line.c_str(), "227 Entering Passive Mode (%*u,%*u,%*u,%*u,%u,%u)", &p1, &p2) == 2) {
        int d = connect_to(static_cast<int>(p1 * 256 + p2));
        if (d >= 0) {
          shutdown(d, SHUT_WR);
          data.push_back(d);
        }
      }
    }
  }
  for (int d : data) close(d);
  close(ctl);
}

// Waits until the server has ended the session (its reference is gone) and
// the worker has deleted its control socket and every data socket is gone.
void wait_session_end() {
  auto deadline = Clock::now() + std::chrono::seconds(30);
  while (__atomic_load_n(&static_cast<_FTP_SERVER_OBJECT*>(g_h->server)->ref_count, __ATOMIC_ACQUIRE) > 1 ||
         btree_count(g_socket_btree) > 0) {
    if (Clock::now() > deadline) std::abort();
    usleep(200);
  }
}

// Starts a server, runs one session against it and stops it again.
void serve_session(const std::string& bytes) {
  if (ftp_server_start(&g_h->server, 0, g_h->root.c_str(), auth, nullptr, nullptr) != 0) std::abort();
  g_h->port = static_cast<_FTP_SERVER_OBJECT*>(g_h->server)->port;
  run_session(bytes);
  wait_session_end();
  ftp_server_stop(g_h->server);
  g_h->server = nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_h = new Harness;
  char templ[] = "/tmp/ftp_fuzz.XXXXXX";
  if (!mkdtemp(templ)) std::abort();
  g_h->base = templ;
  g_h->root = g_h->base + "/root";
  fs::create_directories(g_h->base + "/outside/dir");
  fs::create_directories(g_h->base + "/root2");
  std::ofstream(g_h->base + "/outside/secret.txt") << "outside\n";
  reset_root(g_h->base);
  g_h->outside = snapshot(g_h->base);
  if (socket_async_default_init(socket_get_fd_setsize(), 0, 2000) != 0) std::abort();
  // One session first, so that what the library makes once per process
  // (the socket registry and its group) is not taken for a leak.
  serve_session("USER 3\r\nPASS pw\r\nPASV\r\nLIST\r\nPASV\r\nRETR file.txt\r\nQUIT\r\n");
  g_h->blocks = block_census();
  std::atexit([] {
    std::error_code ec;
    fs::remove_all(g_h->base, ec);
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  reset_root(g_h->base);
  serve_session(session_bytes(data, size));
  // The worker deletes the control socket just after the session's end, so
  // the count may take a moment to come back.
  auto deadline = Clock::now() + std::chrono::seconds(10);
  while (block_census() != g_h->blocks) {
    if (Clock::now() > deadline) {  // the session left blocks behind
      for (const auto& [where, n] : block_census())
        if (!g_h->blocks.count(where) || g_h->blocks.at(where) != n)
          std::fprintf(stderr, "%s: %ld blocks after the session\n", where.c_str(), n);
      std::abort();
    }
    usleep(100);
  }
  if (snapshot(g_h->base) != g_h->outside) std::abort();  // something outside the root changed
  return 0;
}
