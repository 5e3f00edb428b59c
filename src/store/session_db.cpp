// The session store: visitor sessions under random session ids, their look-ups and purge.
#include "kovasharing/session_db.h"

#include <ctime>
#include <string>

#include "kova_random.h"
#include "kovasharing/base_db.h"
#include "kovasharing/constants.h"
#include "kovasharing/result.h"
#include "kovasharing/session.h"
#include "kovasharing/utils.h"
#include "store/session_db_private.h"

namespace KOVA {
namespace sharing {
namespace db {

SessionDBPrivate::SessionDBPrivate(BaseDB& db) : ObjectDB(db, "session") {}

SessionDBPrivate::~SessionDBPrivate() {}

bool SessionDBPrivate::Delete(int id) { return ObjectDB::Delete(id); }

bool SessionDBPrivate::CreateWithSessionId(record::Session& session) {
  static RANDOM::KOVARandom random;  // one generator for the whole process
  int attempt = 0;
  bool created = false;
  // Any failed insert, a taken id among them, is retried with a new id; the bound is
  // inclusive (the first try and SHARING_MAX_RETRY_TIMES retries).
  do {
    ++attempt;
    std::string const pool(RANDOM::POOL_URL_FRIENDLY);
    std::string sid;
    random.getString(pool, SHARING_SESSION_LENGTH, sid);
    session.set_session_id(sid);
    created = ObjectDB::Create(session.GetObject());
  } while (attempt <= SHARING_MAX_RETRY_TIMES && !created);
  return created;
}

Lookup SessionDBPrivate::FindBySessionId(std::string const& sid, record::Session& session) const {
  // An expired row fills the session but reads as absent.
  return FindOne(
      std::string("SELECT * FROM ") + table_ + " WHERE session_id = '" + db_.Escape(sid) + "'",
      session.GetObject());
}

bool SessionDBPrivate::GetBySessionId(std::string const& sid, record::Session& session) const {
  return FindBySessionId(sid, session) == Lookup::kFound;
}

bool SessionDBPrivate::DeleteBySessionId(std::string const& sid) {
  std::string const sql =
      std::string("DELETE FROM ") + table_ + " WHERE session_id = '" + db_.Escape(sid) + "'";
  return db_.Execute(sql);
}

bool SessionDBPrivate::PurgeExpired(float probability) {
  if (!IsProbabilityHit(probability)) return true;
  // The time goes between quotes here, as in the token purge.
  std::string const sql = std::string("DELETE FROM ") + table_ + " WHERE timeout < '" +
                          std::to_string(static_cast<long>(time(nullptr))) + "'";
  return db_.Execute(sql);
}

SessionDB::SessionDB(BaseDB& db) : d_(new SessionDBPrivate(db)) {}

SessionDB::~SessionDB() { delete d_; }

bool SessionDB::Create(record::Session& session) { return d_->Create(session.GetObject()); }

bool SessionDB::Update(record::Session const& session) { return d_->Update(session.GetCObject()); }

bool SessionDB::Delete(int id) { return d_->Delete(id); }

bool SessionDB::Delete(record::Session const& session) { return d_->Delete(session.GetCObject()); }

bool SessionDB::GetById(int id, record::Session& session) const {
  return d_->GetById(id, session.GetObject());
}

bool SessionDB::Count(int& count) const { return d_->Count(count); }

Condition& SessionDB::GetCondition() const { return d_->GetCondition(); }

bool SessionDB::Query(std::vector<record::Session>& out) const {
  return d_->Query<record::Session>(out);
}

bool SessionDB::CreateWithSessionId(record::Session& session) {
  return d_->CreateWithSessionId(session);
}

bool SessionDB::GetBySessionId(std::string const& sid, record::Session& session) const {
  return d_->GetBySessionId(sid, session);
}

bool SessionDB::DeleteBySessionId(std::string const& sid) { return d_->DeleteBySessionId(sid); }

bool SessionDB::PurgeExpired(float probability) { return d_->PurgeExpired(probability); }

}  // namespace db
}  // namespace sharing
}  // namespace KOVA
