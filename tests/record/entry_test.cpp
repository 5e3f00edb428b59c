// The entry record: its row form, its JSON form, reading rows back (also rows written by
// other programs), its rules in their order, time texts and value semantics of the handle.
#include "kovasharing/entry.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <ctime>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kovasharing/constants.h"
#include "record_test_util.h"

using KOVA::sharing::UID_ERR;
using KOVA::sharing::db::ObjectDB;
using KOVA::sharing::record::Entry;
using KOVA::sharing::record::Object;

namespace {

Json::Value Parse(std::string const& text) {
  Json::Value value;
  Json::Reader reader;
  EXPECT_TRUE(reader.parse(text, value)) << text;
  return value;
}

Json::Value App() {
  Json::Value app(Json::objectValue);
  app["name"] = "files";
  app["path"] = "/share/äöü \"quoted\"";
  return app;
}

// A legal entry with every field away from its default.
Entry FullEntry() {
  Entry e;
  e.set_hash("Ab3dE5gH9").set_project_name("files").set_enabled(false).set_owner_uid(1000);
  e.set_start_at(1600000000).set_expire_at(1900000000).set_expire_times(5).set_use_count(2);
  e.set_auto_gc(false).set_enable_match_ip(false);
  e.set_protect_type(Entry::PROTECT_PASSWORD).set_protect_title("for the team");
  e.set_protect_password("secret", true, Entry::ENCRYPT_ALGO_DEFAULT);
  e.set_protect_uids({1000, 4242});
  e.set_protect_groups({"editors", "nogroup"});
  e.set_redirect_type(Entry::REDIRECT_URLPARAM).set_redirect_uri("https://x/y?z=1'2");
  e.set_app(App());
  Json::Value priv(Json::objectValue);
  priv["k"] = 7;
  priv["list"].append("a");
  e.set_private_data(priv);
  return e;
}

void ExpectSameEntry(Entry const& a, Entry const& b) {
  EXPECT_EQ(a.get_id(), b.get_id());
  EXPECT_EQ(a.get_hash(), b.get_hash());
  EXPECT_EQ(a.get_project_name(), b.get_project_name());
  EXPECT_EQ(a.get_enabled(), b.get_enabled());
  EXPECT_EQ(a.get_owner_uid(), b.get_owner_uid());
  EXPECT_EQ(a.get_start_at(), b.get_start_at());
  EXPECT_EQ(a.get_expire_at(), b.get_expire_at());
  EXPECT_EQ(a.get_expire_times(), b.get_expire_times());
  EXPECT_EQ(a.get_use_count(), b.get_use_count());
  EXPECT_EQ(a.get_auto_gc(), b.get_auto_gc());
  EXPECT_EQ(a.get_enable_match_ip(), b.get_enable_match_ip());
  EXPECT_EQ(a.get_protect_type(), b.get_protect_type());
  EXPECT_EQ(a.get_protect_title(), b.get_protect_title());
  EXPECT_EQ(a.get_protect_password(), b.get_protect_password());
  EXPECT_EQ(a.get_protect_password_algo(), b.get_protect_password_algo());
  EXPECT_EQ(a.get_protect_password_salt(), b.get_protect_password_salt());
  EXPECT_EQ(a.get_protect_uids(), b.get_protect_uids());
  EXPECT_EQ(a.get_protect_gids(), b.get_protect_gids());
  EXPECT_EQ(a.get_protect_users(), b.get_protect_users());
  EXPECT_EQ(a.get_protect_groups(), b.get_protect_groups());
  EXPECT_EQ(a.get_redirect_type(), b.get_redirect_type());
  EXPECT_EQ(a.get_redirect_uri(), b.get_redirect_uri());
  EXPECT_EQ(a.get_app(), b.get_app());
  EXPECT_EQ(a.get_private_data(), b.get_private_data());
  EXPECT_EQ(a.GetFieldList(), b.GetFieldList());
}

std::string InsertRow(std::string const& hash, std::string const& data, int owner = 1000) {
  return "INSERT INTO entry VALUES (NULL, '" + hash + "', 'files', 1, " + std::to_string(owner) +
         ", 0, 0, 0, 0, 1, '" + data + "')";
}

}  // namespace

