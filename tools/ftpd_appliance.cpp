// The FTP appliance: accounts, settings, metrics, events and SITE STATUS
// around the library's FTP server.
#include "ftpd_appliance.hpp"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include <vekutil/vekutil.h>

namespace ftpd_appliance {

namespace {

constexpr int kSaltBytes = 16;
constexpr int kHashBytes = 32;
constexpr int kMinIterations = 1000;
constexpr int kMaxIterations = 10000000;
constexpr int kSyslogFacilityDaemon = 3;
constexpr int kSyslogWarning = 4;
constexpr int kSyslogInfo = 6;

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS accounts ("
    " name TEXT PRIMARY KEY NOT NULL,"
    " salt TEXT NOT NULL,"
    " hash TEXT NOT NULL,"
    " iterations INTEGER NOT NULL,"
    " level TEXT NOT NULL CHECK (level IN ('read','write','all')),"
    " enabled INTEGER NOT NULL DEFAULT 1,"
    " last_login INTEGER)";

std::string to_hex(const unsigned char* bytes, size_t n) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(n * 2);
  for (size_t i = 0; i < n; ++i) {
    out.push_back(kDigits[bytes[i] >> 4]);
    out.push_back(kDigits[bytes[i] & 15]);
  }
  return out;
}

bool from_hex(const std::string& text, std::vector<unsigned char>* out) {
  if (text.size() % 2) return false;
  out->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    unsigned value = 0;
    if (std::sscanf(text.c_str() + i, "%2x", &value) != 1) return false;
    out->push_back(static_cast<unsigned char>(value));
  }
  return true;
}

bool derive(const std::string& password, const std::vector<unsigned char>& salt, int iterations,
            unsigned char out[kHashBytes]) {
  return PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt.data(),
                           static_cast<int>(salt.size()), iterations, EVP_sha256(), kHashBytes, out) == 1;
}

struct PasswordRecord {
  std::string salt_hex, hash_hex;
};

bool make_record(const std::string& password, int iterations, PasswordRecord* record) {
  std::vector<unsigned char> salt(kSaltBytes);
  unsigned char hash[kHashBytes];
  if (RAND_bytes(salt.data(), kSaltBytes) != 1 || !derive(password, salt, iterations, hash)) return false;
  record->salt_hex = to_hex(salt.data(), salt.size());
  record->hash_hex = to_hex(hash, kHashBytes);
  return true;
}

// Turns a position in text into "LINE:COLUMN", both counted from 1.
std::string line_and_column(const std::string& text, size_t offset) {
  size_t line = 1, column = 1;
  for (size_t i = 0; i < offset && i < text.size(); ++i) {
    if (text[i] == '\n') {
      ++line;
      column = 1;
    } else {
      ++column;
    }
  }
  return std::to_string(line) + ":" + std::to_string(column);
}

bool whole_number(const JSON* item, double low, double high, long* out) {
  if ((item->type & 0xff) != JSON_NUMBER) return false;
  double v = item->valuedouble;
  if (v < low || v > high || v != static_cast<double>(static_cast<long>(v))) return false;
  *out = static_cast<long>(v);
  return true;
}

bool apply_setting(const JSON* item, Settings* settings, std::string* error) {
  const std::string key = item->string ? item->string : "";
  std::string* text_target = nullptr;
  if (key == "root") text_target = &settings->root;
  if (key == "db") text_target = &settings->db;
  if (key == "statsd") text_target = &settings->statsd;
  if (key == "syslog") text_target = &settings->syslog;
  if (key == "public_ip") text_target = &settings->public_ip;
  if (text_target) {
    if ((item->type & 0xff) != JSON_STRING) {
      *error = "\"" + key + "\" must be a string";
      return false;
    }
    *text_target = item->valuestring;
    return true;
  }
  long number = 0;
  if (key == "listen") {
    if (!whole_number(item, 0, 65535, &number)) {
      *error = "\"listen\" must be a port number from 0 to 65535";
      return false;
    }
    settings->port = number;
    return true;
  }
  if (key == "pbkdf2_iterations") {
    if (!whole_number(item, kMinIterations, kMaxIterations, &number)) {
      *error = "\"pbkdf2_iterations\" must be a whole number from 1000 to 10000000";
      return false;
    }
    settings->iterations = static_cast<int>(number);
    return true;
  }
  *error = "unknown setting \"" + key + "\"";
  return false;
}

