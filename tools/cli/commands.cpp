// The subcommands. Everything goes through the library's public API on the process's one
// sharing database; where that API does not answer a question directly (how many rows a
// purge removed, which sessions hold a link), the answer is made of what it does offer:
// conditions with Count and Query on the stores, inside one write transaction so that the
// counts are those of the change itself.
#include "commands.h"

#include <arpa/inet.h>
#include <kova_autoblock.h>
#include <kovasharing/kovasharing.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "help.h"
#include "links.h"
#include "output.h"
#include "status.h"

namespace kovacli {
namespace {

using KOVA::sharing::UID_ERR;
using KOVA::sharing::db::BaseDB;
using KOVA::sharing::db::Condition;
using KOVA::sharing::db::EntryDB;
using KOVA::sharing::db::SessionDB;
using KOVA::sharing::db::SharingDB;
using KOVA::sharing::db::TokenDB;
using KOVA::sharing::record::Entry;
using KOVA::sharing::record::Session;
using KOVA::sharing::record::Token;

SharingDB& Database() {
  SharingDB& db = SharingDB::Instance();
  if (!db.IsGood()) {
    throw Error(kDatabase, std::string("the sharing database ") +
                               KOVA::sharing::SZF_SHARING_DB_PATH +
                               " cannot be opened or migrated (run as root)");
  }
  return db;
}

[[noreturn]] void DatabaseFailure(BaseDB& db, std::string const& what) {
  std::string const detail = db.GetLastError();
  throw Error(kDatabase, what + (detail.empty() ? "" : ": " + OneLine(detail)));
}

// One write transaction taken at once (the library's), so that counts read inside it match what
// the statements inside it change and a row read inside it is written back unchanged by
// others. Rolled back unless committed. The stores used inside must outlive it: each store
// checkpoints the log when it goes, which must not happen mid-way.
class Transaction {
 public:
  explicit Transaction(BaseDB& db) : db_(db), transaction_(db) {
    if (!transaction_.IsOpen()) DatabaseFailure(db_, "cannot lock the database");
  }
  void Commit() {
    if (!transaction_.Commit()) DatabaseFailure(db_, "cannot commit the change");
  }

