// ctest-labels: tsan
// Four threads share one handle, two in transactions of ten rows: no foreign
// row inside a transaction, every row arrives.
#include <thread>

#include "sqlite_fixture.hpp"

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kStatementsPerThread = 1000;
#else
constexpr int kStatementsPerThread = 10000;
#endif
constexpr int kThreads = 4;
constexpr int kRowsPerTransaction = 10;

using sqltest::SqliteTest;

void insert_rows(void* db, int thread, bool in_transactions) {
  for (int i = 0; i < kStatementsPerThread; i += kRowsPerTransaction) {
    const int txn = i / kRowsPerTransaction;
    ASSERT_EQ(0, in_transactions ? sqlite_transaction_begin(db) : 0);
    for (int k = 0; k < kRowsPerTransaction; ++k)
      ASSERT_EQ(1, sqlite_exec(db, "INSERT INTO t(thread, txn, seq) VALUES(%d, %d, %d)", thread, in_transactions ? txn : -1, i + k));
    ASSERT_EQ(0, in_transactions ? sqlite_transaction_end(db) : 0);
  }
}

TEST_F(SqliteTest, FourThreadsShareOneHandle) {
  // Durability is not under test: without syncing and journal files, 20,000
  // single commits take a second instead of minutes.
  exec_ok("PRAGMA synchronous = OFF");
  ASSERT_EQ((std::vector<std::string>{"memory"}), rows("PRAGMA journal_mode = MEMORY"));
  exec_ok("CREATE TABLE t(id INTEGER PRIMARY KEY, thread INT, txn INT, seq INT)");
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(insert_rows, db_, t, t < 2);
  for (auto& th : threads) th.join();

  EXPECT_EQ((std::vector<std::string>{std::to_string(kThreads * kStatementsPerThread)}), rows("SELECT count(*) FROM t"));
  // Per thread: every sequence number once.
  EXPECT_EQ((std::vector<std::string>{"0|" + std::to_string(kStatementsPerThread), "1|" + std::to_string(kStatementsPerThread),
                                      "2|" + std::to_string(kStatementsPerThread), "3|" + std::to_string(kStatementsPerThread)}),
            rows("SELECT thread, count(DISTINCT seq) FROM t GROUP BY thread ORDER BY thread"));
  // A transaction's rows have consecutive ids: nothing came in between.
  EXPECT_EQ((std::vector<std::string>{}),
            rows("SELECT thread, txn FROM t WHERE txn >= 0 GROUP BY thread, txn "
                 "HAVING max(id) - min(id) <> " + std::to_string(kRowsPerTransaction - 1) + " OR count(*) <> " +
                 std::to_string(kRowsPerTransaction)));
  EXPECT_EQ(1, sqlite_exec(db_, "INSERT INTO t(thread) VALUES(9)"));  // nothing is left locked
}

}  // namespace