// The running appliance, for the server's context-free callbacks.
std::mutex g_active_mutex;
Appliance* g_active = nullptr;

Appliance* active() {
  std::lock_guard<std::mutex> guard(g_active_mutex);
  return g_active;
}

int auth_hook(const char* user, const char* password, const char* peer_address) {
  Appliance* a = active();
  return a ? a->on_login(user, password, peer_address) : FTP_ACCESS_NONE;
}

void pre_hook(const void* client, const char* command, const char*) {
  if (Appliance* a = active()) a->before_command(client, command);
}

void post_hook(const void* client, const char* command, const char* line, int result) {
  if (Appliance* a = active()) a->after_command(client, command, line, result);
}

int site_hook(void* client, const char*, const char* args) {
  Appliance* a = active();
  if (!a) return 0;
  return a->site_command(client, args);
}

// What a command left for its after-command callback: the start of a
// transfer, the source of a rename. Commands of one session never overlap,
// so one entry per session suffices; it is dropped when the command ends.
struct Pending {
  std::chrono::steady_clock::time_point started;
  std::string rename_from;
};
std::mutex g_pending_mutex;
std::map<const void*, Pending> g_pending;

bool is_transfer(const std::string& command) {
  return command == "RETR" || command == "STOR" || command == "APPE" || command == "STOU";
}

// A command word fit for a metric name: letters only, else "other", so a
// client cannot invent bucket names with ':' or '|' in them.
std::string metric_word(const char* command) {
  std::string word = command ? command : "";
  if (word.empty() || word.size() > 8) return "other";
  for (char& c : word) {
    if (!std::isalpha(static_cast<unsigned char>(c))) return "other";
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return word;
}

// The argument of a command line: after the word and one blank, without
// the line end.
std::string argument_of(const char* line) {
  std::string text = line ? line : "";
  while (!text.empty() && (text.back() == '\r' || text.back() == '\n')) text.pop_back();
  size_t blank = text.find(' ');
  return blank == std::string::npos ? std::string() : text.substr(blank + 1);
}

// The path a client named, as seen from the root.
std::string remote_path(const void* client, const std::string& name) {
  if (!name.empty() && name[0] == '/') return name;
  const char* directory = ftp_server_client_directory(client);
  return std::string(directory ? directory : "/") + name;
}

int send_reply(void* client, const std::string& text) {
  void* socket = static_cast<_FTP_CLIENT_OBJECT*>(client)->socket;
  int rc = socket_send(socket, text.data(), static_cast<int>(text.size()));
  return rc < 0 ? rc : 0;
}

struct SessionWalk {
  JSON* array;
};

void add_session(const void* elem, void* args) {
  const auto* session = static_cast<const _FTP_CLIENT_OBJECT*>(elem);
  JSON* row = json_CreateObject();
  if (!row) return;
  // Only the fixed-size fields: another session's directory may be replaced
  // by its own command thread while this walk reads it.
  char address[sizeof session->remote_addr + 1] = {};
  char user[sizeof session->username + 1] = {};
  std::memcpy(address, session->remote_addr, sizeof session->remote_addr);
  std::memcpy(user, session->username, sizeof session->username);
  json_AddItemToObject(row, "address", json_CreateString(address));
  json_AddItemToObject(row, "user", json_CreateString(user));
  json_AddItemToObject(row, "level", json_CreateString(level_text(session->is_authenticated)));
  json_AddItemToArray(static_cast<SessionWalk*>(args)->array, row);
}

JSON* memory_figures() {
  JSON* memory = json_CreateObject();
  if (!memory) return nullptr;
  json_AddItemToObject(memory, "bytes", json_CreateInteger(vekMemoryUsed()));
  json_AddItemToObject(memory, "bytes_max", json_CreateInteger(vekMemoryUsedMax()));
  json_AddItemToObject(memory, "blocks", json_CreateInteger(vekMemoryBlockUsed()));
  json_AddItemToObject(memory, "blocks_max", json_CreateInteger(vekMemoryBlockUsedMax()));
  return memory;
}

// "host:port" with a port from 1 to 65535; the host is looked up when used.
bool host_and_port(const std::string& address) {
  size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == address.size() || colon + 6 < address.size())
    return false;
  long port = 0;
  for (size_t i = colon + 1; i < address.size(); ++i) {
    if (!std::isdigit(static_cast<unsigned char>(address[i]))) return false;
    port = port * 10 + (address[i] - '0');
  }
  return port >= 1 && port <= 65535;
}

}  // namespace

