// SQLite tests: one open database in a private directory, queries as text, the sqlite3 shell.
#pragma once

#include <unistd.h>

#include <string>
#include <vector>

#include <vekutil/sqlite.h>

#include "peer.hpp"
#include "vek_test.hpp"

namespace sqltest {

using Strings = std::vector<std::string>;

inline bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// A log callback that collects every statement text into a Strings.
inline void collect_statement(const char* sql, void* statements) { static_cast<Strings*>(statements)->push_back(sql); }

// Every row of a query, values joined by '|' (NULL as "NULL").
inline std::vector<std::string> rows(void* db, const std::string& sql) {
  std::vector<std::string> out;
  SQLITE_RESULT* r = sqlite_select(db, "%s", sql.c_str());
  if (!r) return {"<failed: " + std::string(sqlite_error(db) ? sqlite_error(db) : "?") + ">"};
  for (int row = 0; row < r->nrows; ++row) {
    std::string line;
    for (int c = 0; c < r->ncols; ++c) {
      const char* v = sqlite_element(r, row, c);
      line += (c ? "|" : "") + std::string(v ? v : "NULL");
    }
    out.push_back(line);
  }
  sqlite_free(r);
  return out;
}

class SqliteTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    path_ = dir_.file("test.db");
    ASSERT_EQ(0, sqlite_create(&db_));
    ASSERT_EQ(0, sqlite_open(db_, path_.c_str()));
  }
  void TearDown() override {
    if (db_) {
      EXPECT_EQ(0, sqlite_delete(db_));
    }
    LeakCheckedTest::TearDown();
  }

  void exec_ok(const std::string& sql) { ASSERT_GE(sqlite_exec(db_, "%s", sql.c_str()), 0) << sql << ": " << sqlite_error(db_); }
  std::vector<std::string> rows(const std::string& sql) { return sqltest::rows(db_, sql); }

  // Runs the sqlite3 shell on the test database with script on standard
  // input; its standard output, or "<shell failed>".
  std::string shell(const std::string& script, const std::string& db_path = "") {
    std::string out;
    const int status = vektest::run_program({"sqlite3", "-batch", db_path.empty() ? path_ : db_path}, &out, script, 30000);
    return status == 0 ? out : "<shell failed>";
  }

  vektest::TempDir dir_;
  std::string path_;
  void* db_ = nullptr;
};

}  // namespace sqltest
