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
  Handle() = default;
  ~Handle() { KovaCgiFree(h); }
  Handle(Handle const&) = delete;
  Handle& operator=(Handle const&) = delete;
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
  CgiRequest request;
  request.Set("QUERY_STRING",
              "a=1&b=x%20y+z&c=%zz&d=%4&e&%5Fsid=abc&a=2&n=%00bad&=orphan&t=%C3%A9;u=semi&"
              "p=100%&q=%41%4a%6b");
  Handle handle;
  ASSERT_EQ(1, handle.Init());
  EXPECT_EQ("1", handle.Param("a"));  // the first of two wins
  EXPECT_EQ("x y z", handle.Param("b"));
  EXPECT_EQ("%zz", handle.Param("c"));  // not an escape: kept as sent
  EXPECT_EQ("%4", handle.Param("d"));   // escape cut short by the next separator
  EXPECT_EQ("", handle.Param("e"));
  EXPECT_EQ("abc", handle.Param("_sid"));  // names are decoded too
  EXPECT_EQ("<null>", handle.Param("n"));  // a NUL cannot travel in a C text: dropped
  EXPECT_EQ("\xc3\xa9", handle.Param("t"));
  EXPECT_EQ("semi", handle.Param("u"));
  EXPECT_EQ("100%", handle.Param("p"));  // '%' at the very end of the text
  EXPECT_EQ("AJk", handle.Param("q"));
  EXPECT_EQ("<null>", handle.Param("missing"));
  EXPECT_EQ(nullptr, KovaCgiGetRequestParam(handle.h, nullptr, 0));
  EXPECT_EQ(nullptr, KovaCgiGetRequestParam(nullptr, "a", 0));

  // A query that ends inside an escape: the decoder must stop at the end of the text.
  request.Set("QUERY_STRING", "x=%");
  ASSERT_EQ(1, handle.Init());
  EXPECT_EQ("%", handle.Param("x"));
  request.Set("QUERY_STRING", "x=%4");
  ASSERT_EQ(1, handle.Init());
  EXPECT_EQ("%4", handle.Param("x"));

  EXPECT_EQ(-1, KovaCgiInit("", nullptr));
  KOVA_CGI_HANDLE h = nullptr;
  EXPECT_EQ(-1, KovaCgiInit(nullptr, &h));
  EXPECT_EQ(nullptr, h);
}

TEST(CgiRequestTest, PostBodyIsReadOnceUpToContentLength) {
  {
    CgiRequest request;
    request.Set("QUERY_STRING", "x=from-query&only=q");
    request.Post("x=from-body&_sid=s%3D1&tail=end");
    Handle first, second;
    ASSERT_EQ(1, first.Init());
    EXPECT_EQ("from-query", first.Param("x"));  // the query string comes first
    EXPECT_EQ("s=1", first.Param("_sid"));
    EXPECT_EQ("end", first.Param("tail"));
    EXPECT_EQ("q", first.Param("only"));
    // The body is gone from standard input, yet a second handle of the request still has it.
    EXPECT_EQ("", request.Unread());
    ASSERT_EQ(1, second.Init());
    EXPECT_EQ("s=1", second.Param("_sid"));
    EXPECT_EQ("end", second.Param("tail"));
  }
  {
    // Only CONTENT_LENGTH bytes belong to the request; what follows is left alone.
    CgiRequest request;
    request.Post("k=123456&z=9", 5);
    Handle handle;
    ASSERT_EQ(1, handle.Init());
    EXPECT_EQ("123", handle.Param("k"));
    EXPECT_EQ("<null>", handle.Param("z"));
    EXPECT_EQ("456&z=9", request.Unread());
  }
  {
    // A body that is not a form is no parameter source and is not consumed.
    CgiRequest request;
    request.Post("k=1", -1, "application/json");
    Handle handle;
    ASSERT_EQ(1, handle.Init());
    EXPECT_EQ("<null>", handle.Param("k"));
    EXPECT_EQ("k=1", request.Unread());
  }
  {
    // The type may carry parameters; a GET never reads standard input.
    CgiRequest request;
    request.Post("k=2", -1, "application/x-www-form-urlencoded; charset=UTF-8");
    Handle handle;
    ASSERT_EQ(1, handle.Init());
    EXPECT_EQ("2", handle.Param("k"));
    CgiRequest get;
    get.Post("k=3");
    get.Set("REQUEST_METHOD", "GET");
    ASSERT_EQ(1, handle.Init());
    EXPECT_EQ("<null>", handle.Param("k"));
    EXPECT_EQ("k=3", get.Unread());
  }
  {
    // Exactly the largest body accepted.
    CgiRequest request;
    std::string body = "big=" + std::string(KOVA_CGI_MAX_BODY - 4, 'A');
    request.Post(body);
    Handle handle;
    ASSERT_EQ(1, handle.Init());
    EXPECT_EQ(static_cast<size_t>(KOVA_CGI_MAX_BODY - 4), handle.Param("big").size());
  }
}

