// WHERE, ORDER BY, LIMIT and OFFSET of a store's next Count or Query.
#ifndef KOVASHARING_CONDITION_H
#define KOVASHARING_CONDITION_H

#include <string>

#include "export.h"

namespace KOVA {
namespace sharing {
namespace db {

class BaseDB;
class ConditionPrivate;

class KOVA_EXPORT Condition {
 public:
  explicit Condition(BaseDB& db);
  virtual ~Condition();
  Condition(Condition const&) = delete;
  Condition& operator=(Condition const&) = delete;

  Condition& Where(std::string const& expression);  // free-form, joined with AND
  Condition& Where(std::string const& column, std::string const& value);
  Condition& OrWhere(std::string const& expression);  // free-form, joined with OR
  // Joined with AND, exactly like the two-argument Where (kept for callers that rely on it).
  Condition& OrWhere(std::string const& column, std::string const& value);
  Condition& OrderBy(std::string const& column, bool ascending);
  Condition& Limit(int offset, int limit);
  Condition& Page(int page, int size);  // pages count from 1

  std::string GetSQL() const;
  void Clear();
  bool IsEmpty();

 private:
  ConditionPrivate* d_;
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
