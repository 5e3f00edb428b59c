// Entry, session and token records: rows, rules in order, validity boundaries, passwords.
#include <gtest/gtest.h>
#include <json/reader.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "kovasharing/constants.h"
#include "kovasharing/entry.h"
#include "kovasharing/object_db.h"
#include "kovasharing/session.h"
#include "kovasharing/sharing_db.h"
#include "kovasharing/token.h"
#include "kovasharing/utils.h"
#include "kovatest_db.h"

using KOVA::sharing::db::ObjectDB;
using KOVA::sharing::record::Entry;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;

namespace {

struct Database {
  kovatest::TempDir dir;
  KOVA::sharing::db::SharingDB db{dir.File("s.db")};
  void Exec(std::string const& sql) { EXPECT_TRUE(db.Execute(sql)) << sql; }
};

// Each step `legal()` fails with one "Failed [...]" line further down than the last, then
// the step's repair meets that rule. Returns the line numbers.
std::vector<int> RulesInOrder(std::function<bool()> const& legal, std::string const& source,
                              std::vector<std::function<void()>> const& repairs) {
  std::regex const shape("^" + source + ":(\\d+) \\(" + std::to_string(getpid()) +
                         "\\) Failed \\[.*\\], err=[^\\n]*\\n\\n$");
  std::vector<int> lines;
  kovatest::ClearLogs();
  for (size_t step = 0; step <= repairs.size(); ++step) {
    EXPECT_EQ(step == repairs.size(), legal()) << "step " << step;
    std::vector<std::string> const logged = kovatest::LogTexts();
    kovatest::ClearLogs();
    if (step == repairs.size()) {
      EXPECT_TRUE(logged.empty());
      break;
    }
    std::smatch m;
    EXPECT_TRUE(logged.size() == 1u && std::regex_match(logged[0], m, shape))
        << "step " << step << ": " << testing::PrintToString(logged);
    if (m.empty()) continue;
    lines.push_back(std::stoi(m[1]));
    EXPECT_TRUE(lines.size() < 2 || lines.back() > lines[lines.size() - 2]) << "step " << step;
    repairs[step]();
  }
  return lines;
}

Json::Value Parse(std::string const& text) {
  Json::Value value;
  EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
  return value;
}

// The row values and the row id.
template <class R>
std::vector<std::string> Fields(R const& r) {
  std::vector<std::string> fields = r.GetFieldList();
  fields.push_back(std::to_string(r.get_id()));
  return fields;
}

Json::Value const kApp = Parse(R"({"name":"files","path":"/share/äöü \"quoted\""})");

// A legal entry with a distinct non-default value in each column.
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
  Database base;
  ObjectDB store(base.db, "entry");
  Entry written = FullEntry(), read, again;
  ASSERT_TRUE(store.Create(written.GetObject()));
  ASSERT_TRUE(store.GetById(written.get_id(), read.GetObject()));
  EXPECT_EQ(Fields(written), Fields(read));
  read.set_auto_gc(true).set_enabled(true).inc_use_count().set_protect_type(Entry::PROTECT_NONE);
  ASSERT_TRUE(store.Update(read.GetCObject()));
  ASSERT_TRUE(store.GetById(written.get_id(), again.GetObject()));
  EXPECT_EQ(Fields(read), Fields(again));
}

TEST(EntryRules, LegalityInItsOrder) {
  Entry e;
  e.set_private_data(Json::Value("not an object")).set_protect_type(Entry::PROTECT_PASSWORD);
  e.set_protect_password("", true, Entry::ENCRYPT_ALGO_MD5);  // fails: the entry is illegal
  RulesInOrder([&] { return e.IsLegal(); }, "entry",
               {[&] { e.set_protect_password("", false, Entry::ENCRYPT_ALGO_DEFAULT); },
                [&] { e.set_hash("h"); }, [&] { e.set_project_name("p"); },
                [&] { e.set_owner_uid(0); },  // root owns like any other
                [&] { e.set_app(Json::Value(Json::objectValue)); },
                [&] { e.set_private_data(Json::Value(Json::objectValue)); },
                [&] { e.set_protect_password("d", false, Entry::ENCRYPT_ALGO_DEFAULT); },
                [&] { e.set_protect_type(Entry::PROTECT_USER); },
                [&] { e.set_protect_gids({2001}); }});  // a group alone admits
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
}

