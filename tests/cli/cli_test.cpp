// The administrator tool, run as a real child process against this build's sharing database.
// Visitors log in through the library in this process, so the tool sees real sessions and
// tokens; raw SQL is used only to look at rows and to age them.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <kovasharing/kovasharing.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "kova_paths.h"
#include "kovatest.h"

namespace {

using KOVA::sharing::db::SharingDB;
using Strings = std::vector<std::string>;

struct Outcome {
  int status;
  std::string out, err;
};

// Runs the tool with `args` and `input` on its standard input, without pam_wrapper: the tool
// logs nobody in, and every process that loads it makes a directory under /tmp that others
// starting at the same moment may fight over.
Outcome Cli(Strings const& args, std::string const& input = "") {
  kovatest::TempDir dir;
  kovatest::WriteFile(dir.File("in"), input);
  pid_t const pid = fork();
  if (pid == 0) {
    std::string const preload = getenv("LD_PRELOAD") ? getenv("LD_PRELOAD") : "";
    setenv("LD_PRELOAD",
           std::regex_replace(preload, std::regex("[^:]*pam_wrapper[^:]*"), "").c_str(), 1);
    std::vector<char*> argv{const_cast<char*>(KOVA_CLI_PROGRAM)};
    for (auto const& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    if (freopen(dir.File("in").c_str(), "r", stdin) &&
        freopen(dir.File("out").c_str(), "w", stdout) &&
        freopen(dir.File("err").c_str(), "w", stderr))
      execv(KOVA_CLI_PROGRAM, argv.data());
    _exit(127);
  }
  int status = -1;
  if (pid > 0 && waitpid(pid, &status, 0) == pid)
    status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return {status, kovatest::ReadFile(dir.File("out")), kovatest::ReadFile(dir.File("err"))};
}

Json::Value Parse(std::string const& text) {
  Json::Value value;
  std::unique_ptr<Json::CharReader> const reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
  return value;
}

Strings Names(Json::Value const& array) {
  Strings out;
  for (auto const& item : array) out.push_back(item.asString());
  return out;
}

// Options of `create` or `update` and what the entry's JSON form shows for each:
// {option, value, key, shown}.
using Fields = std::vector<std::array<char const*, 4>>;
Strings Options(Strings words, Fields const& fields) {
  for (auto const& f : fields) words.insert(words.end(), {f[0], f[1]});
  return words;
}
void ExpectFields(Json::Value const& json, Fields const& fields) {
  for (auto const& f : fields) EXPECT_EQ(f[3], json[f[2]].asString()) << f[2];
}

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(db().IsGood());
    for (char const* table : {"token", "session", "entry"})
      ASSERT_TRUE(db().Execute(std::string("DELETE FROM ") + table));
  }
  static SharingDB& db() { return SharingDB::Instance(); }

  // The column v of the first row of `sql`, as text.
  static std::string Value(std::string const& sql) {
    KOVA::sharing::db::Result result;
    KOVA::sharing::db::Row row;
    if (!db().Execute(sql, result) || !result.NextRow(row)) return "<none>";
    return row.GetField("v").AsString("<null>");
  }
  static int Rows(char const* table) {
    return std::stoi(Value(std::string("SELECT COUNT(*) AS v FROM ") + table));
  }
  static void AgeToken(std::string const& sid) {
    ASSERT_TRUE(
        db().Execute("UPDATE token SET timeout = 1 WHERE session_id = (SELECT id FROM "
                     "session WHERE session_id = '" +
                     sid + "')"));
  }

