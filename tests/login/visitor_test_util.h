// Helpers of the login and fault tests: a CGI request, the failed-login store, and the visitor
// fixture (the sharing database emptied before every test, links made through the entry store).
#ifndef KOVA_TESTS_VISITOR_TEST_UTIL_H
#define KOVA_TESTS_VISITOR_TEST_UTIL_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <ctime>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "kova_autoblock.h"
#include "kova_cgi.h"
#include "kova_paths.h"
#include "kovasharing/sharinglogin.h"
#include "kovatest.h"
#include "kovatest_db.h"
#include "kovatest_sharing.h"

namespace kovatest {

// The CGI variables of one request, cleared when it is made and when it ends; a POST body
// comes on standard input through a pipe until the request ends.
class CgiRequest {
 public:
  explicit CgiRequest(char const* remote_addr = "192.0.2.10") : saved_stdin_(dup(STDIN_FILENO)) {
    Clear();
    if (remote_addr != nullptr) setenv("REMOTE_ADDR", remote_addr, 1);
  }
  ~CgiRequest() {
    dup2(saved_stdin_, STDIN_FILENO);
    close(saved_stdin_);
    Clear();
  }
  // A form of `body` (fits a pipe's buffer), announced as `declared` bytes.
  void Post(std::string const& body, long declared) {
    setenv("REQUEST_METHOD", "POST", 1);
    setenv("CONTENT_TYPE", "application/x-www-form-urlencoded", 1);
    setenv("CONTENT_LENGTH", std::to_string(declared).c_str(), 1);
    int fds[2];
    if (pipe(fds) != 0 || write(fds[1], body.data(), body.size()) != ssize_t(body.size())) abort();
    close(fds[1]);
    dup2(fds[0], STDIN_FILENO);
    close(fds[0]);
  }

 private:
  static void Clear() {
    for (char const* name : {"REMOTE_ADDR", "QUERY_STRING", "HTTP_COOKIE", "REQUEST_METHOD",
                             "CONTENT_TYPE", "CONTENT_LENGTH", "HTTPS"}) {
      unsetenv(name);
    }
  }
  int const saved_stdin_;
};

// Runs `work` in a child process and returns its exit code (-1 when it did not exit).
inline int InChild(std::function<int()> const& work) {
  pid_t const pid = fork();
  if (pid == 0) _exit(work());
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// SQL on the failed-login store, run as the system account in a child: the number in its
// result (0 for none), or 100 and more when it fails.
inline int AutoBlockSql(std::string const& sql) {
  return InChild([&sql] {
    if (setresgid(1, 1, 1) != 0 || setresuid(1, 1, 1) != 0) return 100;
    int const value = atoi(Sql(KOVA_AUTOBLOCK_DB_FILE, sql).c_str());
    return ::testing::Test::HasFailure() ? 101 : value;
  });
}

// Failed logins counted for `addr` (an IPv4 address) within the blocking window.
inline int FailCount(std::string const& addr) {
  return AutoBlockSql("SELECT COUNT(*) FROM fail_login WHERE addr = '" + addr +
                      "' AND time > strftime('%s', 'now') - 600");
}

}  // namespace kovatest

namespace visitortest {

using KOVA::sharing::db::EntryDB;
using KOVA::sharing::db::SharingDB;
using KOVA::sharing::record::Entry;
using kovatest::MakeLink;
using kovatest::PasswordLink;
using kovatest::Value;

char const kAddr[] = "192.0.2.10";
char const kOtherAddr[] = "192.0.2.20";
long const kDay = 86400;

class VisitorTest : public kovatest::SharingTest {
 protected:
  void SetUp() override {
    SharingTest::SetUp();
    kovatest::ClearLogs();
  }

  // How many lines "sharinglogin:<line> <tail>" were logged at error priority.
  static int Logged(std::string const& tail) {
    std::regex const line("^sharinglogin:[0-9]+ " + tail + "$");
    int n = 0;
    for (auto const& log : kovatest::Logs())
      n += std::regex_match(log.text, line) && (log.priority & 7) == LOG_ERR;
    return n;
  }

  void Exec(std::string const& sql) {
    ASSERT_TRUE(db().Execute(sql)) << sql << ": " << db().GetLastError();
  }
  // Every row of the three tables, for checks that nothing changed.
  std::string Snapshot() {
    return kovatest::Sql(KOVA_SHARING_DB_FILE,
                         "SELECT * FROM entry ORDER BY id; SELECT * FROM "
                         "session ORDER BY id; SELECT * FROM token ORDER BY id");
  }
  std::string Integrity() {
    return Value("SELECT integrity_check AS v FROM pragma_integrity_check");
  }

  std::string UserEntry(std::vector<std::string> const& users,
                        std::vector<std::string> const& groups = {}) {
    return kovatest::MakeLink([&](Entry& e) {
      e.set_protect_type(Entry::PROTECT_USER);
      e.set_protect_users(users);
      e.set_protect_groups(groups);
    });
  }
  Entry Load(std::string const& hash) {
    Entry entry;
    EXPECT_TRUE(EntryDB(db()).GetByHash(hash, entry)) << hash;
    return entry;
  }
  int UseCount(std::string const& hash) {
    return static_cast<int>(
        Number("SELECT use_count AS v FROM entry WHERE hash = '" + db().Escape(hash) + "'"));
  }

  int Login(std::string& sid, char const* hash, char const* password = nullptr,
            char const* username = nullptr, char const* user_password = nullptr,
            char const* session_id = nullptr, bool quiet = false) {
    _tag_sharing_login_params const params = {hash, password, username, user_password, session_id};
    sid.clear();
    return KOVA::KovaSharingLogin(sid, &params, quiet);
  }
  int Check(char const* hash, char const* session_id, char const* username = nullptr,
            char const* user_password = nullptr) {
    _tag_sharing_login_params const params = {hash, nullptr, username, user_password, session_id};
    return KOVA::KovaSharingIsAuthorized(&params);
  }
  std::string SessionField(std::string const& sid, char const* column) {
    return Value(std::string("SELECT ") + column + " AS v FROM session WHERE session_id = '" +
                 db().Escape(sid) + "'");
  }
  static void ExpectOneDayAhead(long timeout) {
    long const now = static_cast<long>(time(nullptr));
    EXPECT_LE(timeout, now + kDay);
    EXPECT_GE(timeout, now + kDay - 5);
  }

  kovatest::CgiRequest request_{kAddr};
};

}  // namespace visitortest

#endif
