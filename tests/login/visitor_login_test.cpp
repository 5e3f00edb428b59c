// Logging visitors in to links end to end: the order of the checks, failed-login counting and
// blocking, password and account protection over PAM, and what rows a login makes or reuses.
#include <string>

#include "visitor_test_util.h"

using namespace visitortest;
using kovatest::FailCount;

TEST_F(VisitorTest, LoginChecksComeInOrder) {
  std::string sid = "untouched";
  std::string const open = MakeEntry();
  EXPECT_EQ(-4, KOVA::KovaSharingLogin(sid, nullptr, false));
  EXPECT_EQ("untouched", sid);
  EXPECT_EQ(-4, Login(sid, nullptr));
  // No client address, or none that parses: refused before the link is used.
  request().Set("REMOTE_ADDR", "192.0.2.300");
  EXPECT_EQ(-4, Login(sid, open.c_str()));
  EXPECT_EQ(0, UseCount(open));
  request().Set("REMOTE_ADDR", kAddr);

  // Unknown and invalid links: -3, never a counted failure.
  EXPECT_EQ(-3, Login(sid, "nosuchhash"));
  for (auto const& hash : {MakeEntry([](Entry& e) { e.set_enabled(false); }),
                           MakeEntry([](Entry& e) { e.set_start_at(time(nullptr) + 3600); }),
                           MakeEntry([](Entry& e) { e.set_expire_at(time(nullptr) - 2); })}) {
    EXPECT_EQ(-3, Login(sid, hash.c_str(), "any")) << hash;
  }
  EXPECT_EQ(0, Rows("session"));

  // Use limit 3: the third use is allowed, then -11 before the password is looked at; a count
  // past the limit makes the link invalid (-3). No limit: any count goes.
  std::string const limited = MakeEntry([](Entry& e) {
    e.set_expire_times(3);
    e.set_use_count(2);
    e.set_protect_type(Entry::PROTECT_PASSWORD);
    e.set_protect_password("s3cret", true, Entry::ENCRYPT_ALGO_DEFAULT);
  });
  EXPECT_EQ(1, Login(sid, limited.c_str(), "s3cret"));
  EXPECT_EQ(-11, Login(sid, limited.c_str(), "wrong"));
  EXPECT_EQ(3, UseCount(limited));
  Exec("UPDATE entry SET use_count = 4");
  EXPECT_EQ(-3, Login(sid, limited.c_str(), "s3cret"));
  Exec("UPDATE entry SET expire_times = 0");
  EXPECT_EQ(1, Login(sid, limited.c_str(), "s3cret"));
  EXPECT_EQ(5, UseCount(limited));
  EXPECT_EQ(0, FailCount(kAddr));
  // The login tells these refusals by their codes alone.
  for (auto const& line : kovatest::LogTexts()) EXPECT_NE(0u, line.rfind("sharinglogin:", 0));
}

TEST_F(VisitorTest, BlockedAddressIsRefusedFirst) {
  std::string const hash = PasswordEntry("s3cret");
  std::string sid;
  // Five failures counted by another process (another CGI request), five by this one.
  ASSERT_EQ(0, kovatest::InChild([] {
              int failed = 0;
              for (int i = 0; i < 5; ++i) failed += AutoBlockFailLoginSet(kAddr, "SHARING") != 0;
              return failed;
            }));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(-9, Login(sid, hash.c_str(), "wrong"));
  EXPECT_EQ(10, FailCount(kAddr));

  kovatest::ClearLogs();
  std::string const before = Snapshot();
  EXPECT_EQ(-8, Login(sid, hash.c_str(), "s3cret"));  // the eleventh attempt, right or not
  EXPECT_EQ(-8, Login(sid, "nosuchhash"));            // before the link is looked at
  EXPECT_EQ(10, FailCount(kAddr)) << "a refused address is not counted again";
  EXPECT_EQ(before, Snapshot());
  EXPECT_EQ(2, Logged("KovaAutoBlockIsDeniedIP 192\\.0\\.2\\.10"));
  EXPECT_EQ(2u, kovatest::Logs().size());

  // Another address still gets in; its success does not clear the blocked one.
  request().Set("REMOTE_ADDR", kOtherAddr);
  EXPECT_EQ(1, Login(sid, hash.c_str(), "s3cret"));
  request().Set("REMOTE_ADDR", kAddr);
  EXPECT_EQ(-8, Login(sid, hash.c_str(), "s3cret"));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(kAddr));
  // A successful login clears the count: nine failures after it are not yet a block.
  for (int i = 0; i < 9; ++i) EXPECT_EQ(-9, Login(sid, hash.c_str(), "wrong"));
  EXPECT_EQ(1, Login(sid, hash.c_str(), "s3cret"));
  for (int i = 0; i < 9; ++i) EXPECT_EQ(-9, Login(sid, hash.c_str(), "wrong"));
  EXPECT_EQ(1, Login(sid, hash.c_str(), "s3cret"));
}