TEST(EntryRow, DefaultsAndColumnOrder) {
  Entry e;
  EXPECT_EQ(0, e.get_id());
  EXPECT_EQ(UID_ERR, e.get_owner_uid());
  EXPECT_TRUE(e.get_enabled());
  EXPECT_TRUE(e.get_auto_gc());
  EXPECT_TRUE(e.get_enable_match_ip());
  EXPECT_EQ(Entry::PROTECT_NONE, e.get_protect_type());
  EXPECT_EQ(Entry::ENCRYPT_ALGO_DEFAULT, e.get_protect_password_algo());
  EXPECT_EQ(Entry::REDIRECT_NONE, e.get_redirect_type());
  EXPECT_TRUE(e.get_app().isNull());  // not an object: a new entry is not legal yet
  EXPECT_TRUE(e.get_private_data().isObject());
  EXPECT_EQ(0u, e.get_private_data().size());

  std::vector<std::string> const list = e.GetFieldList();
  ASSERT_EQ(10u, list.size());
  std::vector<std::string> const head(list.begin(), list.begin() + 9);
  EXPECT_EQ((std::vector<std::string>{"", "", "1", "4294967295", "0", "0", "0", "0", "1"}), head);
  Json::Value const data = Parse(list[9]);
  ASSERT_TRUE(data.isObject());
  EXPECT_EQ(
      (std::vector<std::string>{"app", "enable_match_ip", "private_data", "protect_extra_groups",
                                "protect_extra_users", "protect_gids", "protect_password",
                                "protect_password_algo", "protect_password_salt", "protect_title",
                                "protect_type", "protect_uids", "redirect_type", "redirect_uri"}),
      data.getMemberNames());
  EXPECT_EQ("none", data["protect_type"].asString());
  EXPECT_EQ("default", data["protect_password_algo"].asString());
  EXPECT_EQ("none", data["redirect_type"].asString());
  EXPECT_TRUE(data["enable_match_ip"].isBool());
  EXPECT_TRUE(data["enable_match_ip"].asBool());
  for (char const* key :
       {"protect_uids", "protect_gids", "protect_extra_users", "protect_extra_groups"}) {
    EXPECT_TRUE(data[key].isArray()) << key;
    EXPECT_EQ(0u, data[key].size()) << key;
  }
  EXPECT_TRUE(data["app"].isNull());
  EXPECT_TRUE(data["private_data"].isObject());
  EXPECT_EQ(0u, data["private_data"].size());

  // The update map pairs the same values with the column names; the row id is not in it.
  Entry full = FullEntry();
  full.set_id(77);
  std::vector<std::string> const values = full.GetFieldList();
  std::map<std::string, std::string> const map = full.GetFieldMap();
  std::vector<std::string> const columns = {"hash",     "project_name", "enabled",      "owner_uid",
                                            "start_at", "expire_at",    "expire_times", "use_count",
                                            "auto_gc",  "data"};
  ASSERT_EQ(columns.size(), map.size());
  for (std::size_t i = 0; i < columns.size(); ++i) EXPECT_EQ(values[i], map.at(columns[i]));
  EXPECT_EQ(0u, map.count("id"));
  EXPECT_EQ("0", values[2]);
  EXPECT_EQ("1000", values[3]);
  EXPECT_EQ("1600000000", values[4]);
  EXPECT_EQ("5", values[6]);
  EXPECT_EQ("0", values[8]);

  // Enumeration values outside the known ones have a text too.
  Entry odd = FullEntry();
  odd.set_protect_type(static_cast<Entry::ProtectType>(7));
  odd.set_redirect_type(static_cast<Entry::RedirectType>(9));
  odd.set_protect_password("abc", false, static_cast<Entry::PasswordEncryptAlgo>(3));
  Json::Value const odd_data = Parse(odd.GetFieldList()[9]);
  EXPECT_EQ("user", odd_data["protect_type"].asString());
  EXPECT_EQ("always", odd_data["redirect_type"].asString());
  EXPECT_EQ("md5", odd_data["protect_password_algo"].asString());
}

