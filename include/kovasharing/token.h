// One visitor session admitted to one link until a given time. The handle owns one private
// record.
#ifndef KOVASHARING_TOKEN_H
#define KOVASHARING_TOKEN_H

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "export.h"
#include "object.h"
#include "object_db.h"

namespace KOVA {
namespace sharing {
namespace db {
class Row;
}
namespace record {

class TokenPrivate;

class KOVA_EXPORT Token {
 public:
  Token();
  Token(Token const& other);
  // The new handle takes the fields; `other` keeps its own record.
  Token(Token&& other) noexcept;
  Token& operator=(Token const& other);
  Token& operator=(Token&& other) noexcept;
  virtual ~Token();

  Object& GetObject();
  Object const& GetCObject() const;

  std::vector<std::string> GetFieldList() const;
  std::map<std::string, std::string> GetFieldMap() const;
  // Names an entry and a session and has not expired.
  bool IsLegal() const;
  void ToJSON(Json::Value& out) const;
  bool FromRow(db::Row const& row);

  int get_id() const;
  Token& set_id(int id);
  int get_entry_id() const;
  Token& set_entry_id(int entry_id);
  // The session's row id, not its session id text.
  int get_session_id() const;
  Token& set_session_id(int session_id);
  long get_timeout() const;
  Token& set_timeout(long timeout);

 private:
  TokenPrivate* d_;
};

}  // namespace record

namespace db {
extern template KOVA_EXPORT bool ObjectDB::Query<record::Token>(
    std::vector<record::Token>& out) const;
}  // namespace db

}  // namespace sharing
}  // namespace KOVA

#endif
