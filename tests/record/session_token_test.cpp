// Visitor sessions and tokens: row forms, legality with its fixed log lines, expiry at the
// current second, round trips and value semantics of the handles.
#include <gtest/gtest.h>

#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "kovasharing/session.h"
#include "kovasharing/token.h"
#include "record_test_util.h"

using KOVA::sharing::db::ObjectDB;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;
using recordtest::Compact;
using recordtest::Fields;
using Texts = std::vector<std::string>;

namespace {

// Expired at the second of its timeout, legal the second before.
template <class R>
void ExpectExpiryAtNow(R r) {
  for (int later : {0, 1}) {
    EXPECT_EQ(later == 1, recordtest::AtOneSecond(
                              [&](time_t now) { return r.set_timeout(now + later).IsLegal(); }));
  }
  kovatest::ClearLogs();
}

}  // namespace

TEST(SessionRecord, RowFormLegalityAndRows) {
  Session s;
  EXPECT_EQ((Texts{"", "4294967295", "", "0"}), s.GetFieldList());
  Json::Value out(Json::objectValue);
  out["keep"] = "me";
  s.ToJSON(out);
  EXPECT_EQ(R"({"ip":"","keep":"me","session_id":"","timeout":0,"uid":4294967295})", Compact(out));

  // The account is not checked: a session without one is legal.
  recordtest::ExpectRulesInOrder(
      [&] { return s.IsLegal(); }, "session", true,
      {{"87 \"\" == session_id_", [&] { s.set_session_id("sid"); }},
       {"88 \"\" == ip_", [&] { s.set_ip("::1"); }},
       {"89 time(NULL) >= timeout_", [&] { s.set_timeout(time(nullptr) + 60); }}});
  ExpectExpiryAtNow(s);

  s.set_uid(1000).set_timeout(1700000000).set_id(9);
  EXPECT_EQ((Texts{"sid", "1000", "::1", "1700000000"}), s.GetFieldList());
  EXPECT_EQ((std::map<std::string, std::string>{
                {"session_id", "sid"}, {"uid", "1000"}, {"ip", "::1"}, {"timeout", "1700000000"}}),
            s.GetFieldMap());
  s.ToJSON(out);
  EXPECT_EQ(R"({"ip":"::1","keep":"me","session_id":"sid","timeout":1700000000,"uid":1000})",
            Compact(out));

  recordtest::Database base;
  ObjectDB store(base.db, "session");
  // A session without an account keeps all bits set through the database.
  for (unsigned int uid : {1000u, 0xFFFFFFFFu}) {
    Session written = Session(s).set_session_id(std::to_string(uid)).set_uid(uid);
    written.set_timeout(time(nullptr) + 86400);
    ASSERT_TRUE(store.Create(written.GetObject()));
    Session read;
    ASSERT_TRUE(store.GetById(written.get_id(), read.GetObject()));
    EXPECT_EQ(Fields(written), Fields(read));
  }

  // An expired row is read completely and reported as unusable; texts that are no numbers
  // read as the defaults.
  base.Exec("INSERT INTO session VALUES (NULL, 'old', 1001, '10.0.0.1', 1000)");
  base.Exec("INSERT INTO session VALUES (NULL, 'odd', 'x', '', 'soon')");
  Session row = s;
  kovatest::ClearLogs();
  EXPECT_FALSE(store.GetById(3, row.GetObject()));
  EXPECT_EQ((Texts{"old", "1001", "10.0.0.1", "1000", "3"}), Fields(row));
  EXPECT_EQ(Texts{"89 time(NULL) >= timeout_"}, recordtest::Failed("session", true));
  EXPECT_FALSE(store.GetById(4, row.GetObject()));
  EXPECT_EQ((Texts{"odd", "4294967295", "", "0", "4"}), Fields(row));
  EXPECT_EQ(Texts{"88 \"\" == ip_"}, recordtest::Failed("session", true));

  // The generic query skips what is not legal.
  std::vector<Session> live;
  ASSERT_TRUE(store.Query(live));
  EXPECT_EQ(2u, live.size());
  kovatest::ClearLogs();
}

TEST(TokenRecord, RowFormLegalityAndRows) {
  Token t;
  EXPECT_EQ((Texts{"0", "0", "0"}), t.GetFieldList());
  EXPECT_EQ((std::map<std::string, std::string>{
                {"entry_id", "0"}, {"session_id", "0"}, {"timeout", "0"}}),
            t.GetFieldMap());
  // Only 0 means "not set" for the ids.
  recordtest::ExpectRulesInOrder(
      [&] { return t.IsLegal(); }, "token", true,
      {{"81 0 == entry_id_", [&] { t.set_entry_id(-2); }},
       {"82 0 == session_id_", [&] { t.set_session_id(-3); }},
       {"83 time(NULL) >= timeout_", [&] { t.set_timeout(time(nullptr) + 60); }}});
  ExpectExpiryAtNow(t);

  t.set_timeout(1700000000).set_id(8);
  EXPECT_EQ((Texts{"-2", "-3", "1700000000"}), t.GetFieldList());
  EXPECT_EQ("-3", t.GetFieldMap().at("session_id"));
  Json::Value out(Json::objectValue);
  out["keep"] = 1;
  t.ToJSON(out);
  EXPECT_EQ(R"({"entry_id":-2,"keep":1,"session_id":-3,"timeout":1700000000})", Compact(out));

  recordtest::Database base;
  ObjectDB store(base.db, "token");
  Token written;
  written.set_entry_id(3).set_session_id(4).set_timeout(time(nullptr) + 86400);
  ASSERT_TRUE(store.Create(written.GetObject()));
  Token read;
  ASSERT_TRUE(store.GetById(written.get_id(), read.GetObject()));
  EXPECT_EQ(Fields(written), Fields(read));

  base.Exec("INSERT INTO token VALUES (NULL, 5, 6, 99)");
  kovatest::ClearLogs();
  EXPECT_FALSE(store.GetById(2, read.GetObject()));
  EXPECT_EQ((Texts{"5", "6", "99", "2"}), Fields(read));
  EXPECT_EQ(Texts{"83 time(NULL) >= timeout_"}, recordtest::Failed("token", true));
  std::vector<Token> live;
  ASSERT_TRUE(store.Query(live));
  EXPECT_EQ(1u, live.size());
  kovatest::ClearLogs();
}

TEST(RecordHandles, CopiesAndMovesAreIndependent) {
  Session s;
  s.set_session_id("0123456789abcdef").set_uid(1000).set_ip("192.0.2.7").set_timeout(5).set_id(5);
  // Strings left empty in the source, numbers unchanged.
  recordtest::ExpectValueSemantics<Session>(
      s, [](Session& r) { r.set_session_id("other").set_uid(7); },
      [](Session const& r) {
        EXPECT_EQ((Texts{"", "1000", "", "5", "5"}), Fields(r));
      });
  Token t;
  t.set_entry_id(3).set_session_id(4).set_timeout(99).set_id(8);
  recordtest::ExpectValueSemantics<Token>(
      t, [](Token& r) { r.set_entry_id(30).set_id(40); },
      [](Token const& r) {
        EXPECT_EQ((Texts{"3", "4", "99", "8"}), Fields(r));
      });
}
