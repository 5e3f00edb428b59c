// The generic record store: create, update, delete, fetch by id, count and query over one
// table, knowing records only through the record interface.
#ifndef KOVASHARING_OBJECT_DB_H
#define KOVASHARING_OBJECT_DB_H

#include <string>
#include <utility>
#include <vector>

#include "base_db.h"
#include "condition.h"
#include "export.h"
#include "object.h"
#include "result.h"

namespace KOVA {
namespace sharing {
namespace db {

// What a look-up of one row found: a legal record, nothing (no row, or a row that is not legal,
// such as an expired one), or a statement that could not run (a locked or damaged database).
// Callers that answer visitors tell the last apart, so that a failure is never taken for
// "no such link".
enum class Lookup { kFound, kAbsent, kFailed };

class KOVA_EXPORT ObjectDB {
 public:
  ObjectDB(BaseDB& db, char const* table);
  // Checkpoints the database's write-ahead log, then deletes the condition.
  virtual ~ObjectDB();
  ObjectDB(ObjectDB const&) = delete;
  ObjectDB& operator=(ObjectDB const&) = delete;

  virtual bool Create(record::Object& obj);
  virtual bool Update(record::Object const& obj);
  virtual bool Delete(int id);
  virtual bool Delete(record::Object const& obj);  // reaches an override of Delete(int)
  virtual bool GetById(int id, record::Object& obj) const;
  // Count and Query consume the condition: it is cleared after each call that found it set.
  virtual bool Count(int& count) const;
  template <class T>
  bool Query(std::vector<T>& out) const;

  Condition& GetCondition() const;

 protected:
  // Reads the first row of `sql` into `obj` (further rows are not read).
  Lookup FindOne(std::string const& sql, record::Object& obj) const;

  BaseDB& db_;
  char const* table_;
  int flag_;
  Condition* condition_;
};

template <class T>
bool ObjectDB::Query(std::vector<T>& out) const {
  std::string sql = std::string("SELECT * FROM ") + table_;
  bool const narrowed = !condition_->IsEmpty();
  if (narrowed) sql += condition_->GetSQL();
  Result result;
  bool ok = db_.Execute(sql, result) && result.IsGood();
  if (ok) {
    out.clear();
    Row row;
    while (result.NextRow(row)) {
      T item;
      if (item.FromRow(row)) out.push_back(std::move(item));
    }
  }
  if (narrowed) condition_->Clear();
  return ok;
}

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
