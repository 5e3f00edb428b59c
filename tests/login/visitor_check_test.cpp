// Later requests of a visitor: the authorization check with its codes, address matching and
// extension by a day; logout; use counting; the plain-linkage forms and their buffers.
#include <cstring>
#include <stdexcept>
#include <string>

#include "visitor_test_util.h"

using namespace visitortest;

TEST_F(VisitorTest, AuthorizationCheckCodes) {
  std::string const hash = MakeEntry();
  std::string sid;
  ASSERT_EQ(1, Login(sid, hash.c_str()));
  Exec("UPDATE session SET timeout = strftime('%s', 'now') + 50");
  Exec("UPDATE token SET timeout = strftime('%s', 'now') + 50");
  // Authorised: session and token extended by a day.
  EXPECT_EQ(1, Check(hash.c_str(), sid.c_str()));
  ExpectOneDayAhead(std::stol(SessionField(sid, "timeout")));
  ExpectOneDayAhead(Number("SELECT timeout AS v FROM token"));
  EXPECT_EQ(0, Logged(".*"));

  // Missing parameters are an internal failure, also without the session id (not -5).
  EXPECT_EQ(-4, KovaSharingIsAuthorized(nullptr));
  EXPECT_EQ(-4, Check(hash.c_str(), nullptr));
  EXPECT_EQ(-4, Check(nullptr, sid.c_str()));
  request().Set("REMOTE_ADDR", "not an address");
  EXPECT_EQ(-4, Check(hash.c_str(), sid.c_str()));
  EXPECT_EQ(1, Logged("invalid ip"));
  request().Set("REMOTE_ADDR", kAddr);
  EXPECT_EQ(-5, Check(hash.c_str(), "no-such-session"));
  EXPECT_EQ(-7, Check(MakeEntry().c_str(), sid.c_str())) << "no token for that link";

  // Disabled after the login: -6 although session and token still live.
  Exec("UPDATE entry SET enabled = 0");
  EXPECT_EQ(-6, Check(hash.c_str(), sid.c_str()));
  EXPECT_EQ(1, Logged("entry is not valid"));
}

TEST_F(VisitorTest, AuthorizationCheckOfAUserLink) {
  std::string const hash = UserEntry({"alice", "bob"});
  std::string sid;
  ASSERT_EQ(1, Login(sid, hash.c_str(), nullptr, "alice", "alice-secret"));
  // Without a name the account that logged in is checked again; with one, it logs in again.
  EXPECT_EQ(1, Check(hash.c_str(), sid.c_str()));
  EXPECT_EQ(1, Check(hash.c_str(), sid.c_str(), "bob", "bob-secret"));
  EXPECT_EQ("1000", SessionField(sid, "uid")) << "the check does not change the session's account";
  EXPECT_EQ(-2, Check(hash.c_str(), sid.c_str(), "alice", "wrong"));
  EXPECT_EQ(-2, Check(hash.c_str(), sid.c_str(), "gus", "gus-secret"));
  EXPECT_EQ(2, Logged("user login error"));
  EXPECT_EQ(0, kovatest::FailCount(kAddr)) << "the check never counts failed logins";
  // A session whose account no longer exists does not pass.
  Exec("UPDATE session SET uid = 4242");
  EXPECT_EQ(-2, Check(hash.c_str(), sid.c_str()));
}

TEST_F(VisitorTest, AddressMatching) {
  std::string const strict = MakeEntry();  // matching is on by default
  std::string const loose = MakeEntry([](Entry& e) { e.set_enable_match_ip(false); });
  std::string sid, same;
  ASSERT_EQ(1, Login(sid, strict.c_str()));
  ASSERT_EQ(1, Login(same, loose.c_str(), nullptr, nullptr, nullptr, sid.c_str()));

  request().Set("REMOTE_ADDR", kOtherAddr);
  EXPECT_EQ(-8, Check(strict.c_str(), sid.c_str()));
  EXPECT_EQ(1, Logged("ip not match, 192\\.0\\.2\\.20, 192\\.0\\.2\\.10"));
  // Without matching the session is used from anywhere, and its address stays.
  EXPECT_EQ(1, Check(loose.c_str(), sid.c_str()));
  EXPECT_EQ(kAddr, SessionField(sid, "ip"));
  EXPECT_EQ(0, kovatest::FailCount(kOtherAddr));
  // Canonical texts are compared: a prefix is no match, IPv6 spelt otherwise is.
  request().Set("REMOTE_ADDR", "192.0.2.1");
  EXPECT_EQ(-8, Check(strict.c_str(), sid.c_str()));
  request().Set("REMOTE_ADDR", "2001:DB8::0:1");
  ASSERT_EQ(1, Login(same, strict.c_str(), nullptr, nullptr, nullptr, sid.c_str()));
  request().Set("REMOTE_ADDR", "2001:db8:0::1");
  EXPECT_EQ(1, Check(strict.c_str(), sid.c_str()));
  request().Set("REMOTE_ADDR", kAddr);
  EXPECT_EQ(-8, Check(strict.c_str(), sid.c_str()));
}

