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
#include <arpa/inet.h>
#include <ctype.h>
#include <json/writer.h>
#include <kova_autoblock.h>
#include <kova_cgi.h>
#include <kova_log.h>
#include <kovasharing/kovasharing.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "gate_fastcgi.h"
#include "gate_html.h"
#include "gate_i18n.h"

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
using kovagate::Fill;
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

// An IPv4 or IPv6 address in its canonical text form; "" for anything else.
std::string CanonicalAddress(std::string const& text) {
  unsigned char bytes[sizeof(in6_addr)];
  char out[INET6_ADDRSTRLEN];
  for (int const family : {AF_INET, AF_INET6}) {
    if (inet_pton(family, text.c_str(), bytes) == 1 &&
        inet_ntop(family, bytes, out, sizeof out) != nullptr) {
      return out;
    }
  }
  return "";
}

// The items of a list separated by commas or blanks, each without its blanks.
std::vector<std::string> ListItems(std::string const& text) {
  std::vector<std::string> items;
  std::string item;
  for (char const c : text + ",") {
    if (c == ',' || isspace(static_cast<unsigned char>(c))) {
      if (!item.empty()) items.push_back(item);
      item.clear();
    } else {
      item += c;
    }
  }
  return items;
}

// Behind a reverse proxy the web server's REMOTE_ADDR is the proxy. When it is one of the
// addresses in KOVASHARING_GATE_TRUSTED_PROXIES, and only then, the proxy's X-Forwarded-*
// headers are believed: the client is the last address of X-Forwarded-For that is not itself
// a trusted proxy (what is left of it came from the client and proves nothing), the request
// came over HTTPS when X-Forwarded-Proto says so, and X-Forwarded-Host is the host the
// visitor asked for. The gate rewrites the request's variables accordingly, so that the library's
// address checks and blocking, the cookies and the form's origin check all see the visitor.
void BelieveTrustedProxy() {
  std::vector<std::string> trusted;
  for (auto const& item : ListItems(Env("KOVASHARING_GATE_TRUSTED_PROXIES"))) {
    std::string const address = CanonicalAddress(item);
    if (!address.empty()) trusted.push_back(address);
  }
  auto const is_trusted = [&trusted](std::string const& address) {
    return std::find(trusted.begin(), trusted.end(), address) != trusted.end();
  };
  if (!is_trusted(CanonicalAddress(Env("REMOTE_ADDR")))) return;
  std::vector<std::string> const hops = ListItems(Env("HTTP_X_FORWARDED_FOR"));
  for (auto hop = hops.rbegin(); hop != hops.rend(); ++hop) {
    std::string const address = CanonicalAddress(*hop);
    if (address.empty()) break;  // not an address: the proxy did not write it
    KovaCgiSetVariable("REMOTE_ADDR", address.c_str());
    if (!is_trusted(address)) break;
  }
  std::string const proto = Env("HTTP_X_FORWARDED_PROTO");
  if (strcasecmp(proto.c_str(), "https") == 0) KovaCgiSetVariable("HTTPS", "on");
  if (strcasecmp(proto.c_str(), "http") == 0) KovaCgiSetVariable("HTTPS", nullptr);
  std::string const host = Env("HTTP_X_FORWARDED_HOST");
  if (!host.empty() && IsPlainUrlText(host) && host.find('/') == std::string::npos) {
    KovaCgiSetVariable("HTTP_HOST", host.c_str());
  }
}

// The origin of a stylesheet on another server ("https://host[:port]"), for the content
// security policy; "" for a path on this server or an address that names no plain host.
std::string StylesheetOrigin(std::string const& stylesheet) {
  size_t const scheme = stylesheet.find("://");
  if (scheme == std::string::npos) return "";
  size_t const end = stylesheet.find_first_of("/?#", scheme + 3);
  std::string const origin = stylesheet.substr(0, end);
  for (size_t i = scheme + 3; i < origin.size(); ++i) {
    char const c = origin[i];
    if (!isalnum(static_cast<unsigned char>(c)) && strchr(".-:[]", c) == nullptr) return "";
  }
  return origin.size() > scheme + 3 ? origin : "";
}

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

