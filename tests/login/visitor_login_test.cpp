// Logging visitors in to links end to end: the order of the checks, failed-login counting and
// blocking, password and account protection over PAM, and what rows a login makes or reuses.
#include <gtest/gtest.h>
#include <syslog.h>

#include <regex>
#include <string>

#include "visitor_test_util.h"

using namespace visitortest;
using kovatest::FailCount;

namespace {

// A line "sharinglogin:<line> <tail>" was logged at error priority.
int Logged(std::string const& tail) {
  std::regex const line("^sharinglogin:[0-9]+ " + tail + "$");
  int n = 0;
  for (auto const& log : kovatest::Logs()) {
    if (std::regex_match(log.text, line) && (log.priority & 7) == LOG_ERR) ++n;
  }
  return n;
}

void PasswordProtect(Entry& entry, std::string const& password,
                     Entry::PasswordEncryptAlgo algo = Entry::ENCRYPT_ALGO_DEFAULT) {
  entry.set_protect_type(Entry::PROTECT_PASSWORD);
  entry.set_protect_password(password, true, algo);
}

void UserProtect(Entry& entry, std::vector<std::string> const& users,
                 std::vector<std::string> const& groups) {
  entry.set_protect_type(Entry::PROTECT_USER);
  entry.set_protect_users(users);
  entry.set_protect_groups(groups);
}

}  // namespace

TEST_F(VisitorTest, LoginChecksComeInOrder) {
  std::string sid = "untouched";
  std::string const open = MakeEntry();
  EXPECT_EQ(-4, KOVA::KovaSharingLogin(sid, nullptr, false));
  EXPECT_EQ("untouched", sid);
  EXPECT_EQ(-4, Login(sid, nullptr));

  // No client address, or none that parses: refused before anything is counted.
  request().Unset("REMOTE_ADDR");
  EXPECT_EQ(-4, Login(sid, open.c_str()));
  request().Set("REMOTE_ADDR", "192.0.2.300");
  EXPECT_EQ(-4, Login(sid, open.c_str()));
  request().Set("REMOTE_ADDR", kAddr);
  EXPECT_EQ(0, UseCount(open));
  EXPECT_EQ(0, Rows("session"));

  // Unknown and invalid links: -3, never a counted failure.
  EXPECT_EQ(-3, Login(sid, "nosuchhash"));
  std::string const disabled = MakeEntry([](Entry& e) { e.set_enabled(false); });
  std::string const later = MakeEntry([](Entry& e) { e.set_start_at(time(nullptr) + 3600); });
  std::string const past = MakeEntry([](Entry& e) { e.set_expire_at(time(nullptr) - 2); });
  for (auto const& hash : {disabled, later, past}) {
    EXPECT_EQ(-3, Login(sid, hash.c_str(), "any")) << hash;
    EXPECT_EQ(0, UseCount(hash));
  }
  EXPECT_TRUE(sid.empty());

  // Use limit 3: the third use is allowed, then -11; a count past the limit makes the link
  // invalid (-3). The limit is checked before the password, so no guess is counted.
  std::string const limited = MakeEntry([](Entry& e) {
    e.set_expire_times(3);
    e.set_use_count(2);
    PasswordProtect(e, "s3cret");
  });
  EXPECT_EQ(1, Login(sid, limited.c_str(), "s3cret"));
  EXPECT_EQ(3, UseCount(limited));
  EXPECT_EQ(-11, Login(sid, limited.c_str(), "wrong"));
  EXPECT_EQ(-11, Login(sid, limited.c_str(), "s3cret"));
  EXPECT_EQ(3, UseCount(limited));
  Entry entry = Load(limited);
  entry.set_use_count(4);
  Save(entry);
  EXPECT_EQ(-3, Login(sid, limited.c_str(), "s3cret"));
  EXPECT_EQ(4, UseCount(limited));

  // No limit: any count goes, and each login counts.
  std::string const unlimited = MakeEntry([](Entry& e) { e.set_use_count(100); });
  EXPECT_EQ(1, Login(sid, unlimited.c_str()));
  EXPECT_EQ(101, UseCount(unlimited));
  EXPECT_EQ(0, FailCount(kAddr));
  // The login itself tells these refusals by their codes alone.
  for (auto const& line : kovatest::LogTexts()) {
    EXPECT_NE(0u, line.rfind("sharinglogin:", 0)) << line;
  }
}

