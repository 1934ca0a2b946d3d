// Sub-command and demo-section registry of the vekutil tool. Each module's
// tools/cmd_<module>.cpp registers itself with a static Registrar, so adding
// a command never touches main.cpp:
//
//   static int run_crc32(int argc, char** argv) { ... }
//   static vektool::Registrar reg_crc32{{"crc32", "crc32 FILE...", "CRC-32 of files", run_crc32, nullptr}};
//   static vektool::DemoRegistrar demo_crc{{"checksums", 50, demo_checksums}};
#pragma once

namespace vektool {

// argv[0] is the sub-command's name; returns the process exit code.
using CommandFn = int (*)(int argc, char** argv);

// main.cpp answers `COMMAND --help` from this record (usage, summary, then
// details) before the command runs, so commands never parse --help.
struct Command {
  const char* name;
  const char* usage;    // one line, after "usage: vekutil "
  const char* summary;  // one line, for the command list
  CommandFn run;
  const char* details;  // more lines for --help and the manual page, or nullptr
};

// Prints "vekutil COMMAND: PROBLEM (see vekutil COMMAND --help)" to standard
// error and returns the exit status of bad usage, 2.
int usage_error(const char* command, const char* problem);

// A demo section prints what its module can do and returns 0 on success.
// Sections run in ascending order.
struct DemoSection {
  const char* title;
  int order;
  int (*run)();
};

void register_command(const Command& command);
void register_demo(const DemoSection& section);

struct Registrar {
  explicit Registrar(const Command& c) { register_command(c); }
};
struct DemoRegistrar {
  explicit DemoRegistrar(const DemoSection& d) { register_demo(d); }
};

}  // namespace vektool