TEST(EntryRow, RoundTripThroughTheDatabase) {
  recordtest::Database base;
  ObjectDB store(base.db(), "entry");
  Entry written = FullEntry();
  ASSERT_TRUE(written.IsLegal());
  ASSERT_TRUE(store.Create(written.GetObject()));
  EXPECT_LT(0, written.get_id());

  Entry read;
  ASSERT_TRUE(store.GetById(written.get_id(), read.GetObject()));
  ExpectSameEntry(written, read);
  EXPECT_EQ(std::vector<unsigned int>({1000, 4242}), read.get_protect_uids());
  EXPECT_EQ(std::vector<unsigned int>({2001}), read.get_protect_gids());
  EXPECT_EQ(std::vector<std::string>({"editors", "nogroup"}), read.get_protect_groups());
  EXPECT_TRUE(read.IsPasswordValid("secret"));
  EXPECT_FALSE(read.IsPasswordValid("Secret"));

  // What the row holds: the columns as numbers and the rest as one JSON object.
  std::vector<std::string> const rows =
      base.Rows("SELECT * FROM entry WHERE id = " + std::to_string(written.get_id()),
                {"hash", "project_name", "enabled", "owner_uid", "start_at", "expire_at",
                 "expire_times", "use_count", "auto_gc"});
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("Ab3dE5gH9|files|0|1000|1600000000|1900000000|5|2|0", rows[0]);
  Json::Value const data = Parse(
      base.Rows("SELECT data FROM entry WHERE id = " + std::to_string(written.get_id()), {"data"})
          .at(0));
  EXPECT_EQ(App(), data["app"]);
  EXPECT_EQ(written.get_private_data(), data["private_data"]);
  EXPECT_EQ("password", data["protect_type"].asString());
  EXPECT_EQ("for the team", data["protect_title"].asString());
  EXPECT_EQ(written.get_protect_password(), data["protect_password"].asString());
  EXPECT_EQ(written.get_protect_password_salt(), data["protect_password_salt"].asString());
  EXPECT_EQ("default", data["protect_password_algo"].asString());
  EXPECT_EQ(Json::UInt(4242), data["protect_uids"][1].asUInt());
  EXPECT_EQ(0u, data["protect_extra_users"].size());
  EXPECT_EQ("nogroup", data["protect_extra_groups"][0].asString());
  EXPECT_EQ("url_param", data["redirect_type"].asString());
  EXPECT_EQ("https://x/y?z=1'2", data["redirect_uri"].asString());
  EXPECT_FALSE(data["enable_match_ip"].asBool());

  // An update writes the changed fields back into the same row.
  read.set_redirect_type(Entry::REDIRECT_ALWAYS)
      .inc_use_count()
      .set_protect_type(Entry::PROTECT_NONE);
  ASSERT_TRUE(store.Update(read.GetCObject()));
  Entry again;
  ASSERT_TRUE(store.GetById(written.get_id(), again.GetObject()));
  ExpectSameEntry(read, again);
  EXPECT_EQ(3, again.get_use_count());

  // The query of the generic store reads entries and skips rows that do not make a legal one.
  Entry second = FullEntry();
  second.set_hash("second");
  ASSERT_TRUE(store.Create(second.GetObject()));
  base.Exec(InsertRow("broken", "not json"));
  std::vector<Entry> all(1);
  ASSERT_TRUE(store.Query(all));
  ASSERT_EQ(2u, all.size());
  ExpectSameEntry(again, all[0]);
  ExpectSameEntry(second, all[1]);
}