TEST_F(VisitorTest, LogoutAndUseCounting) {
  std::string const a = MakeEntry();
  std::string const b = MakeEntry();
  std::string sid, same;
  ASSERT_EQ(1, Login(sid, a.c_str()));
  ASSERT_EQ(1, Login(same, b.c_str(), nullptr, nullptr, nullptr, sid.c_str()));

  EXPECT_EQ(1, KOVA::KovaSharingLogout(a, sid));
  EXPECT_EQ(-7, Check(a.c_str(), sid.c_str()));
  EXPECT_EQ(1, Check(b.c_str(), sid.c_str())) << "the session is kept for other links";
  EXPECT_EQ(1, UseCount(a)) << "a logout is no use";
  EXPECT_EQ(0, KovaSharingLogout(a.c_str(), sid.c_str()));
  EXPECT_EQ(1, Logged("get token failed"));
  EXPECT_EQ(0, KovaSharingLogout("nosuchhash", sid.c_str()));
  EXPECT_EQ(0, KovaSharingLogout(b.c_str(), "no-such-session"));
  EXPECT_EQ(1, Logged("get session failed"));
  EXPECT_EQ(1, Logged("get entry failed")) << "an unknown session ends before the link";
  EXPECT_EQ(1, KovaSharingLogout(b.c_str(), sid.c_str()));
  EXPECT_EQ(0, Rows("token"));

  // Use counting raises by one per call, past any limit: the login compares, not the count.
  std::string const limited = MakeEntry([](Entry& e) { e.set_expire_times(2); });
  for (int i = 1; i <= 3; ++i) EXPECT_EQ(1, KovaSharingIncreaseUseCount(limited.c_str()));
  EXPECT_EQ(1, KOVA::KovaSharingIncreaseUseCount(limited));
  EXPECT_EQ(4, UseCount(limited));
  EXPECT_EQ(0, KovaSharingIncreaseUseCount("nosuchhash"));
  // The plain forms refuse null texts with their failure code: nothing is thrown across them.
  kovatest::ClearLogs();
  EXPECT_EQ(0, KovaSharingLogout(nullptr, sid.c_str()));
  EXPECT_EQ(0, KovaSharingIncreaseUseCount(nullptr));
  EXPECT_EQ(2, kovatest::LogCount("failed: basic_string::_M_construct null not valid"));
}

TEST_F(VisitorTest, PlainLoginBuffers) {
  std::string const hash = PasswordEntry("pw");
  _tag_sharing_login_params params = {hash.c_str(), "pw", nullptr, nullptr, nullptr};
  char buf[64];
  // Ten bytes: nine characters of the id and a terminator, nothing past the buffer.
  memset(buf, 'Z', sizeof buf);
  ASSERT_EQ(1, KovaSharingLogin(buf, 10, &params, 0));
  std::string const sid = Value("SELECT session_id AS v FROM session");
  EXPECT_EQ(sid.substr(0, 9) + '\0' + 'Z', std::string(buf, 11));
  // Thirty-three bytes: the whole id, ended by the last-byte write.
  memset(buf, 'Z', sizeof buf);
  params.session_id = sid.c_str();
  ASSERT_EQ(1, KovaSharingLogin(buf, 33, &params, 0));
  EXPECT_EQ(sid + '\0' + 'Z', std::string(buf, 34));
  // Sixty-four bytes: the id and no terminator right after it; only the last byte is 0.
  memset(buf, 'Z', sizeof buf);
  ASSERT_EQ(1, KovaSharingLogin(buf, 64, &params, 0));
  EXPECT_EQ(sid + std::string(31, 'Z') + '\0', std::string(buf, 64));
  // A failure writes only the last byte.
  params.password = "wrong";
  memset(buf, 'Z', sizeof buf);
  EXPECT_EQ(-9, KovaSharingLogin(buf, 33, &params, 1));
  EXPECT_EQ(std::string(32, 'Z') + '\0', std::string(buf, 33));
  EXPECT_EQ(-4, KovaSharingLogin(buf, 33, nullptr, 0));

  // quiet is true only as 1: 2 counts an outsider like 0 does, and clears on success.
  std::string const user = UserEntry({"alice"});
  _tag_sharing_login_params outsider = {user.c_str(), nullptr, "bob", "bob-secret", nullptr};
  int const before = kovatest::FailCount(kAddr);
  EXPECT_EQ(-10, KovaSharingLogin(buf, sizeof buf, &outsider, 1));
  EXPECT_EQ(before, kovatest::FailCount(kAddr));
  EXPECT_EQ(-10, KovaSharingLogin(buf, sizeof buf, &outsider, 2));
  EXPECT_EQ(before + 1, kovatest::FailCount(kAddr));
  params.password = "pw";
  EXPECT_EQ(1, KovaSharingLogin(buf, sizeof buf, &params, 2));
  EXPECT_EQ(0, kovatest::FailCount(kAddr));
}
