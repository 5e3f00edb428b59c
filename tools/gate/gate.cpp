// kovasharing-gate: the visitor's door to a sharing link, run by the web server for one request
// (CGI/1.1), or serving many as a FastCGI server (gate_fastcgi.cpp; both answer through
// Respond() below). A GET shows the link's content to a visitor whose session cookie is
// authorised, and the right form to everybody else; a POST logs in (or out) and answers with a
// redirect back to the link, so that reloading a page never sends a password again.
//
// What a page tells must not help somebody who guesses links: an unknown, expired or used-up
// link shows the same password form as a real one, and a wrong password and such a link get
// the same answer, are counted alike as failed logins of the address, and take the same work.
// Every text on a page is escaped; pages carry no script.
//
// Sessions: every login starts a new session (a session id the browser brings along may have
// been planted by somebody else), kept in a cookie of its own per link, scoped to the gate's
// path; a visitor the link already lets in keeps the session it has. The login runs quiet, so
// that no login, however successful, clears the address's count of failed logins.
#include <ctype.h>
#include <json/writer.h>
#include <kova_autoblock.h>
#include <kova_cgi.h>
#include <kova_log.h>
#include <kovasharing/kovasharing.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gate_fastcgi.h"
#include "gate_html.h"

namespace {

using KOVA::sharing::SZK_ACTION;
using KOVA::sharing::SZK_PASSWORD_;
using KOVA::sharing::SZK_SHARING_ID;
using KOVA::sharing::SZK_SHARING_SID;
using KOVA::sharing::SZK_ZEL_PASSWORD;
using KOVA::sharing::SZK_ZEL_USERNAME;
using KOVA::sharing::db::EntryDB;
using KOVA::sharing::db::SharingDB;
using KOVA::sharing::record::Entry;
using kovagate::Form;
using kovagate::Page;
using kovagate::Tone;
using kovagate::UrlEncode;

char const kSource[] = "kovasharing-gate";
char const kDefaultStylesheet[] = "/kovasharing/kovasharing-gate.css";
char const kLoggedOut[] = "logged_out";  // the action of the page after a log-out
size_t const kMaxHash = 128;             // far above any hash the store draws
size_t const kMaxTarget = 2048;
int const kBlockSeconds = 600;  // the failed-login window of the address block

struct Reply {
  int status = 200;
  std::vector<std::string> headers;  // complete lines without the line end
  std::string body;
};

std::string Env(char const* name) {
  char const* value = getenv(name);
  return value != nullptr ? value : "";
}

// Printable ASCII without spaces, quotes or angle brackets: safe in a header and, escaped,
// in an attribute.
bool IsPlainUrlText(std::string const& text) {
  if (text.empty() || text.size() > kMaxTarget) return false;
  for (char const c : text) {
    if (c <= 0x20 || c >= 0x7f || c == '"' || c == '<' || c == '>' || c == '\\') return false;
  }
  return true;
}

// A redirect target the gate is willing to send a visitor to: a web address, or a path on
// this server (but not "//host", which browsers read as another server).
bool IsSafeTarget(std::string const& target) {
  if (!IsPlainUrlText(target)) return false;
  if (target.compare(0, 8, "https://") == 0 || target.compare(0, 7, "http://") == 0) {
    return target.size() > 8;
  }
  return target[0] == '/' && (target.size() == 1 || target[1] != '/');
}

bool IsHttps() { return strcasecmp(Env("HTTPS").c_str(), "on") == 0; }

// The failed login of an address whose attempt the gate holds: counted as any guess is.
void CountFailure(std::string const& address) { AutoBlockFailLoginSet(address.c_str(), "SHARING"); }

// The work a wrong password costs, done for a link that has none to check, so that the answer
// does not come sooner.
void CheckDecoyPassword(std::string const& password) {
  static Entry const decoy = [] {
    Entry entry;
    entry.set_protect_type(Entry::PROTECT_PASSWORD);
    entry.set_protect_password("decoy", true, Entry::ENCRYPT_ALGO_DEFAULT);
    return entry;
  }();
  (void)decoy.IsPasswordValid(password);
}

class Gate {
 public:
  Gate() = default;
  ~Gate() { KovaCgiFree(cgi_); }
  Gate(Gate const&) = delete;
  Gate& operator=(Gate const&) = delete;

