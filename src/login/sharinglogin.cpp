// The visitor functions. Each call opens its own stores over the process-wide sharing
// database; nothing is kept between calls but the rows. The order of the checks is part of
// the contract: a blocked address is refused before the link is looked at, and a failed login
// is counted only where a visitor guessed a password or an account.
#include "kovasharing/sharinglogin.h"

#include <kova_log.h>
#include <string.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "db/run_as.h"
#include "kova_autoblock.h"
#include "kova_cgi.h"
#include "kova_user.h"
#include "kovasharing/constants.h"
#include "kovasharing/entry.h"
#include "kovasharing/entry_db.h"
#include "kovasharing/session.h"
#include "kovasharing/session_db.h"
#include "kovasharing/sharing_db.h"
#include "kovasharing/token.h"
#include "kovasharing/token_db.h"
#include "kovasharing/utils.h"
#include "store/entry_db_private.h"
#include "store/session_db_private.h"
#include "store/token_db_private.h"

namespace {

using KOVA::sharing::SystemSpan;
using KOVA::sharing::db::EntryDBPrivate;
using KOVA::sharing::db::Lookup;
using KOVA::sharing::db::SessionDBPrivate;
using KOVA::sharing::db::SharingDB;
using KOVA::sharing::db::TokenDBPrivate;
using KOVA::sharing::db::WriteTransaction;
using KOVA::sharing::record::Entry;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;

char const kSource[] = "sharinglogin";
char const kService[] = "SHARING";
long const kLifetime = 86400;  // sessions and tokens live one day from their last use
size_t const kAddressSize = 65;

// The account login of the platform: the reply size it expects, the client kind of the web
// front end, the idle minutes of its web login and the flag that keeps PAM modules quiet.
size_t const kReplySize = 123;
char const kClientKind[] = "webui";
int const kLoginTimeoutMin = 15;
int const kLoginFlags = 1;

// Results of the account check.
int const kAccountOk = 1;
int const kAccountLoginRefused = -2;
int const kAccountInternal = -4;
int const kAccountNotAllowed = -6;

int CheckAccountWith(KOVA_CGI_HANDLE& cgi, KOVAUSER*& user, Entry const& entry,
                     _tag_sharing_login_params const* params, unsigned int& uid) {
  if (KovaCgiInit("", &cgi) != 1) return kAccountInternal;
  KovaCgiLoadInCookies(cgi);
  // The web front end passes its own session id as "_sid"; the account login expects it as the
  // cookie "id".
  char const* sid = KovaCgiGetRequestParam(cgi, "_sid", 0);
  if (sid != nullptr && *sid != '\0' &&
      KovaCgiSetCookies(cgi, "id", sid, 0, "/", nullptr, 0) != 1) {
    return kAccountInternal;
  }
  std::set<unsigned int> gids;
  if (params->username != nullptr) {
    std::string const real = KOVA::sharing::GetRealUsername(params->username);
    char reply[kReplySize];
    memset(reply, 0, sizeof reply);
    KOVA_CGI_LOGIN_REQ const request = {real.c_str(), params->user_password, kClientKind,
                                        kLoginTimeoutMin, kLoginFlags};
    if (KovaCgiLogin(cgi, reply, sizeof reply, &request) != 1) return kAccountLoginRefused;
    // A look-up error other than "no such user" still reports success without a record.
    if (!KOVA::sharing::UserGet(params->username, user) || user == nullptr ||
        !KOVA::sharing::UserGroupsGet(user, gids)) {
      return kAccountInternal;
    }
    uid = user->uid;
  } else {
    if (KOVAUserGetByUID(uid, &user) != 0 || user == nullptr) return kAccountInternal;
    if (!KOVA::sharing::UserGroupsGet(user, gids)) return kAccountInternal;
  }
  for (unsigned int const allowed : entry.get_protect_uids()) {
    if (allowed == user->uid) return kAccountOk;
  }
  for (unsigned int const allowed : entry.get_protect_gids()) {
    if (gids.count(allowed) != 0) return kAccountOk;
  }
  return kAccountNotAllowed;
}

// Is the visitor one of the link's users or in one of its groups? With a user name the
// account logs in again (and `uid` receives its id); without one, the account `uid` that
// logged in before is checked. The account login and the user look-ups run as the caller,
// outside the call's system span.
int CheckAccount(Entry const& entry, _tag_sharing_login_params const* params, unsigned int& uid,
                 SystemSpan& span) {
  span.Leave();
  KOVA_CGI_HANDLE cgi = nullptr;
  KOVAUSER* user = nullptr;
  int const result = CheckAccountWith(cgi, user, entry, params, uid);
  KovaCgiFree(cgi);
  if (user != nullptr) KOVAUserFree(user);
  span.Enter();
  return result;
}

// Finds or makes the session and the token of a login that passed every check. False leaves
// `token` as it then stands, for the caller to delete.
bool StoreLogin(SharingDB& sdb, SessionDBPrivate& session_db, TokenDBPrivate& token_db,
                Entry const& entry, _tag_sharing_login_params const* params, unsigned int uid,
                Session& session, Token& token) {
  if (!sdb.IsGood()) return false;
  char address[kAddressSize];
  memset(address, 0, sizeof address);
  if (KovaCgiGetRemoteIP(address, sizeof address) < 0) return false;
  long const timeout = time(nullptr) + kLifetime;

  if (params->session_id != nullptr && session_db.GetBySessionId(params->session_id, session)) {
    session.set_ip(address).set_timeout(timeout);
  } else {
    // A look-up that met an expired row has filled `session` from it; nothing of that row may
    // carry over into the new session.
    session = Session();
    session.set_ip(address).set_timeout(timeout);
    if (!session_db.CreateWithSessionId(session)) return false;
  }

  if (token_db.GetBySessionEntry(session, entry, token)) {
    token.set_timeout(timeout);
    if (!token_db.Update(token.GetCObject())) return false;
  } else {
    token = Token();  // likewise: the expired row stays as it is, the new token starts empty
    token.set_session_id(session.get_id()).set_entry_id(entry.get_id()).set_timeout(timeout);
    if (!token_db.Create(token.GetObject())) return false;
  }

  if (entry.get_protect_type() == Entry::PROTECT_USER) session.set_uid(uid);
  return session_db.Update(session.GetCObject());
}

bool UsedUp(Entry const& entry) {
  return entry.get_expire_times() > 0 && entry.get_use_count() >= entry.get_expire_times();
}

// What the checks of a login look at: every column but the use count.
std::map<std::string, std::string> CheckedFields(Entry const& entry) {
  std::map<std::string, std::string> fields = entry.GetFieldMap();
  fields.erase(KOVA::sharing::SZK_USE_COUNT);
  return fields;
}

// The entry's protection against the visitor's password or account. 1 lets the visitor in
// (for an account link `uid` receives the account); otherwise the login's refusal, counted as
// a failed login where it is a guess.
int CheckProtection(Entry const& entry, _tag_sharing_login_params const* params, bool quiet,
                    char const* address, unsigned int& uid, SystemSpan& span) {
  switch (entry.get_protect_type()) {
    case Entry::PROTECT_PASSWORD: {
      int code = 1;
      if (params->password == nullptr) {
        code = -3;
      } else if (!entry.IsPasswordValid(params->password)) {
        code = -9;
      }
      if (code != 1) AutoBlockFailLoginSet(address, kService);
      return code;
    }
    case Entry::PROTECT_USER: {
      int const result = CheckAccount(entry, params, uid, span);
      if (result == kAccountOk) return 1;
      if (result == kAccountNotAllowed) {
        // A quiet caller probes several accounts on purpose; that is no attack.
        if (!quiet) AutoBlockFailLoginSet(address, kService);
        return -10;
      }
      AutoBlockFailLoginSet(address, kService);
      return result == kAccountLoginRefused ? -2 : -3;
    }
    default:
      return 1;
  }
}

enum class Counted { kDone, kNotStored, kChanged, kLocked };

// Counts the use of a login that passed its checks, in one write transaction that reads the
// entry again: no change made by another process since the checks is lost, and a use limit
// admits exactly as many visitors as it allows however many arrive at once. kChanged: the
// entry is no longer the one that was checked (gone, changed by an administrator, used up or
// no longer valid); `entry` and `found` then hold what was read, for the checks to run again.
// The password digest and the account login stay outside: the transaction only reads and
// writes one row.
Counted CountUse(SharingDB& sdb, EntryDBPrivate& entry_db, std::string const& hash, Entry& entry,
                 Lookup& found) {
  // Nearly always nothing has changed: one statement counts the use, holding the write lock
  // no longer than any write. Otherwise the entry is read again under the lock.
  int use_count = 0;
  Lookup const counted = entry_db.CountUseIfUnchanged(entry, use_count);
  if (counted == Lookup::kFound) {
    entry.set_use_count(use_count);
    return Counted::kDone;
  }
  if (counted == Lookup::kFailed) return Counted::kLocked;  // it has waited its busy limit
  WriteTransaction transaction(sdb);
  if (!transaction.IsOpen()) return Counted::kLocked;
  Entry current;
  found = entry_db.FindByHash(hash, current);
  if (found != Lookup::kFound || !current.IsValid() || UsedUp(current) ||
      CheckedFields(current) != CheckedFields(entry)) {
    entry = current;
    return Counted::kChanged;
  }
  current.inc_use_count();
  bool const stored = entry_db.Update(current.GetCObject()) && transaction.Commit();
  entry = current;
  return stored ? Counted::kDone : Counted::kNotStored;
}

// An entry changed by an administrator while visitors log in is checked again; this bounds
// how often one login does so before it gives up.
int const kMaxRounds = 4;

// The address's attempt (kova_autoblock.h): taken before the address is judged and held
// until the credentials are judged and a failure counted, so that parallel guesses from one
// address cannot pass the limit. A login whose credentials passed lets it go at once: nothing
// after that counts a failure, and visitors behind one address then wait only for each
// other's checks, not for each other's writes.
class Attempt {
 public:
  explicit Attempt(char const* address) : address_(address) {}
  ~Attempt() { Done(); }
  Attempt(Attempt const&) = delete;
  Attempt& operator=(Attempt const&) = delete;

