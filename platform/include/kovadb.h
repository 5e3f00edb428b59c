/* Database access layer of the appliance, over SQLite. */
#ifndef KOVADB_H
#define KOVADB_H

#include <stddef.h>

#include "kova_platform_export.h"

#ifdef __cplusplus
extern "C" {
#endif

struct sqlite3;
typedef struct KOVADB KOVADB;             /* one connection */
typedef struct DBResult_tag DBResult_tag; /* rows of one statement, copied as text */

/* Opens the existing database file `path` read-write; the first three arguments are unused
 * (empty texts). Returns NULL on failure. */
KOVA_PLATFORM_EXPORT KOVADB* KOVADBConnect(const char* host, const char* user, const char* password,
                                           const char* path);
/* Runs every statement of `sql` in order. *result receives the rows of the last statement
 * that returned columns (NULL when none did). Returns -1 on failure, 0 on success. */
KOVA_PLATFORM_EXPORT int KOVADBExecute(KOVADB* db, const char* sql, DBResult_tag** result);
/* Moves to the next row and writes its index into *row; -1 when there is none (or result is
 * NULL). */
KOVA_PLATFORM_EXPORT int KOVADBFetchRow(DBResult_tag* result, unsigned int* row);
/* Text of column `name` in row `row`; "" for SQL NULL; NULL when the column does not exist. */
KOVA_PLATFORM_EXPORT const char* KOVADBFetchField(DBResult_tag* result, unsigned int row,
                                                  const char* name);
/* Escapes `in` for the inside of a single-quoted SQL literal into `out` (NUL-terminated).
 * Returns -1 when it does not fit into `out_size` bytes or `in` holds a NUL byte. */
KOVA_PLATFORM_EXPORT int KOVADBEscapeStringEX2(int flags, char* out, size_t out_size,
                                               const char* in, size_t in_len);
KOVA_PLATFORM_EXPORT const char* KOVADBErrorGet(KOVADB* db);
KOVA_PLATFORM_EXPORT void KOVADBFreeResult(DBResult_tag* result); /* accepts NULL */
KOVA_PLATFORM_EXPORT void KOVADBClose(KOVADB* db);
/* The SQLite handle the connection wraps. */
KOVA_PLATFORM_EXPORT struct sqlite3* KOVADBGetHandle(KOVADB* db);
/* How often this process restarted a write-ahead log that had grown past its bound, and the
 * microseconds it spent doing so (for the benchmark's report). Either pointer may be NULL. */
KOVA_PLATFORM_EXPORT void KOVADBCheckpointStats(unsigned long* restarts,
                                                unsigned long long* microseconds);

#ifdef __cplusplus
}
#endif

#endif
