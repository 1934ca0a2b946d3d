// "vekutil json": validates a JSON document and prints it, and the "json"
// demo section.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <vekutil/vekutil.h>

#include "command.hpp"

namespace {

bool read_all(FILE* in, std::string* text) {
  char chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, in)) > 0) text->append(chunk, n);
  return !std::ferror(in);
}

// Reports the 1-based line and column (in bytes) of position `at` in text.
int report_error(const char* source, const std::string& text, size_t at, const char* what) {
  size_t line = 1, column = 1;
  for (size_t i = 0; i < at && i < text.size(); ++i) {
    if (text[i] == '\n') {
      ++line;
      column = 1;
    } else {
      ++column;
    }
  }
  std::fprintf(stderr, "vekutil json: %s:%zu:%zu: %s\n", source, line, column, what);
  return 1;
}

void print_and_free(char* text) {
  std::printf("%s\n", text ? text : "(out of memory)");
  if (text) _vekFree(text, __FILE__, __LINE__);
}

int run_json(int argc, char** argv) {
  bool pretty = false;
  const char* path = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--pretty")) {
      pretty = true;
    } else if (!path && (argv[i][0] != '-' || !argv[i][1])) {
      path = argv[i];
    } else {
      return vektool::usage_error("json", (std::string("unexpected '") + argv[i] + "'").c_str());
    }
  }
  const bool from_stdin = !path || !std::strcmp(path, "-");
  const char* source = from_stdin ? "<stdin>" : path;
  FILE* in = from_stdin ? stdin : std::fopen(path, "rb");
  if (!in) {
    std::fprintf(stderr, "vekutil json: cannot open %s: %s\n", path, std::strerror(errno));
    return 1;
  }
  std::string text;
  bool read_ok = read_all(in, &text);
  if (!from_stdin) std::fclose(in);
  if (!read_ok) {
    std::fprintf(stderr, "vekutil json: cannot read %s\n", source);
    return 1;
  }

  // The parser reads up to the first zero byte; one inside the text ends it.
  const char* begin = text.c_str();
  size_t length = std::strlen(begin);
  JSON* root = json_CreateNull();
  const char* end = root ? parse_value(root, skip(begin)) : nullptr;
  if (!end) {
    json_Delete(root);
    const char* stop = nullptr;
    json_Delete(json_ParseEx(begin, &stop));
    return report_error(source, text, stop ? static_cast<size_t>(stop - begin) : 0, "not valid JSON here");
  }
  end = skip(end);
  size_t rest = static_cast<size_t>(end - begin);
  if (rest < length || length < text.size()) {
    json_Delete(root);
    const char* what = rest < length ? "unexpected text after the document" : "zero byte in the text";
    return report_error(source, text, rest, what);
  }
  print_and_free(pretty ? print_value(root, 0, 1) : json_PrintUnformatted(root));
  json_Delete(root);
  return 0;
}

int demo_json() {
  JSON* doc = json_CreateObject();
  if (!doc) return 1;
  const char* modules[] = {"core", "containers", "threads", "formats"};
  JSON* limits = json_CreateObject();
  json_AddItemToObject(doc, "name", json_CreateString("vekutil"));
  json_AddItemToObject(doc, "modules", json_CreateStringArray(modules, 4));
  json_AddItemToObject(doc, "ratio", json_CreateNumber(0.75));
  json_AddItemToObject(doc, "exact", json_CreateInteger(1234567890123LL));
  json_AddItemToObject(doc, "escaped", json_CreateString("tab\there \"quoted\""));
  json_AddItemToObject(doc, "limits", limits);
  json_AddItemToObject(limits, "max_depth", json_CreateInteger(JSON_MAX_DEPTH));
  json_AddItemToObject(limits, "strict", json_CreateTrue());
  json_AddItemToObject(limits, "none", json_CreateNull());

  char* compact = json_PrintUnformatted(doc);
  std::printf("compact: %s\n", compact ? compact : "(out of memory)");
  char* formatted = print_value(doc, 0, 1);
  std::printf("formatted:\n%s\n", formatted ? formatted : "(out of memory)");

  // Read back what was printed, with keys found regardless of case.
  JSON* back = compact ? json_Parse(compact) : nullptr;
  long long* exact = json_GetObjectItemAsLongLong(back, "EXACT");
  const char* third = json_GetArrayItemAsString(json_GetObjectItem(back, "modules"), 2);
  std::printf("parsed back: %d members, exact = %lld, modules[2] = %s\n", json_GetArraySize(back),
              exact ? *exact : -1, third ? third : "(missing)");
  bool ok = back && exact && *exact == 1234567890123LL;
  json_Delete(back);
  if (compact) _vekFree(compact, __FILE__, __LINE__);
  if (formatted) _vekFree(formatted, __FILE__, __LINE__);
  json_Delete(doc);
  return ok ? 0 : 1;
}

vektool::Registrar reg_json{{"json", "json [--pretty] [FILE]", "validate a JSON document and print it", run_json,
                             "Reads FILE, or standard input when FILE is - or missing.\n"}};
vektool::DemoRegistrar demo_json_section{{"json", 40, demo_json}};

}  // namespace
