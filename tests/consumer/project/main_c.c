/* A C program of the installed plain visitor API: the header compiles as C11 and the calls
 * link and answer. Without a client address (no web server) and without such links every
 * call has a defined refusal. */
#define _POSIX_C_SOURCE 200809L /* unsetenv */

#include <kovasharing/sharinglogin.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(void) {
  struct _tag_sharing_login_params params;
  char buf[33];
  int login, check, logout, count;

  unsetenv("REMOTE_ADDR");
  memset(&params, 0, sizeof params);
  params.hash = "no-such-link";
  params.session_id = "no-such-session";

  memset(buf, 'Z', sizeof buf);
  login = KovaSharingLogin(buf, sizeof buf, &params, 0);
  /* A refusal writes only the last byte of the buffer. */
  if (login != -4 || buf[0] != 'Z' || buf[31] != 'Z' || buf[32] != '\0') {
    printf("login %d, buffer %.4s...\n", login, buf);
    return 1;
  }
  check = KovaSharingIsAuthorized(&params);
  if (check != -4) {
    printf("check %d\n", check);
    return 2;
  }
  if (KovaSharingLogin(buf, sizeof buf, NULL, 1) != -4 || KovaSharingIsAuthorized(NULL) != -4) {
    printf("null parameters accepted\n");
    return 3;
  }
  logout = KovaSharingLogout(params.hash, params.session_id);
  count = KovaSharingIncreaseUseCount(params.hash);
  if (logout != 0 || count != 0) {
    printf("logout %d, use count %d\n", logout, count);
    return 4;
  }
  printf("consumer ok: C program, login %d, check %d, logout %d, use count %d\n", login, check,
         logout, count);
  return 0;
}
