// FTP client against vsftpd, pyftpdlib and the library's own server, passive
// and active: files of edge sizes up to 100 MB, refusals, replies the client
// cannot use, and a server that dies mid-transfer.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>

#include <vekutil/vekutil.h>

#include "peer.hpp"
#include "raw_udp.hpp"
#include "vek_test.hpp"

namespace {

void write_pattern(const std::string& path, long long size, uint32_t seed) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  std::vector<char> chunk(1 << 20);
  uint32_t x = seed * 2654435761u + 1;
  for (long long done = 0; done < size;) {
    const size_t n = static_cast<size_t>(std::min<long long>(size - done, (long long)chunk.size()));
    for (size_t i = 0; i < n; ++i) {
      x ^= x << 13, x ^= x >> 17, x ^= x << 5;
      chunk[i] = static_cast<char>(x);
    }
    out.write(chunk.data(), static_cast<std::streamsize>(n));
    done += static_cast<long long>(n);
  }
}

// True when both files exist with the same bytes.
bool same_file(const std::string& a, const std::string& b) {
  std::ifstream x(a, std::ios::binary), y(b, std::ios::binary);
  return x && y && std::equal(std::istreambuf_iterator<char>(x), {}, std::istreambuf_iterator<char>(y), {});
}

bool exists(const std::string& path) { return std::filesystem::exists(path); }

// ---- servers ---------------------------------------------------------------

enum class Server { kVsftpd, kPyftpdlib, kOwn };

const char* server_name(Server s) {
  return s == Server::kVsftpd ? "vsftpd" : s == Server::kPyftpdlib ? "pyftpdlib" : "vekutil";
}

int own_server_accounts(const char* user, const char* password, const char*) {
  return std::string(user) == "tester" && std::string(password) == "secret" ? FTP_ACCESS_ALL : FTP_ACCESS_NONE;
}

// pyftpdlib with a user, and misbehaviour no sane server configuration produces.
constexpr const char* kPyftpdlibScript = R"(
import sys
from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler, ThrottledDTPHandler
from pyftpdlib.servers import FTPServer

root, port, quirk = sys.argv[1], int(sys.argv[2]), sys.argv[3]
authorizer = DummyAuthorizer()
authorizer.add_user("tester", "secret", root, perm="elradfmwMT")

class Handler(FTPHandler):
    pass

Handler.authorizer = authorizer
Handler.auth_failed_timeout = 0.05
if quirk == "multiline-greeting":   # longer than 75 characters: "220-..." then "220 "
    Handler.banner = "vekutil test server, " * 5
elif quirk == "long-greeting":      # one line longer than the client's reply buffer
    Handler.banner = "x" * 5000
elif quirk == "bad-pasv":
    Handler.ftp_PASV = lambda self, line: self.respond("227 Entering Passive Mode 127,0,0,1,200,10")
elif quirk == "slow":
    class Slow(ThrottledDTPHandler):
        read_limit = 512 * 1024
        write_limit = 512 * 1024
    Handler.dtp_handler = Slow
FTPServer(("127.0.0.1", port), Handler).serve_forever()
)";

class FtpServer {
 public:
  ~FtpServer() { stop(); }

