// "vekutil http get|post|put|delete URL ...": one HTTP request with the
// library's client, the body to standard output or a file; and the demo
// section "http" (a request to a one-shot server on loopback).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/vekutil.h>

#include "command.hpp"
#include "socket_util.hpp"

namespace {

constexpr const char* kDetails =
    "  get URL [-o FILE] [--resume] [-H 'Name: value']... [--proxy URL]\n"
    "          [--cacert FILE] [--insecure] [--timeout MS] [-v]\n"
    "  post|put|delete URL [--data TEXT | --upload FILE] [-H ...] [--proxy URL]\n"
    "          [--cacert FILE] [--insecure] [--timeout MS] [-v]\n"
    "  The body goes to standard output, or with -o to FILE (--resume continues a partial FILE).\n"
    "  Servers are verified against the system CAs (--cacert FILE instead of the system's CA file;\n"
    "  --insecure: no verification). --proxy http|socks4|socks4a|socks5://[USER:PASS@]HOST:PORT.\n"
    "  -v prints the status line and the response headers to standard error.\n"
    "  Exit status: 0, 1 when the request fails or the status is 400 or above, 2 for bad usage.\n";

struct Options {
  int method = 0;
  std::string url;
  const char* output = nullptr;
  bool resume = false;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string proxy_type_text, proxy_user, proxy_pass, proxy_addr;
  int proxy_type = SOCKET_PROXY_NONE;
  const char* cacert = nullptr;
  bool insecure = false;
  bool verbose = false;
  const char* data = nullptr;
  const char* upload = nullptr;
  int timeout = HTTP_DEFAULT_TIMEOUT;
};

int usage_error(const std::string& why) { return vektool::usage_error("http", why.c_str()); }

int method_of(const std::string& word) {
  if (word == "get") return HTTP_METHOD_GET;
  if (word == "post") return HTTP_METHOD_POST;
  if (word == "put") return HTTP_METHOD_PUT;
  if (word == "delete") return HTTP_METHOD_DELETE;
  return 0;
}

bool parse_proxy(const std::string& text, Options* o) {
  vektool::ProxyUrl proxy;
  if (!vektool::parse_proxy_url(text, &proxy)) return false;
  o->proxy_type = proxy.type;
  o->proxy_addr = proxy.addr;
  o->proxy_user = proxy.user;
  o->proxy_pass = proxy.pass;
  return true;
}

// 0 when the arguments make sense, else 2 after a hint.
int parse(int argc, char** argv, Options* o) {
  if (argc < 3) return usage_error("a method and a URL are required");
  o->method = method_of(argv[1]);
  if (!o->method) return usage_error(std::string("unknown method '") + argv[1] + "'");
  o->url = argv[2];
  for (int i = 3; i < argc; ++i) {
    const std::string a = argv[i];
    const bool has_value = i + 1 < argc;
    if (a == "--resume") {
      o->resume = true;
    } else if (a == "--insecure" || a == "-k") {
      o->insecure = true;
    } else if (a == "-v" || a == "--verbose") {
      o->verbose = true;
    } else if ((a == "-o" || a == "--output") && has_value) {
      o->output = argv[++i];
    } else if ((a == "-H" || a == "--header") && has_value) {
      const std::string h = argv[++i];
      const size_t colon = h.find(':');
      if (colon == std::string::npos || colon == 0) return usage_error("a header is 'Name: value'");
      size_t value = colon + 1;
      while (value < h.size() && h[value] == ' ') ++value;
      o->headers.emplace_back(h.substr(0, colon), h.substr(value));
    } else if (a == "--proxy" && has_value) {
      if (!parse_proxy(argv[++i], o)) return usage_error("--proxy takes http|socks4|socks4a|socks5://[USER:PASS@]HOST:PORT");
    } else if (a == "--cacert" && has_value) {
      o->cacert = argv[++i];
    } else if (a == "--timeout" && has_value) {
      char* end = nullptr;
      const long ms = std::strtol(argv[++i], &end, 10);
      if (!end || *end || ms < 1 || ms > 86400000) return usage_error("--timeout takes milliseconds");
      o->timeout = static_cast<int>(ms);
    } else if (a == "--data" && has_value) {
      o->data = argv[++i];
    } else if (a == "--upload" && has_value) {
      o->upload = argv[++i];
    } else {
      return usage_error("unexpected '" + a + "'");
    }
  }
  const bool get = o->method == HTTP_METHOD_GET;
  if (get && (o->data || o->upload)) return usage_error("get sends no body");
  if (!get && (o->output || o->resume)) return usage_error("-o and --resume go with get");
  if (o->data && o->upload) return usage_error("--data or --upload, not both");
  if (o->resume && !o->output) return usage_error("--resume needs -o FILE");
  return 0;
}

const char* describe(int rc) {
  switch (rc) {
    case ERR_HTTP_BAD_URL: return "the URL must start with http:// or https://";
    case ERR_HTTP_BAD_RESPONSE: return "the server's reply is not HTTP/1.0 or HTTP/1.1";
    case ERR_HTTP_FILE_CREATE:
    case ERR_FILE_OPEN: return "cannot open the file";
    case ERR_FILE_WRITE: return "cannot write the body";
    case ERR_FILE_SEEK: return "cannot seek in the file";
    case ERR_SOCKET_HOST_NOT_FOUND: return "host not found";
    case ERR_SOCKET_CONNECT:
    case ERR_SOCKET_FAILED: return "cannot connect";
    case ERR_TIMEOUT:
    case ERR_SOCKET_TIMEOUT: return "timed out";
    case ERR_SOCKET_CLOSED: return "the server closed the connection early";
    case ERR_SOCKET_PROXY_REFUSED: return "the proxy refused the connection";
    case ERR_SOCKET_PROXY_AUTH: return "the proxy rejected the credentials";
    case ERR_SOCKET_PROXY_REPLY: return "the proxy's reply is malformed";
    case ERR_SSL_CONNECT: return "TLS handshake failed (certificate not trusted or not for this host?)";
    case ERR_SSL_CTX_FILE: return "cannot load the certificate file";
    case ERR_SSL_IO: return "TLS connection failed";
    case ERR_INVALID_PARAMETER: return "invalid request (line break in a header?)";
    default: return "request failed";
  }
}

// Shows bytes written so far on standard error while a download to a file
// runs; the total comes from the response once its header is in.
class Progress {
 public:
  Progress(const char* path, const HTTP_RESPONSE* response, long long offset)
      : path_(path), response_(response), offset_(offset), thread_([this] { run(); }) {}
  ~Progress() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    wake_.notify_one();
    thread_.join();
    draw();
    std::fputc('\n', stderr);
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, std::chrono::milliseconds(200), [this] { return done_; })) draw();
  }
  void draw() {
    struct stat st {};
    const long long have = stat(path_, &st) == 0 ? st.st_size : 0;
    // The client writes these while it works; a torn read only shows a
    // wrong figure for one frame.
    const int status = __atomic_load_n(&response_->status, __ATOMIC_RELAXED);
    const long long announced = __atomic_load_n(&response_->data_len, __ATOMIC_RELAXED);
    const long long total = announced > 0 ? announced + (status == 206 ? offset_ : 0) : 0;
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count() + 1e-9;
    const double rate = static_cast<double>(have - offset_) / seconds / 1048576.0;
    if (total > 0) {
      const int width = 30;
      const int filled = static_cast<int>(width * std::min(1.0, static_cast<double>(have) / total));
      std::fprintf(stderr, "\r[%s%s] %3d%% %.1f/%.1f MiB %.1f MiB/s ", std::string(filled, '#').c_str(),
                   std::string(width - filled, '.').c_str(), static_cast<int>(100.0 * have / total),
                   have / 1048576.0, total / 1048576.0, rate);
    } else {
      std::fprintf(stderr, "\r%.1f MiB %.1f MiB/s ", have / 1048576.0, rate);
    }
  }

  const char* path_;
  const HTTP_RESPONSE* response_;
  long long offset_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::mutex mutex_;
  std::condition_variable wake_;
  bool done_ = false;
  std::thread thread_;
};

