// Later requests of a visitor: the authorization check with its codes, address matching and
// extension by a day; logout; use counting; the plain-linkage forms and their buffers.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>
#include <regex>
#include <stdexcept>
#include <string>

#include "visitor_test_util.h"

using namespace visitortest;

namespace {

int Logged(std::string const& tail) {
  std::regex const line("^sharinglogin:[0-9]+ " + tail + "$");
  int n = 0;
  for (auto const& log : kovatest::Logs()) {
    if (std::regex_match(log.text, line) && (log.priority & 7) == LOG_ERR) ++n;
  }
  return n;
}

int SharingLoginLines() {
  int n = 0;
  for (auto const& text : kovatest::LogTexts()) n += text.rfind("sharinglogin:", 0) == 0;
  return n;
}

}  // namespace

TEST_F(VisitorTest, AuthorizationCheckCodes) {
  std::string const hash = MakeEntry();
  std::string const other = MakeEntry();
  std::string sid;
  ASSERT_EQ(1, Login(sid, hash.c_str()));
  Exec("UPDATE session SET timeout = strftime('%s', 'now') + 50");
  Exec("UPDATE token SET timeout = strftime('%s', 'now') + 50");

  // Authorised: session and token extended by a day.
  EXPECT_EQ(1, Check(hash.c_str(), sid.c_str()));
  ExpectOneDayAhead(std::stol(SessionField(sid, "timeout")));
  ExpectOneDayAhead(Number("SELECT timeout AS v FROM token"));
  EXPECT_EQ(0, SharingLoginLines());

  // Missing parameters are an internal failure, also without the session id (not -5).
  EXPECT_EQ(-4, KOVA::KovaSharingIsAuthorized(nullptr));
  EXPECT_EQ(-4, KovaSharingIsAuthorized(nullptr));
  EXPECT_EQ(-4, Check(hash.c_str(), nullptr));
  EXPECT_EQ(-4, Check(nullptr, sid.c_str()));
  request().Unset("REMOTE_ADDR");
  EXPECT_EQ(-4, Check(hash.c_str(), sid.c_str()));
  request().Set("REMOTE_ADDR", "not an address");
  EXPECT_EQ(-4, Check(hash.c_str(), sid.c_str()));
  EXPECT_EQ(2, Logged("invalid ip"));
  request().Set("REMOTE_ADDR", kAddr);

  EXPECT_EQ(-5, Check(hash.c_str(), "no-such-session"));
  EXPECT_EQ(-7, Check("nosuchhash", sid.c_str()));
  EXPECT_EQ(-7, Check(other.c_str(), sid.c_str())) << "no token for that link";

  // Disabled after the login: -6 although session and token still live.
  Entry entry = Load(hash);
  entry.set_enabled(false);
  Save(entry);
  kovatest::ClearLogs();
  EXPECT_EQ(-6, Check(hash.c_str(), sid.c_str()));
  EXPECT_EQ(1, Logged("entry is not valid"));
  entry.set_enabled(true);
  Save(entry);
  EXPECT_EQ(1, Check(hash.c_str(), sid.c_str()));

  // An expired token reads as absent and stays; an expired session is unknown.
  Exec("UPDATE token SET timeout = strftime('%s', 'now') - 1");
  std::string const token_row = Value("SELECT id || '|' || timeout AS v FROM token");
  EXPECT_EQ(-7, Check(hash.c_str(), sid.c_str()));
  EXPECT_EQ(token_row, Value("SELECT id || '|' || timeout AS v FROM token"));
  Exec("UPDATE token SET timeout = strftime('%s', 'now') + 50");
  Exec("UPDATE session SET timeout = strftime('%s', 'now') - 1");
  EXPECT_EQ(-5, Check(hash.c_str(), sid.c_str()));
  EXPECT_EQ(1, Rows("session"));
}

TEST_F(VisitorTest, AuthorizationCheckOfAUserLink) {
  std::string const hash = MakeEntry([](Entry& e) {
    e.set_protect_type(Entry::PROTECT_USER);
    e.set_protect_users({"alice", "bob"});
  });
  std::string sid;
  ASSERT_EQ(1, Login(sid, hash.c_str(), nullptr, "alice", "alice-secret"));
  // Without a name the account that logged in is checked again; with one, it logs in again.
  EXPECT_EQ(1, Check(hash.c_str(), sid.c_str()));
  EXPECT_EQ(1, Check(hash.c_str(), sid.c_str(), "bob", "bob-secret"));
  EXPECT_EQ("1000", SessionField(sid, "uid")) << "the check does not change the session's account";
  kovatest::ClearLogs();
  EXPECT_EQ(-2, Check(hash.c_str(), sid.c_str(), "alice", "wrong"));
  EXPECT_EQ(-2, Check(hash.c_str(), sid.c_str(), "gus", "gus-secret"));
  EXPECT_EQ(2, Logged("user login error"));
  EXPECT_EQ(0, kovatest::FailCount(kAddr)) << "the check never counts failed logins";

  // The link drops alice: her session no longer passes.
  Entry entry = Load(hash);
  entry.set_protect_users({"bob"});
  Save(entry);
  EXPECT_EQ(-2, Check(hash.c_str(), sid.c_str()));
  // A session whose account no longer exists does not pass either.
  entry.set_protect_users({"alice"});
  Save(entry);
  EXPECT_EQ(1, Check(hash.c_str(), sid.c_str()));
  Exec("UPDATE session SET uid = 4242");
  EXPECT_EQ(-2, Check(hash.c_str(), sid.c_str()));
}

