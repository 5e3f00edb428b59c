// The URL tool and the web API runner, played by small shell scripts put where the library
// looks for the real programs. Each script records its arguments (NUL-separated) and prints
// the reply the test prepared.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "kovasharing/utils.h"
#include "kovatest.h"

using namespace KOVA::sharing;

namespace {

using Words = std::vector<std::string>;

std::string const kPid = std::to_string(static_cast<unsigned>(getpid()));
std::string const kBin = kovatest::Root() + "/usr/kova/bin/";

Json::Value Parse(std::string const& text) {
  Json::Value value;
  EXPECT_TRUE(Json::Reader().parse(text, value, false)) << text;
  return value;
}

class StandIn {
 public:
  explicit StandIn(std::string const& program) : path_(kBin + program) {
    kovatest::Shell("mkdir -p '" + kBin + "'");
    Reply("");
    // The exit status is not the library's business: the stand-in always reports failure.
    kovatest::WriteFile(path_, "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\0' \"$a\"; done > '" +
                                   dir_.File("args") + "'\ncat '" + dir_.File("reply") +
                                   "'\nexit 3\n");
    chmod(path_.c_str(), 0755);
  }
  ~StandIn() { unlink(path_.c_str()); }

  void Reply(std::string const& text) { kovatest::WriteFile(dir_.File("reply"), text); }
  // The arguments after argument 0, as the program received them (none if it did not run).
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

TEST(HelperPrograms, SharingUrlArgumentsAndAnswers) {
  StandIn tool("kovasharingurl");
  tool.Reply("path/x\n2\n");
  std::string url;
  _tag_SHARING_URL_TYPE type = SHARING_URL_TYPE_UNKNOWN;
  ASSERT_TRUE(GetSharingURL("a b", 7, true, "k=v w", "", url, type));
  EXPECT_EQ((Words{"a b", "7", "1", "k=v w", ""}), tool.Args());
  EXPECT_EQ("path/x", url);
  EXPECT_EQ(SHARING_URL_TYPE_WAN, type);
  // The short form passes an empty word in the fourth place.
  ASSERT_TRUE(GetSharingURL("proj", -12, false, "t3", url, type));
  EXPECT_EQ((Words{"proj", "-12", "0", "", "t3"}), tool.Args());

  int const kept = SHARING_URL_TYPE_LAN;
  struct {
    std::string reply, url;
    int type, log_line;  // log_line 0: success, no line
  } const cases[] = {
      {"u\n123456\n", "u", 123, 0},  // only three characters fit the type buffer
      // 4095 bytes of the long line are read and the last is cut; the type comes from its rest.
      {std::string(5000, 'a') + "\n1\n", std::string(4094, 'a'), 0, 0},
      {"", "before", kept, 37},
      // The URL is already assigned when the type line is missing; without any newline its
      // last character goes.
      {"path/only\n", "path/only", kept, 42},
      {"abc", "ab", kept, 42},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.reply.substr(0, 12));
    kovatest::ClearLogs();
    tool.Reply(c.reply);
    url = "before";
    type = static_cast<_tag_SHARING_URL_TYPE>(kept);
    EXPECT_EQ(c.log_line == 0, GetSharingURL("x", 1, true, "y", url, type));
    EXPECT_EQ(c.url, url);
    EXPECT_EQ(c.type, static_cast<int>(type));
    auto const logs = kovatest::Logs();
    ASSERT_EQ(c.log_line == 0 ? 0u : 1u, logs.size());
    if (c.log_line == 0) continue;
    // Complete but for the error text, which depends on what errno held.
    std::string const head =
        "utils_sharing_url:" + std::to_string(c.log_line) + " (" + kPid + ") Failed [NULL == " +
        (c.log_line == 37 ? "fgets(szUrl, BUF_SIZE_" : "fgets(szType, TYPE_BUF_SIZE_") +
        ", file.file)], err=";
    EXPECT_EQ(0u, logs[0].text.find(head)) << logs[0].text;
    EXPECT_EQ("\n\n", logs[0].text.substr(logs[0].text.size() - 2));
    EXPECT_EQ(LOG_ERR, logs[0].priority & 7);
  }
}

TEST(HelperPrograms, ProgramsMissing) {
  kovatest::ClearLogs();
  std::string url = "before";
  _tag_SHARING_URL_TYPE type = SHARING_URL_TYPE_RELAY;
  Json::Value out = Parse("{\"old\":1}");
  EXPECT_FALSE(GetSharingURL("x", 1, true, "y", url, type));
  EXPECT_FALSE(SendWebapi(out, "Kova.X", 1, "get", Json::Value(Json::objectValue)));
  EXPECT_EQ("before", url);
  EXPECT_EQ(SHARING_URL_TYPE_RELAY, type);
  EXPECT_EQ(Json::Value(Json::objectValue), out);
  std::string const popen = "include/internal/popen:24 (" + kPid + ") KLIBCPopenv failed.\n";
  EXPECT_EQ((Words{popen, "utils_sharing_url:30 (" + kPid + ") popen failed\n\n", popen,
                   "utils_send_webapi:33 (" + kPid + ") popen failed\n\n"}),
            kovatest::LogTexts());
}

TEST(HelperPrograms, WebapiArgumentsAndAnswers) {
  kovatest::ClearLogs();
  StandIn runner("kovawebapi");
  runner.Reply("{\"success\":true}\n");
  Json::Value out = Parse("{\"old\":1}");
  ASSERT_TRUE(SendWebapi(out, "Kova.Core.Share", 1, "get",
                         Parse(R"({"b": "2", "a": "x y", "c": "k=v=w", "e": ""})")));
  EXPECT_EQ((Words{"--exec", "api=Kova.Core.Share", "version=1", "method=get", "a=x y", "b=2",
                   "c=k=v=w", "e="}),
            runner.Args());
  EXPECT_EQ(Parse("{\"success\":true}"), out);

  // A negative version keeps its sign; numbers and flags as text; names in byte order.
  std::string const big(3 * 4096 + 123, 'q');  // several read chunks
  runner.Reply("{\"big\":\"" + big + "\",\"tail\":[1,2,3]}");
  ASSERT_TRUE(SendWebapi(out, "", -2, "", Parse(R"({"n": 5, "Z": true, "_": -1.5})")));
  EXPECT_EQ((Words{"--exec", "api=", "version=-2", "method=", "Z=true", "_=-1.5", "n=5"}),
            runner.Args());
  EXPECT_EQ(big, out["big"].asString());
  EXPECT_EQ(3u, out["tail"].size());
  EXPECT_TRUE(kovatest::Logs().empty());
}

TEST(HelperPrograms, WebapiUnusableParametersAndAnswers) {
  StandIn runner("kovawebapi");
  Json::Value out;
  // A value that has no text form stops the call before the runner starts.
  EXPECT_ANY_THROW(SendWebapi(out, "Kova.X", 1, "get", Parse(R"({"list": ["a"]})")));
  EXPECT_TRUE(runner.Args().empty());

  for (char const* reply : {"", "not json at all\n"}) {
    kovatest::ClearLogs();
    runner.Reply(reply);
    out["old"] = 1;
    EXPECT_FALSE(SendWebapi(out, "Kova.X", 1, "get", Json::Value(Json::objectValue)));
    EXPECT_EQ(Json::Value(Json::objectValue), out);
    ASSERT_EQ((Words{"utils_send_webapi:41 (" + kPid + ") json read failed\n\n"}),
              kovatest::LogTexts());
    EXPECT_EQ(LOG_ERR, kovatest::Logs()[0].priority & 7);
  }
}
