// The platform's own privilege guard: work on the appliance's private state files (the
// failed-login store) runs as the system account when the caller is root, and the caller's
// identity, with its supplementary groups, is back when the guard goes. It holds the identity
// lock (kova_identity.h) for its whole life. A caller that is not root works as itself.
#ifndef KOVA_PLATFORM_SYSTEM_IDENTITY_H
#define KOVA_PLATFORM_SYSTEM_IDENTITY_H

#include <sys/types.h>

namespace kova {

class SystemIdentity {
 public:
  SystemIdentity();
  ~SystemIdentity();
  SystemIdentity(SystemIdentity const&) = delete;
  SystemIdentity& operator=(SystemIdentity const&) = delete;

 private:
  uid_t euid_;
  gid_t egid_;
  bool switched_ = false;
  bool groups_saved_ = false;
};

}  // namespace kova

#endif
