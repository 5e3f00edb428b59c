// Result sets, rows, the typed conversions of a field (the deliberate quirks included), and
// conditions judged by the rows SQLite selects with them.
#include <sstream>
#include <stdexcept>

#include "db_test_util.h"
#include "kovasharing/condition.h"

namespace {

using KOVA::sharing::db::BaseDB;
using KOVA::sharing::db::Condition;
using KOVA::sharing::db::Field;
using KOVA::sharing::db::Result;
using KOVA::sharing::db::Row;

TEST(Field, Conversions) {
  // int, unsigned, time, float and bool of a fresh field each, all with default 9.
  auto conversions = [](char const* t) {
    std::ostringstream out;
    out << Field(t).AsInt(9) << " " << Field(t).AsUInt(9) << " " << Field(t).AsTime(9) << " "
        << Field(t).AsFloat(9) << " " << Field(t).AsBool(true);
    return out.str();
  };
  // "-1" as unsigned wraps; 4294967296 is past 32 bits and past 2038.
  std::vector<std::pair<char const*, char const*>> const cases = {
      {"42abc", "42 42 42 42 0"},
      {"", "9 9 9 9 0"},
      {" 7", "7 7 7 7 0"},
      {"1", "1 1 1 1 1"},
      {"true", "9 9 9 9 0"},
      {"2.5e1x", "2 2 2 25 0"},
      {"-1", "-1 4294967295 -1 -1 0"},
      {"4294967296", "9 9 4294967296 4.29497e+09 0"}};
  for (auto const& c : cases) EXPECT_EQ(c.second, conversions(c.first)) << c.first;
  // A field is converted once: a conversion that reached the end of the text leaves the later
  // ones their defaults, one that stopped before it does not; a failure sticks.
  Field five("5"), trailing("42abc"), bad("x1");
  std::ostringstream out;
  out << five.AsInt(0) << " " << five.AsInt(-1) << " " << five.AsUInt(77) << " "
      << five.AsString("") << " " << trailing.AsInt(0) << " " << trailing.AsInt(0) << " "
      << bad.AsInt(3) << " " << bad.AsInt(4);
  EXPECT_EQ("5 -1 77 5 42 42 3 4", out.str());
}

TEST(ResultAndCondition, SelectWhatTheyName) {
  kovatest::TempDir dir;
  BaseDB db(dir.File("c.db"), 432);
  // Rows 1 to 12 with a = id % 2, b = id % 3, c = id % 5; row 13 has a quote in its hash.
  ASSERT_TRUE(
      db.Execute("CREATE TABLE t(id INTEGER PRIMARY KEY, hash TEXT, a TEXT, b INTEGER, c TEXT);"
                 "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 12) "
                 "INSERT INTO t SELECT i, 'h' || i, i % 2, i % 3, i % 5 FROM n;"
                 "INSERT INTO t VALUES (13, 'ab''c', '1', 2, '3');"));
  auto ids = [&db](Condition& c) {
    std::string ids;
    Result result;
    if (!db.Execute("SELECT id FROM t" + c.GetSQL(), result)) ids = "refused";
    for (Row row; result.NextRow(row);) ids += row.GetField("id").AsString("") + ",";
    return ids + (c.IsEmpty() ? " (empty)" : "");
  };
  std::string const all = "1,2,3,4,5,6,7,8,9,10,11,12,13,";
  std::vector<std::pair<std::function<void(Condition&)>, std::string>> const cases = {
      {[](Condition&) {}, all + " (empty)"},
      {[](Condition& c) { c.Where("hash", "ab'c"); }, "13,"},
      // AND binds tighter than OR, and no parentheses are added.
      {[](Condition& c) { c.Where("a", "1").OrWhere("b = 2").Where("c", "3"); },
       "1,3,5,7,8,9,11,13,"},
      // The two-argument OrWhere joins with AND.
      {[](Condition& c) { c.Where("a", "1").OrWhere("hash", "h8"); }, ""},
      {[](Condition& c) { c.OrWhere("id < 3").OrWhere("id > 11"); }, "1,2,12,13,"},
      {[](Condition& c) { c.OrderBy("id", false).OrderBy("hash", true).Limit(-1, 3); },
       "13,12,11,"},
      {[](Condition& c) {
         c.Where("id <= 10").OrderBy("b", true).OrderBy("id", false).Limit(1, 3);
       },
       "6,3,10,"},
      {[](Condition& c) { c.Page(3, 2); }, "5,6,"},
      {[](Condition& c) { c.Page(0, 2); }, "1,2,"},
      {[](Condition& c) { c.Page(2147483647, 2147483647); }, ""},
      {[](Condition& c) { c.Limit(10, 0); }, "refused"},  // an offset without a limit
      {[](Condition& c) { c.Where("id = 1").OrderBy("id", true).Limit(2, 2).Clear(); },
       all + " (empty)"},
  };
  for (auto const& k : cases) {
    Condition c(db);
    k.first(c);
    EXPECT_EQ(k.second, ids(c)) << c.GetSQL();
  }

  Row row;
  Result nothing, result;
  EXPECT_FALSE(nothing.NextRow(row) || row.IsGood());
  EXPECT_EQ(3, row.GetField("anything").AsInt(3));
  ASSERT_TRUE(db.Execute("SELECT id FROM t WHERE id > 11", result));
  while (result.NextRow(row)) continue;
  EXPECT_EQ("13", row.GetField("id").AsString("")) << "the row keeps pointing at the last one";
  EXPECT_THROW(row.GetField("missing"), std::logic_error);
  // A statement without columns hands over no result set.
  EXPECT_TRUE(db.Execute("UPDATE t SET b = b", nothing));
  EXPECT_FALSE(nothing.IsGood());
}

}  // namespace
