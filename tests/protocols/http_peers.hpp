// Real HTTP peers for the client tests, on loopback ports the system handed
// out and stopped by pid: Python's http.server and nginx.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <vector>

#include <vekutil/http.h>
#include <vekutil/memory.h>
#include <vekutil/ptree.h>

#include "peer.hpp"
#include "pki.hpp"
#include "vek_test.hpp"

namespace httptest {

// Python's http.server for the replies nginx does not make (chunked, ending at
// the close, slow, stalled, cut, odd) and echoes of what the client sent.
inline const char* kPythonHandler = R"PY(
import hashlib, sys, threading, time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import urlsplit, parse_qs

hits = {}
lock = threading.Lock()

def pattern(n):
    return bytes((i * 7 + 3) % 251 for i in range(n))

class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    def log_message(self, *args): pass
    def do_GET(self): self.route()
    do_POST = do_PUT = do_DELETE = do_GET

    def raw(self, data, pause=0):
        self.wfile.write(data)
        self.wfile.flush()
        if pause: time.sleep(pause)

    def reply(self, body, status=200, extra=()):
        self.send_response(status)
        for name, value in extra: self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def read_body(self):
        if self.headers.get("Transfer-Encoding", "").lower() == "chunked":
            sizes, body = [], b""
            while True:
                size = int(self.rfile.readline().split(b";")[0], 16)
                sizes.append(size)
                if size == 0:
                    self.rfile.readline()
                    return body, sizes
                body += self.rfile.read(size)
                if self.rfile.read(2) != b"\r\n": raise ValueError("chunk end")
        return self.rfile.read(int(self.headers.get("Content-Length", "0"))), None

    def request_text(self):
        text = "%s %s %s\n" % (self.command, self.path, self.request_version)
        return text + "".join("%s: %s\n" % kv for kv in self.headers.items())

