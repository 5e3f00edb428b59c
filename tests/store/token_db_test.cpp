// The token store against a real, migrated database file.
#include "kovasharing/token_db.h"

#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "kovasharing/condition.h"
#include "kovasharing/entry.h"
#include "kovasharing/session.h"
#include "kovasharing/token.h"
#include "store_test_util.h"

namespace {

using KOVA::sharing::db::TokenDB;
using KOVA::sharing::record::Entry;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;
using storetest::StoreTest;

Token LiveToken(int entry_id, int session_id, long timeout = time(nullptr) + 86400) {
  Token token;
  token.set_entry_id(entry_id).set_session_id(session_id).set_timeout(timeout);
  return token;
}

Entry EntryWithId(int id) {
  Entry entry;
  entry.set_id(id);
  return entry;
}

Session SessionWithId(int id) {
  Session session;
  session.set_id(id);
  return session;
}

class TokenDBTest : public StoreTest {
 protected:
  // Writes a token row as it stands, expired or not.
  void RawToken(int entry_id, int session_id, long timeout) {
    Exec("INSERT INTO token VALUES (NULL,'" + std::to_string(entry_id) + "','" +
         std::to_string(session_id) + "','" + std::to_string(timeout) + "')");
  }
  std::vector<std::string> Timeouts() {
    return Column("SELECT timeout FROM token ORDER BY id", "timeout");
  }
};

TEST_F(TokenDBTest, GenericOperationsReachTheTokenTable) {
  TokenDB store(db_);
  Token a = LiveToken(7, 12);
  Token b = LiveToken(8, 12);
  ASSERT_TRUE(store.Create(a));
  ASSERT_TRUE(store.Create(b));
  EXPECT_EQ(a.get_id() + 1, b.get_id());
  Token illegal;  // no entry
  EXPECT_FALSE(store.Create(illegal));

  Token read;
  ASSERT_TRUE(store.GetById(b.get_id(), read));
  EXPECT_EQ(8, read.get_entry_id());
  read.set_timeout(read.get_timeout() + 60);
  ASSERT_TRUE(store.Update(read));
  EXPECT_EQ(
      std::vector<std::string>{std::to_string(read.get_timeout())},
      Column("SELECT timeout FROM token WHERE id = " + std::to_string(b.get_id()), "timeout"));

  int count = -1;
  store.GetCondition().Where("entry_id", "8");
  ASSERT_TRUE(store.Count(count));
  EXPECT_EQ(1, count);
  std::vector<Token> found;
  store.GetCondition().Where("entry_id", "7");
  ASSERT_TRUE(store.Query(found));
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(a.get_id(), found[0].get_id());

  ASSERT_TRUE(store.Delete(a));
  ASSERT_TRUE(store.Delete(b.get_id()));
  EXPECT_EQ(0, Rows("token"));
}

TEST_F(TokenDBTest, GetBySessionEntryJoinsByRowIds) {
  TokenDB store(db_);
  Token other_pair = LiveToken(7, 13);
  Token wanted = LiveToken(7, 12);
  ASSERT_TRUE(store.Create(other_pair));
  ASSERT_TRUE(store.Create(wanted));

  Token found;
  ASSERT_TRUE(store.GetBySessionEntry(SessionWithId(12), EntryWithId(7), found));
  EXPECT_EQ("SELECT * FROM token WHERE session_id = 12 AND entry_id = 7", db_.GetLastQuery());
  EXPECT_EQ(wanted.get_id(), found.get_id());

  // A session or an entry that was never stored (row id 0) finds nothing.
  for (auto const& ids : std::vector<std::pair<int, int>>{{0, 7}, {12, 0}, {0, 0}, {7, 12}}) {
    Token untouched = LiveToken(99, 98);
    untouched.set_id(55);
    EXPECT_FALSE(
        store.GetBySessionEntry(SessionWithId(ids.first), EntryWithId(ids.second), untouched))
        << ids.first << "," << ids.second;
    EXPECT_EQ(55, untouched.get_id());
    EXPECT_EQ(99, untouched.get_entry_id());
  }
}

TEST_F(TokenDBTest, OnlyTheFirstRowOfAPairCounts) {
  TokenDB store(db_);
  long const now = time(nullptr);
  RawToken(7, 12, now - 10);  // expired, not purged yet
  Token live = LiveToken(7, 12);
  ASSERT_TRUE(store.Create(live));

  Token token;
  EXPECT_FALSE(store.GetBySessionEntry(SessionWithId(12), EntryWithId(7), token));
  EXPECT_EQ(1, token.get_id());  // filled from the expired row
  EXPECT_EQ(now - 10, token.get_timeout());
  EXPECT_FALSE(store.GetById(1, token));
  int count = 0;
  ASSERT_TRUE(store.Count(count));
  EXPECT_EQ(2, count);  // the expired row stays until a purge

  // With the expired row gone the live one answers.
  ASSERT_TRUE(store.Delete(1));
  ASSERT_TRUE(store.GetBySessionEntry(SessionWithId(12), EntryWithId(7), token));
  EXPECT_EQ(live.get_id(), token.get_id());
  // And a live row that comes first hides an expired one behind it.
  RawToken(7, 12, now - 10);
  EXPECT_TRUE(store.GetBySessionEntry(SessionWithId(12), EntryWithId(7), token));
  EXPECT_EQ(live.get_id(), token.get_id());
}

TEST_F(TokenDBTest, PurgeByEntryTakesTheEntrysTokensOnly) {
  TokenDB store(db_);
  long const now = time(nullptr);
  RawToken(7, 1, now + 100);
  RawToken(7, 2, now - 100);
  RawToken(8, 1, now + 200);
  ASSERT_TRUE(store.PurgeByEntry(EntryWithId(7)));
  EXPECT_EQ("DELETE FROM token WHERE entry_id = 7", db_.GetLastQuery());
  EXPECT_EQ(std::vector<std::string>{std::to_string(now + 200)}, Timeouts());
  ASSERT_TRUE(store.PurgeByEntry(EntryWithId(9)));  // no tokens: nothing to do
  EXPECT_EQ(1, Rows("token"));
}

TEST_F(TokenDBTest, PurgeExpiredDeletesOnlyWhatEndedBeforeThisSecond) {
  TokenDB store(db_);
  RawToken(1, 1, time(nullptr) - 100);
  std::string const last = db_.GetLastQuery();
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(store.PurgeExpired(0.0f));
  EXPECT_EQ(last, db_.GetLastQuery()) << "a purge that is not drawn ran a statement";
  EXPECT_EQ(1, Rows("token"));

  long const now = storetest::WithinOneSecond([&](long now) {
    Exec("DELETE FROM token");
    RawToken(1, 1, now - 86400);
    RawToken(1, 2, now - 1);
    RawToken(1, 3, now);
    RawToken(1, 4, now + 1);
    ASSERT_TRUE(store.PurgeExpired(1.0f));
  });
  EXPECT_EQ("DELETE FROM token WHERE timeout < '" + std::to_string(now) + "'", db_.GetLastQuery());
  EXPECT_EQ((std::vector<std::string>{"3", "4"}),
            Column("SELECT session_id FROM token ORDER BY id", "session_id"));
}

}  // namespace
