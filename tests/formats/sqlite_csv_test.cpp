// CSV export and import, with the sqlite3 shell on both sides.
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include <vekutil/errors.h>

#include "sqlite_fixture.hpp"

namespace {

using sqltest::exists;
using sqltest::Strings;

// In a child: 0 when an export past a 100 kB size limit fails cleanly, leaving no file.
int export_beyond_size_limit(void* db, const std::string& out) {
  std::signal(SIGXFSZ, SIG_IGN);
  sqlite_exec(db, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200000) "
                  "INSERT INTO t SELECT i FROM n");
  const rlimit limit{100000, 100000};
  setrlimit(RLIMIT_FSIZE, &limit);
  int ok = -1, failed = -1;
  const int rc = sqlite_to_csv(db, "t", 0, 0, ',', 0, out.c_str(), &ok, &failed, nullptr, nullptr);
  return rc == ERR_SYSTEM && !exists(out) && ok == 0 && failed > 0 ? 0 : 1;
}

class SqliteCsvTest : public sqltest::SqliteTest {
 protected:
  // Imports text (written to a file) into table, expecting rc; returns the
  // inserted and refused counts as "inserted/refused".
  std::string import(const std::string& text, const char* table, bool header, char delim, char qualifier,
                     int expected_rc = 0) {
    const std::string file = dir_.file("in.csv");
    vektest::write_file(file, text);
    int inserted = -1, refused = -1;
    EXPECT_EQ(expected_rc, sqlite_from_csv(db_, table, header, delim, qualifier, file.c_str(), &inserted, &refused))
        << text;
    return std::to_string(inserted) + "/" + std::to_string(refused);
  }

  // Exports table; the file's text, or "<rc>" when the export failed.
  std::string export_text(const char* table, int maxrows, bool header, char delim, char qualifier, int* written = nullptr,
                          long long* first = nullptr, long long* last = nullptr) {
    const std::string file = dir_.file("out.csv");
    int ok = -1, failed = -1;
    long long lo = -1, hi = -1;
    const int rc = sqlite_to_csv(db_, table, maxrows, header, delim, qualifier, file.c_str(), &ok, &failed, &lo, &hi);
    if (written) *written = ok;
    if (first) *first = lo;
    if (last) *last = hi;
    EXPECT_EQ(0, failed);
    return rc == 0 ? vektest::read_file(file) : "<" + std::to_string(rc) + ">";
  }
};

// Text that breaks naive CSV.
const char* const kAwkward[] = {
    "plain", "comma, inside", "semi;colon|bar\ttab", "say \"hi\"", "\"", "\"\"", "it's", "100% sure %d %s",
    "line\nbreak", "cr\rlf\r\n", "\r\n", "trailing space ", "  ", "grüße ✓ 日本", "back\\slash", "",
};

// Table src(id, txt, num, other) with every awkward text, some NULLs, one empty text.
void fill_awkward(void* db) {
  sqlite_exec(db, "CREATE TABLE src(id INTEGER, txt TEXT, num REAL, other TEXT)");
  int id = 0;
  for (const char* text : kAwkward) {
    sqlite_exec(db, "INSERT INTO src VALUES(%d, %Q, %d.5, %Q)", id, text, id, id % 3 ? text : nullptr);
    ++id;
  }
  sqlite_exec(db, "INSERT INTO src VALUES(NULL, NULL, NULL, '')");
}

