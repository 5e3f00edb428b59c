// The session store against a real, migrated database file.
#include "kovasharing/session_db.h"

#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "kovasharing/condition.h"
#include "kovasharing/session.h"
#include "store_test_util.h"

namespace {

using KOVA::sharing::db::SessionDB;
using KOVA::sharing::record::Session;
using storetest::StoreTest;

char const kUrlFriendly[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_";

Session LiveSession(std::string const& sid, long timeout = time(nullptr) + 86400) {
  Session session;
  session.set_session_id(sid).set_uid(1000).set_ip("192.0.2.7").set_timeout(timeout);
  return session;
}

class SessionDBTest : public StoreTest {
 protected:
  // Writes a row as it stands, expired or not, the way an older request would have left it.
  void RawSession(std::string const& sid, long timeout) {
    Exec("INSERT INTO session VALUES (NULL,'" + db_.Escape(sid) + "','1000','192.0.2.7','" +
         std::to_string(timeout) + "')");
  }
  std::set<std::string> Sids() {
    std::vector<std::string> const all = Column("SELECT session_id FROM session", "session_id");
    return std::set<std::string>(all.begin(), all.end());
  }
};

TEST_F(SessionDBTest, GenericOperationsReachTheSessionTable) {
  SessionDB store(db_);
  Session a = LiveSession("sid-a");
  Session b = LiveSession("sid-b");
  ASSERT_TRUE(store.Create(a));
  ASSERT_TRUE(store.Create(b));
  EXPECT_EQ(a.get_id() + 1, b.get_id());
  Session clash = LiveSession("sid-a");  // one row per session id
  EXPECT_FALSE(store.Create(clash));

  Session read;
  ASSERT_TRUE(store.GetById(a.get_id(), read));
  EXPECT_EQ("sid-a", read.get_session_id());
  read.set_ip("198.51.100.1");
  ASSERT_TRUE(store.Update(read));
  EXPECT_EQ(std::vector<std::string>{"198.51.100.1"},
            Column("SELECT ip FROM session WHERE session_id = 'sid-a'", "ip"));

  int count = -1;
  store.GetCondition().Where("session_id", "sid-b");
  ASSERT_TRUE(store.Count(count));
  EXPECT_EQ(1, count);
  std::vector<Session> all;
  ASSERT_TRUE(store.Query(all));  // the condition was used up by Count
  EXPECT_EQ(2u, all.size());

  ASSERT_TRUE(store.Delete(a));
  ASSERT_TRUE(store.Delete(b.get_id()));
  EXPECT_EQ(0, Rows("session"));
}

TEST_F(SessionDBTest, CreateWithSessionIdDrawsUniqueUrlFriendlyIds) {
  SessionDB store(db_);
  std::set<std::string> sids;
  std::set<char> seen;
  for (int i = 0; i < 300; ++i) {
    Session session = LiveSession("");
    ASSERT_TRUE(store.CreateWithSessionId(session)) << db_.GetLastError();
    std::string const sid = session.get_session_id();
    ASSERT_EQ(32u, sid.size()) << sid;
    ASSERT_TRUE(storetest::AllIn(sid, kUrlFriendly)) << sid;
    EXPECT_TRUE(sids.insert(sid).second) << "drawn twice: " << sid;
    seen.insert(sid.begin(), sid.end());
    Session read;
    ASSERT_TRUE(store.GetBySessionId(sid, read));
    EXPECT_EQ(session.get_id(), read.get_id());
  }
  EXPECT_EQ(sids, Sids());
  EXPECT_EQ(64u, seen.size());  // 9600 draws: the whole pool, "-" and "_" included
}

TEST_F(SessionDBTest, CreateWithSessionIdGivesUpAfterFiftyOneAttempts) {
  // Records every id offered; RAISE(FAIL) keeps that record although the insert fails.
  Exec("CREATE TABLE attempt (n INTEGER PRIMARY KEY, sid TEXT NOT NULL)");
  Exec(
      "CREATE TRIGGER refuse BEFORE INSERT ON session BEGIN "
      "INSERT INTO attempt (sid) VALUES (NEW.session_id); "
      "SELECT RAISE(FAIL, 'refused') WHERE (SELECT COUNT(*) FROM attempt) <= 1000; END");
  SessionDB store(db_);
  Session session = LiveSession("");
  EXPECT_FALSE(store.CreateWithSessionId(session));
  std::vector<std::string> const tried = Column("SELECT sid FROM attempt ORDER BY n", "sid");
  ASSERT_EQ(51u, tried.size());
  for (std::string const& sid : tried) {
    EXPECT_EQ(32u, sid.size());
    EXPECT_TRUE(storetest::AllIn(sid, kUrlFriendly)) << sid;
  }
  EXPECT_EQ(51u, std::set<std::string>(tried.begin(), tried.end()).size());
  EXPECT_EQ(tried.back(), session.get_session_id());
  EXPECT_EQ(0, session.get_id());
  EXPECT_EQ(0, Rows("session"));
  EXPECT_EQ(51, kovatest::LogCount("insert failed"));

  // Once inserts pass again, the first attempt is kept.
  Exec("DROP TRIGGER refuse");
  Exec("DELETE FROM attempt");
  ASSERT_TRUE(store.CreateWithSessionId(session));
  EXPECT_EQ(std::set<std::string>{session.get_session_id()}, Sids());
}

TEST_F(SessionDBTest, LookupAndDeletionEscapeTheSessionId) {
  SessionDB store(db_);
  Session quoted = LiveSession("o'sid");
  Session plain = LiveSession("plain");
  ASSERT_TRUE(store.Create(quoted));
  ASSERT_TRUE(store.Create(plain));

  Session found;
  ASSERT_TRUE(store.GetBySessionId("o'sid", found));
  EXPECT_EQ("SELECT * FROM session WHERE session_id = 'o''sid'", db_.GetLastQuery());
  EXPECT_EQ(quoted.get_id(), found.get_id());

  for (std::string const& text : storetest::HostileTexts()) {
    Session untouched = LiveSession("sentinel");
    untouched.set_id(77);
    EXPECT_FALSE(store.GetBySessionId(text, untouched)) << text;
    EXPECT_EQ(77, untouched.get_id()) << text;
    EXPECT_EQ("sentinel", untouched.get_session_id()) << text;
    EXPECT_TRUE(store.DeleteBySessionId(text)) << text;
    EXPECT_EQ(2, Rows("session")) << text;
  }
  EXPECT_EQ("", db_.GetLastError());  // no statement failed

  ASSERT_TRUE(store.DeleteBySessionId("o'sid"));
  EXPECT_EQ("DELETE FROM session WHERE session_id = 'o''sid'", db_.GetLastQuery());
  EXPECT_EQ(std::set<std::string>{"plain"}, Sids());
  EXPECT_TRUE(store.DeleteBySessionId("never-issued"));
  EXPECT_EQ(1, Rows("session"));
}

TEST_F(SessionDBTest, ExpiredSessionsReadAsAbsentButStay) {
  SessionDB store(db_);
  long const past = time(nullptr) - 30;
  RawSession("stale", past);
  Session live = LiveSession("fresh");
  ASSERT_TRUE(store.Create(live));

  Session session = LiveSession("sentinel");
  EXPECT_FALSE(store.GetBySessionId("stale", session));
  // Filled from the row all the same: the caller sees an unknown session.
  EXPECT_EQ("stale", session.get_session_id());
  EXPECT_EQ(past, session.get_timeout());
  EXPECT_EQ(1, session.get_id());
  EXPECT_FALSE(store.GetById(1, session));

  std::vector<Session> all;
  ASSERT_TRUE(store.Query(all));
  ASSERT_EQ(1u, all.size());
  EXPECT_EQ("fresh", all[0].get_session_id());
  int count = 0;
  ASSERT_TRUE(store.Count(count));
  EXPECT_EQ(2, count);
  EXPECT_EQ(2, Rows("session"));

  Session unknown = LiveSession("sentinel");
  EXPECT_FALSE(store.GetBySessionId("nobody", unknown));
  EXPECT_EQ("sentinel", unknown.get_session_id());
}

TEST_F(SessionDBTest, PurgeExpiredDeletesOnlyWhatEndedBeforeThisSecond) {
  SessionDB store(db_);
  RawSession("old", time(nullptr) - 100);
  std::string const last = db_.GetLastQuery();
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(store.PurgeExpired(0.0f));
  EXPECT_EQ(last, db_.GetLastQuery()) << "a purge that is not drawn ran a statement";
  EXPECT_EQ(1, Rows("session"));

  long const now = storetest::WithinOneSecond([&](long now) {
    Exec("DELETE FROM session");
    RawSession("long_gone", now - 86400);
    RawSession("just_gone", now - 1);
    RawSession("ends_now", now);
    RawSession("later", now + 1);
    ASSERT_TRUE(store.PurgeExpired(1.0f));
  });
  EXPECT_EQ("DELETE FROM session WHERE timeout < '" + std::to_string(now) + "'",
            db_.GetLastQuery());
  EXPECT_EQ((std::set<std::string>{"ends_now", "later"}), Sids());
}

}  // namespace
