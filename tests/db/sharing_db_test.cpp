// The sharing database and its migration, with the real schema scripts of this build. Tests
// that need a script missing or an extra one change the schema directory only for the length
// of a scope.
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
    ok = rename(path.c_str(), (path + ".aside").c_str()) == 0;
  }
  Script(std::string const& name, std::string const& text) : path(Schema(name)), added(true) {
    kovatest::WriteFile(path, text);
    ok = true;
  }
  ~Script() { added ? unlink(path.c_str()) : rename((path + ".aside").c_str(), path.c_str()); }
  std::string path;
  bool added, ok;
};

// Makes a database with `sql` and tells whether the sharing database on it came out good.
bool Open(std::string const& path, std::string const& sql) {
  dbtest::MakeDb(path, sql);
  kovatest::ClearLogs();
  return SharingDB(path).IsGood();
}

// The version, then every table (with its columns) and index.
std::string Shape(std::string const& path) {
  return Sql(path, "PRAGMA user_version") + ";" +
         Sql(path,
             "SELECT group_concat(name || ifnull('(' || c || ')', ''), ',') FROM (SELECT name, "
             "(SELECT group_concat(name) FROM pragma_table_info(m.name) WHERE m.type = 'table') "
             "AS c FROM sqlite_master m WHERE name NOT LIKE 'sqlite_%' ORDER BY name)");
}

std::string const kV2 =
    "2;entry(id,hash,project_name,enabled,owner_uid,start_at,expire_at,expire_times,use_count,"
    "auto_gc,data),entry_expire_at,entry_hash,entry_owner_project,entry_tokens,session(id,session_id,uid,ip,"
    "timeout),session_session_id,session_timeout,session_tokens,token(id,entry_id,session_id,timeout),"
    "token_entry,token_session_entry,token_timeout";

std::string Failed(std::string const& script, std::string const& why, int from) {
  return "sharing_db:# (pid) file " + Schema(script) + " open failed " + why +
         ".\n\n|sharing_db:# (pid) cannot migrate from " + std::to_string(from) + " to " +
         std::to_string(from + 1) + "\n\n";
}

TEST(SharingDB, MigratesFromWhereItStands) {
  kovatest::TempDir dir;
  std::string const fresh = dir.File("fresh.db");
  kovatest::ClearLogs();
  EXPECT_TRUE(SharingDB(fresh).IsGood());
  EXPECT_EQ("", Log());
  EXPECT_EQ(0u, dbtest::Owner(fresh).find("660 "));
  EXPECT_EQ(kV2, Shape(fresh)) << "a fresh database runs 1, then 2";

  std::string const v1sql = kovatest::ReadFile(Schema("1.sql"));
  Script one("1.sql");
  ASSERT_TRUE(one.ok);
  EXPECT_TRUE(Open(dir.File("v1.db"), v1sql)) << "version 1 runs only the second script";
  EXPECT_EQ(kV2, Shape(dir.File("v1.db")));
  EXPECT_FALSE(Open(dir.File("v0.db"), "")) << "the first failed step ends the migration";
  EXPECT_EQ(Failed("1.sql", "No such file or directory", 0), Log());
  EXPECT_EQ("0;NULL", Shape(dir.File("v0.db")));

  Script two("2.sql");
  ASSERT_TRUE(two.ok);
  for (std::string version : {"2", "7"}) {  // current or newer: no script is read
    std::string const path = dir.File(version + ".db");
    EXPECT_TRUE(Open(path, "PRAGMA user_version = " + version + ";")) << version;
    EXPECT_EQ("", Log());
    EXPECT_EQ(version + ";NULL", Shape(path));
  }
  std::string const path = dir.File("v1-no2.db");
  dbtest::MakeDb(path, v1sql);
  kovatest::ClearLogs();
  {
    SharingDB db(path);
    EXPECT_FALSE(db.IsGood());
    EXPECT_TRUE(db.BaseDB::IsGood()) << "the connection itself is fine";
  }
  EXPECT_EQ(Failed("2.sql", "No such file or directory", 1), Log());
  EXPECT_EQ("1", Sql(path, "PRAGMA user_version"));
}