TEST_F(VisitorTest, AddressMatching) {
  std::string const strict = MakeEntry();  // matching is on by default
  std::string const loose = MakeEntry([](Entry& e) { e.set_enable_match_ip(false); });
  std::string sid, same;
  ASSERT_EQ(1, Login(sid, strict.c_str()));
  ASSERT_EQ(1, Login(same, loose.c_str(), nullptr, nullptr, nullptr, sid.c_str()));
  ASSERT_EQ(sid, same);

  request().Set("REMOTE_ADDR", kOtherAddr);
  kovatest::ClearLogs();
  EXPECT_EQ(-8, Check(strict.c_str(), sid.c_str()));
  EXPECT_EQ(1, Logged("ip not match, 192\\.0\\.2\\.20, 192\\.0\\.2\\.10"));
  // Without matching the session is used from anywhere, and its address stays.
  EXPECT_EQ(1, Check(loose.c_str(), sid.c_str()));
  EXPECT_EQ(kAddr, SessionField(sid, "ip"));
  EXPECT_EQ(0, kovatest::FailCount(kOtherAddr));

  // A login from the new address moves the session there.
  ASSERT_EQ(1, Login(same, strict.c_str(), nullptr, nullptr, nullptr, sid.c_str()));
  EXPECT_EQ(1, Check(strict.c_str(), sid.c_str()));
  request().Set("REMOTE_ADDR", kAddr);
  EXPECT_EQ(-8, Check(strict.c_str(), sid.c_str()));

  // Addresses are compared as the canonical texts: a prefix is no match, nor is IPv6 spelt
  // differently from the session's.
  request().Set("REMOTE_ADDR", "192.0.2.2");
  EXPECT_EQ(-8, Check(strict.c_str(), sid.c_str()));
  request().Set("REMOTE_ADDR", "2001:DB8::0:1");
  ASSERT_EQ(1, Login(same, strict.c_str(), nullptr, nullptr, nullptr, sid.c_str()));
  EXPECT_EQ("2001:db8::1", SessionField(sid, "ip"));
  request().Set("REMOTE_ADDR", "2001:db8:0::1");
  EXPECT_EQ(1, Check(strict.c_str(), sid.c_str()));
}

TEST_F(VisitorTest, LogoutAndUseCounting) {
  std::string const a = MakeEntry();
  std::string const b = MakeEntry();
  std::string sid, same;
  ASSERT_EQ(1, Login(sid, a.c_str()));
  ASSERT_EQ(1, Login(same, b.c_str(), nullptr, nullptr, nullptr, sid.c_str()));
  EXPECT_EQ(2, UseCount(a) + UseCount(b));

  EXPECT_EQ(1, KOVA::KovaSharingLogout(a, sid));
  EXPECT_EQ(1, Rows("token"));
  EXPECT_EQ(1, Rows("session")) << "the session is kept for the visitor's other links";
  EXPECT_EQ(-7, Check(a.c_str(), sid.c_str()));
  EXPECT_EQ(1, Check(b.c_str(), sid.c_str()));
  EXPECT_EQ(1, UseCount(a)) << "a logout is no use";
  kovatest::ClearLogs();
  EXPECT_EQ(0, KovaSharingLogout(a.c_str(), sid.c_str()));
  EXPECT_EQ(1, Logged("get token failed"));
  EXPECT_EQ(0, KovaSharingLogout("nosuchhash", sid.c_str()));
  EXPECT_EQ(1, Logged("get entry failed"));
  EXPECT_EQ(0, KovaSharingLogout(b.c_str(), "no-such-session"));
  EXPECT_EQ(1, Logged("get session failed"));
  EXPECT_EQ(1, Logged("get entry failed")) << "an unknown session ends before the link";
  EXPECT_EQ(1, Rows("token"));
  EXPECT_EQ(1, KovaSharingLogout(b.c_str(), sid.c_str()));
  EXPECT_EQ(0, Rows("token"));
  // The session still serves a new login.
  ASSERT_EQ(1, Login(same, a.c_str(), nullptr, nullptr, nullptr, sid.c_str()));
  EXPECT_EQ(sid, same);

  // Use counting raises by one per call, past any limit: the login compares, not the count.
  std::string const limited = MakeEntry([](Entry& e) { e.set_expire_times(2); });
  for (int i = 1; i <= 3; ++i) {
    EXPECT_EQ(1, KovaSharingIncreaseUseCount(limited.c_str()));
    EXPECT_EQ(i, UseCount(limited));
  }
  EXPECT_EQ(1, KOVA::KovaSharingIncreaseUseCount(limited));
  EXPECT_EQ(4, UseCount(limited));
  EXPECT_EQ(0, KovaSharingIncreaseUseCount("nosuchhash"));
  kovatest::ClearLogs();
  EXPECT_EQ(0, KovaSharingIncreaseUseCount(""));
  EXPECT_EQ(0, SharingLoginLines());

  // The plain forms refuse null texts the way building a string does.
  for (int which = 0; which < 3; ++which) {
    try {
      if (which == 0) KovaSharingLogout(nullptr, sid.c_str());
      if (which == 1) KovaSharingLogout(a.c_str(), nullptr);
      if (which == 2) KovaSharingIncreaseUseCount(nullptr);
      ADD_FAILURE() << "no exception for case " << which;
    } catch (std::logic_error const& e) {
      EXPECT_STREQ("basic_string::_M_construct null not valid", e.what());
    }
  }
}