TEST(EntryRow, RowsWrittenByOtherPrograms) {
  recordtest::Database base;
  ObjectDB store(base.db(), "entry");
  auto id_of = [&](std::string const& hash) {
    std::vector<std::string> const ids =
        base.Rows("SELECT id FROM entry WHERE hash = '" + hash + "'", {"id"});
    EXPECT_EQ(1u, ids.size()) << hash;
    return ids.empty() ? -1 : std::stoi(ids[0]);
  };

  // Missing members read as their defaults: user protection, MD5, always redirect, no
  // private data; a user list makes the entry legal.
  base.Exec(InsertRow("sparse", R"({"app":{"a":1},"protect_uids":[1000,1001]})"));
  Entry sparse;
  sparse.set_protect_title("old title");
  ASSERT_TRUE(store.GetById(1, sparse.GetObject()));
  EXPECT_EQ(1, sparse.get_id());
  EXPECT_EQ("sparse", sparse.get_hash());
  EXPECT_EQ(Entry::PROTECT_USER, sparse.get_protect_type());
  EXPECT_EQ(Entry::ENCRYPT_ALGO_MD5, sparse.get_protect_password_algo());
  EXPECT_EQ(Entry::REDIRECT_ALWAYS, sparse.get_redirect_type());
  EXPECT_FALSE(sparse.get_enable_match_ip());
  EXPECT_EQ("", sparse.get_protect_title());
  EXPECT_EQ(std::vector<unsigned int>({1000, 1001}), sparse.get_protect_uids());
  EXPECT_TRUE(sparse.get_private_data().isObject());
  EXPECT_EQ(0u, sparse.get_private_data().size());

  // Without any list the user protection admits nobody: filled, but not usable.
  base.Exec(InsertRow("nobody", R"({"app":{}})"));
  Entry nobody;
  kovatest::ClearLogs();
  EXPECT_FALSE(store.GetById(2, nobody.GetObject()));
  EXPECT_EQ("nobody", nobody.get_hash());
  EXPECT_EQ(Entry::PROTECT_USER, nobody.get_protect_type());
  EXPECT_EQ(std::vector<std::string>(
                {"Entry::PROTECT_USER == protect_type_ && (0 == protect_uids_.size() + "
                 "protect_extra_users_.size() + protect_gids_.size() + "
                 "protect_extra_groups_.size())"}),
            recordtest::FailedConditions());

  // Only the exact text "default" selects the salted digest.
  base.Exec(
      InsertRow("algo1", R"({"app":{},"protect_type":"none","protect_password_algo":"DEFAULT"})"));
  base.Exec(InsertRow("algo2", R"({"app":{},"protect_type":"none","protect_password_algo":0})"));
  base.Exec(InsertRow(
      "algo3",
      R"({"app":{},"protect_type":"none","protect_password_algo":"default","redirect_type":"url_param"})"));
  for (int id : {3, 4}) {
    Entry e;
    ASSERT_TRUE(store.GetById(id, e.GetObject())) << id;
    EXPECT_EQ(Entry::ENCRYPT_ALGO_MD5, e.get_protect_password_algo()) << id;
    EXPECT_EQ(Entry::PROTECT_NONE, e.get_protect_type()) << id;
  }
  Entry algo3;
  ASSERT_TRUE(store.GetById(5, algo3.GetObject()));
  EXPECT_EQ(Entry::ENCRYPT_ALGO_DEFAULT, algo3.get_protect_password_algo());
  EXPECT_EQ(Entry::REDIRECT_URLPARAM, algo3.get_redirect_type());

  // Text that is not JSON: the columns are read, the data fields keep what they held.
  base.Exec(InsertRow("garbage", "{not json", 1001));
  Entry garbage = FullEntry();
  kovatest::ClearLogs();
  EXPECT_FALSE(store.GetById(6, garbage.GetObject()));
  EXPECT_EQ("garbage", garbage.get_hash());
  EXPECT_EQ(1001u, garbage.get_owner_uid());
  EXPECT_EQ(6, garbage.get_id());
  EXPECT_EQ("for the team", garbage.get_protect_title());
  EXPECT_EQ(App(), garbage.get_app());
  EXPECT_TRUE(kovatest::LogTexts().empty());

  // Members of a type that cannot be converted make the row unusable instead of throwing,
  // and a "data" that is JSON but no object is not used either.
  for (std::string const& odd :
       {std::string(R"({"app":{},"protect_type":"none","protect_uids":[-1]})"),
        std::string(R"({"app":{},"protect_type":"none","enable_match_ip":"yes"})"),
        std::string(R"({"app":{},"protect_type":"none","protect_extra_users":[[1]]})"),
        std::string(R"([1,2])"), std::string(R"("text")")}) {
    base.Exec("DELETE FROM entry WHERE hash = 'odd'");
    base.Exec(InsertRow("odd", odd));
    Entry e = FullEntry();
    bool ok = true;
    EXPECT_NO_THROW(ok = store.GetById(id_of("odd"), e.GetObject())) << odd;
    EXPECT_FALSE(ok) << odd;
    EXPECT_EQ("for the team", e.get_protect_title()) << odd;
    EXPECT_EQ(Entry::PROTECT_PASSWORD, e.get_protect_type()) << odd;
  }

  // Convertible oddities are converted; a private blob that is no object breaks a rule.
  base.Exec(InsertRow(
      "conv",
      R"({"app":{},"protect_type":"none","enable_match_ip":1,"protect_title":5,"private_data":"x"})"));
  Entry conv;
  kovatest::ClearLogs();
  EXPECT_FALSE(store.GetById(id_of("conv"), conv.GetObject()));
  EXPECT_TRUE(conv.get_enable_match_ip());
  EXPECT_EQ("5", conv.get_protect_title());
  EXPECT_EQ(Json::Value("x"), conv.get_private_data());
  EXPECT_EQ(std::vector<std::string>({"! private_data_.isObject()"}),
            recordtest::FailedConditions());
}

