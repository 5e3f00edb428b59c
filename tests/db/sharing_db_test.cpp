// The sharing database and its migration, with the real schema scripts of this build. Tests
// that need a script missing or an extra one change the schema directory for one scope.
#include "kovasharing/sharing_db.h"

#include <stdio.h>

#include "db_test_util.h"
#include "kova_paths.h"
#include "kovasharing/constants.h"

namespace {

using dbtest::Log;
using dbtest::Sql;
using KOVA::sharing::db::SharingDB;

std::string Schema(std::string const& name) { return std::string(KOVA_SCHEMA_DIR) + "/" + name; }

// Moves a script aside, or adds one with the given text, for the length of a scope.
struct Script {
  explicit Script(std::string const& name) : path(Schema(name)), added(false) {
    EXPECT_EQ(0, rename(path.c_str(), (path + ".aside").c_str()));
  }
  Script(std::string const& name, std::string const& text) : path(Schema(name)), added(true) {
    kovatest::WriteFile(path, text);
  }
  ~Script() { added ? unlink(path.c_str()) : rename((path + ".aside").c_str(), path.c_str()); }
  std::string path;
  bool added;
};

// Makes a database with `sql` and tells whether the sharing database on it came out good.
bool Open(std::string const& path, std::string const& sql) {
  dbtest::MakeDb(path, sql);
  kovatest::ClearLogs();
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
  kovatest::TempDir dir;
  std::string const v1sql = kovatest::ReadFile(Schema("1.sql"));
  // Both scripts run by hand, for comparison.
  dbtest::MakeDb(dir.File("by-hand.db"), v1sql + kovatest::ReadFile(Schema("2.sql")));
  std::string const newest = Shape(dir.File("by-hand.db"));
  ASSERT_EQ("2;", newest.substr(0, 2));
  kovatest::ClearLogs();
  EXPECT_TRUE(SharingDB(dir.File("fresh.db")).IsGood());
  EXPECT_EQ("", Log());
  EXPECT_EQ(0u, dbtest::Owner(dir.File("fresh.db")).find("660 "));
  EXPECT_EQ(newest, Shape(dir.File("fresh.db")));

  Script one("1.sql");
  EXPECT_TRUE(Open(dir.File("v1.db"), v1sql)) << "version 1 runs only the second script";
  EXPECT_EQ(newest, Shape(dir.File("v1.db")));
  EXPECT_FALSE(Open(dir.File("v0.db"), "")) << "the first failed step ends the migration";
  EXPECT_EQ(Failed("1.sql", "No such file or directory", 0), Log());
  EXPECT_EQ("0;NULL", Shape(dir.File("v0.db")));

  Script two("2.sql");
  for (std::string version : {"2", "7"}) {  // current or newer: no script is read
    EXPECT_TRUE(Open(dir.File(version + ".db"), "PRAGMA user_version = " + version + ";"));
    EXPECT_EQ(version + ";NULL", Shape(dir.File(version + ".db")));
  }
  {
    Script zero("0.sql", "BEGIN TRANSACTION;CREATE TABLE partial(x);CREATE TABLE broken(;");
    std::string const path = dir.File("broken.db");
    dbtest::MakeDb(path, "PRAGMA user_version = -1;");
    kovatest::ClearLogs();
    SharingDB db(path);
    EXPECT_FALSE(db.IsGood());
    EXPECT_TRUE(db.BaseDB::IsGood()) << "the connection itself is fine";
    EXPECT_EQ(1, kovatest::LogCount("cannot migrate from -1 to 0"));
    // The half-run step is undone and no transaction is left open.
    EXPECT_TRUE(db.Execute("CREATE TABLE after(x)"));
    EXPECT_EQ("-1;after(x)", Shape(path));
  }
  EXPECT_FALSE(Open(dir.File("v1-no2.db"), v1sql));
  EXPECT_EQ(Failed("2.sql", "No such file or directory", 1), Log());
}

TEST(SharingDB, ScriptsAreReadAsTheSystemAccount) {
  KOVA_REQUIRE_ROOT();
  kovatest::TempDir dir;
  ASSERT_EQ(0, chmod(Schema("2.sql").c_str(), 0600));  // root may read it, the account not
  bool const good = Open(dir.File("v1.db"), kovatest::ReadFile(Schema("1.sql")));
  ASSERT_EQ(0, chmod(Schema("2.sql").c_str(), 0644));
  EXPECT_FALSE(good);
  EXPECT_EQ(Failed("2.sql", "Permission denied", 1), Log());
}

TEST(SharingDB, InstanceIsOneAndMigratesOnce) {
  KOVA_REQUIRE_ROOT();
  std::string const path = KOVA_SHARING_DB_FILE;
  ASSERT_EQ(path, std::string(KOVA::sharing::SZF_SHARING_DB_PATH));
  for (char const* suffix : {"", "-wal", "-shm"}) unlink((path + suffix).c_str());
  SharingDB& first = SharingDB::Instance();
  ASSERT_TRUE(first.IsGood());
  EXPECT_EQ("660 1:1 2", dbtest::Owner(path) + " " + Sql(path, "PRAGMA user_version"));
  Sql(path, "PRAGMA user_version = 0;");  // a second migration would bring it back to 2
  EXPECT_EQ(&first, &SharingDB::Instance());
  EXPECT_EQ("0", Sql(path, "PRAGMA user_version"));
  Sql(path, "PRAGMA user_version = 2;");
}

}  // namespace
