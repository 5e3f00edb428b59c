// The platform's guard around its own private state files (the failed-login store): they are
// used as the system account when the caller is root, and the caller's identity, with its
// supplementary groups, is back when the guard goes. The switch is the one of
// kova_identity.h, and the guard holds the identity lock for its whole life. A caller that is
// not root works as itself.
#ifndef KOVA_PLATFORM_SYSTEM_IDENTITY_H
#define KOVA_PLATFORM_SYSTEM_IDENTITY_H

#include "kova_identity.h"

namespace kova {

class SystemIdentity {
 public:
  SystemIdentity();
  ~SystemIdentity();
  SystemIdentity(SystemIdentity const&) = delete;
  SystemIdentity& operator=(SystemIdentity const&) = delete;

 private:
  void Restore();

  KovaIdentity saved_ = {0, 0, 0};
};

}  // namespace kova

#endif
