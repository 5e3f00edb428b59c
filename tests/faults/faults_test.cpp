// Failing SQLite system calls, a write lock held past the busy timeout, a CGI process without
// standard descriptors: failure results, identity restored, only whole rows.
#include <fcntl.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "kovasharing/constants.h"
#include "kovasharing/session_db.h"
#include "kovasharing/token_db.h"
#include "kovatest_db.h"
#include "visitor_test_util.h"

using namespace visitortest;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;

namespace {

std::atomic<long> g_writes_left{0};  // writes that still succeed; every later one fails
std::string g_open_fail;             // an open of a path that ends with this fails

ssize_t FailingPwrite(int fd, void const* buf, size_t n, off_t off) {
  if (g_writes_left.fetch_sub(1) > 0) return pwrite(fd, buf, n, off);
  return errno = EIO, -1;
}
int FailingOpen(char const* path, int flags, int mode) {
  std::string const p = path;
  if (p.size() >= g_open_fail.size() && p.substr(p.size() - g_open_fail.size()) == g_open_fail)
    return errno = EACCES, -1;
  return open(path, flags, mode);
}
int FailingFstat(int, struct stat*) { return errno = EIO, -1; }

// Puts `fn` into the unix VFS's system-call table (none: the original again).
template <typename F = void()>
int Hook(char const* name, F* fn = nullptr) {
  sqlite3_vfs* vfs = sqlite3_vfs_find("unix");
  return vfs->xSetSystemCall(vfs, name, reinterpret_cast<sqlite3_syscall_ptr>(fn));
}

// Writes fail for its lifetime after the first `succeeding` ones.
struct WriteFault {
  explicit WriteFault(long succeeding) {
    g_writes_left = succeeding;
    for (char const* name : {"pwrite", "pwrite64"}) EXPECT_EQ(SQLITE_OK, Hook(name, FailingPwrite));
  }
  ~WriteFault() {
    for (char const* name : {"pwrite", "pwrite64"}) Hook(name);
  }
};

std::string Env(char const* name) { return getenv(name) ? getenv(name) : ""; }

// Integrity and the size of every table, one text.
char const kSummary[] =
    "SELECT (SELECT integrity_check FROM pragma_integrity_check) || ' ' || (SELECT COUNT(*) FROM "
    "entry) || '/' || (SELECT SUM(use_count) FROM entry) || '/' || (SELECT COUNT(*) FROM session) "
    "|| '/' || (SELECT COUNT(*) FROM token) AS v";

// Children that must open the database as a fresh process does are this program started again
// with KOVA_FAULT_CHILD: "open:<suffix>" or "fstat" starts with that fault and calls every
// visitor function; "cgi" starts without descriptors 0 to 2, logs in, writes junk to 1 and 2 and
// checks. The report goes into the file KOVA_FAULT_REPORT.
int RunChild(std::string const& mode) {
  std::string report, out;
  std::string const hash = Env("KOVA_FAULT_HASH"), sid = Env("KOVA_FAULT_SID");
  _tag_sharing_login_params const params = {hash.c_str(), nullptr, nullptr, nullptr, sid.c_str()};
  if (mode == "cgi") {
    for (int fd = 0; fd <= 2; ++fd) report += fcntl(fd, F_GETFD) < 0 ? "closed " : "open ";
    int const login = KOVA::KovaSharingLogin(out, &params, false);
    std::string const junk(9000, 'J');  // what a careless CGI program prints, by both routes
    for (int fd : {1, 2}) (void)!write(fd, junk.data(), junk.size());
    printf("JUNK%s\n", junk.c_str());
    fprintf(stderr, "JUNK%s\n", junk.c_str());
    fflush(nullptr);
    _tag_sharing_login_params const again = {hash.c_str(), nullptr, nullptr, nullptr, out.c_str()};
    report += "login=" + std::to_string(login) +
              " check=" + std::to_string(KOVA::KovaSharingIsAuthorized(&again));
  } else {
    g_open_fail = mode.substr(mode.find(':') + 1);
    mode == "fstat" ? Hook("fstat", FailingFstat) : Hook("open", FailingOpen);
    // One call after the other: the operands of + are not evaluated in order.
    report += "good=" + std::to_string(SharingDB::Instance().IsGood());
    report += " login=" + std::to_string(KOVA::KovaSharingLogin(out, &params, true));
    report += " check=" + std::to_string(KOVA::KovaSharingIsAuthorized(&params));
    report += " logout=" + std::to_string(KOVA::KovaSharingLogout(hash, sid));
    report += " count=" + std::to_string(KOVA::KovaSharingIncreaseUseCount(hash));
  }
  report += " euid=" + std::to_string(geteuid()) + " egid=" + std::to_string(getegid());
  kovatest::WriteFile(Env("KOVA_FAULT_REPORT"), report);
  return 0;
}

// Before main: a child does its work and exits as a real request would.
[[maybe_unused]] int const g_child =
    getenv("KOVA_FAULT_CHILD") ? (exit(RunChild(Env("KOVA_FAULT_CHILD"))), 0) : 0;

// Another connection holding the database's write lock until End() (closing rolls back).
struct LockHolder {
  LockHolder() {
    locked = sqlite3_open_v2(KOVA_SHARING_DB_FILE, &db, SQLITE_OPEN_READWRITE, nullptr) == 0 &&
             sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
  }
  ~LockHolder() { End(); }
  void End() { sqlite3_close_v2(std::exchange(db, nullptr)); }
  sqlite3* db = nullptr;
  bool locked = false;
};

class Faults : public VisitorTest {
 protected:
  void SetUp() override {
    VisitorTest::SetUp();
    hash_ = MakeLink();
    ASSERT_EQ(KOVA_LOGIN_OK, Login(sid_, hash_.c_str()));
    ids_ = kovatest::Ids();
  }
  // After a failed call: identity restored, database intact and as before.
  void ExpectUntouched(std::string const& before, std::string const& what) {
    EXPECT_EQ(ids_, kovatest::Ids()) << what;
    EXPECT_EQ("ok", Integrity()) << what;
    EXPECT_EQ(before, Snapshot()) << what;
  }
  // This program run again as a child in `mode` (`prepare` runs before the exec); its report.
  std::string Report(std::string const& mode, std::vector<std::string> env = {},
                     std::function<void()> const& prepare = nullptr) {
    kovatest::TempDir dir;
    env.insert(env.begin(), {"KOVA_FAULT_CHILD=" + mode, "KOVA_FAULT_REPORT=" + dir.File("report"),
                             "KOVA_FAULT_HASH=" + hash_, "KOVA_FAULT_SID=" + sid_});
    EXPECT_EQ(0, kovatest::InChild([&] {
                for (auto const& kv : env) putenv(strdup(kv.c_str()));
                if (prepare) prepare();
                char const* argv[] = {"test_faults", "--gtest_filter=-*", nullptr};
                return execv("/proc/self/exe", const_cast<char**>(argv)) == 0 ? 0 : 127;
              }))
        << mode;
    return kovatest::ReadFile(dir.File("report"));
  }
  // {name, result when the database cannot be written, the call}; 1 is success.
  struct Call {
    char const* name;
    int failure;
    std::function<int()> call;
  };
  std::vector<Call> VisitorCalls() {
    std::string out;
    return {
        {"check", -4, [=] { return Check(hash_.c_str(), sid_.c_str()); }},
        {"use count", 0, [=] { return KOVA::KovaSharingIncreaseUseCount(hash_); }},
        {"login again", -4,
         [=]() mutable {
           return Login(out, hash_.c_str(), nullptr, nullptr, nullptr, sid_.c_str());
         }},
        {"first login", -4, [=]() mutable { return Login(out, hash_.c_str()); }},
        {"logout", 0, [=] { return KOVA::KovaSharingLogout(hash_, sid_); }},
    };
  }
  std::string hash_, sid_, ids_;
};

}  // namespace

