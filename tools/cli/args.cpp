#include "args.h"

#include <json/reader.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>

#include "output.h"
#include "status.h"

namespace kovacli {

void UsageError(std::string const& command, std::string const& message) {
  std::string const help =
      command.empty() ? "kovasharing --help" : "kovasharing " + command + " --help";
  throw Error(kUsage, (command.empty() ? "" : command + ": ") + message + " (see " + help + ")");
}

Args::Args(std::string const& command, std::vector<std::string> const& words,
           std::vector<OptionSpec> const& specs)
    : command_(command) {
  bool options_end = false;
  for (size_t i = 0; i < words.size(); ++i) {
    std::string const& word = words[i];
    // Only "--name" is an option (and "-h"): session ids may begin with a single dash.
    if (options_end || word.compare(0, 2, "--") != 0) {
      if (!options_end && word == "-h") {
        values_["help"].push_back("");
        continue;
      }
      CheckUtf8(word, "argument");
      positional_.push_back(word);
      continue;
    }
    if (word == "--") {
      options_end = true;
      continue;
    }
    std::string name = word.substr(2);
    std::string value;
    bool inline_value = false;
    size_t const eq = name.find('=');
    if (eq != std::string::npos) {
      value = name.substr(eq + 1);
      name.resize(eq);
      inline_value = true;
    }
    OptionSpec const* spec = nullptr;
    static OptionSpec const kHelp = {"help", false, true};
    if (name == "help") spec = &kHelp;
    for (auto const& candidate : specs) {
      if (name == candidate.name) spec = &candidate;
    }
    if (spec == nullptr) UsageError(command, "unknown option --" + name);
    if (spec->takes_value && !inline_value) {
      if (i + 1 >= words.size()) UsageError(command, "--" + name + " needs a value");
      value = words[++i];
    } else if (!spec->takes_value && inline_value) {
      UsageError(command, "--" + name + " takes no value");
    }
    if (!spec->repeatable && values_.count(name) != 0) {
      UsageError(command, "--" + name + " given twice");
    }
    // A password is only hashed; every other text is stored or matched as text.
    if (name != "password") CheckUtf8(value, "--" + name);
    values_[name].push_back(value);
  }
}

std::string Args::Get(std::string const& name, std::string const& fallback) const {
  auto const it = values_.find(name);
  return it == values_.end() ? fallback : it->second.back();
}

std::vector<std::string> Args::List(std::string const& name) const {
  std::vector<std::string> out;
  auto const it = values_.find(name);
  if (it == values_.end()) return out;
  for (auto const& value : it->second) {
    size_t start = 0;
    while (start <= value.size()) {
      size_t end = value.find(',', start);
      if (end == std::string::npos) end = value.size();
      if (end > start) out.push_back(value.substr(start, end - start));
      start = end + 1;
    }
  }
  return out;
}

void Args::ExpectPositional(size_t count, char const* what) const {
  if (positional_.size() < count) UsageError(command_, std::string("missing ") + what);
  if (positional_.size() > count) UsageError(command_, "unexpected argument " + positional_[count]);
}

int ParseCount(std::string const& text, std::string const& option, int min, int max) {
  errno = 0;
  char* end = nullptr;
  long const value = std::strtol(text.c_str(), &end, 10);
  bool const digits_only =
      !text.empty() && (std::isdigit(static_cast<unsigned char>(text[0])) || text[0] == '-');
  if (!digits_only || *end != '\0' || errno != 0 || value < min || value > max) {
    throw Error(kUsage, option + ": \"" + OneLine(text) + "\" is not a whole number from " +
                            std::to_string(min) + " to " + std::to_string(max));
  }
  return static_cast<int>(value);
}

bool ParseYesNo(std::string const& text, std::string const& option) {
  if (text == "yes" || text == "true" || text == "on" || text == "1") return true;
  if (text == "no" || text == "false" || text == "off" || text == "0") return false;
  throw Error(kUsage, option + ": \"" + OneLine(text) + "\" is neither yes nor no");
}

namespace {

// `count` digits at `pos` as a number, advancing `pos`; -1 when they are not there.
int Digits(std::string const& text, size_t& pos, size_t count) {
  int value = 0;
  for (size_t end = pos + count; pos < end; ++pos) {
    if (pos >= text.size() || !std::isdigit(static_cast<unsigned char>(text[pos]))) return -1;
    value = value * 10 + (text[pos] - '0');
  }
  return value;
}

bool Take(std::string const& text, size_t& pos, char c) {
  if (pos >= text.size() || text[pos] != c) return false;
  ++pos;
  return true;
}

// "+7d", "+12h", "+30m", "+2w": that long from now.
long RelativeTime(std::string const& text) {
  static struct {
    char unit;
    long seconds;
  } const kUnits[] = {{'m', 60}, {'h', 3600}, {'d', 86400}, {'w', 7L * 86400}};
  size_t const digits = text.size() - 2;
  if (text.size() < 3 || digits > 6) return -1;
  size_t pos = 1;
  long const count = Digits(text, pos, digits);
  if (count < 0) return -1;
  for (auto const& unit : kUnits) {
    if (text.back() == unit.unit) return static_cast<long>(time(nullptr)) + count * unit.seconds;
  }
  return -1;
}

}  // namespace

bool IsUtf8(std::string const& text) {
  size_t i = 0;
  while (i < text.size()) {
    unsigned char const c = static_cast<unsigned char>(text[i]);
    int const more = c < 0x80             ? 0
                     : (c & 0xE0) == 0xC0 ? 1
                     : (c & 0xF0) == 0xE0 ? 2
                     : (c & 0xF8) == 0xF0 ? 3
                                          : -1;
    if (more < 0 || text.size() - i <= static_cast<size_t>(more)) return false;  // cut short
    unsigned long code = more == 0 ? c : c & (0x3F >> more);
    for (int k = 1; k <= more; ++k) {
      unsigned char const next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    // No overlong forms, no surrogates, nothing past U+10FFFF.
    static unsigned long const kLeast[] = {0, 0x80, 0x800, 0x10000};
    if (code < kLeast[more] || (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF) return false;
    i += more + 1;
  }
  return true;
}

void CheckUtf8(std::string const& text, std::string const& what) {
  if (!IsUtf8(text)) throw Error(kUsage, what + ": the text is not UTF-8");
}

long ParseTime(std::string const& text, std::string const& option) {
  if (text.empty() || text == "none") return 0;
  std::string const shapes =
      "\" is not a time: give YYYY-MM-DD (the end of that day), YYYY-MM-DD HH:MM:SS (local), "
      "ISO 8601 with a time zone (2027-01-31T12:00:00+01:00), or +7d, +12h, +30m, +2w from now";
  if (text[0] == '+') {
    long const value = RelativeTime(text);
    if (value < 0) throw Error(kBadTime, option + ": \"" + OneLine(text) + shapes);
    return value;
  }
  // Date, then optionally "T" or a blank and HH:MM[:SS], then optionally Z or +HH[:MM]/-HH[:MM].
  struct tm parsed = {};
  size_t pos = 0;
  parsed.tm_year = Digits(text, pos, 4) - 1900;
  bool ok = parsed.tm_year >= 0 && Take(text, pos, '-');
  parsed.tm_mon = ok ? Digits(text, pos, 2) - 1 : -1;
  ok = parsed.tm_mon >= 0 && Take(text, pos, '-');
  parsed.tm_mday = ok ? Digits(text, pos, 2) : -1;
  ok = parsed.tm_mday >= 1;
  bool const date_only = pos == text.size();
  bool zoned = false;
  long offset = 0;
  if (ok && date_only) {
    parsed.tm_hour = 23, parsed.tm_min = 59, parsed.tm_sec = 59;
  } else if (ok) {
    ok = Take(text, pos, 'T') || Take(text, pos, ' ');
    parsed.tm_hour = ok ? Digits(text, pos, 2) : -1;
    ok = parsed.tm_hour >= 0 && Take(text, pos, ':');
    parsed.tm_min = ok ? Digits(text, pos, 2) : -1;
    ok = parsed.tm_min >= 0;
    if (ok && Take(text, pos, ':')) ok = (parsed.tm_sec = Digits(text, pos, 2)) >= 0;
    if (ok && pos < text.size()) {
      zoned = true;
      if (!Take(text, pos, 'Z')) {
        int const sign = Take(text, pos, '+') ? 1 : Take(text, pos, '-') ? -1 : 0;
        int const hours = sign != 0 ? Digits(text, pos, 2) : -1;
        Take(text, pos, ':');
        int const minutes = pos < text.size() ? Digits(text, pos, 2) : 0;
        ok = hours >= 0 && hours <= 23 && minutes >= 0 && minutes <= 59;
        offset = sign * (hours * 3600L + minutes * 60L);
      }
    }
  }
  if (!ok || pos != text.size()) throw Error(kBadTime, option + ": \"" + OneLine(text) + shapes);
  // mktime and timegm normalise 2024-02-30 into March and a local time skipped by a clock
  // change into the next hour; such texts name no real time, so the round trip must give
  // them back.
  struct tm converted = parsed;
  converted.tm_isdst = -1;
  time_t const value = zoned ? timegm(&converted) - offset : mktime(&converted);
  if (value == static_cast<time_t>(-1) || converted.tm_year != parsed.tm_year ||
      converted.tm_mon != parsed.tm_mon || converted.tm_mday != parsed.tm_mday ||
      converted.tm_hour != parsed.tm_hour || converted.tm_min != parsed.tm_min ||
      converted.tm_sec != parsed.tm_sec) {
    throw Error(kBadTime, option + ": \"" + OneLine(text) + "\" is not a valid time");
  }
  if (value <= 0) throw Error(kBadTime, option + ": \"" + OneLine(text) + "\" lies before 1970");
  return static_cast<long>(value);
}

std::string ReadValue(std::string const& text, std::string const& option) {
  if (text != "-" && text.compare(0, 1, "@") != 0) return text;
  std::ifstream file;
  if (text != "-") {
    file.open(text.substr(1), std::ios::binary);
    if (!file) {
      throw Error(kUsage, option + ": cannot read " + OneLine(text.substr(1)) + ": " +
                              std::strerror(errno));
    }
  }
  std::istream& in = text == "-" ? std::cin : file;
  std::string value((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) throw Error(kUsage, option + ": cannot read " + OneLine(text));
  CheckUtf8(value, option);
  return value;
}

Json::Value ParseJsonObject(std::string const& text, std::string const& option) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["stackLimit"] = kMaxJsonDepth;
  std::unique_ptr<Json::CharReader> const reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  bool parsed = false;
  try {
    parsed = reader->parse(text.data(), text.data() + text.size(), &value, &errors);
  } catch (Json::Exception const&) {  // nested deeper than the limit
    throw Error(kUsage,
                option + ": JSON nested deeper than " + std::to_string(kMaxJsonDepth) + " levels");
  }
  if (!parsed || !value.isObject()) throw Error(kUsage, option + ": not a JSON object");
  return value;
}

}  // namespace kovacli
