// Many processes at once and a database that misbehaves: administrators' changes survive
// visitors logging in, a use limit admits exactly its number, a token never opens another link,
// and a failed read or a broken table is an internal failure, never a wrong answer.
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "kova_paths.h"
#include "kovasharing/constants.h"
#include "kovasharing/session_db.h"
#include "visitor_test_util.h"

using namespace visitortest;

namespace {

// Worker processes are this program started again (so that each opens the database as a new
// process does). They wait on a pipe until the parent closes it, then run together.
int RunWorker() {
  char const* hash = getenv("KOVA_RACE_HASH");
  char const* password = getenv("KOVA_RACE_PASSWORD");
  char const* gate = getenv("KOVA_RACE_GATE");
  long const ms = atol(getenv("KOVA_RACE_MS"));
  char c;
  if (read(atoi(gate), &c, 1) != 0) return 90;
  _tag_sharing_login_params const params = {hash, password, nullptr, nullptr, nullptr};
  auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  int code = 0;
  do {  // until the first refusal
    std::string sid;
    code = KOVA::KovaSharingLogin(sid, &params, true);
  } while (code == 1 && std::chrono::steady_clock::now() < end);
  return code == 1 ? 0 : -code;  // 0 logged in to the end, else the refusal's number
}

[[maybe_unused]] int const g_worker = [] {
  if (getenv("KOVA_RACE_GATE") == nullptr) return 0;
  exit(RunWorker());
}();

// `count` workers logging in to `hash` for `ms` milliseconds (one login when 0), started at
// once; `meanwhile` runs in this process while they work. Returns their exit statuses.
std::vector<int> Race(int count, std::string const& hash, char const* password, long ms,
                      std::function<void()> const& meanwhile = nullptr) {
  int gate[2];
  if (pipe(gate) != 0) abort();
  std::vector<pid_t> pids;
  for (int i = 0; i < count; ++i) {
    pid_t const pid = fork();
    if (pid == 0) {
      close(gate[1]);
      setenv("KOVA_RACE_GATE", std::to_string(gate[0]).c_str(), 1);
      setenv("KOVA_RACE_HASH", hash.c_str(), 1);
      setenv("KOVA_RACE_PASSWORD", password != nullptr ? password : "", 1);
      setenv("KOVA_RACE_MS", std::to_string(ms).c_str(), 1);
      char const* argv[] = {"test_login", "--gtest_filter=-*", nullptr};
      execv("/proc/self/exe", const_cast<char**>(argv));
      _exit(127);
    }
    pids.push_back(pid);
  }
  close(gate[0]);
  usleep(200 * 1000);  // let every worker reach the gate
  close(gate[1]);
  if (meanwhile) meanwhile();
  std::vector<int> statuses;
  for (pid_t const pid : pids) {
    int status = 0;
    waitpid(pid, &status, 0);
    statuses.push_back(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  }
  return statuses;
}

}  // namespace

// Three processes log visitors in while an administrator changes the link the plain way
// (read, change, store): the change holds, whatever the logins wrote meanwhile.
TEST_F(VisitorTest, AdministratorChangesSurviveConcurrentLogins) {
  struct Change {
    char const* what;
    std::function<void(Entry&)> apply;
    int old_password_code;  // what the old password gets afterwards
  };
  std::vector<Change> const changes = {
      {"new password",
       [](Entry& e) { e.set_protect_password("new", true, Entry::ENCRYPT_ALGO_DEFAULT); }, -9},
      {"disabled", [](Entry& e) { e.set_enabled(false); }, -3},
  };
  for (auto const& change : changes) {
    for (int round = 0; round < 3; ++round) {
      SCOPED_TRACE(std::string(change.what) + " round " + std::to_string(round));
      ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(kAddr));
      std::string const hash = PasswordEntry("old");
      std::vector<int> const last = Race(3, hash, "old", 900, [&] {
        usleep(300 * 1000);
        Entry entry = Load(hash);
        change.apply(entry);
        ASSERT_TRUE(EntryDB(db()).Update(entry));
      });
      for (int status : last) EXPECT_EQ(-change.old_password_code, status);
      std::string sid;
      EXPECT_EQ(change.old_password_code,
                Login(sid, hash.c_str(), "old", nullptr, nullptr, nullptr, true));
    }
  }
}

// Ten visitors at once on a link with a use limit: exactly the limit gets in.
TEST_F(VisitorTest, UseLimitAdmitsExactlyItsNumber) {
  for (int limit : {1, 3}) {
    for (int round = 0; round < 3; ++round) {
      std::string const hash = PasswordEntry("pw");
      Entry entry = Load(hash);
      entry.set_expire_times(limit);
      ASSERT_TRUE(EntryDB(db()).Update(entry));
      std::vector<int> const codes = Race(10, hash, "pw", 0);
      int admitted = 0;
      for (int code : codes) {
        EXPECT_TRUE(code == 0 || code == 11) << code;
        admitted += code == 0;
      }
      EXPECT_EQ(limit, admitted) << "round " << round;
      EXPECT_EQ(limit, UseCount(hash));
      // Ten plain counts at once are all kept.
      for (int i = 0; i < 10; ++i) ASSERT_EQ(1, KOVA::KovaSharingIncreaseUseCount(hash));
      EXPECT_EQ(limit + 10, UseCount(hash));
    }
  }
}

