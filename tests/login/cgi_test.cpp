// The web request library as a CGI program uses it: parameters from the query string and a
// url-encoded body, cookies in and out, the client's address, and the PAM account login
// against the pam_matrix fixture accounts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "cgi_request.h"
#include "kova_cgi.h"
#include "kovatest.h"

using kovatest::CgiRequest;

namespace {

// A request handle freed at the end of the scope.
struct Handle {
  ~Handle() { KovaCgiFree(h); }
  int Init() {
    KovaCgiFree(h);
    h = nullptr;
    return KovaCgiInit("", &h);
  }
  std::string Param(char const* name) {
    char const* value = KovaCgiGetRequestParam(h, name, 0);
    return value ? value : "<null>";
  }
  KOVA_CGI_HANDLE h = nullptr;
};

std::string RemoteIP(size_t size = 65) {
  std::string buf(size, '\0');
  if (KovaCgiGetRemoteIP(&buf[0], size) != 0) {
    EXPECT_EQ(std::string(size, '\0'), buf) << "buffer written although there is no address";
    return "<none>";
  }
  return buf.c_str();
}

}  // namespace

TEST(CgiRequestTest, QueryStringDecodingNeverReadsPastTheText) {
  struct {
    char const *query, *name, *value;
  } const cases[] = {
      {"a=1&a=2", "a", "1"},  // the first of two wins
      {"b=x%20y+z", "b", "x y z"},
      {"c=%zz&d=1", "c", "%zz"},        // not an escape: kept as sent
      {"d=%4&e", "d", "%4"},            // escape cut short by the next separator
      {"%5Fsid=abc;e", "_sid", "abc"},  // names are decoded too
      {"n=%00bad", "n", "<null>"},      // a NUL cannot travel in a C text: dropped
      {"q=%41%4a%6b", "q", "AJk"},
      {"x=%", "x", "%"},  // the text ends inside an escape
      {"x=%4", "x", "%4"},
  };
  CgiRequest request;
  Handle handle;
  for (auto const& c : cases) {
    request.Set("QUERY_STRING", c.query);
    ASSERT_EQ(1, handle.Init());
    EXPECT_EQ(c.value, handle.Param(c.name)) << c.query;
  }
  EXPECT_EQ(-1, KovaCgiInit("", nullptr));
}

TEST(CgiRequestTest, PostBodyIsReadOnceUpToContentLength) {
  {
    CgiRequest request;
    request.Set("QUERY_STRING", "x=from-query");
    request.Post("x=from-body&_sid=s%3D1");
    Handle first, second;
    ASSERT_EQ(1, first.Init());
    EXPECT_EQ("from-query", first.Param("x"));  // the query string comes first
    // The body is gone from standard input, yet a second handle of the request still has it.
    EXPECT_EQ("", request.Unread());
    ASSERT_EQ(1, second.Init());
    EXPECT_EQ("s=1", second.Param("_sid"));
  }
  // Only CONTENT_LENGTH bytes belong to the request; a body that is not a form, or one sent
  // with a GET, is no parameter source and is not consumed. Too long, truncated or malformed
  // lengths refuse the request.
  std::string const biggest = "k=" + std::string(KOVA_CGI_MAX_BODY - 2, 'A');
  struct {
    std::string body;
    char const *type, *method, *length;
    int init;
    char const *k, *unread;
  } const cases[] = {
      {"k=123456&z=9", "application/x-www-form-urlencoded", "POST", "5", 1, "123", "456&z=9"},
      {"k=1", "application/json", "POST", "3", 1, "<null>", "k=1"},
      {"k=2", "application/x-www-form-urlencoded; charset=UTF-8", "POST", "3", 1, "2", ""},
      {"k=3", "application/x-www-form-urlencoded", "GET", "3", 1, "<null>", "k=3"},
      {"k=4", "application/x-www-form-urlencoded", "POST", nullptr, 1, "<null>", nullptr},
      {biggest, "application/x-www-form-urlencoded", "POST", "1048576", 1, biggest.c_str() + 2, ""},
      {"k=5", "application/x-www-form-urlencoded", "POST", "1048577", 0, "", "k=5"},
      {"k=6", "application/x-www-form-urlencoded", "POST", "100", 0, "", ""},
      {"k=7", "application/x-www-form-urlencoded", "POST", "3abc", 0, "", nullptr},
      {"k=8", "application/x-www-form-urlencoded", "POST", "-5", 0, "", nullptr},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.body.substr(0, 20) + " " + (c.length ? c.length : "(no length)"));
    CgiRequest request;
    request.Post(c.body, -1, c.type);
    request.Set("REQUEST_METHOD", c.method);
    if (c.length) {
      request.Set("CONTENT_LENGTH", c.length);
    } else {
      request.Unset("CONTENT_LENGTH");  // no length at all is an empty body
    }
    Handle handle;
    ASSERT_EQ(c.init, handle.Init());
    if (c.init) {
      EXPECT_EQ(c.k, handle.Param("k"));
    } else {
      EXPECT_EQ(0, handle.Init()) << "a refused body stays refused for the request";
    }
    if (c.unread) {
      EXPECT_EQ(c.unread, request.Unread());
    }
  }
  EXPECT_TRUE(kovatest::LogContains("request body of 1048577 bytes refused"));
  EXPECT_TRUE(kovatest::LogContains("truncated request body: 3 of 100 bytes"));
}

