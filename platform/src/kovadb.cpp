// Database access layer of the appliance over SQLite. Rows are copied out as text so that a
// result set stays readable after its statements are finalized.
#include "kovadb.h"

#include <sqlite3.h>
#include <string.h>

#include <string>
#include <vector>

#include "busy_wait.h"
#include "keep_wal.h"

struct KOVADB {
  sqlite3* handle = nullptr;
  std::string error;  // text of the last failure, kept until the next one
};

struct DBResult_tag {
  std::vector<std::string> columns;
  std::vector<std::vector<std::string>> rows;
  size_t next = 0;  // index of the row the next fetch returns
};

namespace {

void KeepError(KOVADB* db) { db->error = sqlite3_errmsg(db->handle); }

}  // namespace

extern "C" {

KOVADB* KOVADBConnect(const char* host, const char* user, const char* password, const char* path) {
  (void)host;
  (void)user;
  (void)password;
  if (path == nullptr || path[0] == '\0') {
    return nullptr;
  }
  sqlite3* handle = nullptr;
  // No SQLITE_OPEN_CREATE: the caller creates the file itself with the mode it wants.
  if (sqlite3_open_v2(path, &handle, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    sqlite3_close(handle);
    return nullptr;
  }
  KovaBusyWait(handle);
  KovaKeepWal(handle);
  KOVADB* db = new KOVADB;
  db->handle = handle;
  return db;
}

int KOVADBExecute(KOVADB* db, const char* sql, DBResult_tag** result) {
  if (result != nullptr) {
    *result = nullptr;
  }
  if (db == nullptr || db->handle == nullptr || sql == nullptr) {
    if (db != nullptr) {
      db->error = "no connection";
    }
    return -1;
  }
  DBResult_tag* last = nullptr;  // rows of the last statement that returned columns
  bool const was_autocommit = sqlite3_get_autocommit(db->handle) != 0;
  const char* tail = sql;
  int status = 0;
  while (tail != nullptr && *tail != '\0') {
    sqlite3_stmt* stmt = nullptr;
    const char* next = nullptr;
    if (sqlite3_prepare_v2(db->handle, tail, -1, &stmt, &next) != SQLITE_OK) {
      KeepError(db);
      status = -1;
      break;
    }
    tail = next;
    if (stmt == nullptr) {
      continue;  // blank text or a comment
    }
    int const ncols = sqlite3_column_count(stmt);
    DBResult_tag* rows = nullptr;
    if (ncols > 0) {
      rows = new DBResult_tag;
      for (int i = 0; i < ncols; ++i) {
        const char* name = sqlite3_column_name(stmt, i);
        rows->columns.push_back(name != nullptr ? name : "");
      }
    }
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      if (rows == nullptr) {
        continue;
      }
      std::vector<std::string> row;
      row.reserve(ncols);
      for (int i = 0; i < ncols; ++i) {
        const unsigned char* text = sqlite3_column_text(stmt, i);
        int const len = sqlite3_column_bytes(stmt, i);
        row.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "",
                         text != nullptr ? static_cast<size_t>(len) : 0u);
      }
      rows->rows.push_back(std::move(row));
    }
    if (rc != SQLITE_DONE) {
      KeepError(db);
      sqlite3_finalize(stmt);
      delete rows;
      status = -1;
      break;
    }
    sqlite3_finalize(stmt);
    if (rows != nullptr) {
      delete last;
      last = rows;
    }
  }
  if (status != 0 && was_autocommit && sqlite3_get_autocommit(db->handle) == 0) {
    // The text opened a transaction and failed before ending it: undo it rather than leave
    // it open for every later statement on this connection. A transaction that was already
    // open before the call stays the caller's to end.
    sqlite3_exec(db->handle, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  if (status != 0 || result == nullptr) {
    delete last;
    return status;
  }
  *result = last;
  return 0;
}

int KOVADBFetchRow(DBResult_tag* result, unsigned int* row) {
  if (result == nullptr || result->next >= result->rows.size()) {
    return -1;
  }
  if (row != nullptr) {
    *row = static_cast<unsigned int>(result->next);
  }
  ++result->next;
  return 0;
}

const char* KOVADBFetchField(DBResult_tag* result, unsigned int row, const char* name) {
  if (result == nullptr || name == nullptr || row >= result->rows.size()) {
    return nullptr;
  }
  for (size_t i = 0; i < result->columns.size(); ++i) {
    if (result->columns[i] == name) {
      return result->rows[row][i].c_str();
    }
  }
  return nullptr;
}

int KOVADBEscapeStringEX2(int flags, char* out, size_t out_size, const char* in, size_t in_len) {
  (void)flags;
  if (out == nullptr || (in == nullptr && in_len > 0)) {
    return -1;
  }
  // A NUL inside a value would end the SQL text early and cut the literal short.
  if (in_len > 0 && memchr(in, '\0', in_len) != nullptr) {
    return -1;
  }
  size_t needed = in_len + 1;
  for (size_t i = 0; i < in_len; ++i) {
    if (in[i] == '\'') {
      ++needed;
    }
  }
  if (needed > out_size) {
    return -1;
  }
  size_t pos = 0;
  for (size_t i = 0; i < in_len; ++i) {
    out[pos++] = in[i];
    if (in[i] == '\'') {
      out[pos++] = '\'';
    }
  }
  out[pos] = '\0';
  return static_cast<int>(pos);
}

const char* KOVADBErrorGet(KOVADB* db) {
  if (db == nullptr) {
    return "";
  }
  return db->error.c_str();
}

void KOVADBFreeResult(DBResult_tag* result) { delete result; }

void KOVADBClose(KOVADB* db) {
  if (db == nullptr) {
    return;
  }
  sqlite3_close_v2(db->handle);
  delete db;
}

sqlite3* KOVADBGetHandle(KOVADB* db) { return db != nullptr ? db->handle : nullptr; }

}  // extern "C"