TEST(EntryPassword, BothAlgorithms) {
  Entry e;
  e.set_hash("h").set_project_name("p").set_owner_uid(1).set_app(kApp);
  // An MD5 digest needs no salt.
  e.set_protect_type(Entry::PROTECT_PASSWORD)
      .set_protect_password("password", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_EQ("5f4dcc3b5aa765d61d8327deb882cf99", e.get_protect_password());
  EXPECT_TRUE(e.get_protect_password_salt().empty() && e.IsLegal());
  EXPECT_TRUE(e.IsPasswordValid("password") && !e.IsPasswordValid("Password"));
  e.set_protect_password("x", true, Entry::ENCRYPT_ALGO_DEFAULT);
  std::string const salt = e.get_protect_password_salt();
  ASSERT_EQ(static_cast<std::size_t>(KOVA::sharing::SHARING_PASS_HASH_LENGTH), salt.size());
  std::string digest;  // the password first, then the salt
  ASSERT_TRUE(KOVA::sharing::Sha1WithSaltHashPassword("x", salt, digest));
  EXPECT_EQ(digest, e.get_protect_password());
  EXPECT_TRUE(e.IsPasswordValid("x") && !e.IsPasswordValid("X"));
  e.set_protect_password("x", true, Entry::ENCRYPT_ALGO_DEFAULT);
  EXPECT_NE(salt, e.get_protect_password_salt()) << "every setting draws a new salt";
  EXPECT_TRUE(e.IsPasswordValid("x"));
  // A digest given as such is kept; a difference anywhere, in length too, fails.
  std::string const abc = "900150983cd24fb0d6963f7d28e17f72";
  for (std::string const& near : {"8" + abc.substr(1), abc.substr(0, 31), abc + "0", abc}) {
    e.set_protect_password(near, false, Entry::ENCRYPT_ALGO_MD5);
    EXPECT_EQ(near == abc, e.IsPasswordValid("abc")) << near;
  }
  // A failed setting empties the digest and leaves the entry illegal until the next success.
  e.set_protect_password("", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_FALSE(e.IsPasswordValid("") || !e.get_protect_password().empty());
  e.set_protect_type(Entry::PROTECT_NONE);
  EXPECT_TRUE(e.IsPasswordValid("anything"));  // without password protection all pass
  EXPECT_FALSE(e.IsLegal());
  e.set_protect_password("y", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_TRUE(e.IsLegal());
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
  e.set_protect_gids({2003, 2999});
  EXPECT_EQ("4242,1003,carol,|2003,2999,empty,", Seen(e));
}

namespace {

// Rules in order, expiry at the second of the timeout, `written` through the database and
// `row` read back from the table: whether usable, and the fields.
template <class R>
std::string Check(char const* table, std::vector<int> const& lines,
                  std::vector<std::function<void(R&)>> repairs, R written, std::string const& row) {
  R r;
  std::vector<std::function<void()>> steps;
  for (auto& repair : repairs) steps.push_back([&r, repair] { repair(r); });
  EXPECT_EQ(lines, RulesInOrder([&r] { return r.IsLegal(); }, table, steps));
  for (int later : {0, 1}) {
    EXPECT_EQ(later == 1, kovatest::AtOneSecond(
                              [&](time_t now) { return r.set_timeout(now + later).IsLegal(); }));
  }
  Database base;
  ObjectDB store(base.db, table);
  R read, raw;
  EXPECT_TRUE(store.Create(written.GetObject()));
  EXPECT_TRUE(store.GetById(written.get_id(), read.GetObject()));
  EXPECT_EQ(Fields(written), Fields(read));
  base.Exec(std::string("INSERT INTO ") + table + " VALUES (NULL, " + row + ")");
  int id = 0;
  EXPECT_TRUE(base.db.GetLastInsertId(id));
  std::string out = std::to_string(store.GetById(id, raw.GetObject()));
  for (std::string const& field : Fields(raw)) out += " " + field;
  return out;
}

}  // namespace

TEST(SessionRecord, RulesExpiryAndRows) {
  // The account is not checked: a session without one is legal, and keeps all bits set
  // through the database. An expired row is read completely and refused.
  Session written;
  written.set_session_id("sid").set_uid(0xFFFFFFFFu).set_ip("::1").set_timeout(time(nullptr) + 99);
  EXPECT_EQ("0 old 1001 10.0.0.1 1000 2",
            Check<Session>(
                "session", {87, 88, 89},
                {[](Session& s) { s.set_session_id("sid"); }, [](Session& s) { s.set_ip("::1"); },
                 [](Session& s) { s.set_timeout(time(nullptr) + 60); }},
                written, "'old', 1001, '10.0.0.1', 1000"));
}

TEST(TokenRecord, RulesExpiryAndRows) {
  // Only 0 means "not set" for the ids.
  Token written;
  written.set_entry_id(3).set_session_id(4).set_timeout(time(nullptr) + 99);
  EXPECT_EQ("0 5 6 99 2", Check<Token>("token", {81, 82, 83},
                                       {[](Token& t) { t.set_entry_id(-2); },
                                        [](Token& t) { t.set_session_id(-3); },
                                        [](Token& t) { t.set_timeout(time(nullptr) + 60); }},
                                       written, "5, 6, 99"));
}
