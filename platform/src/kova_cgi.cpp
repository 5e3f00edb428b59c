// Web request library over CGI/1.1, the request's side: parameters, body, cookies and the
// client's address (the account login is kova_cgi_login.cpp). Everything a visitor sends is
// hostile until parsed: lengths are checked before reading, and decoding never looks past
// the text.
#include "kova_cgi.h"

#include <arpa/inet.h>
#include <errno.h>
#include <kova_log.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

char const kSource[] = "kova_cgi";
size_t const kMaxCookieValue = 4096;

using Pairs = std::vector<std::pair<std::string, std::string>>;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Decodes one url-encoded component of [p, end). A '%' not followed by two hex digits inside
// the text stays as it is. False when the result would hold a NUL byte, which no C text can
// carry.
bool Decode(char const* p, char const* end, std::string& out) {
  out.clear();
  out.reserve(static_cast<size_t>(end - p));
  while (p < end) {
    char c = *p++;
    if (c == '+') {
      c = ' ';
    } else if (c == '%' && end - p >= 2) {
      int const hi = HexValue(p[0]);
      int const lo = HexValue(p[1]);
      if (hi >= 0 && lo >= 0) {
        c = static_cast<char>(hi * 16 + lo);
        p += 2;
      }
    }
    if (c == '\0') return false;
    out += c;
  }
  return true;
}

// Splits "a=1&b=2" (';' also separates, as older forms send it) into decoded pairs.
void ParseForm(char const* text, size_t length, Pairs& out) {
  char const* p = text;
  char const* const end = text + length;
  while (p < end) {
    char const* stop = p;
    while (stop < end && *stop != '&' && *stop != ';') ++stop;
    char const* eq = p;
    while (eq < stop && *eq != '=') ++eq;
    std::string name, value;
    if (stop > p && Decode(p, eq, name) && !name.empty() &&
        Decode(eq < stop ? eq + 1 : stop, stop, value)) {
      out.emplace_back(std::move(name), std::move(value));
    }
    p = stop < end ? stop + 1 : end;
  }
}

bool ParseLength(char const* text, size_t& out) {
  if (text == nullptr || *text == '\0') return false;
  size_t value = 0;
  for (char const* p = text; *p; ++p) {
    if (*p < '0' || *p > '9') return false;
    if (value > (static_cast<size_t>(-1) - 9) / 10) return false;
    value = value * 10 + static_cast<size_t>(*p - '0');
  }
  out = value;
  return true;
}

// The request a program that serves many has begun (KovaCgiRequestBegin): its environment,
// the one it replaced, and where its body comes from.
struct OpenRequest {
  bool open = false;
  unsigned long number = 0;  // counts the requests begun, so that a body is never taken over
  KovaCgiBodyReader reader = nullptr;
  void* context = nullptr;
  char** saved_environ = nullptr;
  std::vector<std::string> texts;  // the request's own variables
  std::vector<char*> environ_;     // the request's environment, NULL at the end
};

OpenRequest& Request() {
  static OpenRequest* request = new OpenRequest;  // kept to the end of the process on purpose
  return *request;
}

// The variables a web server sets for a request: none of them may come from the process's
// own environment into a request's.
bool IsCgiVariable(char const* text) {
  static char const* const kNames[] = {
      "AUTH_TYPE",   "CONTENT_LENGTH",  "CONTENT_TYPE",    "DOCUMENT_ROOT", "GATEWAY_INTERFACE",
      "HTTPS",       "PATH_INFO",       "PATH_TRANSLATED", "QUERY_STRING",  "REMOTE_ADDR",
      "REMOTE_HOST", "REMOTE_IDENT",    "REMOTE_PORT",     "REMOTE_USER",   "REQUEST_METHOD",
      "REQUEST_URI", "SCRIPT_FILENAME", "SCRIPT_NAME",     "SERVER_ADDR",   "SERVER_NAME",
      "SERVER_PORT", "SERVER_PROTOCOL", "SERVER_SOFTWARE"};
  if (strncmp(text, "HTTP_", 5) == 0) return true;
  char const* eq = strchr(text, '=');
  size_t const length = eq != nullptr ? static_cast<size_t>(eq - text) : strlen(text);
  for (char const* name : kNames) {
    if (strlen(name) == length && strncmp(text, name, length) == 0) return true;
  }
  return false;
}

void Wipe(std::string& text) {
  if (!text.empty()) explicit_bzero(&text[0], text.size());
  text.clear();
}

