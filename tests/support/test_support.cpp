#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "kova_paths.h"
#include "kovatest.h"

namespace kovatest {

std::string Root() { return KOVA_ROOT_PREFIX; }

bool RealRoot() { return getuid() == 0 && geteuid() == 0 && getenv("UID_WRAPPER") == nullptr; }

TempDir::TempDir() {
  char tmpl[] = "/tmp/kovatest.XXXXXX";
  if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
  if (geteuid() == 0 && chown(path_.c_str(), 1, 1) != 0) throw std::runtime_error("chown");
  chmod(path_.c_str(), 0770);
}

TempDir::~TempDir() { RemoveTree(path_); }

int Shell(std::string const& command) {
  // A pam_wrapper of the shell's own would compete with the test program's under /tmp.
  char const* pam = getenv("PAM_WRAPPER");
  std::string const saved = pam != nullptr ? pam : "";
  if (pam != nullptr) unsetenv("PAM_WRAPPER");
  int const status = system(command.c_str());
  if (pam != nullptr) setenv("PAM_WRAPPER", saved.c_str(), 1);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string ReadFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void WriteFile(std::string const& path, std::string const& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

void RemoveTree(std::string const& path) {
  if (path.size() > 5 && path.compare(0, 5, "/tmp/") == 0) Shell("rm -rf '" + path + "'");
}

}  // namespace kovatest
