// The entry store against a real, migrated database file.
#include "kovasharing/entry_db.h"

#include <json/value.h>

#include <set>
#include <string>
#include <vector>

#include "kovasharing/condition.h"
#include "kovasharing/constants.h"
#include "kovasharing/entry.h"
#include "kovasharing/token.h"
#include "store_test_util.h"

namespace {

using KOVA::sharing::UID_ERR;
using KOVA::sharing::db::EntryDB;
using KOVA::sharing::record::Entry;
using KOVA::sharing::record::Token;
using storetest::StoreTest;

char const kAlnum[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

Entry LegalEntry(std::string const& hash, unsigned int owner = 1000,
                 std::string const& project = "p") {
  Json::Value app(Json::objectValue);
  app["name"] = "files";
  Entry entry;
  entry.set_hash(hash).set_project_name(project).set_owner_uid(owner).set_app(app);
  return entry;
}

// An entry with a time limit (0: none), a use limit and a count.
Entry Limited(std::string const& hash, long expire_at, int expire_times, int use_count,
              bool auto_gc, unsigned int owner = 1000, std::string const& project = "p") {
  Entry entry = LegalEntry(hash, owner, project);
  entry.set_expire_at(expire_at);
  entry.set_expire_times(expire_times);  // before the count: a new limit resets it
  entry.set_use_count(use_count);
  entry.set_auto_gc(auto_gc);
  return entry;
}

std::string Expired(long now) {
  return " ((expire_at != 0 AND expire_at < " + std::to_string(now) +
         ") OR (expire_times != 0 AND use_count >= expire_times))";
}

class EntryDBTest : public StoreTest {
 protected:
  std::set<std::string> Hashes() {
    std::vector<std::string> const all = Column("SELECT hash FROM entry", "hash");
    return std::set<std::string>(all.begin(), all.end());
  }
  // A trigger that records every hash offered to the table and refuses the first `failures`
  // inserts. RAISE(FAIL), unlike ABORT, keeps what the trigger wrote before it.
  void RefuseInserts(int failures) {
    Exec("CREATE TABLE attempt (n INTEGER PRIMARY KEY, hash TEXT NOT NULL)");
    Exec(
        "CREATE TRIGGER refuse BEFORE INSERT ON entry BEGIN "
        "INSERT INTO attempt (hash) VALUES (NEW.hash); "
        "SELECT RAISE(FAIL, 'refused') WHERE (SELECT COUNT(*) FROM attempt) <= " +
        std::to_string(failures) + "; END");
  }
};

TEST_F(EntryDBTest, GenericOperationsReachTheEntryTable) {
  EntryDB store(db_);
  Entry a = LegalEntry("hashA", 1000, "p");
  Entry b = LegalEntry("hashB", 1001, "q");
  ASSERT_TRUE(store.Create(a));
  ASSERT_TRUE(store.Create(b));
  EXPECT_GT(a.get_id(), 0);
  EXPECT_EQ(a.get_id() + 1, b.get_id());

  Entry illegal;  // no hash, project, owner or application
  EXPECT_FALSE(store.Create(illegal));
  EXPECT_EQ(0, illegal.get_id());
  Entry clash = LegalEntry("hashA");  // the unique hash is what the creation retry relies on
  EXPECT_FALSE(store.Create(clash));
  EXPECT_EQ(2, Rows("entry"));

  Entry read;
  ASSERT_TRUE(store.GetById(b.get_id(), read));
  EXPECT_EQ("hashB", read.get_hash());
  EXPECT_EQ(1001u, read.get_owner_uid());

  read.set_project_name("renamed");
  ASSERT_TRUE(store.Update(read));
  EXPECT_EQ(std::vector<std::string>{"renamed"},
            Column("SELECT project_name FROM entry WHERE hash = 'hashB'", "project_name"));

  int count = -1;
  store.GetCondition().Where("owner_uid", "1001");
  ASSERT_TRUE(store.Count(count));
  EXPECT_EQ(1, count);
  ASSERT_TRUE(store.Count(count));  // the condition was used up
  EXPECT_EQ(2, count);
  std::vector<Entry> found;
  store.GetCondition().Where("owner_uid", "1000");
  ASSERT_TRUE(store.Query(found));
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ("hashA", found[0].get_hash());

  ASSERT_TRUE(store.Delete(a));
  ASSERT_TRUE(store.Delete(b.get_id()));
  EXPECT_EQ("DELETE FROM entry WHERE id=" + std::to_string(b.get_id()), db_.GetLastQuery());
  EXPECT_EQ(0, Rows("entry"));
}

TEST_F(EntryDBTest, CreateWithHashDrawsUniqueAlphanumericHashes) {
  EntryDB store(db_);
  std::set<std::string> hashes;
  std::set<char> seen;
  for (int i = 0; i < 300; ++i) {
    Entry entry = LegalEntry("");
    ASSERT_TRUE(store.CreateWithHash(entry)) << db_.GetLastError();
    std::string const hash = entry.get_hash();
    ASSERT_EQ(9u, hash.size()) << hash;
    ASSERT_TRUE(storetest::AllIn(hash, kAlnum)) << hash;
    EXPECT_TRUE(hashes.insert(hash).second) << "drawn twice: " << hash;
    seen.insert(hash.begin(), hash.end());
    // The entry carries the id of the row that holds its hash.
    ASSERT_EQ(
        std::vector<std::string>{hash},
        Column("SELECT hash FROM entry WHERE id = " + std::to_string(entry.get_id()), "hash"));
  }
  EXPECT_EQ(hashes, Hashes());
  // 2700 draws from 62 characters: the whole pool shows up.
  EXPECT_EQ(62u, seen.size());
  EXPECT_FALSE(kovatest::LogContains("insert failed"));
}

TEST_F(EntryDBTest, CreateWithHashMakesFiftyOneAttemptsGrowingEveryThird) {
  RefuseInserts(1000);
  EntryDB store(db_);
  Entry entry = LegalEntry("");
  EXPECT_FALSE(store.CreateWithHash(entry));

  std::vector<std::string> const tried = Column("SELECT hash FROM attempt ORDER BY n", "hash");
  ASSERT_EQ(51u, tried.size());
  for (size_t i = 0; i < tried.size(); ++i) {
    EXPECT_EQ(9 + i / 3, tried[i].size()) << "attempt " << i + 1;
    EXPECT_TRUE(storetest::AllIn(tried[i], kAlnum)) << tried[i];
  }
  EXPECT_EQ(25u, tried.back().size());
  EXPECT_EQ(tried.back(), entry.get_hash());  // the last hash tried stays in the entry
  EXPECT_EQ(0, entry.get_id());
  EXPECT_EQ(0, Rows("entry"));
  EXPECT_EQ(51, kovatest::LogCount("insert failed"));
}

TEST_F(EntryDBTest, CreateWithHashKeepsTheFirstHashThatIsAccepted) {
  RefuseInserts(4);  // attempts 1 to 4 fail, the fifth (length 10) passes
  EntryDB store(db_);
  Entry entry = LegalEntry("");
  ASSERT_TRUE(store.CreateWithHash(entry));
  std::vector<std::string> const tried = Column("SELECT hash FROM attempt ORDER BY n", "hash");
  ASSERT_EQ(5u, tried.size());
  EXPECT_EQ(10u, entry.get_hash().size());
  EXPECT_EQ(tried.back(), entry.get_hash());
  EXPECT_EQ(std::set<std::string>{entry.get_hash()}, Hashes());
  EXPECT_EQ(std::vector<std::string>{std::to_string(entry.get_id())},
            Column("SELECT id FROM entry", "id"));
  EXPECT_EQ(4, kovatest::LogCount("insert failed"));
}

TEST_F(EntryDBTest, GetByHashEscapesTheHash) {
  EntryDB store(db_);
  Entry plain = LegalEntry("x");
  Entry quoted = LegalEntry("it's");
  ASSERT_TRUE(store.Create(plain));
  ASSERT_TRUE(store.Create(quoted));

  Entry found;
  ASSERT_TRUE(store.GetByHash("it's", found));
  EXPECT_EQ("SELECT * FROM entry WHERE hash = 'it''s'", db_.GetLastQuery());
  EXPECT_EQ(quoted.get_id(), found.get_id());
  ASSERT_TRUE(store.GetByHash("x", found));
  EXPECT_EQ(plain.get_id(), found.get_id());

  for (std::string const& text : storetest::HostileTexts()) {
    Entry untouched = LegalEntry("sentinel");
    untouched.set_id(77);
    EXPECT_FALSE(store.GetByHash(text, untouched)) << text;
    EXPECT_EQ(77, untouched.get_id()) << text;
    EXPECT_EQ("sentinel", untouched.get_hash()) << text;
  }
  EXPECT_EQ("", db_.GetLastError());  // no statement failed
  EXPECT_EQ(2, Rows("entry"));
}

TEST_F(EntryDBTest, GetByTokenFollowsTheTokensEntryId) {
  EntryDB store(db_);
  Entry entry = LegalEntry("linked");
  ASSERT_TRUE(store.Create(entry));
  Token token;
  token.set_entry_id(entry.get_id());
  token.set_session_id(3);
  token.set_timeout(time(nullptr) + 600);

  Entry found;
  ASSERT_TRUE(store.GetByToken(token, found));
  EXPECT_EQ("linked", found.get_hash());
  EXPECT_EQ("SELECT * FROM entry WHERE id = " + std::to_string(entry.get_id()), db_.GetLastQuery());

  ASSERT_TRUE(store.Delete(entry));
  Entry gone = LegalEntry("sentinel");
  EXPECT_FALSE(store.GetByToken(token, gone));
  EXPECT_EQ("sentinel", gone.get_hash());
  token.set_entry_id(0);
  EXPECT_FALSE(store.GetByToken(token, gone));
}

TEST_F(EntryDBTest, ExpiredEntriesStillReadBack) {
  // Time and use limits are the link's validity, not its legality: the store reads them.
  EntryDB store(db_);
  Entry old = Limited("old", time(nullptr) - 100, 2, 5, true);
  ASSERT_TRUE(store.Create(old));
  Entry read;
  ASSERT_TRUE(store.GetByHash("old", read));
  EXPECT_EQ(5, read.get_use_count());
}

TEST_F(EntryDBTest, PurgeExpiredHonoursBothLimitsAndAutoGc) {
  EntryDB store(db_);
  // One deletable row for the draws that never hit.
  long const t = time(nullptr);
  Entry e1 = Limited("gone", t - 5, 0, 0, true);
  ASSERT_TRUE(store.Create(e1));
  std::string const created = db_.GetLastQuery();
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(store.PurgeExpired(0.0f));
  EXPECT_TRUE(store.PurgeExpired(0.009f));  // below one percent never hits
  EXPECT_EQ(created, db_.GetLastQuery()) << "a purge that is not drawn ran a statement";
  EXPECT_EQ(1, Rows("entry"));

  long const now = storetest::WithinOneSecond([&](long now) {
    Exec("DELETE FROM entry");
    std::vector<Entry> rows = {
        Limited("time_past", now - 1, 0, 0, true),        // expired by time
        Limited("time_now", now, 0, 0, true),             // expires after this second
        Limited("time_past_kept", now - 1, 0, 0, false),  // no automatic collection
        Limited("used_up", 0, 2, 2, true),                // count reached the limit
        Limited("used_below", 0, 2, 1, true),             // one use left
        Limited("used_up_kept", 0, 2, 2, false),          // no automatic collection
        Limited("unlimited", 0, 0, 9, true),              // no limit at all
        Limited("future", now + 3600, 3, 2, true),        // both limits still ahead
    };
    for (Entry& entry : rows) ASSERT_TRUE(store.Create(entry));
    ASSERT_TRUE(store.PurgeExpired(1.0f));
  });
  EXPECT_EQ("DELETE FROM entry WHERE auto_gc = 1 AND " + Expired(now), db_.GetLastQuery());
  EXPECT_EQ((std::set<std::string>{"time_now", "time_past_kept", "used_below", "used_up_kept",
                                   "unlimited", "future"}),
            Hashes());
}

TEST_F(EntryDBTest, DeleteByOwnerUidTakesEveryEntryOfTheOwner) {
  EntryDB store(db_);
  unsigned int const big = 3000000000u;  // beyond a signed int: written unsigned
  std::vector<Entry> rows = {Limited("big_live", 0, 0, 0, true, big),
                             Limited("big_expired_kept", time(nullptr) - 10, 0, 0, false, big),
                             Limited("other", 0, 0, 0, true, 1000)};
  for (Entry& entry : rows) ASSERT_TRUE(store.Create(entry));
  ASSERT_TRUE(store.DeleteByOwnerUid(big));
  EXPECT_EQ("DELETE FROM entry WHERE owner_uid = 3000000000", db_.GetLastQuery());
  EXPECT_EQ(std::set<std::string>{"other"}, Hashes());
  ASSERT_TRUE(store.DeleteByOwnerUid(4242));  // nobody's entries: nothing to do
  EXPECT_EQ(1, Rows("entry"));
}

TEST_F(EntryDBTest, PurgeByOwnerAndProjectNarrowsByWhatIsGiven) {
  EntryDB store(db_);
  struct Case {
    unsigned int uid;
    std::string project;
    std::string where;  // what precedes the expiry clause
    std::set<std::string> gone;
  };
  std::vector<Case> const cases = {
      {1000, "p", " owner_uid = 1000 AND project_name = 'p' AND", {"a_p_past_nogc"}},
      {1000, "", " owner_uid = 1000 AND", {"a_p_past_nogc", "a_q_used_up"}},
      {UID_ERR, "o'q", " project_name = 'o''q' AND", {"a_q_used_up", "b_q_past_nogc"}},
      {UID_ERR, "", "", {"a_p_past_nogc", "a_q_used_up", "b_p_past", "b_q_past_nogc"}},
  };
  std::set<std::string> const all = {"a_p_past_nogc", "a_p_live",      "a_q_used_up",   "a_q_now",
                                     "b_p_past",      "b_q_past_nogc", "b_q_used_below"};
  for (Case const& c : cases) {
    long const now = storetest::WithinOneSecond([&](long now) {
      Exec("DELETE FROM entry");
      std::vector<Entry> rows = {
          Limited("a_p_past_nogc", now - 1, 0, 0, false, 1000, "p"),
          Limited("a_p_live", now + 100, 0, 0, true, 1000, "p"),
          Limited("a_q_used_up", 0, 2, 2, true, 1000, "o'q"),
          Limited("a_q_now", now, 0, 0, true, 1000, "o'q"),
          Limited("b_p_past", now - 1, 0, 0, true, 1001, "p"),
          Limited("b_q_past_nogc", now - 50, 0, 0, false, 1001, "o'q"),
          Limited("b_q_used_below", 0, 2, 1, true, 1001, "o'q"),
      };
      for (Entry& entry : rows) ASSERT_TRUE(store.Create(entry));
      ASSERT_TRUE(store.PurgeExpiredByOwnerProject(c.uid, c.project));
    });
    EXPECT_EQ("DELETE FROM entry WHERE" + c.where + Expired(now), db_.GetLastQuery());
    std::set<std::string> expected;
    for (std::string const& hash : all) {
      if (!c.gone.count(hash)) expected.insert(hash);
    }
    EXPECT_EQ(expected, Hashes()) << c.uid << " / " << c.project;
  }
}

}  // namespace
