// Rendering of conditions, compared as text and run against a real table.
#include "kovasharing/condition.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "kovasharing/base_db.h"
#include "kovasharing/result.h"
#include "kovatest.h"

namespace {

using KOVA::sharing::db::BaseDB;
using KOVA::sharing::db::Condition;
using KOVA::sharing::db::Result;
using KOVA::sharing::db::Row;

class ConditionTest : public testing::Test {
 protected:
  void SetUp() override {
    db_.reset(new BaseDB(dir_.File("c.db"), 432));
    ASSERT_TRUE(db_->IsGood());
    std::string sql =
        "CREATE TABLE t(id INTEGER PRIMARY KEY, hash TEXT, a TEXT, b INTEGER, c TEXT);";
    for (int i = 1; i <= 60; ++i) {
      sql += "INSERT INTO t VALUES (" + std::to_string(i) + ", 'h" + std::to_string(i) + "', '" +
             std::to_string(i % 2) + "', " + std::to_string(i % 3) + ", '" + std::to_string(i % 5) +
             "');";
    }
    sql += "INSERT INTO t VALUES (61, 'ab''c', '1', 2, '3');";
    ASSERT_TRUE(db_->Execute(sql));
  }

  // Runs "SELECT id FROM t" with the rendered condition; the ids found, or {-1} on failure.
  std::vector<int> Ids(Condition const& condition) {
    Result result;
    if (!db_->Execute("SELECT id FROM t" + condition.GetSQL(), result)) return {-1};
    std::vector<int> ids;
    Row row;
    while (result.NextRow(row)) ids.push_back(row.GetField("id").AsInt(0));
    return ids;
  }

  kovatest::TempDir dir_;
  std::unique_ptr<BaseDB> db_;
};

TEST_F(ConditionTest, FiltersAndTheirJoins) {
  Condition c(*db_);
  EXPECT_EQ("", c.GetSQL());
  EXPECT_TRUE(c.IsEmpty());

  c.Where("hash", "ab'c");
  EXPECT_EQ(" WHERE `hash` = 'ab''c'", c.GetSQL());
  EXPECT_FALSE(c.IsEmpty());
  EXPECT_EQ(std::vector<int>{61}, Ids(c));

  // AND binds tighter than OR and no parentheses are added.
  c.Clear();
  c.Where("a", "1").OrWhere("b = 2").Where("c", "3");
  EXPECT_EQ(" WHERE `a` = '1' OR b = 2 AND `c` = '3'", c.GetSQL());
  std::vector<int> expected;
  for (int i = 1; i <= 60; ++i) {
    if (i % 2 == 1 || (i % 3 == 2 && i % 5 == 3)) expected.push_back(i);
  }
  expected.push_back(61);
  EXPECT_EQ(expected, Ids(c));

  // The two-argument OrWhere joins with AND.
  c.Clear();
  EXPECT_TRUE(c.IsEmpty());
  c.OrWhere("hash", "h7");
  EXPECT_EQ(" WHERE `hash` = 'h7'", c.GetSQL());
  EXPECT_EQ(std::vector<int>{7}, Ids(c));
  c.Clear();
  c.Where("a", "1").OrWhere("hash", "h8");
  EXPECT_EQ(" WHERE `a` = '1' AND `hash` = 'h8'", c.GetSQL());
  EXPECT_EQ(std::vector<int>{}, Ids(c));

  // Free-form filters are taken as written; the first filter's join is never written.
  c.Clear();
  c.OrWhere("id < 3").OrWhere("id > 59");
  EXPECT_EQ(" WHERE id < 3 OR id > 59", c.GetSQL());
  EXPECT_EQ((std::vector<int>{1, 2, 60, 61}), Ids(c));
  c.Clear();
  c.Where("id <= 4").Where("b", "1");
  EXPECT_EQ(" WHERE id <= 4 AND `b` = '1'", c.GetSQL());
  EXPECT_EQ((std::vector<int>{1, 4}), Ids(c));
}

TEST_F(ConditionTest, OrderAndRange) {
  Condition c(*db_);
  c.OrderBy("id", false).OrderBy("hash", true);
  EXPECT_EQ(" ORDER BY id DESC,hash ASC", c.GetSQL());
  EXPECT_EQ(61, Ids(c).front());

  c.Clear();
  c.Where("id <= 10").OrderBy("b", true).OrderBy("id", false).Limit(1, 3);
  EXPECT_EQ(" WHERE id <= 10 ORDER BY b ASC,id DESC LIMIT 3 OFFSET 1", c.GetSQL());
  EXPECT_EQ((std::vector<int>{6, 3, 10}), Ids(c));

  c.Clear();
  c.Page(3, 20);
  EXPECT_EQ(" LIMIT 20 OFFSET 40", c.GetSQL());
  std::vector<int> page3 = Ids(c);
  ASSERT_EQ(20u, page3.size());
  EXPECT_EQ(41, page3.front());
  c.Page(1, 20);
  EXPECT_EQ(" LIMIT 20", c.GetSQL());
  EXPECT_EQ(20u, Ids(c).size());
  c.Page(0, 20);  // the negative offset is not written
  EXPECT_EQ(" LIMIT 20", c.GetSQL());

  // An offset without a limit is written as it is, and SQLite refuses it.
  c.Clear();
  c.Limit(10, 0);
  EXPECT_EQ(" OFFSET 10", c.GetSQL());
  EXPECT_FALSE(c.IsEmpty());
  EXPECT_EQ(std::vector<int>{-1}, Ids(c));

  // Limit(-1, -1) empties the range; the condition is empty only without filters and keys.
  c.Limit(-1, -1);
  EXPECT_TRUE(c.IsEmpty());
  EXPECT_EQ("", c.GetSQL());
  c.OrderBy("id", true).Limit(-1, -1);
  EXPECT_FALSE(c.IsEmpty());
  c.Clear();
  c.Where("id = 1").Limit(-1, -1);
  EXPECT_FALSE(c.IsEmpty());
  // A zero limit and offset are not -1: not empty, but nothing is written for them.
  c.Clear();
  c.Limit(0, 0);
  EXPECT_FALSE(c.IsEmpty());
  EXPECT_EQ("", c.GetSQL());
}

}  // namespace
