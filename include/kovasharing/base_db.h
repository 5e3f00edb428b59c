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
  // Begins a write transaction that takes the write lock at once (waiting for it like any
  // statement), so that rows read inside it cannot change before they are written back.
  bool BeginImmediate();
  bool Commit();  // rolls back when the commit fails
  bool Rollback();
  bool Vacuum();
  bool ExecuteWALCheckPoint();

  // `text` made safe for the inside of a single-quoted literal; "" on failure.
  std::string Escape(std::string const& text) const;

  bool Insert(std::string const& table, std::vector<std::string> const& values);
  bool Update(std::string const& table, std::map<std::string, std::string> const& fields, int id);
  bool Delete(std::string const& table, int id);

 private:
  BaseDBPrivate* d_;
};

// A read-check-write of rows as one write transaction: begun at once by the constructor and
// rolled back by the destructor unless Commit() succeeded. An application that reads an entry,
// changes it and stores it again does so inside one, so that no change another process made in
// between is lost. Make the stores used inside before it: a store checkpoints the log when it
// goes, which cannot happen inside a transaction.
class KOVA_EXPORT WriteTransaction {
 public:
  explicit WriteTransaction(BaseDB& db);
  ~WriteTransaction();
  WriteTransaction(WriteTransaction const&) = delete;
  WriteTransaction& operator=(WriteTransaction const&) = delete;

  // False when the transaction could not begin (the database is not good, or stayed locked).
  bool IsOpen() const { return open_; }
  // False when nothing was open or the commit failed (the work is then rolled back).
  bool Commit();

 private:
  BaseDB& db_;
  bool open_;
};

}  // namespace db
}  // namespace sharing
}  // namespace KOVA

#endif
