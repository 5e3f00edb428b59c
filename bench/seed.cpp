// The benchmark's seed role: a fresh database with many rows and one visitor.
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

// Unique text of `length` characters for row `i` (hash or session id), spread over the
// alphabet so that index pages fill as they do with random keys.
std::string Key(uint64_t i, size_t length, char tag) {
  static char const kPool[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  uint64_t x = i * 0x9E3779B97F4A7C15ull + 0x632BE59BD9B4E019ull;
  std::string key(length, tag);
  for (size_t p = 1; p < length; ++p) {
    key[p] = kPool[x % 62];
    x = x / 62 ^ (x << 17) ^ i;
  }
  key.back() = kPool[i % 62];
  return key + std::to_string(i);
}

}  // namespace

int Seed(long rows, char const* out) {
  RemoveDatabases();
  SharingDB& sdb = SharingDB::Instance();
  if (!sdb.IsGood()) {
    fprintf(stderr, "seed: the sharing database cannot be opened\n");
    return 1;
  }
  // The link the figures use, made by the library like any application's link.
  std::string hash;
  {
    EntryDB entries(sdb);
    Json::Value app(Json::objectValue);
    app["path"] = "/bench/folder";
    Entry entry;
    entry.set_project_name("bench").set_owner_uid(1000).set_app(app);
    entry.set_protect_type(Entry::PROTECT_PASSWORD);
    entry.set_protect_password(kPassword, true, Entry::ENCRYPT_ALGO_DEFAULT);
    if (!entries.CreateWithHash(entry)) {
      fprintf(stderr, "seed: link not created\n");
      return 1;
    }
    hash = entry.get_hash();
  }
  // The other rows: written straight into the tables, shaped like the library's own rows
  // (the link's data text is copied from the link above).
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(KOVA_SHARING_DB_FILE, &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    return 1;
  }
  sqlite3_busy_timeout(db, 5000);
  std::string data;
  {
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, "SELECT data FROM entry", -1, &stmt, nullptr);
    if (sqlite3_step(stmt) == SQLITE_ROW) {
      data = reinterpret_cast<char const*>(sqlite3_column_text(stmt, 0));
    }
    sqlite3_finalize(stmt);
  }
  long const now = time(nullptr);
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  sqlite3_stmt* entry_insert = nullptr;
  sqlite3_stmt* session_insert = nullptr;
  sqlite3_stmt* token_insert = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO entry VALUES (NULL,?1,'bench-fill',1,?2,0,0,0,0,1,?3)", -1,
                     &entry_insert, nullptr);
  sqlite3_prepare_v2(db, "INSERT INTO session VALUES (NULL,?1,4294967295,?2,?3)", -1,
                     &session_insert, nullptr);
  sqlite3_prepare_v2(db, "INSERT INTO token VALUES (NULL,?1,?2,?3)", -1, &token_insert, nullptr);
  for (long i = 1; i < rows; ++i) {  // the bench link and its session and token are one row each
    std::string const h = Key(i, 9, 'h');
    sqlite3_bind_text(entry_insert, 1, h.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(entry_insert, 2, 1000 + i % 50);
    sqlite3_bind_text(entry_insert, 3, data.c_str(), -1, SQLITE_STATIC);
    std::string const s = Key(i, 32, 's');
    std::string const ip = "10." + std::to_string(i % 250) + ".0." + std::to_string(i % 200);
    sqlite3_bind_text(session_insert, 1, s.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(session_insert, 2, ip.c_str(), -1, SQLITE_TRANSIENT);
    // A tenth of the rows have expired and wait for a purge, as on a live appliance.
    sqlite3_bind_int64(session_insert, 3, now + (i % 10 ? 86400 : -3600));
    sqlite3_bind_int64(token_insert, 1, 2 + (i * 7919) % rows);
    sqlite3_bind_int64(token_insert, 2, 2 + (i * 104729) % rows);
    sqlite3_bind_int64(token_insert, 3, now + (i % 10 ? 86400 : -3600));
    for (sqlite3_stmt* stmt : {entry_insert, session_insert, token_insert}) {
      if (sqlite3_step(stmt) != SQLITE_DONE) {
        fprintf(stderr, "seed: %s\n", sqlite3_errmsg(db));
        return 1;
      }
      sqlite3_reset(stmt);
    }
  }
  sqlite3_finalize(entry_insert);
  sqlite3_finalize(session_insert);
  sqlite3_finalize(token_insert);
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_exec(db, "ANALYZE", nullptr, nullptr, nullptr);
  sqlite3_exec(db, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr);
  sqlite3_close(db);

  // The visitor: logged in once by the library; every figure reuses this session.
  setenv("REMOTE_ADDR", kAddress, 1);
  std::string sid;
  _tag_sharing_login_params const params = {hash.c_str(), kPassword, nullptr, nullptr, nullptr};
  int const code = KOVA::KovaSharingLogin(sid, &params, false);
  if (code != 1) {
    fprintf(stderr, "seed: login answered %d\n", code);
    return 1;
  }
  FILE* f = fopen(out, "w");
  if (f == nullptr) return 1;
  fprintf(f, "%s %s\n", hash.c_str(), sid.c_str());
  fclose(f);
  return 0;
}

}  // namespace kovabench
