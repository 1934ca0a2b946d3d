// The FTP appliance end to end: accounts from its database, every access
// level and refused login, curl and Python's ftplib as clients, the metrics
// and syslog messages its collectors receive, SITE STATUS as JSON, settings
// files, and the user commands of the tool.
#include <condition_variable>
#include <filesystem>
#include <functional>

#include "../../tools/ftpd_appliance.cpp"
#include "ftp_fixture.hpp"
#include "raw_udp.hpp"

namespace {

using ftpd_appliance::Accounts;
using ftpd_appliance::Appliance;
using ftpd_appliance::Settings;

constexpr int kTestIterations = 1000;  // the hashing stays real, only cheaper

// Text lines gathered from a receiver thread, with a bounded wait.
class Inbox {
 public:
  void add(const std::string& text) {
    std::lock_guard<std::mutex> guard(mutex_);
    lines_.push_back(text);
    arrived_.notify_all();
  }
  // Waits up to 10 s for a line containing every needle.
  bool wait_for(const std::vector<std::string>& needles) {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::seconds(10), [&] {
      for (const std::string& line : lines_) {
        bool all = true;
        for (const std::string& n : needles) all = all && line.find(n) != std::string::npos;
        if (all) return true;
      }
      return false;
    });
  }
  // How often needle occurs in all lines.
  size_t count(const std::string& needle) {
    std::string all = dump();
    size_t n = 0;
    for (size_t at = all.find(needle); at != std::string::npos; at = all.find(needle, at + 1)) ++n;
    return n;
  }
  std::string dump() {
    std::lock_guard<std::mutex> guard(mutex_);
    std::string out;
    for (const std::string& line : lines_) out += line + "\n";
    return out;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::string> lines_;
};

// A statsd daemon stand-in: a plain UDP socket drained by a thread.
class StatsdCollector {
 public:
  void start() {
    thread_ = std::thread([this] {
      while (!done_)
        if (auto datagram = udp_.receive(100)) inbox.add(*datagram);
    });
  }
  void stop() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
  }
  ~StatsdCollector() { stop(); }
  std::string address() const { return udp_.address(); }
  Inbox inbox;

 private:
  vektest::RawUdp udp_;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

void on_syslog(int, int level, long long, const char*, const char* message, void* custom) {
  static_cast<Inbox*>(custom)->add("<" + std::to_string(level) + ">" + message);
}

// One whole session of an all-level account, with a failed login first and
// SITE STATUS last (printed); then eight sessions at once, each uploading and
// downloading its own file (the errors printed).
constexpr const char* kSessionsScript = R"PY(
import ftplib, io, sys, threading
port = int(sys.argv[1])
bad = ftplib.FTP()
bad.connect('127.0.0.1', port, timeout=20)
try:
    bad.login('admin', 'wrong')
except ftplib.error_perm:
    pass
bad.close()
f = ftplib.FTP()
f.connect('127.0.0.1', port, timeout=20)
f.login('admin', 'admin-pw')
f.storbinary('STOR up.txt', io.BytesIO(b'uploaded'))
f.retrbinary('RETR up.txt', lambda b: None)
f.rename('up.txt', 'moved.txt')
f.delete('moved.txt')
print(f.sendcmd('SITE STATUS'))
f.quit()
errors = []
def session(i):
    try:
        f = ftplib.FTP()
        f.connect('127.0.0.1', port, timeout=30)
        f.login('admin', 'admin-pw')
        f.storbinary('STOR p%d.bin' % i, io.BytesIO(bytes([i]) * (100000 + i)))
        got = []
        f.retrbinary('RETR p%d.bin' % i, got.append)
        if b''.join(got) != bytes([i]) * (100000 + i):
            errors.append('content %d' % i)
        f.quit()
    except Exception as e:
        errors.append(repr(e))
threads = [threading.Thread(target=session, args=(i,)) for i in range(8)]
for t in threads: t.start()
for t in threads: t.join()
print('errors:', errors)
)PY";

class ApplianceTest : public vektest::LeakCheckedTest {
 protected:
  static void SetUpTestSuite() {
    ftptest::warm_up_sockets();
    sqlite_init();
  }