TEST(CgiRequestTest, OversizedTruncatedAndMalformedBodiesAreRefused) {
  {
    // One byte over the limit: refused before a byte is read.
    CgiRequest request;
    request.Post("k=1", KOVA_CGI_MAX_BODY + 1);
    Handle handle;
    EXPECT_EQ(0, handle.Init());
    EXPECT_EQ(nullptr, handle.h);
    EXPECT_EQ("k=1", request.Unread());
    EXPECT_TRUE(kovatest::LogContains("request body of 1048577 bytes refused"));
  }
  {
    CgiRequest request;
    request.Post(std::string(2 * KOVA_CGI_MAX_BODY, 'x'));
    Handle handle;
    EXPECT_EQ(0, handle.Init());
  }
  {
    // The writer closes after 10 of 100 announced bytes.
    CgiRequest request;
    request.Post("k=12345678", 100);
    Handle handle;
    EXPECT_EQ(0, handle.Init());
    EXPECT_EQ(nullptr, handle.h);
    EXPECT_TRUE(kovatest::LogContains("truncated request body: 10 of 100 bytes"));
    EXPECT_EQ(0, handle.Init()) << "a refused body stays refused for the request";
  }
  for (char const* length : {"12abc", "-5", " 3", "99999999999999999999999999"}) {
    CgiRequest request;
    request.Post("k=1");
    request.Set("CONTENT_LENGTH", length);
    Handle handle;
    EXPECT_EQ(0, handle.Init()) << length;
  }
  {
    // No length at all is an empty body.
    CgiRequest request;
    request.Post("k=1");
    request.Unset("CONTENT_LENGTH");
    Handle handle;
    EXPECT_EQ(1, handle.Init());
    EXPECT_EQ("<null>", handle.Param("k"));
  }
}

TEST(CgiRequestTest, CookiesInAndOut) {
  CgiRequest request;
  request.Set("HTTP_COOKIE", "id=abc; theme=\"dark\";  spaced = v ;bad;=x;last=");
  Handle handle;
  ASSERT_EQ(1, handle.Init());
  EXPECT_EQ(nullptr, KovaCgiGetCookie(handle.h, "id")) << "cookies are loaded on request";
  EXPECT_EQ(4, KovaCgiLoadInCookies(handle.h));
  EXPECT_STREQ("abc", KovaCgiGetCookie(handle.h, "id"));
  EXPECT_STREQ("dark", KovaCgiGetCookie(handle.h, "theme"));
  EXPECT_STREQ("v", KovaCgiGetCookie(handle.h, "spaced"));
  EXPECT_STREQ("", KovaCgiGetCookie(handle.h, "last"));
  EXPECT_EQ(nullptr, KovaCgiGetCookie(handle.h, "bad"));
  EXPECT_STREQ("", KovaCgiGetSetCookieHeaders(handle.h));

  EXPECT_EQ(1, KovaCgiSetCookies(handle.h, "id", "s3ss10n", 0, "/", nullptr, 0));
  EXPECT_STREQ("s3ss10n", KovaCgiGetCookie(handle.h, "id"));
  EXPECT_STREQ("Set-Cookie: id=s3ss10n; Path=/; HttpOnly; SameSite=Lax\r\n",
               KovaCgiGetSetCookieHeaders(handle.h));

  // Nothing that could split the header or add an attribute gets in.
  for (char const* value :
       {"a;b", "a b", "a\"b", "a,b", "a\\b", "a\r\nSet-Cookie: x=y", "\x7f", "\xc3\xa9"}) {
    EXPECT_EQ(0, KovaCgiSetCookies(handle.h, "id", value, 0, "/", nullptr, 0)) << value;
  }
  for (char const* name : {"", "a=b", "a b", "a;b", "a\nb"}) {
    EXPECT_EQ(0, KovaCgiSetCookies(handle.h, name, "v", 0, "/", nullptr, 0)) << name;
  }
  EXPECT_EQ(0, KovaCgiSetCookies(handle.h, "id", "v", 0, "/; Domain=evil", nullptr, 0));
  EXPECT_EQ(0,
            KovaCgiSetCookies(handle.h, "id", std::string(4097, 'a').c_str(), 0, "/", nullptr, 0));
  EXPECT_EQ(-1, KovaCgiSetCookies(handle.h, "id", nullptr, 0, "/", nullptr, 0));
  EXPECT_EQ(-1, KovaCgiSetCookies(nullptr, "id", "v", 0, "/", nullptr, 0));
  EXPECT_STREQ("s3ss10n", KovaCgiGetCookie(handle.h, "id"));

  request.Set("HTTPS", "on");
  EXPECT_EQ(1, KovaCgiSetCookies(handle.h, "pref", "1", 3600, nullptr, "example.test",
                                 KOVA_CGI_COOKIE_SCRIPT_READABLE));
  EXPECT_STREQ(
      "Set-Cookie: id=s3ss10n; Path=/; HttpOnly; SameSite=Lax\r\n"
      "Set-Cookie: pref=1; Max-Age=3600; Domain=example.test; Secure; SameSite=Lax\r\n",
      KovaCgiGetSetCookieHeaders(handle.h));

  EXPECT_EQ(-1, KovaCgiLoadInCookies(nullptr));
  request.Unset("HTTP_COOKIE");
  Handle bare;
  ASSERT_EQ(1, bare.Init());
  EXPECT_EQ(0, KovaCgiLoadInCookies(bare.h));
}

