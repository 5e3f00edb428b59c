// How the platform's SQLite connections treat their write-ahead log.
#ifndef KOVA_PLATFORM_KEEP_WAL_H
#define KOVA_PLATFORM_KEEP_WAL_H

#include <sqlite3.h>

// The log and its index stay on disk when the last connection closes (emptied, not deleted):
// a CGI process is usually the only connection, and creating and deleting both files on every
// request takes two new inodes each time, which under load the file system is slow to find
// (it avoids inodes it has just freed). Any size limit makes the last connection to close
// truncate the log to nothing, so it is back to zero bytes once a burst of writers is over.
// The limit itself is what a restarted log is cut back to while writers go on: high enough
// that a busy log is reused in place rather than cut and grown again block by block (growing
// a file costs its writes and syncs more than overwriting it), low enough that a process that
// stays connected does not keep a burst's log for ever. Neither setting changes what is
// written or when it is synced.
//
// While writers go on, the log is kept below 64 MiB by restarting it (wal_bound.cpp).
void KovaBoundWal(sqlite3* handle);

inline void KovaKeepWal(sqlite3* handle) {
  int keep = 1;
  sqlite3_file_control(handle, "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
  sqlite3_exec(handle, "PRAGMA journal_size_limit = 67108864;", nullptr, nullptr, nullptr);
  KovaBoundWal(handle);
}

#endif
