// What visitors may throw at the functions: absent fields, huge and binary texts, quotes,
// broken addresses and bodies; and stores that fail half-way through a login or a check. Each
// case gets its defined code and leaves the database whole.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "visitor_test_util.h"

using namespace visitortest;

namespace {

// Texts that would break a statement, a cookie or a log line if they got through unchecked.
std::vector<std::string> Junk() {
  std::string binary;
  for (int c = 1; c < 256; ++c) binary += static_cast<char>(c);
  return {"'",
          "' OR '1'='1",
          "x' OR hash != 'x",
          "'; DROP TABLE entry; --",
          "\\'\"`",
          "%s%n%x",
          "a\r\nSet-Cookie: id=1",
          binary,
          std::string(1 << 20, 'h'),
          ""};
}

}  // namespace

TEST_F(VisitorTest, HostileFieldsGetTheirCodes) {
  std::string const open = MakeEntry();
  std::string const pass = MakeEntry([](Entry& e) {
    e.set_protect_type(Entry::PROTECT_PASSWORD);
    e.set_protect_password("pw", true, Entry::ENCRYPT_ALGO_DEFAULT);
  });
  std::string const user = MakeEntry([](Entry& e) {
    e.set_protect_type(Entry::PROTECT_USER);
    e.set_protect_users({"alice"});
  });
  std::string live, same;
  ASSERT_EQ(1, Login(live, open.c_str()));
  ASSERT_EQ(1, Login(same, user.c_str(), nullptr, "alice", "alice-secret", live.c_str()));
  ASSERT_EQ(live, same);
  std::string const before = Snapshot();

  for (std::string const& junk : Junk()) {
    SCOPED_TRACE(junk.substr(0, 40));
    char const* j = junk.c_str();
    std::string out;
    // As the hash: no such link, no counted failure, no row touched.
    EXPECT_EQ(-3, Login(out, j, j, j, j, j));
    EXPECT_EQ(-7, Check(j, live.c_str(), j, j));
    EXPECT_EQ(0, KovaSharingLogout(j, live.c_str()));
    EXPECT_EQ(0, KovaSharingIncreaseUseCount(j));
    // As the password: a wrong guess.
    EXPECT_EQ(-9, Login(out, pass.c_str(), j));
    // As the account name or its password: a refused account login.
    EXPECT_EQ(-2, Login(out, user.c_str(), nullptr, j, "alice-secret", nullptr, true));
    EXPECT_EQ(-2, Login(out, user.c_str(), nullptr, "alice", j, nullptr, true));
    EXPECT_EQ(3, kovatest::FailCount(kAddr));
    EXPECT_EQ(-2, Check(user.c_str(), live.c_str(), j, j));
    // As the session id: unknown, so the check refuses it and logout finds nothing.
    EXPECT_EQ(-5, Check(open.c_str(), j));
    EXPECT_EQ(0, KovaSharingLogout(open.c_str(), j));
    ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(kAddr));  // keep the address from being blocked
    EXPECT_EQ(before, Snapshot());
  }

  // A junk session id at a login is ignored: a new session, the junk never stored.
  for (std::string const& junk : {std::string("' OR '1'='1"), std::string(1 << 20, 's')}) {
    std::string out;
    EXPECT_EQ(1, Login(out, open.c_str(), nullptr, nullptr, nullptr, junk.c_str()));
    EXPECT_EQ(32u, out.size());
    EXPECT_NE(junk, out);
  }
  EXPECT_EQ("0", Value("SELECT COUNT(*) AS v FROM session WHERE length(session_id) != 32"));
  EXPECT_EQ(3, Rows("session"));
  EXPECT_EQ("ok", Integrity());
}