// A string member of the application's object, "" when there is none.
std::string AppText(Json::Value const& app, char const* key) {
  return app.isObject() && app[key].isString() ? app[key].asString() : "";
}

// The heading of a link's pages: its title, else the application's, else a plain one.
std::string LinkTitle(Entry const& entry, Json::Value const& app) {
  if (!entry.get_protect_title().empty()) return entry.get_protect_title();
  std::string const title = AppText(app, "title");
  return title.empty() ? TR("Shared with you") : title;
}

// The owner as visitors know them: the account's full name where the account database has
// one, else the account name.
std::string OwnerName(Entry const& entry) {
  std::string login = entry.get_owner_user();
  if (login.empty()) return "";
  struct passwd account;
  struct passwd* found = nullptr;
  std::vector<char> buffer(16384);
  if (getpwnam_r(login.c_str(), &account, buffer.data(), buffer.size(), &found) == 0 &&
      found != nullptr && found->pw_gecos != nullptr) {
    std::string full = std::string(found->pw_gecos).substr(0, strcspn(found->pw_gecos, ","));
    if (!full.empty()) return full;
  }
  return login;
}

// "31 January 2027 at 23:59 UTC": the server's local time, with its zone, in words.
std::string HumanTime(long when) {
  static char const* const kMonths[] = {N_("January"), N_("February"), N_("March"),
                                        N_("April"),   N_("May"),      N_("June"),
                                        N_("July"),    N_("August"),   N_("September"),
                                        N_("October"), N_("November"), N_("December")};
  if (when <= 0) return "";
  time_t const t = static_cast<time_t>(when);
  struct tm local;
  char clock[16];
  char zone[16];
  if (localtime_r(&t, &local) == nullptr || strftime(clock, sizeof clock, "%H:%M", &local) == 0 ||
      strftime(zone, sizeof zone, "%Z", &local) == 0) {
    return "";
  }
  // TRANSLATORS: day, month, year, time of day, time zone.
  return Fill(TR("{} {} {} at {} {}"), {std::to_string(local.tm_mday), TR(kMonths[local.tm_mon]),
                                        std::to_string(local.tm_year + 1900), clock, zone});
}

// "1.5 MB": a size in bytes as people read it.
std::string HumanSize(double bytes) {
  static char const* const kUnits[] = {"bytes", "kB", "MB", "GB", "TB"};
  int unit = 0;
  while (bytes >= 1000 && unit < 4) bytes /= 1000, ++unit;
  char text[32];
  snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
  return text;
}

// The application's data as a list: the keys every application may use under the names
// visitors read, the rest under their own names. The title is the page's heading and the
// description its first paragraph, so neither is listed again.
std::vector<std::pair<std::string, std::string>> AppDetails(Json::Value const& app,
                                                            std::string const& heading) {
  std::vector<std::pair<std::string, std::string>> details;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  if (!app.isObject()) {
    if (!app.isNull()) details.emplace_back(TR("Data"), Json::writeString(writer, app));
    return details;
  }
  for (std::string const& name : app.getMemberNames()) {
    Json::Value const& value = app[name];
    if (name == "description" && value.isString()) continue;
    if (name == "title" && value.isString() && value.asString() == heading) continue;
    std::string label = name;
    std::string text = value.isString() ? value.asString() : Json::writeString(writer, value);
    if (name == "title") label = TR("Title");
    if (name == "url") label = TR("Address");
    if (name == "size") {
      label = TR("Size");
      if (value.isNumeric() && value.asDouble() >= 0) text = HumanSize(value.asDouble());
    }
    details.emplace_back(label, text);
  }
  return details;
}

