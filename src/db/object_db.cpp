#include "kovasharing/object_db.h"

#include <kova_log.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

namespace KOVA {
namespace sharing {
namespace db {

namespace {
char const kSource[] = "object_db";
}

ObjectDB::ObjectDB(BaseDB& db, char const* table)
    : db_(db), table_(table), flag_(1), condition_(new Condition(db)) {}

ObjectDB::~ObjectDB() {
  // Fold the write-ahead log into the main file each time a store goes away.
  db_.ExecuteWALCheckPoint();
  delete condition_;
}

bool ObjectDB::Create(record::Object& obj) {
  if (!obj.IsLegal()) {
    KOVA_LOG_PID(kSource, __LINE__, "obj invalid\n");
    return false;
  }
  if (!db_.Insert(table_, obj.GetFieldList())) {
    KOVA_LOG_PID(kSource, __LINE__, "insert failed\n");
    return false;
  }
  int id = 0;
  if (!db_.GetLastInsertId(id)) {
    return false;
  }
  obj.set_id(id);
  return true;
}

bool ObjectDB::Update(record::Object const& obj) {
  if (!obj.IsLegal()) {
    KOVA_LOG_PID(kSource, __LINE__, "obj invalid\n");
    return false;
  }
  bool const ok = db_.Update(table_, obj.GetFieldMap(), obj.get_id());
  if (!ok) {
    KOVA_LOG_PID(kSource, __LINE__, "update failed\n");
  }
  return ok;
}

bool ObjectDB::Delete(int id) {
  bool const ok = db_.Delete(table_, id);
  if (!ok) {
    KOVA_LOG_PID(kSource, __LINE__, "delete failed\n");
  }
  return ok;
}

bool ObjectDB::Delete(record::Object const& obj) { return Delete(obj.get_id()); }

Lookup ObjectDB::FindOne(std::string const& sql, record::Object& obj) const {
  Result result;
  if (!db_.Execute(sql, result) || !result.IsGood()) return Lookup::kFailed;
  Row row;
  if (!result.NextRow(row)) return Lookup::kAbsent;
  return obj.FromRow(row) ? Lookup::kFound : Lookup::kAbsent;
}

bool ObjectDB::GetById(int id, record::Object& obj) const {
  return FindOne(std::string("SELECT * FROM ") + table_ + " WHERE id = " + std::to_string(id),
                 obj) == Lookup::kFound;
}

bool ObjectDB::Count(int& count) const {
  std::string sql = std::string("SELECT COUNT(*) AS c FROM ") + table_;
  bool const narrowed = !condition_->IsEmpty();
  if (narrowed) sql += condition_->GetSQL();
  Result result;
  bool ok = db_.Execute(sql, result) && result.IsGood();
  if (ok) {
    Row row;
    ok = result.NextRow(row);
    if (ok) count = row.GetField("c").AsInt(0);
  }
  if (narrowed) condition_->Clear();
  return ok;
}

Condition& ObjectDB::GetCondition() const { return *condition_; }

}  // namespace db
}  // namespace sharing
}  // namespace KOVA
