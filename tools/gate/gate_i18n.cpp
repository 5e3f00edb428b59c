#include "gate_i18n.h"

#include <kova_cgi.h>
#include <libintl.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

// Bumped to make gettext forget the translations it looked up for another language.
extern "C" int _nl_msg_cat_cntr;  // NOLINT(bugprone-reserved-identifier): gettext's own

namespace kovagate {
namespace {

char const kDomain[] = "kovasharing-gate";
// The gate's languages besides English, which needs no catalogue.
char const* const kLanguages[] = {"en", "de"};
char const* chosen = "en";

// The catalogues: KOVASHARING_GATE_LOCALEDIR when set, else locale/ beside the program (a
// build tree), else the installed ones.
std::string CatalogueDir() {
  char const* dir = getenv("KOVASHARING_GATE_LOCALEDIR");
  if (dir != nullptr && *dir != '\0') return dir;
  char self[4096];
  ssize_t const length = readlink("/proc/self/exe", self, sizeof self - 1);
  if (length > 0) {
    std::string beside(self, static_cast<size_t>(length));
    beside = beside.substr(0, beside.rfind('/') + 1) + "locale";
    struct stat info;
    if (stat(beside.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return beside;
  }
  return KOVA_GATE_LOCALEDIR;
}

void Bind() {
  static bool bound = false;
  if (bound) return;
  bound = true;
  // Any locale but "C" lets LANGUAGE choose the catalogue; C.UTF-8 is built into the C
  // library and changes nothing else a page shows.
  setlocale(LC_MESSAGES, "C.UTF-8");
  bindtextdomain(kDomain, CatalogueDir().c_str());
  bind_textdomain_codeset(kDomain, "UTF-8");
}

}  // namespace

void ChooseLanguage(std::string const& header) {
  Bind();
  // The highest q of each of our languages ("de-AT;q=0.8" counts for "de"); ties go to the
  // one named first.
  char const* best = "en";
  double best_q = 0;
  size_t start = 0;
  while (start < header.size()) {
    size_t end = header.find(',', start);
    if (end == std::string::npos) end = header.size();
    std::string item = header.substr(start, end - start);
    start = end + 1;
    double q = 1;
    size_t const semi = item.find(';');
    if (semi != std::string::npos) {
      size_t const qpos = item.find("q=", semi);
      q = qpos == std::string::npos ? 1 : strtod(item.c_str() + qpos + 2, nullptr);
      item.resize(semi);
    }
    item.erase(0, item.find_first_not_of(" \t"));
    item.erase(item.find_last_not_of(" \t") + 1);
    std::string const primary = item.substr(0, item.find('-'));
    for (char const* language : kLanguages) {
      if (strcasecmp(primary.c_str(), language) == 0 && q > best_q) best = language, best_q = q;
    }
  }
  chosen = best;
  if (chosen == kLanguages[0]) return;  // English is the texts themselves
  // The request's own variable: a server of many requests keeps none of it for the next.
  KovaCgiSetVariable("LANGUAGE", chosen);
  static char const* looked_up = nullptr;  // gettext remembers what it found for this one
  if (looked_up != chosen) {
    looked_up = chosen;
    ++_nl_msg_cat_cntr;
  }
}

char const* Language() { return chosen; }

char const* Translate(char const* text) {
  return chosen == kLanguages[0] ? text : dgettext(kDomain, text);
}

std::string Fill(char const* format, std::initializer_list<std::string> values) {
  std::string out = format;
  size_t at = 0;
  for (auto const& value : values) {
    at = out.find("{}", at);
    if (at == std::string::npos) break;
    out.replace(at, 2, value);
    at += value.size();
  }
  return out;
}

}  // namespace kovagate
