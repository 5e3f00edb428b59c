// Failed-login blocking over its shared store: the limit and window, addresses and /64
// prefixes, processes sharing one count, the file's owner and mode, and a broken store.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "cgi_request.h"
#include "kova_autoblock.h"
#include "kova_paths.h"
#include "kovatest.h"

namespace {

void Fail(char const* ip, int times) {
  for (int i = 0; i < times; ++i) ASSERT_EQ(0, AutoBlockFailLoginSet(ip, "SHARING")) << ip;
}

// What the administrator's listing says of `ip`: its failures and for how many more seconds
// it is blocked (0 when it is not); {-1, 0} when it is not listed.
std::pair<int, long long> Listed(std::string const& ip) {
  struct Seen {
    std::string ip;
    std::pair<int, long long> found{-1, 0};
  } seen{ip};
  EXPECT_LE(0, AutoBlockList(
                   [](char const* address, int failures, long long until, void* data) {
                     auto* s = static_cast<Seen*>(data);
                     if (s->ip != address) return;
                     s->found = {failures, until == 0 ? 0 : until - time(nullptr)};
                   },
                   &seen));
  return seen.found;
}

// A block that lasts `seconds` more, give or take the second that may pass while testing.
void ExpectBlocked(std::string const& ip, long long seconds) {
  std::pair<int, long long> const listed = Listed(ip);
  EXPECT_EQ(10, listed.first) << ip;
  EXPECT_NEAR(seconds, listed.second, 1) << ip;
}

}  // namespace

TEST(AutoBlockTest, TenFailuresInTheWindowDenyThatAddressOnly) {
  char const ip[] = "198.51.100.1";
  char const other[] = "198.51.100.2";
  for (char const* addr : {ip, other}) ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(addr));
  Fail(ip, 9);
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip)) << "nine failures are not yet too many";
  Fail(ip, 1);
  EXPECT_EQ(1, KovaCgiIsDeniedIP(ip));
  EXPECT_EQ(0, KovaCgiIsDeniedIP("198.51.100.10"));
  // A reset clears only the address it names.
  Fail(other, 10);
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip));
  EXPECT_EQ(1, KovaCgiIsDeniedIP(other));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(other));
  // The reset clears the sharing logins' count only; lifting a block clears every service's.
  for (int i = 0; i < 10; ++i) ASSERT_EQ(0, AutoBlockFailLoginSet(ip, "WEBUI"));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  EXPECT_EQ(1, KovaCgiIsDeniedIP(ip));
  ExpectBlocked(ip, 600);
  EXPECT_EQ(-1, AutoBlockUnblock("198.51.100"));
  EXPECT_EQ(10, AutoBlockUnblock(ip));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip));
  EXPECT_EQ(-1, Listed(ip).first);
  // Not an address: nothing counted, nothing denied.
  EXPECT_EQ(-1, AutoBlockFailLoginSet("not-an-ip", "SHARING"));
  EXPECT_EQ(-1, AutoBlockFailLoginSet(nullptr, "SHARING"));
  EXPECT_EQ(-1, KOVAAutoBlockFailLoginReset("198.51.100.1'--"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(nullptr));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(""));

  // Only the last ten minutes count: ten failures 601 s old, nine 590 s old, then one more.
  char const old[] = "198.51.100.20";
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(old));
  // One statement, so that the check follows at once and a window too long by a second shows.
  ASSERT_EQ(0, kovatest::AutoBlockSql(
                   "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 19) "
                   "INSERT INTO fail_login (addr, service, time) SELECT '198.51.100.20', "
                   "'SHARING', strftime('%s', 'now') - CASE WHEN i <= 10 THEN 601 ELSE 590 END "
                   "FROM n"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(old));
  Fail(old, 1);
  EXPECT_EQ(1, KovaCgiIsDeniedIP(old));
  // The block lasts until the oldest of the ten leaves the window, ten seconds from now.
  ExpectBlocked(old, 10);
  // Counting a failure drops the rows that left the window.
  EXPECT_EQ(10, kovatest::AutoBlockSql("SELECT COUNT(*) FROM fail_login WHERE addr = "
                                       "'198.51.100.20' AND service = 'SHARING'"));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(old));
}

TEST(AutoBlockTest, Ipv6IsCountedPerSlash64) {
  for (char const* addr : {"2001:db8:1:2::1", "2001:db8:1:3::1", "198.51.100.30"})
    ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(addr));
  // Ten different hosts of one /64, each failing once.
  for (int i = 1; i <= 10; ++i) {
    std::string const ip = "2001:db8:1:2:" + std::to_string(i) + "::" + std::to_string(i);
    EXPECT_EQ(0, KovaCgiIsDeniedIP(ip.c_str()));
    Fail(ip.c_str(), 1);
  }
  EXPECT_EQ(1, KovaCgiIsDeniedIP("2001:DB8:1:2:ffff:ffff:ffff:ffff"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP("2001:db8:1:3::1")) << "the neighbouring /64 is another site";
  ExpectBlocked("2001:db8:1:2::/64", 600);
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset("2001:db8:1:2::abcd"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP("2001:db8:1:2::1")) << "a reset clears the whole prefix";
  // An IPv4 address written IPv4-mapped is the same client.
  Fail("::ffff:198.51.100.30", 5);
  Fail("198.51.100.30", 5);
  EXPECT_EQ(1, KovaCgiIsDeniedIP("198.51.100.30"));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset("198.51.100.30"));
}

TEST(AutoBlockTest, ProcessesShareOneCount) {
  char const ip[] = "198.51.100.40";
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  // Two processes fail at the same time, five times each; every failure must be counted.
  pid_t children[2];
  for (pid_t& child : children) {
    child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      int failed = 0;
      for (int i = 0; i < 5; ++i) failed += AutoBlockFailLoginSet(ip, "SHARING") != 0;
      _exit(failed);
    }
  }
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_EQ(1, kovatest::InChild([&ip] { return KovaCgiIsDeniedIP(ip); }));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  EXPECT_EQ(0, kovatest::InChild([&ip] { return KovaCgiIsDeniedIP(ip); }));
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
  std::string const aside = dir + ".aside";
  ASSERT_EQ(0, rename(dir.c_str(), aside.c_str()));
  ASSERT_EQ(0, kovatest::Shell("mkdir -p '" + file + "'"));
  kovatest::ClearLogs();
  EXPECT_EQ(0, KovaCgiIsDeniedIP("198.51.100.50"));
  EXPECT_TRUE(kovatest::LogContains("failed-login store unavailable, 198.51.100.50 let through"));
  EXPECT_EQ(-1, AutoBlockFailLoginSet("198.51.100.50", "SHARING"));
  EXPECT_EQ(-1, KOVAAutoBlockFailLoginReset("198.51.100.50"));
  kovatest::RemoveTree(dir);
  ASSERT_EQ(0, rename(aside.c_str(), dir.c_str()));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset("198.51.100.50"));
}
