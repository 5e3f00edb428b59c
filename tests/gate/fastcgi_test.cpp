// The gate as a FastCGI server: the supervisor, its login helper and its workers as real
// processes, driven through cgi-fcgi over the server's socket; and what that server
// rests on: the web-request layer's per-request reset and the login helper's questions.
#include <gtest/gtest.h>
#include <kova_autoblock.h>
#include <kova_cgi.h>
#include <kovasharing/kovasharing.h>
#include <signal.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "gate_client.h"
#include "kovatest.h"
#include "kovatest_sharing.h"

namespace {

using KOVA::sharing::record::Entry;
using kovatest::Env;
using kovatest::Response;
using kovatest::Visitor;

// ---------------------------------------------------------------- processes

std::string StatusField(pid_t pid, std::string const& field) {
  std::string const status = "\n" + kovatest::ReadFile("/proc/" + std::to_string(pid) + "/status");
  size_t const at = status.find("\n" + field + ":\t");
  if (at == std::string::npos) return "?";
  size_t const begin = at + field.size() + 3;
  return status.substr(begin, status.find('\n', begin) - begin);
}

std::vector<pid_t> Children(pid_t parent) {
  std::string const id = std::to_string(parent);
  std::istringstream in(kovatest::ReadFile("/proc/" + id + "/task/" + id + "/children"));
  return {std::istream_iterator<pid_t>(in), std::istream_iterator<pid_t>()};
}

// `kovasharing-gate --fastcgi` with its own socket, or with one made here and handed over as
// socket activation does; standard error goes to a file.
class Server {
 public:
  explicit Server(int workers, bool wait = true, bool activated = false)
      : socket_(dir_.File("gate.sock")) {
    int listener = -1;
    if (activated) {
      listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
      struct sockaddr_un addr = {};
      addr.sun_family = AF_UNIX;
      snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socket_.c_str());
      EXPECT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
      EXPECT_EQ(0, listen(listener, 16));
    }
    pid_ = fork();
    if (pid_ == 0) {
      std::string const count = std::to_string(workers);
      if (activated) {
        dup2(listener, 3);
        setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
        setenv("LISTEN_FDS", "1", 1);
      }
      if (freopen(dir_.File("err").c_str(), "w", stderr) != nullptr) {
        if (activated) {
          execl(KOVA_GATE_BINARY, KOVA_GATE_BINARY, "--fastcgi", "--workers", count.c_str(),
                static_cast<char*>(nullptr));
        }
        execl(KOVA_GATE_BINARY, KOVA_GATE_BINARY, "--fastcgi", "--socket", socket_.c_str(),
              "--workers", count.c_str(), static_cast<char*>(nullptr));
      }
      _exit(127);
    }
    if (listener >= 0) close(listener);
    EXPECT_TRUE(!wait || WaitForWorkers(workers)) << Err();
  }
  ~Server() {  // the server ends with its helper and workers gone
    std::vector<pid_t> const children = Children(pid_);
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << Err();
    for (pid_t const child : children) EXPECT_NE(0, kill(child, 0)) << child << " outlived it";
  }
  // The workers: the children that are not the login helper.
  std::vector<pid_t> Workers() const {
    std::vector<pid_t> workers;
    for (pid_t const pid : Children(pid_)) {
      if (StatusField(pid, "Name") == "kovagate-worker") workers.push_back(pid);
    }
    return workers;
  }
  bool WaitForWorkers(size_t count, pid_t gone = 0) const {
    for (int i = 0; i < 500; ++i) {
      std::vector<pid_t> const workers = Workers();
      struct stat st;
      if (workers.size() == count && stat(socket_.c_str(), &st) == 0 &&
          std::find(workers.begin(), workers.end(), gone) == workers.end()) {
        return true;
      }
      usleep(10000);
    }
    return false;
  }
  std::string Err() const { return kovatest::ReadFile(dir_.File("err")); }
  std::string const& socket() const { return socket_; }
  pid_t pid() const { return pid_; }

