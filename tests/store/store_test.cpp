// The entry, session and token stores against a real, migrated database file.
#include <gtest/gtest.h>
#include <json/value.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kovasharing/condition.h"
#include "kovasharing/constants.h"
#include "kovasharing/entry_db.h"
#include "kovasharing/result.h"
#include "kovasharing/session_db.h"
#include "kovasharing/sharing_db.h"
#include "kovasharing/token_db.h"
#include "kovatest.h"

namespace {

namespace db = KOVA::sharing::db;
using KOVA::sharing::UID_ERR;
using KOVA::sharing::record::Entry;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;

// A legal entry with a time limit (0: none), a use limit and a count.
Entry MakeEntry(std::string const& hash, long expire_at = 0, int expire_times = 0,
                int use_count = 0, bool auto_gc = true, unsigned int owner = 1000,
                std::string const& project = "p") {
  Json::Value app(Json::objectValue);
  app["name"] = "files";
  Entry entry;
  entry.set_hash(hash).set_project_name(project).set_owner_uid(owner).set_app(app);
  entry.set_expire_times(expire_times);  // before the count: a new limit resets it
  entry.set_expire_at(expire_at).set_use_count(use_count).set_auto_gc(auto_gc);
  return entry;
}

Session MakeSession(std::string const& sid) {
  Session session;
  session.set_session_id(sid).set_uid(1000).set_ip("192.0.2.7").set_timeout(time(nullptr) + 600);
  return session;
}

// The expiry test of both entry purges, at the second `now`.
std::string Expired(long now) {
  return " ((expire_at != 0 AND expire_at < " + std::to_string(now) +
         ") OR (expire_times != 0 AND use_count >= expire_times))";
}

// Texts that would break or widen a statement if they reached it unescaped.
std::vector<std::string> Hostile() {
  return {"'",
          "' OR '1'='1",
          "x' OR hash != 'x",
          "x' OR session_id != 'x",
          "'; DROP TABLE entry; --",
          std::string("a\0b", 3),
          ""};
}

// Repeats set-up and action until both ran within one second of the clock, so that a row
// placed exactly at "now" is judged against that same second. Returns that second.
long WithinOneSecond(std::function<void(long)> const& action) {
  for (int i = 0; i < 10; ++i) {
    long const now = static_cast<long>(time(nullptr));
    action(now);
    if (static_cast<long>(time(nullptr)) == now) return now;
  }
  ADD_FAILURE() << "the clock kept ticking during the action";
  return 0;
}

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(db_.IsGood());
    kovatest::ClearLogs();
  }

  // The text of `column` in every row of `sql`, in order.
  std::vector<std::string> Column(std::string const& sql, std::string const& column) {
    std::vector<std::string> out;
    db::Result result;
    EXPECT_TRUE(db_.Execute(sql, result)) << sql << ": " << db_.GetLastError();
    db::Row row;
    while (result.NextRow(row)) out.push_back(row.GetField(column).AsString(""));
    return out;
  }
  // The values of `expr` over the rows of `table` that `where` leaves.
  std::set<std::string> Set(std::string const& table, std::string const& expr,
                            std::string const& where = "") {
    std::vector<std::string> const all =
        Column("SELECT " + expr + " AS v FROM " + table + where, "v");
    return std::set<std::string>(all.begin(), all.end());
  }
  int Rows(std::string const& table) { return static_cast<int>(Set(table, "id").size()); }
  void Exec(std::string const& sql) {
    ASSERT_TRUE(db_.Execute(sql)) << sql << ": " << db_.GetLastError();
  }
  // Writes a token row as it stands, expired or not; returns its id.
  std::string RawToken(int entry_id, int session_id, long timeout) {
    Exec("INSERT INTO token VALUES (NULL, " + std::to_string(entry_id) + ", " +
         std::to_string(session_id) + ", " + std::to_string(timeout) + ")");
    return Column("SELECT MAX(id) AS id FROM token", "id").at(0);
  }
  bool TokenOf(int session_id, int entry_id, Token& token) {
    Session session;
    Entry entry;
    return tokens_.GetBySessionEntry(session.set_id(session_id), entry.set_id(entry_id), token);
  }

  // The statement reaches its rows through an index (or the row id), never by a scan.
  void ExpectIndexed(std::string const& sql) {
    std::vector<std::string> const plan = Column("EXPLAIN QUERY PLAN " + sql, "detail");
    ASSERT_FALSE(plan.empty()) << sql;
    bool searched = false;
    for (std::string const& step : plan) {
      EXPECT_EQ(std::string::npos, step.find("SCAN")) << sql << "\n  plan step: " << step;
      if (step.rfind("SEARCH ", 0) == 0) searched = true;
    }
    EXPECT_TRUE(searched) << sql;
  }
  // Empties `table`, then records in table "attempt" every `column` offered to it and refuses
  // the first `failures` inserts; RAISE(FAIL), unlike ABORT, keeps what the trigger wrote.
  void RefuseInserts(std::string const& table, std::string const& column, int failures) {
    Exec("DROP TRIGGER IF EXISTS refuse");
    Exec("DROP TABLE IF EXISTS attempt");
    Exec("DELETE FROM " + table);
    Exec("CREATE TABLE attempt (n INTEGER PRIMARY KEY, v TEXT NOT NULL)");
    Exec("CREATE TRIGGER refuse BEFORE INSERT ON " + table +
         " BEGIN INSERT INTO attempt (v) VALUES (NEW." + column +
         "); SELECT RAISE(FAIL, 'refused') WHERE (SELECT COUNT(*) FROM attempt) <= " +
         std::to_string(failures) + "; END");
    kovatest::ClearLogs();
  }
  // Stores `a` and `b`, then reads, changes, counts, queries and deletes them through `store`,
  // checking each step in `table`; `change` sets `column` of a record to `changed`.
  template <class Store, class Record>
  void ExpectGenericOperations(Store& store, std::string const& table, Record a, Record b,
                               std::function<void(Record&)> change, std::string const& column,
                               std::string const& changed) {
    ASSERT_TRUE(store.Create(a));
    ASSERT_TRUE(store.Create(b));
    EXPECT_EQ(a.get_id() + 1, b.get_id());
    Record illegal;
    EXPECT_FALSE(store.Create(illegal));
    Record read;
    ASSERT_TRUE(store.GetById(b.get_id(), read));
    change(read);
    ASSERT_TRUE(store.Update(read));
    std::string const b_id = std::to_string(b.get_id());
    EXPECT_EQ(std::set<std::string>{changed}, Set(table, column, " WHERE id = " + b_id));
    int count = -1;
    store.GetCondition().Where("id", std::to_string(a.get_id()));
    ASSERT_TRUE(store.Count(count));
    EXPECT_EQ(1, count);
    std::vector<Record> found;
    store.GetCondition().Where("id", b_id);
    ASSERT_TRUE(store.Query(found));
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(b.get_id(), found[0].get_id());
    ASSERT_TRUE(store.Delete(a));
    EXPECT_EQ(std::set<std::string>{b_id}, Set(table, "id"));
    ASSERT_TRUE(store.Delete(b.get_id()));
    EXPECT_EQ(0, Rows(table));
  }

  kovatest::TempDir dir_;
  db::SharingDB db_{dir_.File("s.db")};
  db::EntryDB entries_{db_};
  db::SessionDB sessions_{db_};
  db::TokenDB tokens_{db_};
};

