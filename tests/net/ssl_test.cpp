// TLS contexts and morphed sockets, against openssl s_server and s_client on
// loopback and with the library on both ends. Keys, certificates and a small
// CA are made once per run with the openssl command.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/crc32.h>
#include <vekutil/errors.h>
#include <vekutil/socket.h>
#include <vekutil/ssl.h>

#include "peer.hpp"
#include "vek_test.hpp"

namespace {

using vektest::PeerProcess;

// 64 characters: the longest pass phrase a context keeps.
const std::string kPhrase = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-+";

// ---- keys and certificates ----------------------------------------------------

// A CA, a server and a client certificate it signed, a self-signed "rogue"
// server certificate, the server key encrypted with kPhrase, and one packed
// file with the server's certificate, the CA and the server's key.
struct Pki {
  vektest::TempDir dir;
  bool made = false;
  std::string file(const char* name) const { return dir.file(name); }

  Pki() {
    const std::string script =
        "set -e; cd '" + dir.path() + "'; exec 2>pki.log\n"
        "key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out \"$1\"; }\n"
        "sign() { openssl req -new -key \"$1\" -subj \"$2\" | "
        "  openssl x509 -req -CA ca.pem -CAkey ca.key -set_serial \"$3\" -days 2 -out \"$4\"; }\n"
        "key ca.key; openssl req -x509 -new -key ca.key -subj '/CN=vektest CA' -days 2 -out ca.pem\n"
        "key server.key; sign server.key /CN=127.0.0.1 2 server.pem\n"
        "key client.key; sign client.key '/CN=vektest client' 3 client.pem\n"
        "key rogue.key; openssl req -x509 -new -key rogue.key -subj /CN=127.0.0.1 -days 2 -out rogue.pem\n"
        "openssl pkey -in server.key -aes256 -passout 'pass:" + kPhrase + "' -out server.enc.key\n"
        "cat server.pem ca.pem server.key > packed.pem\n";
    made = vektest::run_program({"sh", "-c", script}) == 0;
  }
};

const Pki& pki() {
  static Pki p;
  return p;
}

// ---- fixtures -----------------------------------------------------------------

// A context handle released at scope end.
struct Ctx {
  void* h = nullptr;
  Ctx() { EXPECT_EQ(0, ssl_ctx_create(&h)); }
  ~Ctx() { ssl_ctx_delete(h); }
  operator void*() const { return h; }
};

// A socket handle deleted (and so closed) at scope end.
struct Sock {
  void* h = nullptr;
  Sock() = default;
  explicit Sock(void* handle) : h(handle) {}
  Sock(Sock&& o) noexcept : h(o.h) { o.h = nullptr; }
  Sock& operator=(Sock&& o) noexcept {
    if (this != &o) {
      reset();
      std::swap(h, o.h);
    }
    return *this;
  }
  ~Sock() { reset(); }
  void reset() {
    if (h) socket_delete(h);
    h = nullptr;
  }
  operator void*() const { return h; }
  ABSTRACT_SOCKET* rec() const { return static_cast<ABSTRACT_SOCKET*>(h); }
};

// A library socket connected to a loopback port.
Sock connect_to(int port) {
  Sock s;
  EXPECT_EQ(0, socket_create(&s.h));
  EXPECT_EQ(0, socket_connect(s, ("127.0.0.1:" + std::to_string(port)).c_str()));
  return s;
}

// Everything the leak check must not count is made before it starts: the
// socket registry and its instrumentation group, the TLS set-up, the PKI.
class TlsTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    static const bool warmed = [] {
      ssl_init();
      void* s = nullptr;
      socket_create(&s);
      socket_delete(s);
      socket_instrument_handle();
      return pki().made;
    }();
    ASSERT_TRUE(warmed) << "the openssl command could not make the test certificates";
    LeakCheckedTest::SetUp();
  }

  static std::string pem(const char* name) { return pki().file(name); }

  // A client context; verify with the CA list when ca is set, optional
  // client certificate.
  static void client_ctx(void* ctx, bool verify, const char* ca = nullptr, bool with_cert = false) {
    if (ca) {
      ASSERT_EQ(0, ssl_ctx_set_calist_file(ctx, pem(ca).c_str()));
    }
    if (with_cert) {
      ASSERT_EQ(0, ssl_ctx_set_chain_file(ctx, pem("client.pem").c_str()));
      ASSERT_EQ(0, ssl_ctx_set_key_file(ctx, pem("client.key").c_str()));
    }
    ASSERT_EQ(0, ssl_ctx_set_verify(ctx, 0, verify ? 1 : 0));
  }
  static void server_ctx(void* ctx, bool require_client_cert = false) {
    ASSERT_EQ(0, ssl_ctx_set_chain_file(ctx, pem("server.pem").c_str()));
    ASSERT_EQ(0, ssl_ctx_set_key_file(ctx, pem("server.key").c_str()));
    if (require_client_cert) {
      ASSERT_EQ(0, ssl_ctx_set_calist_file(ctx, pem("ca.pem").c_str()));
      ASSERT_EQ(0, ssl_ctx_set_verify(ctx, 1, 1));
    }
  }

  // Reads one line (up to and with '\n') through the socket's operations.
  static std::string read_line(void* sock, int* result) {
    std::string line;
    char c = 0;
    while ((*result = socket_recv(sock, &c, 1, 5000)) == 0) {
      line += c;
      if (c == '\n') break;
    }
    return line;
  }
};

