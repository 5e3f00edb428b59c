// The common ground of the db layer's tests: the captured log in a comparable form, a direct SQLite
// handle for checking what the code under test wrote, file facts, identity switches and a
// child process that may drop root for good.
#ifndef KOVA_TESTS_DB_TEST_UTIL_H
#define KOVA_TESTS_DB_TEST_UTIL_H

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "kovasharing/base_db.h"
#include "kovasharing/result.h"
#include "kovatest.h"

using namespace std::string_literals;

namespace dbtest {

// Every captured line, joined by "|", with the line number after "<source>:" shown as "#",
// this process's " (<pid>) " as " (pid) ", the system error text after "err=" as "%m", and "auth: "
// or "crit: " in front of the lines of LOG_AUTH | LOG_ERR and LOG_AUTH | LOG_CRIT (plain LOG_ERR
// lines have no prefix).
inline std::string Log() {
  std::string out;
  std::regex const number("^(\\w+):\\d+"), pid(" \\(" + std::to_string(getpid()) + "\\) ");
  std::regex const error("err=[^\\n]*");
  for (auto const& line : kovatest::Logs()) {
    int const p = line.priority;
    out += (out.empty() ? "" : "|") + std::string(p == LOG_ERR                 ? ""
                                                  : p == (LOG_AUTH | LOG_ERR)  ? "auth: "
                                                  : p == (LOG_AUTH | LOG_CRIT) ? "crit: "
                                                                               : "other: ");
    std::string const text = std::regex_replace(line.text, number, "$1:#");
    out += std::regex_replace(std::regex_replace(text, pid, " (pid) "), error, "err=%m");
  }
  return out;
}

// Runs an SQL text on a connection of its own; its rows joined by ";", columns by "|".
inline std::string Sql(std::string const& path, std::string const& sql) {
  std::string rows;
  sqlite3* db = nullptr;
  sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  auto collect = [](void* out, int n, char** values, char**) {
    std::string& rows = *static_cast<std::string*>(out);
    for (int i = 0; i < n; ++i) {
      rows += (i > 0 ? "|"s : rows.empty() ? ""s : ";"s) + (values[i] ? values[i] : "NULL");
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

inline long long Size(std::string const& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

inline std::string Ids() { return std::to_string(geteuid()) + ":" + std::to_string(getegid()); }

// Sets the effective ids, regaining root first when needed.
inline bool Become(uid_t uid, gid_t gid) {
  return (geteuid() == 0 || setresuid(-1, 0, -1) == 0) && setresgid(-1, gid, -1) == 0 &&
         setresuid(-1, uid, -1) == 0;
}

inline bool DropForGood(unsigned id) {
  return setresgid(id, id, id) == 0 && setresuid(id, id, id) == 0;
}

// What `body` returns, computed in a forked child whose log starts empty; only the child may
// change its identity for good.
inline std::string InChild(std::function<std::string()> const& body) {
  int fds[2];
  if (pipe(fds) != 0) return "<no pipe>";
  fflush(nullptr);
  pid_t const pid = fork();
  if (pid == 0) {
    close(fds[0]);
    kovatest::ClearLogs();
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

// "ok " or "failed ", then the statement the connection ran last.
inline std::string Ran(KOVA::sharing::db::BaseDB const& db, bool ok) {
  return (ok ? "ok " : "failed ") + db.GetLastQuery();
}

}  // namespace dbtest

#define KOVA_REQUIRE_ROOT() \
  if (!kovatest::RealRoot()) GTEST_SKIP() << "needs real root"

#endif
