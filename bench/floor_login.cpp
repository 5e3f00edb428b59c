// The floor's login: a separate unit so that the one-request floor program links SQLite only.
#include <gcrypt.h>
#include <string.h>
#include <sys/random.h>
#include <time.h>

#include <string>

#include "floor.h"
#include "floor_internal.h"

namespace kovabench {

namespace {

std::string Sha1Hex(std::string const& input) {
  unsigned char digest[20];
  gcry_md_hash_buffer(GCRY_MD_SHA1, digest, input.data(), input.size());
  static char const kHex[] = "0123456789abcdef";
  std::string out(40, '0');
  for (int i = 0; i < 20; ++i) {
    out[2 * i] = kHex[digest[i] >> 4];
    out[2 * i + 1] = kHex[digest[i] & 15];
  }
  return out;
}

std::string RandomSessionId() {
  static char const kPool[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_";
  unsigned char raw[32];
  if (getrandom(raw, sizeof raw, 0) != static_cast<ssize_t>(sizeof raw)) return std::string();
  std::string id(32, 'x');
  for (int i = 0; i < 32; ++i) id[i] = kPool[raw[i] & 63];
  return id;
}

}  // namespace

int Floor::Login(char const* hash, char const* password, char const* session_id,
                 char const* address, std::string& session_id_out) {
  long const now = time(nullptr);
  if (Blocked(address)) {
    Checkpoint();
    return -8;
  }
  EntryRow entry;
  int result = 1;
  if (!LoadEntry(hash, entry)) {
    result = -3;
  } else if (!entry.enabled || (entry.start_at > 0 && entry.start_at > now) ||
             (entry.expire_at > 0 && now > entry.expire_at) ||
             (entry.expire_times > 0 && entry.use_count > entry.expire_times)) {
    result = -3;
  } else if (entry.expire_times > 0 && entry.use_count >= entry.expire_times) {
    result = -11;
  } else if (JsonString(entry.data, "protect_type") == "password" &&
             Sha1Hex(std::string(password) + JsonString(entry.data, "protect_password_salt")) !=
                 JsonString(entry.data, "protect_password")) {
    result = -9;
  }
  if (result != 1) {
    Checkpoint();
    return result;
  }

  // The use is counted: the link read again and written back whole, with its own checkpoint.
  EntryRow again;
  if (LoadEntry(hash, again)) {
    Run(sqlite3_mprintf(
        "UPDATE entry SET auto_gc='%q',data='%q',enabled='%q',expire_at='%q',expire_times='%q',"
        "hash='%q',owner_uid='%q',project_name='%q',start_at='%q',use_count='%ld' WHERE id=%d",
        again.columns[8].c_str(), again.columns[9].c_str(), again.columns[2].c_str(),
        again.columns[5].c_str(), again.columns[6].c_str(), again.columns[0].c_str(),
        again.columns[3].c_str(), again.columns[1].c_str(), again.columns[4].c_str(),
        again.use_count + 1, again.id));
  }
  Checkpoint();

  long const timeout = now + kLifetime;
  int session_row = 0;
  unsigned uid = 4294967295u;
  std::string sid;
  if (session_id != nullptr) {
    char* sql = sqlite3_mprintf("SELECT * FROM session WHERE session_id = '%q'", session_id);
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db_, sql, -1, &stmt, nullptr);
    sqlite3_free(sql);
    if (stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW &&
        sqlite3_column_int64(stmt, 4) > now) {
      session_row = sqlite3_column_int(stmt, 0);
      sid = Text(stmt, 1);
      uid = static_cast<unsigned>(sqlite3_column_int64(stmt, 2));
    }
    sqlite3_finalize(stmt);
  }
  if (session_row == 0) {
    for (int attempt = 0; attempt <= 50 && session_row == 0; ++attempt) {
      sid = RandomSessionId();
      if (Run(sqlite3_mprintf("INSERT INTO session VALUES (NULL,'%q','%u','%q','%ld')", sid.c_str(),
                              uid, address, timeout))) {
        session_row = static_cast<int>(sqlite3_last_insert_rowid(db_));
      }
    }
  }
  if (session_row == 0) result = -4;

  if (result == 1) {
    char* sql = sqlite3_mprintf("SELECT * FROM token WHERE session_id = %d AND entry_id = %d",
                                session_row, entry.id);
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db_, sql, -1, &stmt, nullptr);
    sqlite3_free(sql);
    int token_row = 0;
    if (stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW &&
        sqlite3_column_int64(stmt, 3) > now) {
      token_row = sqlite3_column_int(stmt, 0);
    }
    sqlite3_finalize(stmt);
    bool const stored =
        token_row != 0
            ? Run(sqlite3_mprintf(
                  "UPDATE token SET entry_id='%d',session_id='%d',timeout='%ld' WHERE id=%d",
                  entry.id, session_row, timeout, token_row))
            : Run(sqlite3_mprintf("INSERT INTO token VALUES (NULL,'%d','%d','%ld')", entry.id,
                                  session_row, timeout));
    if (!stored ||
        !Run(sqlite3_mprintf(
            "UPDATE session SET ip='%q',session_id='%q',timeout='%ld',uid='%u' WHERE id=%d",
            address, sid.c_str(), timeout, uid, session_row))) {
      result = -4;
    }
  }
  if (result == 1) {
    session_id_out = sid;
    ResetBlock(address);
  }
  // The token, session and entry stores of the login go away, each with its checkpoint.
  Checkpoint();
  Checkpoint();
  Checkpoint();
  return result;
}

}  // namespace kovabench