 private:
  BaseDB& db_;
  KOVA::sharing::db::WriteTransaction transaction_;
};

// Rows the store's current condition selects (the whole table when it is empty).
template <class Store>
int CountRows(BaseDB& db, Store const& store, char const* table) {
  int count = 0;
  if (!store.Count(count)) DatabaseFailure(db, std::string("cannot count the ") + table);
  return count;
}

Entry LoadEntry(EntryDB const& store, std::string const& hash) {
  Entry entry;
  if (!store.GetByHash(hash, entry)) {
    throw Error(kUnknownHash, "no entry with hash \"" + OneLine(hash) + "\"");
  }
  return entry;
}

// The first argument: a hash, or a whole link as create prints it (its sharing_id).
std::string HashArgument(Args const& args) {
  std::string const& text = args.positional()[0];
  size_t const query = text.find('?');
  if (query == std::string::npos || text.find("://") == std::string::npos) return text;
  std::string const key = "sharing_id=";
  for (size_t at = query; at != std::string::npos; at = text.find('&', at + 1)) {
    if (text.compare(at + 1, key.size(), key) == 0) {
      size_t const start = at + 1 + key.size();
      return text.substr(start, text.find_first_of("&#", start) - start);
    }
  }
  return text;
}

unsigned int UserId(std::string const& name) {
  unsigned int uid = UID_ERR;
  if (!KOVA::sharing::UserToUID(name, uid)) {
    throw Error(kUnknownUser, "no user named \"" + OneLine(name) + "\"");
  }
  return uid;
}

std::string Account(unsigned int uid) {
  if (uid == UID_ERR) return "";
  std::string name;
  return KOVA::sharing::UIDToUser(uid, name) ? name : "uid " + std::to_string(uid);
}

std::string OwnerText(Entry const& entry) {
  std::string const name = entry.get_owner_user();
  return name.empty() ? "uid " + std::to_string(entry.get_owner_uid()) : name;
}

bool WantsJson(Args const& args) { return args.Has("json"); }

// ---------------------------------------------------------------- entry fields

// Read once per run: an update applies its fields twice (see RunUpdate).
std::string ReadPassword(Args const& args) {
  static std::string read;
  if (!read.empty()) return read;
  bool const from_stdin = args.Has("password-stdin");
  if (from_stdin && args.Has("password")) {
    UsageError(args.command(), "give --password or --password-stdin, not both");
  }
  std::string password = args.Get("password");
  if (from_stdin && !std::getline(std::cin, password)) password.clear();
  if (!password.empty() && password.back() == '\r') password.pop_back();
  if (password.empty()) UsageError(args.command(), "the password is empty");
  read = password;
  return password;
}

// Checks that every name resolves, unless unknown names are wanted: the library keeps them
// so that an account made later is admitted, but a typo is the likelier cause.
void CheckNames(Args const& args, std::vector<std::string> const& names, bool groups) {
  if (args.Has("allow-unknown")) return;
  for (auto const& name : names) {
    unsigned int id = 0;
    bool const known =
        groups ? KOVA::sharing::GroupToGID(name, id) : KOVA::sharing::UserToUID(name, id);
    if (!known) {
      throw Error(kUnknownUser, std::string("no ") + (groups ? "group" : "user") + " named \"" +
                                    OneLine(name) + "\" (--allow-unknown keeps it by name)");
    }
  }
}

// The text of an option that may come from a file ("@path") or standard input ("-"), read
// once per run like the password.
std::string ValueText(Args const& args, std::string const& name) {
  static std::map<std::string, std::string> read;
  auto const found = read.find(name);
  if (found != read.end()) return found->second;
  return read[name] = ReadValue(args.Get(name), "--" + name);
}

struct Applied {
  bool any = false;         // some field was given
  bool protection = false;  // who may come in changed: earlier logins must not stay valid
};

// Sets the fields the options name. Values are all checked before the entry is touched, in
// the order a person reads the command line, so the first mistake is the one reported.
Applied ApplyFields(Args const& args, Entry& entry) {
  Applied applied;
  std::string const& cmd = args.command();
  bool const password = args.Has("password") || args.Has("password-stdin");
  bool const users = args.Has("users") || args.Has("groups");
  bool const none = args.Has("no-protection");
  int from_stdin = args.Has("password-stdin") ? 1 : 0;
  for (char const* option : {"app", "private-data"}) from_stdin += args.Get(option) == "-";
  if (from_stdin > 1) UsageError(cmd, "only one value can come from standard input");
  if (password + users + none > 1) {
    UsageError(cmd, "choose one protection: a password, users and groups, or none");
  }
  if (args.Has("password-algo") && !password) {
    UsageError(cmd, "--password-algo goes with --password or --password-stdin");
  }

  if (args.Has("project")) {
    if (args.Get("project").empty()) UsageError(cmd, "--project: the name is empty");
    entry.set_project_name(args.Get("project"));
    applied.any = true;
  }
  if (args.Has("owner")) {
    entry.set_owner_uid(UserId(args.Get("owner")));
    applied.any = true;
  }
  if (args.Has("enabled")) {
    entry.set_enabled(ParseYesNo(args.Get("enabled"), "--enabled"));
    applied.any = true;
  }
  if (args.Has("start-at")) {
    entry.set_start_at(ParseTime(args.Get("start-at"), "--start-at"));
    applied.any = true;
  }
  if (args.Has("expire-at")) {
    entry.set_expire_at(ParseTime(args.Get("expire-at"), "--expire-at"));
    applied.any = true;
  }
  if (args.Has("max-uses")) {
    entry.set_expire_times(ParseCount(args.Get("max-uses"), "--max-uses", 0, 1000000000));
    applied.any = true;
  }
  if (args.Has("use-count")) {
    entry.set_use_count(ParseCount(args.Get("use-count"), "--use-count", 0, 1000000000));
    applied.any = true;
  }
  if (args.Has("auto-gc")) {
    entry.set_auto_gc(ParseYesNo(args.Get("auto-gc"), "--auto-gc"));
    applied.any = true;
  }
  if (args.Has("match-ip")) {
    entry.set_enable_match_ip(ParseYesNo(args.Get("match-ip"), "--match-ip"));
    applied.any = true;
  }
  if (password) {
    std::string algo_text = args.Get("password-algo", "default");
    if (algo_text != "default" && algo_text != "md5") {
      UsageError(cmd, "--password-algo: \"" + OneLine(algo_text) + "\" is neither default nor md5");
    }
    Entry::PasswordEncryptAlgo const algo =
        algo_text == "md5" ? Entry::ENCRYPT_ALGO_MD5 : Entry::ENCRYPT_ALGO_DEFAULT;
    entry.set_protect_password(ReadPassword(args), true, algo);
    entry.set_protect_type(Entry::PROTECT_PASSWORD);
    applied.any = applied.protection = true;
  }
  if (users) {
    std::vector<std::string> const user_names = args.List("users");
    std::vector<std::string> const group_names = args.List("groups");
    if ((args.Has("users") && user_names.empty()) || (args.Has("groups") && group_names.empty())) {
      UsageError(cmd, "--users and --groups need at least one name");
    }
    CheckNames(args, user_names, false);
    CheckNames(args, group_names, true);
    if (args.Has("users")) entry.set_protect_users(user_names);
    if (args.Has("groups")) entry.set_protect_groups(group_names);
    entry.set_protect_type(Entry::PROTECT_USER);
    applied.any = applied.protection = true;
  } else if (args.Has("allow-unknown")) {
    UsageError(cmd, "--allow-unknown goes with --users or --groups");
  }
  if (none) {
    entry.set_protect_type(Entry::PROTECT_NONE);
    applied.any = applied.protection = true;
  }
  if (args.Has("title")) {
    entry.set_protect_title(args.Get("title"));
    applied.any = true;
  }
  if (args.Has("redirect")) {
    std::string const type = args.Get("redirect");
    if (type == "none") {
      entry.set_redirect_type(Entry::REDIRECT_NONE);
    } else if (type == "url_param") {
      entry.set_redirect_type(Entry::REDIRECT_URLPARAM);
    } else if (type == "always") {
      entry.set_redirect_type(Entry::REDIRECT_ALWAYS);
    } else {
      UsageError(cmd, "--redirect: \"" + OneLine(type) + "\" is not none, url_param or always");
    }
    applied.any = true;
  }
  if (args.Has("redirect-uri")) {
    entry.set_redirect_uri(args.Get("redirect-uri"));
    applied.any = true;
  }
  if (args.Has("app")) {
    entry.set_app(ParseJsonObject(ValueText(args, "app"), "--app"));
    applied.any = true;
  }
  if (args.Has("private-data")) {
    entry.set_private_data(ParseJsonObject(ValueText(args, "private-data"), "--private-data"));
    applied.any = true;
  }
  return applied;
}

// The database keeps a text only when its escaped form fits the escape routine's room (twice
// its length): a text of nothing but quotes does not, and would be stored empty. Such a value
// is refused rather than stored as something else.
void CheckStorable(std::string const& cmd, BaseDB& db, Entry const& entry) {
  for (auto const& field : entry.GetFieldMap()) {
    if (!field.second.empty() && db.Escape(field.second).empty()) {
      UsageError(
          cmd, "the " + field.first + " value cannot be stored as given (too many single quotes)");
    }
  }
}

void PrintEntryFields(Entry const& entry, Json::Value const& json) {
  static char const* const kOrder[] = {"hash",
                                       "link",
                                       "project_name",
                                       "enabled",
                                       "owner_user",
                                       "start_at",
                                       "expire_at",
                                       "expire_times",
                                       "use_count",
                                       "auto_gc",
                                       "enable_match_ip",
                                       "protect_type",
                                       "protect_title",
                                       "protect_users",
                                       "protect_groups",
                                       "redirect_type",
                                       "redirect_uri",
                                       "app"};
  Table table({"FIELD", "VALUE"});
  for (char const* key : kOrder) {
    if (std::string(key) == "link" && !json.isMember(key)) continue;  // no base address set
    // An owner whose account is gone still has a number worth showing.
    table.Add({key, std::string(key) == "owner_user" ? OwnerText(entry) : Cell(json[key])});
  }
  table.Print(std::cout);
}

// ---------------------------------------------------------------- create

char const kQrNeedsBase[] =
    "--qr needs the gate's web address: kovasharing config base-url URL, or --base-url URL";

int RunCreate(Args const& args) {
  args.ExpectPositional(0, "");
  if (!args.Has("project")) UsageError("create", "--project is required");
  if (!args.Has("owner")) UsageError("create", "--owner is required");
  Entry entry;
  entry.set_app(Json::Value(Json::objectValue));
  ApplyFields(args, entry);
  // A link nobody could ever open is more likely a mistake in a date than the wish.
  long const now = static_cast<long>(time(nullptr));
  std::string const doubt =
      entry.get_expire_at() != 0 && entry.get_expire_at() <= now
          ? "the link would be expired already"
      : entry.get_expire_at() != 0 && entry.get_expire_at() < entry.get_start_at()
          ? "the link would end before it starts"
          : "";
  if (!doubt.empty() && !args.Has("force")) {
    UsageError("create", doubt + " (--expire-at " + TimeText(entry.get_expire_at()) +
                             "); --force creates it anyway");
  }
  SharingDB& db = Database();
  CheckStorable("create", db, entry);
  EntryDB store(db);
  std::string const base = BaseUrl(args);  // a wrong one is refused before anything is made
  if (args.Has("qr") && base.empty()) UsageError("create", kQrNeedsBase);
  if (!store.CreateWithHash(entry)) DatabaseFailure(db, "cannot store the entry");
  std::string const link = LinkOf(base, entry.get_hash());
  if (WantsJson(args)) {
    Json::Value out;
    entry.ToJSON(out);
    if (!link.empty()) out["link"] = link;
    PrintJson(std::cout, out);
  } else {
    // Without a base address the hash alone, as scripts have always read it.
    std::cout << (link.empty() ? entry.get_hash() : link) << "\n";
    if (args.Has("qr")) PrintQr(std::cout, link);
  }
  return kOk;
}

// ---------------------------------------------------------------- list

// A LIKE pattern that finds `text` anywhere, its wildcards taken literally (escaped with '\').
std::string ContainsPattern(BaseDB& db, std::string const& text) {
  std::string escaped;
  for (char const c : text) {
    if (c == '%' || c == '_' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return "'%" + db.Escape(escaped) + "%' ESCAPE '\\'";
}

int RunList(Args const& args) {
  args.ExpectPositional(0, "");
  int const page = ParseCount(args.Get("page", "1"), "--page", 1, 1000000);
  int const size = ParseCount(args.Get("page-size", "50"), "--page-size", 1, 10000);
  unsigned int const owner = args.Has("owner") ? UserId(args.Get("owner")) : UID_ERR;
  bool const by_enabled = args.Has("enabled");
  bool const enabled = by_enabled && ParseYesNo(args.Get("enabled"), "--enabled");
  bool const by_expired = args.Has("expired");
  bool const expired = by_expired && ParseYesNo(args.Get("expired"), "--expired");
  std::string const sort = args.Get("sort", "created");
  if (sort != "created" && sort != "expiry" && sort != "uses" && sort != "owner") {
    UsageError("list", "--sort: \"" + OneLine(sort) + "\" is not created, expiry, uses or owner");
  }
  std::string const search = args.Get("search");
  if (args.Has("search") && search.empty()) UsageError("list", "--search: the text is empty");
  std::string const base = BaseUrl(args);
  SharingDB& db = Database();
  long const now = static_cast<long>(time(nullptr));

  EntryDB store(db);
  // The store's condition lasts for one call, so it is filled again for the query.
  auto filter = [&](Condition& condition) -> Condition& {
    if (owner != UID_ERR) condition.Where("owner_uid", std::to_string(owner));
    if (args.Has("project")) condition.Where("project_name", args.Get("project"));
    if (by_enabled) condition.Where("enabled", enabled ? "1" : "0");
    if (by_expired) condition.Where((expired ? "" : "NOT ") + EntryDB::ExpiredCondition(now));
    if (!search.empty()) {
      // The hash, project and title contain the text (ASCII letters in either case), or the
      // text is the owner's account name. The title is kept in the row's JSON; a row whose
      // JSON is damaged is matched on the rest.
      std::string const pattern = ContainsPattern(db, search);
      std::string any = "(hash LIKE " + pattern + " OR project_name LIKE " + pattern +
                        " OR (json_valid(data) AND json_extract(data, '$.' || '" +
                        KOVA::sharing::SZK_PROTECT_TITLE + "') LIKE " + pattern + ")";
      unsigned int uid = UID_ERR;
      if (KOVA::sharing::UserToUID(search, uid)) any += " OR owner_uid = " + std::to_string(uid);
      condition.Where(any + ")");
    }
    return condition;
  };
  int total = 0;
  filter(store.GetCondition());
  if (!store.Count(total)) DatabaseFailure(db, "cannot count the entries");
  std::vector<Entry> entries;
  Condition& query = filter(store.GetCondition());
  if (sort == "expiry") query.OrderBy("expire_at = 0", true).OrderBy("expire_at", true);
  if (sort == "uses") query.OrderBy("use_count", false);
  query.OrderBy("id", true);
  // Owners sort by account name, which only the account database knows: every row is read
  // and the page cut out here.
  if (sort != "owner") query.Page(page, size);
  if (!store.Query(entries)) DatabaseFailure(db, "cannot read the entries");
  if (sort == "owner") {
    std::stable_sort(entries.begin(), entries.end(),
                     [](Entry const& a, Entry const& b) { return OwnerText(a) < OwnerText(b); });
    size_t const first = std::min(entries.size(), static_cast<size_t>(page - 1) * size);
    entries.erase(entries.begin(), entries.begin() + static_cast<long>(first));
    if (entries.size() > static_cast<size_t>(size)) entries.resize(static_cast<size_t>(size));
  }

  if (WantsJson(args)) {
    Json::Value out(Json::objectValue);
    out["total"] = total;
    out["page"] = page;
    out["page_size"] = size;
    out["entries"] = Json::Value(Json::arrayValue);
    for (auto const& entry : entries) {
      Json::Value item;
      entry.ToJSON(item);
      if (!base.empty()) item["link"] = LinkOf(base, entry.get_hash());
      out["entries"].append(item);
    }
    PrintJson(std::cout, out);
    return kOk;
  }
  Table table({base.empty() ? "HASH" : "LINK", "PROJECT", "OWNER", "ENABLED", "START", "EXPIRE",
               "USES", "PROTECTION"});
  for (auto const& entry : entries) {
    Json::Value json;
    entry.ToJSON(json);
    std::string const limit =
        entry.get_expire_times() == 0 ? "-" : std::to_string(entry.get_expire_times());
    table.Add({base.empty() ? entry.get_hash() : LinkOf(base, entry.get_hash()),
               Cell(json["project_name"]), OwnerText(entry), Cell(json["enabled"]),
               Cell(json["start_at"]), Cell(json["expire_at"]),
               std::to_string(entry.get_use_count()) + "/" + limit, Cell(json["protect_type"])});
  }
  table.Print(std::cout);
  int const first = (page - 1) * size + 1;
  if (total == 0) {
    std::cout << "(no entries)\n";
  } else if (entries.empty()) {
    std::cout << "(no entries on page " << page << "; " << total << " in all)\n";
  } else {
    std::cout << "(entries " << first << "-" << first + static_cast<int>(entries.size()) - 1
              << " of " << total << ", page " << page << ")\n";
  }
  return kOk;
}

// ---------------------------------------------------------------- show

struct LiveSession {
  std::string session_id;
  std::string ip;
  std::string account;
  unsigned int uid;
  long expires;
};

// Sessions holding a live token for the entry. The stores offer no join, so: the entry's
// tokens by condition (expired ones read as absent), then each token's session by row id.
std::vector<LiveSession> LiveSessions(SharingDB& db, Entry const& entry) {
  TokenDB tokens(db);
  SessionDB sessions(db);
  std::vector<Token> found;
  tokens.GetCondition()
      .Where("entry_id", std::to_string(entry.get_id()))
      .Where("timeout > " + std::to_string(static_cast<long>(time(nullptr))))
      .OrderBy("id", true);
  if (!tokens.Query(found)) DatabaseFailure(db, "cannot read the tokens");
  std::vector<LiveSession> out;
  for (auto const& token : found) {
    Session session;
    if (!sessions.GetById(token.get_session_id(), session)) continue;  // gone or expired
    // A visitor stays in until the earlier of the two runs out.
    out.push_back({session.get_session_id(), session.get_ip(), Account(session.get_uid()),
                   session.get_uid(), std::min(session.get_timeout(), token.get_timeout())});
  }
  return out;
}

struct Visit {
  long at;  // seconds since the epoch
  std::string ip;
  std::string account;
};

// The latest successful logins to the entry, newest first, as the gate records them.
std::vector<Visit> Visits(SharingDB& db, Entry const& entry) {
  KOVA::sharing::db::Result result;
  if (!db.Execute("SELECT at, ip, account FROM visit WHERE entry_id = " +
                      std::to_string(entry.get_id()) + " ORDER BY id DESC",
                  result)) {
    DatabaseFailure(db, "cannot read the visits");
  }
  std::vector<Visit> out;
  KOVA::sharing::db::Row row;
  while (result.NextRow(row)) {
    out.push_back({row.GetField("at").AsTime(0), row.GetField("ip").AsString(""),
                   row.GetField("account").AsString("")});
  }
  return out;
}

void PrintVisits(std::vector<Visit> const& visits) {
  std::cout << "\n"
            << visits.size() << (visits.size() == 1 ? " recent visit" : " recent visits")
            << " (the latest 20 logins are kept)\n";
  if (visits.empty()) return;
  Table table({"WHEN", "ADDRESS", "ACCOUNT"});
  for (auto const& v : visits) {
    table.Add({TimeText(v.at), OneLine(v.ip), v.account.empty() ? "-" : OneLine(v.account)});
  }
  table.Print(std::cout);
}

int RunShow(Args const& args) {
  args.ExpectPositional(1, "HASH");
  SharingDB& db = Database();
  EntryDB store(db);
  Entry const entry = LoadEntry(store, HashArgument(args));
  std::string const link = LinkOf(BaseUrl(args), entry.get_hash());
  if (args.Has("qr") && link.empty()) UsageError("show", kQrNeedsBase);
  std::vector<LiveSession> const live = LiveSessions(db, entry);
  std::vector<Visit> const visits = Visits(db, entry);
  Json::Value out;
  entry.ToJSON(out);
  if (!link.empty()) out["link"] = link;
  if (WantsJson(args)) {
    out["sessions"] = Json::Value(Json::arrayValue);
    for (auto const& s : live) {
      Json::Value item(Json::objectValue);
      item["session_id"] = s.session_id;
      item["ip"] = s.ip;
      item["account"] = s.account;
      item["expire_at"] = TimeText(s.expires);
      out["sessions"].append(item);
    }
    out["visits"] = Json::Value(Json::arrayValue);
    for (auto const& v : visits) {
      Json::Value item(Json::objectValue);
      item["at"] = TimeText(v.at);
      item["ip"] = v.ip;
      item["account"] = v.account;
      out["visits"].append(item);
    }
    PrintJson(std::cout, out);
    return kOk;
  }
  PrintEntryFields(entry, out);
  if (args.Has("qr")) PrintQr(std::cout << "\n", link);
  std::cout << "\n"
            << live.size() << (live.size() == 1 ? " live session" : " live sessions") << "\n";
  if (live.empty()) {
    PrintVisits(visits);
    return kOk;
  }
  Table table({"SESSION ID", "ADDRESS", "ACCOUNT", "EXPIRES"});
  for (auto const& s : live) {
    table.Add(
        {s.session_id, OneLine(s.ip), s.account.empty() ? "-" : s.account, TimeText(s.expires)});
  }
  table.Print(std::cout);
  PrintVisits(visits);
  return kOk;
}

// ---------------------------------------------------------------- update

int RunUpdate(Args const& args) {
  args.ExpectPositional(1, "HASH");
  SharingDB& db = Database();
  EntryDB store(db);
  TokenDB tokens(db);
  std::string const hash = HashArgument(args);
  // Every value is checked (and a password read) on the entry as first read, before anything
  // is locked.
  Entry entry = LoadEntry(store, hash);
  Applied const applied = ApplyFields(args, entry);
  if (!applied.any) UsageError("update", "nothing to change");
  if (!entry.IsLegal()) {
    UsageError("update", "the change would leave the entry incomplete");
  }
  {
    // The change is applied again to the entry as it stands inside the transaction, so that
    // nothing written since the first read (a visitor's use, another change) is lost.
    Transaction transaction(db);
    entry = LoadEntry(store, hash);
    ApplyFields(args, entry);
    if (!entry.IsLegal()) UsageError("update", "the change would leave the entry incomplete");
    CheckStorable("update", db, entry);
    if (!store.Update(entry)) DatabaseFailure(db, "cannot store the entry");
    // New protection: visitors admitted under the old one must pass the new one.
    if (applied.protection && !tokens.PurgeByEntry(entry)) {
      DatabaseFailure(db, "cannot end the entry's sessions");
    }
    transaction.Commit();
  }
  if (WantsJson(args)) {
    Json::Value out;
    entry.ToJSON(out);
    PrintJson(std::cout, out);
  } else {
    std::cout << "updated " << entry.get_hash()
              << (applied.protection ? " (earlier logins ended)" : "") << "\n";
  }
  return kOk;
}

// ---------------------------------------------------------------- delete

void PrintCount(Args const& args, char const* key, int count, char const* what) {
  if (WantsJson(args)) {
    Json::Value out(Json::objectValue);
    out[key] = count;
    PrintJson(std::cout, out);
  } else {
    std::cout << what << " " << count << (count == 1 ? " entry" : " entries") << "\n";
  }
}

int RunDelete(Args const& args) {
  bool const by_owner = args.Has("owner");
  args.ExpectPositional(by_owner ? 0 : 1, "HASH or --owner USER");
  unsigned int const owner = by_owner ? UserId(args.Get("owner")) : UID_ERR;
  SharingDB& db = Database();
  EntryDB store(db);
  if (!by_owner) {
    // The entry's tokens go with it (the schema's trigger), in the same statement.
    Entry const entry = LoadEntry(store, HashArgument(args));
    Transaction transaction(db);
    if (!store.Delete(entry)) DatabaseFailure(db, "cannot delete the entry");
    transaction.Commit();
    PrintCount(args, "deleted", 1, "deleted");
    return kOk;
  }
  int count = 0;
  {
    Transaction transaction(db);
    store.GetCondition().Where("owner_uid", std::to_string(owner));
    count = CountRows(db, store, "entries");
    if (!store.DeleteByOwnerUid(owner)) DatabaseFailure(db, "cannot delete the entries");
    transaction.Commit();
  }
  PrintCount(args, "deleted", count, "deleted");
  return kOk;
}

// ---------------------------------------------------------------- purge

struct Purged {
  int entries = 0, sessions = 0, tokens = 0;
};

std::string PurgedText(Purged const& n) {
  return std::to_string(n.entries) + (n.entries == 1 ? " entry, " : " entries, ") +
         std::to_string(n.sessions) + (n.sessions == 1 ? " session, " : " sessions, ") +
         std::to_string(n.tokens) + (n.tokens == 1 ? " token" : " tokens");
}

// Purges inside one transaction and counts what went; a trial rolls it all back.
Purged Purge(SharingDB& db, bool all, bool trial) {
  EntryDB entries(db);
  SessionDB sessions(db);
  TokenDB tokens(db);
  Transaction transaction(db);
  Purged before, after;
  before = {CountRows(db, entries, "entries"), CountRows(db, sessions, "sessions"),
            CountRows(db, tokens, "tokens")};
  // The tokens of purged entries and sessions go with them (the schema's triggers).
  bool const purged_entries =
      all ? entries.PurgeExpiredByOwnerProject(UID_ERR, "") : entries.PurgeExpired(1.0f);
  if (!purged_entries) DatabaseFailure(db, "cannot purge the entries");
  if (!sessions.PurgeExpired(1.0f)) DatabaseFailure(db, "cannot purge the sessions");
  if (!tokens.PurgeExpired(1.0f)) DatabaseFailure(db, "cannot purge the tokens");
  after = {CountRows(db, entries, "entries"), CountRows(db, sessions, "sessions"),
           CountRows(db, tokens, "tokens")};
  if (!trial) transaction.Commit();
  return {before.entries - after.entries, before.sessions - after.sessions,
          before.tokens - after.tokens};
}

int RunPurge(Args const& args) {
  args.ExpectPositional(0, "");
  bool const all = args.Has("all");
  bool const dry_run = args.Has("dry-run");
  SharingDB& db = Database();
  // A person at a terminal is told what goes, and asked, before it goes.
  if (!dry_run && !args.Has("yes") && !WantsJson(args) && isatty(STDIN_FILENO) &&
      isatty(STDOUT_FILENO)) {
    std::cout << "This purges " << PurgedText(Purge(db, all, true)) << ". Go on? [y/N] "
              << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != "y" && answer != "yes") {
      std::cout << "nothing purged\n";
      return kOk;
    }
  }
  Purged const removed = Purge(db, all, dry_run);
  if (WantsJson(args)) {
    Json::Value out(Json::objectValue);
    out["entries"] = removed.entries;
    out["sessions"] = removed.sessions;
    out["tokens"] = removed.tokens;
    if (dry_run) out["dry_run"] = true;
    PrintJson(std::cout, out);
  } else {
    std::cout << (dry_run ? "would purge " : "purged ") << PurgedText(removed) << "\n";
  }
  return kOk;
}

// ---------------------------------------------------------------- logout

int RunLogout(Args const& args) {
  args.ExpectPositional(2, "HASH and SESSION_ID");
  std::string const hash = HashArgument(args);
  std::string const& sid = args.positional()[1];
  SharingDB& db = Database();
  {
    // The logout itself answers only yes or no; these look-ups say which part was missing.
    EntryDB store(db);
    LoadEntry(store, hash);
    SessionDB sessions(db);
    Session session;
    if (!sessions.GetBySessionId(sid, session)) {
      throw Error(kUnknownSession, "no live session \"" + OneLine(sid) + "\"");
    }
  }
  if (KOVA::KovaSharingLogout(hash, sid) != 1) {
    throw Error(kUnknownSession,
                "session \"" + OneLine(sid) + "\" is not logged in to " + OneLine(hash));
  }
  if (WantsJson(args)) {
    Json::Value out(Json::objectValue);
    out["hash"] = hash;
    out["session_id"] = sid;
    out["logged_out"] = true;
    PrintJson(std::cout, out);
  } else {
    std::cout << "logged out " << sid << " from " << hash << "\n";
  }
  return kOk;
}

// ---------------------------------------------------------------- blocked, unblock

int RunBlocked(Args const& args) {
  args.ExpectPositional(0, "");
  struct Row {
    std::string address;
    int failures;
    long long until;
  };
  std::vector<Row> rows;
  int const listed = AutoBlockList(
      [](char const* address, int failures, long long until, void* data) {
        static_cast<std::vector<Row>*>(data)->push_back({address, failures, until});
      },
      &rows);
  if (listed < 0) throw Error(kDatabase, "cannot read the failed-login store");
  if (WantsJson(args)) {
    Json::Value out(Json::arrayValue);
    for (auto const& row : rows) {
      Json::Value item(Json::objectValue);
      item["address"] = row.address;
      item["failures"] = row.failures;
      item["blocked"] = row.until != 0;
      item["blocked_until"] = TimeText(static_cast<long>(row.until));
      out.append(item);
    }
    PrintJson(std::cout, out);
    return kOk;
  }
  Table table({"ADDRESS", "FAILURES", "BLOCKED UNTIL"});
  for (auto const& row : rows) {
    table.Add({row.address, std::to_string(row.failures),
               row.until != 0 ? TimeText(static_cast<long>(row.until)) : "-"});
  }
  table.Print(std::cout);
  return kOk;
}

int RunUnblock(Args const& args) {
  args.ExpectPositional(1, "ADDRESS");
  std::string const& address = args.positional()[0];
  // An IPv6 prefix is listed as "<address>/64"; the store takes that form too.
  std::string const plain = address.size() > 3 && address.compare(address.size() - 3, 3, "/64") == 0
                                ? address.substr(0, address.size() - 3)
                                : address;
  unsigned char raw[sizeof(struct in6_addr)];
  if (inet_pton(AF_INET, plain.c_str(), raw) != 1 && inet_pton(AF_INET6, plain.c_str(), raw) != 1) {
    throw Error(kUsage, "not an IPv4 or IPv6 address: \"" + OneLine(address) + "\"");
  }
  int const cleared = AutoBlockUnblock(address.c_str());
  if (cleared < 0) throw Error(kDatabase, "cannot change the failed-login store");
  if (WantsJson(args)) {
    Json::Value out(Json::objectValue);
    out["address"] = address;
    out["failures_cleared"] = cleared;
    PrintJson(std::cout, out);
  } else {
    std::cout << "unblocked " << address << " (" << cleared
              << (cleared == 1 ? " failed login" : " failed logins") << " cleared)\n";
  }
  return kOk;
}

std::vector<OptionSpec> const kFieldOptions = {{"project", true, false},
                                               {"owner", true, false},
                                               {"enabled", true, false},
                                               {"start-at", true, false},
                                               {"expire-at", true, false},
                                               {"max-uses", true, false},
                                               {"auto-gc", true, false},
                                               {"match-ip", true, false},
                                               {"password", true, false},
                                               {"password-stdin", false, false},
                                               {"password-algo", true, false},
                                               {"users", true, true},
                                               {"groups", true, true},
                                               {"allow-unknown", false, false},
                                               {"no-protection", false, false},
                                               {"title", true, false},
                                               {"redirect", true, false},
                                               {"redirect-uri", true, false},
                                               {"app", true, false},
                                               {"private-data", true, false},
                                               {"json", false, false}};
OptionSpec const kBaseUrl = {"base-url", true, false};
OptionSpec const kQr = {"qr", false, false};

std::vector<OptionSpec> With(std::vector<OptionSpec> options, std::vector<OptionSpec> const& more) {
  options.insert(options.end(), more.begin(), more.end());
  return options;
}

}  // namespace

std::vector<Command> const& Commands() {
  static std::vector<Command> const commands = {
      {"create", "make a new link and print it", kCreateHelp,
       With(kFieldOptions, {kBaseUrl, kQr, {"force", false, false}}), RunCreate},
      {"list",
       "list links, filtered and paged",
       kListHelp,
       {{"owner", true, false},
        {"project", true, false},
        {"enabled", true, false},
        {"expired", true, false},
        {"page", true, false},
        {"page-size", true, false},
        {"search", true, false},
        {"sort", true, false},
        kBaseUrl,
        {"json", false, false}},
       RunList},
      {"show",
       "show one link and its live sessions",
       kShowHelp,
       {kBaseUrl, kQr, {"json", false, false}},
       RunShow},
      {"update", "change fields of a link", kUpdateHelp,
       With(kFieldOptions, {{"use-count", true, false}}), RunUpdate},
      {"delete",
       "delete a link, or every link of an owner",
       kDeleteHelp,
       {{"owner", true, false}, {"json", false, false}},
       RunDelete},
      {"purge",
       "delete expired links, sessions and tokens",
       kPurgeHelp,
       {{"all", false, false},
        {"dry-run", false, false},
        {"yes", false, false},
        {"json", false, false}},
       RunPurge},
      {"logout",
       "end one visitor session's access to a link",
       kLogoutHelp,
       {{"json", false, false}},
       RunLogout},
      {"blocked",
       "list visitor addresses with failed logins",
       kBlockedHelp,
       {{"json", false, false}},
       RunBlocked},
      {"unblock",
       "lift the block of a visitor address",
       kUnblockHelp,
       {{"json", false, false}},
       RunUnblock},
      {"config", "show or set the gate's web address for links", kConfigHelp, {}, RunConfig},
  };
  return commands;
}

std::string OverviewHelp() {
  std::string text = kOverviewHead;
  for (auto const& command : Commands()) {
    std::string name = command.name;
    name.resize(10, ' ');
    text += "  " + name + command.summary + "\n";
  }
  return text + kOverviewTail;
}

}  // namespace kovacli
