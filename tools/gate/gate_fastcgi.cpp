// The gate as a persistent FastCGI server, split by privilege so that no process that parses a
// request runs as root:
//
// - the supervisor (started as root) creates the listening socket, or takes it from socket
//   activation, forks the processes below, restarts those that end, and stops them all on
//   SIGTERM or SIGINT. It reads no request.
// - one login helper stays root, because PAM may need it to check a password. It holds no
//   listening socket and no database; over a socket pair per worker it accepts only an
//   account name, a password and the client's address, length-checked, and answers yes or no
//   (KovaCgiLoginServe).
// - N request workers give up root for good (the system account, uid and gid 1, no
//   supplementary groups) before they accept a request, open the database once, and answer
//   one request at a time with the same handler as the CGI program. A worker whose database
//   is not usable exits, and the supervisor starts a fresh one.
#include "gate_fastcgi.h"

#include <errno.h>
#include <fcgiapp.h>
#include <fcntl.h>
#include <grp.h>
#include <kova_cgi.h>
#include <kova_identity.h>
#include <kovasharing/kovasharing.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace kovagate {
namespace {

char const kSource[] = "kovasharing-gate";
int const kMaxWorkers = 64;
int const kHelperTimeoutMs = 30000;
long long const kQuickExitMs = 1000;  // a worker that ended sooner is restarted after a pause
int const kFirstActivatedFd = 3;      // socket activation hands its sockets from here on

struct Options {
  std::string socket;  // empty: the socket comes from socket activation
  std::string group;   // the group that may connect (the web server's)
  int workers = 2;
};

int Usage() {
  fprintf(stderr,
          "usage: kovasharing-gate --fastcgi [--socket PATH [--socket-group GROUP]] "
          "[--workers N]\n");
  return 2;
}

long long NowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool ParseOptions(int argc, char** argv, Options& options) {
  if (argc < 2 || strcmp(argv[1], "--fastcgi") != 0) return false;
  for (int i = 2; i < argc; ++i) {
    std::string const name = argv[i];
    if (i + 1 >= argc) return false;
    char const* value = argv[++i];
    if (name == "--socket" && *value == '/') {
      options.socket = value;
    } else if (name == "--socket-group" && *value) {
      options.group = value;
    } else if (name == "--workers") {
      char* end = nullptr;
      long const n = strtol(value, &end, 10);
      if (*end != '\0' || n < 1 || n > kMaxWorkers) return false;
      options.workers = static_cast<int>(n);
    } else {
      return false;
    }
  }
  return options.group.empty() || !options.socket.empty();
}

// The listening socket at `path`, mode 0660, owned by root and `group`. A socket file left by
// an earlier run is replaced; one that still has a server behind it is not.
int CreateSocket(Options const& options) {
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (options.socket.size() >= sizeof addr.sun_path) {
    fprintf(stderr, "%s: socket path too long\n", kSource);
    return -1;
  }
  memcpy(addr.sun_path, options.socket.c_str(), options.socket.size() + 1);
  gid_t gid = 0;
  if (!options.group.empty()) {
    // A name, or a number (for a group the process's name service does not know).
    char* end = nullptr;
    unsigned long const number = strtoul(options.group.c_str(), &end, 10);
    struct group const* gr = *end == '\0' ? nullptr : getgrnam(options.group.c_str());
    if (*end != '\0' && gr == nullptr) {
      fprintf(stderr, "%s: unknown group %s\n", kSource, options.group.c_str());
      return -1;
    }
    gid = gr != nullptr ? gr->gr_gid : static_cast<gid_t>(number);
  }
  int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  struct stat st;
  if (lstat(options.socket.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      fprintf(stderr, "%s: %s is in use\n", kSource, options.socket.c_str());
      close(fd);
      return -1;
    }
    unlink(options.socket.c_str());
  }
  // Nobody but root may connect before owner and mode are right.
  mode_t const mask = umask(0177);
  bool ok = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  umask(mask);
  ok = ok && chown(options.socket.c_str(), 0, gid) == 0 &&
       chmod(options.socket.c_str(), 0660) == 0 && listen(fd, SOMAXCONN) == 0;
  if (!ok) {
    fprintf(stderr, "%s: cannot listen on %s: %s\n", kSource, options.socket.c_str(),
            strerror(errno));
    close(fd);
    return -1;
  }
  return fd;
}

// The one socket of socket activation (LISTEN_PID, LISTEN_FDS), or -1.
int ActivatedSocket() {
  char const* pid = getenv("LISTEN_PID");
  char const* fds = getenv("LISTEN_FDS");
  if (pid == nullptr || fds == nullptr || atol(pid) != getpid() || strcmp(fds, "1") != 0) {
    return -1;
  }
  unsetenv("LISTEN_PID");
  unsetenv("LISTEN_FDS");
  unsetenv("LISTEN_FDNAMES");
  int type = 0;
  socklen_t size = sizeof type;
  if (getsockopt(kFirstActivatedFd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 ||
      type != SOCK_STREAM) {
    return -1;
  }
  fcntl(kFirstActivatedFd, F_SETFD, FD_CLOEXEC);
  return kFirstActivatedFd;
}

// For good: the system account, no supplementary groups, and no way back to root.
bool DropToSystemAccount() {
  if (setgroups(0, nullptr) != 0 ||
      setresgid(KOVA_SYSTEM_GID, KOVA_SYSTEM_GID, KOVA_SYSTEM_GID) != 0 ||
      setresuid(KOVA_SYSTEM_UID, KOVA_SYSTEM_UID, KOVA_SYSTEM_UID) != 0) {
    return false;
  }
  uid_t ruid, euid, suid;
  gid_t rgid, egid, sgid;
  if (getresuid(&ruid, &euid, &suid) != 0 || getresgid(&rgid, &egid, &sgid) != 0) return false;
  return ruid == KOVA_SYSTEM_UID && euid == KOVA_SYSTEM_UID && suid == KOVA_SYSTEM_UID &&
         rgid == KOVA_SYSTEM_GID && egid == KOVA_SYSTEM_GID && sgid == KOVA_SYSTEM_GID &&
         getgroups(0, nullptr) == 0 && setresuid(0, 0, 0) != 0;
}

long ReadBody(void* context, char* buf, size_t size) {
  int const n = FCGX_GetStr(buf, static_cast<int>(size > 65536 ? 65536 : size),
                            static_cast<FCGX_Stream*>(context));
  return n;
}

[[noreturn]] void RunWorker(int listen_fd, int helper_fd) {
  prctl(PR_SET_NAME, "kovagate-worker");
  if (!DropToSystemAccount()) {
    fprintf(stderr, "%s: worker cannot give up root: %s\n", kSource, strerror(errno));
    _exit(1);
  }
  KovaCgiLoginSetHelper(helper_fd, kHelperTimeoutMs);
  KOVA::sharing::db::SharingDB& db = KOVA::sharing::db::SharingDB::Instance();
  if (!db.IsGood()) {
    fprintf(stderr, "%s: worker ends: database not usable\n", kSource);
    _exit(1);
  }
  if (FCGX_Init() != 0) _exit(1);
  signal(SIGPIPE, SIG_IGN);  // a visitor that went away ends its request, not the worker
  FCGX_Request request;
  if (FCGX_InitRequest(&request, listen_fd, 0) != 0) _exit(1);
  while (FCGX_Accept_r(&request) == 0) {
    std::string out;
    if (KovaCgiRequestBegin(request.envp, ReadBody, request.in) == 1) {
      out = Respond();
    } else {
      fprintf(stderr, "%s: request cannot be read\n", kSource);
      out = "Status: 500 Internal Server Error\r\nContent-Type: text/plain\r\n\r\n";
    }
    KovaCgiRequestEnd();
    FCGX_PutStr(out.data(), static_cast<int>(out.size()), request.out);
    FCGX_Finish_r(&request);
    if (!db.IsGood()) {
      fprintf(stderr, "%s: worker ends: database not usable\n", kSource);
      _exit(1);
    }
  }
  _exit(0);
}

[[noreturn]] void RunHelper(std::vector<int> const& fds) {
  prctl(PR_SET_NAME, "kovagate-login");
  _exit(KovaCgiLoginServe(fds.data(), fds.size(), "webui", KOVA_CGI_LOGIN_QUIET) == 0 ? 0 : 1);
}

// The processes the supervisor keeps running: slot 0 is the login helper, the others workers.
struct Slot {
  pid_t pid = -1;
  long long started = 0;
  long long restart_at = 0;  // when it is to be started again (0: now)
};

class Supervisor {
 public:
  Supervisor(int listen_fd, int workers) : listen_fd_(listen_fd), slots_(workers + 1) {}
  bool MakeChannels();
  int Run();

 private:
  void Start(size_t slot);
  void Reap();
  void StopAll();

  int listen_fd_;
  std::vector<Slot> slots_;
  std::vector<int> worker_ends_;  // per worker slot, index slot - 1
  std::vector<int> helper_ends_;
  sigset_t signals_;
  pid_t self_ = getpid();
};

bool Supervisor::MakeChannels() {
  for (size_t i = 1; i < slots_.size(); ++i) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return false;
    worker_ends_.push_back(pair[0]);
    helper_ends_.push_back(pair[1]);
  }
  return true;
}

void Supervisor::Start(size_t slot) {
  pid_t const pid = fork();
  if (pid < 0) {
    fprintf(stderr, "%s: cannot start a process: %s\n", kSource, strerror(errno));
    slots_[slot].restart_at = NowMs() + kQuickExitMs;
    return;
  }
  if (pid > 0) {
    slots_[slot].pid = pid;
    slots_[slot].started = NowMs();
    slots_[slot].restart_at = 0;
    return;
  }
  // The child: ends with the supervisor, and keeps only the descriptors of its part.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != self_) _exit(1);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (slot == 0) {
    close(listen_fd_);
    for (int const fd : worker_ends_) close(fd);
    RunHelper(helper_ends_);
  }
  for (int const fd : helper_ends_) close(fd);
  for (size_t i = 0; i < worker_ends_.size(); ++i) {
    if (i != slot - 1) close(worker_ends_[i]);
  }
  RunWorker(listen_fd_, worker_ends_[slot - 1]);
}

