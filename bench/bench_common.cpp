// The helpers the roles of the benchmark share (bench_common.h).
#include "bench_common.h"

#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <json/reader.h>
#include <kovasharing/kovasharing.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "floor.h"
#include "kova_paths.h"
#include "kovadb.h"

extern char** environ;

namespace kovabench {

std::string g_self;

double Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

double WallNow() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t const n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

long FileSize(std::string const& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : 0;
}

std::string ReadAll(std::string const& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

pid_t Spawn(std::vector<std::string> const& args) {
  std::vector<char*> argv;
  for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
  return pid;
}

int Wait(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int RunChild(std::vector<std::string> const& args) {
  pid_t const pid = Spawn(args);
  return pid < 0 ? -1 : Wait(pid);
}

void RemoveDatabases() {
  for (char const* base : {KOVA_SHARING_DB_FILE, KOVA_AUTOBLOCK_DB_FILE}) {
    for (char const* suffix : {"", "-wal", "-shm", "-journal"}) {
      unlink((std::string(base) + suffix).c_str());
    }
  }
}

bool ReadVisitor(std::string const& file, std::string& hash, std::string& sid) {
  std::istringstream in(ReadAll(file));
  return static_cast<bool>(in >> hash >> sid);
}

}  // namespace kovabench
