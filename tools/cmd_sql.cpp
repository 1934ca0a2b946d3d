// "vekutil sql": runs SQL on a database file, exports and imports CSV and
// makes backups, through the library's SQLite layer; and the "sqlite" demo
// section.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <vekutil/vekutil.h>

#include "command.hpp"

namespace {

constexpr const char* kDetails =
    "  sql DB 'SQL'\n"
    "  sql DB --export TABLE FILE [--header] [--max N] [--delim C] [--quote C]\n"
    "  sql DB --import TABLE FILE [--header] [--delim C] [--quote C]\n"
    "  sql DB --backup FILE\n"
    "A query prints an aligned table with a header; other statements print the\n"
    "number of rows they changed. CSV fields are separated by --delim (default\n"
    "',') and enclosed in --quote (default '\"'; --quote '' for none); C may be\n"
    "a character or \\t. Export and import of large tables show progress on a\n"
    "terminal.\n";

int usage_error(const char* why) { return vektool::usage_error("sql", why); }

// ------------------------------------------------------------ progress bar

// Drawn on standard error, only when it is a terminal and the job is large.
class ProgressBar {
 public:
  ProgressBar(const char* label, long long total)
      : label_(label), total_(total), enabled_(total >= kMinRows && isatty(STDERR_FILENO)) {}
  ~ProgressBar() {
    if (drawn_) std::fputc('\n', stderr);
  }

  static void update(void* self, long long rows) { static_cast<ProgressBar*>(self)->draw(rows); }

 private:
  static constexpr long long kMinRows = 10000;
  static constexpr int kWidth = 40;

  void draw(long long rows) {
    if (!enabled_) return;
    const int percent = static_cast<int>(rows >= total_ ? 100 : rows * 100 / total_);
    if (percent == last_percent_) return;
    last_percent_ = percent;
    const int filled = percent * kWidth / 100;
    std::fprintf(stderr, "\r%s [%s%s] %3d%% %lld rows", label_, std::string(filled, '#').c_str(),
                 std::string(kWidth - filled, '.').c_str(), percent, rows);
    std::fflush(stderr);
    drawn_ = true;
  }

  const char* label_;
  long long total_;
  bool enabled_;
  bool drawn_ = false;
  int last_percent_ = -1;
};

// Line count of a file: the import's record count, near enough for progress.
long long count_lines(const char* path) {
  FILE* f = std::fopen(path, "rb");
  if (!f) return 0;
  std::vector<char> block(1 << 20);
  long long lines = 0;
  size_t n;
  while ((n = std::fread(block.data(), 1, block.size(), f)) > 0)
    for (const char* p = block.data(); (p = static_cast<const char*>(std::memchr(p, '\n', block.data() + n - p)));
         ++p)
      ++lines;
  std::fclose(f);
  return lines;
}

long long count_rows(void* db, const char* table) {
  SQLITE_RESULT* r = sqlite_select(db, "SELECT count(*) FROM %s", table);
  const char* value = sqlite_element(r, 0, 0);
  const long long rows = value ? std::atoll(value) : 0;
  sqlite_free(r);
  return rows;
}

// --------------------------------------------------------------- queries

struct ResultSet {
  std::vector<std::string> columns;
  std::vector<std::vector<std::string>> rows;
};

// Rows arrive through the row callback; a change of columns starts a new
// result set (a text holding several queries).
int collect_row(void* custom, int ncols, char** values, char** names) {
  auto& sets = *static_cast<std::vector<ResultSet>*>(custom);
  if (ncols == 0) return 0;  // a statement without a result
  bool same = !sets.empty() && sets.back().columns.size() == static_cast<size_t>(ncols);
  for (int i = 0; same && i < ncols; ++i) same = sets.back().columns[i] == (names[i] ? names[i] : "");
  if (!same) {
    sets.emplace_back();
    for (int i = 0; i < ncols; ++i) sets.back().columns.emplace_back(names[i] ? names[i] : "");
  }
  if (values) {
    std::vector<std::string> row;
    for (int i = 0; i < ncols; ++i) row.emplace_back(values[i] ? values[i] : "");
    sets.back().rows.push_back(std::move(row));
  }
  return 0;
}

// Width on a terminal: one column per UTF-8 character.
size_t display_width(const std::string& text) {
  size_t width = 0;
  for (unsigned char c : text) width += (c & 0xC0) != 0x80;
  return width;
}

void print_cell(const std::string& text, size_t width, bool last) {
  std::fputs(text.c_str(), stdout);
  if (!last)
    for (size_t pad = display_width(text); pad < width + 2; ++pad) std::fputc(' ', stdout);
}

void print_table(const ResultSet& set) {
  std::vector<size_t> widths;
  for (const auto& name : set.columns) widths.push_back(display_width(name));
  for (const auto& row : set.rows)
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], display_width(row[i]));
  const size_t n = set.columns.size();
  for (size_t i = 0; i < n; ++i) print_cell(set.columns[i], widths[i], i + 1 == n);
  std::fputc('\n', stdout);
  for (size_t i = 0; i < n; ++i) print_cell(std::string(widths[i], '-'), widths[i], i + 1 == n);
  std::fputc('\n', stdout);
  for (const auto& row : set.rows) {
    for (size_t i = 0; i < n; ++i) print_cell(row[i], widths[i], i + 1 == n);
    std::fputc('\n', stdout);
  }
}

