// The SQLite layer on real files, and a database held busy by the sqlite3 shell.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include <vekutil/errors.h>

#include "sqlite_fixture.hpp"

namespace {

using sqltest::exists;
using sqltest::SqliteTest;
using sqltest::Strings;

TEST_F(SqliteTest, StatementsReturnChangedRowsOrTheMappedCode) {
  const struct { const char* sql; int result, sqlite_code /* kept by a failure */; bool logged; } cases[] = {
      {"CREATE TABLE t(id INTEGER PRIMARY KEY, name TEXT UNIQUE, n INT)", 0, 0, false},
      {"INSERT INTO t(name, n) VALUES('a', 1), ('b', 2), ('c', 3)", 3, 0, false},
      {"UPDATE t SET n = n + 1", 3, 0, false},
      {"UPDATE t SET n = 0 WHERE name = 'none'", 0, 0, false},
      {"INSERT INTO t(name) VALUES('a')", ERR_SQLITE_CONSTRAINT, 19, false},
      {"INSERT INTO t(id) VALUES('text')", ERR_SQLITE_MISMATCH, 20, true},
      {"SELEC 1", ERR_SQLITE_FAILED, 1, true},
      {"DELETE FROM t", 3, 0, false},  // removed wholesale, without the update hook
      {"CREATE TABLE w(k TEXT PRIMARY KEY, v) WITHOUT ROWID; INSERT INTO w VALUES('x', 1), ('y', 2)", 2, 0, false},
      {"SELECT 1", 0, 0, false},
  };
  for (const auto& c : cases) {
    vektest::LogCapture log;
    EXPECT_EQ(c.result, sqlite_exec(db_, "%s", c.sql)) << c.sql;
    EXPECT_EQ(c.result < 0 ? 0 : c.result, sqlite_result_count(db_)) << c.sql;
    if (c.sqlite_code) {
      EXPECT_EQ(c.sqlite_code, sqlite_error_code(db_)) << c.sql;
    }
    EXPECT_EQ(c.logged, log.contains("_sqlite3_exec(\"" + std::string(c.sql) + "\")\n\tFailed[")) << c.sql;
  }
  vektest::LogCapture log;
  EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_exec(db_, "SELEC %d", 2));
  EXPECT_STREQ("near \"SELEC\": syntax error", sqlite_error(db_));
  EXPECT_TRUE(log.contains("_sqlite3_exec(\"SELEC 2\")\n\tFailed[1] [near \"SELEC\": syntax error]\n"));
}

TEST_F(SqliteTest, SelectFillsAResultTableAndRefusesBadQueries) {
  exec_ok("CREATE TABLE t(a, b); INSERT INTO t VALUES(1, 'x'), (NULL, 'it''s'), (3, NULL)");
  SQLITE_RESULT* r = sqlite_select(db_, "SELECT a, b AS bee FROM t WHERE a IS NOT %Q OR b = %Q ORDER BY rowid", "3", "x");
  ASSERT_NE(nullptr, r);
  EXPECT_EQ(3, r->nrows);
  EXPECT_EQ(2, r->ncols);
  EXPECT_STREQ("bee", sqlite_column(r, 1));
  EXPECT_STREQ("1", sqlite_element(r, 0, 0));
  EXPECT_STREQ("it's", sqlite_element(r, 1, 1));
  EXPECT_EQ(nullptr, sqlite_element(r, 1, 0));  // SQL NULL
  for (auto [row, col] : {std::pair{-1, 0}, {3, 0}, {0, 2}, {0, -1}}) EXPECT_EQ(nullptr, sqlite_element(r, row, col));
  EXPECT_EQ(nullptr, sqlite_column(r, 2));
  sqlite_free(r);

  SQLITE_RESULT* empty = sqlite_select(db_, "SELECT * FROM t WHERE 0");
  ASSERT_NE(nullptr, empty);
  EXPECT_EQ(0, empty->nrows);
  sqlite_free(empty);

  vektest::LogCapture log;
  EXPECT_EQ(nullptr, sqlite_select(db_, "SELECT * FROM missing"));
  EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_error_code(db_));
  EXPECT_STREQ("no such table: missing", sqlite_error(db_));
  EXPECT_TRUE(log.contains("_sqlite3_get_table(\"SELECT * FROM missing\")\n\tFailed[1] [no such table: missing]\n"));
}

