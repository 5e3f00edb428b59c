// Result sets, rows, the typed conversions of a field (including the deliberate ones), and the
// rendering of conditions, compared as text and run against a real table.
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

// Each conversion of a fresh field, all with default 9: int, unsigned, time, float, bool.
std::string Conversions(char const* text) {
  std::ostringstream out;
  out << Field(text).AsInt(9) << " " << Field(text).AsUInt(9) << " " << Field(text).AsTime(9) << " "
      << Field(text).AsFloat(9) << " " << Field(text).AsBool(false);
  return out.str();
}

TEST(Field, Conversions) {
  // "-1" as unsigned follows the standard rule; 4294967296 is past 32 bits and past 2038.
  std::vector<std::pair<char const*, char const*>> const cases = {
      {"42abc", "42 42 42 42 0"},
      {"", "9 9 9 9 0"},
      {" 7", "7 7 7 7 0"},
      {"1", "1 1 1 1 1"},
      {"true", "9 9 9 9 0"},
      {"2.5e1x", "2 2 2 25 0"},
      {"1 ", "1 1 1 1 0"},
      {"-1", "-1 4294967295 -1 -1 0"},
      {"2147483647", "2147483647 2147483647 2147483647 2.14748e+09 0"},
      {"4294967296", "9 9 4294967296 4.29497e+09 0"}};
  for (auto const& c : cases) EXPECT_EQ(c.second, Conversions(c.first)) << c.first;
  EXPECT_FALSE(Field("").AsBool(true)) << "bool ignores the default";
  Field value("abc");
  EXPECT_EQ(&value.AsString("x"), &value.AsString("y")) << "a reference to the field's text";

  // A field is converted once: the end-of-text flag of a first conversion that reached the
  // end stays, so later numeric conversions give their defaults; AsBool and AsString read no
  // flags. A conversion that stopped before the end leaves no flag behind; a failure sticks.
  Field five("5"), one("1"), trailing("42abc"), bad("x1");
  std::ostringstream out;
  out << five.AsInt(0) << " " << five.AsInt(-1) << " " << five.AsUInt(77) << " "
      << five.AsString("") << " " << Field(five).AsInt(0) << " " << one.AsInt(0) << " "
      << one.AsInt(0) << " " << one.AsBool(false) << " " << trailing.AsInt(0) << " "
      << trailing.AsInt(0) << " " << bad.AsInt(3) << " " << bad.AsInt(4);
  EXPECT_EQ("5 -1 77 5 5 1 0 1 42 42 3 4", out.str());
}

