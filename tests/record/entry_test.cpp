// The entry record: its row and JSON forms, rows written by other programs, its rules in
// their order, time texts and the value semantics of the handle.
#include "kovasharing/entry.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "kovasharing/constants.h"
#include "record_test_util.h"

using KOVA::sharing::db::ObjectDB;
using KOVA::sharing::record::Entry;
using recordtest::Compact;
using recordtest::Failed;
using recordtest::Parse;

namespace {

char const kUserRule[] =
    "Entry::PROTECT_USER == protect_type_ && (0 == protect_uids_.size() + "
    "protect_extra_users_.size() + protect_gids_.size() + protect_extra_groups_.size())";

Json::Value const kApp = Parse(R"({"name":"files","path":"/share/äöü \"quoted\""})");

// A legal entry with its fields away from their defaults and a distinct value in each column,
// so that a value in the wrong column shows after a round trip.
Entry FullEntry() {
  Entry e;
  e.set_hash("Ab3dE5gH9").set_project_name("files").set_enabled(false).set_owner_uid(1000);
  e.set_start_at(1600000000).set_expire_at(1900000000).set_expire_times(5).set_use_count(2);
  e.set_auto_gc(true).set_enable_match_ip(false);
  e.set_protect_type(Entry::PROTECT_PASSWORD).set_protect_title("for the team");
  e.set_protect_password("secret", true, Entry::ENCRYPT_ALGO_DEFAULT);
  e.set_protect_uids({1000, 4242});
  e.set_protect_groups({"editors", "nogroup"});
  e.set_redirect_type(Entry::REDIRECT_URLPARAM).set_redirect_uri("https://x/y?z=1'2");
  e.set_app(kApp);
  e.set_private_data(Parse(R"({"k":7,"list":["a"]})"));
  return e;
}

// What "data" put into an entry: protect type, algorithm, redirect type, address binding,
// title, user ids, private data and app.
std::string DataOf(Entry const& e) {
  Json::Value s(Json::arrayValue);
  s.append(e.get_protect_type());
  s.append(e.get_protect_password_algo());
  s.append(e.get_redirect_type());
  s.append(e.get_enable_match_ip());
  s.append(e.get_protect_title());
  s.append(Json::Value(Json::arrayValue));
  for (unsigned int uid : e.get_protect_uids()) s[5].append(uid);
  s.append(e.get_private_data());
  s.append(e.get_app());
  return Compact(s);
}

}  // namespace

TEST(EntryRow, FieldListMapAndJson) {
  Entry plain;
  std::vector<std::string> list = plain.GetFieldList();
  ASSERT_EQ(10u, list.size());
  EXPECT_EQ((std::vector<std::string>{"", "", "1", "4294967295", "0", "0", "0", "0", "1"}),
            std::vector<std::string>(list.begin(), list.begin() + 9));
  // app starts as null (a new entry is not legal yet), private data as an empty object.
  EXPECT_EQ(R"({"app":null,"enable_match_ip":true,"private_data":{},"protect_extra_groups":[],)"
            R"("protect_extra_users":[],"protect_gids":[],"protect_password":"",)"
            R"("protect_password_algo":"default","protect_password_salt":"","protect_title":"",)"
            R"("protect_type":"none","protect_uids":[],"redirect_type":"none","redirect_uri":""})",
            Compact(Parse(list[9])));
  Json::Value out(Json::objectValue);
  out["stale"] = true;
  plain.ToJSON(out);
  EXPECT_EQ(R"({"app":null,"auto_gc":true,"enable_match_ip":true,"enabled":true,"expire_at":"",)"
            R"("expire_times":0,"hash":"","owner_user":"","project_name":"","protect_groups":[],)"
            R"("protect_title":"","protect_type":"none","protect_users":[],"redirect_type":"none",)"
            R"("redirect_uri":"","start_at":"","use_count":0})",
            Compact(out));

  // The caller's form leaves out ids, password and private data; 4242 has no name.
  recordtest::SetZone("UTC0");
  Entry const full = FullEntry();
  full.ToJSON(out);
  EXPECT_EQ(R"({"app":{"name":"files","path":"/share/äöü \"quoted\""},"auto_gc":true,)"
            R"("enable_match_ip":false,"enabled":false,"expire_at":"2030-03-17 17:46:40",)"
            R"("expire_times":5,"hash":"Ab3dE5gH9","owner_user":"alice","project_name":"files",)"
            R"("protect_groups":["editors","nogroup"],"protect_title":"for the team",)"
            R"("protect_type":"password","protect_users":["alice"],"redirect_type":"url_param",)"
            R"("redirect_uri":"https://x/y?z=1'2","start_at":"2020-09-13 12:26:40","use_count":2})",
            Compact(out));

  // The update map pairs the values with the column names (the update below proves the
  // pairs); the row id is not in it.
  EXPECT_EQ(10u, full.GetFieldMap().size());
  EXPECT_EQ(0u, full.GetFieldMap().count("id"));

  // Texts of the enumerations: the row falls back to "user", "always" and "md5", the
  // caller's form to "none".
  for (auto const& [protect, redirect, algo, row, json] :
       std::vector<std::tuple<int, int, int, char const*, char const*>>{
           {1, 1, 0, "password url_param default", "password url_param"},
           {2, 2, 1, "user always md5", "user always"},
           {7, 9, 3, "user always md5", "none none"}}) {
    Entry e;
    e.set_protect_type(Entry::ProtectType(protect))
        .set_redirect_type(Entry::RedirectType(redirect));
    e.set_protect_password("d", false, Entry::PasswordEncryptAlgo(algo));
    Json::Value const data = Parse(e.GetFieldList()[9]);
    e.ToJSON(out);
    EXPECT_EQ(row, data["protect_type"].asString() + " " + data["redirect_type"].asString() + " " +
                       data["protect_password_algo"].asString());
    EXPECT_EQ(json, out["protect_type"].asString() + " " + out["redirect_type"].asString());
  }
}

