// HTTP client: one request per call on a new connection, plain or TLS,
// direct or through a proxy; the body into memory or a file.
//
// Reading: everything after the request goes through one read-ahead buffer
// (Reader). The response header is taken from the socket in pieces of what
// has arrived rather than byte by byte, and the bytes that arrive behind the
// header stay in the buffer for the body reader. The end-of-header rule, the
// time-out rule and every result are those of a byte-wise read; only the
// number of system calls differs.
#include <vekutil/http.h>

#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <mutex>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <vekutil/base64.h>
#include <vekutil/blob.h>
#include <vekutil/convert.h>
#include <vekutil/ptree.h>
#include <vekutil/ssl.h>
#include <vekutil/strutil.h>
#include <vekutil/timeutil.h>

#include "containers/ptree.internal.hpp"
#include "core/internal.hpp"

// The public records keep their documented field order.
static_assert(offsetof(HTTP_REQUEST, url) == 0 && offsetof(HTTP_REQUEST, override_host) < offsetof(HTTP_REQUEST, method) &&
              offsetof(HTTP_REQUEST, method) < offsetof(HTTP_REQUEST, options) &&
              offsetof(HTTP_REQUEST, options) < offsetof(HTTP_REQUEST, properties) &&
              offsetof(HTTP_REQUEST, properties) < offsetof(HTTP_REQUEST, data) &&
              offsetof(HTTP_REQUEST, data) < offsetof(HTTP_REQUEST, data_len) &&
              offsetof(HTTP_REQUEST, data_len) < offsetof(HTTP_REQUEST, timeout) &&
              offsetof(HTTP_REQUEST, timeout) < offsetof(HTTP_REQUEST, ssl_cert_path) &&
              offsetof(HTTP_REQUEST, ssl_cert_path) < offsetof(HTTP_REQUEST, ssl_cert_pass) &&
              offsetof(HTTP_REQUEST, ssl_cert_pass) < offsetof(HTTP_REQUEST, ssl_verify_peer) &&
              offsetof(HTTP_REQUEST, ssl_verify_peer) < offsetof(HTTP_REQUEST, proxy) &&
              offsetof(HTTP_REQUEST, proxy) < offsetof(HTTP_REQUEST, file) &&
              offsetof(HTTP_REQUEST, file) < offsetof(HTTP_REQUEST, offset),
              "HTTP_REQUEST field order");
static_assert(offsetof(HTTP_RESPONSE, status) == 0 && offsetof(HTTP_RESPONSE, options) == sizeof(int) &&
              offsetof(HTTP_RESPONSE, properties) < offsetof(HTTP_RESPONSE, data) &&
              offsetof(HTTP_RESPONSE, data) < offsetof(HTTP_RESPONSE, data_len),
              "HTTP_RESPONSE field order");

