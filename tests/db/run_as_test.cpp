// The privilege guard with real setresuid/setresgid: switching, restoring, and both failure
// lines when a switch or a restore cannot be made.
#include "internal/run_as.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "db_test_util.h"
#include "kovatest.h"

namespace {

using dbtest::HasLine;

TEST(RunAs, SwitchesAndRestores) {
  KOVA_REQUIRE_ROOT();
  kovatest::ClearLogs();
  {
    IF_RUN_AS(1, 1);
    EXPECT_TRUE(run_as_scope.IsSwitched());
    EXPECT_EQ(1u, geteuid());
    EXPECT_EQ(1u, getegid());
    EXPECT_EQ(0u, getuid()) << "only the effective ids change";
  }
  EXPECT_EQ(0u, geteuid());
  EXPECT_EQ(0u, getegid());

  {  // already there: nothing to do
    IF_RUN_AS(0, 0);
    EXPECT_TRUE(run_as_scope.IsSwitched());
  }

  // From one unprivileged identity to another: root is regained in between, and the first
  // identity comes back afterwards.
  ASSERT_EQ(0, setresgid(-1, 5, -1));
  ASSERT_EQ(0, setresuid(-1, 5, -1));
  {
    IF_RUN_AS(1, 1);
    EXPECT_TRUE(run_as_scope.IsSwitched());
    EXPECT_EQ(1u, geteuid());
    EXPECT_EQ(1u, getegid());
  }
  EXPECT_EQ(5u, geteuid());
  EXPECT_EQ(5u, getegid());
  ASSERT_EQ(0, setresuid(-1, 0, -1));
  ASSERT_EQ(0, setresgid(-1, 0, -1));
  EXPECT_TRUE(kovatest::Logs().empty());
}

TEST(RunAs, FailedSwitchLogsAndLeavesTheIdentity) {
  KOVA_REQUIRE_ROOT();
  kovatest::ClearLogs();
  // Effective uid 1 with group 2: the group can no longer be changed, and the user is already
  // the target, so root is not regained.
  ASSERT_EQ(0, setresgid(-1, 2, -1));
  ASSERT_EQ(0, setresuid(-1, 1, -1));
  int line = 0;
  {
    // clang-format off
    IF_RUN_AS(1, 1); line = __LINE__;
    // clang-format on
    EXPECT_FALSE(run_as_scope.IsSwitched());
    EXPECT_EQ(1u, geteuid());
    EXPECT_EQ(2u, getegid());
  }
  EXPECT_EQ(1u, geteuid());
  EXPECT_EQ(2u, getegid());
  ASSERT_EQ(0, setresuid(-1, 0, -1));
  ASSERT_EQ(0, setresgid(-1, 0, -1));
  auto const logs = kovatest::Logs();
  ASSERT_EQ(1u, logs.size());
  EXPECT_EQ("run_as_test:" + std::to_string(line) + " ERROR: IF_RUN_AS(1, 1)", logs[0].text);
  EXPECT_EQ(LOG_AUTH | LOG_ERR, logs[0].priority);
}

TEST(RunAs, RestoreFailureIsLoggedAsCritical) {
  KOVA_REQUIRE_ROOT();
  // The child gives up root for good inside the guard, so leaving it cannot restore uid 0.
  int const rc = dbtest::InChild([] {
    kovatest::ClearLogs();
    int line = 0;
    {
      // clang-format off
      IF_RUN_AS(1, 1); line = __LINE__;
      // clang-format on
      if (!run_as_scope.IsSwitched()) return 1;
      if (setresuid(1, 1, 1) != 0) return 2;
    }
    if (geteuid() != 1) return 3;
    std::string const want = "run_as_test:" + std::to_string(line) + " ERROR: ~IF_RUN_AS(0, 0)";
    if (!HasLine("run_as_test", " ERROR: ~IF_RUN_AS(0, 0)", LOG_AUTH | LOG_CRIT)) return 4;
    if (kovatest::Logs().size() != 1 || kovatest::Logs()[0].text != want) return 5;
    return 0;
  });
  EXPECT_EQ(0, rc);
}

TEST(RunAs, NoWayBackToRootFails) {
  KOVA_REQUIRE_ROOT();
  int const rc = dbtest::InChild([] {
    if (!dbtest::DropForGood(2)) return 1;
    kovatest::ClearLogs();
    {
      IF_RUN_AS(1, 1);
      if (run_as_scope.IsSwitched()) return 2;
    }
    if (geteuid() != 2 || getegid() != 2) return 3;
    if (!HasLine("run_as_test", " ERROR: IF_RUN_AS(1, 1)", LOG_AUTH | LOG_ERR)) return 4;
    if (kovatest::Logs().size() != 1) return 5;  // nothing to restore, so no second line
    return 0;
  });
  EXPECT_EQ(0, rc);
}

}  // namespace
