// The store of visitor sessions (table "session"): the generic record operations plus
// creation under a fresh random session id, look-up and deletion by that id, and the purge.
#ifndef KOVASHARING_SESSION_DB_H
#define KOVASHARING_SESSION_DB_H

#include <string>
#include <vector>

#include "export.h"
#include "session.h"

namespace KOVA {
namespace sharing {
namespace db {

class BaseDB;
class Condition;
class SessionDBPrivate;

class KOVA_EXPORT SessionDB {
 public:
  explicit SessionDB(BaseDB& db);
  virtual ~SessionDB();
  SessionDB(SessionDB const&) = delete;
  SessionDB& operator=(SessionDB const&) = delete;

  bool Create(record::Session& session);
  bool Update(record::Session const& session);
  bool Delete(int id);
  bool Delete(record::Session const& session);
  bool GetById(int id, record::Session& session) const;
  bool Count(int& count) const;
  Condition& GetCondition() const;
  bool Query(std::vector<record::Session>& out) const;

  // Inserts the session under a new random session id, retrying with a new id when the insert
  // fails; on failure the session keeps the last id tried.
  bool CreateWithSessionId(record::Session& session);
  // False for an unknown id and for an expired row (the session is filled from it then).
  bool GetBySessionId(std::string const& sid, record::Session& session) const;
  bool DeleteBySessionId(std::string const& sid);
  // Deletes sessions whose timeout has passed, on about `probability` of the calls.
  bool PurgeExpired(float probability);

 private:
  SessionDBPrivate* d_;
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