  // Starts the server on a free loopback port, serving root: "" or why it did not start.
  std::string start(Server kind, const std::string& root, const std::string& quirk = "") {
    kind_ = kind;
    port_ = vektest::free_tcp_port();
    bool started;
    if (kind == Server::kOwn) return start_own(root);
    if (kind == Server::kVsftpd) {
      if (!vektest::have_program("vsftpd")) return "vsftpd is not installed";
      const std::string conf = dir_.file("vsftpd.conf");
      vektest::write_file(conf,
                          "listen=YES\nlisten_address=127.0.0.1\nlisten_port=" + std::to_string(port_) +
                              "\nbackground=NO\nrun_as_launching_user=YES\n"
                              "anonymous_enable=YES\nno_anon_password=YES\nanon_root=" + root +
                              "\nwrite_enable=YES\nanon_upload_enable=YES\nanon_other_write_enable=YES\n"
                              "anon_mkdir_write_enable=YES\nanon_umask=022\nlocal_enable=NO\n"
                              "pasv_enable=YES\nport_enable=YES\nconnect_from_port_20=NO\n"
                              "seccomp_sandbox=NO\nisolate=NO\nisolate_network=NO\nxferlog_enable=NO\n"
                              "secure_chroot_dir=" + dir_.path() + "\n");
      started = process_.start({"vsftpd", conf}, dir_.file("server.log"));
    } else {
      if (!vektest::have_program("/usr/bin/python3")) return "/usr/bin/python3 is not installed";
      vektest::write_file(dir_.file("server.py"), kPyftpdlibScript);
      started = process_.start(
          {"/usr/bin/python3", dir_.file("server.py"), root, std::to_string(port_), quirk.empty() ? "-" : quirk},
          dir_.file("server.log"));
    }
    if (!started || !process_.wait_tcp_port(port_, 15000))
      return std::string(server_name(kind)) + " did not start: " + vektest::read_file(dir_.file("server.log"));
    return "";
  }

  // Stops the server; the library's own is stopped with everything it made.
  void stop() {
    process_.stop();
    if (own_) {
      ftp_server_stop(own_);
      own_ = nullptr;
      ftp_command_uninit();
      socket_async_default_uninit();
    }
  }

  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  std::string user() const { return kind_ == Server::kVsftpd ? "anonymous" : "tester"; }
  std::string password() const { return kind_ == Server::kVsftpd ? "vek@test" : "secret"; }
  pid_t pid() const { return process_.pid(); }

 private:
  // The library's own server, in this process, on a port the system picks.
  std::string start_own(const std::string& root) {
    int rc = socket_async_default_init(socket_get_fd_setsize(), 0, 2000);
    if (rc == 0) rc = ftp_server_start(&own_, 0, root.c_str(), own_server_accounts, nullptr, nullptr);
    if (rc != 0) {
      socket_async_default_uninit();
      return "the library's FTP server did not start: " + std::to_string(rc);
    }
    port_ = static_cast<_FTP_SERVER_OBJECT*>(own_)->port;
    return "";
  }

  void* own_ = nullptr;
  vektest::TempDir dir_;
  vektest::PeerProcess process_;
  Server kind_ = Server::kVsftpd;
  int port_ = 0;
};

struct Setup {
  Server server;
  bool active;
};

std::string setup_name(const testing::TestParamInfo<Setup>& info) {
  return std::string(server_name(info.param.server)) + (info.param.active ? "_active" : "_passive");
}

// A server on remote_ and the client; both are ended after each test.
class FtpPeerTest : public vektest::LeakCheckedTest {
 protected:
  void disconnect() {
    if (client_) {
      EXPECT_EQ(0, ftp_disconnect(client_));
    }
    client_ = nullptr;
    server_.stop();
  }
  void TearDown() override {
    disconnect();
    LeakCheckedTest::TearDown();
  }

  vektest::TempDir remote_;  // the server's root
  vektest::TempDir local_;
  FtpServer server_;
  void* client_ = nullptr;
};

class FtpClientTest : public FtpPeerTest, public testing::WithParamInterface<Setup> {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    const std::string problem = server_.start(GetParam().server, remote_.path());
    if (!problem.empty()) GTEST_SKIP() << problem;
    ASSERT_EQ(0, connect_and_login(&client_));
  }

  int connect_and_login(void** client) {
    int rc = ftp_connect2(client, server_.address().c_str(), GetParam().active ? 1 : 0);
    if (rc == 0) rc = ftp_login(*client, server_.user().c_str(), server_.password().c_str());
    return rc;
  }
};

