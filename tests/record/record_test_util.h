// Helpers of the record tests: a migrated sharing database of its own, the captured
// "Failed [...]" lines, and the value semantics shared by the three record handles.
#ifndef KOVA_TESTS_RECORD_TEST_UTIL_H
#define KOVA_TESTS_RECORD_TEST_UTIL_H

#include <gtest/gtest.h>
#include <json/reader.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "kovasharing/object_db.h"
#include "kovasharing/sharing_db.h"
#include "kovatest_db.h"

namespace recordtest {

using kovatest::AtOneSecond;

struct Database {
  kovatest::TempDir dir;
  KOVA::sharing::db::SharingDB db{dir.File("s.db")};
  void Exec(std::string const& sql) { EXPECT_TRUE(db.Execute(sql)) << sql; }
};

// The line numbers of the lines logged since the last call, each of the exact shape
// "<source>:<line> (<pid>) Failed [<condition>], err=<text>\n\n".
inline std::vector<int> Failed(std::string const& source) {
  static std::regex const shape(R"(^([a-z_]+):(\d+) \((\d+)\) Failed \[.*\], err=[^\n]*\n\n$)");
  std::vector<int> out;
  for (std::string const& text : kovatest::LogTexts()) {
    std::smatch m;
    bool const ok = std::regex_match(text, m, shape) && m[1] == source &&
                    m[3] == std::to_string(static_cast<unsigned>(getpid()));
    EXPECT_TRUE(ok) << "unexpected log line: " << text;
    if (ok) out.push_back(std::stoi(m[2]));
  }
  kovatest::ClearLogs();
  return out;
}

// Calls `legal()` once a step: it must fail with one line logged, each step's line further
// down than the last (the rules are checked in their order); the step's repair then meets
// that rule. Returns the line numbers.
inline std::vector<int> RulesInOrder(std::function<bool()> const& legal, std::string const& source,
                                     std::vector<std::function<void()>> const& repairs) {
  kovatest::ClearLogs();
  std::vector<int> lines;
  for (auto const& repair : repairs) {
    EXPECT_FALSE(legal()) << "step " << lines.size();
    std::vector<int> const logged = Failed(source);
    EXPECT_EQ(1u, logged.size());
    if (logged.size() == 1) lines.push_back(logged[0]);
    if (lines.size() > 1) {
      EXPECT_GT(lines.back(), lines[lines.size() - 2]);
    }
    repair();
  }
  EXPECT_TRUE(legal());
  EXPECT_TRUE(Failed(source).empty());
  return lines;
}

inline Json::Value Parse(std::string const& text) {
  Json::Value value;
  EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
  return value;
}

inline void SetZone(char const* zone) {
  setenv("TZ", zone, 1);
  tzset();
}

// The row values and the row id: what a copy or a move must carry over.
template <class R>
std::vector<std::string> Fields(R const& r) {
  std::vector<std::string> fields = r.GetFieldList();
  fields.push_back(std::to_string(r.get_id()));
  return fields;
}

// Copies and moves carry the fields: a copy changes apart from its source, a moved-from
// handle keeps a record of its own. `change` must alter some field.
template <class R>
void ExpectValueSemantics(R original, std::function<void(R&)> const& change) {
  std::vector<std::string> const snapshot = Fields(original);
  R copy(original), assigned, moved(original), target;
  assigned = original;
  change(copy), change(assigned);
  EXPECT_TRUE(Fields(copy) != snapshot && Fields(assigned) != snapshot);
  EXPECT_EQ(snapshot, Fields(original));
  R taken(std::move(original));
  target = std::move(moved);
  change(original), change(moved);
  EXPECT_TRUE(Fields(taken) == snapshot && Fields(target) == snapshot);
  EXPECT_NE(&original.GetCObject(), &taken.GetCObject());
}

}  // namespace recordtest

#endif
