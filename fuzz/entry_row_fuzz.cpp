// An entry read from a row whose "data" column (and every other column) holds arbitrary text:
// reading must not crash or let an exception out, a refused row leaves the record as it was
// unless it was read into a record that breaks the rules, and an accepted record shows itself
// as JSON, answers its rules and reads the same a second time.
#include <sqlite3.h>
#include <stdint.h>

#include <string>

#include "fuzz_input.h"
#include "kovadb.h"
#include "kovasharing/entry.h"
#include "kovasharing/result.h"

namespace {

char const kTarget[] = "entry_row";
using KOVA::sharing::db::Result;
using KOVA::sharing::db::Row;
using KOVA::sharing::record::Entry;

char const kSchema[] =
    "CREATE TABLE entry (id INTEGER PRIMARY KEY, hash TEXT NOT NULL DEFAULT '',"
    " project_name TEXT NOT NULL DEFAULT '', enabled INTEGER NOT NULL DEFAULT 1,"
    " owner_uid INTEGER NOT NULL DEFAULT 4294967295, start_at INTEGER NOT NULL DEFAULT 0,"
    " expire_at INTEGER NOT NULL DEFAULT 0, expire_times INTEGER NOT NULL DEFAULT 0,"
    " use_count INTEGER NOT NULL DEFAULT 0, auto_gc INTEGER NOT NULL DEFAULT 1,"
    " data TEXT NOT NULL DEFAULT '{}')";

KOVADB* Db() {
  static KOVADB* db = [] {
    KOVADB* made = KOVADBConnect("", "", "", ":memory:");
    if (made == nullptr || KOVADBExecute(made, kSchema, nullptr) != 0) {
      kovafuzz::Fail(kTarget, "no database");
    }
    return made;
  }();
  return db;
}

std::string Shown(Entry const& e) {
  Json::Value v;
  e.ToJSON(v);
  return v.toStyledString();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  kovafuzz::Input input(data, size);
  std::string columns[9];
  bool const text_columns = input.Bool();
  for (std::string& c : columns) {
    c = text_columns ? input.Text(32) : std::to_string(input.I32());
  }
  std::string const json = input.Rest();

  sqlite3* handle = KOVADBGetHandle(Db());
  if (sqlite3_exec(handle, "DELETE FROM entry", nullptr, nullptr, nullptr) != SQLITE_OK) {
    kovafuzz::Fail(kTarget, "delete failed");
  }
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(handle, "INSERT INTO entry VALUES (7,?,?,?,?,?,?,?,?,?,?)", -1, &stmt,
                         nullptr) != SQLITE_OK) {
    kovafuzz::Fail(kTarget, "prepare failed");
  }
  for (int i = 0; i < 9; ++i) {
    sqlite3_bind_text(stmt, i + 1, columns[i].data(), static_cast<int>(columns[i].size()),
                      SQLITE_STATIC);
  }
  sqlite3_bind_text(stmt, 10, json.data(), static_cast<int>(json.size()), SQLITE_STATIC);
  if (sqlite3_step(stmt) != SQLITE_DONE) kovafuzz::Fail(kTarget, "insert failed");
  sqlite3_finalize(stmt);

  DBResult_tag* raw = nullptr;
  if (KOVADBExecute(Db(), "SELECT * FROM entry", &raw) != 0) kovafuzz::Fail(kTarget, "select");
  Result result(raw);
  Row row;
  if (!result.NextRow(row)) kovafuzz::Fail(kTarget, "no row");

  // A record with content of its own, to see that a refused row leaves it alone.
  Entry entry;
  entry.set_project_name("before").set_protect_title("kept");
  Json::Value app(Json::objectValue);
  app["k"] = "v";
  entry.set_app(app);
  std::string const title_before = entry.get_protect_title();
  Json::Value const app_before = entry.get_app();
  bool const read = entry.FromRow(row);
  // A refused row either left the data fields alone (unreadable data) or was read into a
  // record that breaks the rules.
  if (!read && entry.IsLegal() &&
      (entry.get_protect_title() != title_before || entry.get_app() != app_before)) {
    kovafuzz::Fail(kTarget, "a refused row changed a record that is legal");
  }
  // Whatever was read answers its rules and shows itself.
  (void)entry.IsLegal();
  (void)entry.IsValid();
  (void)entry.IsPasswordValid("secret");
  (void)entry.get_protect_users();
  (void)entry.get_protect_groups();
  std::string const shown = Shown(entry);
  if (read && entry.get_id() != 7) kovafuzz::Fail(kTarget, "row id lost");
  // Reading the same row into a fresh record gives the same record.
  if (read) {
    Entry again;
    if (!again.FromRow(row) || Shown(again) != shown) {
      kovafuzz::Fail(kTarget, "reading the row twice differs");
    }
  }
  return 0;
}
