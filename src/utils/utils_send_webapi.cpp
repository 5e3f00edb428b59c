// One request of the appliance's web API through its command-line runner.
#include <json/reader.h>
#include <kova_log.h>
#include <syslog.h>
#include <unistd.h>

#include <sstream>
#include <vector>

#include "kova_paths.h"
#include "kovasharing/utils.h"
#include "utils/popen.h"

namespace KOVA {
namespace sharing {

namespace {
constexpr std::size_t kChunk = 4096;
}  // namespace

bool SendWebapi(Json::Value& out, std::string const& api, int version, std::string const& method,
                Json::Value const& params) {
  out = Json::Value(Json::objectValue);

  std::ostringstream ver;
  ver << version;
  std::vector<std::string> args = {"kovawebapi", "--exec", "api=" + api, "version=" + ver.str(),
                                   "method=" + method};
  // Member names come sorted, so the runner sees the parameters in a stable order.
  for (auto const& name : params.getMemberNames()) {
    args.push_back(name + "=" + params[name].asString());
  }
  std::vector<char const*> argv;
  argv.reserve(args.size() + 1);
  for (auto const& a : args) argv.push_back(a.c_str());
  argv.push_back(nullptr);

  internal::Popen file(KOVA_WEBAPI_TOOL, "r", argv.data());
  if (!file) {
    KOVA_LOG_PID("utils_send_webapi", 33, "popen failed\n\n");
    return false;
  }

  std::string text;
  char buf[kChunk];
  for (;;) {
    std::size_t const n = fread(buf, 1, sizeof buf, file.file);
    if (n == 0) break;
    text.append(buf, n);
  }

  Json::Reader reader;
  if (!reader.parse(text, out, false)) {
    KOVA_LOG_PID("utils_send_webapi", 41, "json read failed\n\n");
    file.close();
    return false;
  }
  file.close();
  return true;
}

}  // namespace sharing
}  // namespace KOVA
