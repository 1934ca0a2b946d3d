// TLS contexts and morphed sockets: openssl s_server and s_client as peers
// on loopback, and the library on both ends. Keys, certificates and a small
// CA are made once per run with the openssl command.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <signal.h>

#include <chrono>
#include <future>

#include "alloc_failure.hpp"
#include "net_test_util.hpp"
#include "pki.hpp"
#include "vek_test.hpp"

namespace {

using nettest::Listener;
using nettest::Sock;

using vektest::kPassPhrase;

const vektest::TestPki& pki() { return vektest::test_pki(); }
std::string pem(const char* name) { return pki().dir.file(name); }

struct Ctx {
  void* h = nullptr;
  Ctx() { EXPECT_EQ(0, ssl_ctx_create(&h)); }
  ~Ctx() { ssl_ctx_delete(h); }
};

std::string subject_of(X509* cert) {
  char buf[256] = "<none>";
  if (cert) X509_NAME_oneline(X509_get_subject_name(cert), buf, sizeof buf);
  X509_free(cert);
  return buf;
}

// One line (with its '\n') read a byte at a time through the socket.
std::string read_line(void* sock, int* result) {
  std::string line;
  char c = 0;
  while ((*result = socket_recv(sock, &c, 1, 5000)) == 0 && (line += c, c != '\n')) {
  }
  return line;
}

class TlsTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    ssl_init();
    ASSERT_TRUE(pki().ok) << "the openssl command could not make the test certificates";
    LeakCheckedTest::SetUp();
  }
  static void client_ctx(const Ctx& c, bool verify, const char* ca = nullptr, bool with_cert = false) {
    const std::string ca_file = ca ? pem(ca) : "", cert = pem("client.pem"), key = pem("client.key");
    EXPECT_EQ(0, ca ? ssl_ctx_set_calist_file(c.h, ca_file.c_str()) : 0);
    EXPECT_EQ(0, with_cert ? ssl_ctx_set_chain_file(c.h, cert.c_str()) + ssl_ctx_set_key_file(c.h, key.c_str()) : 0);
    EXPECT_EQ(0, ssl_ctx_set_verify(c.h, 0, verify));
  }
  static void server_ctx(const Ctx& c, bool require_client_cert = false) {
    EXPECT_EQ(0, ssl_ctx_set_packed_file(c.h, pem("packed.pem").c_str()));
    ssl_ctx_set_verify(c.h, require_client_cert, require_client_cert);
  }
  // A connection of the library with itself; both handshakes run at once.
  struct TlsPair : nettest::Pair {
    int connected = 1, accepted = 1;
  };
  static TlsPair tls_pair(const Listener& l, const Ctx& client, const Ctx& server) {
    TlsPair p;
    static_cast<nettest::Pair&>(p) = nettest::connect_pair(l);
    auto accepted = std::async(std::launch::async, [&] { return ssl_accept(p.server.get(), server.h); });
    p.connected = ssl_connect(p.client.get(), client.h);
    p.accepted = accepted.get();
    return p;
  }
};

