#include "gate_html.h"

#include <kovasharing/constants.h>

#include "gate_i18n.h"

namespace kovagate {

std::string HtmlEscape(std::string const& text) {
  std::string out;
  out.reserve(text.size() + 16);
  for (char const c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        // Control characters other than tab and line ends have no place in a page.
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r') {
          out += "&#xFFFD;";
        } else {
          out += c;
        }
    }
  }
  return out;
}

std::string UrlEncode(std::string const& text) {
  static char const kHex[] = "0123456789ABCDEF";
  std::string out;
  for (char const ch : text) {
    unsigned char const c = static_cast<unsigned char>(ch);
    if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
        c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

char const* StatusText(int status) {
  switch (status) {
    case 200:
      return "200 OK";
    case 303:
      return "303 See Other";
    case 400:
      return "400 Bad Request";
    case 403:
      return "403 Forbidden";
    case 404:
      return "404 Not Found";
    case 405:
      return "405 Method Not Allowed";
    case 410:
      return "410 Gone";
    case 413:
      return "413 Content Too Large";
    case 429:
      return "429 Too Many Requests";
    default:
      return "500 Internal Server Error";
  }
}

namespace {

using KOVA::sharing::SZK_ACTION;
using KOVA::sharing::SZK_PASSWORD_;
using KOVA::sharing::SZK_ZEL_PASSWORD;
using KOVA::sharing::SZK_ZEL_USERNAME;

void Field(std::string& out, char const* name, char const* label, char const* type,
           char const* autocomplete, bool focus, std::string const& value = "") {
  std::string const id = std::string("f-") + name;
  out += "<label for=\"" + HtmlEscape(id) + "\">" + HtmlEscape(label) + "</label>\n";
  out += "<input id=\"" + HtmlEscape(id) + "\" name=\"" + HtmlEscape(name) + "\" type=\"" + type +
         "\" autocomplete=\"" + autocomplete + "\" required" + (focus ? " autofocus" : "");
  if (!value.empty()) out += " value=\"" + HtmlEscape(value) + "\"";
  out += ">\n";
}

void RenderForm(std::string& out, Page const& page, bool focus) {
  if (page.form == Form::kNone) return;
  out += "<form method=\"post\" action=\"" + HtmlEscape(page.action) + "\">\n";
  switch (page.form) {
    case Form::kPassword:
      Field(out, SZK_PASSWORD_, TR("Password"), "password", "current-password", focus);
      out += std::string("<button type=\"submit\">") + TR("Open") + "</button>\n";
      break;
    case Form::kAccount:
      Field(out, SZK_ZEL_USERNAME, TR("Account name"), "text", "username", focus, page.username);
      Field(out, SZK_ZEL_PASSWORD, TR("Password"), "password", "current-password", false);
      out += std::string("<button type=\"submit\">") + TR("Sign in") + "</button>\n";
      break;
    case Form::kOpen:
      out += std::string("<button type=\"submit\">") + TR("Open") + "</button>\n";
      break;
    case Form::kLogout:
      out += "<input type=\"hidden\" name=\"" + HtmlEscape(SZK_ACTION) + "\" value=\"logout\">\n";
      out +=
          std::string("<button type=\"submit\" class=\"quiet\">") + TR("Log out") + "</button>\n";
      break;
    case Form::kNone:
      break;
  }
  out += "</form>\n";
}

}  // namespace

std::string RenderPage(Page const& page, std::string const& stylesheet) {
  std::string out;
  out += std::string("<!DOCTYPE html>\n<html lang=\"") + Language() +
         "\">\n<head>\n<meta charset=\"utf-8\">\n";
  out += "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n";
  out += "<meta name=\"robots\" content=\"noindex, nofollow\">\n";
  bool const error = !page.notice.empty() && page.notice_tone == Tone::kError;
  out +=
      "<title>" + std::string(error ? TR("Error: ") : "") + HtmlEscape(page.title) + "</title>\n";
  if (!page.preview_title.empty()) {
    out += "<meta property=\"og:type\" content=\"website\">\n";
    out += "<meta property=\"og:title\" content=\"" + HtmlEscape(page.preview_title) + "\">\n";
    if (!page.preview_description.empty()) {
      out += "<meta property=\"og:description\" content=\"" + HtmlEscape(page.preview_description) +
             "\">\n";
      out +=
          "<meta name=\"description\" content=\"" + HtmlEscape(page.preview_description) + "\">\n";
    }
  }
  out += "<link rel=\"stylesheet\" href=\"" + HtmlEscape(stylesheet) + "\">\n</head>\n<body>\n";
  out += "<main class=\"card\">\n<h1>" + HtmlEscape(page.title) + "</h1>\n";
  if (!page.notice.empty()) {
    char const* const role = page.notice_tone == Tone::kError ? "alert" : "status";
    char const* const tone = page.notice_tone == Tone::kError ? "error" : "info";
    out += std::string("<p class=\"notice ") + tone + "\" role=\"" + role + "\"" +
           (error ? " tabindex=\"-1\" autofocus" : "") + ">" + HtmlEscape(page.notice) + "</p>\n";
  }
  for (auto const& paragraph : page.lead) out += "<p>" + HtmlEscape(paragraph) + "</p>\n";
  if (!page.details.empty()) {
    out += "<dl>\n";
    for (auto const& item : page.details) {
      out += "<dt>" + HtmlEscape(item.first) + "</dt><dd>" + HtmlEscape(item.second) + "</dd>\n";
    }
    out += "</dl>\n";
  }
  if (!page.next.empty()) {
    out += "<a class=\"button\" href=\"" + HtmlEscape(page.next) + "\"" +
           (error ? "" : " autofocus") + ">" + HtmlEscape(TR("Continue")) + "</a>\n";
  }
  RenderForm(out, page, !error && page.next.empty());
  out += "</main>\n</body>\n</html>\n";
  return out;
}

}  // namespace kovagate
