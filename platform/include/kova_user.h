/* User and group database of the appliance, over NSS (reentrant calls). */
#ifndef KOVA_USER_H
#define KOVA_USER_H

#include <stddef.h>

#include "kova_platform_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct KOVAUSER {
  char* name;       /* login name */
  unsigned int uid; /* user id */
  unsigned int gid; /* primary group id */
  char* home;
  char* shell;
} KOVAUSER;

typedef struct KOVAGROUP {
  char* name;
  unsigned int gid;
} KOVAGROUP;

typedef struct KLIBCSzHashEntry {
  char* name;
  char* value;
} KLIBCSzHashEntry;

typedef struct KLIBCSzHash {
  int count;                 /* number of entries */
  KLIBCSzHashEntry* entries; /* `count` entries */
} KLIBCSzHash;

/* Writes the canonical login name of `name` into `out` when it differs from exactly one known
 * user's name only by letter case: returns 1. Returns 0 when there is nothing to convert (an
 * exact login name, no such user, or several users that differ only by case), a negative
 * value on a lookup error or when `out` is too small (`out` is then left alone). `flags` is
 * reserved (0). */
KOVA_PLATFORM_EXPORT int KOVAUserLoginNameConvert(const char* name, char* out, size_t size,
                                                  int flags);
/* 0 and a new record on success, -1 when there is no such user, another negative value on a
 * lookup error. */
KOVA_PLATFORM_EXPORT int KOVAUserGet(const char* name, KOVAUSER** user);
KOVA_PLATFORM_EXPORT int KOVAUserGetByUID(unsigned int uid, KOVAUSER** user);
KOVA_PLATFORM_EXPORT void KOVAUserFree(KOVAUSER* user);
/* 0 on success. */
KOVA_PLATFORM_EXPORT int KOVAGroupGetGID(const char* name, unsigned int* gid);
KOVA_PLATFORM_EXPORT int KOVAGroupGetByGID(unsigned int gid, KOVAGROUP** group);
KOVA_PLATFORM_EXPORT void KOVAGroupFree(KOVAGROUP* group);
/* Every group of `user` (its primary group first, and only when `with_primary` is nonzero),
 * one entry per group id: the name is the group name, or NULL when the group database has no
 * record for that id; the value is the id in decimal. NULL on failure or when there is no such
 * user. `flags` is reserved (0). */
KOVA_PLATFORM_EXPORT KLIBCSzHash* KLIBGroupInfoHashGet(const char* user, int with_primary,
                                                       int flags);
KOVA_PLATFORM_EXPORT void KLIBCSzHashFree(KLIBCSzHash* hash);

#ifdef __cplusplus
}
#endif

#endif
