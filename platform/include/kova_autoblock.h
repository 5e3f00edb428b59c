/* Failed-login blocking of the appliance: failed logins are counted per client address in a
 * store shared by every process, and an address with too many recent failures is denied. */
#ifndef KOVA_AUTOBLOCK_H
#define KOVA_AUTOBLOCK_H

#include "kova_platform_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* An address is denied while it has this many failures within the window. */
#define KOVA_AUTOBLOCK_MAX_FAILURES 10
#define KOVA_AUTOBLOCK_WINDOW_SECONDS 600

/* How long a check waits for an earlier attempt from the same address to finish. */
#define KOVA_AUTOBLOCK_WAIT_SECONDS 10

/* 1 when `ip` is denied, 0 otherwise. An IPv6 address is judged by its /64 prefix. When the
 * store cannot be read the address is let through (and the fault logged): a broken counter
 * must not lock every visitor out. */
KOVA_PLATFORM_EXPORT int KovaCgiIsDeniedIP(const char* ip);

/* One attempt per address at a time, across processes. KovaCgiAttemptBegin takes the
 * address's attempt lock, waiting while another process holds it, and returns 1 (this process
 * holds it until KovaCgiAttemptDone); 0 when it is not free within
 * KOVA_AUTOBLOCK_WAIT_SECONDS (treat the address as denied: under a flood of parallel guesses
 * the queue is the sign; no KovaCgiAttemptDone follows); -1 when `ip` is not an address. A
 * login that checks the address, judges the credentials and counts a failure inside one
 * attempt sees every earlier failure of that address counted, so parallel guesses cannot pass
 * the limit. Attempts of the same address nest: each 1 needs its own KovaCgiAttemptDone. */
KOVA_PLATFORM_EXPORT int KovaCgiAttemptBegin(const char* ip);
KOVA_PLATFORM_EXPORT void KovaCgiAttemptDone(void);

/* Counts one failed login of `ip` at the service `service` (e.g. "SHARING"). 0 on success, -1
 * when `ip` is not an address or the store fails. */
KOVA_PLATFORM_EXPORT int AutoBlockFailLoginSet(const char* ip, const char* service);

/* Clears the failures of `ip` (of its /64 prefix for IPv6) counted for the service
 * "SHARING", the one whose logins call it; the counts of other services stay. 0 on success,
 * -1 when `ip` is not an address or the store fails. */
KOVA_PLATFORM_EXPORT int KOVAAutoBlockFailLoginReset(const char* ip);

/* Called once per address with failures in the window: the address as counted ("<prefix>/64"
 * for IPv6), its failures, and the time (seconds since the epoch) at which it falls below the
 * limit, 0 when it is below already. */
typedef void (*KovaAutoBlockVisit)(const char* address, int failures, long long blocked_until,
                                   void* data);

/* Visits every address with failures in the window, in the order of their text. Returns the
 * number visited, -1 when the store fails. */
KOVA_PLATFORM_EXPORT int AutoBlockList(KovaAutoBlockVisit visit, void* data);

/* Lifts the block of `ip` (an address, or "<prefix>/64" as listed): clears its failures of
 * every service. Returns the number of failures cleared, -1 when `ip` is not an address or
 * the store fails. */
KOVA_PLATFORM_EXPORT int AutoBlockUnblock(const char* ip);

#ifdef __cplusplus
}
#endif

#endif
