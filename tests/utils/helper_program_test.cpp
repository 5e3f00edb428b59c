// The URL tool and the web API runner, played by small shell scripts put where the library
// looks for the real programs. Each script records its arguments (NUL-separated) and prints
// the reply the test prepared.
#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kovasharing/utils.h"
#include "kovatest.h"

using namespace KOVA::sharing;

namespace {

std::string Pid() { return std::to_string(static_cast<unsigned>(getpid())); }

class StandIn {
 public:
  explicit StandIn(std::string const& program)
      : path_(kovatest::Root() + "/usr/kova/bin/" + program) {
    kovatest::Shell("mkdir -p '" + kovatest::Root() + "/usr/kova/bin'");
    kovatest::WriteFile(dir_.File("reply"), "");
    // The exit status is not the library's business: the stand-in always reports failure.
    kovatest::WriteFile(path_, "#!/bin/sh\n: > '" + dir_.File("args") +
                                   "'\n"
                                   "for a in \"$@\"; do printf '%s\\0' \"$a\" >> '" +
                                   dir_.File("args") + "'; done\ncat '" + dir_.File("reply") +
                                   "'\nexit 3\n");
    chmod(path_.c_str(), 0755);
  }
  ~StandIn() { unlink(path_.c_str()); }

  void Reply(std::string const& text) { kovatest::WriteFile(dir_.File("reply"), text); }
  bool Ran() const { return access(dir_.File("args").c_str(), F_OK) == 0; }
  // The arguments after argument 0, as the program received them.
  std::vector<std::string> Args() const {
    std::string const raw = kovatest::ReadFile(dir_.File("args"));
    std::vector<std::string> out;
    std::string::size_type start = 0;
    for (;;) {
      auto const end = raw.find('\0', start);
      if (end == std::string::npos) break;
      out.push_back(raw.substr(start, end - start));
      start = end + 1;
    }
    return out;
  }

 private:
  kovatest::TempDir dir_;
  std::string path_;
};

using Words = std::vector<std::string>;

class HelperPrograms : public testing::Test {
 protected:
  void SetUp() override { kovatest::ClearLogs(); }
};

std::string const kTypeFailure =
    "utils_sharing_url:42 (" + Pid() +
    ") Failed [NULL == fgets(szType, TYPE_BUF_SIZE_, file.file)], err=";

// The line is complete up to the error text, which depends on what errno held.
void ExpectFailedLine(std::string const& line, std::string const& head) {
  EXPECT_EQ(0u, line.find(head)) << line;
  ASSERT_GE(line.size(), 2u);
  EXPECT_EQ("\n\n", line.substr(line.size() - 2)) << line;
}

}  // namespace

TEST_F(HelperPrograms, SharingUrlArgumentsAndAnswer) {
  StandIn tool("kovasharingurl");
  tool.Reply("path/x\n2\n");
  std::string url;
  _tag_SHARING_URL_TYPE type = SHARING_URL_TYPE_UNKNOWN;
  ASSERT_TRUE(GetSharingURL("a b", 7, true, "k=v w", "", url, type));
  EXPECT_EQ((Words{"a b", "7", "1", "k=v w", ""}), tool.Args());
  EXPECT_EQ("path/x", url);
  EXPECT_EQ(SHARING_URL_TYPE_WAN, type);

  // The short form passes an empty word in the fourth place.
  tool.Reply("http://host/s/abc\n3\n");
  ASSERT_TRUE(GetSharingURL("proj", -12, false, "t3", url, type));
  EXPECT_EQ((Words{"proj", "-12", "0", "", "t3"}), tool.Args());
  EXPECT_EQ("http://host/s/abc", url);
  EXPECT_EQ(3, static_cast<int>(type));

  tool.Reply("'quoted' $HOME *\n1");
  ASSERT_TRUE(GetSharingURL("", 0, false, "", "", url, type));
  EXPECT_EQ((Words{"", "0", "0", "", ""}), tool.Args());
  EXPECT_EQ("'quoted' $HOME *", url);
  EXPECT_EQ(1, static_cast<int>(type));
  EXPECT_TRUE(kovatest::Logs().empty());
}

