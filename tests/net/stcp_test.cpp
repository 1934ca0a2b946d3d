// ctest-labels: tsan
// The secure stream against OpenSSL's own AES-CBC (the openssl program on
// the raw bytes of a peer socket), with the library on both ends, and its
// refusals.
#include "net_test_util.hpp"
#include "vek_test.hpp"

namespace {

using namespace nettest;

constexpr unsigned char kKey[32] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa,
                                    0xbb, 0xcc, 0xdd, 0xee, 0xff, 0x0f, 0x1e, 0x2d, 0x3c, 0x4b, 0x5a,
                                    0x69, 0x78, 0x87, 0x96, 0xa5, 0xb4, 0xc3, 0xd2, 0xe1, 0xf0};
constexpr unsigned char kIv[16] = {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7,
                                   0xa8, 0xa9, 0xaa, 0xab, 0xac, 0xad, 0xae, 0xaf};

// The padded plaintext the stream carries for one message.
std::string padded(const std::string& msg) {
  const size_t rest = msg.size() % 16;
  return rest == 0 ? msg : msg + std::string(16 - rest, static_cast<char>(16 - rest));
}

// AES-CBC of whole blocks by the openssl program, without its padding.
std::string cbc_encrypt(int bits, const std::string& in) {
  return openssl_cbc(true, hex(kKey, (size_t)bits / 8), hex(kIv, 16), in, false);
}

const std::vector<size_t> kMessageSizes = {1, 15, 16, 17, 20, 32, 100, 65536 + 5, 3};

class StcpTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    if (!vektest::have_program("openssl")) GTEST_SKIP() << "openssl missing";
  }
};

TEST_F(StcpTest, WireBytesAreOpenSslCbcInBothDirections) {
  for (int bits : {128, 192, 256}) {
    SCOPED_TRACE(bits);
    RawListener raw;
    Sock s;
    ASSERT_EQ(0, socket_connect(s.get(), raw.addr().c_str()));
    int fd = raw.accept_fd();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, stcp_morph(s.get(), kKey, kIv, bits));

    // Library to raw peer: every message continues the same chain.
    std::string plain_stream;
    std::vector<std::pair<size_t, std::string>> in_caller_buffer;  // wire offset, ciphertext left there
    size_t wire_len = 0;
    for (size_t n : kMessageSizes) {
      std::string msg = pattern(n, (unsigned)n);
      const std::string original = msg;
      ASSERT_EQ(0, socket_send(s.get(), msg.data(), (int)msg.size()));
      const size_t aligned = n - n % 16;
      EXPECT_EQ(original.substr(aligned), msg.substr(aligned));
      in_caller_buffer.emplace_back(wire_len, msg.substr(0, aligned));
      plain_stream += padded(original);
      wire_len += (n + 15) / 16 * 16;
    }
    const std::string wire = read_exact(fd, wire_len);
    ASSERT_EQ(wire_len, wire.size());
    EXPECT_TRUE(cbc_encrypt(bits, plain_stream) == wire);
    // The whole blocks were encrypted in the caller's buffer.
    for (const auto& [offset, cipher] : in_caller_buffer) EXPECT_TRUE(wire.substr(offset, cipher.size()) == cipher);

    // Raw peer to library: ciphertext made by openssl, received in the
    // lengths it was sent with.
    std::string sent_plain;
    std::vector<std::string> messages;
    for (size_t n : kMessageSizes) {
      messages.push_back(pattern(n, (unsigned)(n + 99)));
      sent_plain += padded(messages.back());
    }
    const std::string cipher = cbc_encrypt(bits, sent_plain);
    std::thread writer([&] { EXPECT_TRUE(write_all(fd, cipher)); });
    for (const std::string& m : messages) {
      std::string got(m.size(), '\0');
      ASSERT_EQ(0, socket_recv(s.get(), got.data(), (int)got.size(), 5000));
      EXPECT_TRUE(got == m) << m.size();
    }
    writer.join();
    close(fd);
  }
}