// The POST body can be read only once; every handle made for the same request shares what the
// first one read. In a CGI program the body is the process's standard input, and a new standard
// input (a new request in a process that serves several) is read afresh; in a request begun by
// KovaCgiRequestBegin it comes from the request's reader.
struct BodyCache {
  bool valid = false;
  unsigned long request = 0;  // the begun request it belongs to, 0 for standard input
  dev_t dev = 0;
  ino_t ino = 0;
  bool refused = false;
  std::string body;
};

BodyCache& Body() {
  static BodyCache* cache = new BodyCache;  // kept to the end of the process on purpose
  return *cache;
}

void ForgetBody() {
  BodyCache& cache = Body();
  cache.valid = false;
  cache.request = 0;
  cache.refused = false;
  Wipe(cache.body);
}

// Reads up to `length` bytes of the body into `out`; the number read.
size_t ReadBody(char* out, size_t length) {
  OpenRequest const& request = Request();
  size_t got = 0;
  while (got < length) {
    if (request.open) {
      if (request.reader == nullptr) break;
      long const n = request.reader(request.context, out + got, length - got);
      if (n <= 0 || static_cast<size_t>(n) > length - got) break;
      got += static_cast<size_t>(n);
    } else {
      ssize_t const n = read(STDIN_FILENO, out + got, length - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
  }
  return got;
}

// 1: body read (or none to read), 0: refused.
int LoadBody(std::string const*& body) {
  body = nullptr;
  char const* method = getenv("REQUEST_METHOD");
  if (method == nullptr || strcasecmp(method, "POST") != 0) return 1;
  char const* type = getenv("CONTENT_TYPE");
  static char const kForm[] = "application/x-www-form-urlencoded";
  if (type == nullptr || strncasecmp(type, kForm, sizeof kForm - 1) != 0 ||
      (type[sizeof kForm - 1] != '\0' && type[sizeof kForm - 1] != ';' &&
       type[sizeof kForm - 1] != ' ')) {
    return 1;  // not a form: nothing of it is a parameter
  }
  OpenRequest const& request = Request();
  struct stat st;
  memset(&st, 0, sizeof st);
  if (!request.open && fstat(STDIN_FILENO, &st) != 0) {
    memset(&st, 0, sizeof st);
  }
  unsigned long const number = request.open ? request.number : 0;
  BodyCache& cache = Body();
  if (!cache.valid || cache.request != number ||
      (number == 0 && (cache.dev != st.st_dev || cache.ino != st.st_ino))) {
    ForgetBody();
    cache.valid = true;
    cache.request = number;
    cache.dev = st.st_dev;
    cache.ino = st.st_ino;
    size_t length = 0;
    char const* text = getenv("CONTENT_LENGTH");
    if (text == nullptr || *text == '\0') {
      length = 0;
    } else if (!ParseLength(text, length)) {
      KOVA_LOG_PID(kSource, __LINE__, "invalid CONTENT_LENGTH");
      cache.refused = true;
    } else if (length > KOVA_CGI_MAX_BODY) {
      KOVA_LOG_PID(kSource, __LINE__, "request body of %zu bytes refused", length);
      cache.refused = true;
    }
    if (!cache.refused && length > 0) {
      cache.body.resize(length);
      size_t const got = ReadBody(&cache.body[0], length);
      if (got < length) {
        KOVA_LOG_PID(kSource, __LINE__, "truncated request body: %zu of %zu bytes", got, length);
        cache.refused = true;
        Wipe(cache.body);
      }
    }
  }
  if (cache.refused) return 0;
  body = &cache.body;
  return 1;
}

bool IsTokenChar(unsigned char c) {
  if (c <= 0x20 || c >= 0x7f) return false;
  return strchr("()<>@,;:\\\"/[]?={}", c) == nullptr;
}

bool IsCookieValueChar(unsigned char c) {
  return c == 0x21 || (c >= 0x23 && c <= 0x2b) || (c >= 0x2d && c <= 0x3a) ||
         (c >= 0x3c && c <= 0x5b) || (c >= 0x5d && c <= 0x7e);
}

bool IsAttributeText(char const* text) {
  for (char const* p = text; *p; ++p) {
    unsigned char const c = static_cast<unsigned char>(*p);
    if (c < 0x20 || c >= 0x7f || c == ';') return false;
  }
  return true;
}

}  // namespace

struct KovaCgiRequest {
  Pairs params;             // those of the query string first, then those of the body
  size_t query_params = 0;  // how many came from the query string
  Pairs cookies;
  std::string set_cookie_headers;
};

extern "C" {

int KovaCgiRequestBegin(const char* const* variables, KovaCgiBodyReader reader, void* context) {
  KovaCgiRequestEnd();
  if (variables == nullptr) return -1;
  OpenRequest& request = Request();
  try {
    for (const char* const* v = variables; *v != nullptr; ++v) {
      char const* eq = strchr(*v, '=');
      if (eq != nullptr && eq != *v) request.texts.emplace_back(*v);
    }
    for (auto& text : request.texts) request.environ_.push_back(&text[0]);
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
      if (!IsCgiVariable(*e)) request.environ_.push_back(*e);
    }
    request.environ_.push_back(nullptr);
  } catch (std::bad_alloc const&) {
    for (auto& text : request.texts) Wipe(text);
    request.texts.clear();
    request.environ_.clear();
    return -1;
  }
  request.open = true;
  ++request.number;
  request.reader = reader;
  request.context = context;
  request.saved_environ = environ;
  environ = request.environ_.data();
  return 1;
}

void KovaCgiRequestEnd(void) {
  ForgetBody();
  OpenRequest& request = Request();
  if (!request.open) return;
  environ = request.saved_environ;
  request.open = false;
  request.reader = nullptr;
  request.context = nullptr;
  request.saved_environ = nullptr;
  for (auto& text : request.texts) Wipe(text);
  request.texts.clear();
  request.environ_.clear();
}

int KovaCgiSetVariable(const char* name, const char* value) {
  if (name == nullptr || *name == '\0' || strchr(name, '=') != nullptr) return -1;
  OpenRequest& request = Request();
  if (!request.open) {
    return (value != nullptr ? setenv(name, value, 1) : unsetenv(name)) == 0 ? 1 : -1;
  }
  // The request's own texts change; its environment is listed anew from them and the
  // process's variables that are neither CGI variables nor this one.
  try {
    std::string const prefix = std::string(name) + "=";
    auto const named = [&prefix](char const* text) {
      return strncmp(text, prefix.c_str(), prefix.size()) == 0;
    };
    for (auto& text : request.texts) {
      if (named(text.c_str())) Wipe(text);
    }
    request.texts.erase(std::remove(request.texts.begin(), request.texts.end(), std::string()),
                        request.texts.end());
    if (value != nullptr) request.texts.push_back(prefix + value);
    request.environ_.clear();
    for (auto& text : request.texts) request.environ_.push_back(&text[0]);
    for (char** e = request.saved_environ; e != nullptr && *e != nullptr; ++e) {
      if (!IsCgiVariable(*e) && !named(*e)) request.environ_.push_back(*e);
    }
    request.environ_.push_back(nullptr);
  } catch (std::bad_alloc const&) {
    return -1;
  }
  environ = request.environ_.data();
  return 1;
}

int KovaCgiInit(const char* config, KOVA_CGI_HANDLE* handle) {
  if (config == nullptr || handle == nullptr) return -1;
  *handle = nullptr;
  auto* request = new (std::nothrow) KovaCgiRequest;
  if (request == nullptr) return -1;
  try {
    char const* query = getenv("QUERY_STRING");
    if (query != nullptr) ParseForm(query, strlen(query), request->params);
    request->query_params = request->params.size();
    std::string const* body = nullptr;
    if (LoadBody(body) != 1) {
      delete request;
      return 0;
    }
    if (body != nullptr) ParseForm(body->data(), body->size(), request->params);
  } catch (std::bad_alloc const&) {
    delete request;
    return -1;
  }
  *handle = request;
  return 1;
}

int KovaCgiLoadInCookies(KOVA_CGI_HANDLE handle) {
  if (handle == nullptr) return -1;
  char const* header = getenv("HTTP_COOKIE");
  if (header == nullptr) return 0;
  int loaded = 0;
  try {
    char const* p = header;
    while (*p) {
      while (*p == ' ' || *p == '\t' || *p == ';') ++p;
      char const* stop = p;
      while (*stop && *stop != ';') ++stop;
      char const* eq = p;
      while (eq < stop && *eq != '=') ++eq;
      if (eq < stop && eq > p) {
        char const* name_end = eq;
        while (name_end > p && (name_end[-1] == ' ' || name_end[-1] == '\t')) --name_end;
        char const* v = eq + 1;
        char const* v_end = stop;
        while (v < v_end && (*v == ' ' || *v == '\t')) ++v;
        while (v_end > v && (v_end[-1] == ' ' || v_end[-1] == '\t')) --v_end;
        if (v_end - v >= 2 && *v == '"' && v_end[-1] == '"') {
          ++v;
          --v_end;
        }
        if (name_end > p) {
          handle->cookies.emplace_back(std::string(p, name_end), std::string(v, v_end));
          ++loaded;
        }
      }
      p = stop;
    }
  } catch (std::bad_alloc const&) {
    return -1;
  }
  return loaded;
}

const char* KovaCgiGetRequestParam(KOVA_CGI_HANDLE handle, const char* name, int flags) {
  if (handle == nullptr || name == nullptr) return nullptr;
  size_t const first = (flags & KOVA_CGI_PARAM_BODY_ONLY) ? handle->query_params : 0;
  for (size_t i = first; i < handle->params.size(); ++i) {
    if (handle->params[i].first == name) return handle->params[i].second.c_str();
  }
  return nullptr;
}

const char* KovaCgiGetCookie(KOVA_CGI_HANDLE handle, const char* name) {
  if (handle == nullptr || name == nullptr) return nullptr;
  // The newest wins, so a cookie set during the request hides the one that came in.
  for (auto it = handle->cookies.rbegin(); it != handle->cookies.rend(); ++it) {
    if (it->first == name) return it->second.c_str();
  }
  return nullptr;
}

int KovaCgiSetCookies(KOVA_CGI_HANDLE handle, const char* name, const char* value, long max_age,
                      const char* path, const char* domain, int flags) {
  if (handle == nullptr || name == nullptr || value == nullptr) return -1;
  if (*name == '\0') return 0;
  for (char const* p = name; *p; ++p) {
    if (!IsTokenChar(static_cast<unsigned char>(*p))) return 0;
  }
  size_t const length = strlen(value);
  if (length > kMaxCookieValue) return 0;
  for (size_t i = 0; i < length; ++i) {
    if (!IsCookieValueChar(static_cast<unsigned char>(value[i]))) return 0;
  }
  if ((path != nullptr && !IsAttributeText(path)) ||
      (domain != nullptr && !IsAttributeText(domain)) || max_age < 0) {
    return 0;
  }
  try {
    std::string header = "Set-Cookie: ";
    header.append(name).append("=").append(value);
    if (flags & KOVA_CGI_COOKIE_EXPIRE) {
      header.append("; Max-Age=0");
    } else if (max_age > 0) {
      header.append("; Max-Age=").append(std::to_string(max_age));
    }
    if (path != nullptr && *path) header.append("; Path=").append(path);
    if (domain != nullptr && *domain) header.append("; Domain=").append(domain);
    char const* https = getenv("HTTPS");
    if ((flags & KOVA_CGI_COOKIE_SECURE) || (https != nullptr && strcasecmp(https, "on") == 0)) {
      header.append("; Secure");
    }
    if (!(flags & KOVA_CGI_COOKIE_SCRIPT_READABLE)) header.append("; HttpOnly");
    header.append("; SameSite=Lax\r\n");
    handle->cookies.emplace_back(name, value);
    handle->set_cookie_headers += header;
  } catch (std::bad_alloc const&) {
    return -1;
  }
  return 1;
}

const char* KovaCgiGetSetCookieHeaders(KOVA_CGI_HANDLE handle) {
  if (handle == nullptr) return "";
  return handle->set_cookie_headers.c_str();
}

int KovaCgiGetRemoteIP(char* buf, size_t size) {
  if (buf == nullptr || size == 0) return -1;
  char const* addr = getenv("REMOTE_ADDR");
  if (addr == nullptr) return -1;
  // Anything longer than the longest address text is not an address; this also keeps
  // inet_pton away from megabytes of junk.
  if (strnlen(addr, INET6_ADDRSTRLEN) >= INET6_ADDRSTRLEN) return -1;
  char text[INET6_ADDRSTRLEN];
  unsigned char raw[sizeof(struct in6_addr)];
  if (inet_pton(AF_INET, addr, raw) == 1) {
    if (inet_ntop(AF_INET, raw, text, sizeof text) == nullptr) return -1;
  } else if (inet_pton(AF_INET6, addr, raw) == 1) {
    if (inet_ntop(AF_INET6, raw, text, sizeof text) == nullptr) return -1;
  } else {
    return -1;
  }
  size_t const length = strlen(text);
  if (length >= size) return -1;
  memcpy(buf, text, length + 1);
  return 0;
}

void KovaCgiFree(KOVA_CGI_HANDLE handle) { delete handle; }

}  // extern "C"