  // The hash that `create` printed; Create makes a link with the tool.
  static std::string Hash(Outcome const& run) {
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ(10u, run.out.size()) << run.out;  // the hash and a line break
    return run.out.substr(0, run.out.find('\n'));
  }
  static std::string Create(Strings args, char const* owner = "alice", char const* project = "p",
                            std::string const& input = "") {
    args.insert(args.begin(), {"create", "--project", project, "--owner", owner});
    return Hash(Cli(args, input));
  }
  static Json::Value Json(Strings args) {
    args.push_back("--json");
    Outcome const run = Cli(args);
    EXPECT_EQ(0, run.status) << run.err;
    return Parse(run.out);
  }
  static Json::Value Show(std::string const& hash) { return Json({"show", hash}); }
  static Strings Listed(Strings args) {
    args.insert(args.begin(), "list");
    Strings out;
    Json::Value const list = Json(args);
    for (auto const& entry : list["entries"]) out.push_back(entry["hash"].asString());
    return out;
  }

  // A visitor's login from `addr` (an account login when `user` is given), and its check.
  static int Login(std::string& sid, std::string const& hash, char const* addr,
                   char const* password, char const* user = nullptr) {
    setenv("REMOTE_ADDR", addr, 1);
    _tag_sharing_login_params const params = {hash.c_str(), user ? nullptr : password, user,
                                              user ? password : nullptr, nullptr};
    return KOVA::KovaSharingLogin(sid, &params, false);
  }
  static int Check(std::string const& sid, std::string const& hash, char const* addr) {
    setenv("REMOTE_ADDR", addr, 1);
    _tag_sharing_login_params const params = {hash.c_str(), nullptr, nullptr, nullptr, sid.c_str()};
    return KOVA::KovaSharingIsAuthorized(&params);
  }
};

TEST_F(CliTest, CreatesEachKindOfProtection) {
  // No protection, with every other field given.
  Fields const fields = {
      {"--project", "photos", "project_name", "photos"},
      {"--owner", "bob", "owner_user", "bob"},
      {"--max-uses", "3", "expire_times", "3"},
      {"--start-at", "2024-01-02 03:04:05", "start_at", "2024-01-02 03:04:05"},
      {"--expire-at", "2030-06-07 08:09:10", "expire_at", "2030-06-07 08:09:10"},
      {"--match-ip", "no", "enable_match_ip", "false"},
      {"--redirect", "always", "redirect_type", "always"},
      {"--redirect-uri", "https://example.org/x", "redirect_uri", "https://example.org/x"},
      {"--title", "Summer", "protect_title", "Summer"},
      {"--app", R"({"path":"/a"})", "protect_type", "none"},  // and no protection option
  };
  std::string const open = Hash(Cli(Options({"create"}, fields)));
  Json::Value shown = Show(open);
  ExpectFields(shown, fields);
  EXPECT_EQ("/a", shown["app"]["path"].asString());
  // Local time (UTC in tests) really stored as those seconds, not only read back alike.
  EXPECT_EQ("1704164645", Value("SELECT start_at AS v FROM entry WHERE hash = '" + open + "'"));

  // A password from standard input; the JSON answer names the new hash.
  Outcome const made =
      Cli({"create", "--project", "d", "--owner", "bob", "--password-stdin", "--json"},
          "pass phrase\n");
  ASSERT_EQ(0, made.status) << made.err;
  std::string const hash = Parse(made.out)["hash"].asString();
  std::string sid;
  EXPECT_EQ(-9, Login(sid, hash, "192.0.2.11", "pass"));
  EXPECT_EQ(1, Login(sid, hash, "192.0.2.11", "pass phrase"));
  EXPECT_EQ(1,
            Login(sid, Create({"--password", "m", "--password-algo", "md5"}), "192.0.2.11", "m"));

  // Users and groups; the accounts' own case of the name is kept.
  std::string const users = Create({"--users", "alice", "--users", "Dave", "--groups", "viewers"});
  shown = Show(users);
  EXPECT_EQ("user", shown["protect_type"].asString());
  EXPECT_EQ((Strings{"alice", "Dave"}), Names(shown["protect_users"]));
  EXPECT_EQ((Strings{"viewers"}), Names(shown["protect_groups"]));
  EXPECT_EQ(-10, Login(sid, users, "192.0.2.12", "bob-secret", "bob"));
  EXPECT_EQ(1, Login(sid, users, "192.0.2.12", "carol-secret", "carol"));  // a viewer
  // A name made later is kept only when asked for.
  std::string const later = Create({"--users", "zed,alice", "--allow-unknown"});
  EXPECT_EQ((Strings{"alice", "zed"}), Names(Show(later)["protect_users"]));
}

