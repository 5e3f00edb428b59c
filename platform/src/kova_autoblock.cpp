// Failed-login blocking: one row per failed login in a small SQLite file that every process of
// the appliance shares, written as the system account like the other private state files.
// Each process keeps one connection to it between calls (see Acquire).
#include "kova_autoblock.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <kova_log.h>
#include <netinet/in.h>
#include <sqlite3.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "busy_wait.h"
#include "keep_wal.h"
#include "kova_paths.h"
#include "system_identity.h"

namespace {

char const kSource[] = "kova_autoblock";
using kova::SystemIdentity;

// The address as counted: IPv4 as itself (also when written IPv4-mapped), IPv6 as its /64
// prefix, since one host usually holds a whole /64 and could rotate through it. Empty when
// `ip` is not an address.
std::string AddressKeyOf(char const* ip) {
  unsigned char raw[sizeof(struct in6_addr)];
  char text[INET6_ADDRSTRLEN];
  if (inet_pton(AF_INET, ip, raw) == 1) {
    if (inet_ntop(AF_INET, raw, text, sizeof text) == nullptr) return std::string();
    return text;
  }
  if (inet_pton(AF_INET6, ip, raw) != 1) return std::string();
  static unsigned char const kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  if (memcmp(raw, kMapped, sizeof kMapped) == 0) {
    if (inet_ntop(AF_INET, raw + 12, text, sizeof text) == nullptr) return std::string();
    return text;
  }
  memset(raw + 8, 0, 8);
  if (inet_ntop(AF_INET6, raw, text, sizeof text) == nullptr) return std::string();
  return std::string(text) + "/64";
}

// A login asks for the key of one address several times; the last one is kept per thread.
std::string AddressKey(char const* ip) {
  if (ip == nullptr || strnlen(ip, INET6_ADDRSTRLEN) >= INET6_ADDRSTRLEN) return std::string();
  thread_local std::string last_ip, last_key;
  if (last_ip != ip) {
    last_key = AddressKeyOf(ip);
    last_ip = ip;
  }
  return last_key;
}

// mkdir -p of the directories above the store, then the store's own directory for the system
// account only.
bool MakeDirectory() {
  std::string const file = KOVA_AUTOBLOCK_DB_FILE;
  std::string const dir = file.substr(0, file.rfind('/'));
  struct stat st;
  if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  for (size_t pos = 1; (pos = dir.find('/', pos)) != std::string::npos; ++pos) {
    std::string const parent = dir.substr(0, pos);
    if (mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  if (mkdir(dir.c_str(), 0770) != 0 && errno != EEXIST) return false;
  if (geteuid() == 0 && chown(dir.c_str(), KOVA_SYSTEM_UID, KOVA_SYSTEM_GID) != 0) return false;
  return chmod(dir.c_str(), 0770) == 0 || geteuid() != 0;
}

// The writers need the store's directory; a failure to make it is logged once per call.
bool DirectoryReady() {
  if (MakeDirectory()) return true;
  KOVA_LOG_PID(kSource, __LINE__, "cannot make the directory of %s, err=%m",
               KOVA_AUTOBLOCK_DB_FILE);
  return false;
}

bool Exec(sqlite3* db, char const* sql) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
    KOVA_LOG_PID(kSource, __LINE__, "%s failed: %s", sql, error ? error : "");
    sqlite3_free(error);
    return false;
  }
  return true;
}

// Opens (and on first use creates) the store; the caller holds the system identity.
sqlite3* Open() {
  char const* path = KOVA_AUTOBLOCK_DB_FILE;
  struct stat st;
  // Only a missing store is created here: closing a descriptor of a file that SQLite has open
  // in this process would drop SQLite's locks on it.
  if (lstat(path, &st) != 0) {
    int const fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660);
    if (fd < 0) {
      KOVA_LOG_PID(kSource, __LINE__, "cannot open %s, err=%m", path);
      return nullptr;
    }
    // The umask must not narrow the mode; SQLite gives its -wal and -shm files the same.
    if (fstat(fd, &st) == 0 && st.st_size == 0 && (st.st_mode & 0777) != 0660) {
      if (fchmod(fd, 0660) != 0) {
        KOVA_LOG_PID(kSource, __LINE__, "chmod %s failed, err=%m", path);
      }
    }
    close(fd);
  }
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW, nullptr) !=
      SQLITE_OK) {
    KOVA_LOG_PID(kSource, __LINE__, "sqlite3_open %s failed: %s", path,
                 db ? sqlite3_errmsg(db) : "no memory");
    sqlite3_close(db);
    return nullptr;
  }
  KovaBusyWait(db);
  KovaKeepWal(db);
  if (!Exec(db,
            "PRAGMA journal_mode = WAL;"
            "CREATE TABLE IF NOT EXISTS fail_login ("
            " id INTEGER PRIMARY KEY AUTOINCREMENT,"
            " addr TEXT NOT NULL,"
            " service TEXT NOT NULL,"
            " time INTEGER NOT NULL);"
            "CREATE INDEX IF NOT EXISTS fail_login_addr ON fail_login (addr, time);")) {
    sqlite3_close(db);
    return nullptr;
  }
  return db;
}