int failed(void* db, const char* what) {
  const char* why = sqlite_error(db);
  std::fprintf(stderr, "vekutil sql: %s failed: %s\n", what, why ? why : "see the log");
  return 1;
}

int run_statement(void* db, const char* sql) {
  // A query without rows still reports its columns, so it prints a header.
  sqlite_exec(db, "PRAGMA empty_result_callbacks = ON");
  std::vector<ResultSet> sets;
  const int changed = sqlite_exec_ex(db, collect_row, &sets, "%s", sql);
  if (changed < 0) return failed(db, "statement");
  for (size_t i = 0; i < sets.size(); ++i) {
    if (i) std::fputc('\n', stdout);
    print_table(sets[i]);
  }
  if (sets.empty()) std::printf("%d\n", changed);
  return 0;
}

// ------------------------------------------------------------ CSV options

struct CsvOptions {
  bool header = false;
  int max_rows = 0;
  char delim = ',';
  char quote = '"';
};

bool parse_char(const char* text, bool allow_none, char* out) {
  if (!std::strcmp(text, "\\t") || !std::strcmp(text, "tab")) {
    *out = '\t';
    return true;
  }
  if (!text[0] && allow_none) {
    *out = 0;
    return true;
  }
  if (!text[0] || text[1]) return false;
  *out = text[0];
  return true;
}

// Options from argv[from]; a non-empty *error names what was wrong.
CsvOptions parse_csv_options(int argc, char** argv, int from, bool allow_max, std::string* error) {
  CsvOptions o;
  for (int i = from; i < argc && error->empty(); ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "--header") {
      o.header = true;
    } else if (arg == "--max" && allow_max && has_value) {
      char* end = nullptr;
      const long value = std::strtol(argv[++i], &end, 10);
      if (*end || value < 0 || value > 0x7fffffff) *error = "--max needs a row count";
      o.max_rows = static_cast<int>(value);
    } else if (arg == "--delim" && has_value) {
      if (!parse_char(argv[++i], false, &o.delim)) *error = "--delim needs one character";
    } else if (arg == "--quote" && has_value) {
      if (!parse_char(argv[++i], true, &o.quote)) *error = "--quote needs one character or ''";
    } else {
      *error = "unexpected argument " + arg;
    }
  }
  return o;
}

int run_export(void* db, const char* table, const char* file, const CsvOptions& o) {
  long long total = count_rows(db, table);
  if (o.max_rows > 0 && o.max_rows < total) total = o.max_rows;
  int written = 0, lost = 0;
  long long first = 0, last = 0;
  int rc;
  {
    ProgressBar bar("export", total);
    sqlite_set_progress_callback(db, ProgressBar::update, &bar);
    rc = sqlite_to_csv(db, table, o.max_rows, o.header, o.delim, o.quote, file, &written, &lost, &first, &last);
    sqlite_set_progress_callback(db, nullptr, nullptr);
  }
  if (rc != 0) return failed(db, "export");
  std::printf("%d rows exported to %s (rowid %lld to %lld)\n", written, file, first, last);
  return 0;
}

int run_import(void* db, const char* table, const char* file, const CsvOptions& o) {
  int inserted = 0, refused = 0;
  int rc;
  {
    ProgressBar bar("import", count_lines(file));
    sqlite_set_progress_callback(db, ProgressBar::update, &bar);
    rc = sqlite_from_csv(db, table, o.header, o.delim, o.quote, file, &inserted, &refused);
    sqlite_set_progress_callback(db, nullptr, nullptr);
  }
  std::printf("%d rows imported into %s, %d refused\n", inserted, table, refused);
  if (rc != 0) return failed(db, "import");
  if (refused) {
    std::fprintf(stderr, "vekutil sql: %d record(s) were not imported\n", refused);
    return 1;
  }
  return 0;
}

