// How the platform's SQLite connections wait for a lock that another process holds.
#ifndef KOVA_PLATFORM_BUSY_WAIT_H
#define KOVA_PLATFORM_BUSY_WAIT_H

#include <sqlite3.h>

// Concurrent CGI processes wait for each other's write lock instead of failing, up to 5 s of
// waiting in all, with SQLite's own steps (1, 2, 5, 10 ms and longer). Shorter steps pick a
// freed lock up sooner but cost more than they win: every retry starts a new read
// transaction, which after another process's write reads its pages again, and on a machine
// with fewer cores than waiting processes each early retry takes CPU from the lock's holder
// (at 8 processes on 2 cores, 0.1 ms steps doubled the pages read per login and cut the
// logins per second by about 7 %).
inline void KovaBusyWait(sqlite3* handle) { sqlite3_busy_timeout(handle, 5000); }

#endif
