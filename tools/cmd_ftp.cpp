// "vekutil ftp get|put|del URL [LOCAL] [--active]": one transfer or delete
// with the FTP client, with a progress line when standard error is a terminal.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <vekutil/vekutil.h>

#include "command.hpp"

namespace {

constexpr const char* kUsage = "ftp get|put|del ftp://[USER[:PASSWORD]@]HOST[:PORT]/PATH [LOCAL] [--active]";

constexpr const char* kDetails =
    "  get  downloads PATH into LOCAL (default: the last part of PATH)\n"
    "  put  uploads LOCAL to PATH (a PATH ending in '/' gets LOCAL's name)\n"
    "  del  deletes PATH\n\n"
    "Logs in anonymously unless the URL names a user. PATH is relative to the\n"
    "login directory (begin it with %2F for an absolute one); %XX escapes are\n"
    "decoded in the user, password and path. The data connection is passive\n"
    "unless --active is given. Port 21 by default.\n";

int usage_error(const std::string& problem) { return vektool::usage_error("ftp", problem.c_str()); }

struct FtpUrl {
  std::string user = "anonymous";
  std::string password = "anonymous@";
  std::string host_port;
  std::string path;
};

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool percent_decode(const std::string& in, std::string* out) {
  out->clear();
  for (size_t i = 0; i < in.size(); ++i) {
    if (in[i] != '%') {
      out->push_back(in[i]);
      continue;
    }
    const int hi = i + 1 < in.size() ? hex_value(in[i + 1]) : -1;
    const int lo = i + 2 < in.size() ? hex_value(in[i + 2]) : -1;
    if (hi < 0 || lo < 0) return false;
    out->push_back(static_cast<char>(hi * 16 + lo));
    i += 2;
  }
  return true;
}

bool parse_url(const std::string& url, FtpUrl* parsed, std::string* problem) {
  const std::string scheme = "ftp://";
  if (url.compare(0, scheme.size(), scheme) != 0) return *problem = "the URL must begin with ftp://", false;
  const std::string rest = url.substr(scheme.size());
  const size_t slash = rest.find('/');
  std::string authority = rest.substr(0, slash);
  const std::string raw_path = slash == std::string::npos ? "" : rest.substr(slash + 1);
  const size_t at = authority.rfind('@');
  if (at != std::string::npos) {
    const std::string credentials = authority.substr(0, at);
    const size_t colon = credentials.find(':');
    if (!percent_decode(credentials.substr(0, colon), &parsed->user)) return *problem = "bad %XX in the user", false;
    parsed->password.clear();
    if (colon != std::string::npos && !percent_decode(credentials.substr(colon + 1), &parsed->password))
      return *problem = "bad %XX in the password", false;
    authority = authority.substr(at + 1);
  }
  if (authority.empty() || authority[0] == ':') return *problem = "the URL names no host", false;
  parsed->host_port = authority.find(':') == std::string::npos ? authority + ":21" : authority;
  if (!percent_decode(raw_path, &parsed->path)) return *problem = "bad %XX in the path", false;
  return true;
}

std::string base_name(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A progress line on standard error, redrawn at most ten times a second.
struct Progress {
  const char* verb;
  long long total;  // bytes expected, or -1 when unknown
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point last_draw{};
  long long last_bytes = 0;
  bool drawn = false;

  void draw(long long bytes) {
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double mib = bytes / 1048576.0;
    const double rate = seconds > 0 ? mib / seconds : 0.0;
    if (total > 0)
      std::fprintf(stderr, "\r%s %5.1f%%  %10.1f MiB  %8.1f MiB/s ", verb, 100.0 * bytes / total, mib, rate);
    else
      std::fprintf(stderr, "\r%s %10.1f MiB  %8.1f MiB/s ", verb, mib, rate);
    drawn = true;
  }
  // Draws the final count (the last blocks may have come too quickly to be
  // shown) and ends the line.
  void finish() {
    if (!drawn) return;
    draw(last_bytes);
    std::fputc('\n', stderr);
  }
};

void on_progress(long long bytes, void* custom) {
  auto* progress = static_cast<Progress*>(custom);
  progress->last_bytes = bytes;
  const auto now = std::chrono::steady_clock::now();
  if (now - progress->last_draw < std::chrono::milliseconds(100) && bytes != progress->total) return;
  progress->last_draw = now;
  progress->draw(bytes);
}

std::string describe(int rc) {
  if (rc > 0) return "the server replied " + std::to_string(rc);
  switch (rc) {
    case ERR_FTP_LOGIN_FAILED: return "login refused";
    case ERR_FTP_LOCAL_FILE: return "cannot open or write the local file";
    case ERR_FTP_BAD_PASV_REPLY: return "malformed PASV reply";
    case ERR_FTP_NO_DATA_CONNECTION: return "the server did not open the data connection";
    case ERR_SOCKET_TIMEOUT: return "the server stopped sending (time-out)";
    case ERR_SOCKET_HOST_NOT_FOUND: return "host not found";
    default: return "error " + std::to_string(rc);
  }
}

struct Request {
  std::string verb;
  std::string url;
  std::string local;
  bool active = false;
};

int parse_request(int argc, char** argv, Request* request) {
  std::string positional[3];
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--active"))
      request->active = true;
    else if (count < 3)
      positional[count++] = argv[i];
    else
      return usage_error("too many arguments");
  }
  if (count < 2) return usage_error("a verb and a URL are required");
  request->verb = positional[0];
  request->url = positional[1];
  request->local = positional[2];
  if (request->verb != "get" && request->verb != "put" && request->verb != "del")
    return usage_error("the verb is get, put or del");
  if (request->verb == "del" && count == 3) return usage_error("del takes no local file");
  if (request->verb == "put" && count < 3) return usage_error("put needs the LOCAL file to upload");
  return 0;
}

int perform(void* client, const Request& request, const FtpUrl& url) {
  if (request.verb == "del") return ftp_del(client, url.path.c_str());
  const bool terminal = isatty(STDERR_FILENO);
  Progress progress{request.verb == "get" ? "get" : "put", -1};
  if (request.verb == "put") {
    struct stat st {};
    if (stat(request.local.c_str(), &st) == 0) progress.total = st.st_size;
  }
  if (terminal) ftp_set_progress_callback(client, on_progress, &progress);
  const int rc = request.verb == "get" ? ftp_get(client, url.path.c_str(), request.local.c_str())
                                       : ftp_put(client, request.local.c_str(), url.path.c_str());
  progress.finish();
  return rc;
}

int run_ftp(int argc, char** argv) {
  Request request;
  if (const int bad = parse_request(argc, argv, &request)) return bad;
  FtpUrl url;
  std::string problem;
  if (!parse_url(request.url, &url, &problem)) return usage_error(problem);
  if (request.verb == "get" && request.local.empty()) request.local = base_name(url.path);
  if (request.verb == "put" && (url.path.empty() || url.path.back() == '/')) url.path += base_name(request.local);
  if (url.path.empty() || (request.local.empty() && request.verb != "del")) return usage_error("the URL names no file");

  void* client = nullptr;
  int rc = ftp_connect2(&client, url.host_port.c_str(), request.active ? 1 : 0);
  if (rc == 0) {
    rc = ftp_login(client, url.user.c_str(), url.password.c_str());
    if (rc == 0) rc = perform(client, request, url);
    ftp_disconnect(client);
  }
  if (rc != 0) {
    std::fprintf(stderr, "vekutil ftp %s: %s: %s\n", request.verb.c_str(), request.url.c_str(), describe(rc).c_str());
    return 1;
  }
  return 0;
}

vektool::Registrar reg_ftp{{"ftp", kUsage, "download, upload or delete one file on an FTP server", run_ftp,
                           kDetails}};

}  // namespace
