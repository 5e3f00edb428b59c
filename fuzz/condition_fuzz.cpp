// Query conditions built from fuzz input and rendered: the text must be exactly what the
// builder's rules give (joins, backquoted columns, quoted values with doubled quotes, sort
// keys, LIMIT and OFFSET), and run against a table it must select the same rows as the same
// filters with the values bound as parameters, so no value can end its literal early. The
// one documented failure is an OFFSET without a LIMIT.
#include <sqlite3.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "kovasharing/base_db.h"
#include "kovasharing/condition.h"

namespace {

char const kTarget[] = "condition";
using KOVA::sharing::db::BaseDB;
using KOVA::sharing::db::Condition;

char const* const kColumns[] = {"id", "hash", "name", "n"};
char const* const kExpressions[] = {
    "id > 2", "n = 0", "hash LIKE 'a%'", "1", "0", "name IS NOT NULL", "(id = 1 OR id = 4)"};
char const* const kValues[] = {"a", "it's", "''", "x\"y", "", "%_", "1", "0", "a'b'c", "'"};

sqlite3* Table() {
  static sqlite3* db = [] {
    sqlite3* handle = nullptr;
    if (sqlite3_open(":memory:", &handle) != SQLITE_OK) kovafuzz::Fail(kTarget, "no database");
    std::string sql = "CREATE TABLE t (id INTEGER PRIMARY KEY, hash TEXT, name TEXT, n INTEGER);";
    for (int i = 0; i < 10; ++i) {
      char* row = sqlite3_mprintf("INSERT INTO t VALUES (NULL, '%q', '%q', %d);", kValues[i],
                                  kValues[(i * 3) % 10], i % 3);
      sql += row;
      sqlite3_free(row);
    }
    if (sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
      kovafuzz::Fail(kTarget, "no table");
    }
    return handle;
  }();
  return db;
}

// The connection whose escaping the condition uses; a file of its own under /tmp.
BaseDB& Db() {
  static std::string const path = "/tmp/kova-fuzz-condition." + std::to_string(getpid()) + ".db";
  static BaseDB* db = [] {
    auto* made = new BaseDB(path, 0600);
    atexit([] { unlink(path.c_str()); });
    return made;
  }();
  return *db;
}

// What a value reads as once escaped: the escape routine is given twice the text's length, so
// a text of quotes alone (and the empty text) does not fit and is replaced by the empty text,
// as is a text holding NUL.
std::string AsEscaped(std::string const& value) {
  if (value.find('\0') != std::string::npos) return "";
  if (value.find_first_not_of('\'') == std::string::npos) return "";
  return value;
}

std::string Quoted(std::string const& value) {
  std::string out = "'";
  for (char c : value) out += c == '\'' ? "''" : std::string(1, c);
  return out + "'";
}

struct Outcome {
  bool ok = false;
  std::string error;
  std::vector<long> ids;
};

Outcome Run(std::string const& sql, std::vector<std::string> const& binds) {
  Outcome out;
  sqlite3_stmt* stmt = nullptr;
  char const* tail = nullptr;
  if (sqlite3_prepare_v2(Table(), sql.c_str(), static_cast<int>(sql.size()), &stmt, &tail) !=
      SQLITE_OK) {
    out.error = sqlite3_errmsg(Table());
    return out;
  }
  if (tail != sql.c_str() + sql.size()) {
    sqlite3_finalize(stmt);
    out.error = "text after the statement";
    return out;
  }
  for (size_t i = 0; i < binds.size(); ++i) {
    sqlite3_bind_text(stmt, static_cast<int>(i + 1), binds[i].data(),
                      static_cast<int>(binds[i].size()), SQLITE_TRANSIENT);
  }
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) out.ids.push_back(sqlite3_column_int64(stmt, 0));
  out.ok = rc == SQLITE_DONE;
  if (!out.ok) out.error = sqlite3_errmsg(Table());
  sqlite3_finalize(stmt);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  kovafuzz::Input input(data, size);
  Condition condition(Db());
  std::string want;   // the rendering the rules give
  std::string bound;  // the same with every value as a parameter
  std::vector<std::string> binds;
  std::string orders;
  int filters = 0, sorts = 0;
  long long offset = -1, limit = -1;
  for (int op = 0; op < 12 && !input.empty(); ++op) {
    unsigned const kind = input.Below(7);
    if (kind <= 1) {
      std::string const column = kColumns[input.Below(4)];
      std::string const value = input.Bool() ? kValues[input.Below(10)] : input.Text(64);
      if (kind == 0) {
        condition.Where(column, value);
      } else {
        condition.OrWhere(column, value);  // joins with AND, like Where
      }
      std::string const join = filters++ == 0 ? " WHERE " : " AND ";
      want += join + "`" + column + "` = " + Quoted(AsEscaped(value));
      bound += join + "`" + column + "` = ?";
      binds.push_back(AsEscaped(value));
    } else if (kind <= 3) {
      std::string const expression = kExpressions[input.Below(7)];
      if (kind == 2) {
        condition.Where(expression);
      } else {
        condition.OrWhere(expression);
      }
      std::string const join = filters++ == 0 ? " WHERE " : kind == 2 ? " AND " : " OR ";
      want += join + expression;
      bound += join + expression;
    } else if (kind == 4) {
      std::string const column = kColumns[input.Below(4)];
      bool const ascending = input.Bool();
      condition.OrderBy(column, ascending);
      orders += (sorts++ == 0 ? " ORDER BY " : ",") + column + (ascending ? " ASC" : " DESC");
    } else if (kind == 5) {
      int const o = input.I32() % 1000000, l = input.I32() % 1000000;
      condition.Limit(o, l);
      offset = o;
      limit = l;
    } else {
      int const page = input.I32(), page_size = input.I32();
      condition.Page(page, page_size);
      // The offset of a page beyond what an int holds is the largest (or smallest) int.
      long long const o = static_cast<long long>(page_size) * (static_cast<long long>(page) - 1);
      offset = o > INT_MAX ? INT_MAX : o < INT_MIN ? INT_MIN : o;
      limit = page_size;
    }
  }
  std::string tail = orders;
  if (limit > 0) tail += " LIMIT " + std::to_string(limit);
  if (offset > 0) tail += " OFFSET " + std::to_string(offset);
  want += tail;
  bound += tail;

  std::string const sql = condition.GetSQL();
  if (sql != want) {
    kovafuzz::Fail(kTarget,
                   "rendered " + kovafuzz::Show(sql) + "\nexpected " + kovafuzz::Show(want));
  }
  bool const empty = filters == 0 && sorts == 0 && offset == -1 && limit == -1;
  if (condition.IsEmpty() != empty) kovafuzz::Fail(kTarget, "IsEmpty wrong");

  Outcome const rendered = Run("SELECT id FROM t" + sql, {});
  Outcome const reference = Run("SELECT id FROM t" + bound, binds);
  bool const offset_without_limit = offset > 0 && limit <= 0;
  if (!rendered.ok && !offset_without_limit) {
    kovafuzz::Fail(kTarget,
                   "rendered condition failed: " + rendered.error + " in " + kovafuzz::Show(sql));
  }
  if (rendered.ok != reference.ok) kovafuzz::Fail(kTarget, "rendered and bound forms disagree");
  if (rendered.ids != reference.ids) {
    kovafuzz::Fail(kTarget, "rendered condition selects other rows: " + kovafuzz::Show(sql));
  }
  condition.Clear();
  if (!condition.IsEmpty() || !condition.GetSQL().empty()) kovafuzz::Fail(kTarget, "Clear");
  return 0;
}
