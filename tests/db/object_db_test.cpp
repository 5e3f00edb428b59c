// The generic record store over a record type of the tests' own: the six operations, the
// one-shot condition, an override reached through Delete(const Object&), and the
// write-ahead-log checkpoint when a store goes away.
#include "kovasharing/object_db.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "db_test_util.h"
#include "kovasharing/sharing_db.h"
#include "kovatest.h"

namespace {

using dbtest::HasPidLine;
using dbtest::One;
using KOVA::sharing::db::BaseDB;
using KOVA::sharing::db::ObjectDB;
using KOVA::sharing::db::Row;

// A note: title, body and a count. Illegal without a title; rows titled "skip" are refused
// when read back.
class Note : public KOVA::sharing::record::Object {
 public:
  Note() = default;
  Note(std::string title, std::string body, int n) : title_(title), body_(body), n_(n) {}

  std::vector<std::string> GetFieldList() const override {
    return {title_, body_, std::to_string(n_)};
  }
  std::map<std::string, std::string> GetFieldMap() const override {
    return {
        {"id", std::to_string(id)}, {"title", title_}, {"body", body_}, {"n", std::to_string(n_)}};
  }
  bool IsLegal() const override { return !title_.empty(); }
  void ToJSON(Json::Value& out) const override { out["title"] = title_; }
  bool FromRow(Row const& row) override {
    id = row.GetField("id").AsInt(0);
    title_ = row.GetField("title").AsString("");
    body_ = row.GetField("body").AsString("");
    n_ = row.GetField("n").AsInt(0);
    return title_ != "skip";
  }

  std::string title_;
  std::string body_;
  int n_ = 0;
};

class NoteDB : public ObjectDB {
 public:
  NoteDB(BaseDB& db, char const* table = "note") : ObjectDB(db, table) {}
  bool Delete(int id) override {
    deleted.push_back(id);
    return ObjectDB::Delete(id);
  }
  using ObjectDB::Delete;
  std::vector<int> deleted;
};

char const kSchema[] =
    "CREATE TABLE note(id INTEGER PRIMARY KEY, title TEXT NOT NULL UNIQUE, body TEXT NOT NULL,"
    " n INTEGER NOT NULL CHECK (n >= 0));";

class ObjectDBTest : public testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.File("notes.db");
    db_.reset(new BaseDB(path_, 432));
    ASSERT_TRUE(db_->IsGood());
    ASSERT_TRUE(db_->Execute(kSchema));
    kovatest::ClearLogs();
  }
  kovatest::TempDir dir_;
  std::string path_;
  std::unique_ptr<BaseDB> db_;
};

TEST_F(ObjectDBTest, CreateUpdateDelete) {
  NoteDB store(*db_);
  Note a("first", "it's here", 1);
  ASSERT_TRUE(store.Create(a));
  EXPECT_EQ("INSERT INTO note VALUES (NULL,'first','it''s here','1')", db_->GetLastQuery());
  EXPECT_EQ(1, a.get_id());
  // The same object again: another row, and the newer id.
  a.title_ = "second";
  ASSERT_TRUE(store.Create(a));
  EXPECT_EQ(2, a.get_id());
  EXPECT_EQ("1|first|it's here|1;2|second|it's here|1",
            One(path_,
                "SELECT group_concat(id || '|' || title || '|' || body || '|' || n, ';') "
                "FROM note"));

  Note illegal("", "b", 1);
  illegal.set_id(33);
  EXPECT_FALSE(store.Create(illegal));
  EXPECT_TRUE(HasPidLine("object_db", "obj invalid\n"));
  EXPECT_EQ(33, illegal.get_id());
  EXPECT_EQ("2", One(path_, "SELECT COUNT(*) FROM note"));

  kovatest::ClearLogs();
  Note clash("first", "x", 0);
  EXPECT_FALSE(store.Create(clash));
  EXPECT_TRUE(HasPidLine("object_db", "insert failed\n"));
  EXPECT_EQ(0, clash.get_id());
  EXPECT_NE(std::string::npos, db_->GetLastError().find("UNIQUE"));

  a.body_ = "changed";
  a.n_ = 5;
  ASSERT_TRUE(store.Update(a));
  EXPECT_EQ("UPDATE note SET body='changed',n='5',title='second' WHERE id=2", db_->GetLastQuery());
  EXPECT_EQ("changed|5", One(path_, "SELECT body || '|' || n FROM note WHERE id = 2"));

  kovatest::ClearLogs();
  EXPECT_FALSE(store.Update(illegal));
  EXPECT_TRUE(HasPidLine("object_db", "obj invalid\n"));
  a.n_ = -1;
  EXPECT_FALSE(store.Update(a));
  EXPECT_TRUE(HasPidLine("object_db", "update failed\n"));
  EXPECT_EQ("5", One(path_, "SELECT n FROM note WHERE id = 2"));
  Note ghost("ghost", "", 0);
  ghost.set_id(99);
  EXPECT_TRUE(store.Update(ghost)) << "no row to update is still a success";

  // Delete of a record reaches the store's own Delete(int).
  ASSERT_TRUE(store.Delete(static_cast<KOVA::sharing::record::Object const&>(a)));
  EXPECT_EQ(std::vector<int>{2}, store.deleted);
  EXPECT_EQ("DELETE FROM note WHERE id=2", db_->GetLastQuery());
  EXPECT_TRUE(store.Delete(99));
  EXPECT_EQ("1", One(path_, "SELECT COUNT(*) FROM note"));

  kovatest::ClearLogs();
  NoteDB missing(*db_, "nothere");
  EXPECT_FALSE(missing.Delete(1));
  EXPECT_TRUE(HasPidLine("object_db", "delete failed\n"));
}

