// Failed-login blocking over its shared store: the limit and window, addresses and /64
// prefixes, processes sharing one count, the file's owner and mode, and a broken store.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "cgi_request.h"
#include "kova_autoblock.h"
#include "kova_paths.h"
#include "kovatest.h"

namespace {

void Fail(char const* ip, int times) {
  for (int i = 0; i < times; ++i) ASSERT_EQ(0, AutoBlockFailLoginSet(ip, "SHARING")) << ip;
}

std::string StoreDir() {
  std::string const file = KOVA_AUTOBLOCK_DB_FILE;
  return file.substr(0, file.rfind('/'));
}

}  // namespace

TEST(AutoBlockTest, TenthFailureDeniesThatAddressOnly) {
  char const ip[] = "198.51.100.1";
  char const other[] = "198.51.100.2";
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(other));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip));
  Fail(ip, 9);
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip)) << "nine failures are not yet too many";
  Fail(ip, 1);
  EXPECT_EQ(1, KovaCgiIsDeniedIP(ip));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(other));
  EXPECT_EQ(0, KovaCgiIsDeniedIP("198.51.100.10"));
  EXPECT_EQ(
      10, kovatest::AutoBlockSql("SELECT COUNT(*) FROM fail_login WHERE addr = '198.51.100.1' AND "
                                 "service = 'SHARING'"));

  // A reset clears only the address it names.
  Fail(other, 10);
  EXPECT_EQ(1, KovaCgiIsDeniedIP(other));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip));
  EXPECT_EQ(1, KovaCgiIsDeniedIP(other));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(other));

  // Not an address: nothing counted, nothing denied.
  EXPECT_EQ(-1, AutoBlockFailLoginSet("not-an-ip", "SHARING"));
  EXPECT_EQ(-1, AutoBlockFailLoginSet(nullptr, "SHARING"));
  EXPECT_EQ(-1, KOVAAutoBlockFailLoginReset("198.51.100.1'--"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(nullptr));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(""));
}

TEST(AutoBlockTest, OnlyFailuresOfTheLastTenMinutesCount) {
  char const ip[] = "198.51.100.20";
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  long const now = time(nullptr);
  // Ten old failures, just outside the window.
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(0, kovatest::AutoBlockSql("INSERT INTO fail_login (addr, service, time) VALUES "
                                        "('198.51.100.20', 'SHARING', " +
                                        std::to_string(now - 601) + ")"));
  }
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip));
  // Nine recent ones on top: still under the limit.
  for (int i = 0; i < 9; ++i) {
    ASSERT_EQ(0, kovatest::AutoBlockSql("INSERT INTO fail_login (addr, service, time) VALUES "
                                        "('198.51.100.20', 'SHARING', " +
                                        std::to_string(now - 590) + ")"));
  }
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip));
  Fail(ip, 1);
  EXPECT_EQ(1, KovaCgiIsDeniedIP(ip));
  // Counting a failure drops the rows that left the window.
  EXPECT_EQ(0, kovatest::AutoBlockSql("SELECT COUNT(*) FROM fail_login WHERE time < " +
                                      std::to_string(now - 600)));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
}

TEST(AutoBlockTest, Ipv6IsCountedPerSlash64) {
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset("2001:db8:1:2::1"));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset("2001:db8:1:3::1"));
  // Ten different hosts of one /64, each failing once.
  for (int i = 1; i <= 10; ++i) {
    std::string const ip = "2001:db8:1:2:" + std::to_string(i) + "::" + std::to_string(i);
    EXPECT_EQ(0, KovaCgiIsDeniedIP(ip.c_str()));
    Fail(ip.c_str(), 1);
  }
  EXPECT_EQ(1, KovaCgiIsDeniedIP("2001:db8:1:2:ffff:ffff:ffff:ffff"));
  EXPECT_EQ(1, KovaCgiIsDeniedIP("2001:DB8:1:2::"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP("2001:db8:1:3::1")) << "the neighbouring /64 is another site";
  // A reset from any host of the prefix clears the prefix.
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset("2001:db8:1:2::abcd"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP("2001:db8:1:2::1"));

  // An IPv4 address written IPv4-mapped is the same client.
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset("198.51.100.30"));
  Fail("::ffff:198.51.100.30", 5);
  Fail("198.51.100.30", 5);
  EXPECT_EQ(1, KovaCgiIsDeniedIP("198.51.100.30"));
  EXPECT_EQ(1, KovaCgiIsDeniedIP("::ffff:198.51.100.30"));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset("::ffff:198.51.100.30"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP("198.51.100.30"));
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
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
  }
  EXPECT_EQ(1, KovaCgiIsDeniedIP(ip));
  // And another process sees the denial, then the reset made here.
  EXPECT_EQ(1, kovatest::InChild([&ip] { return KovaCgiIsDeniedIP(ip); }));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  EXPECT_EQ(0, kovatest::InChild([&ip] { return KovaCgiIsDeniedIP(ip); }));
}

TEST(AutoBlockTest, StoreBelongsToTheSystemAccount) {
  ASSERT_EQ(0, AutoBlockFailLoginSet("198.51.100.50", "SHARING"));
  struct stat st;
  ASSERT_EQ(0, stat(KOVA_AUTOBLOCK_DB_FILE, &st));
  EXPECT_EQ(0660u, st.st_mode & 07777);
  ASSERT_EQ(0, stat(StoreDir().c_str(), &st));
  EXPECT_EQ(0770u, st.st_mode & 07777);
  if (kovatest::RealRoot()) {
    EXPECT_EQ(1u, st.st_uid);
    EXPECT_EQ(1u, st.st_gid);
    ASSERT_EQ(0, stat(KOVA_AUTOBLOCK_DB_FILE, &st));
    EXPECT_EQ(1u, st.st_uid);
    EXPECT_EQ(1u, st.st_gid);
    // The write-ahead log is the system account's too, else the next process could not write.
    std::string const wal = std::string(KOVA_AUTOBLOCK_DB_FILE) + "-wal";
    if (stat(wal.c_str(), &st) == 0) {
      EXPECT_EQ(1u, st.st_uid);
    }
  }
  EXPECT_EQ(
      0, kovatest::AutoBlockSql("SELECT CASE WHEN (SELECT journal_mode FROM pragma_journal_mode) = "
                                "'wal' THEN 0 ELSE 1 END"));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset("198.51.100.50"));
}

TEST(AutoBlockTest, BrokenStoreLetsVisitorsThrough) {
  std::string const dir = StoreDir();
  std::string const aside = dir + ".aside";
  ASSERT_EQ(0, AutoBlockFailLoginSet("198.51.100.60", "SHARING"));
  ASSERT_EQ(0, rename(dir.c_str(), aside.c_str()));
  // The store's file name is taken by a directory: nothing can open it.
  ASSERT_EQ(0, kovatest::Shell("mkdir -p '" + std::string(KOVA_AUTOBLOCK_DB_FILE) + "'"));
  kovatest::ClearLogs();
  EXPECT_EQ(0, KovaCgiIsDeniedIP("198.51.100.60"));
  EXPECT_TRUE(kovatest::LogContains("failed-login store unavailable, 198.51.100.60 let through"));
  EXPECT_EQ(-1, AutoBlockFailLoginSet("198.51.100.60", "SHARING"));
  EXPECT_EQ(-1, KOVAAutoBlockFailLoginReset("198.51.100.60"));
  kovatest::RemoveTree(dir);
  ASSERT_EQ(0, rename(aside.c_str(), dir.c_str()));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset("198.51.100.60"));
}
