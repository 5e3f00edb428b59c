// A minimal application of the installed library: opens a database of its own, writes and
// reads a row through the public classes.
#include <kovasharing/kovasharing.h>

#include <cstdio>
#include <string>

using namespace KOVA::sharing;

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  db::BaseDB base(argv[1], 0660);
  if (!base.IsGood()) return 3;
  if (!base.Execute("CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT)")) return 4;
  if (!base.Insert("t", {"it's"})) return 5;
  db::Result result;
  if (!base.Execute("SELECT name FROM t", result)) return 6;
  db::Row row;
  if (!result.NextRow(row)) return 7;
  std::string const name = row.GetField("name").AsString("");
  if (name != "it's") return 8;
  std::printf("consumer ok: %s, database path %s\n", name.c_str(), SZF_SHARING_DB_PATH);
  return 0;
}
