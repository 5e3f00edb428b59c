#include "internal/run_as.h"

#include <kova_identity.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace KOVA {
namespace sharing {

namespace {

// "src/db/base_db.cpp" -> "base_db", the name the rest of the library logs under.
std::string BaseName(char const* file) {
  if (file == nullptr) return "";
  char const* slash = std::strrchr(file, '/');
  std::string name = slash != nullptr ? slash + 1 : file;
  std::string::size_type const dot = name.rfind('.');
  if (dot != std::string::npos && dot > 0) name.erase(dot);
  return name;
}

}  // namespace

// The identity lock is taken before the identity is saved (the first initialiser).
RunAsScope::RunAsScope(uint32_t uid, uint32_t gid, char const* file, int line, char const* name)
    : saved_uid_((KovaIdentityLock(), geteuid())),
      saved_gid_(getegid()),
      file_(file),
      line_(line),
      name_(name),
      switched_(false) {
  if (saved_uid_ == uid && saved_gid_ == gid) {
    switched_ = true;
    return;
  }
  bool ok = true;
  // Root is needed to change the group, and to go from one unprivileged id to another.
  if (saved_uid_ != 0 && saved_uid_ != uid) {
    ok = setresuid(-1, 0, -1) == 0;
  }
  // The target group becomes the only group: a root caller's supplementary groups must not
  // open what the target account could not.
  if (ok) {
    int const saved = KovaGroupsSave(gid);
    ok = saved >= 0;
    groups_saved_ = saved == 1;
  }
  // The group first: once root is given up it could no longer be changed.
  if (ok && getegid() != gid) {
    ok = setresgid(-1, gid, -1) == 0;
  }
  if (ok && geteuid() != uid) {
    ok = setresuid(-1, uid, -1) == 0;
  }
  if (ok) {
    switched_ = true;
    return;
  }
  // Still root here whenever the groups were changed: they go back at once.
  if (groups_saved_ && geteuid() == 0) {
    KovaGroupsRestore();
    groups_saved_ = false;
  }
  syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: %s(%d, %d)", BaseName(file_).c_str(), line_, name_,
         static_cast<int>(uid), static_cast<int>(gid));
}

RunAsScope::~RunAsScope() {
  if (!Restore()) {
    syslog(LOG_AUTH | LOG_CRIT, "%s:%d ERROR: ~%s(%d, %d)", BaseName(file_).c_str(), line_, name_,
           static_cast<int>(saved_uid_), static_cast<int>(saved_gid_));
  }
  KovaIdentityUnlock();
}

bool RunAsScope::Restore() {
  uid_t const uid = geteuid();
  gid_t const gid = getegid();
  if (uid == saved_uid_ && gid == saved_gid_ && !groups_saved_) {
    return true;
  }
  if (saved_uid_ != uid && uid != 0 && setresuid(-1, 0, -1) != 0) {
    return false;
  }
  if (groups_saved_) {
    groups_saved_ = false;
    if (KovaGroupsRestore() != 0) return false;
  }
  if (saved_gid_ != static_cast<uint32_t>(-1) && saved_gid_ != getegid() &&
      setresgid(-1, saved_gid_, -1) != 0) {
    return false;
  }
  return saved_uid_ == static_cast<uint32_t>(-1) || saved_uid_ == geteuid() ||
         setresuid(-1, saved_uid_, -1) == 0;
}

}  // namespace sharing
}  // namespace KOVA
