// FTP client against the curl command: get and put of one 1 GiB file with
// vsftpd on loopback (started here with a generated configuration), each
// contender a whole session: connect, log in, transfer, disconnect.
// Ratios ours/peer: Get_Ours / Get_Curl and Put_Ours / Put_Curl.
// VEK_BENCH_FTP_MB changes the file size (in MiB).
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/vekutil.h>

#include "loopback.hpp"

extern char** environ;

namespace {

pid_t spawn(const std::vector<std::string>& args, const std::string& output = "/dev/null") {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

int run(const std::vector<std::string>& args) {
  const pid_t pid = spawn(args);
  int status = -1;
  if (pid > 0) waitpid(pid, &status, 0);
  return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

using vekbench::accepts;
using vekbench::free_port;

// vsftpd serving a private directory that holds the 1 GiB source file.
class Vsftpd {
 public:
  Vsftpd() {
    // Memory-backed when possible, so that disk write-back does not swamp
    // the network transfer being measured.
    std::error_code ec;
    const bool shm = std::filesystem::space("/dev/shm", ec).available > (4LL << 30) && !ec;
    std::string templ = shm ? "/dev/shm/vekbench-ftp.XXXXXX" : "/tmp/vekbench-ftp.XXXXXX";
    dir_ = mkdtemp(templ.data());
    const long long mib = std::getenv("VEK_BENCH_FTP_MB") ? std::atoll(std::getenv("VEK_BENCH_FTP_MB")) : 1024;
    std::ofstream source(file("source.bin"), std::ios::binary);
    std::vector<char> chunk(1 << 20);
    for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(i * 131 + (i >> 11));
    for (long long i = 0; i < mib; ++i) source.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    source.close();
    port_ = free_port();
    std::ofstream(file("vsftpd.conf"))
        << "listen=YES\nlisten_address=127.0.0.1\nlisten_port=" << port_
        << "\nbackground=NO\nrun_as_launching_user=YES\nanonymous_enable=YES\nno_anon_password=YES\n"
        << "anon_root=" << dir_ << "\nwrite_enable=YES\nanon_upload_enable=YES\nanon_other_write_enable=YES\n"
        << "anon_umask=022\nlocal_enable=NO\nconnect_from_port_20=NO\nseccomp_sandbox=NO\nisolate=NO\n"
        << "isolate_network=NO\nxferlog_enable=NO\nsecure_chroot_dir=" << dir_ << "\n";
    pid_ = spawn({"vsftpd", file("vsftpd.conf")}, file("vsftpd.log"));
    for (int i = 0; i < 250 && pid_ > 0 && !accepts(port_); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ~Vsftpd() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  bool running() const { return pid_ > 0 && accepts(port_); }
  std::string file(const std::string& name) const { return dir_ + "/" + name; }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string url(const std::string& name) const { return "ftp://" + address() + "/" + name; }

 private:
  std::string dir_;
  int port_ = 0;
  pid_t pid_ = -1;
};

Vsftpd* g_server = nullptr;

bool ready(benchmark::State& state) {
  if (g_server && g_server->running()) return true;
  state.SkipWithError("vsftpd did not start");
  return false;
}

// Runs one session per iteration; the target file is removed before each.
template <class Transfer>
void timed_sessions(benchmark::State& state, const std::string& target, Transfer transfer) {
  if (!ready(state)) return;
  for (auto _ : state) {
    state.PauseTiming();
    unlink(target.c_str());
    state.ResumeTiming();
    if (!transfer()) {
      state.SkipWithError("transfer failed");
      break;
    }
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(std::filesystem::file_size(g_server->file("source.bin"))));
  unlink(target.c_str());
}

bool ours(bool upload, const std::string& local, const std::string& remote) {
  void* client = nullptr;
  int rc = ftp_connect(&client, g_server->address().c_str());
  if (rc == 0) rc = ftp_login(client, "anonymous", "bench@");
  if (rc == 0) rc = upload ? ftp_put(client, local.c_str(), remote.c_str()) : ftp_get(client, remote.c_str(), local.c_str());
  if (client) ftp_disconnect(client);
  return rc == 0;
}

void BM_Get_Ours(benchmark::State& state) {
  const std::string target = g_server->file("get-ours.bin");
  timed_sessions(state, target, [&] { return ours(false, target, "source.bin"); });
}

void BM_Get_Curl(benchmark::State& state) {
  const std::string target = g_server->file("get-curl.bin");
  timed_sessions(state, target,
                 [&] { return run({"curl", "-s", "-o", target, g_server->url("source.bin")}) == 0; });
}

void BM_Put_Ours(benchmark::State& state) {
  timed_sessions(state, g_server->file("put-ours.bin"),
                 [&] { return ours(true, g_server->file("source.bin"), "put-ours.bin"); });
}

void BM_Put_Curl(benchmark::State& state) {
  timed_sessions(state, g_server->file("put-curl.bin"), [&] {
    return run({"curl", "-s", "-T", g_server->file("source.bin"), g_server->url("put-curl.bin")}) == 0;
  });
}

// Repetitions of all four run in random order (see main), so that load from
// elsewhere on the machine falls on both contenders alike.
#define FTP_BENCH(fn) \
  BENCHMARK(fn)->Iterations(2)->Repetitions(3)->UseRealTime()->Unit(benchmark::kMillisecond)
FTP_BENCH(BM_Get_Ours);
FTP_BENCH(BM_Get_Curl);
FTP_BENCH(BM_Put_Ours);
FTP_BENCH(BM_Put_Curl);

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> args(argv, argv + argc);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  args.insert(args.begin() + 1, interleave.data());  // a later flag on the command line still wins
  argc = static_cast<int>(args.size());
  benchmark::Initialize(&argc, args.data());
  Vsftpd server;
  g_server = &server;
  if (server.running()) {  // one untimed download each: both start from the same warm state
    ours(false, server.file("warm.bin"), "source.bin");
    run({"curl", "-s", "-o", server.file("warm.bin"), server.url("source.bin")});
    unlink(server.file("warm.bin").c_str());
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  g_server = nullptr;
  return 0;
}
