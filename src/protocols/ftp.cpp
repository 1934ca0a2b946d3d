// Blocking FTP client: a control connection with a reply reader, a
// reply-driven login, and one data connection (passive or active) per
// transfer, all on the caller's thread.
#include <vekutil/ftp.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include <vekutil/socket.h>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/ftp.c";

constexpr int kAddressSize = 68;
constexpr int kAddressKept = 64;
// Received control bytes not yet consumed, plus the terminator.
constexpr int kReplyBufferSize = 4077;
constexpr int kReplyLineMax = kReplyBufferSize - 1;

constexpr int kReplyTimeout = 15000;
// A large upload may leave the server writing for a while after the last
// byte; the final reply gets the same patience as the data itself.
constexpr int kTransferReplyTimeout = 60000;
// A download that receives nothing for this long is given up.
constexpr int kDataIdleTimeout = 60000;
constexpr int kSendTimeout = 15000;
constexpr int kAcceptTimeout = 5000;
// Replies read by a login before it gives up on a server that never asks
// for the password nor accepts.
constexpr int kLoginRepliesMax = 100;

// File data moves in blocks of this size: one system call each way. Bigger
// than a control line so that a transfer costs few calls per megabyte.
constexpr int kBlockSize = 65535;

struct _FTP_OBJECT {
  char address[kAddressSize];          // "host:port" of the server
  void* ctl_socket;                    // control connection
  char ctl_buffer[kReplyBufferSize];   // received control bytes not yet consumed
  int clt_buffer_len;                  // bytes in ctl_buffer
  int active_mode;                     // 0 passive, 1 active
  ftp_progress_callback progress;
  void* progress_custom;
};

_FTP_OBJECT* as_ftp(void* handle) { return static_cast<_FTP_OBJECT*>(handle); }

bool has_line_break(const char* text) { return std::strpbrk(text, "\r\n") != nullptr; }

// ---- control connection --------------------------------------------------

// Sends "VERB\r\n" or "VERB argument\r\n". An argument with a line break
// would smuggle a second command and is refused.
int send_command(_FTP_OBJECT* f, const char* verb, const char* argument) {
  if (argument && has_line_break(argument)) return ERR_INVALID_PARAMETER;
  const size_t verb_len = std::strlen(verb);
  const size_t arg_len = argument ? std::strlen(argument) + 1 : 0;
  const size_t length = verb_len + arg_len + 2;
  if (length > (size_t)kReplyLineMax * 4) return ERR_INVALID_PARAMETER;
  auto* text = static_cast<char*>(_vekMalloc(length + 1, kSource, __LINE__));
  if (!text) return ERR_NO_MEMORY;
  std::memcpy(text, verb, verb_len);
  if (argument) {
    text[verb_len] = ' ';
    std::memcpy(text + verb_len + 1, argument, arg_len - 1);
  }
  std::memcpy(text + length - 2, "\r\n", 3);
  const int rc = socket_send(f->ctl_socket, text, (int)length);
  _vekFree(text, kSource, __LINE__);
  return rc;
}

const char* find_line_end(const char* buffer, int length) {
  return static_cast<const char*>(memmem(buffer, (size_t)length, "\r\n", 2));
}

// The number formed by the leading digits of a line's first three
// characters; 0 when it does not start with a digit.
int reply_code(const char* line, int line_length) {
  int code = 0;
  for (int i = 0; i < 3 && i < line_length && line[i] >= '0' && line[i] <= '9'; ++i) code = code * 10 + (line[i] - '0');
  return code;
}

// Receives more control bytes into buffer (holding *length of capacity
// kReplyLineMax) until it contains a line end.
int receive_line(void* ctl_socket, char* buffer, int* length, int timeout) {
  while (!find_line_end(buffer, *length)) {
    int room = kReplyLineMax - *length;
    if (room <= 0) return ERR_FTP_REPLY_TOO_LONG;
    const int rc = socket_recv2(ctl_socket, buffer + *length, &room, timeout);
    if (rc != 0) return rc;
    *length += room;
    buffer[*length] = '\0';
  }
  return 0;
}

