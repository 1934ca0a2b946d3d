// FTP server over a raw control connection: exact replies of every built-in
// command per access level, session rules, callbacks, the command table,
// data connections with their formats and results, stopping live sessions.
// ctest-labels: tsan
#include <fcntl.h>
#include <sys/time.h>

#include <algorithm>
#include <regex>

#include "ftp_fixture.hpp"

namespace {

using namespace ftptest;

struct Step {
  const char* send;
  const char* expect;
};

const char* const kNoSuch = "550 No such file or directory.\r\n";
const char* const kNoBad = "550 No/Bad file or directory.\r\n";
const char* const kAuthFirst = "530 Please authenticate first !\r\n";
const char* const kNotTaken = "550 Requested action not taken.\r\n";
const char* const kCwdOk = "250 CWD command successful.\r\n";
const char* const kNoop = "250 NOOP command successful.\r\n";
const char* const kOpened = "125 Data connection open, Transfer starting.\r\n";

struct Script {
  const char* user;  // nullptr: no login
  std::vector<Step> steps;
};

// Each script runs on a fresh connection over a root holding a.txt and
// sub/inner.txt.
const Script kScripts[] = {
    {nullptr,
     {{"SYST", "215 UNIX Type: L8\r\n"},
      {"noop", "500 Invalid command noop \r\n"},
      {"NOOP", kNoop},
      {"ALLO 100", kNoop},
      {"SIZE a.txt", "550 SIZE command not supported.\r\n"},
      {"PWD", kAuthFirst},
      {"LIST", kAuthFirst},
      {"RETR a.txt", kAuthFirst},
      {"STOR x", kAuthFirst},
      {"RNTO x", kAuthFirst},
      {"REST 5", "250 REST command successful.\r\n"},
      {"APPE", "250 APPE command successful.\r\n"},
      {"TYPE I", "200 Type set to BINARY.\r\n"},
      {"TYPE A", "200 Type set to ASCII.\r\n"},
      {"TYPE E", nullptr},  // no reply at all: the next line answers NOOP
      {"NOOP", kNoop},
      {"CDUP", "250 CDUP command successful.\r\n"},
      {"PORT 10,1,2,3,4,1", "500 Illegal PORT command.\r\n"},
      {"PORT 127,0,0,1,300,1", "500 Illegal PORT command.\r\n"},
      {"PORT", "500 Illegal PORT command.\r\n"},
      {"PORT 127,0,0,1,4,1", "200 PORT command successful.\r\n"},
      {"PASS pw", "530 Login incorrect.\r\n"},
      {"USER nobody", "331 Password required\r\n"},
      {"PASS pw", "530 Login incorrect.\r\n"},
      {"QUIT", "221 Goodbye.\r\n"},
      {"NOOP", "<closed>"}}},
    {"reader",
     {{"PWD", "257 \"/\" is current directory.\r\n"},
      {"CWD sub", kCwdOk},
      {"PWD", "257 \"/sub/\" is current directory.\r\n"},
      {"CDUP", "250 CDUP command successful.\r\n"},
      {"CWD sub/", kCwdOk},
      {"XPWD", "257 \"/sub/\" is current directory.\r\n"},
      {"CWD ..", kCwdOk},
      {"XCWD /sub", kCwdOk},
      {"CWD /", kCwdOk},
      {"PWD", "257 \"/\" is current directory.\r\n"},
      {"CWD nosuch", kNoSuch},
      {"CWD a.txt", kNoSuch},
      {"CWD", kNoSuch},
      {"XCWD sub", kCwdOk},
      {"XCUP", "250 CDUP command successful.\r\n"},
      {"STOR x", kNotTaken},
      {"MKD d", kNotTaken},
      {"DELE a.txt", kNotTaken},
      {"RNFR a.txt", kNotTaken},
      {"RETR a.txt", "425 Can't open data connection.\r\n"},
      {"RETR ../a.txt", kNoSuch},
      {"RETR", kNoSuch},
      {"RETR nosuch", kNoSuch},
      {"RETR sub", kNoSuch}}},
    {"writer",
     {{"LIST", kNotTaken},
      {"PWD", kNotTaken},
      {"RETR a.txt", kNotTaken},
      {"MKD newdir", "257 mkd command successful.\r\n"},
      {"MKD newdir", "257 mkd command successful.\r\n"},
      {"XMKD /newdir2", "257 mkd command successful.\r\n"},
      {"MKD a/b/c", "550 Could not create directory (2).\r\n"},
      {"RMD newdir", "250 rmdir command successful.\r\n"},
      {"XRMD newdir2", "250 rmdir command successful.\r\n"},
      {"RMD newdir", kNoBad},
      {"RMD", kNoBad},
      {"RNTO b.txt", "550 RNFR must have been called first.\r\n"},
      {"RNFR a.txt", "350 RNFR command successful.\r\n"},
      {"RNTO b.txt", "250 RNTO command successful.\r\n"},
      {"RNFR nosuch", "350 RNFR command successful.\r\n"},
      {"RNTO other", "550 Rename failed.\r\n"},
      {"RNTO other", "550 RNFR must have been called first.\r\n"},
      {"DELE b.txt", "250 DELE command successful.\r\n"},
      {"DELE b.txt", kNoBad},
      {"DELE", kNoBad},
      {"STOR a:b", kNoSuch},
      {"STOR sub", "553 File name not allowed.\r\n"},
      {"STOR new.txt", "425 Can't open data connection.\r\n"}}},
    {"negative",  // a negative level from the callback: logged in as nobody
     {{"PWD", kNotTaken}, {"LIST", kNotTaken}}},
};

class FtpServerTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    vektest::write_file(path("a.txt"), "hello\n");
    directory_create(path("sub").c_str());
    vektest::write_file(path("sub/inner.txt"), "inner\n");
  }

  // The data of a passive transfer that must open with 125; the final reply goes to *done.
  std::string retrieve(Control& c, const std::string& command, std::string* done) {
    Transfer t = passive_transfer(c, command);
    EXPECT_EQ(kOpened, t.opened) << command;
    *done = t.done;
    return t.data;
  }
};

