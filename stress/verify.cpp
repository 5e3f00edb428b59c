// The verification of the crash and load driver: the workers' reports against the database.
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

int Verify(Run const& run) {
  std::string const& dir = run.dir;
  double const seconds = run.seconds;
  bool const drop_one = run.drop_one;
  long const spawned = run.spawned, kills = run.kills, unexpected_deaths = run.unexpected_deaths;
  long const survivors_ok = run.survivors_ok;
  std::map<pid_t, long> died = run.died;

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

}  // namespace kovastress