  Reply Handle();
  // 500, with one line on standard error (the web server's error log) and in the system log.
  Reply Failure(char const* what) const;
  KOVA_CGI_HANDLE cgi() const { return cgi_; }

 private:
  std::string Param(char const* name, int flags = 0) const {
    char const* value = KovaCgiGetRequestParam(cgi_, name, flags);
    return value != nullptr ? value : "";
  }
  // A credential: from the form's body only, never from the address, which ends up in logs.
  std::string Secret(char const* name) const { return Param(name, KOVA_CGI_PARAM_BODY_ONLY); }
  // The session cookie of this link; "" when the hash cannot name a cookie (no such link).
  std::string CookieName() const;
  bool SetSessionCookie(std::string const& value, int flags);
  std::string LinkUrl() const { return script_ + "?" + SZK_SHARING_ID + "=" + UrlEncode(hash_); }

  Reply HandleGet();
  Reply HandleLogin();
  Reply HandleLogout();
  Reply Content();

  // The entry behind the hash when it is there, usable now and not used up.
  bool LoadValidEntry(Entry& entry) const;
  // The form an unauthorised visitor gets; unknown and unusable links look like password ones.
  Form FormFor() const;
  static Form FormOf(bool valid, Entry const& entry);
  Page FormPage(Form form) const;
  Reply Show(Page const& page) const;
  Reply Redirect(std::string const& location) const;
  Reply Blocked() const;
  Reply Refused(std::string const& username) const;

