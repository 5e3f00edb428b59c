// The token store: the joins of sessions to entries, their look-up and purges.
#include "kovasharing/token_db.h"

#include <ctime>
#include <string>

#include "kovasharing/base_db.h"
#include "kovasharing/entry.h"
#include "kovasharing/result.h"
#include "kovasharing/session.h"
#include "kovasharing/token.h"
#include "kovasharing/utils.h"
#include "store/token_db_private.h"

namespace KOVA {
namespace sharing {
namespace db {

TokenDBPrivate::TokenDBPrivate(BaseDB& db) : ObjectDB(db, "token") {}

TokenDBPrivate::~TokenDBPrivate() {}

bool TokenDBPrivate::Delete(int id) { return ObjectDB::Delete(id); }

bool TokenDBPrivate::PurgeExpired(float probability) {
  if (!IsProbabilityHit(probability)) return true;
  std::string const sql = std::string("DELETE FROM ") + table_ + " WHERE timeout < '" +
                          std::to_string(static_cast<long>(time(nullptr))) + "'";
  return db_.Execute(sql);
}

bool TokenDBPrivate::PurgeByEntry(record::Entry const& entry) {
  // Row ids are written bare, unlike the quoted time of the purge.
  std::string const sql =
      std::string("DELETE FROM ") + table_ + " WHERE entry_id = " + std::to_string(entry.get_id());
  return db_.Execute(sql);
}

Lookup TokenDBPrivate::FindBySessionEntry(record::Session const& session,
                                          record::Entry const& entry, record::Token& token) const {
  // Only the first row counts: an expired one hides a live one for the same pair.
  return FindOne(std::string("SELECT * FROM ") + table_ +
                     " WHERE session_id = " + std::to_string(session.get_id()) +
                     " AND entry_id = " + std::to_string(entry.get_id()),
                 token.GetObject());
}

bool TokenDBPrivate::GetBySessionEntry(record::Session const& session, record::Entry const& entry,
                                       record::Token& token) const {
  return FindBySessionEntry(session, entry, token) == Lookup::kFound;
}

TokenDB::TokenDB(BaseDB& db) : d_(new TokenDBPrivate(db)) {}

TokenDB::~TokenDB() { delete d_; }

bool TokenDB::Create(record::Token& token) { return d_->Create(token.GetObject()); }

bool TokenDB::Update(record::Token const& token) { return d_->Update(token.GetCObject()); }

bool TokenDB::Delete(int id) { return d_->Delete(id); }

bool TokenDB::Delete(record::Token const& token) { return d_->Delete(token.GetCObject()); }

bool TokenDB::GetById(int id, record::Token& token) const {
  return d_->GetById(id, token.GetObject());
}

bool TokenDB::Count(int& count) const { return d_->Count(count); }

Condition& TokenDB::GetCondition() const { return d_->GetCondition(); }

bool TokenDB::Query(std::vector<record::Token>& out) const { return d_->Query<record::Token>(out); }

bool TokenDB::PurgeExpired(float probability) { return d_->PurgeExpired(probability); }

bool TokenDB::PurgeByEntry(record::Entry const& entry) { return d_->PurgeByEntry(entry); }

bool TokenDB::GetBySessionEntry(record::Session const& session, record::Entry const& entry,
                                record::Token& token) const {
  return d_->GetBySessionEntry(session, entry, token);
}

}  // namespace db
}  // namespace sharing
}  // namespace KOVA