TEST_F(SqliteCsvTest, ExportWritesTheRowsWithoutRowidInTheChosenLayout) {
  exec_ok("CREATE TABLE t(a TEXT, b INT); INSERT INTO t(rowid, a, b) VALUES(5, 'x', 1), (9, 'q\"q', NULL), (7, '', 3)");
  const struct { int maxrows; bool header; char delim, qualifier; const char* text; } cases[] = {
      {0, false, ',', 0, "x,1\r\n,3\r\nq\"q,\r\n"},
      {0, true, ';', 0, "a;b\r\nx;1\r\n;3\r\nq\"q;\r\n"},
      {2, true, ',', '"', "\"a\",\"b\"\r\n\"x\",\"1\"\r\n\"\",\"3\"\r\n"},
      {5, false, '\t', '\'', "'x'\t'1'\r\n''\t'3'\r\n'q\"q'\t\r\n"},
  };
  for (const auto& c : cases) {
    int written = 0;
    long long first = 0, last = 0;
    EXPECT_EQ(c.text, export_text("t", c.maxrows, c.header, c.delim, c.qualifier, &written, &first, &last));
    EXPECT_EQ(c.maxrows == 2 ? 2 : 3, written);
    EXPECT_EQ(5, first);
    EXPECT_EQ(c.maxrows == 2 ? 7 : 9, last);
  }
  exec_ok("CREATE TABLE empty(a)");
  int written = -1;
  long long first = -1;
  EXPECT_EQ("", export_text("empty", 0, true, ',', '"', &written, &first));
  EXPECT_EQ(0, written);
  EXPECT_EQ(0, first);
}

TEST_F(SqliteCsvTest, ImportReadsTheGrammarAndRefusesWhatItCannotStore) {
  exec_ok("CREATE TABLE t(a, b, c)");
  // counts: "inserted/refused"; rows: quote(a)|quote(b)|quote(c)
  const struct {
    const char* name;
    std::string text;
    bool header;
    char delim, qualifier;
    const char* counts;
    Strings rows;
  } cases[] = {
      {"LF, CR LF, no final line end, empty lines", "1,2,3\n\n4,5,6\r\n\r\n7,8,9", false, ',', 0, "3/0",
       {"'1'|'2'|'3'", "'4'|'5'|'6'", "'7'|'8'|'9'"}},
      {"empty is NULL, qualified empty is ''", "\"\",,x\r\n", false, ',', '"', "1/0", {"''|NULL|'x'"}},
      {"qualifiers protect delimiters and line ends", "\"a,b\",\"c\r\nd\",\"e\"\"f\"\r\n", false, ',', '"', "1/0",
       {"'a,b'|'c\r\nd'|'e\"f'"}},
      {"a qualifier inside an unqualified field is data", "a\"b,x\"\",c", false, ',', '"', "1/0", {"'a\"b'|'x\"\"'|'c'"}},
      {"text after the closing qualifier is kept", "\"ab\"cd,2,3\n", false, ',', '"', "1/0", {"'abcd'|'2'|'3'"}},
      {"a lone CR is data", "a\rb,2,3\n", false, ',', 0, "1/0", {"'a\rb'|'2'|'3'"}},
      {"quotes and percent signs stay as they are", "it's,100%,%d%%\n", false, ',', 0, "1/0", {"'it''s'|'100%'|'%d%%'"}},
      {"short records are filled with NULL", "1,2,3\n4\n5,6\n", false, ',', 0, "3/0",
       {"'1'|'2'|'3'", "'4'|NULL|NULL", "'5'|'6'|NULL"}},
      {"long records are refused", "1,2,3\n4,5,6,7\n8,9,10\n", false, ',', 0, "2/1", {"'1'|'2'|'3'", "'8'|'9'|'10'"}},
      {"a zero byte refuses its record", std::string("1,2,3\n4,\0,6\n7,8,9\n", 18), false, ',', 0, "2/1",
       {"'1'|'2'|'3'", "'7'|'8'|'9'"}},
      {"an open qualifier at the end is refused", "1,2,3\n\"4,5,6\n", false, ',', '"', "1/1", {"'1'|'2'|'3'"}},
      {"header names columns in any order", "c;a\n1;2\n", true, ';', 0, "1/0", {"'2'|NULL|'1'"}},
      {"byte-order mark before the header", "\xEF\xBB\xBF\"b\"|\"a\"\n\"x\"|\"y\"\n", true, '|', '"', "1/0",
       {"'y'|'x'|NULL"}},
      {"header only", "a,b\r\n", true, ',', '"', "0/0", {}},
      {"empty file", "", true, ',', '"', "0/0", {}},
      {"rows SQLite refuses count as refused", "a,nosuch\n1,2\n", true, ',', 0, "0/1", {}},
  };
  for (const auto& c : cases) {
    exec_ok("DELETE FROM t");
    EXPECT_EQ(c.counts, import(c.text, "t", c.header, c.delim, c.qualifier)) << c.name;
    EXPECT_EQ(c.rows, rows("SELECT quote(a), quote(b), quote(c) FROM t ORDER BY rowid")) << c.name;
  }

  exec_ok("CREATE TABLE one(v)");  // with a single column an empty line is a NULL row
  EXPECT_EQ("3/0", import("x\n\ny\n", "one", false, ',', '"'));
  EXPECT_EQ("3/0", import("v\r\n\r\n\"\"\r\nz\r\n", "one", true, ',', '"'));
  EXPECT_EQ((Strings{"'x'", "NULL", "'y'", "NULL", "''", "'z'"}), rows("SELECT quote(v) FROM one ORDER BY rowid"));
}

