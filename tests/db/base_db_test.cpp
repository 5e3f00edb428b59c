// The privilege guard and the connection, with real setresuid/setresgid and real SQLite files
// under the system account.
#include "kovasharing/base_db.h"

#include <linux/capability.h>
#include <sys/syscall.h>

#include "db/run_as.h"
#include "db_test_util.h"

namespace {

using dbtest::Ids;
using dbtest::Log;
using dbtest::Owner;
using dbtest::Sql;
using KOVA::sharing::db::BaseDB;
using KOVA::sharing::db::WriteTransaction;

// Root stays able to take uid 0 back, but can no longer set a group it does not hold.
bool DropSetgid() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  data[0].effective &= ~(1u << CAP_SETGID);
  data[0].permitted &= ~(1u << CAP_SETGID);
  return syscall(SYS_capset, &header, data) == 0;
}

std::string Guarded() {
  IF_RUN_AS(1, 1);
  return std::to_string(run_as_scope.IsSwitched()) + " " + Ids();
}

TEST(RunAs, SwitchesAndAlwaysRestores) {
  KOVA_REQUIRE_ROOT();
  kovatest::TempDir dir;
  BaseDB db(dir.File("sw.db"), 432);
  ASSERT_TRUE(db.Execute("CREATE TABLE t(a)"));
  kovatest::ClearLogs();
  for (uid_t from : {0u, 5u, 1u}) {  // from 5, root is regained in between
    ASSERT_TRUE(dbtest::Become(from, from));
    EXPECT_EQ("1 1:1", Guarded());
    EXPECT_EQ(std::to_string(from) + ":" + std::to_string(from), Ids());
  }
  EXPECT_EQ("", Log());

  // Already uid 1, root is not regained, and the group cannot change: the guard, a statement
  // and the creation of a file all fail, each logged, and the identity stays.
  ASSERT_TRUE(dbtest::Become(1, 2));
  std::string seen = Guarded();
  seen += " " + std::to_string(db.Execute("INSERT INTO t VALUES (1)"));
  seen += " " + std::to_string(BaseDB(dir.File("other.db"), 432).IsGood()) + " " + Ids();
  ASSERT_TRUE(dbtest::Become(0, 0));
  EXPECT_EQ("0 1:2 0 0 1:2", seen);
  EXPECT_EQ("0 none",
            Sql(dir.File("sw.db"), "SELECT COUNT(*) FROM t") + " " + Owner(dir.File("other.db")));
  std::string const failed =
      "|auth: base_db:# ERROR: IF_RUN_AS(1, 1)|base_db:# (pid) failed to run as system\n\n";
  EXPECT_EQ("auth: base_db_test:# ERROR: IF_RUN_AS(1, 1)" + failed + failed, Log());

  // A switch that fails half-way (root regained, then the group refused) is undone on leaving.
  EXPECT_EQ("0 0:0 5:0", dbtest::InChild([] {
              if (!DropSetgid() || setresuid(-1, 5, -1) != 0) return std::string("no set-up");
              std::string const inside = Guarded();
              return inside + " " + Ids();
            }));
  // Root given up for good inside the guard: leaving it cannot restore uid 0, and says so.
  EXPECT_EQ("1:1 crit: base_db_test:# ERROR: ~IF_RUN_AS(0, 0)", dbtest::InChild([] {
              {
                IF_RUN_AS(1, 1);
                if (setresuid(1, 1, 1) != 0) return std::string("no set-up");
              }
              return Ids() + " " + Log();
            }));
}