TEST_F(ObjectDBTest, GetByIdCountAndQuery) {
  NoteDB store(*db_);
  for (int i = 1; i <= 6; ++i) {
    Note n(i == 4 ? "skip" : "n" + std::to_string(i), "b", i % 2);
    ASSERT_TRUE(store.Create(n));
  }

  Note got;
  store.GetCondition().Where("id = 1");
  ASSERT_TRUE(store.GetById(3, got));
  EXPECT_EQ("SELECT * FROM note WHERE id = 3", db_->GetLastQuery());
  EXPECT_EQ(3, got.get_id());
  EXPECT_EQ("n3", got.title_);
  EXPECT_FALSE(store.GetCondition().IsEmpty()) << "GetById neither uses nor clears it";
  store.GetCondition().Clear();
  Note kept("kept", "k", 7);
  kept.set_id(55);
  EXPECT_FALSE(store.GetById(77, kept));
  EXPECT_EQ("kept", kept.title_);
  EXPECT_EQ(55, kept.get_id());
  EXPECT_FALSE(store.GetById(4, got)) << "a row the record refuses";

  int count = -1;
  ASSERT_TRUE(store.Count(count));
  EXPECT_EQ("SELECT COUNT(*) AS c FROM note", db_->GetLastQuery());
  EXPECT_EQ(6, count);
  store.GetCondition().Where("n", "1");
  ASSERT_TRUE(store.Count(count));
  EXPECT_EQ("SELECT COUNT(*) AS c FROM note WHERE `n` = '1'", db_->GetLastQuery());
  EXPECT_EQ(3, count);
  EXPECT_TRUE(store.GetCondition().IsEmpty());
  store.GetCondition().Limit(10, 0);  // refused by SQLite
  count = -5;
  EXPECT_FALSE(store.Count(count));
  EXPECT_EQ(-5, count);
  EXPECT_TRUE(store.GetCondition().IsEmpty()) << "cleared after a failed count too";

  std::vector<Note> notes(2);
  store.GetCondition().Where("n", "1").OrderBy("id", false);
  ASSERT_TRUE(store.Query(notes));
  EXPECT_EQ("SELECT * FROM note WHERE `n` = '1' ORDER BY id DESC", db_->GetLastQuery());
  ASSERT_EQ(3u, notes.size());
  EXPECT_EQ("n5", notes[0].title_);
  EXPECT_EQ(5, notes[0].get_id());
  EXPECT_EQ("n1", notes[2].title_);
  EXPECT_TRUE(store.GetCondition().IsEmpty());

  ASSERT_TRUE(store.Query(notes));  // whole table; the refused row is left out
  EXPECT_EQ("SELECT * FROM note", db_->GetLastQuery());
  ASSERT_EQ(5u, notes.size());
  for (auto const& n : notes) EXPECT_NE("skip", n.title_);

  store.GetCondition().Where("bogus_column = 1");
  EXPECT_FALSE(store.Query(notes));
  EXPECT_EQ(5u, notes.size()) << "a failed query leaves the vector as it was";
  EXPECT_TRUE(store.GetCondition().IsEmpty());

  store.GetCondition().Where("id > 100");
  ASSERT_TRUE(store.Query(notes));
  EXPECT_TRUE(notes.empty());
}

TEST(ObjectDB, DestroyingAStoreCheckpointsTheLog) {
  kovatest::TempDir dir;
  std::string const path = dir.File("wal.db");
  BaseDB db(path, 432);
  ASSERT_TRUE(db.IsGood());
  ASSERT_TRUE(db.Execute(kSchema));
  std::string big(3000, 'z');
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(db.Insert("note", {"t" + std::to_string(i), big, "1"}));
  }
  // Everything written so far sits in the log, not in the main file.
  auto const before = dbtest::Facts(path);
  ASSERT_GT(dbtest::Facts(path + "-wal").size, 100000);
  ASSERT_LT(before.size, 100000);
  {
    NoteDB store(db);  // runs no statement of its own
  }
  EXPECT_EQ("PRAGMA wal_checkpoint;", db.GetLastQuery());
  auto const after = dbtest::Facts(path);
  EXPECT_GT(after.size, 40 * 3000) << "the log was folded into the main file";
  // The database reads the same through a fresh connection.
  EXPECT_EQ("40", One(path, "SELECT COUNT(*) FROM note"));
}

}  // namespace