 private:
  kovatest::TempDir dir_;
  std::string socket_;
  pid_t pid_ = -1;
};

class FastCgiTest : public kovatest::SharingTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(kovatest::RealRoot()) << "the server starts as root";
    SharingTest::SetUp();
  }
};

TEST_F(FastCgiTest, WorkersRunAsTheSystemAccountAndVisitorsLogIn) {
  Server server(2);
  struct stat st;
  ASSERT_EQ(0, stat(server.socket().c_str(), &st));
  EXPECT_EQ(0660u, st.st_mode & 07777);
  std::vector<pid_t> const children = Children(server.pid());
  ASSERT_EQ(3u, children.size());
  for (pid_t const pid : children) {
    bool const helper = StatusField(pid, "Name") == "kovagate-login";
    EXPECT_EQ(helper ? "0\t0\t0\t0" : "1\t1\t1\t1", StatusField(pid, "Uid")) << pid;
    EXPECT_EQ(helper ? "0\t0\t0\t0" : "1\t1\t1\t1", StatusField(pid, "Gid")) << pid;
    EXPECT_TRUE(helper || StatusField(pid, "Groups") == " ") << "no groups: " << pid;
  }

  // An account login: the worker asks the login helper, which alone may read the passwords.
  std::string const hash = kovatest::MakeLink(
      [](Entry& e) { e.set_protect_type(Entry::PROTECT_USER).set_protect_groups({"editors"}); });
  Visitor visitor = Visitor::FastCgi(server.socket());
  EXPECT_TRUE(visitor.Get(hash).Has("name=\"zel_username\""));
  EXPECT_EQ(403, visitor.Post(hash, "zel_username=alice&zel_password=wrong").status);
  EXPECT_EQ(303, visitor.Post(hash, "zel_username=alice&zel_password=alice-secret").status);
  EXPECT_TRUE(visitor.Get(hash).Has("Holiday pictures"));
}

// One worker serves every request; none of them sees the body or the cookies of the one
// before. A killed worker is replaced, and a 500 writes one line to standard error.
TEST_F(FastCgiTest, OneWorkerForgetsEachRequestAndIsReplacedWhenKilled) {
  Server server(1, true, true);  // its socket from socket activation
  std::string const hash = kovatest::PasswordLink();
  Visitor visitor = Visitor::FastCgi(server.socket());
  ASSERT_EQ(303, visitor.Post(hash, "password=open+sesame").status);
  ASSERT_TRUE(visitor.Get(hash).Has("Holiday pictures"));
  Visitor stranger = Visitor::FastCgi(server.socket());
  EXPECT_EQ(403, stranger.Post(hash, "").status) << "the earlier body is gone";
  EXPECT_TRUE(stranger.Get(hash).Has("name=\"password\"")) << "so are its cookies";
  // Nor what the gate made of one: HTTPS learnt from a trusted proxy, a chosen language.
  Env const proxied = {{"KOVASHARING_GATE_TRUSTED_PROXIES", "192.0.2.30"},
                       {"HTTP_X_FORWARDED_PROTO", "https"},
                       {"HTTP_ORIGIN", "https://gate.test"},
                       {"HTTP_ACCEPT_LANGUAGE", "de"}};
  Visitor behind_proxy = Visitor::FastCgi(server.socket());
  Visitor plain = Visitor::FastCgi(server.socket());
  Response r = behind_proxy.Post(hash, "password=open+sesame", proxied);
  EXPECT_EQ(0u, r.Header("Set-Cookie").find("__Host-sharing_sid_")) << r.Header("Set-Cookie");
  EXPECT_TRUE(behind_proxy.Send("GET", hash, "", proxied).Has("<html lang=\"de\">"));
  EXPECT_EQ(0u, plain.Post(hash, "password=open+sesame").Header("Set-Cookie").find("sharing_sid_"));
  EXPECT_TRUE(plain.Get(hash).Has("<html lang=\"en\">"));

  std::vector<pid_t> const before = server.Workers();
  ASSERT_EQ(1u, before.size());
  ASSERT_EQ(0, kill(before[0], SIGKILL));
  ASSERT_TRUE(server.WaitForWorkers(1, before[0]));
  EXPECT_NE(std::string::npos,
            server.Err().find("worker " + std::to_string(before[0]) + " ended by signal 9"));
  EXPECT_TRUE(visitor.Get(hash).Has("Holiday pictures"));

  std::string const err = server.Err();
  visitor.address = "";  // no client address
  EXPECT_EQ(500, visitor.Get(hash).status);
  EXPECT_EQ(err + "kovasharing-gate: authorization check failed\n", server.Err());
}

