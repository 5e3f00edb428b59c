// The privilege guard: switches the process's effective user and group ids for the length of
// a scope and restores them when the scope is left, whatever happened inside. The target
// group is the only group while switched. The guard holds the process's identity lock for
// its whole life (kova_identity.h), so threads take turns instead of undoing each other's
// switch.
#ifndef KOVASHARING_INTERNAL_RUN_AS_H
#define KOVASHARING_INTERNAL_RUN_AS_H

#include <kova_identity.h>
#include <stdint.h>

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
  uint32_t saved_uid_;
  uint32_t saved_gid_;
  char const* file_;
  int line_;
  char const* name_;
  KovaIdentity saved_;  // what the switch saved, for the restore (declared before switched_)
  bool switched_;
};

}  // namespace sharing
}  // namespace KOVA

// Declares the guard `run_as_scope` in the current scope; the caller tests
// `run_as_scope.IsSwitched()` and gives up when it is false. One guard per block.
#define IF_RUN_AS(uid, gid) \
  ::KOVA::sharing::RunAsScope run_as_scope((uid), (gid), __FILE__, __LINE__, "IF_RUN_AS")

#endif
