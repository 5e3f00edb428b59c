// The benchmark's concurrency worker: logs new visitors in until its time is up, through the
// library or through the floor.
#include <kovasharing/kovasharing.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "bench_common.h"
#include "floor.h"
#include "kova_paths.h"
#include "kovadb.h"

namespace kovabench {

int Worker(int argc, char** argv) {
  // worker KIND SECONDS START_EPOCH VISITOR_FILE OUT
  if (argc != 7) return 2;
  std::string const kind = argv[2];
  bool const library = kind != "floor";
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

}  // namespace kovabench
