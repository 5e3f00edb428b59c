// Logins and later checks: codes, counted failures, blocking, rows, logout and use counting.
#include <pwd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "visitor_test_util.h"

using namespace visitortest;
using kovatest::FailCount;

TEST_F(VisitorTest, LoginCodesAndCountedFailures) {
  std::string sid = "untouched";
  EXPECT_EQ(KOVA_LOGIN_INTERNAL, KOVA::KovaSharingLogin(sid, nullptr, false));
  EXPECT_EQ("untouched", sid);
  EXPECT_EQ(KOVA_LOGIN_INTERNAL, Login(sid, nullptr));
  std::string const pass = PasswordLink("s3cret");
  std::string const md5 = PasswordLink("md5-pw", Entry::ENCRYPT_ALGO_MD5);
  std::string const user = UserEntry({"bob"}, {"editors"});  // editors: alice, Dave, carol
  std::string const primary = UserEntry({}, {"users"});      // gus's primary group
  struct {
    std::string hash;
    char const *password, *user, *user_password;
    bool quiet;
    int code, failures;  // failures counted for the address so far
  } const cases[] = {
      // Unknown or invalid links: -3, no guess.
      {"nosuchhash", "s3cret", nullptr, nullptr, false, KOVA_LOGIN_NO_LINK, 0},
      {MakeLink([](Entry& e) { e.set_enabled(false); }), "x", nullptr, nullptr, false,
       KOVA_LOGIN_NO_LINK, 0},
      {MakeLink([](Entry& e) { e.set_start_at(time(nullptr) + 3600); }), "x", nullptr, nullptr,
       false, -3, 0},
      {MakeLink([](Entry& e) { e.set_expire_at(time(nullptr) - 2); }), "x", nullptr, nullptr, false,
       -3, 0},
      // Passwords: none at all (-3) and wrong ones (-9) are guesses; a quiet success keeps them.
      {pass, nullptr, nullptr, nullptr, false, KOVA_LOGIN_NO_LINK, 1},
      {pass, "S3CRET", nullptr, nullptr, false, KOVA_LOGIN_WRONG_PASSWORD, 2},
      {md5, "s3cret", nullptr, nullptr, false, KOVA_LOGIN_WRONG_PASSWORD, 3},
      {pass, "s3cret", nullptr, nullptr, true, KOVA_LOGIN_OK, 3},
      // Accounts: outside the link -10 (counted unless quiet), a refused account login -2
      // (counted even quiet; erin may not use this service), no account name -3.
      {user, nullptr, "gus", "gus-secret", true, KOVA_LOGIN_NOT_ADMITTED, 3},
      {user, nullptr, "gus", "gus-secret", false, KOVA_LOGIN_NOT_ADMITTED, 4},
      {user, nullptr, "alice", "wrong", true, KOVA_LOGIN_ACCOUNT_REFUSED, 5},
      {user, nullptr, "erin", "erin-secret", false, KOVA_LOGIN_ACCOUNT_REFUSED, 6},
      {user, "alice-secret", nullptr, "alice-secret", false, KOVA_LOGIN_NO_LINK, 7},
      {user, nullptr, "alice", "alice-secret", true, KOVA_LOGIN_OK, 7},
      {user, nullptr, "Dave", "dave-secret", true, KOVA_LOGIN_OK, 7},
      {primary, nullptr, "gus", "gus-secret", true, KOVA_LOGIN_OK, 7},
      {md5, "md5-pw", nullptr, nullptr, false, KOVA_LOGIN_OK,
       0},  // a plain success clears the count
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(std::to_string(&c - cases) + ": " + c.hash);
    EXPECT_EQ(c.code,
              Login(sid, c.hash.c_str(), c.password, c.user, c.user_password, nullptr, c.quiet));
    EXPECT_EQ(c.failures, FailCount(kAddr));
    EXPECT_EQ(c.code == 1 ? 32u : 0u, sid.size());
    if (c.code == 1 && c.user) {
      EXPECT_EQ(std::to_string(getpwnam(c.user)->pw_uid), SessionField(sid, "uid"));
    }
  }
  EXPECT_EQ(2, UseCount(user)) << "a refused visitor uses nothing";
  EXPECT_EQ(10, Rows("session") + Rows("token"));
  for (auto const& line : kovatest::LogTexts()) EXPECT_EQ(std::string::npos, line.find("secret"));

  // Use limit 3 at count 2: the third use passes, then -11 before the password is looked at.
  Exec("UPDATE entry SET expire_times = 3, use_count = 2 WHERE hash = '" + pass + "'");
  EXPECT_EQ(KOVA_LOGIN_OK, Login(sid, pass.c_str(), "s3cret"));
  EXPECT_EQ(KOVA_LOGIN_USED_UP, Login(sid, pass.c_str(), "wrong"));
  EXPECT_EQ(3, UseCount(pass));
  EXPECT_EQ(0, FailCount(kAddr));

  // The front end's session id travels as "_sid" and must be usable as a cookie.
  setenv("QUERY_STRING", "_sid=a%3Bb%0D%0ASet-Cookie:%20x=y", 1);
  EXPECT_EQ(KOVA_LOGIN_NO_LINK, Login(sid, user.c_str(), nullptr, "alice", "alice-secret"));
  EXPECT_EQ(1, FailCount(kAddr));
  setenv("QUERY_STRING", "_sid=", 1);  // empty: no cookie is set
  EXPECT_EQ(KOVA_LOGIN_OK,
            Login(sid, user.c_str(), nullptr, "alice", "alice-secret", nullptr, true));
}