TEST_F(StoreTest, GenericOperationsReachTheirOwnTable) {
  long const later = time(nullptr) + 900;
  ExpectGenericOperations<db::EntryDB, Entry>(
      entries_, "entry", MakeEntry("a"), MakeEntry("b"),
      [](Entry& e) { e.set_project_name("renamed"); }, "project_name", "renamed");
  ExpectGenericOperations<db::SessionDB, Session>(
      sessions_, "session", MakeSession("a"), MakeSession("b"),
      [](Session& s) { s.set_ip("198.51.100.1"); }, "ip", "198.51.100.1");
  Token a, b;
  a.set_entry_id(1).set_session_id(1).set_timeout(later);
  b.set_entry_id(1).set_session_id(2).set_timeout(later);
  ExpectGenericOperations<db::TokenDB, Token>(
      tokens_, "token", a, b, [&](Token& t) { t.set_timeout(later + 1); }, "timeout",
      std::to_string(later + 1));
}

// Hashes grow by one character every third attempt from 9; session ids always have 32. A
// refused insert, for whatever cause, is retried: 51 attempts in all; the last key tried stays.
TEST_F(StoreTest, RandomKeysAreUniqueAndRetriedFiftyOneTimes) {
  std::string const alnum = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  struct Case {
    std::string table, column, pool;
    std::function<size_t(size_t)> length;  // of the key at an attempt counted from 0
    std::function<bool(std::string&, int&)> create;
  };
  std::vector<Case> const cases = {
      {"entry", "hash", alnum, [](size_t i) { return 9 + i / 3; },
       [&](std::string& key, int& id) {
         Entry entry = MakeEntry("");
         bool const ok = entries_.CreateWithHash(entry);
         key = entry.get_hash(), id = entry.get_id();
         return ok;
       }},
      {"session", "session_id", alnum + "-_", [](size_t) { return 32; },
       [&](std::string& key, int& id) {
         Session session = MakeSession("");
         bool const ok = sessions_.CreateWithSessionId(session);
         key = session.get_session_id(), id = session.get_id();
         return ok;
       }},
  };
  for (Case const& c : cases) {
    std::string const pair = "id || ' ' || " + c.column;
    std::set<std::string> rows;
    std::set<char> seen;
    std::string key;
    int id = 0;
    kovatest::ClearLogs();
    for (int i = 0; i < 300; ++i) {
      ASSERT_TRUE(c.create(key, id)) << db_.GetLastError();
      ASSERT_EQ(c.length(0), key.size()) << key;
      EXPECT_TRUE(rows.insert(std::to_string(id) + " " + key).second) << "drawn twice: " << key;
      seen.insert(key.begin(), key.end());
    }
    EXPECT_EQ(rows, Set(c.table, pair));
    EXPECT_EQ(std::set<char>(c.pool.begin(), c.pool.end()), seen) << "300 draws: the whole pool";
    EXPECT_FALSE(kovatest::LogContains("insert failed"));

    for (int failures : {1000, 4}) {
      RefuseInserts(c.table, c.column, failures);
      bool const created = failures < 51;
      EXPECT_EQ(created, c.create(key, id));
      std::vector<std::string> const tried = Column("SELECT v FROM attempt ORDER BY n", "v");
      ASSERT_EQ(std::min(failures + 1, 51), static_cast<int>(tried.size())) << c.table;
      for (size_t i = 0; i < tried.size(); ++i) {
        EXPECT_EQ(c.length(i), tried[i].size()) << c.table << " attempt " << i + 1;
        EXPECT_EQ(std::string::npos, tried[i].find_first_not_of(c.pool)) << tried[i];
      }
      EXPECT_EQ(tried.size(), std::set<std::string>(tried.begin(), tried.end()).size());
      EXPECT_EQ(tried.back(), key);
      EXPECT_EQ(
          created ? std::set<std::string>{std::to_string(id) + " " + key} : std::set<std::string>{},
          Set(c.table, pair));
      EXPECT_EQ(std::min(failures, 51), kovatest::LogCount("insert failed"));
    }
  }
}