// openssl s_server on a free port; -rev sends each line back reversed and
// ends the connection with a close-notify on "CLOSE".
struct ServerPeer {
  vektest::PeerProcess process;
  int port = vektest::free_tcp_port();
  bool start(const char* name, std::vector<std::string> extra = {}) {
    std::vector<std::string> argv = {"openssl", "s_server", "-accept", nettest::loopback(port), "-rev",
                                     "-cert", pem(name) + ".pem", "-key", pem(name) + ".key"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return process.start(argv) && process.wait_tcp_port(port);
  }
};

// openssl s_client: standard input from a file, standard output to one.
struct ClientPeer {
  vektest::PeerProcess process;
  vektest::TempDir dir;
  bool start(int port, const std::string& args, const std::string& input = "/dev/null") {
    return process.start({"sh", "-c", "exec openssl s_client -connect " + nettest::loopback(port) + " " + args +
                                          " <'" + input + "' >'" + dir.file("out") + "'"});
  }
  std::string out() const { return vektest::read_file(dir.file("out")); }
};

// ---- set-up and contexts --------------------------------------------------------

TEST_F(TlsTest, SetUpOnceAndRefusedArguments) {
  const std::string version = ssl_get_version();
  ssl_init();
  EXPECT_EQ(version, ssl_get_version());
  EXPECT_EQ(0u, version.rfind("OpenSSL 3", 0)) << version;
  EXPECT_EQ(1, ssl_is_available());

  Ctx ctx;
  Sock plain, never_connected;
  Listener l;
  nettest::Pair open = nettest::connect_pair(l);
  const int refused[][2] = {
      {ERR_INVALID_PARAMETER, ssl_ctx_create(nullptr)},
      {ERR_INVALID_HANDLE, ssl_ctx_delete(nullptr)},
      {ERR_INVALID_PARAMETER, ssl_ctx_set_packed_file(ctx.h, nullptr)},
      {ERR_INVALID_PARAMETER, ssl_ctx_set_passwd(ctx.h, nullptr)},
      {0, ssl_ctx_check(nullptr)},
      {ERR_INVALID_HANDLE, ssl_connect(nullptr, ctx.h)},
      {ERR_INVALID_HANDLE, _ssl_morph(nullptr)},
      // A socket that is not morphed is never taken for a TLS one.
      {ERR_INVALID_HANDLE, _ssl_close(plain.get())},
      {ERR_INVALID_HANDLE, _ssl_send(plain.get(), "x", 1)},
      {0, ssl_verify_peer(plain.get())},
      // Nothing to shake hands over: refused before the morph.
      {ERR_SOCKET_NOT_OPEN, ssl_connect(never_connected.get(), ctx.h)},
      // Morphed by hand: TLS state, but no connection to use.
      {0, _ssl_morph(open.client.get())},
      {ERR_INVALID_HANDLE, socket_send(open.client.get(), "x", 1)},
  };
  for (const auto& row : refused) EXPECT_EQ(row[0], row[1]) << "row " << (&row - refused);
  EXPECT_EQ(nullptr, never_connected.rec()->handle);
  const void* pointers[] = {ssl_ctx_error(nullptr), ssl_ctx_get_raw_object(nullptr), ssl_error(nullptr),
                            ssl_get_peer_certificate(plain.get()), ssl_get_cipher(plain.get()),
                            ssl_get_raw_object(plain.get()), ssl_error(plain.get())};
  for (const void* p : pointers) EXPECT_EQ(nullptr, p);
  EXPECT_STREQ("", ssl_ctx_error(ctx.h));
}

TEST_F(TlsTest, LoadersKeyCheckAndPassPhrase) {
  enum Loader { kKey, kChain, kCalist, kPacked };
  const std::string too_long = kPassPhrase + "tooMany";
  const struct {
    Loader loader;
    const char* file;
    const char* passwd;
    int result;
    int key_check;  // after the chain of the server is loaded
  } rows[] = {
      {kKey, "server.key", nullptr, 0, 1},
      {kKey, "client.key", nullptr, 0, 0},  // OpenSSL loads it; the check finds the mismatch
      {kChain, "server.pem", nullptr, 0, 0},
      {kCalist, "ca.pem", nullptr, 0, 0},
      {kPacked, "packed.pem", nullptr, 0, 1},
      {kKey, "nothing.key", nullptr, ERR_SSL_CTX_FILE, 0},
      {kKey, "server.pem", nullptr, ERR_SSL_CTX_FILE, 0},
      {kChain, "server.key", nullptr, ERR_SSL_CTX_FILE, 0},
      {kCalist, "server.key", nullptr, ERR_SSL_CTX_FILE, 0},
      {kPacked, "ca.pem", nullptr, ERR_SSL_CTX_FILE, 0},
      {kKey, "server.enc.key", kPassPhrase.c_str(), 0, 1},
      {kKey, "server.enc.key", too_long.c_str(), 0, 1},  // only the first 64 characters count
      {kKey, "server.enc.key", "wrong", ERR_SSL_CTX_FILE, 0},
      {kKey, "server.enc.key", nullptr, ERR_SSL_CTX_FILE, 0},
  };
  for (const auto& row : rows) {
    Ctx ctx;
    if (row.passwd) ssl_ctx_set_passwd(ctx.h, row.passwd);
    const std::string path = pem(row.file);
    const int r = row.loader == kKey      ? ssl_ctx_set_key_file(ctx.h, path.c_str())
                  : row.loader == kChain  ? ssl_ctx_set_chain_file(ctx.h, path.c_str())
                  : row.loader == kCalist ? ssl_ctx_set_calist_file(ctx.h, path.c_str())
                                          : ssl_ctx_set_packed_file(ctx.h, path.c_str());
    EXPECT_EQ(row.result, r) << row.file;
    // A failure leaves its reason in the context and none on the thread.
    EXPECT_EQ(r != 0, *ssl_ctx_error(ctx.h) != '\0') << row.file << ": " << ssl_ctx_error(ctx.h);
    EXPECT_EQ(0u, ERR_peek_error()) << row.file;
    if (row.loader == kKey) ssl_ctx_set_chain_file(ctx.h, pem("server.pem").c_str());
    EXPECT_EQ(row.key_check, ssl_ctx_check(ctx.h)) << row.file;
  }
  Ctx ctx;
  EXPECT_EQ(0, ssl_ctx_set_calist_load_system(ctx.h));
  // The phrase handed to the key loader's callback: a shorter one replaces
  // a longer one entirely.
  ASSERT_EQ(0, ssl_ctx_set_key_file(ctx.h, pem("server.key").c_str()));
  const auto* stored = static_cast<char*>(SSL_CTX_get_default_passwd_cb_userdata(ssl_ctx_get_raw_object(ctx.h)));
  ssl_ctx_set_passwd(ctx.h, too_long.c_str());
  EXPECT_EQ(kPassPhrase, stored);
  ssl_ctx_set_passwd(ctx.h, "short");
  char buf[4];
  EXPECT_EQ(3, _ssl_ctx_passwd_cb(buf, sizeof buf, 0, const_cast<char*>(stored)));
  EXPECT_STREQ("sho", buf);

  // require_peer_certificate alone sets the fail-if-none flag without the peer flag.
  const int modes[][3] = {{0, 0, 0}, {0, 7, 1}, {1, 0, 2}, {5, 1, 3}};
  for (const auto& m : modes) {
    ssl_ctx_set_verify(ctx.h, m[0], m[1]);
    EXPECT_EQ(m[2], SSL_CTX_get_verify_mode(ssl_ctx_get_raw_object(ctx.h)));
  }
}

// ---- the library on both ends -----------------------------------------------------

void note_record(int write_p, int, int content_type, const void* buf, size_t len, SSL*, void* records) {
  const auto* h = static_cast<const unsigned char*>(buf);
  if (write_p && content_type == SSL3_RT_HEADER && len == SSL3_RT_HEADER_LENGTH)
    static_cast<std::vector<int>*>(records)->push_back(h[3] << 8 | h[4]);
}

TEST_F(TlsTest, PairExchangeChunkingTimeOutsAndCloseNotify) {
  Ctx cctx, sctx;
  client_ctx(cctx, true, "ca.pem", true);
  server_ctx(sctx, true);
  Listener l;
  TlsPair p = tls_pair(l, cctx, sctx);
  void *c = p.client.get(), *s = p.server.get();
  ASSERT_EQ(0, p.connected) << ssl_error(c);
  ASSERT_EQ(0, p.accepted) << ssl_error(s);
  EXPECT_STREQ(ssl_get_cipher(c), ssl_get_cipher(s));
  EXPECT_EQ(2, ssl_verify_peer(c) + ssl_verify_peer(s));
  EXPECT_EQ("/CN=127.0.0.1", subject_of(ssl_get_peer_certificate(c)));
  EXPECT_EQ("/CN=vektest client", subject_of(ssl_get_peer_certificate(s)));

  // Each SSL_write fills 16384-byte records and ends with the rest of its
  // piece, so the short records show the cuts: 3 x 64512 + 6464 bytes.
  std::vector<int> records;
  SSL_set_msg_callback(ssl_get_raw_object(c), note_record);
  SSL_set_msg_callback_arg(ssl_get_raw_object(c), &records);
  const std::string data = nettest::pattern(200000);
  std::string got(data.size(), '\0');
  auto read = std::async(std::launch::async, [&] { return socket_recv(s, got.data(), 200000, 5000); });
  EXPECT_EQ(0, socket_send(c, data.data(), 200000));
  EXPECT_EQ(0, read.get());
  SSL_set_msg_callback(ssl_get_raw_object(c), nullptr);
  EXPECT_TRUE(got == data);
  std::vector<int> expected;
  for (int piece = 0; piece < 3; ++piece) expected.insert(expected.end(), {16384, 16384, 16384, 15360});
  expected.push_back(6464);
  const int overhead = records.front() - 16384;
  for (int& r : records) r -= overhead;
  EXPECT_EQ(expected, records);

  char buf[2000];
  EXPECT_EQ(ERR_INVALID_PARAMETER, _ssl_send(c, nullptr, 1));
  EXPECT_EQ(ERR_INVALID_PARAMETER, _ssl_recv(s, buf, -1, 1));
  int len = sizeof buf;
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_recv2(s, buf, &len, 50));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_recv(s, buf, 1, 50));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_error(s));
  // Below -1 is refused at once, leaving errno, whatever it is, in err.
  for (int op = 0; op < 3; ++op) {
    errno = EDOM + op;
    len = 1;
    const int r = op == 0 ? socket_recv(s, buf, 1, -2) : op == 1 ? socket_recv2(s, buf, &len, -2) : socket_send2(s, buf, 1, -7);
    EXPECT_EQ(ERR_SOCKET_FAILED, r) << op;
    EXPECT_EQ(EDOM + op, socket_error(s)) << op;
  }
  // One record of 1000 bytes: once 10 are read the rest waits decrypted in
  // TLS, nothing on the descriptor, so a read that waited would time out.
  ASSERT_EQ(0, socket_send(c, data.data(), 1000));
  len = 10;
  ASSERT_EQ(0, socket_recv2(s, buf, &len, 1000));
  len = sizeof buf;
  EXPECT_EQ(0, socket_recv2(s, buf, &len, 1));
  EXPECT_EQ(990, len);

  // A close sends the close-notify: the other end reads "closed", not a failure.
  EXPECT_EQ(0, socket_close(s));
  len = sizeof buf;
  EXPECT_EQ(ERR_SOCKET_CLOSED, socket_recv2(c, buf, &len, 5000));
  EXPECT_EQ(0, len);
  EXPECT_EQ(ERR_SOCKET_CLOSED, socket_error(c));
}