TEST(ResultAndCondition, RenderWhatSQLiteRuns) {
  kovatest::TempDir dir;
  BaseDB db(dir.File("c.db"), 432);
  // Rows 1 to 12 with a = id % 2, b = id % 3, c = id % 5; row 13 has a quote in its hash.
  ASSERT_TRUE(
      db.Execute("CREATE TABLE t(id INTEGER PRIMARY KEY, hash TEXT, a TEXT, b INTEGER, c TEXT);"
                 "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 12) "
                 "INSERT INTO t SELECT i, 'h' || i, i % 2, i % 3, i % 5 FROM n;"
                 "INSERT INTO t VALUES (13, 'ab''c', '1', 2, '3');"));
  // The text, then the ids SQLite finds with it, and whether the condition counts as empty.
  auto render = [&db](Condition& c) {
    std::string ids;
    Result result;
    if (!db.Execute("SELECT id FROM t" + c.GetSQL(), result)) ids = "refused";
    for (Row row; result.NextRow(row);)
      ids += (ids.empty() ? "" : ",") + row.GetField("id").AsString("");
    return c.GetSQL() + " -> " + ids + (c.IsEmpty() ? " (empty)" : "");
  };
  std::string const all = " -> 1,2,3,4,5,6,7,8,9,10,11,12,13";
  std::vector<std::pair<std::function<void(Condition&)>, std::string>> const cases = {
      {[](Condition&) {}, all + " (empty)"},
      {[](Condition& c) { c.Where("hash", "ab'c"); }, " WHERE `hash` = 'ab''c' -> 13"},
      // AND binds tighter than OR and no parentheses are added.
      {[](Condition& c) { c.Where("a", "1").OrWhere("b = 2").Where("c", "3"); },
       " WHERE `a` = '1' OR b = 2 AND `c` = '3' -> 1,3,5,7,8,9,11,13"},
      // The two-argument OrWhere joins with AND.
      {[](Condition& c) { c.OrWhere("hash", "h7"); }, " WHERE `hash` = 'h7' -> 7"},
      {[](Condition& c) { c.Where("a", "1").OrWhere("hash", "h8"); },
       " WHERE `a` = '1' AND `hash` = 'h8' -> "},
      // Free-form filters are taken as written; the first filter's join is never written.
      {[](Condition& c) { c.OrWhere("id < 3").OrWhere("id > 11"); },
       " WHERE id < 3 OR id > 11 -> 1,2,12,13"},
      {[](Condition& c) { c.Where("id <= 4").Where("b", "1"); },
       " WHERE id <= 4 AND `b` = '1' -> 1,4"},
      {[](Condition& c) { c.OrderBy("id", false).OrderBy("hash", true).Limit(-1, 3); },
       " ORDER BY id DESC,hash ASC LIMIT 3 -> 13,12,11"},
      {[](Condition& c) {
         c.Where("id <= 10").OrderBy("b", true).OrderBy("id", false).Limit(1, 3);
       },
       " WHERE id <= 10 ORDER BY b ASC,id DESC LIMIT 3 OFFSET 1 -> 6,3,10"},
      {[](Condition& c) { c.Page(3, 2); }, " LIMIT 2 OFFSET 4 -> 5,6"},
      {[](Condition& c) { c.Page(1, 2); }, " LIMIT 2 -> 1,2"},
      {[](Condition& c) { c.Page(0, 2); }, " LIMIT 2 -> 1,2"},  // a negative offset is not written
      // An offset without a limit is written as it is, and SQLite refuses it.
      {[](Condition& c) { c.Limit(10, 0); }, " OFFSET 10 -> refused"},
      {[](Condition& c) { c.Limit(5, -1); }, " OFFSET 5 -> refused"},
      {[](Condition& c) { c.Limit(0, 0); }, all},  // zero is not -1, but nothing is written for it
      {[](Condition& c) { c.Limit(3, 3).Limit(-1, -1); }, all + " (empty)"},
      {[](Condition& c) { c.Where("id = 1").OrWhere("x").OrderBy("id", true).Limit(2, 2).Clear(); },
       all + " (empty)"},
  };
  for (auto const& k : cases) {
    Condition c(db);
    k.first(c);
    EXPECT_EQ(k.second, render(c));
  }

  Row row;
  Result nothing, result, zero;
  EXPECT_FALSE(nothing.NextRow(row));
  EXPECT_FALSE(row.IsGood());
  EXPECT_EQ(3, row.GetField("anything").AsInt(3));
  ASSERT_TRUE(db.Execute("SELECT id FROM t WHERE id > 11", result));
  while (result.NextRow(row)) continue;
  EXPECT_EQ("13", row.GetField("id").AsString("")) << "the row keeps pointing at the last one";
  try {
    row.GetField("missing");
    ADD_FAILURE() << "a column the result does not have became a field";
  } catch (std::logic_error const& e) {
    EXPECT_STREQ("basic_string::_M_construct null not valid", e.what());
  }
  // A statement without columns hands over no result set; one without rows an empty one.
  EXPECT_TRUE(db.Execute("UPDATE t SET b = b", nothing));
  EXPECT_FALSE(nothing.IsGood());
  EXPECT_TRUE(db.Execute("SELECT * FROM t WHERE id > 99", zero));
  EXPECT_TRUE(zero.IsGood());
  EXPECT_FALSE(zero.NextRow(row));
}

}  // namespace