TEST_P(FtpClientTest, FilesOfEdgeSizesRoundTripUnchanged) {
  const long long big = vektest::kSanitized ? 10LL << 20 : 100LL << 20;
  const long long sizes[] = {0, 1, 4075, 4076, 4077, 65535, 65536, big};
  uint32_t seed = 1;
  for (long long size : sizes) {
    SCOPED_TRACE(size);
    const std::string name = "file-" + std::to_string(size) + ".bin";
    const std::string original = local_.file("up-" + name), fetched = local_.file("down-" + name);
    write_pattern(original, size, seed++);
    ASSERT_EQ(0, ftp_put(client_, original.c_str(), name.c_str()));
    EXPECT_TRUE(same_file(original, remote_.file(name))) << "uploaded copy differs";
    ASSERT_EQ(0, ftp_get(client_, name.c_str(), fetched.c_str()));
    EXPECT_TRUE(same_file(original, fetched)) << "downloaded copy differs";
    ASSERT_EQ(0, ftp_del(client_, name.c_str()));
    EXPECT_FALSE(exists(remote_.file(name)));
    unlink(original.c_str());
    unlink(fetched.c_str());
  }
}

TEST_P(FtpClientTest, RefusalsComeBackAsReplyCodesOrLocalErrors) {
  vektest::write_file(remote_.file("present.txt"), "here\n");
  const std::string local = local_.file("local.txt");
  vektest::write_file(local, "local data\n");
  const std::string unwritable = local_.file("no/such/dir/file");
  struct Case {
    const char* what;
    std::function<int()> call;
    std::vector<int> expected;  // any of these
  };
  const Case cases[] = {
      {"get of a missing file", [&] { return ftp_get(client_, "absent.bin", local_.file("absent").c_str()); }, {550}},
      {"put into a missing directory", [&] { return ftp_put(client_, local.c_str(), "no-dir/x.txt"); }, {550, 553}},
      {"delete of a missing file", [&] { return ftp_del(client_, "absent.bin"); }, {550}},
      {"put of a missing local file", [&] { return ftp_put(client_, local_.file("nothing").c_str(), "x.txt"); },
       {ERR_FTP_LOCAL_FILE}},
      {"get into an unwritable place", [&] { return ftp_get(client_, "present.txt", unwritable.c_str()); },
       {ERR_FTP_LOCAL_FILE}},
  };
  // Each refusal of the server leaves the reply to the client's NOOP unread;
  // a fresh connection per case keeps the cases apart.
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const int rc = c.call();
    EXPECT_NE(c.expected.end(), std::find(c.expected.begin(), c.expected.end(), rc)) << "result " << rc;
    ASSERT_EQ(0, ftp_disconnect(client_));
    client_ = nullptr;
    ASSERT_EQ(0, connect_and_login(&client_));
  }
  EXPECT_FALSE(exists(local_.file("absent"))) << "a refused download leaves no local file";
  EXPECT_FALSE(exists(remote_.file("x.txt")));
  EXPECT_TRUE(exists(remote_.file("present.txt")));
}

// After a refused transfer the client sends NOOP and leaves its reply in the
// control stream: the next call reads that reply as its own.
TEST_P(FtpClientTest, StaleNoopReplyAndRefusedLogin) {
  EXPECT_EQ(550, ftp_get(client_, "absent.bin", local_.file("absent").c_str()));
  EXPECT_EQ(0, ftp_del(client_, "also-absent.bin")) << "the NOOP's 200 answered the DELE";
  void* other = nullptr;
  ASSERT_EQ(0, ftp_connect2(&other, server_.address().c_str(), GetParam().active ? 1 : 0));
  EXPECT_EQ(ERR_FTP_LOGIN_FAILED, ftp_login(other, "intruder", "wrong"));
  EXPECT_EQ(0, ftp_disconnect(other));
}

