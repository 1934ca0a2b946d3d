// Failed loads leave nothing loaded; own binary, as SQLite stays loaded once loaded.
#include <vekutil/errors.h>
#include <vekutil/sqlite.h>

#include "vek_test.hpp"

namespace {

class SqliteLoadTest : public vektest::LeakCheckedTest {};

TEST_F(SqliteLoadTest, FailedLoadsReportAndTheNextCallRetries) {
  const struct { const char* path; const char* logged; } cases[] = {
      {"/nonexistent-dir/libsqlite3.so", "loader_load(/nonexistent-dir/libsqlite3.so): dlopen failed"},
      {"libm.so.6", "sqlite_init(): function sqlite3_open not found\n"},  // loads, but is not SQLite
  };
  for (const auto& c : cases) {
    vektest::LogCapture log;
    ASSERT_EQ(0, sqlite_set_library_path(c.path));
    void* db = reinterpret_cast<void*>(1);
    EXPECT_EQ(ERR_SQLITE_LOAD, sqlite_create(&db)) << c.path;
    EXPECT_EQ(nullptr, db);
    EXPECT_EQ(ERR_SQLITE_LOAD, sqlite_exec(nullptr, "SELECT 1")) << "loading comes before the handle check";
    EXPECT_EQ(ERR_SQLITE_FAILED, sqlite_transaction_begin(nullptr)) << "transactions report a failed load so";
    EXPECT_EQ(nullptr, sqlite_get_version());
    EXPECT_EQ(ERR_SQLITE_LOAD, sqlite_get_usage());
    EXPECT_EQ(nullptr, g_sqlite_dbhandle);
    EXPECT_TRUE(log.contains(c.logged)) << log.text();
  }
  EXPECT_EQ(ERR_INVALID_PARAMETER, sqlite_set_library_path(std::string(5000, 'x').c_str()));

  ASSERT_EQ(0, sqlite_set_library_path(nullptr));  // back to the default search
  void* db = nullptr;
  ASSERT_EQ(0, sqlite_create(&db));
  EXPECT_NE(nullptr, g_sqlite_dbhandle);
  EXPECT_EQ(0, sqlite_open(db, ":memory:"));
  EXPECT_EQ(1, sqlite_exec(db, "CREATE TABLE t(a); INSERT INTO t VALUES(1)"));
  EXPECT_EQ(0, sqlite_delete(db));
}

}  // namespace
