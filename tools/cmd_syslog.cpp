// "vekutil syslogd" (a collector printing every message it receives) and
// "vekutil syslog" (sends one message), plus the "syslog" demo section.
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include <vekutil/vekutil.h>

#include "command.hpp"

namespace {

constexpr const char* kSyslogdUsage = "syslogd [--listen PORT] [--out FILE]";
constexpr const char* kSyslogUsage = "syslog HOST:PORT [--facility N] [--level N] [--hostname NAME] MESSAGE";

using vektool::usage_error;

// Whole decimal number within [low, high].
bool parse_int(const char* text, int low, int high, int* value) {
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v < low || v > high) return false;
  *value = static_cast<int>(v);
  return true;
}

// ---- syslogd -----------------------------------------------------------------

struct Printer {
  std::FILE* out;
};

void print_message(int, int level, long long timestamp, const char* hostname, const char* message, void* custom) {
  auto* printer = static_cast<Printer*>(custom);
  char when[32];
  time_sprintf(when, sizeof when, "%Y-%m-%d %H:%M:%S", timestamp);
  std::fprintf(printer->out, "%s.%03lld %s %d %s\n", when, timestamp % 1000, hostname, level, message);
  std::fflush(printer->out);
}

constexpr const char* kSyslogdDetails =
    "Collects syslog datagrams on UDP port PORT (default 514; 0 picks a free one)\n"
    "and prints one line per message: receive time, sender, level, message.\n"
    "Runs until interrupted (SIGINT or SIGTERM).\n"
    "  --listen PORT  UDP port to listen on, on every local address\n"
    "  --out FILE     append the lines to FILE instead of standard output\n";

int run_syslogd(int argc, char** argv) {
  int port = 514;
  const char* out_path = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--listen") && i + 1 < argc) {
      if (!parse_int(argv[++i], 0, 65535, &port)) return usage_error("syslogd", "--listen needs a port 0-65535");
    } else if (!std::strcmp(argv[i], "--out") && i + 1 < argc) {
      out_path = argv[++i];
    } else {
      return usage_error("syslogd", (std::string("unexpected argument '") + argv[i] + "'").c_str());
    }
  }
  Printer printer{stdout};
  if (out_path && !(printer.out = std::fopen(out_path, "a"))) {
    std::fprintf(stderr, "vekutil syslogd: cannot open %s: %s\n", out_path, std::strerror(errno));
    return 1;
  }
  // The signals are taken by sigwait below; the receiver thread inherits the
  // blocked mask and never sees them.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  void* collector = nullptr;
  const int rc = syslog_collector_create(&collector, port, print_message, &printer);
  if (rc != 0) {
    std::fprintf(stderr, "vekutil syslogd: cannot listen on UDP port %d (%d)\n", port, rc);
    if (printer.out != stdout) std::fclose(printer.out);
    return 1;
  }
  std::fprintf(stderr, "vekutil syslogd: listening on 0.0.0.0:%d\n", syslog_collector_port(collector));
  int signal_number = 0;
  sigwait(&stop_signals, &signal_number);
  syslog_collector_delete(collector);
  if (printer.out != stdout) std::fclose(printer.out);
  return 0;
}

// ---- syslog ------------------------------------------------------------------

constexpr const char* kSyslogDetails =
    "Sends MESSAGE as one syslog datagram, stamped with the local time.\n"
    "  --facility N    0-23 (default 1, user)\n"
    "  --level N       0-7 (default 5, notice)\n"
    "  --hostname NAME host name put in the message (blanks become '_'); none by default\n";

int run_syslog(int argc, char** argv) {
  int facility = 1, level = 5;
  const char* hostname = nullptr;
  const char* server = nullptr;
  const char* message = nullptr;
  for (int i = 1; i < argc; ++i) {
    const bool has_value = i + 1 < argc;
    if (!std::strcmp(argv[i], "--facility") && has_value) {
      if (!parse_int(argv[++i], 0, 23, &facility)) return usage_error("syslog", "--facility needs 0-23");
    } else if (!std::strcmp(argv[i], "--level") && has_value) {
      if (!parse_int(argv[++i], 0, 7, &level)) return usage_error("syslog", "--level needs 0-7");
    } else if (!std::strcmp(argv[i], "--hostname") && has_value) {
      hostname = argv[++i];
    } else if (!server) {
      server = argv[i];
    } else if (!message) {
      message = argv[i];
    } else {
      return usage_error("syslog", "one MESSAGE only (quote it)");
    }
  }
  if (!server || !message) return usage_error("syslog", "HOST:PORT and MESSAGE are required");
  if (!std::strchr(server, ':')) return usage_error("syslog", "the server needs a port (HOST:PORT)");
  const int rc = syslog_remote_ex(server, facility, level, time_now(), hostname, message);
  if (rc != 0) {
    std::fprintf(stderr, "vekutil syslog: sending to %s failed (%d)\n", server, rc);
    return 1;
  }
  return 0;
}

// ---- demo --------------------------------------------------------------------

struct DemoInbox {
  std::mutex lock;
  std::condition_variable arrived;
  int count = 0;
};

void demo_received(int facility, int level, long long, const char* hostname, const char* message, void* custom) {
  auto* inbox = static_cast<DemoInbox*>(custom);
  std::printf("  collector got: facility %d, level %d, from %s: \"%s\"\n", facility, level, hostname, message);
  std::lock_guard<std::mutex> guard(inbox->lock);
  ++inbox->count;
  inbox->arrived.notify_all();
}

int demo_syslog() {
  DemoInbox inbox;
  void* collector = nullptr;
  if (syslog_collector_create(&collector, 0, demo_received, &inbox) != 0) return 1;
  const std::string server = "127.0.0.1:" + std::to_string(syslog_collector_port(collector));
  std::printf("  collector listening on UDP %s\n", server.c_str());
  syslog_remote_ex(server.c_str(), 1, 6, time_now(), "demo host", "service started");
  syslog_remote(server.c_str(), 3, 3, "disk almost full");
  bool ok;
  {
    std::unique_lock<std::mutex> guard(inbox.lock);
    ok = inbox.arrived.wait_for(guard, std::chrono::seconds(5), [&] { return inbox.count == 2; });
  }
  syslog_collector_delete(collector);
  return ok ? 0 : 1;
}

vektool::Registrar reg_syslogd{{"syslogd", kSyslogdUsage, "collect syslog datagrams and print them", run_syslogd,
                                kSyslogdDetails}};
vektool::Registrar reg_syslog{{"syslog", kSyslogUsage, "send one syslog message", run_syslog, kSyslogDetails}};
vektool::DemoRegistrar demo_section{{"syslog", 70, demo_syslog}};

}  // namespace
