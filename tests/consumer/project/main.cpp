// An application of the installed library: writes and reads a row, with a quote in it, in a
// database of its own through the public classes.
#include <kovasharing/kovasharing.h>

#include <cstdio>
#include <string>

using namespace KOVA::sharing;

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  db::BaseDB base(argv[1], 0660);
  db::Result result;
  db::Row row;
  if (!base.IsGood() || !base.Execute("CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT)") ||
      !base.Insert("t", {"it's"}) || !base.Execute("SELECT name FROM t", result) ||
      !result.NextRow(row) || row.GetField("name").AsString("") != "it's")
    return 1;
  std::printf("consumer ok: database path %s\n", SZF_SHARING_DB_PATH);
  return 0;
}