TEST_F(VisitorTest, BlockedAddressIsRefusedFirst) {
  std::string const hash = PasswordLink("s3cret");
  std::string sid;
  // Five failures counted by another process (another CGI request), five by this one.
  ASSERT_EQ(0, kovatest::InChild([] {
              int failed = 0;
              for (int i = 0; i < 5; ++i) failed += AutoBlockFailLoginSet(kAddr, "SHARING") != 0;
              return failed;
            }));
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(KOVA_LOGIN_WRONG_PASSWORD, Login(sid, hash.c_str(), "wrong"));
  kovatest::ClearLogs();
  std::string const before = Snapshot();
  EXPECT_EQ(KOVA_LOGIN_BLOCKED,
            Login(sid, hash.c_str(), "s3cret"));            // the eleventh attempt, right or not
  EXPECT_EQ(KOVA_LOGIN_BLOCKED, Login(sid, "nosuchhash"));  // before the link is looked at
  EXPECT_EQ(10, FailCount(kAddr)) << "a refused address is not counted again";
  EXPECT_EQ(before, Snapshot());
  EXPECT_EQ(2, Logged("KovaAutoBlockIsDeniedIP 192\\.0\\.2\\.10"));
  // Another address still gets in; its success does not clear the blocked one.
  setenv("REMOTE_ADDR", kOtherAddr, 1);
  EXPECT_EQ(KOVA_LOGIN_OK, Login(sid, hash.c_str(), "s3cret"));
  setenv("REMOTE_ADDR", kAddr, 1);
  EXPECT_EQ(KOVA_LOGIN_BLOCKED, Login(sid, hash.c_str(), "s3cret"));
}