std::string subject_of(X509* cert) {
  if (!cert) return "<none>";
  char buf[256];
  X509_NAME_oneline(X509_get_subject_name(cert), buf, sizeof buf);
  X509_free(cert);
  return buf;
}

// A loopback listener of the library on a port the system picked.
struct Listener {
  void* h = nullptr;
  int port = 0;
  Listener() {
    EXPECT_EQ(0, socket_listen(&h, "127.0.0.1:0"));
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(static_cast<SERVER_SOCKET*>(h)->s, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
  }
  ~Listener() { socket_unlisten(h); }
};

// The library on both ends: one loopback connection, both handshakes run
// at once (the server's on its own thread).
struct Pair {
  Listener listener;
  Sock client, server;
  int connected = 1, accepted = 1;

  Pair(void* client_ctx, void* server_ctx) {
    std::thread acceptor([&] {
      server.h = socket_accept(listener.h, 5000);
      if (server.h) accepted = ssl_accept(server, server_ctx);
    });
    client = connect_to(listener.port);
    connected = ssl_connect(client, client_ctx);
    acceptor.join();
  }
};

// openssl s_server on a free loopback port; -rev sends every line back
// reversed and closes the connection (with a close-notify) on "CLOSE".
struct ServerPeer {
  PeerProcess process;
  int port = vektest::free_tcp_port();
  vektest::TempDir logdir;

  bool start(const std::string& cert, const std::string& key, std::vector<std::string> extra = {}) {
    std::vector<std::string> argv = {"openssl", "s_server", "-accept", "127.0.0.1:" + std::to_string(port),
                                     "-cert", cert, "-key", key, "-rev"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return process.start(argv, logdir.file("s_server.log")) && process.wait_tcp_port(port);
  }
  std::string log() const { return vektest::read_file(logdir.file("s_server.log")); }
};

// openssl s_client connecting to the library: standard input and output go
// to files, its diagnostics to a log.
struct ClientPeer {
  PeerProcess process;
  vektest::TempDir dir;

