/* A visitor logs in to a link through the plain visitor API, as a program written in C does:
 * run with the link's hash and (for a password-protected link) its password; the client's
 * address comes from REMOTE_ADDR, as under a web server. Prints the result code and, on
 * success, the session id, then checks the authorization with it. */
#include <kovasharing/sharinglogin.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  struct _tag_sharing_login_params params;
  char sid[33];
  int rc;

  if (argc < 2) {
    fprintf(stderr, "usage: %s HASH [PASSWORD]\n", argv[0]);
    return 2;
  }
  memset(&params, 0, sizeof params);
  params.hash = argv[1];
  params.password = argc > 2 ? argv[2] : NULL;

  /* Zeroed first: a session id shorter than the buffer is not terminated by the call. */
  memset(sid, 0, sizeof sid);
  rc = KovaSharingLogin(sid, sizeof sid, &params, 0);
  printf("login %d", rc);
  if (rc != 1) {
    printf("\n");
    return 1;
  }
  params.session_id = sid;
  printf(" session %s authorized %d\n", sid, KovaSharingIsAuthorized(&params));
  return 0;
}