INSTANTIATE_TEST_SUITE_P(Peers, FtpClientTest,
                         testing::Values(Setup{Server::kVsftpd, false}, Setup{Server::kVsftpd, true},
                                         Setup{Server::kPyftpdlib, false}, Setup{Server::kPyftpdlib, true},
                                         Setup{Server::kOwn, false}, Setup{Server::kOwn, true}),
                         setup_name);

// ---- servers that misbehave ------------------------------------------------

class FtpOddServerTest : public FtpPeerTest {
 protected:
  // pyftpdlib with a quirk, a client connected; false (test skipped) when it cannot run.
  bool start(const std::string& quirk) {
    const std::string problem = server_.start(Server::kPyftpdlib, remote_.path(), quirk);
    if (!problem.empty()) {
      skipped_ = problem;
      return false;
    }
    return ftp_connect(&client_, server_.address().c_str()) == 0;
  }
  std::string skipped_;
};

// A greeting of several lines is one reply; a reply line longer than the
// client's buffer and a 227 reply without parentheses are refused.
TEST_F(FtpOddServerTest, OddRepliesAreReadOrRefused) {
  struct Case {
    const char* quirk;
    int login, get;
  };
  const Case cases[] = {
      {"multiline-greeting", 0, 0},
      {"long-greeting", ERR_FTP_REPLY_TOO_LONG, 0},
      {"bad-pasv", 0, ERR_FTP_BAD_PASV_REPLY},
  };
  vektest::write_file(remote_.file("a.txt"), "a");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.quirk);
    if (!start(c.quirk)) GTEST_SKIP() << skipped_;
    const std::string local = local_.file(std::string(c.quirk) + ".txt");
    EXPECT_EQ(c.login, ftp_login(client_, "tester", "secret"));
    if (c.login == 0) {
      EXPECT_EQ(c.get, ftp_get(client_, "a.txt", local.c_str()));
    }
    EXPECT_EQ(c.get == 0 && c.login == 0 ? "a" : "", exists(local) ? vektest::read_file(local) : "");
    disconnect();
  }
}

// Sends a signal to the server once a download has brought 256 KiB.
struct SignalAtQuarterMegabyte {
  pid_t pid;
  int signal;
  bool sent = false;
  static void on_progress(long long bytes, void* custom) {
    auto* s = static_cast<SignalAtQuarterMegabyte*>(custom);
    if (!s->sent && bytes >= (256 << 10)) s->sent = kill(s->pid, s->signal) == 0;
  }
};

// The server is killed while it sends: the call fails and keeps what came.
TEST_F(FtpOddServerTest, ServerDyingMidTransferKeepsThePartialFile) {
  if (!start("slow")) GTEST_SKIP() << skipped_;
  ASSERT_EQ(0, ftp_login(client_, "tester", "secret"));
  const long long size = 8LL << 20;  // 16 s at the server's pace: it dies long before
  write_pattern(remote_.file("big.bin"), size, 7);
  SignalAtQuarterMegabyte killer{server_.pid(), SIGKILL};
  ASSERT_EQ(0, ftp_set_progress_callback(client_, SignalAtQuarterMegabyte::on_progress, &killer));
  const std::string local = local_.file("big.bin");
  EXPECT_LT(ftp_get(client_, "big.bin", local.c_str()), 0) << "a dead server cannot have confirmed the transfer";
  EXPECT_TRUE(killer.sent);
  EXPECT_GE(std::filesystem::file_size(local), 256u << 10);
  EXPECT_LT(std::filesystem::file_size(local), static_cast<uintmax_t>(size));
}

