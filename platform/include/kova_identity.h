/* The process's effective identity, which all its threads share. Whoever switches it holds
 * the identity lock until it has put the identity back, so that two threads of one program
 * never save and restore each other's switched identity; the lock is recursive, so a switch
 * inside a switch on the same thread is fine. While switched, the process keeps only the
 * target group: the supplementary groups of a root caller would otherwise open files that
 * the target account may not read. */
#ifndef KOVA_IDENTITY_H
#define KOVA_IDENTITY_H

#include <sys/types.h>

#include "kova_platform_export.h"

#ifdef __cplusplus
extern "C" {
#endif

KOVA_PLATFORM_EXPORT void KovaIdentityLock(void);
KOVA_PLATFORM_EXPORT void KovaIdentityUnlock(void);

/* With the lock held and the effective user root: saves the supplementary groups and leaves
 * `gid` as the only one. Returns 1 when saved (KovaGroupsRestore must follow, once), 0 when
 * the caller is not root (nothing to do), -1 on failure (nothing changed). */
KOVA_PLATFORM_EXPORT int KovaGroupsSave(gid_t gid);

/* With the lock held and the effective user root: puts back the groups of the latest
 * KovaGroupsSave. Returns 0, or -1 when they cannot be set (they are forgotten all the same). */
KOVA_PLATFORM_EXPORT int KovaGroupsRestore(void);

#ifdef __cplusplus
}
#endif

#endif
