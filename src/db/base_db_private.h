// The connection behind BaseDB: one platform database handle, the last statement and the last
// error, and the row statements built as SQL text.
#ifndef KOVASHARING_INTERNAL_BASE_DB_PRIVATE_H
#define KOVASHARING_INTERNAL_BASE_DB_PRIVATE_H

#include <map>
#include <string>
#include <vector>

struct KOVADB;

namespace KOVA {
namespace sharing {
namespace db {

class Result;

class BaseDBPrivate {
 public:
  BaseDBPrivate(std::string const& path, unsigned int mode);
  virtual ~BaseDBPrivate();
  BaseDBPrivate(BaseDBPrivate const&) = delete;
  BaseDBPrivate& operator=(BaseDBPrivate const&) = delete;

  bool IsGood() const;
  bool IsRoot() const;
  bool MoveRootDB() const;

  bool Execute(std::string const& sql, Result* result);
  bool Execute(std::string const& sql, Result& result);
  std::string GetLastError() const;
  std::string GetLastQuery() const;
  bool GetLastInsertId(int& id) const;

  bool Begin();
  bool Commit();
  bool ExecuteWALCheckPoint();

  std::string Escape(std::string const& text) const;

  bool Insert(std::string const& table, std::vector<std::string> const& values);
  bool Update(std::string const& table, std::map<std::string, std::string> const& fields, int id);
  bool Delete(std::string const& table, int id);

 private:
  bool Init();

  bool good_;
  std::string path_;
  KOVADB* db_;
  std::string last_error_;
  std::string last_query_;
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
