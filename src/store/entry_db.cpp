// The entry store: sharing links under random hashes, their look-ups and purges.
#include "kovasharing/entry_db.h"

#include <ctime>
#include <string>

#include "kova_random.h"
#include "kovasharing/base_db.h"
#include "kovasharing/constants.h"
#include "kovasharing/entry.h"
#include "kovasharing/result.h"
#include "kovasharing/token.h"
#include "kovasharing/utils.h"
#include "record/entry_private.h"
#include "store/entry_db_private.h"

namespace KOVA {
namespace sharing {
namespace db {

namespace {

// The expiry test of both purges, as their statements spell it.
std::string ExpiredClause() {
  return " " + EntryDB::ExpiredCondition(static_cast<long>(time(nullptr)));
}

}  // namespace

EntryDBPrivate::EntryDBPrivate(BaseDB& db) : ObjectDB(db, "entry") {}

EntryDBPrivate::~EntryDBPrivate() {}

bool EntryDBPrivate::Delete(int id) { return ObjectDB::Delete(id); }

bool EntryDBPrivate::CreateWithHash(record::Entry& entry) {
  static RANDOM::KOVARandom random;  // one generator for the whole process
  int length = SHARING_HASH_LENGTH;
  int attempt = 0;
  bool created = false;
  // A failed draw leaves the previous text; the insert then decides.
  std::string hash;
  do {
    ++attempt;
    random.getString(RANDOM::POOL_ALPHA_NUMERIC, static_cast<std::size_t>(length), hash);
    entry.set_hash(hash);
    created = ObjectDB::Create(entry.GetObject());
    // Three tries per length: a clash at one length makes the next longer ones likelier to
    // be free.
    if (attempt % 3 == 0) ++length;
    // The bound is inclusive: the first try and SHARING_MAX_RETRY_TIMES retries.
  } while (!created && attempt <= SHARING_MAX_RETRY_TIMES);
  return created;
}

Lookup EntryDBPrivate::FindByHash(std::string const& hash, record::Entry& entry) const {
  return FindOne(
      std::string("SELECT * FROM ") + table_ + " WHERE hash = '" + db_.Escape(hash) + "'",
      entry.GetObject());
}

bool EntryDBPrivate::GetByHash(std::string const& hash, record::Entry& entry) const {
  return FindByHash(hash, entry) == Lookup::kFound;
}

Lookup EntryDBPrivate::CountUseIfUnchanged(record::Entry const& checked, int& use_count) {
  // The columns a login's checks look at, compared with what was read: the data column as its
  // stored text, the others as numbers.
  auto const& read = static_cast<record::EntryPrivate const&>(checked.GetCObject());
  std::string const data =
      read.row_data_.empty() ? checked.GetFieldMap()[SZK_DATA] : read.row_data_;
  std::string sql = std::string("UPDATE ") + table_ + " SET use_count = use_count + 1 WHERE id = " +
                    std::to_string(checked.get_id()) +
                    " AND enabled = " + (read.enabled_ ? "1" : "0") +
                    " AND start_at = " + std::to_string(read.start_at_) +
                    " AND expire_at = " + std::to_string(read.expire_at_) +
                    " AND expire_times = " + std::to_string(read.expire_times_) + " AND data = '" +
                    db_.Escape(data) + "'";
  sql += " AND (expire_times <= 0 OR use_count < expire_times) RETURNING use_count";
  Result result;
  if (!db_.Execute(sql, result)) return Lookup::kFailed;
  Row row;
  if (!result.IsGood() || !result.NextRow(row)) return Lookup::kAbsent;
  use_count = row.GetField(SZK_USE_COUNT).AsInt(0);
  return Lookup::kFound;
}

bool EntryDBPrivate::GetByToken(record::Token const& token, record::Entry& entry) const {
  return GetById(token.get_entry_id(), entry.GetObject());
}

bool EntryDBPrivate::PurgeExpired(float probability) {
  if (!IsProbabilityHit(probability)) return true;
  // The blank after "AND" and the one that opens the expiry clause both stay.
  std::string const sql =
      std::string("DELETE FROM ") + table_ + " WHERE auto_gc = 1 AND " + ExpiredClause();
  return db_.Execute(sql);
}

bool EntryDBPrivate::DeleteByOwnerUid(unsigned int uid) {
  std::string const sql =
      std::string("DELETE FROM ") + table_ + " WHERE owner_uid = " + std::to_string(uid);
  return db_.Execute(sql);
}

bool EntryDBPrivate::PurgeExpiredByOwnerProject(unsigned int uid, std::string const& project) {
  // Runs on every call and ignores auto_gc: an owner cleaning up means it.
  std::string sql = std::string("DELETE FROM ") + table_ + " WHERE";
  if (uid != UID_ERR) sql += " owner_uid = " + std::to_string(uid) + " AND";
  if (!project.empty()) sql += " project_name = '" + db_.Escape(project) + "' AND";
  sql += ExpiredClause();
  return db_.Execute(sql);
}

EntryDB::EntryDB(BaseDB& db) : d_(new EntryDBPrivate(db)) {}

EntryDB::~EntryDB() { delete d_; }

bool EntryDB::Create(record::Entry& entry) { return d_->Create(entry.GetObject()); }

bool EntryDB::CreateWithHash(record::Entry& entry) { return d_->CreateWithHash(entry); }

bool EntryDB::Update(record::Entry const& entry) { return d_->Update(entry.GetCObject()); }

bool EntryDB::Delete(int id) { return d_->Delete(id); }

bool EntryDB::Delete(record::Entry const& entry) { return d_->Delete(entry.GetCObject()); }

bool EntryDB::GetById(int id, record::Entry& entry) const {
  return d_->GetById(id, entry.GetObject());
}

bool EntryDB::Count(int& count) const { return d_->Count(count); }

Condition& EntryDB::GetCondition() const { return d_->GetCondition(); }

bool EntryDB::Query(std::vector<record::Entry>& out) const { return d_->Query<record::Entry>(out); }

bool EntryDB::GetByHash(std::string const& hash, record::Entry& entry) const {
  return d_->GetByHash(hash, entry);
}

bool EntryDB::GetByToken(record::Token const& token, record::Entry& entry) const {
  return d_->GetByToken(token, entry);
}

std::string EntryDB::ExpiredCondition(long now) {
  return "((expire_at != 0 AND expire_at < " + std::to_string(now) +
         ") OR (expire_times != 0 AND use_count >= expire_times))";
}

bool EntryDB::PurgeExpired(float probability) { return d_->PurgeExpired(probability); }

bool EntryDB::DeleteByOwnerUid(unsigned int uid) { return d_->DeleteByOwnerUid(uid); }

bool EntryDB::PurgeExpiredByOwnerProject(unsigned int uid, std::string const& project) {
  return d_->PurgeExpiredByOwnerProject(uid, project);
}

}  // namespace db
}  // namespace sharing
}  // namespace KOVA