  bool start(int port, const std::string& args, const std::string& input = "/dev/null") {
    const std::string cmd = "exec openssl s_client -connect 127.0.0.1:" + std::to_string(port) + " " + args +
                            " <'" + input + "' >'" + dir.file("out") + "'";
    return process.start({"sh", "-c", cmd}, dir.file("s_client.log"));
  }
  std::string out() const { return vektest::read_file(dir.file("out")); }
};

// ---- library set-up and contexts ------------------------------------------------

using TlsContextTest = TlsTest;

TEST_F(TlsContextTest, InitIsIdempotentAndNamesTheVersion) {
  const std::string first = ssl_get_version();
  ssl_init();
  EXPECT_EQ(first, ssl_get_version());
  EXPECT_EQ(0u, first.rfind("OpenSSL 3", 0)) << first;
  EXPECT_EQ(1, ssl_is_available());
}

TEST_F(TlsContextTest, NullHandlesAndArgumentsAreRefused) {
  EXPECT_EQ(ERR_INVALID_PARAMETER, ssl_ctx_create(nullptr));
  const struct {
    const char* call;
    int result;
    int expected;
  } rows[] = {
      {"ssl_ctx_delete", ssl_ctx_delete(nullptr), ERR_INVALID_HANDLE},
      {"ssl_ctx_set_key_file", ssl_ctx_set_key_file(nullptr, "k"), ERR_INVALID_HANDLE},
      {"ssl_ctx_set_chain_file", ssl_ctx_set_chain_file(nullptr, "c"), ERR_INVALID_HANDLE},
      {"ssl_ctx_set_calist_file", ssl_ctx_set_calist_file(nullptr, "c"), ERR_INVALID_HANDLE},
      {"ssl_ctx_set_calist_load_system", ssl_ctx_set_calist_load_system(nullptr), ERR_INVALID_HANDLE},
      {"ssl_ctx_set_packed_file", ssl_ctx_set_packed_file(nullptr, "p"), ERR_INVALID_HANDLE},
      {"ssl_ctx_set_passwd", ssl_ctx_set_passwd(nullptr, "x"), ERR_INVALID_HANDLE},
      {"ssl_ctx_set_verify", ssl_ctx_set_verify(nullptr, 1, 1), ERR_INVALID_HANDLE},
      {"ssl_ctx_check", ssl_ctx_check(nullptr), 0},
      {"ssl_connect", ssl_connect(nullptr, nullptr), ERR_INVALID_HANDLE},
      {"ssl_accept", ssl_accept(nullptr, nullptr), ERR_INVALID_HANDLE},
      {"ssl_verify_peer", ssl_verify_peer(nullptr), 0},
      {"_ssl_morph", _ssl_morph(nullptr), ERR_INVALID_HANDLE},
      {"_ssl_close", _ssl_close(nullptr), ERR_INVALID_HANDLE},
      {"_ssl_send", _ssl_send(nullptr, "x", 1), ERR_INVALID_HANDLE},
      {"_ssl_send2", _ssl_send2(nullptr, "x", 1, 100), ERR_INVALID_HANDLE},
      {"_ssl_recv", _ssl_recv(nullptr, nullptr, 1, 100), ERR_INVALID_HANDLE},
      {"_ssl_recv2", _ssl_recv2(nullptr, nullptr, nullptr, 100), ERR_INVALID_HANDLE},
  };
  for (const auto& row : rows) EXPECT_EQ(row.expected, row.result) << row.call;
  EXPECT_EQ(nullptr, ssl_ctx_error(nullptr));
  EXPECT_EQ(nullptr, ssl_ctx_get_raw_object(nullptr));
  EXPECT_EQ(nullptr, ssl_get_peer_certificate(nullptr));
  EXPECT_EQ(nullptr, ssl_get_cipher(nullptr));
  EXPECT_EQ(nullptr, ssl_error(nullptr));
  EXPECT_EQ(nullptr, ssl_get_raw_object(nullptr));

  Ctx ctx;
  EXPECT_STREQ("", ssl_ctx_error(ctx));
  EXPECT_EQ(ERR_INVALID_PARAMETER, ssl_ctx_set_key_file(ctx, nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, ssl_ctx_set_packed_file(ctx, nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, ssl_ctx_set_passwd(ctx, nullptr));

  // A plain socket has no TLS state: the getters give nothing and the TLS
  // operations refuse it instead of reading its state as theirs.
  Sock plain;
  ASSERT_EQ(0, socket_create(&plain.h));
  EXPECT_EQ(nullptr, ssl_get_cipher(plain));
  EXPECT_EQ(nullptr, ssl_error(plain));
  EXPECT_EQ(nullptr, ssl_get_raw_object(plain));
  EXPECT_EQ(nullptr, ssl_get_peer_certificate(plain));
  EXPECT_EQ(0, ssl_verify_peer(plain));
  EXPECT_EQ(ERR_INVALID_HANDLE, _ssl_close(plain));
  EXPECT_EQ(ERR_INVALID_HANDLE, _ssl_send(plain, "x", 1));
  // Never connected: nothing to shake hands over, and nothing is morphed.
  EXPECT_EQ(ERR_SOCKET_NOT_OPEN, ssl_connect(plain, ctx));
  EXPECT_EQ(nullptr, plain.rec()->handle);
}

TEST_F(TlsContextTest, LoadsKeysCertificatesAndCaLists) {
  enum Loader { kKey, kChain, kCalist, kPacked };
  const std::string too_long = kPhrase + "tooMany";
  const struct {
    const char* what;
    Loader loader;
    const char* file;
    const char* passwd;  // set first unless NULL
    int expected;
  } rows[] = {
      {"key", kKey, "server.key", nullptr, 0},
      {"chain", kChain, "server.pem", nullptr, 0},
      {"CA list", kCalist, "ca.pem", nullptr, 0},
      {"packed", kPacked, "packed.pem", nullptr, 0},
      {"missing key", kKey, "nothing.key", nullptr, ERR_SSL_CTX_FILE},
      {"certificate as key", kKey, "server.pem", nullptr, ERR_SSL_CTX_FILE},
      {"key as chain", kChain, "server.key", nullptr, ERR_SSL_CTX_FILE},
      {"key as CA list", kCalist, "server.key", nullptr, ERR_SSL_CTX_FILE},
      {"packed without key", kPacked, "ca.pem", nullptr, ERR_SSL_CTX_FILE},
      {"encrypted key, right phrase", kKey, "server.enc.key", kPhrase.c_str(), 0},
      {"encrypted key, phrase cut to 64", kKey, "server.enc.key", too_long.c_str(), 0},
      {"encrypted key, wrong phrase", kKey, "server.enc.key", "wrong", ERR_SSL_CTX_FILE},
      {"encrypted key, no phrase", kKey, "server.enc.key", nullptr, ERR_SSL_CTX_FILE},
  };
  for (const auto& row : rows) {
    Ctx ctx;
    if (row.passwd) {
      ASSERT_EQ(0, ssl_ctx_set_passwd(ctx, row.passwd));
    }
    const std::string path = pem(row.file);
    int r = 0;
    switch (row.loader) {
      case kKey: r = ssl_ctx_set_key_file(ctx, path.c_str()); break;
      case kChain: r = ssl_ctx_set_chain_file(ctx, path.c_str()); break;
      case kCalist: r = ssl_ctx_set_calist_file(ctx, path.c_str()); break;
      case kPacked: r = ssl_ctx_set_packed_file(ctx, path.c_str()); break;
    }
    EXPECT_EQ(row.expected, r) << row.what;
    // A failure leaves OpenSSL's reason in the context, and nothing behind
    // on the thread's error queue.
    EXPECT_EQ(r != 0, std::strlen(ssl_ctx_error(ctx)) > 0) << row.what << ": " << ssl_ctx_error(ctx);
    EXPECT_EQ(0u, ERR_peek_error()) << row.what;
  }
  Ctx system;
  EXPECT_EQ(0, ssl_ctx_set_calist_load_system(system));
}

TEST_F(TlsContextTest, KeyCheckMatchesKeyAgainstCertificate) {
  const struct {
    const char* cert;
    const char* key;
    int expected;
  } rows[] = {{"server.pem", "server.key", 1}, {"client.pem", "client.key", 1}, {"server.pem", "client.key", 0}};
  for (const auto& row : rows) {
    Ctx ctx;
    ASSERT_EQ(0, ssl_ctx_set_chain_file(ctx, pem(row.cert).c_str()));
    // OpenSSL itself refuses to load a key that does not match.
    ssl_ctx_set_key_file(ctx, pem(row.key).c_str());
    EXPECT_EQ(row.expected, ssl_ctx_check(ctx)) << row.cert << " " << row.key;
  }
  Ctx packed;
  ASSERT_EQ(0, ssl_ctx_set_packed_file(packed, pem("packed.pem").c_str()));
  EXPECT_EQ(1, ssl_ctx_check(packed));
  Ctx empty;
  EXPECT_EQ(0, ssl_ctx_check(empty));
}

TEST_F(TlsContextTest, VerifyModeTableAndPassPhraseCallback) {
  const struct {
    int require_peer_certificate, verify_peer, mode;
  } modes[] = {{0, 0, 0}, {0, 7, 1}, {1, 0, 2}, {5, 1, 3}};
  Ctx ctx;
  for (const auto& m : modes) {
    ASSERT_EQ(0, ssl_ctx_set_verify(ctx, m.require_peer_certificate, m.verify_peer));
    EXPECT_EQ(m.mode, SSL_CTX_get_verify_mode(ssl_ctx_get_raw_object(ctx)));
  }

  // The key loader hands the callback the context's phrase: at most 64
  // characters, and a shorter phrase replaces a longer one entirely.
  ASSERT_EQ(0, ssl_ctx_set_key_file(ctx, pem("server.key").c_str()));
  auto* stored = static_cast<char*>(SSL_CTX_get_default_passwd_cb_userdata(ssl_ctx_get_raw_object(ctx)));
  ASSERT_NE(nullptr, stored);
  ASSERT_EQ(0, ssl_ctx_set_passwd(ctx, (kPhrase + "123456").c_str()));
  EXPECT_EQ(kPhrase, stored);
  ASSERT_EQ(0, ssl_ctx_set_passwd(ctx, "short"));
  EXPECT_STREQ("short", stored);

  const struct {
    int size;
    const char* phrase;
    const char* expected;
  } calls[] = {{64, "secret", "secret"}, {4, "secret", "sec"}, {1, "secret", ""}, {0, "secret", nullptr},
               {16, nullptr, ""}};
  for (const auto& c : calls) {
    char buf[80];
    std::memset(buf, 'x', sizeof buf);
    const int n = _ssl_ctx_passwd_cb(buf, c.size, 0, const_cast<char*>(c.phrase));
    if (!c.expected) {
      EXPECT_EQ(0, n);
      continue;
    }
    EXPECT_STREQ(c.expected, buf) << c.size;
    EXPECT_EQ(static_cast<int>(std::strlen(c.expected)), n);
  }
}

// ---- the library on both ends ---------------------------------------------------

using TlsPairTest = TlsTest;

TEST_F(TlsPairTest, HandshakeExchangeStatisticsAndCloseNotify) {
  Ctx cctx, sctx;
  client_ctx(cctx, true, "ca.pem", true);
  server_ctx(sctx, true);
  Pair p(cctx, sctx);
  ASSERT_EQ(0, p.connected) << ssl_error(p.client);
  ASSERT_EQ(0, p.accepted) << ssl_error(p.server);
  EXPECT_NE(nullptr, ssl_get_cipher(p.client));
  EXPECT_STREQ(ssl_get_cipher(p.client), ssl_get_cipher(p.server));
  EXPECT_EQ(1, ssl_verify_peer(p.client));
  EXPECT_EQ(1, ssl_verify_peer(p.server));
  EXPECT_EQ("/CN=127.0.0.1", subject_of(ssl_get_peer_certificate(p.client)));
  EXPECT_EQ("/CN=vektest client", subject_of(ssl_get_peer_certificate(p.server)));
  EXPECT_EQ(SSL_get_fd(ssl_get_raw_object(p.client)), socket_descriptor(p.client));

  ASSERT_EQ(0, socket_send(p.client, "ping", 4));
  char buf[16] = {};
  ASSERT_EQ(0, socket_recv(p.server, buf, 4, 5000));
  EXPECT_STREQ("ping", buf);
  ASSERT_EQ(0, socket_send2(p.server, "pong!", 5, 1000));
  int len = sizeof buf;
  ASSERT_EQ(0, socket_recv2(p.client, buf, &len, 5000));
  EXPECT_EQ("pong!", std::string(buf, len));
  unsigned int in = 0, out = 0;
  socket_get_statistics(p.client, nullptr, &in, &out);
  EXPECT_EQ(4u, out);
  EXPECT_EQ(5u, in);

  // Closing one end sends its close-notify: the other end's reads end with
  // ERR_SOCKET_CLOSED, not a TLS failure, and its record notes it.
  EXPECT_EQ(0, socket_close(p.server));
  EXPECT_EQ(nullptr, p.server.rec()->handle);
  len = sizeof buf;
  EXPECT_EQ(ERR_SOCKET_CLOSED, socket_recv2(p.client, buf, &len, 5000));
  EXPECT_EQ(0, len);
  EXPECT_EQ(ERR_SOCKET_CLOSED, socket_error(p.client));
  EXPECT_EQ(ERR_SOCKET_CLOSED, socket_recv(p.client, buf, 1, 5000));
}

// Captures the length of every record a connection writes.
void note_record(int write_p, int, int content_type, const void* buf, size_t len, SSL*, void* arg) {
  if (!write_p || content_type != SSL3_RT_HEADER || len != SSL3_RT_HEADER_LENGTH) return;
  const auto* h = static_cast<const unsigned char*>(buf);
  static_cast<std::vector<int>*>(arg)->push_back(h[3] << 8 | h[4]);
}

TEST_F(TlsPairTest, WritesAreCutInto64512BytePieces) {
  Ctx cctx, sctx;
  server_ctx(sctx);
  Pair p(cctx, sctx);
  ASSERT_EQ(0, p.connected);
  ASSERT_EQ(0, p.accepted);
  std::vector<int> records;
  SSL_set_msg_callback(ssl_get_raw_object(p.client), note_record);
  SSL_set_msg_callback_arg(ssl_get_raw_object(p.client), &records);

  std::string data(200000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 251);
  std::string got(data.size(), '\0');
  std::thread reader([&] { EXPECT_EQ(0, socket_recv(p.server, got.data(), static_cast<int>(got.size()), 5000)); });
  EXPECT_EQ(0, socket_send(p.client, data.data(), static_cast<int>(data.size())));
  reader.join();
  SSL_set_msg_callback(ssl_get_raw_object(p.client), nullptr);
  EXPECT_TRUE(got == data);

  // Each SSL_write fills records of 16384 bytes and ends with what is left
  // of its piece, so the short records show where the pieces were cut:
  // 64512, 64512, 64512 and 6464 bytes.
  ASSERT_FALSE(records.empty());
  const int overhead = records[0] - 16384;
  std::vector<int> plain;
  for (int r : records) plain.push_back(r - overhead);
  std::vector<int> expected;
  for (int piece = 0; piece < 3; ++piece) expected.insert(expected.end(), {16384, 16384, 16384, 15360});
  expected.push_back(6464);
  EXPECT_EQ(expected, plain);
}

TEST_F(TlsPairTest, TimeOutsAndDataPendingInsideTls) {
  Ctx cctx, sctx;
  server_ctx(sctx);
  Pair p(cctx, sctx);
  ASSERT_EQ(0, p.connected);
  ASSERT_EQ(0, p.accepted);
  char buf[2000];

  int len = sizeof buf;
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_recv2(p.server, buf, &len, 50));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_error(p.server));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_recv(p.server, buf, 1, 50));

