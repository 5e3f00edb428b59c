// Helpers of the store tests: a migrated database in a temporary directory, raw reads of its
// tables, query plans, and a guard against the clock ticking in the middle of a time test.
#ifndef KOVA_STORE_TEST_UTIL_H
#define KOVA_STORE_TEST_UTIL_H

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "kovasharing/base_db.h"
#include "kovasharing/result.h"
#include "kovasharing/sharing_db.h"
#include "kovatest.h"

namespace storetest {

namespace db = KOVA::sharing::db;

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(db_.IsGood());
    kovatest::ClearLogs();
  }

  // Runs `sql` and returns the text of `column` of every row, in order.
  std::vector<std::string> Column(std::string const& sql, std::string const& column) {
    std::vector<std::string> out;
    db::Result result;
    EXPECT_TRUE(db_.Execute(sql, result)) << sql << ": " << db_.GetLastError();
    db::Row row;
    while (result.NextRow(row)) out.push_back(row.GetField(column).AsString(""));
    return out;
  }

  int Rows(std::string const& table) {
    std::vector<std::string> n = Column("SELECT COUNT(*) AS n FROM " + table, "n");
    return n.size() == 1 ? std::stoi(n[0]) : -1;
  }

  void Exec(std::string const& sql) {
    ASSERT_TRUE(db_.Execute(sql)) << sql << ": " << db_.GetLastError();
  }

  // The details of the statement's query plan.
  std::vector<std::string> Plan(std::string const& sql) {
    return Column("EXPLAIN QUERY PLAN " + sql, "detail");
  }

  // The statement reaches its rows through an index (or the row id), never by a scan.
  void ExpectIndexed(std::string const& sql) {
    std::vector<std::string> const plan = Plan(sql);
    ASSERT_FALSE(plan.empty()) << sql;
    bool searched = false;
    for (std::string const& step : plan) {
      EXPECT_EQ(std::string::npos, step.find("SCAN")) << sql << "\n  plan step: " << step;
      if (step.rfind("SEARCH ", 0) == 0) searched = true;
    }
    EXPECT_TRUE(searched) << sql;
  }

  kovatest::TempDir dir_;
  db::SharingDB db_{dir_.File("s.db")};
};

// Repeats set-up and action until both ran within one second of the clock, so that a row
// placed exactly at "now" is judged against that same second. Returns that second.
template <class Action>
long WithinOneSecond(Action action) {
  long now = 0;
  for (int i = 0; i < 10; ++i) {
    now = static_cast<long>(time(nullptr));
    action(now);
    if (static_cast<long>(time(nullptr)) == now) return now;
  }
  ADD_FAILURE() << "the clock kept ticking during the action";
  return now;
}

// Texts that would break or widen a statement if they reached it unescaped.
inline std::vector<std::string> HostileTexts() {
  return {"'",
          "''",
          "a'b",
          "' OR '1'='1",
          "x' OR hash != 'x",
          "x' OR session_id != 'x",
          "'; DROP TABLE entry; --",
          "'; DROP TABLE session; --",
          "\\'",
          "\"",
          "%s%n%d",
          std::string("a\0b", 3),
          "\xc3\xa9t\xc3\xa9'",
          std::string(300, '\''),
          ""};
}

inline bool AllIn(std::string const& text, std::string const& alphabet) {
  return text.find_first_not_of(alphabet) == std::string::npos;
}

}  // namespace storetest

#endif