TEST(SharingDB, UnreadableScriptIsOpenedAsTheSystemAccount) {
  KOVA_REQUIRE_ROOT();
  kovatest::TempDir dir;
  ASSERT_EQ(0, chmod(Schema("2.sql").c_str(), 0600));  // root may read it, the account not
  bool const good = Open(dir.File("v1.db"), kovatest::ReadFile(Schema("1.sql")));
  ASSERT_EQ(0, chmod(Schema("2.sql").c_str(), 0644));
  EXPECT_FALSE(good);
  EXPECT_EQ(Failed("2.sql", "Permission denied", 1), Log());
}

TEST(SharingDB, NegativeVersionAndFailingScript) {
  kovatest::TempDir dir;
  {  // from -1 every step from 0 on runs; the text of a script ends at its first NUL
    Script zero("0.sql", "CREATE TABLE zero(x);\0this is no SQL"s);
    EXPECT_TRUE(Open(dir.File("neg.db"), "PRAGMA user_version = -1;"));
    EXPECT_EQ("", Log());
    EXPECT_EQ(kV2 + ",zero(x)", Shape(dir.File("neg.db")));
  }
  std::string const broken = "BEGIN TRANSACTION;CREATE TABLE partial(x);CREATE TABLE broken(;";
  Script zero("0.sql", broken);
  std::string const path = dir.File("neg-broken.db");
  dbtest::MakeDb(path, "PRAGMA user_version = -1;");
  kovatest::ClearLogs();
  {
    SharingDB db(path);
    EXPECT_FALSE(db.IsGood());
    EXPECT_EQ(broken, db.GetLastQuery());
    EXPECT_EQ(
        "sharing_db:# (pid) Failed [!pdb_->Execute(sstr.str().c_str())], err=%m\n\n|"
        "sharing_db:# (pid) cannot migrate from -1 to 0\n\n",
        Log());
    // The half-run step is undone and the connection is left without a transaction.
    EXPECT_TRUE(db.Execute("CREATE TABLE after(x)"));
  }
  EXPECT_EQ("-1;after(x)", Shape(path));
}

TEST(SharingDB, BadConnectionStillRunsTheMigration) {
  kovatest::TempDir dir;
  std::string const file = dir.File("no/such/dir/sharing.db");
  kovatest::ClearLogs();
  {
    SharingDB db(file);
    EXPECT_FALSE(db.IsGood());
    EXPECT_FALSE(db.IsRoot());
  }
  // The refusal comes first, then the migration's own line.
  EXPECT_EQ("base_db:# (pid) create database failed on " + file +
                "\n\n|base_db:# (pid) db is not good.\n\n|sharing_db:# (pid) Failed "
                "[!pdb_->Execute(\"PRAGMA user_version\", result)], err=%m\n\n",
            Log());
}

TEST(SharingDB, InstanceIsOneAndMigratesOnce) {
  KOVA_REQUIRE_ROOT();
  std::string const path = KOVA_SHARING_DB_FILE;
  ASSERT_EQ(path, std::string(KOVA::sharing::SZF_SHARING_DB_PATH));
  for (char const* suffix : {"", "-wal", "-shm"}) unlink((path + suffix).c_str());
  SharingDB& first = SharingDB::Instance();
  ASSERT_TRUE(first.IsGood());
  EXPECT_EQ("660 1:1", dbtest::Owner(path));
  EXPECT_EQ(kV2, Shape(path));
  // Were the second call to migrate again, it would bring the version back to 2.
  Sql(path, "PRAGMA user_version = 0;");
  EXPECT_EQ(&first, &SharingDB::Instance());
  EXPECT_EQ("0", Sql(path, "PRAGMA user_version"));
  Sql(path, "PRAGMA user_version = 2;");
}

}  // namespace
