// The entry, session and token stores on a real migrated file, judged by the rows they leave.
#include <gtest/gtest.h>
#include <json/value.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "kova_random.h"
#include "kovasharing/constants.h"
#include "kovasharing/entry_db.h"
#include "kovasharing/result.h"
#include "kovasharing/session_db.h"
#include "kovasharing/sharing_db.h"
#include "kovasharing/token_db.h"
#include "kovatest_db.h"
#include "store/entry_db_private.h"

namespace {

namespace db = KOVA::sharing::db;
using KOVA::sharing::record::Entry;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;
using Texts = std::set<std::string>;
using namespace std::string_literals;

// A legal entry with a time limit (0: none), a use limit, a count, auto_gc, owner and project.
Entry MakeEntry(std::string const& hash, long expire_at = 0, int limit = 0, int count = 0,
                bool auto_gc = true, unsigned int owner = 1000, std::string const& project = "p") {
  Entry entry;
  entry.set_hash(hash).set_project_name(project).set_owner_uid(owner).set_app(Json::objectValue);
  entry.set_expire_times(limit).set_expire_at(expire_at).set_use_count(count).set_auto_gc(auto_gc);
  return entry;
}

Session MakeSession(std::string const& sid) {
  Session session;
  session.set_session_id(sid).set_uid(1000).set_ip("192.0.2.7").set_timeout(time(nullptr) + 600);
  return session;
}

class StoreTest : public ::testing::Test {
 protected:
  // The values of `expr` over the rows of `table`.
  Texts Set(std::string const& table, std::string const& expr) {
    std::string const rows =
        kovatest::Sql(path_, "SELECT group_concat(" + expr + ", char(10)) FROM " + table);
    Texts out;
    for (size_t at = 0, end; rows != "NULL" && at <= rows.size(); at = end + 1) {
      end = std::min(rows.find('\n', at), rows.size());
      out.insert(rows.substr(at, end - at));
    }
    return out;
  }
  void Exec(std::string const& sql) { ASSERT_TRUE(db_.Execute(sql)) << sql; }

