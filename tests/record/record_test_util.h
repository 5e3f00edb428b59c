// Helpers of the record tests: a migrated sharing database in a temporary directory, rows
// read back as text, the condition texts of the captured "Failed [...]" lines, a clock
// boundary helper and a scoped time zone.
#ifndef KOVA_TESTS_RECORD_TEST_UTIL_H
#define KOVA_TESTS_RECORD_TEST_UTIL_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "kovasharing/object_db.h"
#include "kovasharing/result.h"
#include "kovasharing/sharing_db.h"
#include "kovatest.h"

namespace recordtest {

// A sharing database on a file of its own, schema applied.
class Database {
 public:
  Database() : db_(new KOVA::sharing::db::SharingDB(dir_.File("s.db"))) {}
  KOVA::sharing::db::SharingDB& db() { return *db_; }

  // Every row of `sql`, the named columns joined by "|".
  std::vector<std::string> Rows(std::string const& sql, std::vector<std::string> const& cols) {
    std::vector<std::string> rows;
    KOVA::sharing::db::Result result;
    EXPECT_TRUE(db_->Execute(sql, result)) << sql << ": " << db_->GetLastError();
    KOVA::sharing::db::Row row;
    while (result.NextRow(row)) {
      std::string text;
      for (std::size_t i = 0; i < cols.size(); ++i) {
        if (i > 0) text += "|";
        text += row.GetField(cols[i]).AsString("");
      }
      rows.push_back(text);
    }
    return rows;
  }

  void Exec(std::string const& sql) {
    ASSERT_TRUE(db_->Execute(sql)) << sql << ": " << db_->GetLastError();
  }

 private:
  kovatest::TempDir dir_;
  std::unique_ptr<KOVA::sharing::db::SharingDB> db_;
};

struct Failure {
  std::string source;
  int line;
  std::string condition;
};

// The "Failed [...]" lines captured since the last ClearLogs, in order. Each must have the
// exact shape "<source>:<line> (<pid>) Failed [<condition>], err=<text>\n\n".
inline std::vector<Failure> Failures() {
  static std::regex const shape(R"(^([a-z_]+):(\d+) \((\d+)\) Failed \[(.*)\], err=[^\n]*\n\n$)");
  std::vector<Failure> out;
  for (std::string const& text : kovatest::LogTexts()) {
    std::smatch m;
    if (!std::regex_match(text, m, shape)) {
      ADD_FAILURE() << "unexpected log line: " << text;
      continue;
    }
    EXPECT_EQ(std::to_string(static_cast<unsigned>(getpid())), m[3].str()) << text;
    out.push_back({m[1].str(), std::stoi(m[2].str()), m[4].str()});
  }
  return out;
}

inline std::vector<std::string> FailedConditions() {
  std::vector<std::string> texts;
  for (Failure const& f : Failures()) texts.push_back(f.condition);
  return texts;
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

// Sets TZ for one scope and puts the previous value back.
class ScopedTZ {
 public:
  explicit ScopedTZ(char const* zone) {
    char const* old = getenv("TZ");
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTZ() {
    if (had_) {
      setenv("TZ", old_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  bool had_ = false;
  std::string old_;
};

}  // namespace recordtest

#endif