TEST_F(CliTest, ListsWithFiltersAndPages) {
  Strings const h = {Create({}), Create({"--enabled", "no"}),
                     Create({"--expire-at", "2020-01-01 00:00:00"}),
                     Create({"--max-uses", "1"}, "bob", "p2"), Create({}, "bob", "p2")};
  ASSERT_EQ(0, Cli({"update", h[3], "--use-count", "1"}).status);  // used up
  struct {
    Strings args;
    std::vector<int> want;
  } const cases[] = {
      {{}, {0, 1, 2, 3, 4}},
      {{"--owner", "alice"}, {0, 1, 2}},
      {{"--project", "p2"}, {3, 4}},
      {{"--enabled", "no"}, {1}},
      {{"--expired", "yes"}, {2, 3}},
      {{"--expired", "no"}, {0, 1, 4}},
      {{"--expired", "no", "--owner", "alice", "--enabled", "no"}, {1}},
      {{"--page-size", "2", "--page", "2"}, {2, 3}},
      {{"--page-size", "2", "--page", "3"}, {4}},
      {{"--page-size", "2", "--page", "4"}, {}},
  };
  for (auto const& c : cases) {
    Strings want;
    for (int i : c.want) want.push_back(h[i]);
    EXPECT_EQ(want, Listed(c.args)) << ::testing::PrintToString(c.args);
  }
  // The total counts every match, not the page.
  EXPECT_EQ(5, Json({"list", "--page-size", "2", "--page", "2"})["total"].asInt());
  std::string const table = Cli({"list", "--owner", "bob"}).out;
  EXPECT_EQ(0u, table.find("HASH "));
  EXPECT_NE(std::string::npos, table.find("\n" + h[3] + "  p2       bob    yes"));
  EXPECT_NE(std::string::npos, table.find("(entries 1-2 of 2, page 1)\n"));
}

TEST_F(CliTest, ShowsLiveSessionsAndLogsThemOut) {
  std::string const hash = Create({"--groups", "editors"});
  std::string alice, dave;
  ASSERT_EQ(1, Login(alice, hash, "192.0.2.31", "alice-secret", "alice"));
  ASSERT_EQ(1, Login(dave, hash, "192.0.2.32", "dave-secret", "Dave"));
  Json::Value const sessions = Show(hash)["sessions"];
  ASSERT_EQ(2u, sessions.size());
  EXPECT_EQ(alice, sessions[0]["session_id"].asString());
  EXPECT_EQ("192.0.2.31", sessions[0]["ip"].asString());
  EXPECT_EQ("alice", sessions[0]["account"].asString());
  EXPECT_EQ("Dave", sessions[1]["account"].asString());
  std::string const table = Cli({"show", hash}).out;
  EXPECT_NE(std::string::npos, table.find("2 live sessions\n"));
  EXPECT_NE(std::string::npos, table.find(alice + "  192.0.2.31  alice"));

  // An expired token no longer counts as a live session.
  AgeToken(dave);
  EXPECT_EQ(1u, Show(hash)["sessions"].size());
  Outcome const out = Cli({"logout", hash, "--", alice});
  EXPECT_EQ("logged out " + alice + " from " + hash + "\n", out.out) << out.err;
  EXPECT_NE(1, Check(alice, hash, "192.0.2.31"));
  EXPECT_EQ(0u, Show(hash)["sessions"].size());
  EXPECT_EQ(2, Rows("session"));  // the sessions themselves stay
  Outcome const again = Cli({"logout", hash, "--", alice});
  EXPECT_EQ(6, again.status);
  EXPECT_EQ("kovasharing: session \"" + alice + "\" is not logged in to " + hash + "\n", again.err);
  ASSERT_EQ(1, Login(alice, hash, "192.0.2.31", "alice-secret", "alice"));
  EXPECT_TRUE(Parse(Cli({"logout", "--json", hash, "--", alice}).out)["logged_out"].asBool());
  EXPECT_NE(1, Check(alice, hash, "192.0.2.31"));
}

