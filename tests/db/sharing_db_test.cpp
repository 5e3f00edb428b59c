// The sharing database and its migration, with the real schema scripts of this build. Tests
// that need a script missing or an extra one move files in the schema directory and put them
// back before they end, whatever happens.
#include "kovasharing/sharing_db.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "db_test_util.h"
#include "kova_paths.h"
#include "kovasharing/constants.h"
#include "kovasharing/object_db.h"
#include "kovatest.h"

namespace {

using dbtest::HasPidLine;
using dbtest::One;
using KOVA::sharing::db::SharingDB;

std::string Schema(std::string const& name) { return std::string(KOVA_SCHEMA_DIR) + "/" + name; }

// Moves a schema script out of the way for the length of a scope.
class HiddenScript {
 public:
  explicit HiddenScript(std::string const& name)
      : path_(Schema(name)), aside_(path_ + ".hidden-by-test") {
    ok_ = rename(path_.c_str(), aside_.c_str()) == 0;
  }
  ~HiddenScript() {
    if (ok_) rename(aside_.c_str(), path_.c_str());
  }
  bool ok() const { return ok_; }

 private:
  std::string path_;
  std::string aside_;
  bool ok_;
};

// An extra script for the length of a scope.
class ExtraScript {
 public:
  ExtraScript(std::string const& name, std::string const& text) : path_(Schema(name)) {
    kovatest::WriteFile(path_, text);
  }
  ~ExtraScript() { unlink(path_.c_str()); }

