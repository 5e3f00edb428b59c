// What the roles of the benchmark (kova_bench.cpp) share: the visitor's address and password,
// the clocks, child processes, and the files the roles hand each other.
#ifndef KOVA_BENCH_BENCH_COMMON_H
#define KOVA_BENCH_BENCH_COMMON_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "kovasharing/kovasharing.h"

namespace kovabench {

using KOVA::sharing::db::EntryDB;
using KOVA::sharing::db::SharingDB;
using KOVA::sharing::record::Entry;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;

inline constexpr char kAddress[] = "198.51.100.23";
inline constexpr char kPassword[] = "bench pass phrase";
extern std::string g_self;  // this program, for the roles run as children

double Now();      // monotonic seconds
double WallNow();  // seconds since the epoch
double Median(std::vector<double> v);
long FileSize(std::string const& path);
std::string ReadAll(std::string const& path);
pid_t Spawn(std::vector<std::string> const& args);
int Wait(pid_t pid);
int RunChild(std::vector<std::string> const& args);
void RemoveDatabases();
// The hash and session id the seed wrote for the visitor.
bool ReadVisitor(std::string const& file, std::string& hash, std::string& sid);

// The roles run as children of the whole run.
int Seed(long rows, char const* out);
int InProcess(int argc, char** argv);
int Worker(int argc, char** argv);

}  // namespace kovabench

#endif