TEST_F(FtpServerTest, EveryBuiltInCommandRepliesExactlyPerAccessLevel) {
  start();
  for (const Script& script : kScripts) {
    SCOPED_TRACE(script.user ? script.user : "anonymous");
    vektest::write_file(path("a.txt"), "hello\n");
    Control c(port_);
    ASSERT_EQ("220 FTP server ready\r\n", c.greeting());
    if (script.user && std::strcmp(script.user, "negative") == 0) {
      EXPECT_EQ("331 Password required\r\n", c.cmd("USER negative"));
      EXPECT_EQ("530 Login incorrect.\r\n", c.cmd("PASS pw"));
    } else if (script.user) {
      ASSERT_TRUE(c.login(script.user));
    }
    for (const Step& step : script.steps) {
      if (!step.expect) {
        c.send_raw(std::string(step.send) + "\r\n");
        continue;
      }
      EXPECT_EQ(step.expect, c.cmd(step.send)) << step.send;
    }
  }
}

TEST_F(FtpServerTest, SessionRulesForLinesAndLogins) {
  start();
  {  // the longest line has 1022 characters before CR LF; one more ends the session
    Control c(port_);
    std::string word(1022, 'X');
    EXPECT_EQ("500 Invalid command " + word + " \r\n", c.cmd(word));
    EXPECT_EQ("<closed>", c.cmd(std::string(1023, 'X')));
  }
  {  // a bare CR LF ends the session; so does a line of blanks
    Control a(port_), b(port_);
    EXPECT_EQ("<closed>", a.cmd(""));
    EXPECT_EQ("<closed>", b.cmd("   "));
  }
  {  // five failed logins are tolerated, the sixth ends the session
    Control c(port_);
    for (int i = 0; i < 5; ++i) EXPECT_EQ("530 Login incorrect.\r\n", c.cmd("PASS wrong"));
    EXPECT_EQ(kNoop, c.cmd("NOOP"));
    EXPECT_EQ("530 Login incorrect.\r\n", c.cmd("PASS wrong"));
    EXPECT_EQ("<closed>", c.line());
  }
  {  // pipelined lines, a line in pieces, a LF without CR inside a line
    Control c(port_);
    c.send_raw("NOOP\r\nSYST\r\nCDUP\r\n");
    EXPECT_EQ(kNoop, c.line());
    EXPECT_EQ("215 UNIX Type: L8\r\n", c.line());
    EXPECT_EQ("250 CDUP command successful.\r\n", c.line());
    c.send_raw("NO");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    c.send_raw("OP\r\n");
    EXPECT_EQ(kNoop, c.line());
    EXPECT_EQ("500 Invalid command NO \r\n", c.cmd("NO\nOP"));  // the word ends at the LF
  }
}

