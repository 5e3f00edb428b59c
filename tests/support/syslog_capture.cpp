// Interposes the C library's syslog entry points for the test programs, so tests can assert
// the exact lines the code logs. The executable's definitions win over libc's for every caller
// in the process, the shared platform library included.
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "kovatest.h"

namespace {

std::mutex& LogMutex() {
  static std::mutex m;
  return m;
}

std::vector<kovatest::LogLine>& Store() {
  static std::vector<kovatest::LogLine> lines;
  return lines;
}

void Capture(int priority, char const* format, va_list ap) {
  int const saved = errno;
  // Expand "%m" ourselves, as syslog does, before the ordinary formatting.
  std::string fmt;
  for (char const* p = format; *p; ++p) {
    if (p[0] == '%' && p[1] == '%') {
      fmt += "%%";
      ++p;
    } else if (p[0] == '%' && p[1] == 'm') {
      for (char const* e = strerror(saved); *e; ++e) {
        if (*e == '%') fmt += '%';
        fmt += *e;
      }
      ++p;
    } else {
      fmt += *p;
    }
  }
  va_list copy;
  va_copy(copy, ap);
  int const n = vsnprintf(nullptr, 0, fmt.c_str(), copy);
  va_end(copy);
  std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) vsnprintf(&text[0], text.size() + 1, fmt.c_str(), ap);
  if (getenv("KOVA_TEST_ECHO_LOG")) fprintf(stderr, "[syslog %d] %s\n", priority, text.c_str());
  std::lock_guard<std::mutex> lock(LogMutex());
  Store().push_back({priority, text});
  errno = saved;
}

}  // namespace

extern "C" {
void syslog(int priority, char const* format, ...) {
  va_list ap;
  va_start(ap, format);
  Capture(priority, format, ap);
  va_end(ap);
}
void vsyslog(int priority, char const* format, va_list ap) { Capture(priority, format, ap); }
void __syslog_chk(int priority, int, char const* format, ...) {
  va_list ap;
  va_start(ap, format);
  Capture(priority, format, ap);
  va_end(ap);
}
void __vsyslog_chk(int priority, int, char const* format, va_list ap) {
  Capture(priority, format, ap);
}
void openlog(char const*, int, int) {}
void closelog(void) {}
}

namespace kovatest {

std::vector<LogLine> Logs() {
  std::lock_guard<std::mutex> lock(LogMutex());
  return Store();
}

void ClearLogs() {
  std::lock_guard<std::mutex> lock(LogMutex());
  Store().clear();
}

std::vector<std::string> LogTexts() {
  std::vector<std::string> out;
  for (auto const& l : Logs()) out.push_back(l.text);
  return out;
}

bool LogContains(std::string const& needle) { return LogCount(needle) > 0; }

int LogCount(std::string const& needle) {
  int n = 0;
  for (auto const& l : Logs())
    if (l.text.find(needle) != std::string::npos) ++n;
  return n;
}

}  // namespace kovatest
