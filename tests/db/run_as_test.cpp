// The privilege guard under threads and with supplementary groups: the identity is the whole
// process's, so threads must take turns, and the groups of a root caller must not follow it
// into the system account.
#include "db/run_as.h"

#include <fcntl.h>
#include <grp.h>
#include <kova_autoblock.h>

#include <atomic>
#include <thread>
#include <vector>

#include "db_test_util.h"

namespace {

std::string Groups() {
  gid_t list[64];
  int const n = getgroups(64, list);
  std::string out;
  for (int i = 0; i < n; ++i) out += (i ? "," : "") + std::to_string(list[i]);
  return out;
}

TEST(RunAs, ThreadsTakeTurnsAndLeaveTheProcessAsItWas) {
  KOVA_REQUIRE_ROOT();
  // Each guard checks, while it is in force, that the process is who it asked for; one thread
  // goes through the platform's own guard (the failed-login store) at the same time.
  EXPECT_EQ("0 wrong, 0:0", dbtest::InChild([] {
              std::atomic<int> wrong{0};
              std::vector<std::thread> threads;
              for (unsigned id : {1u, 1u, 0u}) {
                threads.emplace_back([id, &wrong] {
                  for (int i = 0; i < 300; ++i) {
                    IF_RUN_AS(id, id);
                    if (!run_as_scope.IsSwitched() || geteuid() != id || getegid() != id) ++wrong;
                  }
                });
              }
              threads.emplace_back([] {
                for (int i = 0; i < 100; ++i) KovaCgiIsDeniedIP("192.0.2.99");
              });
              for (auto& t : threads) t.join();
              return std::to_string(wrong.load()) + " wrong, " + dbtest::Ids();
            }));
}

TEST(RunAs, OnlyTheTargetGroupWhileSwitched) {
  KOVA_REQUIRE_ROOT();
  kovatest::TempDir dir;
  std::string const secret = dir.File("group7");
  kovatest::WriteFile(secret, "x");
  ASSERT_EQ(0, chown(secret.c_str(), 0, 7));
  ASSERT_EQ(0, chmod(secret.c_str(), 0060));
  EXPECT_EQ("1:1 1 denied | 0:0 0,7", dbtest::InChild([&secret] {
              gid_t const mine[] = {0, 7};
              if (setgroups(2, mine) != 0) return std::string("setgroups");
              std::string seen;
              {
                IF_RUN_AS(1, 1);
                int const fd = open(secret.c_str(), O_RDONLY);
                seen = dbtest::Ids() + " " + Groups() + (fd < 0 ? " denied" : " opened");
                if (fd >= 0) close(fd);
              }
              return seen + " | " + dbtest::Ids() + " " + Groups();
            }));
}

}  // namespace
