// Crash and load driver: worker processes run a mix of the whole library (links made, visitors
// logged in with right and wrong passwords, checked, logged out, uses counted, everything
// purged) on one database while the parent kills random workers with SIGKILL and starts new
// ones. Afterwards the database must be intact and every write a worker saw succeed must still
// be there, unless a purge, deletion or logout that was started could have removed it.
//
// The reports survive the death of their writer: each worker appends one line per event to a
// file of its own with a single write(2) on an O_APPEND descriptor, after the call returned
// (or, for a call that may delete rows, also before it starts). A worker killed between the
// call and the report simply leaves that write unconfirmed.
//
// Usage: kova_stress [--drop-one] [seconds] [report directory]
// --drop-one deletes one confirmed session behind the library's back before the checks, to
// show that the checks catch a lost write (the run must then fail).
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "kova_autoblock.h"
#include "kova_paths.h"
#include "kovasharing/kovasharing.h"

namespace {

using KOVA::sharing::db::EntryDB;
using KOVA::sharing::db::SessionDB;
using KOVA::sharing::db::SharingDB;
using KOVA::sharing::db::TokenDB;
using KOVA::sharing::record::Entry;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;

int const kWorkers = 8;
unsigned const kPoolOwner = 100;   // owner of the shared links; nobody deletes its links
unsigned const kOwnerBase = 7000;  // owners of the workers' own links
int const kOwners = 8;
char const kPoolPassword[] = "pool-secret";
char const kOwnPassword[] = "own-secret";

// ---------------------------------------------------------------- worker side

volatile sig_atomic_t g_stop = 0;
double g_deadline = 0;  // a worker that misses the stop signal ends by itself after this
double Clock();
void OnStop(int) { g_stop = 1; }

int g_report = -1;
uid_t g_euid;
gid_t g_egid;
std::mt19937_64 g_rng;

void Report(std::string line) {
  line += '\n';
  // One write per line: O_APPEND makes it land whole, and a kill cannot split it.
  ssize_t const n = write(g_report, line.data(), line.size());
  if (n != static_cast<ssize_t>(line.size())) _exit(90);
}

unsigned Rand(unsigned n) { return static_cast<unsigned>(g_rng() % n); }
long Now() { return static_cast<long>(time(nullptr)); }

// Each call comes from a fresh address, so that wrong passwords never add up to a block.
void NewAddress() {
  char text[64];
  if (Rand(2) == 0) {
    snprintf(text, sizeof text, "10.%u.%u.%u", Rand(256), Rand(256), 1 + Rand(254));
  } else {
    snprintf(text, sizeof text, "2001:db8:%x:%x::%x", Rand(65536), Rand(65536), 1 + Rand(65535));
  }
  setenv("REMOTE_ADDR", text, 1);
}

struct Link {
  std::string hash;
  int id;
  bool password;
  bool pool;
};

struct Visit {
  Link link;
  std::string sid;
  std::string address;  // of the last login with this session: links bind sessions to it
};

std::vector<Link> g_pool;
std::vector<Link> g_own;
std::vector<Visit> g_visits;
std::vector<std::string> g_own_sids;  // sessions made directly through the store
unsigned g_seq = 0;

// One call's result: "R <op> <code> ok|bad|blocked"; a bad one carries the last error.
void Result(char const* op, int code, bool ok, bool blocked = false) {
  std::string line = std::string("R ") + op + " " + std::to_string(code) + " " +
                     (blocked ? "blocked"
                      : ok    ? "ok"
                              : "bad");
  if (!ok && !blocked) line += " " + SharingDB::Instance().GetLastError();
  for (char& c : line) {
    if (c == '\n') c = ' ';
  }
  Report(line);
  if (geteuid() != g_euid || getegid() != g_egid) {
    Report("X " + std::to_string(geteuid()) + " " + std::to_string(getegid()) + " after " + op);
  }
}

// A call that may delete rows announces itself first; its end time bounds what it removed.
unsigned Intent(std::string const& what) {
  unsigned const seq = ++g_seq;
  Report("I " + std::to_string(seq) + " " + std::to_string(Now()) + " " + what);
  return seq;
}
void Done(unsigned seq) { Report("D " + std::to_string(seq) + " " + std::to_string(Now())); }

template <typename T>
T& Pick(std::vector<T>& v) {
  return v[Rand(static_cast<unsigned>(v.size()))];
}

void CreateOwnLink() {
  Entry entry;
  entry.set_project_name("w");
  unsigned const owner = kOwnerBase + Rand(kOwners);
  entry.set_owner_uid(owner);
  Json::Value app(Json::objectValue);
  app["path"] = "/stress/" + std::to_string(getpid());
  entry.set_app(app);
  unsigned const kind = Rand(4);
  long expire_at = 0;
  int expire_times = 0;
  if (kind == 1) {
    entry.set_protect_type(Entry::PROTECT_PASSWORD);
    entry.set_protect_password(kOwnPassword, true, Entry::ENCRYPT_ALGO_DEFAULT);
  } else if (kind == 2) {
    expire_times = 2;  // used up after two logins, then purgeable
    entry.set_expire_times(expire_times);
  } else if (kind == 3) {
    expire_at = Now() + 1 + Rand(3);  // expires during the run
    entry.set_expire_at(expire_at);
  }
  long const t0 = Now();
  EntryDB store(SharingDB::Instance());
  bool const ok = store.CreateWithHash(entry);
  if (ok) {
    Report("E " + std::to_string(t0) + " " + std::to_string(Now()) + " " + entry.get_hash() + " " +
           std::to_string(entry.get_id()) + " " + std::to_string(owner) + " " +
           std::to_string(expire_at) + " " + std::to_string(expire_times));
    if (g_own.size() > 40) g_own.erase(g_own.begin());
    g_own.push_back({entry.get_hash(), entry.get_id(), kind == 1, false});
  }
  Result("create", ok, ok);
}

void Login(Link const& link, bool right) {
  NewAddress();
  std::string sid_in;
  // Half of the logins come back with a session of an earlier login.
  if (!g_visits.empty() && Rand(2) == 0) sid_in = Pick(g_visits).sid;
  char const* password = nullptr;
  if (link.password) password = right ? (link.pool ? kPoolPassword : kOwnPassword) : "guess";
  _tag_sharing_login_params const params = {link.hash.c_str(), password, nullptr, nullptr,
                                            sid_in.empty() ? nullptr : sid_in.c_str()};
  std::string sid;
  long const t0 = Now();
  int const code = KOVA::KovaSharingLogin(sid, &params, false);
  if (code == 1) {
    Report("L " + std::to_string(t0) + " " + std::to_string(Now()) + " " + link.hash + " " + sid);
    std::string const address = getenv("REMOTE_ADDR");
    for (Visit& v : g_visits) {
      if (v.sid == sid) v.address = address;
    }
    if (g_visits.size() > 60) g_visits.erase(g_visits.begin());
    g_visits.push_back({link, sid, address});
  }
  if (!right) {
    Result("login-wrong", code, code == -9, code == -8);
  } else if (link.pool) {
    Result("login", code, code == 1);
  } else {
    // An own link may have been used up, expired or purged meanwhile.
    Result("login-own", code, code == 1 || code == -3 || code == -11);
  }
}

void Check() {
  if (g_visits.empty()) return;
  Visit const& v = Pick(g_visits);
  setenv("REMOTE_ADDR", v.address.c_str(), 1);
  _tag_sharing_login_params const params = {v.link.hash.c_str(), nullptr, nullptr, nullptr,
                                            v.sid.c_str()};
  int const code = KOVA::KovaSharingIsAuthorized(&params);
  if (v.link.pool) {
    Result("check", code, code == 1);
  } else {
    Result("check-own", code, code == 1 || code == -6 || code == -7);
  }
}

void Logout() {
  if (g_visits.empty()) return;
  size_t const i = Rand(static_cast<unsigned>(g_visits.size()));
  Visit const v = g_visits[i];
  g_visits.erase(g_visits.begin() + static_cast<long>(i));
  unsigned const seq = Intent("logout " + v.link.hash + " " + v.sid);
  int const code = KOVA::KovaSharingLogout(v.link.hash, v.sid);
  Done(seq);
  // Another visit of this worker may share the pair and have logged out already.
  bool shared = false;
  for (Visit const& o : g_visits) shared = shared || (o.sid == v.sid && o.link.hash == v.link.hash);
  for (auto it = g_visits.begin(); it != g_visits.end();) {
    it = (it->sid == v.sid && it->link.hash == v.link.hash) ? g_visits.erase(it) : it + 1;
  }
  if (v.link.pool && !shared) {
    Result("logout", code, code == 1);
  } else {
    Result("logout-own", code, code == 1 || code == 0);
  }
}

void CountUse() {
  bool const pool = g_own.empty() || Rand(2) == 0;
  Link const& link = pool ? Pick(g_pool) : Pick(g_own);
  int const code = KOVA::KovaSharingIncreaseUseCount(link.hash);
  if (pool) {
    Result("use", code, code == 1);
  } else {
    Result("use-own", code, code == 1 || code == 0);
  }
}

// A short-lived session and a token straight through the stores, so that the purges of
// expired rows have something to find during the run.
void DirectSessionToken() {
  NewAddress();
  Session session;
  session.set_ip(getenv("REMOTE_ADDR"));
  long const timeout = Now() + 2 + Rand(3);
  session.set_timeout(timeout);
  long t0 = Now();
  bool ok;
  {
    SessionDB sessions(SharingDB::Instance());
    ok = sessions.CreateWithSessionId(session);
  }
  if (ok) {
    Report("S " + std::to_string(t0) + " " + std::to_string(Now()) + " " +
           session.get_session_id() + " " + std::to_string(session.get_id()) + " " +
           std::to_string(timeout));
    if (g_own_sids.size() > 40) g_own_sids.erase(g_own_sids.begin());
    g_own_sids.push_back(session.get_session_id());
  }
  // A record whose timeout passed before the insert (a slow moment) is refused as illegal:
  // the store's rule, not a failure.
  Result("session", ok, ok || !session.IsLegal());
  if (!ok) return;
  Link const& link = g_own.empty() ? Pick(g_pool) : Pick(g_own);
  Token token;
  token.set_session_id(session.get_id());
  token.set_entry_id(link.id);
  token.set_timeout(timeout);
  t0 = Now();
  {
    TokenDB tokens(SharingDB::Instance());
    ok = tokens.Create(token);
  }
  if (ok) {
    Report("T " + std::to_string(t0) + " " + std::to_string(Now()) + " " +
           std::to_string(token.get_id()) + " " + std::to_string(link.id) + " " +
           std::to_string(session.get_id()) + " " + std::to_string(timeout));
  }
  Result("token", ok, ok || !token.IsLegal());
}

void Purge() {
  SharingDB& db = SharingDB::Instance();
  unsigned const which = Rand(100);
  if (which < 22) {
    unsigned const seq = Intent("purge-session");
    bool ok;
    {
      SessionDB store(db);
      ok = store.PurgeExpired(1.0f);
    }
    Done(seq);
    Result("purge-session", ok, ok);
  } else if (which < 44) {
    unsigned const seq = Intent("purge-token");
    bool ok;
    {
      TokenDB store(db);
      ok = store.PurgeExpired(1.0f);
    }
    Done(seq);
    Result("purge-token", ok, ok);
  } else if (which < 66) {
    unsigned const seq = Intent("purge-entry");
    bool ok;
    {
      EntryDB store(db);
      ok = store.PurgeExpired(1.0f);
    }
    Done(seq);
    Result("purge-entry", ok, ok);
  } else if (which < 78) {
    unsigned const owner = kOwnerBase + Rand(kOwners);
    unsigned const seq = Intent("purge-owner-project " + std::to_string(owner) + " w");
    bool ok;
    {
      EntryDB store(db);
      ok = store.PurgeExpiredByOwnerProject(owner, "w");
    }
    Done(seq);
    Result("purge-owner-project", ok, ok);
  } else if (which < 88) {
    if (g_own.empty()) return;
    Link const link = Pick(g_own);
    unsigned const seq = Intent("purge-by-entry " + std::to_string(link.id));
    bool ok;
    {
      Entry entry;
      entry.set_id(link.id);
      TokenDB store(db);
      ok = store.PurgeByEntry(entry);
    }
    Done(seq);
    Result("purge-by-entry", ok, ok);
  } else if (which < 97) {
    if (g_own_sids.empty()) return;
    std::string const sid = Pick(g_own_sids);
    unsigned const seq = Intent("delete-sid " + sid);
    bool ok;
    {
      SessionDB store(db);
      ok = store.DeleteBySessionId(sid);
    }
    Done(seq);
    Result("delete-sid", ok, ok);
  } else {
    unsigned const owner = kOwnerBase + Rand(kOwners);
    unsigned const seq = Intent("delete-owner " + std::to_string(owner));
    bool ok;
    {
      EntryDB store(db);
      ok = store.DeleteByOwnerUid(owner);
    }
    Done(seq);
    Result("delete-owner", ok, ok);
  }
}

[[noreturn]] void Worker(std::string const& dir) {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = OnStop;
  sigaction(SIGUSR1, &sa, nullptr);
  // The parent blocks the stop signal around fork, so one sent before this point is pending
  // rather than lost.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
  std::string const path = dir + "/w" + std::to_string(getpid()) + ".log";
  g_report = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (g_report < 0) _exit(91);
  uint64_t seed = 0;
  if (getrandom(&seed, sizeof seed, 0) != sizeof seed) seed = static_cast<uint64_t>(getpid());
  g_rng.seed(seed);
  g_euid = geteuid();
  g_egid = getegid();
  while (!g_stop && Clock() < g_deadline) {
    unsigned const r = Rand(100);
    if (r < 10) {
      CreateOwnLink();
    } else if (r < 30) {
      Login(Pick(g_pool), true);
    } else if (r < 38) {
      std::vector<Link> protected_links;
      for (Link const& l : g_pool) {
        if (l.password) protected_links.push_back(l);
      }
      Login(Pick(protected_links), false);
    } else if (r < 46) {
      if (!g_own.empty()) Login(Pick(g_own), true);
    } else if (r < 66) {
      Check();
    } else if (r < 71) {
      Logout();
    } else if (r < 76) {
      CountUse();
    } else if (r < 82) {
      DirectSessionToken();
    } else if (r < 91) {
      Purge();
    } else {
      Login(Pick(g_pool), true);
    }
  }
  Report("Z " + std::to_string(geteuid()) + " " + std::to_string(getegid()));
  _exit(0);
}

// ---------------------------------------------------------------- parent side

double Clock() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

bool Prepare() {
  std::string const db = KOVA_SHARING_DB_FILE;
  std::string const dir = db.substr(0, db.rfind('/'));
  std::string const cmd = "mkdir -p '" + dir + "' && chown 1:1 '" + dir + "' && chmod 0770 '" +
                          dir + "' && chmod 0755 '" + dir + "/..'";
  if (system(cmd.c_str()) != 0) return false;
  for (char const* suffix : {"", "-wal", "-shm", "-journal"}) {
    unlink((db + suffix).c_str());
    unlink((std::string(KOVA_AUTOBLOCK_DB_FILE) + suffix).c_str());
  }
  return true;
}

// The shared links, made in a child so that the parent never holds a connection across fork.
bool MakePool(std::string const& dir) {
  std::string const path = dir + "/pool.txt";
  pid_t const pid = fork();
  if (pid == 0) {
    FILE* out = fopen(path.c_str(), "w");
    if (out == nullptr) _exit(1);
    EntryDB store(SharingDB::Instance());
    for (int i = 0; i < 6; ++i) {
      Entry entry;
      entry.set_project_name("pool");
      entry.set_owner_uid(kPoolOwner);
      Json::Value app(Json::objectValue);
      app["path"] = "/pool/" + std::to_string(i);
      entry.set_app(app);
      bool const password = i % 2 == 1;
      if (password) {
        entry.set_protect_type(Entry::PROTECT_PASSWORD);
        entry.set_protect_password(kPoolPassword, true, Entry::ENCRYPT_ALGO_DEFAULT);
      }
      if (!store.CreateWithHash(entry)) _exit(2);
      fprintf(out, "%s %d %d\n", entry.get_hash().c_str(), entry.get_id(), password ? 1 : 0);
    }
    _exit(fclose(out) == 0 ? 0 : 3);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    return false;
  }
  std::ifstream in(path);
  Link link;
  int password = 0;
  while (in >> link.hash >> link.id >> password) {
    link.password = password != 0;
    link.pool = true;
    g_pool.push_back(link);
  }
  return g_pool.size() == 6;
}

pid_t Spawn(std::string const& dir) {
  pid_t const pid = fork();
  if (pid == 0) Worker(dir);
  return pid;
}

// ---------------------------------------------------------------- verification

struct Deleter {
  std::string kind;
  std::vector<std::string> args;
  long start;
  long bound;  // end time when reported, else the time the worker died
};

struct Created {
  long t0;
  std::vector<std::string> f;
};

struct Tally {
  long calls = 0, ok = 0, bad = 0, blocked = 0;
  std::map<std::string, long> per_op;
  std::map<std::string, long> bad_per_op;
  std::vector<std::string> bad_samples;
  std::vector<std::string> identity;
  long graceful = 0;
};

std::vector<std::string> Words(std::string const& line) {
  std::istringstream in(line);
  std::vector<std::string> w;
  std::string s;
  while (in >> s) w.push_back(s);
  return w;
}

class Db {
 public:
  explicit Db(char const* path) {
    if (sqlite3_open_v2(path, &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
      sqlite3_close(db_);
      db_ = nullptr;
    } else {
      sqlite3_busy_timeout(db_, 10000);
    }
  }
  ~Db() { sqlite3_close(db_); }
  bool good() const { return db_ != nullptr; }
  std::vector<std::vector<std::string>> Rows(std::string const& sql) {
    std::vector<std::vector<std::string>> out;
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
      fprintf(stderr, "query failed: %s: %s\n", sql.c_str(), sqlite3_errmsg(db_));
      failed_ = true;
      return out;
    }
    while (sqlite3_step(st) == SQLITE_ROW) {
      std::vector<std::string> row;
      for (int i = 0; i < sqlite3_column_count(st); ++i) {
        char const* t = reinterpret_cast<char const*>(sqlite3_column_text(st, i));
        row.push_back(t ? t : "");
      }
      out.push_back(row);
    }
    sqlite3_finalize(st);
    return out;
  }
  bool failed() const { return failed_; }

