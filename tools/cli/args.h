// Command-line parsing: long options of one subcommand ("--name value" or "--name=value"),
// positional words, and the conversions of option values into the tool's types. Every
// failure is an Error with the usage status (or the time status for time texts).
#ifndef KOVASHARING_TOOLS_CLI_ARGS_H
#define KOVASHARING_TOOLS_CLI_ARGS_H

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

namespace kovacli {

struct OptionSpec {
  char const* name;  // without the leading "--"
  bool takes_value;
  bool repeatable;  // values of every occurrence are kept, in order
};

class Args {
 public:
  // Parses `words` (the words after the subcommand) against `specs`. "--help" and "-h" are
  // always known; "--" ends the options.
  Args(std::string const& command, std::vector<std::string> const& words,
       std::vector<OptionSpec> const& specs);

  bool Has(std::string const& name) const { return values_.count(name) != 0; }
  // The value of a single-valued option; `fallback` when it was not given.
  std::string Get(std::string const& name, std::string const& fallback = "") const;
  // Every value of a repeatable option, each split at commas, empty pieces dropped.
  std::vector<std::string> List(std::string const& name) const;
  std::vector<std::string> const& positional() const { return positional_; }
  std::string const& command() const { return command_; }

  // Exactly `count` positional words, else a usage error naming `what`.
  void ExpectPositional(size_t count, char const* what) const;

 private:
  std::string command_;
  std::map<std::string, std::vector<std::string>> values_;
  std::vector<std::string> positional_;
};

// A usage error of `command` with a hint to its help.
[[noreturn]] void UsageError(std::string const& command, std::string const& message);

// Value conversions; `option` names the option in the message ("--max-uses").
int ParseCount(std::string const& text, std::string const& option, int min, int max);
bool ParseYesNo(std::string const& text, std::string const& option);
// A time into seconds since the epoch: "YYYY-MM-DD" (the last second of that local day),
// "YYYY-MM-DD HH:MM:SS" or "YYYY-MM-DDTHH:MM[:SS]" (local), either with a zone ("Z",
// "+01:00", "-0500"), or "+7d", "+12h", "+30m", "+2w" from now; "" and "none" give 0 (unset).
long ParseTime(std::string const& text, std::string const& option);

// Deepest nesting of the JSON the tool accepts.
int const kMaxJsonDepth = 100;
Json::Value ParseJsonObject(std::string const& text, std::string const& option);

// An option's value as given, or read from a file ("@path") or standard input ("-").
std::string ReadValue(std::string const& text, std::string const& option);

bool IsUtf8(std::string const& text);
// A usage error naming `what` unless `text` is UTF-8.
void CheckUtf8(std::string const& text, std::string const& what);

}  // namespace kovacli

#endif
