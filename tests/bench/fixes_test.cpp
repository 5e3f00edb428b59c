// The per-request savings of the platform layer and the build, on real files, real child
// processes and the built shared library.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "kova_autoblock.h"
#include "kova_paths.h"
#include "kovadb.h"
#include "kovasharing/utils.h"
#include "kovatest.h"

namespace {

long Size(std::string const& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

ino_t Inode(std::string const& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

std::string Query(std::string const& path, char const* sql) {
  sqlite3* db = nullptr;
  std::string out = "<no database>";
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* stmt = nullptr;
    out = "<no row>";
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
      out = reinterpret_cast<char const*>(sqlite3_column_text(stmt, 0));
    }
    sqlite3_finalize(stmt);
  }
  sqlite3_close(db);
  return out;
}

}  // namespace

TEST(BenchFixes, ConnectionKeepsAnEmptiedLogBetweenProcesses) {
  kovatest::TempDir dir;
  std::string const path = dir.File("kept.db");
  kovatest::WriteFile(path, "");
  std::string const wal = path + "-wal";
  ino_t first_log = 0;
  for (int round = 1; round <= 3; ++round) {
    KOVADB* db = KOVADBConnect("", "", "", path.c_str());
    ASSERT_NE(nullptr, db);
    ASSERT_EQ(0, KOVADBExecute(db, "PRAGMA journal_mode = WAL;", nullptr));
    ASSERT_EQ(0, KOVADBExecute(db,
                               "CREATE TABLE IF NOT EXISTS t (v TEXT);"
                               "INSERT INTO t VALUES ('row');",
                               nullptr));
    EXPECT_GT(Size(wal), 0) << "the write went to the log";
    KOVADBClose(db);
    // The last connection folded the log into the database and emptied it; the file and its
    // index stay for the next process, the same inode every time.
    EXPECT_EQ(0, Size(wal)) << round;
    EXPECT_GE(Size(path + "-shm"), 0) << round;
    if (round == 1) first_log = Inode(wal);
    EXPECT_EQ(first_log, Inode(wal)) << round;
    EXPECT_EQ(std::to_string(round), Query(path, "SELECT COUNT(*) FROM t"));
  }
  EXPECT_EQ("ok", Query(path, "PRAGMA integrity_check"));
}

TEST(BenchFixes, FailedLoginStoreServesParentAndChildren) {
  char const ip[] = "198.51.100.77";
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  for (int i = 0; i < 9; ++i) ASSERT_EQ(0, AutoBlockFailLoginSet(ip, "SHARING"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip));
  // A child started after the parent's connection exists counts on the same store through a
  // connection of its own, and the parent sees the child's write.
  pid_t const pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0)
    _exit(AutoBlockFailLoginSet(ip, "SHARING") == 0 && KovaCgiIsDeniedIP(ip) == 1 ? 0 : 1);
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
  EXPECT_EQ(1, KovaCgiIsDeniedIP(ip));
  // A store replaced under the kept connection is opened again: the new, empty one counts.
  std::string const file = KOVA_AUTOBLOCK_DB_FILE;
  for (char const* suffix : {"", "-wal", "-shm"}) unlink((file + suffix).c_str());
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip));
  ASSERT_EQ(0, AutoBlockFailLoginSet(ip, "SHARING"));
  EXPECT_EQ("1", Query(file, "SELECT COUNT(*) FROM fail_login WHERE addr = '198.51.100.77'"));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  EXPECT_EQ("0", Query(file, "SELECT COUNT(*) FROM fail_login WHERE addr = '198.51.100.77'"));
}

TEST(BenchFixes, SharedLibraryLoadsDigestLibrariesOnFirstUse) {
  // The shared library's own list of needed libraries (read in a child that loads it: this
  // test program holds the same code in its layer objects and links libcrypto itself).
  pid_t const pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    void* lib = dlopen(KOVA_TEST_SHARING_LIBRARY, RTLD_LAZY | RTLD_LOCAL);
    link_map* map = nullptr;
    if (lib == nullptr || dlinfo(lib, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr) _exit(2);
    char const* strings = nullptr;
    for (ElfW(Dyn) const* d = map->l_ld; d->d_tag != DT_NULL; ++d) {
      if (d->d_tag == DT_STRTAB) strings = reinterpret_cast<char const*>(d->d_un.d_ptr);
    }
    if (strings == nullptr) _exit(3);
    int needed = 0;
    for (ElfW(Dyn) const* d = map->l_ld; d->d_tag != DT_NULL; ++d) {
      if (d->d_tag != DT_NEEDED) continue;
      ++needed;
      std::string const name = strings + d->d_un.d_val;
      if (name.find("libcrypto") != std::string::npos) _exit(4);
      if (name.find("libgcrypt") != std::string::npos) _exit(6);
    }
    _exit(needed >= 2 ? 0 : 5);  // at least the platform library and libc are listed
  }
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status))
      << "4: the shared library needs libcrypto when loaded; 6: it needs libgcrypt";
  // The digest itself still comes from libcrypto, opened on first use.
  std::string digest;
  ASSERT_TRUE(KOVA::sharing::MD5HashPassword("abc", digest));
  EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", digest);
  // The salted SHA-1 digest comes from libgcrypt, opened on first use: password, then salt.
  ASSERT_TRUE(KOVA::sharing::Sha1WithSaltHashPassword("ab", "c", digest));
  EXPECT_EQ("a9993e364706816aba3e25717850c26c9cd0d89d", digest);
  ASSERT_TRUE(KOVA::sharing::Sha1WithSaltHashPassword("", "", digest));
  EXPECT_EQ("da39a3ee5e6b4b0d3255bfef95601890afd80709", digest);
}
