// The connection on real SQLite files under the real system account: opening and creating,
// the row statements, diagnostics, transactions, escaping, the privilege guard around every
// call, and moving a root-owned file aside.
#include "kovasharing/base_db.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "db_test_util.h"
#include "kovasharing/result.h"
#include "kovatest.h"

namespace {

using dbtest::HasPidLine;
using dbtest::One;
using KOVA::sharing::db::BaseDB;
using KOVA::sharing::db::Result;
using KOVA::sharing::db::Row;

char const kInit[] =
    "PRAGMA cache_size = 5000;PRAGMA foreign_keys = ON;PRAGMA journal_mode = WAL;"
    "PRAGMA synchronous = NORMAL;";

std::string Value(BaseDB& db, std::string const& sql, std::string const& column) {
  Result result;
  if (!db.Execute(sql, result)) return "<failed>";
  Row row;
  if (!result.NextRow(row)) return "<no row>";
  return row.GetField(column).AsString("");
}

TEST(BaseDB, CreatesMissingFileAsSystemAccountAndAppliesPragmas) {
  KOVA_REQUIRE_ROOT();
  kovatest::TempDir dir;
  std::string const path = dir.File("new.db");
  dbtest::IdentityCheck identity;
  kovatest::ClearLogs();
  {
    BaseDB db(path, 432);
    identity.Expect("opening");
    ASSERT_TRUE(db.IsGood());
    auto const facts = dbtest::Facts(path);
    EXPECT_EQ(0660u, facts.mode);
    EXPECT_EQ(1u, facts.uid);
    EXPECT_EQ(1u, facts.gid);
    EXPECT_EQ(kInit, db.GetLastQuery());
    EXPECT_EQ("", db.GetLastError());
    EXPECT_EQ("wal", Value(db, "PRAGMA journal_mode", "journal_mode"));
    EXPECT_EQ("1", Value(db, "PRAGMA foreign_keys", "foreign_keys"));
    EXPECT_EQ("5000", Value(db, "PRAGMA cache_size", "cache_size"));
    EXPECT_EQ("1", Value(db, "PRAGMA synchronous", "synchronous"));  // NORMAL
    // Statements run as the system account: what they create belongs to it.
    ASSERT_TRUE(db.Execute("CREATE TABLE t(a)"));
    EXPECT_EQ(1u, dbtest::Facts(path + "-wal").uid);
    identity.Expect("statements");
  }
  EXPECT_TRUE(kovatest::Logs().empty());

  // An existing file keeps its mode; the mode argument only applies to a file made here.
  std::string const existing = dir.File("old.db");
  dbtest::MakeDb(existing, "CREATE TABLE x(a);", 0640);
  {
    BaseDB db(existing, 432);
    EXPECT_TRUE(db.IsGood());
    EXPECT_EQ(0640u, dbtest::Facts(existing).mode);
  }

  // Creation itself runs as the system account, which cannot write into a root directory.
  kovatest::TempDir rootdir;
  ASSERT_EQ(0, chown(rootdir.path().c_str(), 0, 0));
  ASSERT_EQ(0, chmod(rootdir.path().c_str(), 0755));
  kovatest::ClearLogs();
  {
    BaseDB db(rootdir.File("x.db"), 432);
    EXPECT_FALSE(db.IsGood());
    EXPECT_TRUE(
        HasPidLine("base_db", "create database failed on " + rootdir.File("x.db") + "\n\n"));
    EXPECT_FALSE(dbtest::Facts(rootdir.File("x.db")).exists);
  }
  identity.Expect("failed creation");
}

TEST(BaseDB, OpeningFailuresLeaveItNotGood) {
  KOVA_REQUIRE_ROOT();
  kovatest::TempDir dir;
  dbtest::IdentityCheck identity;

  // A file the system account cannot open.
  std::string const locked = dir.File("locked.db");
  dbtest::MakeDb(locked, "CREATE TABLE t(a);", 0600);
  ASSERT_EQ(0, chown(locked.c_str(), 0, 0));
  kovatest::ClearLogs();
  {
    BaseDB db(locked, 432);
    EXPECT_FALSE(db.IsGood());
    EXPECT_TRUE(HasPidLine("base_db", "db connect failed\n\n"));
    kovatest::ClearLogs();
    EXPECT_FALSE(db.Execute("SELECT 1"));
    EXPECT_FALSE(db.Begin());
    EXPECT_EQ(2, kovatest::LogCount("db is not good.\n\n"));
    EXPECT_TRUE(HasPidLine("base_db", "db is not good.\n\n"));
    EXPECT_EQ("", db.GetLastQuery()) << "a refused statement is not recorded";
    int id = 42;
    EXPECT_FALSE(db.GetLastInsertId(id));
    EXPECT_EQ(42, id);
  }

  // A file that is no database: connected, but the pragmas fail.
  std::string const junk = dir.File("junk.db");
  kovatest::WriteFile(junk, std::string(4096, 'j'));
  ASSERT_EQ(0, chown(junk.c_str(), 1, 1));
  kovatest::ClearLogs();
  {
    BaseDB db(junk, 432);
    EXPECT_FALSE(db.IsGood());
    EXPECT_TRUE(HasPidLine("base_db", "init failed\n\n"));
    EXPECT_EQ(kInit, db.GetLastQuery());
    EXPECT_NE(std::string::npos, db.GetLastError().find("not a database")) << db.GetLastError();
  }

  // A path in a missing directory cannot be created.
  kovatest::ClearLogs();
  {
    BaseDB db(dir.File("none/x.db"), 432);
    EXPECT_FALSE(db.IsGood());
    EXPECT_TRUE(
        HasPidLine("base_db", "create database failed on " + dir.File("none/x.db") + "\n\n"));
  }
  identity.Expect("failed openings");
}

TEST(BaseDB, RowStatementsExactTextAndEffect) {
  kovatest::TempDir dir;
  std::string const path = dir.File("rows.db");
  BaseDB db(path, 432);
  ASSERT_TRUE(db.IsGood());
  ASSERT_TRUE(db.Execute("CREATE TABLE t(id INTEGER PRIMARY KEY, a TEXT, b TEXT)"));
  dbtest::IdentityCheck identity;

  ASSERT_TRUE(db.Insert("t", {"a", "it's"}));
  EXPECT_EQ("INSERT INTO t VALUES (NULL,'a','it''s')", db.GetLastQuery());
  int id = 0;
  ASSERT_TRUE(db.GetLastInsertId(id));
  EXPECT_EQ(1, id);
  EXPECT_EQ("1|a|it's", One(path, "SELECT * FROM t"));
  for (int i = 2; i <= 6; ++i) ASSERT_TRUE(db.Insert("t", {"r", std::to_string(i)}));
  ASSERT_TRUE(db.GetLastInsertId(id));
  EXPECT_EQ(6, id);

  ASSERT_TRUE(db.Update("t", {{"b", "2"}, {"a", "1"}, {"id", "9"}}, 5));
  EXPECT_EQ("UPDATE t SET a='1',b='2' WHERE id=5", db.GetLastQuery());
  EXPECT_EQ("5|1|2", One(path, "SELECT * FROM t WHERE id = 5"));
  EXPECT_EQ("<no row>", One(path, "SELECT * FROM t WHERE id = 9")) << "the id entry is skipped";

  ASSERT_TRUE(db.Delete("t", 7));  // no such row: still fine
  EXPECT_EQ("DELETE FROM t WHERE id=7", db.GetLastQuery());
  ASSERT_TRUE(db.Delete("t", 5));
  EXPECT_EQ("DELETE FROM t WHERE id=5", db.GetLastQuery());
  EXPECT_EQ("5", One(path, "SELECT COUNT(*) FROM t"));

  // The degenerate forms are built as they are and left to SQLite to refuse.
  EXPECT_FALSE(db.Insert("t", {}));
  EXPECT_EQ("INSERT INTO t VALUES (NULL,)", db.GetLastQuery());
  EXPECT_FALSE(db.Update("t", {{"id", "5"}}, 5));
  EXPECT_EQ("UPDATE t SET  WHERE id=5", db.GetLastQuery());

  // Row ids are handed back in 32 bits.
  ASSERT_TRUE(db.Execute("INSERT INTO t VALUES (4294967299, 'big', '')"));
  ASSERT_TRUE(db.GetLastInsertId(id));
  EXPECT_EQ(3, id);
  identity.Expect("row statements");
}

TEST(BaseDB, LastErrorAndLastQuery) {
  kovatest::TempDir dir;
  BaseDB db(dir.File("diag.db"), 432);
  ASSERT_TRUE(db.IsGood());
  EXPECT_EQ("", db.GetLastError());
  kovatest::ClearLogs();
  EXPECT_FALSE(db.Execute("SELECT * FROM nowhere"));
  EXPECT_EQ("SELECT * FROM nowhere", db.GetLastQuery());
  std::string const error = db.GetLastError();
  EXPECT_EQ("no such table: nowhere", error);
  Result result;
  ASSERT_TRUE(db.Execute("SELECT 7 AS n", result));
  EXPECT_EQ("SELECT 7 AS n", db.GetLastQuery());
  EXPECT_EQ(error, db.GetLastError()) << "a success does not clear the last error";
  EXPECT_FALSE(db.Execute("CREATE TABLE"));
  EXPECT_NE(error, db.GetLastError());
  EXPECT_TRUE(kovatest::Logs().empty()) << "rejected statements are left to the callers to log";
}

TEST(BaseDB, TransactionsAndCommitRollingBack) {
  kovatest::TempDir dir;
  std::string const path = dir.File("tx.db");
  BaseDB db(path, 432);
  ASSERT_TRUE(db.IsGood());
  ASSERT_TRUE(
      db.Execute("CREATE TABLE parent(id INTEGER PRIMARY KEY);"
                 "CREATE TABLE child(id INTEGER PRIMARY KEY, pid INTEGER REFERENCES parent(id) "
                 "DEFERRABLE INITIALLY DEFERRED);"
                 "INSERT INTO parent VALUES (1);"));

  ASSERT_TRUE(db.Begin());
  EXPECT_EQ("BEGIN TRANSACTION", db.GetLastQuery());
  ASSERT_TRUE(db.Execute("INSERT INTO child VALUES (1, 1)"));
  ASSERT_TRUE(db.Commit());
  EXPECT_EQ("COMMIT", db.GetLastQuery());
  EXPECT_EQ("1", One(path, "SELECT COUNT(*) FROM child"));

  // The foreign key is only checked at COMMIT; the failed commit rolls everything back.
  ASSERT_TRUE(db.Begin());
  ASSERT_TRUE(db.Execute("INSERT INTO parent VALUES (2)"));
  ASSERT_TRUE(db.Execute("INSERT INTO child VALUES (2, 99)"));
  EXPECT_FALSE(db.Commit());
  EXPECT_EQ("ROLLBACK", db.GetLastQuery());
  EXPECT_EQ("FOREIGN KEY constraint failed", db.GetLastError());
  EXPECT_EQ("1", One(path, "SELECT COUNT(*) FROM child"));
  EXPECT_EQ("1", One(path, "SELECT COUNT(*) FROM parent"));
  EXPECT_TRUE(db.Begin()) << "no transaction may be left open: " << db.GetLastError();
  EXPECT_TRUE(db.Commit());

  // A commit without a transaction fails too, and the rollback after it changes nothing.
  EXPECT_FALSE(db.Commit());
  EXPECT_EQ("ROLLBACK", db.GetLastQuery());

  EXPECT_TRUE(db.Vacuum());
  EXPECT_EQ("VACUUM", db.GetLastQuery());
  EXPECT_TRUE(db.ExecuteWALCheckPoint());
  EXPECT_EQ("PRAGMA wal_checkpoint;", db.GetLastQuery());
}

TEST(BaseDB, Escape) {
  kovatest::TempDir dir;
  std::string const path = dir.File("esc.db");
  BaseDB db(path, 432);
  ASSERT_TRUE(db.IsGood());
  EXPECT_EQ("it''s", db.Escape("it's"));
  EXPECT_EQ("a\\b\"c", db.Escape("a\\b\"c"));
  // Long values (past any stack buffer) escape the same way.
  std::string longer(40000, 'x');
  longer[100] = '\'';
  std::string expected = longer;
  expected.insert(100, "'");
  EXPECT_EQ(expected, db.Escape(longer));

  kovatest::ClearLogs();
  EXPECT_EQ("", db.Escape(std::string("a\0b", 3)));
  EXPECT_TRUE(HasPidLine("base_db", "escape failed\n\n"));
  // Twice the length is the room there is: a lone quote needs three bytes and gets two.
  kovatest::ClearLogs();
  EXPECT_EQ("", db.Escape("'"));
  EXPECT_TRUE(HasPidLine("base_db", "escape failed\n\n"));

  // A value with a NUL cannot cut an insert short: it arrives empty.
  ASSERT_TRUE(db.Execute("CREATE TABLE t(id INTEGER PRIMARY KEY, v TEXT)"));
  ASSERT_TRUE(db.Insert("t", {std::string("x'); DROP TABLE t; --\0", 22)}));
  EXPECT_EQ("INSERT INTO t VALUES (NULL,'')", db.GetLastQuery());
  ASSERT_TRUE(db.Insert("t", {"x'); DROP TABLE t; --"}));
  EXPECT_EQ("x'); DROP TABLE t; --", One(path, "SELECT v FROM t WHERE id = 2"));
}

TEST(BaseDB, FailedSwitchRefusesStatementsAndKeepsIdentity) {
  KOVA_REQUIRE_ROOT();
  kovatest::TempDir dir;
  std::string const path = dir.File("sw.db");
  BaseDB db(path, 432);
  ASSERT_TRUE(db.IsGood());
  ASSERT_TRUE(db.Execute("CREATE TABLE t(a)"));
  // Effective uid 1 with group 2: the guard can reach neither root nor group 1.
  ASSERT_EQ(0, setresgid(-1, 2, -1));
  ASSERT_EQ(0, setresuid(-1, 1, -1));
  kovatest::ClearLogs();
  bool const ok = db.Execute("INSERT INTO t VALUES (1)");
  BaseDB other(dir.File("other.db"), 432);
  bool const other_good = other.IsGood();
  uid_t const euid = geteuid();
  gid_t const egid = getegid();
  ASSERT_EQ(0, setresuid(-1, 0, -1));
  ASSERT_EQ(0, setresgid(-1, 0, -1));

  EXPECT_FALSE(ok);
  EXPECT_EQ(1u, euid);
  EXPECT_EQ(2u, egid);
  EXPECT_EQ("INSERT INTO t VALUES (1)", db.GetLastQuery());
  EXPECT_EQ("0", One(path, "SELECT COUNT(*) FROM t"));
  EXPECT_FALSE(other_good);
  EXPECT_FALSE(dbtest::Facts(dir.File("other.db")).exists);
  auto const logs = kovatest::Logs();
  ASSERT_GE(logs.size(), 2u);
  EXPECT_EQ(0u, logs[0].text.find("base_db:"));
  EXPECT_NE(std::string::npos, logs[0].text.find(" ERROR: IF_RUN_AS(1, 1)"));
  EXPECT_EQ(LOG_AUTH | LOG_ERR, logs[0].priority);
  EXPECT_EQ(0u, logs[1].text.find("base_db:"));
  EXPECT_NE(std::string::npos,
            logs[1].text.find(" (" + dbtest::Pid() + ") failed to run as system\n\n"));
  EXPECT_EQ(LOG_ERR, logs[1].priority);
  EXPECT_EQ(2, kovatest::LogCount("failed to run as system\n\n"));  // statement and opening
}

TEST(BaseDB, IsRootAndMoveRootDB) {
  KOVA_REQUIRE_ROOT();
  kovatest::TempDir dir;
  dbtest::IdentityCheck identity;
  std::string const name = "kova-engine-move-" + dbtest::Pid() + ".db";
  std::string const path = dir.File(name);
  std::string const moved = "/tmp/" + name;
  ASSERT_FALSE(dbtest::Facts(moved).exists);
  dbtest::MakeDb(path, "CREATE TABLE t(a);", 0600);
  ASSERT_EQ(0, chown(path.c_str(), 0, 0));
  {
    BaseDB db(path, 432);
    EXPECT_FALSE(db.IsGood()) << "the system account cannot open a root file";
    EXPECT_TRUE(db.IsRoot());
    identity.Expect("IsRoot");

    // Owned by root, but the group is not "root"; then an owner without a name.
    ASSERT_EQ(0, chown(path.c_str(), 0, 1));
    EXPECT_FALSE(db.IsRoot());
    ASSERT_EQ(0, chown(path.c_str(), 4242, 0));
    EXPECT_FALSE(db.IsRoot());
    ASSERT_EQ(0, chown(path.c_str(), 0, 0));

    kovatest::ClearLogs();
    // A move that worked closes with 0, which reads as false.
    EXPECT_FALSE(db.MoveRootDB());
    identity.Expect("MoveRootDB");
    EXPECT_FALSE(dbtest::Facts(path).exists);
    auto const facts = dbtest::Facts(moved);
    EXPECT_TRUE(facts.exists);
    EXPECT_EQ(0u, facts.uid);
    EXPECT_FALSE(db.IsRoot()) << "nothing left to examine";
    // A move that failed (nothing to move) closes with a non-zero value: true.
    EXPECT_TRUE(db.MoveRootDB());
    EXPECT_TRUE(kovatest::Logs().empty());
  }
  unlink(moved.c_str());
  // The next opening starts over with a fresh file of the system account.
  {
    BaseDB db(path, 432);
    EXPECT_TRUE(db.IsGood());
    EXPECT_EQ(1u, dbtest::Facts(path).uid);
    EXPECT_FALSE(db.IsRoot());
  }

  // Without a way back to root the move is refused.
  int const rc = dbtest::InChild([&] {
    dbtest::MakeDb(path, "", 0600);
    if (chown(path.c_str(), 0, 0) != 0) return 1;
    if (!dbtest::DropForGood(2)) return 2;
    kovatest::ClearLogs();
    BaseDB db(path, 432);
    if (db.MoveRootDB()) return 3;
    if (!dbtest::HasLine("base_db", " ERROR: IF_RUN_AS(0, 0)", LOG_AUTH | LOG_ERR)) return 4;
    if (!dbtest::HasLine("base_db", " Permssion denied. uid=2", LOG_ERR)) return 5;
    if (geteuid() != 2) return 6;
    return 0;
  });
  EXPECT_EQ(0, rc);
  EXPECT_TRUE(dbtest::Facts(path).exists);
  EXPECT_FALSE(dbtest::Facts(moved).exists);
  unlink(moved.c_str());
}

}  // namespace
