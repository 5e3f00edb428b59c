// The subcommands of the administrator tool, each with its options and help text.
#ifndef KOVASHARING_TOOLS_CLI_COMMANDS_H
#define KOVASHARING_TOOLS_CLI_COMMANDS_H

#include <string>
#include <vector>

#include "args.h"

namespace kovacli {

struct Command {
  char const* name;
  char const* summary;  // one line for the overview
  char const* help;     // the text of "kovasharing NAME --help"
  std::vector<OptionSpec> options;
  int (*run)(Args const& args);
};

std::vector<Command> const& Commands();
// The text of "kovasharing --help".
std::string OverviewHelp();

}  // namespace kovacli

#endif
