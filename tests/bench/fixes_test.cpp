// The per-request savings of the platform layer and the build, on real files, real child
// processes and the built shared libraries.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "kova_autoblock.h"
#include "kova_paths.h"
#include "kovadb.h"
#include "kovatest_db.h"

namespace {

TEST(BenchFixes, ConnectionKeepsAnEmptiedLogBetweenProcesses) {
  kovatest::TempDir dir;
  std::string const path = dir.File("kept.db"), wal = path + "-wal";
  auto size_inode = [&wal] {
    struct stat st;
    return stat(wal.c_str(), &st) == 0
               ? std::to_string(st.st_size) + "@" + std::to_string(st.st_ino)
               : "none";
  };
  kovatest::WriteFile(path, "");
  std::string first;
  for (int round = 1; round <= 3; ++round) {
    KOVADB* db = KOVADBConnect("", "", "", path.c_str());
    ASSERT_EQ(0, KOVADBExecute(db,
                               "PRAGMA journal_mode = WAL;CREATE TABLE IF NOT EXISTS t (v);"
                               "INSERT INTO t VALUES (1);",
                               nullptr));
    std::string const during = size_inode();
    EXPECT_TRUE(during != "none" && during.substr(0, 2) != "0@") << "the write went to the log";
    KOVADBClose(db);
    // The last connection folded the log in and emptied it; the same file stays for the next.
    if (round == 1) first = size_inode();
    EXPECT_EQ("0@", first.substr(0, 2));
    EXPECT_EQ(first, size_inode()) << round;
    EXPECT_EQ(std::to_string(round), kovatest::Sql(path, "SELECT COUNT(*) FROM t"));
  }
}

TEST(BenchFixes, FailedLoginStoreServesParentAndChildren) {
  char const ip[] = "198.51.100.77";
  std::string const count = "SELECT COUNT(*) FROM fail_login WHERE addr = '198.51.100.77'";
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  for (int i = 0; i < 9; ++i) ASSERT_EQ(0, AutoBlockFailLoginSet(ip, "SHARING"));
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip));
  // A child counts through a connection of its own, and the parent sees the child's write.
  EXPECT_EQ("0 1", kovatest::ChildText([&] {
              std::string const set = std::to_string(AutoBlockFailLoginSet(ip, "SHARING"));
              return set + " " + std::to_string(KovaCgiIsDeniedIP(ip));
            }));
  EXPECT_EQ(1, KovaCgiIsDeniedIP(ip));
  // A store replaced under the kept connection is opened again: the new, empty one counts.
  std::string const file = KOVA_AUTOBLOCK_DB_FILE;
  for (char const* suffix : {"", "-wal", "-shm"}) unlink((file + suffix).c_str());
  EXPECT_EQ(0, KovaCgiIsDeniedIP(ip));
  ASSERT_EQ(0, AutoBlockFailLoginSet(ip, "SHARING"));
  EXPECT_EQ("1", kovatest::Sql(file, count));
  ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(ip));
  EXPECT_EQ("0", kovatest::Sql(file, count));
}

// Neither libcrypto nor libgcrypt is among the libraries the shared library needs: each is
// opened on the first digest of its kind (the utility tests compute both). The platform library
// carries the pinned SQLite itself and needs no libsqlite3.
TEST(BenchFixes, SharedLibrariesNeedNoDigestLibraryNorSQLite) {
  std::string const pinned = KOVA_TEST_SQLITE_VERSION;
  EXPECT_EQ(pinned.empty() ? SQLITE_VERSION : pinned, std::string(sqlite3_libversion()));
  kovatest::TempDir dir;
  for (auto [library, unwanted] : {std::pair{KOVA_TEST_SHARING_LIBRARY, "crypt"},
                                   {KOVA_TEST_PLATFORM_LIBRARY, "libsqlite3"}}) {
    if (pinned.empty() && std::string(unwanted) == "libsqlite3") continue;
    ASSERT_EQ(0, kovatest::Shell(std::string("env -u LD_PRELOAD readelf -d '") + library + "' >" +
                                 dir.File("d")));
    std::string const dynamic = kovatest::ReadFile(dir.File("d"));
    EXPECT_NE(std::string::npos, dynamic.find("(NEEDED)")) << library;
    EXPECT_EQ(std::string::npos, dynamic.find(unwanted)) << dynamic;
  }
  if (pinned.empty()) return;
  void* handle = dlopen(KOVA_TEST_PLATFORM_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  auto version =
      handle ? reinterpret_cast<char const* (*)()>(dlsym(handle, "sqlite3_libversion")) : nullptr;
  ASSERT_NE(nullptr, version) << dlerror();
  EXPECT_EQ(pinned, version());
  dlclose(handle);
}

}  // namespace
