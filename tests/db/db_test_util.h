// The db layer's tests: the shared database helpers under short names, and the captured log in
// a comparable form.
#ifndef KOVA_TESTS_DB_TEST_UTIL_H
#define KOVA_TESTS_DB_TEST_UTIL_H

#include <syslog.h>

#include <regex>
#include <string>

#include "kovasharing/base_db.h"
#include "kovasharing/result.h"
#include "kovatest_db.h"

using namespace std::string_literals;

namespace dbtest {

using kovatest::Become;
using kovatest::DropForGood;
using kovatest::Ids;
using kovatest::MakeDb;
using kovatest::Owner;
using kovatest::Sql;
inline std::string InChild(std::function<std::string()> const& body) {
  return kovatest::ChildText(body);
}

// Every captured line, joined by "|", with the line number after "<source>:" shown as "#",
// this process's " (<pid>) " as " (pid) ", and "auth: " or "crit: " in front of the lines of
// LOG_AUTH | LOG_ERR and LOG_AUTH | LOG_CRIT.
inline std::string Log() {
  std::string out;
  std::regex const number("^(\\w+):\\d+"), pid(" \\(" + std::to_string(getpid()) + "\\) ");
  for (auto const& line : kovatest::Logs()) {
    int const p = line.priority;
    out += (out.empty() ? "" : "|") + std::string(p == (LOG_AUTH | LOG_ERR)    ? "auth: "
                                                  : p == (LOG_AUTH | LOG_CRIT) ? "crit: "
                                                                               : "");
    out += std::regex_replace(std::regex_replace(line.text, number, "$1:#"), pid, " (pid) ");
  }
  return out;
}

}  // namespace dbtest

#endif
