// The benchmark's in-process figures: Google Benchmark rounds of the visitor functions and
// their floor on one database.
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

extern char** environ;

namespace kovabench {

namespace {

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

}  // namespace

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

}  // namespace kovabench