TEST_F(VisitorTest, PasswordLinkCountsOnlyGuesses) {
  std::string const hash = PasswordEntry("s3cret");
  std::string const md5 = PasswordEntry("md5-pw", Entry::ENCRYPT_ALGO_MD5);
  std::string sid, sid2;
  EXPECT_EQ(-3, Login(sid, hash.c_str(), nullptr));  // no password at all: counted
  EXPECT_EQ(-9, Login(sid, hash.c_str(), "S3CRET"));
  EXPECT_EQ(-9, Login(sid, md5.c_str(), "s3cret"));
  EXPECT_EQ(-3, Login(sid, "nosuchhash", "s3cret"));
  EXPECT_EQ(3, FailCount(kAddr)) << "an unknown link is no guess";
  EXPECT_EQ(0, Rows("session") + Rows("token") + UseCount(hash));

  // A quiet success leaves the count; a plain one clears it. Each makes a session from this
  // address for a day, a token and a use.
  EXPECT_EQ(1, Login(sid, hash.c_str(), "s3cret", nullptr, nullptr, nullptr, true));
  EXPECT_EQ(3, FailCount(kAddr));
  EXPECT_EQ(1, Login(sid2, md5.c_str(), "md5-pw"));
  EXPECT_EQ(0, FailCount(kAddr));
  ASSERT_EQ(32u, sid.size());
  EXPECT_NE(sid, sid2);
  EXPECT_EQ(kAddr, SessionField(sid, "ip"));
  ExpectOneDayAhead(std::stol(SessionField(sid, "timeout")));
  EXPECT_EQ(1, UseCount(hash));
  EXPECT_EQ(4, Rows("session") + Rows("token"));
}

TEST_F(VisitorTest, UserLinkAdmitsItsUsersAndGroupsOnly) {
  // bob by name, alice and dave through the group editors; gus is in neither.
  std::string const hash = UserEntry({"bob"}, {"editors"});
  std::string sid;
  EXPECT_EQ(1, Login(sid, hash.c_str(), nullptr, "alice", "alice-secret"));
  EXPECT_EQ("1000", SessionField(sid, "uid"));
  EXPECT_EQ(1, Login(sid, hash.c_str(), nullptr, "dave", "dave-secret"));
  EXPECT_EQ("1002", SessionField(sid, "uid"));
  EXPECT_EQ(1, Login(sid, UserEntry({}, {"users"}).c_str(), nullptr, "gus", "gus-secret"))
      << "the primary group counts as well";
  // An account outside the link: -10, counted unless quiet.
  EXPECT_EQ(-10, Login(sid, hash.c_str(), nullptr, "gus", "gus-secret", nullptr, true));
  EXPECT_EQ(0, FailCount(kAddr));
  EXPECT_EQ(-10, Login(sid, hash.c_str(), nullptr, "gus", "gus-secret"));
  EXPECT_EQ(1, FailCount(kAddr));
  // A refused account login: -2, counted even when quiet; erin may not use this service.
  EXPECT_EQ(-2, Login(sid, hash.c_str(), nullptr, "alice", "wrong", nullptr, true));
  EXPECT_EQ(-2, Login(sid, hash.c_str(), nullptr, "erin", "erin-secret"));
  // Without an account name the check looks up no account at all: -3, counted.
  EXPECT_EQ(-3, Login(sid, hash.c_str(), "alice-secret", nullptr, "alice-secret"));
  EXPECT_EQ(4, FailCount(kAddr));
  EXPECT_EQ(2, UseCount(hash));
  EXPECT_EQ(3, Rows("token")) << "a refused visitor gets no token";
  for (auto const& line : kovatest::LogTexts()) EXPECT_EQ(std::string::npos, line.find("secret"));

  // The web front end's session id travels as "_sid" and must be usable as a cookie.
  request().Set("QUERY_STRING", "_sid=a%3Bb%0D%0ASet-Cookie:%20x=y");
  EXPECT_EQ(-3, Login(sid, hash.c_str(), nullptr, "alice", "alice-secret"));
  EXPECT_EQ(5, FailCount(kAddr));
  request().Set("QUERY_STRING", "_sid=");  // empty: no cookie is set
  EXPECT_EQ(1, Login(sid, hash.c_str(), nullptr, "alice", "alice-secret", nullptr, true));
}