// Who opened the link: one row per successful login, for its owner to see (`kovasharing show`).
// A row that cannot be written costs the visitor nothing; it is logged.
void RecordVisit(std::string const& hash, std::string const& address, std::string const& account) {
  SharingDB& db = SharingDB::Instance();
  EntryDB entries(db);
  Entry entry;
  if (!entries.GetByHash(hash, entry)) return;  // deleted in the meantime
  std::string const sql = "INSERT INTO visit (entry_id, at, ip, account) VALUES (" +
                          std::to_string(entry.get_id()) + ", " +
                          std::to_string(static_cast<long>(time(nullptr))) + ", '" +
                          db.Escape(address) + "', '" + db.Escape(account) + "')";
  if (!db.Execute(sql, nullptr)) {
    KOVA_LOG_PID(kSource, __LINE__, "visit not recorded: %s", db.GetLastError().c_str());
  }
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
  std::string const& stylesheet() const { return stylesheet_; }

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
  // The form page an unauthorised visitor gets, from one read of the entry; unknown and
  // unusable links look like password ones.
  Page FormPage() const;
  static Form FormOf(bool valid, Entry const& entry);
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
  page.title = TR("Continue");
  page.lead.push_back(TR("This page has moved on. Your browser should follow by itself."));
  reply.body = kovagate::RenderPage(page, stylesheet_);
  return reply;
}

Reply Gate::Failure(char const* what) const {
  // The system log, and the web server's error log (many hosts have only the latter).
  KOVA_LOG_PID(kSource, __LINE__, "%s", what);
  fprintf(stderr, "%s: %s\n", kSource, what);
  Page page;
  page.status = 500;
  page.title = TR("Something went wrong");
  page.lead.push_back(
      TR("The link could not be opened just now. Please try again in a little while."));
  return Show(page);
}

