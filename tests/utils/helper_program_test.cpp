// The URL tool and the web API runner, played by a small shell script put where the library
// looks for the real programs: it records its arguments (NUL-separated) and prints the reply
// the test prepared.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <sys/stat.h>
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
    // The exit status is not the library's business: the stand-in always reports failure.
    kovatest::WriteFile(path_, "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\0' \"$a\"; done > '" +
                                   dir_.File("args") + "'\ncat '" + dir_.File("reply") +
                                   "'\nexit 3\n");
    chmod(path_.c_str(), 0755);
  }
  ~StandIn() { unlink(path_.c_str()); }
  void Reply(std::string const& text) { kovatest::WriteFile(dir_.File("reply"), text); }
  Words Args() const {  // after argument 0
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
  std::string const popen = "include/internal/popen:24 (" + kPid + ") KLIBCPopenv failed.\n";
  EXPECT_EQ((Words{popen, "utils_sharing_url:30 (" + kPid + ") popen failed\n\n", popen,
                   "utils_send_webapi:33 (" + kPid + ") popen failed\n\n"}),
            kovatest::LogTexts());
}

TEST(HelperPrograms, SharingUrl) {
  StandIn tool("kovasharingurl");
  tool.Reply("path/x\n2\n");
  std::string url;
  _tag_SHARING_URL_TYPE type = SHARING_URL_TYPE_UNKNOWN;
  ASSERT_TRUE(GetSharingURL("a b", -7, true, "k=$(id) w'", "", url, type));
  EXPECT_EQ((Words{"a b", "-7", "1", "k=$(id) w'", ""}), tool.Args());
  EXPECT_EQ("path/x 2", url + " " + std::to_string(type));
  ASSERT_TRUE(GetSharingURL("proj", 12, false, "t3", url, type));  // empty fourth word
  EXPECT_EQ((Words{"proj", "12", "0", "", "t3"}), tool.Args());
  // {reply, url, type, log line}: only three characters fit the type; a long line is cut;
  // the url is assigned before a missing type line, and its last character always goes.
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
    std::string const head =
        "utils_sharing_url:" + std::to_string(c.line) + " (" + kPid + ") Failed [";
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
  EXPECT_EQ(Words{"utils_send_webapi:41 (" + kPid + ") json read failed\n\n"},
            kovatest::LogTexts());
}
