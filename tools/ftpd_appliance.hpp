// The FTP appliance behind `vekutil ftpd --db ...`: accounts in an SQLite
// database with salted PBKDF2-HMAC-SHA256 hashes, settings from a JSON file,
// statsd metrics, syslog events and a SITE STATUS command for operators.
//
// One Appliance runs per process: the server's callbacks are plain function
// pointers without a context argument, so they reach it through a global.
#pragma once

#include <string>
#include <vector>

namespace ftpd_appliance {

// "read", "write", "all" <-> FTP_ACCESS_READ / _WRITE / _ALL; -1 for other text.
int level_from_text(const std::string& text);
const char* level_text(int level);

struct Settings {
  long port = 2121;
  std::string root = ".";
  std::string db;          // accounts database; created on first use
  std::string statsd;      // "host:port" of a statsd daemon, or empty
  std::string syslog;      // "host:port" of a syslog receiver, or empty
  std::string public_ip;   // address announced for passive transfers, or empty
  int iterations = 100000; // PBKDF2 rounds for passwords set from now on
  bool print_commands = false;  // one line per command on stdout
};

// Reads a JSON settings file over *settings (keys: listen, root, db, statsd,
// syslog, public_ip, pbkdf2_iterations). On failure returns false with a
// message in *error; text that is not JSON is named as "FILE:LINE:COLUMN".
bool load_config(const std::string& path, Settings* settings, std::string* error);

struct AccountRow {
  std::string name;
  std::string level;
  bool enabled = false;
  long long last_login = 0;  // seconds since the epoch; 0 for never
};

// The accounts table. Every call is safe from several threads at once (the
// SQLite handle serialises them).
class Accounts {
 public:
  Accounts() = default;
  ~Accounts() { close(); }
  Accounts(const Accounts&) = delete;
  Accounts& operator=(const Accounts&) = delete;

  bool open(const std::string& path, std::string* error);
  void close();
  void set_iterations(int iterations) { iterations_ = iterations; }

  bool add(const std::string& name, const std::string& password, int level, std::string* error);
  bool set_password(const std::string& name, const std::string& password, std::string* error);
  bool disable(const std::string& name, std::string* error);
  bool remove(const std::string& name, std::string* error);
  bool list(std::vector<AccountRow>* rows, std::string* error);
  // The access level of a login, FTP_ACCESS_NONE for an unknown or disabled
  // name and a wrong password alike (all three take the same hashing work).
  // A successful login records its time.
  int authenticate(const std::string& name, const std::string& password);

 private:
  bool change_one(const char* what, const std::string& name, int rc, std::string* error);

  void* db_ = nullptr;
  int iterations_ = 100000;
};

// User names: 1 to 64 of A-Z a-z 0-9 . _ - @
bool valid_user_name(const std::string& name);

class Appliance {
 public:
  Appliance() = default;
  ~Appliance() { stop(); }
  Appliance(const Appliance&) = delete;
  Appliance& operator=(const Appliance&) = delete;

  // Opens the database, starts the socket workers and the server and adds
  // SITE STATUS. false with a message in *error; nothing is left running.
  bool start(const Settings& settings, std::string* error);
  // Stops the server and releases everything start() took. Safe to repeat.
  void stop();
  bool running() const { return server_ != nullptr; }
  unsigned short port() const;
  Accounts& accounts() { return accounts_; }
  // Sends the live-session gauge now (the server loop calls it periodically).
  void publish_sessions();
  int live_sessions() const;

  // Hooks for the server's callbacks.
  int on_login(const char* user, const char* password, const char* peer_address);
  void before_command(const void* client, const char* command);
  void after_command(const void* client, const char* command, const char* line, int result);
  int site_command(void* client, const char* args);

 private:
  void send_event(int severity, const std::string& text);
  void count(const std::string& bucket);

  Settings settings_;
  Accounts accounts_;
  void* server_ = nullptr;
  void* statsd_ = nullptr;
  bool workers_started_ = false;
};

}  // namespace ftpd_appliance