TEST_F(VisitorTest, PlainLoginBuffers) {
  std::string const hash = MakeEntry([](Entry& e) {
    e.set_protect_type(Entry::PROTECT_PASSWORD);
    e.set_protect_password("pw", true, Entry::ENCRYPT_ALGO_DEFAULT);
  });
  _tag_sharing_login_params params = {hash.c_str(), "pw", nullptr, nullptr, nullptr};

  char buf[64];
  // Ten bytes: nine characters of the id and a terminator.
  memset(buf, 'Z', sizeof buf);
  ASSERT_EQ(1, KovaSharingLogin(buf, 10, &params, 0));
  std::string const nine(buf);
  ASSERT_EQ(9u, nine.size());
  EXPECT_EQ(1, Rows("session"));
  std::string const sid = Value("SELECT session_id AS v FROM session");
  EXPECT_EQ(sid.substr(0, 9), nine);
  EXPECT_EQ('Z', buf[10]) << "nothing written past the buffer";

  // Thirty-three bytes: the whole id, ended by the last-byte write.
  memset(buf, 'Z', sizeof buf);
  params.session_id = sid.c_str();
  ASSERT_EQ(1, KovaSharingLogin(buf, 33, &params, 0));
  EXPECT_EQ(sid, std::string(buf));
  EXPECT_EQ('Z', buf[33]);

  // Sixty-four bytes: the id and no terminator right after it; only the last byte is 0.
  memset(buf, 'Z', sizeof buf);
  ASSERT_EQ(1, KovaSharingLogin(buf, 64, &params, 0));
  EXPECT_EQ(sid, std::string(buf, 32));
  EXPECT_EQ(std::string(31, 'Z'), std::string(buf + 32, 31));
  EXPECT_EQ('\0', buf[63]);
  EXPECT_EQ(1, Rows("session"));

  // A failure writes only the last byte.
  params.password = "wrong";
  memset(buf, 'Z', sizeof buf);
  EXPECT_EQ(-9, KovaSharingLogin(buf, 33, &params, 1));
  EXPECT_EQ(std::string(32, 'Z'), std::string(buf, 32));
  EXPECT_EQ('\0', buf[32]);
  EXPECT_EQ(-4, KovaSharingLogin(buf, 33, nullptr, 0));

  // quiet is true only as 1: 2 counts an outsider like 0 does.
  std::string const user = MakeEntry([](Entry& e) {
    e.set_protect_type(Entry::PROTECT_USER);
    e.set_protect_users({"alice"});
  });
  _tag_sharing_login_params outsider = {user.c_str(), nullptr, "bob", "bob-secret", nullptr};
  int const before = kovatest::FailCount(kAddr);
  EXPECT_EQ(-10, KovaSharingLogin(buf, sizeof buf, &outsider, 1));
  EXPECT_EQ(before, kovatest::FailCount(kAddr));
  EXPECT_EQ(-10, KovaSharingLogin(buf, sizeof buf, &outsider, 2));
  EXPECT_EQ(before + 1, kovatest::FailCount(kAddr));
  EXPECT_EQ(-10, KovaSharingLogin(buf, sizeof buf, &outsider, 0));
  EXPECT_EQ(before + 2, kovatest::FailCount(kAddr));
  // And a plain success with quiet 2 clears the count, as a loud one does.
  params.password = "pw";
  EXPECT_EQ(1, KovaSharingLogin(buf, sizeof buf, &params, 2));
  EXPECT_EQ(0, kovatest::FailCount(kAddr));
}
