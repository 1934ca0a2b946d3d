// vekutil: command-line front end of the library.
//
// The command registry is the one source of the tool's documentation:
// `vekutil --help`, `vekutil COMMAND --help` and the manual page printed by
// `vekutil --manual` (which the build turns into vekutil.1) all come from it
// and from the tables below, so they cannot disagree.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include <vekutil/vekutil.h>

#include "command.hpp"

namespace vektool {
namespace {

constexpr int kMaxEntries = 64;

struct Registry {
  std::array<Command, kMaxEntries> commands{};
  int command_count = 0;
  std::array<DemoSection, kMaxEntries> demos{};
  int demo_count = 0;
};

// Function-local static: safe to use from other translation units' static
// initialisers, whatever their order.
Registry& registry() {
  static Registry r;
  return r;
}

// Commands of main.cpp itself, listed before the registered ones.
constexpr Command kBuiltins[] = {
    {"--help", "--help", "show this text; COMMAND --help shows one command", nullptr, nullptr},
    {"version", "version", "print the library version", nullptr, nullptr},
    {"demo", "demo", "exercise the library and show its state", nullptr, nullptr},
};

struct Example {
  const char* command;
  const char* what;
};

constexpr Example kExamples[] = {
    {"vekutil demo", "run every module once and show what it holds"},
    {"vekutil json --pretty config.json", "check a JSON file and print it indented"},
    {"vekutil crc32 *.tar", "CRC-32 of each archive"},
    {"echo hello | vekutil base64 encode", "Base64 of standard input"},
    {"vekutil ftpd --db ./ftp.db user add alice --level all", "add an FTP account (password from standard input)"},
    {"vekutil ftpd --db ./ftp.db --root ./ftp-root --listen 2121", "serve ./ftp-root over FTP until SIGINT or SIGTERM"},
    {"vekutil http get https://example.org/file.iso -o file.iso --resume", "download, continuing a partial file"},
    {"vekutil sql app.db 'SELECT * FROM users'", "print a query as an aligned table"},
};

constexpr const char* kExitStatus[][2] = {
    {"0", "success"},
    {"1", "the operation failed (the reason is on standard error)"},
    {"2", "bad usage: unknown command, option or missing argument"},
};

void sort_commands() {
  Registry& r = registry();
  std::sort(r.commands.begin(), r.commands.begin() + r.command_count,
            [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; });
}

template <typename Fn>
void for_each_command(Fn fn) {
  for (const Command& c : kBuiltins) fn(c);
  const Registry& r = registry();
  for (int i = 0; i < r.command_count; ++i) fn(r.commands[i]);
}

int print_help() {
  std::printf("usage: vekutil COMMAND [ARGS...]\n\ncommands:\n");
  for_each_command([](const Command& c) { std::printf("  %-34s %s\n", c.usage, c.summary); });
  std::printf("\nexit status:\n");
  for (const auto& s : kExitStatus) std::printf("  %s  %s\n", s[0], s[1]);
  return 0;
}

int print_command_help(const Command& c) {
  std::printf("usage: vekutil %s\n\n%s\n", c.usage, c.summary);
  if (c.details) std::printf("\n%s", c.details);
  return 0;
}

// roff needs a backslash before every hyphen meant as a minus sign and a
// leading dot or quote protected.
void roff_text(const char* text) {
  if (*text == '.' || *text == '\'') std::fputs("\\&", stdout);
  for (const char* p = text; *p; ++p) {
    if (*p == '-' || *p == '\\') std::putchar('\\');
    std::putchar(*p);
  }
}

// Lines kept as they are (no filling), indented under the command.
void print_roff_lines(const char* text) {
  std::printf(".RS\n.nf\n");
  for (const char* line = text; *line;) {
    const char* end = std::strchr(line, '\n');
    const std::string one(line, end ? end : line + std::strlen(line));
    roff_text(one.c_str());
    std::printf("\n");
    line = end ? end + 1 : line + one.size();
  }
  std::printf(".fi\n.RE\n");
}

int print_manual() {
  std::printf(".TH VEKUTIL 1 \"\" \"vekutil %s\" \"User Commands\"\n", vekutil_version());
  std::printf(".SH NAME\nvekutil \\- command-line front end of the vekutil runtime library\n");
  std::printf(".SH SYNOPSIS\n.B vekutil\n.I COMMAND\n[\n.I ARGS...\n]\n");
  std::printf(".SH DESCRIPTION\n.B vekutil\nexposes the modules of libvekutil as sub-commands. Results go to "
              "standard output, errors to standard error. Every command answers\n.B \\-\\-help\n"
              "with its usage.\n");
  std::printf(".SH COMMANDS\n");
  for_each_command([](const Command& c) {
    std::printf(".TP\n.B ");
    roff_text(c.usage);
    std::printf("\n");
    roff_text(c.summary);
    std::printf("\n");
    if (c.details) print_roff_lines(c.details);
  });
  std::printf(".SH EXIT STATUS\n");
  for (const auto& s : kExitStatus) std::printf(".TP\n.B %s\n%s\n", s[0], s[1]);
  std::printf(".SH EXAMPLES\n");
  for (const Example& e : kExamples) {
    std::printf(".TP\n.B ");
    roff_text(e.command);
    std::printf("\n");
    roff_text(e.what);
    std::printf("\n");
  }
  return 0;
}

int run_demo() {
  Registry& r = registry();
  std::sort(r.demos.begin(), r.demos.begin() + r.demo_count,
            [](const DemoSection& a, const DemoSection& b) { return a.order < b.order; });
  int failures = 0;
  for (int i = 0; i < r.demo_count; ++i) {
    std::printf("== %s\n", r.demos[i].title);
    std::fflush(stdout);
    if (r.demos[i].run() != 0) {
      std::printf("!! %s failed\n", r.demos[i].title);
      ++failures;
    }
  }
  std::printf("== demo finished: %d section(s), %d failed\n", r.demo_count, failures);
  return failures == 0 ? 0 : 1;
}

bool is_help(const char* arg) { return !std::strcmp(arg, "--help") || !std::strcmp(arg, "-h"); }

// True when the arguments after the command name ask for its help (before
// a "--" that ends the options).
bool asks_for_help(int argc, char** argv) {
  for (int i = 2; i < argc && std::strcmp(argv[i], "--") != 0; ++i)
    if (!std::strcmp(argv[i], "--help")) return true;
  return false;
}

const Command* find_command(const char* name) {
  const Registry& r = registry();
  for (int i = 0; i < r.command_count; ++i)
    if (!std::strcmp(name, r.commands[i].name)) return &r.commands[i];
  for (const Command& c : kBuiltins)
    if (!std::strcmp(name, c.name)) return &c;
  return nullptr;
}

}  // namespace

int usage_error(const char* command, const char* problem) {
  std::fprintf(stderr, "vekutil %s: %s (see vekutil %s --help)\n", command, problem, command);
  return 2;
}

void register_command(const Command& command) {
  Registry& r = registry();
  if (r.command_count < kMaxEntries) r.commands[r.command_count++] = command;
}

void register_demo(const DemoSection& section) {
  Registry& r = registry();
  if (r.demo_count < kMaxEntries) r.demos[r.demo_count++] = section;
}

}  // namespace vektool

