// How the platform's SQLite connections treat their write-ahead log.
#ifndef KOVA_PLATFORM_KEEP_WAL_H
#define KOVA_PLATFORM_KEEP_WAL_H

#include <sqlite3.h>

// The log and its index stay on disk when the last connection closes (emptied, not deleted):
// a CGI process is usually the only connection, and creating and deleting both files on every
// request takes two new inodes each time, which under load the file system is slow to find
// (it avoids inodes it has just freed). With the log kept, a size limit makes the closing connection truncate it to nothing
// and a restarted log shrink back, so it returns to a few pages once a burst of writers is
// over. Neither setting changes what is written or when it is synced.
inline void KovaKeepWal(sqlite3* handle) {
  int keep = 1;
  sqlite3_file_control(handle, "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
  sqlite3_exec(handle, "PRAGMA journal_size_limit = 1048576;", nullptr, nullptr, nullptr);
}

#endif
