// The entry store proper: the generic store bound to table "entry", with the entry's own
// look-ups and purges.
#ifndef KOVASHARING_INTERNAL_ENTRY_DB_PRIVATE_H
#define KOVASHARING_INTERNAL_ENTRY_DB_PRIVATE_H

#include <string>

#include "kovasharing/object_db.h"

namespace KOVA {
namespace sharing {
namespace record {
class Entry;
class Token;
}  // namespace record
namespace db {

class EntryDBPrivate : public ObjectDB {
 public:
  explicit EntryDBPrivate(BaseDB& db);
  ~EntryDBPrivate() override;

  using ObjectDB::Delete;
  bool Delete(int id) override;

  bool CreateWithHash(record::Entry& entry);
  Lookup FindByHash(std::string const& hash, record::Entry& entry) const;
  bool GetByHash(std::string const& hash, record::Entry& entry) const;
  bool GetByToken(record::Token const& token, record::Entry& entry) const;
  bool PurgeExpired(float probability);
  // Counts one use of `checked` in one statement, only while every other column still holds
  // what `checked` holds and its use limit allows one more. kFound: counted (`use_count` is the
  // new count); kAbsent: not counted (the row changed or the limit is reached); kFailed: the
  // statement failed (a lock held past the busy limit, a damaged database).
  Lookup CountUseIfUnchanged(record::Entry const& checked, int& use_count);
  bool DeleteByOwnerUid(unsigned int uid);
  bool PurgeExpiredByOwnerProject(unsigned int uid, std::string const& project);
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