namespace {

constexpr const char* kSource = "src/http.c";
constexpr int kHeaderBlobSize = 256;
constexpr int kUploadPiece = 8192;
constexpr int kFileSpool = 256 * 1024;
constexpr int kSizeLineMax = 512;
constexpr int kReadAhead = 16384;
constexpr int kAddressMax = 128;

// ---- small RAII holders -----------------------------------------------------

struct Blob {
  void* h = nullptr;
  ~Blob() { blob_delete(h); }
  _BLOB* get() const { return static_cast<_BLOB*>(h); }
  void* release() {
    void* out = h;
    h = nullptr;
    return out;
  }
};

struct Socket {
  void* h = nullptr;
  ~Socket() {
    if (h) socket_delete(h);
  }
  void* release() {
    void* out = h;
    h = nullptr;
    return out;
  }
};

struct Text {
  char* p = nullptr;
  ~Text() { vek::release(p, kSource, __LINE__); }
};

// ---- URL --------------------------------------------------------------------

enum Protocol { kHttp = 1, kHttps = 2 };

struct Url {
  int protocol = 0;
  char address[kAddressMax] = {};  // "host:port"
  char* path = nullptr;            // allocated
  char host[kAddressMax] = {};     // host without the port
  ~Url() { vek::release(path, kSource, __LINE__); }
};

// Bytes that would break the request line or a header line.
bool has_control_or_blank(const char* s) {
  for (; *s; ++s)
    if (static_cast<unsigned char>(*s) <= ' ' || *s == 0x7f) return true;
  return false;
}

bool has_line_break(const char* s) { return std::strpbrk(s, "\r\n") != nullptr; }

int parse_url(const char* text, Url* url) {
  if (!text) return ERR_HTTP_BAD_URL;
  size_t scheme = 0;
  if (std::strncmp(text, "https://", 8) == 0) {
    url->protocol = kHttps;
    scheme = 8;
  } else if (std::strncmp(text, "http://", 7) == 0) {
    url->protocol = kHttp;
    scheme = 7;
  } else {
    return ERR_HTTP_BAD_URL;
  }
  if (has_control_or_blank(text)) return ERR_HTTP_BAD_URL;
  const char* authority = text + scheme;
  const char* slash = std::strchr(authority, '/');
  const size_t authority_len = slash ? static_cast<size_t>(slash - authority) : std::strlen(authority);
  const size_t kept = std::min(authority_len, static_cast<size_t>(kAddressMax - 1));
  std::memcpy(url->address, authority, kept);
  url->address[kept] = '\0';
  std::memcpy(url->host, authority, kept);
  url->host[kept] = '\0';
  if (char* colon = std::strchr(url->host, ':')) {
    *colon = '\0';
  } else {
    const char* port = url->protocol == kHttps ? ":443" : ":80";
    std::strncat(url->address, port, kAddressMax - 1 - kept);
  }
  url->path = slash ? clone_string(slash, -1) : clone_string("/", -1);
  return url->path ? 0 : ERR_NO_MEMORY;
}

// ---- TLS: server name and name check ------------------------------------------
//
// ssl_connect makes the SSL object and runs the handshake in one call. The
// server name (SNI) and the expected certificate name must be set on the SSL
// object before its ClientHello, so the context carries them and an info
// callback applies them when the handshake starts.

struct TlsTarget {
  const char* host;
  bool verify;
};

int tls_target_index() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

bool is_ip_literal(const char* host) {
  unsigned char addr[16];
  return inet_pton(AF_INET, host, addr) == 1 || inet_pton(AF_INET6, host, addr) == 1;
}

void tls_on_handshake_start(const SSL* const_ssl, int where, int) {
  if (!(where & SSL_CB_HANDSHAKE_START)) return;
  SSL* ssl = const_cast<SSL*>(const_ssl);
  const auto* target = static_cast<const TlsTarget*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), tls_target_index()));
  if (!target || !target->host[0]) return;
  const bool ip = is_ip_literal(target->host);
  if (!ip) SSL_set_tlsext_host_name(ssl, target->host);  // no SNI for addresses
  if (!target->verify) return;
  if (ip)
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), target->host);
  else
    SSL_set1_host(ssl, target->host);
}

int tls_handshake(HTTP_REQUEST* request, void* socket, const Url& url) {
  void* ctx = nullptr;
  int rc = ssl_ctx_create(&ctx);
  if (rc != 0) return rc;
  SSL_CTX* raw = ssl_ctx_get_raw_object(ctx);
  TlsTarget target{url.host, request->ssl_verify_peer != 0};
  if (request->ssl_cert_pass) rc = ssl_ctx_set_passwd(ctx, request->ssl_cert_pass);
  if (rc == 0 && request->ssl_cert_path) rc = ssl_ctx_set_packed_file(ctx, request->ssl_cert_path);
  if (rc == 0 && request->ssl_verify_peer) {
    rc = ssl_ctx_set_verify(ctx, 1, 1);
    if (rc == 0) rc = ssl_ctx_set_calist_load_system(ctx);
  }
  if (rc == 0) {
    SSL_CTX_set_ex_data(raw, tls_target_index(), &target);
    SSL_CTX_set_info_callback(raw, tls_on_handshake_start);
    rc = ssl_connect(socket, ctx);
    // The SSL object keeps the OpenSSL context alive; a later handshake
    // (renegotiation) must not reach the target, which lives on this stack.
    SSL_CTX_set_ex_data(raw, tls_target_index(), nullptr);
  }
  ssl_ctx_delete(ctx);
  return rc;
}

// ---- request --------------------------------------------------------------------

bool has_body_method(int method) {
  return method == HTTP_METHOD_POST || method == HTTP_METHOD_PUT || method == HTTP_METHOD_DELETE;
}

const char* method_word(int method) {
  switch (method) {
    case HTTP_METHOD_GET: return "GET ";
    case HTTP_METHOD_POST: return "POST ";
    case HTTP_METHOD_PUT: return "PUT ";
    case HTTP_METHOD_DELETE: return "DELETE ";
    default: return nullptr;
  }
}

bool sends_data(const HTTP_REQUEST* r) { return has_body_method(r->method) && r->data && r->data_len > 0; }
bool uploads_chunked(const HTTP_REQUEST* r) { return !sends_data(r) && r->file && has_body_method(r->method); }

int append_property(const char* key, const char* value, void* blob) {
  if (has_line_break(key) || has_line_break(value)) return ERR_INVALID_PARAMETER;
  return blob_format_append(blob, "%s: %s\r\n", key, value);
}

