// Replaces the C library's syslog for every caller in a test program, so tests see each line.
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "kovatest.h"

namespace {

// Reached before main too (a child of the fault tests logs from a static initializer).
struct Store {
  std::mutex mutex;
  std::vector<kovatest::LogLine> lines;
};
Store& Captured() {
  static Store store;
  return store;
}

// The C library's formatting expands "%m" from errno, as syslog does.
void Capture(int priority, char const* format, va_list ap) {
  int const saved = errno;
  va_list copy;
  va_copy(copy, ap);
  int const n = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  errno = saved;
  if (n > 0) vsnprintf(&text[0], text.size() + 1, format, ap);
  std::lock_guard<std::mutex> lock(Captured().mutex);
  Captured().lines.push_back({priority, text});
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
  std::lock_guard<std::mutex> lock(Captured().mutex);
  return Captured().lines;
}

void ClearLogs() {
  std::lock_guard<std::mutex> lock(Captured().mutex);
  Captured().lines.clear();
}

std::vector<std::string> LogTexts() {
  std::vector<std::string> out;
  for (auto const& l : Logs()) out.push_back(l.text);
  return out;
}

int LogCount(std::string const& needle) {
  int n = 0;
  for (auto const& l : Logs()) n += l.text.find(needle) != std::string::npos;
  return n;
}

}  // namespace kovatest