  void SetUp() override {
    vektest::LeakCheckedTest::SetUp();
    settings_.db = dir_.file("ftp.db");
    settings_.root = dir_.file("root");
    settings_.port = 0;
    settings_.iterations = kTestIterations;
    std::filesystem::create_directories(settings_.root);
    vektest::write_file(settings_.root + "/hello.txt", "hello\n");
    Accounts accounts;
    accounts.set_iterations(kTestIterations);
    std::string error;
    ASSERT_TRUE(accounts.open(settings_.db, &error)) << error;
    for (const auto& [name, level] : std::vector<std::pair<std::string, int>>{
             {"reader", FTP_ACCESS_READ}, {"writer", FTP_ACCESS_WRITE}, {"admin", FTP_ACCESS_ALL},
             {"gone", FTP_ACCESS_ALL}}) {
      ASSERT_TRUE(accounts.add(name, name + "-pw", level, &error)) << error;
    }
    ASSERT_TRUE(accounts.disable("gone", &error)) << error;
  }

  void TearDown() override {
    appliance_.stop();
    statsd_.stop();
    if (syslog_) syslog_collector_delete(syslog_);
    vektest::LeakCheckedTest::TearDown();
  }

  void start_with_collectors() {
    statsd_.start();
    ASSERT_EQ(0, syslog_collector_create(&syslog_, 0, on_syslog, &events_));
    settings_.statsd = statsd_.address();
    settings_.syslog = "127.0.0.1:" + std::to_string(syslog_collector_port(syslog_));
    start();
  }

  void start() {
    std::string error;
    ASSERT_TRUE(appliance_.start(settings_, &error)) << error;
    port_ = appliance_.port();
  }

  std::string url(const std::string& path = "") const {
    return "ftp://127.0.0.1:" + std::to_string(port_) + "/" + path;
  }

  int curl(const std::string& user, std::vector<std::string> args, std::string* out) {
    std::vector<std::string> argv = {"curl", "-sS", "--max-time", "30", "--user", user};
    argv.insert(argv.end(), args.begin(), args.end());
    return vektest::run_program(argv, out);
  }

  vektest::TempDir dir_;
  Settings settings_;
  Appliance appliance_;
  StatsdCollector statsd_;
  Inbox events_;
  void* syslog_ = nullptr;
  int port_ = 0;
};

std::string object_text(JSON* object, const char* key) {
  const char* text = json_GetObjectItemAsString(object, key);
  return text ? text : "<missing>";
}

// Each account's level decides which commands run: an allowed transfer
// fails for want of a data connection (4xx), a refused one with 550.
TEST_F(ApplianceTest, EachAccessLevelAndOneAnswerForEveryRefusedLogin) {
  start();
  struct Case {
    const char* user;
    const char* password;
    const char* login;
    std::vector<const char*> replies;  // to LIST, RETR, STOR and SITE STATUS (the last)
  };
  const Case cases[] = {
      {"reader", "reader-pw", "230 User logged in.\r\n", {"4", "4", "550 ", "550 "}},
      {"writer", "writer-pw", "230 User logged in.\r\n", {"550 ", "550 ", "4", "550 "}},
      {"admin", "admin-pw", "230 User logged in.\r\n", {"4", "4", "4", "211-"}},
      {nullptr, nullptr, nullptr, {"530 ", "530 ", "530 ", "530 "}},
      {"reader", "wrong", "530 Login incorrect.\r\n", {}},
      {"gone", "gone-pw", "530 Login incorrect.\r\n", {}},
      {"nobody", "nobody-pw", "530 Login incorrect.\r\n", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.user ? std::string(c.user) + ":" + c.password : "no login");
    ftptest::Control control(port_);
    ASSERT_TRUE(control.ok());
    if (c.user) {
      control.cmd(std::string("USER ") + c.user);
      EXPECT_EQ(c.login, control.cmd(std::string("PASS ") + c.password));
    }
    const char* commands[] = {"LIST", "RETR hello.txt", "STOR up.txt", "SITE STATUS"};
    for (size_t k = 0; k < c.replies.size(); ++k) {
      const std::string reply = control.cmd(commands[k]);
      EXPECT_EQ(0u, reply.rfind(c.replies[k], 0)) << commands[k] << ": " << reply;
    }
  }
  ftptest::Control control(port_);
  control.cmd("USER admin");
  control.cmd("PASS admin-pw");
  EXPECT_EQ(0u, control.cmd("SITE CHMOD 777 x").rfind("504 ", 0));
}

