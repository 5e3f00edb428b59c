// The bound on the write-ahead log. Under a steady load some reader always holds a snapshot
// inside the log, so the passive checkpoints (SQLite's own after 1,000 pages, and the one each
// store runs when it goes) copy pages into the database but can never let the log start over:
// it grows for as long as the load lasts. A connection whose commit leaves the log above
// kRestartFrames therefore runs a restarting checkpoint: it takes the write lock, copies every
// page, and waits (with the connection's busy wait) until no reader still reads from the log,
// so that the next writer starts the log again from its beginning. Readers that start after
// the copy read the database file only and do not hold it up.
#include <sqlite3.h>
#include <time.h>

#include <atomic>

#include "keep_wal.h"
#include "kovadb.h"

namespace {

int const kPassiveFrames = 1000;  // SQLite's own automatic checkpoint, which the hook replaces
int const kRestartFrames = 8192;  // 32 MiB of 4 KiB pages, half the bound of 64 MiB

std::atomic<unsigned long> g_restarts{0};
std::atomic<unsigned long long> g_restart_us{0};

unsigned long long NowUs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<unsigned long long>(now.tv_sec) * 1000000ULL + now.tv_nsec / 1000;
}

int Committed(void* /*unused*/, sqlite3* handle, char const* name, int frames) {
  if (frames >= kRestartFrames) {
    unsigned long long const start = NowUs();
    sqlite3_wal_checkpoint_v2(handle, name, SQLITE_CHECKPOINT_RESTART, nullptr, nullptr);
    g_restart_us += NowUs() - start;
    ++g_restarts;
  } else if (frames >= kPassiveFrames) {
    sqlite3_wal_checkpoint_v2(handle, name, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
  }
  return SQLITE_OK;  // the commit stands whatever the checkpoint found
}

}  // namespace

void KovaBoundWal(sqlite3* handle) { sqlite3_wal_hook(handle, Committed, nullptr); }

extern "C" void KOVADBCheckpointStats(unsigned long* restarts, unsigned long long* microseconds) {
  if (restarts != nullptr) *restarts = g_restarts;
  if (microseconds != nullptr) *microseconds = g_restart_us;
}