// A worker that cannot open the database ends; the supervisor starts another, after a pause
// when the last one lived less than a second, until one can.
TEST_F(FastCgiTest, AWorkerWithoutItsDatabaseEndsAndAnotherTakesOver) {
  std::string const hash = kovatest::PasswordLink();
  std::string const dir = kovatest::Root() + "/usr/kova/etc/private/session/sharing";
  struct stat st;
  ASSERT_EQ(0, stat(dir.c_str(), &st));
  ASSERT_EQ(0, chmod(dir.c_str(), 0));
  Server server(1, false);
  usleep(2500 * 1000);
  chmod(dir.c_str(), st.st_mode & 07777);
  std::string const err = server.Err();
  size_t ended = 0;
  for (size_t at = 0; (at = err.find("ended with status 1", at)) != std::string::npos; ++at)
    ++ended;
  EXPECT_TRUE(ended >= 2 && ended <= 4) << err;
  EXPECT_NE(std::string::npos, err.find("kovasharing-gate: worker ends: database not usable\n"));
  EXPECT_TRUE(Visitor::FastCgi(server.socket()).Get(hash).Has("name=\"password\""));
}

// A CGI request whose query words arrive as arguments is answered as one, never as a command.
TEST(GateCgi, ArgumentsOfACgiRequestAreNoOptions) {
  kovatest::Outcome const run = kovatest::Run(
      {KOVA_GATE_BINARY, "--fastcgi"},
      {{"GATEWAY_INTERFACE", "CGI/1.1"}, {"REQUEST_METHOD", "GET"}, {"QUERY_STRING", "--fastcgi"}});
  EXPECT_EQ(0u, run.out.find("Status: 404 ")) << run.out;
}

// ---------------------------------------------------------------- the parts beneath

long ReadString(void* context, char* buf, size_t size) {
  auto* text = static_cast<std::string*>(context);
  size_t const n = std::min(size, text->size());
  memcpy(buf, text->data(), n);
  text->erase(0, n);
  return static_cast<long>(n);
}

TEST(CgiRequestReset, NothingOfARequestReachesTheNext) {
  setenv("REMOTE_ADDR", "198.51.100.7", 1);  // the process's own: no request may see it
  std::string body = "password=first";
  char const* const first[] = {"REQUEST_METHOD=POST",
                               "CONTENT_TYPE=application/x-www-form-urlencoded",
                               "CONTENT_LENGTH=14", "HTTP_COOKIE=sid=one", nullptr};
  ASSERT_EQ(1, KovaCgiRequestBegin(first, ReadString, &body));
  EXPECT_EQ(nullptr, getenv("REMOTE_ADDR"));
  KOVA_CGI_HANDLE h = nullptr;
  ASSERT_EQ(1, KovaCgiInit("", &h));
  KovaCgiLoadInCookies(h);
  EXPECT_STREQ("first", KovaCgiGetRequestParam(h, "password", 0));
  EXPECT_STREQ("one", KovaCgiGetCookie(h, "sid"));
  KovaCgiFree(h);
  KovaCgiRequestEnd();
  EXPECT_STREQ("198.51.100.7", getenv("REMOTE_ADDR"));
  EXPECT_EQ(nullptr, getenv("HTTP_COOKIE"));

  // The next request announces a body of the same size but brings none.
  char const* const second[] = {"REQUEST_METHOD=POST",
                                "CONTENT_TYPE=application/x-www-form-urlencoded",
                                "CONTENT_LENGTH=14", nullptr};
  ASSERT_EQ(1, KovaCgiRequestBegin(second, nullptr, nullptr));
  EXPECT_EQ(0, KovaCgiInit("", &h)) << "refused as a short body, not answered from the last";
  KovaCgiRequestEnd();
  EXPECT_EQ(-1, KovaCgiRequestBegin(nullptr, nullptr, nullptr));
  unsetenv("REMOTE_ADDR");
}

