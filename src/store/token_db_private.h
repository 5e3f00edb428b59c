// The token store proper: the generic store bound to table "token", with the look-up by
// session and entry and the purges.
#ifndef KOVASHARING_INTERNAL_TOKEN_DB_PRIVATE_H
#define KOVASHARING_INTERNAL_TOKEN_DB_PRIVATE_H

#include "kovasharing/object_db.h"

namespace KOVA {
namespace sharing {
namespace record {
class Entry;
class Session;
class Token;
}  // namespace record
namespace db {

class TokenDBPrivate : public ObjectDB {
 public:
  explicit TokenDBPrivate(BaseDB& db);
  ~TokenDBPrivate() override;

  using ObjectDB::Delete;
  bool Delete(int id) override;

  bool PurgeExpired(float probability);
  bool PurgeByEntry(record::Entry const& entry);
  Lookup FindBySessionEntry(record::Session const& session, record::Entry const& entry,
                            record::Token& token) const;
  bool GetBySessionEntry(record::Session const& session, record::Entry const& entry,
                         record::Token& token) const;
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