  // Takes the attempt and judges the address; false when it is refused as blocked (also when
  // earlier attempts keep it waiting too long).
  bool Begin() {
    int const taken = KovaCgiAttemptBegin(address_);
    held_ = taken == 1;
    if (taken != 0 && KovaCgiIsDeniedIP(address_) != 1) return true;
    KOVA_LOG(kSource, __LINE__, "KovaAutoBlockIsDeniedIP %s", address_);
    return false;
  }
  void Done() {
    if (held_) KovaCgiAttemptDone();
    held_ = false;
  }

 private:
  char const* address_;
  bool held_ = false;
};

int Login(std::string& session_id, _tag_sharing_login_params const* params, bool quiet) {
  SharingDB& sdb = SharingDB::Instance();
  if (params == nullptr || !sdb.IsGood() || params->hash == nullptr) return -4;

  char address[kAddressSize];
  memset(address, 0, sizeof address);
  if (KovaCgiGetRemoteIP(address, sizeof address) < 0) return -4;
  SystemSpan span;  // declared before the stores: they go, and fold the log, inside it
  Attempt attempt(address);
  if (!attempt.Begin()) return -8;
  EntryDBPrivate entry_db(sdb);
  std::string const hash = params->hash;
  Entry entry;
  Lookup found = entry_db.FindByHash(hash, entry);
  unsigned int uid = KOVA::sharing::UID_ERR;
  for (int round = 1;; ++round) {
    // An entry that changed under the login is judged again under a new attempt.
    if (round > 1 && !attempt.Begin()) return -8;
    // A failed read is no answer about the link: the visitor gets an internal failure, never
    // "no such link".
    if (found == Lookup::kFailed) return -4;
    if (found == Lookup::kAbsent || !entry.IsValid()) return -3;
    if (UsedUp(entry)) return -11;
    int const code = CheckProtection(entry, params, quiet, address, uid, span);
    if (code != 1) return code;
    attempt.Done();
    // The use is counted before the session is made: a login that fails from here on has
    // still used the link.
    Counted const counted = CountUse(sdb, entry_db, hash, entry, found);
    if (counted == Counted::kDone) break;
    if (counted != Counted::kChanged) {
      // The use could not be stored: the login goes on, unless the link has a use limit,
      // which an uncounted use could pass.
      KOVA_LOG(kSource, __LINE__, "update entry use count fail");
      if (entry.get_expire_times() > 0) return -4;
      break;
    }
    if (round == kMaxRounds) return -4;  // an entry that keeps changing under the login
  }

  SessionDBPrivate session_db(sdb);
  TokenDBPrivate token_db(sdb);
  Session session;
  Token token;
  if (!StoreLogin(sdb, session_db, token_db, entry, params, uid, session, token)) {
    // A token made or refreshed above must not outlive the failed login.
    token_db.Delete(token.GetCObject());
    return -4;
  }

  session_id = session.get_session_id();
  if (!quiet) KOVAAutoBlockFailLoginReset(address);
  return 1;
}

int IsAuthorized(_tag_sharing_login_params const* params) {
  SharingDB& sdb = SharingDB::Instance();
  SystemSpan span;
  SessionDBPrivate session_db(sdb);
  TokenDBPrivate token_db(sdb);
  EntryDBPrivate entry_db(sdb);
  Session session;
  Token token;
  Entry entry;

  if (!sdb.IsGood()) {
    KOVA_LOG(kSource, __LINE__, "db is not good");
    if (!sdb.IsRoot()) return -4;
    // A database file left to root locks every visitor out; it is moved aside.
    KOVA_LOG(kSource, __LINE__, "db ownner is root");
    sdb.MoveRootDB();
  }
  if (params == nullptr || params->session_id == nullptr || params->hash == nullptr) return -4;

  char address[kAddressSize];
  memset(address, 0, sizeof address);
  if (KovaCgiGetRemoteIP(address, sizeof address) < 0) {
    KOVA_LOG(kSource, __LINE__, "invalid ip");
    return -4;
  }

  // A read that fails (a locked or damaged database) is an internal failure, not a visitor
  // without a session or a link.
  Lookup found = session_db.FindBySessionId(params->session_id, session);
  if (found != Lookup::kFound) return found == Lookup::kFailed ? -4 : -5;
  found = entry_db.FindByHash(params->hash, entry);
  if (found == Lookup::kFound) found = token_db.FindBySessionEntry(session, entry, token);
  if (found != Lookup::kFound) return found == Lookup::kFailed ? -4 : -7;

  if (!entry.IsValid()) {
    KOVA_LOG(kSource, __LINE__, "entry is not valid");
    return -6;
  }
  // Loading already refuses expired rows; these two catch a clock that passed the timeout
  // since.
  if (!session.IsLegal()) {
    KOVA_LOG(kSource, __LINE__, "session is not valid");
    return -1;
  }
  if (!token.IsLegal()) {
    KOVA_LOG(kSource, __LINE__, "token is not valid");
    if (!token_db.Delete(token.GetCObject())) {
      KOVA_LOG(kSource, __LINE__, "delete token failed");
      return -4;
    }
    return -1;
  }

  if (entry.get_protect_type() == Entry::PROTECT_USER) {
    unsigned int uid = session.get_uid();
    if (CheckAccount(entry, params, uid, span) != kAccountOk) {
      KOVA_LOG(kSource, __LINE__, "user login error");
      return -2;
    }
  }

  if (entry.get_enable_match_ip()) {
    std::string const stored = session.get_ip();
    size_t const length = strlen(address);
    if (stored.size() != length || memcmp(stored.data(), address, length) != 0) {
      KOVA_LOG(kSource, __LINE__, "ip not match, %s, %s", address, stored.c_str());
      return -8;
    }
  }

  long const timeout = time(nullptr) + kLifetime;
  session.set_timeout(timeout);
  if (!session_db.Update(session.GetCObject())) {
    KOVA_LOG(kSource, __LINE__, "update session failed");
    return -4;
  }
  token.set_timeout(timeout);
  if (!token_db.Update(token.GetCObject())) {
    KOVA_LOG(kSource, __LINE__, "update token failed");
    return -4;
  }
  return 1;
}

int Logout(std::string const& hash, std::string const& session_id) {
  SharingDB& sdb = SharingDB::Instance();
  SystemSpan span;
  EntryDBPrivate entry_db(sdb);
  SessionDBPrivate session_db(sdb);
  TokenDBPrivate token_db(sdb);
  Entry entry;
  Session session;
  Token token;
  if (!sdb.IsGood()) return 0;
  if (!session_db.GetBySessionId(session_id, session)) {
    KOVA_LOG(kSource, __LINE__, "get session failed");
    return 0;
  }
  if (!entry_db.GetByHash(hash, entry)) {
    KOVA_LOG(kSource, __LINE__, "get entry failed");
    return 0;
  }
  if (!token_db.GetBySessionEntry(session, entry, token)) {
    KOVA_LOG(kSource, __LINE__, "get token failed");
    return 0;
  }
  return token_db.Delete(token.GetCObject()) ? 1 : 0;
}

// One use more, read and written back in one write transaction so that uses counted at the
// same moment by other processes are all kept.
int IncreaseUseCount(std::string const& hash) {
  SharingDB& sdb = SharingDB::Instance();
  SystemSpan span;
  EntryDBPrivate entry_db(sdb);
  if (!sdb.IsGood()) return 0;
  WriteTransaction transaction(sdb);
  if (!transaction.IsOpen()) return 0;
  Entry entry;
  if (!entry_db.GetByHash(hash, entry)) return 0;
  entry.inc_use_count();
  return entry_db.Update(entry.GetCObject()) && transaction.Commit() ? 1 : 0;
}

// The plain forms take C texts; a null one is refused (and logged) like any other failure.
std::string Text(char const* text) {
  if (text == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
  return std::string(text);
}

// Nothing thrown inside (a damaged table, no memory) leaves a visitor function: the caller
// gets the function's failure code and the system log the reason.
template <class Call>
int Guarded(int failure, char const* function, Call const& call) {
  try {
    return call();
  } catch (std::exception const& e) {
    KOVA_LOG_PID(kSource, __LINE__, "%s failed: %s", function, e.what());
  } catch (...) {
    KOVA_LOG_PID(kSource, __LINE__, "%s failed", function);
  }
  return failure;
}

}  // namespace

namespace KOVA {

int KovaSharingLogin(std::string& session_id, _tag_sharing_login_params const* params, bool quiet) {
  return Guarded(-4, "login", [&] { return Login(session_id, params, quiet); });
}

int KovaSharingIsAuthorized(_tag_sharing_login_params const* params) {
  return Guarded(-4, "authorization check", [&] { return IsAuthorized(params); });
}

int KovaSharingLogout(std::string const& hash, std::string const& session_id) {
  return Guarded(0, "logout", [&] { return Logout(hash, session_id); });
}

int KovaSharingIncreaseUseCount(std::string const& hash) {
  return Guarded(0, "use count", [&] { return IncreaseUseCount(hash); });
}

}  // namespace KOVA

extern "C" {

int KovaSharingLogin(char* buf, unsigned int size, const struct _tag_sharing_login_params* params,
                     int quiet) {
  std::string session_id;
  int const result = KOVA::KovaSharingLogin(session_id, params, quiet == 1);
  if (buf == nullptr || size == 0) return result;  // nothing to copy into
  // No terminator right after a shorter id: only the last byte of the buffer is written.
  size_t const n = session_id.size() < size ? session_id.size() : size;
  strncpy(buf, session_id.c_str(), n);
  buf[size - 1] = '\0';
  return result;
}

int KovaSharingIsAuthorized(const struct _tag_sharing_login_params* params) {
  return KOVA::KovaSharingIsAuthorized(params);
}

int KovaSharingLogout(const char* hash, const char* session_id) {
  return Guarded(0, "logout", [&] { return Logout(Text(hash), Text(session_id)); });
}

int KovaSharingIncreaseUseCount(const char* hash) {
  return Guarded(0, "use count", [&] { return IncreaseUseCount(Text(hash)); });
}

}  // extern "C"