TEST_F(CliTest, UpdatesFieldsAndRehashesThePassword) {
  std::string const hash = Create({"--password", "old-pw"});
  std::string const data = "SELECT data AS v FROM entry WHERE hash = '" + hash + "'";
  std::string const salt = Parse(Value(data))["protect_password_salt"].asString();
  std::string sid, fresh;
  ASSERT_EQ(1, Login(sid, hash, "192.0.2.41", "old-pw"));
  Outcome const changed = Cli({"update", hash, "--password-stdin"}, "new-pw\n");
  EXPECT_EQ("updated " + hash + " (earlier logins ended)\n", changed.out) << changed.err;
  EXPECT_NE(salt, Parse(Value(data))["protect_password_salt"].asString());
  EXPECT_NE(1, Check(sid, hash, "192.0.2.41"));  // admitted under the old password: out
  EXPECT_EQ(-9, Login(fresh, hash, "192.0.2.41", "old-pw"));
  EXPECT_EQ(1, Login(fresh, hash, "192.0.2.41", "new-pw"));

  // Other fields leave earlier logins alone.
  Fields const changes = {
      {"--project", "renamed", "project_name", "renamed"},
      {"--owner", "bob", "owner_user", "bob"},
      {"--enabled", "no", "enabled", "false"},
      {"--max-uses", "5", "expire_times", "5"},
      {"--start-at", "2025-05-05 05:05:05", "start_at", "2025-05-05 05:05:05"},
  };
  ExpectFields(Json(Options({"update", hash}, changes)), changes);
  EXPECT_EQ(1, Rows("token"));
  ASSERT_EQ(0, Cli({"update", hash, "--use-count", "2", "--start-at", "none"}).status);
  EXPECT_EQ(2, Show(hash)["use_count"].asInt());
  EXPECT_EQ("", Show(hash)["start_at"].asString());
  // Back to no protection: anyone comes in once switched on.
  ASSERT_EQ(0, Cli({"update", hash, "--no-protection", "--enabled", "yes"}).status);
  EXPECT_EQ(1, Login(fresh, hash, "192.0.2.42", nullptr));
}

TEST_F(CliTest, DeletesByHashAndByOwner) {
  std::string const a1 = Create({});
  std::string const b1 = Create({}, "bob");
  Create({}, "bob", "q");
  std::string sid;
  ASSERT_EQ(1, Login(sid, b1, "192.0.2.51", nullptr));
  ASSERT_EQ(1, Login(sid, a1, "192.0.2.51", nullptr));
  EXPECT_EQ("deleted 1 entry\n", Cli({"delete", a1}).out);
  EXPECT_EQ(4, Cli({"show", a1}).status);
  EXPECT_EQ(1, Rows("token"));  // its visitor's access went with it
  Outcome const owner = Cli({"--json", "delete", "--owner", "bob"});  // before the command too
  EXPECT_EQ(2, Parse(owner.out)["deleted"].asInt()) << owner.err;
  EXPECT_EQ(0, Rows("entry"));
  EXPECT_EQ(0, Rows("token"));
  EXPECT_EQ("deleted 0 entries\n", Cli({"delete", "--owner", "carol"}).out);
}

