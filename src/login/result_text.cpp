// The visitor functions' results in words, for logs and for programs that show them.
#include "kovasharing/sharinglogin.h"

extern "C" {

const char* KovaSharingLoginResultText(int code) {
  switch (code) {
    case KOVA_LOGIN_OK:
      return "logged in";
    case KOVA_LOGIN_ACCOUNT_REFUSED:
      return "account name or password refused";
    case KOVA_LOGIN_NO_LINK:
      return "no such link, or not valid now";
    case KOVA_LOGIN_INTERNAL:
      return "internal failure";
    case KOVA_LOGIN_BLOCKED:
      return "address blocked after failed logins";
    case KOVA_LOGIN_WRONG_PASSWORD:
      return "wrong password";
    case KOVA_LOGIN_NOT_ADMITTED:
      return "account not among the link's users and groups";
    case KOVA_LOGIN_USED_UP:
      return "use limit reached";
    default:
      return "unknown result";
  }
}

const char* KovaSharingCheckResultText(int code) {
  switch (code) {
    case KOVA_CHECK_OK:
      return "authorised";
    case KOVA_CHECK_TURNED_ILLEGAL:
      return "session or token ran out";
    case KOVA_CHECK_ACCOUNT_REFUSED:
      return "account no longer admitted";
    case KOVA_CHECK_INTERNAL:
      return "internal failure";
    case KOVA_CHECK_NO_SESSION:
      return "no live session";
    case KOVA_CHECK_LINK_INVALID:
      return "link not valid now";
    case KOVA_CHECK_NO_ACCESS:
      return "no such link, or no access to it";
    case KOVA_CHECK_ADDRESS_CHANGED:
      return "address differs from the login's";
    default:
      return "unknown result";
  }
}

}  // extern "C"
