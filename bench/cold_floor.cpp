// The floor of one request: the same process work as the library's request program (connect
// with the same settings, read the schema version, one authorization check, exit), written
// directly against SQLite.
#include <stdlib.h>

#include "floor.h"
#include "kova_paths.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  char const* address = getenv("REMOTE_ADDR");
  if (address == nullptr) return 2;
  kovabench::Floor floor;
  if (!floor.Open(KOVA_SHARING_DB_FILE, nullptr)) return 3;
  return floor.Authorize(argv[1], argv[2], address) == 1 ? 0 : 1;
}