// Drops the first count bytes of the control buffer.
void consume(_FTP_OBJECT* f, int count) {
  const int rest = f->clt_buffer_len - count;
  std::memmove(f->ctl_buffer, f->ctl_buffer + count, (size_t)rest);
  std::memset(f->ctl_buffer + rest, 0, (size_t)(kReplyBufferSize - rest));
  f->clt_buffer_len = rest;
}

// Takes the next line out of the control buffer: its code and its fourth
// character, which is "-" when the reply goes on.
int read_line(_FTP_OBJECT* f, int timeout, int* code, char* fourth) {
  const int rc = receive_line(f->ctl_socket, f->ctl_buffer, &f->clt_buffer_len, timeout);
  if (rc != 0) return rc;
  const int line_length = (int)(find_line_end(f->ctl_buffer, f->clt_buffer_len) - f->ctl_buffer);
  *code = reply_code(f->ctl_buffer, line_length);
  *fourth = line_length >= 4 ? f->ctl_buffer[3] : '\0';
  consume(f, line_length + 2);
  return 0;
}

// One whole reply: its code (0 when it has none), or a negative read result.
// A reply whose first line has "-" as fourth character goes on up to the next
// line that does not.
int get_response(_FTP_OBJECT* f, int timeout) {
  int code = 0;
  char fourth = '\0';
  int rc = read_line(f, timeout, &code, &fourth);
  while (rc == 0 && fourth == '-') {
    int next_code = 0;
    rc = read_line(f, timeout, &next_code, &fourth);
  }
  return rc != 0 ? rc : code;
}

int command_reply(_FTP_OBJECT* f, const char* verb, const char* argument, int timeout) {
  const int rc = send_command(f, verb, argument);
  return rc != 0 ? rc : get_response(f, timeout);
}

// Bytes received after the PASV line belong to later replies: they go to the
// control buffer, behind what it already holds, as far as there is room.
void keep_unread(_FTP_OBJECT* f, const char* bytes, int count) {
  const int room = kReplyLineMax - f->clt_buffer_len;
  if (count > room) count = room;
  if (count <= 0) return;
  std::memcpy(f->ctl_buffer + f->clt_buffer_len, bytes, (size_t)count);
  f->clt_buffer_len += count;
  f->ctl_buffer[f->clt_buffer_len] = '\0';
}

// ---- data connection -----------------------------------------------------

// Reads one number of the PASV reply's list; false when there are no digits.
bool parse_number(const char** cursor, unsigned* value) {
  const char* p = *cursor;
  unsigned v = 0;
  int digits = 0;
  for (; *p >= '0' && *p <= '9'; ++p, ++digits)
    if (v < 100000) v = v * 10 + unsigned(*p - '0');
  *cursor = p;
  *value = v;
  return digits > 0;
}

// The port of "227 Entering Passive Mode (h1,h2,h3,h4,p1,p2)". The address
// part is checked for form only: the data connection goes to the host the
// control connection reached, so a reply cannot send the client elsewhere.
int parse_pasv_port(const char* line, unsigned* port) {
  const char* p = std::strchr(line, '(');
  if (!p) return ERR_FTP_BAD_PASV_REPLY;
  ++p;
  unsigned numbers[6];
  for (int i = 0; i < 6; ++i) {
    if (!parse_number(&p, &numbers[i])) return ERR_FTP_BAD_PASV_REPLY;
    if (i < 5 && *p++ != ',') return ERR_FTP_BAD_PASV_REPLY;
  }
  *port = (numbers[4] * 256 + numbers[5]) & 0xFFFFu;
  return 0;
}