TEST_F(SqliteTest, RowCallbackSeesEveryRowAndMayStopTheStatement) {
  exec_ok("CREATE TABLE t(a); INSERT INTO t VALUES('one'), (NULL), ('three')");
  struct Seen {
    Strings values;
    int stop_after = -1;
  } seen;
  auto collect = [](void* custom, int ncols, char** values, char** names) {
    auto* s = static_cast<Seen*>(custom);
    s->values.push_back(std::string(names[0]) + "=" + (values[0] ? values[0] : "NULL") + "/" + std::to_string(ncols));
    return static_cast<int>(s->values.size()) == s->stop_after ? 1 : 0;
  };
  EXPECT_EQ(0, sqlite_exec_ex(db_, collect, &seen, "SELECT a FROM t ORDER BY rowid"));
  EXPECT_EQ((Strings{"a=one/1", "a=NULL/1", "a=three/1"}), seen.values);

  vektest::LogCapture log;
  seen = Seen{{}, 1};
  EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_exec_ex(db_, collect, &seen, "SELECT a FROM t"));
  EXPECT_EQ(1u, seen.values.size());
  EXPECT_EQ(4, sqlite_error_code(db_));  // aborted
  EXPECT_TRUE(log.contains("_sqlite3_exec_ex(\"SELECT a FROM t\")\n\tFailed[4]"));
}

TEST_F(SqliteTest, LogCallbackSeesEachTextAsRunAndTheLockingPragmaAsAlwaysSpelled) {
  Strings texts;
  ASSERT_EQ(0, sqlite_set_log_callback(db_, sqltest::collect_statement, &texts));
  ASSERT_EQ(0, sqlite_open(db_, path_.c_str()));
  exec_ok("CREATE TABLE t(a)");
  EXPECT_EQ(1, sqlite_exec(db_, "INSERT INTO t VALUES(%Q)", "it's 100%"));
  EXPECT_EQ((Strings{"PRAGMA integrity_check", "PRAGMA locking_mod = NORMAL", "CREATE TABLE t(a)",
                     "INSERT INTO t VALUES('it''s 100%')"}),
            texts);
  EXPECT_EQ((Strings{"normal"}), rows("PRAGMA locking_mode"));
  EXPECT_EQ(0, sqlite_set_log_callback(db_, nullptr, nullptr));
}

TEST_F(SqliteTest, TransactionExcludesOtherThreadsUntilItEnds) {
  exec_ok("CREATE TABLE t(who TEXT)");
  ASSERT_EQ(0, sqlite_transaction_begin(db_));
  std::atomic<bool> other_done{false};
  std::thread other([&] {
    EXPECT_EQ(1, sqlite_exec(db_, "INSERT INTO t VALUES('other')"));
    other_done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  EXPECT_FALSE(other_done.load());
  EXPECT_EQ(1, sqlite_exec(db_, "INSERT INTO t VALUES('mine')"));  // the owner locks again
  {
    vektest::LogCapture log;  // a second begin inside the transaction is refused; the first stays
    EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_transaction_begin(db_));
    EXPECT_TRUE(log.contains("_sqlite3_exec(\"BEGIN IMMEDIATE\")\n\tFailed[1] [cannot start a transaction within a transaction]\n"));
  }
  EXPECT_EQ(1, sqlite_exec(db_, "INSERT INTO t VALUES('mine')"));
  EXPECT_FALSE(other_done.load());
  EXPECT_EQ(0, sqlite_transaction_end(db_));
  other.join();
  EXPECT_EQ((Strings{"mine", "mine", "other"}), rows("SELECT who FROM t ORDER BY rowid"));

  vektest::LogCapture log;  // an end without a transaction fails and reports the stray unlock
  EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_transaction_end(db_));
  EXPECT_TRUE(log.contains("_sqlite3_exec(\"COMMIT\"(sqlite_transaction_end))\n\tFailed[1] [cannot commit - no transaction is active]\n"));
  EXPECT_TRUE(log.contains("pthread_mutex_unlock failed"));
  EXPECT_EQ(1, sqlite_exec(db_, "INSERT INTO t VALUES('after')"));  // the handle is still usable
}

TEST_F(SqliteTest, BackupCopiesOnlyWhenSomethingChanged) {
  const std::string copy = dir_.file("copy.db");
  exec_ok("CREATE TABLE t(a); INSERT INTO t VALUES(1), (2)");
  EXPECT_EQ(14, sqlite_backup(db_, "/nonexistent-dir/copy.db"));  // SQLite cannot open it
  EXPECT_EQ(0, sqlite_backup(db_, copy.c_str()));                // so this one still copies
  EXPECT_EQ("2\n", shell("SELECT count(*) FROM t;", copy));
  std::remove(copy.c_str());
  EXPECT_EQ(0, sqlite_backup(db_, copy.c_str()));
  EXPECT_FALSE(exists(copy)) << "nothing changed, nothing written";
  exec_ok("INSERT INTO t VALUES(3)");
  EXPECT_EQ(0, sqlite_backup(db_, copy.c_str()));
  EXPECT_EQ("3\n", shell("SELECT count(*) FROM t;", copy));
}