TEST_F(FtpServerTest, CallbacksSeeCommandLineResultAndSession) {
  static std::vector<std::string> pre_lines;
  pre_lines.clear();
  start(record, [](const void*, const char* command, const char* line) {
    std::lock_guard<std::mutex> guard(g_seen_mutex);
    pre_lines.push_back(std::string(command) + "|" + line);
  });
  const std::vector<std::string> lines = {"USER  admin ", "USER admin",  "PASS wrong", "PASS pw",
                                         "CWD sub",      "RETR nosuch", "bogus arg",  "QUIT"};
  Control c(port_);
  for (const std::string& line : lines) c.cmd(line);
  EXPECT_EQ("<closed>", c.line());
  stop();  // every callback has returned
  std::vector<std::string> expected_pre;  // the word, and the whole line with its CR
  for (const std::string& line : lines) expected_pre.push_back(line.substr(0, line.find(' ')) + "|" + line + "\r");
  EXPECT_EQ(expected_pre, pre_lines);
  std::vector<Seen> s = seen();
  ASSERT_EQ(6u, s.size());  // no after-command call for the failed login or the unknown word
  EXPECT_EQ(" admin ", s[0].user);  // arguments keep inner blanks
  EXPECT_EQ("admin", s[1].user);
  EXPECT_EQ("PASS", s[2].command);
  EXPECT_EQ("CWD sub\r", s[3].line);
  EXPECT_EQ("/sub/", s[3].directory);
  EXPECT_EQ(ERR_FTP_BAD_PATH, s[4].result);
  EXPECT_EQ(0u, s[4].address.find("127.0.0.1:"));
  EXPECT_EQ("QUIT", s[5].command);
}

int say_hello(void* client, const char*, const char* args) {
  std::string text = std::string("200 hello ") + (args ? args : "nobody") + "\r\n";
  socket_send(static_cast<_FTP_CLIENT_OBJECT*>(client)->socket, text.c_str(), (int)text.size());
  return 7;
}

TEST_F(FtpServerTest, CommandTableRegistration) {
  // Registered before the first start: the built-in commands never arrive.
  ftp_command_register("HELLO", say_hello);
  start();
  {
    Control c(port_);
    EXPECT_EQ("200 hello world\r\n", c.cmd("HELLO world"));
    EXPECT_EQ("500 Invalid command NOOP \r\n", c.cmd("NOOP"));
  }
  stop();
  ftp_command_uninit();
  // Registered after: added to the built-ins, and the first name wins.
  start();
  ftp_command_register("HELLO", say_hello);
  ftp_command_register("NOOP", say_hello);
  ftp_command_register(nullptr, say_hello);
  ftp_command_register("X", nullptr);
  Control c(port_);
  EXPECT_EQ("200 hello nobody\r\n", c.cmd("HELLO"));
  EXPECT_EQ(kNoop, c.cmd("NOOP"));
  EXPECT_EQ("500 Invalid command hello \r\n", c.cmd("hello"));
}

