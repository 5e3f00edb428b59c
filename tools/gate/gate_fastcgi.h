// The gate's two ways of serving: one request per process (CGI), and a persistent FastCGI
// server. Both answer a request through the same handler.
#ifndef KOVASHARING_GATE_FASTCGI_H
#define KOVASHARING_GATE_FASTCGI_H

#include <string>

namespace kovagate {

// Answers the request that the process environment and the web-request layer describe: the
// whole CGI response, headers and body.
std::string Respond();

// `kovasharing-gate --fastcgi ...`: the FastCGI server (supervisor, login helper and request
// workers); returns the exit status.
int FastCgiMain(int argc, char** argv);

}  // namespace kovagate

#endif
