// Users and groups come from the nss_wrapper fixtures (tests/fixtures/README.md).
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "kova_user.h"
#include "kovasharing/utils.h"
#include "kovatest.h"

using namespace KOVA::sharing;

namespace {

using Gids = std::set<unsigned int>;

class UsersAndGroups : public testing::Test {
 protected:
  void SetUp() override {
    // Without the wrapper the machine's own database would answer: refuse to run then.
    ASSERT_NE(nullptr, getenv("NSS_WRAPPER_PASSWD"));
    kovatest::ClearLogs();
  }
  // Only UserGet logs.
  void TearDown() override { EXPECT_TRUE(kovatest::Logs().empty()); }
};

}  // namespace

TEST_F(UsersAndGroups, LoginNameConversion) {
  // Name, then the canonical name or null when there is nothing to convert ("GUS" is
  // ambiguous between gus and Gus; "ERIN" makes the walk grow its buffer).
  char const* const cases[][2] = {
      {"dave", "Dave"}, {"DAVE", "Dave"}, {"ALICE", "alice"}, {"ERIN", "erin"}, {"Dave", nullptr},
      {"zed", nullptr}, {"ali", nullptr}, {"", nullptr},      {"gus", nullptr}, {"GUS", nullptr}};
  for (auto const& [name, canonical] : cases) {
    char out[493] = {'x', '\0'};
    EXPECT_EQ(canonical ? 1 : 0, KOVAUserLoginNameConvert(name, out, sizeof out, 0)) << name;
    EXPECT_STREQ(canonical ? canonical : "x", out) << name;
    EXPECT_EQ(canonical ? canonical : name, GetRealUsername(name));
  }
  EXPECT_EQ("", GetRealUsername(nullptr));
  // A buffer too small for the canonical name is an error, and nothing is written.
  char small[5] = "---";
  EXPECT_LT(KOVAUserLoginNameConvert("DAVE", small, 4, 0), 0);
  EXPECT_STREQ("---", small);
  EXPECT_EQ(1, KOVAUserLoginNameConvert("DAVE", small, 5, 0));
  EXPECT_STREQ("Dave", small);
  EXPECT_LT(KOVAUserLoginNameConvert(nullptr, small, 5, 0), 0);
}

TEST_F(UsersAndGroups, GroupListOfAUser) {
  // "name=gid ..." of the list; a gid without a group record has a null name.
  auto list = [](char const* user, int with_primary) {
    KLIBCSzHash* hash = KLIBGroupInfoHashGet(user, with_primary, 0);
    if (hash == nullptr) return std::string("no list");
    std::string out;
    for (int i = 0; i < hash->count; ++i) {
      out += std::string(out.empty() ? "" : " ") +
             (hash->entries[i].name ? hash->entries[i].name : "(null)") + "=" +
             hash->entries[i].value;
    }
    KLIBCSzHashFree(hash);
    return out;
  };
  EXPECT_EQ("users=2000 editors=2001 viewers=2002 crowd=2005", list("alice", 1));
  EXPECT_EQ("editors=2001 viewers=2002 crowd=2005", list("alice", 0));
  EXPECT_EQ("", list("bob", 0));
  EXPECT_EQ("editors=2001 viewers=2002", list("carol", 1));  // primary group listed once
  EXPECT_EQ("(null)=2999", list("erin", 1));
  for (char const* user : {"zed", "dave", static_cast<char const*>(nullptr)}) {
    EXPECT_EQ("no list", list(user, 1));
  }
}

TEST_F(UsersAndGroups, UserGetLogsOnlyAMissingUser) {
  KOVAUSER* user = nullptr;
  ASSERT_TRUE(UserGet("DAVE", user));
  EXPECT_STREQ("Dave", user->name);
  KOVAUserFree(user);
  EXPECT_TRUE(kovatest::Logs().empty());
  // The line shows what was looked up: an ambiguous name stays as given.
  user = nullptr;
  EXPECT_FALSE(UserGet("zed", user));
  EXPECT_FALSE(UserGet("GUS", user));
  EXPECT_FALSE(UserGet(nullptr, user));
  EXPECT_EQ(nullptr, user);
  auto const logs = kovatest::Logs();
  ASSERT_EQ(3u, logs.size());
  EXPECT_EQ("utils_user_group:35 No such user [zed]", logs[0].text);
  EXPECT_EQ("utils_user_group:35 No such user [GUS]", logs[1].text);
  EXPECT_EQ("utils_user_group:35 No such user []", logs[2].text);
  EXPECT_EQ(LOG_ERR, logs[0].priority & 7);
  kovatest::ClearLogs();
}

TEST_F(UsersAndGroups, GroupsOfAUserAreAddedToTheSet) {
  KOVAUSER* user = nullptr;
  ASSERT_TRUE(UserGet("alice", user));
  Gids gids = {1, 2001, 7};
  EXPECT_TRUE(UserGroupsGet(user, gids));
  EXPECT_EQ((Gids{1, 7, 2000, 2001, 2002, 2005}), gids);
  KOVAUserFree(user);
  // erin (a long passwd line) belongs to no group the database knows: the set as it was.
  ASSERT_TRUE(UserGet("erin", user));
  ASSERT_NE(nullptr, user);
  gids = {5, 6};
  EXPECT_TRUE(UserGroupsGet(user, gids));
  EXPECT_EQ((Gids{5, 6}), gids);
  // A user record whose name no longer resolves: failure, the set untouched.
  free(user->name);
  user->name = strdup("zed");
  EXPECT_FALSE(UserGroupsGet(user, gids));
  EXPECT_EQ((Gids{5, 6}), gids);
  KOVAUserFree(user);
}

TEST_F(UsersAndGroups, NamesAndIds) {
  unsigned int id = 99;
  EXPECT_TRUE(UserToUID("dave", id));  // converted
  EXPECT_EQ(1002u, id);
  id = 99;
  EXPECT_FALSE(UserToUID("zed", id));
  EXPECT_FALSE(GroupToGID("VIEWERS", id));  // group names are not converted
  EXPECT_FALSE(GroupToGID("nogroup", id));
  EXPECT_EQ(99u, id);
  EXPECT_TRUE(GroupToGID("viewers", id));
  EXPECT_EQ(2002u, id);
  std::string name = "unchanged";
  EXPECT_FALSE(UIDToUser(4242, name));
  EXPECT_FALSE(GIDToGroup(2999, name));
  EXPECT_EQ("unchanged", name);
  EXPECT_TRUE(UIDToUser(1002, name));
  EXPECT_EQ("Dave", name);
  EXPECT_TRUE(GIDToGroup(2003, name));
  EXPECT_EQ("empty", name);

  // The platform calls: -1 exactly for a missing record (no letter case conversion here),
  // another negative value for a call that cannot be made.
  KOVAUSER* user = nullptr;
  KOVAGROUP* group = nullptr;
  EXPECT_EQ(-1, KOVAUserGet("dave", &user));
  EXPECT_EQ(-1, KOVAUserGetByUID(4242, &user));
  EXPECT_EQ(-1, KOVAGroupGetGID("nogroup", &id));
  EXPECT_EQ(-1, KOVAGroupGetByGID(2999, &group));
  EXPECT_EQ(nullptr, user);
  EXPECT_EQ(nullptr, group);
  for (int r : {KOVAUserGet(nullptr, &user), KOVAUserGet("alice", nullptr),
                KOVAGroupGetGID(nullptr, &id)}) {
    EXPECT_LT(r, 0);
    EXPECT_NE(-1, r);
  }
}