int print_header(const char* name, const char* value, void*) {
  std::fprintf(stderr, "%s: %s\n", name, value);
  return 0;
}

bool read_whole_file(const char* path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

// A server that ignores the range request sends the whole body, which the
// client has appended behind the partial file: move it to the front.
bool keep_only_tail(const char* path, long long offset) {
  FILE* f = std::fopen(path, "r+b");
  if (!f) return false;
  std::vector<char> buf(1 << 20);
  long long from = offset, to = 0;
  bool ok = true;
  for (;;) {
    if (std::fseek(f, from, SEEK_SET) != 0) ok = false;
    const size_t n = ok ? std::fread(buf.data(), 1, buf.size(), f) : 0;
    if (n == 0) break;
    ok = std::fseek(f, to, SEEK_SET) == 0 && std::fwrite(buf.data(), 1, n, f) == n;
    if (!ok) break;
    from += static_cast<long long>(n);
    to += static_cast<long long>(n);
  }
  ok = std::fflush(f) == 0 && ftruncate(fileno(f), to) == 0 && ok;
  return std::fclose(f) == 0 && ok;
}

int run_http(int argc, char** argv) {
  Options o;
  if (const int bad = parse(argc, argv, &o)) return bad;
  ssl_init();
  // The CA file stands in for the system's own; the system's CA directory
  // stays in use.
  if (o.cacert) setenv("SSL_CERT_FILE", o.cacert, 1);

  HTTP_REQUEST* req = nullptr;
  HTTP_RESPONSE* resp = nullptr;
  if (http_request_create(&req) != 0 || http_response_create(&resp) != 0) {
    std::fprintf(stderr, "vekutil http: out of memory\n");
    return 1;
  }
  req->url = o.url.c_str();
  req->method = o.method;
  req->timeout = o.timeout;
  req->ssl_verify_peer = o.insecure ? 0 : 1;
  for (const auto& [name, value] : o.headers) ptree_insert(req->properties, name.c_str(), value.c_str());
  req->proxy.type = o.proxy_type;
  req->proxy.addr = o.proxy_addr.data();
  req->proxy.user = o.proxy_user.empty() ? nullptr : o.proxy_user.data();
  req->proxy.pass = o.proxy_user.empty() ? nullptr : o.proxy_pass.data();
  std::string upload_body;
  if (o.data) {
    req->data = o.data;
    req->data_len = static_cast<int>(std::strlen(o.data));
  } else if (o.upload && o.method == HTTP_METHOD_POST) {
    req->file = o.upload;  // sent as chunks straight from the file
  } else if (o.upload) {
    // PUT and DELETE send no file of their own: the body goes from memory.
    if (!read_whole_file(o.upload, &upload_body) || upload_body.size() > 0x7fffffffu) {
      std::fprintf(stderr, "vekutil http: cannot read %s: %s\n", o.upload, std::strerror(errno));
      return 1;
    }
    req->data = upload_body.data();
    req->data_len = static_cast<int>(upload_body.size());
  }
  if (o.output) {
    req->file = o.output;
    struct stat st {};
    if (o.resume && stat(o.output, &st) == 0) {
      if (st.st_size > 0x7fffffff) {
        std::fprintf(stderr, "vekutil http: %s is too large to resume\n", o.output);
        return 1;
      }
      req->offset = static_cast<int>(st.st_size);
    }
  }

  int rc;
  {
    const bool show_progress = o.output && isatty(STDERR_FILENO);
    std::unique_ptr<Progress> progress(show_progress ? new Progress(o.output, resp, req->offset) : nullptr);
    rc = http_client(req, resp);
  }
  if (rc == 0 && req->offset > 0 && resp->status == 200) {
    std::fprintf(stderr, "vekutil http: the server sent the whole file instead of the rest; starting over\n");
    if (!keep_only_tail(o.output, req->offset)) {
      std::fprintf(stderr, "vekutil http: cannot rewrite %s: %s\n", o.output, std::strerror(errno));
      rc = ERR_FILE_WRITE;
    }
  }
  if (o.verbose && resp->status) {
    std::fprintf(stderr, "%s %d\n", (resp->options & HTTP_RESPONSE_HTTP10) ? "HTTP/1.0" : "HTTP/1.1", resp->status);
    ptree_foreach(resp->properties, print_header, nullptr);
    std::fputc('\n', stderr);
  }
  if (resp->data) std::fwrite(resp->data, 1, static_cast<size_t>(resp->data_len), stdout);
  std::fflush(stdout);
  int exit_code = 0;
  if (rc != 0) {
    std::fprintf(stderr, "vekutil http: %s (%d)\n", describe(rc), rc);
    exit_code = 1;
  } else if (resp->status >= 400) {
    std::fprintf(stderr, "vekutil http: the server answered %d\n", resp->status);
    exit_code = 1;
  }
  http_request_delete(req);
  http_response_delete(resp);
  return exit_code;
}

// ---- demo --------------------------------------------------------------------------

// A server for one request on loopback, made from the library's own
// sockets, that answers with a chunked body.
int demo_http() {
  void* server = nullptr;
  if (socket_listen(&server, "127.0.0.1:0") != 0) {
    socket_unlisten(server);
    std::printf("cannot listen on loopback\n");
    return 1;
  }
  // Port 0 lets the system choose; the listener's descriptor tells which.
  const int fd = static_cast<SERVER_SOCKET*>(server)->s;
  struct sockaddr_in sin {};
  socklen_t len = sizeof sin;
  getsockname(fd, reinterpret_cast<sockaddr*>(&sin), &len);
  const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(sin.sin_port)) + "/demo";
  std::thread serve([server] {
    void* client = socket_accept(server, 5000);
    if (!client) return;
    char request[1024];
    int n = sizeof request;
    socket_recv2(client, request, &n, 2000);
    const char reply[] =
        "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nTransfer-Encoding: chunked\r\n\r\n"
        "6\r\nhello \r\n11\r\nfrom the library\n\r\n0\r\n\r\n";
    socket_send(client, reply, static_cast<int>(sizeof reply - 1));
    socket_delete(client);
  });
  HTTP_REQUEST* req = nullptr;
  HTTP_RESPONSE* resp = nullptr;
  http_request_create(&req);
  http_response_create(&resp);
  req->url = url.c_str();
  req->method = HTTP_METHOD_GET;
  ptree_insert(req->properties, "User-Agent", "vekutil-demo");
  const int rc = http_client(req, resp);
  serve.join();
  socket_unlisten(server);
  std::printf("GET %s -> result %d, status %d%s\n", url.c_str(), rc, resp->status,
              (resp->options & HTTP_RESPONSE_CHUNKED) ? ", chunked" : "");
  std::printf("Content-Type: %s\n", ptree_find_by_key(resp->properties, "content-type"));
  std::printf("body (%d bytes): %s", resp->data_len, resp->data ? resp->data : "\n");
  const int ok = rc == 0 && resp->status == 200 && resp->data_len == 23;
  http_request_delete(req);
  http_response_delete(resp);
  return ok ? 0 : 1;
}

vektool::Registrar reg_http{{"http", "http get|post|put|delete URL [OPTIONS]", "one HTTP request", run_http, kDetails}};
vektool::DemoRegistrar demo_http_section{{"http", 75, demo_http}};

}  // namespace