int level_from_text(const std::string& text) {
  if (text == "read") return FTP_ACCESS_READ;
  if (text == "write") return FTP_ACCESS_WRITE;
  if (text == "all") return FTP_ACCESS_ALL;
  return -1;
}

const char* level_text(int level) {
  switch (level) {
    case FTP_ACCESS_READ: return "read";
    case FTP_ACCESS_WRITE: return "write";
    case FTP_ACCESS_ALL: return "all";
    default: return "none";
  }
}

bool valid_user_name(const std::string& name) {
  if (name.empty() || name.size() > 64) return false;
  for (char c : name)
    if (!std::isalnum(static_cast<unsigned char>(c)) && !std::strchr("._-@", c)) return false;
  return true;
}

bool load_config(const std::string& path, Settings* settings, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = path + ": cannot read the file";
    return false;
  }
  std::stringstream buffer;
  buffer << in.rdbuf();
  const std::string text = buffer.str();
  if (text.find('\0') != std::string::npos) {
    *error = path + ":" + line_and_column(text, text.find('\0')) + ": not valid JSON";
    return false;
  }
  const char* error_at = nullptr;
  JSON* root = json_ParseEx(text.c_str(), &error_at);
  if (!root) {
    size_t offset = error_at ? static_cast<size_t>(error_at - text.c_str()) : 0;
    *error = path + ":" + line_and_column(text, offset) + ": not valid JSON";
    return false;
  }
  bool ok = (root->type & 0xff) == JSON_OBJECT;
  if (!ok) *error = "the settings must be one JSON object";
  for (JSON* item = ok ? root->child : nullptr; item && ok; item = item->next)
    ok = apply_setting(item, settings, error);
  if (!ok) *error = path + ": " + *error;
  json_Delete(root);
  return ok;
}

// ---- Accounts -------------------------------------------------------------

bool Accounts::open(const std::string& path, std::string* error) {
  close();
  if (sqlite_create(&db_) != 0) {
    *error = "cannot load SQLite";
    return false;
  }
  if (sqlite_open(db_, path.c_str()) != 0 || sqlite_exec(db_, kSchema) < 0) {
    const char* why = sqlite_error(db_);
    *error = path + ": " + (why ? why : "cannot open the database");
    close();
    return false;
  }
  return true;
}

void Accounts::close() {
  if (db_) sqlite_delete(db_);
  db_ = nullptr;
}

bool Accounts::add(const std::string& name, const std::string& password, int level, std::string* error) {
  PasswordRecord record;
  if (!valid_user_name(name)) {
    *error = "bad user name \"" + name + "\" (1 to 64 of A-Z a-z 0-9 . _ - @)";
    return false;
  }
  if (password.empty() || level_from_text(level_text(level)) < 0 || !make_record(password, iterations_, &record)) {
    *error = password.empty() ? "empty password" : "cannot hash the password";
    return false;
  }
  int rc = sqlite_exec(db_, "INSERT INTO accounts (name, salt, hash, iterations, level) VALUES (%Q, %Q, %Q, %d, %Q)",
                       name.c_str(), record.salt_hex.c_str(), record.hash_hex.c_str(), iterations_,
                       level_text(level));
  if (rc == ERR_SQLITE_CONSTRAINT) {
    *error = "user " + name + " already exists";
    return false;
  }
  return change_one("add", name, rc, error);
}