  kovatest::TempDir dir_;
  std::string const path_ = dir_.File("s.db");
  db::SharingDB db_{path_};
  db::EntryDB entries_{db_};
  db::SessionDB sessions_{db_};
  db::TokenDB tokens_{db_};
};

// Illegal records are refused; a condition holds for one Count or Query, failed or not.
template <class Store, class Record>
void ExpectGenericOperations(Store& store, Record a, Record b, std::function<void(Record&)> change,
                             std::function<std::string()> const& rows) {
  ASSERT_TRUE(store.Create(a) && store.Create(b));
  Record read, illegal;
  kovatest::ClearLogs();
  EXPECT_FALSE(store.Create(illegal) || store.Update(illegal));
  EXPECT_EQ(2, kovatest::LogCount("obj invalid"));
  ASSERT_TRUE(store.GetById(b.get_id(), read));
  change(read);
  ASSERT_TRUE(store.Update(read));
  std::vector<Record> found;
  int count = -1;
  store.GetCondition().Where("id", std::to_string(a.get_id()));
  EXPECT_TRUE(store.GetById(b.get_id(), read) && store.Count(count) && count == 1);
  store.GetCondition().Where("id", std::to_string(b.get_id()));
  EXPECT_TRUE(store.Query(found) && found.size() == 1u && found[0].get_id() == b.get_id());
  store.GetCondition().Where("bogus = 1");
  EXPECT_FALSE(store.Query(found));
  EXPECT_TRUE(found.size() == 1u && store.Count(count) && count == 2);
  ASSERT_TRUE(store.Delete(a));
  EXPECT_EQ(std::to_string(b.get_id()) + " changed", rows());
  ASSERT_TRUE(store.Delete(b.get_id()));
  EXPECT_EQ("", rows());
}

TEST_F(StoreTest, GenericOperationsReachTheirOwnTableAndCheckpoint) {
  auto rows = [this](char const* sql) { return [this, sql] { return kovatest::Sql(path_, sql); }; };
  ExpectGenericOperations<db::EntryDB, Entry>(
      entries_, MakeEntry("a"), MakeEntry("b"), [](Entry& e) { e.set_project_name("changed"); },
      rows("SELECT id || ' ' || project_name FROM entry"));
  ExpectGenericOperations<db::SessionDB, Session>(
      sessions_, MakeSession("a"), MakeSession("b"), [](Session& s) { s.set_ip("changed"); },
      rows("SELECT id || ' ' || ip FROM session"));
  Token a;
  a.set_entry_id(1).set_session_id(1).set_timeout(time(nullptr) + 900);
  ExpectGenericOperations<db::TokenDB, Token>(
      tokens_, a, Token(a).set_session_id(2), [](Token& t) { t.set_entry_id(77); },
      rows("SELECT id || ' ' || replace(entry_id, 77, 'changed') FROM token"));
  // What is written sits in the log until a store goes away, which folds it into the file.
  auto size = [this] {
    struct stat st;
    return stat(path_.c_str(), &st) == 0 ? st.st_size : -1;
  };
  Exec("CREATE TABLE filler(x);INSERT INTO filler VALUES (zeroblob(200000))");
  EXPECT_LT(size(), 200000);
  { db::TokenDB other(db_); }
  EXPECT_GT(size(), 200000);
}

// Hashes grow a character every third attempt from 9, session ids keep 32; 51 attempts in all.
TEST_F(StoreTest, RandomKeysFromTheirPoolRetriedFiftyOneTimes) {
  struct Case {
    std::string table, column, pool;
    std::function<size_t(size_t)> length;  // of the key at an attempt counted from 0
    std::function<bool(std::string&)> create;
  };
  std::vector<Case> const cases = {
      {"entry", "hash", KOVA::RANDOM::POOL_ALPHA_NUMERIC, [](size_t i) { return 9 + i / 3; },
       [&](std::string& key) {
         Entry entry = MakeEntry("");
         bool const ok = entries_.CreateWithHash(entry);
         return key = entry.get_hash(), ok;
       }},
      {"session", "session_id", KOVA::RANDOM::POOL_URL_FRIENDLY, [](size_t) { return 32; },
       [&](std::string& key) {
         Session session = MakeSession("");
         bool const ok = sessions_.CreateWithSessionId(session);
         return key = session.get_session_id(), ok;
       }},
  };
  for (Case const& c : cases) {
    std::string key;
    for (int failures : {0, 1000, 4}) {
      // Every key offered goes into table "attempt"; the first `failures` inserts are refused
      // (RAISE(FAIL), unlike ABORT, keeps what the trigger wrote).
      Exec("DROP TRIGGER IF EXISTS refuse;DROP TABLE IF EXISTS attempt;DELETE FROM " + c.table +
           ";CREATE TABLE attempt (n INTEGER PRIMARY KEY, v TEXT);CREATE TRIGGER refuse BEFORE "
           "INSERT ON " +
           c.table + " BEGIN INSERT INTO attempt (v) VALUES (NEW." + c.column +
           "); SELECT RAISE(FAIL, 'refused') WHERE (SELECT COUNT(*) FROM attempt) <= " +
           std::to_string(failures) + "; END");
      EXPECT_EQ(failures < 51, c.create(key));
      std::string lengths;
      for (int i = 0; i < std::min(failures + 1, 51); ++i) {
        lengths += (i ? "," : "") + std::to_string(c.length(i));
      }
      EXPECT_EQ(lengths, kovatest::Sql(path_, "SELECT group_concat(length(v)) FROM attempt"));
      EXPECT_EQ(key, kovatest::Sql(path_, "SELECT v FROM attempt ORDER BY n DESC LIMIT 1"));
      EXPECT_EQ(std::string::npos, key.find_first_not_of(c.pool)) << key;
      EXPECT_EQ(failures < 51 ? Texts{key} : Texts{}, Set(c.table, c.column)) << c.table;
    }
  }
}

TEST_F(StoreTest, LookupsEscapeTheirKeysAndReadExpiredRows) {
  Entry plain = MakeEntry("x"), quoted = MakeEntry("it's", time(nullptr) - 100, 2, 5), found;
  Session session = MakeSession("o'sid"), found_session;
  ASSERT_TRUE(entries_.Create(plain) && entries_.Create(quoted) && sessions_.Create(session));
  ASSERT_TRUE(entries_.GetByHash("it's", found));  // limits are validity, not legality
  EXPECT_EQ(quoted.get_id(), found.get_id());
  ASSERT_TRUE(sessions_.GetBySessionId("o'sid", found_session));
  for (std::string const& text :
       std::vector<std::string>{"'", "' OR '1'='1", "x' OR hash != 'x", "x' OR session_id != 'x",
                                "'; DROP TABLE entry; --", "a\0b"s}) {
    EXPECT_FALSE(entries_.GetByHash(text, found.set_id(77)) ||
                 sessions_.GetBySessionId(text, found_session.set_id(77)))
        << text;
    EXPECT_TRUE(found.get_id() == 77 && found_session.get_id() == 77) << text;
    EXPECT_TRUE(sessions_.DeleteBySessionId(text)) << text;
  }
  EXPECT_EQ("", db_.GetLastError());  // no statement failed
  EXPECT_FALSE(entries_.Create(quoted) || sessions_.Create(session)) << "keys are unique";
  ASSERT_TRUE(sessions_.DeleteBySessionId("o'sid"));
  EXPECT_EQ(Texts{}, Set("session", "id"));

  // An expired session reads as absent, yet fills the record and stays until a purge.
  Exec("INSERT INTO session VALUES (NULL, 'stale', 1000, '192.0.2.7', 1000)");
  EXPECT_FALSE(sessions_.GetBySessionId("stale", found_session));
  EXPECT_EQ("stale 1000",
            found_session.get_session_id() + " " + std::to_string(found_session.get_timeout()));
  Token token;
  token.set_entry_id(plain.get_id());
  ASSERT_TRUE(entries_.GetByToken(token, found) && found.get_hash() == "x");
}

// A use is counted only while the entry is as the login read it and under its limit.
TEST_F(StoreTest, UseIsCountedOnlyUnchangedAndUnderTheLimit) {
  db::EntryDBPrivate store(db_);
  Entry limited = MakeEntry("limited", 0, 2, 1), open_ended = MakeEntry("free");
  ASSERT_TRUE(store.Create(limited.GetObject()) && store.Create(open_ended.GetObject()));
  ASSERT_TRUE(store.GetByHash("limited", limited) && store.GetByHash("free", open_ended));
  int count = 0;
  std::string seen;
  for (Entry const* entry : {&limited, &limited, &open_ended, &open_ended}) {
    db::Lookup const counted = store.CountUseIfUnchanged(*entry, count);
    seen += counted == db::Lookup::kFound ? std::to_string(count) + " " : "absent ";
  }
  EXPECT_EQ("2 absent 1 2 ", seen);
  Exec("UPDATE entry SET enabled = 0 WHERE hash = 'free'");  // changed since it was read
  EXPECT_EQ(db::Lookup::kAbsent, store.CountUseIfUnchanged(open_ended, count));
  EXPECT_EQ((Texts{"free 2", "limited 2"}), Set("entry", "hash || ' ' || use_count"));
}

// Every deletion against rows on both sides of each boundary (time, count, auto_gc, owner).
TEST_F(StoreTest, EntryDeletionsTakeExactlyTheRowsTheyName) {
  unsigned int const big = 3000000000u;  // beyond a signed int
  std::vector<std::pair<std::function<bool()>, Texts>> const cases = {
      {[&] { return entries_.PurgeExpired(0.0f) && entries_.PurgeExpired(0.009f); }, {}},
      {[&] { return entries_.PurgeExpired(1.0f); }, {"a_q_used_up", "b_p_past"}},
      {[&] { return entries_.PurgeExpiredByOwnerProject(1000, "p"); }, {"a_p_past_nogc"}},
      {[&] { return entries_.PurgeExpiredByOwnerProject(1000, ""); },
       {"a_p_past_nogc", "a_q_used_up"}},
      {[&] { return entries_.PurgeExpiredByOwnerProject(KOVA::sharing::UID_ERR, "o'q"); },
       {"a_q_used_up", "b_q_used_up_nogc"}},
      {[&] { return entries_.PurgeExpiredByOwnerProject(KOVA::sharing::UID_ERR, ""); },
       {"a_p_past_nogc", "a_q_used_up", "b_p_past", "b_q_used_up_nogc", "c_past_nogc"}},
      {[&] { return entries_.DeleteByOwnerUid(big); }, {"c_past_nogc", "c_unlimited"}},
  };
  for (auto const& c : cases) {
    Texts kept;
    kovatest::AtOneSecond([&](time_t now) {
      Exec("DELETE FROM entry");
      for (Entry entry : {MakeEntry("a_p_past_nogc", now - 1, 0, 0, false, 1000, "p"),
                          MakeEntry("a_p_live", now + 100, 3, 2, true, 1000, "p"),
                          MakeEntry("a_q_used_up", 0, 2, 2, true, 1000, "o'q"),
                          MakeEntry("a_q_now", now, 0, 0, true, 1000, "o'q"),
                          MakeEntry("b_p_past", now - 1, 0, 0, true, 1001, "p"),
                          MakeEntry("b_q_used_up_nogc", 0, 2, 2, false, 1001, "o'q"),
                          MakeEntry("b_q_used_below", 0, 2, 1, true, 1001, "o'q"),
                          MakeEntry("c_past_nogc", now - 50, 0, 0, false, big),
                          MakeEntry("c_unlimited", 0, 0, 9, true, big)}) {
        EXPECT_TRUE(entries_.Create(entry));
        if (!c.second.count(entry.get_hash())) kept.insert(entry.get_hash());
      }
      EXPECT_TRUE(c.first());
      return true;
    });
    EXPECT_EQ(kept, Set("entry", "hash"));
  }
}

TEST_F(StoreTest, TokensJoinByRowIdsAndPurgesEndBeforeThisSecond) {
  long const now = time(nullptr);
  // Only the first row of a pair counts: an expired one hides a live one behind it.
  for (auto [entry_id, session_id, timeout] :
       {std::tuple{7, 13, now + 600}, {12, 7, now + 600}, {7, 12, now - 10}, {7, 12, now + 600}}) {
    Exec("INSERT INTO token VALUES (NULL, " + std::to_string(entry_id) + ", " +
         std::to_string(session_id) + ", " + std::to_string(timeout) + ")");
  }
  Session session;
  Entry entry;
  Token found;
  EXPECT_FALSE(tokens_.GetBySessionEntry(session.set_id(12), entry.set_id(7), found));
  EXPECT_EQ("3 -10",
            std::to_string(found.get_id()) + " " + std::to_string(found.get_timeout() - now));
  Exec("DELETE FROM token WHERE id = 3");
  EXPECT_TRUE(tokens_.GetBySessionEntry(session, entry, found) && found.get_id() == 4);
  EXPECT_FALSE(tokens_.GetBySessionEntry(session.set_id(0), entry, found.set_id(55)));
  EXPECT_EQ(55, found.get_id()) << "a session never stored (row id 0) finds nothing";
  ASSERT_TRUE(tokens_.PurgeByEntry(entry.set_id(7)));
  EXPECT_EQ(Texts{"12 7"}, Set("token", "entry_id || ' ' || session_id"));

  std::vector<std::pair<std::string, std::function<bool(float)>>> const purges = {
      {"session", [&](float p) { return sessions_.PurgeExpired(p); }},
      {"token", [&](float p) { return tokens_.PurgeExpired(p); }}};
  for (auto const& [table, purge] : purges) {
    time_t second = 0;
    kovatest::AtOneSecond([&, table = table, purge = purge](time_t now) {
      Exec("DELETE FROM " + table);
      for (long t : {now - 86400, now - 1, now, now + 1}) {
        Exec("INSERT INTO " + table + " VALUES (NULL, " +
             (table == "token" ? "1, 1, " : "hex(randomblob(8)), 1000, '192.0.2.7', ") +
             std::to_string(t) + ")");
      }
      EXPECT_TRUE(purge(0.0f) && Set(table, "id").size() == 4u) << "not drawn: nothing purged";
      EXPECT_TRUE(purge(1.0f));
      second = now;
      return true;
    });
    EXPECT_EQ((Texts{std::to_string(second), std::to_string(second + 1)}), Set(table, "timeout"));
  }
}

}  // namespace