TEST_F(VisitorTest, BrokenRequestsGetTheirCodes) {
  std::string const open = MakeEntry();
  std::string const user = MakeEntry([](Entry& e) {
    e.set_protect_type(Entry::PROTECT_USER);
    e.set_protect_users({"alice"});
  });
  std::string sid;
  ASSERT_EQ(1, Login(sid, user.c_str(), nullptr, "alice", "alice-secret"));
  std::string const before = Snapshot();

  // A missing or malformed client address: -4 everywhere, nothing counted or written.
  char const* const bad_addresses[] = {
      nullptr,  "",           "192.0.2.1' OR '1'='1", "192.0.2.256",
      "::1::2", "fe80::1%lo", "192.0.2.1\n192.0.2.2"};
  for (char const* addr : bad_addresses) {
    SCOPED_TRACE(addr ? addr : "(unset)");
    if (addr) {
      request().Set("REMOTE_ADDR", addr);
    } else {
      request().Unset("REMOTE_ADDR");
    }
    std::string out;
    EXPECT_EQ(-4, Login(out, open.c_str()));
    EXPECT_EQ(-4, Login(out, user.c_str(), nullptr, "alice", "alice-secret"));
    EXPECT_EQ(-4, Check(user.c_str(), sid.c_str()));
  }
  request().Set("REMOTE_ADDR", std::string(1 << 20, '9'));
  EXPECT_EQ(-4, Login(sid, open.c_str()));
  request().Set("REMOTE_ADDR", kAddr);
  EXPECT_EQ(before, Snapshot());
  EXPECT_EQ(0, kovatest::FailCount(kAddr));

  // Bodies the request refuses: the account check cannot run.
  std::string const good = Value("SELECT session_id AS v FROM session");
  struct Body {
    std::string text;
    long declared;
  } const bodies[] = {
      {"_sid=x", KOVA_CGI_MAX_BODY + 1},
      {std::string(KOVA_CGI_MAX_BODY + 10, 'b'), -1},
      {"_sid=x", 4096},
      {"_sid=x", 0x7fffffffL},
  };
  int counted = 0;
  for (auto const& body : bodies) {
    request().Post(body.text, body.declared);
    std::string out;
    EXPECT_EQ(-3, Login(out, user.c_str(), nullptr, "alice", "alice-secret"));
    ++counted;
    EXPECT_EQ(-2, Check(user.c_str(), good.c_str()));
    // A link without account protection never reads the request.
    EXPECT_EQ(1, Login(out, open.c_str(), nullptr, nullptr, nullptr, nullptr, true));
  }
  EXPECT_EQ(counted, kovatest::FailCount(kAddr));
  EXPECT_EQ("ok", Integrity());
}

TEST_F(VisitorTest, StoreFailuresAfterTheChecks) {
  std::string const hash = MakeEntry();
  std::string sid;

  // The session cannot be written back: the token made for it is removed again, while the
  // use has been counted.
  Exec(
      "CREATE TEMP TRIGGER no_session_update BEFORE UPDATE ON session "
      "BEGIN SELECT RAISE(ABORT, 'refused'); END");
  EXPECT_EQ(-4, Login(sid, hash.c_str()));
  EXPECT_TRUE(sid.empty());
  EXPECT_EQ(0, Rows("token"));
  EXPECT_EQ(1, UseCount(hash));
  Exec("DROP TRIGGER no_session_update");

  ASSERT_EQ(1, Login(sid, hash.c_str()));
  std::string const first = sid;
  ASSERT_EQ(1, Rows("token"));

  // The token cannot be refreshed: it is deleted (a visitor's later check then fails safely).
  Exec(
      "CREATE TEMP TRIGGER no_token_update BEFORE UPDATE ON token "
      "BEGIN SELECT RAISE(ABORT, 'refused'); END");
  EXPECT_EQ(-4, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  EXPECT_EQ(0, Rows("token"));
  Exec("DROP TRIGGER no_token_update");
  ASSERT_EQ(1, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  ASSERT_EQ(first, sid);

  // A token that could not be stored has no row to remove, and the expired token read
  // before it is not mistaken for it.
  Exec("UPDATE token SET timeout = strftime('%s', 'now') - 10");
  std::string const expired = Value("SELECT id || '|' || timeout AS v FROM token");
  Exec(
      "CREATE TEMP TRIGGER no_token_insert BEFORE INSERT ON token "
      "BEGIN SELECT RAISE(ABORT, 'refused'); END");
  EXPECT_EQ(-4, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  EXPECT_EQ(expired, Value("SELECT id || '|' || timeout AS v FROM token"));
  Exec("DROP TRIGGER no_token_insert");

  // The check: a session that cannot be extended, then a token that cannot.
  Exec("DELETE FROM token");
  ASSERT_EQ(1, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  Exec("UPDATE session SET timeout = strftime('%s', 'now') + 50");
  Exec("UPDATE token SET timeout = strftime('%s', 'now') + 50");
  Exec(
      "CREATE TEMP TRIGGER no_session_update BEFORE UPDATE ON session "
      "BEGIN SELECT RAISE(ABORT, 'refused'); END");
  kovatest::ClearLogs();
  EXPECT_EQ(-4, Check(hash.c_str(), first.c_str()));
  EXPECT_TRUE(kovatest::LogContains("update session failed"));
  Exec("DROP TRIGGER no_session_update");
  Exec(
      "CREATE TEMP TRIGGER no_token_update BEFORE UPDATE ON token "
      "BEGIN SELECT RAISE(ABORT, 'refused'); END");
  EXPECT_EQ(-4, Check(hash.c_str(), first.c_str()));
  EXPECT_TRUE(kovatest::LogContains("update token failed"));
  Exec("DROP TRIGGER no_token_update");
  // The session was extended, the token not.
  ExpectOneDayAhead(std::stol(SessionField(first, "timeout")));
  EXPECT_GT(Number("SELECT timeout AS v FROM token"), time(nullptr) + 40);
  EXPECT_LT(Number("SELECT timeout AS v FROM token"), time(nullptr) + 60);
  EXPECT_EQ(1, Check(hash.c_str(), first.c_str()));
  EXPECT_EQ("ok", Integrity());
}
