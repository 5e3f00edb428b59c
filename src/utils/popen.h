// Starts one of the appliance's helper programs without a shell and reads its standard
// output; the stream is closed and the child reaped when the wrapper leaves its scope.
#ifndef KOVASHARING_INTERNAL_POPEN_H
#define KOVASHARING_INTERNAL_POPEN_H

#include <kova_log.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>

#include "klibc.h"

namespace KOVA {
namespace sharing {
namespace internal {

struct Popen {
  // `argv` is null-terminated; argv[0] is passed to the program as given.
  Popen(char const* program, char const* mode, char const* const argv[])
      : file(KLIBCPopenv(program, mode, argv)) {
    if (file == nullptr) {
      // The line number is part of the message that the appliance's log readers know.
      KOVA_LOG_PID("include/internal/popen", 24, "KLIBCPopenv failed.\n");
    }
  }
  ~Popen() { close(); }
  Popen(Popen const&) = delete;
  Popen& operator=(Popen const&) = delete;

  explicit operator bool() const { return file != nullptr; }

  // Closes the stream and reaps the child; the exit status is of no interest to the callers.
  void close() {
    if (file != nullptr) {
      KLIBCPclose(file);
      file = nullptr;
    }
  }

  FILE* file;
};

}  // namespace internal
}  // namespace sharing
}  // namespace KOVA

#endif
