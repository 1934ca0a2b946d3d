// SQLite open, select, CSV export and import with each allocation failing: clean failures.
#include <string>

#include <vekutil/vekutil.h>

#include "alloc_failure.hpp"
#include "sqlite_fixture.hpp"

namespace {

using sqltest::exists;
using vektest::for_each_allocation_failure;

class SqliteAllocFailureTest : public vektest::AllocFailureFixture {
 protected:
  // Loading SQLite happens once per process and is kept.
  static void SetUpTestSuite() { ASSERT_EQ(0, sqlite_init()); }

  void SetUp() override {
    AllocFailureFixture::SetUp();
    ASSERT_EQ(0, sqlite_create(&db_));
    ASSERT_EQ(0, sqlite_open(db_, dir_.file("data.db").c_str()));
    ASSERT_GE(sqlite_exec(db_, "CREATE TABLE t(id INTEGER PRIMARY KEY, name TEXT, size REAL)"), 0);
    for (int i = 0; i < 150; ++i)
      ASSERT_EQ(1, sqlite_exec(db_, "INSERT INTO t(name, size) VALUES('item %d, \"quoted\"', %d.5)", i, i));
  }
  void TearDown() override {
    EXPECT_EQ(0, sqlite_delete(db_));
    AllocFailureFixture::TearDown();
  }

  vektest::TempDir dir_;
  void* db_ = nullptr;
};

TEST_F(SqliteAllocFailureTest, CreateAndOpen) {
  const std::string path = dir_.file("fresh.db");
  for_each_allocation_failure([&] {
    void* db = nullptr;
    int rc = sqlite_create(&db);
    if (rc != 0) {
      EXPECT_EQ(ERR_NO_MEMORY, rc);
      EXPECT_EQ(nullptr, db);
      return false;
    }
    rc = sqlite_open(db, path.c_str());
    EXPECT_TRUE(rc == 0 || rc == ERR_NO_MEMORY || rc == ERR_SQLITE_FAILED) << rc;
    EXPECT_EQ(0, sqlite_delete(db));
    return rc == 0;
  });
}

TEST_F(SqliteAllocFailureTest, Select) {
  for_each_allocation_failure([&] {
    SQLITE_RESULT* r = sqlite_select(db_, "SELECT id, name, size FROM t WHERE id > %d ORDER BY id", 100);
    if (!r) {
      EXPECT_EQ(ERR_NO_MEMORY, sqlite_error_code(db_));
      return false;
    }
    EXPECT_EQ(50, r->nrows);
    EXPECT_STREQ("item 149, \"quoted\"", sqlite_element(r, 49, 1));
    sqlite_free(r);
    return true;
  });
}

// Export, then import into a new table: each run fails cleanly or moves all 150 rows.
TEST_F(SqliteAllocFailureTest, CsvExportAndImport) {
  const std::string file = dir_.file("t.csv");
  for_each_allocation_failure([&] {
    int written = 0, failed = 0;
    int rc = sqlite_to_csv(db_, "t", 0, 1, ';', '"', file.c_str(), &written, &failed, nullptr, nullptr);
    if (rc != 0) {
      EXPECT_EQ(ERR_NO_MEMORY, rc);
      EXPECT_FALSE(exists(file)) << "partial export left behind";
      return false;
    }
    EXPECT_EQ(150, written);
    return true;
  });

  ASSERT_EQ(0, sqlite_to_csv(db_, "t", 0, 1, ';', '"', file.c_str(), nullptr, nullptr, nullptr, nullptr));
  static int table = 0;
  for_each_allocation_failure([&] {
    // A new table per run: emptying one could itself be the failing step.
    std::string name = "copy" + std::to_string(++table);
    if (sqlite_exec(db_, "CREATE TABLE %s(id INTEGER PRIMARY KEY, name TEXT, size REAL)", name.c_str()) < 0)
      return false;
    int inserted = 0, refused = 0;
    int rc = sqlite_from_csv(db_, name.c_str(), 1, ';', '"', file.c_str(), &inserted, &refused);
    if (rc != 0) {
      EXPECT_TRUE(rc == ERR_NO_MEMORY || rc == ERR_SQLITE_IMPORT || rc == ERR_SQLITE_TRANSACTION) << rc;
    } else {
      EXPECT_EQ(150, inserted + refused);
    }
    SQLITE_RESULT* r = sqlite_select(db_, "SELECT count(*) FROM %s", name.c_str());
    if (r) {
      // What was reported inserted is there, nothing more.
      EXPECT_EQ(std::to_string(inserted), sqlite_element(r, 0, 0));
      sqlite_free(r);
    }
    return rc == 0 && refused == 0;
  });
}

}  // namespace
