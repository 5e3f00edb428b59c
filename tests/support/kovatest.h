// Shared helpers of the test programs: the captured system log, temporary directories owned
// by the system account, and the test root given by KOVA_ROOT.
#ifndef KOVATEST_H
#define KOVATEST_H

#include <map>
#include <string>
#include <vector>

namespace kovatest {

struct LogLine {
  int priority;      // as given to syslog (facility | level)
  std::string text;  // fully formatted, "%m" expanded
};

// The lines sent to syslog since the last ClearLogs(), in order; their texts; how many contain
// `needle`.
std::vector<LogLine> Logs();
void ClearLogs();
std::vector<std::string> LogTexts();
int LogCount(std::string const& needle);

std::string Root();  // the appliance root of this build (KOVA_ROOT)
bool RealRoot();     // whether the process really runs as root

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

std::string ReadFile(std::string const& path);  // empty when it cannot be read
void WriteFile(std::string const& path, std::string const& text);
void RemoveTree(std::string const& path);  // under /tmp only

// A program run as a child with `input` on its standard input. `env` is set over the test's
// own environment, except that a variable set to kUnset is removed. status: the exit code, 128
// plus the signal, or 127 when the program did not start.
struct Outcome {
  int status;
  std::string out, err;
};
extern char const kUnset[];
Outcome Run(std::vector<std::string> const& argv,
            std::map<std::string, std::string> const& env = {}, std::string const& input = "");

}  // namespace kovatest

#endif