TEST_F(StoreTest, EntryLookupsEscapeTheHashAndReadExpiredEntries) {
  Entry plain = MakeEntry("x");
  Entry quoted = MakeEntry("it's", time(nullptr) - 100, 2, 5);  // past both of its limits
  ASSERT_TRUE(entries_.Create(plain));
  ASSERT_TRUE(entries_.Create(quoted));
  Entry found;
  ASSERT_TRUE(entries_.GetByHash("it's", found));
  EXPECT_EQ("SELECT * FROM entry WHERE hash = 'it''s'", db_.GetLastQuery());
  EXPECT_EQ(quoted.get_id(), found.get_id());
  EXPECT_EQ(5, found.get_use_count());  // limits are the link's validity, not its legality
  for (std::string const& text : Hostile()) {
    Entry untouched = MakeEntry("sentinel");
    EXPECT_FALSE(entries_.GetByHash(text, untouched.set_id(77))) << text;
    EXPECT_EQ(77, untouched.get_id()) << text;
  }
  EXPECT_EQ("", db_.GetLastError());  // no statement failed
  Entry clash = MakeEntry("x");       // the unique hash is what the creation retry relies on
  EXPECT_FALSE(entries_.Create(clash));
  EXPECT_EQ(2, Rows("entry"));

  Token token;
  token.set_entry_id(plain.get_id()).set_session_id(quoted.get_id());
  ASSERT_TRUE(entries_.GetByToken(token, found));
  EXPECT_EQ("SELECT * FROM entry WHERE id = " + std::to_string(plain.get_id()), db_.GetLastQuery());
  EXPECT_EQ("x", found.get_hash());
  ASSERT_TRUE(entries_.Delete(plain));
  EXPECT_FALSE(entries_.GetByToken(token, found));
}

