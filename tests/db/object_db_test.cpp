// The generic record store over a record type of the tests' own: the six operations, the
// one-shot condition, an override reached through Delete(const Object&), and the
// write-ahead-log checkpoint when a store goes away.
#include "kovasharing/object_db.h"

#include "db_test_util.h"

namespace {

using dbtest::Log;
using dbtest::Ran;
using dbtest::Sql;
using KOVA::sharing::db::BaseDB;
using KOVA::sharing::db::ObjectDB;
using KOVA::sharing::db::Row;

// Illegal without a title; rows titled "skip" are refused when read back.
class Note : public KOVA::sharing::record::Object {
 public:
  Note(std::string title = "", int n = 0) : title_(title), n_(n) {}
  std::vector<std::string> GetFieldList() const override {
    return {title_, "it's", std::to_string(n_)};
  }
  std::map<std::string, std::string> GetFieldMap() const override {
    return {{"id", std::to_string(id)}, {"title", title_}, {"n", std::to_string(n_)}};
  }
  bool IsLegal() const override { return !title_.empty(); }
  void ToJSON(Json::Value& out) const override { out["title"] = title_; }
  bool FromRow(Row const& row) override {
    id = row.GetField("id").AsInt(0);
    title_ = row.GetField("title").AsString("");
    n_ = row.GetField("n").AsInt(0);
    return title_ != "skip";
  }
  std::string title_;
  int n_;
};

class NoteDB : public ObjectDB {
 public:
  explicit NoteDB(BaseDB& db, char const* table = "note") : ObjectDB(db, table) {}
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

TEST(ObjectDB, RecordsTheOneShotConditionAndTheCheckpoint) {
  kovatest::TempDir dir;
  std::string const path = dir.File("notes.db");
  BaseDB db(path, 432);
  ASSERT_TRUE(db.Execute(kSchema));
  NoteDB store(db);
  kovatest::ClearLogs();
  Note a("first", 1), illegal("", 1), clash("first", 0);
  EXPECT_EQ("ok INSERT INTO note VALUES (NULL,'first','it''s','1')", Ran(db, store.Create(a)));
  a.title_ = "second";  // the same object again: another row, and the newer id
  ASSERT_TRUE(store.Create(a));
  illegal.set_id(33);
  EXPECT_FALSE(store.Create(illegal));
  EXPECT_FALSE(store.Create(clash));
  EXPECT_EQ("2 33 0", std::to_string(a.get_id()) + " " + std::to_string(illegal.get_id()) + " " +
                          std::to_string(clash.get_id()));
  a.n_ = 5;
  EXPECT_EQ("ok UPDATE note SET n='5',title='second' WHERE id=2", Ran(db, store.Update(a)));
  EXPECT_FALSE(store.Update(illegal));
  a.n_ = -1;
  EXPECT_FALSE(store.Update(a));
  EXPECT_EQ("1|first|1;2|second|5", Sql(path, "SELECT id, title, n FROM note"));
  // Delete of a record reaches the store's own Delete(int).
  EXPECT_EQ("ok DELETE FROM note WHERE id=2",
            Ran(db, store.Delete(static_cast<KOVA::sharing::record::Object const&>(a))));
  EXPECT_EQ(std::vector<int>{2}, store.deleted);
  EXPECT_EQ("1|first|1", Sql(path, "SELECT id, title, n FROM note"));
  EXPECT_FALSE(NoteDB(db, "nothere").Delete(1));
  EXPECT_EQ(
      "object_db:# (pid) obj invalid\n|object_db:# (pid) insert failed\n|object_db:# (pid) "
      "obj invalid\n|object_db:# (pid) update failed\n|object_db:# (pid) delete failed\n",
      Log());

  // Rows 2 to 7, titled "n<id>", with n = id % 2; row 4 is refused when read back.
  for (int i = 2; i <= 7; ++i) {
    Note n(i == 4 ? "skip" : "n" + std::to_string(i), i % 2);
    ASSERT_TRUE(store.Create(n));
  }
  Note got;
  store.GetCondition().Where("id = 1");
  EXPECT_EQ("ok SELECT * FROM note WHERE id = 3", Ran(db, store.GetById(3, got)));
  EXPECT_EQ("n3#3", got.title_ + "#" + std::to_string(got.get_id()));
  EXPECT_FALSE(store.GetCondition().IsEmpty()) << "GetById neither uses nor clears it";
  store.GetCondition().Clear();
  EXPECT_FALSE(store.GetById(77, got));
  EXPECT_EQ("n3", got.title_);
  EXPECT_FALSE(store.GetById(4, got)) << "a row the record refuses";

  int count = -1;
  EXPECT_EQ("ok SELECT COUNT(*) AS c FROM note", Ran(db, store.Count(count)));
  EXPECT_EQ(7, count);
  store.GetCondition().Where("n", "1");
  EXPECT_EQ("ok SELECT COUNT(*) AS c FROM note WHERE `n` = '1'", Ran(db, store.Count(count)));
  EXPECT_EQ(4, count);
  EXPECT_TRUE(store.GetCondition().IsEmpty());
  store.GetCondition().Limit(10, 0);  // refused by SQLite
  EXPECT_FALSE(store.Count(count));
  EXPECT_EQ(4, count);
  EXPECT_TRUE(store.GetCondition().IsEmpty()) << "cleared after a failed count too";

  std::vector<Note> notes(2);
  auto titles = [&notes] {
    std::string out;
    for (auto const& n : notes) out += n.title_ + "#" + std::to_string(n.get_id()) + ";";
    return out;
  };
  store.GetCondition().Where("n", "1").OrderBy("id", false);
  EXPECT_EQ("ok SELECT * FROM note WHERE `n` = '1' ORDER BY id DESC", Ran(db, store.Query(notes)));
  EXPECT_EQ("n7#7;n5#5;n3#3;first#1;", titles());
  EXPECT_TRUE(store.GetCondition().IsEmpty());
  EXPECT_EQ("ok SELECT * FROM note", Ran(db, store.Query(notes)));
  EXPECT_EQ("first#1;n2#2;n3#3;n5#5;n6#6;n7#7;", titles()) << "the refused row is left out";
  store.GetCondition().Where("bogus_column = 1");
  EXPECT_FALSE(store.Query(notes));
  EXPECT_EQ("first#1;n2#2;n3#3;n5#5;n6#6;n7#7;", titles())
      << "a failed query leaves the vector as it was";
  EXPECT_TRUE(store.GetCondition().IsEmpty());

  // What is written sits in the log, not in the main file, until a store goes away.
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(db.Insert("note", {"t" + std::to_string(i), std::string(3000, 'z'), "1"}));
  }
  ASSERT_LT(dbtest::Size(path), 100000);
  { NoteDB other(db); }  // runs no statement of its own
  EXPECT_EQ("PRAGMA wal_checkpoint;", db.GetLastQuery());
  EXPECT_GT(dbtest::Size(path), 40 * 3000) << "the log was folded into the main file";
}

}  // namespace