TEST_F(HelperPrograms, SharingUrlTypeLine) {
  StandIn tool("kovasharingurl");
  std::string url;
  _tag_SHARING_URL_TYPE type = SHARING_URL_TYPE_UNKNOWN;
  // Only three characters fit the type buffer.
  tool.Reply("u\n123456\n");
  ASSERT_TRUE(GetSharingURL("x", 1, true, "y", url, type));
  EXPECT_EQ(123, static_cast<int>(type));
  tool.Reply("u\nabc\n");
  ASSERT_TRUE(GetSharingURL("x", 1, true, "y", url, type));
  EXPECT_EQ(0, static_cast<int>(type));
  tool.Reply("u\n-2x\n");
  ASSERT_TRUE(GetSharingURL("x", 1, true, "y", url, type));
  EXPECT_EQ(-2, static_cast<int>(type));
  // A first line longer than the URL buffer: 4095 bytes are read, the last of them is cut,
  // and the type is read from the rest of that long line.
  tool.Reply(std::string(5000, 'a') + "\n1\n");
  ASSERT_TRUE(GetSharingURL("x", 1, true, "y", url, type));
  EXPECT_EQ(std::string(4094, 'a'), url);
  EXPECT_EQ(0, static_cast<int>(type));
  EXPECT_TRUE(kovatest::Logs().empty());
}

TEST_F(HelperPrograms, SharingUrlShortAnswers) {
  StandIn tool("kovasharingurl");
  std::string url = "before";
  _tag_SHARING_URL_TYPE type = SHARING_URL_TYPE_LAN;

  // No output at all: the first read fails, nothing is assigned.
  EXPECT_FALSE(GetSharingURL("x", 1, true, "y", url, type));
  EXPECT_TRUE(tool.Ran());
  EXPECT_EQ("before", url);
  EXPECT_EQ(SHARING_URL_TYPE_LAN, type);
  auto logs = kovatest::LogTexts();
  ASSERT_EQ(1u, logs.size());
  ExpectFailedLine(logs[0], "utils_sharing_url:37 (" + Pid() +
                                ") Failed [NULL == fgets(szUrl, BUF_SIZE_, file.file)], err=");
  EXPECT_EQ(LOG_ERR, kovatest::Logs()[0].priority & 7);

  // A first line only: the URL is already assigned when the type read fails.
  kovatest::ClearLogs();
  tool.Reply("path/only\n");
  EXPECT_FALSE(GetSharingURL("x", 1, true, "y", url, type));
  EXPECT_EQ("path/only", url);
  EXPECT_EQ(SHARING_URL_TYPE_LAN, type);
  logs = kovatest::LogTexts();
  ASSERT_EQ(1u, logs.size());
  ExpectFailedLine(logs[0], kTypeFailure);

  // No newline at all: the last real character is lost.
  kovatest::ClearLogs();
  tool.Reply("abc");
  EXPECT_FALSE(GetSharingURL("x", 1, true, "y", url, type));
  EXPECT_EQ("ab", url);
  logs = kovatest::LogTexts();
  ASSERT_EQ(1u, logs.size());
  ExpectFailedLine(logs[0], kTypeFailure);
}

TEST_F(HelperPrograms, SharingUrlToolMissing) {
  std::string url = "before";
  _tag_SHARING_URL_TYPE type = SHARING_URL_TYPE_RELAY;
  ASSERT_NE(0, access((kovatest::Root() + "/usr/kova/bin/kovasharingurl").c_str(), F_OK));
  EXPECT_FALSE(GetSharingURL("x", 1, true, "y", url, type));
  EXPECT_EQ("before", url);
  EXPECT_EQ(SHARING_URL_TYPE_RELAY, type);
  EXPECT_EQ((Words{"include/internal/popen:24 (" + Pid() + ") KLIBCPopenv failed.\n",
                   "utils_sharing_url:30 (" + Pid() + ") popen failed\n\n"}),
            kovatest::LogTexts());
}