// The process's connection to the store, kept between calls: opening the store (and, as its
// only user, creating and removing its log files) costs far more than the statement run on
// it, and processes opening and closing it all the time keep waiting on each other's locks.
// A forked child leaves its parent's connection alone and opens its own; a store that was
// moved or deleted since is opened again. The statements of the calls below are prepared once
// per connection and kept with it, as parsing them cost more than running them.
class Store {
 public:
  ~Store() {
    if (db_ != nullptr && pid_ == getpid()) Drop();
  }
  // The connection for this call, or null; the caller holds the system identity.
  sqlite3* Acquire() {
    if (db_ != nullptr && pid_ != getpid()) {  // the parent's: never touched
      db_ = nullptr;
      statements_.clear();
    }
    if (db_ != nullptr) {
      int moved = 0;
      if (sqlite3_file_control(db_, "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
          moved == 0) {
        return db_;
      }
      Drop();
    }
    db_ = Open();
    pid_ = getpid();
    return db_;
  }
  // After a failed statement the connection is not trusted again.
  void Drop() {
    for (auto const& kept : statements_) sqlite3_finalize(kept.second);
    statements_.clear();
    sqlite3_close(db_);
    db_ = nullptr;
  }
  // `sql` prepared on the acquired connection, ready to be bound; null (and logged) when it
  // cannot be prepared. The caller resets it after use.
  sqlite3_stmt* Statement(char const* sql) {
    for (auto const& kept : statements_) {
      if (kept.first == sql) return kept.second;
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
      KOVA_LOG_PID(kSource, __LINE__, "prepare failed: %s", sqlite3_errmsg(db_));
      return nullptr;
    }
    statements_.emplace_back(sql, stmt);
    return stmt;
  }

 private:
  sqlite3* db_ = nullptr;
  pid_t pid_ = 0;
  std::vector<std::pair<std::string, sqlite3_stmt*>> statements_;
};

Store g_store;

// One attempt per address at a time, across processes: an exclusive lock on one byte of a
// lock file beside the store, at an offset drawn from the address (two addresses that share
// a byte only wait for each other). The lock belongs to the open file description (OFD), so
// it is this process's alone; a forked child opens its own. Held from the address check until
// the attempt is done, so that a failure is counted before the next attempt from that
// address is judged.
class AttemptLock {
 public:
  // Waits for the address's lock; false (and logged) when it is not free within the wait.
  bool Hold(std::string const& key) {
    if (fd_ >= 0 && pid_ != getpid()) fd_ = -1;  // the parent's: never touched
    if (fd_ >= 0 && depth_ > 0 && key == key_) {
      ++depth_;
      return true;
    }
    Release();
    if (fd_ < 0 && !OpenFile()) return false;
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(Slot(key));
    lock.l_len = 1;
    // An attempt holds the lock for a fraction of a millisecond: the first 2 ms are tried
    // every 0.1 ms, the rest every millisecond, as the platform's busy wait does.
    for (long waited = 0, pause = 100;; waited += pause, pause = waited < 2000 ? 100 : 1000) {
      if (fcntl(fd_, F_OFD_SETLK, &lock) == 0) break;
      if ((errno != EAGAIN && errno != EACCES) ||
          waited >= KOVA_AUTOBLOCK_WAIT_SECONDS * 1000000L) {
        KOVA_LOG_PID(kSource, __LINE__, "attempt lock of %s not taken, err=%m", key.c_str());
        return false;
      }
      usleep(static_cast<useconds_t>(pause));
    }
    key_ = key;
    start_ = lock.l_start;
    depth_ = 1;
    return true;
  }
  void Done() {
    if (depth_ > 1) {
      --depth_;
    } else {
      Release();
    }
  }

