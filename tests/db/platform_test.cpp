// The platform's file helpers, program runner and database access layer, on real files and
// real child processes.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "db_test_util.h"
#include "klibc.h"
#include "kovadb.h"
#include "kovatest.h"

namespace {

std::string ReadAll(FILE* fp) {
  std::string out;
  char buf[256];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, fp)) > 0) out.append(buf, n);
  return out;
}

TEST(Klibc, FileHelpers) {
  kovatest::TempDir dir;
  std::string const path = dir.File("f");
  EXPECT_EQ(0, KLIBCFileExist(path.c_str()));
  ASSERT_EQ(0, KLIBCFileTouch(path.c_str()));
  EXPECT_NE(0, KLIBCFileExist(path.c_str()));
  EXPECT_EQ(0, dbtest::Facts(path).size);

  // Touching an existing file keeps what it holds.
  kovatest::WriteFile(path, "keep me");
  ASSERT_EQ(0, KLIBCFileTouch(path.c_str()));
  EXPECT_EQ("keep me", kovatest::ReadFile(path));

  ASSERT_EQ(0, KOVAFSAclChmod(path.c_str(), -1, 0640));
  EXPECT_EQ(0640u, dbtest::Facts(path).mode);
  ASSERT_EQ(0, KOVAFSAclChmod(path.c_str(), -1, 432));
  EXPECT_EQ(0660u, dbtest::Facts(path).mode);

  struct stat st;
  ASSERT_EQ(0, KLIBCFileStat(path.c_str(), 1, &st));
  EXPECT_EQ(7, st.st_size);
  EXPECT_NE(0, KLIBCFileStat(dir.File("missing").c_str(), 1, &st));

  EXPECT_EQ(-1, KLIBCFileTouch(dir.File("no/such/dir").c_str()));
  EXPECT_EQ(-1, KOVAFSAclChmod(dir.File("missing").c_str(), -1, 0600));
}

TEST(Klibc, PopenPassesEveryArgumentAsOneWord) {
  // Blanks, quotes and shell syntax travel untouched: no shell sees them.
  FILE* fp =
      KLIBCPopen("/bin/echo", "r", "a  b", "$(id)", "c'd", static_cast<char const*>(nullptr));
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ("a  b $(id) c'd\n", ReadAll(fp));
  int status = KLIBCPclose(fp);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));

  // Argument 0 is the program path; the empty argument survives as its own word.
  fp = KLIBCPopen("/bin/sh", "r", "-c", "printf '<%s>' \"$0\" \"$@\"", "x y", "",
                  static_cast<char const*>(nullptr));
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ("<x y><>", ReadAll(fp));
  EXPECT_EQ(0, KLIBCPclose(fp));

  // The explicit vector goes to the program as it is, argument 0 included. (The shell shows
  // its own argument vector; arguments are separated by NUL there.)
  char const* const argv[] = {"given-name", "-c", "cat /proc/$$/cmdline", "x y", nullptr};
  fp = KLIBCPopenv("/bin/sh", "r", argv);
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ(std::string("given-name\0-c\0cat /proc/$$/cmdline\0x y\0", 39), ReadAll(fp));
  EXPECT_EQ(0, KLIBCPclose(fp));
  fp = KLIBCPopen("/bin/sh", "r", "-c", "cat /proc/$$/cmdline", static_cast<char const*>(nullptr));
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ(std::string("/bin/sh\0-c\0cat /proc/$$/cmdline\0", 32), ReadAll(fp));
  EXPECT_EQ(0, KLIBCPclose(fp));
}

