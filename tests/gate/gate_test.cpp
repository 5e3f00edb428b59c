// The gate as the web server runs it: one child process per request, with the CGI variables
// and the request body on standard input. Links are made through the library's public API;
// accounts come from the test fixtures (alice is in "editors", bob is not).
#include <gtest/gtest.h>
#include <json/reader.h>
#include <kovasharing/kovasharing.h>
#include <time.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "gate_client.h"
#include "kovatest.h"
#include "kovatest_sharing.h"

namespace {

using KOVA::sharing::db::EntryDB;
using KOVA::sharing::record::Entry;
using kovatest::Env;
using kovatest::MakeLink;
using kovatest::PasswordLink;
using kovatest::Response;
using kovatest::Visitor;

// The page with the hash taken out: what tells two links apart besides their names.
std::string Without(std::string text, std::string const& hash) {
  for (size_t pos; (pos = text.find(hash)) != std::string::npos;)
    text.replace(pos, hash.size(), "#");
  return text;
}

class GateTest : public kovatest::SharingTest {
 protected:
  // The latest visit the gate recorded for the link: "address account", "" for none.
  static std::string LastVisit(std::string const& hash) {
    return kovatest::Value(
        "SELECT ip || ' ' || account AS v FROM visit WHERE entry_id = (SELECT id FROM entry "
        "WHERE hash = '" +
        hash + "') ORDER BY id DESC LIMIT 1");
  }
};

TEST_F(GateTest, PasswordLinkFromFormToContentAndOut) {
  std::string const hash = PasswordLink();
  Visitor visitor;
  Response r = visitor.Get(hash);
  EXPECT_EQ(200, r.status);
  EXPECT_TRUE(r.Has("<form method=\"post\" action=\"/share?sharing_id=" + hash + "\">"));
  EXPECT_NE(std::string::npos, r.Focused().find("name=\"password\"")) << r.body;
  EXPECT_FALSE(r.Has("<script") || r.Has("style=")) << "no script and no inline style";
  // A preview tells only that the link is protected.
  EXPECT_TRUE(r.Has("og:title\" content=\"This link is protected\"") && !r.Has("Holiday"))
      << r.body;

  // A wrong password, the right one in the address instead of the form, and a link that is
  // unknown, expired or used up: the same status and pages, and no cookie.
  Response const wrong = visitor.Post(hash, "password=guess");
  EXPECT_EQ(403, wrong.status);
  EXPECT_TRUE(wrong.Has("<title>Error: ") && wrong.Has("This link does not open"));
  EXPECT_NE(std::string::npos, wrong.Focused().find("role=\"alert\"")) << wrong.body;
  std::string const expired = PasswordLink();
  Entry entry;
  ASSERT_TRUE(EntryDB(db()).GetByHash(expired, entry));
  ASSERT_TRUE(EntryDB(db()).Update(entry.set_expire_at(time(nullptr) - 5)));
  std::string const used_up = MakeLink([](Entry& e) { e.set_expire_times(1); });
  ASSERT_EQ(303, Visitor{"192.0.2.12"}.Post(used_up, "").status);
  struct {
    std::string hash, query, body;
  } const refusals[] = {{hash, "&password=open+sesame", ""},
                        {"Zz9Unknown", "", "password=guess"},
                        {expired, "", "password=open+sesame"},
                        {used_up, "", ""}};
  for (auto const& c : refusals) {
    Visitor stranger{"192.0.2.11"};
    Response const refused = stranger.Post(c.hash + c.query, c.body);
    EXPECT_EQ(wrong.status, refused.status) << c.hash;
    EXPECT_EQ(Without(wrong.body, hash), Without(refused.body, c.hash));
    EXPECT_EQ(Without(r.body, hash), Without(stranger.Get(c.hash).body, c.hash));
    EXPECT_TRUE(stranger.jar.empty());
  }
  EXPECT_TRUE(visitor.jar.empty());
  EXPECT_EQ("", LastVisit(hash));

  // The right password: a cookie of this link for the gate's path, back to the link, a visit.
  r = visitor.Post(hash, "password=open+sesame");
  EXPECT_EQ(303, r.status);
  EXPECT_EQ("/share?sharing_id=" + hash, r.Header("Location"));
  std::string const sid = visitor.Session(hash);
  ASSERT_EQ(32u, sid.size());
  EXPECT_EQ("sharing_sid_" + hash + "=" + sid + "; Path=/share; HttpOnly; SameSite=Lax",
            r.Header("Set-Cookie"));
  EXPECT_EQ("192.0.2.10 ", LastVisit(hash));
  r = visitor.Get(hash);
  EXPECT_TRUE(r.status == 200 && r.Has("<h1>Holiday pictures</h1>")) << r.body;

  // The cookie opens no other link, even under that link's name.
  std::string const other = PasswordLink("another");
  visitor.jar["sharing_sid_" + other] = sid;
  EXPECT_TRUE(visitor.Get(other).Has("name=\"password\""));

  // A form of another site changes nothing; the POST logs out.
  EXPECT_EQ(403, visitor.Post(hash, "action=logout", {{"HTTP_ORIGIN", "http://evil.test"}}).status);
  r = visitor.Post(hash, "action=logout");
  EXPECT_EQ("sharing_sid_" + hash + "=; Max-Age=0; Path=/share; HttpOnly; SameSite=Lax",
            r.Header("Set-Cookie"));
  EXPECT_EQ("/share?sharing_id=" + hash + "&action=logged_out", r.Header("Location"));
  r = visitor.Get(hash + "&action=logged_out");
  EXPECT_TRUE(r.Has("You have logged out.") && r.Has("name=\"password\""));
  EXPECT_FALSE(r.Has("Shared by"));
}

// A session id planted in the victim's browser never becomes the victim's session: the login
// starts a new one, and the planter's cookie opens nothing, even from the victim's address.
TEST_F(GateTest, APlantedSessionOpensNothing) {
  std::string const open = MakeLink([](Entry& e) { e.set_enable_match_ip(true); });
  std::string const guarded = PasswordLink();
  Visitor planter{"192.0.2.70"}, victim{"192.0.2.71"};
  ASSERT_EQ(303, planter.Post(open, "").status);
  std::string const planted = planter.Session(open);
  ASSERT_FALSE(planted.empty());
  victim.jar = {{"sharing_sid", planted}, {"sharing_sid_" + guarded, planted}};
  ASSERT_EQ(303, victim.Post(guarded, "password=open+sesame").status);
  EXPECT_NE(planted, victim.Session(guarded));
  EXPECT_TRUE(victim.Get(guarded).Has("Shared by"));
  planter.jar["sharing_sid_" + guarded] = planted;
  planter.address = victim.address;
  EXPECT_FALSE(planter.Get(guarded).Has("Shared by"));
}

TEST_F(GateTest, AccountLinkForAGroupAndHostileInput) {
  std::string const hash = MakeLink([](Entry& e) {
    e.set_protect_type(Entry::PROTECT_USER);
    e.set_protect_groups({"editors"});
  });
  Visitor alice{"192.0.2.20"}, bob{"192.0.2.21"};
  EXPECT_NE(std::string::npos, alice.Get(hash).Focused().find("name=\"zel_username\""));
  // Bob's right password but no member, and a wrong password: the same answer.
  Response const outsider = bob.Post(hash, "zel_username=bob&zel_password=bob-secret");
  EXPECT_EQ(403, outsider.status);
  EXPECT_EQ(outsider.body, alice.Post(hash, "zel_username=bob&zel_password=wrong").body);
  EXPECT_TRUE(outsider.Has("value=\"bob\"")) << "the account name is kept in the form";
  EXPECT_EQ(303, alice.Post(hash, "zel_username=alice&zel_password=alice-secret").status);
  EXPECT_EQ("192.0.2.20 alice", LastVisit(hash));
  EXPECT_TRUE(alice.Get(hash).Has("<h1>Holiday pictures</h1>"));

  Response r = bob.Get("%27%22%3E%3Cscript%3Ealert(1)%3C/script%3E");
  EXPECT_FALSE(r.Has("<script")) << r.body;
  EXPECT_TRUE(r.Has("sharing_id=%27%22%3E%3Cscript%3Ealert%281%29%3C%2Fscript%3E\""));
  r = bob.Post(hash, "zel_username=%3Cb%3E%22x%27&zel_password=x&password=y");
  EXPECT_TRUE(r.Has("value=\"&lt;b&gt;&quot;x&#39;\"") && !r.Has("<b>")) << r.body;
  // The application's data is the owner's text, shown as text.
  Json::Value app(Json::objectValue);
  app["<i>key</i>"] = "<img src=x onerror=alert(1)>";
  std::string const shown = MakeLink([&app](Entry& e) { e.set_app(app); });
  EXPECT_EQ(303, bob.Post(shown, "").status);
  r = bob.Get(shown);
  EXPECT_TRUE(r.Has("&lt;i&gt;key&lt;/i&gt;") && r.Has("&lt;img src=x") && !r.Has("<img"))
      << r.body;
}

// What the page of a link one is let into shows, and where it leads. Redirects go to a web
// address or a path here; a header break, a scheme of its own or "//host" lead nowhere.
TEST_F(GateTest, LandingPagesAndRedirects) {
  // The page after the Open button of an open link, whose previews show its heading and use
  // nothing up.
  auto const enter = [](std::string const& h, std::string const& heading) {
    Visitor visitor{"192.0.2.30"};
    for (int i = 0; i < 2; ++i)
      EXPECT_TRUE(visitor.Get(h).Has("og:title\" content=\"" + heading + "\"")) << heading;
    EXPECT_EQ(303, visitor.Post(h, "").status) << heading;
    return visitor.Get(h);
  };
  struct {
    std::string title, app, heading;  // app: the application's JSON
    int max_uses;
    std::vector<std::string> shown;
  } const pages[] = {
      {"Summer",
       R"({"title":"Crete","description":"Beach <b>days</b>"})",
       "Summer",
       0,
       {"<p>Beach &lt;b&gt;days&lt;/b&gt;</p>", "<dd>Crete</dd>", "Shared by alice."}},
      {"", R"({"title":"Crete","size":1500000})", "Crete", 3, {"1.5 MB", "Uses left</dt><dd>2<"}},
      {"", "{}", "Shared with you", 1, {"Uses left</dt><dd>0<", "Shared by alice."}},
  };
  for (auto const& c : pages) {
    std::string const h = MakeLink([&c](Entry& e) {
      Json::Value app;
      std::istringstream in(c.app);
      EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &app, nullptr));
      e.set_app(app).set_protect_title(c.title).set_expire_times(c.max_uses);
    });
    Response const r = enter(h, c.heading);
    EXPECT_TRUE(r.status == 200 && r.Has("<h1>" + c.heading + "</h1>")) << r.body;
    for (auto const& text : c.shown) EXPECT_TRUE(r.Has(text)) << text << " in " << r.body;
  }
  struct {
    Entry::RedirectType type;
    std::string uri, location, next;  // @ stands for the hash
  } const redirects[] = {
      {Entry::REDIRECT_ALWAYS, "https://example.org/x", "https://example.org/x", ""},
      {Entry::REDIRECT_URLPARAM, "/app?x=1#top", "", "/app?x=1&sharing_id=@#top"},
      {Entry::REDIRECT_URLPARAM, "/app", "", "/app?sharing_id=@"},
      {Entry::REDIRECT_ALWAYS, "/ok\r\nSet-Cookie: a=b", "", ""},
      {Entry::REDIRECT_URLPARAM, "javascript:alert(1)", "", ""},
      {Entry::REDIRECT_ALWAYS, "//evil.test/", "", ""},
      {Entry::REDIRECT_NONE, "https://example.org/x", "", ""},
  };
  for (auto const& c : redirects) {
    std::string const h =
        MakeLink([&c](Entry& e) { e.set_redirect_type(c.type).set_redirect_uri(c.uri); });
    Response const r = enter(h, "Holiday pictures");
    EXPECT_EQ(c.location.empty() ? 200 : 303, r.status) << c.uri;
    EXPECT_EQ(c.location, r.Header("Location")) << c.uri;
    EXPECT_EQ(std::regex_replace(c.next, std::regex("@"), h), r.Next()) << c.uri;
    for (auto const& line : r.headers) EXPECT_NE(0u, line.find("Set-Cookie: a=b")) << c.uri;
  }
}

