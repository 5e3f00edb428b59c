// The utilities: digests, the purges' probability draw, string splitting, the random source,
// users and groups from the nss_wrapper fixtures (tests/fixtures/README.md), and the URL tool and
// web API runner, played by a shell script put where the library looks for the real programs.
#include "kovasharing/utils.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "kova_random.h"
#include "kova_user.h"
#include "kovatest.h"

using namespace KOVA::sharing;
using namespace KOVA::RANDOM;

namespace {

using Words = std::vector<std::string>;
std::string const kPid = " (" + std::to_string(static_cast<unsigned>(getpid())) + ") ";

Json::Value Parse(std::string const& text) {
  Json::Value value;
  EXPECT_TRUE(Json::Reader().parse(text, value, false)) << text;
  return value;
}

class StandIn {
 public:
  explicit StandIn(std::string const& program)
      : path_(kovatest::Root() + "/usr/kova/bin/" + program) {
    kovatest::Shell("mkdir -p \"$(dirname '" + path_ + "')\"");
    Reply("");
    // Its exit status is not the library's business: it always reports failure.
    kovatest::WriteFile(path_, "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\0' \"$a\"; done > '" +
                                   dir_.File("args") + "'\ncat '" + dir_.File("reply") +
                                   "'\nexit 3\n");
    chmod(path_.c_str(), 0755);
  }
  ~StandIn() { unlink(path_.c_str()); }
  void Reply(std::string const& text) { kovatest::WriteFile(dir_.File("reply"), text); }
  Words Args() const {
    std::istringstream raw(kovatest::ReadFile(dir_.File("args")));
    Words out;
    for (std::string word; std::getline(raw, word, '\0');) out.push_back(word);
    return out;
  }

 private:
  kovatest::TempDir dir_;
  std::string path_;
};

}  // namespace

TEST(HelperPrograms, ProgramsMissing) {
  kovatest::ClearLogs();
  std::string url = "before";
  _tag_SHARING_URL_TYPE type = SHARING_URL_TYPE_RELAY;
  Json::Value out = Parse("{\"old\":1}");
  EXPECT_FALSE(GetSharingURL("x", 1, true, "y", url, type) ||
               SendWebapi(out, "Kova.X", 1, "get", Json::Value(Json::objectValue)));
  EXPECT_EQ("before 3", url + " " + std::to_string(type));
  EXPECT_EQ(Json::Value(Json::objectValue), out);
  EXPECT_EQ(1, kovatest::LogCount("utils_sharing_url:30" + kPid + "popen failed\n\n"));
  EXPECT_EQ(1, kovatest::LogCount("utils_send_webapi:33" + kPid + "popen failed\n\n"));
}

TEST(HelperPrograms, SharingUrl) {
  StandIn tool("kovasharingurl");
  tool.Reply("path/x\n2\n");
  std::string url;
  _tag_SHARING_URL_TYPE type = SHARING_URL_TYPE_UNKNOWN;
  // Words reach the tool as they are, never through a shell.
  ASSERT_TRUE(GetSharingURL("a b", -7, true, "k=$(id) w'", "", url, type));
  EXPECT_EQ((Words{"a b", "-7", "1", "k=$(id) w'", ""}), tool.Args());
  EXPECT_EQ("path/x 2", url + " " + std::to_string(type));
  ASSERT_TRUE(GetSharingURL("proj", 12, false, "t3", url, type));  // empty fourth word
  EXPECT_EQ((Words{"proj", "12", "0", "", "t3"}), tool.Args());
  // Only three characters fit the type; a long line is cut; the url is assigned before a
  // missing type line, and its last character always goes. Line 0: no failure logged.
  struct {
    std::string reply, url;
    int type, line;
  } const cases[] = {{"u\n123456\n", "u", 123, 0},
                     {std::string(5000, 'a') + "\n1\n", std::string(4094, 'a'), 0, 0},
                     {"", "before", 1, 37},
                     {"abc", "ab", 1, 42}};
  for (auto const& c : cases) {
    kovatest::ClearLogs();
    tool.Reply(c.reply);
    url = "before";
    type = SHARING_URL_TYPE_LAN;
    EXPECT_EQ(c.line == 0, GetSharingURL("x", 1, true, "y", url, type));
    EXPECT_EQ(c.url + " " + std::to_string(c.type), url + " " + std::to_string(type));
    std::string const head = "utils_sharing_url:" + std::to_string(c.line) + kPid + "Failed [";
    EXPECT_EQ(c.line != 0, kovatest::LogCount(head) == 1 && kovatest::Logs().size() == 1u);
  }
}

