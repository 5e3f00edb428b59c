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
// A local "YYYY-MM-DD HH:MM:SS" into seconds since the epoch; "" and "none" give 0 (unset).
long ParseTime(std::string const& text, std::string const& option);
Json::Value ParseJsonObject(std::string const& text, std::string const& option);

}  // namespace kovacli

#endif