TEST_F(ApplianceTest, CurlListsDownloadsAndUploadsWithDatabaseAccounts) {
  if (!vektest::have_program("curl")) GTEST_SKIP() << "no curl";
  std::string data(1 << 20, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 2654435761u) >> 13);
  vektest::write_file(settings_.root + "/data.bin", data);
  std::filesystem::create_directories(settings_.root + "/sub");
  start();
  std::string out;
  ASSERT_EQ(0, curl("reader:reader-pw", {url()}, &out)) << out;
  EXPECT_NE(std::string::npos, out.find(" 1048576 ")) << out;
  EXPECT_NE(std::string::npos, out.find("drwxrwxrwx 1 zu zu                0 ")) << out;
  for (const std::vector<std::string>& mode : {std::vector<std::string>{}, {"--ftp-port", "127.0.0.1"}}) {
    SCOPED_TRACE(mode.empty() ? "passive" : "active");
    // SIZE is refused with a 550, which curl takes for a missing file unless told not to ask.
    std::vector<std::string> get = mode, put = mode;
    get.insert(get.end(), {"--ignore-content-length", url("data.bin")});
    std::string body;
    ASSERT_EQ(0, curl("reader:reader-pw", get, &body));
    EXPECT_TRUE(body == data) << "download differs";
    put.insert(put.end(), {"-T", settings_.root + "/data.bin", url("put.bin")});
    ASSERT_EQ(0, curl("writer:writer-pw", put, &out)) << out;
    EXPECT_TRUE(vektest::read_file(settings_.root + "/put.bin") == data) << "upload differs";
    std::filesystem::remove(settings_.root + "/put.bin");
  }
  // curl's "login denied" for a wrong password, a disabled and an unknown user.
  for (const char* user : {"reader:nope", "gone:gone-pw", "nobody:x"}) {
    SCOPED_TRACE(user);
    EXPECT_EQ(67, vektest::run_program({"curl", "-s", "--max-time", "30", "--user", user, url()}, &out));
  }
  // The successful logins were recorded.
  std::vector<ftpd_appliance::AccountRow> rows;
  std::string error;
  ASSERT_TRUE(appliance_.accounts().list(&rows, &error)) << error;
  for (const auto& row : rows)
    EXPECT_EQ(row.name == "reader" || row.name == "writer", row.last_login > 0) << row.name;
}

