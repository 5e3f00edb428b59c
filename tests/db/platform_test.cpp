// The platform's database access layer on real files: what a text of statements runs and
// returns, and how long a writer waits for a lock another connection holds.
#include <chrono>
#include <thread>

#include "db_test_util.h"
#include "kovadb.h"

namespace {

using dbtest::Sql;

TEST(KovaDB, ConnectExecuteFetch) {
  kovatest::TempDir dir;
  std::string const path = dir.File("p.db");
  EXPECT_EQ(nullptr, KOVADBConnect("", "", "", path.c_str()));
  EXPECT_EQ("none", dbtest::Owner(path)) << "connecting must not create the file";
  dbtest::MakeDb(path);
  KOVADB* db = KOVADBConnect("", "", "", path.c_str());
  ASSERT_NE(nullptr, KOVADBGetHandle(db));
  // Every statement runs; the rows are those of the last statement that had columns.
  DBResult_tag* res = nullptr;
  ASSERT_EQ(0, KOVADBExecute(db,
                             "SELECT 0 AS a;CREATE TABLE t(a, b);INSERT INTO t VALUES (1, NULL), "
                             "('x', 2.5);SELECT a, b FROM t ORDER BY rowid;",
                             &res));
  std::string rows;
  for (unsigned row = 77; KOVADBFetchRow(res, &row) == 0;) {
    char const* missing = KOVADBFetchField(res, row, "c");
    rows += std::to_string(row) + ":" + KOVADBFetchField(res, row, "a") + "," +
            KOVADBFetchField(res, row, "b") + (missing ? "<c>" : "") + ";";
  }
  EXPECT_EQ("0:1,;1:x,2.5;", rows) << "SQL NULL reads as \"\", a missing column as null";
  KOVADBFreeResult(res);

  // A failure stops the text there; a transaction opened before it stays open for its owner.
  ASSERT_EQ(0, KOVADBExecute(db, "BEGIN;INSERT INTO t VALUES (9, 9);", nullptr));
  EXPECT_EQ(-1,
            KOVADBExecute(db, "INSERT INTO t VALUES (10, 10);SELEC;INSERT INTO t VALUES (11, 11);",
                          &res));
  EXPECT_EQ(nullptr, res);
  EXPECT_STREQ("near \"SELEC\": syntax error", KOVADBErrorGet(db));
  ASSERT_EQ(0, KOVADBExecute(db, "COMMIT;", nullptr));
  EXPECT_EQ("1;x;9;10", Sql(path, "SELECT a FROM t"));
  KOVADBClose(db);
}

TEST(KovaDB, WriterWaitsForTheLockInsteadOfFailing) {
  kovatest::TempDir dir;
  std::string const path = dir.File("busy.db");
  dbtest::MakeDb(path, "PRAGMA journal_mode = WAL; CREATE TABLE t(a);");
  KOVADB* holder = KOVADBConnect("", "", "", path.c_str());
  KOVADB* waiter = KOVADBConnect("", "", "", path.c_str());
  ASSERT_EQ(0, KOVADBExecute(holder, "BEGIN IMMEDIATE;INSERT INTO t VALUES (1);", nullptr));
  std::chrono::steady_clock::time_point released;
  std::thread release([holder, &released] {
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    KOVADBExecute(holder, "COMMIT", nullptr);
    released = std::chrono::steady_clock::now();
  });
  auto const start = std::chrono::steady_clock::now();
  EXPECT_EQ(0, KOVADBExecute(waiter, "INSERT INTO t VALUES (2);", nullptr));
  auto const done = std::chrono::steady_clock::now();
  release.join();
  EXPECT_GE(done - start, std::chrono::milliseconds(300));
  // The waiter retries every millisecond by then, not SQLite's own sleeps of 25 ms and more.
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(done - released).count(), 15);
  EXPECT_EQ("2", Sql(path, "SELECT COUNT(*) FROM t"));
  KOVADBClose(holder);
  KOVADBClose(waiter);
}

}  // namespace