int format_header(HTTP_REQUEST* request, const Url& url, void* blob) {
  const char* word = method_word(request->method);
  if (!word) return ERR_HTTP_BAD_METHOD;
  int rc = blob_append_string(blob, word);
  if (rc == 0) rc = blob_append_string(blob, request->override_host ? request->url : url.path);
  if (rc == 0) {
    if (!(request->options & HTTP_REQUEST_HTTP10))
      rc = blob_format_append(blob, " HTTP/1.1\r\nHost: %s\r\nConnection: close\r\n", url.address);
    else
      rc = blob_append_string(blob, " HTTP/1.0\r\n");
  }
  if (rc == 0 && sends_data(request)) rc = blob_format_append(blob, "Content-Length: %d\r\n", request->data_len);
  if (rc == 0 && uploads_chunked(request)) rc = blob_append_string(blob, "Transfer-Encoding: chunked\r\n");
  if (rc == 0 && request->file && request->offset != 0 && request->method == HTTP_METHOD_GET)
    rc = blob_format_append(blob, "Range: bytes=%d-\r\n", request->offset);
  if (rc == 0 && request->properties) rc = ptree_foreach(request->properties, append_property, blob);
  if (rc == 0) rc = blob_append_string(blob, "\r\n");
  return rc;
}

int connect_socket(HTTP_REQUEST* request, void* socket, const Url& url) {
  if (request->proxy.type != SOCKET_PROXY_NONE)
    return socket_connect_thru_proxy(socket, &request->proxy, url.address, request->timeout);
  return socket_connect_ex(socket, request->override_host ? request->override_host : url.address, request->timeout);
}

int send_file_chunked(void* socket, const char* path) {
  struct Input {
    FILE* f;
    ~Input() {
      if (f) std::fclose(f);
    }
  } in{std::fopen(path, "rb")};
  if (!in.f) {
    log_vek_error("http_put(%s): fopen failed[%d]\n", path, errno);
    return ERR_FILE_OPEN;
  }
  // Size line, data and CRLF go out in one send.
  auto* piece = static_cast<char*>(_vekMalloc(kUploadPiece + 16, kSource, __LINE__));
  if (!piece) return ERR_NO_MEMORY;
  int rc = 0;
  for (;;) {
    char* data = piece + 6;  // room for "2000\r\n"
    const size_t n = std::fread(data, 1, kUploadPiece, in.f);
    if (n == 0) {
      if (std::ferror(in.f)) {
        log_vek_error("http_put(%s): fread failed[%d]\n", path, errno);
        rc = ERR_FILE_OPEN;
      }
      break;
    }
    char size_line[8];
    const int size_len = std::snprintf(size_line, sizeof size_line, "%zx\r\n", n);
    char* start = data - size_len;
    std::memcpy(start, size_line, static_cast<size_t>(size_len));
    std::memcpy(data + n, "\r\n", 2);
    rc = socket_send(socket, start, static_cast<int>(n) + size_len + 2);
    if (rc != 0) break;
  }
  _vekFree(piece, kSource, __LINE__);
  if (rc == 0) rc = socket_send(socket, "0\r\n\r\n", 5);
  return rc;
}

// ---- reading ----------------------------------------------------------------------