// Each visitor function, and the store operations that write more than one row or statement.
TEST_F(Faults, FailingWritesLeaveEveryRowAsItWas) {
  EntryDB entries(db());
  KOVA::sharing::db::SessionDB sessions(db());
  KOVA::sharing::db::TokenDB tokens(db());
  Entry entry = Load(hash_);
  Session session;
  ASSERT_TRUE(sessions.GetBySessionId(sid_, session));
  // Rows that the purges would remove.
  MakeLink([](Entry& e) { e.set_expire_at(time(nullptr) - 10); });
  Exec("INSERT INTO session VALUES (NULL, 'expired-session-id-0123456789abcd', 1, '', 1000)");
  std::vector<Call> calls = VisitorCalls();
  for (auto const& [name, store_call] : std::vector<std::pair<char const*, std::function<bool()>>>{
           {"entry create", [&, e = entry]() mutable { return entries.CreateWithHash(e); }},
           {"entry purge by owner",
            [&] { return entries.PurgeExpiredByOwnerProject(KOVA::sharing::UID_ERR, ""); }},
           {"session create",
            [&, s = session]() mutable { return sessions.CreateWithSessionId(s); }},
           {"session purge", [&] { return sessions.PurgeExpired(1.0f); }},
           {"token purge by entry", [&] { return tokens.PurgeByEntry(entry); }},
           {"entry delete", [&] { return entries.Delete(entry); }}}) {
    calls.push_back({name, 0, [call = store_call] { return call() ? 1 : 0; }});
  }
  for (auto const& c : calls) {
    std::string const before = Snapshot();
    int code;
    {
      WriteFault fault(0);
      code = c.call();
      Entry again;  // reading goes on while writing fails
      EXPECT_TRUE(entries.GetByHash(hash_, again)) << c.name;
    }
    EXPECT_EQ(c.failure, code) << c.name;
    ExpectUntouched(before, c.name);
    EXPECT_EQ(1, c.call()) << c.name << ": usable again as soon as the device is";
  }
}

