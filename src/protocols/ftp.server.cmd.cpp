// FTP server commands: the process-wide command table and the 29 built-in
// handlers, with their access checks, replies, confinement to the root and
// the data connections.
//
// Every handler runs on a command thread of its server (see
// ftp.server.internal.hpp), one command of a session at a time, so the
// session record needs no lock of its own.
//
// Confinement. A handler never touches the path as the client wrote it: the
// path is built from the root, the current directory and the argument,
// brought into lexical absolute form ("." and ".." resolved as text), and
// used only when that form lies inside the root (equal to it, or continuing
// it after a "/") and its existing part, with symbolic links resolved, lies
// inside the resolved root. The operation then works on the checked form,
// so a ".." can never climb out through a symbolic link.
#include <fcntl.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <vekutil/btree.h>
#include <vekutil/crc32.h>
#include <vekutil/directory.h>
#include <vekutil/file.h>
#include <vekutil/ftp.server.h>
#include <vekutil/mutex.h>
#include <vekutil/socket.h>
#include <vekutil/strutil.h>
#include <vekutil/timeutil.h>

#include "core/internal.hpp"
#include "core/scoped_lock.hpp"
#include "protocols/ftp.server.internal.hpp"

void* g_ftp_command_btree = nullptr;

namespace vek::ftp {
namespace {

constexpr const char* kSource = kCmdSource;

// Replies quoted by several handlers.
constexpr const char* kNoBad = "550 No/Bad file or directory.\r\n";
constexpr const char* kNoSuch = "550 No such file or directory.\r\n";
constexpr const char* kLocalError = "451 Requested action aborted: local error in processing.\r\n";
constexpr const char* kNotImplemented = "504 Command not implemented for that parameter.\r\n";
constexpr const char* kCantOpenData = "425 Can't open data connection.\r\n";

constexpr int kPassiveAcceptMs = 5000;
constexpr int kDataIdleMs = 300000;  // a data connection may stall this long
constexpr int kWaitSliceMs = 250;    // waits look at the stop flag this often
constexpr int kAsciiBlock = 4096;    // ASCII conversion works on blocks of this size
constexpr int kBinaryBlock = 256 * 1024;
constexpr long long kSendfileChunk = 1LL << 20;
constexpr long long kRecentMs = 15768000999LL;  // half a year: older files show the year
constexpr size_t kListBatch = 16384;          // listing lines gathered per send
constexpr int kLineMax = 1022;                 // longest listing line

using Client = _FTP_CLIENT_OBJECT;

// ---- Replies.

int replyf(Client* co, const char* fmt, ...) VEK_PRINTF(2, 3);
int replyf(Client* co, const char* fmt, ...) {
  char text[FTP_SERVER_LINE_SIZE + 128];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  return reply(co, text);
}

// Access levels are exclusive: a session passes with level 3 or exactly the
// level the command needs.
bool authorised(Client* co, int level) {
  if (co->is_authenticated == FTP_ACCESS_NONE) {
    reply(co, "530 Please authenticate first !\r\n");
    return false;
  }
  if (co->is_authenticated == FTP_ACCESS_ALL || co->is_authenticated == level) return true;
  reply(co, "550 Requested action not taken.\r\n");
  return false;
}

// ---- Paths.

// Concatenates up to three parts into out (FTP_SERVER_PATH_SIZE bytes);
// false when the result would not fit.
bool join(char* out, const char* a, const char* b, const char* c = "") {
  int n = snprintf(out, FTP_SERVER_PATH_SIZE, "%s%s%s", a, b, c);
  return n >= 0 && n < FTP_SERVER_PATH_SIZE;
}

// The path an argument names: R+A for an absolute argument, else R+D+A;
// R+D without an argument.
bool build(const Client* co, const char* arg, char* out) {
  const char* root = co->server->root_folder;
  if (!arg) return join(out, root, co->directory);
  if (arg[0] == '/') return join(out, root, arg);
  return join(out, root, co->directory, arg);
}

bool inside(const char* path, const char* root) {
  size_t n = std::strlen(root);
  if (n == 1 && root[0] == '/') return path[0] == '/';
  return std::strncmp(path, root, n) == 0 && (path[n] == '\0' || path[n] == '/');
}

}  // namespace

// Lexical absolute form of path: a relative path is taken from the current
// directory; empty and "." components vanish and ".." removes the component
// before it (never climbing above "/"). No trailing "/" except for "/"
// itself. False when it does not fit in cap bytes.
bool absolute_form(const char* path, char* out, size_t cap) {
  if (!path || cap < 2) return false;
  size_t len = 0;
  out[len++] = '/';
  out[len] = '\0';
  auto append_components = [&](const char* p) {
    while (*p) {
      while (*p == '/') ++p;
      const char* end = p;
      while (*end && *end != '/') ++end;
      size_t n = (size_t)(end - p);
      if (n == 0 || (n == 1 && p[0] == '.')) {
        // nothing
      } else if (n == 2 && p[0] == '.' && p[1] == '.') {
        while (len > 1 && out[len - 1] != '/') --len;
        if (len > 1) --len;  // drop the separator too
        out[len] = '\0';
      } else {
        size_t need = (len > 1 ? 1 : 0) + n;
        if (len + need + 1 > cap) return false;
        if (len > 1) out[len++] = '/';
        std::memcpy(out + len, p, n);
        len += n;
        out[len] = '\0';
      }
      p = end;
    }
    return true;
  };
  if (path[0] != '/') {
    char cwd[PATH_MAX];
    if (!getcwd(cwd, sizeof cwd) || !append_components(cwd)) return false;
  }
  return append_components(path);
}

// True when path (in lexical absolute form) and its existing part, with
// symbolic links resolved, lie inside the server's root. A name that exists
// but does not resolve (a dangling link) is refused: creating through it
// would land wherever it points.
bool confined(Server* srv, const char* abs) {
  if (!inside(abs, srv->pub.root_folder_abs)) return false;
  const char* root_real = srv->root_real;
  if (!root_real) {
    ScopedLock guard(srv->pub.mutex, kSource, __LINE__);
    if (!srv->root_real) {
      char resolved[PATH_MAX];
      if (realpath(srv->pub.root_folder_abs, resolved)) srv->root_real = copy_text(resolved, kSource, __LINE__);
    }
    root_real = srv->root_real;
    if (!root_real) return false;
  }
  char probe[PATH_MAX];
  char resolved[PATH_MAX];
  copy_name(probe, sizeof probe, abs);
  for (;;) {
    if (realpath(probe, resolved)) return inside(resolved, root_real);
    if (errno != ENOENT && errno != ENOTDIR) return false;
    struct stat st;
    if (lstat(probe, &st) == 0) return false;
    char* slash = std::strrchr(probe, '/');
    if (!slash || slash == probe) return false;
    *slash = '\0';
  }
}

namespace {

// The checked form of a built path (PATH_MAX bytes), or false when the
// path lies outside the root or is too long.
bool resolve(Client* co, const char* built, char* out) {
  return absolute_form(built, out, PATH_MAX) && confined(server_of(co->server), out);
}

// Resolves the path an argument names (see build).
bool resolve_arg(Client* co, const char* arg, char* out) {
  char built[FTP_SERVER_PATH_SIZE];
  return build(co, arg, built) && resolve(co, built, out);
}

// resolve_arg, answering "550 No/Bad file or directory." when it refuses.
bool resolve_or_refuse(Client* co, const char* arg, char* out) {
  if (resolve_arg(co, arg, out)) return true;
  reply(co, kNoBad);
  return false;
}

bool is_root(Client* co, const char* abs) { return std::strcmp(abs, co->server->root_folder_abs) == 0; }

// ---- Raw data-connection I/O. The descriptor is non-blocking; every wait
// is bounded by the idle limit and gives up when the server stops.

enum class Io { kOk, kClosed, kIdle, kError };

int io_code(Io io, bool sending) {
  switch (io) {
    case Io::kOk: return 0;
    case Io::kClosed: return ERR_SOCKET_CLOSED;
    case Io::kIdle: return ERR_SOCKET_TIMEOUT;
    default: return sending ? ERR_SOCKET_SEND : ERR_SOCKET_RECV;
  }
}

Io wait_ready(Client* co, int fd, short events) {
  for (int waited = 0; waited < kDataIdleMs; waited += kWaitSliceMs) {
    if (server_stopping(co)) return Io::kError;
    struct pollfd p = {fd, events, 0};
    int rc = poll(&p, 1, kWaitSliceMs);
    if (rc > 0) return Io::kOk;
    if (rc < 0 && errno != EINTR) return Io::kError;
  }
  return Io::kIdle;
}

Io send_all(Client* co, int fd, const char* data, size_t len) {
  while (len > 0) {
    ssize_t n = send(fd, data, len, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      data += n;
      len -= (size_t)n;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      Io io = wait_ready(co, fd, POLLOUT);
      if (io != Io::kOk) return io;
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      return Io::kError;
    }
  }
  return Io::kOk;
}

// Receives what is there (waiting for it first); *got 0 with kClosed at an
// orderly end of stream.
Io recv_some(Client* co, int fd, char* buffer, size_t cap, size_t* got) {
  *got = 0;
  for (;;) {
    ssize_t n = recv(fd, buffer, cap, MSG_DONTWAIT);
    if (n > 0) {
      *got = (size_t)n;
      return Io::kOk;
    }
    if (n == 0) return Io::kClosed;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return Io::kError;
    Io io = wait_ready(co, fd, POLLIN);
    if (io != Io::kOk) return io;
  }
}

// Writes all bytes to a file; false when the file stores nothing more.
bool write_all(int fd, const char* data, size_t len) {
  while (len > 0) {
    ssize_t n = write(fd, data, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    len -= (size_t)n;
  }
  return true;
}

// ---- Data connections.

// Lets close() return at once and finish sending in the background: the
// socket layer's accept lingers 10 s and its connect resets on close.
void linger_off(void* socket) {
  struct linger off = {0, 0};
  setsockopt(socket_descriptor(socket), SOL_SOCKET, SO_LINGER, &off, sizeof off);
}

// Waits up to 5 s for the client's own connection to the passive port;
// connections from any other address are closed unused.
void* accept_from_client(Client* co) {
  unsigned int client_addr = socket_peer_address(co->socket);
  long long deadline = time_now() + kPassiveAcceptMs;
  while (!server_stopping(co)) {
    long long left = deadline - time_now();
    if (left <= 0) break;
    void* conn = socket_accept(co->data_socket, (int)(left < kWaitSliceMs ? left : kWaitSliceMs));
    if (!conn) {
      if (socket_error(co->data_socket) == ERR_SOCKET_TIMEOUT) continue;
      break;
    }
    if (socket_peer_address(conn) == client_addr) return conn;
    linger_off(conn);
    socket_delete(conn);
  }
  return nullptr;
}

void* connect_to_client(Client* co) {
  void* conn = nullptr;
  if (_socket_create(&conn, kSource, __LINE__) != 0) return nullptr;
  if (socket_connect(conn, co->remote_addr) != 0) {
    socket_delete(conn);
    return nullptr;
  }
  return conn;
}

// Opens the data connection of a transfer (PORT or PASV must have come
// first); NULL when there is none. The previous connection is released.
void* open_data(Client* co) {
  if (co->data_state != 1) return nullptr;
  void* conn = nullptr;
  if (co->data_passive_mode) {
    if (co->data_socket) conn = accept_from_client(co);
    reply(co, "125 Data connection open, Transfer starting.\r\n");
    if (co->data_socket) socket_unlisten(co->data_socket);
    co->data_socket = nullptr;
  } else {
    conn = connect_to_client(co);
    if (conn) reply(co, "150 Data connection open, Transfer starting.\r\n");
  }
  co->data_state = 2;
  if (co->data_connection_socket) socket_delete(co->data_connection_socket);
  co->data_connection_socket = conn;
  if (conn) {
    linger_off(conn);
    int fd = socket_descriptor(conn);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  }
  return conn;
}

// Ends a transfer: the data connection is shut down (and deleted at the
// next opening or at the end of the session); every transfer needs a fresh
// PORT or PASV. arg names the file in RETR and STOR replies.
int close_transfer(Client* co, bool ok, const char* arg) {
  if (co->data_connection_socket) socket_shutdown(co->data_connection_socket);
  co->data_state = 0;
  if (arg) return ok ? replyf(co, "226 [%s] Transfer complete.\r\n", arg) : replyf(co, "552 [%s] Transfer failed.\r\n", arg);
  return reply(co, ok ? "226 Transfer complete.\r\n" : "552 Transfer Failed.\r\n");
}

void count_out(void* conn, long long n) {
  static_cast<ABSTRACT_SOCKET*>(conn)->bytes_out += (unsigned int)n;
}
void count_in(void* conn, long long n) { static_cast<ABSTRACT_SOCKET*>(conn)->bytes_in += (unsigned int)n; }

// ---- Listings.

// Listing lines gathered into batches; a batch is one send.
class LineSink {
 public:
  LineSink(Client* co, void* conn) : co_(co), conn_(conn), fd_(socket_descriptor(conn)) {
    buffer_ = static_cast<char*>(_vekMalloc(kListBatch, kSource, __LINE__));
  }
  ~LineSink() { vek::release(buffer_, kSource, __LINE__); }
  LineSink(const LineSink&) = delete;
  LineSink& operator=(const LineSink&) = delete;

  bool ok() const { return buffer_ && io_ == Io::kOk; }

  void add(const char* fmt, ...) VEK_PRINTF(2, 3) {
    if (!ok()) return;
    char line[kLineMax + 1];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    if (n < 0) return;
    size_t len = n < (int)sizeof line ? (size_t)n : sizeof line - 1;
    if (used_ + len > kListBatch) flush();
    std::memcpy(buffer_ + used_, line, len);
    used_ += len;
  }

  bool flush() {
    if (ok() && used_ > 0) {
      io_ = send_all(co_, fd_, buffer_, used_);
      count_out(conn_, (long long)used_);
    }
    used_ = 0;
    return ok();
  }

 private:
  Client* co_;
  void* conn_;
  int fd_;
  char* buffer_ = nullptr;
  size_t used_ = 0;
  Io io_ = Io::kOk;
};

// The names of a directory matching filter (NULL: all), via the directory
// module; a negative code when it cannot be listed.
class Names {
 public:
  Names(const char* dir, const char* filter) { count_ = directory_query2(dir, filter, &names_); }
  ~Names() {
    if (count_ < 0 || !names_) return;
    for (int i = 0; names_[i]; ++i) vek::release(names_[i], kSource, __LINE__);
    vek::release(names_, kSource, __LINE__);
  }
  Names(const Names&) = delete;
  Names& operator=(const Names&) = delete;

  int count() const { return count_; }
  const char* operator[](int i) const { return names_[i]; }

 private:
  char** names_ = nullptr;
  int count_ = 0;
};

// Reply to a directory that cannot be listed.
int listing_failed(Client* co, int rc) { return reply(co, rc == ERR_NO_MEMORY ? kLocalError : kNotImplemented); }

// Information about name in the directory dirfd for a LIST line. Entries
// that do not resolve are skipped, and so are symbolic links that lead out
// of the root: nothing about what lies outside is shown.
bool entry_info(Client* co, int dirfd, const char* dir, const char* name, struct stat* st) {
  if (fstatat(dirfd, name, st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (S_ISLNK(st->st_mode)) {
    char link[PATH_MAX];
    if (snprintf(link, sizeof link, "%s/%s", dir, name) >= (int)sizeof link) return false;
    if (!confined(server_of(co->server), link)) return false;
    if (fstatat(dirfd, name, st, 0) != 0) return false;
  }
  return true;
}

void add_list_line(LineSink& out, const char* name, const struct stat& st, long long now_ms) {
  long long mtime_ms = (long long)st.st_mtime * 1000;
  char date[64];
  time_sprintf(date, sizeof date, now_ms - mtime_ms > kRecentMs ? "%b %d %Y" : "%b %d %H:%M", mtime_ms);
  if (S_ISDIR(st.st_mode))
    out.add("drwxrwxrwx 1 zu zu                0 %s %s\r\n", date, name);
  else
    out.add("-rw-rw-rw- 1 zu zu %16lld %s %s\r\n", (long long)st.st_size, date, name);
}

// ---- Handlers. Each receives the session record, the command word and the
// argument text (NULL when the line had none).

Client* client(void* co) { return static_cast<Client*>(co); }

int cmd_user(void* p, const char*, const char* args) {
  Client* co = client(p);
  copy_name(co->username, 129, args ? args : "");
  reply(co, "331 Password required\r\n");
  return 0;
}

int cmd_pass(void* p, const char*, const char* args) {
  Client* co = client(p);
  ftp_server_auth_callback auth = co->server->auth_callback;
  if (args && auth) {
    co->is_authenticated = auth(co->username, args, socket_peer(co->socket));
    if (co->is_authenticated > 0) {
      reply(co, "230 User logged in.\r\n");
      return 0;
    }
  }
  reply(co, "530 Login incorrect.\r\n");
  return ERR_FTP_LOGIN_FAILED;
}

int cmd_syst(void* p, const char*, const char*) {
  reply(client(p), "215 UNIX Type: L8\r\n");
  return 0;
}

int cmd_type(void* p, const char*, const char* args) {
  Client* co = client(p);
  if (args && args[0] == 'A') {
    co->data_ascii_mode = 1;
    reply(co, "200 Type set to ASCII.\r\n");
  } else if (args && args[0] == 'I') {
    co->data_ascii_mode = 0;
    reply(co, "200 Type set to BINARY.\r\n");
  }
  return 0;  // any other type gets no reply
}

int cmd_rest(void* p, const char*, const char* args) {
  Client* co = client(p);
  long long offset = args ? std::strtoll(args, nullptr, 10) : 0;
  session_of(p)->rest_offset = offset;
  co->rest_point = offset > INT_MAX ? INT_MAX : offset < INT_MIN ? INT_MIN : (int)offset;
  reply(co, "250 REST command successful.\r\n");
  return 0;
}

int cmd_appe(void* p, const char*, const char*) {
  Client* co = client(p);
  co->data_appe_mode = 1;
  reply(co, "250 APPE command successful.\r\n");
  return 0;
}

int cmd_noop(void* p, const char*, const char*) {
  reply(client(p), "250 NOOP command successful.\r\n");
  return 0;
}

int cmd_size(void* p, const char*, const char*) {
  reply(client(p), "550 SIZE command not supported.\r\n");
  return 0;
}

int cmd_quit(void* p, const char*, const char*) {
  Client* co = client(p);
  reply(co, "221 Goodbye.\r\n");
  socket_shutdown(co->socket);
  session_of(p)->closing.store(kClosingShutDown);
  return 0;
}

int cmd_pwd(void* p, const char*, const char*) {
  Client* co = client(p);
  if (!authorised(co, FTP_ACCESS_READ)) return 0;
  replyf(co, "257 \"%s\" is current directory.\r\n", co->directory);
  return 0;
}

// /a/b/ becomes /a/; "/" stays.
void parent_directory(char* dir) {
  size_t len = std::strlen(dir);
  if (len <= 1) return;
  size_t i = len - 1;  // the final "/"
  while (i > 0 && dir[i - 1] != '/') --i;
  dir[i] = '\0';
}

int cmd_cdup(void* p, const char*, const char*) {
  Client* co = client(p);
  parent_directory(co->directory);
  reply(co, "250 CDUP command successful.\r\n");
  return 0;
}

bool set_directory(Client* co, const char* dir) {
  char* copy = copy_text(dir, kSource, __LINE__);
  if (!copy) return false;
  vek::release(co->directory, kSource, __LINE__);
  co->directory = copy;
  return true;
}

int cmd_cwd(void* p, const char*, const char* args) {
  Client* co = client(p);
  if (!authorised(co, FTP_ACCESS_READ)) return 0;
  if (args && std::strcmp(args, "..") == 0) {
    parent_directory(co->directory);
    reply(co, "250 CWD command successful.\r\n");
    return 0;
  }
  char target[PATH_MAX];
  struct stat st;
  if (args && std::strcmp(args, "/") == 0) {
    if (resolve_arg(co, "", target) && stat(target, &st) == 0 && S_ISDIR(st.st_mode) && set_directory(co, "/"))
      reply(co, "250 CWD command successful.\r\n");
    else
      reply(co, kNoSuch);
    return 0;
  }
  char built[FTP_SERVER_PATH_SIZE];
  if (!args || !build(co, args, built)) {
    reply(co, kNoSuch);
    return 0;
  }
  size_t len = std::strlen(args);
  bool slash_end = len > 0 && args[len - 1] == '/';
  if (slash_end) built[std::strlen(built) - 1] = '\0';
  if (!resolve(co, built, target) || stat(target, &st) != 0 || !S_ISDIR(st.st_mode)) {
    reply(co, kNoSuch);
    return 0;
  }
  char dir[FTP_SERVER_PATH_SIZE];
  bool fits = args[0] == '/' ? join(dir, args, slash_end ? "" : "/") : join(dir, co->directory, args, slash_end ? "" : "/");
  if (fits && set_directory(co, dir))
    reply(co, "250 CWD command successful.\r\n");
  else
    reply(co, kNoSuch);
  return 0;
}

int cmd_mkd(void* p, const char*, const char* args) {
  Client* co = client(p);
  if (!authorised(co, FTP_ACCESS_WRITE)) return 0;
  char target[PATH_MAX];
  if (!resolve_or_refuse(co, args, target)) return 0;
  int rc = directory_create(target);
  if (rc == 0 || rc == EEXIST)
    reply(co, "257 mkd command successful.\r\n");
  else
    replyf(co, "550 Could not create directory (%d).\r\n", rc);
  return 0;
}

// RMD and DELE: removes a confined path other than the root itself.
int remove_confined(void* p, const char* args, int (*remove)(const char*), const char* done) {
  Client* co = client(p);
  if (!authorised(co, FTP_ACCESS_WRITE)) return 0;
  char target[PATH_MAX];
  if (resolve_arg(co, args, target) && !is_root(co, target) && remove(target) == 0)
    reply(co, done);
  else
    reply(co, kNoBad);
  return 0;
}

int cmd_rmd(void* p, const char*, const char* args) {
  return remove_confined(p, args, directory_delete_recursive, "250 rmdir command successful.\r\n");
}

int cmd_dele(void* p, const char*, const char* args) {
  return remove_confined(p, args, file_delete, "250 DELE command successful.\r\n");
}

int cmd_rnfr(void* p, const char*, const char* args) {
  Client* co = client(p);
  if (!authorised(co, FTP_ACCESS_WRITE)) return 0;
  vek::release(co->rename_from, kSource, __LINE__);
  co->rename_from = args ? copy_text(args, kSource, __LINE__) : nullptr;
  reply(co, "350 RNFR command successful.\r\n");
  return 0;
}

int cmd_rnto(void* p, const char*, const char* args) {
  Client* co = client(p);
  if (!authorised(co, FTP_ACCESS_WRITE)) return 0;
  if (!co->rename_from) {
    reply(co, "550 RNFR must have been called first.\r\n");
    return 0;
  }
  // Both paths follow the form of the new name, on purpose.
  char from_built[FTP_SERVER_PATH_SIZE];
  char to_built[FTP_SERVER_PATH_SIZE];
  const char* root = co->server->root_folder;
  bool built = args && (args[0] == '/' ? join(from_built, root, co->rename_from) && join(to_built, root, args)
                                       : join(from_built, root, co->directory, co->rename_from) &&
                                             join(to_built, root, co->directory, args));
  vek::release(co->rename_from, kSource, __LINE__);
  co->rename_from = nullptr;
  char from[PATH_MAX];
  char to[PATH_MAX];
  if (!built || !resolve(co, from_built, from) || !resolve(co, to_built, to) || is_root(co, from) || is_root(co, to)) {
    reply(co, kNoBad);
    return 0;
  }
  reply(co, file_move(from, to) == 0 ? "250 RNTO command successful.\r\n" : "550 Rename failed.\r\n");
  return 0;
}

// PORT h1,h2,h3,h4,p1,p2: the address must be the control connection's
// peer, so data can go nowhere else.
bool parse_port(const char* args, unsigned int* addr, int* port) {
  if (!args) return false;
  unsigned int v[6];
  const char* s = args;
  for (int i = 0; i < 6; ++i) {
    if (*s < '0' || *s > '9') return false;
    unsigned int n = 0;
    int digits = 0;
    while (*s >= '0' && *s <= '9' && digits < 4) {
      n = n * 10 + (unsigned int)(*s++ - '0');
      ++digits;
    }
    if (n > 255) return false;
    v[i] = n;
    if (i < 5 && *s++ != ',') return false;
  }
  while (*s == ' ') ++s;
  if (*s != '\0') return false;
  *addr = v[0] << 24 | v[1] << 16 | v[2] << 8 | v[3];
  *port = (int)(v[4] * 256 + v[5]);
  return *port > 0;
}

void drop_passive_listener(Client* co) {
  if (co->data_socket) socket_unlisten(co->data_socket);
  co->data_socket = nullptr;
}

int cmd_port(void* p, const char*, const char* args) {
  Client* co = client(p);
  unsigned int addr = 0;
  int port = 0;
  if (!parse_port(args, &addr, &port) || addr != socket_peer_address(co->socket)) {
    reply(co, "500 Illegal PORT command.\r\n");
    return 0;
  }
  drop_passive_listener(co);
  co->data_passive_mode = 0;
  snprintf(co->remote_addr, sizeof co->remote_addr, "%u.%u.%u.%u:%d", addr >> 24, (addr >> 16) & 255,
           (addr >> 8) & 255, addr & 255, port);
  co->data_state = 1;
  reply(co, "200 PORT command successful.\r\n");
  return 0;
}

int listening_port(void* server_socket) {
  struct sockaddr_in sin = {};
  socklen_t len = sizeof sin;
  if (getsockname(static_cast<SERVER_SOCKET*>(server_socket)->s, (struct sockaddr*)&sin, &len) != 0) return -1;
  return ntohs(sin.sin_port);
}

// The address PASV announces, commas for dots.
bool announced_address(Client* co, char* out, size_t cap) {
  {
    ScopedLock guard(co->server->mutex, kSource, __LINE__);
    if (co->server->public_ip) copy_name(out, cap, co->server->public_ip);
    else out[0] = '\0';
  }
  if (!out[0]) {
    char* local = nullptr;
    if (socket_local_address(co->socket, &local) != 0 || !local) return false;
    char* colon = std::strchr(local, ':');
    if (colon) *colon = '\0';
    copy_name(out, cap, local);
    vek::release(local, kSource, __LINE__);
  }
  replace_string(out, '.', ',');
  return true;
}

struct PortRange {
  int low = 32768;
  int high = 60999;
};

PortRange ephemeral_ports() {
  PortRange range;
  FILE* f = std::fopen("/proc/sys/net/ipv4/ip_local_port_range", "r");
  if (f) {
    int low = 0, high = 0;
    if (std::fscanf(f, "%d %d", &low, &high) == 2 && low > 0 && high >= low && high < 65536) range = {low, high};
    std::fclose(f);
  }
  return range;
}

// A listening socket on a free port for a passive data connection. Ports
// are drawn at random from the system's ephemeral range and bound by
// number: with thousands of finished data connections in TIME_WAIT, letting
// the kernel search for a free port (binding port 0) costs more than the
// transfer itself. Port 0 remains the last resort.
void* passive_listener() {
  static const PortRange range = ephemeral_ports();
  thread_local unsigned long long state = (unsigned long long)time_now() ^ (unsigned long long)(uintptr_t)&state;
  for (int attempt = 0; attempt < 16; ++attempt) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    char addr[32];
    snprintf(addr, sizeof addr, "0.0.0.0:%d", range.low + (int)(state % (unsigned)(range.high - range.low + 1)));
    void* listener = nullptr;
    if (_socket_listen(&listener, addr, kSource, __LINE__) == 0) return listener;
    if (listener) socket_unlisten(listener);
  }
  void* listener = nullptr;
  if (_socket_listen(&listener, "0.0.0.0:0", kSource, __LINE__) == 0) return listener;
  if (listener) socket_unlisten(listener);
  return nullptr;
}

int cmd_pasv(void* p, const char*, const char*) {
  Client* co = client(p);
  drop_passive_listener(co);
  void* listener = passive_listener();
  int port = listener ? listening_port(listener) : -1;
  char address[64];
  if (port < 0 || !announced_address(co, address, sizeof address)) {
    if (listener) socket_unlisten(listener);
    co->data_state = 0;
    reply(co, kLocalError);
    return 0;
  }
  co->data_socket = listener;
  co->data_passive_mode = 1;
  co->data_state = 1;
  replyf(co, "227 Entering Passive Mode (%s,%d,%d)\r\n", address, port / 256, port % 256);
  return 0;
}

int cmd_list(void* p, const char*, const char* args) {
  Client* co = client(p);
  if (!authorised(co, FTP_ACCESS_READ)) return -1;
  char current[PATH_MAX];
  char listed[PATH_MAX];
  const char* filter = nullptr;
  if (!resolve_or_refuse(co, nullptr, current)) return 0;
  copy_name(listed, sizeof listed, current);
  if (args) {
    char built[FTP_SERVER_PATH_SIZE];
    char target[PATH_MAX];
    struct stat st;
    if (!join(built, co->server->root_folder, co->directory, args) || !resolve(co, built, target)) {
      reply(co, kNoBad);
      return 0;
    }
    if (stat(target, &st) != 0) return -1;  // no reply, as it always was
    if (S_ISDIR(st.st_mode))
      copy_name(listed, sizeof listed, target);
    else
      filter = args;
  }
  Names names(listed, filter);
  if (names.count() < 0) {
    listing_failed(co, names.count());
    return 0;
  }
  void* conn = open_data(co);
  if (!conn) {
    reply(co, kLocalError);
    return 0;
  }
  // Entries are looked up in the current directory, also when a
  // subdirectory was listed: names that do not resolve there are skipped.
  int dirfd = open(current, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  LineSink out(co, conn);
  long long now = time_now();
  for (int i = 0; dirfd >= 0 && i < names.count() && out.ok(); ++i) {
    struct stat st;
    if (entry_info(co, dirfd, current, names[i], &st)) add_list_line(out, names[i], st, now);
  }
  if (dirfd >= 0) close(dirfd);
  close_transfer(co, out.flush(), nullptr);
  return 0;
}

int cmd_nlst(void* p, const char*, const char* args) {
  Client* co = client(p);
  if (!authorised(co, FTP_ACCESS_READ)) return 0;
  char current[PATH_MAX];
  if (!resolve_or_refuse(co, nullptr, current)) return 0;
  int count = directory_query(current, args, nullptr, -1);
  if (count < 0) {
    reply(co, kNotImplemented);
    return 0;
  }
  char listed[PATH_MAX];
  copy_name(listed, sizeof listed, current);
  const char* filter = args;
  const char* prefix = nullptr;
  if (count == 1 && args) {
    char built[FTP_SERVER_PATH_SIZE];
    char target[PATH_MAX];
    struct stat st;
    if (!join(built, co->server->root_folder, co->directory, args) || !resolve(co, built, target)) {
      reply(co, kNoBad);
      return 0;
    }
    if (stat(target, &st) != 0) {
      reply(co, kNotImplemented);
      return 0;
    }
    if (S_ISDIR(st.st_mode)) {  // one matching directory: its contents
      copy_name(listed, sizeof listed, target);
      filter = nullptr;
      prefix = args;
    }
  }
  Names names(listed, filter);
  if (names.count() < 0) {
    listing_failed(co, names.count());
    return 0;
  }
  void* conn = open_data(co);
  if (!conn) return 0;  // nothing is replied, as it always was
  LineSink out(co, conn);
  for (int i = 0; i < names.count() && out.ok(); ++i) {
    if (prefix)
      out.add("%s/%s\r\n", prefix, names[i]);
    else
      out.add("%s\r\n", names[i]);
  }
  close_transfer(co, out.flush(), nullptr);
  return 0;
}

// The checks RETR and STOR share: a plain name inside the root.
bool transfer_target(Client* co, const char* args, char* target) {
  if (file_is_valid_name(args, 0) != 0) {
    reply(co, kNoSuch);
    return false;
  }
  if (!resolve_or_refuse(co, args, target)) return false;
  return true;
}

// ASCII: a LF not preceded by CR goes out as CR LF, except at the very
// start of a block (kept as it always was).
Io send_ascii(Client* co, void* conn, int file) {
  char block[kAsciiBlock];
  char wire[2 * kAsciiBlock];
  int fd = socket_descriptor(conn);
  for (;;) {
    ssize_t n = read(file, block, sizeof block);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Io::kError;
    if (n == 0) return Io::kOk;
    size_t w = 0;
    for (ssize_t i = 0; i < n; ++i) {
      if (block[i] == '\n' && i > 0 && block[i - 1] != '\r') wire[w++] = '\r';
      wire[w++] = block[i];
    }
    Io io = send_all(co, fd, wire, w);
    if (io != Io::kOk) return io;
    count_out(conn, (long long)w);
  }
}

// sendfile on the socket in blocking mode, each call bounded by a send
// time-out of one wait slice: the kernel waits for buffer space itself (one
// call per buffer drained, not a call and a poll), and the loop still sees
// the idle limit and the stop flag.
Io send_binary(Client* co, void* conn, int file, long long offset) {
  int fd = socket_descriptor(conn);
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  struct timeval slice = {0, kWaitSliceMs * 1000};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &slice, sizeof slice);
  int off = 0;  // full segments only: a bulk transfer gains nothing from pushing partial ones
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &off, sizeof off);
  off_t pos = (off_t)offset;
  int idle_ms = 0;
  Io io = Io::kOk;
  for (;;) {
    ssize_t n = sendfile(fd, file, &pos, (size_t)kSendfileChunk);
    if (n > 0) {
      count_out(conn, n);
      idle_ms = 0;
      continue;
    }
    if (n == 0) break;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      io = Io::kError;
      break;
    }
    idle_ms += kWaitSliceMs;
    if (server_stopping(co)) {
      io = Io::kError;
      break;
    }
    if (idle_ms >= kDataIdleMs) {
      io = Io::kIdle;
      break;
    }
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  return io;
}

int cmd_retr(void* p, const char*, const char* args) {
  Client* co = client(p);
  if (!authorised(co, FTP_ACCESS_READ)) return 0;
  char target[PATH_MAX];
  if (!transfer_target(co, args, target)) return ERR_FTP_BAD_PATH;
  int file = open(target, O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (file >= 0 && (fstat(file, &st) != 0 || S_ISDIR(st.st_mode))) {
    close(file);
    file = -1;
  }
  if (file < 0) {
    reply(co, kNoSuch);
    return ERR_FTP_BAD_PATH;
  }
  void* conn = open_data(co);
  if (!conn) {
    close(file);
    reply(co, kCantOpenData);
    return ERR_FTP_TRANSFER_OPEN;
  }
  Session* session = session_of(p);
  long long offset = 0;
  if (session->rest_offset > 0) {
    if (lseek(file, (off_t)session->rest_offset, SEEK_CUR) < 0) {
      close(file);
      reply(co, kNoSuch);
      return ERR_FILE_SEEK;
    }
    offset = session->rest_offset;
    session->rest_offset = 0;
    co->rest_point = 0;
  }
  Io io = co->data_ascii_mode ? send_ascii(co, conn, file) : send_binary(co, conn, file, offset);
  close(file);
  int rc = close_transfer(co, io == Io::kOk, args);
  return io == Io::kOk ? rc : io_code(io, true);
}

// Removes a file whose write failed.
void discard(const char* path) {
  if (file_delete(path) != 0) log_vek_error("sqlite_to_csv(Failed to remove %s\n", path);
}

// ASCII: CR LF becomes LF within a block; a lone CR, or one that ends a
// block, is kept.
size_t ascii_to_local(const char* in, size_t n, char* out) {
  size_t w = 0;
  for (size_t i = 0; i < n; ++i) {
    if (in[i] == '\r' && i + 1 < n && in[i + 1] == '\n') continue;
    out[w++] = in[i];
  }
  return w;
}

// Moves what sits in the pipe into the file: by splice while the file takes
// it, else (a file system or an append-mode file that refuses splice)
// through a buffer. False when the file stores nothing more.
bool drain_pipe(int pipe_out, int file, size_t n, bool* no_splice, char* buffer) {
  while (n > 0) {
    ssize_t w;
    if (!*no_splice) {
      w = splice(pipe_out, nullptr, file, nullptr, n, SPLICE_F_MOVE);
      if (w < 0 && errno == EINVAL) {
        *no_splice = true;
        continue;
      }
    } else {
      w = read(pipe_out, buffer, n < (size_t)kBinaryBlock ? n : (size_t)kBinaryBlock);
      if (w > 0 && !write_all(file, buffer, (size_t)w)) return false;
    }
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    n -= (size_t)w;
  }
  return true;
}

// Binary: from the socket through a pipe into the file with splice, so the
// bytes never pass through this process.
Io receive_binary(Client* co, void* conn, int file, bool* write_failed) {
  char* buffer = static_cast<char*>(_vekMalloc(kBinaryBlock, kSource, __LINE__));
  int pipe_fds[2];
  if (!buffer || pipe2(pipe_fds, O_CLOEXEC) != 0) {
    vek::release(buffer, kSource, __LINE__);
    return Io::kError;
  }
  fcntl(pipe_fds[1], F_SETPIPE_SZ, kBinaryBlock);
  int fd = socket_descriptor(conn);
  bool no_splice = false;
  Io io = Io::kOk;
  for (;;) {
    ssize_t n = splice(fd, nullptr, pipe_fds[1], nullptr, kBinaryBlock, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
    if (n > 0) {
      count_in(conn, n);
      if (!drain_pipe(pipe_fds[0], file, (size_t)n, &no_splice, buffer)) {
        *write_failed = true;
        break;
      }
      continue;
    }
    if (n == 0) {
      io = Io::kClosed;
      break;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      io = Io::kError;
      break;
    }
    io = wait_ready(co, fd, POLLIN);
    if (io != Io::kOk) break;
  }
  close(pipe_fds[0]);
  close(pipe_fds[1]);
  vek::release(buffer, kSource, __LINE__);
  return io;
}

// Receives into the file until the client closes the data connection in
// order (kOk), the connection fails or stalls (that Io), or a write stores
// nothing (*write_failed).
Io receive_file(Client* co, void* conn, int file, bool* write_failed) {
  if (!co->data_ascii_mode) {
    Io io = receive_binary(co, conn, file, write_failed);
    return io == Io::kClosed ? Io::kOk : io;
  }
  char* buffer = static_cast<char*>(_vekMalloc(3 * kAsciiBlock, kSource, __LINE__));
  if (!buffer) return Io::kError;
  int fd = socket_descriptor(conn);
  Io io;
  for (;;) {
    size_t got = 0;
    io = recv_some(co, fd, buffer, kAsciiBlock, &got);
    if (io != Io::kOk) break;
    count_in(conn, (long long)got);
    size_t len = ascii_to_local(buffer, got, buffer + kAsciiBlock);
    if (len == 0 || !write_all(file, buffer + kAsciiBlock, len)) {
      *write_failed = true;
      break;
    }
  }
  vek::release(buffer, kSource, __LINE__);
  return io == Io::kClosed ? Io::kOk : io;
}

int cmd_stor(void* p, const char*, const char* args) {
  Client* co = client(p);
  if (!authorised(co, FTP_ACCESS_WRITE)) return 0;
  char target[PATH_MAX];
  if (!transfer_target(co, args, target)) return ERR_FTP_BAD_PATH;
  int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (co->data_appe_mode ? O_APPEND : O_TRUNC);
  co->data_appe_mode = 0;
  int file = open(target, flags, 0666);
  if (file < 0) {
    reply(co, "553 File name not allowed.\r\n");
    return ERR_FTP_TRANSFER_OPEN;
  }
  void* conn = open_data(co);
  if (!conn) {
    close(file);
    reply(co, kCantOpenData);
    return ERR_FTP_TRANSFER_OPEN;
  }
  bool write_failed = false;
  Io io = receive_file(co, conn, file, &write_failed);
  if (write_failed) {
    close(file);
    discard(target);
    close_transfer(co, false, args);
    return ERR_FILE_WRITE;
  }
  close(file);
  int rc = close_transfer(co, io == Io::kOk, args);
  return io == Io::kOk ? rc : io_code(io, false);
}

void free_command(void* entry) { vek::release(entry, kSource, __LINE__); }

struct BuiltIn {
  const char* name;
  ftp_server_exec_callback handler;
};

constexpr BuiltIn kBuiltIns[] = {
    {"USER", cmd_user}, {"PASS", cmd_pass}, {"SYST", cmd_syst}, {"PASV", cmd_pasv}, {"LIST", cmd_list},
    {"PORT", cmd_port}, {"NLST", cmd_nlst}, {"QUIT", cmd_quit}, {"TYPE", cmd_type}, {"REST", cmd_rest},
    {"RETR", cmd_retr}, {"RNFR", cmd_rnfr}, {"RNTO", cmd_rnto}, {"CWD", cmd_cwd},   {"XCWD", cmd_cwd},
    {"PWD", cmd_pwd},   {"XPWD", cmd_pwd},  {"STOR", cmd_stor}, {"DELE", cmd_dele}, {"MKD", cmd_mkd},
    {"XMKD", cmd_mkd},  {"RMD", cmd_rmd},   {"XRMD", cmd_rmd},  {"CDUP", cmd_cdup}, {"XCUP", cmd_cdup},
    {"APPE", cmd_appe}, {"ALLO", cmd_noop}, {"NOOP", cmd_noop}, {"SIZE", cmd_size},
};
static_assert(sizeof kBuiltIns / sizeof kBuiltIns[0] == 29);

}  // namespace

_FTP_COMMAND* find_command(const char* word) {
  void* table = g_ftp_command_btree;
  if (!table || !word) return nullptr;
  unsigned int crc = hash_crc32(word, (unsigned int)std::strlen(word));
  return static_cast<_FTP_COMMAND*>(btree_find_by_hash(table, (long long)crc));
}

int reply(_FTP_CLIENT_OBJECT* co, const char* text) { return socket_send(co->socket, text, (int)std::strlen(text)); }

void release_data_sockets(_FTP_CLIENT_OBJECT* co) {
  drop_passive_listener(co);
  if (co->data_connection_socket) socket_delete(co->data_connection_socket);
  co->data_connection_socket = nullptr;
}

}  // namespace vek::ftp

using namespace vek::ftp;

VEK_API void ftp_command_register(const char* command, ftp_server_exec_callback callback) {
  if (!command || !callback) return;
  if (!g_ftp_command_btree &&
      _btree_create_ex(&g_ftp_command_btree, btree_str_hash, free_command, 0, kCmdSource, __LINE__) != 0)
    return;
  auto* entry = vek::alloc_record<_FTP_COMMAND>(kCmdSource, __LINE__);
  if (!entry) return;
  vek::copy_name(entry->name, 129, command);
  entry->exec_callback = callback;
  if (btree_insert(g_ftp_command_btree, entry) != entry) free_command(entry);  // the first registration wins
}

VEK_API void ftp_command_init(void) {
  if (g_ftp_command_btree) return;
  for (const BuiltIn& b : kBuiltIns) ftp_command_register(b.name, b.handler);
}

VEK_API void ftp_command_uninit(void) {
  void* table = g_ftp_command_btree;
  g_ftp_command_btree = nullptr;
  if (table) btree_delete(table);
}