TEST_F(TlsTest, FailedHandshakesLeaveTheSocketMorphed) {
  Ctx cctx, sctx;
  server_ctx(sctx);
  Listener l;
  nettest::Pair plain = nettest::connect_pair(l);
  void* c = plain.client.get();
  // No context: morphed with a state that holds no connection, refused by
  // the TLS operations and released by the close.
  EXPECT_EQ(ERR_SSL_NO_CONTEXT, ssl_connect(c, nullptr));
  EXPECT_EQ(ERR_SSL_NO_CONTEXT, ssl_accept(plain.server.get(), nullptr));
  EXPECT_EQ(_ssl_close, plain.client.rec()->a_close);
  EXPECT_EQ(nullptr, ssl_get_raw_object(c));
  EXPECT_EQ(ERR_INVALID_HANDLE, socket_send(c, "x", 1));
  EXPECT_EQ(0, _ssl_morph(c));  // a second morph gives the first state back
  EXPECT_EQ(0, socket_close(c));
  EXPECT_EQ(nullptr, plain.client.rec()->handle);

  // A client that distrusts the server: each side fails with its own code.
  client_ctx(cctx, true);
  TlsPair p = tls_pair(l, cctx, sctx);
  EXPECT_EQ(ERR_SSL_CONNECT, p.connected);
  EXPECT_EQ(ERR_SSL_ACCEPT, p.accepted);
  EXPECT_NE(nullptr, std::strstr(ssl_error(p.client.get()), "certificate verify failed")) << ssl_error(p.client.get());
  EXPECT_EQ(ERR_SSL_IO, socket_send(p.client.get(), "x", 1));
}