// Every login, command and transfer is counted and reported once, with its
// own session's address and user, also when sessions run at once.
TEST_F(ApplianceTest, MetricsEventsAndStatusOfOneSessionThenEightAtOnce) {
  start_with_collectors();
  std::string out;
  ASSERT_EQ(0, ftptest::run_python(kSessionsScript, {std::to_string(port_)}, &out)) << out;
  const size_t errors = out.rfind("errors: ");
  ASSERT_NE(std::string::npos, errors) << out;
  EXPECT_EQ("errors: []\n", out.substr(errors));

  for (const char* metric : {"ftp.login.failed:1|c", "ftp.cmd.RETR.ok:1|c", "ftp.cmd.RNTO.ok:1|c",
                             "ftp.cmd.DELE.ok:1|c", "ftp.cmd.SITE.ok:1|c", "ftp.sessions:1|g"})
    EXPECT_TRUE(statsd_.inbox.wait_for({metric})) << metric << "\n" << statsd_.inbox.dump();
  EXPECT_TRUE(statsd_.inbox.wait_for({"ftp.transfer.STOR:", "|ms"})) << statsd_.inbox.dump();
  EXPECT_TRUE(statsd_.inbox.wait_for({"ftp.transfer.RETR:", "|ms"})) << statsd_.inbox.dump();
  // The last metric of each session may still be on its way.
  for (int round = 0; round < 200 && statsd_.inbox.count("ftp.transfer.RETR:") < 9; ++round)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  for (const char* metric : {"ftp.login.ok:1|c", "ftp.cmd.STOR.ok:1|c", "ftp.transfer.STOR:", "ftp.transfer.RETR:"})
    EXPECT_EQ(9u, statsd_.inbox.count(metric)) << metric;

  std::vector<std::string> events = {
      "<4>ftpd: failed login user admin from 127.0.0.1:", "<6>ftpd: login user admin from 127.0.0.1:",
      "<6>ftpd: upload /up.txt user admin from 127.0.0.1:", "<6>ftpd: download /up.txt user admin from 127.0.0.1:",
      "<6>ftpd: rename /up.txt to /moved.txt user admin from 127.0.0.1:",
      "<6>ftpd: delete /moved.txt user admin from 127.0.0.1:"};
  for (int i = 0; i < 8; ++i) {
    const std::string name = "/p" + std::to_string(i) + ".bin user admin from 127.0.0.1:";
    events.push_back("<6>ftpd: upload " + name);
    events.push_back("<6>ftpd: download " + name);
  }
  for (const std::string& event : events) EXPECT_TRUE(events_.wait_for({event})) << event << "\n" << events_.dump();

  // SITE STATUS: 211 first and last, one JSON document between them.
  ASSERT_EQ(0u, out.rfind("211-", 0)) << out;
  size_t first_end = out.find('\n');
  size_t last = out.rfind("\n211 ");
  ASSERT_NE(std::string::npos, last) << out;
  JSON* status = json_Parse(out.substr(first_end + 1, last - first_end - 1).c_str());
  ASSERT_NE(nullptr, status) << out;
  JSON* sessions = json_GetObjectItem(status, "sessions");
  ASSERT_EQ(1, json_GetArraySize(sessions)) << out;
  EXPECT_EQ("admin", object_text(json_GetArrayItem(sessions, 0), "user"));
  EXPECT_EQ("all", object_text(json_GetArrayItem(sessions, 0), "level"));
  JSON* sockets = json_GetObjectItem(status, "sockets");
  ASSERT_GE(json_GetArraySize(sockets), 2) << out;  // titles and the control connection at least
  EXPECT_EQ("Hash", std::string(json_GetArrayItemAsString(json_GetArrayItem(sockets, 0), 0)));
  long long* blocks = json_GetObjectItemAsLongLong(json_GetObjectItem(status, "memory"), "blocks");
  ASSERT_NE(nullptr, blocks) << out;
  EXPECT_GT(*blocks, 0);
  json_Delete(status);
}

TEST_F(ApplianceTest, RefusedStartsLeaveNothingRunning) {
  start();
  struct Case {
    const char* name;
    std::function<void(Settings*)> change;
    const char* error;
  };
  const std::vector<Case> cases = {
      {"second appliance", [](Settings*) {}, "another FTP appliance"},
      {"no database", [](Settings* s) { s->db.clear(); }, "no accounts database"},
      {"database in a missing folder", [&](Settings* s) { s->db = dir_.file("none/x.db"); }, "x.db"},
      {"statsd without port", [](Settings* s) { s->statsd = "127.0.0.1"; }, "bad address"},
      {"statsd port zero", [](Settings* s) { s->statsd = "127.0.0.1:0"; }, "bad address"},
      {"syslog port text", [](Settings* s) { s->syslog = "127.0.0.1:syslog"; }, "bad address"},
      {"syslog port too big", [](Settings* s) { s->syslog = "127.0.0.1:65536"; }, "bad address"},
  };
  Appliance second;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Settings settings = settings_;
    c.change(&settings);
    std::string error;
    EXPECT_FALSE(second.start(settings, &error));
    EXPECT_NE(std::string::npos, error.find(c.error)) << error;
    EXPECT_FALSE(second.running());
  }
  // The first one still serves.
  ftptest::Control control(port_);
  EXPECT_EQ(0u, control.greeting().rfind("220 ", 0));
  appliance_.stop();
  // A port some other listener holds refuses the next start.
  int held_port = 0;
  int holder = ftptest::listen_loopback(&held_port);
  ASSERT_GE(holder, 0);
  Settings taken = settings_;
  taken.port = held_port;
  std::string error;
  EXPECT_FALSE(second.start(taken, &error));
  EXPECT_NE(std::string::npos, error.find("cannot listen on port")) << error;
  EXPECT_FALSE(second.running());
  close(holder);
}

// ---- accounts and settings without a server ---------------------------------

class AccountsTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    vektest::LeakCheckedTest::SetUp();
    accounts_.set_iterations(kTestIterations);
    std::string error;
    ASSERT_TRUE(accounts_.open(dir_.file("a.db"), &error)) << error;
  }
  void TearDown() override {
    accounts_.close();
    vektest::LeakCheckedTest::TearDown();
  }
  vektest::TempDir dir_;
  Accounts accounts_;
};

TEST_F(AccountsTest, ManagementOutcomes) {
  std::string error;
  ASSERT_TRUE(accounts_.add("ann", "first", FTP_ACCESS_WRITE, &error)) << error;
  // Each refused change, with the reason it gives.
  const std::vector<std::pair<std::function<bool(std::string*)>, const char*>> refusals = {
      {[&](std::string* e) { return accounts_.add("ann", "x", FTP_ACCESS_READ, e); }, "user ann already exists"},
      {[&](std::string* e) { return accounts_.add("a b", "x", FTP_ACCESS_READ, e); }, "bad user name"},
      {[&](std::string* e) { return accounts_.add("o'neil", "x", FTP_ACCESS_READ, e); }, "bad user name"},
      {[&](std::string* e) { return accounts_.add("", "x", FTP_ACCESS_READ, e); }, "bad user"},
      {[&](std::string* e) { return accounts_.add("bob", "", FTP_ACCESS_READ, e); }, "empty password"},
      {[&](std::string* e) { return accounts_.set_password("zed", "x", e); }, "no user zed"},
      {[&](std::string* e) { return accounts_.disable("zed", e); }, "no user zed"},
      {[&](std::string* e) { return accounts_.remove("zed", e); }, "no user zed"},
  };
  for (const auto& [change, reason] : refusals) {
    SCOPED_TRACE(reason);
    error.clear();
    EXPECT_FALSE(change(&error));
    EXPECT_NE(std::string::npos, error.find(reason)) << error;
  }

  EXPECT_EQ(FTP_ACCESS_WRITE, accounts_.authenticate("ann", "first"));
  EXPECT_EQ(FTP_ACCESS_NONE, accounts_.authenticate("ann", "First"));
  EXPECT_EQ(FTP_ACCESS_NONE, accounts_.authenticate("ann' OR '1'='1", "first"));
  ASSERT_TRUE(accounts_.set_password("ann", "second", &error)) << error;
  EXPECT_EQ(FTP_ACCESS_NONE, accounts_.authenticate("ann", "first"));
  EXPECT_EQ(FTP_ACCESS_WRITE, accounts_.authenticate("ann", "second"));
  ASSERT_TRUE(accounts_.disable("ann", &error)) << error;
  EXPECT_EQ(FTP_ACCESS_NONE, accounts_.authenticate("ann", "second"));
  // A new password enables the account again.
  ASSERT_TRUE(accounts_.set_password("ann", "third", &error)) << error;
  EXPECT_EQ(FTP_ACCESS_WRITE, accounts_.authenticate("ann", "third"));
  ASSERT_TRUE(accounts_.remove("ann", &error)) << error;
  EXPECT_EQ(FTP_ACCESS_NONE, accounts_.authenticate("ann", "third"));
}

