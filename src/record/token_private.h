// The token record proper. The row id is the record interface's own id.
#ifndef KOVASHARING_INTERNAL_TOKEN_PRIVATE_H
#define KOVASHARING_INTERNAL_TOKEN_PRIVATE_H

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "kovasharing/object.h"

namespace KOVA {
namespace sharing {
namespace record {

class TokenPrivate : public Object {
 public:
  TokenPrivate();
  TokenPrivate(TokenPrivate const& other) = default;
  // The text is moved out and left empty in `other`; numbers are copied.
  TokenPrivate(TokenPrivate&& other) noexcept;
  TokenPrivate& operator=(TokenPrivate const& other) = default;
  TokenPrivate& operator=(TokenPrivate&& other) noexcept;
  ~TokenPrivate() override;

  std::vector<std::string> GetFieldList() const override;
  std::map<std::string, std::string> GetFieldMap() const override;
  bool IsLegal() const override;
  void ToJSON(Json::Value& out) const override;
  bool FromRow(db::Row const& row) override;

  std::string reserved_;  // travels with the record; never set, stored or shown
  int entry_id_;          // row id of the entry
  int session_id_;        // row id of the session
  long timeout_;

 private:
  void TakeFrom(TokenPrivate& other);
};

}  // namespace record
}  // namespace sharing
}  // namespace KOVA

#endif
