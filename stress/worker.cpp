// The worker side of the crash and load driver: a random mix of the library's calls, each
// reported after it returned.
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
#include "stress.h"

namespace kovastress {

namespace {

volatile sig_atomic_t g_stop = 0;
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

struct Visit {
  Link link;
  std::string sid;
  std::string address;  // of the last login with this session: links bind sessions to it
};

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

}  // namespace

void Worker(std::string const& dir) {
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

}  // namespace kovastress