void Supervisor::Reap() {
  int status = 0;
  pid_t pid;
  while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
    for (size_t i = 0; i < slots_.size(); ++i) {
      if (slots_[i].pid != pid) continue;
      slots_[i].pid = -1;
      long long const now = NowMs();
      slots_[i].restart_at = now - slots_[i].started < kQuickExitMs ? now + kQuickExitMs : now;
      if (WIFSIGNALED(status)) {
        fprintf(stderr, "%s: %s %d ended by signal %d\n", kSource,
                i == 0 ? "login helper" : "worker", static_cast<int>(pid), WTERMSIG(status));
      } else {
        fprintf(stderr, "%s: %s %d ended with status %d\n", kSource,
                i == 0 ? "login helper" : "worker", static_cast<int>(pid), WEXITSTATUS(status));
      }
    }
  }
}

void Supervisor::StopAll() {
  for (auto const& slot : slots_) {
    if (slot.pid > 0) kill(slot.pid, SIGTERM);
  }
  long long const deadline = NowMs() + 5000;
  for (auto& slot : slots_) {
    while (slot.pid > 0) {
      pid_t const pid = waitpid(slot.pid, nullptr, WNOHANG);
      if (pid == slot.pid || (pid < 0 && errno != EINTR)) {
        slot.pid = -1;
      } else if (NowMs() > deadline) {
        kill(slot.pid, SIGKILL);
        waitpid(slot.pid, nullptr, 0);
        slot.pid = -1;
      } else {
        usleep(10000);
      }
    }
  }
}

