/* A C program of the installed plain visitor API: the header compiles as C11, and the calls
 * link and answer (without a client address or such a link, with their refusals). */
#define _POSIX_C_SOURCE 200809L /* unsetenv */

#include <kovasharing/sharinglogin.h>
#include <stdio.h>
#include <stdlib.h>

int main(void) {
  struct _tag_sharing_login_params params = {0};
  char buf[33];

  unsetenv("REMOTE_ADDR");
  params.hash = "no-such-link";
  params.session_id = "no-such-session";
  if (KovaSharingLogin(buf, sizeof buf, &params, 0) != -4 ||
      KovaSharingIsAuthorized(&params) != -4 ||
      KovaSharingLogout(params.hash, params.session_id) != 0 ||
      KovaSharingIncreaseUseCount(params.hash) != 0)
    return 1;
  printf("consumer ok: C program\n");
  return 0;
}
