/* Web request library of the appliance, for programs run by the web server for one request
 * (CGI/1.1): request parameters, cookies, the client's address and the account login. */
#ifndef KOVA_CGI_H
#define KOVA_CGI_H

#include <stddef.h>

#include "kova_platform_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One request: its parameters, its cookies and the Set-Cookie headers queued for the reply. */
typedef struct KovaCgiRequest* KOVA_CGI_HANDLE;

/* Largest url-encoded POST body accepted, in bytes. */
#define KOVA_CGI_MAX_BODY ((size_t)1024 * 1024)

/* Flags of KovaCgiSetCookies. A cookie is HttpOnly and SameSite=Lax unless told otherwise,
 * and Secure when the request came over HTTPS. */
#define KOVA_CGI_COOKIE_SECURE 0x1          /* Secure even over plain HTTP */
#define KOVA_CGI_COOKIE_SCRIPT_READABLE 0x2 /* leave out HttpOnly */
#define KOVA_CGI_COOKIE_EXPIRE 0x4          /* Max-Age=0: the browser drops the cookie */

/* Flags of KovaCgiGetRequestParam. */
#define KOVA_CGI_PARAM_BODY_ONLY 0x1 /* only the POST body: secrets never come from the URL */

/* Flags of the login request. */
#define KOVA_CGI_LOGIN_QUIET 0x1 /* authentication modules print nothing (PAM_SILENT) */

/* An account login of the web front end. */
typedef struct KOVA_CGI_LOGIN_REQ {
  const char* username; /* the account name as the account database knows it */
  const char* password;
  const char* client; /* client kind, e.g. "webui"; handed to PAM as the login's tty */
  int timeout_min;    /* idle minutes of the web login the caller keeps; echoed in the reply */
  int flags;          /* KOVA_CGI_LOGIN_... */
} KOVA_CGI_LOGIN_REQ;

/* Reads the request: parameters from QUERY_STRING and, for a POST of
 * application/x-www-form-urlencoded, from the body on standard input (CONTENT_LENGTH bytes,
 * read once per process and kept for later handles of the same request). `config` is
 * reserved: pass "". Returns 1 and a new handle in *handle; 0 when the request is refused (a
 * body over KOVA_CGI_MAX_BODY, a body shorter than CONTENT_LENGTH, an unreadable length),
 * -1 on bad arguments or no memory. */
KOVA_PLATFORM_EXPORT int KovaCgiInit(const char* config, KOVA_CGI_HANDLE* handle);

/* Loads the request's cookies (HTTP_COOKIE) into the handle. Returns the number of cookies
 * loaded, -1 on bad arguments. */
KOVA_PLATFORM_EXPORT int KovaCgiLoadInCookies(KOVA_CGI_HANDLE handle);

/* The decoded value of the first request parameter called `name` (query string first, then
 * the body), or NULL. `flags`: 0, or KOVA_CGI_PARAM_BODY_ONLY. The text belongs to the
 * handle. */
KOVA_PLATFORM_EXPORT const char* KovaCgiGetRequestParam(KOVA_CGI_HANDLE handle, const char* name,
                                                        int flags);

/* The value of the cookie `name` (loaded, or set on this handle), or NULL. */
KOVA_PLATFORM_EXPORT const char* KovaCgiGetCookie(KOVA_CGI_HANDLE handle, const char* name);

/* Sets the cookie `name` to `value` for the rest of this request and queues its Set-Cookie
 * header. `max_age` in seconds, 0 for a cookie that ends with the browser session; `path` and
 * `domain` may be NULL; `flags` KOVA_CGI_COOKIE_.... Returns 1 on success, 0 when the name or
 * value cannot be a cookie (empty name, separators, control characters, quotes, a value over
 * 4096 bytes), -1 on bad arguments. */
KOVA_PLATFORM_EXPORT int KovaCgiSetCookies(KOVA_CGI_HANDLE handle, const char* name,
                                           const char* value, long max_age, const char* path,
                                           const char* domain, int flags);

/* The queued headers, each "Set-Cookie: ...\r\n", for the caller to print before the blank
 * line that ends its headers; "" when none. The text belongs to the handle. */
KOVA_PLATFORM_EXPORT const char* KovaCgiGetSetCookieHeaders(KOVA_CGI_HANDLE handle);

/* Writes the client's address (REMOTE_ADDR, in its canonical text form) into `buf`. Returns 0
 * on success, -1 when there is no address (unset, not an IPv4 or IPv6 address, or it does not
 * fit into `size` bytes). */
KOVA_PLATFORM_EXPORT int KovaCgiGetRemoteIP(char* buf, size_t size);

/* Logs in to an account through PAM (service "kovasharing": authentication, then account
 * management). On success writes the login's description
 * "user=<account>&sid=<cookie id>&timeout=<minutes>" into `reply` (truncated to `size`) and
 * returns 1; returns 0 when the login is refused, -1 on bad arguments. */
KOVA_PLATFORM_EXPORT int KovaCgiLogin(KOVA_CGI_HANDLE handle, char* reply, size_t size,
                                      const KOVA_CGI_LOGIN_REQ* request);

/* Releases the handle; NULL is accepted. */
KOVA_PLATFORM_EXPORT void KovaCgiFree(KOVA_CGI_HANDLE handle);

#ifdef __cplusplus
}
#endif

#endif
