// The FTP server beside vsftpd (Debian's, started here on loopback with a
// generated configuration), both serving the same folder to the same client
// code, each in a process of its own: RETR and STOR of 1 GiB in one session; 100 concurrent sessions that
// each list a folder and retrieve its 100 files of 4 KiB; and the resident
// memory of 500 idle sessions. Prints the ratios ours/vsftpd at the end.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/vekutil.h>

#include "loopback.hpp"

namespace {

namespace fs = std::filesystem;

constexpr long long kBigSize = 1LL << 30;
constexpr int kSmallFiles = 100;
constexpr int kSmallSize = 4096;
constexpr int kConcurrentSessions = 100;
constexpr int kIdleSessions = 500;
constexpr size_t kIoBuffer = 256 * 1024;

struct Target {
  const char* name;
  int port = 0;
  std::string user, pass;
};

std::string g_dir;      // the served folder: big.bin, small/, up/
Target g_ours{"ours", 0, "", ""};
Target g_vsftpd{"vsftpd", 0, "", ""};
void* g_server = nullptr;  // in the child that serves ours
pid_t g_ours_pid = -1;
pid_t g_vsftpd_pid = -1;
std::map<std::string, double> g_seconds;  // "benchmark/target" -> seconds per iteration

// ---- A minimal FTP client over plain sockets, the same for both servers.

int connect_port(int port) {
  const int fd = vekbench::connect_loopback(port);
  if (fd < 0) return -1;
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  struct timeval limit = {60, 0};  // a stuck server fails the run instead of hanging it
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  return fd;
}

class Session {
 public:
  explicit Session(const Target& t) : fd_(connect_port(t.port)) {
    if (fd_ < 0 || reply().rfind("220", 0) != 0) {
      fail("greeting");
      return;
    }
    std::string r = cmd("USER " + t.user);
    if (r.rfind("331", 0) == 0) r = cmd("PASS " + t.pass);
    if (r.rfind("230", 0) != 0) fail("login: " + r);
    else if (cmd("TYPE I").rfind("200", 0) != 0) fail("TYPE I");
  }
  ~Session() {
    if (fd_ >= 0) {
      cmd("QUIT");
      close(fd_);
    }
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  bool ok() const { return ok_; }

  // A reply (the last line of a multi-line one).
  std::string reply() {
    for (;;) {
      size_t end = pending_.find("\r\n");
      if (end != std::string::npos) {
        std::string line = pending_.substr(0, end);
        pending_.erase(0, end + 2);
        if (line.size() >= 4 && line[3] == '-') continue;
        return line;
      }
      char buf[4096];
      ssize_t n = recv(fd_, buf, sizeof buf, 0);
      if (n <= 0) return "<closed>";
      pending_.append(buf, static_cast<size_t>(n));
    }
  }

  std::string cmd(const std::string& line) {
    std::string text = line + "\r\n";
    if (send(fd_, text.data(), text.size(), MSG_NOSIGNAL) < 0) return "<closed>";
    return reply();
  }

  // Runs a download command; returns the bytes received.
  long long download(const std::string& command) {
    int data = passive();
    if (data < 0) return -1;
    if (cmd(command).rfind("1", 0) != 0) {
      close(data);
      fail(command);
      return -1;
    }
    static thread_local std::unique_ptr<char[]> buf(new char[kIoBuffer]);
    long long total = 0;
    ssize_t n;
    while ((n = recv(data, buf.get(), kIoBuffer, 0)) > 0) total += n;
    close(data);
    if (reply().rfind("226", 0) != 0) fail("end of " + command);
    return total;
  }

  bool upload(const std::string& command, const char* bytes, long long size) {
    int data = passive();
    if (data < 0) return false;
    if (cmd(command).rfind("1", 0) != 0) {
      close(data);
      fail(command);
      return false;
    }
    for (long long sent = 0; sent < size;) {
      ssize_t n = send(data, bytes + sent % kIoBuffer, (size_t)std::min<long long>(kIoBuffer - sent % kIoBuffer, size - sent), MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += n;
    }
    close(data);
    bool done = reply().rfind("226", 0) == 0;
    if (!done) fail("end of " + command);
    return done;
  }

 private:
  void fail(const std::string& what) {
    if (ok_) std::fprintf(stderr, "ftp session failed: %s\n", what.c_str());
    ok_ = false;
  }

  int passive() {
    std::string r = cmd("PASV");
    unsigned p1, p2;
    size_t open = r.find('(');
    if (open == std::string::npos || sscanf(r.c_str() + open, "(%*u,%*u,%*u,%*u,%u,%u)", &p1, &p2) != 2) {
      fail("PASV: " + r);
      return -1;
    }
    return connect_port(static_cast<int>(p1 * 256 + p2));
  }

  int fd_ = -1;
  bool ok_ = true;
  std::string pending_;
};

// ---- The benchmarks.

void record(const char* kind, benchmark::State& state, const Target& t, double seconds) {
  g_seconds[std::string(kind) + "/" + t.name] = seconds / static_cast<double>(state.iterations());
}

// One transfer on a logged-in session; seconds, or a negative value when it
// failed.
using Transfer = double (*)(Session& s);

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

double retrieve_big(Session& s) {
  auto t0 = std::chrono::steady_clock::now();
  return s.download("RETR big.bin") == kBigSize ? seconds_since(t0) : -1;
}

double store_big(Session& s) {
  static std::vector<char> bytes = [] {
    std::vector<char> b(kIoBuffer);
    std::mt19937 gen(7);
    for (char& c : b) c = static_cast<char>(gen());
    return b;
  }();
  auto t0 = std::chrono::steady_clock::now();
  bool ok = s.upload("STOR up/upload.bin", bytes.data(), kBigSize);
  double secs = seconds_since(t0);
  fs::remove(g_dir + "/up/upload.bin");
  return ok ? secs : -1;
}

// Each iteration runs the transfer on both servers back to back (which one
// goes first alternates), so that a change in the machine's load hits both
// alike. The iteration time is ours; the counters hold both.
void paired(benchmark::State& state, const char* kind, Transfer transfer) {
  Session ours(g_ours), peer(g_vsftpd);
  double ours_total = 0, peer_total = 0;
  int round = 0;
  for (auto _ : state) {
    double a, b;
    if (round++ % 2 == 0) {
      a = transfer(ours);
      b = transfer(peer);
    } else {
      b = transfer(peer);
      a = transfer(ours);
    }
    if (a < 0 || b < 0) state.SkipWithError("a transfer failed");
    state.SetIterationTime(a > 0 ? a : 1);
    ours_total += a;
    peer_total += b;
  }
  state.SetBytesProcessed(state.iterations() * kBigSize);
  state.counters["vsftpd_ms"] = peer_total * 1000 / static_cast<double>(state.iterations());
  record(kind, state, g_ours, ours_total);
  record(kind, state, g_vsftpd, peer_total);
}

// Connections in TIME_WAIT on this machine.
int time_wait_count() {
  std::ifstream in("/proc/net/tcp");
  std::string line;
  int count = 0;
  std::getline(in, line);
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string slot, local, remote, st;
    fields >> slot >> local >> remote >> st;
    if (st == "06") ++count;
  }
  return count;
}

// 100 sessions at once, each: LIST small/ and RETR its 100 files. One run
// each: every transfer leaves the server's end of the data connection in
// TIME_WAIT for a minute, and more runs would use up the ephemeral ports.
void many_sessions(benchmark::State& state, const Target& t) {
  // Starts with the ports of earlier runs free again (at most 90 s).
  for (int i = 0; i < 90 && time_wait_count() > 2000; ++i) std::this_thread::sleep_for(std::chrono::seconds(1));
  double total = 0;
  for (auto _ : state) {
    // The sessions log in one after the other before the clock starts:
    // vsftpd listens with a backlog of 32, and a burst of 100 connections
    // would leave some waiting on lost handshakes rather than on the server.
    std::vector<std::unique_ptr<Session>> sessions;
    for (int i = 0; i < kConcurrentSessions; ++i) sessions.push_back(std::make_unique<Session>(t));
    auto t0 = std::chrono::steady_clock::now();
    std::vector<std::thread> clients;
    std::atomic<int> failures{0};
    for (int i = 0; i < kConcurrentSessions; ++i) {
      clients.emplace_back([&, i] {
        Session& s = *sessions[i];
        bool ok = s.ok() && s.cmd("CWD small").rfind("250", 0) == 0 && s.download("LIST") > 0;
        for (int f = 0; ok && f < kSmallFiles; ++f) ok = s.download("RETR f" + std::to_string(f)) == kSmallSize;
        if (!ok) ++failures;
      });
    }
    for (auto& c : clients) c.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    sessions.clear();
    if (failures) state.SkipWithError("a session failed");
    state.SetIterationTime(secs);
    total += secs;
  }
  record("sessions", state, t, total);
}

void BM_Retr1GiB_OursVsVsftpd(benchmark::State& s) { paired(s, "retr", retrieve_big); }
void BM_Stor1GiB_OursVsVsftpd(benchmark::State& s) { paired(s, "stor", store_big); }
void BM_100Sessions_Ours(benchmark::State& s) { many_sessions(s, g_ours); }
void BM_100Sessions_Vsftpd(benchmark::State& s) { many_sessions(s, g_vsftpd); }

BENCHMARK(BM_Retr1GiB_OursVsVsftpd)->UseManualTime()->Iterations(6)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Stor1GiB_OursVsVsftpd)->UseManualTime()->Iterations(6)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_100Sessions_Ours)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_100Sessions_Vsftpd)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

