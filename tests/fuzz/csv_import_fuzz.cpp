// fuzz-seconds: 30
// Arbitrary bytes as a CSV file imported into a scratch database. The first
// byte picks header, delimiter and qualifier. Every statement the import runs
// must be a transaction statement or a plain INSERT into the named table
// (checked on the text against the exact shape the importer builds), the
// schema and the other table stay as they were, and no accounted block is
// left behind.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <vekutil/errors.h>
#include <vekutil/memory.h>
#include <vekutil/sqlite.h>

namespace {

void* g_db = nullptr;
std::string g_path;

// A quoted run: opening quote, anything with the quote doubled, closing quote.
const char* skip_quoted(const char* p, char quote) {
  if (*p != quote) return nullptr;
  for (++p; *p; ++p) {
    if (*p != quote) continue;
    if (p[1] != quote) return p + 1;
    ++p;
  }
  return nullptr;
}

// item ("," item)* ")" where item is a quoted run or, for values, NULL.
const char* skip_list(const char* p, char quote, bool allow_null) {
  for (;;) {
    if (allow_null && std::strncmp(p, "NULL", 4) == 0)
      p += 4;
    else if (!(p = skip_quoted(p, quote)))
      return nullptr;
    if (*p == ')') return p + 1;
    if (*p++ != ',') return nullptr;
  }
}

bool is_plain_insert(const char* sql) {
  static const char kInto[] = "INSERT INTO target ";
  if (std::strncmp(sql, kInto, sizeof kInto - 1) != 0) return false;
  const char* p = sql + sizeof kInto - 1;
  if (*p == '(') {
    if (!(p = skip_list(p + 1, '"', false)) || *p++ != ' ') return false;
  }
  if (std::strncmp(p, "VALUES (", 8) != 0) return false;
  p = skip_list(p + 8, '\'', true);
  return p && *p == '\0';
}

void check_statement(const char* sql, void*) {
  if (!std::strcmp(sql, "BEGIN IMMEDIATE") || !std::strcmp(sql, "END") || !std::strcmp(sql, "COMMIT")) return;
  if (!is_plain_insert(sql)) {
    std::fprintf(stderr, "unexpected statement: %s\n", sql);
    std::abort();
  }
}

std::string single_value(const char* sql) {
  SQLITE_RESULT* r = sqlite_select(g_db, "%s", sql);
  const char* v = sqlite_element(r, 0, 0);
  std::string out = v ? v : "<none>";
  sqlite_free(r);
  return out;
}

void set_up() {
  const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  g_path = std::string(dir) + "/csv_import_fuzz." + std::to_string(getpid()) + ".csv";
  if (sqlite_create(&g_db) != 0 || sqlite_open(g_db, ":memory:") != 0 ||
      sqlite_exec(g_db, "CREATE TABLE target(a, b, c); CREATE TABLE other(x); INSERT INTO other VALUES(42)") != 1)
    std::abort();
  std::atexit([] { std::remove(g_path.c_str()); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!g_db) set_up();
  if (size == 0) return 0;
  static const char kDelims[] = {',', ';', '\t', '|'};
  static const char kQualifiers[] = {0, '"', '\'', '"'};
  const bool header = data[0] & 1;
  const char delim = kDelims[(data[0] >> 1) & 3];
  const char qualifier = kQualifiers[(data[0] >> 3) & 3];

  FILE* f = std::fopen(g_path.c_str(), "wb");
  if (!f) std::abort();
  std::fwrite(data + 1, 1, size - 1, f);
  std::fclose(f);

  const long long blocks = vekMemoryBlockUsed();
  int inserted = -1, refused = -1;
  sqlite_set_log_callback(g_db, check_statement, nullptr);
  const int rc = sqlite_from_csv(g_db, "target", header, delim, qualifier, g_path.c_str(), &inserted, &refused);
  sqlite_set_log_callback(g_db, nullptr, nullptr);
  if (vekMemoryBlockUsed() != blocks) std::abort();
  if (inserted < 0 || refused < 0 || (rc != 0 && rc != ERR_SQLITE_IMPORT)) std::abort();
  if (single_value("SELECT count(*) FROM target") != std::to_string(inserted)) std::abort();
  if (single_value("SELECT count(*) || group_concat(name) FROM sqlite_master") != "2target,other" ||
      single_value("SELECT group_concat(x) FROM other") != "42")
    std::abort();
  sqlite_exec(g_db, "DELETE FROM target");
  return 0;
}
