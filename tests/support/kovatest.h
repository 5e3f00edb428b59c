// Shared helpers of the test programs: the captured system log, temporary directories owned
// by the system account, and the test root given by KOVA_ROOT.
#ifndef KOVATEST_H
#define KOVATEST_H

#include <string>
#include <vector>

namespace kovatest {

struct LogLine {
  int priority;      // as given to syslog (facility | level)
  std::string text;  // fully formatted, "%m" expanded
};

// Every line the code under test sent to syslog since the last ClearLogs().
std::vector<LogLine> Logs();
void ClearLogs();
// Texts only, in order.
std::vector<std::string> LogTexts();
// True when some captured line contains `needle`.
bool LogContains(std::string const& needle);
// Number of captured lines that contain `needle`.
int LogCount(std::string const& needle);

// The appliance root of this build (KOVA_ROOT, may be empty in a production build).
std::string Root();
// True when the process really runs as root (CI does); identity tests need it.
bool RealRoot();

// A fresh directory under /tmp, owned by the system account (uid 1, gid 1) with mode 0770
// when running as root, removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;
  std::string const& path() const { return path_; }
  std::string File(std::string const& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Runs a shell command (test set-up only, never the code under test); returns its exit status.
int Shell(std::string const& command);
// Reads a whole file; empty when it cannot be read.
std::string ReadFile(std::string const& path);
void WriteFile(std::string const& path, std::string const& text);
void RemoveTree(std::string const& path);

}  // namespace kovatest

#endif