TEST(HelperPrograms, Webapi) {
  StandIn runner("kovawebapi");
  runner.Reply("{\"success\":true}\n");
  Json::Value out = Parse("{\"old\":1}");
  // Names in byte order; numbers and flags as text; a negative version keeps its sign.
  ASSERT_TRUE(SendWebapi(out, "Kova.Core.Share", -2, "get",
                         Parse(R"({"b": "2", "a": "x y", "c": "k=v=w", "Z": true, "_": -1.5})")));
  EXPECT_EQ((Words{"--exec", "api=Kova.Core.Share", "version=-2", "method=get", "Z=true", "_=-1.5",
                   "a=x y", "b=2", "c=k=v=w"}),
            runner.Args());
  EXPECT_EQ(Parse("{\"success\":true}"), out);
  std::string const big(3 * 4096 + 123, 'q');  // several read chunks
  runner.Reply("{\"big\":\"" + big + "\"}");
  ASSERT_TRUE(SendWebapi(out, "", 1, "", Json::Value(Json::objectValue)));
  EXPECT_EQ(big, out["big"].asString());
  // A value without a text form stops the call before the runner starts.
  EXPECT_ANY_THROW(SendWebapi(out, "Kova.X", 1, "get", Parse(R"({"list": ["a"]})")));
  EXPECT_EQ((Words{"--exec", "api=", "version=1", "method="}), runner.Args());
  kovatest::ClearLogs();
  runner.Reply("not json at all\n");
  EXPECT_FALSE(SendWebapi(out, "Kova.X", 1, "get", Json::Value(Json::objectValue)));
  EXPECT_EQ(Json::Value(Json::objectValue), out);
  EXPECT_EQ(Words{"utils_send_webapi:41" + kPid + "json read failed\n\n"}, kovatest::LogTexts());
}

TEST(Utils, DigestsProbabilityExplodeAndRandom) {
  std::string out = "previous";
  // Password first, salt second, nothing between; an empty password is accepted.
  for (auto const& [password, salt] : {std::pair{"a", "b"}, {"", "ab"}}) {
    ASSERT_TRUE(Sha1WithSaltHashPassword(password, salt, out));
    EXPECT_EQ("da23614e02469a0d7c7bd1bdab5c9c474b1904dc", out);  // SHA-1 of "ab"
  }
  EXPECT_FALSE(MD5HashPassword("", out));
  ASSERT_TRUE(MD5HashPassword(std::string("a\0b", 3), out));  // the zero byte counts
  EXPECT_EQ("70350f6027bce3713f6b76473084309b", out);

  // Whole percents, truncated: 0.01 is one percent, 0.999 is 99.
  auto hits = [](float probability, int draws) {
    int n = 0;
    for (int i = 0; i < draws; ++i) n += IsProbabilityHit(probability) ? 1 : 0;
    return n;
  };
  for (float p : {1.0f, 1e30f}) EXPECT_EQ(1000, hits(p, 1000)) << p;
  for (float p : {0.0f, 0.009f, -1e30f, std::nanf("")}) EXPECT_EQ(0, hits(p, 3000)) << p;
  EXPECT_NEAR(200, hits(0.01f, 20000), 99);
  EXPECT_NEAR(19800, hits(0.999f, 20000), 99);

  // Empty pieces are dropped; the delimiter is a whole text.
  using Pieces = std::vector<std::string>;
  Pieces split = {"old"}, kept = {"kept"};
  EXPECT_TRUE(StringExplode(split, ",a,,b, c", ", "));
  EXPECT_EQ((Pieces{",a,,b", "c"}), split);
  EXPECT_TRUE(StringExplode(split, ",a,,b,", ","));
  EXPECT_EQ((Pieces{"a", "b"}), split);
  EXPECT_FALSE(StringExplode(kept, "a,b", nullptr) || StringExplode(kept, "a,b", ""));
  EXPECT_EQ(Pieces{"kept"}, kept);

  KOVARandom random;
  // Every pool character appears, none more than 5% off its share (about five deviations).
  for (char const* pool : {POOL_ALPHA_NUMERIC, POOL_URL_FRIENDLY}) {
    std::size_t const size = strlen(pool), per_char = 10000;
    std::string out;
    ASSERT_TRUE(random.getString(pool, size * per_char, out));
    std::map<char, std::size_t> counts;
    for (char c : out) ++counts[c];
    EXPECT_EQ(size, counts.size());
    for (char const* p = pool; *p; ++p) EXPECT_NEAR(per_char, counts[*p], per_char / 20) << *p;
  }
  std::map<int, int> seen;
  for (int i = 0; i < 20000; ++i) ++seen[random.random(0, 99)];
  EXPECT_EQ("100 0 99", std::to_string(seen.size()) + " " + std::to_string(seen.begin()->first) +
                            " " + std::to_string(seen.rbegin()->first));
  EXPECT_EQ(7, random.random(7, 1));
}

