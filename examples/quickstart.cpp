// Quickstart: the whole road of a sharing link, as an application and its web front end walk
// it. The application makes two links (one behind a password, one for a group of accounts);
// visitors log in, are checked on later requests, log out and use a link up; the application
// purges what expired. Every step prints the code the library answered.
//
// A web front end runs once per request under the web server, which hands it the visitor's
// address in REMOTE_ADDR; this program plays both sides in one process and sets REMOTE_ADDR
// itself. The accounts "ann" (in the group "reviewers") and "ben" (not in it) and their
// passwords are those of the demo's account fixtures (scripts/demo).
#include <kovasharing/kovasharing.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using KOVA::sharing::db::EntryDB;
using KOVA::sharing::db::SessionDB;
using KOVA::sharing::db::SharingDB;
using KOVA::sharing::db::TokenDB;
using KOVA::sharing::record::Entry;

char const kVisitorAddress[] = "198.51.100.7";
char const kOtherAddress[] = "203.0.113.9";

struct Step {
  std::string what;
  int expected;
  int code;
};
std::vector<Step> g_steps;

void Record(std::string const& what, int expected, int code) {
  g_steps.push_back({what, expected, code});
}

// What a code means: the visitor functions name theirs; the object layer's calls report 1 or 0.
char const* Meaning(std::string const& what, int code) {
  if (what.find("check") != std::string::npos) return KovaSharingCheckResultText(code);
  if (what.find("login") != std::string::npos) return KovaSharingLoginResultText(code);
  return code == 1 ? "ok" : "failed";
}

void Visit(char const* address) { setenv("REMOTE_ADDR", address, 1); }

int Login(std::string& sid, std::string const& hash, char const* password,
          char const* username = nullptr, char const* user_password = nullptr) {
  _tag_sharing_login_params const params = {hash.c_str(), password, username, user_password,
                                            sid.empty() ? nullptr : sid.c_str()};
  std::string out;
  int const code = KOVA::KovaSharingLogin(out, &params, false);
  if (code == 1) sid = out;
  return code;
}

int Check(std::string const& sid, std::string const& hash) {
  _tag_sharing_login_params const params = {hash.c_str(), nullptr, nullptr, nullptr, sid.c_str()};
  return KOVA::KovaSharingIsAuthorized(&params);
}

int Rows(EntryDB const& store) {
  int count = -1;
  return store.Count(count) ? count : -1;
}

}  // namespace

