// The parts of the crash and load driver (see stress.cpp): the workers (worker.cpp), the
// parent that starts and kills them (stress.cpp), and the verification of what the workers
// reported against the database (verify.cpp).
#ifndef KOVA_STRESS_STRESS_H
#define KOVA_STRESS_STRESS_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "kovasharing/kovasharing.h"

namespace kovastress {

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

struct Link {
  std::string hash;
  int id;
  bool password;
  bool pool;
};

// The shared links, made by the parent before it starts the workers.
extern std::vector<Link> g_pool;
// A worker that misses the stop signal ends by itself after this time (of Clock()).
extern double g_deadline;

double Clock();

// One worker's life: calls into the library, each reported to its file under `dir`.
[[noreturn]] void Worker(std::string const& dir);

// What the parent saw of the run.
struct Run {
  std::string dir;
  double seconds = 0;
  bool drop_one = false;
  long spawned = 0, kills = 0, unexpected_deaths = 0, survivors_ok = 0;
  std::map<pid_t, long> died;  // pid -> time of death, for workers that did not end themselves
};

// Reads the reports, checks the database against them and prints the summary; 0 when the run
// passed.
int Verify(Run const& run);

}  // namespace kovastress

#endif
