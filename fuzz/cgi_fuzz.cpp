// The request parsers of the web request library fed from fuzz input in-process: the query
// string and the cookie header through the environment, a form body through standard input (a
// fresh pipe per input). Every parameter and cookie must be what a plain reading of the rules
// gives (url decoding, first parameter wins with the query before the body, newest cookie
// wins), a body is refused exactly when its length is unreadable, too large or not all there,
// and a cookie set from hostile text never puts a line break into the reply's headers.
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "kova_cgi.h"

namespace {

char const kTarget[] = "cgi";
using Pairs = std::vector<std::pair<std::string, std::string>>;

int Hex(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Decoded text, or false when it would hold a NUL.
bool Decode(std::string const& in, std::string& out) {
  out.clear();
  for (size_t i = 0; i < in.size(); ++i) {
    char c = in[i];
    if (c == '+') {
      c = ' ';
    } else if (c == '%' && i + 2 < in.size() && Hex(in[i + 1]) >= 0 && Hex(in[i + 2]) >= 0) {
      c = static_cast<char>(Hex(in[i + 1]) * 16 + Hex(in[i + 2]));
      i += 2;
    }
    if (c == '\0') return false;
    out += c;
  }
  return true;
}

void Form(std::string const& text, Pairs& out) {
  size_t start = 0;
  while (start < text.size()) {
    size_t stop = text.find_first_of("&;", start);
    if (stop == std::string::npos) stop = text.size();
    std::string const piece = text.substr(start, stop - start);
    size_t const eq = piece.find('=');
    std::string name, value;
    if (!piece.empty() && Decode(piece.substr(0, eq), name) && !name.empty() &&
        Decode(eq == std::string::npos ? "" : piece.substr(eq + 1), value)) {
      out.emplace_back(name, value);
    }
    start = stop + 1;
  }
}

std::string Trim(std::string const& s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t')) --e;
  return s.substr(b, e - b);
}

void Cookies(std::string const& header, Pairs& out) {
  size_t start = 0;
  while (start < header.size()) {
    size_t stop = header.find(';', start);
    if (stop == std::string::npos) stop = header.size();
    std::string const piece = header.substr(start, stop - start);
    size_t const eq = piece.find('=');
    if (eq != std::string::npos) {
      std::string const name = Trim(piece.substr(0, eq));
      std::string value = Trim(piece.substr(eq + 1));
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
      }
      if (!name.empty()) out.emplace_back(name, value);
    }
    start = stop + 1;
  }
}

std::string Env(std::string const& s) { return s.substr(0, s.find('\0')); }

void Set(char const* name, std::string const& value, bool present) {
  if (present) {
    setenv(name, value.c_str(), 1);
  } else {
    unsetenv(name);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static bool once = [] {
    signal(SIGPIPE, SIG_IGN);
    return true;
  }();
  (void)once;
  kovafuzz::Input input(data, size);
  unsigned const flags = input.Byte();
  std::string const query = Env(input.Text(2048));
  std::string const cookie = Env(input.Text(2048));
  std::string const set_name = Env(input.Text(64));
  std::string const set_value = Env(input.Text(256));
  std::string const length_text = Env(input.Text(24));
  std::string const body = input.Rest();

  bool const post = flags & 1;
  bool const form = flags & 2;
  unsigned const length_kind = (flags >> 2) & 3;  // exact, shorter, longer, the given text
  std::string declared;
  if (length_kind == 0) declared = std::to_string(body.size());
  if (length_kind == 1) declared = std::to_string(body.size() / 2);
  if (length_kind == 2) declared = std::to_string(body.size() + 1);
  if (length_kind == 3) declared = length_text;

  Set("QUERY_STRING", query, flags & 16);
  Set("HTTP_COOKIE", cookie, flags & 32);
  Set("REQUEST_METHOD", (flags & 64) ? "post" : "POST", post);
  Set("CONTENT_TYPE",
      (flags & 128) ? "application/x-www-form-urlencoded; charset=UTF-8"
                    : "application/x-www-form-urlencoded",
      form);
  setenv("CONTENT_LENGTH", declared.c_str(), 1);

  // The body arrives on a new pipe, so the library sees a new standard input.
  int fds[2];
  if (pipe(fds) != 0) kovafuzz::Fail(kTarget, "pipe");
  fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);
  size_t done = 0;
  while (done < body.size()) {
    ssize_t const n = write(fds[1], body.data() + done, body.size() - done);
    if (n <= 0) kovafuzz::Fail(kTarget, "body does not fit the pipe");
    done += static_cast<size_t>(n);
  }
  close(fds[1]);
  dup2(fds[0], STDIN_FILENO);
  close(fds[0]);

  // What the request should read as.
  bool refused = false;
  Pairs params;
  if (flags & 16) Form(query, params);
  if (post && form) {
    bool digits = true;
    unsigned long long n = 0;  // saturates: any number this large is refused anyway
    for (char c : declared) {
      digits = digits && c >= '0' && c <= '9';
      if (digits) n = n > 1ull << 40 ? n : n * 10 + static_cast<unsigned>(c - '0');
    }
    if (!digits) {
      refused = true;  // no number
    } else {
      if (n > KOVA_CGI_MAX_BODY || n > body.size()) {
        refused = true;
      } else {
        Form(body.substr(0, n), params);
      }
    }
  }

  KOVA_CGI_HANDLE handle = nullptr;
  int const rc = KovaCgiInit("", &handle);
  if (rc != (refused ? 0 : 1)) {
    kovafuzz::Fail(kTarget, "KovaCgiInit gave " + std::to_string(rc) + ", declared " +
                                kovafuzz::Show(declared) + " for a body of " +
                                std::to_string(body.size()));
  }
  if (rc != 1) return 0;
  for (auto const& p : params) {
    std::string first;
    for (auto const& q : params) {
      if (q.first == p.first) {
        first = q.second;
        break;
      }
    }
    char const* got = KovaCgiGetRequestParam(handle, p.first.c_str(), 0);
    if (got == nullptr || first != got) {
      kovafuzz::Fail(kTarget, "parameter " + kovafuzz::Show(p.first) + " read as " +
                                  (got ? kovafuzz::Show(got) : "nothing") + " instead of " +
                                  kovafuzz::Show(first));
    }
  }
  bool sent = false;
  for (auto const& p : params) sent = sent || p.first == "\x01no-such-name";
  if (!sent && KovaCgiGetRequestParam(handle, "\x01no-such-name", 0) != nullptr) {
    kovafuzz::Fail(kTarget, "a parameter nobody sent");
  }

  Pairs cookies;
  if (flags & 32) Cookies(cookie, cookies);
  int const loaded = KovaCgiLoadInCookies(handle);
  if (loaded != static_cast<int>(cookies.size())) {
    kovafuzz::Fail(kTarget, "loaded " + std::to_string(loaded) + " cookies instead of " +
                                std::to_string(cookies.size()));
  }
  for (auto const& c : cookies) {
    std::string newest;
    for (auto const& d : cookies) {
      if (d.first == c.first) newest = d.second;
    }
    char const* got = KovaCgiGetCookie(handle, c.first.c_str());
    if (got == nullptr || newest != got) {
      kovafuzz::Fail(kTarget, "cookie " + kovafuzz::Show(c.first) + " read wrongly");
    }
  }

  int const set =
      KovaCgiSetCookies(handle, set_name.c_str(), set_value.c_str(), 0, "/", nullptr, 0);
  std::string const headers = KovaCgiGetSetCookieHeaders(handle);
  if (set == 1) {
    char const* got = KovaCgiGetCookie(handle, set_name.c_str());
    if (got == nullptr || set_value != got)
      kovafuzz::Fail(kTarget, "a set cookie does not read back");
  } else if (set != 0 || !headers.empty()) {
    kovafuzz::Fail(kTarget, "a refused cookie left a header");
  }
  // Every header line is one "Set-Cookie: ..." ended by CR LF, with no other line break.
  size_t pos = 0;
  while (pos < headers.size()) {
    size_t const end = headers.find("\r\n", pos);
    if (end == std::string::npos) kovafuzz::Fail(kTarget, "header not ended by CR LF");
    std::string const line = headers.substr(pos, end - pos);
    if (line.find_first_of("\r\n") != std::string::npos || line.rfind("Set-Cookie: ", 0) != 0) {
      kovafuzz::Fail(kTarget, "cookie text broke the header: " + kovafuzz::Show(headers));
    }
    pos = end + 2;
  }
  KovaCgiFree(handle);
  return 0;
}