// An address blocked by failed logins: listed with its failures and the end of the block,
// and lifted by the administrator; a text that is no address is refused.
TEST_F(CliTest, ListsAndLiftsBlockedAddresses) {
  std::string const hash = Create({"--password-stdin"}, "alice", "p", "pw\n");
  char const addr[] = "192.0.2.91";
  ASSERT_EQ(0, Cli({"unblock", addr}).status);
  std::string sid;
  for (int i = 0; i < 10; ++i) ASSERT_EQ(-9, Login(sid, hash, addr, "guess"));
  ASSERT_EQ(-8, Login(sid, hash, addr, "pw"));
  Json::Value found;
  for (auto const& row : Json({"blocked"})) {
    if (row["address"] == addr) found = row;
  }
  EXPECT_EQ(10, found["failures"].asInt());
  EXPECT_TRUE(found["blocked"].asBool());
  EXPECT_EQ(19u, found["blocked_until"].asString().size());
  EXPECT_NE(std::string::npos, Cli({"blocked"}).out.find("\n192.0.2.91 "));
  EXPECT_EQ(2, Cli({"unblock", "192.0.2"}).status);
  EXPECT_EQ(2, Cli({"unblock"}).status);
  EXPECT_EQ("unblocked 192.0.2.91 (10 failed logins cleared)\n", Cli({"unblock", addr}).out);
  EXPECT_EQ("unblocked 192.0.2.91 (0 failed logins cleared)\n", Cli({"unblock", addr}).out);
  EXPECT_EQ(1, Login(sid, hash, addr, "pw"));
}

TEST_F(CliTest, PurgesExpiredRowsAndCountsThem) {
  std::string const gone = Create({});
  std::string const kept = Create({"--auto-gc", "no", "--expire-at", "2020-01-01 00:00:00"});
  std::string const used = Create({"--max-uses", "1"});
  std::string const live = Create({});
  Strings sids(3);
  ASSERT_EQ(1, Login(sids[0], gone, "192.0.2.61", nullptr));
  for (int i = 0; i < 3; ++i)
    ASSERT_EQ(1, Login(sids[i], live, ("192.0.2.6" + std::to_string(i + 2)).c_str(), nullptr));
  ASSERT_EQ(0, Cli({"update", gone, "--expire-at", "2020-01-01 00:00:00"}).status);
  ASSERT_EQ(0, Cli({"update", used, "--use-count", "1"}).status);
  ASSERT_TRUE(db().Execute("UPDATE session SET timeout = 1 WHERE session_id = '" + sids[0] + "'"));
  AgeToken(sids[1]);
  ASSERT_EQ(4, Rows("token"));

  // Entries: the expired and the used-up one; sessions: one aged; tokens: the aged one, the
  // one of the purged entry and the one of the purged session.
  Json::Value const counts = Json({"purge"});
  EXPECT_EQ(2, counts["entries"].asInt());
  EXPECT_EQ(1, counts["sessions"].asInt());
  EXPECT_EQ(3, counts["tokens"].asInt());
  EXPECT_EQ((Strings{kept, live}), Listed({}));
  EXPECT_EQ(3, Rows("session"));
  EXPECT_EQ(1, Rows("token"));
  EXPECT_EQ("purged 0 entries, 0 sessions, 0 tokens\n", Cli({"purge"}).out);
  EXPECT_EQ("purged 1 entry, 0 sessions, 0 tokens\n", Cli({"purge", "--all"}).out);
  EXPECT_EQ((Strings{live}), Listed({}));
}