TEST_F(VisitorTest, BlockedAddressIsRefusedFirst) {
  std::string const hash = MakeEntry([](Entry& e) { PasswordProtect(e, "s3cret"); });
  std::string sid;
  // Five failures counted by another process (another CGI request), five by this one.
  ASSERT_EQ(0, kovatest::InChild([] {
              int failed = 0;
              for (int i = 0; i < 5; ++i) failed += AutoBlockFailLoginSet(kAddr, "SHARING") != 0;
              return failed;
            }));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(-9, Login(sid, hash.c_str(), "wrong"));
  EXPECT_EQ(10, FailCount(kAddr));
  EXPECT_EQ(10, kovatest::AutoBlockSql("SELECT COUNT(*) FROM fail_login WHERE service = "
                                       "'SHARING' AND addr = '192.0.2.10'"));

  kovatest::ClearLogs();
  std::string const before = Snapshot();
  EXPECT_EQ(-8, Login(sid, hash.c_str(), "s3cret"));  // the eleventh attempt, right or not
  EXPECT_EQ(-8, Login(sid, "nosuchhash"));            // before the link is looked at
  EXPECT_EQ(-8, Login(sid, hash.c_str(), "wrong"));
  EXPECT_EQ(10, FailCount(kAddr)) << "a refused address is not counted again";
  EXPECT_EQ(before, Snapshot());
  EXPECT_EQ(3, Logged("KovaAutoBlockIsDeniedIP 192\\.0\\.2\\.10"));
  EXPECT_EQ(3u, kovatest::Logs().size());

  // Another address still gets in; its success does not clear the blocked one.
  request().Set("REMOTE_ADDR", kOtherAddr);
  EXPECT_EQ(1, Login(sid, hash.c_str(), "s3cret"));
  request().Set("REMOTE_ADDR", kAddr);
  EXPECT_EQ(-8, Login(sid, hash.c_str(), "s3cret"));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(kAddr));
  EXPECT_EQ(1, Login(sid, hash.c_str(), "s3cret"));

  // A successful login clears the count: nine failures after it are not yet a block.
  for (int i = 0; i < 9; ++i) EXPECT_EQ(-9, Login(sid, hash.c_str(), "wrong"));
  EXPECT_EQ(1, Login(sid, hash.c_str(), "s3cret"));
  EXPECT_EQ(0, FailCount(kAddr));
  for (int i = 0; i < 9; ++i) EXPECT_EQ(-9, Login(sid, hash.c_str(), "wrong"));
  EXPECT_EQ(1, Login(sid, hash.c_str(), "s3cret"));
}