  // Below -1 is refused at once, leaving errno (whatever it was) in err.
  const struct {
    const char* op;
    int (*call)(void* sock, char* buf);
  } refused[] = {
      {"recv", [](void* s, char* b) { return socket_recv(s, b, 1, -2); }},
      {"recv2", [](void* s, char* b) { int n = 1; return socket_recv2(s, b, &n, -2); }},
      {"send2", [](void* s, char* b) { return socket_send2(s, b, 1, -7); }},
  };
  for (const auto& row : refused) {
    errno = EDOM;
    EXPECT_EQ(ERR_SOCKET_FAILED, row.call(p.server, buf)) << row.op;
    EXPECT_EQ(EDOM, socket_error(p.server)) << row.op;
  }

  // One record of 1000 bytes: after the first 10 are read, the other 990
  // wait decrypted inside TLS with nothing left on the descriptor. A read
  // that waited for the descriptor first would time out.
  std::memset(buf, 'p', 1000);
  ASSERT_EQ(0, socket_send(p.client, buf, 1000));
  len = 10;
  ASSERT_EQ(0, socket_recv2(p.server, buf, &len, 1000));
  EXPECT_EQ(10, len);
  ASSERT_EQ(990, SSL_pending(ssl_get_raw_object(p.server)));
  len = sizeof buf;
  EXPECT_EQ(0, socket_recv2(p.server, buf, &len, 1));
  EXPECT_EQ(990, len);
  len = 0;
  EXPECT_EQ(0, socket_recv2(p.server, buf, &len, 1));  // nothing asked, nothing waited for
}

TEST_F(TlsPairTest, FailedHandshakesLeaveTheSocketMorphed) {
  Ctx sctx;
  server_ctx(sctx);
  {
    // No context: morphed all the same, with a state that holds no
    // connection; the TLS operations refuse it and closing releases it.
    Listener l;
    Sock c = connect_to(l.port);
    Sock s(socket_accept(l.h, 5000));
    EXPECT_EQ(ERR_SSL_NO_CONTEXT, ssl_connect(c, nullptr));
    EXPECT_EQ(ERR_SSL_NO_CONTEXT, ssl_accept(s, nullptr));
    EXPECT_EQ(_ssl_close, c.rec()->a_close);
    EXPECT_NE(nullptr, c.rec()->handle);
    EXPECT_EQ(nullptr, ssl_get_raw_object(c));
    EXPECT_EQ(nullptr, ssl_get_cipher(c));
    EXPECT_EQ(ERR_INVALID_HANDLE, socket_send(c, "x", 1));
    EXPECT_EQ(0, socket_close(c));
    EXPECT_EQ(nullptr, c.rec()->handle);
  }
  {
    // Morphing twice releases the first state.
    Listener l;
    Sock c = connect_to(l.port);
    ASSERT_EQ(0, _ssl_morph(c));
    ASSERT_EQ(0, _ssl_morph(c));
  }
  {
    // The client distrusts the server (no CA list): both handshakes fail,
    // each with its own code, and the client says why.
    Ctx cctx;
    client_ctx(cctx, true);
    Pair p(cctx, sctx);
    EXPECT_EQ(ERR_SSL_CONNECT, p.connected);
    EXPECT_EQ(ERR_SSL_ACCEPT, p.accepted);
    EXPECT_NE(nullptr, std::strstr(ssl_error(p.client), "certificate verify failed")) << ssl_error(p.client);
    EXPECT_NE(nullptr, ssl_get_raw_object(p.client));
    EXPECT_EQ(ERR_SSL_IO, socket_send(p.client, "x", 1));
  }
}

// ---- openssl s_server as the server ---------------------------------------------

using TlsServerPeerTest = TlsTest;

TEST_F(TlsServerPeerTest, ClientVerifiesTheServerAgainstItsCaList) {
  if (!vektest::have_program("openssl")) GTEST_SKIP() << "openssl not installed";
  ServerPeer signed_by_ca, rogue;
  ASSERT_TRUE(signed_by_ca.start(pem("server.pem"), pem("server.key")));
  ASSERT_TRUE(rogue.start(pem("rogue.pem"), pem("rogue.key")));
  const struct {
    const char* what;
    ServerPeer* server;
    bool verify;
    const char* ca;
    int connected;
    int verified;
  } rows[] = {
      {"verify, no CA list", &signed_by_ca, true, nullptr, ERR_SSL_CONNECT, 0},
      {"verify, CA list", &signed_by_ca, true, "ca.pem", 0, 1},
      {"verify, CA list, rogue server", &rogue, true, "ca.pem", ERR_SSL_CONNECT, 0},
      {"no verification, rogue server", &rogue, false, "ca.pem", 0, 0},
      {"no verification, no CA list", &signed_by_ca, false, nullptr, 0, 0},
  };
  for (const auto& row : rows) {
    Ctx ctx;
    client_ctx(ctx, row.verify, row.ca);
    Sock s = connect_to(row.server->port);
    EXPECT_EQ(row.connected, ssl_connect(s, ctx)) << row.what << ": " << ssl_error(s);
    EXPECT_EQ(row.verified, ssl_verify_peer(s)) << row.what;
    if (row.connected != 0) {
      EXPECT_NE(nullptr, std::strstr(ssl_error(s), "certificate verify failed")) << row.what;
      continue;
    }
    EXPECT_EQ("/CN=127.0.0.1", subject_of(ssl_get_peer_certificate(s))) << row.what;
    ASSERT_EQ(0, socket_send(s, "hello\n", 6));
    int r = 0;
    EXPECT_EQ("olleh\n", read_line(s, &r)) << row.what;
  }
}

TEST_F(TlsServerPeerTest, CloseNotifyAndVanishingServerBothReadAsClosed) {
  if (!vektest::have_program("openssl")) GTEST_SKIP() << "openssl not installed";
  ServerPeer server;
  ASSERT_TRUE(server.start(pem("server.pem"), pem("server.key")));
  Ctx ctx;
  client_ctx(ctx, true, "ca.pem");
  {
    Sock s = connect_to(server.port);
    ASSERT_EQ(0, ssl_connect(s, ctx)) << ssl_error(s);
    ASSERT_EQ(0, socket_send(s, "CLOSE\n", 6));
    char buf[64];
    int len = sizeof buf;
    EXPECT_EQ(ERR_SOCKET_CLOSED, socket_recv2(s, buf, &len, 5000)) << ssl_error(s);
  }
  {
    // The server process ends without a close-notify.
    Sock s = connect_to(server.port);
    ASSERT_EQ(0, ssl_connect(s, ctx)) << ssl_error(s);
    ASSERT_EQ(0, socket_send(s, "abc\n", 4));
    int r = 0;
    EXPECT_EQ("cba\n", read_line(s, &r));
    server.process.stop();
    char buf[64];
    EXPECT_EQ(ERR_SOCKET_CLOSED, socket_recv(s, buf, 1, 5000)) << ssl_error(s);
  }
}

TEST_F(TlsServerPeerTest, ServerThatRequiresAClientCertificate) {
  if (!vektest::have_program("openssl")) GTEST_SKIP() << "openssl not installed";
  ServerPeer server;
  ASSERT_TRUE(server.start(pem("server.pem"), pem("server.key"), {"-Verify", "1", "-CAfile", pem("ca.pem")}));
  for (const bool with_cert : {true, false}) {
    Ctx ctx;
    client_ctx(ctx, true, "ca.pem", with_cert);
    Sock s = connect_to(server.port);
    // With TLS 1.3 the client finishes before the server has judged its
    // certificate: the refusal is an alert that ends the first read, with
    // the reason kept.
    const int hs = ssl_connect(s, ctx);
    int r = hs;
    std::string line;
    if (hs == 0 && socket_send(s, "xyz\n", 4) == 0) line = read_line(s, &r);
    if (with_cert) {
      EXPECT_EQ(0, r) << ssl_error(s);
      EXPECT_EQ("zyx\n", line);
    } else {
      EXPECT_EQ(ERR_SOCKET_CLOSED, r);
      EXPECT_NE(nullptr, std::strstr(ssl_error(s), "certificate required")) << r << " " << ssl_error(s);
    }
  }
}

// ---- openssl s_client as the client ---------------------------------------------

using TlsClientPeerTest = TlsTest;

TEST_F(TlsClientPeerTest, ServerRefusesAClientWithoutCertificate) {
  if (!vektest::have_program("openssl")) GTEST_SKIP() << "openssl not installed";
  Ctx sctx;
  server_ctx(sctx, true);
  Listener l;
  const struct {
    const char* what;
    std::string args;
    int accepted;
  } rows[] = {
      {"without certificate", "-quiet", ERR_SSL_ACCEPT},
      {"with certificate", "-quiet -cert " + pem("client.pem") + " -key " + pem("client.key"), 0},
  };
  for (const auto& row : rows) {
    ClientPeer client;
    ASSERT_TRUE(client.start(l.port, row.args));
    Sock s(socket_accept(l.h, 10000));
    ASSERT_NE(nullptr, s.h) << row.what;
    EXPECT_EQ(row.accepted, ssl_accept(s, sctx)) << row.what << ": " << ssl_error(s);
    if (row.accepted == 0) {
      EXPECT_EQ(1, ssl_verify_peer(s));
      EXPECT_EQ("/CN=vektest client", subject_of(ssl_get_peer_certificate(s)));
      EXPECT_EQ(0, socket_send(s, "bye\n", 4));
    } else {
      EXPECT_NE(nullptr, std::strstr(ssl_error(s), "peer did not return a certificate")) << ssl_error(s);
    }
    s.reset();
    EXPECT_TRUE(client.process.wait_exit(10000)) << row.what;
    if (row.accepted == 0) {
      EXPECT_EQ("bye\n", client.out());
    }
  }
}

// Deterministic bytes for one direction of the bulk test.
void fill_pattern(std::string& data, unsigned seed) {
  unsigned long long x = 0x9E3779B97F4A7C15ull * (seed + 1);
  for (size_t i = 0; i < data.size(); i += 8) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    std::memcpy(&data[i], &x, std::min<size_t>(8, data.size() - i));
  }
}

