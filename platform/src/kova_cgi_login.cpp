// Web request library, the account login: PAM (service "kovasharing") for the web front end,
// in the process itself or in a login helper that stays root for request handlers that do not.
// Nothing the visitor typed as a password reaches the log, and the module conversation hands
// out copies that are wiped when freed.
#include <arpa/inet.h>
#include <errno.h>
#include <kova_log.h>
#include <netinet/in.h>
#include <poll.h>
#include <security/pam_appl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

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

// PAM's answer for an account: PAM_SUCCESS or why not. `user` receives the account that
// logged in (the stack may have mapped the name).
int PamLogin(char const* username, char const* password, char const* address, char const* client,
             int flags, std::string* user) {
  Conversation conversation{username, password};
  struct pam_conv conv = {Converse, &conversation};
  pam_handle_t* pamh = nullptr;
  int rc = pam_start(kPamService, username, &conv, &pamh);
  if (rc != PAM_SUCCESS) {
    KOVA_LOG_PID(kSource, __LINE__, "pam_start failed: %s", pam_strerror(pamh, rc));
    if (pamh != nullptr) pam_end(pamh, rc);
    return rc;
  }
  if (address != nullptr && *address) pam_set_item(pamh, PAM_RHOST, address);
  if (client != nullptr && *client) pam_set_item(pamh, PAM_TTY, client);
  int const pam_flags = (flags & KOVA_CGI_LOGIN_QUIET) ? PAM_SILENT : 0;
  rc = pam_authenticate(pamh, pam_flags | PAM_DISALLOW_NULL_AUTHTOK);
  if (rc != PAM_SUCCESS) {
    KOVA_LOG_PID(kSource, __LINE__, "authentication refused: %s", pam_strerror(pamh, rc));
  } else {
    rc = pam_acct_mgmt(pamh, pam_flags | PAM_DISALLOW_NULL_AUTHTOK);
    if (rc != PAM_SUCCESS) {
      KOVA_LOG_PID(kSource, __LINE__, "account refused: %s", pam_strerror(pamh, rc));
    }
  }
  if (rc == PAM_SUCCESS && user != nullptr) {
    void const* item = nullptr;
    if (pam_get_item(pamh, PAM_USER, &item) == PAM_SUCCESS && item != nullptr) {
      *user = static_cast<char const*>(item);
    }
  }
  pam_end(pamh, rc);
  return rc;
}

// The helper's questions: an id the answer repeats (so that an answer meant for an earlier
// process at the same end is never taken), three lengths, then the account name, the password
// and the client's address, without NUL bytes. The answer: the id, then 'y' or 'n'.
size_t const kIdBytes = 8;
size_t const kHeadBytes = kIdBytes + size_t{3} * 2;
size_t const kMaxAddress = INET6_ADDRSTRLEN;
size_t const kMaxQuestion =
    kHeadBytes + KOVA_CGI_HELPER_MAX_NAME + KOVA_CGI_HELPER_MAX_PASSWORD + kMaxAddress;
size_t const kAnswerBytes = kIdBytes + 1;

int g_helper_fd = -1;
int g_helper_timeout_ms = 0;

void PutLength(unsigned char* at, size_t value) {
  at[0] = static_cast<unsigned char>(value >> 8);
  at[1] = static_cast<unsigned char>(value & 0xff);
}

size_t GetLength(unsigned char const* at) { return (size_t{at[0]} << 8) | at[1]; }