    def route(self):
        url = urlsplit(self.path)
        q = {k: v[0] for k, v in parse_qs(url.query).items()}
        n = int(q.get("n", "1000"))
        with lock:
            hits[url.path] = hits.get(url.path, 0) + 1
        self.close_connection = True  # one exchange per connection; some bodies end at the close
        if url.path in FIXED:
            reply, piece, pause = FIXED[url.path]
            for key, value in ((b"<n>", b"%d" % n), (b"<hex>", b"%x" % n), (b"<half>", pattern(n // 2)),
                               (b"<body>", pattern(n))):
                reply = reply.replace(key, value)
            piece = piece(n) if callable(piece) else piece or len(reply)
            try:
                for i in range(0, len(reply), piece): self.raw(reply[i:i + piece], pause)
            except OSError: pass  # the client may stop reading early
        elif url.path == "/echo":      # what arrived, body read by length or chunks
            body, sizes = self.read_body()
            text = self.request_text() + "body %d %s\n" % (len(body), hashlib.sha256(body).hexdigest())
            text += "chunks %s\n" % (",".join(map(str, sizes)) if sizes is not None else "-")
            self.reply(text.encode())
        elif url.path == "/headers":  # what arrived, body left unread
            self.reply(self.request_text().encode(), extra=[("Connection", "close")])
        elif url.path == "/hits":
            self.reply(str(hits.get(q["p"], 0)).encode())
        elif url.path == "/chunked":  # sizes in hex of both cases, one with an extension
            self.raw(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
            data, at = pattern(n), 0
            for i, size in enumerate([1, 15, 16, 511, 512, 513, 4096, 20000]):
                part = data[at:at + size]
                at += len(part)
                if not part: break
                head = ("%x" if i % 2 else "%X") % len(part) + (";ext=1" if i == 2 else "")
                self.raw(head.encode() + b"\r\n" + part + b"\r\n")
            if at < n: self.raw(b"%x\r\n" % (n - at) + data[at:] + b"\r\n")
            self.raw(b"0\r\n\r\n")
        else:
            self.reply(b"unknown", 500)

# path: (reply, piece size (0: all at once), pause after each piece). In the
# reply <n> and <hex> stand for the query's n, <body> and <half> for n and n/2
# pattern bytes. /slow sends its body in quarters, /stall falls silent.
OK, LENGTH = b"HTTP/1.1 200 OK\r\n", b"Content-Length: <n>\r\n\r\n"
FIXED = {
    "/close": (b"HTTP/1.0 200 OK\r\nContent-Type: application/octet-stream\r\n\r\n<body>", 0, 0),
    "/slow": (OK + LENGTH + b"<body>", lambda n: n // 4 + 40, 0.2),  # the header goes with the first quarter
    "/slow-header": (OK + b"X-Slow: yes\r\nContent-Length: 2\r\n\r\nok", 8, 0.05),
    "/stall": (OK + LENGTH + b"<half>", 0, 3),
    "/stall-header": (OK + b"X-Half: ", 0, 3),
    "/cut-length": (OK + LENGTH + b"<half>", 0, 0),
    "/cut-chunked": (OK + b"Transfer-Encoding: chunked\r\n\r\n<hex>\r\n<half>", 0, 0),
    "/claim-big": (OK + b"Content-Length: 2000000000\r\n\r\n<body>", 0, 0),
    "/r307": (b"HTTP/1.1 307 Temporary Redirect\r\nLocation: http://127.0.0.1:1/elsewhere\r\n"
              b"Content-Length: 5\r\n\r\nmoved", 0, 0),
    "/missing": (b"HTTP/1.1 404 Not Found\r\nContent-Length: 13\r\n\r\nno such thing", 0, 0),
    "/odd-headers": (OK + b"X-Twice: one\r\nx-twice: two\r\nNoSpace:value\r\nno colon here\r\n: empty name\r\n"
                     b"Content-Length: 2\r\n\r\nok", 0, 0),
    "/lf-only": (b"HTTP/1.1 200 OK\nContent-Length: 2\n\n\n\nok", 0, 0),
    "/not-http": (b"ICY 200 OK\r\n\r\n", 0, 0),
    "/endless-header": (OK + b"".join(b"X-Filler-%d: %s\r\n" % (i, b"x" * 40) for i in range(40000)), 0, 0),
}

class Server(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True

Server(("127.0.0.1", int(sys.argv[1])), Handler).serve_forever()
)PY";

class PythonPeer {
 public:
  explicit PythonPeer(const vektest::TempDir& dir) {
    const std::string script = dir.file("handler.py");
    vektest::write_file(script, kPythonHandler);
    port_ = vektest::free_tcp_port();
    ok_ = process_.start({"/usr/bin/python3", script, std::to_string(port_)}, dir.file("python.log")) &&
          process_.wait_tcp_port(port_);
  }
  bool ok() const { return ok_; }
  int port() const { return port_; }
  std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

 private:
  vektest::PeerProcess process_;
  int port_ = 0;
  bool ok_ = false;
};

// nginx in one process (no daemon, no workers) serving root over http and
// https with the test CA's server certificate; /r307 answers 307.
class NginxPeer {
 public:
  NginxPeer(const vektest::TempDir& dir, const std::string& root) : access_log_(dir.file("access.log")) {
    const vektest::TestPki& pki = vektest::test_pki();
    http_port_ = vektest::free_tcp_port();
    https_port_ = vektest::free_tcp_port();
    std::string temp_paths;
    for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
      temp_paths += std::string("  ") + kind + "_temp_path " + dir.path() + ";\n";
    const std::string conf = dir.file("nginx.conf");
    vektest::write_file(conf, "daemon off;\nmaster_process off;\npid " + dir.file("nginx.pid") + ";\nerror_log " +
                                  dir.file("nginx-error.log") + " warn;\nevents { worker_connections 256; }\nhttp {\n" +
                                  "  log_format sni '$remote_addr \"$request\" $status sni=$ssl_server_name';\n" +
                                  "  access_log " + access_log_ + " sni;\n" + temp_paths + "  sendfile on;\n" +
                                  "  server {\n    listen 127.0.0.1:" + std::to_string(http_port_) + ";\n" +
                                  "    listen 127.0.0.1:" + std::to_string(https_port_) + " ssl;\n" +
                                  "    ssl_certificate " + pki.file("server.pem") + ";\n" +
                                  "    ssl_certificate_key " + pki.file("server.key") + ";\n" +
                                  "    root " + root + ";\n    location = /r307 { return 307 /elsewhere; }\n  }\n}\n");
    ok_ = pki.ok &&
          process_.start({"/usr/sbin/nginx", "-e", dir.file("nginx-error.log"), "-c", conf}, dir.file("nginx.out")) &&
          process_.wait_tcp_port(http_port_) && process_.wait_tcp_port(https_port_);
  }
  bool ok() const { return ok_; }
  std::string http(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(http_port_) + path; }
  std::string https(const std::string& path, const std::string& host = "127.0.0.1") const {
    return "https://" + host + ":" + std::to_string(https_port_) + path;
  }
  int https_port() const { return https_port_; }
  // How often the access log names `text`. nginx logs a request after the
  // response has gone out, so this waits (bounded, 5 s) for at least `want`.
  int logged(const std::string& text, int want = 1) const {
    int n = 0;
    for (int tries = 0; tries < 500; ++tries, usleep(10 * 1000)) {
      const std::string log = vektest::read_file(access_log_);
      n = 0;
      for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
      if (n >= want) break;
    }
    return n;
  }

 private:
  vektest::PeerProcess process_;
  int http_port_ = 0, https_port_ = 0;
  std::string access_log_;
  bool ok_ = false;
};

// One request and response pair, released with the object.
struct Exchange {
  Exchange() {
    EXPECT_EQ(0, http_request_create(&req));
    EXPECT_EQ(0, http_response_create(&resp));
  }
  ~Exchange() {
    http_request_delete(req);
    http_response_delete(resp);
  }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  // Runs the request (a GET unless a method is set) against u.
  int call(const std::string& u) {
    url = u;
    req->url = url.c_str();
    if (!req->method) req->method = HTTP_METHOD_GET;
    return http_client(req, resp);
  }
  std::string body() const { return resp->data ? std::string(resp->data, static_cast<size_t>(resp->data_len)) : ""; }
  std::string header(const char* name) const {
    const char* v = ptree_find_by_key(resp->properties, name);
    return v ? v : "<none>";
  }

  HTTP_REQUEST* req = nullptr;
  HTTP_RESPONSE* resp = nullptr;
  std::string url;
};

}  // namespace httptest