int run_backup(void* db, const char* file) {
  const int rc = sqlite_backup(db, file);
  if (rc < 0) return failed(db, "backup");
  if (rc > 0) {
    std::fprintf(stderr, "vekutil sql: backup to %s failed with SQLite code %d\n", file, rc);
    return 1;
  }
  std::printf("backup written to %s\n", file);
  return 0;
}

int dispatch(void* db, int argc, char** argv) {
  const std::string mode = argv[2];
  std::string error;
  if (mode == "--backup") {
    if (argc != 4) return usage_error("--backup needs FILE");
    return run_backup(db, argv[3]);
  }
  if (mode == "--export" || mode == "--import") {
    if (argc < 5) return usage_error("--export and --import need TABLE and FILE");
    const CsvOptions o = parse_csv_options(argc, argv, 5, mode == "--export", &error);
    if (!error.empty()) return usage_error(error.c_str());
    return mode == "--export" ? run_export(db, argv[3], argv[4], o) : run_import(db, argv[3], argv[4], o);
  }
  if (argc != 3 || mode.rfind("--", 0) == 0) return usage_error("expected DB and one SQL text");
  return run_statement(db, argv[2]);
}

int run_sql(int argc, char** argv) {
  if (argc < 3) return usage_error("expected DB and SQL, or DB and an option");
  void* db = nullptr;
  const int created = sqlite_create(&db);
  if (created != 0) {
    std::fprintf(stderr, "vekutil sql: SQLite is not available (%d)\n", created);
    return 1;
  }
  int status;
  if (sqlite_open(db, argv[1]) != 0) {
    status = failed(db, "open");
  } else {
    status = dispatch(db, argc, argv);
  }
  sqlite_delete(db);
  return status;
}

// ------------------------------------------------------------------ demo

void print_sql(const char* sql, void*) { std::printf("  sql> %s\n", sql); }

int demo_sqlite() {
  void* db = nullptr;
  if (sqlite_create(&db) != 0) {
    std::printf("SQLite is not available on this machine\n");
    return 0;
  }
  std::printf("SQLite %s\n", sqlite_get_version());
  sqlite_set_log_callback(db, print_sql, nullptr);
  bool ok = sqlite_open(db, ":memory:") == 0;
  ok = ok && sqlite_exec(db, "CREATE TABLE city(id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT, people INT)") == 0;
  ok = ok && sqlite_transaction_begin(db) == 0;
  const char* names[] = {"Oslo", "Graz", "Porto", "O'Higgins"};
  for (int i = 0; ok && i < 4; ++i) ok = sqlite_exec(db, "INSERT INTO city(name, people) VALUES(%Q, %d)", names[i], 1000 * (i + 1)) == 1;
  ok = sqlite_transaction_end(db) == 0 && ok;
  const int grown = sqlite_exec(db, "UPDATE city SET people = people + 1 WHERE people > 1500");
  std::printf("UPDATE changed %d rows\n", grown);
  SQLITE_RESULT* r = sqlite_select(db, "SELECT name, people FROM city ORDER BY people DESC");
  for (int row = 0; r && row < r->nrows; ++row)
    std::printf("  %-10s %s\n", sqlite_element(r, row, 0), sqlite_element(r, row, 1));
  sqlite_free(r);
  _AUTOINC ai;
  if (sqlite_table_column_autoincrement(db, "city", &ai) == 0 && ai.index >= 0)
    std::printf("auto-numbered column: %s %s %s (of %d columns)\n", ai.name, ai.type, ai.opts, ai.all_column_count);
  sqlite_autoincrement_free(&ai);
  const int refused = sqlite_exec(db, "INSERT INTO city(id, name) VALUES(1, 'again')");
  std::printf("duplicate key: %d (%s)\n", refused, sqlite_error(db));
  std::printf("SQLite holds %lld bytes\n", sqlite_get_usage());
  sqlite_delete(db);
  return ok && grown == 3 && refused == ERR_SQLITE_CONSTRAINT ? 0 : 1;
}

vektool::Registrar reg_sql{{"sql", "sql DB 'SQL' | --export | --import | --backup",
                            "run SQL, move CSV in and out of tables, back up", run_sql, kDetails}};
vektool::DemoRegistrar demo_sql_section{{"sqlite", 60, demo_sqlite}};

}  // namespace
