// HTTP client against nginx on loopback, ours and the peer in one run on the
// same server and data:
//   - a 1 GiB download into a file, over http and https, against the curl
//     command (`curl -o`);
//   - 1000 sequential small GETs, each on a new connection, against libcurl
//     with CURLOPT_FORBID_REUSE.
// Ours and the peer take turns within each iteration, so that both meet the
// same load on a shared machine; the ratios use the best time of each.
// nginx runs in one process with a generated configuration and a test
// certificate; downloads land in /dev/shm so the disk does not take part.
// The ratios ours/peer (best times) are printed at the end.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <vekutil/http.h>
#include <vekutil/memory.h>
#include <vekutil/ssl.h>

#include "loopback.hpp"

#ifdef VEK_HAVE_CURL
#include <curl/curl.h>
#endif

namespace {

constexpr long long kBigSize = 1LL << 30;
constexpr int kSmallGets = 1000;

std::string g_dir;
int g_http_port = 0, g_https_port = 0;
pid_t g_nginx = -1;
std::map<std::string, double> g_best;  // benchmark name -> best seconds per iteration

using vekbench::free_port;

// Runs argv to completion, its output discarded; true on exit status 0.
bool run(const std::vector<std::string>& argv) {
  const pid_t pid = fork();
  if (pid == 0) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    freopen("/dev/null", "w", stdout);
    freopen("/dev/null", "w", stderr);
    execvp(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void write_file(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

bool start_nginx() {
  char templ[] = "/dev/shm/vekbench-http.XXXXXX";
  if (!mkdtemp(templ)) return false;
  g_dir = templ;
  const std::string www = g_dir + "/www";
  mkdir(www.c_str(), 0755);
  // The big file is sparse: nginx sends it from the page cache all the same.
  const std::string big = www + "/big.bin";
  if (truncate((big).c_str(), 0) != 0) write_file(big, "");
  if (truncate(big.c_str(), kBigSize) != 0) return false;
  write_file(www + "/small.txt", std::string(512, 's'));
  if (!run({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "1",
            "-subj", "/CN=localhost", "-keyout", g_dir + "/key.pem", "-out", g_dir + "/cert.pem"}))
    return false;
  g_http_port = free_port();
  g_https_port = free_port();
  const std::string conf = g_dir + "/nginx.conf";
  write_file(conf, "daemon off;\nmaster_process off;\npid " + g_dir + "/nginx.pid;\nerror_log " + g_dir +
                       "/error.log warn;\nevents { worker_connections 1024; }\nhttp {\n  access_log off;\n"
                       "  client_body_temp_path " + g_dir + ";\n  proxy_temp_path " + g_dir + ";\n"
                       "  fastcgi_temp_path " + g_dir + ";\n  uwsgi_temp_path " + g_dir + ";\n"
                       "  scgi_temp_path " + g_dir + ";\n  sendfile on;\n  server {\n"
                       "    listen 127.0.0.1:" + std::to_string(g_http_port) + ";\n"
                       "    listen 127.0.0.1:" + std::to_string(g_https_port) + " ssl;\n"
                       "    ssl_certificate " + g_dir + "/cert.pem;\n    ssl_certificate_key " + g_dir + "/key.pem;\n"
                       "    root " + www + ";\n  }\n}\n");
  g_nginx = fork();
  if (g_nginx == 0) {
    freopen("/dev/null", "w", stdout);
    freopen("/dev/null", "w", stderr);
    execl("/usr/sbin/nginx", "nginx", "-e", (g_dir + "/error.log").c_str(), "-c", conf.c_str(), nullptr);
    _exit(127);
  }
  for (int i = 0; i < 500; ++i) {
    if (vekbench::accepts(g_http_port) && vekbench::accepts(g_https_port)) return true;
    usleep(10000);
  }
  return false;
}

void stop_nginx() {
  if (g_nginx > 0) {
    kill(g_nginx, SIGTERM);
    waitpid(g_nginx, nullptr, 0);
  }
  if (!g_dir.empty()) run({"rm", "-rf", g_dir});
}

std::string url(bool https, const char* path) {
  return std::string(https ? "https" : "http") + "://127.0.0.1:" + std::to_string(https ? g_https_port : g_http_port) +
         path;
}

void note_best(const std::string& name, double seconds) {
  auto it = g_best.find(name);
  if (it == g_best.end() || seconds < it->second) g_best[name] = seconds;
}

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

bool file_has_size(const std::string& path, long long size) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && st.st_size == size;
}

// A GET request and its response record, released with the object.
struct Get {
  HTTP_REQUEST* req = nullptr;
  HTTP_RESPONSE* resp = nullptr;
  explicit Get(const std::string& u) {
    http_request_create(&req);
    http_response_create(&resp);
    req->url = u.c_str();
    req->method = HTTP_METHOD_GET;
  }
  ~Get() {
    http_request_delete(req);
    http_response_delete(resp);
  }
};

// Ours: http_client into a file.
double download_ours(const std::string& u, const std::string& out) {
  unlink(out.c_str());
  Get get(u);
  get.req->file = out.c_str();
  const auto start = Clock::now();
  const int rc = http_client(get.req, get.resp);
  const double seconds = seconds_since(start);
  const bool ok = rc == 0 && get.resp->status == 200 && file_has_size(out, kBigSize);
  unlink(out.c_str());
  return ok ? seconds : -1;
}

// The peer: the curl command.
double download_curl(const std::string& u, const std::string& out) {
  unlink(out.c_str());
  const auto start = Clock::now();
  const bool ok = run({"curl", "-s", "-k", "-o", out, u});
  const double seconds = seconds_since(start);
  const bool whole = ok && file_has_size(out, kBigSize);
  unlink(out.c_str());
  return whole ? seconds : -1;
}

// Each iteration downloads with ours, then with curl, so that both see the
// same load on a shared machine. The reported time is ours; the counters
// give curl's time and the ratio of the best times.
void BM_Download(benchmark::State& state) {
  const bool https = state.range(0) != 0;
  const std::string u = url(https, "/big.bin"), scheme = https ? "https" : "http";
  for (auto _ : state) {
    const double ours = download_ours(u, g_dir + "/ours.bin");
    const double peer = download_curl(u, g_dir + "/curl.bin");
    if (ours < 0 || peer < 0) {
      state.SkipWithError("download failed");
      break;
    }
    state.SetIterationTime(ours);
    note_best("download_" + scheme + "_ours", ours);
    note_best("download_" + scheme + "_curl", peer);
  }
  state.SetBytesProcessed(state.iterations() * kBigSize);
  state.counters["curl_best_s"] = g_best["download_" + scheme + "_curl"];
  state.counters["ratio_best"] = g_best["download_" + scheme + "_ours"] / g_best["download_" + scheme + "_curl"];
}

double small_gets_ours(const std::string& u) {
  Get get(u);
  const auto start = Clock::now();
  bool ok = true;
  for (int i = 0; i < kSmallGets && ok; ++i) ok = http_client(get.req, get.resp) == 0 && get.resp->data_len == 512;
  return ok ? seconds_since(start) : -1;
}

#ifdef VEK_HAVE_CURL
size_t collect(char* data, size_t size, size_t n, void* out) {
  static_cast<std::string*>(out)->append(data, size * n);
  return size * n;
}

double small_gets_libcurl(const std::string& u) {
  CURL* curl = curl_easy_init();
  std::string body;
  curl_easy_setopt(curl, CURLOPT_URL, u.c_str());
  curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  const auto start = Clock::now();
  bool ok = true;
  for (int i = 0; i < kSmallGets && ok; ++i) {
    body.clear();
    ok = curl_easy_perform(curl) == CURLE_OK && body.size() == 512;
  }
  const double seconds = seconds_since(start);
  curl_easy_cleanup(curl);
  return ok ? seconds : -1;
}
#endif

// 1000 GETs with ours, then 1000 with libcurl, per iteration.
void BM_SmallGets(benchmark::State& state) {
  const std::string u = url(false, "/small.txt");
  for (auto _ : state) {
    const double ours = small_gets_ours(u);
    if (ours < 0) {
      state.SkipWithError("GET failed");
      break;
    }
    state.SetIterationTime(ours);
    note_best("small_gets_ours", ours);
#ifdef VEK_HAVE_CURL
    const double peer = small_gets_libcurl(u);
    if (peer < 0) {
      state.SkipWithError("libcurl GET failed");
      break;
    }
    note_best("small_gets_libcurl", peer);
#endif
  }
  state.SetItemsProcessed(state.iterations() * kSmallGets);
#ifdef VEK_HAVE_CURL
  state.counters["libcurl_best_s"] = g_best["small_gets_libcurl"];
  state.counters["ratio_best"] = g_best["small_gets_ours"] / g_best["small_gets_libcurl"];
#endif
}

void print_ratio(const char* what, const char* ours, const char* peer) {
  if (!g_best.count(ours) || !g_best.count(peer)) return;
  std::printf("ratio %-34s ours/peer = %.3f  (%.3f s / %.3f s)\n", what, g_best[ours] / g_best[peer], g_best[ours],
              g_best[peer]);
}

}  // namespace

BENCHMARK(BM_Download)->Arg(0)->Arg(1)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SmallGets)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  ssl_init();
#ifdef VEK_HAVE_CURL
  curl_global_init(CURL_GLOBAL_DEFAULT);
#endif
  if (!start_nginx()) {
    std::fprintf(stderr, "bench_http: nginx could not be started; nothing measured\n");
    stop_nginx();
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  stop_nginx();
  print_ratio("1 GiB download, http (curl -o)", "download_http_ours", "download_http_curl");
  print_ratio("1 GiB download, https (curl -o)", "download_https_ours", "download_https_curl");
  print_ratio("1000 small GETs (libcurl)", "small_gets_ours", "small_gets_libcurl");
  return 0;
}