TEST_F(SqliteTest, AutoincrementDescribesTheSelfNumberedColumn) {
  const struct {
    const char* create;
    int index;
    const char *id, *name, *type, *opts;
    int columns;
  } cases[] = {
      {"CREATE TABLE t(x TEXT, id INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL, y)", 1, "1", "id", "INTEGER",
       "PRIMARY KEY AUTOINCREMENT NOT NULL", 3},
      {"CREATE TABLE t(k integer primary key, v)", 0, "0", "k", "INTEGER", "PRIMARY KEY", 2},
      {"CREATE TABLE t(k INT PRIMARY KEY, v)", -1, nullptr, nullptr, nullptr, nullptr, 2},  // INT is no row id alias
      {"CREATE TABLE t(a INTEGER, b INTEGER, PRIMARY KEY(a, b))", -1, nullptr, nullptr, nullptr, nullptr, 2},
      {"CREATE TABLE t(a, b, c, d)", -1, nullptr, nullptr, nullptr, nullptr, 4},
  };
  auto text = [](const char* s) { return std::string(s ? s : "<null>"); };
  for (const auto& c : cases) {
    exec_ok("DROP TABLE IF EXISTS t");
    exec_ok(c.create);
    _AUTOINC ai;
    ASSERT_EQ(0, sqlite_table_column_autoincrement(db_, "t", &ai)) << c.create;
    EXPECT_EQ(c.index, ai.index) << c.create;
    EXPECT_EQ(c.columns, ai.all_column_count) << c.create;
    EXPECT_EQ(text(c.id) + text(c.name) + text(c.type) + text(c.opts),
              text(ai.id) + text(ai.name) + text(ai.type) + text(ai.opts))
        << c.create;
    sqlite_autoincrement_free(&ai);
  }
  _AUTOINC ai;
  EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_table_column_autoincrement(db_, "missing", &ai));
  EXPECT_STREQ("no such table: missing", sqlite_error(db_));
}

TEST_F(SqliteTest, OpenRefusesDamagedFilesAndMissingDirectories) {
  exec_ok("CREATE TABLE t(a INTEGER PRIMARY KEY, b TEXT); CREATE INDEX tb ON t(b)");
  exec_ok("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 3000) "
          "INSERT INTO t SELECT i, printf('row %08d', i) FROM n");
  const std::string good = vektest::read_file(path_);
  ASSERT_GT(good.size(), 16u * 4096);
  std::string damaged = good;
  for (size_t page = 3; page < 10; ++page) std::memset(&damaged[page * 4096 + 100], 0x5A, 2000);
  const std::string damaged_path = dir_.file("damaged.db"), text_path = dir_.file("text.db");
  vektest::write_file(damaged_path, damaged);
  vektest::write_file(text_path, std::string(8192, 'x'));

  const struct { std::string path; int result; const char* logged; } cases[] = {
      {damaged_path, ERR_SQLITE_CORRUPT, "Database["},
      {text_path, ERR_SQLITE_CORRUPT, "PRAGMA integrity_check: [26]"},
      {"/nonexistent-dir/x.db", ERR_SQLITE_FAILED, "sqlite3_open failed[14]"},
  };
  for (const auto& c : cases) {
    void* other = nullptr;
    ASSERT_EQ(0, sqlite_create(&other));
    vektest::LogCapture log;
    EXPECT_EQ(c.result, sqlite_open(other, c.path.c_str())) << c.path;
    EXPECT_TRUE(log.contains(c.logged)) << c.path << ":\n" << log.text();
    EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_exec(other, "SELECT 1")) << "no connection is left open";
    EXPECT_EQ(0, sqlite_delete(other));
  }
}

