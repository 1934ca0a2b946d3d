// Sub-command and demo-section registry of the vekutil tool. Each module's
// tools/cmd_<module>.cpp registers itself with a static Registrar, so adding
// a command never touches main.cpp:
//
//   static int run_crc32(int argc, char** argv) { ... }
//   static vektool::Registrar reg_crc32{{"crc32", "crc32 FILE...", "CRC-32 of files", run_crc32}};
//   static vektool::DemoRegistrar demo_crc{{"checksums", 50, demo_checksums}};
#pragma once

namespace vektool {

// argv[0] is the sub-command's name; returns the process exit code.
using CommandFn = int (*)(int argc, char** argv);

struct Command {
  const char* name;
  const char* usage;
  const char* summary;
  CommandFn run;
};

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