TEST(BaseDB, OpeningCreatingAndRootFiles) {
  KOVA_REQUIRE_ROOT();
  kovatest::TempDir dir;
  std::string const path = dir.File("new.db"), existing = dir.File("old.db");
  kovatest::ClearLogs();
  EXPECT_TRUE(BaseDB(path, 432).IsGood());
  EXPECT_EQ("660 1:1 wal", Owner(path) + " " + Sql(path, "PRAGMA journal_mode"));
  dbtest::MakeDb(existing, "CREATE TABLE x(a);", 0640);
  EXPECT_TRUE(BaseDB(existing, 432).IsGood());
  EXPECT_EQ("640 1:1", Owner(existing)) << "the mode only applies to a file made here";
  kovatest::WriteFile(existing, std::string(4096, 'j'));  // no database: the set-up fails
  EXPECT_FALSE(BaseDB(existing, 432).IsGood());
  EXPECT_EQ("base_db:# (pid) init failed\n\n", Log());

  // A root file the system account cannot open is no good; it is moved aside to /tmp.
  std::string const name = "kova-engine-move-" + std::to_string(getpid()) + ".db";
  std::string const root_file = dir.File(name), moved = "/tmp/" + name;
  dbtest::MakeDb(root_file, "", 0600);
  ASSERT_EQ(0, chown(root_file.c_str(), 0, 0));
  {
    BaseDB db(root_file, 432);
    EXPECT_FALSE(db.IsGood() || db.Execute("SELECT 1"));
    EXPECT_TRUE(db.IsRoot());
    ASSERT_EQ(0, chown(root_file.c_str(), 0, 1));  // both owner and group must be root
    EXPECT_FALSE(db.IsRoot());
    ASSERT_EQ(0, chown(root_file.c_str(), 0, 0));
    db.MoveRootDB();
    EXPECT_EQ("none 600 0:0", Owner(root_file) + " " + Owner(moved));
  }
  ASSERT_EQ(0, rename(moved.c_str(), root_file.c_str()));
  // Without a way back to root the move is refused.
  EXPECT_EQ("base_db:# Permssion denied. uid=2", dbtest::InChild([&] {
              if (!dbtest::DropForGood(2)) return std::string("no set-up");
              BaseDB db(root_file, 432);
              kovatest::ClearLogs();
              db.MoveRootDB();
              return Log().substr(Log().rfind('|') + 1);
            }));
  EXPECT_EQ("600 0:0", Owner(root_file));
}

TEST(BaseDB, RowsTransactionsAndEscaping) {
  kovatest::TempDir dir;
  std::string const path = dir.File("rows.db");
  BaseDB db(path, 432);
  ASSERT_TRUE(
      db.Execute("CREATE TABLE t(id INTEGER PRIMARY KEY, a TEXT, b TEXT);"
                 "CREATE TABLE child(id INTEGER PRIMARY KEY, pid INTEGER REFERENCES t(id) "
                 "DEFERRABLE INITIALLY DEFERRED);"));
  kovatest::ClearLogs();
  int id = 0;
  ASSERT_TRUE(db.Insert("t", {"a", "it's"}));
  EXPECT_TRUE(db.GetLastInsertId(id) && id == 1);
  ASSERT_TRUE(db.Insert("t", {"b", "2"}));
  ASSERT_TRUE(db.Update("t", {{"b", "x'y"}, {"a", "1"}, {"id", "9"}}, 2));  // the id stays
  ASSERT_TRUE(db.Delete("t", 7));                                           // no such row
  EXPECT_EQ("1|a|it's;2|1|x'y", Sql(path, "SELECT * FROM t"));
  ASSERT_TRUE(db.Delete("t", 1));
  EXPECT_EQ("2", Sql(path, "SELECT group_concat(id) FROM t"));

  // The foreign key is checked at COMMIT; the failed commit rolls everything back and leaves
  // no transaction open.
  ASSERT_TRUE(db.Begin());
  ASSERT_TRUE(db.Execute("INSERT INTO t VALUES (5, '', '');INSERT INTO child VALUES (2, 99)"));
  EXPECT_FALSE(db.Commit());
  EXPECT_EQ("FOREIGN KEY constraint failed", db.GetLastError());
  EXPECT_TRUE(db.Begin() && db.Commit());
  EXPECT_EQ("0|1", Sql(path, "SELECT (SELECT COUNT(*) FROM child), (SELECT COUNT(*) FROM t)"));
  {
    WriteTransaction committed(db);
    ASSERT_TRUE(committed.IsOpen() && db.Execute("INSERT INTO t VALUES (6, 'kept', '')"));
    EXPECT_TRUE(committed.Commit());
    EXPECT_FALSE(committed.Commit());
    WriteTransaction dropped(db);
    ASSERT_TRUE(dropped.IsOpen() && db.Execute("INSERT INTO t VALUES (7, 'dropped', '')"));
  }
  EXPECT_EQ("2;6", Sql(path, "SELECT id FROM t"));
  EXPECT_EQ("", Log());

  std::string longer(40000, 'x');  // past any stack buffer
  longer[100] = '\'';
  EXPECT_EQ(longer.substr(0, 101) + longer.substr(100), db.Escape(longer));
  EXPECT_EQ("a\\b\"c''", db.Escape("a\\b\"c'"));
  // Twice the length is the room there is, and a NUL could cut a statement short: such a
  // value is written as an empty text.
  for (std::string const& refused : {"'"s, "a\0b"s}) EXPECT_EQ("", db.Escape(refused));
  ASSERT_TRUE(db.Insert("t", {"x'); --\0"s, "b"}));
  EXPECT_EQ("|b", Sql(path, "SELECT a || '|' || b FROM t WHERE b = 'b'"));
  EXPECT_EQ(3, kovatest::LogCount("escape failed"));
}

}  // namespace
