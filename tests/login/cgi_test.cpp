// The platform's account login through PAM (pam_matrix fixture accounts) and failed-login
// blocking over its shared store: the window, /64 prefixes, resets, and the store's file.
#include <sys/stat.h>

#include <string>

#include "visitor_test_util.h"

TEST(CgiRequestTest, AccountLoginThroughPam) {
  kovatest::CgiRequest request;
  request.Set("HTTP_COOKIE", "id=web-session-1");
  KOVA_CGI_HANDLE h = nullptr;
  ASSERT_EQ(1, KovaCgiInit("", &h));
  ASSERT_EQ(1, KovaCgiLoadInCookies(h));
  char reply[123];
  auto login = [&](char const* user, char const* password, size_t size = sizeof reply) {
    KOVA_CGI_LOGIN_REQ const req = {user, password, "webui", 15, 1};
    return KovaCgiLogin(h, reply, size, &req);
  };
  EXPECT_EQ(1, login("Dave", "dave-secret"));
  EXPECT_STREQ("user=Dave&sid=web-session-1&timeout=15", reply);
  // A cookie set during the request is the web session; a small reply is cut and terminated.
  ASSERT_EQ(1, KovaCgiSetCookies(h, "id", "from_sid", 0, "/", nullptr, 0));
  EXPECT_EQ(1, login("bob", "bob-secret", 22));
  EXPECT_STREQ("user=bob&sid=from_sid", reply);
  EXPECT_EQ(0, login("alice", "Wr0ng-pa55word"));
  EXPECT_STREQ("", reply);
  // Unknown names and other spellings; erin knows her password, but the account step refuses
  // her for this service. Nothing of a password is logged.
  for (char const* user : {"zed", "ALICE", ""}) EXPECT_EQ(0, login(user, "alice-secret"));
  kovatest::ClearLogs();
  EXPECT_EQ(0, login("erin", "erin-secret"));
  EXPECT_EQ(-1, login("alice", nullptr));
  EXPECT_TRUE(kovatest::LogContains("account refused"));
  for (auto const& line : kovatest::LogTexts()) EXPECT_EQ(std::string::npos, line.find("pa55"));
  KovaCgiFree(h);
}

TEST(AutoBlockTest, WindowPrefixesAndResets) {
  char const ip[] = "198.51.100.1";
  auto const fail = [](char const* addr, int times, char const* service = "SHARING") {
    for (int i = 0; i < times; ++i) ASSERT_EQ(0, AutoBlockFailLoginSet(addr, service)) << addr;
  };
  for (char const* addr :
       {ip, "198.51.100.20", "2001:db8:1:2::1", "2001:db8:1:3::1", "198.51.100.30"})
    ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(addr));
  // The sharing logins' reset leaves other services' failures; lifting the block clears all.
  fail(ip, 10, "WEBUI");
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  EXPECT_EQ(1, KovaCgiIsDeniedIP(ip));
  EXPECT_EQ(-1, AutoBlockUnblock("198.51.100"));
  EXPECT_EQ(10, AutoBlockUnblock(ip));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip));
  // Not an address: nothing counted, nothing denied.
  EXPECT_EQ(-1, AutoBlockFailLoginSet("not-an-ip", "SHARING"));
  EXPECT_EQ(-1, KOVAAutoBlockFailLoginReset("198.51.100.1'--"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(nullptr));

  // Only the last ten minutes count: ten failures 601 s old, nine 590 s old (in one statement,
  // so that a window too long by a second shows), then one more; the block lasts until the
  // oldest of the ten leaves the window, and counting drops the rows that left it.
  ASSERT_EQ(0, kovatest::AutoBlockSql(
                   "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 19) "
                   "INSERT INTO fail_login (addr, service, time) SELECT '198.51.100.20', "
                   "'SHARING', strftime('%s', 'now') - CASE WHEN i <= 10 THEN 601 ELSE 590 END "
                   "FROM n"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP("198.51.100.20"));
  fail("198.51.100.20", 1);
  EXPECT_EQ(1, KovaCgiIsDeniedIP("198.51.100.20"));
  long long until = 0;
  EXPECT_LE(0, AutoBlockList(
                   [](char const* addr, int, long long end, void* out) {
                     if (std::string(addr) == "198.51.100.20") *static_cast<long long*>(out) = end;
                   },
                   &until));
  EXPECT_NEAR(10, until - time(nullptr), 1);
  EXPECT_EQ(10,
            kovatest::AutoBlockSql("SELECT COUNT(*) FROM fail_login WHERE addr = '198.51.100.20'"));

  // IPv6 counts per /64 (ten hosts failing once each), resets clear the whole prefix; an IPv4
  // address written IPv4-mapped is the same client.
  for (int i = 1; i <= 10; ++i) fail(("2001:db8:1:2:" + std::to_string(i) + "::1").c_str(), 1);
  EXPECT_EQ(1, KovaCgiIsDeniedIP("2001:DB8:1:2:ffff:ffff:ffff:ffff"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP("2001:db8:1:3::1"));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset("2001:db8:1:2::abcd"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP("2001:db8:1:2::1"));
  fail("::ffff:198.51.100.30", 5);
  fail("198.51.100.30", 5);
  EXPECT_EQ(1, KovaCgiIsDeniedIP("198.51.100.30"));
  for (char const* addr : {"198.51.100.20", "198.51.100.30"})
    ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(addr));
}

TEST(AutoBlockTest, StoreOwnershipAndABrokenStore) {
  std::string const file = KOVA_AUTOBLOCK_DB_FILE;
  std::string const dir = file.substr(0, file.rfind('/'));
  ASSERT_EQ(0, AutoBlockFailLoginSet("198.51.100.50", "SHARING"));
  struct stat st;
  ASSERT_EQ(0, stat(dir.c_str(), &st));
  EXPECT_EQ(0770u, st.st_mode & 07777);
  ASSERT_EQ(0, stat(file.c_str(), &st));
  EXPECT_EQ(0660u, st.st_mode & 07777);
  EXPECT_TRUE(!kovatest::RealRoot() || (st.st_uid == 1 && st.st_gid == 1));
  EXPECT_EQ(0, kovatest::AutoBlockSql("SELECT journal_mode != 'wal' FROM pragma_journal_mode"));
  // The store's file name is taken by a directory: nothing can open it, and visitors pass.
  ASSERT_EQ(0, rename(dir.c_str(), (dir + ".aside").c_str()));
  ASSERT_EQ(0, kovatest::Shell("mkdir -p '" + file + "'"));
  kovatest::ClearLogs();
  EXPECT_EQ(0, KovaCgiIsDeniedIP("198.51.100.50"));
  EXPECT_TRUE(kovatest::LogContains("failed-login store unavailable, 198.51.100.50 let through"));
  EXPECT_EQ(-1, AutoBlockFailLoginSet("198.51.100.50", "SHARING"));
  kovatest::RemoveTree(dir);
  ASSERT_EQ(0, rename((dir + ".aside").c_str(), dir.c_str()));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset("198.51.100.50"));
}
