#include "db/run_as.h"

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

// The identity lock is held from before the identity is saved until it is restored.
RunAsScope::RunAsScope(uint32_t uid, uint32_t gid, char const* file, int line, char const* name)
    : file_(file),
      line_(line),
      name_(name),
      switched_((KovaIdentityLock(), KovaIdentitySwitch(uid, gid, &saved_) == 1)) {
  if (!switched_) {
    syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: %s(%d, %d)", BaseName(file_).c_str(), line_, name_,
           static_cast<int>(uid), static_cast<int>(gid));
  }
}

// Restores also when the switch failed: it may have changed the group before it failed.
RunAsScope::~RunAsScope() {
  if (KovaIdentityRestore(&saved_) != 1) {
    syslog(LOG_AUTH | LOG_CRIT, "%s:%d ERROR: ~%s(%d, %d)", BaseName(file_).c_str(), line_, name_,
           static_cast<int>(saved_.uid), static_cast<int>(saved_.gid));
  }
  KovaIdentityUnlock();
}

}  // namespace sharing
}  // namespace KOVA