TEST(EntryJson, MembersForCallers) {
  recordtest::ScopedTZ tz("UTC0");
  Entry e = FullEntry();
  e.set_protect_users({"alice", "zed"});
  e.set_protect_type(Entry::PROTECT_USER);
  Json::Value out(Json::objectValue);
  out["stale"] = true;
  e.ToJSON(out);
  std::vector<std::string> names = out.getMemberNames();
  EXPECT_EQ((std::vector<std::string>{
                "app", "auto_gc", "enable_match_ip", "enabled", "expire_at", "expire_times", "hash",
                "owner_user", "project_name", "protect_groups", "protect_title", "protect_type",
                "protect_users", "redirect_type", "redirect_uri", "start_at", "use_count"}),
            names);
  EXPECT_EQ("Ab3dE5gH9", out["hash"].asString());
  EXPECT_EQ("files", out["project_name"].asString());
  EXPECT_TRUE(out["enabled"].isBool());
  EXPECT_FALSE(out["enabled"].asBool());
  EXPECT_EQ("alice", out["owner_user"].asString());
  EXPECT_EQ("2020-09-13 12:26:40", out["start_at"].asString());
  EXPECT_EQ("2030-03-17 17:46:40", out["expire_at"].asString());
  EXPECT_TRUE(out["expire_times"].isInt());
  EXPECT_EQ(5, out["expire_times"].asInt());
  EXPECT_EQ(2, out["use_count"].asInt());
  EXPECT_FALSE(out["auto_gc"].asBool());
  EXPECT_FALSE(out["enable_match_ip"].asBool());
  EXPECT_EQ("for the team", out["protect_title"].asString());
  EXPECT_EQ("user", out["protect_type"].asString());
  Json::Value users(Json::arrayValue);
  users.append("alice");
  users.append("zed");
  EXPECT_EQ(users, out["protect_users"]);
  Json::Value groups(Json::arrayValue);
  groups.append("editors");
  groups.append("nogroup");
  EXPECT_EQ(groups, out["protect_groups"]);
  EXPECT_EQ("url_param", out["redirect_type"].asString());
  EXPECT_EQ("https://x/y?z=1'2", out["redirect_uri"].asString());
  EXPECT_EQ(App(), out["app"]);

  // Unset times and unknown owners show as empty texts; the enumerations have their own
  // caller texts, with "none" for values outside the known ones.
  Entry plain;
  plain.set_protect_type(Entry::PROTECT_PASSWORD).set_redirect_type(Entry::REDIRECT_ALWAYS);
  plain.ToJSON(out);
  EXPECT_EQ("", out["start_at"].asString());
  EXPECT_EQ("", out["expire_at"].asString());
  EXPECT_EQ("", out["owner_user"].asString());
  EXPECT_EQ("password", out["protect_type"].asString());
  EXPECT_EQ("always", out["redirect_type"].asString());
  EXPECT_TRUE(out["app"].isNull());
  EXPECT_EQ(0u, out["protect_users"].size());
  plain.set_protect_type(static_cast<Entry::ProtectType>(7));
  plain.set_redirect_type(static_cast<Entry::RedirectType>(9));
  plain.set_owner_uid(4242);
  plain.ToJSON(out);
  EXPECT_EQ("none", out["protect_type"].asString());
  EXPECT_EQ("none", out["redirect_type"].asString());
  EXPECT_EQ("", out["owner_user"].asString());
  plain.set_protect_type(Entry::PROTECT_NONE).set_redirect_type(Entry::REDIRECT_NONE);
  plain.ToJSON(out);
  EXPECT_EQ("none", out["protect_type"].asString());
  EXPECT_EQ("none", out["redirect_type"].asString());
}

