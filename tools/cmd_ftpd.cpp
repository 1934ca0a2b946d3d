// Command "ftpd": serves a folder over FTP until SIGINT or SIGTERM, printing
// one line per command with the client, the command and its result.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include <vekutil/vekutil.h>

#include "command.hpp"
#include "ftpd_appliance_cli.hpp"

namespace {

struct Account {
  std::string name;
  std::string password;
  int level;
};

std::vector<Account> g_accounts;
std::mutex g_print_mutex;

int level_of(const std::string& text) {
  if (text == "read") return FTP_ACCESS_READ;
  if (text == "write") return FTP_ACCESS_WRITE;
  if (text == "all") return FTP_ACCESS_ALL;
  return -1;
}

bool parse_account(const char* argument, Account* account) {
  std::string text = argument;
  size_t colon = text.find(':');
  if (colon == std::string::npos || colon == 0) return false;
  account->name = text.substr(0, colon);
  std::string rest = text.substr(colon + 1);
  account->level = FTP_ACCESS_READ;
  size_t last = rest.rfind(':');
  if (last != std::string::npos && level_of(rest.substr(last + 1)) > 0) {
    account->level = level_of(rest.substr(last + 1));
    rest.resize(last);
  }
  account->password = rest;
  return true;
}

int authenticate(const char* user, const char* password, const char*) {
  for (const Account& a : g_accounts)
    if (a.name == user && a.password == password) return a.level;
  return FTP_ACCESS_NONE;
}

void print_command(const void* client, const char* command, const char* line, int result) {
  std::string text = std::strcmp(command, "PASS") == 0 ? "PASS ****" : line;
  while (!text.empty() && (text.back() == '\r' || text.back() == '\n')) text.pop_back();
  std::lock_guard<std::mutex> guard(g_print_mutex);
  std::printf("%s %s \"%s\" %d\n", ftp_server_client_address(client), ftp_server_client_username(client),
              text.c_str(), result);
  std::fflush(stdout);
}

int usage_error(const char* message) { return vektool::usage_error("ftpd", message); }

int run_ftpd(int argc, char** argv) {
  if (ftpd_appliance::handles(argc, argv)) return ftpd_appliance::run(argc, argv);
  long port = 2121;
  std::string root = ".";
  const char* public_ip = nullptr;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg != "--listen" && arg != "--root" && arg != "--user" && arg != "--public-ip")
      return usage_error(("unknown option " + arg).c_str());
    if (i + 1 >= argc) return usage_error(("missing value after " + arg).c_str());
    const char* value = argv[++i];
    if (arg == "--listen") {
      char* end = nullptr;
      port = std::strtol(value, &end, 10);
      if (!*value || *end || port < 0 || port > 65535) return usage_error("bad port");
    } else if (arg == "--root") {
      root = value;
    } else if (arg == "--user") {
      Account account;
      if (!parse_account(value, &account)) return usage_error("bad --user, want NAME:PASSWORD[:read|write|all]");
      g_accounts.push_back(account);
    } else {
      public_ip = value;
    }
  }
  if (g_accounts.empty()) std::fprintf(stderr, "vekutil ftpd: no --user given: nobody can log in\n");

  // Signals are taken by sigwait below; threads started from here on
  // inherit the blocked mask.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  int rc = socket_async_default_init(socket_get_fd_setsize(), 0, 2000);
  void* server = nullptr;
  if (rc == 0)
    rc = ftp_server_start(&server, (unsigned short)port, root.c_str(), authenticate, nullptr, print_command);
  if (rc != 0) {
    std::fprintf(stderr, "vekutil ftpd: cannot start on port %ld: error %d\n", port, rc);
    socket_async_default_uninit();
    return 1;
  }
  if (public_ip) ftp_server_set_public_ip(server, public_ip);
  {
    std::lock_guard<std::mutex> guard(g_print_mutex);
    std::printf("listening on port %u, serving %s\n", static_cast<_FTP_SERVER_OBJECT*>(server)->port, root.c_str());
    std::fflush(stdout);
  }
  int signal_number = 0;
  sigwait(&stop_signals, &signal_number);
  ftp_server_stop(server);
  ftp_command_uninit();
  socket_async_default_uninit();
  std::printf("stopped on signal %d\n", signal_number);
  return 0;
}

// ---- Demo section: a server on a scratch folder and one scripted session.

// Reads one reply line from the control connection (at most 5 s).
std::string read_reply(void* socket) {
  std::string line;
  char c = 0;
  while (socket_recv(socket, &c, 1, 5000) == 0) {
    line += c;
    if (c == '\n') break;
  }
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  return line;
}

int demo_ftp() {
  char root[] = "/tmp/vekutil-ftp-demo.XXXXXX";
  if (!mkdtemp(root)) return 1;
  g_accounts = {{"demo", "demo", FTP_ACCESS_ALL}};
  void* server = nullptr;
  void* client = nullptr;
  bool ok = socket_async_default_init(64, 0, 2000) == 0 &&
            ftp_server_start(&server, 0, root, authenticate, nullptr, nullptr) == 0 && socket_create(&client) == 0;
  std::string addr = server ? "127.0.0.1:" + std::to_string(static_cast<_FTP_SERVER_OBJECT*>(server)->port) : "";
  ok = ok && socket_connect(client, addr.c_str()) == 0;
  if (ok) {
    std::printf("  server on %s serving %s\n  <- %s\n", addr.c_str(), root, read_reply(client).c_str());
    for (const char* line : {"USER demo", "PASS demo", "MKD reports", "CWD reports", "PWD", "CWD ../..", "noop", "QUIT"}) {
      std::string text = std::string(line) + "\r\n";
      socket_send(client, text.c_str(), (int)text.size());
      std::printf("  -> %-12s <- %s\n", line, read_reply(client).c_str());
    }
  }
  if (client) socket_delete(client);
  if (server) ftp_server_stop(server);
  ftp_command_uninit();
  socket_async_default_uninit();
  g_accounts.clear();
  ok = ok && directory_delete_recursive(root) == 0;
  return ok ? 0 : 1;
}

vektool::DemoRegistrar demo_section{{"ftp server", 90, demo_ftp}};

constexpr const char* kDetails =
    "  --listen PORT      port to listen on (default 2121; 0 picks a free one)\n"
    "  --root DIR         folder to serve (default: the current directory)\n"
    "  --user N:P[:LEVEL] an account; LEVEL is read (default), write or all (repeatable)\n"
    "  --public-ip ADDR   address announced for passive transfers\n"
    "  --db FILE          accounts in an SQLite database instead of --user;\n"
    "                     `--db FILE user ...` adds, changes, disables, deletes or lists them\n"
    "                     (passwords are read from standard input, without echo on a terminal)\n"
    "  --config FILE      the options as a JSON object\n"
    "  --statsd H:P       publish counters, a sessions gauge and timings\n"
    "  --syslog H:P       send logins and transfers to a syslog collector\n"
    "Serves until SIGINT or SIGTERM; the first line printed names the port. With --user,\n"
    "each command follows as a line: client address, user, command line, result.\n";

vektool::Registrar reg_ftpd{{"ftpd", ftpd_appliance::kCommandUsage, "serve a folder over FTP", run_ftpd, kDetails}};

}  // namespace