// PASV: the reply line is read straight from the socket.
int request_passive_port(_FTP_OBJECT* f, unsigned* port) {
  int rc = send_command(f, "PASV", nullptr);
  if (rc != 0) return rc;
  char line[kReplyBufferSize];
  int length = 0;
  line[0] = '\0';
  rc = receive_line(f->ctl_socket, line, &length, kReplyTimeout);
  if (rc != 0) return rc;
  char* end = const_cast<char*>(find_line_end(line, length));
  keep_unread(f, end + 2, (int)(line + length - (end + 2)));
  *end = '\0';
  return parse_pasv_port(line, port);
}

int connect_passive(_FTP_OBJECT* f, void** data_socket) {
  unsigned port = 0;
  int rc = request_passive_port(f, &port);
  if (rc != 0) return rc;
  const unsigned ip = socket_peer_address(f->ctl_socket);
  char address[32];
  std::snprintf(address, sizeof address, "%u.%u.%u.%u:%u", ip >> 24, (ip >> 16) & 255, (ip >> 8) & 255, ip & 255,
                port);
  rc = _socket_create(data_socket, kSource, __LINE__);
  if (rc == 0) rc = socket_connect(*data_socket, address);
  if (rc != 0 && *data_socket) {
    socket_delete(*data_socket);
    *data_socket = nullptr;
  }
  return rc;
}

// Listens on any port and tells the server where with PORT: the address of
// the control connection's local end, the listener's port.
int announce_active_port(_FTP_OBJECT* f, void** listener) {
  int rc = _socket_listen(listener, "0.0.0.0:0", kSource, __LINE__);
  if (rc != 0) return rc;
  sockaddr_in bound{};
  socklen_t size = sizeof bound;
  if (getsockname(static_cast<SERVER_SOCKET*>(*listener)->s, reinterpret_cast<sockaddr*>(&bound), &size) != 0)
    return ERR_SOCKET_FAILED;
  const unsigned port = ntohs(bound.sin_port);
  char* local = nullptr;
  rc = socket_local_address(f->ctl_socket, &local);
  if (rc != 0) return rc;
  char ip[32];
  vek::copy_name(ip, sizeof ip, local);
  _vekFree(local, kSource, __LINE__);
  for (char* p = ip; *p; ++p) {
    if (*p == ':') *p = '\0';
    if (*p == '.') *p = ',';
  }
  char argument[48];
  std::snprintf(argument, sizeof argument, "%s,%u,%u", ip, port / 256, port % 256);
  rc = command_reply(f, "PORT", argument, kReplyTimeout);
  return rc < 0 ? rc : 0;
}

bool transfer_starts(int reply) { return reply == 150 || reply == 200 || reply == 125; }

// The result of a reply the call did not expect: its code, or the read
// error. A line without a code must not pass for success (0).
int unexpected(int reply) { return reply == 0 ? ERR_SOCKET_RECV : reply; }

// Opens the data connection for "VERB argument" and sends the command.
// Returns 0 with *data_socket connected, a negative code, or the server's
// unexpected reply code (with *data_socket NULL).
int open_transfer(_FTP_OBJECT* f, const char* verb, const char* argument, void** data_socket) {
  *data_socket = nullptr;
  if (has_line_break(argument)) return ERR_INVALID_PARAMETER;
  int rc = command_reply(f, "TYPE", "I", kReplyTimeout);
  if (rc < 0) return rc;
  void* listener = nullptr;
  rc = f->active_mode ? announce_active_port(f, &listener) : connect_passive(f, data_socket);
  if (rc == 0) rc = command_reply(f, verb, argument, kReplyTimeout);
  if (rc >= 0 && transfer_starts(rc)) {
    rc = 0;
    if (f->active_mode) {
      *data_socket = socket_accept(listener, kAcceptTimeout);
      if (!*data_socket) rc = ERR_FTP_NO_DATA_CONNECTION;
    }
  } else {
    rc = unexpected(rc);
    if (*data_socket) socket_delete(*data_socket);
    *data_socket = nullptr;
  }
  if (listener) socket_unlisten(listener);
  return rc;
}