// ---- Memory of idle sessions.

// Resident and proportional set size of a process in KiB.
std::pair<long, long> memory_of(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
  long rss = 0, pss = 0;
  std::string line;
  while (std::getline(in, line)) {
    long value = 0;
    if (sscanf(line.c_str(), "Rss: %ld kB", &value) == 1) rss = value;
    if (sscanf(line.c_str(), "Pss: %ld kB", &value) == 1) pss = value;
  }
  return {rss, pss};
}

// The vsftpd processes: the listener and every process below it.
std::pair<long, long> vsftpd_memory() {
  std::map<pid_t, pid_t> parent;
  for (const auto& e : fs::directory_iterator("/proc")) {
    pid_t pid = atoi(e.path().filename().c_str());
    if (pid <= 0) continue;
    std::ifstream stat(e.path() / "stat");
    std::string line;
    std::getline(stat, line);
    size_t close_paren = line.rfind(')');
    if (close_paren == std::string::npos) continue;
    std::istringstream rest(line.substr(close_paren + 2));
    char state;
    pid_t ppid;
    rest >> state >> ppid;
    parent[pid] = ppid;
  }
  long rss = 0, pss = 0;
  for (const auto& [pid, ppid] : parent) {
    pid_t p = pid;
    while (p > 1 && p != g_vsftpd_pid) p = parent.count(p) ? parent[p] : 0;
    if (p != g_vsftpd_pid) continue;
    auto [r, s] = memory_of(pid);
    rss += r;
    pss += s;
  }
  return {rss, pss};
}

