// Web request library, the account login: PAM (service "kovasharing") for the web front end.
// Nothing the visitor typed as a password reaches the log, and the module conversation hands
// out copies that are wiped when freed.
#include <arpa/inet.h>
#include <kova_log.h>
#include <netinet/in.h>
#include <security/pam_appl.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "kova_cgi.h"

namespace {

char const kSource[] = "kova_cgi";
char const kPamService[] = "kovasharing";
size_t const kMaxLoginName = 256;

void AppendEncoded(std::string& out, char const* text) {
  static char const kHex[] = "0123456789ABCDEF";
  for (char const* p = text; *p; ++p) {
    unsigned char const c = static_cast<unsigned char>(*p);
    if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
        strchr("-_.~", c) != nullptr) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
}

// Answers the PAM modules: the password to hidden prompts, the account name to visible ones.
// Module messages are not shown to anybody.
struct Conversation {
  char const* username;
  char const* password;
};

void FreeReplies(pam_response* replies, int count) {
  for (int i = 0; i < count; ++i) {
    if (replies[i].resp != nullptr) {
      explicit_bzero(replies[i].resp, strlen(replies[i].resp));
      free(replies[i].resp);
    }
  }
  free(replies);
}

int Converse(int count, const struct pam_message** messages, struct pam_response** responses,
             void* data) {
  if (count <= 0 || count > PAM_MAX_NUM_MSG || messages == nullptr || responses == nullptr) {
    return PAM_CONV_ERR;
  }
  auto const* conv = static_cast<Conversation const*>(data);
  auto* replies =
      static_cast<pam_response*>(calloc(static_cast<size_t>(count), sizeof(pam_response)));
  if (replies == nullptr) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    char const* answer = nullptr;
    switch (messages[i]->msg_style) {
      case PAM_PROMPT_ECHO_OFF:
        answer = conv->password;
        break;
      case PAM_PROMPT_ECHO_ON:
        answer = conv->username;
        break;
      case PAM_ERROR_MSG:
      case PAM_TEXT_INFO:
        break;
      default:
        FreeReplies(replies, i);
        return PAM_CONV_ERR;
    }
    if (answer != nullptr) {
      replies[i].resp = strdup(answer);
      if (replies[i].resp == nullptr) {
        FreeReplies(replies, i);
        return PAM_BUF_ERR;
      }
    }
  }
  *responses = replies;
  return PAM_SUCCESS;
}

}  // namespace

extern "C" {

int KovaCgiLogin(KOVA_CGI_HANDLE handle, char* reply, size_t size,
                 const KOVA_CGI_LOGIN_REQ* request) {
  if (handle == nullptr || request == nullptr || request->username == nullptr ||
      request->password == nullptr) {
    return -1;
  }
  if (reply != nullptr && size > 0) reply[0] = '\0';
  size_t const name_length = strnlen(request->username, kMaxLoginName + 1);
  if (name_length == 0 || name_length > kMaxLoginName) return 0;

  Conversation conversation{request->username, request->password};
  struct pam_conv conv = {Converse, &conversation};
  pam_handle_t* pamh = nullptr;
  int rc = pam_start(kPamService, request->username, &conv, &pamh);
  if (rc != PAM_SUCCESS) {
    KOVA_LOG_PID(kSource, __LINE__, "pam_start failed: %s", pam_strerror(pamh, rc));
    if (pamh != nullptr) pam_end(pamh, rc);
    return 0;
  }
  char address[INET6_ADDRSTRLEN] = {0};
  if (KovaCgiGetRemoteIP(address, sizeof address) == 0) pam_set_item(pamh, PAM_RHOST, address);
  if (request->client != nullptr && *request->client) {
    pam_set_item(pamh, PAM_TTY, request->client);
  }
  int const pam_flags = (request->flags & KOVA_CGI_LOGIN_QUIET) ? PAM_SILENT : 0;
  rc = pam_authenticate(pamh, pam_flags | PAM_DISALLOW_NULL_AUTHTOK);
  if (rc != PAM_SUCCESS) {
    KOVA_LOG_PID(kSource, __LINE__, "authentication refused: %s", pam_strerror(pamh, rc));
  } else {
    rc = pam_acct_mgmt(pamh, pam_flags | PAM_DISALLOW_NULL_AUTHTOK);
    if (rc != PAM_SUCCESS) {
      KOVA_LOG_PID(kSource, __LINE__, "account refused: %s", pam_strerror(pamh, rc));
    }
  }
  if (rc == PAM_SUCCESS && reply != nullptr && size > 0) {
    // The stack may have mapped the name; report the account that really logged in.
    void const* item = nullptr;
    char const* user = request->username;
    if (pam_get_item(pamh, PAM_USER, &item) == PAM_SUCCESS && item != nullptr) {
      user = static_cast<char const*>(item);
    }
    char const* sid = KovaCgiGetCookie(handle, "id");
    try {
      std::string text = "user=";
      AppendEncoded(text, user);
      text += "&sid=";
      AppendEncoded(text, sid != nullptr ? sid : "");
      text += "&timeout=" + std::to_string(request->timeout_min);
      size_t const n = text.size() < size - 1 ? text.size() : size - 1;
      memcpy(reply, text.data(), n);
      reply[n] = '\0';
    } catch (std::bad_alloc const&) {
      rc = PAM_BUF_ERR;
    }
  }
  pam_end(pamh, rc);
  return rc == PAM_SUCCESS ? 1 : 0;
}

}  // extern "C"