// Read-ahead over the socket: small reads are served from a buffer filled
// with whatever has arrived; large reads go straight to the caller's memory
// once the buffer is drained.
class Reader {
 public:
  Reader(void* socket, int timeout) : socket_(socket), timeout_(timeout) {}
  // A new connection: whatever was read ahead belonged to the old one.
  void attach(void* socket) {
    socket_ = socket;
    pos_ = end_ = 0;
  }
  ~Reader() { vek::release(buf_, kSource, __LINE__); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  void* socket() const { return socket_; }
  int timeout() const { return timeout_; }
  bool buffered() const { return pos_ < end_; }

  // Receives what is there (at least one byte), at most max.
  int read_some(char* dst, int max, int* got) {
    *got = 0;
    if (!buffered()) {
      if (max >= kReadAhead) {
        int len = max;
        const int rc = socket_recv2(socket_, dst, &len, timeout_);
        if (rc == 0) *got = len;
        return rc;
      }
      const int rc = fill();
      if (rc != 0) return rc;
    }
    const int n = std::min(max, end_ - pos_);
    std::memcpy(dst, buf_ + pos_, static_cast<size_t>(n));
    pos_ += n;
    *got = n;
    return 0;
  }

  int read_exact(char* dst, long long len) {
    while (len > 0) {
      int got = 0;
      const int rc = read_some(dst, static_cast<int>(std::min<long long>(len, INT_MAX)), &got);
      if (rc != 0) return rc;
      dst += got;
      len -= got;
    }
    return 0;
  }

  int read_byte(char* c) {
    int got = 0;
    return read_some(c, 1, &got);
  }

  // Refills the empty buffer with what has arrived.
  int fill() {
    if (!buf_) {
      buf_ = static_cast<char*>(_vekMalloc(kReadAhead, kSource, __LINE__));
      if (!buf_) return ERR_NO_MEMORY;
    }
    int len = kReadAhead;
    const int rc = socket_recv2(socket_, buf_, &len, timeout_);
    pos_ = 0;
    end_ = rc == 0 ? len : 0;
    return rc;
  }

  // The buffered bytes, for the header scan, which takes what it uses.
  const char* pending() const { return buf_ + pos_; }
  int pending_len() const { return end_ - pos_; }
  void consume(int n) { pos_ += n; }

 private:
  void* socket_;
  int timeout_;
  char* buf_ = nullptr;
  int pos_ = 0;
  int end_ = 0;
};

// Reads the response header up to four CR/LF bytes in a row into blob. A
// time-out shorter than the request's own since the last byte is waited out.
int read_response_header(Reader& reader, void* blob) {
  long long last_byte = time_now();
  int run = 0;
  for (;;) {
    if (reader.pending_len() == 0) {
      const int rc = reader.fill();
      if (rc != 0) {
        if (socket_error(reader.socket()) == ERR_SOCKET_TIMEOUT && time_now() - last_byte < reader.timeout())
          continue;
        return rc;
      }
      last_byte = time_now();
    }
    const char* p = reader.pending();
    const int n = reader.pending_len();
    int used = 0;
    while (used < n && run < 4) {
      const char c = p[used++];
      run = (c == '\r' || c == '\n') ? run + 1 : 0;
    }
    if (blob_get_length(blob) + used > HTTP_MAX_RESPONSE_HEADER) return ERR_HTTP_BAD_RESPONSE;
    const int rc = blob_append(blob, p, used);
    if (rc != 0) return rc;
    reader.consume(used);
    if (run == 4) return 0;
  }
}

int parse_status(const char* line, size_t len) {
  char digits[16] = {};
  if (len > 9) std::memcpy(digits, line + 9, std::min(len - 9, sizeof digits - 1));
  int status = 0;
  convert_to_i(&status, digits, nullptr, 10);
  return status;
}

// The response header, parsed. content_length stays -1 without a valid one.
// Repeated names are joined into one value with ", ".
int parse_response_header(HTTP_RESPONSE* response, const char* header, int header_len, long long* content_length) {
  *content_length = -1;
  if (header_len < 8) return ERR_HTTP_BAD_RESPONSE;
  if (std::memcmp(header, "HTTP/1.0", 8) == 0)
    response->options |= HTTP_RESPONSE_HTTP10;
  else if (std::memcmp(header, "HTTP/1.1", 8) == 0)
    response->options |= HTTP_RESPONSE_HTTP11;
  else
    return ERR_HTTP_BAD_RESPONSE;

  const char* p = header;
  const char* const end = header + header_len;
  Text line;  // one header line, terminated, split in place at the colon
  bool first = true;
  while (p < end) {
    const char* nl = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
    const char* line_end = nl ? nl : end;
    size_t len = static_cast<size_t>(line_end - p);
    if (len > 0 && p[len - 1] == '\r') --len;
    const char* const next = nl ? nl + 1 : end;
    if (first) {
      response->status = parse_status(p, len);
      first = false;
      p = next;
      continue;
    }
    if (len == 0) break;  // the empty line ends the header
    const char* colon = static_cast<const char*>(std::memchr(p, ':', len));
    if (colon && colon != p) {
      vek::release(line.p, kSource, __LINE__);
      line.p = static_cast<char*>(_vekMalloc(len + 1, kSource, __LINE__));
      if (!line.p) return ERR_NO_MEMORY;
      std::memcpy(line.p, p, len);
      line.p[len] = '\0';
      const size_t name_len = static_cast<size_t>(colon - p);
      line.p[name_len] = '\0';
      const char* value = line.p + std::min(name_len + 2, len);  // the value starts two characters after the colon
      // A name that holds a NUL byte would stand for another name: skipped.
      if (std::strlen(line.p) != name_len) {
        p = next;
        continue;
      }
      const int rc = ptree_append_value(response->properties, line.p, value, ", ");
      if (rc != 0) return rc;
      long long length = 0;
      if (std::strcmp(line.p, "Content-Length") == 0 && convert_to_ll(&length, value, nullptr, 10) == 0 &&
          length >= 0) {
        *content_length = length;
        response->data_len = static_cast<int>(std::min<long long>(length, INT_MAX));
      }
    }
    p = next;
  }
  const char* encoding = ptree_find_by_key(response->properties, "Transfer-Encoding");
  if (encoding && strcasecmp(encoding, "chunked") == 0) response->options |= HTTP_RESPONSE_CHUNKED;
  return 0;
}

// ---- bodies ------------------------------------------------------------------------
//
// A body flows from the reader into a sink: memory that grows with what
// arrives, or a file written in large pieces. Three loops (by length, by
// chunks, up to the close) drive either sink.

bool body_into_file(const HTTP_REQUEST* request, const HTTP_RESPONSE* response) {
  return request->file && request->method == HTTP_METHOD_GET && response->status < 400;
}

// A body collected in memory; handed over to response->data at the end.
// Memory grows with what arrives, never ahead of it to what the peer
// announced: a reply claiming 2 GB and sending 10 bytes costs 10 bytes.
class MemorySink {
 public:
  explicit MemorySink(long long cap = LLONG_MAX) : cap_(cap) {}
  ~MemorySink() { vek::release(buf_, kSource, __LINE__); }

