// Visitor sessions and tokens: row forms, legality with its fixed log lines, expiry at the
// current second, round trips and value semantics of the handles.
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "kovasharing/session.h"
#include "kovasharing/token.h"
#include "record_test_util.h"

using KOVA::sharing::db::ObjectDB;
using KOVA::sharing::record::Object;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;

namespace {

std::string Line(char const* source, int line, char const* condition) {
  return std::string(source) + ":" + std::to_string(line) + " (" +
         std::to_string(static_cast<unsigned>(getpid())) + ") Failed [" + condition + "], err=";
}

// The only captured line starts with `prefix` and ends with the blank line.
void ExpectOnlyLine(std::string const& prefix) {
  std::vector<std::string> const texts = kovatest::LogTexts();
  ASSERT_EQ(1u, texts.size());
  EXPECT_EQ(prefix, texts[0].substr(0, prefix.size()));
  EXPECT_EQ("\n\n", texts[0].substr(texts[0].size() - 2));
}

Session LiveSession() {
  Session s;
  s.set_session_id("0123456789abcdefABCDEF0123456789").set_uid(1000).set_ip("192.0.2.7");
  s.set_timeout(time(nullptr) + 86400);
  return s;
}

Token LiveToken() {
  Token t;
  t.set_entry_id(3).set_session_id(4).set_timeout(time(nullptr) + 86400);
  return t;
}

}  // namespace

TEST(SessionRecord, RowFormAndLegality) {
  Session s;
  EXPECT_EQ(0, s.get_id());
  EXPECT_EQ(0xFFFFFFFFu, s.get_uid());
  EXPECT_EQ(0, s.get_timeout());
  EXPECT_EQ((std::vector<std::string>{"", "4294967295", "", "0"}), s.GetFieldList());

  kovatest::ClearLogs();
  EXPECT_FALSE(s.IsLegal());
  ExpectOnlyLine(Line("session", 87, "\"\" == session_id_"));
  s.set_session_id("sid");
  kovatest::ClearLogs();
  EXPECT_FALSE(s.IsLegal());
  ExpectOnlyLine(Line("session", 88, "\"\" == ip_"));
  s.set_ip("::1");
  kovatest::ClearLogs();
  EXPECT_FALSE(s.IsLegal());
  ExpectOnlyLine(Line("session", 89, "time(NULL) >= timeout_"));

  // Expired at the second of its timeout; legal the second before.
  EXPECT_FALSE(recordtest::AtOneSecond([&](time_t now) {
    s.set_timeout(now);
    return s.IsLegal();
  }));
  EXPECT_TRUE(recordtest::AtOneSecond([&](time_t now) {
    s.set_timeout(now + 1);
    return s.IsLegal();
  }));
  // The account is not checked: a session without one is legal.
  s.set_uid(0xFFFFFFFFu).set_timeout(time(nullptr) + 60);
  EXPECT_TRUE(s.IsLegal());

  s.set_uid(1000).set_timeout(1700000000).set_id(9);
  EXPECT_EQ((std::vector<std::string>{"sid", "1000", "::1", "1700000000"}), s.GetFieldList());
  std::map<std::string, std::string> const map = s.GetFieldMap();
  EXPECT_EQ((std::map<std::string, std::string>{
                {"session_id", "sid"}, {"uid", "1000"}, {"ip", "::1"}, {"timeout", "1700000000"}}),
            map);

  // The JSON form sets its four members and leaves the caller's others.
  Json::Value out(Json::objectValue);
  out["keep"] = "me";
  out["uid"] = "replaced";
  s.ToJSON(out);
  EXPECT_EQ("me", out["keep"].asString());
  EXPECT_EQ("sid", out["session_id"].asString());
  EXPECT_TRUE(out["uid"].isUInt());
  EXPECT_EQ(1000u, out["uid"].asUInt());
  EXPECT_EQ("::1", out["ip"].asString());
  EXPECT_TRUE(out["timeout"].isIntegral());
  EXPECT_EQ(1700000000, out["timeout"].asInt64());
  EXPECT_FALSE(out.isMember("id"));
  EXPECT_EQ(5u, out.size());
  Session none;
  none.ToJSON(out);
  EXPECT_EQ(4294967295u, out["uid"].asUInt());
}

