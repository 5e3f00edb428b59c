// The benchmark of the visitor functions against their floor (floor.h). One program, several
// roles, each in a process of its own so that no database connection crosses a fork and the
// process that watches the write-ahead log holds no connection itself:
//
//   kova_bench [--short] [--json FILE]    runs everything, prints the table, writes FILE
//   kova_bench seed ROWS OUT              fresh database with ROWS rows per table, one
//                                         password link and one visitor session
//   kova_bench inproc ROWS LOGIN OUT ...  Google Benchmark rounds of the in-process figures
//   kova_bench worker KIND SECS START OUT logs new visitors in until the time is up (KIND:
//                                         library, library-system, floor, floor-objects)
//
// The library's database path is fixed when it is built, so the bench build has a root of its
// own (scripts/bench makes it); every figure is taken on that one database in the same run.
#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <json/reader.h>
#include <kovasharing/kovasharing.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "floor.h"
#include "kova_paths.h"
#include "kovadb.h"

extern char** environ;

namespace {

using KOVA::sharing::db::EntryDB;
using KOVA::sharing::db::SharingDB;
using KOVA::sharing::record::Entry;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;

char const kAddress[] = "198.51.100.23";
char const kPassword[] = "bench pass phrase";
std::string g_self;  // this program, for the roles run as children

double Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

double WallNow() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t const n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

long FileSize(std::string const& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : 0;
}

std::string ReadAll(std::string const& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

pid_t Spawn(std::vector<std::string> const& args) {
  std::vector<char*> argv;
  for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
  return pid;
}

int Wait(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int RunChild(std::vector<std::string> const& args) {
  pid_t const pid = Spawn(args);
  return pid < 0 ? -1 : Wait(pid);
}

void RemoveDatabases() {
  for (char const* base : {KOVA_SHARING_DB_FILE, KOVA_AUTOBLOCK_DB_FILE}) {
    for (char const* suffix : {"", "-wal", "-shm", "-journal"}) {
      unlink((std::string(base) + suffix).c_str());
    }
  }
}

// ---------------------------------------------------------------- seed

// Unique text of `length` characters for row `i` (hash or session id), spread over the
// alphabet so that index pages fill as they do with random keys.
std::string Key(uint64_t i, size_t length, char tag) {
  static char const kPool[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  uint64_t x = i * 0x9E3779B97F4A7C15ull + 0x632BE59BD9B4E019ull;
  std::string key(length, tag);
  for (size_t p = 1; p < length; ++p) {
    key[p] = kPool[x % 62];
    x = x / 62 ^ (x << 17) ^ i;
  }
  key.back() = kPool[i % 62];
  return key + std::to_string(i);
}

int Seed(long rows, char const* out) {
  RemoveDatabases();
  SharingDB& sdb = SharingDB::Instance();
  if (!sdb.IsGood()) {
    fprintf(stderr, "seed: the sharing database cannot be opened\n");
    return 1;
  }
  // The link the figures use, made by the library like any application's link.
  std::string hash;
  {
    EntryDB entries(sdb);
    Json::Value app(Json::objectValue);
    app["path"] = "/bench/folder";
    Entry entry;
    entry.set_project_name("bench").set_owner_uid(1000).set_app(app);
    entry.set_protect_type(Entry::PROTECT_PASSWORD);
    entry.set_protect_password(kPassword, true, Entry::ENCRYPT_ALGO_DEFAULT);
    if (!entries.CreateWithHash(entry)) {
      fprintf(stderr, "seed: link not created\n");
      return 1;
    }
    hash = entry.get_hash();
  }
  // The other rows: written straight into the tables, shaped like the library's own rows
  // (the link's data text is copied from the link above).
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(KOVA_SHARING_DB_FILE, &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    return 1;
  }
  sqlite3_busy_timeout(db, 5000);
  std::string data;
  {
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, "SELECT data FROM entry", -1, &stmt, nullptr);
    if (sqlite3_step(stmt) == SQLITE_ROW) {
      data = reinterpret_cast<char const*>(sqlite3_column_text(stmt, 0));
    }
    sqlite3_finalize(stmt);
  }
  long const now = time(nullptr);
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  sqlite3_stmt* entry_insert = nullptr;
  sqlite3_stmt* session_insert = nullptr;
  sqlite3_stmt* token_insert = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO entry VALUES (NULL,?1,'bench-fill',1,?2,0,0,0,0,1,?3)", -1,
                     &entry_insert, nullptr);
  sqlite3_prepare_v2(db, "INSERT INTO session VALUES (NULL,?1,4294967295,?2,?3)", -1,
                     &session_insert, nullptr);
  sqlite3_prepare_v2(db, "INSERT INTO token VALUES (NULL,?1,?2,?3)", -1, &token_insert, nullptr);
  for (long i = 1; i < rows; ++i) {  // the bench link and its session and token are one row each
    std::string const h = Key(i, 9, 'h');
    sqlite3_bind_text(entry_insert, 1, h.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(entry_insert, 2, 1000 + i % 50);
    sqlite3_bind_text(entry_insert, 3, data.c_str(), -1, SQLITE_STATIC);
    std::string const s = Key(i, 32, 's');
    std::string const ip = "10." + std::to_string(i % 250) + ".0." + std::to_string(i % 200);
    sqlite3_bind_text(session_insert, 1, s.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(session_insert, 2, ip.c_str(), -1, SQLITE_TRANSIENT);
    // A tenth of the rows have expired and wait for a purge, as on a live appliance.
    sqlite3_bind_int64(session_insert, 3, now + (i % 10 ? 86400 : -3600));
    sqlite3_bind_int64(token_insert, 1, 2 + (i * 7919) % rows);
    sqlite3_bind_int64(token_insert, 2, 2 + (i * 104729) % rows);
    sqlite3_bind_int64(token_insert, 3, now + (i % 10 ? 86400 : -3600));
    for (sqlite3_stmt* stmt : {entry_insert, session_insert, token_insert}) {
      if (sqlite3_step(stmt) != SQLITE_DONE) {
        fprintf(stderr, "seed: %s\n", sqlite3_errmsg(db));
        return 1;
      }
      sqlite3_reset(stmt);
    }
  }
  sqlite3_finalize(entry_insert);
  sqlite3_finalize(session_insert);
  sqlite3_finalize(token_insert);
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_exec(db, "ANALYZE", nullptr, nullptr, nullptr);
  sqlite3_exec(db, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr);
  sqlite3_close(db);

  // The visitor: logged in once by the library; every figure reuses this session.
  setenv("REMOTE_ADDR", kAddress, 1);
  std::string sid;
  _tag_sharing_login_params const params = {hash.c_str(), kPassword, nullptr, nullptr, nullptr};
  int const code = KOVA::KovaSharingLogin(sid, &params, false);
  if (code != 1) {
    fprintf(stderr, "seed: login answered %d\n", code);
    return 1;
  }
  FILE* f = fopen(out, "w");
  if (f == nullptr) return 1;
  fprintf(f, "%s %s\n", hash.c_str(), sid.c_str());
  fclose(f);
  return 0;
}

bool ReadVisitor(std::string const& file, std::string& hash, std::string& sid) {
  std::istringstream in(ReadAll(file));
  return static_cast<bool>(in >> hash >> sid);
}

// ---------------------------------------------------------------- in-process figures

// Keeps the time per iteration of every run, by the name before '#'.
class Collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(Context const&) override { return true; }
  void ReportRuns(std::vector<Run> const& runs) override {
    for (Run const& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      std::string name = run.benchmark_name();
      name = name.substr(0, name.find('#'));
      times[name].push_back(run.GetAdjustedRealTime());  // microseconds
    }
  }
  std::map<std::string, std::vector<double>> times;
};

// The privilege guard's part of one statement: the four identity calls the library makes
// around it (group and user to the system account and back).
void SwitchIdentity() {
  if (setresgid(-1, 1, -1) != 0 || setresuid(-1, 1, -1) != 0 || setresuid(-1, 0, -1) != 0 ||
      setresgid(-1, 0, -1) != 0) {
    abort();
  }
}

int InProcess(int argc, char** argv) {
  // inproc ROWS LOGIN(0|1) ROUNDS MIN_TIME VISITOR_FILE OUT
  if (argc != 8) return 2;
  std::string const tier = argv[2];
  bool const with_login = std::string(argv[3]) == "1";
  int const rounds = atoi(argv[4]);
  double const min_time = atof(argv[5]);
  std::string hash, sid;
  if (!ReadVisitor(argv[6], hash, sid)) return 1;
  setenv("REMOTE_ADDR", kAddress, 1);

  SharingDB::Instance();
  kovabench::Floor floor;
  if (!floor.Open(KOVA_SHARING_DB_FILE, KOVA_AUTOBLOCK_DB_FILE)) {
    fprintf(stderr, "inproc: floor cannot open the databases\n");
    return 1;
  }
  _tag_sharing_login_params const check = {hash.c_str(), nullptr, nullptr, nullptr, sid.c_str()};
  _tag_sharing_login_params const login = {hash.c_str(), kPassword, nullptr, nullptr, sid.c_str()};
  // One call of each first: a figure of a call that fails would be worthless.
  std::string out;
  if (KOVA::KovaSharingIsAuthorized(&check) != 1 ||
      floor.Authorize(hash.c_str(), sid.c_str(), kAddress) != 1 ||
      (with_login && (KOVA::KovaSharingLogin(out, &login, false) != 1 ||
                      floor.Login(hash.c_str(), kPassword, sid.c_str(), kAddress, out) != 1))) {
    fprintf(stderr, "inproc: a first call failed\n");
    return 1;
  }

  // Library and floor take turns, round after round, so that drift of the machine or of the
  // files falls on both alike.
  for (int round = 0; round < rounds; ++round) {
    std::string const r = "#" + std::to_string(round);
    benchmark::RegisterBenchmark(("authorize_library" + r).c_str(),
                                 [&](benchmark::State& st) {
                                   for (auto _ : st) {
                                     if (KOVA::KovaSharingIsAuthorized(&check) != 1)
                                       st.SkipWithError("refused");
                                   }
                                 })
        ->MinTime(min_time)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("authorize_floor" + r).c_str(),
                                 [&](benchmark::State& st) {
                                   for (auto _ : st) {
                                     if (floor.Authorize(hash.c_str(), sid.c_str(), kAddress) != 1)
                                       st.SkipWithError("refused");
                                   }
                                 })
        ->MinTime(min_time)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
    if (!with_login) continue;
    benchmark::RegisterBenchmark(("login_library" + r).c_str(),
                                 [&](benchmark::State& st) {
                                   std::string id;
                                   for (auto _ : st) {
                                     if (KOVA::KovaSharingLogin(id, &login, false) != 1)
                                       st.SkipWithError("refused");
                                   }
                                 })
        ->MinTime(min_time)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark(
        ("login_floor" + r).c_str(),
        [&](benchmark::State& st) {
          std::string id;
          for (auto _ : st) {
            if (floor.Login(hash.c_str(), kPassword, sid.c_str(), kAddress, id) != 1) {
              st.SkipWithError("refused");
            }
          }
        })
        ->MinTime(min_time)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
    if (round == 0) {
      benchmark::RegisterBenchmark("identity_switch#0",
                                   [](benchmark::State& st) {
                                     for (auto _ : st) SwitchIdentity();
                                   })
          ->MinTime(min_time)
          ->Unit(benchmark::kMicrosecond)
          ->UseRealTime();
    }
  }
  int bargc = 1;
  char* bargv[] = {argv[0], nullptr};
  benchmark::Initialize(&bargc, bargv);
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  benchmark::Shutdown();

  FILE* f = fopen(argv[7], "w");
  if (f == nullptr) return 1;
  for (auto const& [name, times] : collector.times) {
    fprintf(f, "%s_%s %.3f %zu\n", name.c_str(), tier.c_str(), Median(times), times.size());
  }
  fclose(f);
  return 0;
}

// ---------------------------------------------------------------- the library's record work

// The record work the library does around the floor's statements for one login to a password
// link by a new visitor, done with the library's own classes: every column of the link becomes
// a `Field` with one conversion, the link's JSON data is decoded once and encoded once (for
// the statement that counts the use only while the link is unchanged), the new session and
// token are turned into their column lists and maps, and each of the eleven statements is
// bracketed by the guard's look at the current identity (which finds the system account
// already in place). Worker kind "floor-objects" runs the floor's login followed by this
// work: a lower bound for the library's records, measured beside the floor.
class RecordWork {
 public:
  bool Load(std::string const& hash) {
    sqlite3* db = nullptr;
    bool ok =
        sqlite3_open_v2(KOVA_SHARING_DB_FILE, &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK;
    // Eight of these start at once, while the log may still be in recovery: wait, not fail.
    if (ok) sqlite3_busy_timeout(db, 5000);
    sqlite3_stmt* stmt = nullptr;
    ok = ok && sqlite3_prepare_v2(db, "SELECT * FROM entry WHERE hash = ?1", -1, &stmt, nullptr) ==
                   SQLITE_OK;
    if (ok) sqlite3_bind_text(stmt, 1, hash.c_str(), -1, SQLITE_TRANSIENT);
    ok = ok && sqlite3_step(stmt) == SQLITE_ROW && sqlite3_column_count(stmt) == 11;
    for (int i = 0; ok && i < 11; ++i) {
      unsigned char const* text = sqlite3_column_text(stmt, i);
      ok = text != nullptr;
      if (ok) columns_[i] = reinterpret_cast<char const*>(text);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    Json::Value app(Json::objectValue);
    app["path"] = "/bench/folder";
    entry_.set_hash(hash).set_project_name("bench").set_owner_uid(1000).set_app(app);
    entry_.set_protect_type(Entry::PROTECT_PASSWORD);
    entry_.set_protect_password(kPassword, true, Entry::ENCRYPT_ALGO_DEFAULT);
    return ok;
  }

  // Returns a value drawn from every result, so that none of the work can be left out.
  size_t Run(std::string const& session_id, long timeout) {
    size_t sum = 0;
    for (int read = 0; read < 1; ++read) {
      using KOVA::sharing::db::Field;
      sum += Field(columns_[0]).AsInt(0) + Field(columns_[3]).AsBool(true) +
             Field(columns_[4]).AsUInt(0) + Field(columns_[5]).AsTime(0) +
             Field(columns_[6]).AsTime(0) + Field(columns_[7]).AsInt(0) +
             Field(columns_[8]).AsInt(0) + Field(columns_[9]).AsInt(1);
      sum += Field(columns_[1]).AsString("").size() + Field(columns_[2]).AsString("").size();
      std::string const text = Field(columns_[10]).AsString("");
      Json::Value data;
      Json::Reader reader;
      if (!reader.parse(text, data, true)) return 0;
      for (char const* key :
           {"protect_type", "protect_title", "protect_password", "protect_password_algo",
            "protect_password_salt", "redirect_type", "redirect_uri"}) {
        sum += data[key].asString().size();
      }
      sum += data["enable_match_ip"].asBool() + data["app"].size() + data["private_data"].size();
    }
    sum += entry_.GetFieldMap().size();
    Session session;
    session.set_session_id(session_id).set_uid(KOVA::sharing::UID_ERR).set_ip(kAddress);
    session.set_timeout(timeout);
    sum += session.GetFieldList().size() + session.GetFieldMap().size();
    Token token;
    token.set_session_id(2).set_entry_id(1).set_timeout(timeout);
    sum += token.GetFieldList().size();
    for (int statement = 0; statement < 11; ++statement) {
      sum += geteuid() + getegid() + geteuid() + getegid();
    }
    return sum;
  }

 private:
  std::string columns_[11];
  Entry entry_;
};

// ---------------------------------------------------------------- concurrency worker

int Worker(int argc, char** argv) {
  // worker KIND SECONDS START_EPOCH VISITOR_FILE OUT
  if (argc != 7) return 2;
  std::string const kind = argv[2];
  bool const library = kind.compare(0, 5, "floor") != 0;
  double const seconds = atof(argv[3]);
  double const start = atof(argv[4]);
  std::string hash, sid;
  if (!ReadVisitor(argv[5], hash, sid)) return 1;
  setenv("REMOTE_ADDR", kAddress, 1);
  FILE* f = fopen(argv[6], "w");
  if (f == nullptr) return 1;
  // "library-system": the library in a process that already is the system account, so that
  // its privilege guard has nothing to switch; this shows what the switching costs.
  if (kind == "library-system" && (setresgid(1, 1, 1) != 0 || setresuid(1, 1, 1) != 0)) return 1;

  bool const objects = kind == "floor-objects";
  RecordWork work;
  if (objects && !work.Load(hash)) return 1;

  kovabench::Floor floor;
  if (library) {
    SharingDB::Instance();
  } else if (!floor.Open(KOVA_SHARING_DB_FILE, KOVA_AUTOBLOCK_DB_FILE)) {
    return 1;
  }
  while (WallNow() < start) usleep(1000);
  double const end = Now() + seconds;
  long ok = 0, failed = 0;
  // New visitors each time: a session and a token are made per login.
  _tag_sharing_login_params const login = {hash.c_str(), kPassword, nullptr, nullptr, nullptr};
  std::string id;
  while (Now() < end) {
    int code = library ? KOVA::KovaSharingLogin(id, &login, false)
                       : floor.Login(hash.c_str(), kPassword, nullptr, kAddress, id);
    if (objects && code == 1 && work.Run(id, time(nullptr) + 86400) == 0) code = 0;
    ++(code == 1 ? ok : failed);
  }
  unsigned long restarts = 0;
  unsigned long long restart_us = 0;
  KOVADBCheckpointStats(&restarts, &restart_us);
  fprintf(f, "%ld %ld %ld %lu %llu\n", ok, failed, library ? failed : floor.busy_failures(),
          restarts, restart_us);
  fclose(f);
  return 0;
}

// ---------------------------------------------------------------- the whole run

struct Figure {
  Figure(std::string n, double lib, double flo, char const* u, double t)
      : name(std::move(n)), library(lib), floor(flo), unit(u), target(t) {}
  std::string name;
  double library = 0, floor = 0;
  char const* unit = "";
  double target = 0;  // the highest ratio allowed; 0: reported only
  bool higher_is_better = false;
  std::string note;
  double Ratio() const { return floor > 0 ? library / floor : 0; }
  bool Met() const {
    if (target == 0) return true;
    return higher_is_better ? Ratio() >= target : Ratio() <= target;
  }
};

struct Concurrency {
  int processes = 0;
  double library_rate = 0, floor_rate = 0;
  long library_failed = 0, library_busy = 0, floor_failed = 0, floor_busy = 0;
  long wal_max = 0, wal_end = 0, wal_after = 0;  // library run
  long floor_wal_max = 0, floor_wal_end = 0;     // floor slices
  double system_rate = 0;  // the library in processes that already are the system account
  long system_failed = 0;
  double objects_rate = 0;     // the floor followed by the library's record work
  unsigned long restarts = 0;  // library run: the log restarted past its bound, and the time
  double restart_ms = 0;       // the processes spent doing so
};

struct Options {
  bool short_run = false;
  std::string json = "bench/results.json";
  std::string work;
};

std::map<std::string, double> ReadFigures(std::string const& file) {
  std::map<std::string, double> figures;
  std::istringstream in(ReadAll(file));
  std::string name;
  double value = 0;
  size_t count = 0;
  while (in >> name >> value >> count) figures[name] = value;
  return figures;
}

bool SeedTier(long rows, std::string const& visitor) {
  fprintf(stderr, "== database with %ld rows per table\n", rows);
  bool const ok = RunChild({g_self, "seed", std::to_string(rows), visitor}) == 0;
  // Whatever the build and the seeding left dirty goes to disk now, not during a measurement
  // (a sync of the database's log would wait behind it).
  sync();
  return ok;
}

// Fresh processes, library and floor taking turns in blocks of ten; the median wall time of
// each. The first run of a block is not counted: the two leave the database's log files
// behind differently (the library keeps them, a plain SQLite program deletes them), and each
// is measured in its own steady state, as on an appliance that runs only one of them.
bool Cold(int runs, std::string const& visitor, Figure& figure) {
  std::string hash, sid;
  if (!ReadVisitor(visitor, hash, sid)) return false;
  std::string const dir = g_self.substr(0, g_self.rfind('/'));
  int const block = runs >= 10 ? 10 : runs;
  std::vector<double> library, floor;
  for (int kind = 0;
       library.size() < static_cast<size_t>(runs) || floor.size() < static_cast<size_t>(runs);
       kind = 1 - kind) {
    std::string const program =
        dir + (kind == 0 ? "/kova_bench_cold_library" : "/kova_bench_cold_floor");
    for (int i = 0; i <= block; ++i) {
      double const t0 = Now();
      int const code = RunChild({program, hash, sid});
      double const t = (Now() - t0) * 1e3;
      if (code != 0) {
        fprintf(stderr, "cold: %s answered %d\n", program.c_str(), code);
        return false;
      }
      if (i > 0) (kind == 0 ? library : floor).push_back(t);
    }
  }
  figure.library = Median(library);
  figure.floor = Median(floor);
  return true;
}

// `processes` workers of one kind for `seconds`; the log's size is watched meanwhile and
// 5 s after the last worker ended.
bool Load(Options const& o, std::string const& kind, int processes, double seconds, double settle,
          std::string const& visitor, double& rate, long& failed, long& busy, long& wal_max,
          long& wal_end, long& wal_after, unsigned long& restarts, double& restart_ms) {
  std::string const wal = std::string(KOVA_SHARING_DB_FILE) + "-wal";
  double const start = WallNow() + 0.3;  // every worker connected before the clock starts
  std::vector<pid_t> pids;
  std::vector<std::string> outs;
  for (int i = 0; i < processes; ++i) {
    outs.push_back(o.work + "/worker-" + std::to_string(i));
    unlink(outs.back().c_str());
    pids.push_back(Spawn({g_self, "worker", kind, std::to_string(seconds), std::to_string(start),
                          visitor, outs.back()}));
  }
  wal_max = 0;
  for (;;) {
    wal_max = std::max(wal_max, FileSize(wal));
    int status = 0;
    bool running = false;
    for (pid_t pid : pids) {
      if (pid > 0 && waitpid(pid, &status, WNOHANG) == 0) running = true;
    }
    if (!running) break;
    usleep(50000);
  }
  for (pid_t pid : pids) {
    if (pid > 0) waitpid(pid, nullptr, 0);
  }
  wal_end = FileSize(wal);
  long ok = 0;
  failed = busy = 0;
  restarts = 0;
  restart_ms = 0;
  for (auto const& out : outs) {
    std::istringstream in(ReadAll(out));
    long a = 0, b = 0, c = 0;
    unsigned long r = 0;
    unsigned long long us = 0;
    if (!(in >> a >> b >> c >> r >> us)) {
      fprintf(stderr, "load: a %s worker reported nothing\n", kind.c_str());
      return false;
    }
    ok += a;
    failed += b;
    busy += c;
    restarts += r;
    restart_ms += us / 1000.0;
  }
  rate = ok / seconds;
  if (settle > 0) {
    usleep(static_cast<useconds_t>(settle * 1e6));
    wal_after = FileSize(wal);
  }
  return true;
}

std::string Bytes(long n) {
  char text[32];
  if (n >= 1 << 20) {
    snprintf(text, sizeof text, "%.1f MiB", n / 1048576.0);
  } else if (n >= 1024) {
    snprintf(text, sizeof text, "%.1f KiB", n / 1024.0);
  } else {
    snprintf(text, sizeof text, "%ld B", n);
  }
  return text;
}

// The private directories of the two stores, owned by the system account as on the
// appliance; their parents are made traversable.
bool PrepareRoot() {
  for (std::string const file : {KOVA_SHARING_DB_FILE, KOVA_AUTOBLOCK_DB_FILE}) {
    std::string const dir = file.substr(0, file.rfind('/'));
    for (size_t pos = 1; (pos = dir.find('/', pos)) != std::string::npos; ++pos) {
      std::string const parent = dir.substr(0, pos);
      if (mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    if (mkdir(dir.c_str(), 0770) != 0 && errno != EEXIST) return false;
    if (chown(dir.c_str(), 1, 1) != 0 || chmod(dir.c_str(), 0770) != 0) return false;
  }
  return true;
}

int Main(Options const& o) {
  if (geteuid() != 0) {
    fprintf(stderr, "the benchmark runs as root: the library switches to uid 1 for its work\n");
    return 2;
  }
  if (!PrepareRoot()) {
    fprintf(stderr, "cannot prepare the directories under %s\n", KOVA_ROOT_PREFIX);
    return 1;
  }
  mkdir(o.work.c_str(), 0755);
  setenv("REMOTE_ADDR", kAddress, 1);  // the visitor's address, for every child
  std::string const visitor = o.work + "/visitor";
  long const small_rows = 1000;
  long const large_rows = o.short_run ? 5000 : 1000000;
  int const rounds = o.short_run ? 2 : 9;
  std::string const min_time = o.short_run ? "0.01" : "0.25";
  int const cold_runs = o.short_run ? 5 : 300;
  double const seconds = o.short_run ? 0.5 : 10;
  double const settle = o.short_run ? 0.5 : 5;
  double const t_start = Now();

  std::vector<Figure> figures;
  std::vector<Concurrency> loads;
  std::string const inproc_small = o.work + "/inproc-small";
  std::string const inproc_large = o.work + "/inproc-large";

  // The small tables: in-process figures, cold requests, concurrency.
  if (!SeedTier(small_rows, visitor)) return 1;
  fprintf(stderr, "== in-process figures, %d rounds\n", rounds);
  if (RunChild({g_self, "inproc", "small", "1", std::to_string(rounds), min_time, visitor,
                inproc_small}) != 0) {
    return 1;
  }
  fprintf(stderr, "== cold requests, %d of each\n", cold_runs);
  Figure cold{"cold request (process)", 0, 0, "ms", 1.2};
  if (!Cold(cold_runs, visitor, cold)) return 1;

  // Each level in slices, the floor and the library taking turns, so that drift of the
  // machine (the speed of a sync varies many times over within minutes) falls on both alike.
  // The library's slice comes last, so that its log is the one watched after the load.
  int const slices = o.short_run ? 1 : 5;
  double const slice = seconds / slices;
  for (int n : {1, 2, 4, 8}) {
    fprintf(stderr, "== %d process(es) logging visitors in, %.1f s each kind\n", n, seconds);
    Concurrency c;
    c.processes = n;
    double library_logins = 0, floor_logins = 0, system_logins = 0, objects_logins = 0;
    for (int i = 0; i < slices; ++i) {
      bool const last = i + 1 == slices;
      double rate = 0;
      long failed = 0, busy = 0, wal_max = 0, wal_end = 0, wal_after = 0;
      unsigned long restarts = 0;
      double restart_ms = 0;
      if (!Load(o, "floor", n, slice, 0, visitor, rate, failed, busy, wal_max, wal_end, wal_after,
                restarts, restart_ms)) {
        return 1;
      }
      floor_logins += rate * slice;
      c.floor_failed += failed;
      c.floor_busy += busy;
      c.floor_wal_max = std::max(c.floor_wal_max, wal_max);
      c.floor_wal_end = wal_end;
      if (n == 8) {
        if (!Load(o, "library-system", n, slice, 0, visitor, rate, failed, busy, wal_max, wal_end,
                  wal_after, restarts, restart_ms)) {
          return 1;
        }
        system_logins += rate * slice;
        c.system_failed += failed;
        if (!Load(o, "floor-objects", n, slice, 0, visitor, rate, failed, busy, wal_max, wal_end,
                  wal_after, restarts, restart_ms)) {
          return 1;
        }
        objects_logins += rate * slice;
        c.floor_busy += busy;
      }
      wal_after = 0;
      if (!Load(o, "library", n, slice, last && n == 8 ? settle : 0, visitor, rate, failed, busy,
                wal_max, wal_end, wal_after, restarts, restart_ms)) {
        return 1;
      }
      c.restarts += restarts;
      c.restart_ms += restart_ms;
      library_logins += rate * slice;
      c.library_failed += failed;
      c.wal_max = std::max(c.wal_max, wal_max);
      c.wal_end = wal_end;
      c.wal_after = wal_after;
    }
    c.library_rate = library_logins / seconds;
    c.floor_rate = floor_logins / seconds;
    c.system_rate = system_logins / seconds;
    c.objects_rate = objects_logins / seconds;
    loads.push_back(c);
  }

  // The large tables: the authorization check again.
  if (!SeedTier(large_rows, visitor)) return 1;
  fprintf(stderr, "== in-process figures on the large tables\n");
  if (RunChild({g_self, "inproc", "large", "0", std::to_string(rounds), min_time, visitor,
                inproc_large}) != 0) {
    return 1;
  }

  // The small tables once more, right after the large ones: the speed of a sync drifts
  // within minutes, so the scaling figure compares two measurements taken side by side.
  std::string const inproc_again = o.work + "/inproc-again";
  if (!SeedTier(small_rows, visitor)) return 1;
  fprintf(stderr, "== in-process figures on the small tables again\n");
  if (RunChild({g_self, "inproc", "small", "0", std::to_string(rounds), min_time, visitor,
                inproc_again}) != 0) {
    return 1;
  }

  std::map<std::string, double> small = ReadFigures(inproc_small);
  std::map<std::string, double> large = ReadFigures(inproc_large);
  std::map<std::string, double> again = ReadFigures(inproc_again);
  figures.push_back({"authorization check", small["authorize_library_small"],
                     small["authorize_floor_small"], "us", 1.3});
  figures.push_back({"login (password, earlier session)", small["login_library_small"],
                     small["login_floor_small"], "us", 1.3});
  figures.push_back(cold);
  Figure scaling{"scaling: check at " + std::to_string(large_rows) + " vs 1000 rows",
                 large["authorize_library_large"], again["authorize_library_small"], "us", 1.2};
  char note[96];
  snprintf(note, sizeof note, "floor: %.1f vs %.1f us", large["authorize_floor_large"],
           again["authorize_floor_small"]);
  scaling.note = note;
  figures.push_back(scaling);
  Concurrency const& eight = loads.back();
  Figure throughput{"logins/s at 8 processes", eight.library_rate, eight.floor_rate, "1/s", 0.8};
  throughput.higher_is_better = true;
  figures.push_back(throughput);
  double const guard = small["identity_switch_small"];

  // The table.
  printf("\n%-44s %12s %12s %8s %8s %s\n", "figure", "library", "floor", "ratio", "target", "");
  for (Figure const& f : figures) {
    char target[16] = "-";
    if (f.target > 0)
      snprintf(target, sizeof target, "%s%.1f", f.higher_is_better ? ">=" : "<=", f.target);
    printf("%-44s %9.1f %-2s %9.1f %-2s %8.2f %8s %s%s\n", f.name.c_str(), f.library, f.unit,
           f.floor, f.unit, f.Ratio(), target, f.Met() ? "met" : "MISSED",
           f.note.empty() ? "" : ("  (" + f.note + ")").c_str());
  }
  printf("\nidentity switch of the privilege guard (4 calls, once per statement): %.2f us\n",
         guard);
  printf("\n%-10s %12s %12s %8s %14s %14s %12s %12s %12s %10s %12s\n", "processes", "library/s",
         "floor/s", "ratio", "lib failures", "floor busy", "wal max", "wal at end", "wal +5 s",
         "restarts", "in restarts");
  for (Concurrency const& c : loads) {
    printf("%-10d %12.1f %12.1f %8.2f %14ld %14ld %12s %12s %12s %10lu %9.1f ms\n", c.processes,
           c.library_rate, c.floor_rate, c.floor_rate > 0 ? c.library_rate / c.floor_rate : 0,
           c.library_failed, c.floor_busy, Bytes(c.wal_max).c_str(), Bytes(c.wal_end).c_str(),
           c.processes == 8 ? Bytes(c.wal_after).c_str() : "-", c.restarts, c.restart_ms);
  }
  printf("floor at 8: wal max %s, at the end of its last slice %s\n",
         Bytes(eight.floor_wal_max).c_str(), Bytes(eight.floor_wal_end).c_str());
  printf(
      "library at 8 in processes that already are the system account (no identity "
      "switches): %.1f logins/s, %ld failures\n",
      eight.system_rate, eight.system_failed);
  printf(
      "floor followed by the library's record work (a lower bound for the library): %.1f "
      "logins/s, %.2f x floor\n",
      eight.objects_rate, eight.floor_rate > 0 ? eight.objects_rate / eight.floor_rate : 0);
  double const elapsed = Now() - t_start;
  printf("\n%s run, %.0f s\n", o.short_run ? "short (no timing may be judged)" : "full", elapsed);

  // The same as JSON.
  FILE* f = fopen(o.json.c_str(), "w");
  if (f == nullptr) {
    fprintf(stderr, "cannot write %s\n", o.json.c_str());
    return 1;
  }
  fprintf(f, "{\n  \"run\": \"%s\",\n  \"seconds\": %.1f,\n  \"sqlite\": \"%s\",\n",
          o.short_run ? "short" : "full", elapsed, sqlite3_libversion());
  fprintf(f, "  \"figures\": [\n");
  for (size_t i = 0; i < figures.size(); ++i) {
    Figure const& g = figures[i];
    fprintf(f,
            "    {\"name\": \"%s\", \"unit\": \"%s\", \"library\": %.3f, \"floor\": %.3f, "
            "\"ratio\": %.3f, \"target\": \"%s%.1f\", \"met\": %s}%s\n",
            g.name.c_str(), g.unit, g.library, g.floor, g.Ratio(),
            g.higher_is_better ? ">=" : "<=", g.target, g.Met() ? "true" : "false",
            i + 1 < figures.size() ? "," : "");
  }
  fprintf(f, "  ],\n  \"scaling_floor_us\": {\"large\": %.3f, \"small\": %.3f},\n",
          large["authorize_floor_large"], again["authorize_floor_small"]);
  fprintf(f, "  \"identity_switch_us\": %.3f,\n", guard);
  fprintf(f, "  \"library_at_8_as_system_logins_per_s\": %.1f,\n", eight.system_rate);
  fprintf(f, "  \"floor_with_record_work_at_8_logins_per_s\": %.1f,\n", eight.objects_rate);
  fprintf(f, "  \"concurrency\": [\n");
  for (size_t i = 0; i < loads.size(); ++i) {
    Concurrency const& c = loads[i];
    fprintf(f,
            "    {\"processes\": %d, \"library_logins_per_s\": %.1f, \"floor_logins_per_s\": "
            "%.1f, \"library_failures\": %ld, \"floor_failures\": %ld, \"floor_busy\": %ld, "
            "\"wal_max_bytes\": %ld, \"wal_end_bytes\": %ld, \"wal_after_5s_bytes\": %ld, "
            "\"floor_wal_max_bytes\": %ld, \"floor_wal_end_bytes\": %ld, \"wal_restarts\": %lu, "
            "\"wal_restart_ms\": %.1f}%s\n",
            c.processes, c.library_rate, c.floor_rate, c.library_failed, c.floor_failed,
            c.floor_busy, c.wal_max, c.wal_end, c.wal_after, c.floor_wal_max, c.floor_wal_end,
            c.restarts, c.restart_ms, i + 1 < loads.size() ? "," : "");
  }
  fprintf(f, "  ]\n}\n");
  fclose(f);
  RemoveDatabases();  // a later suite on the same root starts from an empty database
  bool failures = false;
  for (Concurrency const& c : loads) {
    failures |= c.library_failed != 0 || c.floor_busy != 0 || c.system_failed != 0;
  }
  return failures ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  char self[4096];
  ssize_t const n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return 2;
  self[n] = '\0';
  g_self = self;
  std::string const role = argc > 1 ? argv[1] : "";
  if (role == "seed" && argc == 4) return Seed(atol(argv[2]), argv[3]);
  if (role == "inproc") return InProcess(argc, argv);
  if (role == "worker") return Worker(argc, argv);

  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string const a = argv[i];
    if (a == "--short") {
      o.short_run = true;
    } else if (a == "--json" && i + 1 < argc) {
      o.json = argv[++i];
    } else if (a == "--work" && i + 1 < argc) {
      o.work = argv[++i];
    } else {
      fprintf(stderr, "usage: %s [--short] [--json FILE] [--work DIR]\n", argv[0]);
      return 2;
    }
  }
  if (o.work.empty()) o.work = std::string(KOVA_ROOT_PREFIX) + "/bench-work";
  return Main(o);
}