TEST(CgiRequestTest, CookiesInAndOut) {
  CgiRequest request;
  request.Set("HTTP_COOKIE", "id=abc; theme=\"dark\";  spaced = v ;bad;=x;last=");
  Handle handle;
  ASSERT_EQ(1, handle.Init());
  EXPECT_EQ(nullptr, KovaCgiGetCookie(handle.h, "id")) << "cookies are loaded on request";
  EXPECT_EQ(4, KovaCgiLoadInCookies(handle.h));
  EXPECT_STREQ("dark", KovaCgiGetCookie(handle.h, "theme"));

  EXPECT_EQ(1, KovaCgiSetCookies(handle.h, "id", "s3ss10n", 0, "/", nullptr, 0));
  EXPECT_STREQ("s3ss10n", KovaCgiGetCookie(handle.h, "id"));
  // Nothing that could split the header or add an attribute gets in.
  for (char const* value : {"a;b", "a b", "a\"b", "a,b", "a\\b", "a\r\nSet-Cookie: x=y", "\x7f"})
    EXPECT_EQ(0, KovaCgiSetCookies(handle.h, "id", value, 0, "/", nullptr, 0)) << value;
  EXPECT_EQ(0, KovaCgiSetCookies(handle.h, "a=b", "v", 0, "/", nullptr, 0));
  EXPECT_EQ(0, KovaCgiSetCookies(handle.h, "id", "v", 0, "/; Domain=evil", nullptr, 0));
  request.Set("HTTPS", "on");
  EXPECT_EQ(1, KovaCgiSetCookies(handle.h, "pref", "1", 3600, nullptr, "example.test",
                                 KOVA_CGI_COOKIE_SCRIPT_READABLE));
  EXPECT_STREQ(
      "Set-Cookie: id=s3ss10n; Path=/; HttpOnly; SameSite=Lax\r\n"
      "Set-Cookie: pref=1; Max-Age=3600; Domain=example.test; Secure; SameSite=Lax\r\n",
      KovaCgiGetSetCookieHeaders(handle.h));
}

TEST(CgiRequestTest, RemoteAddressMustParse) {
  CgiRequest request(nullptr);
  EXPECT_EQ("<none>", RemoteIP());
  struct {
    char const *given, *read;
  } const cases[] = {{"2001:DB8:0:0::1", "2001:db8::1"},
                     {"999.1.1.1", "<none>"},
                     {"192.0.2.7 ", "<none>"},
                     {"fe80::1%eth0", "<none>"},
                     {"localhost", "<none>"}};
  for (auto const& c : cases) {
    request.Set("REMOTE_ADDR", c.given);
    EXPECT_EQ(c.read, RemoteIP()) << c.given;
  }
  // The whole address and its terminator must fit.
  request.Set("REMOTE_ADDR", "192.0.2.77");
  EXPECT_EQ("<none>", RemoteIP(10));
  EXPECT_EQ("192.0.2.77", RemoteIP(11));
}

TEST(CgiRequestTest, AccountLoginThroughPam) {
  CgiRequest request;
  request.Set("HTTP_COOKIE", "id=web-session-1");
  Handle handle;
  ASSERT_EQ(1, handle.Init());
  ASSERT_EQ(1, KovaCgiLoadInCookies(handle.h));
  char reply[123];
  auto login = [&](char const* user, char const* password) {
    memset(reply, 'x', sizeof reply);
    KOVA_CGI_LOGIN_REQ const req = {user, password, "webui", 15, 1};
    return KovaCgiLogin(handle.h, reply, sizeof reply, &req);
  };
  EXPECT_EQ(1, login("Dave", "dave-secret"));
  EXPECT_STREQ("user=Dave&sid=web-session-1&timeout=15", reply);
  // A cookie set during the request is the web session the login belongs to.
  ASSERT_EQ(1, KovaCgiSetCookies(handle.h, "id", "from_sid", 0, "/", nullptr, 0));
  EXPECT_EQ(1, login("bob", "bob-secret"));
  EXPECT_STREQ("user=bob&sid=from_sid&timeout=15", reply);

  // Refusals; erin knows her password, but the account step refuses her for this service.
  kovatest::ClearLogs();
  EXPECT_EQ(0, login("alice", "Wr0ng-pa55word"));
  EXPECT_STREQ("", reply);
  for (char const* user : {"zed", "ALICE", ""}) EXPECT_EQ(0, login(user, "alice-secret"));
  EXPECT_EQ(0, login("erin", "erin-secret"));
  EXPECT_TRUE(kovatest::LogContains("account refused"));
  EXPECT_TRUE(kovatest::LogContains("authentication refused"));
  for (auto const& line : kovatest::LogTexts()) {
    EXPECT_EQ(std::string::npos, line.find("pa55word")) << line;
    EXPECT_EQ(std::string::npos, line.find("secret")) << line;
  }
  // A reply buffer too small for the description still gets a terminated prefix.
  KOVA_CGI_LOGIN_REQ const req = {"alice", "alice-secret", "webui", 15, 0};
  char small[8];
  EXPECT_EQ(1, KovaCgiLogin(handle.h, small, sizeof small, &req));
  EXPECT_STREQ("user=al", small);
  KOVA_CGI_LOGIN_REQ const no_password = {"alice", nullptr, "webui", 15, 1};
  EXPECT_EQ(-1, KovaCgiLogin(handle.h, reply, sizeof reply, &no_password));
}
