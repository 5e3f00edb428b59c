// Protection of an entry: password digests of both algorithms, the owner by name, and users
// and groups kept as ids with the names that did not resolve, against the nss_wrapper
// fixture accounts.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cctype>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "kovasharing/constants.h"
#include "kovasharing/entry.h"
#include "record_test_util.h"

using KOVA::sharing::UID_ERR;
using KOVA::sharing::record::Entry;

namespace {

// SHA-1 of `text` as lower-case hexadecimal, computed apart from the library.
std::string Sha1Hex(std::string const& text) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EXPECT_EQ(1, EVP_Digest(text.data(), text.size(), md, &len, EVP_sha1(), nullptr));
  std::string hex;
  for (unsigned int i = 0; i < len; ++i) {
    char buf[3];
    snprintf(buf, sizeof(buf), "%02x", md[i]);
    hex += buf;
  }
  return hex;
}

std::string RowList(Entry const& e, char const* key) {
  return recordtest::Compact(recordtest::Parse(e.GetFieldList()[9])[key]);
}

// The ids the login API admits and the names the caller's form shows: users, then groups.
std::string Seen(Entry const& e) {
  Json::Value seen(Json::arrayValue);
  for (int i = 0; i < 4; ++i) seen.append(Json::Value(Json::arrayValue));
  for (unsigned int id : e.get_protect_uids()) seen[0].append(id);
  for (std::string const& name : e.get_protect_users()) seen[1].append(name);
  for (unsigned int id : e.get_protect_gids()) seen[2].append(id);
  for (std::string const& name : e.get_protect_groups()) seen[3].append(name);
  return recordtest::Compact(seen);
}

}  // namespace

