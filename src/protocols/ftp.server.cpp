// FTP server: listener and sessions. See ftp.server.internal.hpp for which
// thread does what.
//
// Command lines. The worker receives whatever has arrived on a control
// socket into the session's 1024-byte buffer and never waits for more. A
// line ends at the first CR LF; at most 1022 characters may precede it. When
// a whole line is in, the socket is paused and the session queued for a
// command thread, which runs every complete line in the buffer, in order,
// and then resumes the socket. A session therefore has at most one command
// running, and sessions run in parallel on as many command threads as they
// need.
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>

#include <vekutil/btree.h>
#include <vekutil/ftp.server.h>
#include <vekutil/mutex.h>
#include <vekutil/socket.async.h>
#include <vekutil/socket.h>
#include <vekutil/threads.h>
#include <vekutil/timeutil.h>

#include "core/internal.hpp"
#include "core/scoped_lock.hpp"
#include "protocols/ftp.server.internal.hpp"
#include "threads/threads.internal.hpp"

namespace vek::ftp {
namespace {

constexpr const char* kSource = kServerSource;
constexpr int kLineTimeoutMs = 600000;
constexpr int kWorkerPeriodMs = 2000;
constexpr int kCommandStack = vek::threads::kCallerCodeStackMin;  // runs the host's callbacks
constexpr int kSweeperStack = 64 * 1024;
constexpr int kSweepMs = 1000;
constexpr int kIdleThreadMs = 10000;   // an idle command thread retires after this long
constexpr int kMaxCommandThreads = 2048;
constexpr int kMaxBadLogins = 6;
constexpr int kAcceptRetryMs = 20;
constexpr int kNextLineWaitMs = 5;  // a command thread waits this long for a session's next line

// ---- Line assembly.

// Index of the LF that ends the first line in buf (a LF right after a CR),
// or -1.
int line_end(const char* buf, int len) {
  for (int i = 1; i < len; ++i)
    if (buf[i] == '\n' && buf[i - 1] == '\r') return i;
  return -1;
}

// ---- Server record.

Server* make_server() {
  void* p = zalloc(sizeof(Server), kSource, __LINE__);
  if (!p) return nullptr;
  auto* srv = new (p) Server();
  pthread_mutex_init(&srv->exec_mu, nullptr);
  pthread_cond_init(&srv->exec_cv, nullptr);
  pthread_cond_init(&srv->state_cv, nullptr);
  return srv;
}

void free_server(Server* srv) {
  _FTP_SERVER_OBJECT* s = &srv->pub;
  if (s->session_btree) btree_delete(s->session_btree);
  if (s->mutex) mutex_delete(s->mutex);
  vek::release(s->public_ip, kSource, __LINE__);
  vek::release(s->root_folder, kSource, __LINE__);
  vek::release(s->root_folder_abs, kSource, __LINE__);
  vek::release(srv->root_real, kSource, __LINE__);
  pthread_cond_destroy(&srv->state_cv);
  pthread_cond_destroy(&srv->exec_cv);
  pthread_mutex_destroy(&srv->exec_mu);
  srv->~Server();
  vek::release(srv, kSource, __LINE__);
}

// Drops one reference: the server's own or a session's. The record goes
// with the last one.
void _ftp_server_free(Server* srv) {
  bool last;
  {
    ScopedLock guard(srv->pub.mutex, kSource, __LINE__);
    last = --srv->pub.ref_count < 1;
  }
  if (last) free_server(srv);
}

void add_reference(Server* srv) {
  ScopedLock guard(srv->pub.mutex, kSource, __LINE__);
  ++srv->pub.ref_count;
}

int references(Server* srv) {
  ScopedLock guard(srv->pub.mutex, kSource, __LINE__);
  return srv->pub.ref_count;
}

// ---- Command threads.

void* command_thread(void* arg);

// Queues a session whose buffer holds a complete line; starts a command
// thread when every idle one is already spoken for.
void submit(Session* s) {
  Server* srv = s->srv;
  ScopedLock guard(srv->exec_mu);
  s->next_ready = nullptr;
  if (srv->ready_tail)
    srv->ready_tail->next_ready = s;
  else
    srv->ready_head = s;
  srv->ready_tail = s;
  ++srv->ready_count;
  if (srv->ready_count > srv->idle_threads && srv->threads < kMaxCommandThreads) {
    THREAD_EX_ARGS ex = {"FTP Server Command", kCommandStack, 0};
    if (thread_create_detached_ex(command_thread, srv, &ex) == 0) ++srv->threads;
  }
  pthread_cond_signal(&srv->exec_cv);
}

void run_session(Session* s);

void* command_thread(void* arg) {
  Server* srv = static_cast<Server*>(arg);
  pthread_mutex_lock(&srv->exec_mu);
  for (;;) {
    if (Session* s = srv->ready_head) {
      srv->ready_head = s->next_ready;
      if (!srv->ready_head) srv->ready_tail = nullptr;
      --srv->ready_count;
      pthread_mutex_unlock(&srv->exec_mu);
      run_session(s);
      pthread_mutex_lock(&srv->exec_mu);
      continue;
    }
    if (srv->exec_stop) break;
    if (srv->retire > 0) {
      --srv->retire;
      break;
    }
    ++srv->idle_threads;
    pthread_cond_wait(&srv->exec_cv, &srv->exec_mu);
    --srv->idle_threads;
  }
  --srv->threads;
  pthread_cond_broadcast(&srv->state_cv);
  pthread_mutex_unlock(&srv->exec_mu);
  return nullptr;
}

// ---- Sessions.

// Splits a trimmed copy of the line: the command word ends at CR, LF or
// space; the arguments run to CR or LF. NULL word for an empty line.
void split_line(char* copy, char** word, char** args) {
  char* save = nullptr;
  *word = strtok_r(copy, "\r\n ", &save);
  *args = *word ? strtok_r(nullptr, "\r\n", &save) : nullptr;
}

// A copy of text without leading and trailing spaces (tabs are kept).
void trim_into(const char* text, char* out) {
  while (*text == ' ') ++text;
  size_t n = std::strlen(text);
  while (n > 0 && text[n - 1] == ' ') --n;
  std::memcpy(out, text, n);
  out[n] = '\0';
}

// Runs one command line; false when the session must end.
bool run_line(Session* s, const char* line) {
  _FTP_CLIENT_OBJECT* co = &s->pub;
  _FTP_SERVER_OBJECT* server = co->server;
  char copy[FTP_SERVER_LINE_SIZE];
  trim_into(line, copy);
  char* word;
  char* args;
  split_line(copy, &word, &args);
  if (!word) return false;  // an empty line ends the session, deliberately strict
  if (server->pre_cmd_callback) server->pre_cmd_callback(co, word, line);
  _FTP_COMMAND* cmd = find_command(word);
  if (!cmd) {
    char text[FTP_SERVER_LINE_SIZE + 32];
    snprintf(text, sizeof text, "500 Invalid command %s \r\n", word);
    return reply(co, text) == 0;
  }
  int rc = cmd->exec_callback(co, word, args);
  if (rc != ERR_FTP_LOGIN_FAILED) {
    if (server->post_cmd_callback) server->post_cmd_callback(co, word, line, rc);
    return true;
  }
  return ++co->bad_command < kMaxBadLogins;
}

// Runs every complete line in the session's buffer; false when the session
// must end.
bool run_complete_lines(Session* s) {
  for (;;) {
    int end = line_end(s->in, s->in_len);
    if (end < 0) return true;
    char line[FTP_SERVER_LINE_SIZE];
    std::memcpy(line, s->in, (size_t)end);
    line[end] = '\0';  // the line as received: its CR, no LF
    s->in_len -= end + 1;
    std::memmove(s->in, s->in + end + 1, (size_t)s->in_len);
    if (!run_line(s, line) || s->closing.load()) return false;
  }
}

// Waits a moment on the control socket for the client's next command. A
// client usually sends it as soon as it has the reply; taking it here spares
// the hand-over to the worker and back to a command thread. True when a
// whole line has arrived; an incomplete one stays in the buffer, and one too
// long ends the session.
bool next_line_soon(Session* s) {
  int fd = socket_descriptor(s->pub.socket);
  long long until = time_now() + kNextLineWaitMs;
  for (;;) {
    long long left = until - time_now();
    struct pollfd p = {fd, POLLIN, 0};
    if (left <= 0 || poll(&p, 1, (int)left) <= 0 || !(p.revents & POLLIN)) return false;
    int room = FTP_SERVER_LINE_SIZE - s->in_len;
    if (socket_recv2(s->pub.socket, s->in + s->in_len, &room, 0) != 0 || room <= 0) return false;
    s->in_len += room;  // an end of stream or an error is left for the worker to see
    if (line_end(s->in, s->in_len) >= 0) return true;
    if (s->in_len == FTP_SERVER_LINE_SIZE) {
      s->closing.store(kClosingRequested);  // line too long
      return false;
    }
  }
}

// Command-thread side of a session: runs its complete lines, and the next
// ones while they follow quickly, then lets the worker watch the control
// socket again. An ending session has its control socket shut down; the
// worker then sees the end of stream and ends it.
void run_session(Session* s) {
  Server* srv = s->srv;
  bool keep = run_complete_lines(s);
  while (keep && !srv->stopping.load(std::memory_order_relaxed) && next_line_soon(s)) keep = run_complete_lines(s);
  if (!keep || s->closing.load() != kOpen) {
    if (s->closing.exchange(kClosingShutDown) != kClosingShutDown) socket_shutdown(s->pub.socket);
  } else if (s->in_len > 0) {
    s->partial_since.store(time_now());
  }
  // The last touch of the session: once resumed, the worker may end it.
  socket_async_worker_resume_recv(srv->pub.socket_async_ftp_server_worker, s->pub.socket);
}

// Ends a session on the worker thread; the caller returns
// SOCKET_ASYNC_DESTROY so that the worker deletes the control socket.
int end_session(Session* s) {
  Server* srv = s->srv;
  _FTP_CLIENT_OBJECT* co = &s->pub;
  btree_delete_by_object(srv->pub.session_btree, s);
  vek::release(co->directory, kSource, __LINE__);
  vek::release(co->rename_from, kSource, __LINE__);
  release_data_sockets(co);
  s->~Session();
  vek::release(s, kSource, __LINE__);
  _ftp_server_free(srv);
  return SOCKET_ASYNC_DESTROY;
}

// Readable control socket: takes what has arrived without waiting for more.
int _ftp_client_handler_callback(int status, void* socket, void* custom) {
  Session* s = static_cast<Session*>(custom);
  if (status != 0 || s->closing.load() != kOpen) return end_session(s);
  int room = FTP_SERVER_LINE_SIZE - s->in_len;
  int rc = socket_recv2(socket, s->in + s->in_len, &room, 0);
  if (rc != 0 || room <= 0) return end_session(s);
  s->in_len += room;
  if (line_end(s->in, s->in_len) >= 0) {
    s->partial_since.store(0);
    submit(s);
    return SOCKET_ASYNC_PAUSE;
  }
  if (s->in_len == FTP_SERVER_LINE_SIZE) return end_session(s);  // line too long
  long long expected = 0;
  s->partial_since.compare_exchange_strong(expected, time_now());
  return SOCKET_ASYNC_KEEP;
}

// Keeps the control socket's close from lingering on the worker thread.
void linger_off(void* socket) {
  struct linger off = {0, 0};
  setsockopt(socket_descriptor(socket), SOL_SOCKET, SO_LINGER, &off, sizeof off);
}

Session* make_session(Server* srv, void* socket) {
  void* p = zalloc(sizeof(Session), kSource, __LINE__);
  if (!p) return nullptr;
  auto* s = new (p) Session();
  s->srv = srv;
  _FTP_CLIENT_OBJECT* co = &s->pub;
  co->socket = socket;
  co->is_authenticated = FTP_ACCESS_NONE;
  co->server = &srv->pub;
  co->directory = copy_text("/", kSource, __LINE__);
  copy_name(co->remote_addr, 33, socket_peer(socket));
  copy_name(co->username, 129, socket_peer(socket));
  if (!co->directory) {
    s->~Session();
    vek::release(s, kSource, __LINE__);
    return nullptr;
  }
  add_reference(srv);
  return s;
}

int _ftp_accepter_callback(int, void* listener, void* custom) {
  Server* srv = static_cast<Server*>(custom);
  void* socket = socket_accept(listener, 0);
  if (!socket) {
    log_vek_error("_ftp_accepter_callback(): socket_accept[%d]\n", socket_error(listener));
    // Keep accepting: a transient shortage (descriptors, memory) must not
    // end the server. The pause keeps a persistent one from spinning.
    thread_sleep(kAcceptRetryMs);
    return SOCKET_ASYNC_KEEP;
  }
  linger_off(socket);
  Session* s = srv->stopping.load() ? nullptr : make_session(srv, socket);
  if (!s) {
    socket_delete(socket);
    return SOCKET_ASYNC_KEEP;
  }
  // A session missing from the tree could not be shut down by
  // ftp_server_stop, which would then wait for it as long as its client
  // stays: one that cannot be filed is refused at once.
  if (btree_insert(srv->pub.session_btree, s) != s) {
    end_session(s);
    socket_delete(socket);
    return SOCKET_ASYNC_KEEP;
  }
  reply(&s->pub, "220 FTP server ready\r\n");
  int rc = socket_async_worker_add_recv(srv->pub.socket_async_ftp_server_worker, socket, 0,
                                        _ftp_client_handler_callback, s);
  if (rc != 0) {
    log_vek_error("_ftp_accepter_callback(): socket_async_worker_add_recv[%d]\n", rc);
    end_session(s);
    socket_delete(socket);
  }
  return SOCKET_ASYNC_KEEP;
}

// ---- Sweeper.

void shut_down_session(const void* elem, void*) { socket_shutdown(static_cast<const Session*>(elem)->pub.socket); }

void shut_down_stale(const void* elem, void* now_ptr) {
  const Session* s = static_cast<const Session*>(elem);
  long long since = s->partial_since.load();
  long long now = *static_cast<long long*>(now_ptr);
  if (since != 0 && now - since > s->pub.server->timeout) socket_shutdown(s->pub.socket);
}

// Once a second: ends sessions whose incomplete line waited too long and
// retires command threads left idle since the last busy moment.
void* sweeper_thread(void* arg) {
  Server* srv = static_cast<Server*>(arg);
  long long idle_since = 0;
  pthread_mutex_lock(&srv->exec_mu);
  while (!srv->sweeper_stop) {
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += kSweepMs / 1000;
    pthread_cond_timedwait(&srv->state_cv, &srv->exec_mu, &until);
    if (srv->sweeper_stop) break;
    long long now = time_now();
    int spare = srv->idle_threads - srv->retire;
    if (spare <= 0 || srv->ready_count > 0) {
      idle_since = now;
    } else if (now - idle_since >= kIdleThreadMs) {
      srv->retire += spare;
      pthread_cond_broadcast(&srv->exec_cv);
      idle_since = now;
    }
    pthread_mutex_unlock(&srv->exec_mu);
    btree_foreach(srv->pub.session_btree, shut_down_stale, &now);
    pthread_mutex_lock(&srv->exec_mu);
  }
  pthread_mutex_unlock(&srv->exec_mu);
  return nullptr;
}

// ---- Start and stop.

int start_listening(Server* srv, unsigned short port) {
  char addr[32];
  snprintf(addr, sizeof addr, "0.0.0.0:%d", port);
  int rc = _socket_listen(&srv->pub.socket, addr, kSource, __LINE__);
  if (rc != 0) return rc;
  struct sockaddr_in sin = {};
  socklen_t len = sizeof sin;
  if (port == 0 && getsockname(static_cast<SERVER_SOCKET*>(srv->pub.socket)->s, (struct sockaddr*)&sin, &len) == 0)
    port = ntohs(sin.sin_port);
  srv->pub.port = port;
  return 0;
}

int set_root(Server* srv, const char* root_folder) {
  _FTP_SERVER_OBJECT* s = &srv->pub;
  s->root_folder = copy_text(root_folder, kSource, __LINE__);
  char abs[PATH_MAX];
  if (!s->root_folder || !absolute_form(root_folder, abs, sizeof abs)) return ERR_NO_MEMORY;
  s->root_folder_abs = copy_text(abs, kSource, __LINE__);
  char resolved[PATH_MAX];
  if (realpath(abs, resolved)) srv->root_real = copy_text(resolved, kSource, __LINE__);
  return s->root_folder_abs ? 0 : ERR_NO_MEMORY;
}

int start_threads(Server* srv) {
  THREAD_EX_ARGS ex = {"FTP Server Sweeper", kSweeperStack, 0};
  int rc = thread_create_ex(&srv->sweeper, sweeper_thread, srv, &ex);
  if (rc != 0 && srv->sweeper) {
    thread_delete(srv->sweeper);
    srv->sweeper = nullptr;
  }
  return rc;
}

// Waits until every session has ended and every command thread is gone.
void wait_for_sessions(Server* srv) {
  while (references(srv) > 1) thread_sleep(5);
  pthread_mutex_lock(&srv->exec_mu);
  srv->exec_stop = true;
  srv->sweeper_stop = true;
  pthread_cond_broadcast(&srv->exec_cv);
  pthread_cond_broadcast(&srv->state_cv);
  while (srv->threads > 0) pthread_cond_wait(&srv->state_cv, &srv->exec_mu);
  pthread_mutex_unlock(&srv->exec_mu);
  if (srv->sweeper) {
    thread_join(srv->sweeper, nullptr);
    thread_delete(srv->sweeper);
    srv->sweeper = nullptr;
  }
}

}  // namespace
}  // namespace vek::ftp

