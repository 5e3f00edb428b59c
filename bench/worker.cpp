// The benchmark's concurrency worker: logs new visitors in until its time is up, doing the
// library's work or the record work of the floor.
#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <json/reader.h>
#include <kovasharing/kovasharing.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench_common.h"
#include "floor.h"
#include "kova_paths.h"
#include "kovadb.h"

extern char** environ;

namespace kovabench {

namespace {

// The record work the library does around the floor's statements for one login to a password
// link by a new visitor, done with the library's own classes: every column of the link becomes
// a `Field` with one conversion, the link's JSON data is decoded once and encoded once (for
// the statement that counts the use only while the link is unchanged), the new session and
// token are turned into their column lists and maps, and each of the eleven statements is
// bracketed by the guard's look at the current identity (which finds the system account
// already in place). Worker kind "floor-objects" runs the floor's login followed by this
// work: a lower bound for the library's records, measured beside the floor.
class RecordWork {
 public:
  bool Load(std::string const& hash) {
    sqlite3* db = nullptr;
    bool ok =
        sqlite3_open_v2(KOVA_SHARING_DB_FILE, &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK;
    // Eight of these start at once, while the log may still be in recovery: wait, not fail.
    if (ok) sqlite3_busy_timeout(db, 5000);
    sqlite3_stmt* stmt = nullptr;
    ok = ok && sqlite3_prepare_v2(db, "SELECT * FROM entry WHERE hash = ?1", -1, &stmt, nullptr) ==
                   SQLITE_OK;
    if (ok) sqlite3_bind_text(stmt, 1, hash.c_str(), -1, SQLITE_TRANSIENT);
    ok = ok && sqlite3_step(stmt) == SQLITE_ROW && sqlite3_column_count(stmt) == 11;
    for (int i = 0; ok && i < 11; ++i) {
      unsigned char const* text = sqlite3_column_text(stmt, i);
      ok = text != nullptr;
      if (ok) columns_[i] = reinterpret_cast<char const*>(text);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    Json::Value app(Json::objectValue);
    app["path"] = "/bench/folder";
    entry_.set_hash(hash).set_project_name("bench").set_owner_uid(1000).set_app(app);
    entry_.set_protect_type(Entry::PROTECT_PASSWORD);
    entry_.set_protect_password(kPassword, true, Entry::ENCRYPT_ALGO_DEFAULT);
    return ok;
  }

  // Returns a value drawn from every result, so that none of the work can be left out.
  size_t Run(std::string const& session_id, long timeout) {
    size_t sum = 0;
    for (int read = 0; read < 1; ++read) {
      using KOVA::sharing::db::Field;
      sum += Field(columns_[0]).AsInt(0) + Field(columns_[3]).AsBool(true) +
             Field(columns_[4]).AsUInt(0) + Field(columns_[5]).AsTime(0) +
             Field(columns_[6]).AsTime(0) + Field(columns_[7]).AsInt(0) +
             Field(columns_[8]).AsInt(0) + Field(columns_[9]).AsInt(1);
      sum += Field(columns_[1]).AsString("").size() + Field(columns_[2]).AsString("").size();
      std::string const text = Field(columns_[10]).AsString("");
      Json::Value data;
      Json::Reader reader;
      if (!reader.parse(text, data, true)) return 0;
      for (char const* key :
           {"protect_type", "protect_title", "protect_password", "protect_password_algo",
            "protect_password_salt", "redirect_type", "redirect_uri"}) {
        sum += data[key].asString().size();
      }
      sum += data["enable_match_ip"].asBool() + data["app"].size() + data["private_data"].size();
    }
    sum += entry_.GetFieldMap().size();
    Session session;
    session.set_session_id(session_id).set_uid(KOVA::sharing::UID_ERR).set_ip(kAddress);
    session.set_timeout(timeout);
    sum += session.GetFieldList().size() + session.GetFieldMap().size();
    Token token;
    token.set_session_id(2).set_entry_id(1).set_timeout(timeout);
    sum += token.GetFieldList().size();
    for (int statement = 0; statement < 11; ++statement) {
      sum += geteuid() + getegid() + geteuid() + getegid();
    }
    return sum;
  }

 private:
  std::string columns_[11];
  Entry entry_;
};

}  // namespace

int Worker(int argc, char** argv) {
  // worker KIND SECONDS START_EPOCH VISITOR_FILE OUT
  if (argc != 7) return 2;
  std::string const kind = argv[2];
  bool const library = kind.compare(0, 5, "floor") != 0;
  double const seconds = atof(argv[3]);
  double const start = atof(argv[4]);
  std::string hash, sid;
  if (!ReadVisitor(argv[5], hash, sid)) return 1;
  setenv("REMOTE_ADDR", kAddress, 1);
  FILE* f = fopen(argv[6], "w");
  if (f == nullptr) return 1;
  // "library-system": the library in a process that already is the system account, so that
  // its privilege guard has nothing to switch; this shows what the switching costs.
  if (kind == "library-system" && (setresgid(1, 1, 1) != 0 || setresuid(1, 1, 1) != 0)) return 1;

  bool const objects = kind == "floor-objects";
  RecordWork work;
  if (objects && !work.Load(hash)) return 1;

  kovabench::Floor floor;
  if (library) {
    SharingDB::Instance();
  } else if (!floor.Open(KOVA_SHARING_DB_FILE, KOVA_AUTOBLOCK_DB_FILE)) {
    return 1;
  }
  while (WallNow() < start) usleep(1000);
  double const end = Now() + seconds;
  long ok = 0, failed = 0;
  // New visitors each time: a session and a token are made per login.
  _tag_sharing_login_params const login = {hash.c_str(), kPassword, nullptr, nullptr, nullptr};
  std::string id;
  while (Now() < end) {
    int code = library ? KOVA::KovaSharingLogin(id, &login, false)
                       : floor.Login(hash.c_str(), kPassword, nullptr, kAddress, id);
    if (objects && code == 1 && work.Run(id, time(nullptr) + 86400) == 0) code = 0;
    ++(code == 1 ? ok : failed);
  }
  unsigned long restarts = 0;
  unsigned long long restart_us = 0;
  KOVADBCheckpointStats(&restarts, &restart_us);
  fprintf(f, "%ld %ld %ld %lu %llu\n", ok, failed, library ? failed : floor.busy_failures(),
          restarts, restart_us);
  fclose(f);
  return 0;
}

}  // namespace kovabench
