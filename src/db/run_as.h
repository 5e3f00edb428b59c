// The privilege guard: switches the process's effective user and group ids for the length of
// a scope and restores them when the scope is left, whatever happened inside. The target
// group is the only group while switched. The guard holds the process's identity lock for
// its whole life (kova_identity.h), so threads take turns instead of undoing each other's
// switch.
#ifndef KOVASHARING_INTERNAL_RUN_AS_H
#define KOVASHARING_INTERNAL_RUN_AS_H

#include <kova_identity.h>
#include <stdint.h>
#include <unistd.h>

#include <optional>

namespace KOVA {
namespace sharing {

class RunAsScope {
 public:
  // `file` is the source file (__FILE__); only its base name is logged.
  RunAsScope(uint32_t uid, uint32_t gid, char const* file, int line, char const* name);
  ~RunAsScope();
  RunAsScope(RunAsScope const&) = delete;
  RunAsScope& operator=(RunAsScope const&) = delete;

  // True when the process now runs as the requested ids.
  bool IsSwitched() const { return switched_; }

 private:
  char const* file_;
  int line_;
  char const* name_;
  KovaIdentity saved_;  // what the switch saved, for the restore (declared before switched_)
  bool switched_;
};

// Holds the system account across the database work of a whole visitor call when the caller
// is root, so that the guard of each statement inside finds it already in place instead of
// switching and restoring the identity around every statement. Leave() gives the caller its
// own identity (and the identity lock) back for work that must run as the caller, such as an
// account login; Enter() takes the system account again. Any other caller works as itself,
// and the statement guards decide as they always do.
class SystemSpan {
 public:
  SystemSpan() { Enter(); }
  void Enter() {
    if (!scope_ && geteuid() == 0) {
      scope_.emplace(KOVA_SYSTEM_UID, KOVA_SYSTEM_GID, __FILE__, __LINE__, "SystemSpan");
    }
  }
  void Leave() { scope_.reset(); }

 private:
  std::optional<RunAsScope> scope_;
};

}  // namespace sharing
}  // namespace KOVA

// Declares the guard `run_as_scope` in the current scope; the caller tests
// `run_as_scope.IsSwitched()` and gives up when it is false. One guard per block.
#define IF_RUN_AS(uid, gid) \
  ::KOVA::sharing::RunAsScope run_as_scope((uid), (gid), __FILE__, __LINE__, "IF_RUN_AS")

#endif
