// The schema migration of the sharing database.
#ifndef KOVASHARING_INTERNAL_SHARING_DB_PRIVATE_H
#define KOVASHARING_INTERNAL_SHARING_DB_PRIVATE_H

namespace KOVA {
namespace sharing {
namespace db {

class SharingDB;

class SharingDBPrivate {
 public:
  // Migrates `db` to the newest schema; the outcome is kept in good_.
  explicit SharingDBPrivate(SharingDB* db);
  virtual ~SharingDBPrivate();
  SharingDBPrivate(SharingDBPrivate const&) = delete;
  SharingDBPrivate& operator=(SharingDBPrivate const&) = delete;

  bool Migration();
  bool MigrateTo(int version);
  bool IsGood() const { return good_; }

 private:
  SharingDB* pdb_;
  bool good_;
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
