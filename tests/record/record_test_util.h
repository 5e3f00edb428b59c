// Helpers of the record tests: a migrated sharing database of its own, the captured
// "Failed [...]" lines, compact JSON texts, a clock boundary helper, the time zone and
// the value semantics shared by the three record handles.
#ifndef KOVA_TESTS_RECORD_TEST_UTIL_H
#define KOVA_TESTS_RECORD_TEST_UTIL_H

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "kovasharing/object_db.h"
#include "kovasharing/sharing_db.h"
#include "kovatest.h"

namespace recordtest {

struct Database {
  kovatest::TempDir dir;
  KOVA::sharing::db::SharingDB db{dir.File("s.db")};

  void Exec(std::string const& sql) {
    EXPECT_TRUE(db.Execute(sql)) << sql << ": " << db.GetLastError();
  }
};

// The conditions of the lines logged since the last call (or ClearLogs), each of the exact
// shape "<source>:<line> (<pid>) Failed [<condition>], err=<text>\n\n"; `lines` puts the
// line number in front of the condition.
inline std::vector<std::string> Failed(std::string const& source, bool lines = false) {
  static std::regex const shape(R"(^([a-z_]+):(\d+) \((\d+)\) Failed \[(.*)\], err=[^\n]*\n\n$)");
  std::vector<std::string> out;
  for (std::string const& text : kovatest::LogTexts()) {
    std::smatch m;
    if (std::regex_match(text, m, shape) && m[1] == source &&
        m[3] == std::to_string(static_cast<unsigned>(getpid()))) {
      out.push_back(lines ? m[2].str() + " " + m[4].str() : m[4].str());
    } else {
      ADD_FAILURE() << "unexpected log line: " << text;
    }
  }
  kovatest::ClearLogs();
  return out;
}

// Runs `legal()` once a step: it must fail with exactly the step's condition logged; the
// step's repair then meets that rule and the next call reaches the next one.
using Steps = std::vector<std::pair<std::string, std::function<void()>>>;
inline void ExpectRulesInOrder(std::function<bool()> const& legal, std::string const& source,
                               bool lines, Steps const& steps) {
  kovatest::ClearLogs();
  for (auto const& step : steps) {
    EXPECT_FALSE(legal()) << step.first;
    EXPECT_EQ(std::vector<std::string>{step.first}, Failed(source, lines));
    step.second();
  }
  EXPECT_TRUE(legal());
  EXPECT_TRUE(Failed(source).empty());
}

inline Json::Value Parse(std::string const& text) {
  Json::Value value;
  EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
  return value;
}

inline std::string Compact(Json::Value const& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  writer["emitUTF8"] = true;
  return Json::writeString(writer, value);
}

// Runs `check(now)` until one run starts and ends within the same second, so that a
// boundary on the current time is tested at exactly that second.
inline bool AtOneSecond(std::function<bool(time_t)> const& check) {
  for (int attempt = 0; attempt < 10; ++attempt) {
    time_t const now = time(nullptr);
    bool const result = check(now);
    if (time(nullptr) == now) return result;
  }
  ADD_FAILURE() << "the clock kept moving";
  return false;
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

// Copies and moves carry the fields, never the private record: a copy changes apart from
// its source, a moved-from handle keeps its own record (checked by `moved_from`) and stays
// usable. `change` must alter some field.
template <class R>
void ExpectValueSemantics(R original, std::function<void(R&)> const& change,
                          std::function<void(R const&)> const& moved_from) {
  std::vector<std::string> const snapshot = Fields(original);
  R copy(original);
  R assigned;
  assigned = original;
  for (R* other : {&copy, &assigned}) {
    EXPECT_EQ(snapshot, Fields(*other));
    change(*other);
    EXPECT_NE(snapshot, Fields(*other));
  }
  EXPECT_EQ(snapshot, Fields(original));

  auto const* source_record = &original.GetCObject();
  R moved(std::move(original));
  EXPECT_EQ(snapshot, Fields(moved));
  EXPECT_EQ(source_record, &original.GetCObject());
  moved_from(original);
  change(original);
  EXPECT_EQ(snapshot, Fields(moved));

  R target;
  auto const* target_record = &target.GetCObject();
  target = std::move(moved);
  EXPECT_EQ(snapshot, Fields(target));
  EXPECT_EQ(target_record, &target.GetCObject());
  moved_from(moved);
  R& self = target;
  target = std::move(self);
  EXPECT_EQ(snapshot, Fields(target));
}

}  // namespace recordtest

#endif