TEST(EntryRow, ThroughTheDatabase) {
  recordtest::Database base;
  ObjectDB store(base.db, "entry");
  Entry written = FullEntry();
  ASSERT_TRUE(store.Create(written.GetObject()));
  EXPECT_EQ(1, written.get_id());
  Entry read;
  ASSERT_TRUE(store.GetById(1, read.GetObject()));
  EXPECT_EQ(recordtest::Fields(written), recordtest::Fields(read));
  // An update writes every column back into the same row.
  read.set_auto_gc(false).set_enabled(true).inc_use_count().set_protect_type(Entry::PROTECT_NONE);
  ASSERT_TRUE(store.Update(read.GetCObject()));
  Entry again;
  ASSERT_TRUE(store.GetById(1, again.GetObject()));
  EXPECT_EQ(recordtest::Fields(read), recordtest::Fields(again));
  EXPECT_EQ(3, again.get_use_count());

  // Rows written by other programs, read into a FullEntry: {data, DataOf the result, logged
  // conditions}. A row is usable exactly when its data was used and no rule was broken.
  std::string const kept = DataOf(FullEntry()), none = R"({"app":{},"protect_type":"none",)";
  std::string const bare = R"([0,1,2,false,"",[],{},{}])";
  std::vector<std::tuple<std::string, std::string, std::vector<std::string>>> const cases = {
      // Missing members read as user protection, MD5, always redirect, no address binding
      // and no private data; app stays null.
      {R"({"app":{"a":1},"protect_uids":[1000,1001]})",
       R"([2,1,2,false,"",[1000,1001],{},{"a":1}])",
       {}},
      {R"({"app":{}})", R"([2,1,2,false,"",[],{},{}])", {kUserRule}},
      {"{}", R"([2,1,2,false,"",[],{},null])", {"! app_.isObject()"}},
      // Only the exact text "default" selects the salted digest.
      {none + R"("protect_password_algo":"DEFAULT"})", bare, {}},
      {none + R"("protect_password_algo":0})", bare, {}},
      {none + R"("protect_password_algo":"default","redirect_type":"url_param"})",
       R"([0,0,1,false,"",[],{},{}])",
       {}},
      // Convertible oddities are converted; a private blob that is no object breaks a rule.
      {none + R"("enable_match_ip":1,"protect_title":5,"private_data":"x"})",
       R"([0,1,2,true,"5",[],"x",{}])",
       {"! private_data_.isObject()"}},
      // No JSON, no object, or members that do not convert: the columns are read, the rest
      // stays as it was, nothing is thrown or logged.
      {"{not json", kept, {}},
      {"[1,2]", kept, {}},
      {none + R"("protect_uids":[-1]})", kept, {}},
      {none + R"("enable_match_ip":"yes"})", kept, {}},
      {none + R"("protect_extra_users":[[1]]})", kept, {}},
  };
  int id = 1;
  for (auto const& [data, fields, failed] : cases) {
    std::string const hash = "row" + std::to_string(++id);
    base.Exec("INSERT INTO entry VALUES (NULL, '" + hash + "', 'p', 1, 1001, 0, 0, 0, 0, 1, '" +
              data + "')");
    Entry e = FullEntry();
    kovatest::ClearLogs();
    bool usable = true;
    EXPECT_NO_THROW(usable = store.GetById(id, e.GetObject())) << hash;
    EXPECT_EQ(failed.empty() && fields != kept, usable) << hash;
    EXPECT_EQ(
        std::to_string(id) + " " + hash + " 1001",
        std::to_string(e.get_id()) + " " + e.get_hash() + " " + std::to_string(e.get_owner_uid()));
    EXPECT_EQ(fields, DataOf(e)) << hash;
    EXPECT_EQ(failed, Failed("entry")) << hash;
  }
  // The generic query reads entries and skips rows that do not make a legal one.
  std::vector<Entry> all(1);
  ASSERT_TRUE(store.Query(all));
  EXPECT_EQ(5u, all.size());
}

