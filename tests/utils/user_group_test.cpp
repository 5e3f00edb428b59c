// Users and groups from the nss_wrapper fixtures (tests/fixtures/README.md).
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

TEST(UsersAndGroups, LoginNamesAndGroupLists) {
  // Without the wrapper the machine's own database would answer: refuse to run then.
  ASSERT_NE(nullptr, getenv("NSS_WRAPPER_PASSWD"));
  kovatest::ClearLogs();
  // "GUS" is ambiguous between gus and Gus; "ERIN" makes the walk grow its buffer.
  char const* const cases[][2] = {{"DAVE", "Dave"},  {"ALICE", "alice"}, {"ERIN", "erin"},
                                  {"Dave", nullptr}, {"zed", nullptr},   {"GUS", nullptr}};
  for (auto const& [name, canonical] : cases) {
    char out[493] = {'x', '\0'};
    EXPECT_EQ(canonical ? 1 : 0, KOVAUserLoginNameConvert(name, out, sizeof out, 0)) << name;
    EXPECT_EQ(canonical ? canonical : name, GetRealUsername(name));
  }
  char small[5] = "---";  // too small for the name: an error, nothing written
  EXPECT_LT(KOVAUserLoginNameConvert("DAVE", small, 4, 0), 0);
  EXPECT_STREQ("---", small);

  auto list = [](char const* user, int with_primary) {
    KLIBCSzHash* hash = KLIBGroupInfoHashGet(user, with_primary, 0);
    if (hash == nullptr) return std::string("no list");
    std::string out;
    for (int i = 0; i < hash->count; ++i) {
      out += std::string(hash->entries[i].name ? hash->entries[i].name : "?") + "=" +
             hash->entries[i].value + " ";
    }
    KLIBCSzHashFree(hash);
    return out;
  };
  EXPECT_EQ("users=2000 editors=2001 viewers=2002 crowd=2005 ", list("alice", 1));
  EXPECT_EQ("editors=2001 viewers=2002 ", list("carol", 1));  // the primary group once
  EXPECT_EQ("?=2999 no list", list("erin", 1) + list("zed", 1));

  KOVAUSER* user = nullptr;
  ASSERT_TRUE(UserGet("alice", user));
  std::set<unsigned int> gids = {1, 2001};
  EXPECT_TRUE(UserGroupsGet(user, gids));
  EXPECT_EQ((std::set<unsigned int>{1, 2000, 2001, 2002, 2005}), gids);
  free(user->name);  // a record whose name no longer resolves: failure, the set untouched
  user->name = strdup("zed");
  EXPECT_FALSE(UserGroupsGet(user, gids));
  EXPECT_EQ(5u, gids.size());
  KOVAUserFree(user);
  EXPECT_TRUE(kovatest::Logs().empty());
  // Only a missing user is logged, by the name looked up.
  EXPECT_FALSE(UserGet("zed", user) || UserGet("GUS", user));
  EXPECT_EQ((std::vector<std::string>{"utils_user_group:35 No such user [zed]",
                                      "utils_user_group:35 No such user [GUS]"}),
            kovatest::LogTexts());
  EXPECT_EQ(LOG_ERR, kovatest::Logs()[0].priority & 7);
  kovatest::ClearLogs();
}

TEST(UsersAndGroups, NamesAndIds) {
  unsigned int id = 99;
  std::string name = "unchanged";
  EXPECT_TRUE(UserToUID("dave", id) && id == 1002);  // converted
  EXPECT_FALSE(UserToUID("zed", id) || GroupToGID("VIEWERS", id) || UIDToUser(4242, name) ||
               GIDToGroup(2999, name));  // group names are not converted
  EXPECT_EQ("1002 unchanged", std::to_string(id) + " " + name);
  EXPECT_TRUE(GroupToGID("viewers", id) && UIDToUser(1002, name));
  EXPECT_EQ("2002 Dave", std::to_string(id) + " " + name);
  // The platform calls: -1 exactly for a missing record, another negative value for a call
  // that cannot be made.
  KOVAUSER* user = nullptr;
  KOVAGROUP* group = nullptr;
  EXPECT_EQ(-1, KOVAUserGet("dave", &user));
  EXPECT_EQ(-1, KOVAGroupGetByGID(2999, &group));
  EXPECT_TRUE(user == nullptr && group == nullptr);
  for (int r : {KOVAUserGet(nullptr, &user), KOVAUserGet("alice", nullptr)}) {
    EXPECT_TRUE(r < 0 && r != -1) << r;
  }
}
