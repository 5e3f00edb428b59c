// The one sharing database of the process, migrated to the newest schema when opened.
#ifndef KOVASHARING_SHARING_DB_H
#define KOVASHARING_SHARING_DB_H

#include <string>

#include "base_db.h"
#include "export.h"

namespace KOVA {
namespace sharing {
namespace db {

class SharingDBPrivate;

class KOVA_EXPORT SharingDB : public BaseDB {
 public:
  SharingDB();                                  // the fixed database file
  explicit SharingDB(std::string const& path);  // another file, same mode and schema
  ~SharingDB() override;

  // The process-wide instance, opened on first use and kept until exit.
  static SharingDB& Instance();

  bool IsGood() const;  // connection good and migration succeeded
  bool IsRoot() const;
  bool MoveRootDB() const;

 private:
  SharingDBPrivate* p_;
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
