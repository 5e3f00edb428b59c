// The public URL of a sharing link, as the appliance's URL tool computes it.
#include <kova_log.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <vector>

#include "kova_paths.h"
#include "kovasharing/utils.h"
#include "utils/popen.h"

namespace KOVA {
namespace sharing {

namespace {
constexpr int BUF_SIZE_ = 4096;
// Three digits and the terminator: the tool's type numbers are short.
constexpr int TYPE_BUF_SIZE_ = 4;
}  // namespace

bool GetSharingURL(std::string const& text1, int number, bool flag, std::string const& text2,
                   std::string const& text3, std::string& url, _tag_SHARING_URL_TYPE& type) {
  std::ostringstream num;
  num << number;
  std::vector<std::string> const args = {"kovasharingurl",     text1, num.str(),
                                         ToString<bool>(flag), text2, text3};
  std::vector<char const*> argv;
  argv.reserve(args.size() + 1);
  for (auto const& a : args) argv.push_back(a.c_str());
  argv.push_back(nullptr);

  internal::Popen file(KOVA_SHARING_URL_TOOL, "r", argv.data());
  if (!file) {
    KOVA_LOG_PID("utils_sharing_url", 30, "popen failed\n\n");
    return false;
  }

  char szUrl[BUF_SIZE_] = {};
  if (NULL == fgets(szUrl, BUF_SIZE_, file.file)) {
    KOVA_LOG_PID("utils_sharing_url", 37, "Failed [%s], err=%m\n\n",
                 "NULL == fgets(szUrl, BUF_SIZE_, file.file)");
    file.close();
    return false;
  }
  // The tool ends its line with a newline; whatever the last character is, it goes.
  std::string line(szUrl);
  if (!line.empty()) line.erase(line.size() - 1);
  url = line;

  char szType[TYPE_BUF_SIZE_] = {};
  if (NULL == fgets(szType, TYPE_BUF_SIZE_, file.file)) {
    KOVA_LOG_PID("utils_sharing_url", 42, "Failed [%s], err=%m\n\n",
                 "NULL == fgets(szType, TYPE_BUF_SIZE_, file.file)");
    file.close();
    return false;
  }
  type = static_cast<_tag_SHARING_URL_TYPE>(strtol(szType, nullptr, 10));
  file.close();
  return true;
}

bool GetSharingURL(std::string const& text1, int number, bool flag, std::string const& text3,
                   std::string& url, _tag_SHARING_URL_TYPE& type) {
  return GetSharingURL(text1, number, flag, std::string(), text3, url, type);
}

}  // namespace sharing
}  // namespace KOVA