// KiB per idle logged-in session (RSS, PSS) over kIdleSessions sessions.
std::pair<double, double> idle_session_memory(const Target& t, bool ours) {
  auto measure = [&] { return ours ? memory_of(g_ours_pid) : vsftpd_memory(); };
  auto before = measure();
  std::vector<std::unique_ptr<Session>> sessions;
  for (int i = 0; i < kIdleSessions; ++i) sessions.push_back(std::make_unique<Session>(t));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  auto after = measure();
  sessions.clear();
  return {double(after.first - before.first) / kIdleSessions, double(after.second - before.second) / kIdleSessions};
}

// ---- Setting up.

void write_file(const std::string& path, long long size, unsigned seed) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  std::vector<char> block(1 << 20);
  std::mt19937 gen(seed);
  for (char& c : block) c = static_cast<char>(gen());
  for (long long left = size; left > 0; left -= (long long)block.size())
    out.write(block.data(), (std::streamsize)std::min<long long>(left, (long long)block.size()));
}

void make_tree() {
  char templ[] = "/tmp/ftp_bench.XXXXXX";
  if (!mkdtemp(templ)) std::exit(1);
  g_dir = templ;
  chmod(g_dir.c_str(), 0755);
  fs::create_directories(g_dir + "/small");
  fs::create_directories(g_dir + "/up");
  if (struct passwd* ftp = getpwnam("ftp")) chown((g_dir + "/up").c_str(), ftp->pw_uid, ftp->pw_gid);
  write_file(g_dir + "/big.bin", kBigSize, 1);
  for (int i = 0; i < kSmallFiles; ++i) write_file(g_dir + "/small/f" + std::to_string(i), kSmallSize, (unsigned)i);
}

using vekbench::free_port;

