// The entry record: its row through the database, rows written by other programs, the caller's
// form, its rules in their order, validity at its boundaries, time texts, password digests,
// users and groups from the nss_wrapper fixtures, and the value semantics of the handle.
#include "kovasharing/entry.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <string>
#include <tuple>
#include <vector>

#include "kovasharing/constants.h"
#include "kovasharing/utils.h"
#include "record_test_util.h"

using KOVA::sharing::db::ObjectDB;
using KOVA::sharing::record::Entry;
using recordtest::Parse;

namespace {

Json::Value const kApp = Parse(R"({"name":"files","path":"/share/äöü \"quoted\""})");

// A legal entry with its fields away from their defaults and a distinct value in each column,
// so that a value in the wrong column shows after a round trip.
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
  e.set_app(kApp).set_private_data(Parse(R"({"k":7})"));
  return e;
}

// The user ids and names, then the group ids and names, as the login and the caller see them.
std::string Seen(Entry const& e) {
  std::string out;
  for (unsigned int id : e.get_protect_uids()) out += std::to_string(id) + ",";
  for (std::string const& name : e.get_protect_users()) out += name + ",";
  out += "|";
  for (unsigned int id : e.get_protect_gids()) out += std::to_string(id) + ",";
  for (std::string const& name : e.get_protect_groups()) out += name + ",";
  return out;
}

}  // namespace

TEST(EntryRow, ThroughTheDatabase) {
  recordtest::Database base;
  ObjectDB store(base.db, "entry");
  Entry written = FullEntry(), read;
  ASSERT_TRUE(store.Create(written.GetObject()));
  ASSERT_TRUE(store.GetById(written.get_id(), read.GetObject()));
  EXPECT_EQ(recordtest::Fields(written), recordtest::Fields(read));
  read.set_auto_gc(true).set_enabled(true).inc_use_count().set_protect_type(Entry::PROTECT_NONE);
  ASSERT_TRUE(store.Update(read.GetCObject()));
  Entry again;
  ASSERT_TRUE(store.GetById(written.get_id(), again.GetObject()));
  EXPECT_EQ(recordtest::Fields(read), recordtest::Fields(again));

  // Rows written by other programs, read into a FullEntry: {data, usable, protection type,
  // algorithm, redirect type, address binding}. Missing members read as user protection, MD5
  // and always redirect; data that is no JSON object, or whose members do not convert, leaves
  // the entry's data as it was, and nothing is thrown.
  std::vector<std::tuple<std::string, bool, std::string>> const cases = {
      {R"({"app":{},"protect_uids":[1000]})", true, "2 1 2 0"},
      {R"({"app":{}})", false, "2 1 2 0"},  // user protection without users
      {R"({"app":{},"protect_type":"none","protect_password_algo":"DEFAULT"})", true, "0 1 2 0"},
      {R"({"app":{},"protect_type":"none","protect_password_algo":"default",)"
       R"("redirect_type":"url_param","enable_match_ip":1})",
       true, "0 0 1 1"},
      {"{not json", false, "1 0 1 0"},
      {R"({"app":{},"protect_uids":[-1]})", false, "1 0 1 0"},
      {R"({"app":{},"enable_match_ip":"yes"})", false, "1 0 1 0"},
  };
  for (auto const& [data, usable, fields] : cases) {
    base.Exec("INSERT INTO entry VALUES (NULL, 'row', 'p', 1, 1001, 0, 0, 0, 0, 1, '" + data +
              "')");
    Entry e = FullEntry();
    bool ok = true;
    int id = 0;
    ASSERT_TRUE(base.db.GetLastInsertId(id));
    EXPECT_NO_THROW(ok = store.GetById(id, e.GetObject())) << data;
    EXPECT_EQ(usable, ok) << data;
    EXPECT_EQ("row 1001 " + fields, e.get_hash() + " " + std::to_string(e.get_owner_uid()) + " " +
                                        std::to_string(e.get_protect_type()) + " " +
                                        std::to_string(e.get_protect_password_algo()) + " " +
                                        std::to_string(e.get_redirect_type()) + " " +
                                        std::to_string(e.get_enable_match_ip()))
        << data;
    base.Exec("DELETE FROM entry WHERE hash = 'row'");
    kovatest::ClearLogs();
  }
}

