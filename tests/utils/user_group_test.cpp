// Users and groups come from the nss_wrapper fixtures (tests/fixtures/README.md).
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kova_user.h"
#include "kovasharing/utils.h"
#include "kovatest.h"

using namespace KOVA::sharing;

namespace {

// Name and value of every entry, in order; a null name reads as "(null)".
std::vector<std::pair<std::string, std::string>> Entries(KLIBCSzHash const* hash) {
  std::vector<std::pair<std::string, std::string>> out;
  for (int i = 0; i < hash->count; ++i) {
    KLIBCSzHashEntry const& e = hash->entries[i];
    out.emplace_back(e.name ? e.name : "(null)", e.value ? e.value : "(null)");
  }
  return out;
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

class UsersAndGroups : public testing::Test {
 protected:
  void SetUp() override {
    // Without the wrapper the machine's own database would answer: refuse to run then.
    ASSERT_NE(nullptr, getenv("NSS_WRAPPER_PASSWD"));
    kovatest::ClearLogs();
  }
};

}  // namespace

TEST_F(UsersAndGroups, LoginNameConversion) {
  char out[493];
  auto convert = [&](char const* name) {
    memset(out, 'x', sizeof out);
    out[sizeof out - 1] = '\0';
    return KOVAUserLoginNameConvert(name, out, sizeof out, 0);
  };
  EXPECT_EQ(1, convert("dave"));
  EXPECT_STREQ("Dave", out);
  EXPECT_EQ(1, convert("DAVE"));
  EXPECT_STREQ("Dave", out);
  EXPECT_EQ(1, convert("ALICE"));
  EXPECT_STREQ("alice", out);
  EXPECT_EQ(1, convert("KovaSys"));
  EXPECT_STREQ("kovasys", out);
  // A passwd line longer than the first buffer of the walk.
  EXPECT_EQ(1, convert("ERIN"));
  EXPECT_STREQ("erin", out);
  // Nothing to convert: exact names, unknown names, a prefix, an ambiguous name.
  EXPECT_EQ(0, convert("Dave"));
  EXPECT_EQ(0, convert("alice"));
  EXPECT_EQ(0, convert("zed"));
  EXPECT_EQ(0, convert("ali"));
  EXPECT_EQ(0, convert(""));
  EXPECT_EQ(0, convert("gus"));
  EXPECT_EQ(0, convert("Gus"));
  EXPECT_EQ(0, convert("GUS"));
  EXPECT_EQ('x', out[0]);
  // A buffer too small for the canonical name is an error, and nothing is written.
  char small[4] = {'-', '-', '-', '\0'};
  EXPECT_LT(KOVAUserLoginNameConvert("DAVE", small, sizeof small, 0), 0);
  EXPECT_STREQ("---", small);
  char fits[5] = {};
  EXPECT_EQ(1, KOVAUserLoginNameConvert("DAVE", fits, sizeof fits, 0));
  EXPECT_STREQ("Dave", fits);
  EXPECT_LT(KOVAUserLoginNameConvert(nullptr, out, sizeof out, 0), 0);

  EXPECT_EQ("", GetRealUsername(nullptr));
  EXPECT_EQ("Dave", GetRealUsername("dAvE"));
  EXPECT_EQ("zed", GetRealUsername("zed"));
  EXPECT_EQ("GUS", GetRealUsername("GUS"));
  EXPECT_EQ("bob", GetRealUsername("bob"));
}

TEST_F(UsersAndGroups, PlatformUserRecords) {
  KOVAUSER* user = nullptr;
  ASSERT_EQ(0, KOVAUserGet("alice", &user));
  ASSERT_NE(nullptr, user);
  EXPECT_STREQ("alice", user->name);
  EXPECT_EQ(1000u, user->uid);
  EXPECT_EQ(2000u, user->gid);
  EXPECT_STREQ("/home/alice", user->home);
  EXPECT_STREQ("/bin/sh", user->shell);
  KOVAUserFree(user);

  // The platform call itself does not convert letter case.
  user = nullptr;
  EXPECT_EQ(-1, KOVAUserGet("dave", &user));
  EXPECT_EQ(-1, KOVAUserGet("zed", &user));
  EXPECT_EQ(-1, KOVAUserGet("", &user));
  EXPECT_EQ(nullptr, user);
  EXPECT_LT(KOVAUserGet(nullptr, &user), 0);
  EXPECT_NE(-1, KOVAUserGet(nullptr, &user));
  EXPECT_NE(-1, KOVAUserGet("alice", nullptr));

  // A passwd line longer than the first look-up buffer.
  ASSERT_EQ(0, KOVAUserGet("erin", &user));
  EXPECT_EQ(1004u, user->uid);
  EXPECT_EQ(2999u, user->gid);
  KOVAUserFree(user);

  user = nullptr;
  ASSERT_EQ(0, KOVAUserGetByUID(1006, &user));
  EXPECT_STREQ("Gus", user->name);
  EXPECT_EQ(1006u, user->uid);
  KOVAUserFree(user);
  user = nullptr;
  ASSERT_EQ(0, KOVAUserGetByUID(0, &user));
  EXPECT_STREQ("root", user->name);
  KOVAUserFree(user);
  user = nullptr;
  EXPECT_EQ(-1, KOVAUserGetByUID(4242, &user));
  EXPECT_EQ(nullptr, user);
  KOVAUserFree(nullptr);
}

TEST_F(UsersAndGroups, PlatformGroupRecords) {
  unsigned int gid = 77;
  ASSERT_EQ(0, KOVAGroupGetGID("editors", &gid));
  EXPECT_EQ(2001u, gid);
  ASSERT_EQ(0, KOVAGroupGetGID("empty", &gid));
  EXPECT_EQ(2003u, gid);
  // A group line longer than the first look-up buffer.
  ASSERT_EQ(0, KOVAGroupGetGID("crowd", &gid));
  EXPECT_EQ(2005u, gid);
  gid = 77;
  EXPECT_EQ(-1, KOVAGroupGetGID("Editors", &gid));
  EXPECT_EQ(-1, KOVAGroupGetGID("nogroup", &gid));
  EXPECT_EQ(77u, gid);
  EXPECT_LT(KOVAGroupGetGID(nullptr, &gid), 0);

  KOVAGROUP* group = nullptr;
  ASSERT_EQ(0, KOVAGroupGetByGID(2003, &group));
  EXPECT_STREQ("empty", group->name);
  EXPECT_EQ(2003u, group->gid);
  KOVAGroupFree(group);
  group = nullptr;
  ASSERT_EQ(0, KOVAGroupGetByGID(2005, &group));
  EXPECT_STREQ("crowd", group->name);
  KOVAGroupFree(group);
  group = nullptr;
  EXPECT_EQ(-1, KOVAGroupGetByGID(2999, &group));
  EXPECT_EQ(nullptr, group);
  KOVAGroupFree(nullptr);
}

TEST_F(UsersAndGroups, PlatformGroupListOfAUser) {
  KLIBCSzHash* hash = KLIBGroupInfoHashGet("alice", 1, 0);
  ASSERT_NE(nullptr, hash);
  EXPECT_EQ((Pairs{{"users", "2000"}, {"editors", "2001"}, {"viewers", "2002"}, {"crowd", "2005"}}),
            Entries(hash));
  KLIBCSzHashFree(hash);
  hash = KLIBGroupInfoHashGet("alice", 0, 0);
  ASSERT_NE(nullptr, hash);
  EXPECT_EQ((Pairs{{"editors", "2001"}, {"viewers", "2002"}, {"crowd", "2005"}}), Entries(hash));
  KLIBCSzHashFree(hash);

  hash = KLIBGroupInfoHashGet("bob", 1, 0);
  ASSERT_NE(nullptr, hash);
  EXPECT_EQ((Pairs{{"users", "2000"}}), Entries(hash));
  KLIBCSzHashFree(hash);
  hash = KLIBGroupInfoHashGet("bob", 0, 0);
  ASSERT_NE(nullptr, hash);
  EXPECT_EQ(0, hash->count);
  KLIBCSzHashFree(hash);

  // carol's primary group also lists her: it appears once.
  hash = KLIBGroupInfoHashGet("carol", 1, 0);
  ASSERT_NE(nullptr, hash);
  EXPECT_EQ((Pairs{{"editors", "2001"}, {"viewers", "2002"}}), Entries(hash));
  KLIBCSzHashFree(hash);

  // A primary gid that the group database does not know keeps its entry, without a name.
  hash = KLIBGroupInfoHashGet("erin", 1, 0);
  ASSERT_NE(nullptr, hash);
  EXPECT_EQ((Pairs{{"(null)", "2999"}}), Entries(hash));
  KLIBCSzHashFree(hash);

  EXPECT_EQ(nullptr, KLIBGroupInfoHashGet("zed", 1, 0));
  EXPECT_EQ(nullptr, KLIBGroupInfoHashGet("dave", 1, 0));
  EXPECT_EQ(nullptr, KLIBGroupInfoHashGet(nullptr, 1, 0));
  KLIBCSzHashFree(nullptr);
}

TEST_F(UsersAndGroups, UserGetLogsOnlyAMissingUser) {
  KOVAUSER* user = nullptr;
  ASSERT_TRUE(UserGet("DAVE", user));
  ASSERT_NE(nullptr, user);
  EXPECT_STREQ("Dave", user->name);
  EXPECT_EQ(1002u, user->uid);
  KOVAUserFree(user);
  EXPECT_TRUE(kovatest::Logs().empty());

  user = nullptr;
  EXPECT_FALSE(UserGet("zed", user));
  EXPECT_EQ(nullptr, user);
  // An ambiguous name stays as given, and the line shows what was looked up.
  EXPECT_FALSE(UserGet("GUS", user));
  EXPECT_FALSE(UserGet(nullptr, user));
  auto const logs = kovatest::Logs();
  ASSERT_EQ(3u, logs.size());
  EXPECT_EQ("utils_user_group:35 No such user [zed]", logs[0].text);
  EXPECT_EQ("utils_user_group:35 No such user [GUS]", logs[1].text);
  EXPECT_EQ("utils_user_group:35 No such user []", logs[2].text);
  EXPECT_EQ(LOG_ERR, logs[0].priority & 7);
}

TEST_F(UsersAndGroups, GroupsOfAUserAreAddedToTheSet) {
  KOVAUSER* user = nullptr;
  ASSERT_TRUE(UserGet("alice", user));
  std::set<unsigned int> gids = {1, 2001, 7};
  EXPECT_TRUE(UserGroupsGet(user, gids));
  EXPECT_EQ((std::set<unsigned int>{1, 7, 2000, 2001, 2002, 2005}), gids);
  KOVAUserFree(user);

  ASSERT_TRUE(UserGet("bob", user));
  gids.clear();
  EXPECT_TRUE(UserGroupsGet(user, gids));
  EXPECT_EQ((std::set<unsigned int>{2000}), gids);
  KOVAUserFree(user);

  ASSERT_TRUE(UserGet("dave", user));
  gids = {3};
  EXPECT_TRUE(UserGroupsGet(user, gids));
  EXPECT_EQ((std::set<unsigned int>{3, 2000, 2001}), gids);
  KOVAUserFree(user);

  // erin belongs to no group the database knows: success, the set as it was.
  ASSERT_TRUE(UserGet("erin", user));
  gids = {5, 6};
  EXPECT_TRUE(UserGroupsGet(user, gids));
  EXPECT_EQ((std::set<unsigned int>{5, 6}), gids);
  // A user record whose name no longer resolves: failure, the set untouched.
  free(user->name);
  user->name = strdup("zed");
  EXPECT_FALSE(UserGroupsGet(user, gids));
  EXPECT_EQ((std::set<unsigned int>{5, 6}), gids);
  KOVAUserFree(user);
  EXPECT_TRUE(kovatest::Logs().empty());
}

TEST_F(UsersAndGroups, NamesAndIds) {
  unsigned int uid = 99;
  EXPECT_TRUE(UserToUID("alice", uid));
  EXPECT_EQ(1000u, uid);
  EXPECT_TRUE(UserToUID("dave", uid));  // converted
  EXPECT_EQ(1002u, uid);
  EXPECT_TRUE(UserToUID("Gus", uid));
  EXPECT_EQ(1006u, uid);
  uid = 99;
  EXPECT_FALSE(UserToUID("zed", uid));
  EXPECT_FALSE(UserToUID("GUS", uid));
  EXPECT_FALSE(UserToUID("", uid));
  EXPECT_EQ(99u, uid);

  std::string name = "unchanged";
  unsigned int const known = 1002, root = 0, unknown = 4242;
  EXPECT_TRUE(UIDToUser(known, name));
  EXPECT_EQ("Dave", name);
  EXPECT_TRUE(UIDToUser(root, name));
  EXPECT_EQ("root", name);
  name = "unchanged";
  EXPECT_FALSE(UIDToUser(unknown, name));
  EXPECT_EQ("unchanged", name);

  unsigned int gid = 99;
  EXPECT_TRUE(GroupToGID("viewers", gid));
  EXPECT_EQ(2002u, gid);
  gid = 99;
  EXPECT_FALSE(GroupToGID("VIEWERS", gid));  // group names are not converted
  EXPECT_FALSE(GroupToGID("nogroup", gid));
  EXPECT_EQ(99u, gid);

  unsigned int const empty = 2003, primary_only = 2999;
  EXPECT_TRUE(GIDToGroup(empty, name));
  EXPECT_EQ("empty", name);
  name = "unchanged";
  EXPECT_FALSE(GIDToGroup(primary_only, name));
  EXPECT_EQ("unchanged", name);
  // Only UserGet logs.
  EXPECT_TRUE(kovatest::Logs().empty());
}