TEST(UsersAndGroups, LoginNamesGroupListsAndFailures) {
  // Without the wrapper the machine's own database would answer: refuse to run then.
  ASSERT_NE(nullptr, getenv("NSS_WRAPPER_PASSWD"));
  kovatest::ClearLogs();
  // "GUS" is ambiguous between gus and Gus; "ERIN" makes the walk grow its buffer.
  char const* const cases[][2] = {{"DAVE", "Dave"},  {"ALICE", "alice"}, {"ERIN", "erin"},
                                  {"Dave", nullptr}, {"zed", nullptr},   {"GUS", nullptr}};
  for (auto const& [name, canonical] : cases) {
    char out[493] = {'x', '\0'};
    EXPECT_EQ(canonical ? 1 : 0, KOVAUserLoginNameConvert(name, out, sizeof out, 0)) << name;
    EXPECT_EQ(canonical ? canonical : name, GetRealUsername(name));
  }
  char small[5] = "---";  // too small for the name: an error, nothing written
  EXPECT_LT(KOVAUserLoginNameConvert("DAVE", small, 4, 0), 0);
  EXPECT_STREQ("---", small);

  KOVAUSER* user = nullptr;
  ASSERT_TRUE(UserGet("alice", user));
  std::set<unsigned int> gids = {1, 2001};  // alice's groups are added; crowd has 151 members
  EXPECT_TRUE(UserGroupsGet(user, gids));
  EXPECT_EQ((std::set<unsigned int>{1, 2000, 2001, 2002, 2005}), gids);
  // A record whose name no longer resolves: failure, the set untouched.
  free(user->name);
  user->name = strdup("zed");
  EXPECT_FALSE(UserGroupsGet(user, gids));
  EXPECT_EQ(5u, gids.size());
  KOVAUserFree(user);
  EXPECT_TRUE(kovatest::Logs().empty());
  // Only a missing user is logged, by the name looked up.
  EXPECT_FALSE(UserGet("zed", user) || UserGet("GUS", user));
  EXPECT_EQ((std::vector<std::string>{"utils_user_group:35 No such user [zed]",
                                      "utils_user_group:35 No such user [GUS]"}),
            kovatest::LogTexts());
  EXPECT_EQ(LOG_ERR, kovatest::Logs()[0].priority & 7);
  kovatest::ClearLogs();
  // The platform calls: -1 exactly for a missing record, another negative value for a call
  // that cannot be made.
  KOVAGROUP* group = nullptr;
  user = nullptr;
  EXPECT_EQ(-1, KOVAUserGet("dave", &user));
  EXPECT_EQ(-1, KOVAGroupGetByGID(2999, &group));
  EXPECT_TRUE(user == nullptr && group == nullptr);
  for (int r : {KOVAUserGet(nullptr, &user), KOVAUserGet("alice", nullptr)}) {
    EXPECT_TRUE(r < 0 && r != -1) << r;
  }
}
