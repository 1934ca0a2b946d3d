// Demo section "files": builds a small tree in a fresh temporary directory,
// walks it, shows file information and removes it again.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <vekutil/vekutil.h>

#include "command.hpp"

namespace {

int print_entry(const char* name, void* info, void* custom) {
  size_t root_len = std::strlen(static_cast<const char*>(custom));
  std::printf("  %-30s %-12s %8lld bytes  modified %s\n", name + root_len, fileinfo_type_str(info),
              fileinfo_size(info), fileinfo_modified_time_str(info));
  return 0;
}

bool build_tree(const std::string& root) {
  if (directory_create_recursive((root + "/logs/archive/2024").c_str()) != 0) return false;
  const char* files[] = {"/readme.txt", "/logs/app.log", "/logs/archive/2024/app.log.1"};
  for (const char* name : files) {
    FILE* f = std::fopen((root + name).c_str(), "w");
    if (!f) return false;
    std::fprintf(f, "demo content of %s\n", name);
    std::fclose(f);
  }
  return true;
}

int demo_files() {
  char root[] = "/tmp/vekutil-demo.XXXXXX";
  if (!mkdtemp(root)) return 1;
  bool ok = build_tree(root);
  if (ok) {
    std::printf("tree under %s, contents before each directory:\n", root);
    ok = directory_foreach(root, 1, print_entry, root) == 0;
    char** logs = nullptr;
    int count = directory_query2((std::string(root) + "/logs").c_str(), "*.log", &logs);
    std::printf("  logs/*.log matches %d name(s)\n", count);
    for (int i = 0; count > 0 && logs[i]; ++i) vekFree(logs[i]);
    if (count >= 0) vekFree(logs);
  }
  int removed = directory_delete_recursive(root);
  void* gone = nullptr;
  bool deleted = fileinfo_create(&gone, root) == ERR_FILE_NOT_FOUND;
  std::printf("deleted recursively: %s\n", deleted ? "yes" : "no");
  return ok && removed == 0 && deleted ? 0 : 1;
}

vektool::DemoRegistrar demo_section{{"files", 20, demo_files}};

}  // namespace
