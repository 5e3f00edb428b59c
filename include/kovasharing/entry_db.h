// The store of sharing links (table "entry"): the generic record operations plus creation
// under a fresh random hash, look-ups by hash and by token, and the purges.
#ifndef KOVASHARING_ENTRY_DB_H
#define KOVASHARING_ENTRY_DB_H

#include <string>
#include <vector>

#include "entry.h"
#include "export.h"
#include "token.h"

namespace KOVA {
namespace sharing {
namespace db {

class BaseDB;
class Condition;
class EntryDBPrivate;

class KOVA_EXPORT EntryDB {
 public:
  explicit EntryDB(BaseDB& db);
  virtual ~EntryDB();
  EntryDB(EntryDB const&) = delete;
  EntryDB& operator=(EntryDB const&) = delete;

  bool Create(record::Entry& entry);
  // Inserts the entry under a new random hash, retrying with longer hashes when the insert
  // fails; on failure the entry keeps the last hash tried.
  bool CreateWithHash(record::Entry& entry);
  bool Update(record::Entry const& entry);
  bool Delete(int id);
  bool Delete(record::Entry const& entry);
  bool GetById(int id, record::Entry& entry) const;
  bool Count(int& count) const;
  Condition& GetCondition() const;
  bool Query(std::vector<record::Entry>& out) const;

  bool GetByHash(std::string const& hash, record::Entry& entry) const;
  bool GetByToken(record::Token const& token, record::Entry& entry) const;
  // Deletes expired entries that allow automatic collection, on about `probability` of the
  // calls; a call that is not drawn touches nothing and succeeds.
  bool PurgeExpired(float probability);
  // Deletes every entry of the owner, expired or not.
  bool DeleteByOwnerUid(unsigned int uid);
  // Deletes the expired entries of an owner (UID_ERR: any owner) and project ("": any),
  // whether or not they allow automatic collection.
  bool PurgeExpiredByOwnerProject(unsigned int uid, std::string const& project);

  // What the purges count as expired at the time `now`, as an SQL condition on the entry
  // table: past its end time, or used up (unlike the entry's own validity check, a count
  // that has reached its limit counts as expired). For filters that must agree with them.
  static std::string ExpiredCondition(long now);

 private:
  EntryDBPrivate* d_;
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