TEST(SessionRecord, RoundTripAndExpiredRows) {
  recordtest::Database base;
  ObjectDB store(base.db(), "session");
  Session written = LiveSession();
  ASSERT_TRUE(store.Create(written.GetObject()));
  EXPECT_LT(0, written.get_id());
  Session read;
  ASSERT_TRUE(store.GetById(written.get_id(), read.GetObject()));
  EXPECT_EQ(written.get_id(), read.get_id());
  EXPECT_EQ(written.get_session_id(), read.get_session_id());
  EXPECT_EQ(1000u, read.get_uid());
  EXPECT_EQ("192.0.2.7", read.get_ip());
  EXPECT_EQ(written.get_timeout(), read.get_timeout());
  EXPECT_EQ(written.GetFieldList(), read.GetFieldList());

  // A session without an account keeps all bits set through the database.
  Session anonymous = LiveSession();
  anonymous.set_session_id("anonymous").set_uid(0xFFFFFFFFu);
  ASSERT_TRUE(store.Create(anonymous.GetObject()));
  Session anonymous_read;
  ASSERT_TRUE(store.GetById(anonymous.get_id(), anonymous_read.GetObject()));
  EXPECT_EQ(0xFFFFFFFFu, anonymous_read.get_uid());

  // An expired row is read completely and reported as unusable.
  base.Exec("INSERT INTO session VALUES (NULL, 'old', 1001, '10.0.0.1', 1000)");
  Session expired;
  kovatest::ClearLogs();
  EXPECT_FALSE(store.GetById(3, expired.GetObject()));
  EXPECT_EQ(3, expired.get_id());
  EXPECT_EQ("old", expired.get_session_id());
  EXPECT_EQ(1001u, expired.get_uid());
  EXPECT_EQ("10.0.0.1", expired.get_ip());
  EXPECT_EQ(1000, expired.get_timeout());
  ExpectOnlyLine(Line("session", 89, "time(NULL) >= timeout_"));

  // Texts that are not numbers read as the defaults.
  base.Exec("INSERT INTO session VALUES (NULL, 'odd', 'x', '', 'soon')");
  Session odd = LiveSession();
  EXPECT_FALSE(store.GetById(4, odd.GetObject()));
  EXPECT_EQ(0xFFFFFFFFu, odd.get_uid());
  EXPECT_EQ("", odd.get_ip());
  EXPECT_EQ(0, odd.get_timeout());

  // The query of the generic store skips what is not legal.
  std::vector<Session> live;
  ASSERT_TRUE(store.Query(live));
  ASSERT_EQ(2u, live.size());
  EXPECT_EQ(written.get_session_id(), live[0].get_session_id());
  EXPECT_EQ("anonymous", live[1].get_session_id());

  // An update rewrites the row by its id.
  read.set_ip("198.51.100.1").set_timeout(read.get_timeout() + 10);
  ASSERT_TRUE(store.Update(read.GetCObject()));
  EXPECT_EQ(
      std::vector<std::string>({"198.51.100.1"}),
      base.Rows("SELECT ip FROM session WHERE id = " + std::to_string(read.get_id()), {"ip"}));
}

TEST(SessionRecord, CopiesAndMoves) {
  Session a = LiveSession();
  a.set_id(5);
  Session copy(a);
  EXPECT_EQ(5, copy.get_id());
  EXPECT_EQ(a.GetFieldList(), copy.GetFieldList());
  copy.set_session_id("other").set_uid(7).set_id(6);
  EXPECT_EQ("0123456789abcdefABCDEF0123456789", a.get_session_id());
  EXPECT_EQ(1000u, a.get_uid());
  EXPECT_EQ(5, a.get_id());

  Session assigned;
  assigned = a;
  EXPECT_EQ(a.GetFieldList(), assigned.GetFieldList());
  EXPECT_EQ(5, assigned.get_id());
  assigned.set_ip("x");
  EXPECT_EQ("192.0.2.7", a.get_ip());

  Object const* source_record = &a.GetCObject();
  long const timeout = a.get_timeout();
  Session moved(std::move(a));
  EXPECT_EQ("0123456789abcdefABCDEF0123456789", moved.get_session_id());
  EXPECT_EQ("192.0.2.7", moved.get_ip());
  EXPECT_EQ(5, moved.get_id());
  EXPECT_EQ(source_record, &a.GetCObject());
  EXPECT_EQ("", a.get_session_id());
  EXPECT_EQ("", a.get_ip());
  EXPECT_EQ(1000u, a.get_uid());
  EXPECT_EQ(timeout, a.get_timeout());
  EXPECT_EQ(5, a.get_id());
  a.set_session_id("reused").set_ip("::1");
  EXPECT_TRUE(a.IsLegal());
  EXPECT_EQ("0123456789abcdefABCDEF0123456789", moved.get_session_id());

  Session target;
  Object const* target_record = &target.GetCObject();
  target = std::move(moved);
  EXPECT_EQ(target_record, &target.GetCObject());
  EXPECT_EQ("0123456789abcdefABCDEF0123456789", target.get_session_id());
  EXPECT_EQ("", moved.get_session_id());
  EXPECT_EQ(1000u, moved.get_uid());
  Session& alias = target;
  target = std::move(alias);
  EXPECT_EQ("192.0.2.7", target.get_ip());
}

