#include "kova_user.h"

#include <grp.h>
#include <pwd.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// The reentrant look-ups get a buffer of this size first and twice as much on every ERANGE,
// up to the ceiling; a record larger than that is treated as a look-up error.
constexpr std::size_t kFirstBuffer = 512;
constexpr std::size_t kBufferCeiling = std::size_t{1} << 22;

enum Lookup { kFound, kMissing, kError };

// "Not found" as the C libraries report it: a null result with 0, or one of the codes that
// some NSS modules give instead.
bool IsMissing(int rc) { return rc == 0 || rc == ENOENT || rc == ESRCH; }

// Runs `call(buf, size)` (a *_r look-up returning its error code, result pointer captured by
// the callable), growing `buf` while the record does not fit.
template <typename Call>
Lookup Reentrant(std::vector<char>& buf, Call call, bool& found) {
  buf.resize(kFirstBuffer);
  for (;;) {
    found = false;
    errno = 0;
    int const rc = call(buf.data(), buf.size());
    // A short buffer is ERANGE; some NSS layers give -1 and leave ERANGE in errno instead.
    if (rc == ERANGE || (rc == -1 && errno == ERANGE)) {
      if (buf.size() >= kBufferCeiling) return kError;
      buf.resize(buf.size() * 2);
      continue;
    }
    if (found) return kFound;
    return IsMissing(rc) ? kMissing : kError;
  }
}

Lookup PasswdByName(char const* name, passwd& pw, std::vector<char>& buf) {
  bool found = false;
  return Reentrant(
      buf,
      [&](char* b, std::size_t n) {
        passwd* result = nullptr;
        int const rc = getpwnam_r(name, &pw, b, n, &result);
        found = rc == 0 && result != nullptr;
        return rc;
      },
      found);
}

Lookup PasswdByUID(uid_t uid, passwd& pw, std::vector<char>& buf) {
  bool found = false;
  return Reentrant(
      buf,
      [&](char* b, std::size_t n) {
        passwd* result = nullptr;
        int const rc = getpwuid_r(uid, &pw, b, n, &result);
        found = rc == 0 && result != nullptr;
        return rc;
      },
      found);
}

Lookup GroupByName(char const* name, group& gr, std::vector<char>& buf) {
  bool found = false;
  return Reentrant(
      buf,
      [&](char* b, std::size_t n) {
        group* result = nullptr;
        int const rc = getgrnam_r(name, &gr, b, n, &result);
        found = rc == 0 && result != nullptr;
        return rc;
      },
      found);
}

Lookup GroupByGID(gid_t gid, group& gr, std::vector<char>& buf) {
  bool found = false;
  return Reentrant(
      buf,
      [&](char* b, std::size_t n) {
        group* result = nullptr;
        int const rc = getgrgid_r(gid, &gr, b, n, &result);
        found = rc == 0 && result != nullptr;
        return rc;
      },
      found);
}

char* Dup(char const* s) { return strdup(s ? s : ""); }

// A new user record from a passwd entry, or null when memory runs out.
KOVAUSER* NewUser(passwd const& pw) {
  KOVAUSER* user = static_cast<KOVAUSER*>(calloc(1, sizeof(KOVAUSER)));
  if (user == nullptr) return nullptr;
  user->name = Dup(pw.pw_name);
  user->uid = pw.pw_uid;
  user->gid = pw.pw_gid;
  user->home = Dup(pw.pw_dir);
  user->shell = Dup(pw.pw_shell);
  if (!user->name || !user->home || !user->shell) {
    KOVAUserFree(user);
    return nullptr;
  }
  return user;
}

int FinishUser(Lookup lookup, passwd const& pw, KOVAUSER** user) {
  if (lookup == kMissing) return -1;
  if (lookup == kError) return -2;
  KOVAUSER* made = NewUser(pw);
  if (made == nullptr) return -3;
  *user = made;
  return 0;
}

// Every group id of `name` whose primary group is `primary`, the primary first, each once.
bool GroupList(char const* name, gid_t primary, std::vector<gid_t>& out) {
  int count = 16;
  std::vector<gid_t> gids;
  for (;;) {
    gids.resize(static_cast<std::size_t>(count));
    int n = count;
    if (getgrouplist(name, primary, gids.data(), &n) >= 0) {
      gids.resize(static_cast<std::size_t>(n));
      break;
    }
    // `n` now holds the number needed (some implementations only say "more").
    if (n <= count) n = count * 2;
    if (n > 65536) return false;
    count = n;
  }
  out.clear();
  out.push_back(primary);
  for (gid_t g : gids) {
    bool seen = false;
    for (gid_t o : out) seen = seen || o == g;
    if (!seen) out.push_back(g);
  }
  return true;
}

}  // namespace