TEST(CgiRequestTest, RemoteAddressMustParse) {
  CgiRequest request(nullptr);
  EXPECT_EQ("<none>", RemoteIP());
  struct Case {
    char const* given;
    char const* read;
  } const cases[] = {
      {"192.0.2.7", "192.0.2.7"},
      {"2001:DB8:0:0::1", "2001:db8::1"},
      {"::ffff:192.0.2.1", "::ffff:192.0.2.1"},
      {"::1", "::1"},
      {"", "<none>"},
      {"999.1.1.1", "<none>"},
      {"1.2.3", "<none>"},
      {"192.0.2.7 ", "<none>"},
      {" 192.0.2.7", "<none>"},
      {"fe80::1%eth0", "<none>"},
      {"192.0.2.7'; DROP TABLE session;--", "<none>"},
      {"localhost", "<none>"},
  };
  for (auto const& c : cases) {
    request.Set("REMOTE_ADDR", c.given);
    EXPECT_EQ(c.read, RemoteIP()) << c.given;
  }
  request.Set("REMOTE_ADDR", std::string(1 << 20, '1'));
  EXPECT_EQ("<none>", RemoteIP());

  // The whole address and its terminator must fit.
  request.Set("REMOTE_ADDR", "192.0.2.77");
  EXPECT_EQ("<none>", RemoteIP(10));
  EXPECT_EQ("192.0.2.77", RemoteIP(11));
  EXPECT_EQ(-1, KovaCgiGetRemoteIP(nullptr, 65));
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

  kovatest::ClearLogs();
  EXPECT_EQ(1, login("alice", "alice-secret"));
  EXPECT_STREQ("user=alice&sid=web-session-1&timeout=15", reply);
  EXPECT_EQ(1, login("Dave", "dave-secret"));
  EXPECT_STREQ("user=Dave&sid=web-session-1&timeout=15", reply);

  // A cookie set during the request is the web session the login belongs to.
  ASSERT_EQ(1, KovaCgiSetCookies(handle.h, "id", "from_sid", 0, "/", nullptr, 0));
  EXPECT_EQ(1, login("bob", "bob-secret"));
  EXPECT_STREQ("user=bob&sid=from_sid&timeout=15", reply);

  // Refusals: wrong password, empty password, another account's password, unknown account,
  // a name differing only by case, a name no account database takes.
  char const wrong[] = "Wr0ng-pa55word-that-must-not-be-logged";
  EXPECT_EQ(0, login("alice", wrong));
  EXPECT_STREQ("", reply);
  EXPECT_EQ(0, login("alice", ""));
  EXPECT_EQ(0, login("alice", "bob-secret"));
  EXPECT_EQ(0, login("zed", "alice-secret"));
  EXPECT_EQ(0, login("ALICE", "alice-secret"));
  EXPECT_EQ(0, login("", "alice-secret"));
  EXPECT_EQ(0, login(std::string(1 << 20, 'a').c_str(), "alice-secret"));
  // erin knows her password, but her account is not allowed to use this service: the account
  // step refuses what authentication accepted.
  EXPECT_EQ(0, login("erin", "erin-secret"));
  EXPECT_TRUE(kovatest::LogContains("account refused"));
  EXPECT_TRUE(kovatest::LogContains("authentication refused"));
  for (auto const& line : kovatest::LogTexts()) {
    EXPECT_EQ(std::string::npos, line.find(wrong)) << line;
    EXPECT_EQ(std::string::npos, line.find("secret")) << line;
  }

  // A reply buffer too small for the description still gets a terminated prefix.
  KOVA_CGI_LOGIN_REQ const req = {"alice", "alice-secret", "webui", 15, 0};
  char small[8];
  EXPECT_EQ(1, KovaCgiLogin(handle.h, small, sizeof small, &req));
  EXPECT_STREQ("user=al", small);
  EXPECT_EQ(1, KovaCgiLogin(handle.h, nullptr, 0, &req));

  KOVA_CGI_LOGIN_REQ const no_password = {"alice", nullptr, "webui", 15, 1};
  EXPECT_EQ(-1, KovaCgiLogin(handle.h, reply, sizeof reply, &no_password));
  EXPECT_EQ(-1, KovaCgiLogin(handle.h, reply, sizeof reply, nullptr));
  EXPECT_EQ(-1, KovaCgiLogin(nullptr, reply, sizeof reply, &req));
}