long long NowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Asks the helper; 1 yes, 0 no or no answer in time.
int AskHelper(char const* username, char const* password, char const* address) {
  size_t const lengths[] = {strlen(username), strlen(password), strlen(address)};
  if (lengths[0] > KOVA_CGI_HELPER_MAX_NAME || lengths[1] > KOVA_CGI_HELPER_MAX_PASSWORD ||
      lengths[2] >= kMaxAddress) {
    return 0;
  }
  static uint32_t counter = 0;
  uint64_t const id = (static_cast<uint64_t>(getpid()) << 32) | ++counter;
  unsigned char question[kMaxQuestion];
  memcpy(question, &id, kIdBytes);
  size_t size = kHeadBytes;
  char const* const parts[] = {username, password, address};
  for (size_t i = 0; i < 3; ++i) {
    PutLength(question + kIdBytes + 2 * i, lengths[i]);
    memcpy(question + size, parts[i], lengths[i]);
    size += lengths[i];
  }
  ssize_t sent;
  do {
    sent = send(g_helper_fd, question, size, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  explicit_bzero(question, sizeof question);
  if (sent != static_cast<ssize_t>(size)) {
    KOVA_LOG_PID(kSource, __LINE__, "login helper unreachable, err=%m");
    return 0;
  }
  long long const deadline = NowMs() + g_helper_timeout_ms;
  for (;;) {
    long long const left = deadline - NowMs();
    struct pollfd pfd = {g_helper_fd, POLLIN, 0};
    int const ready = left > 0 ? poll(&pfd, 1, static_cast<int>(left)) : 0;
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      KOVA_LOG_PID(kSource, __LINE__, "login helper did not answer");
      return 0;
    }
    unsigned char answer[kAnswerBytes + 1];
    ssize_t const n = recv(g_helper_fd, answer, sizeof answer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      KOVA_LOG_PID(kSource, __LINE__, "login helper gone");
      return 0;
    }
    // An answer to another question (of a process before this one) is dropped.
    if (n == static_cast<ssize_t>(kAnswerBytes) && memcmp(answer, &id, kIdBytes) == 0) {
      return answer[kIdBytes] == 'y' ? 1 : 0;
    }
  }
}

// One question as the helper reads it; false when it is malformed.
bool ParseQuestion(unsigned char const* message, size_t size, std::string parts[3]) {
  if (size < kHeadBytes) return false;
  size_t const limits[] = {KOVA_CGI_HELPER_MAX_NAME, KOVA_CGI_HELPER_MAX_PASSWORD, kMaxAddress - 1};
  size_t at = kHeadBytes;
  for (size_t i = 0; i < 3; ++i) {
    size_t const length = GetLength(message + kIdBytes + 2 * i);
    if (length > limits[i] || length > size - at) return false;
    if (memchr(message + at, '\0', length) != nullptr) return false;
    parts[i].assign(reinterpret_cast<char const*>(message) + at, length);
    at += length;
  }
  if (at != size || parts[0].empty()) return false;
  unsigned char raw[sizeof(struct in6_addr)];
  return parts[2].empty() || inet_pton(AF_INET, parts[2].c_str(), raw) == 1 ||
         inet_pton(AF_INET6, parts[2].c_str(), raw) == 1;
}

}  // namespace

extern "C" {

void KovaCgiLoginSetHelper(int fd, int timeout_ms) {
  g_helper_fd = fd;
  g_helper_timeout_ms = timeout_ms;
}

int KovaCgiLoginServe(const int* fds, size_t count, const char* client, int flags) {
  if (fds == nullptr || count == 0) return -1;
  std::vector<struct pollfd> polled;
  for (size_t i = 0; i < count; ++i) polled.push_back({fds[i], POLLIN, 0});
  std::vector<unsigned char> message(kMaxQuestion + 1);
  size_t open = count;
  while (open > 0) {
    int const ready = poll(polled.data(), polled.size(), -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return -1;
    for (auto& p : polled) {
      if (p.fd < 0 || p.revents == 0) continue;
      ssize_t const n = (p.revents & POLLIN) ? recv(p.fd, message.data(), message.size(), 0) : 0;
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {  // the other end is gone
        p.fd = -1;
        --open;
        continue;
      }
      std::string parts[3];
      bool const good = ParseQuestion(message.data(), static_cast<size_t>(n), parts);
      if (!good) KOVA_LOG_PID(kSource, __LINE__, "malformed login question refused");
      bool const yes = good && PamLogin(parts[0].c_str(), parts[1].c_str(), parts[2].c_str(),
                                        client, flags, nullptr) == PAM_SUCCESS;
      unsigned char answer[kAnswerBytes] = {0};
      if (n >= static_cast<ssize_t>(kIdBytes)) memcpy(answer, message.data(), kIdBytes);
      answer[kIdBytes] = yes ? 'y' : 'n';
      explicit_bzero(message.data(), static_cast<size_t>(n));
      if (!parts[1].empty()) explicit_bzero(&parts[1][0], parts[1].size());
      while (send(p.fd, answer, sizeof answer, MSG_NOSIGNAL | MSG_DONTWAIT) < 0 && errno == EINTR) {
      }
    }
  }
  return 0;
}

int KovaCgiLogin(KOVA_CGI_HANDLE handle, char* reply, size_t size,
                 const KOVA_CGI_LOGIN_REQ* request) {
  if (handle == nullptr || request == nullptr || request->username == nullptr ||
      request->password == nullptr) {
    return -1;
  }
  if (reply != nullptr && size > 0) reply[0] = '\0';
  size_t const name_length = strnlen(request->username, kMaxLoginName + 1);
  if (name_length == 0 || name_length > kMaxLoginName) return 0;

  char address[INET6_ADDRSTRLEN] = {0};
  if (KovaCgiGetRemoteIP(address, sizeof address) != 0) address[0] = '\0';
  std::string user = request->username;
  int rc;
  if (g_helper_fd >= 0) {
    rc = AskHelper(request->username, request->password, address) == 1 ? PAM_SUCCESS : PAM_AUTH_ERR;
  } else {
    rc = PamLogin(request->username, request->password, address, request->client, request->flags,
                  &user);
  }
  if (rc == PAM_SUCCESS && reply != nullptr && size > 0) {
    char const* sid = KovaCgiGetCookie(handle, "id");
    try {
      std::string text = "user=";
      AppendEncoded(text, user.c_str());
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
  return rc == PAM_SUCCESS ? 1 : 0;
}

}  // extern "C"
