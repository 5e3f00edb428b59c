// kovasharing: the administrator's tool for sharing links. Finds the subcommand, hands it
// the remaining words, and turns every failure into its exit status and one line on
// standard error.
#include <algorithm>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "output.h"
#include "status.h"

namespace {

bool WantsHelp(std::vector<std::string> const& words) {
  for (auto const& word : words) {
    if (word == "--") return false;
    if (word == "--help" || word == "-h") return true;
  }
  return false;
}

int Main(std::vector<std::string> words) {
  using kovacli::Commands;
  bool json = false;
  // Options before the command: --json applies to it, --help and --version stand alone.
  while (!words.empty() && words[0].size() > 1 && words[0][0] == '-') {
    std::string const word = words[0];
    words.erase(words.begin());
    if (word == "--help" || word == "-h") {
      std::cout << kovacli::OverviewHelp();
      return kovacli::kOk;
    }
    if (word == "--version") {
      std::cout << "kovasharing " << KOVA_VERSION << "\n";
      return kovacli::kOk;
    }
    if (word != "--json") kovacli::UsageError("", "unknown option " + word);
    json = true;
  }
  if (words.empty()) kovacli::UsageError("", "no command given");
  std::string name = words[0];
  words.erase(words.begin());
  if (name == "help") {
    if (words.empty()) {
      std::cout << kovacli::OverviewHelp();
      return kovacli::kOk;
    }
    name = words[0];
    words = {"--help"};
  }
  for (auto const& command : Commands()) {
    if (name != command.name) continue;
    if (WantsHelp(words)) {
      std::cout << command.help;
      return kovacli::kOk;
    }
    bool const has_json = std::find(words.begin(), words.end(), "--json") != words.end();
    if (json && !has_json) words.insert(words.begin(), "--json");
    kovacli::Args const args(name, words, command.options);
    return command.run(args);
  }
  kovacli::UsageError("", "unknown command \"" + kovacli::OneLine(name) + "\"");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(std::vector<std::string>(argv + 1, argv + argc));
  } catch (kovacli::Error const& e) {
    std::cout.flush();
    std::cerr << "kovasharing: " << kovacli::OneLine(e.what()) << "\n";
    return e.status();
  } catch (std::exception const& e) {
    std::cout.flush();
    std::cerr << "kovasharing: internal failure: " << kovacli::OneLine(e.what()) << "\n";
    return kovacli::kInternal;
  }
}