// A known session id reuses session and token for a day more; an unknown or expired one not.
TEST_F(VisitorTest, SessionIdAtALogin) {
  std::string const hash = MakeLink();
  std::string const user = UserEntry({"alice"});
  std::string first, sid, fresh;
  ASSERT_EQ(KOVA_LOGIN_OK, Login(first, user.c_str(), nullptr, "alice", "alice-secret"));
  Exec("UPDATE session SET timeout = strftime('%s', 'now') + 100");
  Exec("UPDATE token SET timeout = strftime('%s', 'now') + 100");
  std::string const token_id = Value("SELECT id AS v FROM token");
  setenv("REMOTE_ADDR", kOtherAddr, 1);  // the address follows the visitor
  ASSERT_EQ(KOVA_LOGIN_OK,
            Login(sid, user.c_str(), nullptr, "alice", "alice-secret", first.c_str()));
  EXPECT_EQ(first, sid);
  EXPECT_EQ(token_id, Value("SELECT id AS v FROM token"));
  EXPECT_EQ(kOtherAddr, SessionField(first, "ip"));
  ExpectOneDayAhead(std::stol(SessionField(first, "timeout")));
  ExpectOneDayAhead(Number("SELECT timeout AS v FROM token"));
  // At another link: a second token, no second session. An unknown id: a new session.
  ASSERT_EQ(KOVA_LOGIN_OK, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  EXPECT_EQ(first, sid);
  EXPECT_EQ(3, Rows("session") + Rows("token"));
  ASSERT_EQ(KOVA_LOGIN_OK,
            Login(fresh, hash.c_str(), nullptr, nullptr, nullptr, "no-such-session"));
  EXPECT_NE(first, fresh);

  // alice's session expired: it stays untouched until a purge, and nothing of it (her account,
  // its address) passes into the new session a login with its id gets.
  std::string const of_first = " WHERE session_id = '" + first + "'";
  std::string const row = "SELECT id || uid || ip || timeout AS v FROM session" + of_first;
  Exec("UPDATE session SET timeout = strftime('%s', 'now') - 10, ip = '203.0.113.99'" + of_first);
  std::string const old_row = Value(row);
  ASSERT_EQ(KOVA_LOGIN_OK, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  EXPECT_NE(first, sid);
  EXPECT_EQ(old_row, Value(row));
  EXPECT_EQ(SessionField(fresh, "uid"), SessionField(sid, "uid"));
  EXPECT_EQ(kOtherAddr, SessionField(sid, "ip"));
  EXPECT_EQ(KOVA_CHECK_NO_SESSION, Check(hash.c_str(), first.c_str()));
}

TEST_F(VisitorTest, AuthorizationCheckCodes) {
  std::string const hash = MakeLink();
  std::string const user = UserEntry({"alice", "bob"});
  std::string const loose = MakeLink([](Entry& e) { e.set_enable_match_ip(false); });
  std::string sid, same;
  ASSERT_EQ(KOVA_LOGIN_OK, Login(sid, hash.c_str()));
  ASSERT_EQ(KOVA_LOGIN_OK,
            Login(same, user.c_str(), nullptr, "alice", "alice-secret", sid.c_str()));
  ASSERT_EQ(KOVA_LOGIN_OK, Login(same, loose.c_str(), nullptr, nullptr, nullptr, sid.c_str()));
  Exec("UPDATE session SET timeout = strftime('%s', 'now') + 50");
  Exec("UPDATE token SET timeout = strftime('%s', 'now') + 50");
  EXPECT_EQ(KOVA_CHECK_OK,
            Check(hash.c_str(), sid.c_str()));  // extends the session and its token a day
  ExpectOneDayAhead(std::stol(SessionField(sid, "timeout")));
  ExpectOneDayAhead(Number("SELECT max(timeout) AS v FROM token"));
  // A user link checks the account that logged in again, or logs the one named in; a refusal
  // is -2, never a counted failure.
  EXPECT_EQ(KOVA_CHECK_OK, Check(user.c_str(), sid.c_str()));
  EXPECT_EQ(KOVA_CHECK_ACCOUNT_REFUSED, Check(user.c_str(), sid.c_str(), "gus", "gus-secret"));
  EXPECT_EQ(0, FailCount(kAddr));
  EXPECT_EQ(KOVA_CHECK_INTERNAL, Check(hash.c_str(), nullptr));  // not -5
  EXPECT_EQ(KOVA_CHECK_NO_SESSION, Check(hash.c_str(), "no-such-session"));
  EXPECT_EQ(KOVA_CHECK_NO_ACCESS, Check(MakeLink().c_str(), sid.c_str()))
      << "no token for that link";
  // The session's address: canonical texts compared, a prefix is no match; a link without
  // matching is used from anywhere, the session's address kept.
  for (char const* addr : {"not an address", kOtherAddr, "192.0.2.1", "2001:db8::1"}) {
    setenv("REMOTE_ADDR", addr, 1);
    EXPECT_EQ(addr[0] == 'n' ? -4 : -8, Check(hash.c_str(), sid.c_str())) << addr;
    EXPECT_EQ(addr[0] == 'n' ? -4 : 1, Check(loose.c_str(), sid.c_str())) << addr;
  }
  EXPECT_EQ(1, Logged("ip not match, 192\\.0\\.2\\.20, 192\\.0\\.2\\.10"));
  EXPECT_EQ(kAddr, SessionField(sid, "ip"));
  ASSERT_EQ(KOVA_LOGIN_OK, Login(same, hash.c_str(), nullptr, nullptr, nullptr, sid.c_str()));
  setenv("REMOTE_ADDR", "2001:DB8:0::0:1", 1);
  EXPECT_EQ(KOVA_CHECK_OK, Check(hash.c_str(), sid.c_str()));
  // A session whose account no longer exists; a link disabled after the login.
  Exec("UPDATE session SET uid = 4242");
  EXPECT_EQ(KOVA_CHECK_ACCOUNT_REFUSED, Check(user.c_str(), sid.c_str()));
  Exec("UPDATE entry SET enabled = 0");
  EXPECT_EQ(KOVA_CHECK_LINK_INVALID, Check(hash.c_str(), sid.c_str()));
}

// Logout, use counting and the plain-linkage forms: their buffers, null texts and quiet flag.
TEST_F(VisitorTest, LogoutUseCountAndPlainForms) {
  std::string const a = PasswordLink("pw");
  std::string const b = MakeLink([](Entry& e) { e.set_expire_times(1); });
  _tag_sharing_login_params params = {a.c_str(), "pw", nullptr, nullptr, nullptr};
  char buf[64];
  // At most the id's first size-1 bytes, and no terminator after a shorter id: only the last
  // byte of the buffer is set to 0. A failure writes only that byte.
  std::string sid, same;
  for (auto const& [size, password] :
       {std::pair<unsigned, char const*>{10, "pw"}, {33, "pw"}, {64, "pw"}, {33, "wrong"}}) {
    memset(buf, 'Z', sizeof buf);
    params.password = password;
    bool const right = password[0] == 'p';
    ASSERT_EQ(right ? 1 : -9, KovaSharingLogin(buf, size, &params, 0));
    if (sid.empty()) sid = Value("SELECT session_id AS v FROM session");
    params.session_id = sid.c_str();
    std::string want(sizeof buf, 'Z');
    if (right) want.replace(0, std::min(32u, size), sid, 0, size);
    want[size - 1] = '\0';
    EXPECT_EQ(want, std::string(buf, sizeof buf)) << size;
  }
  // quiet is true only as 1: 2 counts an outsider like 0 does (the wrong password counted 1).
  std::string const user = UserEntry({"alice"});
  _tag_sharing_login_params outsider = {user.c_str(), nullptr, "bob", "bob-secret", nullptr};
  EXPECT_EQ(KOVA_LOGIN_NOT_ADMITTED, KovaSharingLogin(buf, sizeof buf, &outsider, 1));
  EXPECT_EQ(1, FailCount(kAddr));
  EXPECT_EQ(KOVA_LOGIN_NOT_ADMITTED, KovaSharingLogin(buf, sizeof buf, &outsider, 2));
  EXPECT_EQ(2, FailCount(kAddr));

  ASSERT_EQ(KOVA_LOGIN_OK, Login(same, b.c_str(), nullptr, nullptr, nullptr, sid.c_str()));
  EXPECT_EQ(1, KOVA::KovaSharingLogout(a, sid));
  EXPECT_EQ(KOVA_CHECK_NO_ACCESS, Check(a.c_str(), sid.c_str()));
  EXPECT_EQ(KOVA_CHECK_OK, Check(b.c_str(), sid.c_str())) << "the session is kept for other links";
  EXPECT_EQ(0, KovaSharingLogout(a.c_str(), sid.c_str()));
  EXPECT_EQ(1, Logged("get token failed"));
  // Use counting raises by one per call, past any limit: the login compares, not the count.
  for (int i = 0; i < 2; ++i) EXPECT_EQ(1, KovaSharingIncreaseUseCount(b.c_str()));
  EXPECT_EQ(3, UseCount(b));
  EXPECT_EQ(0, KOVA::KovaSharingIncreaseUseCount("nosuchhash"));
  // The plain forms refuse null texts with their failure code: nothing is thrown across them.
  EXPECT_EQ(0, KovaSharingLogout(nullptr, sid.c_str()));
  EXPECT_EQ(0, KovaSharingIncreaseUseCount(nullptr));
  EXPECT_EQ(2, kovatest::LogCount("failed: basic_string::_M_construct null not valid"));
}