TEST_F(CliTest, EveryFailureHasItsStatusAndOneLine) {
  std::string const hash = Create({});
  auto with = [](Strings more) {
    more.insert(more.begin(), {"create", "--project", "p", "--owner", "alice"});
    return more;
  };
  struct {
    Strings args;
    int status;
    std::string message;
  } const cases[] = {
      {{}, 2, "no command given"},
      {{"frobnicate"}, 2, "unknown command \"frobnicate\""},
      {{"list", "--bogus"}, 2, "list: unknown option --bogus"},
      {{"list", "--page"}, 2, "--page needs a value"},
      {{"list", "--page", "0"}, 2, "--page: \"0\" is not a whole number from 1"},
      {{"show"}, 2, "show: missing HASH"},
      {{"show", hash, "extra"}, 2, "unexpected argument extra"},
      {{"create", "--project", "p"}, 2, "--owner is required"},
      {with({"--app", "[1]"}), 2, "--app: not a JSON object"},
      {with({"--password", "x", "--users", "bob"}), 2, "choose one protection"},
      {with({"--password-stdin"}), 2, "the password is empty"},
      {with({"--enabled", "maybe"}), 2, "neither yes nor no"},
      {{"create", "--project", "''", "--owner", "alice"}, 2, "project_name value cannot be stored"},
      {{"update", hash}, 2, "update: nothing to change"},
      {{"delete"}, 2, "missing HASH or --owner USER"},
      {with({"--expire-at", "tomorrow"}), 3, "not a local time of the form YYYY-MM-DD HH:MM:SS"},
      {with({"--expire-at", "2024-02-30 12:00:00"}), 3, "is not a valid local time"},
      {{"update", hash, "--start-at", "2024-1-2 3:4:5"}, 3, "not a local time"},
      {{"show", "nohash"}, 4, "no entry with hash \"nohash\""},
      {{"delete", "nohash"}, 4, "no entry with hash"},
      {{"logout", "nohash", "sid"}, 4, "no entry with hash"},
      {{"create", "--project", "p", "--owner", "zed"}, 5, "no user named \"zed\""},
      {{"delete", "--owner", "zed"}, 5, "no user named"},
      {with({"--users", "alice,zed"}), 5, "no user named \"zed\" (--allow-unknown"},
      {with({"--groups", "nogroup"}), 5, "no group named \"nogroup\""},
      {{"logout", hash, "no-such-session"}, 6, "no live session \"no-such-session\""},
      {{"logout", hash, "-dash-first"}, 6, "no live session \"-dash-first\""},
  };
  for (auto const& c : cases) {
    Outcome const run = Cli(c.args);
    // Nothing on standard output; one line on standard error.
    EXPECT_TRUE(
        run.status == c.status && run.out.empty() && run.err.rfind("kovasharing: ", 0) == 0 &&
        run.err.find(c.message) != std::string::npos && run.err.find('\n') == run.err.size() - 1)
        << ::testing::PrintToString(c.args) << ": " << run.status << " " << run.out << run.err;
  }
  EXPECT_EQ(1, Rows("entry"));  // no failed create stored anything

  // A database the system account cannot reach.
  std::string const dir = kovatest::Root() + "/usr/kova/etc/private/session/sharing";
  ASSERT_EQ(0, chmod(dir.c_str(), 0));
  Outcome const closed = Cli({"list"});
  chmod(dir.c_str(), 0770);
  if (kovatest::RealRoot()) {
    EXPECT_EQ(7, closed.status) << closed.err;
    EXPECT_EQ("kovasharing: the sharing database " KOVA_SHARING_DB_FILE
              " cannot be opened or migrated (run as root)\n",
              closed.err);
  }
  EXPECT_EQ(0, Cli({"list"}).status);
}

TEST_F(CliTest, HelpForEveryCommandAndTheManualPage) {
  std::string const overview = Cli({"--help"}).out;
  std::string const manual = kovatest::ReadFile(KOVA_CLI_MANPAGE);
  for (std::string const name : {"create", "list", "show", "update", "delete", "purge", "logout"}) {
    std::string const help = Cli({name, "--help"}).out;
    EXPECT_EQ(0u, help.find("Usage: kovasharing " + name)) << help;
    EXPECT_EQ(help, Cli({"help", name}).out);
    EXPECT_NE(std::string::npos, overview.find("\n  " + name + " ")) << name;
    EXPECT_NE(std::string::npos, manual.find(".SS \"" + name)) << name;
  }
  EXPECT_EQ(0u, Cli({"--version"}).out.find("kovasharing 1."));
  // Well-formed roff, where a formatter is at hand.
  EXPECT_EQ(0, kovatest::Shell("! command -v groff >/dev/null || test -z \"$(env -u LD_PRELOAD "
                               "groff -man -ww -z " KOVA_CLI_MANPAGE " 2>&1)\""));
}

}  // namespace
