// A visitor's login state: the session id handed to the calling program, the account it acts
// for, the address it came from and its expiry. The handle owns one private record.
#ifndef KOVASHARING_SESSION_H
#define KOVASHARING_SESSION_H

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

class SessionPrivate;

class KOVA_EXPORT Session {
 public:
  Session();
  Session(Session const& other);
  // The new handle takes the fields; `other` keeps its own record (strings emptied).
  Session(Session&& other) noexcept;
  Session& operator=(Session const& other);
  Session& operator=(Session&& other) noexcept;
  virtual ~Session();

  Object& GetObject();
  Object const& GetCObject() const;

  std::vector<std::string> GetFieldList() const;
  std::map<std::string, std::string> GetFieldMap() const;
  // Has an id and an address and has not expired.
  bool IsLegal() const;
  void ToJSON(Json::Value& out) const;
  bool FromRow(db::Row const& row);

  int get_id() const;
  Session& set_id(int id);
  std::string get_session_id() const;
  Session& set_session_id(std::string const& session_id);
  unsigned int get_uid() const;
  Session& set_uid(unsigned int uid);
  std::string get_ip() const;
  Session& set_ip(std::string const& ip);
  long get_timeout() const;
  Session& set_timeout(long timeout);

 private:
  SessionPrivate* d_;
};

}  // namespace record

namespace db {
extern template KOVA_EXPORT bool ObjectDB::Query<record::Session>(
    std::vector<record::Session>& out) const;
}  // namespace db

}  // namespace sharing
}  // namespace KOVA

#endif
