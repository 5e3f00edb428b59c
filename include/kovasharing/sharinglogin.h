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

/* Results of KovaSharingLogin. */
enum KovaSharingLoginResult {
  KOVA_LOGIN_OK = 1,               /* logged in; the session id is handed back */
  KOVA_LOGIN_ACCOUNT_REFUSED = -2, /* the account login (name and password) was refused */
  KOVA_LOGIN_NO_LINK = -3,         /* no such link, not valid now, or no password given */
  KOVA_LOGIN_INTERNAL = -4,        /* no hash or client address, database or store failure */
  KOVA_LOGIN_BLOCKED = -8,         /* the client's address is blocked after failed logins */
  KOVA_LOGIN_WRONG_PASSWORD = -9,  /* the link's password is wrong */
  KOVA_LOGIN_NOT_ADMITTED = -10,   /* the account is not among the link's users and groups */
  KOVA_LOGIN_USED_UP = -11         /* the link's use limit is reached */
};

/* Results of KovaSharingIsAuthorized. The same number can mean something else than for the
 * login (-2, -8). */
enum KovaSharingCheckResult {
  KOVA_CHECK_OK = 1,               /* authorised; session and token extended by a day */
  KOVA_CHECK_TURNED_ILLEGAL = -1,  /* the session or token ran out while being checked */
  KOVA_CHECK_ACCOUNT_REFUSED = -2, /* the account no longer passes the link's check */
  KOVA_CHECK_INTERNAL = -4,        /* no hash, session id or client address; database failure */
  KOVA_CHECK_NO_SESSION = -5,      /* no live session with that id */
  KOVA_CHECK_LINK_INVALID = -6,    /* the link is switched off or outside its validity */
  KOVA_CHECK_NO_ACCESS = -7,       /* no such link, or the session holds no live token for it */
  KOVA_CHECK_ADDRESS_CHANGED = -8  /* the link binds sessions to the login's address */
};

/* What a use is. Every successful login counts one use of the link, and a link whose count
 * has reached its limit admits no new login (KOVA_LOGIN_USED_UP). Sessions already admitted
 * stay admitted until they end, log out, or the link is changed or deleted: reaching the
 * limit ends no session. A visitor whose address changed on a link that binds addresses
 * must log in again, which counts another use. The gate spends no use on a visitor it
 * already admits: a second login with a live session is answered from that session. */

#ifdef __cplusplus
extern "C" {
#endif

/* A short English text for a result of the login or of the check; "unknown result" for any
 * other number. Never NULL; the text is static. */
KOVA_EXPORT const char* KovaSharingLoginResultText(int code);
KOVA_EXPORT const char* KovaSharingCheckResultText(int code);

/* Logs in. On success (1) the session id is copied into `buf` by strncpy of at most `size`
 * bytes, and the last byte of `buf` is set to 0 whatever the result: zero the buffer first,
 * a shorter id is not terminated otherwise. `quiet` 1: a visitor outside the link's users and
 * groups is not counted as a failed login, and a success does not clear the count. Returns
 * a KovaSharingLoginResult. */
KOVA_EXPORT int KovaSharingLogin(char* buf, unsigned int size,
                                 const struct _tag_sharing_login_params* params, int quiet);
/* KOVA_CHECK_OK (1) when the session holds a live token for the link (both are then
 * extended by a day); another KovaSharingCheckResult otherwise. */
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