TEST_F(VisitorTest, SessionIdAtALogin) {
  std::string const hash = MakeEntry();
  std::string const other = MakeEntry();
  std::string sid;
  ASSERT_EQ(1, Login(sid, hash.c_str()));
  std::string const first = sid;
  Exec("UPDATE session SET timeout = strftime('%s', 'now') + 100");
  Exec("UPDATE token SET timeout = strftime('%s', 'now') + 100");
  std::string const token_id = Value("SELECT id AS v FROM token");

  // A second login from another address: the same rows, refreshed; the address follows.
  request().Set("REMOTE_ADDR", kOtherAddr);
  ASSERT_EQ(1, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  EXPECT_EQ(first, sid);
  EXPECT_EQ(token_id, Value("SELECT id AS v FROM token"));
  EXPECT_EQ(kOtherAddr, SessionField(first, "ip"));
  ExpectOneDayAhead(std::stol(SessionField(first, "timeout")));
  ExpectOneDayAhead(Number("SELECT timeout AS v FROM token"));
  EXPECT_EQ(2, UseCount(hash));
  // The same session at another link: a second token, no second session.
  ASSERT_EQ(1, Login(sid, other.c_str(), nullptr, nullptr, nullptr, first.c_str()));
  EXPECT_EQ(first, sid);
  EXPECT_EQ(3, Rows("session") + Rows("token"));
  // An unknown session id is ignored: a new session with a new id.
  ASSERT_EQ(1, Login(sid, hash.c_str(), nullptr, nullptr, nullptr, "no-such-session"));
  EXPECT_NE(first, sid);
  EXPECT_EQ(2, Rows("session"));
}

TEST_F(VisitorTest, ExpiredSessionOrTokenIsReplaced) {
  std::string const user = UserEntry({"alice", "bob"});
  std::string const open = MakeEntry();
  std::string sid;
  ASSERT_EQ(1, Login(sid, user.c_str(), nullptr, "alice", "alice-secret"));
  std::string const old_sid = sid;
  Exec("UPDATE session SET timeout = strftime('%s', 'now') - 10, ip = '203.0.113.99'");
  std::string const row =
      "SELECT id || '|' || uid || '|' || ip || '|' || timeout AS v FROM session";
  std::string const old_row = Value(row);
  ASSERT_EQ(1, Login(sid, open.c_str(), nullptr, nullptr, nullptr, old_sid.c_str()));
  EXPECT_NE(old_sid, sid);
  // The expired row stays until a purge, untouched; nothing of it carries over.
  EXPECT_EQ(old_row, Value(row + " WHERE session_id = '" + old_sid + "'"));
  std::string fresh, bob;
  ASSERT_EQ(1, Login(fresh, open.c_str()));
  EXPECT_EQ(SessionField(fresh, "uid"), SessionField(sid, "uid"));
  EXPECT_EQ(kAddr, SessionField(sid, "ip"));
  EXPECT_NE(old_row.substr(0, old_row.find('|')), SessionField(sid, "id"));
  EXPECT_EQ(-5, Check(open.c_str(), old_sid.c_str()));
  ASSERT_EQ(1, Login(bob, user.c_str(), nullptr, "bob", "bob-secret", old_sid.c_str()));
  EXPECT_EQ("1001", SessionField(bob, "uid"));

  // A token expired beside a live session: a new login keeps the session and stores a new
  // token beside the expired row.
  std::string const where = " WHERE session_id = " + SessionField(sid, "id");
  std::string const of_open = " FROM token" + where;
  Exec("UPDATE token SET timeout = strftime('%s', 'now') - 10" + where);
  std::string const expired = Value("SELECT id || '|' || timeout AS v" + of_open);
  EXPECT_EQ(-7, Check(open.c_str(), sid.c_str()));
  std::string same;
  ASSERT_EQ(1, Login(same, open.c_str(), nullptr, nullptr, nullptr, sid.c_str()));
  EXPECT_EQ(sid, same);
  EXPECT_EQ(expired, Value("SELECT id || '|' || timeout AS v" + of_open +
                           " AND timeout < strftime('%s', 'now')"));
  ExpectOneDayAhead(
      Number("SELECT timeout AS v" + of_open + " AND timeout > strftime('%s', 'now')"));
}
