// The client-address check: REMOTE_ADDR from fuzz input must come back in the canonical text
// of an IPv4 or IPv6 address or be refused, never longer than the caller's buffer (one byte
// too small is refused, nothing written past it), canonical text must read back as itself,
// and the failed-login block must judge any text without harm (nothing is counted in this
// run's store, so nothing is denied) and give the caller its identity back.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "fuzz_input.h"
#include "kova_autoblock.h"
#include "kova_cgi.h"

namespace {

char const kTarget[] = "remote_ip";

// The canonical text of `addr`, or "" when it is not an address.
std::string Canonical(std::string const& addr) {
  unsigned char raw[sizeof(struct in6_addr)];
  char text[INET6_ADDRSTRLEN];
  if (addr.size() >= INET6_ADDRSTRLEN) return "";
  if (inet_pton(AF_INET, addr.c_str(), raw) == 1) return inet_ntop(AF_INET, raw, text, sizeof text);
  if (inet_pton(AF_INET6, addr.c_str(), raw) == 1) {
    return inet_ntop(AF_INET6, raw, text, sizeof text);
  }
  return "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  kovafuzz::Input input(data, size);
  bool const judge = input.Bool();
  std::string text = input.Rest();
  text = text.substr(0, text.find('\0'));  // an environment value ends at NUL
  setenv("REMOTE_ADDR", text.c_str(), 1);

  std::string const want = Canonical(text);
  char buf[80];
  memset(buf, 'Z', sizeof buf);
  int const rc = KovaCgiGetRemoteIP(buf, 65);
  if (want.empty()) {
    if (rc != -1) kovafuzz::Fail(kTarget, "accepted " + kovafuzz::Show(text));
  } else {
    if (rc != 0 || want != buf) {
      kovafuzz::Fail(kTarget, "read " + kovafuzz::Show(text) + " as " +
                                  (rc == 0 ? kovafuzz::Show(buf) : "nothing") + ", not " + want);
    }
    if (buf[65] != 'Z') kovafuzz::Fail(kTarget, "wrote past the buffer");
    // Exactly the room needed fits; one byte less does not, and is not written past.
    char exact[80];
    memset(exact, 'Z', sizeof exact);
    if (KovaCgiGetRemoteIP(exact, want.size() + 1) != 0 || want != exact) {
      kovafuzz::Fail(kTarget, "refused a buffer of exactly the size needed");
    }
    memset(exact, 'Z', sizeof exact);
    if (KovaCgiGetRemoteIP(exact, want.size()) != -1)
      kovafuzz::Fail(kTarget, "accepted a short buffer");
    if (exact[want.size()] != 'Z') kovafuzz::Fail(kTarget, "wrote past a short buffer");
    setenv("REMOTE_ADDR", want.c_str(), 1);
    char again[80];
    if (KovaCgiGetRemoteIP(again, sizeof again) != 0 || want != again) {
      kovafuzz::Fail(kTarget, "canonical text does not read as itself: " + want);
    }
  }

  if (judge) {
    uid_t const euid = geteuid();
    gid_t const egid = getegid();
    if (KovaCgiIsDeniedIP(text.c_str()) != 0)
      kovafuzz::Fail(kTarget, "denied " + kovafuzz::Show(text));
    if (geteuid() != euid || getegid() != egid) kovafuzz::Fail(kTarget, "identity not restored");
  }
  return 0;
}