  KOVA_CGI_HANDLE cgi_ = nullptr;
  std::string hash_;
  std::string session_id_;
  std::string address_;  // the client's, as the login reads it
  std::string script_ = "/";
  std::string stylesheet_ = kDefaultStylesheet;
};

Reply Gate::Show(Page const& page) const {
  Reply reply;
  reply.status = page.status;
  reply.body = kovagate::RenderPage(page, stylesheet_);
  return reply;
}

Reply Gate::Redirect(std::string const& location) const {
  Reply reply;
  reply.status = 303;
  reply.headers.push_back("Location: " + location);
  Page page;
  page.title = "Continue";
  page.lead.push_back("This page has moved on. Your browser should follow by itself.");
  reply.body = kovagate::RenderPage(page, stylesheet_);
  return reply;
}

Reply Gate::Failure(char const* what) const {
  // The system log, and the web server's error log (many hosts have only the latter).
  KOVA_LOG_PID(kSource, __LINE__, "%s", what);
  fprintf(stderr, "%s: %s\n", kSource, what);
  Page page;
  page.status = 500;
  page.title = "Something went wrong";
  page.lead.push_back("The link could not be opened just now. Please try again in a little while.");
  return Show(page);
}

Reply Gate::Blocked() const {
  Page page;
  page.status = 429;
  page.title = "Too many attempts";
  page.lead.push_back(
      "There were too many failed attempts from your network address, so it is blocked for a "
      "while.");
  page.lead.push_back("Please wait about ten minutes, then open the link again.");
  Reply reply = Show(page);
  reply.headers.push_back("Retry-After: " + std::to_string(kBlockSeconds));
  return reply;
}

std::string Gate::CookieName() const {
  if (hash_.empty() || hash_.size() > kMaxHash) return "";
  for (char const c : hash_) {
    if (!isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') return "";
  }
  // "__Host-": over HTTPS the browser takes the cookie only from this host, over HTTPS.
  return std::string(IsHttps() ? "__Host-" : "") + SZK_SHARING_SID + "_" + hash_;
}

bool Gate::SetSessionCookie(std::string const& value, int flags) {
  std::string const name = CookieName();
  // The gate's own path; a "__Host-" cookie must have "/".
  std::string const path = IsHttps() ? "/" : script_;
  return !name.empty() &&
         KovaCgiSetCookies(cgi_, name.c_str(), value.c_str(), 0, path.c_str(), nullptr, flags) == 1;
}

Reply Gate::Refused(std::string const& username) const {
  Page page = FormPage(FormFor());
  page.status = 403;
  page.notice_tone = Tone::kError;
  page.notice =
      "This link does not open. The password may be wrong, or the link may have expired or "
      "been used up; ask the person who sent it.";
  if (page.form == Form::kAccount) {
    page.notice =
        "That did not work. Check your account name and password; this link may also not be "
        "shared with your account.";
    page.username = username;
  }
  return Show(page);
}

bool Gate::LoadValidEntry(Entry& entry) const {
  if (hash_.size() > kMaxHash) return false;
  SharingDB& db = SharingDB::Instance();
  if (!db.IsGood()) return false;
  EntryDB entries(db);
  return entries.GetByHash(hash_, entry) && entry.IsValid() &&
         (entry.get_expire_times() <= 0 || entry.get_use_count() < entry.get_expire_times());
}

Form Gate::FormFor() const {
  Entry entry;
  bool const valid = LoadValidEntry(entry);
  return FormOf(valid, entry);
}

Form Gate::FormOf(bool valid, Entry const& entry) {
  if (!valid) return Form::kPassword;
  switch (entry.get_protect_type()) {
    case Entry::PROTECT_PASSWORD:
      return Form::kPassword;
    case Entry::PROTECT_USER:
      return Form::kAccount;
    default:
      return Form::kOpen;
  }
}

Page Gate::FormPage(Form form) const {
  Page page;
  page.form = form;
  page.action = LinkUrl();
  switch (form) {
    case Form::kAccount:
      page.title = "Sign in to open this link";
      page.lead.push_back(
          "This link is shared with particular accounts. Sign in with your account on this "
          "server.");
      break;
    case Form::kOpen:
      page.title = "Shared link";
      page.lead.push_back("Something has been shared with you. Press Open to see it.");
      break;
    default:
      page.title = "This link is protected";
      page.lead.push_back("Enter the password you were given together with the link.");
      break;
  }
  return page;
}

Reply Gate::Content() {
  Entry entry;
  if (!LoadValidEntry(entry)) return Failure("authorised entry cannot be read");

  Entry::RedirectType const type = entry.get_redirect_type();
  std::string target = entry.get_redirect_uri();
  if (type != Entry::REDIRECT_NONE && IsSafeTarget(target)) {
    if (type == Entry::REDIRECT_URLPARAM) {
      // The target learns which link the visitor came through.
      size_t const fragment = target.find('#');
      size_t const end = fragment == std::string::npos ? target.size() : fragment;
      char const joint = target.find('?') < end ? '&' : '?';
      target.insert(end, std::string(1, joint) + SZK_SHARING_ID + "=" + UrlEncode(hash_));
    }
    return Redirect(target);
  }

  Page page;
  page.title = "Shared with you";
  std::string const owner = entry.get_owner_user();
  if (!owner.empty()) page.lead.push_back("Shared by " + owner + ".");
  Json::Value const app = entry.get_app();
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  if (app.isObject()) {
    for (std::string const& name : app.getMemberNames()) {
      Json::Value const& value = app[name];
      page.details.emplace_back(
          name, value.isString() ? value.asString() : Json::writeString(writer, value));
    }
  } else if (!app.isNull()) {
    page.details.emplace_back("Data", Json::writeString(writer, app));
  }
  std::string const until = entry.get_expire_at_str("%Y-%m-%d %H:%M");
  if (!until.empty()) page.details.emplace_back("Link valid until", until);
  if (page.details.empty()) page.lead.push_back("There is nothing more to show for this link.");
  page.form = Form::kLogout;
  page.action = LinkUrl();
  return Show(page);
}

Reply Gate::HandleGet() {
  bool const logged_out = Param(SZK_ACTION) == kLoggedOut;
  Page page;
  if (!session_id_.empty()) {
    _tag_sharing_login_params const params = {hash_.c_str(), nullptr, nullptr, nullptr,
                                              session_id_.c_str()};
    int const code = hash_.size() > kMaxHash ? -7 : KOVA::KovaSharingIsAuthorized(&params);
    switch (code) {
      case 1:
        return Content();
      case -4:
        return Failure("authorization check failed");
      case -6:
        page.status = 410;
        page.title = "This link is no longer valid";
        page.lead.push_back("The person who shared it has ended it, or its time is over.");
        return Show(page);
      case -8:
        page = FormPage(FormFor());
        page.notice =
            "Your network address has changed since you opened this link. Please "
            "open it again.";
        return Show(page);
      case -2:
        page = FormPage(FormFor());
        page.notice = "Please sign in again.";
        return Show(page);
      default:  // no session, no token for this link, or either ran out
        break;
    }
  }
  page = FormPage(FormFor());
  if (logged_out) page.notice = "You have logged out.";
  return Show(page);
}

Reply Gate::HandleLogin() {
  // A visitor this link already lets in keeps its session: pressing Open again, or sending
  // the form twice, makes no second one.
  if (!session_id_.empty()) {
    _tag_sharing_login_params const params = {hash_.c_str(), nullptr, nullptr, nullptr,
                                              session_id_.c_str()};
    if (KOVA::KovaSharingIsAuthorized(&params) == 1) return Redirect(LinkUrl());
  }
  std::string const password = Secret(SZK_PASSWORD_);
  std::string const username = Secret(SZK_ZEL_USERNAME);
  std::string const user_password = Secret(SZK_ZEL_PASSWORD);
  auto const or_null = [](std::string const& text) {
    return text.empty() ? nullptr : text.c_str();
  };
  // The password is never null, so that a password link judges every form as a guess. No
  // earlier session id is passed on: the login starts a new session.
  _tag_sharing_login_params const params = {hash_.c_str(), password.c_str(), or_null(username),
                                            or_null(user_password), nullptr};
  // The address's attempt lasts until the gate has counted what the login does not count
  // (the login's own attempt nests inside it).
  int const begun = KovaCgiAttemptBegin(address_.c_str());
  struct Attempt {
    bool held;
    ~Attempt() {
      if (held) KovaCgiAttemptDone();
    }
  } const attempt{begun == 1};
  if (begun == 0) return Blocked();  // earlier attempts from the address keep it waiting
  std::string session_id;
  // An oversized hash is no link; it gets the answer of an unknown one without a look-up.
  int const code = hash_.size() > kMaxHash ? -3 : KOVA::KovaSharingLogin(session_id, &params, true);
  switch (code) {
    case 1:
      if (!SetSessionCookie(session_id, 0)) return Failure("session cookie cannot be set");
      return Redirect(LinkUrl());
    case -8:
      return Blocked();
    case -2:
    case -3:
    case -9:
    case -10:
    case -11: {
      // A wrong password or account, an account outside the link's users and groups, and a
      // link that is unknown, expired or used up: one answer for all, and one failure counted
      // for each. The login counted the guesses it judged: a wrong password or account, and
      // any refusal of an account link; the rest is counted here.
      Entry entry;
      bool const valid = LoadValidEntry(entry);
      if (code == -10 || code == -11 || (code == -3 && !valid)) {
        CheckDecoyPassword(password);
        CountFailure(address_);
      }
      return Refused(username);
    }
    default:
      return Failure("login failed");
  }
}

Reply Gate::HandleLogout() {
  if (!session_id_.empty() && hash_.size() <= kMaxHash) {
    KOVA::KovaSharingLogout(hash_, session_id_);  // not logged in is as good as logged out
  }
  if (!session_id_.empty()) SetSessionCookie("", KOVA_CGI_COOKIE_EXPIRE);
  return Redirect(LinkUrl() + "&" + SZK_ACTION + "=" + kLoggedOut);
}

Reply Gate::Handle() {
  std::string const script = Env("SCRIPT_NAME");
  if (IsPlainUrlText(script) && script[0] == '/') script_ = script;
  std::string const stylesheet = Env("KOVASHARING_GATE_STYLESHEET");
  if (IsSafeTarget(stylesheet)) stylesheet_ = stylesheet;

  std::string const method = Env("REQUEST_METHOD");
  bool const post = method == "POST";
  if (!post && method != "GET" && method != "HEAD") {
    Page page;
    page.status = 405;
    page.title = "Not possible";
    page.lead.push_back("This page can only be opened or sent as a form.");
    Reply reply = Show(page);
    reply.headers.push_back("Allow: GET, HEAD, POST");
    return reply;
  }

  int const init = KovaCgiInit("", &cgi_);
  if (init != 1) {
    if (init < 0) return Failure("request cannot be read");
    Page page;
    page.status = 400;
    page.title = "The request could not be read";
    page.lead.push_back("Please open the link again.");
    return Show(page);
  }
  KovaCgiLoadInCookies(cgi_);
  hash_ = Param(SZK_SHARING_ID);
  std::string const cookie = CookieName();
  char const* sid = cookie.empty() ? nullptr : KovaCgiGetCookie(cgi_, cookie.c_str());
  session_id_ = sid != nullptr ? sid : "";
  char address[64];
  if (KovaCgiGetRemoteIP(address, sizeof address) == 0) address_ = address;

  if (hash_.empty()) {
    Page page;
    page.status = 404;
    page.title = "No link given";
    page.lead.push_back(
        "This address does not lead to anything shared. Check that you have the whole link.");
    return Show(page);
  }

  if (!post) return HandleGet();

  // A form sent by a page of another site is not the visitor's doing.
  std::string const origin = Env("HTTP_ORIGIN");
  if (!origin.empty() && origin != (IsHttps() ? "https://" : "http://") + Env("HTTP_HOST")) {
    Page page;
    page.status = 403;
    page.title = "Form not accepted";
    page.lead.push_back(
        "The form came from another site. Open the link again and use its own form.");
    return Show(page);
  }
  if (Param(SZK_ACTION) == "logout") return HandleLogout();
  return HandleLogin();
}

std::string Render(Reply const& reply, bool with_body, char const* cookies) {
  std::string out = std::string("Status: ") + kovagate::StatusText(reply.status) + "\r\n";
  out += "Content-Type: text/html; charset=utf-8\r\n";
  out += "Cache-Control: no-store\r\n";
  out +=
      "Content-Security-Policy: default-src 'none'; style-src 'self'; frame-ancestors 'none'; "
      "base-uri 'none'\r\n";
  out += "X-Content-Type-Options: nosniff\r\n";
  out += "X-Frame-Options: DENY\r\n";
  // The link's hash is its key: no other site may see it as a referrer. (With no referrer at
  // all, browsers send a form's origin as "null".)
  out += "Referrer-Policy: same-origin\r\n";
  for (auto const& header : reply.headers) out += header + "\r\n";
  out += cookies;
  out += "\r\n";
  if (with_body) out += reply.body;
  return out;
}

}  // namespace

std::string kovagate::Respond() {
  Gate gate;
  Reply reply;
  try {
    reply = gate.Handle();
  } catch (std::exception const& e) {
    reply = gate.Failure((std::string("unexpected failure: ") + e.what()).c_str());
  } catch (...) {
    reply = gate.Failure("unexpected failure");
  }
  // The cookie headers belong to the request handle, which the gate keeps to the end.
  return Render(reply, Env("REQUEST_METHOD") != "HEAD", KovaCgiGetSetCookieHeaders(gate.cgi()));
}

int main(int argc, char** argv) {
  // Only a command line starts the FastCGI server: a web server may hand a CGI program the
  // words of a query without "=" as arguments, and a visitor's words are never options.
  if (argc > 1 && getenv("GATEWAY_INTERFACE") == nullptr && getenv("REQUEST_METHOD") == nullptr) {
    return kovagate::FastCgiMain(argc, argv);
  }
  std::string const out = kovagate::Respond();
  fwrite(out.data(), 1, out.size(), stdout);
  fflush(stdout);
  return 0;
}