TEST(EntryPassword, BothAlgorithms) {
  Entry e;
  e.set_hash("h").set_project_name("p").set_owner_uid(1000).set_app(Json::Value(Json::objectValue));
  e.set_protect_type(Entry::PROTECT_PASSWORD);
  e.set_protect_password("x", true, Entry::ENCRYPT_ALGO_DEFAULT);
  std::string const salt = e.get_protect_password_salt();
  std::string const digest = e.get_protect_password();
  ASSERT_EQ(static_cast<std::size_t>(KOVA::sharing::SHARING_PASS_HASH_LENGTH), salt.size());
  for (char c : salt) EXPECT_TRUE(isalnum(static_cast<unsigned char>(c))) << salt;
  EXPECT_EQ(Sha1Hex("x" + salt), digest);  // password first, then the salt
  EXPECT_TRUE(e.IsLegal());
  EXPECT_TRUE(e.IsPasswordValid("x"));
  EXPECT_FALSE(e.IsPasswordValid("X"));
  // Every setting draws a new salt, so the same password gives another digest.
  e.set_protect_password("x", true, Entry::ENCRYPT_ALGO_DEFAULT);
  EXPECT_NE(salt, e.get_protect_password_salt());
  EXPECT_NE(digest, e.get_protect_password());
  EXPECT_TRUE(e.IsPasswordValid("x"));
  // An empty password is a password like any other for the salted digest.
  e.set_protect_password("", true, Entry::ENCRYPT_ALGO_DEFAULT);
  EXPECT_TRUE(e.IsLegal() && e.IsPasswordValid("") && !e.IsPasswordValid("x"));

  std::string const salt2 = e.get_protect_password_salt();
  e.set_protect_password("password", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_EQ("5f4dcc3b5aa765d61d8327deb882cf99", e.get_protect_password());
  EXPECT_EQ(salt2, e.get_protect_password_salt());  // an MD5 digest leaves the salt alone
  EXPECT_TRUE(e.IsPasswordValid("password"));
  EXPECT_FALSE(e.IsPasswordValid("Password"));
  EXPECT_FALSE(e.IsPasswordValid(""));  // no MD5 digest of an empty text

  // A digest given as such is stored unchanged and checked against the MD5 of the clear
  // text; the answer is the same wherever the difference lies, length included.
  std::string const abc = "900150983cd24fb0d6963f7d28e17f72";
  e.set_protect_password(abc, false, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_EQ(abc, e.get_protect_password());
  EXPECT_TRUE(e.IsPasswordValid("abc"));
  EXPECT_FALSE(e.IsPasswordValid("abd"));
  for (std::string const& near : std::vector<std::string>{
           "900150983cd24fb0d6963f7d28e17f73", "800150983cd24fb0d6963f7d28e17f72",
           "900150983cd24fb0d6963f7d28e17f7", abc + "0", "900150983CD24FB0D6963F7D28E17F72",
           abc + std::string(1, '\0')}) {
    e.set_protect_password(near, false, Entry::ENCRYPT_ALGO_MD5);
    EXPECT_FALSE(e.IsPasswordValid("abc")) << near;
  }
  // A salted digest given as such is checked with the salt the entry holds.
  e.set_protect_password(Sha1Hex("pw" + salt2), false, Entry::ENCRYPT_ALGO_DEFAULT);
  EXPECT_TRUE(e.IsPasswordValid("pw"));

  // A failed setting empties the digest and makes the entry illegal until the next success;
  // neither the protection type repairs it nor does setting a password change that type.
  e.set_protect_password("", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_EQ("", e.get_protect_password());
  EXPECT_EQ(Entry::ENCRYPT_ALGO_MD5, e.get_protect_password_algo());
  kovatest::ClearLogs();
  EXPECT_FALSE(e.IsLegal());
  EXPECT_EQ(std::vector<std::string>{"!blValid_"}, recordtest::Failed("entry"));
  EXPECT_FALSE(e.IsPasswordValid(""));
  e.set_protect_type(Entry::PROTECT_NONE);
  EXPECT_FALSE(e.IsLegal());
  EXPECT_TRUE(e.IsPasswordValid("anything"));  // without password protection all pass
  e.set_protect_password("y", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_TRUE(e.IsLegal());
  EXPECT_EQ(Entry::PROTECT_NONE, e.get_protect_type());
}

TEST(EntryProtection, OwnerByName) {
  // The login name is normalised first.
  for (auto const& [name, resolves, uid, shown] :
       std::vector<std::tuple<char const*, bool, unsigned int, char const*>>{
           {"bob", true, 1001, "bob"}, {"DAVE", true, 1002, "Dave"}, {"zed", false, UID_ERR, ""}}) {
    Entry e;
    e.set_owner_uid(0);
    EXPECT_EQ(resolves, e.set_owner_user(name)) << name;
    EXPECT_EQ(std::to_string(uid) + " " + shown,
              std::to_string(e.get_owner_uid()) + " " + e.get_owner_user());
  }
  Entry e;
  EXPECT_EQ("root", e.set_owner_uid(0).get_owner_user());
  EXPECT_EQ("", e.set_owner_uid(4242).get_owner_user());
}

TEST(EntryProtection, UsersAndGroups) {
  Entry e;
  e.set_protect_users({"alice", "zed", "dave", "ghost"});
  EXPECT_EQ(R"([[1000,1002],["alice","Dave","zed","ghost"],[],[]])", Seen(e));
  // The names that did not resolve travel in the row as names.
  EXPECT_EQ("[1000,1002]", RowList(e, "protect_uids"));
  EXPECT_EQ(R"(["zed","ghost"])", RowList(e, "protect_extra_users"));
  // Setting again replaces both lists.
  e.set_protect_users({"bob"});
  EXPECT_EQ(R"([[1001],["bob"],[],[]])", Seen(e));
  // Ids set directly are kept as given, the names go; ids without a name are not shown.
  e.set_protect_users({"zed"});
  e.set_protect_uids({4242, 1003, 1003});
  EXPECT_EQ(R"([[4242,1003,1003],["carol","carol"],[],[]])", Seen(e));

  // Group names are taken as written (no normalisation).
  e.set_protect_groups({"editors", "nogroup", "Viewers", "viewers"});
  EXPECT_EQ(
      R"([[4242,1003,1003],["carol","carol"],[2001,2002],["editors","viewers","nogroup","Viewers"]])",
      Seen(e));
  EXPECT_EQ(R"(["nogroup","Viewers"])", RowList(e, "protect_extra_groups"));
  e.set_protect_gids({2999, 2003});
  EXPECT_EQ(R"([[4242,1003,1003],["carol","carol"],[2999,2003],["empty"]])", Seen(e));
}

TEST(EntryProtection, UserCreatedLaterIsAdmitted) {
  // nss_wrapper reloads a passwd file whose time changed, so the time is moved on explicitly;
  // content and time are put back at the end.
  std::string const path = getenv("NSS_WRAPPER_PASSWD") ? getenv("NSS_WRAPPER_PASSWD") : "";
  std::string const original = kovatest::ReadFile(path);
  struct stat st;
  ASSERT_TRUE(!original.empty() && 0 == stat(path.c_str(), &st)) << path;
  auto set_time = [&](time_t t) {
    struct timeval times[2] = {{t, 0}, {t, 0}};
    EXPECT_EQ(0, utimes(path.c_str(), times));
  };

  Entry e;
  e.set_protect_users({"alice", "newbie"});
  EXPECT_EQ(R"([[1000],["alice","newbie"],[],[]])", Seen(e));
  kovatest::WriteFile(path, original + "newbie:x:1010:2000:newbie:/home/newbie:/bin/sh\n");
  set_time(st.st_mtime + 3600);
  EXPECT_EQ(R"([[1000,1010],["alice","newbie"],[],[]])", Seen(e));
  EXPECT_EQ(R"(["newbie"])", RowList(e, "protect_extra_users"));  // the name stays a name
  // Set now, the name resolves at once.
  Entry fresh;
  fresh.set_protect_users({"newbie"});
  EXPECT_EQ("[1010]", RowList(fresh, "protect_uids"));
  kovatest::WriteFile(path, original);
  set_time(st.st_mtime);
  EXPECT_EQ(std::vector<unsigned int>({1000}), e.get_protect_uids());
}
