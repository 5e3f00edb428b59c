// One web request as a CGI program sees it: the environment variables of CGI/1.1 and a POST
// body on standard input. Every variable is cleared when the request is made and again when
// it ends, and standard input is given back, so tests cannot leak a request into each other.
#ifndef KOVA_TESTS_CGI_REQUEST_H
#define KOVA_TESTS_CGI_REQUEST_H

#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>

#include "kova_paths.h"

namespace kovatest {

class CgiRequest {
 public:
  explicit CgiRequest(char const* remote_addr = "192.0.2.10") {
    signal(SIGPIPE, SIG_IGN);  // a refused body leaves its writer without a reader
    Clear();
    saved_stdin_ = dup(STDIN_FILENO);
    if (remote_addr != nullptr) setenv("REMOTE_ADDR", remote_addr, 1);
  }
  ~CgiRequest() {
    dup2(saved_stdin_, STDIN_FILENO);  // closes our pipe's last read end: the writer ends
    close(saved_stdin_);
    if (writer_.joinable()) writer_.join();
    Clear();
  }
  CgiRequest(CgiRequest const&) = delete;
  CgiRequest& operator=(CgiRequest const&) = delete;

  void Set(char const* name, std::string const& value) { setenv(name, value.c_str(), 1); }
  void Unset(char const* name) { unsetenv(name); }

  // A url-encoded POST of `body`, announced as `declared` bytes (the body's own length when
  // negative). The body arrives through a pipe, as from a web server.
  void Post(std::string const& body, long declared = -1,
            char const* type = "application/x-www-form-urlencoded") {
    setenv("REQUEST_METHOD", "POST", 1);
    if (type != nullptr) setenv("CONTENT_TYPE", type, 1);
    setenv("CONTENT_LENGTH",
           std::to_string(declared < 0 ? static_cast<long>(body.size()) : declared).c_str(), 1);
    int fds[2];
    if (pipe(fds) != 0) abort();
    // Replacing standard input closes the last read end of an earlier body, so a writer
    // stuck on a body nobody read ends with EPIPE.
    dup2(fds[0], STDIN_FILENO);
    close(fds[0]);
    if (writer_.joinable()) writer_.join();
    int const out = fds[1];
    writer_ = std::thread([out, body] {
      size_t done = 0;
      while (done < body.size()) {
        ssize_t const n = write(out, body.data() + done, body.size() - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
      }
      close(out);
    });
  }

  // What is still unread on standard input (waits for the writer to finish).
  std::string Unread() {
    if (writer_.joinable()) writer_.join();
    std::string rest;
    char buf[4096];
    ssize_t n;
    while ((n = read(STDIN_FILENO, buf, sizeof buf)) > 0) rest.append(buf, static_cast<size_t>(n));
    return rest;
  }

 private:
  static void Clear() {
    for (char const* name : {"REMOTE_ADDR", "QUERY_STRING", "HTTP_COOKIE", "REQUEST_METHOD",
                             "CONTENT_TYPE", "CONTENT_LENGTH", "HTTPS"}) {
      unsetenv(name);
    }
  }

  int saved_stdin_ = -1;
  std::thread writer_;
};

// Runs `work` in a child process and returns its exit code (-1 when it did not exit).
inline int InChild(std::function<int()> const& work) {
  pid_t const pid = fork();
  if (pid == 0) _exit(work());
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs `work` in a child process under the system account, as the stores' files are written.
inline int AsSystemInChild(std::function<int()> const& work) {
  return InChild([&work] {
    if (setresgid(1, 1, 1) != 0 || setresuid(1, 1, 1) != 0) return 100;
    return work();
  });
}

// Runs one statement on the failed-login store as the system account in a child; for a
// query, the first column of the first row is the result (so keep it under 100).
inline int AutoBlockSql(std::string const& sql) {
  return AsSystemInChild([&sql] {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(KOVA_AUTOBLOCK_DB_FILE, &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK)
      return 101;
    sqlite3_busy_timeout(db, 5000);
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) return 102;
    int const rc = sqlite3_step(stmt);
    int const result = rc == SQLITE_ROW ? sqlite3_column_int(stmt, 0) : rc == SQLITE_DONE ? 0 : 103;
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return result;
  });
}

// Failed logins counted for `addr` (an IPv4 address) within the blocking window.
inline int FailCount(std::string const& addr) {
  return AutoBlockSql("SELECT COUNT(*) FROM fail_login WHERE addr = '" + addr +
                      "' AND time > strftime('%s', 'now') - 600");
}

}  // namespace kovatest

#endif
