// The identity lock and the saved supplementary groups; see kova_identity.h.
#include "kova_identity.h"

#include <grp.h>
#include <syslog.h>
#include <unistd.h>

#include <mutex>
#include <vector>

#include "system_identity.h"

namespace {

std::recursive_mutex& Lock() {
  static std::recursive_mutex* lock = new std::recursive_mutex;  // outlives every static
  return *lock;
}

// One list per switch that saved groups, the latest last; guarded by the identity lock.
std::vector<std::vector<gid_t>>& Saved() {
  static auto* saved = new std::vector<std::vector<gid_t>>;
  return *saved;
}

uid_t const kSystemUid = 1;
gid_t const kSystemGid = 1;

}  // namespace

extern "C" {

void KovaIdentityLock(void) { Lock().lock(); }
void KovaIdentityUnlock(void) { Lock().unlock(); }

int KovaGroupsSave(gid_t gid) {
  if (geteuid() != 0) return 0;
  try {
    std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr) + 1));
    int const count = getgroups(static_cast<int>(groups.size()), groups.data());
    if (count < 0) return -1;
    groups.resize(static_cast<size_t>(count));
    if (setgroups(1, &gid) != 0) return -1;
    Saved().push_back(std::move(groups));
  } catch (...) {
    return -1;
  }
  return 1;
}

int KovaGroupsRestore(void) {
  if (Saved().empty()) return -1;
  std::vector<gid_t> const groups = std::move(Saved().back());
  Saved().pop_back();
  return setgroups(groups.size(), groups.data()) == 0 ? 0 : -1;
}

}  // extern "C"

namespace kova {

SystemIdentity::SystemIdentity() {
  KovaIdentityLock();  // before the identity is read: another thread may be switching it
  euid_ = geteuid();
  egid_ = getegid();
  if (euid_ == kSystemUid && egid_ == kSystemGid) return;
  if (euid_ != 0) return;  // only root may switch; anybody else works as itself
  groups_saved_ = KovaGroupsSave(kSystemGid) == 1;
  if (setresgid(-1, kSystemGid, -1) == 0) {
    if (setresuid(-1, kSystemUid, -1) == 0) {
      switched_ = true;
      return;
    }
    setresgid(-1, egid_, -1);  // as root this cannot fail
  }
  if (groups_saved_) KovaGroupsRestore();
  groups_saved_ = false;
}

SystemIdentity::~SystemIdentity() {
  if (switched_) {
    // Back to root first: only root may set the groups and the group id.
    if (setresuid(-1, euid_, -1) != 0 || setresgid(-1, egid_, -1) != 0 ||
        (groups_saved_ && KovaGroupsRestore() != 0)) {
      syslog(LOG_ERR, "kova_identity:%d (%u) cannot restore identity %u:%u, err=%m", __LINE__,
             (unsigned)getpid(), (unsigned)euid_, (unsigned)egid_);
    }
  }
  KovaIdentityUnlock();
}

}  // namespace kova
