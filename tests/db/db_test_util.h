// Helpers of the db layer's tests: log-line matching, a direct SQLite handle for checking what
// the code under test wrote, file facts, and running a check in a child process whose identity
// may be changed for good.
#ifndef KOVA_TESTS_DB_TEST_UTIL_H
#define KOVA_TESTS_DB_TEST_UTIL_H

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "kovatest.h"

namespace dbtest {

inline std::string Pid() { return std::to_string(static_cast<unsigned>(getpid())); }

// True when a captured line begins with "<source>:" and ends with `tail` exactly.
inline bool HasLine(std::string const& source, std::string const& tail, int priority = -1) {
  for (auto const& line : kovatest::Logs()) {
    if (line.text.compare(0, source.size() + 1, source + ":") != 0) continue;
    if (line.text.size() < tail.size()) continue;
    if (line.text.compare(line.text.size() - tail.size(), tail.size(), tail) != 0) continue;
    if (priority != -1 && line.priority != priority) continue;
    return true;
  }
  return false;
}

// "<source>:<line> (<pid>) <message>" as the library logs it.
inline bool HasPidLine(std::string const& source, std::string const& message) {
  return HasLine(source, " (" + Pid() + ") " + message);
}

// Runs one SQL text on its own connection and returns the rows, columns joined by "|".
inline std::vector<std::string> Sql(std::string const& path, std::string const& sql) {
  std::vector<std::string> rows;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    ADD_FAILURE() << "cannot open " << path;
    return rows;
  }
  sqlite3_busy_timeout(db, 5000);
  char* error = nullptr;
  auto collect = [](void* out, int n, char** values, char**) {
    std::string row;
    for (int i = 0; i < n; ++i) {
      if (i > 0) row += "|";
      row += values[i] != nullptr ? values[i] : "NULL";
    }
    static_cast<std::vector<std::string>*>(out)->push_back(row);
    return 0;
  };
  if (sqlite3_exec(db, sql.c_str(), collect, &rows, &error) != SQLITE_OK) {
    ADD_FAILURE() << "sql failed: " << sql << ": " << (error ? error : "?");
  }
  sqlite3_free(error);
  sqlite3_close(db);
  return rows;
}

inline std::string One(std::string const& path, std::string const& sql) {
  auto rows = Sql(path, sql);
  return rows.empty() ? std::string("<no row>") : rows.front();
}

// Makes an SQLite file as the system account would (owner 1:1), with the given mode.
inline void MakeDb(std::string const& path, std::string const& sql = "", mode_t mode = 0660) {
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
  if (!sql.empty()) {
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr)) << sql;
  }
  sqlite3_close(db);
  ASSERT_EQ(0, chmod(path.c_str(), mode));
  if (geteuid() == 0) {
    ASSERT_EQ(0, chown(path.c_str(), 1, 1));
  }
}

struct FileFacts {
  bool exists = false;
  unsigned mode = 0;
  unsigned uid = 0;
  unsigned gid = 0;
  long long size = 0;
};

inline FileFacts Facts(std::string const& path) {
  FileFacts f;
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    f.exists = true;
    f.mode = st.st_mode & 07777;
    f.uid = st.st_uid;
    f.gid = st.st_gid;
    f.size = st.st_size;
  }
  return f;
}

// Runs `body` in a forked child and returns its exit code (or 100 + signal). The child may
// change its identity irreversibly; the test process stays as it is.
inline int InChild(std::function<int()> const& body) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int rc = 99;
    try {
      rc = body();
    } catch (...) {
      rc = 98;
    }
    _exit(rc);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? 100 + WTERMSIG(status) : -1;
}

// Gives the process the system account for good (real, effective and saved ids).
inline bool DropForGood(unsigned id) {
  return setresgid(id, id, id) == 0 && setresuid(id, id, id) == 0;
}

// Keeps the effective ids in view: the test fails when an operation leaves them changed.
class IdentityCheck {
 public:
  IdentityCheck() : uid_(geteuid()), gid_(getegid()) {}
  void Expect(char const* what) const {
    EXPECT_EQ(uid_, geteuid()) << "effective uid changed by " << what;
    EXPECT_EQ(gid_, getegid()) << "effective gid changed by " << what;
  }

 private:
  uid_t uid_;
  gid_t gid_;
};

}  // namespace dbtest

#define KOVA_REQUIRE_ROOT()              \
  do {                                   \
    if (!kovatest::RealRoot()) {         \
      GTEST_SKIP() << "needs real root"; \
    }                                    \
  } while (0)

#endif