TEST(TokenRecord, RowFormAndLegality) {
  Token t;
  EXPECT_EQ((std::vector<std::string>{"0", "0", "0"}), t.GetFieldList());
  EXPECT_EQ((std::map<std::string, std::string>{
                {"entry_id", "0"}, {"session_id", "0"}, {"timeout", "0"}}),
            t.GetFieldMap());

  kovatest::ClearLogs();
  EXPECT_FALSE(t.IsLegal());
  ExpectOnlyLine(Line("token", 81, "0 == entry_id_"));
  t.set_entry_id(-2);  // only 0 means "not set"
  kovatest::ClearLogs();
  EXPECT_FALSE(t.IsLegal());
  ExpectOnlyLine(Line("token", 82, "0 == session_id_"));
  t.set_session_id(-3);
  kovatest::ClearLogs();
  EXPECT_FALSE(t.IsLegal());
  ExpectOnlyLine(Line("token", 83, "time(NULL) >= timeout_"));
  EXPECT_FALSE(recordtest::AtOneSecond([&](time_t now) {
    t.set_timeout(now);
    return t.IsLegal();
  }));
  EXPECT_TRUE(recordtest::AtOneSecond([&](time_t now) {
    t.set_timeout(now + 1);
    return t.IsLegal();
  }));

  t.set_timeout(1700000000).set_id(8);
  EXPECT_EQ((std::vector<std::string>{"-2", "-3", "1700000000"}), t.GetFieldList());
  EXPECT_EQ((std::map<std::string, std::string>{
                {"entry_id", "-2"}, {"session_id", "-3"}, {"timeout", "1700000000"}}),
            t.GetFieldMap());

  Json::Value out(Json::objectValue);
  out["keep"] = 1;
  t.ToJSON(out);
  EXPECT_EQ(1, out["keep"].asInt());
  EXPECT_TRUE(out["entry_id"].isInt());
  EXPECT_EQ(-2, out["entry_id"].asInt());
  EXPECT_EQ(-3, out["session_id"].asInt());
  EXPECT_EQ(1700000000, out["timeout"].asInt64());
  EXPECT_FALSE(out.isMember("id"));
  EXPECT_EQ(4u, out.size());
}

TEST(TokenRecord, RoundTripCopiesAndMoves) {
  recordtest::Database base;
  ObjectDB store(base.db(), "token");
  Token written = LiveToken();
  ASSERT_TRUE(store.Create(written.GetObject()));
  Token read;
  ASSERT_TRUE(store.GetById(written.get_id(), read.GetObject()));
  EXPECT_EQ(written.get_id(), read.get_id());
  EXPECT_EQ(3, read.get_entry_id());
  EXPECT_EQ(4, read.get_session_id());
  EXPECT_EQ(written.get_timeout(), read.get_timeout());
  EXPECT_EQ(std::vector<std::string>({"3|4"}),
            base.Rows("SELECT entry_id, session_id FROM token", {"entry_id", "session_id"}));

  base.Exec("INSERT INTO token VALUES (NULL, 5, 6, 99)");
  Token expired;
  kovatest::ClearLogs();
  EXPECT_FALSE(store.GetById(2, expired.GetObject()));
  EXPECT_EQ(2, expired.get_id());
  EXPECT_EQ(5, expired.get_entry_id());
  EXPECT_EQ(6, expired.get_session_id());
  EXPECT_EQ(99, expired.get_timeout());
  ExpectOnlyLine(Line("token", 83, "time(NULL) >= timeout_"));
  std::vector<Token> live;
  ASSERT_TRUE(store.Query(live));
  ASSERT_EQ(1u, live.size());
  EXPECT_EQ(written.get_id(), live[0].get_id());

  Token copy(read);
  copy.set_entry_id(30).set_id(40);
  EXPECT_EQ(3, read.get_entry_id());
  EXPECT_EQ(written.get_id(), read.get_id());
  Token assigned;
  assigned = read;
  EXPECT_EQ(read.GetFieldList(), assigned.GetFieldList());
  assigned.set_session_id(44);
  EXPECT_EQ(4, read.get_session_id());

  Object const* source_record = &read.GetCObject();
  Token moved(std::move(read));
  EXPECT_EQ(source_record, &read.GetCObject());
  EXPECT_EQ(written.GetFieldList(), moved.GetFieldList());
  EXPECT_EQ(written.GetFieldList(), read.GetFieldList());  // numbers stay in the source
  Token target;
  Object const* target_record = &target.GetCObject();
  target = std::move(moved);
  EXPECT_EQ(target_record, &target.GetCObject());
  EXPECT_EQ(written.get_id(), target.get_id());
  EXPECT_EQ(3, target.get_entry_id());
  moved.set_entry_id(1);
  EXPECT_EQ(3, target.get_entry_id());
}