// Accept-Language chooses the page's language; a stylesheet on another server is the one
// other source of style the page may use.
TEST_F(GateTest, LanguageAndStylesheetOfThePage) {
  std::string const hash = PasswordLink();
  struct {
    std::string accept, stylesheet, language, style_src;
  } const cases[] = {
      {"", "https://cdn.test:8443/s/gate.css?v=2", "en", "'self' https://cdn.test:8443;"},
      {"de-AT;q=0.8, en;q=0.5", "/local/gate.css", "de", "'self';"},
      {"en, de;q=0.9", "https://cdn.test/a.css'; script-src *", "en", "'self';"},
      {"fr, de;q=0.1", "", "de", "'self';"},
      {"de;q=0", "", "en", "'self';"},
  };
  for (auto const& c : cases) {
    Response const r =
        Visitor{"192.0.2.40",
                {{"HTTP_ACCEPT_LANGUAGE", c.accept}, {"KOVASHARING_GATE_STYLESHEET", c.stylesheet}}}
            .Get(hash);
    EXPECT_EQ(c.language, r.Header("Content-Language")) << c.accept;
    EXPECT_TRUE(r.Has("<html lang=\"" + c.language + "\">") &&
                r.Has(c.language == "de" ? ">Öffnen<" : ">Open<"))
        << c.accept;
    std::string const policy = r.Header("Content-Security-Policy");
    EXPECT_NE(std::string::npos, policy.find("style-src " + c.style_src)) << policy;
  }
}

