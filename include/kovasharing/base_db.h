// The connection to one SQLite database file, run under the system account.
#ifndef KOVASHARING_BASE_DB_H
#define KOVASHARING_BASE_DB_H

#include <map>
#include <string>
#include <vector>

#include "export.h"

namespace KOVA {
namespace sharing {
namespace db {

class BaseDBPrivate;
class Result;

class KOVA_EXPORT BaseDB {
 public:
  // Opens `path`, creating it with permission `mode` when missing. Never throws: check
  // IsGood().
  BaseDB(std::string const& path, unsigned int mode);
  virtual ~BaseDB();
  BaseDB(BaseDB const&) = delete;
  BaseDB& operator=(BaseDB const&) = delete;

  bool IsGood() const;
  // The file is owned by user "root" and group "root".
  bool IsRoot() const;
  // Moves the file into "/tmp/" as root so that the next opening starts over.
  bool MoveRootDB() const;

  bool Execute(std::string const& sql, Result* result = nullptr);
  bool Execute(std::string const& sql, Result& result);
  std::string GetLastError() const;
  std::string GetLastQuery() const;
  bool GetLastInsertId(int& id) const;

  bool Begin();
  bool Commit();  // rolls back when the commit fails
  bool Vacuum();
  bool ExecuteWALCheckPoint();

  // `text` made safe for the inside of a single-quoted literal; "" on failure.
  std::string Escape(std::string const& text) const;

  bool Insert(std::string const& table, std::vector<std::string> const& values);
  bool Update(std::string const& table, std::map<std::string, std::string> const& fields,
              int id);
  bool Delete(std::string const& table, int id);

 private:
  BaseDBPrivate* d_;
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