TEST_F(AccountsTest, StoresASaltedPbkdf2HashNeverThePassword) {
  std::string error;
  ASSERT_TRUE(accounts_.add("ann", "same", FTP_ACCESS_READ, &error)) << error;
  ASSERT_TRUE(accounts_.add("bob", "same", FTP_ACCESS_READ, &error)) << error;
  accounts_.close();
  void* db = nullptr;
  ASSERT_EQ(0, sqlite_create(&db));
  ASSERT_EQ(0, sqlite_open(db, dir_.file("a.db").c_str()));
  SQLITE_RESULT* rows = sqlite_select(db, "SELECT name, salt, hash, iterations FROM accounts ORDER BY name");
  ASSERT_NE(nullptr, rows);
  ASSERT_EQ(2, rows->nrows);
  for (int r = 0; r < 2; ++r) {
    std::vector<unsigned char> salt;
    ASSERT_TRUE(ftpd_appliance::from_hex(sqlite_element(rows, r, 1), &salt));
    EXPECT_EQ(16u, salt.size());
    EXPECT_EQ(std::to_string(kTestIterations), sqlite_element(rows, r, 3));
    // Recomputed here with OpenSSL directly.
    unsigned char hash[32];
    ASSERT_EQ(1, PKCS5_PBKDF2_HMAC("same", 4, salt.data(), 16, kTestIterations, EVP_sha256(), 32, hash));
    EXPECT_EQ(ftpd_appliance::to_hex(hash, 32), sqlite_element(rows, r, 2));
  }
  EXPECT_STRNE(sqlite_element(rows, 0, 1), sqlite_element(rows, 1, 1)) << "salts repeat";
  EXPECT_STRNE(sqlite_element(rows, 0, 2), sqlite_element(rows, 1, 2));
  sqlite_free(rows);
  SQLITE_RESULT* plain = sqlite_select(db, "SELECT count(*) FROM accounts WHERE salt LIKE '%%same%%' OR hash LIKE "
                                           "'%%same%%' OR name = 'same'");
  ASSERT_NE(nullptr, plain);
  EXPECT_STREQ("0", sqlite_element(plain, 0, 0));
  sqlite_free(plain);
  sqlite_delete(db);
}