TEST_F(TlsTest, AllocationFailuresLeaveNothingBehind) {
  Ctx sctx;
  server_ctx(sctx);
  Listener l;
  vektest::for_each_allocation_failure([&] {
    void* cctx = nullptr;
    const int created = ssl_ctx_create(&cctx);
    if (created != 0) {
      EXPECT_EQ(ERR_NO_MEMORY, created);
      EXPECT_EQ(nullptr, cctx);
      return false;
    }
    nettest::Pair p = nettest::connect_pair(l);
    bool ok = socket_isopen(p.client.get()) == 1 && socket_isopen(p.server.get()) == 1;
    if (ok) {
      // A side that fails closes at once, so the other never waits for it.
      auto accepted = std::async(std::launch::async, [&] {
        const int r = ssl_accept(p.server.get(), sctx.h);
        if (r != 0) socket_close(p.server.get());
        return r;
      });
      const int connected = ssl_connect(p.client.get(), cctx);
      if (connected != 0) socket_close(p.client.get());
      const int r = accepted.get();
      EXPECT_TRUE(connected == 0 || connected == ERR_NO_MEMORY || connected == ERR_SSL_CONNECT) << connected;
      ok = connected == 0 && r == 0;
    }
    p = {};
    ssl_ctx_delete(cctx);
    return ok;
  });
}