TEST(EntryRow, CallersFormShowsNamesAndTimesNotSecrets) {
  recordtest::SetZone("UTC0");
  Json::Value out(Json::objectValue);
  out["stale"] = true;
  FullEntry().ToJSON(out);
  for (char const* hidden : {"stale", "protect_password", "protect_password_salt", "protect_uids",
                             "private_data", "owner_uid", "data"}) {
    EXPECT_FALSE(out.isMember(hidden)) << hidden;
  }
  EXPECT_EQ("alice 2020-09-13 12:26:40 2030-03-17 17:46:40 password url_param",
            out["owner_user"].asString() + " " + out["start_at"].asString() + " " +
                out["expire_at"].asString() + " " + out["protect_type"].asString() + " " +
                out["redirect_type"].asString());
  EXPECT_EQ(kApp, out["app"]);
  EXPECT_EQ(Parse(R"(["alice"])"), out["protect_users"]) << "4242 has no name";
  // Unknown enumeration values: the row says user and always, the caller's form none.
  Entry odd;
  odd.set_protect_type(Entry::ProtectType(7)).set_redirect_type(Entry::RedirectType(9));
  odd.ToJSON(out);
  Json::Value const data = Parse(odd.GetFieldList()[9]);
  EXPECT_EQ("user always none none",
            data["protect_type"].asString() + " " + data["redirect_type"].asString() + " " +
                out["protect_type"].asString() + " " + out["redirect_type"].asString());
}