// Behind a proxy named trusted, its forwarded client address, scheme and host count; from
// anyone else they are ignored.
TEST_F(GateTest, TrustedProxiesForwardTheVisitor) {
  Env const forwarded = {{"HTTP_X_FORWARDED_FOR", "198.51.100.9, 203.0.113.5, 192.0.2.201"},
                         {"HTTP_X_FORWARDED_PROTO", "https"},
                         {"HTTP_X_FORWARDED_HOST", "public.test"},
                         {"KOVASHARING_GATE_TRUSTED_PROXIES", "192.0.2.200, 192.0.2.201"}};
  struct {
    std::string from, origin;
    int status;
    std::string visit, cookie;
  } const cases[] = {
      {"192.0.2.200", "https://public.test", 303, "203.0.113.5 ", "__Host-sharing_sid_"},
      {"192.0.2.77", "http://gate.test", 303, "192.0.2.77 ", "sharing_sid_"},
      {"192.0.2.77", "https://public.test", 403, "", ""},
  };
  for (auto const& c : cases) {
    std::string const hash = MakeLink();
    Visitor visitor{c.from, forwarded};
    Response const r = visitor.Post(hash, "", {{"HTTP_ORIGIN", c.origin}});
    EXPECT_EQ(c.status, r.status) << c.from << " " << c.origin;
    EXPECT_EQ(c.visit, LastVisit(hash)) << c.from;
    EXPECT_EQ(0u, r.Header("Set-Cookie").find(c.cookie + (c.cookie.empty() ? "" : hash)));
  }
}