// ---- openssl s_server --------------------------------------------------------------

// The client verifies the server against its CA list; then the server answers, closes, vanishes or refuses
// a client without a certificate.
TEST_F(TlsTest, ClientAgainstServer) {
  ServerPeer good, rogue, strict;
  ASSERT_TRUE(good.start("server"));
  ASSERT_TRUE(rogue.start("rogue"));
  ASSERT_TRUE(strict.start("server", {"-Verify", "1", "-CAfile", pem("ca.pem")}));
  const struct {
    ServerPeer* server;
    bool verify;
    const char* ca;
    bool with_cert;
    int connected, verified;
    const char* say;
    bool vanish;  // after the answer, the server process ends without a close-notify
    int result;   // of reading the answer
    const char* reason;
  } rows[] = {
      {&good, true, nullptr, false, ERR_SSL_CONNECT, 0, "", false, 0, ""},
      {&good, true, "ca.pem", false, 0, 1, "hello\n", false, 0, ""},
      {&rogue, true, "ca.pem", false, ERR_SSL_CONNECT, 0, "", false, 0, ""},
      {&rogue, false, "ca.pem", false, 0, 0, "hello\n", false, 0, ""},
      {&good, false, nullptr, false, 0, 0, "hello\n", false, 0, ""},
      {&good, true, "ca.pem", false, 0, 1, "CLOSE\n", false, ERR_SOCKET_CLOSED, ""},  // close-notify
      {&strict, true, "ca.pem", true, 0, 1, "zyx\n", false, 0, ""},
      // TLS 1.3 clients finish first; the refusal is an alert on the first read.
      {&strict, true, "ca.pem", false, 0, 1, "zyx\n", false, ERR_SOCKET_CLOSED, "certificate required"},
      {&good, true, "ca.pem", false, 0, 1, "zyx\n", true, ERR_SOCKET_CLOSED, ""},  // last: ends the server
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Ctx ctx;
    client_ctx(ctx, row.verify, row.ca, row.with_cert);
    Sock s;
    ASSERT_EQ(0, socket_connect(s.get(), nettest::loopback(row.server->port).c_str()));
    EXPECT_EQ(row.connected, ssl_connect(s.get(), ctx.h)) << ssl_error(s.get());
    EXPECT_EQ(row.verified, ssl_verify_peer(s.get()));
    if (row.connected != 0) continue;
    char buf[16];
    int r = sizeof buf;
    // The server's session tickets arrive unasked: a timed read must not
    // take them for data and then block (checked where a plain answer follows).
    if (row.result == 0) {
      EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_recv2(s.get(), buf, &r, 100));
    }
    ASSERT_EQ(0, socket_send(s.get(), row.say, static_cast<int>(std::strlen(row.say))));
    std::string answer = row.say;  // the line reversed, before its '\n'
    std::reverse(answer.begin(), answer.end() - 1);
    std::string line = read_line(s.get(), &r);
    if (row.vanish) {
      EXPECT_EQ(answer, line);
      row.server->process.stop();
      line = read_line(s.get(), &r);
    }
    EXPECT_EQ(row.result, r) << ssl_error(s.get());
    EXPECT_EQ(r == 0 ? answer : "", line);
    EXPECT_NE(nullptr, std::strstr(ssl_error(s.get()), row.reason)) << ssl_error(s.get());
  }
}

