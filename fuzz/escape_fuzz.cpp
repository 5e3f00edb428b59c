// The platform escape routine against SQLite's own quoting: the same text as "%q", exactly the
// room it needs (one byte less is refused), inputs holding NUL refused, and the escaped text
// between single quotes reads back as exactly the input.
#include <sqlite3.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz_input.h"
#include "kovadb.h"

namespace {

char const kTarget[] = "escape";

sqlite3* Memory() {
  static sqlite3* db = [] {
    sqlite3* handle = nullptr;
    if (sqlite3_open(":memory:", &handle) != SQLITE_OK) kovafuzz::Fail(kTarget, "no database");
    return handle;
  }();
  return db;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string const in(reinterpret_cast<char const*>(data), size);
  size_t quotes = 0;
  for (char c : in) quotes += c == '\'' ? 1 : 0;
  size_t const needed = size + quotes + 1;
  std::vector<char> out(needed + 8, 'X');
  int const n = KOVADBEscapeStringEX2(0, out.data(), needed, in.data(), in.size());

  if (in.find('\0') != std::string::npos) {
    if (n != -1) kovafuzz::Fail(kTarget, "a text with NUL was escaped: " + kovafuzz::Show(in));
    // Not even with room to spare.
    std::vector<char> big(4 * needed + 8);
    if (KOVADBEscapeStringEX2(0, big.data(), big.size(), in.data(), in.size()) != -1) {
      kovafuzz::Fail(kTarget, "a text with NUL was escaped into a large buffer");
    }
    return 0;
  }
  if (n != static_cast<int>(needed - 1)) {
    kovafuzz::Fail(kTarget, "length " + std::to_string(n) + " instead of " +
                                std::to_string(needed - 1) + " for " + kovafuzz::Show(in));
  }
  if (out[needed - 1] != '\0' || out[needed] != 'X') {
    kovafuzz::Fail(kTarget, "terminator misplaced or written past the capacity");
  }
  std::string const escaped(out.data());
  if (escaped.size() != needed - 1) kovafuzz::Fail(kTarget, "escaped text holds a NUL");

  // One byte less does not fit, and nothing is written beyond it.
  std::vector<char> tight(needed + 8, 'Y');
  if (KOVADBEscapeStringEX2(0, tight.data(), needed - 1, in.data(), in.size()) != -1) {
    kovafuzz::Fail(kTarget, "escaped into a buffer one byte short: " + kovafuzz::Show(in));
  }
  for (size_t i = needed - 1; i < tight.size(); ++i) {
    if (tight[i] != 'Y') kovafuzz::Fail(kTarget, "wrote past a refused buffer");
  }

  char* quoted = sqlite3_mprintf("%q", in.c_str());
  if (quoted == nullptr) kovafuzz::Fail(kTarget, "no memory");
  bool const same = escaped == quoted;
  std::string const expected = quoted;
  sqlite3_free(quoted);
  if (!same) {
    kovafuzz::Fail(
        kTarget, "differs from %q: " + kovafuzz::Show(escaped) + " vs " + kovafuzz::Show(expected));
  }

  // The literal ends where the routine says: SQLite reads back exactly the input.
  std::string const sql = "SELECT '" + escaped + "'";
  sqlite3_stmt* stmt = nullptr;
  char const* tail = nullptr;
  if (sqlite3_prepare_v2(Memory(), sql.c_str(), static_cast<int>(sql.size()), &stmt, &tail) !=
      SQLITE_OK) {
    kovafuzz::Fail(kTarget, std::string("SELECT of the literal failed: ") +
                                sqlite3_errmsg(Memory()) + " for " + kovafuzz::Show(in));
  }
  if (tail != sql.c_str() + sql.size()) kovafuzz::Fail(kTarget, "the literal ended early");
  if (sqlite3_step(stmt) != SQLITE_ROW) kovafuzz::Fail(kTarget, "no row");
  char const* text = reinterpret_cast<char const*>(sqlite3_column_text(stmt, 0));
  int const bytes = sqlite3_column_bytes(stmt, 0);
  std::string const back(text != nullptr ? text : "", static_cast<size_t>(bytes));
  sqlite3_finalize(stmt);
  if (back != in) {
    kovafuzz::Fail(kTarget, "read back " + kovafuzz::Show(back) + " for " + kovafuzz::Show(in));
  }
  return 0;
}
