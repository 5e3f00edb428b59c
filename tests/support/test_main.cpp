// Common main: prepares the test root and fails the run if a test leaves another identity.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "kova_paths.h"
#include "kovatest.h"

namespace {

class IdentityWatch : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(testing::TestInfo const&) override {
    uid_ = geteuid();
    gid_ = getegid();
  }
  void OnTestEnd(testing::TestInfo const& info) override {
    if (geteuid() == uid_ && getegid() == gid_) return;
    fprintf(stderr, "IDENTITY CHANGED by %s.%s: euid %u->%u egid %u->%u\n", info.test_suite_name(),
            info.name(), uid_, geteuid(), gid_, getegid());
    changed = true;
    if (setresgid(-1, gid_, -1) != 0 || setresuid(-1, uid_, -1) != 0) perror("restore");
  }
  bool changed = false;

 private:
  uid_t uid_ = 0;
  gid_t gid_ = 0;
};

void PrepareRoot() {
  std::string const root = KOVA_ROOT_PREFIX;
  if (root.empty() || root.compare(0, 5, "/tmp/") != 0) {
    fprintf(stderr, "refusing to run: KOVA_ROOT (%s) is not a test directory under /tmp\n",
            root.c_str());
    exit(2);
  }
  std::string const dir = root + "/usr/kova/etc/private/session/sharing";
  std::filesystem::create_directories(dir);
  if (geteuid() == 0 && chown(dir.c_str(), 1, 1) != 0) perror(dir.c_str());
  chmod(dir.c_str(), 0770);
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  PrepareRoot();
  auto* watch = new IdentityWatch;
  testing::UnitTest::GetInstance()->listeners().Append(watch);
  int const rc = RUN_ALL_TESTS();
  return (rc != 0 || watch->changed) ? 1 : 0;
}