// ---- openssl s_client --------------------------------------------------------------

TEST_F(TlsTest, ServerRequiringClientCertificateRefusesClientWithout) {
  Ctx sctx;
  server_ctx(sctx, true);
  ASSERT_EQ(0, ssl_ctx_set_calist_file(sctx.h, pem("ca.pem").c_str()));
  Listener l;
  for (const bool with_cert : {false, true}) {
    ClientPeer client;
    ASSERT_TRUE(client.start(l.port(), with_cert ? "-quiet -cert " + pem("client.pem") + " -key " + pem("client.key") : "-quiet"));
    Sock s = l.accept(10000);
    ASSERT_TRUE(s);
    const int accepted = ssl_accept(s.get(), sctx.h);
    if (!with_cert) {
      EXPECT_EQ(ERR_SSL_ACCEPT, accepted);
      EXPECT_NE(nullptr, std::strstr(ssl_error(s.get()), "peer did not return a certificate")) << ssl_error(s.get());
      continue;
    }
    ASSERT_EQ(0, accepted) << ssl_error(s.get());
    EXPECT_EQ(1, ssl_verify_peer(s.get()));
    EXPECT_EQ("/CN=vektest client", subject_of(ssl_get_peer_certificate(s.get())));
    EXPECT_EQ(0, socket_send(s.get(), "bye\n", 4));
    s.reset();
    EXPECT_TRUE(client.process.wait_exit(10000));
    EXPECT_EQ("bye\n", client.out());
  }
}

unsigned crc_of(const std::string& data) { return hash_crc32(data.data(), static_cast<unsigned>(data.size())); }

