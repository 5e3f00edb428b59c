// File helpers and the program runner of the appliance. Programs are started without a shell
// so that no argument is ever reinterpreted.
#include "klibc.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdarg.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <vector>

extern char** environ;

namespace {

// Which child belongs to which stream, so that KLIBCPclose can reap it.
std::mutex g_children_mutex;
std::map<FILE*, pid_t>& Children() {
  static std::map<FILE*, pid_t> children;
  return children;
}

FILE* Spawn(const char* program, const char* mode, const char* const* argv) {
  if (program == nullptr || mode == nullptr || argv == nullptr || mode[0] != 'r') {
    errno = EINVAL;
    return nullptr;
  }
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    return nullptr;
  }
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) {
    close(fds[0]);
    close(fds[1]);
    return nullptr;
  }
  // dup2 clears close-on-exec on the copy, so only the child's stdout survives exec.
  int rc = posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (rc == 0) {
    rc = posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  }
  pid_t pid = -1;
  if (rc == 0) {
    rc = posix_spawn(&pid, program, &actions, nullptr, const_cast<char* const*>(argv), environ);
  }
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  if (rc != 0) {
    close(fds[0]);
    errno = rc;
    return nullptr;
  }
  FILE* stream = fdopen(fds[0], "r");
  if (stream == nullptr) {
    int saved = errno;
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    errno = saved;
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(g_children_mutex);
  Children()[stream] = pid;
  return stream;
}

}  // namespace

extern "C" {

int KLIBCFileExist(const char* path) {
  if (path == nullptr) {
    return 0;
  }
  struct stat st;
  return stat(path, &st) == 0 ? 1 : 0;
}

int KLIBCFileTouch(const char* path) {
  if (path == nullptr) {
    return -1;
  }
  int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    return -1;
  }
  close(fd);
  return 0;
}

int KLIBCFileStat(const char* path, int follow, struct stat* st) {
  if (path == nullptr || st == nullptr) {
    return -1;
  }
  return follow ? stat(path, st) : lstat(path, st);
}

int KOVAFSAclChmod(const char* path, int acl, unsigned int mode) {
  (void)acl;  // access lists are not kept on these files
  if (path == nullptr) {
    return -1;
  }
  return chmod(path, static_cast<mode_t>(mode & 07777)) == 0 ? 0 : -1;
}

FILE* KLIBCPopen(const char* program, const char* mode, ...) {
  std::vector<const char*> argv;
  argv.push_back(program);
  va_list ap;
  va_start(ap, mode);
  for (;;) {
    const char* arg = va_arg(ap, const char*);
    if (arg == nullptr) {
      break;
    }
    argv.push_back(arg);
  }
  va_end(ap);
  argv.push_back(nullptr);
  return Spawn(program, mode, argv.data());
}

FILE* KLIBCPopenv(const char* program, const char* mode, const char* const argv[]) {
  return Spawn(program, mode, argv);
}

int KLIBCPclose(FILE* stream) {
  if (stream == nullptr) {
    return -1;
  }
  pid_t pid = -1;
  {
    std::lock_guard<std::mutex> lock(g_children_mutex);
    auto it = Children().find(stream);
    if (it == Children().end()) {
      return -1;
    }
    pid = it->second;
    Children().erase(it);
  }
  fclose(stream);
  int status = 0;
  pid_t got;
  do {
    got = waitpid(pid, &status, 0);
  } while (got < 0 && errno == EINTR);
  return got < 0 ? -1 : status;
}

}  // extern "C"