void report_progress(_FTP_OBJECT* f, long long bytes) {
  if (f->progress) f->progress(bytes, f->progress_custom);
}

// Sends the file's bytes; a failed send ends the loop and the server's reply
// tells the outcome. ERR_FTP_LOCAL_FILE when the file cannot be read.
int send_file(_FTP_OBJECT* f, std::FILE* file, void* data_socket, char* block) {
  long long total = 0;
  for (;;) {
    const size_t n = std::fread(block, 1, kBlockSize, file);
    if (n == 0) return std::ferror(file) ? ERR_FTP_LOCAL_FILE : 0;
    if (socket_send2(data_socket, block, (int)n, kSendTimeout) != 0) return 0;
    total += (long long)n;
    report_progress(f, total);
  }
}

// Writes what arrives until the server closes the data connection (or it
// fails). ERR_SOCKET_TIMEOUT when nothing comes for a minute,
// ERR_FTP_LOCAL_FILE when the file cannot be written.
int receive_file(_FTP_OBJECT* f, void* data_socket, std::FILE* file, char* block) {
  long long total = 0;
  for (;;) {
    int n = kBlockSize;
    const int rc = socket_recv2(data_socket, block, &n, kDataIdleTimeout);
    if (rc == ERR_SOCKET_TIMEOUT) return rc;
    if (rc != 0) return 0;
    if (std::fwrite(block, 1, (size_t)n, file) != (size_t)n) return ERR_FTP_LOCAL_FILE;
    total += n;
    report_progress(f, total);
  }
}

// The local end of a transfer: the file, unbuffered so that each block moves
// in one call without a copy through stdio, and the transfer block.
class LocalEnd {
 public:
  LocalEnd(const char* path, const char* mode) : file_(std::fopen(path, mode)) {
    if (file_) std::setvbuf(file_, nullptr, _IONBF, 0);
  }
  ~LocalEnd() {
    close();
    vek::release(block_, kSource, __LINE__);
  }
  LocalEnd(const LocalEnd&) = delete;
  LocalEnd& operator=(const LocalEnd&) = delete;

  std::FILE* file() const { return file_; }
  char* block() const { return block_; }

  // Opens the data connection for `verb`. When that fails after the file
  // opened, a NOOP goes out; its reply is left for the next read.
  int open_data(_FTP_OBJECT* f, const char* verb, const char* remote, void** data) {
    if (!file_) return ERR_FTP_LOCAL_FILE;
    block_ = static_cast<char*>(_vekMalloc(kBlockSize, kSource, __LINE__));
    const int rc = block_ ? open_transfer(f, verb, remote, data) : ERR_NO_MEMORY;
    if (rc != 0) send_command(f, "NOOP", nullptr);
    return rc;
  }

  // False when the file could not be closed cleanly (a write-back error).
  bool close() {
    const bool ok = !file_ || std::fclose(file_) == 0;
    file_ = nullptr;
    return ok;
  }

 private:
  std::FILE* file_;
  char* block_ = nullptr;
};

int transfer_result(int reply) { return reply == 226 ? 0 : unexpected(reply); }

int check_transfer_args(void* handle, const char* a, const char* b) {
  if (!handle) return ERR_INVALID_HANDLE;
  if (!a || !b) return ERR_INVALID_PARAMETER;
  return 0;
}

}  // namespace

int ftp_connect2(void** handle, const char* host, int active_mode) {
  if (!handle) return ERR_INVALID_HANDLE;
  *handle = nullptr;
  if (!host) return ERR_INVALID_PARAMETER;
  auto* f = vek::alloc_record<_FTP_OBJECT>(kSource, __LINE__);
  if (!f) return ERR_NO_MEMORY;
  vek::copy_name(f->address, kAddressKept + 1, host);
  f->active_mode = active_mode;
  int rc = _socket_create(&f->ctl_socket, kSource, __LINE__);
  if (rc == 0) rc = socket_connect(f->ctl_socket, f->address);
  if (rc != 0) {
    if (f->ctl_socket) socket_delete(f->ctl_socket);
    _vekFree(f, kSource, __LINE__);
    return rc;
  }
  *handle = f;
  return 0;
}

