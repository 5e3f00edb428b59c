/* Web request library of the appliance: request parameters, cookies, the client's address and
 * the account login. A program run by the web server for one request (CGI/1.1) uses it as it
 * is; a program that serves many requests, one after the other (FastCGI), brackets each with
 * KovaCgiRequestBegin and KovaCgiRequestEnd, so that nothing of one request reaches the next. */
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

/* Reads the body of the current request: up to `size` bytes into `buf`. Returns the number of
 * bytes read, 0 at the end of the body, -1 on an error. */
typedef long (*KovaCgiBodyReader)(void* context, char* buf, size_t size);

/* Begins a request in a program that serves many. `variables` ("NAME=VALUE" texts, NULL at
 * the end) are the request's CGI variables: for the length of the request the process
 * environment is the one the process started with, without any CGI variable of its own
 * (HTTP_*, REMOTE_ADDR, QUERY_STRING, ...), plus these; the texts are copied. The body is read
 * through `reader` (NULL: the request has none) instead of from standard input. A request
 * still open is ended first. Returns 1, or -1 on bad arguments or no memory (no request is
 * then open). Not for use by several threads at once. */
KOVA_PLATFORM_EXPORT int KovaCgiRequestBegin(const char* const* variables, KovaCgiBodyReader reader,
                                             void* context);

/* Ends the request: the body read for it is wiped and forgotten, and the process environment
 * is the one from before KovaCgiRequestBegin. Handles made during the request must have been
 * freed; texts obtained from getenv() during the request are no longer valid. Without an open
 * request it still wipes and forgets a body read from standard input, so that a process can
 * drop a request's secrets before it goes on. */
KOVA_PLATFORM_EXPORT void KovaCgiRequestEnd(void);

/* Sets the variable `name` of the request's environment to `value` (NULL removes it), as the
 * program's own view of the request (for example the client behind a trusted proxy): inside
 * an open request only that request's environment changes and nothing of it outlasts the
 * request; without one, the process environment changes. Returns 1, or -1 on a bad name or
 * no memory. */
KOVA_PLATFORM_EXPORT int KovaCgiSetVariable(const char* name, const char* value);

/* Reads the request: parameters from QUERY_STRING and, for a POST of
 * application/x-www-form-urlencoded, from the body (CONTENT_LENGTH bytes, from standard input
 * or the reader of KovaCgiRequestBegin, read once per request and kept for later handles of
 * the same request until KovaCgiRequestEnd). `config` is
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
 * returns 1; returns 0 when the login is refused, -1 on bad arguments. With a login helper set
 * (KovaCgiLoginSetHelper) the helper process asks PAM instead, and the reply names the account
 * as it was asked for. */
KOVA_PLATFORM_EXPORT int KovaCgiLogin(KOVA_CGI_HANDLE handle, char* reply, size_t size,
                                      const KOVA_CGI_LOGIN_REQ* request);

/* The login helper: a process that stays root to check account passwords through PAM for
 * request handlers that do not run as root. They talk over a SOCK_SEQPACKET socket pair; a
 * question carries only the account name (at most KOVA_CGI_HELPER_MAX_NAME bytes), the
 * password (at most KOVA_CGI_HELPER_MAX_PASSWORD) and the client's address, and the answer is
 * yes or no. */
#define KOVA_CGI_HELPER_MAX_NAME 256
#define KOVA_CGI_HELPER_MAX_PASSWORD 1024

/* Makes KovaCgiLogin of this process ask the helper at the other end of `fd`; -1 goes back to
 * PAM in the process. An answer waits at most `timeout_ms` milliseconds (a login that gets none
 * is refused). */
KOVA_PLATFORM_EXPORT void KovaCgiLoginSetHelper(int fd, int timeout_ms);

/* The helper's side: answers the questions arriving on any of the `count` descriptors in
 * `fds`, one at a time, through PAM as KovaCgiLogin does with the client kind `client` and the
 * KOVA_CGI_LOGIN_... `flags`. A malformed question gets no; nothing else is answered. Returns
 * when every descriptor has been closed by its other end (0), or -1 on bad arguments or a
 * failed poll. */
KOVA_PLATFORM_EXPORT int KovaCgiLoginServe(const int* fds, size_t count, const char* client,
                                           int flags);

/* Releases the handle; NULL is accepted. */
KOVA_PLATFORM_EXPORT void KovaCgiFree(KOVA_CGI_HANDLE handle);

#ifdef __cplusplus
}
#endif

#endif
