// Private records of the FTP server, shared by the listener and session code
// (ftp.server.cpp) and the command handlers (ftp.server.cmd.cpp). Not
// installed.
//
// Threads and ownership:
// - The default acceptor thread runs the accept callback, which makes a
//   session and registers its control socket with the server's worker.
// - The server's worker thread ("FTP Server Worker") gathers the bytes of
//   each session's next command line without blocking. When a whole line is
//   in, it pauses the control socket and queues the session for a command
//   thread. It is also the only thread that ends a session (after the
//   socket reports end of stream), so a session is never freed while a
//   command thread holds it.
// - A command thread runs the session's complete lines one after the other,
//   then resumes the control socket. To end a session it shuts the control
//   socket down, which the worker sees as end of stream.
// - The sweeper thread wakes every second: it shuts down sessions whose
//   incomplete line has waited longer than the server's time-out, and
//   retires command threads that have been idle for a while.
#pragma once

#include <pthread.h>

#include <atomic>
#include <type_traits>

#include <vekutil/ftp.server.h>
#include <vekutil/memory.h>

namespace vek::ftp {

inline constexpr const char* kServerSource = "src/ftp.server.c";
inline constexpr const char* kCmdSource = "src/ftp.server.cmd.c";

struct Session;

struct Server {
  _FTP_SERVER_OBJECT pub;  // first: the handle and client->server point here
  char* root_real;         // the root with symbolic links resolved; NULL until it exists
  std::atomic<int> stopping;

  // Command threads, all fields under exec_mu.
  pthread_mutex_t exec_mu;
  pthread_cond_t exec_cv;   // idle command threads wait here for sessions
  pthread_cond_t state_cv;  // the sweeper's tick; stop waits here for threads to end
  Session* ready_head;
  Session* ready_tail;
  int ready_count;
  int threads;       // command threads alive
  int idle_threads;  // of which waiting for work
  int retire;        // idle threads the sweeper asked to end
  bool exec_stop;    // every command thread ends once the queue is empty
  bool sweeper_stop;
  void* sweeper;     // joinable sweeper thread
};

// Values of Session::closing.
inline constexpr int kOpen = 0;
inline constexpr int kClosingRequested = 1;  // the control socket still has to be shut down
inline constexpr int kClosingShutDown = 2;   // shut down already (QUIT)

struct Session {
  _FTP_CLIENT_OBJECT pub;  // first: handlers receive &pub
  Server* srv;
  Session* next_ready;     // link in the server's ready queue
  std::atomic<long long> partial_since;  // ms when the pending incomplete line began; 0 none
  std::atomic<int> closing;  // kClosing* below: the session is to end
  long long rest_offset;     // REST offset in full (pub.rest_point saturates)
  int in_len;                // bytes in `in`
  char in[FTP_SERVER_LINE_SIZE];  // received control bytes not yet run
};

static_assert(std::is_standard_layout_v<Server> && std::is_standard_layout_v<Session>,
              "the public record is the first member, so the handle converts both ways");

inline Session* session_of(void* client) { return reinterpret_cast<Session*>(client); }
inline const Session* session_of(const void* client) { return reinterpret_cast<const Session*>(client); }
inline Server* server_of(_FTP_SERVER_OBJECT* pub) { return reinterpret_cast<Server*>(pub); }

// A copy of text from the accounted allocator, booked to file and line.
inline char* copy_text(const char* text, const char* file, int line) {
  size_t n = __builtin_strlen(text) + 1;
  char* copy = static_cast<char*>(_vekMalloc(n, file, line));
  if (copy) __builtin_memcpy(copy, text, n);
  return copy;
}

// Command table lookup by the CRC-32 of the command word; NULL when absent.
_FTP_COMMAND* find_command(const char* word);

// Sends text on the session's control connection; the send's result.
int reply(_FTP_CLIENT_OBJECT* co, const char* text);

// Releases the session's data sockets (passive listener, data connection).
void release_data_sockets(_FTP_CLIENT_OBJECT* co);

// Lexical absolute form of path ("." and ".." resolved as text, relative
// paths taken from the current directory); false when longer than cap.
bool absolute_form(const char* path, char* out, size_t cap);

// True once the server is stopping: transfers and waits give up.
inline bool server_stopping(const _FTP_CLIENT_OBJECT* co) {
  return server_of(co->server)->stopping.load(std::memory_order_relaxed) != 0;
}

}  // namespace vek::ftp
