// Many processes at once, and a database that misbehaves.
#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "kovasharing/constants.h"
#include "kovasharing/session_db.h"
#include "visitor_test_util.h"

using namespace visitortest;

namespace {

// A worker (this program again) waits for its pipe to close, then logs in until refused or
// out of time; it exits with 0 or the refusal's number.
[[maybe_unused]] int const g_worker = [] {
  if (getenv("KOVA_RACE_GATE") == nullptr) return 0;
  char c;
  if (read(atoi(getenv("KOVA_RACE_GATE")), &c, 1) != 0) exit(90);
  _tag_sharing_login_params const params = {getenv("KOVA_RACE_HASH"), getenv("KOVA_RACE_PASSWORD"),
                                            nullptr, nullptr, nullptr};
  auto const end =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(atol(getenv("KOVA_RACE_MS")));
  int code = 0;
  do {
    std::string sid;
    code = KOVA::KovaSharingLogin(sid, &params, true);
  } while (code == 1 && std::chrono::steady_clock::now() < end);
  exit(code == 1 ? 0 : -code);
}();

// `count` workers on `hash` for `ms` ms (0: one login) while `meanwhile` runs; their statuses.
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
      setenv("KOVA_RACE_PASSWORD", password, 1);
      setenv("KOVA_RACE_MS", std::to_string(ms).c_str(), 1);
      unsetenv("PAM_WRAPPER");  // no accounts here; many pam_wrapper starts at once collide
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

// An administrator's change made during logins (new password, disabled link) holds.
TEST_F(VisitorTest, AdministratorChangesSurviveConcurrentLogins) {
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    bool const disable = round % 2;
    ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(kAddr));
    std::string const hash = PasswordLink("old");
    for (int status : Race(3, hash, "old", 900, [&] {
           usleep(300 * 1000);
           Entry entry = Load(hash);
           entry.set_enabled(!disable).set_protect_password(disable ? "old" : "new", true,
                                                            Entry::ENCRYPT_ALGO_DEFAULT);
           ASSERT_TRUE(EntryDB(db()).Update(entry));
         })) {
      EXPECT_EQ(disable ? 3 : 9, status);  // the refusal the old password gets afterwards
    }
    std::string sid;
    EXPECT_EQ(disable ? KOVA_LOGIN_NO_LINK : KOVA_LOGIN_WRONG_PASSWORD,
              Login(sid, hash.c_str(), "old", nullptr, nullptr, nullptr, true));
  }
}

// Ten racing visitors: exactly the use limit gets in; plain counts go on past it.
TEST_F(VisitorTest, UseLimitAdmitsExactlyItsNumber) {
  for (int limit : {1, 3, 1, 3}) {
    std::string const hash = PasswordLink("pw");  // checked outside the count: a wide race
    Exec("UPDATE entry SET expire_times = " + std::to_string(limit));
    std::map<int, int> seen;
    for (int code : Race(10, hash, "pw", 0)) ++seen[code];
    EXPECT_EQ((std::map<int, int>{{0, limit}, {11, 10 - limit}}), seen);
    EXPECT_EQ(limit, UseCount(hash));
    for (int i = 0; i < 10; ++i) ASSERT_EQ(1, KOVA::KovaSharingIncreaseUseCount(hash));
    EXPECT_EQ(limit + 10, UseCount(hash));
  }
}

// Sixty wrong guesses from one address at once: ten are judged, every other one is blocked.
TEST_F(VisitorTest, ParallelGuessesStopAtTheLimit) {
  std::map<int, int> seen;
  for (int code : Race(60, PasswordLink("pw"), "guess", 0)) ++seen[code];
  EXPECT_EQ((std::map<int, int>{{8, 50}, {9, 10}}), seen);
}

// A token goes with its link or session, and no later link takes a gone link's row id.
TEST_F(VisitorTest, TokensEndWithTheirLinkOrSession) {
  std::vector<std::function<void(Entry const&, std::string const&)>> const removals = {
      [this](Entry const& e, std::string const&) {
        Exec("UPDATE entry SET expire_at = 1 WHERE id = " + std::to_string(e.get_id()));
        ASSERT_TRUE(EntryDB(db()).PurgeExpiredByOwnerProject(KOVA::sharing::UID_ERR, ""));
      },
      [this](Entry const&, std::string const& sid) {
        Exec("UPDATE session SET timeout = 1 WHERE session_id = '" + sid + "'");
        ASSERT_TRUE(KOVA::sharing::db::SessionDB(db()).PurgeExpired(1.0));
      },
  };
  for (auto const& remove : removals) {
    SCOPED_TRACE("removal " + std::to_string(&remove - removals.data()));
    std::string sid;
    std::string const first = MakeLink();
    ASSERT_EQ(KOVA_LOGIN_OK, Login(sid, first.c_str()));
    Entry const gone = Load(first);
    remove(gone, sid);
    EXPECT_EQ(0, Rows("token"));
    std::string const next = MakeLink();
    EXPECT_GT(Load(next).get_id(), gone.get_id());
    EXPECT_NE(KOVA_CHECK_OK, Check(next.c_str(), sid.c_str()));
    Exec("DELETE FROM entry");
  }
}

// A failing read or a table without a column: the internal-failure code, nothing thrown.
TEST_F(VisitorTest, BrokenTablesAreInternalFailures) {
  std::string sid;
  std::string const hash = PasswordLink("pw");
  ASSERT_EQ(KOVA_LOGIN_OK, Login(sid, hash.c_str(), "pw"));
  char const* const breakages[][2] = {
      {"entry", "SELECT * FROM entry_kept WHERE abs(-9223372036854775807 - 1)"},
      {"session", "SELECT * FROM session_kept WHERE abs(-9223372036854775807 - 1)"},
      {"session", "SELECT id, session_id, uid, timeout FROM session_kept"},
  };
  for (auto const& b : breakages) {
    SCOPED_TRACE(b[1]);
    std::string const table = b[0];
    Exec("ALTER TABLE " + table + " RENAME TO " + table + "_kept");
    Exec("CREATE VIEW " + table + " AS " + b[1]);
    std::string out;
    EXPECT_EQ(KOVA_LOGIN_INTERNAL, Login(out, hash.c_str(), "pw", nullptr, nullptr, sid.c_str()));
    EXPECT_EQ(KOVA_CHECK_INTERNAL, Check(hash.c_str(), sid.c_str()));
    EXPECT_EQ(0, KovaSharingLogout(hash.c_str(), sid.c_str()));
    Exec("DROP VIEW " + table);
    Exec("ALTER TABLE " + table + "_kept RENAME TO " + table);
  }
  EXPECT_EQ(KOVA_CHECK_OK, Check(hash.c_str(), sid.c_str()));

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
