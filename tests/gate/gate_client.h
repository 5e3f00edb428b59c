// A visitor's browser for the gate's tests: sends each request as a web server hands it to the
// gate (CGI variables, the visitor's headers, the body on standard input) to the CGI program or
// through cgi-fcgi to a FastCGI server, and keeps and sends back the cookies the gate sets.
#ifndef KOVATEST_GATE_CLIENT_H
#define KOVATEST_GATE_CLIENT_H

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "kovatest.h"

namespace kovatest {

using Env = std::map<std::string, std::string>;

struct Response {
  int status = 0;
  std::vector<std::string> headers;
  std::string body, err;  // err: what the gate (or cgi-fcgi) wrote to standard error

  std::string Header(std::string const& name) const {
    for (auto const& line : headers) {
      if (line.compare(0, name.size() + 2, name + ": ") == 0) return line.substr(name.size() + 2);
    }
    return "";
  }
  bool Has(std::string const& text) const { return body.find(text) != std::string::npos; }
  // The one element the browser focuses (the text of its tag), "" when none or several.
  std::string Focused() const {
    size_t const at = body.find(" autofocus");
    if (at == std::string::npos || body.find(" autofocus", at + 1) != std::string::npos) return "";
    size_t const open = body.rfind('<', at);
    return body.substr(open, body.find('>', at) - open);
  }
  // Where the landing page's Continue leads ("" when it has none).
  std::string Next() const {
    std::smatch m;
    static std::regex const link("<a class=\"button\" href=\"([^\"]*)\"");
    return std::regex_search(body, m, link) ? std::regex_replace(m.str(1), std::regex("&amp;"), "&")
                                            : "";
  }
};

struct Visitor {
  explicit Visitor(std::string from = "192.0.2.10", Env sent = {})
      : address(std::move(from)), headers(std::move(sent)) {}
  // A visitor of the FastCGI server listening on `socket`.
  static Visitor FastCgi(std::string const& socket, std::string from = "192.0.2.30") {
    Visitor visitor(std::move(from));
    visitor.via = {"cgi-fcgi", "-bind", "-connect", socket};
    return visitor;
  }

  std::string address;  // "": the request comes without one
  Env headers;
  std::map<std::string, std::string> jar;
  std::vector<std::string> via{KOVA_GATE_BINARY};

  Response Get(std::string const& query) { return Send("GET", query, "", {}); }
  Response Post(std::string const& query, std::string const& body, Env const& extra = {}) {
    return Send("POST", query, body, extra);
  }
  // The session cookie of `hash`'s link ("" when none).
  std::string Session(std::string const& hash) const {
    for (auto const& c : jar) {
      if (c.first == "sharing_sid_" + hash || c.first == "__Host-sharing_sid_" + hash)
        return c.second;
    }
    return "";
  }
  Response Send(char const* method, std::string const& query, std::string const& body,
                Env const& extra) {
    Env env = {{"GATEWAY_INTERFACE", "CGI/1.1"},
               {"REQUEST_METHOD", method},
               {"SCRIPT_NAME", "/share"},
               {"HTTP_HOST", "gate.test"},
               {"REMOTE_ADDR", address.empty() ? kUnset : address},
               {"QUERY_STRING", "sharing_id=" + query}};
    if (*method == 'P') {
      env["CONTENT_TYPE"] = "application/x-www-form-urlencoded";
      env["CONTENT_LENGTH"] = std::to_string(body.size());
      env["HTTP_ORIGIN"] = "http://gate.test";
    }
    env["HTTP_COOKIE"] = "other=1";
    for (auto const& c : jar) env["HTTP_COOKIE"] += "; " + c.first + "=" + c.second;
    for (auto const& var : headers) env[var.first] = var.second;
    for (auto const& var : extra) env[var.first] = var.second;
    // cgi-fcgi needs neither the test's wrappers nor the sanitizer's runtime (whose leak check
    // would judge it); every variable it has goes to the server as a request variable.
    if (via.size() > 1) env["LD_PRELOAD"] = kUnset;
    Outcome const run = kovatest::Run(via, env, body);
    EXPECT_EQ(0, run.status) << "exit status of " << via[0];
    Response r;
    r.err = run.err;
    size_t const end = run.out.find("\r\n\r\n");
    if (end == std::string::npos) {
      ADD_FAILURE() << "no end of headers in:\n" << run.out;
      return r;
    }
    static std::regex const cookie("^Set-Cookie: ([^=]+)=([^;]*);");
    for (size_t pos = 0, eol; pos < end; pos = eol + 2) {
      eol = run.out.find("\r\n", pos);
      std::string const line = run.out.substr(pos, eol - pos);
      r.headers.push_back(line);
      std::smatch m;
      if (!std::regex_search(line, m, cookie)) continue;
      if (line.find("; Max-Age=0") != std::string::npos) {
        jar.erase(m[1]);
      } else {
        jar[m[1]] = m[2];
      }
    }
    r.body = run.out.substr(end + 4);
    r.status = r.Header("Status").empty() ? 0 : std::stoi(r.Header("Status"));
    return r;
  }
};

}  // namespace kovatest

#endif
