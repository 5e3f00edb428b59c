// The session store proper: the generic store bound to table "session", with the look-ups by
// session id and the purge.
#ifndef KOVASHARING_INTERNAL_SESSION_DB_PRIVATE_H
#define KOVASHARING_INTERNAL_SESSION_DB_PRIVATE_H

#include <string>

#include "kovasharing/object_db.h"

namespace KOVA {
namespace sharing {
namespace record {
class Session;
}  // namespace record
namespace db {

class SessionDBPrivate : public ObjectDB {
 public:
  explicit SessionDBPrivate(BaseDB& db);
  ~SessionDBPrivate() override;

  using ObjectDB::Delete;
  bool Delete(int id) override;

  bool CreateWithSessionId(record::Session& session);
  Lookup FindBySessionId(std::string const& sid, record::Session& session) const;
  bool GetBySessionId(std::string const& sid, record::Session& session) const;
  bool DeleteBySessionId(std::string const& sid);
  bool PurgeExpired(float probability);
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
