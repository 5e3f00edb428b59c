// The statements of the visitor path reach their rows through the schema's indexes: a table
// scan there would grow with every link and session ever made.
#include <json/value.h>

#include <ctime>
#include <string>

#include "kovasharing/entry.h"
#include "kovasharing/entry_db.h"
#include "kovasharing/session.h"
#include "kovasharing/session_db.h"
#include "kovasharing/token.h"
#include "kovasharing/token_db.h"
#include "store_test_util.h"

namespace {

using KOVA::sharing::db::EntryDB;
using KOVA::sharing::db::SessionDB;
using KOVA::sharing::db::TokenDB;
using KOVA::sharing::record::Entry;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;
using storetest::StoreTest;

class QueryPlanTest : public StoreTest {};

TEST_F(QueryPlanTest, StoreLookupsAndPurgesUseIndexes) {
  EntryDB entries(db_);
  SessionDB sessions(db_);
  TokenDB tokens(db_);
  long const now = time(nullptr);
  // Some rows, so that the plans are those of a table in use.
  Json::Value app(Json::objectValue);
  app["name"] = "files";
  for (int i = 0; i < 20; ++i) {
    Entry entry;
    entry.set_project_name("p").set_owner_uid(1000 + i % 3).set_app(app);
    ASSERT_TRUE(entries.CreateWithHash(entry));
    Session session;
    session.set_ip("192.0.2.1").set_uid(1000).set_timeout(now + 100 + i);
    ASSERT_TRUE(sessions.CreateWithSessionId(session));
    Token token;
    token.set_entry_id(entry.get_id()).set_session_id(session.get_id()).set_timeout(now + i + 1);
    ASSERT_TRUE(tokens.Create(token));
  }
  Entry entry;
  Session session;
  Token token;
  entry.set_id(3);
  session.set_id(4);

  // Each statement is taken from the connection right after the store ran it.
  entries.GetByHash("abcdefghi", entry);
  ExpectIndexed(db_.GetLastQuery());
  token.set_entry_id(5);
  entries.GetByToken(token, entry);
  ExpectIndexed(db_.GetLastQuery());
  sessions.GetBySessionId("0123456789abcdefghijklmnopqrstuv", session);
  ExpectIndexed(db_.GetLastQuery());
  ASSERT_TRUE(sessions.DeleteBySessionId("0123456789abcdefghijklmnopqrstuv"));
  ExpectIndexed(db_.GetLastQuery());
  tokens.GetBySessionEntry(session, entry, token);
  ExpectIndexed(db_.GetLastQuery());
  ASSERT_TRUE(tokens.PurgeByEntry(entry));
  ExpectIndexed(db_.GetLastQuery());
  ASSERT_TRUE(sessions.PurgeExpired(1.0f));
  EXPECT_EQ(0u, db_.GetLastQuery().find("DELETE FROM session WHERE timeout"));
  ExpectIndexed(db_.GetLastQuery());
  ASSERT_TRUE(tokens.PurgeExpired(1.0f));
  EXPECT_EQ(0u, db_.GetLastQuery().find("DELETE FROM token WHERE timeout"));
  ExpectIndexed(db_.GetLastQuery());
  // An owner's clean-up narrows by owner (and project) first.
  ASSERT_TRUE(entries.DeleteByOwnerUid(1001));
  ExpectIndexed(db_.GetLastQuery());
  ASSERT_TRUE(entries.PurgeExpiredByOwnerProject(1000, "p"));
  ExpectIndexed(db_.GetLastQuery());
  ASSERT_TRUE(entries.PurgeExpiredByOwnerProject(1000, ""));
  ExpectIndexed(db_.GetLastQuery());
  EXPECT_EQ("", db_.GetLastError());
}

// The check above can fail: a statement without a usable index is reported as a scan.
TEST_F(QueryPlanTest, AScanIsRecognised) {
  std::vector<std::string> const plan = Plan("SELECT * FROM entry WHERE data = '{}'");
  ASSERT_FALSE(plan.empty());
  EXPECT_NE(std::string::npos, plan[0].find("SCAN")) << plan[0];
}

}  // namespace