int ftp_connect(void** handle, const char* host) { return ftp_connect2(handle, host, 0); }

int ftp_disconnect(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  _FTP_OBJECT* f = as_ftp(handle);
  socket_delete(f->ctl_socket);
  _vekFree(f, kSource, __LINE__);
  return 0;
}

int ftp_login(void* handle, const char* user, const char* pass) {
  if (!handle) return ERR_INVALID_HANDLE;
  if (!user || !pass || has_line_break(user) || has_line_break(pass)) return ERR_INVALID_PARAMETER;
  _FTP_OBJECT* f = as_ftp(handle);
  for (int replies = 0; replies < kLoginRepliesMax; ++replies) {
    const int reply = get_response(f, kReplyTimeout);
    int rc = 0;
    switch (reply) {
      case 220: rc = send_command(f, "USER", user); break;
      case 331: rc = send_command(f, "PASS", pass); break;
      case 230: return 0;
      case 530:
      case 0: return ERR_FTP_LOGIN_FAILED;
      default:
        if (reply < 0) return reply;
        break;  // informational replies are skipped
    }
    if (rc != 0) return rc;
  }
  return ERR_FTP_LOGIN_FAILED;
}

int ftp_del(void* handle, const char* remote_file) {
  if (!handle) return ERR_INVALID_HANDLE;
  if (!remote_file) return ERR_INVALID_PARAMETER;
  const int reply = command_reply(as_ftp(handle), "DELE", remote_file, kReplyTimeout);
  return reply == 250 || reply == 200 ? 0 : unexpected(reply);
}

int ftp_put(void* handle, const char* local_file, const char* remote_file) {
  int rc = check_transfer_args(handle, local_file, remote_file);
  if (rc != 0) return rc;
  _FTP_OBJECT* f = as_ftp(handle);
  LocalEnd local(local_file, "rb");
  void* data = nullptr;
  rc = local.open_data(f, "STOR", remote_file, &data);
  if (rc != 0) return rc;
  const int local_rc = send_file(f, local.file(), data, local.block());
  socket_shutdown(data);
  const int reply = get_response(f, kTransferReplyTimeout);
  socket_delete(data);
  return local_rc != 0 ? local_rc : transfer_result(reply);
}

int ftp_get(void* handle, const char* remote_file, const char* local_file) {
  int rc = check_transfer_args(handle, remote_file, local_file);
  if (rc != 0) return rc;
  _FTP_OBJECT* f = as_ftp(handle);
  LocalEnd local(local_file, "wb");
  void* data = nullptr;
  rc = local.open_data(f, "RETR", remote_file, &data);
  if (rc != 0) {
    if (local.file()) {
      local.close();
      std::remove(local_file);  // nothing came: no empty file left behind
    }
    return rc;
  }
  int local_rc = receive_file(f, data, local.file(), local.block());
  socket_delete(data);
  if (!local.close() && local_rc == 0) local_rc = ERR_FTP_LOCAL_FILE;
  // A server that went silent is not asked for its reply: it would not come.
  if (local_rc == ERR_SOCKET_TIMEOUT) return local_rc;
  const int reply = get_response(f, kTransferReplyTimeout);
  return local_rc != 0 ? local_rc : transfer_result(reply);
}

int ftp_set_progress_callback(void* handle, ftp_progress_callback callback, void* custom) {
  if (!handle) return ERR_INVALID_HANDLE;
  _FTP_OBJECT* f = as_ftp(handle);
  f->progress = callback;
  f->progress_custom = custom;
  return 0;
}