// The shell holds an exclusive lock while it blocks reading a FIFO the test closes.
TEST_F(SqliteTest, BusyDatabaseFailsAfterAboutTwoSecondsWithOneLogLine) {
  if (!vektest::have_program("sqlite3")) GTEST_SKIP() << "sqlite3 shell not installed";
  exec_ok("CREATE TABLE t(a)");
  const std::string fifo = dir_.file("hold");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  vektest::PeerProcess holder;
  ASSERT_TRUE(holder.start({"sqlite3", path_, "-cmd", "BEGIN EXCLUSIVE", "-cmd", "INSERT INTO t VALUES(0)", "-cmd",
                            ".read " + fifo}));
  int writer = -1;  // opens once the shell reads the FIFO, that is once it holds the lock
  for (int i = 0; i < 500 && writer < 0; ++i) {
    writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    if (writer < 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_GE(writer, 0) << "the shell did not take the lock";

  vektest::LogCapture log;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ERR_SQLITE_BUSY, sqlite_exec(db_, "INSERT INTO t VALUES(1)"));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(5, sqlite_error_code(db_));
  EXPECT_GE(waited, std::chrono::milliseconds(1800));
  EXPECT_LT(waited, std::chrono::seconds(30));
  const std::string text = log.text();
  const std::string line = "_sqlbusy_callback(): repeat[10] and failed.\n";
  ASSERT_NE(std::string::npos, text.find(line));
  EXPECT_EQ(text.find(line), text.rfind(line)) << text;

  close(writer);  // the shell finishes its script and exits, rolling back
  int status = 0;
  EXPECT_TRUE(holder.wait_exit(10000, &status));
  holder.stop();
  EXPECT_EQ(1, sqlite_exec(db_, "INSERT INTO t VALUES(2)"));
}

TEST_F(SqliteTest, RefusedCallsLeaveEverythingIntact) {
  void* none = nullptr;
  int n = 0;
  long long id = 0;
  const std::pair<const char*, int> null_handle[] = {
      {"exec", sqlite_exec(none, "SELECT 1")},
      {"begin", sqlite_transaction_begin(none)},
      {"to_csv", sqlite_to_csv(none, "t", 0, 0, ',', '"', "x.csv", &n, &n, &id, &id)},
      {"from_csv", sqlite_from_csv(none, "t", 0, ',', '"', "x.csv", &n, &n)},
  };
  for (auto [what, rc] : null_handle) EXPECT_EQ(ERR_INVALID_HANDLE, rc) << what;
  EXPECT_EQ(nullptr, sqlite_error(none));
  EXPECT_EQ(nullptr, sqlite_select(none, "SELECT 1"));
  EXPECT_EQ(ERR_INVALID_PARAMETER, sqlite_create(nullptr));

  const std::string csv = dir_.file("x.csv");
  const std::pair<const char*, int> bad_arguments[] = {
      {"open without name", sqlite_open(db_, nullptr)},
      {"exec without text", sqlite_exec(db_, nullptr)},
      {"backup without name", sqlite_backup(db_, nullptr)},
      {"autoinc without record", sqlite_table_column_autoincrement(db_, "t", nullptr)},
      {"export without table", sqlite_to_csv(db_, nullptr, 0, 0, ',', 0, csv.c_str(), &n, &n, &id, &id)},
      {"export with no delimiter", sqlite_to_csv(db_, "t", 0, 0, 0, 0, csv.c_str(), &n, &n, &id, &id)},
      {"export with delimiter = qualifier", sqlite_to_csv(db_, "t", 0, 0, '"', '"', csv.c_str(), &n, &n, &id, &id)},
      {"export with LF qualifier", sqlite_to_csv(db_, "t", 0, 0, ',', '\n', csv.c_str(), &n, &n, &id, &id)},
      {"export of a 300-byte name", sqlite_to_csv(db_, std::string(300, 't').c_str(), 0, 0, ',', 0, csv.c_str(), &n, &n, &id, &id)},
      {"import with CR delimiter", sqlite_from_csv(db_, "t", 0, '\r', 0, csv.c_str(), &n, &n)},
      {"import without file", sqlite_from_csv(db_, "t", 0, ',', 0, nullptr, &n, &n)},
  };
  for (auto [what, rc] : bad_arguments) EXPECT_EQ(ERR_INVALID_PARAMETER, rc) << what;
  EXPECT_FALSE(exists(csv));

  void* closed = nullptr;  // a handle that was never opened
  ASSERT_EQ(0, sqlite_create(&closed));
  EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_exec(closed, "SELECT 1"));
  EXPECT_STREQ("no database is open", sqlite_error(closed));
  EXPECT_EQ(nullptr, sqlite_select(closed, "SELECT 1"));
  EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_backup(closed, dir_.file("b.db").c_str()));
  EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_transaction_begin(closed));
  EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_to_csv(closed, "t", 0, 0, ',', 0, csv.c_str(), &n, &n, &id, &id));
  EXPECT_EQ(0, sqlite_delete(closed));

  sqlite_free(nullptr);
  EXPECT_EQ(nullptr, sqlite_column(nullptr, 0));
  EXPECT_EQ(nullptr, sqlite_element(nullptr, 0, 0));
  EXPECT_EQ(1, sqlite_exec(db_, "CREATE TABLE t(a); INSERT INTO t VALUES(1)"));
}

TEST_F(SqliteTest, VersionAndMemoryFigures) {
  const char* version = sqlite_get_version();
  ASSERT_NE(nullptr, version);
  EXPECT_EQ(0, std::strncmp(version, "3.", 2));
  EXPECT_EQ(0, std::strncmp(version, shell("SELECT sqlite_version();").c_str(), std::strlen(version)));
  const long long used = sqlite_get_usage();
  EXPECT_GT(used, 0);
  EXPECT_GE(sqlite_get_watermark(), used);
}

}  // namespace