int Supervisor::Run() {
  sigemptyset(&signals_);
  for (int const sig : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals_, sig);
  sigprocmask(SIG_BLOCK, &signals_, nullptr);
  for (;;) {
    long long const now = NowMs();
    long long wait_ms = 60000;
    for (size_t i = 0; i < slots_.size(); ++i) {
      if (slots_[i].pid > 0) continue;
      if (slots_[i].restart_at <= now) {
        Start(i);
      } else if (slots_[i].restart_at - now < wait_ms) {
        wait_ms = slots_[i].restart_at - now;
      }
    }
    struct timespec timeout = {static_cast<time_t>(wait_ms / 1000),
                               static_cast<long>(wait_ms % 1000) * 1000000};
    int const sig = sigtimedwait(&signals_, nullptr, &timeout);
    if (sig == SIGCHLD) {
      Reap();
    } else if (sig == SIGTERM || sig == SIGINT || sig == SIGHUP) {
      StopAll();
      return 0;
    }
  }
}

}  // namespace

int FastCgiMain(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) return Usage();
  if (geteuid() != 0) {
    fprintf(stderr, "%s: the FastCGI server starts as root (its workers then give it up)\n",
            kSource);
    return 1;
  }
  int const listen_fd = options.socket.empty() ? ActivatedSocket() : CreateSocket(options);
  if (listen_fd < 0) {
    if (options.socket.empty()) {
      fprintf(stderr, "%s: no socket: give --socket PATH, or start through socket activation\n",
              kSource);
    }
    return 1;
  }
  Supervisor supervisor(listen_fd, options.workers);
  if (!supervisor.MakeChannels()) {
    fprintf(stderr, "%s: cannot make the login helper's channels: %s\n", kSource, strerror(errno));
    return 1;
  }
  int const status = supervisor.Run();
  if (!options.socket.empty()) unlink(options.socket.c_str());
  return status;
}

}  // namespace kovagate
