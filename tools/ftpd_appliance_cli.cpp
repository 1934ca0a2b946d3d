// Command line of the FTP appliance: `vekutil ftpd --db FILE ...` serves
// with database accounts, `vekutil ftpd --db FILE user ...` manages them.
#include "ftpd_appliance_cli.hpp"

#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

#include <vekutil/vekutil.h>

#include "command.hpp"
#include "ftpd_appliance.hpp"

namespace ftpd_appliance {

namespace {

constexpr const char* kValueOptions[] = {"--config", "--db", "--listen", "--root", "--public-ip",
                                         "--statsd", "--syslog", "--level", "--user"};

bool takes_value(const std::string& arg) {
  for (const char* option : kValueOptions)
    if (arg == option) return true;
  return false;
}

int usage_error(const std::string& message) { return vektool::usage_error("ftpd", message.c_str()); }

int failure(const std::string& message) {
  std::fprintf(stderr, "vekutil ftpd: %s\n", message.c_str());
  return 1;
}

// One line from standard input; on a terminal prompted and not echoed.
bool read_password(const char* prompt, std::string* password) {
  const bool terminal = isatty(STDIN_FILENO);
  termios saved{};
  if (terminal) {
    std::fputs(prompt, stderr);
    std::fflush(stderr);
    tcgetattr(STDIN_FILENO, &saved);
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
  }
  bool got = static_cast<bool>(std::getline(std::cin, *password));
  if (terminal) {
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    std::fputc('\n', stderr);
  }
  if (!password->empty() && password->back() == '\r') password->pop_back();
  return got;
}

std::string when(long long seconds) {
  if (seconds <= 0) return "never";
  time_t t = static_cast<time_t>(seconds);
  tm parts{};
  gmtime_r(&t, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

struct Options {
  Settings settings;
  std::vector<std::string> words;  // the user sub-command and its operands
  std::string level = "read";
  bool level_given = false;
};

// The settings file first, whatever its place, so options override it.
int parse(int argc, char** argv, Options* o) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::string(argv[i]) != "--config") continue;
    std::string error;
    if (!load_config(argv[i + 1], &o->settings, &error)) return failure(error);
  }
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (!takes_value(arg)) {
      if (!arg.empty() && arg[0] == '-') return usage_error("unknown option " + arg);
      o->words.push_back(arg);
      continue;
    }
    if (i + 1 >= argc) return usage_error("missing value after " + arg);
    const std::string value = argv[++i];
    if (arg == "--db") o->settings.db = value;
    if (arg == "--root") o->settings.root = value;
    if (arg == "--statsd") o->settings.statsd = value;
    if (arg == "--syslog") o->settings.syslog = value;
    if (arg == "--public-ip") o->settings.public_ip = value;
    if (arg == "--user") return usage_error("--user accounts do not mix with --db; use: user add NAME");
    if (arg == "--level") {
      o->level = value;
      o->level_given = true;
    }
    if (arg == "--listen") {
      char* end = nullptr;
      long port = std::strtol(value.c_str(), &end, 10);
      if (value.empty() || *end || port < 0 || port > 65535) return usage_error("bad port " + value);
      o->settings.port = port;
    }
  }
  return 0;
}

int manage_users(const Options& o) {
  const std::vector<std::string>& w = o.words;
  if (w.size() < 2 || w[0] != "user") return usage_error("unexpected " + w[0]);
  const std::string& action = w[1];
  const bool needs_name = action != "list";
  if ((needs_name && w.size() != 3) || (!needs_name && w.size() != 2))
    return usage_error("want: user add|passwd|disable|del NAME, or user list");
  if (o.level_given && action != "add") return usage_error("--level goes with user add");
  const int level = level_from_text(o.level);
  if (level < 0) return usage_error("bad level " + o.level + ", want read, write or all");
  if (o.settings.db.empty()) return usage_error("user commands need --db FILE");

  Accounts accounts;
  accounts.set_iterations(o.settings.iterations);
  std::string error;
  if (!accounts.open(o.settings.db, &error)) return failure(error);
  const std::string name = needs_name ? w[2] : "";
  std::string password;
  bool ok = false;
  if (action == "add" || action == "passwd") {
    if (!read_password("Password: ", &password)) return failure("no password on standard input");
    ok = action == "add" ? accounts.add(name, password, level, &error)
                         : accounts.set_password(name, password, &error);
  } else if (action == "disable") {
    ok = accounts.disable(name, &error);
  } else if (action == "del") {
    ok = accounts.remove(name, &error);
  } else if (action == "list") {
    std::vector<AccountRow> rows;
    ok = accounts.list(&rows, &error);
    for (const AccountRow& row : rows)
      std::printf("%-20s %-5s %-8s %s\n", row.name.c_str(), row.level.c_str(), row.enabled ? "enabled" : "disabled",
                  when(row.last_login).c_str());
  } else {
    return usage_error("unknown user action " + action);
  }
  if (!ok) return failure(error);
  if (action != "list") std::printf("%s: %s done\n", name.c_str(), action.c_str());
  return 0;
}

int serve(const Options& o) {
  if (o.settings.db.empty()) return usage_error("no accounts database: give --db FILE or \"db\" in --config");
  if (o.level_given) return usage_error("--level goes with user add");
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  Appliance appliance;
  Settings settings = o.settings;
  settings.print_commands = true;
  std::string error;
  if (!appliance.start(settings, &error)) return failure(error);
  std::printf("listening on port %u, serving %s\n", appliance.port(), settings.root.c_str());
  std::fflush(stdout);
  // Wake every ten seconds to refresh the sessions gauge.
  const timespec period{10, 0};
  int signal_number = -1;
  while (signal_number < 0) {
    signal_number = sigtimedwait(&stop_signals, nullptr, &period);
    if (signal_number < 0) appliance.publish_sessions();
  }
  appliance.stop();
  std::printf("stopped on signal %d\n", signal_number);
  return 0;
}

}  // namespace

bool handles(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--db" || arg == "--config" || arg == "--statsd" || arg == "--syslog" || arg == "user") return true;
    if (takes_value(arg)) ++i;
  }
  return false;
}

int run(int argc, char** argv) {
  Options options;
  if (int rc = parse(argc, argv, &options)) return rc;
  if (!options.words.empty()) return manage_users(options);
  return serve(options);
}

}  // namespace ftpd_appliance