// Missing handles and names, line breaks that would smuggle a command, and
// a server that is not there: refused before anything reaches the wire.
TEST_F(FtpPeerTest, BadArgumentsNeverReachTheServer) {
  const std::string problem = server_.start(Server::kVsftpd, remote_.path());
  if (!problem.empty()) GTEST_SKIP() << problem;
  vektest::write_file(remote_.file("keep.txt"), "keep");
  void* refused = reinterpret_cast<void*>(1);  // must come back null
  const std::string closed = "127.0.0.1:" + std::to_string(vektest::free_tcp_port());  // nothing listens
  EXPECT_LT(ftp_connect(&refused, closed.c_str()), 0);
  EXPECT_EQ(nullptr, refused);
  const int kHandle = ERR_INVALID_HANDLE, kParameter = ERR_INVALID_PARAMETER;
  struct Case {
    const char* what;
    int rc, expected;
  };
  const Case cases[] = {
      {"connect without handle", ftp_connect2(nullptr, "127.0.0.1:21", 0), kHandle},
      {"connect without host", ftp_connect(&refused, nullptr), kParameter},
      {"get", ftp_get(nullptr, "a", "b"), kHandle},
      {"progress", ftp_set_progress_callback(nullptr, nullptr, nullptr), kHandle},
  };
  for (const Case& c : cases) EXPECT_EQ(c.expected, c.rc) << c.what;
  EXPECT_EQ(nullptr, refused);
  ASSERT_EQ(0, ftp_connect(&client_, server_.address().c_str()));
  const Case named[] = {
      {"login without user", ftp_login(client_, nullptr, "p"), kParameter},
      {"login without password", ftp_login(client_, "u", nullptr), kParameter},
      {"user with a line break", ftp_login(client_, "anonymous\r\nDELE keep.txt", "x"), kParameter},
      {"login", ftp_login(client_, "anonymous", "x@y"), 0},
      {"put without local name", ftp_put(client_, nullptr, "b"), kParameter},
      {"put without remote name", ftp_put(client_, "a", nullptr), kParameter},
      {"get without remote name", ftp_get(client_, nullptr, "b"), kParameter},
      {"get without local name", ftp_get(client_, "a", nullptr), kParameter},
      {"del without name", ftp_del(client_, nullptr), kParameter},
      {"name with a line break", ftp_del(client_, "nothing\r\nDELE keep.txt"), kParameter},
  };
  for (const Case& c : named) EXPECT_EQ(c.expected, c.rc) << c.what;
  EXPECT_TRUE(exists(remote_.file("keep.txt")));
}

// ---- the command-line tool -------------------------------------------------

TEST(FtpToolTest, GetPutDelThroughTheTool) {
  const std::string tool = vektest::tool_path();
  if (tool.empty()) GTEST_SKIP() << "the vekutil tool is not built";
  vektest::TempDir root, local;
  FtpServer server;
  const std::string problem = server.start(Server::kVsftpd, root.path());
  if (!problem.empty()) GTEST_SKIP() << problem;
  const std::string url = "ftp://" + server.address() + "/";
  write_pattern(local.file("payload.bin"), 300000, 3);
  struct Case {
    std::vector<std::string> args;
    int exit_code;
  };
  const Case cases[] = {
      {{"put", url, local.file("payload.bin")}, 0},
      {{"get", url + "payload.bin", local.file("copy.bin"), "--active"}, 0},
      {{"get", "ftp://anonymous:x%40y@" + server.address() + "/payload.bin", local.file("copy2.bin")}, 0},
      {{"del", url + "payload.bin"}, 0},
      {{"del", url + "payload.bin"}, 1},
      {{"get", "ftp://intruder:pw@" + server.address() + "/x", local.file("x")}, 1},
      {{"get", "http://" + server.address() + "/x"}, 2},
      {{"fetch", url + "x"}, 2},
      {{"put", url + "x"}, 2},
      {{"--help"}, 0},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv = {tool, "ftp"};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    EXPECT_EQ(c.exit_code, vektest::run_program(argv)) << testing::PrintToString(c.args);
  }
  EXPECT_TRUE(same_file(local.file("payload.bin"), local.file("copy.bin")));
  EXPECT_TRUE(same_file(local.file("payload.bin"), local.file("copy2.bin")));
  EXPECT_FALSE(exists(root.file("payload.bin")));
}

}  // namespace
