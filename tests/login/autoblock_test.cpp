// Failed-login blocking over its shared store: the window, /64 prefixes, resets, the file.
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "visitor_test_util.h"

TEST(AutoBlockTest, WindowPrefixesAndResets) {
  char const ip[] = "198.51.100.1";
  auto const fail = [](char const* addr, int times, char const* service = "SHARING") {
    for (int i = 0; i < times; ++i) ASSERT_EQ(0, AutoBlockFailLoginSet(addr, service)) << addr;
  };
  kovatest::UnblockAll();
  // The sharing logins' reset leaves other services' failures; lifting the block clears all.
  fail(ip, 10, "WEBUI");
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  EXPECT_EQ(1, KovaCgiIsDeniedIP(ip));
  EXPECT_EQ(-1, AutoBlockUnblock("198.51.100"));
  EXPECT_EQ(10, AutoBlockUnblock(ip));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip));

  // Only the last ten minutes count: ten failures 601 s old, nine 590 s old (in one statement,
  // so that a window too long by a second shows), then one more; counting drops the rows that
  // left the window.
  ASSERT_EQ(0, kovatest::AutoBlockSql(
                   "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 19) "
                   "INSERT INTO fail_login (addr, service, time) SELECT '198.51.100.20', "
                   "'SHARING', strftime('%s', 'now') - CASE WHEN i <= 10 THEN 601 ELSE 590 END "
                   "FROM n"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP("198.51.100.20"));
  fail("198.51.100.20", 1);
  EXPECT_EQ(1, KovaCgiIsDeniedIP("198.51.100.20"));
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
  ASSERT_TRUE(std::filesystem::create_directories(file));
  kovatest::ClearLogs();
  EXPECT_EQ(0, KovaCgiIsDeniedIP("198.51.100.50"));
  EXPECT_EQ(1, kovatest::LogCount("failed-login store unavailable, 198.51.100.50 let through"));
  EXPECT_EQ(-1, AutoBlockFailLoginSet("198.51.100.50", "SHARING"));
  kovatest::RemoveTree(dir);
  ASSERT_EQ(0, rename((dir + ".aside").c_str(), dir.c_str()));
}
