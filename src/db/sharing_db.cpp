#include "kovasharing/sharing_db.h"

#include <kova_log.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

#include "db/run_as.h"
#include "db/sharing_db_private.h"
#include "kova_paths.h"
#include "kovasharing/constants.h"
#include "kovasharing/result.h"

namespace KOVA {
namespace sharing {
namespace db {

namespace {

char const kSource[] = "sharing_db";
unsigned int const kSharingDBMode = 432;  // 0660: owner and group read and write
int const kNewestVersion = 3;

}  // namespace

// ---------------------------------------------------------------- SharingDBPrivate

SharingDBPrivate::SharingDBPrivate(SharingDB* db) : pdb_(db), good_(false) { good_ = Migration(); }

SharingDBPrivate::~SharingDBPrivate() {}

bool SharingDBPrivate::Migration() {
  Result result;
  if (!pdb_->Execute("PRAGMA user_version", result)) {
    KOVA_LOG_PID(kSource, __LINE__, "Failed [%s], err=%m\n\n",
                 "!pdb_->Execute(\"PRAGMA user_version\", result)");
    return false;
  }
  Row row;
  if (!result.NextRow(row) || !row.IsGood()) {
    KOVA_LOG_PID(kSource, __LINE__, "user_version is not correct\n\n");
    return false;
  }
  int const current = row.GetField("user_version").AsInt(0);
  // A database newer than this library is used as it is.
  if (current >= kNewestVersion) {
    return true;
  }
  for (int version = current + 1; version <= kNewestVersion; ++version) {
    if (!MigrateTo(version)) {
      KOVA_LOG_PID(kSource, __LINE__, "cannot migrate from %d to %d\n\n", version - 1, version);
      return false;
    }
  }
  return true;
}

bool SharingDBPrivate::MigrateTo(int version) {
  std::string const file = std::string(KOVA_SCHEMA_DIR) + "/" + std::to_string(version) + ".sql";
  std::ifstream in;
  int open_errno = 0;
  {
    IF_RUN_AS(KOVA_SYSTEM_UID, KOVA_SYSTEM_GID);
    if (!run_as_scope.IsSwitched()) {
      KOVA_LOG_PID(kSource, __LINE__, "failed to run as system\n\n");
      return false;
    }
    errno = 0;
    in.open(file.c_str(), std::ios::in | std::ios::binary);
    open_errno = errno;
  }
  if (!in.is_open()) {
    errno = open_errno;
    KOVA_LOG_PID(kSource, __LINE__, "file %s open failed %m.\n\n", file.c_str());
    return false;
  }
  // Each script brings its own transaction and sets its own user_version.
  std::stringstream sstr;
  sstr << in.rdbuf();
  if (!pdb_->Execute(sstr.str().c_str())) {
    KOVA_LOG_PID(kSource, __LINE__, "Failed [%s], err=%m\n\n",
                 "!pdb_->Execute(sstr.str().c_str())");
    return false;
  }
  in.close();
  return true;
}

// ---------------------------------------------------------------- SharingDB

SharingDB::SharingDB() : BaseDB(SZF_SHARING_DB_PATH, kSharingDBMode), p_(nullptr) {
  p_ = new SharingDBPrivate(this);
}

SharingDB::SharingDB(std::string const& path) : BaseDB(path, kSharingDBMode), p_(nullptr) {
  p_ = new SharingDBPrivate(this);
}

SharingDB::~SharingDB() { delete p_; }

SharingDB& SharingDB::Instance() {
  static SharingDB instance;
  return instance;
}

bool SharingDB::IsGood() const { return p_->IsGood() && BaseDB::IsGood(); }

bool SharingDB::IsRoot() const { return BaseDB::IsRoot(); }

bool SharingDB::MoveRootDB() const { return BaseDB::MoveRootDB(); }

}  // namespace db
}  // namespace sharing
}  // namespace KOVA
