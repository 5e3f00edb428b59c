// Pages of the visitor gate: every text that reaches the page passes HtmlEscape, every value
// that reaches a URL passes UrlEncode. Pages carry no script and no inline style.
#ifndef KOVASHARING_GATE_HTML_H
#define KOVASHARING_GATE_HTML_H

#include <string>
#include <utility>
#include <vector>

namespace kovagate {

std::string HtmlEscape(std::string const& text);
std::string UrlEncode(std::string const& text);

// Which form a page shows.
enum class Form {
  kNone,
  kPassword,  // the link's password
  kAccount,   // account name and password
  kOpen,      // an unprotected link: one button, so that previews do not use the link up
  kLogout,    // the visitor is in: a log-out button
};

enum class Tone { kInfo, kError };

struct Page {
  int status = 200;
  std::string title;              // also the heading
  std::vector<std::string> lead;  // paragraphs under the heading
  std::string notice;             // one highlighted sentence, "" for none
  Tone notice_tone = Tone::kInfo;
  Form form = Form::kNone;
  std::string action;  // where the form posts (a relative URL)
  std::vector<std::pair<std::string, std::string>> details;  // a definition list
  std::string username;  // to fill the account field again after a failure
  std::string next;      // "Continue" leads here (a checked address), "" for none
  // What a link preview (Open Graph) shows; no preview tags when the title is "".
  std::string preview_title;
  std::string preview_description;
};

// The complete document. `stylesheet` is the URL of the gate's stylesheet. Keyboard focus
// starts on an error notice (and the document's title starts with "Error: "), else on the
// form's first field.
std::string RenderPage(Page const& page, std::string const& stylesheet);

// "303 See Other" and friends for the Status header.
char const* StatusText(int status);

}  // namespace kovagate

#endif
