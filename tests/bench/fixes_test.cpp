// The build keeps the platform library carrying the pinned SQLite itself, not a system one.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

TEST(BenchFixes, PlatformLibraryCarriesThePinnedSQLite) {
  std::string const pinned = KOVA_TEST_SQLITE_VERSION;
  if (pinned.empty()) GTEST_SKIP() << "built against the system SQLite";
  EXPECT_EQ(pinned, sqlite3_libversion());
  void* handle = dlopen(KOVA_TEST_PLATFORM_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  auto version =
      handle ? reinterpret_cast<char const* (*)()>(dlsym(handle, "sqlite3_libversion")) : nullptr;
  ASSERT_NE(nullptr, version) << dlerror();
  EXPECT_EQ(pinned, version());
  dlclose(handle);
}