TEST_F(StcpTest, LibraryOnBothEndsWithConcurrentDirections) {
  Listener l;
  Pair p = connect_pair(l);
  ASSERT_TRUE(p.server);
  ASSERT_EQ(0, stcp_morph(p.client.get(), kKey, kIv, 256));
  ASSERT_EQ(0, stcp_morph(p.server.get(), kKey, kIv, 256));
  const int rounds = scaled(200, 4);
  // Each direction keeps its own chain: both flow at the same time.
  auto pump = [rounds](void* from, void* to, unsigned seed, bool* ok) {
    std::thread sender([=] {
      for (int i = 0; i < rounds; ++i) {
        std::string m = pattern((size_t)(1 + i * 37 % 5000), seed + (unsigned)i);
        if (socket_send2(from, m.data(), (int)m.size(), 5000) != 0) break;
      }
    });
    *ok = true;
    for (int i = 0; i < rounds && *ok; ++i) {
      const std::string m = pattern((size_t)(1 + i * 37 % 5000), seed + (unsigned)i);
      std::string got(m.size(), '\0');
      *ok = socket_recv(to, got.data(), (int)got.size(), 5000) == 0 && got == m;
    }
    sender.join();
  };
  bool up = false, down = false;
  std::thread t([&] { pump(p.client.get(), p.server.get(), 1, &up); });
  pump(p.server.get(), p.client.get(), 1000, &down);
  t.join();
  EXPECT_TRUE(up);
  EXPECT_TRUE(down);
  // The layer's state goes with the close; the record stays usable.
  EXPECT_EQ(0, socket_close(p.client.get()));
  EXPECT_EQ(nullptr, p.client.rec()->handle);
}

TEST_F(StcpTest, RefusalsAndFailures) {
  vektest::LogCapture log;
  Listener l;
  Pair p = connect_pair(l);
  ASSERT_TRUE(p.server);
  void* c = p.client.get();
  char buf[64] = {};
  EXPECT_EQ(ERR_INVALID_HANDLE, stcp_morph(nullptr, kKey, kIv, 128));
  EXPECT_EQ(ERR_INVALID_PARAMETER, stcp_morph(c, nullptr, kIv, 128));
  EXPECT_EQ(ERR_INVALID_PARAMETER, stcp_morph(c, kKey, nullptr, 128));
  EXPECT_EQ(ERR_INVALID_HANDLE, _stcp_send(nullptr, buf, 1));
  EXPECT_EQ(ERR_INVALID_HANDLE, _stcp_recv(c, buf, 1, 1));  // no secure state yet
  EXPECT_EQ(ERR_INVALID_HANDLE, _stcp_close(nullptr));

  // A wrong size installs the slots anyway, without a key schedule.
  EXPECT_EQ(ERR_SOCKET_KEY_BITS, stcp_morph(c, kKey, kIv, 100));
  EXPECT_EQ(&_stcp_send, p.client.rec()->a_send);
  EXPECT_EQ(&_stcp_recv, p.client.rec()->a_recv);
  EXPECT_EQ(nullptr, p.client.rec()->a_recv2);
  EXPECT_EQ(ERR_SOCKET_KEY_BITS, socket_send(c, buf, 16));
  // Morphing again replaces the state (the leak check sees the first go).
  ASSERT_EQ(0, stcp_morph(c, kKey, kIv, 128));
  ASSERT_EQ(0, stcp_morph(p.server.get(), kKey, kIv, 128));

  int len = 16;
  EXPECT_EQ(ERR_SOCKET_NO_OPERATION, socket_recv2(c, buf, &len, 10));
  EXPECT_EQ(0, socket_recv(c, buf, 0, 10));
  EXPECT_TRUE(log.contains("_stcp_recv(): recving length is bad[0]\n"));
  EXPECT_EQ(ERR_INVALID_PARAMETER, socket_send(c, nullptr, 4));
  EXPECT_EQ(ERR_INVALID_PARAMETER, socket_send(c, buf, -2));
  EXPECT_EQ(ERR_SOCKET_FAILED, socket_send2(c, buf, 4, -2));
  EXPECT_EQ(ERR_SOCKET_FAILED, socket_recv(c, buf, 4, -2));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_recv(c, buf, 20, 50));
  EXPECT_EQ(ERR_SOCKET_TIMEOUT, socket_error(c));

  // The peer goes away mid-message.
  ASSERT_EQ(0, socket_send(p.server.get(), buf, 16));
  socket_shutdown(p.server.get());
  EXPECT_EQ(ERR_SOCKET_CLOSED, socket_recv(c, buf, 20, 1000));
  EXPECT_EQ(ERR_SOCKET_CLOSED, socket_error(c));

  // A new connect puts the TCP operations back.
  ASSERT_EQ(0, socket_connect(c, l.addr().c_str()));
  Sock again = l.accept();
  EXPECT_EQ(&tcp_send, p.client.rec()->a_send);
  EXPECT_EQ(nullptr, p.client.rec()->handle);
  EXPECT_EQ(0, socket_send(c, "plain", 5));
  EXPECT_EQ(0, socket_recv(again.get(), buf, 5, 1000));
  EXPECT_EQ("plain", std::string(buf, 5));
  // Deleting a morphed socket releases its state too.
  ASSERT_EQ(0, stcp_morph(again.get(), kKey, kIv, 192));
}

}  // namespace