Reply Gate::Blocked() const {
  Page page;
  page.status = 429;
  page.title = TR("Too many attempts");
  page.lead.push_back(
      TR("There were too many failed attempts from your network address, so it is blocked for a "
         "while."));
  page.lead.push_back(TR("Please wait about ten minutes, then open the link again."));
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
  Page page = FormPage();
  page.status = 403;
  page.notice_tone = Tone::kError;
  page.notice =
      TR("This link does not open. The password may be wrong, or the link may have expired or "
         "been used up; ask the person who sent it.");
  if (page.form == Form::kAccount) {
    page.notice =
        TR("That did not work. Check your account name and password; this link may also not be "
           "shared with your account.");
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

Page Gate::FormPage() const {
  Entry entry;
  bool const valid = LoadValidEntry(entry);
  Form const form = FormOf(valid, entry);
  Page page;
  page.form = form;
  page.action = LinkUrl();
  switch (form) {
    case Form::kAccount:
      page.title = TR("Sign in to open this link");
      page.lead.push_back(
          TR("This link is shared with particular accounts. Sign in with your account on this "
             "server."));
      break;
    case Form::kOpen:
      page.title = TR("Shared link");
      page.lead.push_back(TR("Something has been shared with you. Press Open to see it."));
      break;
    default:
      page.title = TR("This link is protected");
      page.lead.push_back(TR("Enter the password you were given together with the link."));
      break;
  }
  // Link previews: of a protected (or unknown) link only that it is protected; an open link
  // shows its title and description, as its own page does after one press.
  page.preview_title = page.title;
  page.preview_description = page.lead.front();
  if (form == Form::kOpen) {
    Json::Value const app = entry.get_app();
    page.preview_title = LinkTitle(entry, app);
    std::string const description = AppText(app, "description");
    if (!description.empty()) page.preview_description = description;
  }
  return page;
}

Reply Gate::Content() {
  // A visitor who is in stays in when the link's last use has gone (to this visitor, or to
  // others since): only new logins need a use left.
  Entry entry;
  if (!EntryDB(SharingDB::Instance()).GetByHash(hash_, entry) || !entry.IsValid()) {
    return Failure("authorised entry cannot be read");
  }

  Entry::RedirectType const type = entry.get_redirect_type();
  std::string target = entry.get_redirect_uri();
  std::string next;
  if (type != Entry::REDIRECT_NONE && IsSafeTarget(target)) {
    // "always" sends the visitor on at once; "url_param" tells the target which link the
    // visitor came through, from the landing page's Continue.
    if (type != Entry::REDIRECT_URLPARAM) return Redirect(target);
    size_t const fragment = target.find('#');
    size_t const end = fragment == std::string::npos ? target.size() : fragment;
    char const joint = target.find('?') < end ? '&' : '?';
    target.insert(end, std::string(1, joint) + SZK_SHARING_ID + "=" + UrlEncode(hash_));
    next = target;
  }

  Page page;
  Json::Value const app = entry.get_app();
  page.title = LinkTitle(entry, app);
  std::string const description = AppText(app, "description");
  if (!description.empty()) page.lead.push_back(description);
  std::string const owner = OwnerName(entry);
  if (!owner.empty()) page.lead.push_back(Fill(TR("Shared by {}."), {owner}));
  page.next = next;
  if (next.empty()) page.details = AppDetails(app, page.title);
  std::string const until = HumanTime(entry.get_expire_at());
  if (!until.empty()) page.details.emplace_back(TR("Available until"), until);
  if (entry.get_expire_times() > 0) {
    int const left = entry.get_expire_times() - entry.get_use_count();
    page.details.emplace_back(TR("Uses left"), std::to_string(left < 0 ? 0 : left));
  }
  if (page.details.empty() && next.empty()) {
    page.lead.push_back(TR("There is nothing more to show for this link."));
  }
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
    int const code =
        hash_.size() > kMaxHash ? KOVA_CHECK_NO_ACCESS : KOVA::KovaSharingIsAuthorized(&params);
    switch (code) {
      case KOVA_CHECK_OK:
        return Content();
      case KOVA_CHECK_INTERNAL:
        return Failure("authorization check failed");
      case KOVA_CHECK_LINK_INVALID:
        page.status = 410;
        page.title = TR("This link is no longer valid");
        page.lead.push_back(TR("The person who shared it has ended it, or its time is over."));
        return Show(page);
      case KOVA_CHECK_ADDRESS_CHANGED:
        page = FormPage();
        page.notice =
            TR("Your network address has changed since you opened this link. Please "
               "open it again.");
        return Show(page);
      case KOVA_CHECK_ACCOUNT_REFUSED:
        page = FormPage();
        page.notice = TR("Please sign in again.");
        return Show(page);
      default:  // no session, no token for this link, or either ran out
        break;
    }
  }
  page = FormPage();
  if (logged_out) page.notice = TR("You have logged out.");
  return Show(page);
}

Reply Gate::HandleLogin() {
  // A visitor this link already lets in keeps its session: pressing Open again, or sending
  // the form twice, makes no second one.
  if (!session_id_.empty()) {
    _tag_sharing_login_params const params = {hash_.c_str(), nullptr, nullptr, nullptr,
                                              session_id_.c_str()};
    if (KOVA::KovaSharingIsAuthorized(&params) == KOVA_CHECK_OK) return Redirect(LinkUrl());
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
  int const code = hash_.size() > kMaxHash ? KOVA_LOGIN_NO_LINK
                                           : KOVA::KovaSharingLogin(session_id, &params, true);
  switch (code) {
    case KOVA_LOGIN_OK:
      if (!SetSessionCookie(session_id, 0)) return Failure("session cookie cannot be set");
      RecordVisit(hash_, address_, username);
      return Redirect(LinkUrl());
    case KOVA_LOGIN_BLOCKED:
      return Blocked();
    case KOVA_LOGIN_ACCOUNT_REFUSED:
    case KOVA_LOGIN_NO_LINK:
    case KOVA_LOGIN_WRONG_PASSWORD:
    case KOVA_LOGIN_NOT_ADMITTED:
    case KOVA_LOGIN_USED_UP: {
      // A wrong password or account, an account outside the link's users and groups, and a
      // link that is unknown, expired or used up: one answer for all, and one failure counted
      // for each. The login counted the guesses it judged: a wrong password or account, and
      // any refusal of an account link; the rest is counted here.
      Entry entry;
      bool const valid = LoadValidEntry(entry);
      if (code == KOVA_LOGIN_NOT_ADMITTED || code == KOVA_LOGIN_USED_UP ||
          (code == KOVA_LOGIN_NO_LINK && !valid)) {
        CheckDecoyPassword(password);
        CountFailure(address_);
      }
      return Refused(username);
    }
    default:
      return Failure((std::string("login failed: ") + KovaSharingLoginResultText(code)).c_str());
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
  BelieveTrustedProxy();
  kovagate::ChooseLanguage(Env("HTTP_ACCEPT_LANGUAGE"));
  std::string const script = Env("SCRIPT_NAME");
  if (IsPlainUrlText(script) && script[0] == '/') script_ = script;
  std::string const stylesheet = Env("KOVASHARING_GATE_STYLESHEET");
  if (IsSafeTarget(stylesheet)) stylesheet_ = stylesheet;

  std::string const method = Env("REQUEST_METHOD");
  bool const post = method == "POST";
  if (!post && method != "GET" && method != "HEAD") {
    Page page;
    page.status = 405;
    page.title = TR("Not possible");
    page.lead.push_back(TR("This page can only be opened or sent as a form."));
    Reply reply = Show(page);
    reply.headers.push_back("Allow: GET, HEAD, POST");
    return reply;
  }

  int const init = KovaCgiInit("", &cgi_);
  if (init != 1) {
    if (init < 0) return Failure("request cannot be read");
    Page page;
    page.status = 400;
    page.title = TR("The request could not be read");
    page.lead.push_back(TR("Please open the link again."));
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
    page.title = TR("No link given");
    page.lead.push_back(
        TR("This address does not lead to anything shared. Check that you have the whole link."));
    return Show(page);
  }

  if (!post) return HandleGet();

  // A form sent by a page of another site is not the visitor's doing.
  std::string const origin = Env("HTTP_ORIGIN");
  if (!origin.empty() && origin != (IsHttps() ? "https://" : "http://") + Env("HTTP_HOST")) {
    Page page;
    page.status = 403;
    page.title = TR("Form not accepted");
    page.lead.push_back(
        TR("The form came from another site. Open the link again and use its own form."));
    return Show(page);
  }
  if (Param(SZK_ACTION) == "logout") return HandleLogout();
  return HandleLogin();
}

std::string Render(Reply const& reply, bool with_body, char const* cookies,
                   std::string const& stylesheet) {
  std::string out = std::string("Status: ") + kovagate::StatusText(reply.status) + "\r\n";
  out += "Content-Type: text/html; charset=utf-8\r\n";
  out += "Cache-Control: no-store\r\n";
  // The stylesheet may come from another server, which then is the one other source allowed.
  std::string const style_origin = StylesheetOrigin(stylesheet);
  out += "Content-Security-Policy: default-src 'none'; style-src 'self'" +
         (style_origin.empty() ? "" : " " + style_origin) +
         "; frame-ancestors 'none'; base-uri 'none'\r\n";
  out += "X-Content-Type-Options: nosniff\r\n";
  out += std::string("Content-Language: ") + kovagate::Language() + "\r\n";
  out += "Vary: Accept-Language, Cookie\r\n";
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
  return Render(reply, Env("REQUEST_METHOD") != "HEAD", KovaCgiGetSetCookieHeaders(gate.cgi()),
                gate.stylesheet());
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