bool Accounts::change_one(const char* what, const std::string& name, int rc, std::string* error) {
  if (rc == 1) return true;
  if (rc == 0)
    *error = "no user " + name;
  else
    *error = std::string("cannot ") + what + " " + name + ": " + (sqlite_error(db_) ? sqlite_error(db_) : "error");
  return false;
}

bool Accounts::set_password(const std::string& name, const std::string& password, std::string* error) {
  PasswordRecord record;
  if (password.empty() || !make_record(password, iterations_, &record)) {
    *error = password.empty() ? "empty password" : "cannot hash the password";
    return false;
  }
  int rc = sqlite_exec(db_, "UPDATE accounts SET salt = %Q, hash = %Q, iterations = %d, enabled = 1 WHERE name = %Q",
                       record.salt_hex.c_str(), record.hash_hex.c_str(), iterations_, name.c_str());
  return change_one("change the password of", name, rc, error);
}

bool Accounts::disable(const std::string& name, std::string* error) {
  return change_one("disable", name, sqlite_exec(db_, "UPDATE accounts SET enabled = 0 WHERE name = %Q", name.c_str()),
                    error);
}

bool Accounts::remove(const std::string& name, std::string* error) {
  return change_one("delete", name, sqlite_exec(db_, "DELETE FROM accounts WHERE name = %Q", name.c_str()), error);
}

bool Accounts::list(std::vector<AccountRow>* rows, std::string* error) {
  SQLITE_RESULT* result =
      sqlite_select(db_, "SELECT name, level, enabled, COALESCE(last_login, 0) FROM accounts ORDER BY name");
  if (!result) {
    *error = std::string("cannot list the accounts: ") + (sqlite_error(db_) ? sqlite_error(db_) : "error");
    return false;
  }
  rows->clear();
  for (int r = 0; r < result->nrows; ++r) {
    AccountRow row;
    row.name = sqlite_element(result, r, 0);
    row.level = sqlite_element(result, r, 1);
    row.enabled = std::strcmp(sqlite_element(result, r, 2), "0") != 0;
    row.last_login = std::atoll(sqlite_element(result, r, 3));
    rows->push_back(row);
  }
  sqlite_free(result);
  return true;
}

int Accounts::authenticate(const std::string& name, const std::string& password) {
  SQLITE_RESULT* result = sqlite_select(
      db_, "SELECT salt, hash, iterations, level FROM accounts WHERE name = %Q AND enabled = 1", name.c_str());
  std::vector<unsigned char> salt(kSaltBytes, 0), expected;
  int iterations = iterations_, level = FTP_ACCESS_NONE;
  bool known = result && result->nrows == 1 && from_hex(sqlite_element(result, 0, 0), &salt) &&
               from_hex(sqlite_element(result, 0, 1), &expected) && expected.size() == kHashBytes;
  if (known) {
    iterations = std::atoi(sqlite_element(result, 0, 2));
    level = level_from_text(sqlite_element(result, 0, 3));
  }
  sqlite_free(result);
  if (iterations < 1 || iterations > kMaxIterations) known = false;
  if (!known) iterations = iterations_;
  // Unknown names hash too, so their answer takes as long as a wrong password.
  unsigned char hash[kHashBytes];
  bool derived = derive(password, salt, iterations, hash);
  if (!known || !derived || level < 0 || CRYPTO_memcmp(hash, expected.data(), kHashBytes) != 0)
    return FTP_ACCESS_NONE;
  sqlite_exec(db_, "UPDATE accounts SET last_login = %lld WHERE name = %Q", static_cast<long long>(std::time(nullptr)),
              name.c_str());
  return level;
}

// ---- Appliance ------------------------------------------------------------

