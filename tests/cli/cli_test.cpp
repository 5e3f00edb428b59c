// The administrator tool, run as a real child process against this build's sharing database.
// Visitors log in through the library in this process, so the tool sees real sessions and
// tokens; raw SQL is used only to look at rows and to age them.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <kovasharing/kovasharing.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "kova_paths.h"
#include "kovatest.h"
#include "kovatest_sharing.h"

namespace {

using Strings = std::vector<std::string>;

using kovatest::Outcome;
using kovatest::Value;

// Runs the tool with `args` and `input` on its standard input, without pam_wrapper: the tool
// logs nobody in, and every process that loads it makes a directory under /tmp that others
// starting at the same moment may fight over.
Outcome Cli(Strings const& args, std::string const& input = "") {
  std::string const preload = getenv("LD_PRELOAD") ? getenv("LD_PRELOAD") : "";
  Strings argv{KOVA_CLI_PROGRAM};
  argv.insert(argv.end(), args.begin(), args.end());
  return kovatest::Run(
      argv, {{"LD_PRELOAD", std::regex_replace(preload, std::regex("[^:]*pam_wrapper[^:]*"), "")}},
      input);
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

class CliTest : public kovatest::SharingTest {
 protected:
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
  static std::string Column(char const* column, std::string const& hash) {
    return Value(std::string("SELECT ") + column + " AS v FROM entry WHERE hash = '" + hash + "'");
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
  // No protection, with every other field given; --app from a file, --private-data from
  // standard input.
  kovatest::TempDir dir;
  kovatest::WriteFile(dir.File("app.json"), R"({"path":"/a"})");
  std::string const app = "@" + dir.File("app.json");
  Fields const fields = {
      {"--project", "photos", "project_name", "photos"},
      {"--owner", "bob", "owner_user", "bob"},
      {"--max-uses", "3", "expire_times", "3"},
      {"--start-at", "2024-01-02 03:04:05", "start_at", "2024-01-02 03:04:05"},
      {"--expire-at", "2030-06-07 08:09:10", "expire_at", "2030-06-07 08:09:10"},
      {"--match-ip", "no", "enable_match_ip", "false"},
      {"--redirect", "always", "redirect_type", "always"},
      {"--redirect-uri", "https://example.org/x", "redirect_uri", "https://example.org/x"},
      {"--title", "Sommer \u00e9t\u00e9", "protect_title", "Sommer \u00e9t\u00e9"},
      {"--app", app.c_str(), "protect_type", "none"},
      {"--private-data", "-", "protect_type", "none"},
  };
  std::string const open = Hash(Cli(Options({"create"}, fields), R"({"k":[1]})"));
  Json::Value shown = Show(open);
  ExpectFields(shown, fields);
  EXPECT_EQ("/a", shown["app"]["path"].asString());
  EXPECT_EQ("1", Column("json_extract(data, '$.private_data.k[0]')", open));
  // Local time (UTC in tests) really stored as those seconds, not only read back alike.
  EXPECT_EQ("1704164645", Column("start_at", open));

  // A password from standard input; the JSON answer names the new hash.
  Outcome const made =
      Cli({"create", "--project", "d", "--owner", "bob", "--password-stdin", "--json"},
          "pass phrase\n");
  ASSERT_EQ(0, made.status) << made.err;
  std::string const hash = Parse(made.out)["hash"].asString();
  std::string sid;
  EXPECT_EQ(-9, Login(sid, hash, "192.0.2.11", "pass"));
  EXPECT_EQ(1, Login(sid, hash, "192.0.2.11", "pass phrase"));
  std::string const md5 = Create({"--password", "m\xff", "--password-algo", "md5"});
  EXPECT_EQ(1, Login(sid, md5, "192.0.2.11", "m\xff"));  // a password is bytes

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

// Every form of time the tool takes, as the seconds it stores (the tests run in UTC).
TEST_F(CliTest, TakesTimesInEveryForm) {
  long const now = static_cast<long>(time(nullptr));
  struct {
    char const* text;
    long seconds;  // from now when `relative`
    bool relative;
  } const cases[] = {
      {"2027-01-31", 1801439999, false},
      {"2027-01-31 12:00:00", 1801396800, false},
      {"2027-01-31T12:00:00Z", 1801396800, false},
      {"2027-01-31T12:00:00+01:00", 1801393200, false},
      {"2027-01-31T12:00-0500", 1801414800, false},
      {"+30m", 1800, true},
      {"+12h", 43200, true},
      {"+7d", 604800, true},
      {"+2w", 1209600, true},
  };
  for (auto const& c : cases) {
    std::string const hash = Create({"--expire-at", c.text});
    long const stored = std::stol(Column("expire_at", hash));
    long const want = c.seconds + (c.relative ? now : 0);
    EXPECT_TRUE(stored >= want && stored <= want + (c.relative ? 5 : 0)) << c.text << " " << stored;
  }
  // A link already over, or over before it starts, only when forced.
  EXPECT_EQ(0, Cli({"create", "--project", "p", "--owner", "alice", "--force", "--start-at", "+2d",
                    "--expire-at", "+1d"})
                   .status);
}

TEST_F(CliTest, ListsWithFiltersSearchesSortsAndPages) {
  Strings const h = {Create({"--title", "Summer 50%"}, "bob"), Create({"--enabled", "no"}),
                     Create({"--expire-at", "2020-01-01 00:00:00", "--force"}),
                     Create({"--max-uses", "1", "--expire-at", "+1d"}, "bob", "p-2_x"),
                     Create({"--expire-at", "+2d"}, "bob", "p-2")};
  ASSERT_EQ(0, Cli({"update", h[3], "--use-count", "1"}).status);  // used up
  struct {
    Strings args;
    std::vector<int> want;
  } const cases[] = {
      {{}, {0, 1, 2, 3, 4}},
      {{"--owner", "alice"}, {1, 2}},
      {{"--project", "p-2"}, {4}},
      {{"--enabled", "no"}, {1}},
      {{"--expired", "yes"}, {2, 3}},
      {{"--expired", "no", "--owner", "alice", "--enabled", "no"}, {1}},
      {{"--page-size", "2", "--page", "2"}, {2, 3}},
      {{"--page-size", "2", "--page", "4"}, {}},
      {{"--search", "p-2"}, {3, 4}},    // no random hash holds a "-"
      {{"--search", "2_"}, {3}},        // wildcards are plain characters
      {{"--search", "MMER 50%"}, {0}},  // the title, in either case
      {{"--search", h[1].substr(2, 5)}, {1}},
      {{"--search", "bob"}, {0, 3, 4}},  // the owner's account name
      {{"--sort", "uses"}, {3, 0, 1, 2, 4}},
      {{"--sort", "expiry"}, {2, 3, 4, 0, 1}},
      {{"--sort", "owner", "--page-size", "2", "--page", "2"}, {0, 3}},
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
  EXPECT_NE(std::string::npos, table.find("\n" + h[4] + "  p-2      bob    yes"));
  EXPECT_NE(std::string::npos, table.find("(entries 1-3 of 3, page 1)\n"));
}

// Live sessions and the latest visits the gate recorded (newest first); logging one out.
TEST_F(CliTest, ShowsSessionsAndVisitsAndLogsOut) {
  std::string const hash = Create({"--groups", "editors"});
  std::string alice, dave;
  ASSERT_EQ(1, Login(alice, hash, "192.0.2.31", "alice-secret", "alice"));
  ASSERT_EQ(1, Login(dave, hash, "192.0.2.32", "dave-secret", "Dave"));
  for (char const* row : {"1801396800, '192.0.2.31', 'alice'", "1801396860, '2001:db8::5', ''"}) {
    ASSERT_TRUE(db().Execute("INSERT INTO visit (entry_id, at, ip, account) SELECT id, " +
                             std::string(row) + " FROM entry WHERE hash = '" + hash + "'"));
  }
  Json::Value const shown = Show(hash);
  EXPECT_EQ(
      shown["sessions"][0]["session_id"].asString() + shown["sessions"][1]["account"].asString(),
      alice + "Dave");
  EXPECT_EQ("192.0.2.31", shown["sessions"][0]["ip"].asString());
  EXPECT_EQ("2001:db8::5", shown["visits"][0]["ip"].asString());
  EXPECT_EQ(shown["visits"][1]["at"].asString() + shown["visits"][1]["account"].asString(),
            "2027-01-31 12:00:00alice");
  std::string const table = Cli({"show", hash}).out;
  for (std::string const& line :
       Strings{"2 live sessions\n", alice + "  192.0.2.31  alice", "2 recent visits",
               "\n2027-01-31 12:00:00  192.0.2.31   alice"})
    EXPECT_NE(std::string::npos, table.find(line)) << line;

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
}

// With the gate's address known the tool prints whole links, and takes them for hashes.
TEST_F(CliTest, PrintsAndTakesWholeLinks) {
  std::string const base = "https://gate.test/share?x=1";
  ASSERT_EQ(base + "\n", Cli({"config", "base-url", base}).out);
  std::string const link = Cli({"create", "--project", "p", "--owner", "alice"}).out;
  std::string const hash = link.substr(link.size() - 10, 9);
  EXPECT_EQ(base + "&sharing_id=" + hash + "\n", link);
  EXPECT_EQ(link, Show(link.substr(0, link.size() - 1))["link"].asString() + "\n");
  EXPECT_EQ(0u, Cli({"list"}).out.find("LINK "));
  std::string const qr = Cli({"show", hash, "--qr"}).out;
  EXPECT_NE(std::string::npos, qr.find("\u2580")) << qr;
  EXPECT_NE(std::string::npos, qr.find("\u2584"));
  EXPECT_EQ("http://other.test/s?sharing_id=" + hash,
            Json({"show", hash, "--base-url", "http://other.test/s"})["link"].asString());
  ASSERT_EQ(0, Cli({"config", "base-url", "none"}).status);
  EXPECT_EQ(0u, Cli({"list"}).out.find("HASH "));
  EXPECT_EQ(2, Cli({"show", hash, "--qr"}).status);
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
  Fields const changes = {{"--owner", "bob", "owner_user", "bob"},
                          {"--enabled", "no", "enabled", "false"},
                          {"--use-count", "2", "use_count", "2"},
                          {"--start-at", "none", "start_at", ""}};
  ExpectFields(Json(Options({"update", hash}, changes)), changes);
  EXPECT_EQ(1, Rows("token"));
  // Back to no protection: anyone comes in once switched on.
  ASSERT_EQ(0, Cli({"update", hash, "--no-protection", "--enabled", "yes"}).status);
  EXPECT_EQ(1, Login(fresh, hash, "192.0.2.42", nullptr));
}

// An address blocked by failed logins: listed with its failures and the end of the block,
// and lifted by the administrator.
TEST_F(CliTest, ListsAndLiftsBlockedAddresses) {
  std::string const hash = Create({"--password-stdin"}, "alice", "p", "pw\n");
  char const addr[] = "192.0.2.91";
  ASSERT_EQ(0, Cli({"unblock", addr}).status);
  std::string sid;
  for (int i = 0; i < 10; ++i) ASSERT_EQ(-9, Login(sid, hash, addr, "guess"));
  Json::Value found;
  for (auto const& row : Json({"blocked"})) {
    if (row["address"] == addr) found = row;
  }
  EXPECT_TRUE(found["failures"] == 10 && found["blocked"].asBool()) << found.toStyledString();
  EXPECT_NE(std::string::npos, Cli({"blocked"}).out.find("\n192.0.2.91 "));
  EXPECT_EQ("unblocked 192.0.2.91 (10 failed logins cleared)\n", Cli({"unblock", addr}).out);
  EXPECT_EQ(1, Login(sid, hash, addr, "pw"));
}

TEST_F(CliTest, PurgesExpiredRowsAndCountsThem) {
  std::string const gone = Create({});
  std::string const kept =
      Create({"--auto-gc", "no", "--expire-at", "2020-01-01 00:00:00", "--force"});
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
  // one of the purged entry and the one of the purged session. A dry run counts the same
  // and removes nothing.
  for (char const* dry : {"--dry-run", "--yes"}) {
    Json::Value const counts = Json({"purge", dry});
    EXPECT_EQ(2, counts["entries"].asInt());
    EXPECT_EQ(1, counts["sessions"].asInt());
    EXPECT_EQ(3, counts["tokens"].asInt());
    bool const dry_run = std::string(dry) == "--dry-run";
    EXPECT_EQ(dry_run, counts["dry_run"].asBool());
    EXPECT_EQ(dry_run ? 4 : 1, Rows("token")) << dry;
  }
  EXPECT_EQ((Strings{kept, live}), Listed({}));
  EXPECT_EQ(3, Rows("session"));
  EXPECT_EQ("purged 0 entries, 0 sessions, 0 tokens\n", Cli({"purge"}).out);
  EXPECT_EQ("would purge 1 entry, 0 sessions, 0 tokens\n",
            Cli({"purge", "--all", "--dry-run"}).out);
  EXPECT_EQ("purged 1 entry, 0 sessions, 0 tokens\n", Cli({"purge", "--all"}).out);
  EXPECT_EQ((Strings{live}), Listed({}));
  // Deleting a link takes its visitors' access with it; by owner, all of that owner's.
  Create({}, "bob");
  EXPECT_EQ("deleted 1 entry\n", Cli({"delete", live}).out);
  EXPECT_EQ(0, Rows("token"));
  Outcome const owner = Cli({"--json", "delete", "--owner", "bob"});  // before the command too
  EXPECT_EQ(1, Parse(owner.out)["deleted"].asInt()) << owner.err;
  EXPECT_EQ(0, Rows("entry"));
}

TEST_F(CliTest, EveryFailureHasItsStatusAndOneLine) {
  std::string const hash = Create({});
  auto with = [](Strings more) {
    more.insert(more.begin(), {"create", "--project", "p", "--owner", "alice"});
    return more;
  };
  kovatest::TempDir temp;
  std::string const bad = temp.File("bad.json");
  kovatest::WriteFile(bad, "{\"a\":\"\xff\"}");
  std::string const deep = std::string(101, '[') + std::string(101, ']');
  struct {
    Strings args;
    int status;
    std::string message;
  } const cases[] = {
      {{}, 2, "no command given"},
      {{"frobnicate"}, 2, "unknown command \"frobnicate\""},
      {{"list", "--bogus"}, 2, "list: unknown option --bogus"},
      {{"list", "--page", "0"}, 2, "--page: \"0\" is not a whole number from 1"},
      {{"list", "--sort", "size"}, 2, "is not created, expiry, uses or owner"},
      {{"create", "--project", "p"}, 2, "--owner is required"},
      {with({"--app", "[1]"}), 2, "--app: not a JSON object"},
      {with({"--app", R"({"a":)" + deep + "}"}), 2, "--app: JSON nested deeper than 100"},
      {with({"--app", "@/nonexistent/app.json"}), 2, "--app: cannot read /nonexistent/app.json"},
      {with({"--app", "-", "--private-data", "-"}), 2, "only one value can come from standard"},
      {with({"--title", "caf\xe9"}), 2, "--title: the text is not UTF-8"},
      {with({"--app", "@" + bad}), 2, "--app: the text is not UTF-8"},
      {with({"--password", "x", "--users", "bob"}), 2, "choose one protection"},
      {with({"--password-stdin"}), 2, "the password is empty"},
      {with({"--enabled", "maybe"}), 2, "neither yes nor no"},
      {with({"--expire-at", "2020-01-01"}), 2, "the link would be expired already"},
      {with({"--start-at", "+2d", "--expire-at", "+1d"}), 2, "would end before it starts"},
      {with({"--qr"}), 2, "--qr needs the gate's web address"},
      {with({"--base-url", "ftp://x"}), 2, "is not the gate's web address"},
      {{"create", "--project", "''", "--owner", "alice"}, 2, "project_name value cannot be stored"},
      {{"update", hash}, 2, "update: nothing to change"},
      {{"delete"}, 2, "missing HASH or --owner USER"},
      {{"unblock", "192.0.2"}, 2, "not an IPv4 or IPv6 address"},
      {with({"--expire-at", "tomorrow"}), 3, "\"tomorrow\" is not a time: give YYYY-MM-DD"},
      {with({"--expire-at", "+7y"}), 3, "is not a time"},
      {with({"--expire-at", "2027-01-31T12:00:00+25:00"}), 3, "is not a time"},
      {with({"--expire-at", "2027-02-30"}), 3, "is not a valid time"},
      {{"show", "nohash"}, 4, "no entry with hash \"nohash\""},
      {{"create", "--project", "p", "--owner", "zed"}, 5, "no user named \"zed\""},
      {with({"--users", "alice,zed"}), 5, "no user named \"zed\" (--allow-unknown"},
      {with({"--groups", "nogroup"}), 5, "no group named \"nogroup\""},
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
  for (std::string const name :
       {"create", "list", "show", "update", "delete", "purge", "logout", "config"}) {
    std::string const help = Cli({name, "--help"}).out;
    EXPECT_EQ(0u, help.find("Usage: kovasharing " + name)) << help;
    EXPECT_EQ(help, Cli({"help", name}).out);
    EXPECT_NE(std::string::npos, overview.find("\n  " + name + " ")) << name;
    EXPECT_NE(std::string::npos, manual.find(".SS \"" + name)) << name;
  }
  EXPECT_EQ(0u, Cli({"--version"}).out.find("kovasharing 1."));
  // Well-formed roff, where a formatter is at hand.
  Outcome const roff = kovatest::Run(
      {"sh", "-c", "! command -v groff >/dev/null || groff -man -ww -z " KOVA_CLI_MANPAGE},
      {{"LD_PRELOAD", kovatest::kUnset}});
  EXPECT_TRUE(roff.status == 0 && roff.err.empty()) << roff.err;
}

}  // namespace