TEST_F(GateTest, EveryOtherAnswerHasItsPage) {
  // A visitor behind a trusted proxy: the failures count for the visitor, not the proxy.
  Env const proxy = {{"KOVASHARING_GATE_TRUSTED_PROXIES", "192.0.2.250"}};
  Env through = proxy;
  through["HTTP_X_FORWARDED_FOR"] = "2001:db8:7:7::7";
  std::string const hash = PasswordLink();
  std::string const open = MakeLink();
  std::string const used_up = MakeLink([](Entry& e) { e.set_expire_times(1); });
  ASSERT_EQ(303, Visitor{"192.0.2.12"}.Post(used_up, "").status);
  // Ten failures of three kinds, each but the last followed by a login to an open link, which
  // clears nothing: then even the right password is refused.
  Visitor attacker{"192.0.2.250", through};
  std::string const failures[][2] = {
      {hash, "password=guess"}, {"Zz9Made0Up", "password=x"}, {used_up, ""}};
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(403, attacker.Post(failures[i % 3][0], failures[i % 3][1]).status) << i;
    EXPECT_TRUE(i == 9 || attacker.Post(open, "").status == 303) << i;
    attacker.jar.clear();
  }
  Response r = attacker.Post(hash, "password=open+sesame");
  EXPECT_EQ(429, r.status) << "blocked even with the right password";
  EXPECT_EQ("600", r.Header("Retry-After"));
  EXPECT_TRUE(r.Has("wait about ten minutes") && attacker.jar.empty());
  EXPECT_EQ(303, Visitor("192.0.2.250", proxy).Post(hash, "password=open+sesame").status);

  // No link, another method, an unreadable body, HEAD without a body.
  Visitor plain{"192.0.2.60"};
  EXPECT_EQ(404, plain.Get("").status);
  r = plain.Send("PUT", hash, "", {});
  EXPECT_TRUE(r.status == 405 && r.Header("Allow") == "GET, HEAD, POST");
  EXPECT_EQ(400, plain.Post(hash, "password=abc", {{"CONTENT_LENGTH", "12x"}}).status);
  r = plain.Post(hash, "", {{"REQUEST_METHOD", "HEAD"}});
  EXPECT_TRUE(r.status == 200 && r.body.empty());

  // A check that fails inside (no client address): an error page and one line for the web
  // server's error log, from a gate that ends normally (Send checks its exit status).
  ASSERT_EQ(303, plain.Post(open, "").status);
  plain.address = "";
  r = plain.Get(open);
  EXPECT_TRUE(r.status == 500 && r.err == "kovasharing-gate: authorization check failed\n")
      << r.err;
  plain.address = "192.0.2.60";
  // A link switched off after the visitor came in.
  Entry stored;
  ASSERT_TRUE(EntryDB(db()).GetByHash(open, stored));
  ASSERT_TRUE(EntryDB(db()).Update(stored.set_enabled(false)));
  r = plain.Get(open);
  EXPECT_TRUE(r.status == 410 && r.Has("no longer valid"));
}

}  // namespace
