// The privilege guard and the connection, with real setresuid/setresgid and real SQLite files
// under the system account: switching and restoring, opening and creating, the row statements,
// diagnostics, transactions, escaping, and moving a root-owned file aside.
#include "kovasharing/base_db.h"

#include "db_test_util.h"
#include "internal/run_as.h"

namespace {

using dbtest::Ids;
using dbtest::Log;
using dbtest::Owner;
using dbtest::Ran;
using dbtest::Sql;
using KOVA::sharing::db::BaseDB;

char const kInit[] =
    "PRAGMA cache_size = 5000;PRAGMA foreign_keys = ON;PRAGMA journal_mode = WAL;"
    "PRAGMA synchronous = NORMAL;";

TEST(RunAs, SwitchesRestoresAndLogsFailures) {
  KOVA_REQUIRE_ROOT();
  kovatest::TempDir dir;
  std::string const path = dir.File("sw.db");
  BaseDB db(path, 432);
  ASSERT_TRUE(db.Execute("CREATE TABLE t(a)"));
  kovatest::ClearLogs();
  for (uid_t from : {0u, 5u, 1u}) {  // from 5, root is regained in between
    ASSERT_TRUE(dbtest::Become(from, from));
    {
      IF_RUN_AS(1, 1);
      EXPECT_TRUE(run_as_scope.IsSwitched());
      EXPECT_EQ("1:1 0", Ids() + " " + std::to_string(getuid())) << "only the effective ids";
    }
    EXPECT_EQ(std::to_string(from) + ":" + std::to_string(from), Ids());
  }
  EXPECT_EQ("", Log());

  // Already uid 1, so root is not regained, and without root the group cannot change: the
  // guard fails, and so do a statement and the creation of a file.
  ASSERT_TRUE(dbtest::Become(1, 2));
  std::string seen;
  int line = 0;
  {
    // clang-format off
    IF_RUN_AS(1, 1); line = __LINE__;
    // clang-format on
    seen = std::to_string(run_as_scope.IsSwitched()) + " " + Ids();
  }
  seen += " " + Ids();
  seen += " " + Ran(db, db.Execute("INSERT INTO t VALUES (1)"));
  seen += " " + Ids();
  bool const other_good = BaseDB(dir.File("other.db"), 432).IsGood();
  seen += " " + Ids();
  ASSERT_TRUE(dbtest::Become(0, 0));
  EXPECT_EQ("0 1:2 1:2 failed INSERT INTO t VALUES (1) 1:2 1:2", seen);
  EXPECT_FALSE(other_good);
  EXPECT_EQ("0 none", Sql(path, "SELECT COUNT(*) FROM t") + " " + Owner(dir.File("other.db")));
  EXPECT_EQ("base_db_test:" + std::to_string(line) + " ERROR: IF_RUN_AS(1, 1)",
            kovatest::Logs().at(0).text);
  std::string const failed =
      "|auth: base_db:# ERROR: IF_RUN_AS(1, 1)|base_db:# (pid) failed to run as system\n\n";
  EXPECT_EQ("auth: base_db_test:# ERROR: IF_RUN_AS(1, 1)" + failed + failed, Log());

  // Root given up for good inside the guard: leaving it cannot restore uid 0.
  EXPECT_EQ("1 1:1 crit: base_db_test:# ERROR: ~IF_RUN_AS(0, 0)", dbtest::InChild([] {
              bool switched;
              {
                IF_RUN_AS(1, 1);
                switched = run_as_scope.IsSwitched() && setresuid(1, 1, 1) == 0;
              }
              return std::to_string(switched) + " " + Ids() + " " + Log();
            }));
  // No way back to root at all: the switch fails, and there is nothing to restore.
  EXPECT_EQ("0 2:2 auth: base_db_test:# ERROR: IF_RUN_AS(1, 1)", dbtest::InChild([] {
              bool switched = dbtest::DropForGood(2);
              {
                IF_RUN_AS(1, 1);
                switched = switched && run_as_scope.IsSwitched();
              }
              return std::to_string(switched) + " " + Ids() + " " + Log();
            }));
}

TEST(BaseDB, OpeningCreatingAndRootFiles) {
  KOVA_REQUIRE_ROOT();
  kovatest::TempDir dir;
  std::string const path = dir.File("new.db"), existing = dir.File("old.db");
  kovatest::ClearLogs();
  {
    BaseDB db(path, 432);
    EXPECT_TRUE(db.IsGood());
    EXPECT_FALSE(db.IsRoot());
    EXPECT_EQ("660 1:1", Owner(path)) << "made by the system account";
    EXPECT_EQ(kInit, db.GetLastQuery());
    EXPECT_EQ("wal", Sql(path, "PRAGMA journal_mode"));
  }
  dbtest::MakeDb(existing, "CREATE TABLE x(a);", 0640);
  EXPECT_TRUE(BaseDB(existing, 432).IsGood());
  EXPECT_EQ("640 1:1", Owner(existing)) << "the mode only applies to a file made here";
  EXPECT_EQ("", Log());

  // A file that is no database: connected, but the pragmas fail.
  kovatest::WriteFile(existing, std::string(4096, 'j'));
  kovatest::ClearLogs();
  {
    BaseDB db(existing, 432);
    EXPECT_FALSE(db.IsGood());
    EXPECT_EQ("base_db:# (pid) init failed\n\n", Log());
    EXPECT_EQ("failed "s + kInit, Ran(db, false));
    EXPECT_EQ("file is not a database", db.GetLastError());
  }

  // A root file the system account cannot open: not good, and every statement is refused.
  std::string const name = "kova-engine-move-" + std::to_string(getpid()) + ".db";
  std::string const root_file = dir.File(name), moved = "/tmp/" + name;
  ASSERT_EQ("none", Owner(moved));
  dbtest::MakeDb(root_file, "", 0600);
  ASSERT_EQ(0, chown(root_file.c_str(), 0, 0));
  kovatest::ClearLogs();
  {
    BaseDB db(root_file, 432);
    EXPECT_FALSE(db.IsGood());
    EXPECT_EQ("failed ", Ran(db, db.Execute("SELECT 1") || db.Begin()))
        << "a refused statement is not recorded";
    int id = 42;
    EXPECT_FALSE(db.GetLastInsertId(id));
    EXPECT_EQ(42, id);
    EXPECT_TRUE(db.IsRoot());
    // Both owner and group must be named "root"; an owner without a name is not.
    for (auto ids : {std::make_pair(0, 1), std::make_pair(4242, 0)}) {
      ASSERT_EQ(0, chown(root_file.c_str(), ids.first, ids.second));
      EXPECT_FALSE(db.IsRoot()) << ids.first << ":" << ids.second;
    }
    ASSERT_EQ(0, chown(root_file.c_str(), 0, 0));
    EXPECT_FALSE(db.MoveRootDB()) << "a move that worked closes with 0, which reads as false";
    EXPECT_EQ("none 600 0:0", Owner(root_file) + " " + Owner(moved));
    EXPECT_FALSE(db.IsRoot()) << "nothing left to examine";
    EXPECT_TRUE(db.MoveRootDB()) << "nothing to move: a non-zero close value reads as true";
    EXPECT_EQ(
        "base_db:# (pid) db connect failed\n\n|base_db:# (pid) db is not good.\n\n"
        "|base_db:# (pid) db is not good.\n\n",
        Log());
  }
  ASSERT_EQ(0, rename(moved.c_str(), root_file.c_str()));
  // Without a way back to root the move is refused.
  EXPECT_EQ(
      "0 auth: base_db:# ERROR: IF_RUN_AS(1, 1)|base_db:# (pid) failed to run as system\n\n"
      "|auth: base_db:# ERROR: IF_RUN_AS(0, 0)|base_db:# Permssion denied. uid=2",
      dbtest::InChild([&] {
        bool const ok = dbtest::DropForGood(2) && BaseDB(root_file, 432).MoveRootDB();
        return std::to_string(ok) + " " + Log();
      }));
  EXPECT_EQ("600 0:0 none", Owner(root_file) + " " + Owner(moved));
}

TEST(BaseDB, StatementsDiagnosticsTransactionsAndEscaping) {
  kovatest::TempDir dir;
  std::string const path = dir.File("rows.db");
  BaseDB db(path, 432);
  ASSERT_TRUE(
      db.Execute("CREATE TABLE t(id INTEGER PRIMARY KEY, a TEXT, b TEXT);"
                 "CREATE TABLE child(id INTEGER PRIMARY KEY, pid INTEGER REFERENCES t(id) "
                 "DEFERRABLE INITIALLY DEFERRED);"));
  kovatest::ClearLogs();
  int id = 0;
  EXPECT_EQ("ok INSERT INTO t VALUES (NULL,'a','it''s')", Ran(db, db.Insert("t", {"a", "it's"})));
  EXPECT_TRUE(db.GetLastInsertId(id));
  EXPECT_EQ(1, id);
  ASSERT_TRUE(db.Insert("t", {"b", "2"}));
  EXPECT_EQ("ok UPDATE t SET a='1',b='2' WHERE id=2",
            Ran(db, db.Update("t", {{"b", "2"}, {"a", "1"}, {"id", "9"}}, 2)));
  EXPECT_EQ("1|a|it's;2|1|2", Sql(path, "SELECT group_concat(id||'|'||a||'|'||b, ';') FROM t"));
  EXPECT_EQ("ok DELETE FROM t WHERE id=7", Ran(db, db.Delete("t", 7)));  // no such row
  ASSERT_TRUE(db.Delete("t", 1));
  EXPECT_EQ("2", Sql(path, "SELECT group_concat(id) FROM t"));

  // The degenerate forms are built as they are and left to SQLite to refuse; the last error
  // stays until the next failure, and the callers do the logging.
  EXPECT_EQ("", db.GetLastError());
  EXPECT_EQ("failed INSERT INTO t VALUES (NULL,)", Ran(db, db.Insert("t", {})));
  EXPECT_EQ("ok SELECT 1", Ran(db, db.Execute("SELECT 1")));
  EXPECT_EQ("near \")\": syntax error", db.GetLastError());
  EXPECT_EQ("failed UPDATE t SET  WHERE id=5", Ran(db, db.Update("t", {{"id", "5"}}, 5)));
  EXPECT_EQ("near \"WHERE\": syntax error", db.GetLastError());
  EXPECT_EQ("", Log());
  // Row ids are handed back in 32 bits.
  ASSERT_TRUE(db.Execute("INSERT INTO t VALUES (4294967299, 'big', '')"));
  EXPECT_TRUE(db.GetLastInsertId(id));
  EXPECT_EQ(3, id);

  EXPECT_EQ("ok BEGIN TRANSACTION", Ran(db, db.Begin()));
  ASSERT_TRUE(db.Execute("INSERT INTO child VALUES (1, 2)"));
  EXPECT_EQ("ok COMMIT", Ran(db, db.Commit()));
  // The foreign key is only checked at COMMIT; the failed commit rolls everything back.
  ASSERT_TRUE(db.Begin());
  ASSERT_TRUE(db.Execute("INSERT INTO t VALUES (5, '', '');INSERT INTO child VALUES (2, 99)"));
  EXPECT_EQ("failed ROLLBACK", Ran(db, db.Commit()));
  EXPECT_EQ("FOREIGN KEY constraint failed", db.GetLastError());
  EXPECT_EQ("1|2", Sql(path, "SELECT (SELECT COUNT(*) FROM child), (SELECT COUNT(*) FROM t)"));
  EXPECT_EQ("ok COMMIT", Ran(db, db.Begin() && db.Commit())) << "no transaction left open";
  EXPECT_EQ("ok VACUUM", Ran(db, db.Vacuum()));
  EXPECT_EQ("ok PRAGMA wal_checkpoint;", Ran(db, db.ExecuteWALCheckPoint()));

  EXPECT_EQ("a\\b\"c", db.Escape("a\\b\"c"));
  std::string longer(40000, 'x');  // past any stack buffer
  longer[100] = '\'';
  EXPECT_EQ(longer.substr(0, 101) + longer.substr(100), db.Escape(longer));
  // Twice the length is the room there is: a lone quote needs three bytes and gets two.
  // A value with a NUL cannot cut an insert short: it arrives empty.
  EXPECT_EQ("a''", db.Escape("a'"));  // the doubled quote and the NUL fit exactly
  EXPECT_EQ("", db.Escape("'"));
  EXPECT_EQ("", db.Escape("a\0b"s));  // a NUL, wherever it stands
  EXPECT_EQ("ok INSERT INTO t VALUES (NULL,'','b')", Ran(db, db.Insert("t", {"x'); --\0"s, "b"})));
  EXPECT_EQ(
      "base_db:# (pid) escape failed\n\n|base_db:# (pid) escape failed\n\n|base_db:# (pid) escape "
      "failed\n\n",
      Log());
}

}  // namespace
