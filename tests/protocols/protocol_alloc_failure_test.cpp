// The protocol modules with their 1st, 2nd, ... allocation failing: a whole
// FTP session (server and client both from this library), HTTP exchanges
// against a real server and syslog sends. Each gives a failure result, never
// crashes, and once everything is stopped and deleted nothing is left behind.
#include <atomic>
#include <memory>

#include "alloc_failure.hpp"
#include "ftp_fixture.hpp"
#include "http_peers.hpp"

namespace {

using vektest::for_each_allocation_failure;

// Sessions and worker threads end a moment after the calls that end them
// return: waits (bounded) until nothing but kept tree nodes differs.
void settle(const vektest::BlockCensus& start) {
  for (int i = 0; i < 300 && !vektest::block_changes(start).empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

class ProtocolAllocFailureTest : public vektest::AllocFailureFixture {
 protected:
  static void SetUpTestSuite() { ftptest::warm_up_sockets(); }
};

// ---- FTP: a server, a refused login, transfers, a listing, directory commands.

class FtpAllocFailureTest : public ProtocolAllocFailureTest {
 protected:
  void SetUp() override {
    ProtocolAllocFailureTest::SetUp();
    ASSERT_EQ(0, socket_async_default_init(socket_get_fd_setsize(), 0, 2000));
    ftp_command_init();
    root_ = dir_.path() + "/root";
    ASSERT_EQ(0, directory_create(root_.c_str()));
    vektest::write_file(root_ + "/keep.txt", "listed\n");
    upload_ = dir_.file("upload.bin");
    download_ = dir_.file("download.bin");
    std::string content;
    for (int i = 0; i < 3000; ++i) content += "line " + std::to_string(i) + "\n";
    vektest::write_file(upload_, content);
    // The default acceptor's descriptor table is made when it first waits
    // on a socket and kept: one session before anything is counted.
    ASSERT_TRUE(session(nullptr));
  }
  void TearDown() override {
    ftp_command_uninit();
    socket_async_default_uninit();
    ProtocolAllocFailureTest::TearDown();
  }

  // True when every step succeeded; then waits for the blocks to come back to *start (when given).
  bool session(const vektest::BlockCensus* start) {
    void* server = nullptr;
    int rc = ftp_server_start(&server, 0, root_.c_str(), ftptest::accounts, nullptr, nullptr);
    if (rc != 0) {
      EXPECT_TRUE(rc == ERR_NO_MEMORY || rc == ERR_SYSTEM) << rc;
      EXPECT_EQ(nullptr, server);
      if (start) settle(*start);
      return false;
    }
    const int port = static_cast<_FTP_SERVER_OBJECT*>(server)->port;
    const std::string address = "127.0.0.1:" + std::to_string(port);
    bool ok = client_session(address) && raw_commands(port);
    ftp_server_stop(server);
    if (start) settle(*start);
    std::remove(download_.c_str());
    return ok;
  }

  bool client_session(const std::string& address) {
    void* client = nullptr;
    int rc = ftp_connect(&client, address.c_str());
    if (rc != 0) {
      EXPECT_EQ(nullptr, client);
      return false;
    }
    // A wrong password first: refused, the session goes on.
    bool ok = ftp_login(client, "writer", "wrong") == ERR_FTP_LOGIN_FAILED;
    ftp_disconnect(client);
    client = nullptr;
    if (!ok || ftp_connect(&client, address.c_str()) != 0) return false;
    ok = ftp_login(client, "admin", "pw") == 0 && ftp_put(client, upload_.c_str(), "up.bin") == 0 &&
         ftp_get(client, "up.bin", download_.c_str()) == 0 && ftp_del(client, "up.bin") == 0;
    if (ok) {
      EXPECT_EQ(vektest::read_file(upload_), vektest::read_file(download_));
    }
    ftp_disconnect(client);
    return ok;
  }

  // A listing, then directory and name commands, over a raw control
  // connection (the client has neither): true when every reply is a positive
  // one (1xx/2xx, 3xx for RNFR) and the listing arrived.
  bool raw_commands(int port) {
    ftptest::Control control(port);
    if (!control.ok() || control.greeting() != "220 FTP server ready\r\n" || !control.login("admin")) return false;
    ftptest::Transfer list = ftptest::passive_transfer(control, "LIST", kReplyWait);
    if (list.opened.rfind("125", 0) != 0 || list.done.rfind("226", 0) != 0) return false;
    EXPECT_NE(std::string::npos, list.data.find("keep.txt")) << list.data;
    for (const char* command : {"MKD made", "CWD made", "PWD", "CDUP", "RNFR made", "RNTO renamed", "CWD /renamed",
                                "CWD ..", "RMD renamed", "TYPE A", "NOOP"}) {
      std::string reply = control.cmd(command, kReplyWait);
      if (reply.empty() || (reply[0] != '2' && reply[0] != '3')) return false;
    }
    return control.cmd("QUIT", kReplyWait).rfind("221", 0) == 0;
  }

  static constexpr int kReplyWait = 2000;
  vektest::TempDir dir_;
  std::string root_, upload_, download_;
};

TEST_F(FtpAllocFailureTest, WholeSession) {
  vektest::BlockCensus start = vektest::take_block_census();
  int runs = for_each_allocation_failure([&] { return session(&start); }, 20000);
  EXPECT_GT(runs, 50);
}

// Stopping a server with a client logged in ends every session, whichever allocation failed while
// it was set up; a stop that hangs is reported (and released by closing the client).
TEST_F(FtpAllocFailureTest, StopWithClientConnected) {
  vektest::BlockCensus start = vektest::take_block_census();
  for_each_allocation_failure([&] {
    void* server = nullptr;
    int rc = ftp_server_start(&server, 0, root_.c_str(), ftptest::accounts, nullptr, nullptr);
    if (rc != 0) {
      settle(start);
      return false;
    }
    auto control = std::make_unique<ftptest::Control>(static_cast<_FTP_SERVER_OBJECT*>(server)->port);
    bool ok = control->ok() && control->greeting() == "220 FTP server ready\r\n" && control->login("reader");
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
      ftp_server_stop(server);
      stopped = true;
    });
    for (int i = 0; i < 500 && !stopped; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(stopped.load()) << "ftp_server_stop waits for a session it cannot reach";
    control.reset();
    stopper.join();
    settle(start);
    return ok;
  });
}

// ---- HTTP: GET with a length, a chunked GET and a POST against Python's http.server.

TEST_F(ProtocolAllocFailureTest, HttpExchanges) {
  vektest::TempDir dir;
  httptest::PythonPeer peer(dir);
  ASSERT_TRUE(peer.ok());
  struct Case {
    const char* path;
    int method;
    const char* data;
    const char* expected_body_start;
  };
  const Case cases[] = {
      {"/echo?x=1", HTTP_METHOD_GET, nullptr, "GET /echo?x=1 HTTP/1.1"},
      {"/chunked", HTTP_METHOD_GET, nullptr, ""},
      {"/echo", HTTP_METHOD_POST, "name=value&other=thing", "POST /echo HTTP/1.1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const std::string url = peer.url(c.path);
    for_each_allocation_failure([&] {
      HTTP_REQUEST* request = nullptr;
      HTTP_RESPONSE* response = nullptr;
      int rc = http_request_create(&request);
      if (rc == 0) rc = http_response_create(&response);
      bool ok = false;
      if (rc == 0) {
        request->url = url.c_str();
        request->method = c.method;
        request->data = c.data;
        request->data_len = c.data ? (int)std::strlen(c.data) : 0;
        request->timeout = 2000;
        rc = http_client(request, response);
        ok = rc == 0;
        if (ok) {
          EXPECT_EQ(200, response->status);
          EXPECT_EQ(0, std::string(response->data ? response->data : "").rfind(c.expected_body_start, 0));
        }
      }
      EXPECT_TRUE(ok || rc < 0) << rc;
      if (response) http_response_delete(response);
      if (request) http_request_delete(request);
      return ok;
    });
  }
}

// ---- syslog: sends, and a collector created and deleted with its allocations failing.

TEST_F(ProtocolAllocFailureTest, SyslogSendsAndCollector) {
  for_each_allocation_failure([] {
    int rc = syslog_remote_ex("127.0.0.1:9", 1, 5, 1700000000000LL, "alloc host", "a message that goes nowhere");
    if (rc != 0) {
      EXPECT_EQ(ERR_NO_MEMORY, rc);
    }
    return rc == 0;
  });
  for_each_allocation_failure([] {
    void* collector = nullptr;
    int rc = syslog_collector_create(&collector, 0, [](int, int, long long, const char*, const char*, void*) {},
                                     nullptr);
    if (rc != 0) {
      EXPECT_TRUE(rc == ERR_NO_MEMORY || rc == ERR_SYSTEM) << rc;
      return false;
    }
    std::string address = "127.0.0.1:" + std::to_string(syslog_collector_port(collector));
    rc = syslog_remote(address.c_str(), 1, 5, "hello collector");
    EXPECT_TRUE(rc == 0 || rc == ERR_NO_MEMORY) << rc;
    syslog_collector_delete(collector);
    return rc == 0;
  });
}

}  // namespace