TEST_F(FtpServerTest, RefusedArgumentsAndPublicAddress) {
  void* h = reinterpret_cast<void*>(1);
  EXPECT_EQ(ERR_INVALID_HANDLE, ftp_server_start(nullptr, 0, "/", nullptr, nullptr, nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, ftp_server_start(&h, 0, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(nullptr, h);
  EXPECT_EQ(ERR_INVALID_PARAMETER, ftp_server_set_public_ip(nullptr, "1.2.3.4"));
  EXPECT_EQ(nullptr, ftp_server_client_address(nullptr));
  EXPECT_EQ(nullptr, ftp_server_client_username(nullptr));
  EXPECT_EQ(nullptr, ftp_server_client_directory(nullptr));
  ftp_server_stop(nullptr);
  start();
  void* second = nullptr;  // the same port twice: the bind failure comes back
  EXPECT_NE(0, ftp_server_start(&second, (unsigned short)port_, root_.c_str(), nullptr, nullptr, nullptr));
  EXPECT_EQ(nullptr, second);

  Control c(port_);
  ASSERT_EQ(0, ftp_server_set_public_ip(server_, "10.0.0.5"));
  std::string r = c.cmd("PASV");
  EXPECT_TRUE(std::regex_match(r, std::regex("227 Entering Passive Mode \\(10,0,0,5,\\d+,\\d+\\)\r\n"))) << r;
  ASSERT_EQ(0, ftp_server_set_public_ip(server_, ""));
  r = c.cmd("PASV");
  EXPECT_TRUE(std::regex_match(r, std::regex("227 Entering Passive Mode \\(127,0,0,1,\\d+,\\d+\\)\r\n"))) << r;
  EXPECT_EQ(0, ftp_server_set_public_ip(server_, nullptr));
}

TEST_F(FtpServerTest, ListingFormatsDatesAndLargeSizes) {
  // A sparse file of 5 GiB, one from 200 days ago and a directory.
  int fd = open(path("big.bin").c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_EQ(0, ftruncate(fd, 5LL << 30));
  close(fd);
  vektest::write_file(path("old.txt"), "old");
  struct timeval old_times[2] = {{time(nullptr) - 200 * 86400, 0}, {time(nullptr) - 200 * 86400, 0}};
  utimes(path("old.txt").c_str(), old_times);
  start();
  Control c(port_);
  ASSERT_TRUE(c.login("reader"));
  std::string done;
  std::string list = retrieve(c, "LIST", &done);
  EXPECT_EQ("226 Transfer complete.\r\n", done);
  // Recent entries show the time, older ones the year.
  for (const char* line : {"-rw-rw-rw- 1 zu zu       5368709120 [A-Z][a-z]{2} [ 0-9]{2} \\d\\d:\\d\\d big.bin\r\n",
                           "-rw-rw-rw- 1 zu zu                3 [A-Z][a-z]{2} [ 0-9]{2} \\d{4} old.txt\r\n",
                           "drwxrwxrwx 1 zu zu                0 [A-Z][a-z]{2} [ 0-9]{2} \\d\\d:\\d\\d sub\r\n"})
    EXPECT_TRUE(std::regex_search(list, std::regex(line))) << line << "\n" << list;
  EXPECT_EQ(4, std::count(list.begin(), list.end(), '\n'));
  // A file argument filters; a directory argument lists it, each name looked
  // up in the current directory (inner.txt is not there, so it is skipped).
  list = retrieve(c, "LIST a.txt", &done);
  EXPECT_EQ(0u, list.find("-rw-rw-rw- 1 zu zu                6 ")) << list;
  EXPECT_EQ("", retrieve(c, "LIST sub", &done));
  EXPECT_EQ("226 Transfer complete.\r\n", done);
  // NLST: names; one matching directory lists its contents with a prefix.
  list = retrieve(c, "NLST", &done);
  for (const char* name : {"a.txt\r\n", "big.bin\r\n", "old.txt\r\n", "sub\r\n"})
    EXPECT_NE(std::string::npos, list.find(name)) << list;
  EXPECT_EQ("sub/inner.txt\r\n", retrieve(c, "NLST sub", &done));
  list = retrieve(c, "NLST *.txt", &done);
  EXPECT_TRUE(list == "a.txt\r\nold.txt\r\n" || list == "old.txt\r\na.txt\r\n") << list;
  EXPECT_EQ("", retrieve(c, "NLST *.none", &done));
  EXPECT_EQ("226 Transfer complete.\r\n", done);
  EXPECT_EQ("451 Requested action aborted: local error in processing.\r\n", c.cmd("LIST"));
}

TEST_F(FtpServerTest, TransfersAsciiBinaryRestAppendAndResults) {
  // ASCII: LF becomes CR LF, except a LF that opens a 4096-byte block.
  std::string text = std::string(4096, 'a') + "\nb\r\nc\n";
  vektest::write_file(path("text.txt"), text);
  start();
  Control c(port_);
  ASSERT_TRUE(c.login("admin"));
  std::string done;
  EXPECT_EQ(text, retrieve(c, "RETR text.txt", &done));
  EXPECT_EQ("226 [text.txt] Transfer complete.\r\n", done);
  c.cmd("TYPE A");
  EXPECT_EQ(std::string(4096, 'a') + "\nb\r\nc\r\n", retrieve(c, "RETR text.txt", &done));
  c.cmd("TYPE I");
  EXPECT_EQ("250 REST command successful.\r\n", c.cmd("REST 4097"));
  EXPECT_EQ("b\r\nc\n", retrieve(c, "RETR text.txt", &done));
  EXPECT_EQ(text, retrieve(c, "RETR text.txt", &done));  // REST applies once

  // STOR: 226 only when the client closes in order; a reset gives 552.
  auto store = [&](const std::string& name, const std::string& bytes, bool reset) {
    int fd = connect_passive(c.cmd("PASV"));
    EXPECT_EQ(kOpened, c.cmd("STOR " + name));
    ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (reset) {
      struct linger hard = {1, 0};
      setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    }
    close(fd);
    return c.line();
  };
  EXPECT_EQ("226 [up.bin] Transfer complete.\r\n", store("up.bin", "one\r\ntwo", false));
  EXPECT_EQ("one\r\ntwo", vektest::read_file(path("up.bin")));
  EXPECT_EQ("250 APPE command successful.\r\n", c.cmd("APPE"));
  EXPECT_EQ("226 [up.bin] Transfer complete.\r\n", store("up.bin", "+more", false));
  EXPECT_EQ("one\r\ntwo+more", vektest::read_file(path("up.bin")));
  c.cmd("TYPE A");
  EXPECT_EQ("226 [up.txt] Transfer complete.\r\n", store("up.txt", "x\r\ny\rz\r\n", false));
  EXPECT_EQ("x\ny\rz\n", vektest::read_file(path("up.txt")));
  c.cmd("TYPE I");
  EXPECT_EQ("552 [cut.bin] Transfer failed.\r\n", store("cut.bin", "partial", true));
  stop();
  std::vector<Seen> s = seen();
  auto failed = std::find_if(s.begin(), s.end(), [](const Seen& e) { return e.line == "STOR cut.bin\r"; });
  ASSERT_NE(s.end(), failed);
  EXPECT_LT(failed->result, 0);
}

TEST_F(FtpServerTest, DataConnectionsBelongToTheClient) {
  start();
  Control c(port_);
  ASSERT_TRUE(c.login("reader"));
  // A stranger (another loopback address) reaches the passive port first:
  // it is closed unused and the client's own connection gets the data.
  std::string r = c.cmd("PASV");
  unsigned p1 = 0, p2 = 0;
  ASSERT_EQ(2, sscanf(r.c_str(), "227 Entering Passive Mode (127,0,0,1,%u,%u)", &p1, &p2)) << r;
  int stranger = connect_loopback(static_cast<int>(p1 * 256 + p2), "127.0.0.2");
  ASSERT_GE(stranger, 0);
  c.send_raw("RETR a.txt\r\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  int own = connect_loopback(static_cast<int>(p1 * 256 + p2));
  ASSERT_GE(own, 0);
  EXPECT_EQ(kOpened, c.line());
  EXPECT_EQ("", read_all(stranger, 2000));
  EXPECT_EQ("hello\n", read_all(own));
  EXPECT_EQ("226 [a.txt] Transfer complete.\r\n", c.line());

  // Active mode to the client's own listener.
  int port = 0;
  int listener = listen_loopback(&port);
  ASSERT_GE(listener, 0);
  EXPECT_EQ("200 PORT command successful.\r\n",
            c.cmd("PORT 127,0,0,1," + std::to_string(port / 256) + "," + std::to_string(port % 256)));
  c.send_raw("RETR a.txt\r\n");
  EXPECT_EQ("150 Data connection open, Transfer starting.\r\n", c.line());
  int data = accept(listener, nullptr, nullptr);
  EXPECT_EQ("hello\n", read_all(data));
  EXPECT_EQ("226 [a.txt] Transfer complete.\r\n", c.line());
  close(listener);
  // Every transfer needs a fresh PORT or PASV.
  EXPECT_EQ("425 Can't open data connection.\r\n", c.cmd("RETR a.txt"));
}

TEST_F(FtpServerTest, IncompleteLineTimesOutAndStopEndsLiveSessions) {
  start();
  static_cast<_FTP_SERVER_OBJECT*>(server_)->timeout = 1000;  // the limit is 10 minutes
  Control idle(port_), partial(port_), busy(port_);
  partial.send_raw("NOO");
  EXPECT_EQ("<closed>", partial.line(10000));
  EXPECT_EQ(kNoop, idle.cmd("NOOP"));  // a silent session is never timed out
  ASSERT_TRUE(busy.login("reader"));
  busy.cmd("PASV");
  busy.send_raw("RETR a.txt\r\n");  // waits for a data connection that never comes
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  stop();  // returns once every session has ended
  EXPECT_EQ("<closed>", idle.line());
  std::string last;
  for (int i = 0; i < 3 && last != "<closed>"; ++i) last = busy.line();
  EXPECT_EQ("<closed>", last);
}

}  // namespace
