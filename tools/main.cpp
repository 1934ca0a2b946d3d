// vekutil: command-line front end of the library.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

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

int print_help() {
  std::printf("usage: vekutil COMMAND [ARGS...]\n\ncommands:\n");
  std::printf("  %-34s %s\n", "--help", "show this text");
  std::printf("  %-34s %s\n", "version", "print the library version");
  std::printf("  %-34s %s\n", "demo", "exercise the library and show its state");
  const Registry& r = registry();
  for (int i = 0; i < r.command_count; ++i) std::printf("  %-34s %s\n", r.commands[i].usage, r.commands[i].summary);
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

}  // namespace

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
  // The demo shows the memory report, which needs debug-mode accounting; the
  // mode must be chosen before the first allocation.
  vekMemoryInitEx(argc >= 2 && !std::strcmp(argv[1], "demo") ? 1 : 0);
  if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "help"))
    return argc < 2 ? (print_help(), 2) : print_help();
  if (!std::strcmp(argv[1], "version")) {
    std::printf("vekutil %s\n", vekutil_version());
    return 0;
  }
  if (!std::strcmp(argv[1], "demo")) return run_demo();
  const Registry& r = registry();
  for (int i = 0; i < r.command_count; ++i)
    if (!std::strcmp(argv[1], r.commands[i].name)) return r.commands[i].run(argc - 1, argv + 1);
  std::fprintf(stderr, "vekutil: unknown command '%s' (see vekutil --help)\n", argv[1]);
  return 2;
}
