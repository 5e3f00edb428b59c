// Protection of an entry: password digests of both algorithms, and users and groups kept as
// ids with the names that did not resolve, against the nss_wrapper fixture accounts.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "kovasharing/constants.h"
#include "kovasharing/entry.h"
#include "record_test_util.h"

using KOVA::sharing::SHARING_PASS_HASH_LENGTH;
using KOVA::sharing::UID_ERR;
using KOVA::sharing::db::ObjectDB;
using KOVA::sharing::record::Entry;

namespace {

// SHA-1 of `text` as lower-case hexadecimal, computed apart from the library.
std::string Sha1Hex(std::string const& text) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EXPECT_EQ(1, EVP_Digest(text.data(), text.size(), md, &len, EVP_sha1(), nullptr));
  std::string hex;
  char buf[3];
  for (unsigned int i = 0; i < len; ++i) {
    snprintf(buf, sizeof(buf), "%02x", md[i]);
    hex += buf;
  }
  return hex;
}

Entry Protected() {
  Entry e;
  e.set_hash("h").set_project_name("p").set_owner_uid(1000).set_app(Json::Value(Json::objectValue));
  e.set_protect_type(Entry::PROTECT_PASSWORD);
  return e;
}

bool AllAlphaNumeric(std::string const& text) {
  for (char c : text) {
    if (!isalnum(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

// Appends lines to the passwd file that nss_wrapper serves and puts the file back, content
// and modification time, at the end of the scope. nss_wrapper reloads a file whose time
// changed, so the time is moved on explicitly rather than left to the clock's second.
class PasswdFixture {
 public:
  PasswdFixture() {
    char const* path = getenv("NSS_WRAPPER_PASSWD");
    path_ = path != nullptr ? path : "";
    original_ = kovatest::ReadFile(path_);
    struct stat st;
    good_ = !path_.empty() && !original_.empty() && stat(path_.c_str(), &st) == 0;
    if (good_) mtime_ = st.st_mtime;
  }
  ~PasswdFixture() {
    if (!good_) return;
    kovatest::WriteFile(path_, original_);
    SetTime(mtime_);
  }
  bool good() const { return good_; }
  void Append(std::string const& line) {
    kovatest::WriteFile(path_, original_ + line + "\n");
    SetTime(mtime_ + 3600);
  }

 private:
  void SetTime(time_t t) {
    struct timeval times[2] = {{t, 0}, {t, 0}};
    EXPECT_EQ(0, utimes(path_.c_str(), times)) << path_;
  }

  std::string path_;
  std::string original_;
  time_t mtime_ = 0;
  bool good_ = false;
};

}  // namespace

TEST(EntryPassword, SaltedDigest) {
  Entry e = Protected();
  e.set_protect_password("x", true, Entry::ENCRYPT_ALGO_DEFAULT);
  std::string const salt1 = e.get_protect_password_salt();
  std::string const digest1 = e.get_protect_password();
  ASSERT_EQ(static_cast<std::size_t>(SHARING_PASS_HASH_LENGTH), salt1.size());
  EXPECT_TRUE(AllAlphaNumeric(salt1)) << salt1;
  EXPECT_EQ(Sha1Hex("x" + salt1), digest1);  // password first, then the salt
  EXPECT_EQ(Entry::ENCRYPT_ALGO_DEFAULT, e.get_protect_password_algo());
  EXPECT_TRUE(e.IsLegal());
  EXPECT_TRUE(e.IsPasswordValid("x"));
  EXPECT_FALSE(e.IsPasswordValid("X"));
  EXPECT_FALSE(e.IsPasswordValid(""));
  EXPECT_FALSE(e.IsPasswordValid("x "));

  // Every setting draws a new salt, so the same password gives another digest.
  e.set_protect_password("x", true, Entry::ENCRYPT_ALGO_DEFAULT);
  EXPECT_NE(salt1, e.get_protect_password_salt());
  EXPECT_NE(digest1, e.get_protect_password());
  EXPECT_EQ(Sha1Hex("x" + e.get_protect_password_salt()), e.get_protect_password());
  EXPECT_TRUE(e.IsPasswordValid("x"));
  std::set<std::string> salts;
  for (int i = 0; i < 20; ++i) {
    e.set_protect_password("x", true, Entry::ENCRYPT_ALGO_DEFAULT);
    salts.insert(e.get_protect_password_salt());
  }
  EXPECT_EQ(20u, salts.size());

  // An empty password is a password like any other for the salted digest.
  e.set_protect_password("", true, Entry::ENCRYPT_ALGO_DEFAULT);
  EXPECT_TRUE(e.IsLegal());
  EXPECT_TRUE(e.IsPasswordValid(""));
  EXPECT_FALSE(e.IsPasswordValid("x"));

  // The stored digest, its salt and its algorithm survive the database.
  recordtest::Database base;
  ObjectDB store(base.db(), "entry");
  e.set_protect_password("open sesame", true, Entry::ENCRYPT_ALGO_DEFAULT);
  ASSERT_TRUE(store.Create(e.GetObject()));
  Entry read;
  ASSERT_TRUE(store.GetById(e.get_id(), read.GetObject()));
  EXPECT_EQ(e.get_protect_password_salt(), read.get_protect_password_salt());
  EXPECT_TRUE(read.IsPasswordValid("open sesame"));
  EXPECT_FALSE(read.IsPasswordValid("open sesame!"));
}

TEST(EntryPassword, Md5AndGivenDigests) {
  Entry e = Protected();
  e.set_protect_password("x", true, Entry::ENCRYPT_ALGO_DEFAULT);
  std::string const salt = e.get_protect_password_salt();

  e.set_protect_password("password", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_EQ("5f4dcc3b5aa765d61d8327deb882cf99", e.get_protect_password());
  EXPECT_EQ(Entry::ENCRYPT_ALGO_MD5, e.get_protect_password_algo());
  EXPECT_EQ(salt, e.get_protect_password_salt());  // an MD5 digest leaves the salt alone
  EXPECT_TRUE(e.IsLegal());
  EXPECT_TRUE(e.IsPasswordValid("password"));
  EXPECT_FALSE(e.IsPasswordValid("Password"));
  EXPECT_FALSE(e.IsPasswordValid(""));  // no MD5 digest of an empty text

  // A digest given as such is stored unchanged and checked against the MD5 of the clear text.
  std::string const digest = "900150983cd24fb0d6963f7d28e17f72";  // MD5 of "abc"
  e.set_protect_password(digest, false, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_EQ(digest, e.get_protect_password());
  EXPECT_TRUE(e.IsLegal());
  EXPECT_TRUE(e.IsPasswordValid("abc"));
  EXPECT_FALSE(e.IsPasswordValid("abd"));
  // Same answer whatever the position or kind of the difference, length included.
  e.set_protect_password("900150983cd24fb0d6963f7d28e17f73", false, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_FALSE(e.IsPasswordValid("abc"));
  e.set_protect_password("800150983cd24fb0d6963f7d28e17f72", false, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_FALSE(e.IsPasswordValid("abc"));
  e.set_protect_password("900150983cd24fb0d6963f7d28e17f7", false, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_FALSE(e.IsPasswordValid("abc"));
  e.set_protect_password(digest + "0", false, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_FALSE(e.IsPasswordValid("abc"));
  e.set_protect_password("900150983CD24FB0D6963F7D28E17F72", false, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_FALSE(e.IsPasswordValid("abc"));
  e.set_protect_password(std::string("900150983cd24fb0d6963f7d28e17f72\0", 33), false,
                         Entry::ENCRYPT_ALGO_MD5);
  EXPECT_FALSE(e.IsPasswordValid("abc"));

  // A salted digest given as such is checked with the salt the entry holds.
  e.set_protect_password(Sha1Hex("pw" + salt), false, Entry::ENCRYPT_ALGO_DEFAULT);
  EXPECT_TRUE(e.IsPasswordValid("pw"));

  // A failed setting empties the digest and makes the entry illegal until the next success.
  e.set_protect_password("", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_EQ("", e.get_protect_password());
  EXPECT_EQ(Entry::ENCRYPT_ALGO_MD5, e.get_protect_password_algo());
  kovatest::ClearLogs();
  EXPECT_FALSE(e.IsLegal());
  EXPECT_EQ(std::vector<std::string>({"!blValid_"}), recordtest::FailedConditions());
  EXPECT_FALSE(e.IsPasswordValid(""));
  e.set_protect_type(Entry::PROTECT_NONE);  // the protection type does not repair it
  EXPECT_FALSE(e.IsLegal());
  // Without password protection every password passes.
  EXPECT_TRUE(e.IsPasswordValid("anything"));
  e.set_protect_password("y", true, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_TRUE(e.IsLegal());
  EXPECT_EQ(Entry::PROTECT_NONE, e.get_protect_type());  // setting a password keeps the type

  // An empty stored digest with a given empty text: the password rule refuses the entry.
  Entry blank = Protected();
  blank.set_protect_password("", false, Entry::ENCRYPT_ALGO_MD5);
  EXPECT_FALSE(blank.IsLegal());
  EXPECT_FALSE(blank.IsPasswordValid(""));  // MD5 of an empty text fails
}

TEST(EntryProtection, OwnerByName) {
  Entry e;
  EXPECT_EQ("", e.get_owner_user());
  EXPECT_TRUE(e.set_owner_user("bob"));
  EXPECT_EQ(1001u, e.get_owner_uid());
  EXPECT_EQ("bob", e.get_owner_user());
  // The login name is normalised first.
  EXPECT_TRUE(e.set_owner_user("DAVE"));
  EXPECT_EQ(1002u, e.get_owner_uid());
  EXPECT_EQ("Dave", e.get_owner_user());
  EXPECT_FALSE(e.set_owner_user("zed"));
  EXPECT_EQ(UID_ERR, e.get_owner_uid());
  EXPECT_EQ("", e.get_owner_user());
  e.set_owner_uid(4242);
  EXPECT_EQ("", e.get_owner_user());
  e.set_owner_uid(0);
  EXPECT_EQ("root", e.get_owner_user());
}

TEST(EntryProtection, UsersAndGroups) {
  Entry e;
  e.set_protect_users({"alice", "zed", "dave", "ghost"});
  EXPECT_EQ(std::vector<unsigned int>({1000, 1002}), e.get_protect_uids());
  EXPECT_EQ(std::vector<std::string>({"alice", "Dave", "zed", "ghost"}), e.get_protect_users());
  // The names that did not resolve travel in the row as names.
  Json::Value data;
  Json::Reader reader;
  ASSERT_TRUE(reader.parse(e.GetFieldList()[9], data));
  EXPECT_EQ(2u, data["protect_uids"].size());
  EXPECT_EQ(1002u, data["protect_uids"][1].asUInt());
  EXPECT_EQ("zed", data["protect_extra_users"][0].asString());
  EXPECT_EQ("ghost", data["protect_extra_users"][1].asString());

  // Setting again replaces both lists.
  e.set_protect_users({"bob"});
  EXPECT_EQ(std::vector<unsigned int>({1001}), e.get_protect_uids());
  EXPECT_EQ(std::vector<std::string>({"bob"}), e.get_protect_users());

  // Ids set directly: kept as given, unknown ones shown by no name; the names go.
  e.set_protect_users({"zed"});
  e.set_protect_uids({4242, 1003, 1003});
  EXPECT_EQ(std::vector<unsigned int>({4242, 1003, 1003}), e.get_protect_uids());
  EXPECT_EQ(std::vector<std::string>({"carol", "carol"}), e.get_protect_users());

  // Groups: names are taken as written (no normalisation of group names).
  e.set_protect_groups({"editors", "nogroup", "Viewers", "viewers"});
  EXPECT_EQ(std::vector<unsigned int>({2001, 2002}), e.get_protect_gids());
  EXPECT_EQ(std::vector<std::string>({"editors", "viewers", "nogroup", "Viewers"}),
            e.get_protect_groups());
  e.set_protect_gids({2999, 2003});
  EXPECT_EQ(std::vector<unsigned int>({2999, 2003}), e.get_protect_gids());
  EXPECT_EQ(std::vector<std::string>({"empty"}), e.get_protect_groups());
  // Users and groups are separate lists.
  EXPECT_EQ(std::vector<unsigned int>({4242, 1003, 1003}), e.get_protect_uids());
}

TEST(EntryProtection, UserCreatedLaterIsAdmitted) {
  PasswdFixture passwd;
  ASSERT_TRUE(passwd.good()) << "NSS_WRAPPER_PASSWD does not name a readable fixture";

  Entry e;
  e.set_hash("h").set_project_name("p").set_owner_uid(1000).set_app(Json::Value(Json::objectValue));
  e.set_protect_type(Entry::PROTECT_USER);
  e.set_protect_users({"alice", "newbie"});
  ASSERT_TRUE(e.IsLegal());
  EXPECT_EQ(std::vector<unsigned int>({1000}), e.get_protect_uids());

  // Stored and read back before the account exists: the name is still there.
  recordtest::Database base;
  ObjectDB store(base.db(), "entry");
  ASSERT_TRUE(store.Create(e.GetObject()));
  Entry read;
  ASSERT_TRUE(store.GetById(e.get_id(), read.GetObject()));

  passwd.Append("newbie:x:1010:2000:newbie:/home/newbie:/bin/sh");
  EXPECT_EQ(std::vector<unsigned int>({1000, 1010}), read.get_protect_uids());
  EXPECT_EQ(std::vector<unsigned int>({1000, 1010}), e.get_protect_uids());
  // The list itself is unchanged: the name stays a name.
  EXPECT_EQ(std::vector<std::string>({"alice", "newbie"}), read.get_protect_users());
  // Setting the list now resolves the name at once.
  Entry fresh;
  fresh.set_protect_users({"newbie"});
  Json::Value data;
  Json::Reader reader;
  ASSERT_TRUE(reader.parse(fresh.GetFieldList()[9], data));
  EXPECT_EQ(1010u, data["protect_uids"][0].asUInt());
  EXPECT_EQ(0u, data["protect_extra_users"].size());
}

TEST(EntryProtection, FixtureIsBackAfterTheSwap) {
  // Runs after the test above in file order: the account made there is gone again.
  Entry e;
  e.set_protect_users({"newbie"});
  EXPECT_TRUE(e.get_protect_uids().empty());
  EXPECT_EQ(std::vector<std::string>({"newbie"}), e.get_protect_users());
}
