/* The visitor functions: log a visitor in to a sharing link, check a visitor's authorization
 * on a later request, log out, and count a use. The plain forms are for callers in any
 * language (this header compiles as C); C++ callers may use the KOVA:: forms. */
#ifndef KOVASHARING_SHARINGLOGIN_H
#define KOVASHARING_SHARINGLOGIN_H

#include "export.h"

/* What a visitor sent. Every field may be NULL; the functions only read the structure. */
struct _tag_sharing_login_params {
  const char* hash;          /* the link's hash */
  const char* password;      /* for a password-protected link */
  const char* username;      /* for a link protected by users and groups */
  const char* user_password; /* that account's password */
  const char* session_id;    /* from an earlier login, if any */
};

#ifdef __cplusplus
extern "C" {
#endif

/* Logs in. On success (1) the session id is copied into `buf` by strncpy of at most `size`
 * bytes, and the last byte of `buf` is set to 0 whatever the result: zero the buffer first,
 * a shorter id is not terminated otherwise. `quiet` 1: a visitor outside the link's users and
 * groups is not counted as a failed login, and a success does not clear the count. Result
 * codes: 1, -2, -3, -4, -8, -9, -10, -11. */
KOVA_EXPORT int KovaSharingLogin(char* buf, unsigned int size,
                                 const struct _tag_sharing_login_params* params, int quiet);
/* 1 when the session holds a live token for the link (both are then extended by a day);
 * -1, -2, -4, -5, -6, -7 or -8 otherwise. */
KOVA_EXPORT int KovaSharingIsAuthorized(const struct _tag_sharing_login_params* params);
/* 1 when the session's token for the link was deleted, 0 otherwise. Neither text may be
 * NULL (a C++ caller gets std::logic_error). */
KOVA_EXPORT int KovaSharingLogout(const char* hash, const char* session_id);
/* 1 when the link's use count was raised by one, 0 otherwise; `hash` may not be NULL. */
KOVA_EXPORT int KovaSharingIncreaseUseCount(const char* hash);

#ifdef __cplusplus
}

#include <string>

namespace KOVA {

KOVA_EXPORT int KovaSharingLogin(std::string& session_id, _tag_sharing_login_params const* params,
                                 bool quiet);
KOVA_EXPORT int KovaSharingIsAuthorized(_tag_sharing_login_params const* params);
KOVA_EXPORT int KovaSharingLogout(std::string const& hash, std::string const& session_id);
KOVA_EXPORT int KovaSharingIncreaseUseCount(std::string const& hash);

}  // namespace KOVA
#endif

#endif
