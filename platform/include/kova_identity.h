/* The process's effective identity, which all its threads share, and the one way to switch
 * it. Whoever switches holds the identity lock until the identity is back, so that two
 * threads of one program never save and restore each other's switched identity; the lock is
 * recursive, so a switch inside a switch on the same thread is fine. While switched, the
 * process keeps only the target group: the supplementary groups of a root caller would
 * otherwise open files that the target account may not read. */
#ifndef KOVA_IDENTITY_H
#define KOVA_IDENTITY_H

#include <sys/types.h>

#include "kova_platform_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The appliance's system account, which owns its private state files. */
#define KOVA_SYSTEM_UID 1
#define KOVA_SYSTEM_GID 1

KOVA_PLATFORM_EXPORT void KovaIdentityLock(void);
KOVA_PLATFORM_EXPORT void KovaIdentityUnlock(void);

/* What a switch saved, for its restore. */
typedef struct KovaIdentity {
  uid_t uid; /* effective ids before the switch */
  gid_t gid;
  int groups_saved; /* the supplementary groups were replaced and must be put back */
} KovaIdentity;

/* With the lock held: saves the effective ids into *saved, then, unless they already are
 * uid:gid, regains root when needed, makes `gid` the only group, sets the group and then the
 * user (after giving up root the group could no longer change). Returns 1 when the process
 * now runs as uid:gid, 0 when a step failed; KovaIdentityRestore must follow either way. */
KOVA_PLATFORM_EXPORT int KovaIdentitySwitch(uid_t uid, gid_t gid, KovaIdentity* saved);

/* With the lock held: puts back the ids and groups saved by KovaIdentitySwitch, also after
 * a switch that failed half-way. Returns 1, or 0 when a step failed. */
KOVA_PLATFORM_EXPORT int KovaIdentityRestore(KovaIdentity* saved);

#ifdef __cplusplus
}
#endif

#endif