TEST_F(VisitorTest, PasswordLinkCountsOnlyGuesses) {
  std::string const hash = MakeEntry([](Entry& e) { PasswordProtect(e, "s3cret"); });
  std::string const md5 =
      MakeEntry([](Entry& e) { PasswordProtect(e, "md5-pw", Entry::ENCRYPT_ALGO_MD5); });
  std::string sid;
  EXPECT_EQ(-3, Login(sid, hash.c_str(), nullptr));  // no password at all
  EXPECT_EQ(1, FailCount(kAddr));
  EXPECT_EQ(-9, Login(sid, hash.c_str(), "S3CRET"));
  EXPECT_EQ(-9, Login(sid, hash.c_str(), ""));
  EXPECT_EQ(-9, Login(sid, md5.c_str(), "s3cret"));
  EXPECT_EQ(4, FailCount(kAddr));
  EXPECT_EQ(-3, Login(sid, "nosuchhash", "s3cret"));
  EXPECT_EQ(4, FailCount(kAddr)) << "an unknown link is no guess";
  EXPECT_EQ(0, UseCount(hash));
  EXPECT_EQ(0, Rows("session"));
  EXPECT_EQ(0, Rows("token"));

  // A quiet success leaves the count; a plain one clears it.
  EXPECT_EQ(1, Login(sid, hash.c_str(), "s3cret", nullptr, nullptr, nullptr, true));
  EXPECT_EQ(4, FailCount(kAddr));
  std::string sid2;
  EXPECT_EQ(1, Login(sid2, md5.c_str(), "md5-pw"));
  EXPECT_EQ(0, FailCount(kAddr));

  // What a login leaves behind: one session from this address, one token to this link, both
  // for a day, and one more use.
  ASSERT_EQ(32u, sid.size());
  EXPECT_EQ(
      std::string::npos,
      sid.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_"));
  EXPECT_NE(sid, sid2);
  EXPECT_EQ(kAddr, SessionField(sid, "ip"));
  ExpectOneDayAhead(std::stol(SessionField(sid, "timeout")));
  std::string const session_row = SessionField(sid, "id");
  std::string const entry_id = std::to_string(Load(hash).get_id());
  EXPECT_EQ("1", Value("SELECT COUNT(*) AS v FROM token WHERE session_id = " + session_row +
                       " AND entry_id = " + entry_id));
  ExpectOneDayAhead(Number("SELECT timeout AS v FROM token WHERE session_id = " + session_row));
  EXPECT_EQ(1, UseCount(hash));
  EXPECT_EQ(1, UseCount(md5));
  EXPECT_EQ(2, Rows("session"));
  EXPECT_EQ(2, Rows("token"));
}

TEST_F(VisitorTest, UserLinkAdmitsItsUsersAndGroupsOnly) {
  // bob by name, alice, Dave and carol through the group editors; gus is in neither.
  std::string const hash = MakeEntry([](Entry& e) { UserProtect(e, {"bob"}, {"editors"}); });
  std::string sid;
  EXPECT_EQ(1, Login(sid, hash.c_str(), nullptr, "alice", "alice-secret"));
  EXPECT_EQ("1000", SessionField(sid, "uid"));
  EXPECT_EQ(1, Login(sid, hash.c_str(), nullptr, "bob", "bob-secret"));
  EXPECT_EQ("1001", SessionField(sid, "uid"));
  EXPECT_EQ(1, Login(sid, hash.c_str(), nullptr, "dave", "dave-secret"))
      << "the account name is normalised before the login";
  EXPECT_EQ("1002", SessionField(sid, "uid"));
  EXPECT_EQ(3, UseCount(hash));
  EXPECT_EQ(0, FailCount(kAddr));

  // An account outside the link: -10, counted unless quiet.
  EXPECT_EQ(-10, Login(sid, hash.c_str(), nullptr, "gus", "gus-secret", nullptr, true));
  EXPECT_EQ(0, FailCount(kAddr));
  EXPECT_EQ(-10, Login(sid, hash.c_str(), nullptr, "gus", "gus-secret"));
  EXPECT_EQ(1, FailCount(kAddr));
  // A refused account login: -2, counted even when quiet.
  EXPECT_EQ(-2, Login(sid, hash.c_str(), nullptr, "alice", "wrong", nullptr, true));
  EXPECT_EQ(-2, Login(sid, hash.c_str(), nullptr, "alice", nullptr));
  EXPECT_EQ(-2, Login(sid, hash.c_str(), nullptr, "zed", "alice-secret"));
  // erin's password is right, but her account may not use this service.
  EXPECT_EQ(-2, Login(sid, hash.c_str(), nullptr, "erin", "erin-secret"));
  EXPECT_EQ(5, FailCount(kAddr));
  // Without an account name the check looks up no account at all: -3, counted.
  EXPECT_EQ(-3, Login(sid, hash.c_str(), "alice-secret", nullptr, "alice-secret"));
  EXPECT_EQ(6, FailCount(kAddr));
  EXPECT_EQ(3, UseCount(hash));
  EXPECT_EQ(3, Rows("token")) << "a refused visitor gets no token";
  for (auto const& line : kovatest::LogTexts()) {
    EXPECT_EQ(std::string::npos, line.find("secret")) << line;
    EXPECT_EQ(std::string::npos, line.find("wrong")) << line;
  }

  // Group membership through the primary group counts as well.
  std::string const users = MakeEntry([](Entry& e) { UserProtect(e, {}, {"users"}); });
  EXPECT_EQ(1, Login(sid, users.c_str(), nullptr, "gus", "gus-secret"));
  EXPECT_EQ("1005", SessionField(sid, "uid"));
}

TEST_F(VisitorTest, AccountCheckReadsTheWebRequest) {
  std::string const hash = MakeEntry([](Entry& e) { UserProtect(e, {"alice"}, {}); });
  std::string sid;
  // The web front end's session id travels as "_sid" and must be usable as a cookie.
  request().Set("QUERY_STRING", "_sid=web-session-1");
  EXPECT_EQ(1, Login(sid, hash.c_str(), nullptr, "alice", "alice-secret"));
  request().Set("QUERY_STRING", "_sid=a%3Bb%0D%0ASet-Cookie:%20x=y");
  EXPECT_EQ(-3, Login(sid, hash.c_str(), nullptr, "alice", "alice-secret"));
  EXPECT_EQ(1, FailCount(kAddr));
  request().Set("QUERY_STRING", "_sid=");  // empty: no cookie is set
  EXPECT_EQ(1, Login(sid, hash.c_str(), nullptr, "alice", "alice-secret", nullptr, true));
  request().Unset("QUERY_STRING");

  // The same from a POST body.
  request().Post("x=1&_sid=web-session-2");
  EXPECT_EQ(1, Login(sid, hash.c_str(), nullptr, "alice", "alice-secret", nullptr, true));
  std::string const good_sid = sid;
  // An oversized or truncated body refuses the request: the account check cannot run.
  request().Post("_sid=x", KOVA_CGI_MAX_BODY + 1);
  EXPECT_EQ(-3, Login(sid, hash.c_str(), nullptr, "alice", "alice-secret"));
  EXPECT_EQ(2, FailCount(kAddr));
  EXPECT_EQ(-2, Check(hash.c_str(), good_sid.c_str()));
  request().Post("_sid=x&more=1", 1000);
  EXPECT_EQ(-3, Login(sid, hash.c_str(), nullptr, "alice", "alice-secret"));
  EXPECT_EQ(-2, Check(hash.c_str(), good_sid.c_str()));
  EXPECT_EQ(3, FailCount(kAddr));
  request().Post("_sid=fine");
  EXPECT_EQ(1, Check(hash.c_str(), good_sid.c_str()));
}

TEST_F(VisitorTest, SecondLoginWithTheSessionIdMakesNoRows) {
  std::string const hash = MakeEntry();
  std::string const other = MakeEntry();
  std::string sid;
  ASSERT_EQ(1, Login(sid, hash.c_str()));
  std::string const first = sid;
  Exec("UPDATE session SET timeout = strftime('%s', 'now') + 100");
  Exec("UPDATE token SET timeout = strftime('%s', 'now') + 100");
  std::string const token_id = Value("SELECT id AS v FROM token");

  // From another address: the same session and token, refreshed; the address follows.
  request().Set("REMOTE_ADDR", kOtherAddr);
  ASSERT_EQ(1, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  EXPECT_EQ(first, sid);
  EXPECT_EQ(1, Rows("session"));
  EXPECT_EQ(1, Rows("token"));
  EXPECT_EQ(token_id, Value("SELECT id AS v FROM token"));
  EXPECT_EQ(kOtherAddr, SessionField(first, "ip"));
  ExpectOneDayAhead(std::stol(SessionField(first, "timeout")));
  ExpectOneDayAhead(Number("SELECT timeout AS v FROM token"));
  EXPECT_EQ(2, UseCount(hash));

  // The same session at another link: a second token, no second session.
  ASSERT_EQ(1, Login(sid, other.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  EXPECT_EQ(first, sid);
  EXPECT_EQ(1, Rows("session"));
  EXPECT_EQ(2, Rows("token"));

  // An unknown session id is ignored: a new session with a new id.
  ASSERT_EQ(1, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, "no-such-session"));
  EXPECT_NE(first, sid);
  EXPECT_EQ(32u, sid.size());
  EXPECT_EQ(2, Rows("session"));
  EXPECT_EQ("0", Value("SELECT COUNT(*) AS v FROM session WHERE session_id = 'no-such-session'"));
}

TEST_F(VisitorTest, ExpiredSessionIsReplacedByAFreshOne) {
  std::string const user = MakeEntry([](Entry& e) { UserProtect(e, {"alice", "bob"}, {}); });
  std::string const open = MakeEntry();
  std::string sid;
  ASSERT_EQ(1, Login(sid, user.c_str(), nullptr, "alice", "alice-secret"));
  std::string const old_sid = sid;
  Exec("UPDATE session SET timeout = strftime('%s', 'now') - 10, ip = '203.0.113.99'");
  std::string const old_row = Value(
      "SELECT id || '|' || uid || '|' || ip || '|' || timeout "
      "AS v FROM session");

  ASSERT_EQ(1, Login(sid, open.c_str(), nullptr, nullptr, nullptr, old_sid.c_str()));
  EXPECT_NE(old_sid, sid);
  EXPECT_EQ(2, Rows("session"));
  // The expired row stays until a purge, untouched.
  EXPECT_EQ(old_row, Value("SELECT id || '|' || uid || '|' || ip || '|' || timeout AS v FROM "
                           "session WHERE session_id = '" +
                           old_sid + "'"));
  // Nothing of the expired row carries over: not its account, address or row id.
  std::string fresh;
  ASSERT_EQ(1, Login(fresh, open.c_str()));
  EXPECT_EQ(SessionField(fresh, "uid"), SessionField(sid, "uid"));
  EXPECT_NE("1000", SessionField(sid, "uid"));
  EXPECT_EQ(kAddr, SessionField(sid, "ip"));
  EXPECT_NE(old_row.substr(0, old_row.find('|')), SessionField(sid, "id"));
  ExpectOneDayAhead(std::stol(SessionField(sid, "timeout")));
  EXPECT_EQ(-5, Check(open.c_str(), old_sid.c_str()));
  EXPECT_EQ(1, Check(open.c_str(), sid.c_str()));

  // The same at a user link: the new session acts for the account that logged in now.
  ASSERT_EQ(1, Login(sid, user.c_str(), nullptr, "bob", "bob-secret", old_sid.c_str()));
  EXPECT_NE(old_sid, sid);
  EXPECT_EQ("1001", SessionField(sid, "uid"));
  EXPECT_EQ("1000", Value("SELECT uid AS v FROM session WHERE session_id = '" + old_sid + "'"));
}

TEST_F(VisitorTest, ExpiredTokenBesideALiveSession) {
  std::string const a = MakeEntry();
  std::string const b = MakeEntry();
  std::string sid, same;
  ASSERT_EQ(1, Login(sid, a.c_str()));
  ASSERT_EQ(1, Login(same, b.c_str(), nullptr, nullptr, nullptr, sid.c_str()));
  ASSERT_EQ(sid, same);
  std::string const a_id = std::to_string(Load(a).get_id());
  Exec("UPDATE token SET timeout = strftime('%s', 'now') - 10 WHERE entry_id = " + a_id);
  std::string const expired = Value(
      "SELECT id || '|' || timeout AS v FROM token WHERE "
      "entry_id = " +
      a_id);

  // The session lives on through b while its token for a has expired.
  EXPECT_EQ(-7, Check(a.c_str(), sid.c_str()));
  EXPECT_EQ(1, Check(b.c_str(), sid.c_str()));
  EXPECT_EQ(2, Rows("token")) << "an expired token is left for the purge";

  // A new login to a keeps the session and stores a new token beside the expired row.
  std::string again;
  ASSERT_EQ(1, Login(again, a.c_str(), nullptr, nullptr, nullptr, sid.c_str()));
  EXPECT_EQ(sid, again);
  EXPECT_EQ(1, Rows("session"));
  EXPECT_EQ(3, Rows("token"));
  EXPECT_EQ("2", Value("SELECT COUNT(*) AS v FROM token WHERE entry_id = " + a_id));
  EXPECT_EQ(expired, Value("SELECT id || '|' || timeout AS v FROM token WHERE entry_id = " + a_id +
                           " AND timeout < strftime('%s', 'now')"));
  ExpectOneDayAhead(Number("SELECT timeout AS v FROM token WHERE entry_id = " + a_id +
                           " AND timeout > strftime('%s', 'now')"));
}