using namespace vek::ftp;

VEK_API int ftp_server_start(void** handle, unsigned short port, const char* root_folder,
                             ftp_server_auth_callback auth_callback, ftp_server_cmd_callback pre_cmd_callback,
                             ftp_server_post_cmd_callback post_cmd_callback) {
  if (!handle) return ERR_INVALID_HANDLE;
  *handle = nullptr;
  if (!root_folder) return ERR_INVALID_PARAMETER;
  Server* srv = make_server();
  if (!srv) return ERR_NO_MEMORY;
  _FTP_SERVER_OBJECT* s = &srv->pub;
  s->ref_count = 1;
  s->timeout = kLineTimeoutMs;
  s->auth_callback = auth_callback;
  s->pre_cmd_callback = pre_cmd_callback;
  s->post_cmd_callback = post_cmd_callback;
  int rc = start_listening(srv, port);
  if (rc == 0) {
    ftp_command_init();
    rc = set_root(srv, root_folder);
  }
  if (rc == 0) rc = _btree_create_ex(&s->session_btree, nullptr, nullptr, 0, kSource, __LINE__);
  if (rc == 0) rc = _mutex_create_ex(&s->mutex, "ftp_server_start", 0, kSource, __LINE__);
  if (rc == 0)
    rc = socket_async_worker_create(&s->socket_async_ftp_server_worker, "FTP Server Worker", socket_get_fd_setsize(),
                                    0, kWorkerPeriodMs);
  if (rc == 0) rc = start_threads(srv);
  if (rc == 0) rc = socket_async_accept_begin(s->socket, 0, _ftp_accepter_callback, srv);
  if (rc != 0) {
    ftp_server_stop(srv);
    return rc;
  }
  *handle = srv;
  return 0;
}

