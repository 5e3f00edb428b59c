// Hostile input and stores failing half-way: each case gets its code, the database stays whole.
#include <string>

#include "visitor_test_util.h"

using namespace visitortest;

TEST_F(VisitorTest, HostileFieldsAndRequestsGetTheirCodes) {
  std::string const open = MakeLink();
  std::string const pass = PasswordLink("pw");
  std::string const user = UserEntry({"alice"});
  std::string live, same, out;
  ASSERT_EQ(KOVA_LOGIN_OK, Login(live, open.c_str()));
  ASSERT_EQ(KOVA_LOGIN_OK,
            Login(same, user.c_str(), nullptr, "alice", "alice-secret", live.c_str()));
  std::string const before = Snapshot();
  std::string binary;
  for (int c = 1; c < 256; ++c) binary += static_cast<char>(c);
  for (std::string const& junk : {std::string("x' OR hash != 'x"), std::string("%s%n\r\n"), binary,
                                  std::string(1 << 20, 'h')}) {
    SCOPED_TRACE(junk.substr(0, 40));
    char const* j = junk.c_str();
    // As the hash: no such link, no counted failure.
    EXPECT_EQ(KOVA_LOGIN_NO_LINK, Login(out, j, j, j, j, j));
    EXPECT_EQ(KOVA_CHECK_NO_ACCESS, Check(j, live.c_str(), j, j));
    EXPECT_EQ(0, KovaSharingIncreaseUseCount(j));
    // As the password a wrong guess, as the account or its password a refused login.
    EXPECT_EQ(KOVA_LOGIN_WRONG_PASSWORD, Login(out, pass.c_str(), j));
    EXPECT_EQ(KOVA_LOGIN_ACCOUNT_REFUSED,
              Login(out, user.c_str(), nullptr, j, "alice-secret", nullptr, true));
    EXPECT_EQ(KOVA_LOGIN_ACCOUNT_REFUSED,
              Login(out, user.c_str(), nullptr, "alice", j, nullptr, true));
    EXPECT_EQ(3, kovatest::FailCount(kAddr));
    EXPECT_EQ(KOVA_CHECK_ACCOUNT_REFUSED, Check(user.c_str(), live.c_str(), j, j));
    EXPECT_EQ(KOVA_CHECK_NO_SESSION, Check(open.c_str(), j));  // as the session id: unknown
    ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(kAddr));
    EXPECT_EQ(before, Snapshot());
  }
  // A missing or malformed client address: -4 before the link is used, nothing counted.
  std::string const huge(1 << 20, '9');
  for (char const* addr : {"", "192.0.2.1' OR '1'='1", "192.0.2.256", "fe80::1%lo", huge.c_str(),
                           static_cast<char const*>(nullptr)}) {
    SCOPED_TRACE(addr ? std::string(addr).substr(0, 40) : "(unset)");
    addr ? setenv("REMOTE_ADDR", addr, 1) : unsetenv("REMOTE_ADDR");
    EXPECT_EQ(KOVA_LOGIN_INTERNAL, Login(out, open.c_str()));
    EXPECT_EQ(KOVA_LOGIN_INTERNAL, Login(out, user.c_str(), nullptr, "alice", "alice-secret"));
    EXPECT_EQ(KOVA_CHECK_INTERNAL, Check(user.c_str(), live.c_str()));
  }
  setenv("REMOTE_ADDR", kAddr, 1);
  EXPECT_EQ(before, Snapshot());
  EXPECT_EQ(0, kovatest::FailCount(kAddr));

  // Bodies the request refuses (too long, or shorter than announced): the account check
  // cannot run (-3, counted; the check -2), while a link without account protection never
  // reads the request.
  for (long declared : {static_cast<long>(KOVA_CGI_MAX_BODY) + 1, 4096L}) {
    request_.Post("_sid=x", declared);
    EXPECT_EQ(KOVA_LOGIN_NO_LINK, Login(out, user.c_str(), nullptr, "alice", "alice-secret"));
    EXPECT_EQ(KOVA_CHECK_ACCOUNT_REFUSED, Check(user.c_str(), live.c_str()));
    EXPECT_EQ(KOVA_LOGIN_OK,
              Login(out, open.c_str(), nullptr, nullptr, nullptr, live.c_str(), true));
  }
  EXPECT_EQ(2, kovatest::FailCount(kAddr));
  request_.Post("_sid=fine", 9);
  EXPECT_EQ(KOVA_CHECK_OK, Check(user.c_str(), live.c_str()));
  // A junk session id at a login is ignored: a new session, the junk never stored.
  EXPECT_EQ(KOVA_LOGIN_OK, Login(out, open.c_str(), nullptr, nullptr, nullptr, "' OR '1'='1"));
  EXPECT_EQ("0", Value("SELECT COUNT(*) AS v FROM session WHERE length(session_id) != 32"));
  EXPECT_EQ(2, Rows("session"));
  EXPECT_EQ("ok", Integrity());
}

// A token write refused after the checks: the failed login leaves the expired token as it was.
TEST_F(VisitorTest, StoreFailuresAfterTheChecks) {
  std::string const hash = MakeLink();
  std::string first, sid;
  ASSERT_EQ(KOVA_LOGIN_OK, Login(first, hash.c_str()));
  Exec("UPDATE token SET timeout = strftime('%s', 'now') - 10");
  std::string const expired = Value("SELECT id || '|' || timeout AS v FROM token");
  Exec("CREATE TEMP TRIGGER refuse BEFORE INSERT ON token BEGIN SELECT RAISE(ABORT, 'no'); END");
  EXPECT_EQ(KOVA_LOGIN_INTERNAL,
            Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  Exec("DROP TRIGGER refuse");
  EXPECT_EQ(expired, Value("SELECT id || '|' || timeout AS v FROM token"));
  EXPECT_EQ("ok", Integrity());
}