TEST_F(TlsTest, SixtyFourMebibytesEachWayAtOnce) {
  const size_t size = nettest::kSanitized ? 8u << 20 : 64u << 20;
  const std::string to_peer = nettest::pattern(size, 1);
  ClientPeer client;
  vektest::write_file(client.dir.file("in"), nettest::pattern(size, 2));
  Ctx sctx;
  server_ctx(sctx);
  Listener l;
  // -quiet: only data on standard output, and the end of input is not the end.
  ASSERT_TRUE(client.start(l.port(), "-quiet", client.dir.file("in")));
  Sock s = l.accept(10000);
  ASSERT_TRUE(s);
  ASSERT_EQ(0, ssl_accept(s.get(), sctx.h)) << ssl_error(s.get());

  // One thread moves both directions, as one TLS state requires: small
  // writes when the descriptor has room, reads when TLS or the descriptor
  // has data. A transfer that gets stuck is ended by killing the peer.
  std::atomic<bool> done{false};
  auto watchdog = std::async(std::launch::async, [&done, pid = client.process.pid()] {
    for (int i = 0; i < 1200 && !done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (!done) kill(pid, SIGKILL);
  });
  std::string received;
  std::vector<char> buf(65536);
  size_t sent = 0;
  int failure = 0;
  SSL* ssl = ssl_get_raw_object(s.get());
  while (failure == 0 && (sent < size || received.size() < size)) {
    pollfd pfd{socket_descriptor(s.get()), static_cast<short>(POLLIN | (sent < size ? POLLOUT : 0)), 0};
    if (SSL_pending(ssl) == 0) poll(&pfd, 1, 1000);
    if (SSL_pending(ssl) > 0 || (pfd.revents & (POLLIN | POLLHUP | POLLERR))) {
      int len = static_cast<int>(buf.size());
      failure = socket_recv2(s.get(), buf.data(), &len, 0);
      received.append(buf.data(), len);
    }
    if (failure == 0 && (pfd.revents & POLLOUT)) {
      const int piece = static_cast<int>(std::min<size_t>(8192, size - sent));
      failure = socket_send2(s.get(), to_peer.data() + sent, piece, 0);
      sent += piece;
    }
  }
  done = true;
  watchdog.get();
  EXPECT_EQ(0, failure) << ssl_error(s.get());
  s.reset();  // the close-notify ends the peer
  EXPECT_TRUE(client.process.wait_exit(20000));
  EXPECT_EQ(crc_of(nettest::pattern(size, 2)), crc_of(received));
  EXPECT_EQ(size, received.size());
  const std::string peer_got = client.out();
  EXPECT_EQ(size, peer_got.size());
  EXPECT_EQ(crc_of(to_peer), crc_of(peer_got));
}

// ---- the tool ---------------------------------------------------------------------

TEST_F(TlsTest, ToolCommandAgainstServer) {
  const std::string tool = vektest::tool_path();
  if (tool.empty()) GTEST_SKIP() << "the vekutil tool is not built here";
  ServerPeer server, strict;
  ASSERT_TRUE(server.start("server"));
  ASSERT_TRUE(strict.start("server", {"-Verify", "1", "-CAfile", pem("ca.pem")}));
  const std::string addr = nettest::loopback(server.port), strict_addr = nettest::loopback(strict.port);
  const std::string client = pem("client.packed.pem");
  const struct {
    std::vector<std::string> args;
    int status;
    std::string out;
  } rows[] = {
      {{addr, "--ca", pem("ca.pem"), "--verify"}, 0, "olleh\n"},
      {{addr, "--ca", pem("rogue.pem"), "--verify"}, 1, ""},
      {{addr, "--ca", pem("rogue.pem")}, 0, "olleh\n"},  // verification reported, not enforced
      {{strict_addr, "--ca", pem("ca.pem"), "--cert", client, "--pass", kPassPhrase}, 0, "olleh\n"},
      {{strict_addr, "--cert", client}, 1, ""},  // the key needs its phrase
      {{"127.0.0.1:1"}, 1, ""},
      {{addr, "--pass", "x"}, 2, ""},
      {{}, 2, ""},
  };
  for (const auto& row : rows) {
    std::vector<std::string> argv = {tool, "tls"};
    argv.insert(argv.end(), row.args.begin(), row.args.end());
    std::string out;
    EXPECT_EQ(row.status, vektest::run_program(argv, &out, "hello\nCLOSE\n", 20000)) << (&row - rows);
    EXPECT_EQ(row.out, out) << (&row - rows);
  }
}

}  // namespace