TEST(EntryRules, LegalityInItsOrder) {
  Entry e;
  e.set_private_data(Json::Value("not an object")).set_protect_type(Entry::PROTECT_PASSWORD);
  e.set_protect_password("", true, Entry::ENCRYPT_ALGO_MD5);  // fails: the entry is illegal
  recordtest::RulesInOrder(
      [&] { return e.IsLegal(); }, "entry",
      {[&] { e.set_protect_password("", false, Entry::ENCRYPT_ALGO_DEFAULT); },
       [&] { e.set_hash("h"); }, [&] { e.set_project_name("p"); },
       [&] { e.set_owner_uid(0); },  // root owns like any other
       [&] { e.set_app(Json::Value(Json::objectValue)); },
       [&] { e.set_private_data(Json::Value(Json::objectValue)); },
       [&] { e.set_protect_password("d", false, Entry::ENCRYPT_ALGO_DEFAULT); },
       [&] { e.set_protect_type(Entry::PROTECT_USER); },
       [&] { e.set_protect_gids({2001}); }});  // a group alone admits
  // An MD5 digest needs no salt.
  e.set_protect_type(Entry::PROTECT_PASSWORD)
      .set_protect_password("abc", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_TRUE(e.get_protect_password_salt().empty() && e.IsLegal());
}

TEST(EntryRules, ValidityAtItsBoundaries) {
  Entry base;
  base.set_hash("h").set_project_name("p").set_owner_uid(1000).set_app(kApp);
  // Usable from the second it starts and during the second of its expiry.
  auto valid_at = [&](Entry& (Entry::*set)(long), long offset) {
    return kovatest::AtOneSecond(
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
  EXPECT_FALSE(used.set_use_count(4).IsValid());
  EXPECT_TRUE(used.set_expire_times(0).IsValid());  // unlimited: the count stays, unchecked
  // Turning an unlimited link into a limited one restarts the count; other changes keep it.
  EXPECT_EQ(0, used.set_expire_times(5).get_use_count());
  EXPECT_EQ(2, used.inc_use_count().inc_use_count().set_expire_times(6).get_use_count());
  EXPECT_FALSE(Entry(base).set_enabled(false).IsValid());
  EXPECT_FALSE(Entry(base).set_hash("").IsValid());
  kovatest::ClearLogs();
}

TEST(EntryTime, TextsInTheLocalZone) {
  char const* const format = "%Y-%m-%d %H:%M:%S";
  recordtest::SetZone("JST-9");
  Entry e;
  EXPECT_EQ("", e.get_start_at_str(format));
  e.set_start_at_str("2024-01-02 03:04:05", format).set_expire_at_str("2024-12-31", "%Y-%m-%d");
  EXPECT_EQ(1704132245, e.get_start_at());  // 2024-01-01 18:04:05 UTC
  EXPECT_EQ("2024-12-31 00:00:00", e.get_expire_at_str(format));
  e.set_start_at_str("31.12.2024", format).set_expire_at_str("", format);  // unset
  EXPECT_EQ(0, e.get_start_at() + e.get_expire_at());
  recordtest::SetZone("UTC0");
}

TEST(EntryPassword, BothAlgorithms) {
  Entry e;
  e.set_protect_type(Entry::PROTECT_PASSWORD)
      .set_protect_password("x", true, Entry::ENCRYPT_ALGO_DEFAULT);
  std::string const salt = e.get_protect_password_salt();
  ASSERT_EQ(static_cast<std::size_t>(KOVA::sharing::SHARING_PASS_HASH_LENGTH), salt.size());
  std::string digest;  // the password first, then the salt
  ASSERT_TRUE(KOVA::sharing::Sha1WithSaltHashPassword("x", salt, digest));
  EXPECT_EQ(digest, e.get_protect_password());
  EXPECT_TRUE(e.IsPasswordValid("x") && !e.IsPasswordValid("X"));
  e.set_protect_password("x", true, Entry::ENCRYPT_ALGO_DEFAULT);
  EXPECT_NE(salt, e.get_protect_password_salt()) << "every setting draws a new salt";
  EXPECT_TRUE(e.IsPasswordValid("x"));

  e.set_protect_password("password", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_EQ("5f4dcc3b5aa765d61d8327deb882cf99", e.get_protect_password());
  EXPECT_TRUE(e.IsPasswordValid("password") && !e.IsPasswordValid("Password"));
  // A digest given as such is kept; a difference anywhere, in length too, fails.
  std::string const abc = "900150983cd24fb0d6963f7d28e17f72";
  for (std::string const& near : {"8" + abc.substr(1), abc.substr(0, 31), abc + "0"}) {
    e.set_protect_password(near, false, Entry::ENCRYPT_ALGO_MD5);
    EXPECT_FALSE(e.IsPasswordValid("abc")) << near;
  }
  e.set_protect_password(abc, false, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_TRUE(e.IsPasswordValid("abc"));
  // A failed setting empties the digest and leaves the entry illegal until the next success.
  e.set_protect_password("", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_EQ("", e.get_protect_password());
  EXPECT_FALSE(e.IsPasswordValid(""));
  e.set_protect_type(Entry::PROTECT_NONE);
  EXPECT_TRUE(e.IsPasswordValid("anything"));  // without password protection all pass
  e.set_hash("h").set_project_name("p").set_owner_uid(1).set_app(kApp);
  EXPECT_FALSE(e.IsLegal());
  e.set_protect_password("y", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_TRUE(e.IsLegal());
  kovatest::ClearLogs();
}

TEST(EntryProtection, OwnerUsersAndGroupsByName) {
  Entry e;
  EXPECT_TRUE(e.set_owner_user("DAVE"));  // the login name is normalised first
  EXPECT_EQ("1002 Dave", std::to_string(e.get_owner_uid()) + " " + e.get_owner_user());
  EXPECT_FALSE(e.set_owner_user("zed"));
  EXPECT_EQ(KOVA::sharing::UID_ERR, e.get_owner_uid());
  // Names that do not resolve are kept as names; group names are taken as written.
  e.set_protect_users({"alice", "zed", "dave"});
  e.set_protect_groups({"editors", "nogroup", "Viewers"});
  EXPECT_EQ("1000,1002,alice,Dave,zed,|2001,editors,nogroup,Viewers,", Seen(e));
  e.set_protect_uids({4242, 1003});  // ids set directly replace the names
  e.set_protect_gids({2003});
  EXPECT_EQ("4242,1003,carol,|2003,empty,", Seen(e));

  // A user made after the entry was set is admitted by name (nss_wrapper reloads a passwd
  // file whose time changed).
  std::string const path = getenv("NSS_WRAPPER_PASSWD") ? getenv("NSS_WRAPPER_PASSWD") : "";
  std::string const original = kovatest::ReadFile(path);
  struct stat st;
  ASSERT_TRUE(!original.empty() && 0 == stat(path.c_str(), &st)) << path;
  auto set_time = [&](time_t t) {
    struct timeval times[2] = {{t, 0}, {t, 0}};
    EXPECT_EQ(0, utimes(path.c_str(), times));
  };
  e.set_protect_users({"alice", "newbie"});
  kovatest::WriteFile(path, original + "newbie:x:1010:2000:newbie:/home/newbie:/bin/sh\n");
  set_time(st.st_mtime + 3600);
  EXPECT_EQ("1000,1010,alice,newbie,|2003,empty,", Seen(e));
  kovatest::WriteFile(path, original);
  set_time(st.st_mtime);
  EXPECT_EQ("1000,alice,newbie,|2003,empty,", Seen(e));
}

TEST(EntryHandle, CopiesAndMovesAreIndependent) {
  recordtest::ExpectValueSemantics<Entry>(
      FullEntry().set_id(11), [](Entry& e) { e.set_hash("other").set_protect_uids({1}); });
}
