// Result sets, rows and the typed conversions of a field, including the deliberate ones.
#include "kovasharing/result.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "kovasharing/base_db.h"
#include "kovatest.h"

namespace {

using KOVA::sharing::db::BaseDB;
using KOVA::sharing::db::Field;
using KOVA::sharing::db::Result;
using KOVA::sharing::db::Row;

int Int(std::string const& text, int def) { return Field(text).AsInt(def); }

TEST(Field, NumericConversionsFallBackToTheDefault) {
  EXPECT_EQ(42, Int("42abc", 0));
  EXPECT_EQ(0, Int("abc", 0));
  EXPECT_EQ(7, Int(" 7", 0));
  EXPECT_EQ(-3, Int("-3", 0));
  EXPECT_EQ(9, Int("", 9));
  EXPECT_EQ(-1, Int("99999999999", -1));  // beyond 32 bits
  EXPECT_EQ(2147483647, Int("2147483647", 0));

  EXPECT_EQ(1700000000L, Field("1700000000").AsTime(0));
  EXPECT_EQ(4102444800L, Field("4102444800").AsTime(0));  // past 2038
  EXPECT_EQ(-5L, Field("-5").AsTime(0));
  EXPECT_EQ(11L, Field("x").AsTime(11));

  EXPECT_EQ(4294967295u, Field("-1").AsUInt(0));  // the standard rule for unsigned types
  EXPECT_EQ(4294967295u, Field("4294967295").AsUInt(0));
  EXPECT_EQ(8u, Field("4294967296").AsUInt(8));
  EXPECT_EQ(8u, Field("").AsUInt(8));

  EXPECT_FLOAT_EQ(25.0f, Field("2.5e1x").AsFloat(0));
  EXPECT_FLOAT_EQ(0.5f, Field(".5").AsFloat(0));
  EXPECT_FLOAT_EQ(1.5f, Field("nope").AsFloat(1.5f));
}

TEST(Field, BoolAndStringIgnoreTheDefault) {
  EXPECT_FALSE(Field("").AsBool(true));
  EXPECT_TRUE(Field("1").AsBool(false));
  for (char const* text : {"2", "true", "yes", " 1", "01", "1 "}) {
    EXPECT_FALSE(Field(text).AsBool(true)) << text;
  }
  Field empty("");
  EXPECT_EQ("", empty.AsString("x"));
  Field value("abc");
  EXPECT_EQ(&value.AsString("x"), &value.AsString("y")) << "a reference to the field's text";
}

TEST(Field, IsMeantToBeConvertedOnce) {
  // The end-of-text flag of the first conversion survives Clear().
  Field five("5");
  EXPECT_EQ(5, five.AsInt(0));
  EXPECT_EQ(-1, five.AsInt(-1));
  EXPECT_EQ(77u, five.AsUInt(77));
  EXPECT_EQ("5", five.AsString(""));
  Field one("1");
  EXPECT_EQ(1, one.AsInt(0));
  EXPECT_EQ(0, one.AsInt(0));
  EXPECT_TRUE(one.AsBool(false)) << "AsBool compares the text and reads no flags";

  // A first conversion that stopped before the end leaves no flag behind.
  Field trailing("42abc");
  EXPECT_EQ(42, trailing.AsInt(0));
  EXPECT_EQ(42, trailing.AsInt(0));

  // A failed conversion sticks too.
  Field bad("x1");
  EXPECT_EQ(3, bad.AsInt(3));
  EXPECT_EQ(4, bad.AsInt(4));

  // A copy starts with a fresh stream.
  Field copy(five);
  EXPECT_EQ(5, copy.AsInt(0));
}

TEST(ResultRow, StepsThroughRealRows) {
  Row none;
  EXPECT_FALSE(none.IsGood());
  EXPECT_EQ(3, none.GetField("anything").AsInt(3));
  Result empty;
  EXPECT_FALSE(empty.IsGood());
  Row untouched;
  EXPECT_FALSE(empty.NextRow(untouched));
  EXPECT_FALSE(untouched.IsGood());

  kovatest::TempDir dir;
  BaseDB db(dir.File("r.db"), 432);
  ASSERT_TRUE(db.IsGood());
  ASSERT_TRUE(db.Execute(
      "CREATE TABLE t(id INTEGER PRIMARY KEY, name TEXT, n INTEGER, note TEXT);"
      "INSERT INTO t VALUES (1, 'one', 10, NULL);INSERT INTO t VALUES (2, 'two', 20, 'x');"
      "INSERT INTO t VALUES (3, 'three', 30, '');"));
  Result result;
  ASSERT_TRUE(db.Execute("SELECT * FROM t ORDER BY id DESC", result));
  ASSERT_TRUE(result.IsGood());
  std::vector<std::string> names;
  std::vector<int> numbers;
  Row row;
  while (result.NextRow(row)) {
    ASSERT_TRUE(row.IsGood());
    names.push_back(row.GetField("name").AsString(""));
    numbers.push_back(row.GetField("n").AsInt(0));
  }
  EXPECT_EQ((std::vector<std::string>{"three", "two", "one"}), names);
  EXPECT_EQ((std::vector<int>{30, 20, 10}), numbers);
  // At the end the row keeps pointing at the last one.
  EXPECT_FALSE(result.NextRow(row));
  EXPECT_EQ("one", row.GetField("name").AsString(""));
  EXPECT_EQ(7, row.GetField("note").AsInt(7)) << "SQL NULL reads as empty text";

  // A column the result does not have cannot become a field.
  try {
    row.GetField("missing");
    ADD_FAILURE() << "no exception";
  } catch (std::logic_error const& e) {
    EXPECT_STREQ("basic_string::_M_construct null not valid", e.what());
  }

  // A statement without columns hands over no result set; a failed one neither.
  Result nothing;
  ASSERT_TRUE(db.Execute("UPDATE t SET n = n + 1", nothing));
  EXPECT_FALSE(nothing.IsGood());
  Result failed;
  EXPECT_FALSE(db.Execute("SELECT * FROM nowhere", failed));
  EXPECT_FALSE(failed.IsGood());
  Result zero;
  ASSERT_TRUE(db.Execute("SELECT * FROM t WHERE id > 99", zero));
  EXPECT_TRUE(zero.IsGood());
  EXPECT_FALSE(zero.NextRow(row));
}

}  // namespace
