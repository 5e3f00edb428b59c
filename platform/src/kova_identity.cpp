// The identity lock and the one implementation of an identity switch; see kova_identity.h.
#include "kova_identity.h"

#include <grp.h>
#include <kova_log.h>
#include <unistd.h>

#include <mutex>
#include <vector>

#include "system_identity.h"

namespace {

std::recursive_mutex& Lock() {
  static std::recursive_mutex* lock = new std::recursive_mutex;  // outlives every static
  return *lock;
}

// One list per switch that replaced the groups, the latest last; guarded by the lock.
std::vector<std::vector<gid_t>>& SavedGroups() {
  static auto* saved = new std::vector<std::vector<gid_t>>;
  return *saved;
}

// Only root may do it: saves the supplementary groups and leaves `gid` as the only one.
// 1 saved, 0 not root (nothing to do), -1 failed (nothing changed).
int SaveGroups(gid_t gid) {
  if (geteuid() != 0) return 0;
  try {
    std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr) + 1));
    int const count = getgroups(static_cast<int>(groups.size()), groups.data());
    if (count < 0) return -1;
    groups.resize(static_cast<size_t>(count));
    if (setgroups(1, &gid) != 0) return -1;
    SavedGroups().push_back(std::move(groups));
  } catch (...) {
    return -1;
  }
  return 1;
}

// The ids the latest switch that is still in force set, so that a switch to the same ids inside
// it, and its restore, cost no system call. Read and written only under the lock, and forgotten
// by every restore that changes ids: the caller's own code may change them once the lock is
// free.
struct Known {
  bool valid;
  uid_t uid;
  gid_t gid;
};
Known g_known = {false, 0, 0};

// Puts back the latest saved groups (forgotten all the same when they cannot be set).
bool RestoreGroups() {
  if (SavedGroups().empty()) return false;
  std::vector<gid_t> const groups = std::move(SavedGroups().back());
  SavedGroups().pop_back();
  return setgroups(groups.size(), groups.data()) == 0;
}

}  // namespace

extern "C" {

void KovaIdentityLock(void) { Lock().lock(); }
void KovaIdentityUnlock(void) { Lock().unlock(); }

int KovaIdentitySwitch(uid_t uid, gid_t gid, KovaIdentity* saved) {
  if (g_known.valid && g_known.uid == uid && g_known.gid == gid) {
    *saved = {uid, gid, 0};
    return 1;
  }
  g_known.valid = false;  // until this switch is known to have succeeded
  saved->uid = geteuid();
  saved->gid = getegid();
  saved->groups_saved = 0;
  if (saved->uid == uid && saved->gid == gid) return 1;
  // Root is needed to change the group, and to go from one unprivileged id to another.
  bool ok = saved->uid == 0 || saved->uid == uid || setresuid(-1, 0, -1) == 0;
  if (ok) {
    int const groups = SaveGroups(gid);
    ok = groups >= 0;
    saved->groups_saved = groups == 1;
  }
  ok = ok && (getegid() == gid || setresgid(-1, gid, -1) == 0);
  ok = ok && (geteuid() == uid || setresuid(-1, uid, -1) == 0);
  if (ok) {
    g_known = {true, uid, gid};
    return 1;
  }
  // Still root whenever the groups were replaced: they go back at once.
  if (saved->groups_saved && geteuid() == 0) {
    RestoreGroups();
    saved->groups_saved = 0;
  }
  return 0;
}

int KovaIdentityRestore(KovaIdentity* saved) {
  if (g_known.valid && g_known.uid == saved->uid && g_known.gid == saved->gid &&
      !saved->groups_saved) {
    return 1;  // a switch inside one to the same ids: nothing was changed
  }
  g_known.valid = false;
  uid_t const uid = geteuid();
  if (uid == saved->uid && getegid() == saved->gid && !saved->groups_saved) return 1;
  if (saved->uid != uid && uid != 0 && setresuid(-1, 0, -1) != 0) return 0;
  if (saved->groups_saved) {
    saved->groups_saved = 0;
    if (!RestoreGroups()) return 0;
  }
  if (saved->gid != static_cast<gid_t>(-1) && saved->gid != getegid() &&
      setresgid(-1, saved->gid, -1) != 0) {
    return 0;
  }
  return saved->uid == static_cast<uid_t>(-1) || saved->uid == geteuid() ||
         setresuid(-1, saved->uid, -1) == 0;
}

}  // extern "C"

namespace kova {

SystemIdentity::SystemIdentity() {
  KovaIdentityLock();  // before the identity is read: another thread may be switching it
  // Only root may switch; anybody else works as itself.
  if (geteuid() != 0 && (geteuid() != KOVA_SYSTEM_UID || getegid() != KOVA_SYSTEM_GID)) {
    saved_ = {geteuid(), getegid(), 0};
    return;
  }
  // A switch that fails half-way is undone at once: the caller then works as itself.
  if (KovaIdentitySwitch(KOVA_SYSTEM_UID, KOVA_SYSTEM_GID, &saved_) != 1) Restore();
}

SystemIdentity::~SystemIdentity() {
  Restore();
  KovaIdentityUnlock();
}

void SystemIdentity::Restore() {
  if (KovaIdentityRestore(&saved_) != 1) {
    KOVA_LOG_PID("kova_identity", __LINE__, "cannot restore identity %u:%u, err=%m",
                 (unsigned)saved_.uid, (unsigned)saved_.gid);
  }
}

}  // namespace kova
