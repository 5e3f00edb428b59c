#include "kovasharing/base_db.h"

#include <grp.h>
#include <kova_log.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "db/base_db_private.h"
#include "db/run_as.h"
#include "klibc.h"
#include "kovadb.h"
#include "kovasharing/result.h"

namespace KOVA {
namespace sharing {
namespace db {

namespace {

char const kSource[] = "base_db";

// The four connection settings, applied as one text in this order.
char const kInitPragmas[] =
    "PRAGMA cache_size = 5000;PRAGMA foreign_keys = ON;PRAGMA journal_mode = WAL;"
    "PRAGMA synchronous = NORMAL;";

// Escaping a value of up to this many bytes uses a buffer on the stack; longer values (large
// application data) take the heap rather than risk the stack.
constexpr size_t kStackEscapeBytes = size_t{16} * 1024;

}  // namespace

// ---------------------------------------------------------------- BaseDBPrivate

BaseDBPrivate::BaseDBPrivate(std::string const& path, unsigned int mode)
    : good_(true), path_(path), db_(nullptr) {
  if (!KLIBCFileExist(path_.c_str())) {
    IF_RUN_AS(KOVA_SYSTEM_UID, KOVA_SYSTEM_GID);
    if (!run_as_scope.IsSwitched()) {
      KOVA_LOG_PID(kSource, __LINE__, "failed to run as system\n\n");
      good_ = false;
      return;
    }
    if (KLIBCFileTouch(path_.c_str()) == -1) {
      KOVA_LOG_PID(kSource, __LINE__, "create database failed on %s\n\n", path_.c_str());
      good_ = false;
      return;
    }
    if (KOVAFSAclChmod(path_.c_str(), -1, mode) == -1) {
      KOVA_LOG_PID(kSource, __LINE__, "change mode failed on %s\n\n", path_.c_str());
      good_ = false;
      return;
    }
  }
  {
    IF_RUN_AS(KOVA_SYSTEM_UID, KOVA_SYSTEM_GID);
    if (!run_as_scope.IsSwitched()) {
      KOVA_LOG_PID(kSource, __LINE__, "failed to run as system\n\n");
      good_ = false;
      return;
    }
    db_ = KOVADBConnect("", "", "", path_.c_str());
  }
  if (db_ == nullptr) {
    KOVA_LOG_PID(kSource, __LINE__, "db connect failed\n\n");
    good_ = false;
    return;
  }
  if (!Init()) {
    KOVA_LOG_PID(kSource, __LINE__, "init failed\n\n");
    good_ = false;
  }
}

BaseDBPrivate::~BaseDBPrivate() {
  if (db_ != nullptr) {
    KOVADBClose(db_);
  }
}

bool BaseDBPrivate::Init() { return Execute(kInitPragmas, nullptr); }

bool BaseDBPrivate::IsGood() const { return db_ != nullptr && good_; }

bool BaseDBPrivate::IsRoot() const {
  struct stat st;
  if (KLIBCFileStat(path_.c_str(), 1, &st) != 0) {
    return false;
  }
  struct passwd* pw = getpwuid(st.st_uid);
  if (pw == nullptr) {
    return false;
  }
  std::string const user = pw->pw_name != nullptr ? pw->pw_name : "";
  struct group* gr = getgrgid(st.st_gid);
  if (gr == nullptr) {
    return false;
  }
  std::string const group = gr->gr_name != nullptr ? gr->gr_name : "";
  return user == "root" && group == "root";
}

bool BaseDBPrivate::MoveRootDB() const {
  IF_RUN_AS(0, 0);
  if (!run_as_scope.IsSwitched()) {
    KOVA_LOG(kSource, __LINE__, "Permssion denied. uid=%u", static_cast<unsigned>(getuid()));
    return false;
  }
  FILE* fp = KLIBCPopen("/bin/mv", "r", path_.c_str(), "/tmp/", static_cast<char const*>(nullptr));
  if (fp == nullptr) {
    KOVA_LOG(kSource, __LINE__, "KLIBCPopen failed, path=%s", path_.c_str());
    return false;
  }
  // A non-zero close value counts as moved; callers do not rely on the answer.
  return KLIBCPclose(fp) != 0;
}

bool BaseDBPrivate::Execute(std::string const& sql, Result* result) {
  DBResult_tag* handle = nullptr;
  bool ok = false;
  if (!IsGood()) {
    KOVA_LOG_PID(kSource, __LINE__, "db is not good.\n\n");
  } else {
    last_query_ = sql;
    IF_RUN_AS(KOVA_SYSTEM_UID, KOVA_SYSTEM_GID);
    if (!run_as_scope.IsSwitched()) {
      KOVA_LOG_PID(kSource, __LINE__, "failed to run as system\n\n");
    } else if (KOVADBExecute(db_, sql.c_str(), &handle) == -1) {
      char const* error = KOVADBErrorGet(db_);
      last_error_ = error != nullptr ? error : "";
    } else {
      ok = true;
    }
  }
  if (result != nullptr) {
    result->SetResult(handle);
  } else {
    KOVADBFreeResult(handle);
  }
  return ok;
}

bool BaseDBPrivate::Execute(std::string const& sql, Result& result) {
  return Execute(sql, &result);
}

std::string BaseDBPrivate::GetLastError() const { return last_error_; }

std::string BaseDBPrivate::GetLastQuery() const { return last_query_; }

bool BaseDBPrivate::GetLastInsertId(int& id) const {
  if (!IsGood()) {
    return false;
  }
  id = static_cast<int>(sqlite3_last_insert_rowid(KOVADBGetHandle(db_)));
  return true;
}

bool BaseDBPrivate::Begin() { return Execute("BEGIN TRANSACTION", nullptr); }

bool BaseDBPrivate::Commit() {
  if (Execute("COMMIT", nullptr)) {
    return true;
  }
  Execute("ROLLBACK", nullptr);
  return false;
}

bool BaseDBPrivate::ExecuteWALCheckPoint() { return Execute("PRAGMA wal_checkpoint;", nullptr); }

std::string BaseDBPrivate::Escape(std::string const& text) const {
  size_t const capacity = 2 * text.size();
  char stack_buffer[kStackEscapeBytes];
  std::vector<char> heap_buffer;
  char* buffer = stack_buffer;
  if (capacity > sizeof(stack_buffer)) {
    heap_buffer.resize(capacity);
    buffer = heap_buffer.data();
  }
  if (KOVADBEscapeStringEX2(0, buffer, capacity, text.data(), text.size()) == -1) {
    KOVA_LOG_PID(kSource, __LINE__, "escape failed\n\n");
    return std::string();
  }
  return std::string(buffer);
}

bool BaseDBPrivate::Insert(std::string const& table, std::vector<std::string> const& values) {
  // The leading NULL lets SQLite number the row; the values fill the remaining columns.
  std::string sql = "INSERT INTO " + table + " VALUES (NULL,";
  for (size_t i = 0; i < values.size(); ++i) {
    if (i > 0) sql += ",";
    sql += "'" + Escape(values[i]) + "'";
  }
  sql += ")";
  return Execute(sql, nullptr);
}

bool BaseDBPrivate::Update(std::string const& table,
                           std::map<std::string, std::string> const& fields, int id) {
  std::string sql = "UPDATE " + table + " SET ";
  bool first = true;
  for (auto const& field : fields) {
    if (field.first == "id") continue;  // a record's map may carry its own row id
    if (!first) sql += ",";
    first = false;
    sql += Escape(field.first) + "='" + Escape(field.second) + "'";
  }
  sql += " WHERE id=" + std::to_string(id);
  return Execute(sql, nullptr);
}

bool BaseDBPrivate::Delete(std::string const& table, int id) {
  return Execute("DELETE FROM " + table + " WHERE id=" + std::to_string(id), nullptr);
}

// ---------------------------------------------------------------- BaseDB

BaseDB::BaseDB(std::string const& path, unsigned int mode) : d_(new BaseDBPrivate(path, mode)) {}

BaseDB::~BaseDB() { delete d_; }

bool BaseDB::IsGood() const { return d_->IsGood(); }

bool BaseDB::IsRoot() const { return d_->IsRoot(); }

bool BaseDB::MoveRootDB() const { return d_->MoveRootDB(); }

bool BaseDB::Execute(std::string const& sql, Result* result) { return d_->Execute(sql, result); }

bool BaseDB::Execute(std::string const& sql, Result& result) { return d_->Execute(sql, result); }

std::string BaseDB::GetLastError() const { return d_->GetLastError(); }

std::string BaseDB::GetLastQuery() const { return d_->GetLastQuery(); }

bool BaseDB::GetLastInsertId(int& id) const { return d_->GetLastInsertId(id); }

bool BaseDB::Begin() { return d_->Begin(); }

bool BaseDB::BeginImmediate() { return d_->Execute("BEGIN IMMEDIATE TRANSACTION", nullptr); }

bool BaseDB::Commit() { return d_->Commit(); }

bool BaseDB::Rollback() { return d_->Execute("ROLLBACK", nullptr); }

bool BaseDB::Vacuum() { return d_->Execute("VACUUM", nullptr); }

bool BaseDB::ExecuteWALCheckPoint() { return d_->ExecuteWALCheckPoint(); }

std::string BaseDB::Escape(std::string const& text) const { return d_->Escape(text); }

bool BaseDB::Insert(std::string const& table, std::vector<std::string> const& values) {
  return d_->Insert(table, values);
}

bool BaseDB::Update(std::string const& table, std::map<std::string, std::string> const& fields,
                    int id) {
  return d_->Update(table, fields, id);
}

bool BaseDB::Delete(std::string const& table, int id) { return d_->Delete(table, id); }

// ---------------------------------------------------------------- WriteTransaction

WriteTransaction::WriteTransaction(BaseDB& db) : db_(db), open_(db.BeginImmediate()) {}

WriteTransaction::~WriteTransaction() {
  if (open_) db_.Rollback();
}

bool WriteTransaction::Commit() {
  if (!open_) return false;
  open_ = false;
  return db_.Commit();
}

}  // namespace db
}  // namespace sharing
}  // namespace KOVA