TEST(EntryRules, LegalityInItsOrder) {
  // Each step repairs the rule that failed before and meets the next one; every call logs
  // exactly one line, naming the rule.
  Entry e;
  e.set_private_data(Json::Value("not an object"));
  e.set_protect_type(Entry::PROTECT_PASSWORD);
  e.set_protect_password("", true, Entry::ENCRYPT_ALGO_MD5);  // fails: leaves the entry illegal

  std::vector<std::string> const expected = {
      "!blValid_",
      "\"\" == hash_",
      "\"\" == project_name_",
      "UID_ERR == owner_uid_",
      "! app_.isObject()",
      "! private_data_.isObject()",
      "Entry::PROTECT_PASSWORD == protect_type_ && \"\" == protect_password_",
      "Entry::PROTECT_PASSWORD == protect_type_ && Entry::ENCRYPT_ALGO_DEFAULT == "
      "protect_password_algo_ && \"\" == protect_password_salt_",
      "Entry::PROTECT_USER == protect_type_ && (0 == protect_uids_.size() + "
      "protect_extra_users_.size() + protect_gids_.size() + protect_extra_groups_.size())",
  };
  std::vector<std::function<void()>> const repairs = {
      [&] { e.set_protect_password("", false, Entry::ENCRYPT_ALGO_DEFAULT); },
      [&] { e.set_hash("h"); },
      [&] { e.set_project_name("p"); },
      [&] { e.set_owner_uid(0); },  // root is an owner like any other
      [&] { e.set_app(Json::Value(Json::objectValue)); },
      [&] { e.set_private_data(Json::Value(Json::objectValue)); },
      [&] { e.set_protect_password("digest", false, Entry::ENCRYPT_ALGO_DEFAULT); },
      [&] { e.set_protect_type(Entry::PROTECT_USER); },
      [&] { e.set_protect_groups({"nogroup"}); },
  };
  int previous_line = 0;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    kovatest::ClearLogs();
    EXPECT_FALSE(e.IsLegal()) << i;
    std::vector<recordtest::Failure> const failures = recordtest::Failures();
    ASSERT_EQ(1u, failures.size()) << i;
    EXPECT_EQ("entry", failures[0].source);
    EXPECT_EQ(expected[i], failures[0].condition);
    EXPECT_GT(failures[0].line, previous_line) << expected[i];
    previous_line = failures[0].line;
    repairs[i]();
  }
  kovatest::ClearLogs();
  EXPECT_TRUE(e.IsLegal());
  EXPECT_TRUE(kovatest::LogTexts().empty());

  // Password protection with an MD5 digest needs no salt, and the user rule is not reached.
  Entry md5 = e;
  md5.set_protect_type(Entry::PROTECT_PASSWORD);
  md5.set_protect_password("abc", true, Entry::ENCRYPT_ALGO_MD5);
  md5.set_protect_groups({});
  EXPECT_TRUE(md5.get_protect_password_salt().empty());
  EXPECT_TRUE(md5.IsLegal());
  // Times, counts and redirection are no part of legality.
  md5.set_expire_at(1).set_expire_times(1).set_use_count(99).set_enabled(false);
  md5.set_redirect_type(static_cast<Entry::RedirectType>(5));
  EXPECT_TRUE(md5.IsLegal());
  // A link protected by group id alone is legal.
  Entry by_gid = e;
  by_gid.set_protect_groups({});
  EXPECT_FALSE(by_gid.IsLegal());
  by_gid.set_protect_gids({2001});
  EXPECT_TRUE(by_gid.IsLegal());
}

