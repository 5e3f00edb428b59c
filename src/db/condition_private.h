// The filters, sort keys and row range behind Condition, rendered through the database's
// escape routine.
#ifndef KOVASHARING_INTERNAL_CONDITION_PRIVATE_H
#define KOVASHARING_INTERNAL_CONDITION_PRIVATE_H

#include <string>
#include <vector>

namespace KOVA {
namespace sharing {
namespace db {

class BaseDB;

class ConditionPrivate {
 public:
  struct _tag_where__ {
    std::string column;      // empty for a free-form filter
    std::string value;       // compared with the column for equality
    std::string expression;  // the free-form filter, used when column is empty
    bool is_and;             // joined to the previous filter with AND (else OR)
  };
  struct _tag_order__ {
    std::string column;
    bool ascending;
  };

  explicit ConditionPrivate(BaseDB& db);
  virtual ~ConditionPrivate();
  ConditionPrivate(ConditionPrivate const&) = delete;
  ConditionPrivate& operator=(ConditionPrivate const&) = delete;

  void Where(std::string const& expression);
  void Where(std::string const& column, std::string const& value);
  void OrWhere(std::string const& expression);
  void OrWhere(std::string const& column, std::string const& value);
  void OrderBy(std::string const& column, bool ascending);
  void Limit(int offset, int limit);
  void Page(int page, int size);

  std::string GetSQL() const;
  void Clear();
  bool IsEmpty() const;

 private:
  BaseDB& db_;
  std::vector<_tag_where__> wheres_;
  std::vector<_tag_order__> orders_;
  int offset_;
  int limit_;
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