// A question to the login helper as a worker sends it: id, three lengths, the texts.
std::string Question(uint64_t id, std::string const& name, std::string const& password,
                     std::string const& address, size_t name_length = std::string::npos) {
  std::string q(reinterpret_cast<char const*>(&id), 8);
  for (size_t n : {name_length == std::string::npos ? name.size() : name_length, password.size(),
                   address.size()}) {
    q += static_cast<char>(n >> 8);
    q += static_cast<char>(n & 0xff);
  }
  return q + name + password + address;
}

TEST(LoginHelper, AnswersWellFormedQuestionsOnly) {
  int pair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair));
  pid_t const pid = fork();
  if (pid == 0) {
    close(pair[0]);
    _exit(KovaCgiLoginServe(&pair[1], 1, "webui", KOVA_CGI_LOGIN_QUIET) == 0 ? 0 : 1);
  }
  close(pair[1]);
  struct {
    std::string question;
    char answer;
  } const cases[] = {
      {Question(7, "alice", "alice-secret", "192.0.2.1"), 'y'},
      {Question(7, "alice", "wrong", "192.0.2.1"), 'n'},
      {Question(7, "alice", "alice-secret", "192.0.2.1", 4), 'n'},  // lengths disagree
      {Question(7, "alice", "alice-secret", "not-an-address"), 'n'},
      {Question(7, std::string("alice\0x", 7), "alice-secret", ""), 'n'},
      {Question(7, "", "alice-secret", ""), 'n'},
      {Question(7, std::string(257, 'a'), "alice-secret", ""), 'n'},
      {Question(7, "alice", std::string(1025, 'p'), ""), 'n'},
      {std::string("\7\0\0", 3), 'n'},
  };
  for (auto const& c : cases) {
    ASSERT_EQ(static_cast<ssize_t>(c.question.size()),
              send(pair[0], c.question.data(), c.question.size(), 0));
    char answer[16] = {};
    ASSERT_EQ(9, recv(pair[0], answer, sizeof answer, 0));
    EXPECT_EQ(c.answer, answer[8]) << c.question.size();
    EXPECT_EQ(c.question.size() >= 8 ? 7 : 0, answer[0]) << "the answer names its question";
  }
  // The platform login asks the helper when one is set, and never takes the answer to a
  // question that is not its own (one left unread by a worker before it).
  std::string const stale = Question(9, "alice", "alice-secret", "");
  send(pair[0], stale.data(), stale.size(), 0);
  KovaCgiLoginSetHelper(pair[0], 5000);
  setenv("REMOTE_ADDR", "192.0.2.1", 1);
  KOVA_CGI_HANDLE h = nullptr;
  ASSERT_EQ(1, KovaCgiInit("", &h));
  char reply[128];
  KOVA_CGI_LOGIN_REQ request = {"alice", "wrong", "webui", 15, KOVA_CGI_LOGIN_QUIET};
  EXPECT_EQ(0, KovaCgiLogin(h, reply, sizeof reply, &request));
  request.password = "alice-secret";
  EXPECT_EQ(1, KovaCgiLogin(h, reply, sizeof reply, &request));
  EXPECT_STREQ("user=alice&sid=&timeout=15", reply);
  KovaCgiFree(h);
  KovaCgiLoginSetHelper(-1, 0);
  unsetenv("REMOTE_ADDR");
  close(pair[0]);
  int status = -1;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the helper ends with its peer";
}

}  // namespace