// Every deletion against one set of rows on both sides of each boundary: expire_at before and
// at this second, use_count below and at expire_times, auto_gc 0 and 1, owners and projects.
TEST_F(StoreTest, EntryDeletionsTakeExactlyTheRowsTheyName) {
  Entry gone = MakeEntry("gone", time(nullptr) - 5);
  ASSERT_TRUE(entries_.Create(gone));
  std::string const created = db_.GetLastQuery();
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(entries_.PurgeExpired(0.0f));
  EXPECT_TRUE(entries_.PurgeExpired(0.009f));  // below one percent never hits
  EXPECT_EQ(created, db_.GetLastQuery()) << "a purge that is not drawn ran a statement";

  unsigned int const big = 3000000000u;  // beyond a signed int: written unsigned
  struct Case {
    std::function<bool()> run;
    std::string where;  // after "DELETE FROM entry WHERE"
    bool expiry;        // followed by the expiry clause
    std::set<std::string> gone;
  };
  std::vector<Case> const cases = {
      {[&] { return entries_.PurgeExpired(1.0f); },
       " auto_gc = 1 AND ",
       true,
       {"a_q_used_up", "b_p_past"}},
      {[&] { return entries_.PurgeExpiredByOwnerProject(1000, "p"); },
       " owner_uid = 1000 AND project_name = 'p' AND",
       true,
       {"a_p_past_nogc"}},
      {[&] { return entries_.PurgeExpiredByOwnerProject(1000, ""); },
       " owner_uid = 1000 AND",
       true,
       {"a_p_past_nogc", "a_q_used_up"}},
      {[&] { return entries_.PurgeExpiredByOwnerProject(UID_ERR, "o'q"); },
       " project_name = 'o''q' AND",
       true,
       {"a_q_used_up", "b_q_used_up_nogc"}},
      {[&] { return entries_.PurgeExpiredByOwnerProject(UID_ERR, ""); },
       "",
       true,
       {"a_p_past_nogc", "a_q_used_up", "b_p_past", "b_q_used_up_nogc", "c_past_nogc"}},
      {[&] { return entries_.DeleteByOwnerUid(big); },
       " owner_uid = 3000000000",
       false,
       {"c_past_nogc", "c_unlimited"}},
  };
  for (Case const& c : cases) {
    std::set<std::string> kept;
    long const now = WithinOneSecond([&](long now) {
      Exec("DELETE FROM entry");
      std::vector<Entry> rows = {
          MakeEntry("a_p_past_nogc", now - 1, 0, 0, false, 1000, "p"),
          MakeEntry("a_p_live", now + 100, 3, 2, true, 1000, "p"),
          MakeEntry("a_q_used_up", 0, 2, 2, true, 1000, "o'q"),
          MakeEntry("a_q_now", now, 0, 0, true, 1000, "o'q"),
          MakeEntry("b_p_past", now - 1, 0, 0, true, 1001, "p"),
          MakeEntry("b_q_used_up_nogc", 0, 2, 2, false, 1001, "o'q"),
          MakeEntry("b_q_used_below", 0, 2, 1, true, 1001, "o'q"),
          MakeEntry("c_past_nogc", now - 50, 0, 0, false, big),
          MakeEntry("c_unlimited", 0, 0, 9, true, big),
      };
      for (Entry& entry : rows) {
        ASSERT_TRUE(entries_.Create(entry));
        if (!c.gone.count(entry.get_hash())) kept.insert(entry.get_hash());
      }
      ASSERT_TRUE(c.run());
    });
    EXPECT_EQ("DELETE FROM entry WHERE" + c.where + (c.expiry ? Expired(now) : ""),
              db_.GetLastQuery());
    EXPECT_EQ(kept, Set("entry", "hash")) << c.where;
  }
}

