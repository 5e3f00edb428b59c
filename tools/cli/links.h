// The whole link of an entry: the gate's web address, set once for the machine with
// `kovasharing config base-url URL` (or per run with --base-url), followed by the hash; and
// the link as a QR code for the terminal.
#ifndef KOVASHARING_TOOLS_CLI_LINKS_H
#define KOVASHARING_TOOLS_CLI_LINKS_H

#include <ostream>
#include <string>

#include "args.h"

namespace kovacli {

// The base address in force: --base-url when given, else the configured one, else "".
std::string BaseUrl(Args const& args);
// The link that opens `hash` through the gate at `base`; "" when there is no base address.
std::string LinkOf(std::string const& base, std::string const& hash);
// `text` as a QR code of half-block characters, light modules drawn, so that it scans on a
// terminal with a dark background.
void PrintQr(std::ostream& out, std::string const& text);

// `kovasharing config base-url [URL|none]`.
int RunConfig(Args const& args);

}  // namespace kovacli

#endif
