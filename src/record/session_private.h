// The session record proper. The row id is the record interface's own id.
#ifndef KOVASHARING_INTERNAL_SESSION_PRIVATE_H
#define KOVASHARING_INTERNAL_SESSION_PRIVATE_H

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "kovasharing/object.h"

namespace KOVA {
namespace sharing {
namespace record {

class SessionPrivate : public Object {
 public:
  SessionPrivate();
  SessionPrivate(SessionPrivate const& other) = default;
  // Strings are moved out and left empty in `other`; numbers are copied.
  SessionPrivate(SessionPrivate&& other) noexcept;
  SessionPrivate& operator=(SessionPrivate const& other) = default;
  SessionPrivate& operator=(SessionPrivate&& other) noexcept;
  ~SessionPrivate() override;

  std::vector<std::string> GetFieldList() const override;
  std::map<std::string, std::string> GetFieldMap() const override;
  bool IsLegal() const override;
  void ToJSON(Json::Value& out) const override;
  bool FromRow(db::Row const& row) override;

  std::string session_id_;
  unsigned int uid_;  // all bits set: no account
  std::string ip_;
  long timeout_;

 private:
  void TakeFrom(SessionPrivate& other);
};

}  // namespace record
}  // namespace sharing
}  // namespace KOVA

#endif