VEK_API void ftp_server_stop(void* handle) {
  Server* srv = static_cast<Server*>(handle);
  if (!srv) return;
  _FTP_SERVER_OBJECT* s = &srv->pub;
  srv->stopping.store(1);
  s->stop_now = 1;
  if (s->socket) {
    socket_async_accept_end(s->socket);
    socket_unlisten(s->socket);
    s->socket = nullptr;
  }
  if (s->session_btree) btree_foreach(s->session_btree, shut_down_session, nullptr);
  if (s->mutex) wait_for_sessions(srv);
  if (s->socket_async_ftp_server_worker) socket_async_worker_delete(s->socket_async_ftp_server_worker);
  s->socket_async_ftp_server_worker = nullptr;
  if (s->mutex)
    _ftp_server_free(srv);
  else
    free_server(srv);
}

VEK_API int ftp_server_set_public_ip(void* handle, const char* public_ip) {
  Server* srv = static_cast<Server*>(handle);
  if (!srv) return ERR_INVALID_PARAMETER;
  char* copy = public_ip && public_ip[0] ? copy_text(public_ip, kSource, __LINE__) : nullptr;
  if (public_ip && public_ip[0] && !copy) return ERR_NO_MEMORY;
  char* old;
  {
    vek::ScopedLock guard(srv->pub.mutex, kServerSource, __LINE__);
    old = srv->pub.public_ip;
    srv->pub.public_ip = copy;
  }
  vek::release(old, kServerSource, __LINE__);
  return 0;
}

VEK_API const char* ftp_server_client_directory(const void* client) {
  return client ? session_of(client)->pub.directory : nullptr;
}

VEK_API const char* ftp_server_client_username(const void* client) {
  return client ? session_of(client)->pub.username : nullptr;
}

VEK_API const char* ftp_server_client_address(const void* client) {
  return client ? session_of(client)->pub.remote_addr : nullptr;
}