TEST_F(HelperPrograms, WebapiArgumentsAndAnswer) {
  StandIn runner("kovawebapi");
  runner.Reply("{\"success\":true,\"data\":{\"n\":1,\"s\":\"x y\"}}\n");
  Json::Value params(Json::objectValue);
  params["b"] = "2";
  params["a"] = "x y";
  params["c"] = "k=v=w";
  params["e"] = "";
  Json::Value out;
  out["old"] = 1;
  ASSERT_TRUE(SendWebapi(out, "Kova.Core.Share", 1, "get", params));
  EXPECT_EQ((Words{"--exec", "api=Kova.Core.Share", "version=1", "method=get", "a=x y", "b=2",
                   "c=k=v=w", "e="}),
            runner.Args());
  EXPECT_FALSE(out.isMember("old"));
  EXPECT_TRUE(out["success"].asBool());
  EXPECT_EQ(1u, out["data"]["n"].asUInt());
  EXPECT_EQ("x y", out["data"]["s"].asString());

  // A negative version keeps its sign; empty texts stay words; numbers and flags as text;
  // parameters in byte order of their names.
  Json::Value mixed(Json::objectValue);
  mixed["n"] = 5;
  mixed["Z"] = true;
  mixed["_"] = -1.5;
  runner.Reply("[1,2]");
  ASSERT_TRUE(SendWebapi(out, "", -2, "", mixed));
  EXPECT_EQ((Words{"--exec", "api=", "version=-2", "method=", "Z=true", "_=-1.5", "n=5"}),
            runner.Args());
  EXPECT_TRUE(out.isArray());

  ASSERT_TRUE(SendWebapi(out, "Kova.X", 0, "list", Json::Value()));
  EXPECT_EQ((Words{"--exec", "api=Kova.X", "version=0", "method=list"}), runner.Args());
  EXPECT_TRUE(kovatest::Logs().empty());
}

TEST_F(HelperPrograms, WebapiLargeAnswer) {
  StandIn runner("kovawebapi");
  std::string const big(3 * 4096 + 123, 'q');
  runner.Reply("{\"big\":\"" + big + "\",\"tail\":[1,2,3]}");
  Json::Value out;
  ASSERT_TRUE(SendWebapi(out, "Kova.Big", 2, "get", Json::Value(Json::objectValue)));
  EXPECT_EQ(big, out["big"].asString());
  EXPECT_EQ(3u, out["tail"].size());
  EXPECT_TRUE(kovatest::Logs().empty());
}

TEST_F(HelperPrograms, WebapiUnreadableAnswers) {
  StandIn runner("kovawebapi");
  std::string const line = "utils_send_webapi:41 (" + Pid() + ") json read failed\n\n";
  Json::Value out;
  out["old"] = 1;
  EXPECT_FALSE(SendWebapi(out, "Kova.X", 1, "get", Json::Value(Json::objectValue)));
  EXPECT_TRUE(runner.Ran());
  EXPECT_EQ((Words{line}), kovatest::LogTexts());
  EXPECT_FALSE(out.isMember("old"));

  kovatest::ClearLogs();
  runner.Reply("not json at all\n");
  EXPECT_FALSE(SendWebapi(out, "Kova.X", 1, "get", Json::Value(Json::objectValue)));
  EXPECT_EQ((Words{line}), kovatest::LogTexts());
  EXPECT_EQ(LOG_ERR, kovatest::Logs()[0].priority & 7);
}

TEST_F(HelperPrograms, WebapiRunnerMissingOrParameterNotText) {
  Json::Value out;
  out["old"] = 1;
  ASSERT_NE(0, access((kovatest::Root() + "/usr/kova/bin/kovawebapi").c_str(), F_OK));
  EXPECT_FALSE(SendWebapi(out, "Kova.X", 1, "get", Json::Value(Json::objectValue)));
  EXPECT_TRUE(out.isObject());
  EXPECT_EQ(0u, out.size());
  EXPECT_EQ((Words{"include/internal/popen:24 (" + Pid() + ") KLIBCPopenv failed.\n",
                   "utils_send_webapi:33 (" + Pid() + ") popen failed\n\n"}),
            kovatest::LogTexts());

  // A value that has no text form stops the call before the runner starts.
  StandIn runner("kovawebapi");
  runner.Reply("{}");
  Json::Value params(Json::objectValue);
  params["list"].append("a");
  EXPECT_ANY_THROW(SendWebapi(out, "Kova.X", 1, "get", params));
  EXPECT_FALSE(runner.Ran());
}
