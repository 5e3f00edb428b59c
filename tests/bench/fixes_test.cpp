// The per-request savings of the platform layer and the build, on real files, real child
// processes and the built shared library.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <string>

#include "kova_autoblock.h"
#include "kova_paths.h"
#include "kovadb.h"
#include "kovasharing/utils.h"
#include "kovatest_db.h"

namespace {

std::string Stat(std::string const& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? std::to_string(st.st_size) + "@" + std::to_string(st.st_ino)
                                      : "none";
}

TEST(BenchFixes, ConnectionKeepsAnEmptiedLogBetweenProcesses) {
  kovatest::TempDir dir;
  std::string const path = dir.File("kept.db"), wal = path + "-wal";
  kovatest::WriteFile(path, "");
  std::string first;
  for (int round = 1; round <= 3; ++round) {
    KOVADB* db = KOVADBConnect("", "", "", path.c_str());
    ASSERT_EQ(
        0,
        KOVADBExecute(
            db,
            "PRAGMA journal_mode = WAL;CREATE TABLE IF NOT EXISTS t (v);INSERT INTO t VALUES (1);",
            nullptr));
    std::string const during = Stat(wal);
    EXPECT_TRUE(during != "none" && during.substr(0, 2) != "0@") << "the write went to the log";
    KOVADBClose(db);
    // The last connection folded the log in and emptied it; the same file stays for the next.
    if (round == 1) first = Stat(wal);
    EXPECT_EQ("0@", first.substr(0, 2));
    EXPECT_EQ(first, Stat(wal)) << round;
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
              return std::to_string(AutoBlockFailLoginSet(ip, "SHARING")) + " " +
                     std::to_string(KovaCgiIsDeniedIP(ip));
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

TEST(BenchFixes, SharedLibraryLoadsDigestLibrariesOnFirstUse) {
  // The shared library's own needed libraries, read in a child that loads it (this program
  // holds the same code in its layer objects and links libcrypto itself).
  EXPECT_EQ("", kovatest::ChildText([] {
              void* lib = dlopen(KOVA_TEST_SHARING_LIBRARY, RTLD_LAZY | RTLD_LOCAL);
              link_map* map = nullptr;
              if (lib == nullptr || dlinfo(lib, RTLD_DI_LINKMAP, &map) != 0)
                return std::string("no library");
              char const* strings = nullptr;
              for (ElfW(Dyn) const* d = map->l_ld; d->d_tag != DT_NULL; ++d) {
                if (d->d_tag == DT_STRTAB) strings = reinterpret_cast<char const*>(d->d_un.d_ptr);
              }
              std::string needed;
              for (ElfW(Dyn) const* d = map->l_ld; d->d_tag != DT_NULL; ++d) {
                std::string const name =
                    d->d_tag == DT_NEEDED && strings ? strings + d->d_un.d_val : "";
                if (name.find("crypt") != std::string::npos) needed += name + " ";
              }
              return needed;
            }));
  // The digests still come from libcrypto and libgcrypt, opened on first use.
  std::string digest;
  ASSERT_TRUE(KOVA::sharing::MD5HashPassword("abc", digest));
  EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", digest);
  ASSERT_TRUE(KOVA::sharing::Sha1WithSaltHashPassword("ab", "c", digest));
  EXPECT_EQ("a9993e364706816aba3e25717850c26c9cd0d89d", digest);
}

}  // namespace