TEST(Klibc, PcloseReturnsTheWaitStatus) {
  FILE* fp =
      KLIBCPopen("/bin/sh", "r", "-c", "echo out; exit 3", static_cast<char const*>(nullptr));
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ("out\n", ReadAll(fp));
  int status = KLIBCPclose(fp);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(3, WEXITSTATUS(status));
  EXPECT_EQ(3 << 8, status);

  fp = KLIBCPopen("/bin/sh", "r", "-c", "kill -TERM $$", static_cast<char const*>(nullptr));
  ASSERT_NE(nullptr, fp);
  status = KLIBCPclose(fp);  // closing without reading still reaps the child
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(SIGTERM, WTERMSIG(status));

  // The child's standard input is empty, so a reader of it ends at once.
  fp = KLIBCPopen("/bin/sh", "r", "-c", "cat; echo done", static_cast<char const*>(nullptr));
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ("done\n", ReadAll(fp));
  EXPECT_EQ(0, KLIBCPclose(fp));

  EXPECT_EQ(nullptr, KLIBCPopen("/no/such/program", "r", static_cast<char const*>(nullptr)));
  FILE* other = fopen("/dev/null", "r");
  ASSERT_NE(nullptr, other);
  EXPECT_EQ(-1, KLIBCPclose(other));  // not ours: left open
  fclose(other);
  EXPECT_EQ(-1, KLIBCPclose(nullptr));
}

TEST(KovaDB, EscapeDoublesQuotesWithinTheCapacity) {
  char out[16];
  std::string in = "it's";
  ASSERT_NE(-1, KOVADBEscapeStringEX2(0, out, 2 * in.size(), in.data(), in.size()));
  EXPECT_STREQ("it''s", out);
  // "a'" becomes "a''" plus NUL: four bytes fit exactly, three do not.
  EXPECT_NE(-1, KOVADBEscapeStringEX2(0, out, 4, "a'", 2));
  EXPECT_STREQ("a''", out);
  EXPECT_EQ(-1, KOVADBEscapeStringEX2(0, out, 3, "a'", 2));
  EXPECT_EQ(-1, KOVADBEscapeStringEX2(0, out, 2, "'", 1));  // 2 x length is too small here
  EXPECT_EQ(-1, KOVADBEscapeStringEX2(0, out, 0, "", 0));   // no room for the NUL
  EXPECT_NE(-1, KOVADBEscapeStringEX2(0, out, 1, "", 0));
  EXPECT_STREQ("", out);
  // A NUL inside the value is refused, wherever it stands.
  EXPECT_EQ(-1, KOVADBEscapeStringEX2(0, out, sizeof out, "ab\0c", 4));
  EXPECT_EQ(-1, KOVADBEscapeStringEX2(0, out, sizeof out, "\0", 1));
  EXPECT_STREQ("back\\slash", (KOVADBEscapeStringEX2(0, out, sizeof out, "back\\slash", 10), out));
}

