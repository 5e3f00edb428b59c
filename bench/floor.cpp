#include "floor.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include <string>

#include "floor_internal.h"

namespace kovabench {

Floor::~Floor() { Close(); }

void Floor::Close() {
  sqlite3_finalize(block_count_);
  sqlite3_finalize(block_reset_);
  block_count_ = block_reset_ = nullptr;
  sqlite3_close_v2(block_);
  sqlite3_close_v2(db_);
  block_ = db_ = nullptr;
}

bool Floor::Open(char const* sharing_path, char const* block_path) {
  if (sqlite3_open_v2(sharing_path, &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    return false;
  }
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);
  if (sqlite3_exec(db_, kPragmas, nullptr, nullptr, nullptr) != SQLITE_OK) return false;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db_, "PRAGMA user_version", -1, &stmt, nullptr) != SQLITE_OK) {
    return false;
  }
  bool const versioned = sqlite3_step(stmt) == SQLITE_ROW && sqlite3_column_int(stmt, 0) >= 2;
  sqlite3_finalize(stmt);
  if (!versioned) return false;
  if (block_path == nullptr) return true;  // the authorization check needs no failed-login store

  if (sqlite3_open_v2(block_path, &block_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    return false;
  }
  sqlite3_busy_timeout(block_, kBusyTimeoutMs);
  if (sqlite3_exec(block_, "PRAGMA journal_mode = WAL;", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return false;
  }
  return sqlite3_prepare_v2(block_, "SELECT COUNT(*) FROM fail_login WHERE addr = ?1 AND time > ?2",
                            -1, &block_count_, nullptr) == SQLITE_OK &&
         sqlite3_prepare_v2(block_, "DELETE FROM fail_login WHERE addr = ?1", -1, &block_reset_,
                            nullptr) == SQLITE_OK;
}

bool Floor::Run(char* sql) {
  if (sql == nullptr) return false;
  int const rc = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
  sqlite3_free(sql);
  if (rc == SQLITE_OK) return true;
  ++failures_;
  int const primary = rc & 0xff;
  if (primary == SQLITE_BUSY || primary == SQLITE_LOCKED) ++busy_failures_;
  return false;
}

bool Floor::Checkpoint() { return Run(sqlite3_mprintf("PRAGMA wal_checkpoint;")); }

bool Floor::LoadEntry(char const* hash, EntryRow& entry) {
  char* sql = sqlite3_mprintf("SELECT * FROM entry WHERE hash = '%q'", hash);
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(db_, sql, -1, &stmt, nullptr);
  sqlite3_free(sql);
  bool found = false;
  if (rc == SQLITE_OK && (rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    entry.id = sqlite3_column_int(stmt, 0);
    for (int i = 0; i < 10; ++i) entry.columns[i] = Text(stmt, i + 1);
    entry.enabled = sqlite3_column_int64(stmt, 3);
    entry.start_at = sqlite3_column_int64(stmt, 5);
    entry.expire_at = sqlite3_column_int64(stmt, 6);
    entry.expire_times = sqlite3_column_int64(stmt, 7);
    entry.use_count = sqlite3_column_int64(stmt, 8);
    entry.data = entry.columns[9];
    found = true;
  } else if (rc != SQLITE_DONE) {
    ++failures_;
    if ((rc & 0xff) == SQLITE_BUSY) ++busy_failures_;
  }
  sqlite3_finalize(stmt);
  return found;
}

bool Floor::Blocked(char const* address) {
  sqlite3_reset(block_count_);
  sqlite3_bind_text(block_count_, 1, address, -1, SQLITE_TRANSIENT);
  sqlite3_bind_int64(block_count_, 2, static_cast<sqlite3_int64>(time(nullptr)) - kBlockWindow);
  int const rc = sqlite3_step(block_count_);
  long const count = rc == SQLITE_ROW ? sqlite3_column_int64(block_count_, 0) : 0;
  sqlite3_reset(block_count_);
  return count >= kBlockMaxFailures;
}

void Floor::ResetBlock(char const* address) {
  sqlite3_reset(block_reset_);
  sqlite3_bind_text(block_reset_, 1, address, -1, SQLITE_TRANSIENT);
  sqlite3_step(block_reset_);
  sqlite3_reset(block_reset_);
}

int Floor::Authorize(char const* hash, char const* session_id, char const* address) {
  long const now = time(nullptr);
  // The session.
  char* sql = sqlite3_mprintf("SELECT * FROM session WHERE session_id = '%q'", session_id);
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(db_, sql, -1, &stmt, nullptr);
  sqlite3_free(sql);
  int session_row = 0;
  unsigned uid = 0;
  std::string ip;
  long session_timeout = 0;
  if (stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW) {
    session_row = sqlite3_column_int(stmt, 0);
    uid = static_cast<unsigned>(sqlite3_column_int64(stmt, 2));
    ip = Text(stmt, 3);
    session_timeout = sqlite3_column_int64(stmt, 4);
  }
  sqlite3_finalize(stmt);
  int result = 1;
  EntryRow entry;
  if (session_row == 0 || session_timeout <= now) {
    result = -5;
  } else if (!LoadEntry(hash, entry)) {
    result = -7;
  }
  int token_row = 0;
  if (result == 1) {
    sql = sqlite3_mprintf("SELECT * FROM token WHERE session_id = %d AND entry_id = %d",
                          session_row, entry.id);
    stmt = nullptr;
    sqlite3_prepare_v2(db_, sql, -1, &stmt, nullptr);
    sqlite3_free(sql);
    if (stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW &&
        sqlite3_column_int64(stmt, 3) > now) {
      token_row = sqlite3_column_int(stmt, 0);
    }
    sqlite3_finalize(stmt);
    if (token_row == 0) result = -7;
  }
  if (result == 1 && (!entry.enabled || (entry.start_at > 0 && entry.start_at > now) ||
                      (entry.expire_at > 0 && now > entry.expire_at) ||
                      (entry.expire_times > 0 && entry.use_count > entry.expire_times))) {
    result = -6;
  }
  if (result == 1 && JsonTrue(entry.data, "enable_match_ip") && ip != address) result = -8;
  if (result == 1) {
    long const timeout = now + kLifetime;
    if (!Run(sqlite3_mprintf(
            "UPDATE session SET ip='%q',session_id='%q',timeout='%ld',uid='%u' WHERE id=%d",
            ip.c_str(), session_id, timeout, uid, session_row)) ||
        !Run(sqlite3_mprintf(
            "UPDATE token SET entry_id='%d',session_id='%d',timeout='%ld' WHERE id=%d", entry.id,
            session_row, timeout, token_row))) {
      result = -4;
    }
  }
  // The three stores of the check go away, each with its checkpoint.
  Checkpoint();
  Checkpoint();
  Checkpoint();
  return result;
}

}  // namespace kovabench