 private:
  std::string path_;
};

std::string Objects(std::string const& path) {
  return One(path,
             "SELECT group_concat(name, ',') FROM (SELECT name FROM sqlite_master "
             "WHERE name NOT LIKE 'sqlite_%' ORDER BY name)");
}

char const kAllObjects[] =
    "entry,entry_expire_at,entry_hash,entry_owner_project,session,session_session_id,"
    "session_timeout,token,token_entry,token_session_entry,token_timeout";

TEST(SharingDB, FreshDatabaseRunsOneThenTwo) {
  kovatest::TempDir dir;
  std::string const path = dir.File("sharing.db");
  kovatest::ClearLogs();
  {
    SharingDB db(path);
    EXPECT_TRUE(db.IsGood());
    EXPECT_EQ(0660u, dbtest::Facts(path).mode);
  }
  EXPECT_TRUE(kovatest::Logs().empty());
  EXPECT_EQ("2", One(path, "PRAGMA user_version"));
  EXPECT_EQ(kAllObjects, Objects(path));
  EXPECT_EQ(
      "id,hash,project_name,enabled,owner_uid,start_at,expire_at,expire_times,use_count,"
      "auto_gc,data",
      One(path, "SELECT group_concat(name, ',') FROM pragma_table_info('entry')"));
  EXPECT_EQ("id,session_id,uid,ip,timeout",
            One(path, "SELECT group_concat(name, ',') FROM pragma_table_info('session')"));
  EXPECT_EQ("id,entry_id,session_id,timeout",
            One(path, "SELECT group_concat(name, ',') FROM pragma_table_info('token')"));

  // Version 1 runs only the second script.
  std::string const v1 = dir.File("v1.db");
  dbtest::MakeDb(v1, kovatest::ReadFile(Schema("1.sql")));
  ASSERT_EQ("1", One(v1, "PRAGMA user_version"));
  {
    HiddenScript one("1.sql");
    ASSERT_TRUE(one.ok());
    SharingDB db(v1);
    EXPECT_TRUE(db.IsGood());
  }
  EXPECT_EQ("2", One(v1, "PRAGMA user_version"));
  EXPECT_EQ(kAllObjects, Objects(v1));
}

TEST(SharingDB, CurrentOrNewerVersionReadsNoScript) {
  kovatest::TempDir dir;
  HiddenScript one("1.sql");
  HiddenScript two("2.sql");
  ASSERT_TRUE(one.ok() && two.ok());
  for (int version : {2, 7}) {
    std::string const path = dir.File("v" + std::to_string(version) + ".db");
    dbtest::MakeDb(path, "PRAGMA user_version = " + std::to_string(version) + ";");
    kovatest::ClearLogs();
    {
      SharingDB db(path);
      EXPECT_TRUE(db.IsGood()) << version;
    }
    EXPECT_TRUE(kovatest::Logs().empty()) << version;
    EXPECT_EQ(std::to_string(version), One(path, "PRAGMA user_version"));
    EXPECT_EQ("NULL", One(path, "SELECT group_concat(name) FROM sqlite_master"));
  }
}

TEST(SharingDB, MissingScriptStopsTheMigration) {
  kovatest::TempDir dir;
  std::string const path = dir.File("v1.db");
  dbtest::MakeDb(path, kovatest::ReadFile(Schema("1.sql")));
  kovatest::ClearLogs();
  {
    HiddenScript two("2.sql");
    ASSERT_TRUE(two.ok());
    SharingDB db(path);
    EXPECT_FALSE(db.IsGood());
    EXPECT_TRUE(db.BaseDB::IsGood()) << "the connection itself is fine";
  }
  EXPECT_TRUE(dbtest::Facts(Schema("2.sql")).exists) << "script restored";
  auto const logs = kovatest::LogTexts();
  ASSERT_EQ(2u, logs.size());
  EXPECT_TRUE(HasPidLine(
      "sharing_db", "file " + Schema("2.sql") + " open failed No such file or directory.\n\n"));
  EXPECT_NE(std::string::npos, logs[0].find("open failed"));
  EXPECT_TRUE(HasPidLine("sharing_db", "cannot migrate from 1 to 2\n\n"));
  EXPECT_EQ("1", One(path, "PRAGMA user_version"));

  // A fresh database without the first script stays at version 0.
  std::string const fresh = dir.File("fresh.db");
  kovatest::ClearLogs();
  {
    HiddenScript one("1.sql");
    ASSERT_TRUE(one.ok());
    SharingDB db(fresh);
    EXPECT_FALSE(db.IsGood());
  }
  EXPECT_TRUE(HasPidLine("sharing_db", "cannot migrate from 0 to 1\n\n"));
  EXPECT_EQ(0, kovatest::LogCount("from 1 to 2"));
  EXPECT_EQ("0", One(fresh, "PRAGMA user_version"));
}

TEST(SharingDB, UnreadableScriptIsOpenedAsTheSystemAccount) {
  KOVA_REQUIRE_ROOT();
  kovatest::TempDir dir;
  std::string const path = dir.File("v1.db");
  dbtest::MakeDb(path, kovatest::ReadFile(Schema("1.sql")));
  ASSERT_EQ(0, chmod(Schema("2.sql").c_str(), 0600));  // root may read it, the account not
  kovatest::ClearLogs();
  bool good;
  {
    SharingDB db(path);
    good = db.IsGood();
  }
  ASSERT_EQ(0, chmod(Schema("2.sql").c_str(), 0644));
  EXPECT_FALSE(good);
  EXPECT_TRUE(
      HasPidLine("sharing_db", "file " + Schema("2.sql") + " open failed Permission denied.\n\n"));
  EXPECT_TRUE(HasPidLine("sharing_db", "cannot migrate from 1 to 2\n\n"));
}

TEST(SharingDB, NegativeVersionAndFailingScripts) {
  kovatest::TempDir dir;
  // From -1 every step from 0 on runs; the text of a script ends at its first NUL.
  {
    ExtraScript zero("0.sql", std::string("CREATE TABLE zero(x);\0this is no SQL", 36));
    std::string const path = dir.File("neg.db");
    dbtest::MakeDb(path, "PRAGMA user_version = -1;");
    kovatest::ClearLogs();
    {
      SharingDB db(path);
      EXPECT_TRUE(db.IsGood());
    }
    EXPECT_TRUE(kovatest::Logs().empty());
    EXPECT_EQ("2", One(path, "PRAGMA user_version"));
    EXPECT_EQ(std::string(kAllObjects) + ",zero", Objects(path));
  }
  // Without a "0.sql" a negative version cannot be migrated.
  {
    std::string const path = dir.File("neg2.db");
    dbtest::MakeDb(path, "PRAGMA user_version = -1;");
    kovatest::ClearLogs();
    {
      SharingDB db(path);
      EXPECT_FALSE(db.IsGood());
    }
    EXPECT_TRUE(HasPidLine(
        "sharing_db", "file " + Schema("0.sql") + " open failed No such file or directory.\n\n"));
    EXPECT_TRUE(HasPidLine("sharing_db", "cannot migrate from -1 to 0\n\n"));
  }
  // A script that SQLite rejects.
  {
    ExtraScript zero("0.sql", "BEGIN TRANSACTION;CREATE TABLE partial(x);CREATE TABLE broken(;");
    std::string const path = dir.File("neg3.db");
    dbtest::MakeDb(path, "PRAGMA user_version = -1;");
    kovatest::ClearLogs();
    {
      SharingDB db(path);
      EXPECT_FALSE(db.IsGood());
      EXPECT_EQ("BEGIN TRANSACTION;CREATE TABLE partial(x);CREATE TABLE broken(;",
                db.GetLastQuery());
      auto const logs = kovatest::LogTexts();
      ASSERT_EQ(2u, logs.size());
      EXPECT_EQ(0u, logs[0].find("sharing_db:"));
      EXPECT_NE(std::string::npos,
                logs[0].find(" (" + dbtest::Pid() +
                             ") Failed [!pdb_->Execute(sstr.str().c_str())], err="));
      EXPECT_TRUE(HasPidLine("sharing_db", "cannot migrate from -1 to 0\n\n"));
      // The half-run step is undone and the connection is left without a transaction.
      EXPECT_TRUE(db.Execute("CREATE TABLE after(x)"));
      EXPECT_EQ("after", One(path, "SELECT group_concat(name) FROM sqlite_master"));
    }
    EXPECT_EQ("-1", One(path, "PRAGMA user_version"));
  }
}

TEST(SharingDB, BadConnectionStillRunsTheMigration) {
  kovatest::TempDir dir;
  kovatest::ClearLogs();
  {
    SharingDB db(dir.File("no/such/dir/sharing.db"));
    EXPECT_FALSE(db.IsGood());
    EXPECT_FALSE(db.IsRoot());
  }
  // The refusal comes first, then the migration's own line.
  auto const logs = kovatest::LogTexts();
  ASSERT_GE(logs.size(), 2u);
  std::string const& refused = logs[logs.size() - 2];
  std::string const& failed = logs.back();
  EXPECT_EQ(0u, refused.find("base_db:"));
  EXPECT_TRUE(HasPidLine("base_db", "db is not good.\n\n"));
  EXPECT_NE(std::string::npos, refused.find(" (" + dbtest::Pid() + ") db is not good.\n\n"));
  EXPECT_EQ(0u, failed.find("sharing_db:"));
  EXPECT_NE(std::string::npos,
            failed.find(" (" + dbtest::Pid() +
                        ") Failed [!pdb_->Execute(\"PRAGMA user_version\", result)], err="));
  EXPECT_EQ("\n\n", failed.substr(failed.size() - 2));
}

TEST(SharingDB, InstanceIsOneAndMigratesOnce) {
  KOVA_REQUIRE_ROOT();
  std::string const path = KOVA_SHARING_DB_FILE;
  ASSERT_EQ(path, std::string(KOVA::sharing::SZF_SHARING_DB_PATH));
  for (char const* suffix : {"", "-wal", "-shm"}) unlink((path + suffix).c_str());
  dbtest::IdentityCheck identity;
  SharingDB& first = SharingDB::Instance();
  identity.Expect("Instance()");
  ASSERT_TRUE(first.IsGood());
  auto const facts = dbtest::Facts(path);
  EXPECT_EQ(0660u, facts.mode);
  EXPECT_EQ(1u, facts.uid);
  EXPECT_EQ(1u, facts.gid);
  EXPECT_EQ("2", One(path, "PRAGMA user_version"));

  // Were the second call to migrate again, it would bring the version back to 2.
  dbtest::Sql(path, "PRAGMA user_version = 0;");
  SharingDB& second = SharingDB::Instance();
  EXPECT_EQ(&first, &second);
  EXPECT_EQ("0", One(path, "PRAGMA user_version"));
  dbtest::Sql(path, "PRAGMA user_version = 2;");
  EXPECT_TRUE(second.IsGood());
}

}  // namespace