// Sixty wrong guesses from one address at once: ten are judged, every other one is blocked.
TEST_F(VisitorTest, ParallelGuessesStopAtTheLimit) {
  std::string const hash = PasswordEntry("pw");
  std::map<int, int> seen;
  for (int code : Race(60, hash, "guess", 0)) ++seen[code];
  EXPECT_EQ((std::map<int, int>{{8, 50}, {9, 10}}), seen);
}

// However a link or a session goes, its tokens go with it, and no later link takes its row id.
TEST_F(VisitorTest, TokensEndWithTheirLinkOrSession) {
  using KOVA::sharing::db::SessionDB;
  struct Removal {
    char const* how;
    std::function<void(Entry const&, std::string const& sid)> remove;
  };
  std::vector<Removal> const removals = {
      {"entry store delete",
       [](Entry const& e, std::string const&) { ASSERT_TRUE(EntryDB(db()).Delete(e)); }},
      {"purge of expired",
       [this](Entry const& e, std::string const&) {
         Exec("UPDATE entry SET expire_times = 1 WHERE id = " + std::to_string(e.get_id()));
         ASSERT_TRUE(EntryDB(db()).PurgeExpired(1.0));
       }},
      {"purge by owner and project",
       [this](Entry const& e, std::string const&) {
         Exec("UPDATE entry SET expire_at = 1 WHERE id = " + std::to_string(e.get_id()));
         ASSERT_TRUE(EntryDB(db()).PurgeExpiredByOwnerProject(KOVA::sharing::UID_ERR, ""));
       }},
      {"delete by owner",
       [](Entry const& e, std::string const&) {
         ASSERT_TRUE(EntryDB(db()).DeleteByOwnerUid(e.get_owner_uid()));
       }},
      {"session deleted",
       [](Entry const&, std::string const& sid) {
         ASSERT_TRUE(SessionDB(db()).DeleteBySessionId(sid));
       }},
      {"session purged",
       [this](Entry const&, std::string const& sid) {
         Exec("UPDATE session SET timeout = 1 WHERE session_id = '" + sid + "'");
         ASSERT_TRUE(SessionDB(db()).PurgeExpired(1.0));
       }},
  };
  for (auto const& removal : removals) {
    SCOPED_TRACE(removal.how);
    std::string sid;
    std::string const first = PasswordEntry("pw");
    ASSERT_EQ(1, Login(sid, first.c_str(), "pw"));
    Entry const gone = Load(first);
    removal.remove(gone, sid);
    EXPECT_EQ(0, Rows("token"));
    std::string const next = MakeEntry();
    EXPECT_GT(Load(next).get_id(), gone.get_id());
    EXPECT_NE(1, Check(next.c_str(), sid.c_str()));
    Exec("DELETE FROM entry");
  }
}

// A read that fails (here: a row that cannot be computed) and a table that lost a column give
// the internal-failure code; nothing is thrown out of the visitor functions.
TEST_F(VisitorTest, BrokenTablesAreInternalFailures) {
  std::string sid;
  std::string const hash = PasswordEntry("pw");
  ASSERT_EQ(1, Login(sid, hash.c_str(), "pw"));
  struct Breakage {
    char const* table;
    char const* replacement;  // selects from <table>_kept
  };
  std::vector<Breakage> const breakages = {
      {"entry", "SELECT * FROM entry_kept WHERE abs(-9223372036854775807 - 1)"},
      {"session", "SELECT * FROM session_kept WHERE abs(-9223372036854775807 - 1)"},
      {"session", "SELECT id, session_id, uid, timeout FROM session_kept"},
  };
  for (auto const& b : breakages) {
    SCOPED_TRACE(b.replacement);
    std::string const table = b.table;
    Exec("ALTER TABLE " + table + " RENAME TO " + table + "_kept");
    Exec("CREATE VIEW " + table + " AS " + b.replacement);
    std::string out;
    EXPECT_EQ(-4, Login(out, hash.c_str(), "pw", nullptr, nullptr, sid.c_str()));
    EXPECT_EQ(-4, Check(hash.c_str(), sid.c_str()));
    EXPECT_EQ(0, KovaSharingLogout(hash.c_str(), sid.c_str()));
    Exec("DROP VIEW " + table);
    Exec("ALTER TABLE " + table + "_kept RENAME TO " + table);
  }
  EXPECT_EQ(1, Check(hash.c_str(), sid.c_str()));

  // A damaged page of the entry table, read by a new process: the right password gets an
  // internal failure, not a refusal. The file is put back afterwards.
  Exec("PRAGMA wal_checkpoint(TRUNCATE)");
  std::string const file = KOVA_SHARING_DB_FILE;
  std::string const kept = kovatest::ReadFile(file);
  long const page = Number("SELECT page_size AS v FROM pragma_page_size");
  long const root = Number("SELECT rootpage AS v FROM sqlite_master WHERE name = 'entry'");
  ASSERT_GT(root, 1);
  ASSERT_GE(static_cast<long>(kept.size()), root * page);
  std::string damaged = kept;
  damaged.replace((root - 1) * page + 8, page - 8, page - 8, '\x7f');
  kovatest::WriteFile(file, damaged);
  std::vector<int> const codes = Race(1, hash, "pw", 0);
  kovatest::WriteFile(file, kept);
  EXPECT_EQ(std::vector<int>{4}, codes);
  EXPECT_EQ("ok", Integrity());
}
