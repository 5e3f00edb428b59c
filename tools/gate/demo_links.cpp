// Makes the two links that scripts/demo and the browser test open through the gate: one behind
// a password, one for the accounts of a group. Prints "password <hash>" and "group <hash>".
//
//   kovasharing-demo-links OWNER PASSWORD GROUP
#include <kovasharing/kovasharing.h>

#include <cstdio>
#include <ctime>
#include <string>

using KOVA::sharing::db::EntryDB;
using KOVA::sharing::db::SharingDB;
using KOVA::sharing::record::Entry;

namespace {

bool Make(EntryDB& entries, Entry& entry, char const* what) {
  if (entries.CreateWithHash(entry)) return true;
  std::fprintf(stderr, "kovasharing-demo-links: the %s link cannot be stored\n", what);
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: kovasharing-demo-links OWNER PASSWORD GROUP\n");
    return 2;
  }
  SharingDB& db = SharingDB::Instance();
  if (!db.IsGood()) {
    std::fprintf(stderr, "kovasharing-demo-links: the database %s cannot be opened\n",
                 KOVA::sharing::SZF_SHARING_DB_PATH);
    return 1;
  }
  EntryDB entries(db);

  Json::Value album(Json::objectValue);
  album["title"] = "Summer photos";
  album["description"] = "Forty-two pictures from the lake, for the family.";
  album["size"] = 84000000;
  album["folder"] = "/photos/summer";
  album["pictures"] = 42;
  Entry photos;
  photos.set_project_name("photo-album");
  if (!photos.set_owner_user(argv[1])) {
    std::fprintf(stderr, "kovasharing-demo-links: no account %s\n", argv[1]);
    return 1;
  }
  photos.set_app(album);
  photos.set_expire_at(static_cast<long>(time(nullptr)) + 30L * 86400);  // a month from now
  photos.set_protect_type(Entry::PROTECT_PASSWORD);
  photos.set_protect_password(argv[2], true, Entry::ENCRYPT_ALGO_DEFAULT);
  photos.set_redirect_type(Entry::REDIRECT_NONE);

  Json::Value draft(Json::objectValue);
  draft["title"] = "Annual report, draft 3";
  draft["document"] = "/docs/report-draft.odt";
  Entry review;
  review.set_project_name("review");
  review.set_owner_user(argv[1]);
  review.set_app(draft);
  review.set_protect_type(Entry::PROTECT_USER);
  review.set_protect_groups({argv[3]});
  review.set_redirect_type(Entry::REDIRECT_NONE);

  if (!Make(entries, photos, "password") || !Make(entries, review, "group")) return 1;
  std::printf("password %s\ngroup %s\n", photos.get_hash().c_str(), review.get_hash().c_str());
  return 0;
}