bool Appliance::start(const Settings& settings, std::string* error) {
  stop();
  settings_ = settings;
  accounts_.set_iterations(settings.iterations);
  if (settings.db.empty()) {
    *error = "no accounts database (--db FILE)";
    return false;
  }
  for (const std::string* address : {&settings.statsd, &settings.syslog}) {
    if (!address->empty() && !host_and_port(*address)) {
      *error = "bad address \"" + *address + "\", want HOST:PORT";
      return false;
    }
  }
  if (!accounts_.open(settings.db, error)) return false;
  if (!settings.statsd.empty() && statsd_create(&statsd_, settings.statsd.c_str()) != 0) {
    *error = "cannot publish to statsd at " + settings.statsd;
    stop();
    return false;
  }
  bool claimed = false;
  {
    std::lock_guard<std::mutex> guard(g_active_mutex);
    if (!g_active) g_active = this;
    claimed = g_active == this;
  }
  if (!claimed) {
    *error = "another FTP appliance runs in this process";
    stop();
    return false;
  }
  if (!g_socket_async_default_acceptor) {
    int rc = socket_async_default_init(socket_get_fd_setsize(), 0, 2000);
    if (rc != 0) {
      *error = "cannot start the socket workers: error " + std::to_string(rc);
      stop();
      return false;
    }
    workers_started_ = true;
  }
  int rc = ftp_server_start(&server_, static_cast<unsigned short>(settings.port), settings.root.c_str(), auth_hook,
                            pre_hook, post_hook);
  if (rc != 0) {
    server_ = nullptr;
    *error = "cannot listen on port " + std::to_string(settings.port) + ": error " + std::to_string(rc);
    stop();
    return false;
  }
  if (!settings.public_ip.empty()) ftp_server_set_public_ip(server_, settings.public_ip.c_str());
  // After the start: the built-in commands are in the table by now.
  ftp_command_register("SITE", site_hook);
  return true;
}

void Appliance::stop() {
  if (server_) {
    ftp_server_stop(server_);
    server_ = nullptr;
    ftp_command_uninit();
  }
  {
    std::lock_guard<std::mutex> guard(g_active_mutex);
    if (g_active == this) g_active = nullptr;
  }
  {
    std::lock_guard<std::mutex> guard(g_pending_mutex);
    g_pending.clear();
  }
  if (workers_started_) socket_async_default_uninit();
  workers_started_ = false;
  if (statsd_) statsd_delete(statsd_);
  statsd_ = nullptr;
  accounts_.close();
}

unsigned short Appliance::port() const {
  return server_ ? static_cast<_FTP_SERVER_OBJECT*>(server_)->port : 0;
}

int Appliance::live_sessions() const {
  if (!server_) return 0;
  int n = btree_count(static_cast<_FTP_SERVER_OBJECT*>(server_)->session_btree);
  return n < 0 ? 0 : n;
}

void Appliance::publish_sessions() {
  if (statsd_) statsd_publish_gauge(statsd_, "ftp.sessions", live_sessions());
}

void Appliance::count(const std::string& bucket) {
  if (statsd_) statsd_publish_counter(statsd_, bucket.c_str(), 1, 0.0f);
}

void Appliance::send_event(int severity, const std::string& text) {
  if (settings_.syslog.empty()) return;
  std::string message = "ftpd: " + text;
  syslog_remote(settings_.syslog.c_str(), kSyslogFacilityDaemon, severity, message.c_str());
}

// A refused login never reaches the after-command callback, so logins are
// counted and reported here, where the outcome is decided.
int Appliance::on_login(const char* user, const char* password, const char* peer_address) {
  const std::string name = user ? user : "";
  int level = accounts_.authenticate(name, password ? password : "");
  const bool ok = level > FTP_ACCESS_NONE;
  count(ok ? "ftp.login.ok" : "ftp.login.failed");
  send_event(ok ? kSyslogInfo : kSyslogWarning,
             std::string(ok ? "login" : "failed login") + " user " + name + " from " + (peer_address ? peer_address : "?"));
  return level;
}