  // Room for at least one more byte plus the terminator.
  int space(char** at, int* room) {
    if (len_ + 1 >= size_ &&
        !resize(std::min<long long>(std::max<long long>(2 * size_, 4096), cap_), len_ + 2))
      return ERR_FILE_WRITE;
    *at = buf_ + len_;
    *room = static_cast<int>(std::min<long long>(size_ - len_ - 1, INT_MAX));
    return 0;
  }
  int commit(int n) {
    len_ += n;
    return 0;
  }
  // Moves the bytes, NUL-terminated, into response->data.
  int finish(HTTP_RESPONSE* response) {
    if (len_ + 1 > size_ && !resize(len_ + 1, len_ + 1)) return ERR_FILE_WRITE;
    buf_[len_] = '\0';
    vek::release(response->data, kSource, __LINE__);
    response->data = buf_;
    response->data_len = static_cast<int>(len_);
    buf_ = nullptr;
    return 0;
  }

 private:
  bool resize(long long want, long long at_least) {
    if (want < at_least || want > INT_MAX) return false;
    // A first block comes from malloc: a realloc of nothing is not counted
    // as a block in the default allocation mode.
    void* grown = buf_ ? _vekRealloc(buf_, static_cast<size_t>(want), kSource, __LINE__)
                       : _vekMalloc(static_cast<size_t>(want), kSource, __LINE__);
    if (!grown) return false;
    buf_ = static_cast<char*>(grown);
    size_ = want;
    return true;
  }

  long long cap_;
  char* buf_ = nullptr;
  long long size_ = 0;
  long long len_ = 0;
};

// A download file written in pieces of kFileSpool bytes: a few large
// writes instead of one per receive. Whatever arrived is written before
// the sink reports, also when the body ends early.
class FileSink {
 public:
  explicit FileSink(const char* path) : path_(path) {}
  ~FileSink() {
    if (fd_ >= 0) ::close(fd_);
    vek::release(spool_, kSource, __LINE__);
  }

  // "wb", or "ab" and a seek to offset (the seek only matters for reading
  // back: appended data always lands at the end). ERR_FILE_OPEN or
  // ERR_FILE_SEEK after logging; the caller picks its own code.
  int open(int offset) {
    spool_ = static_cast<char*>(_vekMalloc(kFileSpool, kSource, __LINE__));
    if (!spool_) return ERR_NO_MEMORY;
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (offset ? O_APPEND : O_TRUNC);
    fd_ = ::open(path_, flags, 0666);
    if (fd_ < 0) {
      log_vek_error("http_client(%s): open failed[%d]\n", path_, errno);
      return ERR_FILE_OPEN;
    }
    if (offset && lseek(fd_, offset, SEEK_SET) < 0) {
      log_vek_error("http_client(%s): lseek failed[%d]\n", path_, errno);
      return ERR_FILE_SEEK;
    }
    return 0;
  }
  int space(char** at, int* room) {
    if (len_ == kFileSpool) {
      const int rc = flush();
      if (rc != 0) return rc;
    }
    *at = spool_ + len_;
    *room = kFileSpool - len_;
    return 0;
  }
  int commit(int n) {
    len_ += n;
    return 0;
  }
  // Writes what is left and closes; a failed close can lose data too.
  int finish() {
    int rc = flush();
    if (::close(fd_) != 0 && rc == 0) {
      log_vek_error("http_client(%s): close failed[%d]\n", path_, errno);
      rc = ERR_FILE_WRITE;
    }
    fd_ = -1;
    return rc;
  }