TEST_F(StoreTest, SessionLookupAndDeletionEscapeTheSessionId) {
  Session quoted = MakeSession("o'sid");
  Session plain = MakeSession("plain");
  ASSERT_TRUE(sessions_.Create(quoted));
  ASSERT_TRUE(sessions_.Create(plain));
  Session found;
  ASSERT_TRUE(sessions_.GetBySessionId("o'sid", found));
  EXPECT_EQ("SELECT * FROM session WHERE session_id = 'o''sid'", db_.GetLastQuery());
  EXPECT_EQ(quoted.get_id(), found.get_id());
  // Unknown and hostile ids find nothing, leave the session as it was and delete nothing.
  for (std::string const& text : Hostile()) {
    Session untouched = MakeSession("sentinel");
    EXPECT_FALSE(sessions_.GetBySessionId(text, untouched.set_id(77))) << text;
    EXPECT_EQ(77, untouched.get_id()) << text;
    EXPECT_EQ("sentinel", untouched.get_session_id()) << text;
    EXPECT_TRUE(sessions_.DeleteBySessionId(text)) << text;
    EXPECT_EQ(2, Rows("session")) << text;
  }
  EXPECT_EQ("", db_.GetLastError());     // no statement failed
  Session clash = MakeSession("plain");  // the unique id is what the creation retry relies on
  EXPECT_FALSE(sessions_.Create(clash));
  ASSERT_TRUE(sessions_.DeleteBySessionId("o'sid"));
  EXPECT_EQ("DELETE FROM session WHERE session_id = 'o''sid'", db_.GetLastQuery());
  EXPECT_EQ(std::set<std::string>{"plain"}, Set("session", "session_id"));

  // An expired row reads as absent, yet fills the session and stays until a purge.
  long const past = time(nullptr) - 30;
  Exec("INSERT INTO session VALUES (NULL, 'stale', 1000, '192.0.2.7', " + std::to_string(past) +
       ")");
  EXPECT_FALSE(sessions_.GetBySessionId("stale", found));
  EXPECT_EQ("stale", found.get_session_id());
  EXPECT_EQ(past, found.get_timeout());
  EXPECT_EQ(2, Rows("session"));
}

TEST_F(StoreTest, TokenLookupJoinsByRowIdsAndTakesTheFirstRow) {
  long const now = time(nullptr);
  RawToken(7, 13, now + 600);
  std::string const wanted = RawToken(7, 12, now + 600);
  RawToken(12, 7, now + 600);  // the same ids the other way round
  Token token;
  ASSERT_TRUE(TokenOf(12, 7, token));
  EXPECT_EQ("SELECT * FROM token WHERE session_id = 12 AND entry_id = 7", db_.GetLastQuery());
  EXPECT_EQ(wanted, std::to_string(token.get_id()));
  // A session or an entry that was never stored (row id 0) finds nothing.
  for (auto const& ids : std::vector<std::pair<int, int>>{{0, 7}, {12, 0}, {0, 0}}) {
    Token untouched;
    EXPECT_FALSE(TokenOf(ids.first, ids.second, untouched.set_id(55))) << ids.first << ids.second;
    EXPECT_EQ(55, untouched.get_id());
  }

  // Only the first row of a pair counts: an expired one hides a live one behind it...
  Exec("DELETE FROM token");
  std::string const expired = RawToken(7, 12, now - 10);
  std::string const live = RawToken(7, 12, now + 600);
  EXPECT_FALSE(TokenOf(12, 7, token));
  EXPECT_EQ(expired, std::to_string(token.get_id()));  // filled from the expired row
  EXPECT_EQ(now - 10, token.get_timeout());
  EXPECT_EQ(2, Rows("token"));
  // ... and a live one an expired one.
  Exec("DELETE FROM token WHERE id = " + expired);
  RawToken(7, 12, now - 10);
  EXPECT_TRUE(TokenOf(12, 7, token));
  EXPECT_EQ(live, std::to_string(token.get_id()));
}

