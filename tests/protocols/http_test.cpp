// The HTTP client against Python's http.server (requests as it saw them, every
// reply framing, odd and refused cases), plus header parsing and URL encoders.
#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>

#include <vekutil/errors.h>
#include <vekutil/http.h>
#include <vekutil/ptree.h>
#include <vekutil/socket.h>

#include "http_peers.hpp"

namespace {

using httptest::Exchange;

// The bytes the Python handler sends as a body of n bytes.
std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 7 + 3) % 251);
  return s;
}

bool contains(const std::string& text, const std::string& needle) { return text.find(needle) != std::string::npos; }

class HttpPythonTest : public vektest::LeakCheckedTest {
 protected:
  static void SetUpTestSuite() {
    // The process-wide socket registry is made before any test counts blocks.
    void* s = nullptr;
    socket_create(&s);
    socket_delete(s);
    socket_instrument_handle();
    dir_ = new vektest::TempDir;
    peer_ = new httptest::PythonPeer(*dir_);
  }
  static void TearDownTestSuite() {
    delete peer_;
    delete dir_;
  }
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_TRUE(peer_->ok()) << "python3 http.server did not start";
  }
  static std::string url(const std::string& path) { return peer_->url(path); }

  static inline vektest::TempDir* dir_ = nullptr;
  static inline httptest::PythonPeer* peer_ = nullptr;
};

