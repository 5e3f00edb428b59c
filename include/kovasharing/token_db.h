// The store of tokens (table "token"), each joining one session row to one entry row until
// its timeout: the generic record operations plus the look-up by session and entry and the
// purges.
#ifndef KOVASHARING_TOKEN_DB_H
#define KOVASHARING_TOKEN_DB_H

#include <vector>

#include "entry.h"
#include "export.h"
#include "session.h"
#include "token.h"

namespace KOVA {
namespace sharing {
namespace db {

class BaseDB;
class Condition;
class TokenDBPrivate;

class KOVA_EXPORT TokenDB {
 public:
  explicit TokenDB(BaseDB& db);
  virtual ~TokenDB();
  TokenDB(TokenDB const&) = delete;
  TokenDB& operator=(TokenDB const&) = delete;

  bool Create(record::Token& token);
  bool Update(record::Token const& token);
  bool Delete(int id);
  bool Delete(record::Token const& token);
  bool GetById(int id, record::Token& token) const;
  bool Count(int& count) const;
  Condition& GetCondition() const;
  bool Query(std::vector<record::Token>& out) const;

  // Deletes tokens whose timeout has passed, on about `probability` of the calls.
  bool PurgeExpired(float probability);
  bool PurgeByEntry(record::Entry const& entry);
  // Reads only the first row that joins the two; false when it has expired, even if a live
  // row for the same pair follows.
  bool GetBySessionEntry(record::Session const& session, record::Entry const& entry,
                         record::Token& token) const;

 private:
  TokenDBPrivate* d_;
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
