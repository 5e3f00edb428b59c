// The sharing database of this build as the login, gate and tool tests use it: links stored
// through the entry store, one value read back, failed logins forgotten.
#ifndef KOVATEST_SHARING_H
#define KOVATEST_SHARING_H

#include <gtest/gtest.h>
#include <json/value.h>
#include <kova_autoblock.h>

#include <functional>
#include <string>
#include <vector>

#include "kovasharing/entry.h"
#include "kovasharing/entry_db.h"
#include "kovasharing/result.h"
#include "kovasharing/sharing_db.h"

namespace kovatest {

using KOVA::sharing::record::Entry;

// A link of alice's (uid 1000), titled "Holiday pictures", open and without redirect, as
// `tweak` changes it, stored under a new hash.
inline std::string MakeLink(std::function<void(Entry&)> const& tweak = nullptr) {
  Json::Value app(Json::objectValue);
  app["title"] = "Holiday pictures";
  app["path"] = "/share/photos";
  Entry entry;
  entry.set_project_name("test").set_owner_uid(1000).set_app(app);
  if (tweak) tweak(entry);
  EXPECT_TRUE(
      KOVA::sharing::db::EntryDB(KOVA::sharing::db::SharingDB::Instance()).CreateWithHash(entry));
  return entry.get_hash();
}
inline std::string PasswordLink(std::string const& password = "open sesame",
                                Entry::PasswordEncryptAlgo algo = Entry::ENCRYPT_ALGO_DEFAULT) {
  return MakeLink([&](Entry& e) {
    e.set_protect_type(Entry::PROTECT_PASSWORD).set_protect_password(password, true, algo);
  });
}

// The column v of the one row of `sql`: "" when there is none, "<N rows>" when there are more.
inline std::string Value(std::string const& sql) {
  std::vector<std::string> values;
  KOVA::sharing::db::Result result;
  EXPECT_TRUE(KOVA::sharing::db::SharingDB::Instance().Execute(sql, result)) << sql;
  for (KOVA::sharing::db::Row row; result.NextRow(row);)
    values.push_back(row.GetField("v").AsString("<null>"));
  if (values.size() > 1) return "<" + std::to_string(values.size()) + " rows>";
  return values.empty() ? "" : values[0];
}

// Failed logins count for ten minutes, also those of earlier runs: tests start without them.
inline void UnblockAll() {
  std::vector<std::string> counted;
  AutoBlockList([](char const* address, int, long long,
                   void* out) { static_cast<std::vector<std::string>*>(out)->push_back(address); },
                &counted);
  for (auto const& address : counted) AutoBlockUnblock(address.c_str());
}

// The fixture of the tests on this database: each starts without links, sessions, tokens,
// visits or counted failed logins.
class SharingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(db().IsGood());
    for (char const* table : {"token", "session", "entry", "visit"})
      ASSERT_TRUE(db().Execute(std::string("DELETE FROM ") + table));
    UnblockAll();
  }
  static KOVA::sharing::db::SharingDB& db() { return KOVA::sharing::db::SharingDB::Instance(); }
  // The number in the one row of `sql` (column v); -999999 when there is none.
  static long Number(std::string const& sql) {
    std::string const v = Value(sql);
    return v.empty() || v[0] == '<' ? -999999 : std::stol(v);
  }
  static int Rows(char const* table) {
    return static_cast<int>(Number(std::string("SELECT COUNT(*) AS v FROM ") + table));
  }
};

}  // namespace kovatest

#endif
