#include "args.h"

#include <json/reader.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
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

long ParseTime(std::string const& text, std::string const& option) {
  if (text.empty() || text == "none") return 0;
  // Exactly the shape the tool prints; strptime alone would take "2024-1-2 3:4:5" too.
  static char const kShape[] = "dddd-dd-dd dd:dd:dd";
  bool shaped = text.size() == sizeof kShape - 1;
  for (size_t i = 0; shaped && i < text.size(); ++i) {
    shaped = kShape[i] == 'd' ? std::isdigit(static_cast<unsigned char>(text[i])) != 0
                              : text[i] == kShape[i];
  }
  struct tm parsed = {};
  char const* end = shaped ? strptime(text.c_str(), kTimeFormat, &parsed) : nullptr;
  if (end == nullptr || *end != '\0') {
    throw Error(kBadTime, option + ": \"" + OneLine(text) +
                              "\" is not a local time of the form YYYY-MM-DD HH:MM:SS");
  }
  // mktime normalises 2024-02-30 into March and a time skipped by a clock change into the
  // next hour; such texts name no real local time, so the round trip must give them back.
  struct tm converted = parsed;
  converted.tm_isdst = -1;
  time_t const value = mktime(&converted);
  if (value == static_cast<time_t>(-1) || converted.tm_year != parsed.tm_year ||
      converted.tm_mon != parsed.tm_mon || converted.tm_mday != parsed.tm_mday ||
      converted.tm_hour != parsed.tm_hour || converted.tm_min != parsed.tm_min ||
      converted.tm_sec != parsed.tm_sec) {
    throw Error(kBadTime, option + ": \"" + text + "\" is not a valid local time");
  }
  if (value <= 0) throw Error(kBadTime, option + ": \"" + text + "\" lies before 1970");
  return static_cast<long>(value);
}

Json::Value ParseJsonObject(std::string const& text, std::string const& option) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  std::unique_ptr<Json::CharReader> const reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors) ||
      !value.isObject()) {
    throw Error(kUsage, option + ": not a JSON object");
  }
  return value;
}

}  // namespace kovacli