TEST_F(StoreTest, TokenPurgesByEntryAndByTimeout) {
  long const now = time(nullptr);
  RawToken(7, 1, now + 100);
  RawToken(7, 2, now - 100);
  std::string const other = RawToken(8, 1, now + 200);
  Entry entry;
  ASSERT_TRUE(tokens_.PurgeByEntry(entry.set_id(7)));
  EXPECT_EQ("DELETE FROM token WHERE entry_id = 7", db_.GetLastQuery());
  EXPECT_EQ(std::set<std::string>{other}, Set("token", "id"));
  ASSERT_TRUE(tokens_.PurgeByEntry(entry.set_id(9)));  // no tokens: nothing to do
  EXPECT_EQ(1, Rows("token"));

  // Sessions and tokens both end before the current second; the time goes between quotes.
  struct Case {
    std::string table;
    std::function<bool(float)> purge;
    std::string insert;  // completed by the timeout and ")"
  };
  std::vector<Case> const cases = {
      {"session", [&](float p) { return sessions_.PurgeExpired(p); },
       "INSERT INTO session VALUES (NULL, hex(randomblob(8)), 1000, '192.0.2.7', "},
      {"token", [&](float p) { return tokens_.PurgeExpired(p); },
       "INSERT INTO token VALUES (NULL, 1, 1, "},
  };
  for (Case const& c : cases) {
    Exec(c.insert + std::to_string(now - 100) + ")");
    std::string const last = db_.GetLastQuery();
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(c.purge(0.0f));
    EXPECT_EQ(last, db_.GetLastQuery()) << "a purge that is not drawn ran a statement";
    long const second = WithinOneSecond([&](long now) {
      Exec("DELETE FROM " + c.table);
      for (long t : {now - 86400, now - 1, now, now + 1}) Exec(c.insert + std::to_string(t) + ")");
      ASSERT_TRUE(c.purge(1.0f));
    });
    EXPECT_EQ("DELETE FROM " + c.table + " WHERE timeout < '" + std::to_string(second) + "'",
              db_.GetLastQuery());
    EXPECT_EQ((std::set<std::string>{std::to_string(second), std::to_string(second + 1)}),
              Set(c.table, "timeout"));
  }
}

// A table scan on the visitor path would grow with every link and session ever made.
TEST_F(StoreTest, VisitorLookupsAndPurgesUseIndexes) {
  Entry entry;
  Session session;
  Token token;
  entry.set_id(3);
  session.set_id(4);
  token.set_entry_id(5);
  std::string const sid = "0123456789abcdefghijklmnopqrstuv";
  std::vector<std::function<void()>> const steps = {
      [&] { entries_.GetByHash("abcdefghi", entry); },
      [&] { entries_.GetByToken(token, entry); },
      [&] { sessions_.GetBySessionId(sid, session); },
      [&] { sessions_.DeleteBySessionId(sid); },
      [&] { tokens_.GetBySessionEntry(session, entry, token); },
      [&] { tokens_.PurgeByEntry(entry); },
      [&] { sessions_.PurgeExpired(1.0f); },
      [&] { tokens_.PurgeExpired(1.0f); },
      // An owner's clean-up narrows by owner (and project) first.
      [&] { entries_.DeleteByOwnerUid(1001); },
      [&] { entries_.PurgeExpiredByOwnerProject(1000, "p"); },
      [&] { entries_.PurgeExpiredByOwnerProject(1000, ""); },
  };
  std::set<std::string> statements;  // each taken from the connection right after the step
  for (auto const& step : steps) {
    step();
    ExpectIndexed(db_.GetLastQuery());
    statements.insert(db_.GetLastQuery());
  }
  EXPECT_EQ(steps.size(), statements.size()) << "a step ran no statement of its own";
  EXPECT_EQ("", db_.GetLastError());

  // The check can fail: a statement without a usable index is reported as a scan.
  std::vector<std::string> const plan =
      Column("EXPLAIN QUERY PLAN SELECT * FROM entry WHERE data = '{}'", "detail");
  ASSERT_FALSE(plan.empty());
  EXPECT_NE(std::string::npos, plan[0].find("SCAN")) << plan[0];
}

}  // namespace