int main() {
  SharingDB& sdb = SharingDB::Instance();
  if (!sdb.IsGood()) {
    std::fprintf(stderr, "the sharing database %s cannot be opened\n",
                 KOVA::sharing::SZF_SHARING_DB_PATH);
    return 1;
  }
  EntryDB entries(sdb);

  // 1. The application makes its links. A link needs a project, an owner and an application
  // object; the store draws the hash.
  Json::Value album(Json::objectValue);
  album["path"] = "/photos/summer";
  Entry photos;
  photos.set_project_name("photo-album");
  photos.set_owner_user("ann");
  photos.set_app(album);
  photos.set_expire_times(3);  // three visits, then the link is used up
  photos.set_protect_type(Entry::PROTECT_PASSWORD);
  photos.set_protect_password("open sesame", true, Entry::ENCRYPT_ALGO_DEFAULT);
  Record("app: create password link (3 uses)", 1, entries.CreateWithHash(photos) ? 1 : 0);
  std::string const photos_hash = photos.get_hash();

  Json::Value draft(Json::objectValue);
  draft["path"] = "/docs/draft.odt";
  Entry review;
  review.set_project_name("review");
  review.set_owner_user("ann");
  review.set_app(draft);
  review.set_protect_type(Entry::PROTECT_USER);
  review.set_protect_groups({"reviewers"});
  Record("app: create link for group reviewers", 1, entries.CreateWithHash(review) ? 1 : 0);
  std::string const review_hash = review.get_hash();

  // 2. A visitor opens the password link: a wrong guess, then the right password. The
  // session id is what the web front end keeps on the visitor's side (a cookie).
  Visit(kVisitorAddress);
  std::string visitor;
  Record("visitor: login, wrong password", KOVA_LOGIN_WRONG_PASSWORD,
         Login(visitor, photos_hash, "guess"));
  Record("visitor: login, right password", 1, Login(visitor, photos_hash, "open sesame"));

  // 3. Later requests: the session is checked (and extended by a day). The link binds the
  // session to the visitor's address, so the same session id from elsewhere is refused.
  Record("visitor: check, same address", 1, Check(visitor, photos_hash));
  Visit(kOtherAddress);
  Record("visitor: check, another address", KOVA_CHECK_ADDRESS_CHANGED,
         Check(visitor, photos_hash));
  Visit(kVisitorAddress);

  // 4. The group link: an account login, admitted by group membership only.
  std::string ann, ben;
  Record("ann (reviewers): login to group link", 1,
         Login(ann, review_hash, nullptr, "ann", "ann-demo-pw"));
  Record("ann: check", 1, Check(ann, review_hash));
  Record("ben (not a reviewer): login to group link", KOVA_LOGIN_NOT_ADMITTED,
         Login(ben, review_hash, nullptr, "ben", "ben-demo-pw"));
  Record("ben: login, wrong account password", KOVA_LOGIN_ACCOUNT_REFUSED,
         Login(ben, review_hash, nullptr, "ben", "nope"));

  // 5. Logging out ends the session's admission to that link.
  Record("visitor: logout", 1, KOVA::KovaSharingLogout(photos_hash, visitor));
  Record("visitor: check after logout", KOVA_CHECK_NO_ACCESS, Check(visitor, photos_hash));

  // 6. Every login counts a use: the third is the last one the link allows.
  std::string second, third, fourth;
  Record("visitor 2: login (use 2 of 3)", 1, Login(second, photos_hash, "open sesame"));
  Record("visitor 3: login (use 3 of 3)", 1, Login(third, photos_hash, "open sesame"));
  Record("visitor 4: login", KOVA_LOGIN_USED_UP, Login(fourth, photos_hash, "open sesame"));

  // 7. Clean-up is the application's job: purge with probability 1.0 runs at once (a busy
  // program passes a small probability on every call). A used-up link is expired.
  int const before = Rows(entries);
  SessionDB sessions(sdb);
  TokenDB tokens(sdb);
  bool const purged =
      entries.PurgeExpired(1.0f) && sessions.PurgeExpired(1.0f) && tokens.PurgeExpired(1.0f);
  Record("app: purge expired (links " + std::to_string(before) + " -> " +
             std::to_string(Rows(entries)) + ")",
         1, purged ? 1 : 0);
  Record("visitor 5: login to the purged link", KOVA_LOGIN_NO_LINK,
         Login(fourth, photos_hash, "open sesame"));

  std::printf("password link %s, group link %s, database %s\n\n", photos_hash.c_str(),
              review_hash.c_str(), KOVA::sharing::SZF_SHARING_DB_PATH);
  std::printf("%-3s %-46s %5s  %s\n", "#", "step", "code", "meaning");
  int unexpected = 0;
  for (size_t i = 0; i < g_steps.size(); ++i) {
    Step const& s = g_steps[i];
    bool const ok = s.code == s.expected;
    unexpected += ok ? 0 : 1;
    std::printf("%-3zu %-46s %5d  %s%s\n", i + 1, s.what.c_str(), s.code, Meaning(s.what, s.code),
                ok ? "" : ("   <-- expected " + std::to_string(s.expected)).c_str());
  }
  std::printf("\n%s\n", unexpected == 0 ? "every step answered as expected"
                                        : "SOME STEPS ANSWERED OTHERWISE THAN EXPECTED");
  return unexpected == 0 ? 0 : 1;
}