TEST(EntryRules, ValidityBoundaries) {
  Entry base;
  base.set_hash("h").set_project_name("p").set_owner_uid(1000).set_app(App());
  ASSERT_TRUE(base.IsLegal());

  auto valid_with = [&](std::function<void(Entry&, time_t)> const& change) {
    return recordtest::AtOneSecond([&](time_t now) {
      Entry e = base;
      change(e, now);
      return e.IsValid();
    });
  };
  // Still usable during the second of its expiry, not after it.
  EXPECT_TRUE(valid_with([](Entry& e, time_t now) { e.set_expire_at(now); }));
  EXPECT_FALSE(valid_with([](Entry& e, time_t now) { e.set_expire_at(now - 1); }));
  EXPECT_TRUE(valid_with([](Entry& e, time_t now) { e.set_expire_at(now + 1); }));
  // Usable from the second it starts.
  EXPECT_TRUE(valid_with([](Entry& e, time_t now) { e.set_start_at(now); }));
  EXPECT_FALSE(valid_with([](Entry& e, time_t now) { e.set_start_at(now + 1); }));
  // Negative times count as unset.
  EXPECT_TRUE(valid_with([](Entry& e, time_t) { e.set_start_at(-5).set_expire_at(-5); }));

  // A count equal to its limit is still valid (the count goes up after a use).
  Entry used = base;
  used.set_expire_times(3).set_use_count(3);
  EXPECT_TRUE(used.IsValid());
  used.set_use_count(4);
  kovatest::ClearLogs();
  EXPECT_FALSE(used.IsValid());
  EXPECT_EQ(std::vector<std::string>({"0 < expire_times_ && use_count_ > expire_times_"}),
            recordtest::FailedConditions());
  used.set_expire_times(0);  // unlimited again: the count stays, the limit does not apply
  EXPECT_EQ(4, used.get_use_count());
  EXPECT_TRUE(used.IsValid());

  // The first failing rule is the one logged; an illegal entry logs its own rule first.
  Entry off = base;
  off.set_enabled(false).set_expire_at(1).set_start_at(time(nullptr) + 100);
  kovatest::ClearLogs();
  EXPECT_FALSE(off.IsValid());
  EXPECT_EQ(std::vector<std::string>({"! enabled_"}), recordtest::FailedConditions());
  off.set_enabled(true);
  kovatest::ClearLogs();
  EXPECT_FALSE(off.IsValid());
  EXPECT_EQ(std::vector<std::string>({"0 < start_at_ && start_at_ > timeNow"}),
            recordtest::FailedConditions());
  off.set_start_at(0);
  kovatest::ClearLogs();
  EXPECT_FALSE(off.IsValid());
  EXPECT_EQ(std::vector<std::string>({"0 < expire_at_ && timeNow > expire_at_"}),
            recordtest::FailedConditions());
  off.set_hash("");
  kovatest::ClearLogs();
  EXPECT_FALSE(off.IsValid());
  std::vector<recordtest::Failure> const failures = recordtest::Failures();
  ASSERT_EQ(2u, failures.size());
  EXPECT_EQ("\"\" == hash_", failures[0].condition);
  EXPECT_EQ("! IsLegal()", failures[1].condition);
  EXPECT_EQ("entry", failures[1].source);

  // The use limit: turning an unlimited link into a limited one restarts the count.
  Entry counted = base;
  counted.set_use_count(7);
  counted.set_expire_times(5);
  EXPECT_EQ(0, counted.get_use_count());
  counted.inc_use_count().inc_use_count();
  counted.set_expire_times(6);
  EXPECT_EQ(2, counted.get_use_count());
  counted.set_expire_times(0);
  EXPECT_EQ(2, counted.get_use_count());
  EXPECT_EQ(0, counted.get_expire_times());
}

