// The floor: the visitor work of the library written directly against the SQLite C API, the
// way a lean program of its own would do it. Same connection settings, the same statements
// built as text with every value escaped, the same checkpoints, on the same database files;
// records are read straight from the columns and the link's JSON data is only searched, not
// decoded. Every library figure of the benchmark is a ratio to this.
#ifndef KOVA_BENCH_FLOOR_H
#define KOVA_BENCH_FLOOR_H

#include <sqlite3.h>

#include <string>

namespace kovabench {

class Floor {
 public:
  Floor() = default;
  ~Floor();
  Floor(Floor const&) = delete;
  Floor& operator=(Floor const&) = delete;

  // Connects to the sharing database and, unless `block_path` is null, the failed-login store
  // (both must exist) with the library's settings, and reads the schema version as the library does
  // on its first use.
  bool Open(char const* sharing_path, char const* block_path);
  void Close();

  // What the library's authorization check does: session, link and token loaded, the link's
  // validity and address binding checked, session and token extended by a day, then the
  // three checkpoints of the three stores. 1 on success, a negative code otherwise.
  int Authorize(char const* hash, char const* session_id, char const* address);

  // What the library's login to a password link does, with an earlier session id or without
  // one (then a new session is made under a random id). `session_id_out` receives the id.
  int Login(char const* hash, char const* password, char const* session_id, char const* address,
            std::string& session_id_out);

  // Statements that failed because another process held the database (SQLITE_BUSY,
  // SQLITE_LOCKED) and all failed statements, since Open.
  long busy_failures() const { return busy_failures_; }
  long failures() const { return failures_; }

 private:
  struct EntryRow;
  bool Run(char* sql);  // takes and frees an sqlite3_mprintf text
  bool Checkpoint();
  bool LoadEntry(char const* hash, EntryRow& entry);
  bool Blocked(char const* address);
  void ResetBlock(char const* address);

  sqlite3* db_ = nullptr;
  sqlite3* block_ = nullptr;
  sqlite3_stmt* block_count_ = nullptr;
  sqlite3_stmt* block_reset_ = nullptr;
  long busy_failures_ = 0;
  long failures_ = 0;
};

}  // namespace kovabench

#endif