 private:
  sqlite3* db_ = nullptr;
  bool failed_ = false;
};

// Runs the checks as the system account, which owns the database and its log files.
class AsSystem {
 public:
  AsSystem() : ok_(setresgid(-1, 1, -1) == 0 && setresuid(-1, 1, -1) == 0) {}
  ~AsSystem() {
    if (setresuid(-1, 0, -1) != 0 || setresgid(-1, 0, -1) != 0) abort();
  }
  bool ok() const { return ok_; }

 private:
  bool ok_;
};

}  // namespace

int main(int argc, char** argv) {
  bool drop_one = false;
  if (argc > 1 && strcmp(argv[1], "--drop-one") == 0) {
    drop_one = true;
    --argc;
    ++argv;
  }
  double const seconds = argc > 1 ? atof(argv[1]) : 20.0;
  std::string dir = argc > 2 ? argv[2] : "";
  if (geteuid() != 0) {
    fprintf(stderr, "kova_stress runs as root (the library switches to uid 1 itself)\n");
    return 2;
  }
  if (dir.empty()) {
    char tmpl[] = "/tmp/kova-stress.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return 2;
    dir = tmpl;
  }
  mkdir(dir.c_str(), 0755);
  sigset_t stop_signal;
  sigemptyset(&stop_signal);
  sigaddset(&stop_signal, SIGUSR1);
  sigprocmask(SIG_BLOCK, &stop_signal, nullptr);
  if (!Prepare() || !MakePool(dir)) {
    fprintf(stderr, "cannot prepare the database under %s\n", KOVA_SHARING_DB_FILE);
    return 2;
  }

  std::mt19937_64 rng(static_cast<uint64_t>(getpid()) ^ static_cast<uint64_t>(time(nullptr)));
  std::vector<pid_t> live;
  std::map<pid_t, long> died;  // pid -> time of death, for workers that did not end themselves
  long kills = 0, unexpected_deaths = 0, spawned = 0;
  g_deadline = Clock() + seconds + 60;
  for (int i = 0; i < kWorkers; ++i) {
    live.push_back(Spawn(dir));
    ++spawned;
  }
  double const end = Clock() + seconds;
  g_deadline = end + 60;
  while (Clock() < end) {
    struct timespec pause = {0, static_cast<long>((20 + rng() % 31) * 1000000L)};
    nanosleep(&pause, nullptr);
    // A worker that died of its own is a crash.
    for (size_t i = 0; i < live.size(); ++i) {
      int status = 0;
      if (waitpid(live[i], &status, WNOHANG) == live[i]) {
        fprintf(stderr, "worker %d died by itself (status 0x%x)\n", live[i], status);
        ++unexpected_deaths;
        died[live[i]] = time(nullptr);
        live[i] = Spawn(dir);
        ++spawned;
      }
    }
    size_t const victim = rng() % live.size();
    kill(live[victim], SIGKILL);
    int status = 0;
    waitpid(live[victim], &status, 0);
    died[live[victim]] = time(nullptr);
    ++kills;
    live[victim] = Spawn(dir);
    ++spawned;
  }
  // The survivors finish their current call, report their identity and end.
  for (pid_t pid : live) kill(pid, SIGUSR1);
  long survivors_ok = 0;
  for (pid_t pid : live) {
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
      ++survivors_ok;
    } else {
      fprintf(stderr, "worker %d ended with status 0x%x\n", pid, status);
      died[pid] = time(nullptr);
      ++unexpected_deaths;
    }
  }

  // ---- read the reports
  Tally tally;
  std::vector<Deleter> deleters;
  std::vector<Created> links, sessions, tokens, logins;
  std::vector<std::string> files;
  if (DIR* d = opendir(dir.c_str())) {
    while (struct dirent* e = readdir(d)) {
      std::string const n = e->d_name;
      if (n.size() > 5 && n[0] == 'w' && n.compare(n.size() - 4, 4, ".log") == 0)
        files.push_back(n);
    }
    closedir(d);
  }
  for (std::string const& name : files) {
    pid_t const pid = static_cast<pid_t>(atol(name.c_str() + 1));
    long const death = died.count(pid) ? died[pid] : time(nullptr);
    std::ifstream in(dir + "/" + name);
    std::string line;
    std::map<std::string, size_t> open_intents;  // seq -> index in deleters
    while (std::getline(in, line)) {
      std::vector<std::string> w = Words(line);
      if (w.empty()) continue;
      std::string const& k = w[0];
      if (k == "R" && w.size() >= 4) {
        ++tally.calls;
        ++tally.per_op[w[1]];
        if (w[3] == "ok") {
          ++tally.ok;
        } else if (w[3] == "blocked") {
          ++tally.blocked;
        } else {
          ++tally.bad;
          ++tally.bad_per_op[w[1]];
          if (tally.bad_samples.size() < 10) tally.bad_samples.push_back(line);
        }
      } else if (k == "I" && w.size() >= 4) {
        Deleter d{w[3], std::vector<std::string>(w.begin() + 4, w.end()), atol(w[2].c_str()),
                  death};
        open_intents[w[1]] = deleters.size();
        deleters.push_back(d);
      } else if (k == "D" && w.size() >= 3) {
        auto it = open_intents.find(w[1]);
        if (it != open_intents.end()) deleters[it->second].bound = atol(w[2].c_str());
      } else if (k == "E" || k == "S" || k == "T" || k == "L") {
        Created c{atol(w[1].c_str()), std::vector<std::string>(w.begin() + 3, w.end())};
        (k == "E" ? links : k == "S" ? sessions : k == "T" ? tokens : logins).push_back(c);
      } else if (k == "X") {
        tally.identity.push_back(line);
      } else if (k == "Z" && w.size() >= 3) {
        ++tally.graceful;
        if (atol(w[1].c_str()) != 0 || atol(w[2].c_str()) != 0) tally.identity.push_back(line);
      }
    }
  }

  // ---- look at the database
  AsSystem as_system;
  if (!as_system.ok()) {
    fprintf(stderr, "cannot switch to the system account for the checks\n");
    return 2;
  }
  if (drop_one && !logins.empty()) {
    sqlite3* raw = nullptr;
    std::string const sql = "DELETE FROM session WHERE session_id = '" + logins.front().f[1] + "'";
    if (sqlite3_open_v2(KOVA_SHARING_DB_FILE, &raw, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        sqlite3_exec(raw, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK ||
        sqlite3_changes(raw) != 1) {
      fprintf(stderr, "--drop-one: could not delete a session\n");
    }
    sqlite3_close(raw);
  }
  Db db(KOVA_SHARING_DB_FILE);
  if (!db.good()) {
    fprintf(stderr, "cannot open %s\n", KOVA_SHARING_DB_FILE);
    return 1;
  }
  std::string const integrity = db.Rows("PRAGMA integrity_check")[0][0];
  std::map<std::string, std::vector<std::string>> entry_by_hash;   // hash -> id
  std::map<std::string, std::vector<std::string>> session_by_sid;  // sid -> id, timeout
  std::map<std::string, std::vector<std::string>> token_by_id;     // id -> entry, session
  std::set<std::pair<std::string, std::string>> token_pairs;       // (entry id, session id)
  for (auto& r : db.Rows("SELECT hash, id FROM entry")) entry_by_hash[r[0]] = {r[1]};
  for (auto& r : db.Rows("SELECT session_id, id, timeout FROM session"))
    session_by_sid[r[0]] = {r[1], r[2]};
  for (auto& r : db.Rows("SELECT id, entry_id, session_id FROM token")) {
    token_by_id[r[0]] = {r[1], r[2]};
    token_pairs.insert({r[1], r[2]});
  }
  long const rows_entry = static_cast<long>(entry_by_hash.size());
  long const rows_session = static_cast<long>(session_by_sid.size());
  long const rows_token = static_cast<long>(token_by_id.size());

  // Which reported deletions could have removed a row: a deleter counts when it ran (or may
  // have run) at or after the row's creation started and its conditions held for the row.
  auto any = [&](char const* kind, long created, auto const& matches) {
    for (Deleter const& d : deleters) {
      if (d.kind == kind && d.bound >= created && matches(d)) return true;
    }
    return false;
  };
  std::map<std::string, std::string> hash_of_id;  // entry id -> hash
  std::map<std::string, std::string> sid_of_row;  // session row id -> session id
  for (Created const& c : links) hash_of_id[c.f[1]] = c.f[0];
  for (Created const& c : sessions) sid_of_row[c.f[1]] = c.f[0];

  // A token goes with its link or its session (the schema's triggers): it is explained by the
  // absence of either, itself checked below, when this run made them.
  std::set<std::string> entry_ids, session_rows;
  for (auto const& e : entry_by_hash) entry_ids.insert(e.second[0]);
  for (auto const& e : session_by_sid) session_rows.insert(e.second[0]);
  auto link_gone = [&](std::string const& id) {
    return hash_of_id.count(id) != 0 && entry_ids.count(id) == 0;
  };
  auto session_gone = [&](std::string const& row) {
    return sid_of_row.count(row) != 0 && session_rows.count(row) == 0;
  };

  std::vector<std::string> missing;
  long confirmed = 0;
  // Links: E t0 t1 hash id owner expire_at expire_times
  for (Created const& c : links) {
    ++confirmed;
    std::string const& hash = c.f[0];
    auto it = entry_by_hash.find(hash);
    if (it != entry_by_hash.end() && it->second[0] == c.f[1]) continue;
    long const owner = atol(c.f[2].c_str());
    long const expire_at = atol(c.f[3].c_str());
    long const expire_times = atol(c.f[4].c_str());
    auto expired_by = [&](Deleter const& d) {
      return (expire_at != 0 && expire_at < d.bound) || expire_times != 0;
    };
    bool const legit = any("delete-owner", c.t0,
                           [&](Deleter const& d) { return atol(d.args[0].c_str()) == owner; }) ||
                       any("purge-entry", c.t0, expired_by) ||
                       any("purge-owner-project", c.t0, [&](Deleter const& d) {
                         return atol(d.args[0].c_str()) == owner && expired_by(d);
                       });
    if (!legit) missing.push_back("link " + hash + " id " + c.f[1]);
  }
  // Direct sessions: S t0 t1 sid row timeout
  for (Created const& c : sessions) {
    ++confirmed;
    auto it = session_by_sid.find(c.f[0]);
    if (it != session_by_sid.end() && it->second[0] == c.f[1]) continue;
    long const timeout = atol(c.f[2].c_str());
    bool const legit =
        any("purge-session", c.t0, [&](Deleter const& d) { return timeout < d.bound; }) ||
        any("delete-sid", c.t0, [&](Deleter const& d) { return d.args[0] == c.f[0]; });
    if (!legit) missing.push_back("session " + c.f[0]);
  }
  // Direct tokens: T t0 t1 row entry_id session_row timeout
  for (Created const& c : tokens) {
    ++confirmed;
    auto it = token_by_id.find(c.f[0]);
    if (it != token_by_id.end() && it->second[0] == c.f[1] && it->second[1] == c.f[2]) continue;
    long const timeout = atol(c.f[3].c_str());
    std::string const hash = hash_of_id.count(c.f[1]) ? hash_of_id[c.f[1]] : "";
    std::string const sid = sid_of_row.count(c.f[2]) ? sid_of_row[c.f[2]] : "";
    bool const legit =
        link_gone(c.f[1]) || session_gone(c.f[2]) ||
        any("purge-token", c.t0, [&](Deleter const& d) { return timeout < d.bound; }) ||
        any("purge-by-entry", c.t0, [&](Deleter const& d) { return d.args[0] == c.f[1]; }) ||
        any("logout", c.t0,
            [&](Deleter const& d) { return d.args[0] == hash && d.args[1] == sid; });
    if (!legit) missing.push_back("token " + c.f[0]);
  }
  // Logins: L t0 t1 hash sid; the session (a day long) and the token joining it to the link.
  std::map<std::string, std::string> pool_ids;
  for (Link const& l : g_pool) pool_ids[l.hash] = std::to_string(l.id);
  for (Created const& c : logins) {
    std::string const& hash = c.f[0];
    std::string const& sid = c.f[1];
    long const timeout = c.t0 + 86400;
    ++confirmed;
    auto s = session_by_sid.find(sid);
    if (s == session_by_sid.end()) {
      bool const legit =
          any("purge-session", c.t0, [&](Deleter const& d) { return timeout < d.bound; }) ||
          any("delete-sid", c.t0, [&](Deleter const& d) { return d.args[0] == sid; });
      if (!legit) missing.push_back("login session " + sid);
      continue;
    }
    ++confirmed;
    std::string entry_id = pool_ids.count(hash) ? pool_ids[hash] : "";
    for (Created const& l : links) {
      if (l.f[0] == hash) entry_id = l.f[1];
    }
    if (token_pairs.count({entry_id, s->second[0]})) continue;
    bool const legit =
        link_gone(entry_id) ||
        any("logout", c.t0,
            [&](Deleter const& d) { return d.args[0] == hash && d.args[1] == sid; }) ||
        any("purge-by-entry", c.t0, [&](Deleter const& d) { return d.args[0] == entry_id; }) ||
        any("purge-token", c.t0, [&](Deleter const& d) { return timeout < d.bound; });
    if (!legit) missing.push_back("login token " + hash + " " + sid);
  }
  // The shared links are never deleted by anybody.
  for (Link const& l : g_pool) {
    auto it = entry_by_hash.find(l.hash);
    if (it == entry_by_hash.end() || it->second[0] != std::to_string(l.id)) {
      missing.push_back("pool link " + l.hash);
    }
  }

  long present = 0;
  for (Created const& c : links) present += entry_by_hash.count(c.f[0]) ? 1 : 0;
  for (Created const& c : sessions) present += session_by_sid.count(c.f[0]) ? 1 : 0;
  for (Created const& c : tokens) present += token_by_id.count(c.f[0]) ? 1 : 0;
  long const gone = static_cast<long>(links.size() + sessions.size() + tokens.size()) - present;

  printf("duration %.1f s, %d workers, reports in %s\n", seconds, kWorkers, dir.c_str());
  printf("workers started          %ld\n", spawned);
  printf("kills (SIGKILL)          %ld\n", kills);
  printf("unexpected deaths        %ld\n", unexpected_deaths);
  printf("calls                    %ld (ok %ld, blocked -8 %ld, failed %ld)\n", tally.calls,
         tally.ok, tally.blocked, tally.bad);
  for (auto const& op : tally.per_op) {
    long const bad = tally.bad_per_op.count(op.first) ? tally.bad_per_op.at(op.first) : 0;
    printf("  %-22s %7ld%s\n", op.first.c_str(), op.second,
           bad ? (" (" + std::to_string(bad) + " failed)").c_str() : "");
  }
  printf(
      "confirmed writes         %ld (links %zu, sessions %zu, tokens %zu, logins %zu x "
      "session+token)\n",
      confirmed, links.size(), sessions.size(), tokens.size(), logins.size());
  printf("deleting calls started   %zu\n", deleters.size());
  printf("gone (links, direct sessions and tokens) %ld, of them unexplained %zu\n", gone,
         missing.size());
  printf("missing writes           %zu\n", missing.size());
  printf("rows at the end          entry %ld, session %ld, token %ld\n", rows_entry, rows_session,
         rows_token);
  printf("integrity_check          %s\n", integrity.c_str());
  printf("identity                 %ld survivors ended as euid 0, egid 0; %zu mismatches\n",
         tally.graceful, tally.identity.size());
  for (auto const& m : missing) printf("MISSING %s\n", m.c_str());
  for (auto const& b : tally.bad_samples) printf("FAILED CALL %s\n", b.c_str());
  for (auto const& x : tally.identity) printf("IDENTITY %s\n", x.c_str());

  bool const pass = integrity == "ok" && missing.empty() && tally.bad == 0 &&
                    tally.identity.empty() && unexpected_deaths == 0 && !db.failed() &&
                    tally.graceful == survivors_ok && survivors_ok == kWorkers && kills > 0 &&
                    !links.empty() && !logins.empty();
  printf("%s\n", pass ? "PASS" : "FAIL");
  return pass ? 0 : 1;
}