// Reads of 1 MiB end on every byte of tricky records; a 3 MiB field grows the buffer.
TEST_F(SqliteCsvTest, RecordsCutByTheReadBufferReadTheSame) {
  constexpr size_t kBlock = 1 << 20;
  exec_ok("PRAGMA synchronous = OFF; CREATE TABLE t(a, b)");
  const std::string tricky = "\"q\"\"r\",\"s\r\nt\"\r\n\r\nu\rv,\"\"\r\nw,x";
  const Strings expected = {"'q\"r'|'s\r\nt'", "'u\rv'|''", "'w'|'x'"};
  for (size_t cut = 0; cut <= tricky.size(); ++cut) {
    const std::string padding(kBlock - 3 - cut, 'p');
    exec_ok("DELETE FROM t");
    EXPECT_EQ("4/0", import(padding + ",z\n" + tricky, "t", false, ',', '"')) << "cut at " << cut;
    EXPECT_EQ(expected, rows("SELECT quote(a), quote(b) FROM t WHERE b IS NOT 'z' ORDER BY rowid")) << "cut at " << cut;
  }
  exec_ok("DELETE FROM t");
  EXPECT_EQ("2/0", import("\"" + std::string(3 * kBlock, 'g') + "\",1\n" + tricky.substr(0, 17), "t", false, ',', '"'));
  EXPECT_EQ((Strings{std::to_string(3 * kBlock) + "|'1'", "3|'s\r\nt'"}), rows("SELECT length(a), quote(b) FROM t ORDER BY rowid"));
}

TEST_F(SqliteCsvTest, RoundTripKeepsEveryTextWhenAQualifierIsSet) {
  fill_awkward(db_);
  exec_ok("CREATE TABLE dst(id INTEGER, txt TEXT, num REAL, other TEXT)");
  const char* const compare = "SELECT quote(id), quote(txt), quote(num), quote(other) FROM %s ORDER BY rowid";
  const Strings expected = rows(std::string(compare).replace(std::string(compare).find("%s"), 2, "src"));
  ASSERT_EQ(std::size(kAwkward) + 1, expected.size());
  const std::pair<char, char> layouts[] = {{',', '"'}, {';', '\''}, {'\t', '"'}, {'|', '#'}};
  for (auto [delim, qualifier] : layouts) {
    for (bool header : {false, true}) {
      exec_ok("DELETE FROM dst");
      const std::string file = dir_.file("trip.csv");
      int written = 0, failed = 0, inserted = 0, refused = 0;
      ASSERT_EQ(0, sqlite_to_csv(db_, "src", 0, header, delim, qualifier, file.c_str(), &written, &failed, nullptr, nullptr));
      ASSERT_EQ(0, sqlite_from_csv(db_, "dst", header, delim, qualifier, file.c_str(), &inserted, &refused));
      EXPECT_EQ(written, inserted);
      EXPECT_EQ(0, refused);
      EXPECT_EQ(expected, rows(std::string(compare).replace(std::string(compare).find("%s"), 2, "dst")))
          << "delim " << delim << " qualifier " << qualifier << " header " << header;
    }
  }
}