void Appliance::before_command(const void* client, const char* command) {
  const std::string word = command ? command : "";
  if (!is_transfer(word) && word != "RNTO") return;
  Pending pending;
  pending.started = std::chrono::steady_clock::now();
  const char* from = static_cast<const _FTP_CLIENT_OBJECT*>(client)->rename_from;
  if (word == "RNTO" && from) pending.rename_from = remote_path(client, from);
  std::lock_guard<std::mutex> guard(g_pending_mutex);
  g_pending[client] = pending;
}

void Appliance::after_command(const void* client, const char* command, const char* line, int result) {
  const std::string word = metric_word(command);
  const std::string user = ftp_server_client_username(client);
  const std::string who = " user " + user + " from " + ftp_server_client_address(client);
  const bool ok = result == 0;
  Pending pending;
  bool had_pending = false;
  {
    std::lock_guard<std::mutex> guard(g_pending_mutex);
    auto it = g_pending.find(client);
    if (it != g_pending.end()) {
      pending = it->second;
      g_pending.erase(it);
      had_pending = true;
    }
  }
  if (settings_.print_commands) {
    std::string text = word == "PASS" ? "PASS ****" : (line ? line : "");
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n')) text.pop_back();
    std::printf("%s %s \"%s\" %d\n", ftp_server_client_address(client), user.c_str(), text.c_str(), result);
    std::fflush(stdout);
  }
  count("ftp.cmd." + word + (ok ? ".ok" : ".failed"));
  const std::string path = remote_path(client, argument_of(line));
  if (had_pending && is_transfer(word)) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - pending.started);
    if (statsd_ && ok) statsd_publish_timing(statsd_, ("ftp.transfer." + word).c_str(), static_cast<int>(ms.count()));
  }
  if (ok) {
    if (word == "RETR") send_event(kSyslogInfo, "download " + path + who);
    if (word == "STOR" || word == "APPE" || word == "STOU") send_event(kSyslogInfo, "upload " + path + who);
    if (word == "DELE") send_event(kSyslogInfo, "delete " + path + who);
    if (word == "RNTO") send_event(kSyslogInfo, "rename " + pending.rename_from + " to " + path + who);
  }
  if (word == "PASS" || word == "QUIT") publish_sessions();
}

int Appliance::site_command(void* client, const char* args) {
  auto* session = static_cast<_FTP_CLIENT_OBJECT*>(client);
  std::string what = args ? args : "";
  while (!what.empty() && (what.back() == '\r' || what.back() == '\n' || what.back() == ' ')) what.pop_back();
  for (char& c : what) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  if (session->is_authenticated <= 0) return send_reply(client, "530 Please login with USER and PASS.\r\n");
  if (what != "STATUS") return send_reply(client, "504 Only SITE STATUS is known here.\r\n");
  if (session->is_authenticated != FTP_ACCESS_ALL) return send_reply(client, "550 Permission denied.\r\n");

  JSON* status = json_CreateObject();
  if (!status) return send_reply(client, "451 Out of memory.\r\n");
  JSON* sessions = json_CreateArray();
  if (sessions) {
    SessionWalk walk{sessions};
    btree_foreach(session->server->session_btree, add_session, &walk);
    json_AddItemToObject(status, "sessions", sessions);
  }
  JSON* sockets = nullptr;
  if (socket_instrument_handle() && instrument_list(socket_instrument_handle(), &sockets) == 0 && sockets)
    json_AddItemToObject(status, "sockets", sockets);
  if (JSON* memory = memory_figures()) json_AddItemToObject(status, "memory", memory);
  char* text = json_PrintUnformatted(status);
  json_Delete(status);
  if (!text) return send_reply(client, "451 Out of memory.\r\n");
  std::string reply = "211-Status of this server\r\n";
  reply += text;
  reply += "\r\n211 End of status\r\n";
  vekFree(text);
  return send_reply(client, reply);
}

}  // namespace ftpd_appliance