TEST(KovaDB, ConnectExecuteFetch) {
  kovatest::TempDir dir;
  std::string const path = dir.File("p.db");
  EXPECT_EQ(nullptr, KOVADBConnect("", "", "", path.c_str()));
  EXPECT_FALSE(dbtest::Facts(path).exists) << "connecting must not create the file";
  dbtest::MakeDb(path);
  KOVADB* db = KOVADBConnect("", "", "", path.c_str());
  ASSERT_NE(nullptr, db);
  ASSERT_NE(nullptr, KOVADBGetHandle(db));

  DBResult_tag* res = reinterpret_cast<DBResult_tag*>(1);
  // Every statement runs; the rows are those of the last statement that had columns.
  ASSERT_EQ(0, KOVADBExecute(db,
                             "CREATE TABLE t(a, b);INSERT INTO t VALUES (1, NULL);"
                             "INSERT INTO t VALUES ('x', 2.5);SELECT a, b FROM t ORDER BY rowid;"
                             "INSERT INTO t VALUES (3, 3);",
                             &res));
  ASSERT_NE(nullptr, res);
  unsigned row = 77;
  ASSERT_EQ(0, KOVADBFetchRow(res, &row));
  EXPECT_EQ(0u, row);
  EXPECT_STREQ("1", KOVADBFetchField(res, row, "a"));
  EXPECT_STREQ("", KOVADBFetchField(res, row, "b"));  // SQL NULL
  EXPECT_EQ(nullptr, KOVADBFetchField(res, row, "c"));
  ASSERT_EQ(0, KOVADBFetchRow(res, &row));
  EXPECT_EQ(1u, row);
  EXPECT_STREQ("x", KOVADBFetchField(res, row, "a"));
  EXPECT_STREQ("2.5", KOVADBFetchField(res, row, "b"));
  EXPECT_EQ(-1, KOVADBFetchRow(res, &row));
  EXPECT_EQ(1u, row);
  KOVADBFreeResult(res);
  EXPECT_EQ("3", dbtest::One(path, "SELECT COUNT(*) FROM t"));

  // A text without columns gives no result set; a null result set has no rows.
  res = reinterpret_cast<DBResult_tag*>(1);
  ASSERT_EQ(0, KOVADBExecute(db, "DELETE FROM t WHERE a = 3", &res));
  EXPECT_EQ(nullptr, res);
  EXPECT_EQ(-1, KOVADBFetchRow(nullptr, &row));
  KOVADBFreeResult(nullptr);

  // A failure stops the text there and keeps the error text until the next failure.
  ASSERT_EQ(-1, KOVADBExecute(db,
                              "INSERT INTO t VALUES (9, 9);SELEC nonsense;INSERT INTO t "
                              "VALUES (10, 10);",
                              &res));
  EXPECT_EQ(nullptr, res);
  std::string const error = KOVADBErrorGet(db);
  EXPECT_NE(std::string::npos, error.find("syntax error")) << error;
  EXPECT_EQ("9", dbtest::One(path, "SELECT MAX(a) FROM t WHERE typeof(a) = 'integer'"));
  ASSERT_EQ(0, KOVADBExecute(db, "SELECT 1 AS one", &res));
  EXPECT_EQ(error, KOVADBErrorGet(db));
  KOVADBFreeResult(res);

  // A text that opens its own transaction and fails leaves neither its changes nor an open
  // transaction behind; a transaction opened before stays open for its owner to end.
  ASSERT_EQ(-1,
            KOVADBExecute(db, "BEGIN;CREATE TABLE half(x);CREATE TABLE broken(;COMMIT;", nullptr));
  EXPECT_NE(0, sqlite3_get_autocommit(KOVADBGetHandle(db)));
  EXPECT_EQ("0", dbtest::One(path, "SELECT COUNT(*) FROM sqlite_master WHERE name = 'half'"));
  EXPECT_NE(std::string::npos, std::string(KOVADBErrorGet(db)).find("syntax error"));
  ASSERT_EQ(0, KOVADBExecute(db, "BEGIN;INSERT INTO t VALUES (11, 11);", nullptr));
  ASSERT_EQ(-1, KOVADBExecute(db, "INSERT INTO nowhere VALUES (1);", nullptr));
  EXPECT_EQ(0, sqlite3_get_autocommit(KOVADBGetHandle(db)));
  ASSERT_EQ(0, KOVADBExecute(db, "COMMIT;", nullptr));
  EXPECT_EQ("1", dbtest::One(path, "SELECT COUNT(*) FROM t WHERE a = 11"));
  KOVADBClose(db);
  KOVADBClose(nullptr);
}

TEST(KovaDB, WriterWaitsForTheLockInsteadOfFailing) {
  kovatest::TempDir dir;
  std::string const path = dir.File("busy.db");
  dbtest::MakeDb(path, "PRAGMA journal_mode = WAL; CREATE TABLE t(a);");
  KOVADB* holder = KOVADBConnect("", "", "", path.c_str());
  KOVADB* waiter = KOVADBConnect("", "", "", path.c_str());
  ASSERT_NE(nullptr, holder);
  ASSERT_NE(nullptr, waiter);
  ASSERT_EQ(0, KOVADBExecute(holder, "BEGIN IMMEDIATE;INSERT INTO t VALUES (1);", nullptr));
  std::thread release([holder] {
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    KOVADBExecute(holder, "COMMIT", nullptr);
  });
  auto const start = std::chrono::steady_clock::now();
  int const rc = KOVADBExecute(waiter, "INSERT INTO t VALUES (2);", nullptr);
  auto const waited = std::chrono::steady_clock::now() - start;
  release.join();
  EXPECT_EQ(0, rc) << KOVADBErrorGet(waiter);
  EXPECT_GE(waited, std::chrono::milliseconds(300));
  EXPECT_EQ("2", dbtest::One(path, "SELECT COUNT(*) FROM t"));
  KOVADBClose(holder);
  KOVADBClose(waiter);
}

}  // namespace
