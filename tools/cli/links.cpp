#include "links.h"

#include <errno.h>
#include <qrencode.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <memory>

#include "kova_paths.h"
#include "output.h"
#include "status.h"

namespace kovacli {
namespace {

char const kConfigDir[] = KOVA_ROOT_PREFIX "/usr/kova/etc/kovasharing";
char const kConfigFile[] = KOVA_ROOT_PREFIX "/usr/kova/etc/kovasharing/base-url";

// An http or https address without blanks, quotes or control characters, and with a host.
void CheckBaseUrl(std::string const& url, std::string const& what) {
  bool plain = url.size() <= 2048;
  for (char const c : url) plain = plain && c > 0x20 && c < 0x7f && c != '"' && c != '\\';
  size_t const host = url.compare(0, 8, "https://") == 0  ? 8
                      : url.compare(0, 7, "http://") == 0 ? 7
                                                          : 0;
  if (!plain || host == 0 || url.size() == host || url[host] == '/' ||
      url.find('#') != std::string::npos) {
    throw Error(kUsage, what + ": \"" + OneLine(url) +
                            "\" is not the gate's web address (http:// or https://, a host, no "
                            "blanks, no #fragment)");
  }
}

std::string ConfiguredBaseUrl() {
  std::ifstream in(kConfigFile);
  std::string url;
  if (!in) {
    if (errno == ENOENT) return "";
    throw Error(kInternal, std::string("cannot read ") + kConfigFile + ": " + strerror(errno));
  }
  std::getline(in, url);
  CheckBaseUrl(url, kConfigFile);
  return url;
}

// Written to a new file that then takes the old one's place: a reader sees one or the other.
void StoreBaseUrl(std::string const& url) {
  if (mkdir(kConfigDir, 0755) != 0 && errno != EEXIST) {
    throw Error(kInternal, std::string("cannot make ") + kConfigDir + ": " + strerror(errno));
  }
  if (url.empty()) {
    if (unlink(kConfigFile) != 0 && errno != ENOENT) {
      throw Error(kInternal, std::string("cannot remove ") + kConfigFile + ": " + strerror(errno));
    }
    return;
  }
  std::string const temp = std::string(kConfigFile) + ".new";
  {
    std::ofstream out(temp, std::ios::trunc);
    out << url << "\n";
    out.close();
    if (!out || chmod(temp.c_str(), 0644) != 0 || rename(temp.c_str(), kConfigFile) != 0) {
      int const error = errno;
      unlink(temp.c_str());
      throw Error(kInternal, std::string("cannot write ") + kConfigFile + ": " + strerror(error));
    }
  }
}

}  // namespace

std::string BaseUrl(Args const& args) {
  if (!args.Has("base-url")) return ConfiguredBaseUrl();
  std::string url = args.Get("base-url");
  CheckBaseUrl(url, "--base-url");
  return url;
}

std::string LinkOf(std::string const& base, std::string const& hash) {
  if (base.empty()) return "";
  // Hashes are letters and digits: nothing to encode.
  return base + (base.find('?') == std::string::npos ? "?" : "&") + "sharing_id=" + hash;
}

void PrintQr(std::ostream& out, std::string const& text) {
  std::unique_ptr<QRcode, void (*)(QRcode*)> const code(
      QRcode_encodeString(text.c_str(), 0, QR_ECLEVEL_M, QR_MODE_8, 1), QRcode_free);
  if (!code) throw Error(kInternal, std::string("cannot make a QR code: ") + strerror(errno));
  int const quiet = 2;  // light modules around the code, so that a scanner finds its edge
  int const size = code->width + 2 * quiet;
  auto const light = [&](int row, int column) {
    row -= quiet, column -= quiet;
    if (row < 0 || column < 0 || row >= code->width || column >= code->width) return true;
    return (code->data[row * code->width + column] & 1) == 0;
  };
  // Two rows of modules a line of text: the upper half block draws the upper one.
  for (int row = 0; row < size; row += 2) {
    std::string line;
    for (int column = 0; column < size; ++column) {
      bool const top = light(row, column);
      bool const bottom = row + 1 < size && light(row + 1, column);
      line += top && bottom ? "\u2588" : top ? "\u2580" : bottom ? "\u2584" : " ";
    }
    out << line << "\n";
  }
}

int RunConfig(Args const& args) {
  if (args.positional().empty() || args.positional()[0] != "base-url") {
    UsageError("config", "the only setting is base-url");
  }
  if (args.positional().size() > 2)
    UsageError("config", "unexpected argument " + args.positional()[2]);
  if (args.positional().size() == 2) {
    std::string url = args.positional()[1];
    if (url == "none") url.clear();
    if (!url.empty()) CheckBaseUrl(url, "base-url");
    StoreBaseUrl(url);
  }
  std::string const url = ConfiguredBaseUrl();
  std::cout << (url.empty() ? "(no base address: commands print hashes only)" : url) << "\n";
  return kOk;
}

}  // namespace kovacli
