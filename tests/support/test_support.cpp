#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
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
  std::error_code ignored;
  if (path.size() > 5 && path.compare(0, 5, "/tmp/") == 0)
    std::filesystem::remove_all(path, ignored);
}

char const kUnset[] = "\x01unset";

Outcome Run(std::vector<std::string> const& argv, std::map<std::string, std::string> const& env,
            std::string const& input) {
  TempDir dir;
  WriteFile(dir.File("in"), input);
  pid_t const pid = fork();
  if (pid == 0) {
    for (auto const& var : env) {
      if (var.second == kUnset) {
        unsetenv(var.first.c_str());
      } else {
        setenv(var.first.c_str(), var.second.c_str(), 1);
      }
    }
    std::vector<char*> args;
    for (auto const& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    if (freopen(dir.File("in").c_str(), "r", stdin) &&
        freopen(dir.File("out").c_str(), "w", stdout) &&
        freopen(dir.File("err").c_str(), "w", stderr))
      execvp(args[0], args.data());
    _exit(127);
  }
  int status = -1;
  if (pid > 0 && waitpid(pid, &status, 0) == pid)
    status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return {status, ReadFile(dir.File("out")), ReadFile(dir.File("err"))};
}

}  // namespace kovatest
