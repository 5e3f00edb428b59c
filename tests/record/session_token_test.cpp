// Visitor sessions and tokens: legality with its fixed log lines, expiry at the current second,
// rows through the database (expired ones read but refused) and the handles' value semantics.
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "kovasharing/session.h"
#include "kovasharing/token.h"
#include "record_test_util.h"

using KOVA::sharing::db::ObjectDB;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;
using recordtest::Fields;
using Texts = std::vector<std::string>;

namespace {

// The rules' log lines keep their numbers; expired at the second of the timeout, legal the
// second before.
template <class R>
void ExpectRules(R r, char const* source, std::vector<int> const& lines,
                 std::vector<std::function<void(R&)>> repairs) {
  std::vector<std::function<void()>> steps;
  for (auto& repair : repairs) steps.push_back([&r, repair] { repair(r); });
  EXPECT_EQ(lines, recordtest::RulesInOrder([&r] { return r.IsLegal(); }, source, steps));
  for (int later : {0, 1}) {
    EXPECT_EQ(later == 1, kovatest::AtOneSecond(
                              [&](time_t now) { return r.set_timeout(now + later).IsLegal(); }));
  }
  kovatest::ClearLogs();
}

// Writes `row` straight into `table`, then reads it back through the generic store: whether it
// was usable, and the fields it filled.
template <class R>
std::string ReadBack(recordtest::Database& base, std::string const& table, std::string const& row) {
  base.Exec("INSERT INTO " + table + " VALUES (NULL, " + row + ")");
  int id = 0;
  EXPECT_TRUE(base.db.GetLastInsertId(id));
  R r;
  bool const usable = ObjectDB(base.db, table.c_str()).GetById(id, r.GetObject());
  std::string out = std::to_string(usable);
  for (std::string const& field : Fields(r)) out += " " + field;
  kovatest::ClearLogs();
  return out;
}

}  // namespace

TEST(SessionRecord, RulesExpiryAndRows) {
  // The account is not checked: a session without one is legal.
  ExpectRules<Session>(
      Session(), "session", {87, 88, 89},
      {[](Session& s) { s.set_session_id("sid"); }, [](Session& s) { s.set_ip("::1"); },
       [](Session& s) { s.set_timeout(time(nullptr) + 60); }});
  recordtest::Database base;
  ObjectDB store(base.db, "session");
  // A session without an account keeps all bits set through the database.
  for (unsigned int uid : {1000u, 0xFFFFFFFFu}) {
    Session written, read;
    written.set_session_id(std::to_string(uid))
        .set_uid(uid)
        .set_ip("::1")
        .set_timeout(time(nullptr) + 99);
    ASSERT_TRUE(store.Create(written.GetObject()));
    ASSERT_TRUE(store.GetById(written.get_id(), read.GetObject()));
    EXPECT_EQ(Fields(written), Fields(read));
  }
  // An expired row is read completely and refused; texts that are no numbers read as defaults.
  EXPECT_EQ("0 old 1001 10.0.0.1 1000 3",
            ReadBack<Session>(base, "session", "'old', 1001, '10.0.0.1', 1000"));
  EXPECT_EQ("0 odd 4294967295  0 4", ReadBack<Session>(base, "session", "'odd', 'x', '', 'soon'"));
}

TEST(TokenRecord, RulesExpiryAndRows) {
  // Only 0 means "not set" for the ids.
  ExpectRules<Token>(Token(), "token", {81, 82, 83},
                     {[](Token& t) { t.set_entry_id(-2); }, [](Token& t) { t.set_session_id(-3); },
                      [](Token& t) { t.set_timeout(time(nullptr) + 60); }});
  recordtest::Database base;
  ObjectDB store(base.db, "token");
  Token written, read;
  written.set_entry_id(3).set_session_id(4).set_timeout(time(nullptr) + 99);
  ASSERT_TRUE(store.Create(written.GetObject()));
  ASSERT_TRUE(store.GetById(written.get_id(), read.GetObject()));
  EXPECT_EQ(Fields(written), Fields(read));
  EXPECT_EQ("0 5 6 99 2", ReadBack<Token>(base, "token", "5, 6, 99"));
}

TEST(RecordHandles, CopiesAndMovesAreIndependent) {
  Session s;
  s.set_session_id("0123456789abcdef").set_uid(1000).set_ip("192.0.2.7").set_timeout(5).set_id(5);
  recordtest::ExpectValueSemantics<Session>(
      s, [](Session& r) { r.set_session_id("other").set_uid(7); });
  Token t;
  t.set_entry_id(3).set_session_id(4).set_timeout(99).set_id(8);
  recordtest::ExpectValueSemantics<Token>(t, [](Token& r) { r.set_entry_id(30).set_id(40); });
}
