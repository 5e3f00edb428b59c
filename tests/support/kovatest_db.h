// Helpers for database files, owners, identity switches, forked children and clock seconds.
#ifndef KOVATEST_DB_H
#define KOVATEST_DB_H

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <string>

#include "kovatest.h"

namespace kovatest {

// Runs an SQL text on a connection of its own; its rows joined by ";", columns by "|".
inline std::string Sql(std::string const& path, std::string const& sql) {
  std::string rows;
  sqlite3* db = nullptr;
  sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  auto collect = [](void* out, int n, char** values, char**) {
    std::string& rows = *static_cast<std::string*>(out);
    for (int i = 0; i < n; ++i) {
      rows += std::string(i > 0 ? "|" : rows.empty() ? "" : ";") + (values[i] ? values[i] : "NULL");
    }
    return 0;
  };
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), collect, &rows, nullptr)) << sql;
  sqlite3_close(db);
  return rows;
}

// An SQLite file as the system account would have made it (owner 1:1), with the given mode.
inline void MakeDb(std::string const& path, std::string const& sql = "", mode_t mode = 0660) {
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr)) << sql;
  sqlite3_close(db);
  ASSERT_EQ(0, chmod(path.c_str(), mode));
  ASSERT_EQ(0, geteuid() == 0 ? chown(path.c_str(), 1, 1) : 0);
}

// "<mode> <uid>:<gid>" of a file, e.g. "660 1:1", or "none".
inline std::string Owner(std::string const& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return "none";
  char text[64];
  snprintf(text, sizeof text, "%o %u:%u", st.st_mode & 07777u, st.st_uid, st.st_gid);
  return text;
}

inline std::string Ids() { return std::to_string(geteuid()) + ":" + std::to_string(getegid()); }
// Sets the effective ids, regaining root first when needed.
inline bool Become(uid_t uid, gid_t gid) {
  return (geteuid() == 0 || setresuid(-1, 0, -1) == 0) && setresgid(-1, gid, -1) == 0 &&
         setresuid(-1, uid, -1) == 0;
}

// What `body` returns, computed in a forked child whose log starts empty; only a child may
// change its identity for good.
inline std::string ChildText(std::function<std::string()> const& body) {
  int fds[2];
  if (pipe(fds) != 0) return "<no pipe>";
  fflush(nullptr);
  pid_t const pid = fork();
  if (pid == 0) {
    close(fds[0]);
    ClearLogs();
    std::string const out = body();
    _exit(write(fds[1], out.data(), out.size()) == static_cast<ssize_t>(out.size()) ? 0 : 1);
  }
  close(fds[1]);
  std::string out;
  char buf[512];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, n);
  close(fds[0]);
  int status = -1;
  waitpid(pid, &status, 0);
  return status == 0 ? out : out + " <child status " + std::to_string(status) + ">";
}

// Runs `check(now)` until one run starts and ends within the same second, so that a boundary
// on the current time is judged at exactly that second.
inline bool AtOneSecond(std::function<bool(time_t)> const& check) {
  for (int attempt = 0; attempt < 10; ++attempt) {
    time_t const now = time(nullptr);
    bool const result = check(now);
    if (time(nullptr) == now) return result;
  }
  ADD_FAILURE() << "the clock kept moving";
  return false;
}

}  // namespace kovatest

#define KOVA_REQUIRE_ROOT() \
  if (!kovatest::RealRoot()) GTEST_SKIP() << "needs real root"

#endif
