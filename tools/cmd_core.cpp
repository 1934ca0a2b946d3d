// Demo section "memory and log" and the "hexdump" sub-command.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <vekutil/vekutil.h>

#include "command.hpp"

namespace {

void print_accounts(const char* when) {
  std::printf("  %-22s %lld block(s), %lld byte(s) incl. headers (peak %lld)\n", when, vekMemoryBlockUsed(),
              vekMemoryUsed(), vekMemoryUsedMax());
}

// Copies a text file to standard output, indented.
void print_file(const char* path) {
  FILE* f = std::fopen(path, "r");
  if (!f) return;
  char line[512];
  while (std::fgets(line, sizeof line, f)) std::printf("    %s", line);
  std::fclose(f);
}

int demo_memory_and_log() {
  char dir[] = "/tmp/vekutil-core-demo.XXXXXX";
  if (!mkdtemp(dir)) return 1;
  char log_path[sizeof dir + 16], report_path[sizeof dir + 16];
  std::snprintf(log_path, sizeof log_path, "%s/demo.log", dir);
  std::snprintf(report_path, sizeof report_path, "%s/memorylist", dir);

  print_accounts("before:");
  char* greeting = clone_string("hello from the demo", -1);
  auto* numbers = static_cast<unsigned char*>(vekMalloc(40));
  char* grown = static_cast<char*>(vekRealloc(nullptr, 5));
  bool ok = greeting && numbers && grown;
  if (ok) {
    for (int i = 0; i < 40; ++i) numbers[i] = (unsigned char)(i * 7);
    std::memcpy(grown, "abcd", 5);
    grown = static_cast<char*>(vekRealloc(grown, 12));
    ok = grown != nullptr;
    if (ok) std::memcpy(grown + 5, "efghijk", 7);
  }
  print_accounts("three blocks live:");

  ok = ok && vekMemoryDump(report_path, 0) == 0;
  std::printf("  memory report (newest first):\n");
  print_file(report_path);

  char* dump = ok ? hexdump(numbers, 20) : nullptr;
  if (dump) std::printf("  %s\n", dump);
  vekFree(dump);

  int log_rc = vekLogInit(log_path, nullptr);
  void* refused = vekMalloc(0);  // refused and logged
  FILE* log = g_log_file;
  g_log_file = nullptr;
  if (log) std::fclose(log);
  std::printf("  log after a zero-size request (%s):\n", refused ? "granted" : "refused");
  print_file(log_path);
  std::printf("\n");

  vekFree(grown);
  vekFree(numbers);
  vekFree(greeting);
  print_accounts("after:");
  unlink(log_path);
  unlink(report_path);
  rmdir(dir);
  return ok && log_rc == 0 ? 0 : 1;
}

int run_hexdump(int argc, char** argv) {
  if (argc != 2) return vektool::usage_error("hexdump", "exactly one FILE is required");
  FILE* f = std::fopen(argv[1], "rb");
  if (!f) {
    std::fprintf(stderr, "vekutil hexdump: cannot open %s\n", argv[1]);
    return 1;
  }
  unsigned char chunk[4096];
  size_t n;
  // Whole rows per chunk, so offsets restart only at chunk boundaries.
  long offset = 0;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
    if (offset) std::printf("at byte %ld:\n", offset);
    hexdump_console(chunk, (int)n);
    offset += (long)n;
  }
  std::fclose(f);
  return 0;
}

vektool::DemoRegistrar demo_section{{"memory and log", 10, demo_memory_and_log}};
vektool::Registrar hexdump_command{{"hexdump", "hexdump FILE", "hex dump of a file", run_hexdump, nullptr}};

}  // namespace