TEST(EntryTime, TextsInTheLocalZone) {
  char const* const format = "%Y-%m-%d %H:%M:%S";
  {
    recordtest::ScopedTZ tz("JST-9");
    Entry e;
    EXPECT_EQ("", e.get_start_at_str(format));
    EXPECT_EQ("", e.get_expire_at_str(format));
    e.set_start_at_str("2024-01-02 03:04:05", format);
    EXPECT_EQ(1704132245, e.get_start_at());  // 2024-01-01 18:04:05 UTC
    EXPECT_EQ("2024-01-02 03:04:05", e.get_start_at_str(format));
    e.set_expire_at_str("2024-12-31 23:59:59", format);
    EXPECT_EQ(1735657199, e.get_expire_at());
    EXPECT_EQ("2024-12-31", e.get_expire_at_str("%Y-%m-%d"));
    // A format that yields no text gives "".
    EXPECT_EQ("", e.get_expire_at_str(""));
    // Empty or unmatched texts unset the time.
    e.set_start_at_str("", format);
    EXPECT_EQ(0, e.get_start_at());
    e.set_expire_at_str("31.12.2024", format);
    EXPECT_EQ(0, e.get_expire_at());
    e.set_expire_at_str("2024-02-30 00:00:00", "%Y-%m-%d");  // trailing text is ignored
    EXPECT_EQ(1709218800, e.get_expire_at());                // mktime carries to 1 March
  }
  {
    recordtest::ScopedTZ tz("UTC0");
    Entry e;
    e.set_start_at_str("2024-01-02 03:04:05", format);
    EXPECT_EQ(1704164645, e.get_start_at());
    e.set_start_at(1);
    EXPECT_EQ("1970-01-01 00:00:01", e.get_start_at_str(format));
    e.set_expire_at(-1);  // set, though before the epoch
    EXPECT_EQ("1969-12-31 23:59:59", e.get_expire_at_str(format));
  }
  // The zone of the test environment is back.
  Entry e;
  e.set_start_at(1704164645);
  EXPECT_EQ("2024-01-02 03:04:05", e.get_start_at_str(format));
}

TEST(EntryHandle, CopiesAndMovesAreIndependent) {
  Entry original = FullEntry();
  original.set_id(11);

  Entry copy(original);
  ExpectSameEntry(original, copy);
  copy.set_hash("other").set_use_count(9).set_protect_uids({1});
  Json::Value app = copy.get_app();
  app["name"] = "changed";
  copy.set_app(app);
  copy.GetObject().set_id(12);
  EXPECT_EQ("Ab3dE5gH9", original.get_hash());
  EXPECT_EQ(2, original.get_use_count());
  EXPECT_EQ(std::vector<unsigned int>({1000, 4242}), original.get_protect_uids());
  EXPECT_EQ("files", original.get_app()["name"].asString());
  EXPECT_EQ(11, original.get_id());
  EXPECT_NE(&original.GetCObject(), &copy.GetCObject());

  Entry assigned;
  assigned = original;
  ExpectSameEntry(original, assigned);
  assigned.set_protect_title("mine");
  EXPECT_EQ("for the team", original.get_protect_title());
  assigned = assigned;  // self-assignment keeps the record
  EXPECT_EQ("mine", assigned.get_protect_title());

  // A move takes the fields; the source keeps its own record, with texts, lists and JSON
  // values emptied and numbers as they were, and stays usable.
  Entry snapshot(original);
  Object const* source_record = &original.GetCObject();
  Entry moved(std::move(original));
  ExpectSameEntry(snapshot, moved);
  EXPECT_EQ(source_record, &original.GetCObject());
  EXPECT_EQ("", original.get_hash());
  EXPECT_EQ("", original.get_project_name());
  EXPECT_EQ("", original.get_protect_password());
  EXPECT_TRUE(original.get_protect_uids().empty());
  EXPECT_TRUE(original.get_protect_groups().empty());
  EXPECT_TRUE(original.get_app().empty());
  EXPECT_TRUE(original.get_private_data().empty());
  EXPECT_EQ(11, original.get_id());
  EXPECT_EQ(1000u, original.get_owner_uid());
  EXPECT_EQ(5, original.get_expire_times());
  original.set_hash("reused").set_app(App()).set_private_data(Json::Value(Json::objectValue));
  EXPECT_EQ("reused", original.get_hash());
  EXPECT_EQ("Ab3dE5gH9", moved.get_hash());

  Entry target;
  Object const* target_record = &target.GetCObject();
  target = std::move(moved);
  ExpectSameEntry(snapshot, target);
  EXPECT_EQ(target_record, &target.GetCObject());
  EXPECT_EQ("", moved.get_hash());
  EXPECT_TRUE(moved.get_protect_users().empty());
  moved.set_hash("again");
  EXPECT_EQ("Ab3dE5gH9", target.get_hash());
  Entry& alias = target;
  target = std::move(alias);  // self-move keeps the record
  EXPECT_EQ("Ab3dE5gH9", target.get_hash());

  // The record interface reaches the same record as the handle.
  Entry via;
  via.GetObject().set_id(5);
  EXPECT_EQ(5, via.get_id());
  EXPECT_EQ(via.GetFieldList(), via.GetCObject().GetFieldList());
}