TEST_F(SqliteCsvTest, HeaderNamesStayColumnNames) {
  exec_ok("CREATE TABLE victim(a); INSERT INTO victim VALUES(1)");
  exec_ok("CREATE TABLE t(a, \"we\"\"ird\", \"x) VALUES (1); DROP TABLE victim; --\")");
  const struct { std::string header; const char* counts; } cases[] = {
      {"a) VALUES (1); DROP TABLE victim; --,b\n", "0/2"},
      {"\"a\"\"); DROP TABLE victim; --\",b\n", "0/2"},
      {"a,\"we\"\"ird\"\n", "2/0"},                                   // a double quote in a real name
      {"a,\"x) VALUES (1); DROP TABLE victim; --\"\n", "2/0"},        // a name that looks like SQL
  };
  Strings statements;
  sqlite_set_log_callback(db_, sqltest::collect_statement, &statements);
  for (const auto& c : cases) {
    statements.clear();
    EXPECT_EQ(c.counts, import(c.header + "1,2\n3,4\n", "t", true, ',', '"')) << c.header;
    for (const std::string& sql : statements)
      EXPECT_TRUE(sql == "BEGIN IMMEDIATE" || sql == "COMMIT" || sql.rfind("INSERT INTO t (\"", 0) == 0) << sql;
  }
  sqlite_set_log_callback(db_, nullptr, nullptr);
  EXPECT_EQ((Strings{"1"}), rows("SELECT a FROM victim"));
  EXPECT_EQ((Strings{"1|2", "3|4"}), rows("SELECT a, \"we\"\"ird\" FROM t WHERE \"we\"\"ird\" IS NOT NULL ORDER BY rowid"));

  EXPECT_EQ("0/0", import("a,\"\"\n1,2\n", "t", true, ',', '"', ERR_SQLITE_IMPORT));  // an empty name
  EXPECT_EQ("0/0", import("a,\"b\n", "t", true, ',', '"', ERR_SQLITE_IMPORT));        // an open qualifier
}

TEST_F(SqliteCsvTest, ImportCommitsEveryHundredRecordsAndReportsProgress) {
  exec_ok("CREATE TABLE t(a INTEGER UNIQUE, b)");
  std::string text;
  for (int i = 0; i < 250; ++i) text += std::to_string(i == 150 ? 1 : i) + ",x\n";  // record 150 repeats a key
  Strings statements;
  sqlite_set_log_callback(db_, sqltest::collect_statement, &statements);
  std::vector<long long> progress;
  sqlite_set_progress_callback(db_, [](void* p, long long rows) { static_cast<std::vector<long long>*>(p)->push_back(rows); },
                               &progress);
  EXPECT_EQ("249/1", import(text, "t", false, ',', 0));
  sqlite_set_log_callback(db_, nullptr, nullptr);
  sqlite_set_progress_callback(db_, nullptr, nullptr);

  Strings control;
  for (const std::string& sql : statements)
    if (sql.rfind("INSERT", 0) != 0) control.push_back(sql);
  EXPECT_EQ((Strings{"BEGIN IMMEDIATE", "END", "BEGIN IMMEDIATE", "END", "BEGIN IMMEDIATE", "COMMIT"}), control);
  EXPECT_EQ(252u + 6u - 2u, statements.size());
  EXPECT_EQ("INSERT INTO t VALUES ('0','x')", statements[1]);
  EXPECT_EQ((std::vector<long long>{250}), progress);
  EXPECT_EQ((Strings{"249"}), rows("SELECT count(*) FROM t"));
}