extern "C" {

int KOVAUserLoginNameConvert(const char* name, char* out, size_t size, int /*flags*/) {
  if (name == nullptr || out == nullptr || size == 0) return -2;
  if (*name == '\0') return 0;
  passwd pw;
  std::vector<char> buf;
  switch (PasswdByName(name, pw, buf)) {
    case kFound:
      return 0;  // already a login name
    case kError:
      return -2;
    case kMissing:
      break;
  }
  // Walk the user database for names equal but for letter case. Two or more such names make
  // the request ambiguous: nothing is converted rather than picking one of the accounts.
  std::string match;
  int matches = 0;
  int error = 0;
  buf.resize(kFirstBuffer);
  setpwent();
  for (;;) {
    passwd* result = nullptr;
    int const rc = getpwent_r(&pw, buf.data(), buf.size(), &result);
    if (rc == ERANGE) {
      if (buf.size() >= kBufferCeiling) {
        error = rc;
        break;
      }
      // Not every NSS layer keeps the entry that did not fit for the next call, so the walk
      // starts again with the larger buffer.
      buf.resize(buf.size() * 2);
      match.clear();
      matches = 0;
      endpwent();
      setpwent();
      continue;
    }
    if (rc != 0 || result == nullptr) {
      if (rc != 0 && rc != ENOENT) error = rc;
      break;
    }
    if (strcasecmp(pw.pw_name, name) == 0 && match != pw.pw_name) {
      match = pw.pw_name;
      ++matches;
    }
  }
  endpwent();
  if (error != 0) return -2;
  if (matches != 1) return 0;
  if (match.size() + 1 > size) return -3;
  memcpy(out, match.c_str(), match.size() + 1);
  return 1;
}

int KOVAUserGet(const char* name, KOVAUSER** user) {
  if (name == nullptr || user == nullptr) return -2;
  passwd pw;
  std::vector<char> buf;
  return FinishUser(PasswdByName(name, pw, buf), pw, user);
}

int KOVAUserGetByUID(unsigned int uid, KOVAUSER** user) {
  if (user == nullptr) return -2;
  passwd pw;
  std::vector<char> buf;
  return FinishUser(PasswdByUID(static_cast<uid_t>(uid), pw, buf), pw, user);
}

void KOVAUserFree(KOVAUSER* user) {
  if (user == nullptr) return;
  free(user->name);
  free(user->home);
  free(user->shell);
  free(user);
}

int KOVAGroupGetGID(const char* name, unsigned int* gid) {
  if (name == nullptr || gid == nullptr) return -2;
  group gr;
  std::vector<char> buf;
  switch (GroupByName(name, gr, buf)) {
    case kFound:
      *gid = gr.gr_gid;
      return 0;
    case kMissing:
      return -1;
    case kError:
      break;
  }
  return -2;
}

int KOVAGroupGetByGID(unsigned int gid, KOVAGROUP** out) {
  if (out == nullptr) return -2;
  group gr;
  std::vector<char> buf;
  switch (GroupByGID(static_cast<gid_t>(gid), gr, buf)) {
    case kFound:
      break;
    case kMissing:
      return -1;
    case kError:
      return -2;
  }
  KOVAGROUP* made = static_cast<KOVAGROUP*>(calloc(1, sizeof(KOVAGROUP)));
  if (made == nullptr) return -3;
  made->name = Dup(gr.gr_name);
  made->gid = gr.gr_gid;
  if (made->name == nullptr) {
    KOVAGroupFree(made);
    return -3;
  }
  *out = made;
  return 0;
}

void KOVAGroupFree(KOVAGROUP* group) {
  if (group == nullptr) return;
  free(group->name);
  free(group);
}

// Entries carry the group name and the gid in decimal; a gid without a group record (a
// primary group that the group database does not list) keeps its entry with a null name.
KLIBCSzHash* KLIBGroupInfoHashGet(const char* user, int with_primary, int /*flags*/) {
  if (user == nullptr) return nullptr;
  passwd pw;
  std::vector<char> buf;
  if (PasswdByName(user, pw, buf) != kFound) return nullptr;
  gid_t const primary = pw.pw_gid;
  std::string const login = pw.pw_name;
  std::vector<gid_t> gids;
  if (!GroupList(login.c_str(), primary, gids)) return nullptr;
  if (!with_primary) gids.erase(gids.begin());

  KLIBCSzHash* hash = static_cast<KLIBCSzHash*>(calloc(1, sizeof(KLIBCSzHash)));
  if (hash == nullptr) return nullptr;
  if (!gids.empty()) {
    hash->entries = static_cast<KLIBCSzHashEntry*>(calloc(gids.size(), sizeof(KLIBCSzHashEntry)));
    if (hash->entries == nullptr) {
      free(hash);
      return nullptr;
    }
  }
  for (gid_t g : gids) {
    KLIBCSzHashEntry& e = hash->entries[hash->count];
    ++hash->count;
    char number[16];
    snprintf(number, sizeof number, "%u", static_cast<unsigned>(g));
    e.value = strdup(number);
    if (e.value == nullptr) {
      KLIBCSzHashFree(hash);
      return nullptr;
    }
    group gr;
    switch (GroupByGID(g, gr, buf)) {
      case kFound:
        e.name = strdup(gr.gr_name);
        if (e.name == nullptr) {
          KLIBCSzHashFree(hash);
          return nullptr;
        }
        break;
      case kMissing:
        break;
      case kError:
        KLIBCSzHashFree(hash);
        return nullptr;
    }
  }
  return hash;
}

void KLIBCSzHashFree(KLIBCSzHash* hash) {
  if (hash == nullptr) return;
  for (int i = 0; i < hash->count; ++i) {
    free(hash->entries[i].name);
    free(hash->entries[i].value);
  }
  free(hash->entries);
  free(hash);
}

}  // extern "C"
