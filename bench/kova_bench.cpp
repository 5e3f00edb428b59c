// The benchmark of the visitor functions against their floor (floor.h). One program, several
// roles, each in a process of its own so that no database connection crosses a fork and the
// process that watches the write-ahead log holds no connection itself:
//
//   kova_bench [--short] [--json FILE]    runs everything, prints the table, writes FILE
//   kova_bench seed ROWS OUT              fresh database with ROWS rows per table, one
//                                         password link and one visitor session
//   kova_bench inproc ROWS LOGIN OUT ...  Google Benchmark rounds of the in-process figures
//   kova_bench worker KIND SECS START OUT logs new visitors in until the time is up (KIND:
//                                         library, library-system, floor)
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

#include "bench_common.h"
#include "floor.h"
#include "kova_paths.h"
#include "kovadb.h"

namespace kovabench {
namespace {

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
    double library_logins = 0, floor_logins = 0, system_logins = 0;
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
}  // namespace kovabench

using namespace kovabench;

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
