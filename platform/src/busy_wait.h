// How the platform's SQLite connections wait for a lock that another process holds.
#ifndef KOVA_PLATFORM_BUSY_WAIT_H
#define KOVA_PLATFORM_BUSY_WAIT_H

#include <sqlite3.h>
#include <time.h>

// Concurrent CGI processes wait for each other's write lock instead of failing, up to 5 s of
// waiting in all. A statement holds the lock for a fraction of a millisecond, while SQLite's
// own wait sleeps 1, 2, 5, 10 ms and longer between attempts; under load the waiters then
// mostly sleep past a lock that is already free again. Here the first 2 ms are tried every
// 0.1 ms, the rest every millisecond.
inline int KovaBusyRetry(void* /*unused*/, int count) {
  int const quick_tries = 20;
  long const quick_us = 100, slow_us = 1000, total_us = 5000L * 1000L;
  long const slept = count < quick_tries ? count * quick_us
                                         : quick_tries * quick_us + (count - quick_tries) * slow_us;
  if (slept >= total_us) return 0;
  long const step_us = count < quick_tries ? quick_us : slow_us;
  struct timespec const step = {0, step_us * 1000L};
  nanosleep(&step, nullptr);
  return 1;
}

inline void KovaBusyWait(sqlite3* handle) { sqlite3_busy_handler(handle, KovaBusyRetry, nullptr); }

#endif