 private:
  static size_t Slot(std::string const& key) {
    size_t hash = 14695981039346656037ull;  // FNV-1a
    for (unsigned char const c : key) hash = (hash ^ c) * 1099511628211ull;
    return hash % 1000003;
  }
  bool OpenFile() {
    if (!DirectoryReady()) return false;
    SystemIdentity as_system;
    std::string const path = std::string(KOVA_AUTOBLOCK_DB_FILE) + ".lock";
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660);
    if (fd_ < 0) {
      KOVA_LOG_PID(kSource, __LINE__, "cannot open %s, err=%m", path.c_str());
      return false;
    }
    pid_ = getpid();
    return true;
  }
  void Release() {
    if (depth_ == 0 || fd_ < 0 || pid_ != getpid()) {
      depth_ = 0;
      return;
    }
    struct flock lock = {};
    lock.l_type = F_UNLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = start_;
    lock.l_len = 1;
    fcntl(fd_, F_OFD_SETLK, &lock);
    depth_ = 0;
  }

  int fd_ = -1;
  pid_t pid_ = 0;
  std::string key_;
  off_t start_ = 0;
  int depth_ = 0;
};

AttemptLock g_attempt;

// Runs one statement with text and number parameters bound in order; for a query, the first
// column of the first row goes to *count. The statement is reset at once: a query left open
// would hold its snapshot of the log.
bool Run(sqlite3* db, char const* sql, std::string const* texts, int text_count,
         sqlite3_int64 number, long long* count) {
  sqlite3_stmt* stmt = g_store.Statement(sql);
  if (stmt == nullptr) return false;
  int index = 1;
  for (int i = 0; i < text_count; ++i, ++index) {
    sqlite3_bind_text(stmt, index, texts[i].c_str(), static_cast<int>(texts[i].size()),
                      SQLITE_TRANSIENT);
  }
  if (index <= sqlite3_bind_parameter_count(stmt)) sqlite3_bind_int64(stmt, index, number);
  int rc = sqlite3_step(stmt);
  bool ok = rc == SQLITE_DONE || rc == SQLITE_ROW;
  if (ok && count != nullptr) *count = rc == SQLITE_ROW ? sqlite3_column_int64(stmt, 0) : 0;
  if (!ok) {
    KOVA_LOG_PID(kSource, __LINE__, "statement failed: %s", sqlite3_errmsg(db));
  }
  sqlite3_reset(stmt);
  return ok;
}

}  // namespace