TEST_F(AccountsTest, SettingsFiles) {
  struct Case {
    const char* name;
    const char* text;   // nullptr: no file
    const char* error;  // nullptr: accepted
  };
  const std::vector<Case> cases = {
      {"all keys",
       "{\"listen\": 2121, \"root\": \"r\", \"db\": \"d.db\", \"statsd\": \"127.0.0.1:8125\",\n"
       " \"syslog\": \"127.0.0.1:514\", \"public_ip\": \"127.0.0.1\", \"pbkdf2_iterations\": 5000}",
       nullptr},
      {"broken on line 3", "{\n  \"listen\": 21,\n  \"root\" \"x\"\n}", ":3:10: not valid JSON"},
      {"truncated", "{\"listen\": 21,", ":1:15: not valid JSON"},
      {"not an object", "[1, 2]", "must be one JSON object"},
      {"port as text", "{\"listen\": \"21\"}", "\"listen\" must be a port number"},
      {"port too big", "{\"listen\": 70000}", "\"listen\" must be a port number"},
      {"port fraction", "{\"listen\": 21.5}", "\"listen\" must be a port number"},
      {"root as number", "{\"root\": 5}", "\"root\" must be a string"},
      {"few iterations", "{\"pbkdf2_iterations\": 10}", "\"pbkdf2_iterations\" must be"},
      {"unknown key", "{\"lisen\": 21}", "unknown setting \"lisen\""},
      {"zero byte", "{\"root\": \"a\0b\"}", "not valid JSON"},
      {"no file", nullptr, "cannot read"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir_.file(std::string(c.name) + ".json");
    // The zero-byte case needs its full length written.
    if (c.text)
      std::ofstream(path, std::ios::binary)
          .write(c.text, std::string(c.name) == "zero byte" ? 15 : static_cast<std::streamsize>(std::strlen(c.text)));
    Settings settings;
    std::string error;
    bool ok = ftpd_appliance::load_config(path, &settings, &error);
    if (!c.error) {
      EXPECT_TRUE(ok) << error;
      EXPECT_EQ(2121, settings.port);
      EXPECT_EQ("r", settings.root);
      EXPECT_EQ("d.db", settings.db);
      EXPECT_EQ("127.0.0.1:8125", settings.statsd);
      EXPECT_EQ("127.0.0.1:514", settings.syslog);
      EXPECT_EQ("127.0.0.1", settings.public_ip);
      EXPECT_EQ(5000, settings.iterations);
    } else {
      EXPECT_FALSE(ok);
      EXPECT_NE(std::string::npos, error.find(c.error)) << error;
    }
  }
}

// ---- the tool's command line ---------------------------------------------------

TEST(ApplianceToolTest, UserCommandsConfigErrorsAndAServerThatStopsOnSignal) {
  const std::string tool = vektest::tool_path();
  if (tool.empty()) GTEST_SKIP() << "the vekutil tool is not built here";
  vektest::TempDir dir;
  const std::string db = dir.file("t.db");
  struct Case {
    std::vector<std::string> args;
    std::string input;
    int status;
    const char* output;
  };
  const std::vector<Case> cases = {
      {{"--help"}, "", 0, "--db FILE"},
      {{"--db", db, "user", "add", "ann", "--level", "all"}, "pw1\n", 0, "ann: add done"},
      {{"--db", db, "user", "add", "ann"}, "pw1\n", 1, ""},
      {{"--db", db, "user", "add", "bob", "--level", "root"}, "pw\n", 2, ""},
      {{"--db", db, "user", "add", "bob"}, "", 1, ""},
      {{"--db", db, "user", "add", "bob"}, "pw2\n", 0, "bob: add done"},
      {{"--db", db, "user", "passwd", "bob"}, "pw3\n", 0, "bob: passwd done"},
      {{"--db", db, "user", "disable", "bob"}, "", 0, "bob: disable done"},
      {{"--db", db, "user", "list"}, "", 0, "bob                  read  disabled never"},
      {{"--db", db, "user", "del", "bob"}, "", 0, "bob: del done"},
      {{"--db", db, "user", "del", "bob"}, "", 1, ""},
      {{"--db", db, "user", "frob", "bob"}, "", 2, ""},
      {{"user", "list"}, "", 2, ""},
      {{"--db", db, "--listen", "99999"}, "", 2, ""},
      {{"--config", dir.file("nothing.json")}, "", 1, ""},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv = {tool, "ftpd"};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    SCOPED_TRACE(c.args.empty() ? "" : c.args.back());
    std::string out;
    int status = vektest::run_program(argv, &out, c.input, 30000);
    EXPECT_EQ(c.status, status) << out;
    EXPECT_NE(std::string::npos, out.find(c.output)) << out;
  }

  // A server from a settings file (ann from the database, level all) and one
  // from options (ann as a reader): each serves ann until SIGTERM and logs
  // one line per command.
  std::filesystem::create_directories(dir.file("root"));
  const int config_port = vektest::free_tcp_port();
  vektest::write_file(dir.file("ftpd.json"), "{\"listen\": " + std::to_string(config_port) + ", \"root\": \"" +
                                                 dir.file("root") + "\", \"db\": \"" + db + "\"}");
  struct Server {
    std::vector<std::string> args;
    const char* mkd;
  };
  const int options_port = vektest::free_tcp_port();
  const Server servers[] = {
      {{"--config", dir.file("ftpd.json")}, "257 mkd command successful.\r\n"},
      {{"--listen", std::to_string(options_port), "--root", dir.file("root"), "--user", "ann:pw1:read"},
       "550 Requested action not taken.\r\n"},
  };
  for (const Server& s : servers) {
    SCOPED_TRACE(s.args[0]);
    std::vector<std::string> argv = {tool, "ftpd"};
    argv.insert(argv.end(), s.args.begin(), s.args.end());
    const int port = s.args[0] == "--config" ? config_port : options_port;
    const std::string log = dir.file("server" + std::to_string(port) + ".log");
    vektest::PeerProcess server;
    ASSERT_TRUE(server.start(argv, log));
    ASSERT_TRUE(server.wait_tcp_port(port)) << vektest::read_file(log);
    {
      ftptest::Control control(port);
      control.cmd("USER ann");
      EXPECT_EQ("230 User logged in.\r\n", control.cmd("PASS pw1"));
      EXPECT_EQ("257 \"/\" is current directory.\r\n", control.cmd("PWD"));
      EXPECT_EQ(s.mkd, control.cmd("MKD x"));
      control.cmd("QUIT");
    }
    kill(server.pid(), SIGTERM);
    int status = 0;
    ASSERT_TRUE(server.wait_exit(10000, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    const std::string out = vektest::read_file(log);
    for (const char* line : {" ann \"PASS ****\" 0\n", " ann \"PWD\" 0\n", " ann \"MKD x\" 0\n", "stopped on signal 15\n"})
      EXPECT_NE(std::string::npos, out.find(line)) << out;
  }

  // A broken settings file keeps the server from starting.
  vektest::write_file(dir.file("bad.json"), "{\"listen\": 0,\n \"db\": }");
  EXPECT_EQ(1, vektest::run_program({tool, "ftpd", "--config", dir.file("bad.json")}, nullptr, "", 10000));
}

}  // namespace