 private:
  int flush() {
    for (int done = 0; done < len_;) {
      const ssize_t n = ::write(fd_, spool_ + done, static_cast<size_t>(len_ - done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        log_vek_error("http_client(%s): write failed[%d]\n", path_, errno);
        return ERR_FILE_WRITE;
      }
      done += static_cast<int>(n);
    }
    len_ = 0;
    return 0;
  }

  const char* path_;
  int fd_ = -1;
  char* spool_ = nullptr;
  int len_ = 0;
};

// Moves up to length bytes (-1: until a receive fails) into the sink.
template <class Sink>
int copy_body(Reader& reader, Sink& sink, long long length) {
  while (length != 0) {
    char* at = nullptr;
    int room = 0;
    int rc = sink.space(&at, &room);
    if (rc != 0) return rc;
    if (length > 0) room = static_cast<int>(std::min<long long>(room, length));
    int got = 0;
    rc = reader.read_some(at, room, &got);
    if (rc != 0) return rc;
    sink.commit(got);
    if (length > 0) length -= got;
  }
  return 0;
}

// Reads a chunk-size line up to its CR and the LF behind it. *size is -1
// when the line is not a hexadecimal size (which ends the body).
int read_size_line(Reader& reader, long long* size) {
  char line[kSizeLineMax];
  int n = 0;
  for (;;) {
    char c = 0;
    const int rc = reader.read_byte(&c);
    if (rc != 0) return rc;
    if (c == '\r') break;
    if (n < kSizeLineMax - 1) line[n++] = c;
  }
  line[n] = '\0';
  char lf = 0;
  const int rc = reader.read_byte(&lf);
  if (rc != 0) return rc;
  int value = 0;
  *size = (lf == '\n' && convert_to_i(&value, line, nullptr, 16) == 0 && value >= 0) ? value : -1;
  return 0;
}

// Walks the chunks into the sink. A size of 0, a line that is not a size,
// or a chunk not closed by CRLF ends the body.
template <class Sink>
int copy_chunks(Reader& reader, Sink& sink) {
  for (;;) {
    long long size = 0;
    int rc = read_size_line(reader, &size);
    if (rc != 0) return rc;
    if (size <= 0) return 0;
    rc = copy_body(reader, sink, size);
    if (rc != 0) return rc;
    char crlf[2];
    rc = reader.read_exact(crlf, 2);
    if (rc != 0) return rc;
    if (crlf[0] != '\r' || crlf[1] != '\n') return 0;
  }
}

enum class Framing { kLength, kChunked, kClose };

// Runs one framing into the sink; the first failure wins, but the sink is
// always finished so that what arrived is kept.
template <class Sink, class Finish>
int drain(Reader& reader, Sink& sink, Framing framing, long long length, Finish&& finish) {
  int rc = framing == Framing::kLength    ? copy_body(reader, sink, length)
           : framing == Framing::kChunked ? copy_chunks(reader, sink)
                                          : copy_body(reader, sink, -1);
  const int finish_rc = finish();
  return rc != 0 ? rc : finish_rc;
}

int body_into_memory(HTTP_RESPONSE* response, Reader& reader, Framing framing, long long length) {
  if (framing == Framing::kLength && length >= INT_MAX) return ERR_FILE_WRITE;
  MemorySink sink(framing == Framing::kLength ? length + 1 : LLONG_MAX);
  const int rc = drain(reader, sink, framing, length, [&] { return sink.finish(response); });
  // Up to the close, any failing receive is the end of the body.
  return framing == Framing::kClose && rc != ERR_FILE_WRITE ? 0 : rc;
}

int body_into_file(HTTP_REQUEST* request, Reader& reader, Framing framing, long long length) {
  FileSink sink(request->file);
  int rc = sink.open(request->offset);
  if (rc != 0) return framing == Framing::kChunked && rc == ERR_FILE_OPEN ? ERR_HTTP_FILE_CREATE
                     : framing != Framing::kChunked && rc == ERR_FILE_SEEK ? ERR_FILE_OPEN
                                                                            : rc;
  rc = drain(reader, sink, framing, length, [&] { return sink.finish(); });
  // Up to the close, the peer's orderly close is the end of the body.
  return framing == Framing::kClose && rc == ERR_SOCKET_CLOSED ? 0 : rc;
}

int read_framed(HTTP_REQUEST* request, HTTP_RESPONSE* response, Reader& reader, Framing framing, long long length) {
  return body_into_file(request, response) ? body_into_file(request, reader, framing, length)
                                           : body_into_memory(response, reader, framing, length);
}
int read_known(HTTP_REQUEST* request, HTTP_RESPONSE* response, Reader& reader, long long length) {
  return read_framed(request, response, reader, Framing::kLength, length);
}
int read_chunked(HTTP_REQUEST* request, HTTP_RESPONSE* response, Reader& reader) {
  return read_framed(request, response, reader, Framing::kChunked, 0);
}
int read_unknown(HTTP_REQUEST* request, HTTP_RESPONSE* response, Reader& reader) {
  return read_framed(request, response, reader, Framing::kClose, 0);
}

// ---- the exchange -------------------------------------------------------------------

// Empties a response for a new reply.
int reset_response(HTTP_RESPONSE* response) {
  void* fresh = nullptr;
  const int rc = ptree_create(&fresh);
  if (rc != 0) return rc;
  if (response->properties) ptree_delete(response->properties);
  response->properties = fresh;
  vek::release(response->data, kSource, __LINE__);
  response->status = 0;
  response->options = 0;
  response->data_len = 0;
  return 0;
}

// Reads and parses the response header; the reader is left at the start of
// the body.
int read_header(HTTP_RESPONSE* response, Reader& reader, void* blob, long long* content_length) {
  int rc = read_response_header(reader, blob);
  if (rc != 0) return rc;
  return parse_response_header(response, static_cast<const char*>(blob_get_buffer(blob)), blob_get_length(blob),
                               content_length);
}

// Chooses the body reader: by length (HTTP/1.1 with a length), by chunks
// (HTTP/1.1 chunked), else up to the peer's close.
int read_body(HTTP_REQUEST* request, HTTP_RESPONSE* response, Reader& reader, long long content_length) {
  const bool http11 = response->options & HTTP_RESPONSE_HTTP11;
  if (http11 && content_length > 0) return read_known(request, response, reader, content_length);
  if (http11 && (response->options & HTTP_RESPONSE_CHUNKED)) return read_chunked(request, response, reader);
  return read_unknown(request, response, reader);
}

// One request and its reply up to the end of the header.
int exchange_header(HTTP_REQUEST* request, HTTP_RESPONSE* response, Socket& socket, Reader& reader,
                    long long* content_length) {
  Blob header;
  int rc = http_build_header(request, &socket.h, &header.h);
  if (rc != 0) return rc;
  rc = http_put(request, socket.h, header.h);
  if (rc != 0) return rc;
  blob_clear(header.h);
  reader.attach(socket.h);
  return read_header(response, reader, header.h, content_length);
}

}  // namespace

extern "C" {

int http_request_create(HTTP_REQUEST** request) {
  if (!request) return ERR_HTTP_NULL_OBJECT;
  *request = nullptr;
  auto* r = vek::alloc_record<HTTP_REQUEST>(kSource, __LINE__);
  if (!r) return ERR_NO_MEMORY;
  if (ptree_create(&r->properties) != 0) {
    _vekFree(r, kSource, __LINE__);
    return ERR_NO_MEMORY;
  }
  r->timeout = HTTP_DEFAULT_TIMEOUT;
  *request = r;
  return 0;
}

int http_response_create(HTTP_RESPONSE** response) {
  if (!response) return ERR_HTTP_NULL_OBJECT;
  *response = nullptr;
  auto* r = vek::alloc_record<HTTP_RESPONSE>(kSource, __LINE__);
  if (!r) return ERR_NO_MEMORY;
  if (ptree_create(&r->properties) != 0) {
    _vekFree(r, kSource, __LINE__);
    return ERR_NO_MEMORY;
  }
  *response = r;
  return 0;
}

int http_request_delete(HTTP_REQUEST* request) {
  if (!request) return ERR_HTTP_NULL_OBJECT;
  if (request->properties) ptree_delete(request->properties);
  _vekFree(request, kSource, __LINE__);
  return 0;
}

int http_response_delete(HTTP_RESPONSE* response) {
  if (!response) return ERR_HTTP_NULL_OBJECT;
  if (response->properties) ptree_delete(response->properties);
  vek::release(response->data, kSource, __LINE__);
  _vekFree(response, kSource, __LINE__);
  return 0;
}

int http_request_set_basic_auth(HTTP_REQUEST* request, const char* user, const char* pass) {
  if (!request) return ERR_HTTP_NULL_OBJECT;
  if (!user || !pass) return ERR_INVALID_PARAMETER;
  const size_t credentials_len = std::strlen(user) + std::strlen(pass) + 1;
  if (credentials_len > INT_MAX / 2) return ERR_INVALID_PARAMETER;
  Text credentials;
  credentials.p = static_cast<char*>(_vekMalloc(credentials_len + 1, kSource, __LINE__));
  if (!credentials.p) return ERR_INVALID_PARAMETER;
  std::snprintf(credentials.p, credentials_len + 1, "%s:%s", user, pass);
  Text encoded;
  const int rc = base64_encode(reinterpret_cast<const unsigned char*>(credentials.p),
                               static_cast<int>(credentials_len), &encoded.p);
  if (rc != 0) return rc;
  const size_t value_len = std::strlen(encoded.p) + 7;
  Text value;
  value.p = static_cast<char*>(_vekMalloc(value_len, kSource, __LINE__));
  if (!value.p) return ERR_INVALID_PARAMETER;
  std::snprintf(value.p, value_len, "Basic %s", encoded.p);
  return ptree_insert(request->properties, "Authorization", value.p) == 0 ? 0 : ERR_INVALID_PARAMETER;
}

namespace {
char* encode(const char* text, bool lower_pairs) {
  if (!text) return nullptr;
  const size_t len = std::strlen(text);
  auto* out = static_cast<char*>(_vekMalloc(3 * len + 1, kSource, __LINE__));
  if (!out) return nullptr;
  static constexpr char kLower[] = "0123456789abcdef";
  static constexpr char kUpper[] = "0123456789ABCDEF";
  char* o = out;
  for (size_t i = 0; i < len; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
        c == '.' || c == '~') {
      *o++ = static_cast<char>(c);
    } else if (c == ' ') {
      *o++ = '+';
    } else {
      *o++ = '%';
      if (lower_pairs) {
        *o++ = kLower[c >> 4];
        *o++ = kLower[c & 15];
      } else {
        if (c >= 16) *o++ = kUpper[c >> 4];
        *o++ = kUpper[c & 15];
      }
    }
  }
  *o = '\0';
  return out;
}
}  // namespace

char* http_encode_string(const char* text) { return encode(text, true); }
char* _http_encode_url(const char* text) { return encode(text, false); }

int http_build_header(HTTP_REQUEST* request, void** socket_out, void** header_out) {
  if (socket_out) *socket_out = nullptr;
  if (header_out) *header_out = nullptr;
  if (!request || !socket_out || !header_out) return ERR_INVALID_PARAMETER;
  Url url;
  int rc = parse_url(request->url, &url);
  if (rc != 0) return rc;
  if (request->override_host && has_control_or_blank(request->override_host)) return ERR_HTTP_BAD_URL;
  Socket socket;
  rc = _socket_create(&socket.h, kSource, __LINE__);
  if (rc != 0) return rc;
  rc = connect_socket(request, socket.h, url);
  if (rc != 0) return rc;
  if (url.protocol == kHttps) {
    rc = tls_handshake(request, socket.h, url);
    if (rc != 0) return rc;
  }
  Blob header;
  rc = blob_create(&header.h, kHeaderBlobSize);
  if (rc != 0) return rc;
  rc = format_header(request, url, header.h);
  if (rc != 0) return rc;
  *socket_out = socket.release();
  *header_out = header.release();
  return 0;
}

int http_put(HTTP_REQUEST* request, void* socket, void* header) {
  if (!request || !header) return ERR_INVALID_PARAMETER;
  if (request->method == HTTP_METHOD_POST && uploads_chunked(request)) {
    const int rc = socket_send(socket, static_cast<const char*>(blob_get_buffer(header)), blob_get_length(header));
    return rc != 0 ? rc : send_file_chunked(socket, request->file);
  }
  if (sends_data(request)) {
    const int rc = blob_append(header, request->data, request->data_len);
    if (rc != 0) return rc;
  }
  return socket_send(socket, static_cast<const char*>(blob_get_buffer(header)), blob_get_length(header));
}

int http_build_properties(HTTP_RESPONSE* response, const char* header, int header_len) {
  if (!response) return ERR_HTTP_NULL_OBJECT;
  if (!header || header_len < 0) return ERR_INVALID_PARAMETER;
  long long content_length = 0;
  return parse_response_header(response, header, header_len, &content_length);
}

int http_datalength_known(HTTP_REQUEST* request, HTTP_RESPONSE* response, void* socket) {
  if (!request || !response) return ERR_INVALID_PARAMETER;
  Reader reader(socket, request->timeout);
  return read_known(request, response, reader, response->data_len);
}

int http_chunk_transfer_encoding(HTTP_REQUEST* request, HTTP_RESPONSE* response, void* socket) {
  if (!request || !response) return ERR_INVALID_PARAMETER;
  Reader reader(socket, request->timeout);
  return read_chunked(request, response, reader);
}

int http_unknown_encoding(HTTP_REQUEST* request, HTTP_RESPONSE* response, void* socket) {
  if (!request || !response) return ERR_INVALID_PARAMETER;
  Reader reader(socket, request->timeout);
  return read_unknown(request, response, reader);
}

int _http_read_response(HTTP_REQUEST* request, HTTP_RESPONSE* response, void* socket) {
  if (!request || !response) return ERR_INVALID_PARAMETER;
  int rc = reset_response(response);
  if (rc != 0) return rc;
  Blob header;
  rc = blob_create(&header.h, kHeaderBlobSize);
  if (rc != 0) return rc;
  Reader reader(socket, request->timeout);
  long long content_length = -1;
  rc = read_header(response, reader, header.h, &content_length);
  return rc != 0 ? rc : read_body(request, response, reader, content_length);
}

int http_client(HTTP_REQUEST* request, HTTP_RESPONSE* response) {
  if (!request || !response) return ERR_INVALID_PARAMETER;
  Reader reader(nullptr, request->timeout);
  for (bool repeated = false;; repeated = true) {
    int rc = reset_response(response);
    if (rc != 0) return rc;
    Socket socket;
    long long content_length = -1;
    rc = exchange_header(request, response, socket, reader, &content_length);
    if (rc == 0 && response->status == 307 && !repeated) continue;  // once, to the request's own URL again
    if (rc == 0) rc = read_body(request, response, reader, content_length);
    if (socket.h) socket_close(socket.h);
    return rc;
  }
}

}  // extern "C"