TEST(EntryRules, LegalityInItsOrder) {
  Entry e;
  e.set_private_data(Json::Value("not an object"));
  e.set_protect_type(Entry::PROTECT_PASSWORD);
  e.set_protect_password("", true, Entry::ENCRYPT_ALGO_MD5);  // fails: leaves the entry illegal
  recordtest::ExpectRulesInOrder(
      [&] { return e.IsLegal(); }, "entry", false,
      {{"!blValid_", [&] { e.set_protect_password("", false, Entry::ENCRYPT_ALGO_DEFAULT); }},
       {"\"\" == hash_", [&] { e.set_hash("h"); }},
       {"\"\" == project_name_", [&] { e.set_project_name("p"); }},
       {"UID_ERR == owner_uid_", [&] { e.set_owner_uid(0); }},  // root owns like any other
       {"! app_.isObject()", [&] { e.set_app(Json::Value(Json::objectValue)); }},
       {"! private_data_.isObject()", [&] { e.set_private_data(Json::Value(Json::objectValue)); }},
       {"Entry::PROTECT_PASSWORD == protect_type_ && \"\" == protect_password_",
        [&] { e.set_protect_password("digest", false, Entry::ENCRYPT_ALGO_DEFAULT); }},
       {"Entry::PROTECT_PASSWORD == protect_type_ && Entry::ENCRYPT_ALGO_DEFAULT == "
        "protect_password_algo_ && \"\" == protect_password_salt_",
        [&] { e.set_protect_type(Entry::PROTECT_USER); }},
       {kUserRule, [&] { e.set_protect_groups({"nogroup"}); }}});

  // An MD5 digest needs no salt, and the user rule is not reached for password protection.
  Entry md5 = e;
  md5.set_protect_type(Entry::PROTECT_PASSWORD).set_protect_groups({});
  md5.set_protect_password("abc", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_TRUE(md5.get_protect_password_salt().empty());
  EXPECT_TRUE(md5.IsLegal());
  // A group id alone admits somebody.
  e.set_protect_groups({});
  EXPECT_FALSE(e.IsLegal());
  e.set_protect_gids({2001});
  EXPECT_TRUE(e.IsLegal());
}

TEST(EntryRules, ValidityBoundariesAndOrder) {
  Entry base;
  base.set_hash("h").set_project_name("p").set_owner_uid(1000).set_app(kApp);
  // Usable from the second it starts and still during the second of its expiry.
  auto valid_at = [&](Entry& (Entry::*set)(long), long offset) {
    return recordtest::AtOneSecond(
        [&](time_t now) { return (Entry(base).*set)(now + offset).IsValid(); });
  };
  EXPECT_TRUE(valid_at(&Entry::set_start_at, 0));
  EXPECT_FALSE(valid_at(&Entry::set_start_at, 1));
  EXPECT_TRUE(valid_at(&Entry::set_expire_at, 0));
  EXPECT_FALSE(valid_at(&Entry::set_expire_at, -1));
  EXPECT_TRUE(Entry(base).set_start_at(-5).set_expire_at(-5).IsValid());  // negative: unset

  // A count equal to its limit is still valid (the count goes up after a use).
  Entry used = Entry(base).set_expire_times(3).set_use_count(3);
  EXPECT_TRUE(used.IsValid());
  used.set_use_count(4);
  kovatest::ClearLogs();
  EXPECT_FALSE(used.IsValid());
  EXPECT_EQ(std::vector<std::string>{"0 < expire_times_ && use_count_ > expire_times_"},
            Failed("entry"));
  used.set_expire_times(0);  // unlimited again: the count stays, the limit does not apply
  EXPECT_EQ(4, used.get_use_count());
  EXPECT_TRUE(used.IsValid());
  // Turning an unlimited link into a limited one restarts the count; other changes keep it.
  used.set_expire_times(5);
  EXPECT_EQ(0, used.get_use_count());
  used.inc_use_count().inc_use_count().set_expire_times(6);
  EXPECT_EQ(2, used.get_use_count());

  // Only the first failing rule is logged; an illegal entry logs its own rule first.
  Entry off = base;
  off.set_enabled(false).set_expire_at(1).set_start_at(time(nullptr) + 100);
  recordtest::ExpectRulesInOrder(
      [&] { return off.IsValid(); }, "entry", false,
      {{"! enabled_", [&] { off.set_enabled(true); }},
       {"0 < start_at_ && start_at_ > timeNow", [&] { off.set_start_at(0); }},
       {"0 < expire_at_ && timeNow > expire_at_", [&] { off.set_expire_at(0); }}});
  off.set_hash("").set_expire_at(1);
  EXPECT_FALSE(off.IsValid());
  EXPECT_EQ((std::vector<std::string>{"\"\" == hash_", "! IsLegal()"}), Failed("entry"));
}

TEST(EntryTime, TextsInTheLocalZone) {
  char const* const format = "%Y-%m-%d %H:%M:%S";
  recordtest::SetZone("JST-9");
  Entry e;
  EXPECT_EQ("", e.get_start_at_str(format));
  e.set_start_at_str("2024-01-02 03:04:05", format);
  EXPECT_EQ(1704132245, e.get_start_at());  // 2024-01-01 18:04:05 UTC
  EXPECT_EQ("2024-01-02 03:04:05", e.get_start_at_str(format));
  e.set_expire_at_str("2024-12-31", "%Y-%m-%d");
  EXPECT_EQ(1735570800, e.get_expire_at());
  EXPECT_EQ("2024-12-31 00:00:00", e.get_expire_at_str(format));
  EXPECT_EQ("", e.get_expire_at_str(""));  // a format that yields no text
  // Empty or unmatched texts unset the time.
  e.set_start_at_str("31.12.2024", format).set_expire_at_str("", format);
  EXPECT_EQ(0, e.get_start_at());
  EXPECT_EQ(0, e.get_expire_at());
  recordtest::SetZone("UTC0");
  e.set_start_at_str("2024-01-02 03:04:05", format).set_expire_at(-1);  // -1 is a set time
  EXPECT_EQ(1704164645, e.get_start_at());
  EXPECT_EQ("1969-12-31 23:59:59", e.get_expire_at_str(format));
}

TEST(EntryHandle, CopiesAndMovesAreIndependent) {
  Entry full = FullEntry();
  full.set_id(11);
  recordtest::ExpectValueSemantics<Entry>(
      full, [](Entry& e) { e.set_hash("other").set_protect_uids({1}); },
      [](Entry const& e) {
        // Texts, lists and JSON values emptied; numbers kept.
        EXPECT_EQ("|1000", e.get_hash() + "|" + std::to_string(e.get_owner_uid()));
        EXPECT_TRUE(e.get_protect_uids().empty() && e.get_protect_groups().empty());
        EXPECT_TRUE(e.get_app().empty() && e.get_private_data().empty());
      });
}