bool start_vsftpd() {
  g_vsftpd.port = free_port();
  g_vsftpd.user = "anonymous";
  g_vsftpd.pass = "bench@";
  std::string conf = g_dir + ".vsftpd.conf";
  std::ofstream(conf) << "listen=YES\nlisten_address=127.0.0.1\nlisten_port=" << g_vsftpd.port
                      << "\nbackground=NO\nanonymous_enable=YES\nlocal_enable=NO\nno_anon_password=YES\n"
                         "anon_root="
                      << g_dir
                      << "\nwrite_enable=YES\nanon_upload_enable=YES\nanon_other_write_enable=YES\n"
                         "seccomp_sandbox=NO\nxferlog_enable=NO\nmax_clients=5000\nmax_per_ip=5000\n"
                         "secure_chroot_dir=/var/run/vsftpd/empty\n";
  fs::create_directories("/var/run/vsftpd/empty");
  g_vsftpd_pid = fork();
  if (g_vsftpd_pid == 0) {
    int null_fd = open("/dev/null", O_RDWR);
    dup2(null_fd, 0);
    dup2(null_fd, 1);
    execl("/usr/sbin/vsftpd", "vsftpd", conf.c_str(), (char*)nullptr);
    _exit(127);
  }
  for (int i = 0; i < 200; ++i) {
    int fd = connect_port(g_vsftpd.port);
    if (fd >= 0) {
      close(fd);
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  return false;
}

int authorise(const char* user, const char* password, const char*) {
  return std::strcmp(user, "bench") == 0 && std::strcmp(password, "bench") == 0 ? FTP_ACCESS_ALL : 0;
}

// Ours runs in a process of its own, like vsftpd, so that neither server
// shares a process (and its scheduling) with the clients. The child writes
// its port into the pipe and serves until SIGTERM.
bool start_ours() {
  g_ours.user = g_ours.pass = "bench";
  int port_pipe[2];
  if (pipe(port_pipe) != 0) return false;
  g_ours_pid = fork();
  if (g_ours_pid == 0) {
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);
    int port = -1;
    if (socket_async_default_init(socket_get_fd_setsize(), 0, 2000) == 0 &&
        ftp_server_start(&g_server, 0, g_dir.c_str(), authorise, nullptr, nullptr) == 0)
      port = static_cast<_FTP_SERVER_OBJECT*>(g_server)->port;
    if (write(port_pipe[1], &port, sizeof port) != sizeof port || port < 0) _exit(1);
    int sig = 0;
    sigwait(&term, &sig);
    ftp_server_stop(g_server);
    ftp_command_uninit();
    socket_async_default_uninit();
    _exit(0);
  }
  close(port_pipe[1]);
  int port = -1;
  bool ok = g_ours_pid > 0 && read(port_pipe[0], &port, sizeof port) == sizeof port && port > 0;
  close(port_pipe[0]);
  g_ours.port = port;
  return ok;
}

void report_ratio(const char* label, const std::string& kind) {
  double ours = g_seconds[kind + "/ours"];
  double peer = g_seconds[kind + "/vsftpd"];
  if (ours > 0 && peer > 0) std::printf("  %-44s ours/vsftpd = %.2f  (%.3f s vs %.3f s)\n", label, ours / peer, ours, peer);
}

}  // namespace

int main(int argc, char** argv) {
  if (access("/usr/sbin/vsftpd", X_OK) != 0) {
    std::fprintf(stderr, "vsftpd is not installed: nothing to compare\n");
    return 0;
  }
  signal(SIGPIPE, SIG_IGN);
  make_tree();
  if (!start_ours() || !start_vsftpd()) {
    std::fprintf(stderr, "cannot start the servers\n");
    if (g_ours_pid > 0) kill(g_ours_pid, SIGTERM);
    if (g_vsftpd_pid > 0) kill(g_vsftpd_pid, SIGTERM);
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  auto ours_memory = idle_session_memory(g_ours, true);
  auto peer_memory = idle_session_memory(g_vsftpd, false);
  std::printf("\nFTP server, ours / vsftpd (time per run, lower is better):\n");
  report_ratio("RETR 1 GiB, one session", "retr");
  report_ratio("STOR 1 GiB, one session", "stor");
  report_ratio("100 sessions x (LIST + 100 RETR of 4 KiB)", "sessions");
  std::printf("  memory per idle session over %d sessions: ours %.1f KiB RSS (%.1f KiB PSS), "
              "vsftpd %.1f KiB RSS (%.1f KiB PSS)\n",
              kIdleSessions, ours_memory.first, ours_memory.second, peer_memory.first, peer_memory.second);
  kill(g_ours_pid, SIGTERM);
  waitpid(g_ours_pid, nullptr, 0);
  kill(g_vsftpd_pid, SIGTERM);
  waitpid(g_vsftpd_pid, nullptr, 0);
  std::error_code ec;
  fs::remove_all(g_dir, ec);
  fs::remove(g_dir + ".vsftpd.conf", ec);
  return 0;
}