int main(int argc, char** argv) {
  using namespace vektool;
  sort_commands();
  if (argc < 2) {
    std::fprintf(stderr, "usage: vekutil COMMAND [ARGS...] (see vekutil --help)\n");
    return 2;
  }
  if (is_help(argv[1]) || !std::strcmp(argv[1], "help")) return print_help();
  if (!std::strcmp(argv[1], "--manual")) return print_manual();
  const Command* command = find_command(argv[1]);
  if (!command) {
    std::fprintf(stderr, "vekutil: unknown command '%s' (see vekutil --help)\n", argv[1]);
    return 2;
  }
  if (asks_for_help(argc, argv)) return print_command_help(*command);
  // The demo shows the memory report, which needs debug-mode accounting; the
  // mode must be chosen before the first allocation.
  vekMemoryInitEx(!std::strcmp(argv[1], "demo") ? 1 : 0);
  const bool builtin = !std::strcmp(argv[1], "version") || !std::strcmp(argv[1], "demo");
  if (builtin && argc > 2) return usage_error(argv[1], "takes no arguments");
  if (!std::strcmp(argv[1], "version")) {
    std::printf("vekutil %s\n", vekutil_version());
    return 0;
  }
  if (!std::strcmp(argv[1], "demo")) return run_demo();
  return command->run(argc - 1, argv + 1);
}
