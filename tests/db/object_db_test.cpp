// The generic record store over a record type of the tests' own: the operations, the one-shot
// condition, an override reached through Delete(const Object&), and the checkpoint of the
// write-ahead log when a store goes away.
#include "kovasharing/object_db.h"

#include "db_test_util.h"

namespace {

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

std::string Titles(std::vector<Note> const& notes) {
  std::string out;
  for (auto const& n : notes) out += n.title_ + "#" + std::to_string(n.get_id()) + ";";
  return out;
}

TEST(ObjectDB, OperationsOneShotConditionAndCheckpoint) {
  kovatest::TempDir dir;
  std::string const path = dir.File("notes.db");
  BaseDB db(path, 432);
  ASSERT_TRUE(
      db.Execute("CREATE TABLE note(id INTEGER PRIMARY KEY, title TEXT NOT NULL UNIQUE, body "
                 "TEXT NOT NULL, n INTEGER NOT NULL CHECK (n >= 0));"));
  NoteDB store(db);
  kovatest::ClearLogs();
  Note a("first", 1), illegal("", 1), clash("first", 0);
  ASSERT_TRUE(store.Create(a));
  a.title_ = "second";  // the same object again: another row, and the newer id
  ASSERT_TRUE(store.Create(a));
  illegal.set_id(33);
  EXPECT_FALSE(store.Create(illegal) || store.Create(clash));
  EXPECT_EQ("2 33 0", std::to_string(a.get_id()) + " " + std::to_string(illegal.get_id()) + " " +
                          std::to_string(clash.get_id()));
  a.n_ = 5;
  ASSERT_TRUE(store.Update(a));
  a.n_ = -1;
  EXPECT_FALSE(store.Update(a) || store.Update(illegal));
  EXPECT_EQ("1|first|it's|1;2|second|it's|5", Sql(path, "SELECT * FROM note"));
  ASSERT_TRUE(store.Delete(static_cast<KOVA::sharing::record::Object const&>(a)));
  EXPECT_EQ(std::vector<int>{2}, store.deleted) << "reached through the store's Delete(int)";
  EXPECT_FALSE(NoteDB(db, "nothere").Delete(1));
  EXPECT_EQ(
      "object_db:# (pid) obj invalid\n|object_db:# (pid) insert failed\n|object_db:# (pid) "
      "update failed\n|object_db:# (pid) obj invalid\n|object_db:# (pid) delete failed\n",
      dbtest::Log());

  // Rows 2 to 7, titled "n<id>", with n = id % 2; row 4 is refused when read back.
  for (int i = 2; i <= 7; ++i) {
    Note n(i == 4 ? "skip" : "n" + std::to_string(i), i % 2);
    ASSERT_TRUE(store.Create(n));
  }
  Note got;
  store.GetCondition().Where("id = 1");
  EXPECT_TRUE(store.GetById(3, got) && got.title_ == "n3") << "GetById ignores the condition";
  EXPECT_FALSE(store.GetCondition().IsEmpty());
  store.GetCondition().Clear();
  EXPECT_FALSE(store.GetById(77, got) || store.GetById(4, got));

  int count = -1;
  store.GetCondition().Where("n", "1");
  EXPECT_TRUE(store.Count(count));
  EXPECT_EQ(4, count);
  EXPECT_TRUE(store.Count(count));
  EXPECT_EQ(7, count) << "the condition held for one statement";
  store.GetCondition().Limit(10, 0);  // refused by SQLite
  EXPECT_FALSE(store.Count(count));
  EXPECT_TRUE(store.GetCondition().IsEmpty()) << "cleared after a failed count too";

  std::vector<Note> notes(2);
  store.GetCondition().Where("n", "1").OrderBy("id", false);
  ASSERT_TRUE(store.Query(notes));
  EXPECT_EQ("n7#7;n5#5;n3#3;first#1;", Titles(notes));
  ASSERT_TRUE(store.Query(notes));
  EXPECT_EQ("first#1;n2#2;n3#3;n5#5;n6#6;n7#7;", Titles(notes)) << "the refused row left out";
  store.GetCondition().Where("bogus_column = 1");
  EXPECT_FALSE(store.Query(notes));
  EXPECT_EQ(6u, notes.size()) << "a failed query leaves the vector as it was";
  EXPECT_TRUE(store.GetCondition().IsEmpty());

  // What is written sits in the log, not in the main file, until a store goes away.
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(db.Insert("note", {"t" + std::to_string(i), std::string(3000, 'z'), "1"}));
  }
  struct stat st;
  ASSERT_TRUE(stat(path.c_str(), &st) == 0 && st.st_size < 100000);
  { NoteDB other(db); }
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_GT(st.st_size, 40 * 3000) << "the log was folded into the main file";
}

}  // namespace
