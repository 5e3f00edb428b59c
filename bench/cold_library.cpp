// One request of a web front-end program, as the web server runs it: a fresh process that
// opens the sharing database, checks one visitor's authorization and exits. Arguments: the
// link's hash and the session id; the visitor's address comes in REMOTE_ADDR.
#include <kovasharing/kovasharing.h>

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  KOVA::sharing::db::SharingDB::Instance();
  _tag_sharing_login_params const params = {argv[1], nullptr, nullptr, nullptr, argv[2]};
  return KovaSharingIsAuthorized(&params) == 1 ? 0 : 1;
}
