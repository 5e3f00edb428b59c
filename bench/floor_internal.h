// Pieces the floor's units share.
#ifndef KOVA_BENCH_FLOOR_INTERNAL_H
#define KOVA_BENCH_FLOOR_INTERNAL_H

#include <sqlite3.h>

#include <string>

#include "floor.h"

namespace kovabench {

char const kPragmas[] =
    "PRAGMA cache_size = 5000;PRAGMA foreign_keys = ON;PRAGMA journal_mode = WAL;"
    "PRAGMA synchronous = NORMAL;";
int const kBusyTimeoutMs = 5000;
long const kLifetime = 86400;
long const kBlockWindow = 600;
long const kBlockMaxFailures = 10;

inline std::string Text(sqlite3_stmt* stmt, int column) {
  unsigned char const* text = sqlite3_column_text(stmt, column);
  return text != nullptr ? std::string(reinterpret_cast<char const*>(text),
                                       static_cast<size_t>(sqlite3_column_bytes(stmt, column)))
                         : std::string();
}

// The string value of a top-level member of the link's JSON data; the values looked up here
// (digests, salts, the protection kind) never hold escapes.
inline std::string JsonString(std::string const& json, char const* key) {
  std::string const needle = std::string("\"") + key + "\":\"";
  size_t const at = json.find(needle);
  if (at == std::string::npos) return std::string();
  size_t const start = at + needle.size();
  size_t const end = json.find('"', start);
  return end == std::string::npos ? std::string() : json.substr(start, end - start);
}

inline bool JsonTrue(std::string const& json, char const* key) {
  std::string const needle = std::string("\"") + key + "\":true";
  return json.find(needle) != std::string::npos;
}

inline bool EntryUsable(long enabled, long start_at, long expire_at, long expire_times,
                        long use_count, long now) {
  return enabled != 0 && !(start_at > 0 && start_at > now) && !(expire_at > 0 && now > expire_at) &&
         !(expire_times > 0 && use_count > expire_times);
}

struct Floor::EntryRow {
  int id = 0;
  std::string columns[10];  // hash ... data, in table order
  long enabled = 0, start_at = 0, expire_at = 0, expire_times = 0, use_count = 0;
  std::string data;
};

}  // namespace kovabench

#endif
