// Exit statuses of the administrator tool and the one error type that carries them up to
// main. Scripts rely on these numbers; the manual page lists them, keep both in step.
#ifndef KOVASHARING_TOOLS_CLI_STATUS_H
#define KOVASHARING_TOOLS_CLI_STATUS_H

#include <stdexcept>
#include <string>

namespace kovacli {

enum Status : int {
  kOk = 0,
  kInternal = 1,        // an unexpected failure inside the tool
  kUsage = 2,           // bad command line: unknown option, missing or malformed value
  kBadTime = 3,         // a time text that names no valid time
  kUnknownHash = 4,     // no (readable) entry with that hash
  kUnknownUser = 5,     // a user or group name that does not resolve
  kUnknownSession = 6,  // no live session with that id, or it is not logged in to the link
  kDatabase = 7,        // the sharing database cannot be used, or a statement on it failed
};

// A failure with its exit status and a message of one line (main prefixes the tool's name).
class Error : public std::runtime_error {
 public:
  Error(Status status, std::string const& message) : std::runtime_error(message), status_(status) {}
  Status status() const { return status_; }

 private:
  Status status_;
};

}  // namespace kovacli

#endif
