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
#include "stress.h"

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

namespace kovastress {

std::vector<Link> g_pool;
double g_deadline = 0;

double Clock() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

namespace {

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

}  // namespace
}  // namespace kovastress

using namespace kovastress;

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

  Run run;
  run.dir = dir;
  run.seconds = seconds;
  run.drop_one = drop_one;
  run.spawned = spawned;
  run.kills = kills;
  run.unexpected_deaths = unexpected_deaths;
  run.survivors_ok = survivors_ok;
  run.died = died;
  return Verify(run);
}