TEST_F(HttpPythonTest, RequestLineHeadersAndBodiesAsTheServerSawThem) {
  vektest::TempDir dir;
  const std::string host = "127.0.0.1:" + std::to_string(peer_->port());
  std::map<size_t, std::string> uploads;
  for (size_t size : {0, 8192, 20000}) {
    uploads[size] = dir.file(std::to_string(size));
    vektest::write_file(uploads[size], pattern(size));
  }
  const auto post = [&](size_t size) {
    return [&, size](HTTP_REQUEST* r) {
      r->method = HTTP_METHOD_POST;
      r->file = uploads[size].c_str();
    };
  };
  struct Case {
    const char* what;
    std::function<void(HTTP_REQUEST*)> setup;
    std::string url;
    std::vector<std::string> present, absent;
  };
  const Case cases[] = {
      {"HTTP/1.1 default", [](HTTP_REQUEST*) {}, url("/headers"),
       {"GET /headers HTTP/1.1\n", "Host: " + host + "\n", "Connection: close\n"}, {"Range", "Content-Length"}},
      {"HTTP/1.0 option", [](HTTP_REQUEST* r) { r->options = HTTP_REQUEST_HTTP10; }, url("/headers"),
       {"GET /headers HTTP/1.0\n"}, {"Host:", "Connection:"}},
      {"override_host puts the whole URL in the request line",
       [&](HTTP_REQUEST* r) { r->override_host = host.c_str(); }, "http://example.invalid/headers",
       {"GET http://example.invalid/headers HTTP/1.1\n", "Host: example.invalid:80\n"}, {}},
      {"properties in insertion order", [](HTTP_REQUEST* r) {
         ptree_insert(r->properties, "X-Second", "2");
         ptree_insert(r->properties, "X-First", "1");
         ptree_insert(r->properties, "x-second", "two");
       }, url("/headers"), {"X-Second: two\nX-First: 1\n"}, {}},
      {"basic authorisation", [](HTTP_REQUEST* r) { EXPECT_EQ(0, http_request_set_basic_auth(r, "user", "pa:ss")); },
       url("/headers"), {"Authorization: Basic dXNlcjpwYTpzcw==\n"}, {}},
      {"PUT with a file announces chunks and sends only the header", [](HTTP_REQUEST* r) {
         r->method = HTTP_METHOD_PUT;
         r->file = "/etc/hostname";
       }, url("/headers"), {"PUT /headers HTTP/1.1\n", "Transfer-Encoding: chunked\n"}, {"Content-Length"}},
      {"DELETE with data", [](HTTP_REQUEST* r) {
         r->method = HTTP_METHOD_DELETE;
         r->data = "hello";
         r->data_len = 5;
       }, url("/echo"), {"DELETE /echo HTTP/1.1\n", "Content-Length: 5\n",
        "body 5 2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824\n", "chunks -\n"}, {}},
      {"PUT data wins over a file", [](HTTP_REQUEST* r) {
         r->method = HTTP_METHOD_PUT;
         r->data = "hello";
         r->data_len = 5;
         r->file = "/etc/hostname";
       }, url("/echo"), {"Content-Length: 5\n", "body 5 "}, {"Transfer-Encoding"}},
      // Uploaded files go out as chunks of at most 8192 bytes.
      {"POST 20000 bytes", post(20000), url("/echo"),
       {"Transfer-Encoding: chunked\n", "body 20000 ", "chunks 8192,8192,3616,0\n"}, {}},
      {"POST 8192 bytes", post(8192), url("/echo"), {"body 8192 ", "chunks 8192,0\n"}, {}},
      {"POST an empty file", post(0), url("/echo"), {"body 0 ", "chunks 0\n"}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Exchange x;
    c.setup(x.req);
    ASSERT_EQ(0, x.call(c.url));
    EXPECT_EQ(200, x.resp->status);
    for (const std::string& s : c.present) EXPECT_TRUE(contains(x.body(), s)) << s << "\n" << x.body();
    for (const std::string& s : c.absent) EXPECT_FALSE(contains(x.body(), s)) << s;
  }
}

// Every framing of a body, into memory and into a file, whole and cut short.
TEST_F(HttpPythonTest, BodiesByLengthChunksAndCloseIntoMemoryAndFiles) {
  vektest::TempDir dir;
  enum Into { kMemory = 1, kFile = 2, kBoth = 3 };
  struct Case {
    const char* path;
    int into, timeout, rc, status, options;
    std::string body;  // what ends up in memory or in the file
  };
  const int chunked = HTTP_RESPONSE_HTTP11 | HTTP_RESPONSE_CHUNKED;
  const Case cases[] = {
      {"/chunked?n=30000", kBoth, 5000, 0, 200, chunked, pattern(30000)},
      {"/chunked?n=0", kMemory, 5000, 0, 200, chunked, ""},
      {"/close?n=70000", kBoth, 5000, 0, 200, HTTP_RESPONSE_HTTP10, pattern(70000)},
      {"/slow?n=4000", kFile, 2000, 0, 200, HTTP_RESPONSE_HTTP11, pattern(4000)},
      {"/slow-header", kMemory, 1000, 0, 200, HTTP_RESPONSE_HTTP11, "ok"},
      {"/lf-only", kMemory, 5000, 0, 200, HTTP_RESPONSE_HTTP11, "ok"},
      {"/missing", kFile, 5000, 0, 404, HTTP_RESPONSE_HTTP11, "no such thing"},
      {"/cut-length?n=1000", kBoth, 5000, ERR_SOCKET_CLOSED, 200, HTTP_RESPONSE_HTTP11, pattern(500)},
      {"/cut-chunked?n=1000", kFile, 5000, ERR_SOCKET_CLOSED, 200, chunked, pattern(500)},
      {"/claim-big?n=100", kMemory, 5000, ERR_SOCKET_CLOSED, 200, HTTP_RESPONSE_HTTP11, pattern(100)},
      {"/stall?n=1000", kFile, 500, ERR_SOCKET_TIMEOUT, 200, HTTP_RESPONSE_HTTP11, pattern(500)},
      {"/stall-header", kMemory, 500, ERR_SOCKET_TIMEOUT, 0, 0, ""},
      {"/not-http", kMemory, 5000, ERR_HTTP_BAD_RESPONSE, 0, 0, ""},
      {"/endless-header", kMemory, 5000, ERR_HTTP_BAD_RESPONSE, 0, 0, ""},
  };
  const std::string path = dir.file("body.bin");
  for (const Case& c : cases) {
    for (const Into into : {kMemory, kFile}) {
      if (!(c.into & into)) continue;
      SCOPED_TRACE(std::string(c.path) + (into == kFile ? " into a file" : " into memory"));
      std::remove(path.c_str());
      Exchange x;
      x.req->timeout = c.timeout;
      if (into == kFile) x.req->file = path.c_str();
      EXPECT_EQ(c.rc, x.call(url(c.path)));
      EXPECT_EQ(c.status, x.resp->status);
      EXPECT_EQ(c.options, x.resp->options);
      const bool file_body = into == kFile && c.status < 400;
      EXPECT_EQ(c.body, file_body ? vektest::read_file(path) : x.body());
      if (!file_body) {
        EXPECT_FALSE(std::filesystem::exists(path)) << "no file is made for a body kept in memory";
      } else {
        EXPECT_EQ(nullptr, x.resp->data);
      }
    }
  }
}

// One record through three replies: each leaves only its own headers and bits.
TEST_F(HttpPythonTest, OddHeadersAndA307RepeatedOnceIntoOneRecord) {
  Exchange x;
  ASSERT_EQ(0, x.call(url("/chunked?n=100")));
  ASSERT_EQ(0, x.call(url("/odd-headers")));
  EXPECT_EQ(HTTP_RESPONSE_HTTP11, x.resp->options) << "no chunked bit left from the first reply";
  EXPECT_EQ("<none>", x.header("Transfer-Encoding"));
  EXPECT_EQ("one, two", x.header("X-TWICE"));
  EXPECT_EQ("alue", x.header("NoSpace")) << "the value starts two characters after the colon";
  EXPECT_EQ("<none>", x.header("no colon here"));
  EXPECT_EQ("ok", x.body());

  ASSERT_EQ(0, x.call(url("/r307")));
  EXPECT_EQ(307, x.resp->status);
  EXPECT_EQ("moved", x.body());
  EXPECT_EQ("http://127.0.0.1:1/elsewhere", x.header("Location")) << "one set of headers: the last reply's";
  EXPECT_EQ("<none>", x.header("X-Twice"));
  Exchange hits;
  ASSERT_EQ(0, hits.call(url("/hits?p=/r307")));
  EXPECT_EQ("2", hits.body());
}

TEST_F(HttpPythonTest, RefusedRequests) {
  vektest::TempDir dir;
  const std::string missing_dir = dir.file("no/such/dir/file");
  const auto into_missing_dir = [&](HTTP_REQUEST* r) { r->file = missing_dir.c_str(); };
  const auto none = [](HTTP_REQUEST*) {};
  struct Case {
    const char* what;
    std::string url;
    std::function<void(HTTP_REQUEST*)> setup;
    std::vector<int> rcs;  // any of these
  };
  const Case cases[] = {
      {"ftp scheme", "ftp://127.0.0.1/x", none, {ERR_HTTP_BAD_URL}},
      {"no scheme", "127.0.0.1/x", none, {ERR_HTTP_BAD_URL}},
      {"blank in the URL", url("/a b"), none, {ERR_HTTP_BAD_URL}},
      {"line break in the URL", url("/a\r\nX-Injected: 1"), none, {ERR_HTTP_BAD_URL}},
      {"line break in override_host", url("/headers"), [](HTTP_REQUEST* r) { r->override_host = "a\r\nb:1"; },
       {ERR_HTTP_BAD_URL}},
      {"unknown method", url("/headers"), [](HTTP_REQUEST* r) { r->method = 4; }, {ERR_HTTP_BAD_METHOD}},
      {"line break in a property", url("/headers"),
       [](HTTP_REQUEST* r) { ptree_insert(r->properties, "X-A", "1\r\nX-Injected: 2"); }, {ERR_INVALID_PARAMETER}},
      {"nothing listening", "http://127.0.0.1:" + std::to_string(vektest::free_tcp_port()) + "/", none,
       {ERR_SOCKET_CONNECT, ERR_SOCKET_FAILED}},
      {"unresolvable host", "http://no-such-host.invalid/", none, {ERR_SOCKET_HOST_NOT_FOUND}},
      {"upload file missing", url("/echo"), [](HTTP_REQUEST* r) {
         r->method = HTTP_METHOD_POST;
         r->file = "/no/such/upload";
       }, {ERR_FILE_OPEN}},
      {"download into a missing directory", url("/close?n=10"), into_missing_dir, {ERR_FILE_OPEN}},
      {"chunked download into a missing directory", url("/chunked?n=10"), into_missing_dir, {ERR_HTTP_FILE_CREATE}},
  };
  for (const Case& c : cases) {
    Exchange x;
    x.req->timeout = 2000;
    c.setup(x.req);
    const int rc = x.call(c.url);
    EXPECT_NE(c.rcs.end(), std::find(c.rcs.begin(), c.rcs.end(), rc)) << c.what << ": " << rc;
  }
  Exchange x;
  EXPECT_EQ(ERR_INVALID_PARAMETER, http_client(nullptr, nullptr));
  EXPECT_EQ(ERR_HTTP_NULL_OBJECT, http_request_create(nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, http_request_set_basic_auth(x.req, nullptr, "b"));
  EXPECT_EQ(ERR_INVALID_PARAMETER, http_request_set_basic_auth(x.req, "a", nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, http_build_properties(x.resp, nullptr, 3));
  EXPECT_EQ(nullptr, http_encode_string(nullptr));
}

class HttpParseTest : public vektest::LeakCheckedTest {};

TEST_F(HttpParseTest, StatusLineAndHeaderLines) {
  struct Case {
    const char* header;
    int rc, status, options, data_len;
    std::vector<std::pair<const char*, const char*>> props;
  };
  const Case cases[] = {
      {"HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\n", 0, 200, HTTP_RESPONSE_HTTP11, 12, {{"content-length", "12"}}},
      {"HTTP/1.0 404 Not Found\r\n\r\n", 0, 404, HTTP_RESPONSE_HTTP10, 0, {}},
      {"HTTP/1.1 200 OK\r\ncontent-length: 12\r\n\r\n", 0, 200, HTTP_RESPONSE_HTTP11, 0, {{"Content-Length", "12"}}},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: CHUNKED\r\n\r\n", 0, 200,
       HTTP_RESPONSE_HTTP11 | HTTP_RESPONSE_CHUNKED, 0, {}},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n", 0, 200, HTTP_RESPONSE_HTTP11, 0, {}},
      {"HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n", 0, 200, HTTP_RESPONSE_HTTP11, 0, {}},
      {"HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n", 0, 200, HTTP_RESPONSE_HTTP11, INT_MAX, {}},
      {"HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n", 0, 200, HTTP_RESPONSE_HTTP11, 0, {{"Content-Length", "x"}}},
      {"HTTP/1.1 200 OK\r\nA: 1\r\na: 2\r\nA: 3\r\n\r\n", 0, 200, HTTP_RESPONSE_HTTP11, 0, {{"a", "1, 2, 3"}}},
      {"HTTP/1.1 200 OK\r\nShort:\r\nB: \r\n\r\nIgnored: yes\r\n", 0, 200, HTTP_RESPONSE_HTTP11, 0,
       {{"Short", ""}, {"B", ""}, {"Ignored", nullptr}}},
      {"HTTP/1.1 2", 0, 2, HTTP_RESPONSE_HTTP11, 0, {}},
      {"HTTP/1.1", 0, 0, HTTP_RESPONSE_HTTP11, 0, {}},
      {"HTTP/1.", ERR_HTTP_BAD_RESPONSE, 0, 0, 0, {}},
      {"HTTP/2 200\r\n\r\n", ERR_HTTP_BAD_RESPONSE, 0, 0, 0, {}},
      {"http/1.1 200 OK\r\n\r\n", ERR_HTTP_BAD_RESPONSE, 0, 0, 0, {}},
      {"", ERR_HTTP_BAD_RESPONSE, 0, 0, 0, {}},
  };
  for (const Case& c : cases) {
    HTTP_RESPONSE* r = nullptr;
    ASSERT_EQ(0, http_response_create(&r));
    EXPECT_EQ(c.rc, http_build_properties(r, c.header, static_cast<int>(strlen(c.header)))) << c.header;
    EXPECT_EQ(c.status, r->status) << c.header;
    EXPECT_EQ(c.options, r->options) << c.header;
    EXPECT_EQ(c.data_len, r->data_len) << c.header;
    for (const auto& [name, value] : c.props) {
      EXPECT_STREQ(value, ptree_find_by_key(r->properties, name)) << c.header << name;  // null: absent
    }
    http_response_delete(r);
  }
}

TEST_F(HttpParseTest, UrlEncodersKeepUnreservedBytesAndEscapeTheRest) {
  struct Case {
    const char* in;
    const char* lower;  // http_encode_string
    const char* upper;  // _http_encode_url
  };
  const Case cases[] = {
      {"AZaz09-_.~", "AZaz09-_.~", "AZaz09-_.~"},
      {"a b", "a+b", "a+b"},
      {"a/b?c=d&e", "a%2fb%3fc%3dd%26e", "a%2Fb%3Fc%3Dd%26e"},
      {"\n\x01\x7f", "%0a%01%7f", "%A%1%7F"},
      {"\xc3\xa9", "%c3%a9", "%C3%A9"},
      {"", "", ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.lower, vektest::take_text(http_encode_string(c.in))) << c.in;
    EXPECT_EQ(c.upper, vektest::take_text(_http_encode_url(c.in))) << c.in;
  }
}

}  // namespace