TEST_F(SqliteCsvTest, FailuresAreReportedAndLeaveNoPartialFile) {
  exec_ok("CREATE TABLE t(a); INSERT INTO t VALUES(1)");
  const std::string out = dir_.file("out.csv");
  int ok = 0, failed = 0;
  {
    vektest::LogCapture log;
    EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_to_csv(db_, "missing", 0, 0, ',', 0, out.c_str(), &ok, &failed, nullptr, nullptr));
    EXPECT_FALSE(exists(out));
    EXPECT_TRUE(log.contains("_sqlite3_exec_ex(\"SELECT rowid,* FROM missing\")\n\tFailed[1] [no such table: missing]"));
  }
  EXPECT_EQ(ERR_SYSTEM, sqlite_to_csv(db_, "t", 0, 0, ',', 0, "/nonexistent-dir/out.csv", &ok, &failed, nullptr, nullptr));

  // A full disk, imitated by a file size limit in a child process.
  EXPECT_EXIT(std::_Exit(export_beyond_size_limit(db_, out)), ::testing::ExitedWithCode(0), "");

  EXPECT_EQ(ERR_SQLITE_IMPORT, sqlite_from_csv(db_, "t", 0, ',', 0, "/nonexistent-dir/in.csv", &ok, &failed));
  {
    // A refused record is logged with its statement text and keeps SQLite's text and code.
    exec_ok("CREATE TABLE k(id INTEGER PRIMARY KEY, v)");
    vektest::LogCapture log;
    EXPECT_EQ("1/1", import("7,it's\nx,\n", "k", false, ',', 0));
    EXPECT_TRUE(log.contains("_sqlite3_exec(\"INSERT INTO k VALUES ('x',NULL)\")\n\tFailed[20] [datatype mismatch]")) << log.text();
    EXPECT_STREQ("datatype mismatch", sqlite_error(db_));
    EXPECT_EQ(20, sqlite_error_code(db_));
  }
  ASSERT_EQ(0, sqlite_transaction_begin(db_));  // the import cannot begin its own transaction inside ours
  EXPECT_EQ("0/0", import("1\n", "t", false, ',', 0, ERR_SQLITE_TRANSACTION));
  EXPECT_EQ(0, sqlite_transaction_end(db_));
}

// The shell reads what we export and writes what we import, compared table to table.
TEST_F(SqliteCsvTest, ShellPeerReadsOurFilesAndWritesFilesWeRead) {
  if (!vektest::have_program("sqlite3")) GTEST_SKIP() << "sqlite3 shell not installed";
  fill_awkward(db_);
  exec_ok("CREATE TABLE theirs(id INTEGER, txt TEXT, num REAL, other TEXT)");
  exec_ok("CREATE TABLE ours(id INTEGER, txt TEXT, num REAL, other TEXT)");
  const char* const select = "SELECT quote(id), quote(txt), quote(num), quote(other) FROM %s ORDER BY rowid";
  auto query = [&](const char* table) {
    std::string sql = select;
    return rows(sql.replace(sql.find("%s"), 2, table));
  };

  // Ours to the shell. The shell reads every field as text and has no NULL
  // in CSV, so the source is compared with NULL as ''.
  const std::string ours_csv = dir_.file("ours.csv");
  int written = 0, failed = 0;
  ASSERT_EQ(0, sqlite_to_csv(db_, "src", 0, 1, ',', '"', ours_csv.c_str(), &written, &failed, nullptr, nullptr));
  EXPECT_NE("<shell failed>", shell(".import --csv --skip 1 " + ours_csv + " theirs\n"));
  Strings expected;
  for (std::string row : query("src")) {
    for (size_t at; (at = row.find("NULL")) != std::string::npos;) row.replace(at, 4, "''");
    expected.push_back(row);
  }
  EXPECT_EQ(expected, query("theirs"));

  // The shell's export to ours: NULL and '' come back apart.
  const std::string shell_csv = dir_.file("shell.csv");
  EXPECT_NE("<shell failed>", shell(".headers on\n.mode csv\n.once " + shell_csv + "\nSELECT * FROM src;\n"));
  int inserted = 0, refused = 0;
  ASSERT_EQ(0, sqlite_from_csv(db_, "ours", 1, ',', '"', shell_csv.c_str(), &inserted, &refused));
  EXPECT_EQ(written, inserted);
  EXPECT_EQ(0, refused);
  EXPECT_EQ(query("src"), query("ours"));
}

}  // namespace