TEST_F(Faults, LoginInterruptedAtEveryWriteLeavesOnlyWholeRows) {
  int uses = UseCount(hash_), code = 0, k = 0;
  for (; code != 1 && k < 400; ++k) {
    std::string out;
    {
      WriteFault fault(k);
      code = Login(out, hash_.c_str());
    }
    ASSERT_TRUE(code == 1 || code == -4) << "write " << k << ": " << code;
    ASSERT_EQ(ids_ + " ok", kovatest::Ids() + " " + Integrity()) << "write " << k;
    // Sessions with a full id and address, tokens that join a stored session to the link; the
    // use count moved at most once per login.
    std::string const fresh = std::to_string(time(nullptr) + kDay - 60);
    EXPECT_EQ(0,
              Number("SELECT COUNT(*) AS v FROM session WHERE length(session_id) != 32 OR ip != '" +
                     std::string(kAddr) + "' OR timeout < " + fresh))
        << "write " << k;
    EXPECT_EQ(0, Number("SELECT COUNT(*) AS v FROM token WHERE timeout < " + fresh +
                        " OR session_id NOT IN (SELECT id FROM session) OR entry_id != " +
                        std::to_string(Load(hash_).get_id())))
        << "write " << k;
    int const now_uses = UseCount(hash_);
    EXPECT_TRUE(now_uses == uses || now_uses == uses + 1) << "write " << k;
    uses = now_uses;
  }
  EXPECT_EQ(1, code) << "the login succeeds once enough writes do";
  EXPECT_GT(k, 3) << "a login writes more than a few times";
  EXPECT_EQ(Value(kSummary), kovatest::Sql(KOVA_SHARING_DB_FILE, kSummary)) << "another connection";
}

TEST_F(Faults, FreshProcessThatCannotOpenOrExamineTheDatabase) {
  ASSERT_EQ("good=1 login=1 check=1 logout=1 count=1 euid=0 egid=0", Report("open:no-such"));
  std::string const before = Snapshot();
  for (std::string const mode :
       {"open:sharing.db", "open:sharing.db-wal", "open:sharing.db-shm", "fstat"}) {
    EXPECT_EQ("good=0 login=-4 check=-4 logout=0 count=0 euid=0 egid=0", Report(mode)) << mode;
    ExpectUntouched(before, mode);
  }
}

TEST_F(Faults, WriteLockHeldLongerThanTheBusyTimeout) {
  {
    LockHolder holder;
    ASSERT_TRUE(holder.locked);
    for (auto const& c : VisitorCalls()) {
      if (std::string(c.name).find("login") != std::string::npos) continue;  // below
      std::string const before = Snapshot();
      auto const start = std::chrono::steady_clock::now();
      EXPECT_EQ(c.failure, c.call()) << c.name;
      double const took =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      EXPECT_TRUE(took >= 4.5 && took < 20.0) << c.name << ": gave up after " << took << " s";
      ExpectUntouched(before, c.name);
    }
  }
  // A lock released once the use count has given up (logged, not a failure): the token and
  // session are written when the lock is free.
  LockHolder holder;
  ASSERT_TRUE(holder.locked);
  int const uses = UseCount(hash_);
  kovatest::ClearLogs();
  std::thread release([&holder] {
    for (int i = 0; i < 3000 && kovatest::LogCount("update entry use count fail") == 0; ++i) {
      usleep(10000);
    }
    holder.End();
  });
  std::string out;
  int const code = Login(out, hash_.c_str(), nullptr, nullptr, nullptr, sid_.c_str());
  release.join();
  EXPECT_EQ(1, code);
  EXPECT_EQ(uses, UseCount(hash_));
  EXPECT_EQ(1, kovatest::LogCount("update entry use count fail"));
  ExpectOneDayAhead(std::stol(SessionField(sid_, "timeout")));
}

TEST_F(Faults, CgiWithoutStandardDescriptorsWritesNothingIntoTheDatabase) {
  int const uses = UseCount(hash_), sessions = Rows("session");
  EXPECT_EQ("closed closed closed login=1 check=1 euid=0 egid=0",
            Report("cgi", {"KOVA_FAULT_SID="}, [] {
              for (int fd = 0; fd <= 2; ++fd) close(fd);
            }));
  EXPECT_EQ("ok", Integrity());
  EXPECT_EQ(uses + 1, UseCount(hash_));
  EXPECT_EQ(sessions + 1, Rows("session"));
  for (char const* file : {"", "-wal"}) {
    std::string const data = kovatest::ReadFile(KOVA_SHARING_DB_FILE + std::string(file));
    EXPECT_EQ(std::string::npos, data.find("JJJJJJJJ")) << file;
  }
}