extern "C" {

int KovaCgiIsDeniedIP(const char* ip) {
  std::string const key = AddressKey(ip);
  if (key.empty()) return 0;
  bool const have_dir = MakeDirectory();
  SystemIdentity as_system;
  sqlite3* db = have_dir ? g_store.Acquire() : nullptr;
  if (db == nullptr) {
    KOVA_LOG_PID(kSource, __LINE__, "failed-login store unavailable, %s let through", key.c_str());
    return 0;
  }
  long long count = 0;
  bool const ok =
      Run(db, "SELECT COUNT(*) FROM fail_login WHERE addr = ?1 AND time > ?2", &key, 1,
          static_cast<sqlite3_int64>(time(nullptr)) - KOVA_AUTOBLOCK_WINDOW_SECONDS, &count);
  if (!ok) g_store.Drop();
  if (!ok) {
    KOVA_LOG_PID(kSource, __LINE__, "failed-login store unreadable, %s let through", key.c_str());
    return 0;
  }
  return count >= KOVA_AUTOBLOCK_MAX_FAILURES ? 1 : 0;
}

int AutoBlockFailLoginSet(const char* ip, const char* service) {
  std::string const texts[2] = {AddressKey(ip), service != nullptr ? service : ""};
  if (texts[0].empty()) return -1;
  if (!DirectoryReady()) return -1;
  SystemIdentity as_system;
  sqlite3* db = g_store.Acquire();
  if (db == nullptr) return -1;
  sqlite3_int64 const now = time(nullptr);
  // Rows that left the window count for nothing; dropping them here keeps the file small.
  bool ok = Exec(db, "BEGIN IMMEDIATE") &&
            Run(db, "INSERT INTO fail_login (addr, service, time) VALUES (?1, ?2, ?3)", texts, 2,
                now, nullptr) &&
            Run(db, "DELETE FROM fail_login WHERE time <= ?1", nullptr, 0,
                now - KOVA_AUTOBLOCK_WINDOW_SECONDS, nullptr) &&
            Exec(db, "COMMIT");
  if (!ok && sqlite3_get_autocommit(db) == 0) Exec(db, "ROLLBACK");
  if (!ok) g_store.Drop();
  return ok ? 0 : -1;
}

int KOVAAutoBlockFailLoginReset(const char* ip) {
  std::string const key = AddressKey(ip);
  if (key.empty()) return -1;
  if (!DirectoryReady()) return -1;
  SystemIdentity as_system;
  sqlite3* db = g_store.Acquire();
  if (db == nullptr) return -1;
  std::string const texts[2] = {key, "SHARING"};
  bool const ok =
      Run(db, "DELETE FROM fail_login WHERE addr = ?1 AND service = ?2", texts, 2, 0, nullptr);
  if (!ok) g_store.Drop();
  return ok ? 0 : -1;
}

int KovaCgiAttemptBegin(const char* ip) {
  std::string const key = AddressKey(ip);
  if (key.empty()) return -1;
  return g_attempt.Hold(key) ? 1 : 0;
}

void KovaCgiAttemptDone(void) { g_attempt.Done(); }

int AutoBlockList(KovaAutoBlockVisit visit, void* data) {
  if (visit == nullptr) return -1;
  if (!DirectoryReady()) return -1;
  SystemIdentity as_system;
  sqlite3* db = g_store.Acquire();
  if (db == nullptr) return -1;
  // Per address: its failures in the window, and when the oldest failure that still keeps it
  // at the limit leaves the window (0 below the limit).
  char const sql[] =
      "SELECT addr, COUNT(*),"
      " (SELECT f.time FROM fail_login f WHERE f.addr = fail_login.addr AND f.time > ?1"
      "  ORDER BY f.time DESC LIMIT 1 OFFSET ?2)"
      " FROM fail_login WHERE time > ?1 GROUP BY addr ORDER BY addr";
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
    KOVA_LOG_PID(kSource, __LINE__, "prepare failed: %s", sqlite3_errmsg(db));
    g_store.Drop();
    return -1;
  }
  sqlite3_bind_int64(stmt, 1,
                     static_cast<sqlite3_int64>(time(nullptr)) - KOVA_AUTOBLOCK_WINDOW_SECONDS);
  sqlite3_bind_int(stmt, 2, KOVA_AUTOBLOCK_MAX_FAILURES - 1);
  int rc;
  int count = 0;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    auto const* addr = reinterpret_cast<char const*>(sqlite3_column_text(stmt, 0));
    long long const until = sqlite3_column_type(stmt, 2) == SQLITE_NULL
                                ? 0
                                : sqlite3_column_int64(stmt, 2) + KOVA_AUTOBLOCK_WINDOW_SECONDS;
    visit(addr != nullptr ? addr : "", sqlite3_column_int(stmt, 1), until, data);
    ++count;
  }
  bool const ok = rc == SQLITE_DONE;
  if (!ok) {
    KOVA_LOG_PID(kSource, __LINE__, "statement failed: %s", sqlite3_errmsg(db));
  }
  sqlite3_finalize(stmt);
  if (!ok) g_store.Drop();
  return ok ? count : -1;
}

int AutoBlockUnblock(const char* ip) {
  // The listing shows an IPv6 prefix as "<address>/64"; it is accepted as well.
  std::string text = ip != nullptr ? ip : "";
  if (text.size() > 3 && text.compare(text.size() - 3, 3, "/64") == 0 &&
      text.find(':') != std::string::npos) {
    text.resize(text.size() - 3);
  }
  std::string const key = AddressKey(text.c_str());
  if (key.empty()) return -1;
  if (!DirectoryReady()) return -1;
  SystemIdentity as_system;
  sqlite3* db = g_store.Acquire();
  if (db == nullptr) return -1;
  bool const ok = Run(db, "DELETE FROM fail_login WHERE addr = ?1", &key, 1, 0, nullptr);
  int const removed = ok ? sqlite3_changes(db) : -1;
  if (!ok) g_store.Drop();
  return removed;
}

}  // extern "C"
