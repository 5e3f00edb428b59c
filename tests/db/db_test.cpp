// The privilege guard, connection, rows, transactions, escaping, conditions and migration.
#include <fcntl.h>
#include <grp.h>
#include <kova_autoblock.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <syslog.h>

#include <atomic>
#include <regex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "db/run_as.h"
#include "kova_paths.h"
#include "kovasharing/base_db.h"
#include "kovasharing/condition.h"
#include "kovasharing/constants.h"
#include "kovasharing/result.h"
#include "kovasharing/sharing_db.h"
#include "kovatest_db.h"

namespace {

using namespace kovatest;
using namespace std::string_literals;
using namespace KOVA::sharing::db;

// The captured lines joined by "|", line numbers as "#", pid as "pid", auth/crit marked.
std::string Log() {
  std::string out;
  std::regex const number("^(\\w+):\\d+"), pid(" \\(" + std::to_string(getpid()) + "\\) ");
  for (auto const& line : Logs()) {
    int const p = line.priority;
    out += (out.empty() ? "" : "|") + std::string(p == (LOG_AUTH | LOG_ERR)    ? "auth: "
                                                  : p == (LOG_AUTH | LOG_CRIT) ? "crit: "
                                                                               : "");
    out += std::regex_replace(std::regex_replace(line.text, number, "$1:#"), pid, " (pid) ");
  }
  return out;
}

std::string Guarded() {
  IF_RUN_AS(1, 1);
  return std::to_string(run_as_scope.IsSwitched()) + " " + Ids();
}

TEST(RunAs, SwitchesAndAlwaysRestores) {
  KOVA_REQUIRE_ROOT();
  TempDir dir;
  BaseDB db(dir.File("sw.db"), 432);
  ASSERT_TRUE(db.Execute("CREATE TABLE t(a)"));
  ClearLogs();
  for (uid_t from : {0u, 5u, 1u}) {  // from 5, root is regained in between
    ASSERT_TRUE(Become(from, from));
    EXPECT_EQ("1 1:1", Guarded());
    EXPECT_EQ(std::to_string(from) + ":" + std::to_string(from), Ids());
  }
  EXPECT_EQ("", Log());

  // Already uid 1, root is not regained, and the group cannot change: the guard, a statement
  // and the creation of a file all fail, each logged, and the identity stays.
  ASSERT_TRUE(Become(1, 2));
  std::string seen = Guarded();
  seen += " " + std::to_string(db.Execute("INSERT INTO t VALUES (1)"));
  seen += " " + std::to_string(BaseDB(dir.File("other.db"), 432).IsGood()) + " " + Ids();
  ASSERT_TRUE(Become(0, 0));
  EXPECT_EQ("0 1:2 0 0 1:2", seen);
  EXPECT_EQ("0 none",
            Sql(dir.File("sw.db"), "SELECT COUNT(*) FROM t") + " " + Owner(dir.File("other.db")));
  std::string const failed =
      "|auth: base_db:# ERROR: IF_RUN_AS(1, 1)|base_db:# (pid) failed to run as system\n\n";
  EXPECT_EQ("auth: db_test:# ERROR: IF_RUN_AS(1, 1)" + failed + failed, Log());

  // Guards inside a guard: the same ids change nothing, other ids are undone to the outer
  // ones, also when their switch fails half-way (root regained, the groups refused).
  EXPECT_EQ("1 1:1 | 1 0:0 | 1:1 1 1:1 | 0:0 | 0 1:1 | 0:1", ChildText([] {
              std::string seen;
              {
                IF_RUN_AS(1, 1);
                seen = Guarded() + " | ";
                {
                  IF_RUN_AS(0, 0);
                  seen += std::to_string(run_as_scope.IsSwitched()) + " " + Ids() + " | ";
                }
                seen += Ids() + " " + Guarded() + " | ";
              }
              seen += Ids() + " | ";
              {
                IF_RUN_AS(1, 1);
                __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
                __user_cap_data_struct data[2] = {};
                if (syscall(SYS_capget, &header, data) != 0) return "no set-up"s;
                data[0].permitted &= ~(1u << CAP_SETGID);
                if (syscall(SYS_capset, &header, data) != 0) return "no set-up"s;
                {
                  IF_RUN_AS(0, 0);
                  seen += std::to_string(run_as_scope.IsSwitched());
                }
                seen += " " + Ids() + " | ";
              }
              return seen + Ids();
            }));
  // Root given up for good inside the guard: leaving it cannot restore uid 0, and says so.
  EXPECT_EQ("1:1 crit: db_test:# ERROR: ~IF_RUN_AS(0, 0)", ChildText([] {
              {
                IF_RUN_AS(1, 1);
                if (setresuid(1, 1, 1) != 0) return "no set-up"s;
              }
              return Ids() + " " + Log();
            }));
}

// Threads take turns with the process's identity, one through the platform's own guard.
TEST(RunAs, ThreadsTakeTurnsAndLeaveTheProcessAsItWas) {
  KOVA_REQUIRE_ROOT();
  EXPECT_EQ("0 wrong, 0:0", ChildText([] {
              std::atomic<int> wrong{0};
              std::vector<std::thread> threads;
              for (unsigned id : {1u, 1u, 0u}) {
                threads.emplace_back([id, &wrong] {
                  for (int i = 0; i < 300; ++i) {
                    IF_RUN_AS(id, id);
                    if (!run_as_scope.IsSwitched() || geteuid() != id || getegid() != id) ++wrong;
                  }
                });
              }
              threads.emplace_back([] {
                for (int i = 0; i < 100; ++i) KovaCgiIsDeniedIP("192.0.2.99");
              });
              for (auto& t : threads) t.join();
              return std::to_string(wrong.load()) + " wrong, " + Ids();
            }));
}

// The supplementary groups of a root caller do not follow it into the system account.
TEST(RunAs, OnlyTheTargetGroupWhileSwitched) {
  KOVA_REQUIRE_ROOT();
  TempDir dir;
  std::string const secret = dir.File("group7");
  WriteFile(secret, "x");
  ASSERT_EQ(0, chown(secret.c_str(), 0, 7));
  ASSERT_EQ(0, chmod(secret.c_str(), 0060));
  auto groups = [] {
    gid_t list[64];
    int const n = getgroups(64, list);
    std::string out;
    for (int i = 0; i < n; ++i) out += (i ? "," : "") + std::to_string(list[i]);
    return out;
  };
  EXPECT_EQ("1:1 1 denied | 0:0 0,7", ChildText([&] {
              gid_t const mine[] = {0, 7};
              if (setgroups(2, mine) != 0) return "setgroups"s;
              std::string seen;
              {
                IF_RUN_AS(1, 1);
                int const fd = open(secret.c_str(), O_RDONLY);
                seen = Ids() + " " + groups() + (fd < 0 ? " denied" : " opened");
                if (fd >= 0) close(fd);
              }
              return seen + " | " + Ids() + " " + groups();
            }));
}

TEST(BaseDB, OpeningCreatingAndRootFiles) {
  KOVA_REQUIRE_ROOT();
  TempDir dir;
  std::string const path = dir.File("new.db"), existing = dir.File("old.db");
  ClearLogs();
  EXPECT_TRUE(BaseDB(path, 432).IsGood());
  EXPECT_EQ("660 1:1 wal", Owner(path) + " " + Sql(path, "PRAGMA journal_mode"));
  MakeDb(existing, "CREATE TABLE x(a);", 0640);
  EXPECT_TRUE(BaseDB(existing, 432).IsGood());
  EXPECT_EQ("640 1:1", Owner(existing)) << "the mode only applies to a file made here";
  WriteFile(existing, std::string(4096, 'j'));  // no database: the set-up fails
  EXPECT_FALSE(BaseDB(existing, 432).IsGood());
  EXPECT_EQ("base_db:# (pid) init failed\n\n", Log());
}

TEST(BaseDB, RowsTransactionsAndEscaping) {
  TempDir dir;
  std::string const path = dir.File("rows.db");
  BaseDB db(path, 432);
  ASSERT_TRUE(
      db.Execute("CREATE TABLE t(id INTEGER PRIMARY KEY, a TEXT, b TEXT);"
                 "CREATE TABLE child(id INTEGER PRIMARY KEY, pid INTEGER REFERENCES t(id) "
                 "DEFERRABLE INITIALLY DEFERRED);"));
  ClearLogs();
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
  EXPECT_EQ(3, LogCount("escape failed"));
}

TEST(ResultAndCondition, FieldsAndSelections) {
  TempDir dir;
  BaseDB db(dir.File("c.db"), 432);
  // Rows 1 to 12 with a = id % 2, b = id % 3, c = id % 5; row 13 has a quote in its hash.
  ASSERT_TRUE(
      db.Execute("CREATE TABLE t(id INTEGER PRIMARY KEY, hash TEXT, a TEXT, b INTEGER, c TEXT);"
                 "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 12) "
                 "INSERT INTO t SELECT i, 'h' || i, i % 2, i % 3, i % 5 FROM n;"
                 "INSERT INTO t VALUES (13, 'ab''c', '1', 2, '3');"));
  auto ids = [&db](Condition& c) {
    std::string ids;
    Result result;
    if (!db.Execute("SELECT id FROM t" + c.GetSQL(), result)) ids = "refused";
    for (Row row; result.NextRow(row);) ids += row.GetField("id").AsString("") + ",";
    return ids + (c.IsEmpty() ? " (empty)" : "");
  };
  std::string const all = "1,2,3,4,5,6,7,8,9,10,11,12,13,";
  std::vector<std::pair<std::function<void(Condition&)>, std::string>> const cases = {
      {[](Condition&) {}, all + " (empty)"},
      {[](Condition& c) { c.Where("hash", "ab'c"); }, "13,"},
      // AND binds tighter than OR, and no parentheses are added.
      {[](Condition& c) { c.Where("a", "1").OrWhere("b = 2").Where("c", "3"); },
       "1,3,5,7,8,9,11,13,"},
      // The two-argument OrWhere joins with AND.
      {[](Condition& c) { c.Where("a", "1").OrWhere("hash", "h8"); }, ""},
      {[](Condition& c) { c.OrWhere("id < 3").OrWhere("id > 11"); }, "1,2,12,13,"},
      {[](Condition& c) { c.OrderBy("id", false).OrderBy("hash", true).Limit(-1, 3); },
       "13,12,11,"},
      {[](Condition& c) {
         c.Where("id <= 10").OrderBy("b", true).OrderBy("id", false).Limit(1, 3);
       },
       "6,3,10,"},
      {[](Condition& c) { c.Page(3, 2); }, "5,6,"},
      {[](Condition& c) { c.Page(0, 2); }, "1,2,"},
      {[](Condition& c) { c.Page(2147483647, 2147483647); }, ""},
      {[](Condition& c) { c.Limit(10, 0); }, "refused"},  // an offset without a limit
      {[](Condition& c) { c.Where("id = 1").OrderBy("id", true).Limit(2, 2).Clear(); },
       all + " (empty)"},
  };
  for (auto const& k : cases) {
    Condition c(db);
    k.first(c);
    EXPECT_EQ(k.second, ids(c)) << c.GetSQL();
  }

  Row row;
  Result nothing, result;
  EXPECT_FALSE(nothing.NextRow(row) || row.IsGood());
  EXPECT_EQ(3, row.GetField("anything").AsInt(3));
  ASSERT_TRUE(db.Execute("SELECT id, NULL AS n FROM t WHERE id > 11", result));
  while (result.NextRow(row)) continue;
  EXPECT_EQ("13", row.GetField("id").AsString("")) << "the row keeps pointing at the last one";
  EXPECT_EQ("", row.GetField("n").AsString("x")) << "SQL NULL reads as an empty text";
  EXPECT_THROW(row.GetField("missing"), std::logic_error);
  // A statement without columns hands over no result set.
  EXPECT_TRUE(db.Execute("UPDATE t SET b = b", nothing));
  EXPECT_FALSE(nothing.IsGood());
}

std::string Schema(std::string const& name) { return std::string(KOVA_SCHEMA_DIR) + "/" + name; }

// Moves a script aside, or adds one with the given text, for the length of a scope.
struct Script {
  explicit Script(std::string const& name) : path(Schema(name)), added(false) {
    EXPECT_EQ(0, rename(path.c_str(), (path + ".aside").c_str()));
  }
  Script(std::string const& name, std::string const& text) : path(Schema(name)), added(true) {
    WriteFile(path, text);
  }
  ~Script() { added ? unlink(path.c_str()) : rename((path + ".aside").c_str(), path.c_str()); }
  std::string path;
  bool added;
};

// Makes a database with `sql` and tells whether the sharing database on it came out good.
bool Open(std::string const& path, std::string const& sql) {
  MakeDb(path, sql);
  ClearLogs();
  return SharingDB(path).IsGood();
}

// The version, then every table (with its columns), index and trigger.
std::string Shape(std::string const& path) {
  return Sql(path, "PRAGMA user_version") + ";" +
         Sql(path,
             "SELECT group_concat(name || ifnull('(' || c || ')', ''), ',') FROM (SELECT name, "
             "(SELECT group_concat(name) FROM pragma_table_info(m.name) WHERE m.type = 'table') "
             "AS c FROM sqlite_master m WHERE name NOT LIKE 'sqlite_%' ORDER BY name)");
}

std::string Failed(std::string const& script, std::string const& why, int from) {
  return "sharing_db:# (pid) file " + Schema(script) + " open failed " + why +
         ".\n\n|sharing_db:# (pid) cannot migrate from " + std::to_string(from) + " to " +
         std::to_string(from + 1) + "\n\n";
}

TEST(SharingDB, MigratesFromWhereItStands) {
  TempDir dir;
  std::string const v1sql = ReadFile(Schema("1.sql"));
  // Every script run by hand, for comparison.
  MakeDb(dir.File("by-hand.db"), v1sql + ReadFile(Schema("2.sql")) + ReadFile(Schema("3.sql")));
  std::string const newest = Shape(dir.File("by-hand.db"));
  ASSERT_EQ("3;", newest.substr(0, 2));
  ClearLogs();
  EXPECT_TRUE(SharingDB(dir.File("fresh.db")).IsGood());
  EXPECT_EQ("", Log());
  EXPECT_EQ(0u, Owner(dir.File("fresh.db")).find("660 "));
  EXPECT_EQ(newest, Shape(dir.File("fresh.db")));

  Script one("1.sql");
  EXPECT_TRUE(Open(dir.File("v1.db"), v1sql)) << "version 1 runs only the later scripts";
  EXPECT_EQ(newest, Shape(dir.File("v1.db")));
  EXPECT_FALSE(Open(dir.File("v0.db"), "")) << "the first failed step ends the migration";
  EXPECT_EQ(Failed("1.sql", "No such file or directory", 0), Log());
  EXPECT_EQ("0;NULL", Shape(dir.File("v0.db")));

  Script two("2.sql");
  for (std::string version : {"3", "7"}) {  // current or newer: no script is read
    EXPECT_TRUE(Open(dir.File(version + ".db"), "PRAGMA user_version = " + version + ";"));
    EXPECT_EQ(version + ";NULL", Shape(dir.File(version + ".db")));
  }
  {
    Script zero("0.sql", "BEGIN TRANSACTION;CREATE TABLE partial(x);CREATE TABLE broken(;");
    std::string const path = dir.File("broken.db");
    MakeDb(path, "PRAGMA user_version = -1;");
    ClearLogs();
    SharingDB db(path);
    EXPECT_FALSE(db.IsGood());
    EXPECT_TRUE(db.BaseDB::IsGood()) << "the connection itself is fine";
    EXPECT_EQ(1, LogCount("cannot migrate from -1 to 0"));
    // The half-run step is undone and no transaction is left open.
    EXPECT_TRUE(db.Execute("CREATE TABLE after(x)"));
    EXPECT_EQ("-1;after(x)", Shape(path));
  }
  EXPECT_FALSE(Open(dir.File("v1-no2.db"), v1sql));
  EXPECT_EQ(Failed("2.sql", "No such file or directory", 1), Log());
}

TEST(SharingDB, ScriptsAreReadAsTheSystemAccount) {
  KOVA_REQUIRE_ROOT();
  TempDir dir;
  ASSERT_EQ(0, chmod(Schema("2.sql").c_str(), 0600));  // root may read it, the account not
  bool const good = Open(dir.File("v1.db"), ReadFile(Schema("1.sql")));
  ASSERT_EQ(0, chmod(Schema("2.sql").c_str(), 0644));
  EXPECT_FALSE(good);
  EXPECT_EQ(Failed("2.sql", "Permission denied", 1), Log());
}

// The visits of a link: its 20 latest are kept, and they go with the link.
TEST(SharingDB, VisitsKeepTheLatestAndGoWithTheirLink) {
  TempDir dir;
  ASSERT_TRUE(SharingDB(dir.File("v.db")).IsGood());
  std::string sql = "INSERT INTO entry (hash) VALUES ('a'), ('b');";
  for (int i = 1; i <= 25; ++i) {
    sql += "INSERT INTO visit (entry_id, at) VALUES (1, " + std::to_string(i) + "), (2, " +
           std::to_string(i) + ");";
  }
  Sql(dir.File("v.db"), sql);
  EXPECT_EQ("20|6|25", Sql(dir.File("v.db"),
                           "SELECT count(*), min(at), max(at) FROM visit WHERE entry_id = 1"));
  Sql(dir.File("v.db"), "DELETE FROM entry WHERE id = 1");
  EXPECT_EQ("0|20",
            Sql(dir.File("v.db"), "SELECT sum(entry_id = 1), sum(entry_id = 2) FROM visit"));
}

}  // namespace
