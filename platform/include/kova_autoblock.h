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

/* 1 when `ip` is denied, 0 otherwise. An IPv6 address is judged by its /64 prefix. When the
 * store cannot be read the address is let through (and the fault logged): a broken counter
 * must not lock every visitor out. */
KOVA_PLATFORM_EXPORT int KovaCgiIsDeniedIP(const char* ip);

/* Counts one failed login of `ip` at the service `service` (e.g. "SHARING"). 0 on success, -1
 * when `ip` is not an address or the store fails. */
KOVA_PLATFORM_EXPORT int AutoBlockFailLoginSet(const char* ip, const char* service);

/* Clears every counted failure of `ip` (of its /64 prefix for IPv6). 0 on success, -1 when
 * `ip` is not an address or the store fails. */
KOVA_PLATFORM_EXPORT int KOVAAutoBlockFailLoginReset(const char* ip);

#ifdef __cplusplus
}
#endif

#endif