unsigned crc_of(const char* data, size_t size) {
  unsigned crc = 0;
  hash_crc32_init(&crc);
  hash_crc32_calc(&crc, data, static_cast<unsigned>(size));
  hash_crc32_end(&crc);
  return crc;
}

TEST_F(TlsClientPeerTest, SixtyFourMebibytesEachWayAtOnce) {
  if (!vektest::have_program("openssl")) GTEST_SKIP() << "openssl not installed";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  const size_t size = 8u << 20;
#else
  const size_t size = 64u << 20;
#endif
  std::string to_peer(size, '\0'), from_peer(size, '\0');
  fill_pattern(to_peer, 1);
  fill_pattern(from_peer, 2);
  ClientPeer client;
  vektest::write_file(client.dir.file("in"), from_peer);

  Ctx sctx;
  server_ctx(sctx);
  Listener l;
  // -quiet: only the data on standard output, and the end of its input does
  // not end the connection.
  ASSERT_TRUE(client.start(l.port, "-quiet", client.dir.file("in")));
  Sock s(socket_accept(l.h, 10000));
  ASSERT_NE(nullptr, s.h);
  ASSERT_EQ(0, ssl_accept(s, sctx)) << ssl_error(s);

  // One thread moves both directions, as one TLS state demands: small
  // writes only when the descriptor has room, reads whenever TLS or the
  // descriptor has data. A stuck transfer is ended by killing the peer.
  std::atomic<bool> done{false};
  const pid_t peer = client.process.pid();
  std::thread watchdog([&] {
    for (int i = 0; i < 1200 && !done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (!done) kill(peer, SIGKILL);
  });
  std::vector<char> received;
  received.reserve(size);
  std::vector<char> buf(65536);
  size_t sent = 0;
  int failure = 0;
  SSL* ssl = ssl_get_raw_object(s);
  while (failure == 0 && (sent < size || received.size() < size)) {
    pollfd pfd{socket_descriptor(s), static_cast<short>(POLLIN | (sent < size ? POLLOUT : 0)), 0};
    if (SSL_pending(ssl) == 0 && poll(&pfd, 1, 1000) < 0 && errno != EINTR) break;
    if (SSL_pending(ssl) > 0 || (pfd.revents & (POLLIN | POLLHUP | POLLERR))) {
      int len = static_cast<int>(buf.size());
      failure = socket_recv2(s, buf.data(), &len, 0);
      received.insert(received.end(), buf.data(), buf.data() + len);
    }
    if (failure == 0 && sent < size && (pfd.revents & POLLOUT)) {
      const int piece = static_cast<int>(std::min<size_t>(8192, size - sent));
      failure = socket_send2(s, to_peer.data() + sent, piece, 0);
      sent += piece;
    }
  }
  done = true;
  watchdog.join();
  EXPECT_EQ(0, failure) << ssl_error(s);
  s.reset();  // close-notify ends the peer
  EXPECT_TRUE(client.process.wait_exit(20000));

  EXPECT_EQ(size, received.size());
  EXPECT_EQ(crc_of(from_peer.data(), size), crc_of(received.data(), received.size()));
  const std::string peer_got = client.out();
  EXPECT_EQ(size, peer_got.size());
  EXPECT_EQ(crc_of(to_peer.data(), size), crc_of(peer_got.data(), peer_got.size()));
}

}  // namespace
