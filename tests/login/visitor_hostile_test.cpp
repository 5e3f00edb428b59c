// What visitors may throw at the functions: absent fields, huge and binary texts, quotes,
// broken addresses and bodies; and stores that fail half-way through a login or a check. Each
// case gets its defined code and leaves the database whole.
#include <string>

#include "visitor_test_util.h"

using namespace visitortest;

TEST_F(VisitorTest, HostileFieldsGetTheirCodes) {
  std::string const open = MakeEntry();
  std::string const pass = PasswordEntry("pw");
  std::string const user = UserEntry({"alice"});
  std::string live, same;
  ASSERT_EQ(1, Login(live, open.c_str()));
  ASSERT_EQ(1, Login(same, user.c_str(), nullptr, "alice", "alice-secret", live.c_str()));
  std::string const before = Snapshot();
  std::string binary;
  for (int c = 1; c < 256; ++c) binary += static_cast<char>(c);
  for (std::string const& junk : {std::string("x' OR hash != 'x"), std::string("%s%n\r\n"), binary,
                                  std::string(1 << 20, 'h')}) {
    SCOPED_TRACE(junk.substr(0, 40));
    char const* j = junk.c_str();
    std::string out;
    // As the hash: no such link, no counted failure.
    EXPECT_EQ(-3, Login(out, j, j, j, j, j));
    EXPECT_EQ(-7, Check(j, live.c_str(), j, j));
    EXPECT_EQ(0, KovaSharingIncreaseUseCount(j));
    // As the password a wrong guess, as the account or its password a refused login.
    EXPECT_EQ(-9, Login(out, pass.c_str(), j));
    EXPECT_EQ(-2, Login(out, user.c_str(), nullptr, j, "alice-secret", nullptr, true));
    EXPECT_EQ(-2, Login(out, user.c_str(), nullptr, "alice", j, nullptr, true));
    EXPECT_EQ(3, kovatest::FailCount(kAddr));
    EXPECT_EQ(-2, Check(user.c_str(), live.c_str(), j, j));
    EXPECT_EQ(-5, Check(open.c_str(), j));             // as the session id: unknown
    ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(kAddr));  // keep the address from being blocked
    EXPECT_EQ(before, Snapshot());
  }
  // A junk session id at a login is ignored: a new session, the junk never stored.
  std::string out;
  EXPECT_EQ(1, Login(out, open.c_str(), nullptr, nullptr, nullptr, "' OR '1'='1"));
  EXPECT_EQ("0", Value("SELECT COUNT(*) AS v FROM session WHERE length(session_id) != 32"));
  EXPECT_EQ(2, Rows("session"));
  EXPECT_EQ("ok", Integrity());
}

TEST_F(VisitorTest, BrokenRequestsGetTheirCodes) {
  std::string const open = MakeEntry();
  std::string const user = UserEntry({"alice"});
  std::string sid;
  ASSERT_EQ(1, Login(sid, user.c_str(), nullptr, "alice", "alice-secret"));
  std::string const before = Snapshot();
  // A missing or malformed client address: -4 everywhere, nothing counted or written.
  std::string const huge(1 << 20, '9');
  for (char const* addr : {static_cast<char const*>(nullptr), "", "192.0.2.1' OR '1'='1",
                           "192.0.2.256", "fe80::1%lo", huge.c_str()}) {
    SCOPED_TRACE(addr ? std::string(addr).substr(0, 40) : "(unset)");
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
  request().Set("REMOTE_ADDR", kAddr);
  EXPECT_EQ(before, Snapshot());
  EXPECT_EQ(0, kovatest::FailCount(kAddr));

  // Bodies the request refuses: the account check cannot run (-3, counted; the check -2),
  // while a link without account protection never reads the request.
  struct {
    std::string text;
    long declared;
  } const bodies[] = {{"_sid=x", KOVA_CGI_MAX_BODY + 1},
                      {std::string(KOVA_CGI_MAX_BODY + 10, 'b'), -1},
                      {"_sid=x&more=1", 4096}};
  int counted = 0;
  for (auto const& body : bodies) {
    request().Post(body.text, body.declared);
    std::string out;
    EXPECT_EQ(-3, Login(out, user.c_str(), nullptr, "alice", "alice-secret"));
    EXPECT_EQ(++counted, kovatest::FailCount(kAddr));
    EXPECT_EQ(-2, Check(user.c_str(), sid.c_str()));
    EXPECT_EQ(1, Login(out, open.c_str(), nullptr, nullptr, nullptr, nullptr, true));
  }
  request().Post("_sid=fine");
  EXPECT_EQ(1, Check(user.c_str(), sid.c_str()));
  EXPECT_EQ("ok", Integrity());
}

TEST_F(VisitorTest, StoreFailuresAfterTheChecks) {
  auto refuse = [this](char const* name, char const* when) {
    Exec(std::string("CREATE TEMP TRIGGER ") + name + " " + when +
         " BEGIN SELECT RAISE(ABORT, 'refused'); END");
  };
  std::string const hash = MakeEntry();
  std::string sid;
  // The session cannot be written back: the token made for it is removed again, while the
  // use has been counted.
  refuse("t1", "BEFORE UPDATE ON session");
  EXPECT_EQ(-4, Login(sid, hash.c_str()));
  EXPECT_TRUE(sid.empty());
  EXPECT_EQ(0, Rows("token"));
  EXPECT_EQ(1, UseCount(hash));
  Exec("DROP TRIGGER t1");
  ASSERT_EQ(1, Login(sid, hash.c_str()));
  std::string const first = sid;

  // The token cannot be refreshed: it is deleted (a later check then fails safely).
  refuse("t2", "BEFORE UPDATE ON token");
  EXPECT_EQ(-4, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  EXPECT_EQ(0, Rows("token"));
  Exec("DROP TRIGGER t2");
  ASSERT_EQ(1, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));

  // A token that could not be stored has no row to remove, and the expired token read
  // before it is not mistaken for it.
  Exec("UPDATE token SET timeout = strftime('%s', 'now') - 10");
  std::string const expired = Value("SELECT id || '|' || timeout AS v FROM token");
  refuse("t3", "BEFORE INSERT ON token");
  EXPECT_EQ(-4, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  EXPECT_EQ(expired, Value("SELECT id || '|' || timeout AS v FROM token"));
  Exec("DROP TRIGGER t3");

  // The check: a token that cannot be extended.
  Exec("DELETE FROM token");
  ASSERT_EQ(1, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  refuse("t4", "BEFORE UPDATE ON token");
  EXPECT_EQ(-4, Check(hash.c_str(), first.c_str()));
  EXPECT_EQ(1, Logged("update token failed"));
  Exec("DROP TRIGGER t4");
  EXPECT_EQ("ok", Integrity());
}
