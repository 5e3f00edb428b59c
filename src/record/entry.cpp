// The entry record: its defaults, rules, conversions to and from the stored row and JSON,
// and the protection and time fields that need work (the public handle is entry_handle.cpp).
#include "kovasharing/entry.h"

#include <json/reader.h>
#include <json/writer.h>
#include <kova_log.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <ctime>
#include <utility>

#include "kova_random.h"
#include "kovasharing/constants.h"
#include "kovasharing/result.h"
#include "kovasharing/utils.h"
#include "record/entry_private.h"

namespace KOVA {
namespace sharing {

namespace db {
template KOVA_EXPORT bool ObjectDB::Query<record::Entry>(std::vector<record::Entry>& out) const;
}  // namespace db

namespace record {

namespace {

char const kSource[] = "entry";
char const kJsonTimeFormat[] = "%Y-%m-%d %H:%M:%S";

// One generator for every salt of the process.
KOVA::RANDOM::KOVARandom& SaltSource() {
  static KOVA::RANDOM::KOVARandom source;
  return source;
}

// Compares two digests without leaving early at the first difference, so the time taken
// tells a visitor nothing about how much of a guess was right.
bool SameDigest(std::string const& a, std::string const& b) {
  std::size_t const n = a.size() > b.size() ? a.size() : b.size();
  unsigned int diff = a.size() == b.size() ? 0u : 1u;
  for (std::size_t i = 0; i < n; ++i) {
    unsigned char const ca = i < a.size() ? static_cast<unsigned char>(a[i]) : 0;
    unsigned char const cb = i < b.size() ? static_cast<unsigned char>(b[i]) : 0;
    diff |= static_cast<unsigned int>(ca ^ cb);
  }
  return 0u == diff;
}

std::string TimeText(long value, char const* format) {
  if (0 == value || nullptr == format) return "";
  time_t const t = static_cast<time_t>(value);
  struct tm local;
  if (nullptr == localtime_r(&t, &local)) return "";
  char buf[128];
  memset(buf, 0, sizeof(buf));
  if (0 == strftime(buf, sizeof(buf), format, &local)) return "";
  return buf;
}

// Local time of `text`; 0 when it is empty or does not match. The daylight-saving flag is
// the zone's current one.
long ParseTimeText(std::string const& text, char const* format) {
  if (text.empty() || nullptr == format) return 0;
  time_t const now = time(NULL);
  struct tm current;
  if (nullptr == localtime_r(&now, &current)) return 0;
  struct tm parsed;
  memset(&parsed, 0, sizeof(parsed));
  if (nullptr == strptime(text.c_str(), format, &parsed)) return 0;
  parsed.tm_isdst = current.tm_isdst;
  return static_cast<long>(mktime(&parsed));
}

template <class T>
void MoveOut(T& to, T& from) {
  to = std::move(from);
  from = T();
}

// The texts the stored data and the JSON form give the entry's three kinds of setting. Each
// reading and writing names the value that stands for what the table does not hold. The
// tables are made on first use: the texts live in another file, and a program may read an
// entry before this file's static objects are made.
template <class E>
struct Name {
  E value;
  char const* text;
};
template <class E, size_t N = 3>
using Names = std::array<Name<E>, N>;

Names<Entry::ProtectType> const& ProtectNames() {
  static Names<Entry::ProtectType> const names = {
      {{Entry::PROTECT_NONE, SZK_PROTECT_PROTECT_NONE},
       {Entry::PROTECT_PASSWORD, SZK_PROTECT_PROTECT_PASSWORD},
       {Entry::PROTECT_USER, SZK_PROTECT_PROTECT_USER}}};
  return names;
}
Names<Entry::RedirectType> const& RedirectNames() {
  static Names<Entry::RedirectType> const names = {
      {{Entry::REDIRECT_NONE, SZK_REDIRECT_REDIRECT_NONE},
       {Entry::REDIRECT_URLPARAM, SZK_REDIRECT_REDIRECT_URLPARAM},
       {Entry::REDIRECT_ALWAYS, SZK_REDIRECT_REDIRECT_ALWAYS}}};
  return names;
}
Names<Entry::PasswordEncryptAlgo, 2> const& AlgoNames() {
  static Names<Entry::PasswordEncryptAlgo, 2> const names = {
      {{Entry::ENCRYPT_ALGO_DEFAULT, SZK_PROTECT_PASSWORD_ALGO_DEFAULT},
       {Entry::ENCRYPT_ALGO_MD5, SZK_PROTECT_PASSWORD_ALGO_MD5}}};
  return names;
}

template <class E, size_t N>
char const* TextOf(Names<E, N> const& names, E value, E otherwise) {
  char const* fallback = "";
  for (auto const& name : names) {
    if (name.value == value) return name.text;
    if (name.value == otherwise) fallback = name.text;
  }
  return fallback;
}

template <class E, size_t N>
E ValueOf(Names<E, N> const& names, std::string const& text, E otherwise) {
  for (auto const& name : names) {
    if (text == name.text) return name.value;
  }
  return otherwise;
}

Json::Value UIntArray(std::vector<unsigned int> const& values) {
  Json::Value array(Json::arrayValue);
  for (unsigned int v : values) array.append(Json::Value(v));
  return array;
}

Json::Value StringArray(std::vector<std::string> const& values) {
  Json::Value array(Json::arrayValue);
  for (std::string const& v : values) array.append(Json::Value(v));
  return array;
}

}  // namespace

// ------------------------------------------------------------------------- EntryPrivate

EntryPrivate::EntryPrivate()
    : blValid_(true),
      enabled_(true),
      owner_uid_(UID_ERR),
      start_at_(0),
      expire_at_(0),
      expire_times_(0),
      use_count_(0),
      auto_gc_(true),
      enable_match_ip_(true),
      protect_type_(Entry::PROTECT_NONE),
      protect_password_algo_(Entry::ENCRYPT_ALGO_DEFAULT),
      redirect_type_(Entry::REDIRECT_NONE),
      app_(Json::nullValue),
      private_data_(Json::objectValue) {}

EntryPrivate::EntryPrivate(EntryPrivate&& other) noexcept : Object(other) { TakeFrom(other); }

EntryPrivate& EntryPrivate::operator=(EntryPrivate&& other) noexcept {
  if (this != &other) TakeFrom(other);
  return *this;
}

EntryPrivate::~EntryPrivate() = default;

void EntryPrivate::TakeFrom(EntryPrivate& other) {
  Object::operator=(other);
  blValid_ = other.blValid_;
  MoveOut(hash_, other.hash_);
  MoveOut(project_name_, other.project_name_);
  enabled_ = other.enabled_;
  owner_uid_ = other.owner_uid_;
  start_at_ = other.start_at_;
  expire_at_ = other.expire_at_;
  expire_times_ = other.expire_times_;
  use_count_ = other.use_count_;
  auto_gc_ = other.auto_gc_;
  enable_match_ip_ = other.enable_match_ip_;
  protect_type_ = other.protect_type_;
  MoveOut(protect_title_, other.protect_title_);
  MoveOut(protect_password_, other.protect_password_);
  MoveOut(protect_password_salt_, other.protect_password_salt_);
  protect_password_algo_ = other.protect_password_algo_;
  MoveOut(protect_uids_, other.protect_uids_);
  MoveOut(protect_extra_users_, other.protect_extra_users_);
  MoveOut(protect_gids_, other.protect_gids_);
  MoveOut(protect_extra_groups_, other.protect_extra_groups_);
  redirect_type_ = other.redirect_type_;
  MoveOut(redirect_uri_, other.redirect_uri_);
  MoveOut(app_, other.app_);
  MoveOut(private_data_, other.private_data_);
  MoveOut(row_data_, other.row_data_);
}

Json::Value EntryPrivate::DataJSON() const {
  Json::Value data(Json::objectValue);
  data[SZK_ENABLE_MATCH_IP] = enable_match_ip_;
  data[SZK_PROTECT_TYPE] = TextOf(ProtectNames(), protect_type_, Entry::PROTECT_USER);
  data[SZK_PROTECT_TITLE] = protect_title_;
  data[SZK_PROTECT_PASSWORD] = protect_password_;
  data[SZK_PROTECT_PASSWORD_ALGO] =
      TextOf(AlgoNames(), protect_password_algo_, Entry::ENCRYPT_ALGO_MD5);
  data[SZK_PROTECT_PASSWORD_SALT] = protect_password_salt_;
  data[SZK_PROTECT_UIDS] = UIntArray(protect_uids_);
  data[SZK_PROTECT_EXTRA_USERS] = StringArray(protect_extra_users_);
  data[SZK_PROTECT_GIDS] = UIntArray(protect_gids_);
  data[SZK_PROTECT_EXTRA_GROUPS] = StringArray(protect_extra_groups_);
  data[SZK_REDIRECT_TYPE] = TextOf(RedirectNames(), redirect_type_, Entry::REDIRECT_ALWAYS);
  data[SZK_REDIRECT_URI] = redirect_uri_;
  data[SZK_APP] = app_;
  data[SZK_PRIVATE_DATA] = private_data_;
  return data;
}

std::vector<std::string> EntryPrivate::GetFieldList() const {
  // Built once: making the builder fills a settings object member by member, which cost more
  // than writing the data itself.
  static Json::StreamWriterBuilder const writer = [] {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return builder;
  }();
  return {
      hash_,
      project_name_,
      ToString<bool const>(enabled_),
      std::to_string(owner_uid_),
      ToString<long const>(start_at_),
      ToString<long const>(expire_at_),
      ToString<int const>(expire_times_),
      ToString<int const>(use_count_),
      ToString<bool const>(auto_gc_),
      Json::writeString(writer, DataJSON()),
  };
}

std::map<std::string, std::string> EntryPrivate::GetFieldMap() const {
  static char const* const kColumns[] = {
      SZK_HASH,      SZK_PROJECT_NAME, SZK_ENABLED_,  SZK_OWNER_UID, SZK_START_AT,
      SZK_EXPIRE_AT, SZK_EXPIRE_TIMES, SZK_USE_COUNT, SZK_AUTO_GC,   SZK_DATA};
  std::vector<std::string> const values = GetFieldList();
  std::map<std::string, std::string> map;
  for (std::size_t i = 0; i < values.size() && i < sizeof(kColumns) / sizeof(kColumns[0]); ++i) {
    map[kColumns[i]] = values[i];
  }
  return map;
}

// The rules keep their exact spelling: it is the text of the log line.
// clang-format off
// NOLINTBEGIN(readability-container-size-empty)
bool EntryPrivate::IsLegal() const {
  KOVA_FAIL_IF(kSource, __LINE__, !blValid_);
  KOVA_FAIL_IF(kSource, __LINE__, "" == hash_);
  KOVA_FAIL_IF(kSource, __LINE__, "" == project_name_);
  KOVA_FAIL_IF(kSource, __LINE__, UID_ERR == owner_uid_);
  KOVA_FAIL_IF(kSource, __LINE__, ! app_.isObject());
  KOVA_FAIL_IF(kSource, __LINE__, ! private_data_.isObject());
  KOVA_FAIL_IF(kSource, __LINE__, Entry::PROTECT_PASSWORD == protect_type_ && "" == protect_password_);
  // An MD5 digest carries no salt.
  KOVA_FAIL_IF(kSource, __LINE__, Entry::PROTECT_PASSWORD == protect_type_ && Entry::ENCRYPT_ALGO_DEFAULT == protect_password_algo_ && "" == protect_password_salt_);
  KOVA_FAIL_IF(kSource, __LINE__, Entry::PROTECT_USER == protect_type_ && (0 == protect_uids_.size() + protect_extra_users_.size() + protect_gids_.size() + protect_extra_groups_.size()));
  return true;
}
// NOLINTEND(readability-container-size-empty)

// A link stays usable during the second of its expiry, and while its count equals its limit:
// the count is raised after a successful use.
bool EntryPrivate::IsValid() const {
  time_t const timeNow = time(NULL);
  KOVA_FAIL_IF(kSource, __LINE__, ! IsLegal());
  KOVA_FAIL_IF(kSource, __LINE__, ! enabled_);
  KOVA_FAIL_IF(kSource, __LINE__, 0 < start_at_ && start_at_ > timeNow);
  KOVA_FAIL_IF(kSource, __LINE__, 0 < expire_at_ && timeNow > expire_at_);
  KOVA_FAIL_IF(kSource, __LINE__, 0 < expire_times_ && use_count_ > expire_times_);
  return true;
}
// clang-format on

void EntryPrivate::ToJSON(Json::Value& out) const {
  Json::Value json(Json::objectValue);
  json[SZK_HASH] = hash_;
  json[SZK_PROJECT_NAME] = project_name_;
  json[SZK_ENABLED_] = enabled_;
  json[SZK_OWNER_USER] = get_owner_user();
  json[SZK_START_AT] = get_start_at_str(kJsonTimeFormat);
  json[SZK_EXPIRE_AT] = get_expire_at_str(kJsonTimeFormat);
  json[SZK_EXPIRE_TIMES] = expire_times_;
  json[SZK_USE_COUNT] = use_count_;
  json[SZK_AUTO_GC] = auto_gc_;
  json[SZK_ENABLE_MATCH_IP] = enable_match_ip_;
  json[SZK_PROTECT_TITLE] = protect_title_;
  json[SZK_PROTECT_TYPE] = TextOf(ProtectNames(), protect_type_, Entry::PROTECT_NONE);
  json[SZK_PROTECT_USERS] = StringArray(get_protect_users());
  json[SZK_PROTECT_GROUPS] = StringArray(get_protect_groups());
  json[SZK_REDIRECT_TYPE] = TextOf(RedirectNames(), redirect_type_, Entry::REDIRECT_NONE);
  json[SZK_REDIRECT_URI] = redirect_uri_;
  json[SZK_APP] = app_;
  out = json;
}

bool EntryPrivate::FromRow(db::Row const& row) {
  id = row.GetField(SZK_ID_).AsInt(0);
  hash_ = row.GetField(SZK_HASH).AsString("");
  project_name_ = row.GetField(SZK_PROJECT_NAME).AsString("");
  enabled_ = row.GetField(SZK_ENABLED_).AsBool(true);
  owner_uid_ = row.GetField(SZK_OWNER_UID).AsUInt(UID_ERR);
  start_at_ = row.GetField(SZK_START_AT).AsTime(0);
  expire_at_ = row.GetField(SZK_EXPIRE_AT).AsTime(0);
  expire_times_ = row.GetField(SZK_EXPIRE_TIMES).AsInt(0);
  use_count_ = row.GetField(SZK_USE_COUNT).AsInt(0);
  auto_gc_ = 0 != row.GetField(SZK_AUTO_GC).AsInt(1);

  // The decoded data of the last row read is kept per thread: visitors of one link read the
  // same text again and again, and decoding it cost more than the rest of the row.
  std::string const text = row.GetField(SZK_DATA).AsString("");
  thread_local std::string last_text;  // empty while last_data belongs to no text
  thread_local Json::Value last_data;
  if (text.empty() || text != last_text) {
    Json::Value parsed;
    Json::Reader reader;
    if (!reader.parse(text, parsed, true)) return false;
    last_text.clear();
    last_data.swap(parsed);
    last_text = text;
  }
  Json::Value const& data = last_data;
  // Only an object (or null, where every member is missing) has members to read.
  if (!data.isObject() && !data.isNull()) return false;

  // Decode into a scratch record first: a member of a type the JSON library refuses to
  // convert makes the row unusable and leaves these fields as they were.
  EntryPrivate read;
  try {
    Json::Value const& d = data;
    read.enable_match_ip_ = d[SZK_ENABLE_MATCH_IP].asBool();
    std::string const type = d[SZK_PROTECT_TYPE].asString();
    read.protect_type_ = ValueOf(ProtectNames(), type, Entry::PROTECT_USER);
    read.protect_title_ = d[SZK_PROTECT_TITLE].asString();
    read.protect_password_ = d[SZK_PROTECT_PASSWORD].asString();
    // Only an explicit "default" means the salted digest; older rows hold MD5 digests.
    Json::Value const& algo = d[SZK_PROTECT_PASSWORD_ALGO];
    read.protect_password_algo_ =
        algo.isString() ? ValueOf(AlgoNames(), algo.asString(), Entry::ENCRYPT_ALGO_MD5)
                        : Entry::ENCRYPT_ALGO_MD5;
    read.protect_password_salt_ = d[SZK_PROTECT_PASSWORD_SALT].asString();
    for (Json::Value const& v : d[SZK_PROTECT_UIDS]) read.protect_uids_.push_back(v.asUInt());
    for (Json::Value const& v : d[SZK_PROTECT_EXTRA_USERS]) {
      read.protect_extra_users_.push_back(v.asString());
    }
    for (Json::Value const& v : d[SZK_PROTECT_GIDS]) read.protect_gids_.push_back(v.asUInt());
    for (Json::Value const& v : d[SZK_PROTECT_EXTRA_GROUPS]) {
      read.protect_extra_groups_.push_back(v.asString());
    }
    std::string const redirect = d[SZK_REDIRECT_TYPE].asString();
    read.redirect_type_ = ValueOf(RedirectNames(), redirect, Entry::REDIRECT_ALWAYS);
    read.redirect_uri_ = d[SZK_REDIRECT_URI].asString();
    read.app_ = d[SZK_APP];
    read.private_data_ =
        d.isMember(SZK_PRIVATE_DATA) ? d[SZK_PRIVATE_DATA] : Json::Value(Json::objectValue);
  } catch (Json::Exception const&) {
    return false;
  }

  enable_match_ip_ = read.enable_match_ip_;
  protect_type_ = read.protect_type_;
  protect_title_ = std::move(read.protect_title_);
  protect_password_ = std::move(read.protect_password_);
  protect_password_algo_ = read.protect_password_algo_;
  protect_password_salt_ = std::move(read.protect_password_salt_);
  protect_uids_ = std::move(read.protect_uids_);
  protect_extra_users_ = std::move(read.protect_extra_users_);
  protect_gids_ = std::move(read.protect_gids_);
  protect_extra_groups_ = std::move(read.protect_extra_groups_);
  redirect_type_ = read.redirect_type_;
  redirect_uri_ = std::move(read.redirect_uri_);
  app_ = read.app_;
  private_data_ = read.private_data_;
  row_data_ = text;
  return IsLegal();
}

void EntryPrivate::set_protect_password(std::string const& password, bool encrypt,
                                        Entry::PasswordEncryptAlgo algo) {
  blValid_ = false;
  std::string result;
  bool ok = false;
  if (!encrypt) {
    // Already a digest, e.g. copied from another link.
    result = password;
    ok = true;
  } else if (Entry::ENCRYPT_ALGO_DEFAULT != algo) {
    ok = MD5HashPassword(password, result);
  } else {
    ok = SaltSource().getString(KOVA::RANDOM::POOL_ALPHA_NUMERIC, SHARING_PASS_HASH_LENGTH,
                                protect_password_salt_) &&
         Sha1WithSaltHashPassword(password, protect_password_salt_, result);
  }
  if (!ok) result.clear();
  blValid_ = ok;
  protect_password_ = result;
  protect_password_algo_ = algo;
}

bool EntryPrivate::IsPasswordValid(std::string const& password) const {
  if (Entry::PROTECT_PASSWORD != protect_type_) return true;
  std::string digest;
  bool const ok = Entry::ENCRYPT_ALGO_DEFAULT != protect_password_algo_
                      ? MD5HashPassword(password, digest)
                      : Sha1WithSaltHashPassword(password, protect_password_salt_, digest);
  if (!ok) return false;
  return SameDigest(digest, protect_password_);
}

void EntryPrivate::set_expire_times(int const& times) {
  if (0 == expire_times_ && 0 != times) use_count_ = 0;
  expire_times_ = times;
}

std::string EntryPrivate::get_owner_user() const {
  std::string name;
  if (!UIDToUser(owner_uid_, name)) return "";
  return name;
}

bool EntryPrivate::set_owner_user(std::string const& name) {
  unsigned int uid = UID_ERR;
  if (!UserToUID(name, uid)) {
    owner_uid_ = UID_ERR;
    return false;
  }
  owner_uid_ = uid;
  return true;
}

void EntryPrivate::set_protect_uids(std::vector<unsigned int> const& uids) {
  protect_uids_ = uids;
  protect_extra_users_.clear();
}

void EntryPrivate::set_protect_gids(std::vector<unsigned int> const& gids) {
  protect_gids_ = gids;
  protect_extra_groups_.clear();
}

void EntryPrivate::set_protect_users(std::vector<std::string> const& users) {
  protect_uids_.clear();
  protect_extra_users_.clear();
  for (std::string const& name : users) {
    unsigned int uid = UID_ERR;
    if (UserToUID(name, uid)) {
      protect_uids_.push_back(uid);
    } else {
      protect_extra_users_.push_back(name);
    }
  }
}

void EntryPrivate::set_protect_groups(std::vector<std::string> const& groups) {
  protect_gids_.clear();
  protect_extra_groups_.clear();
  for (std::string const& name : groups) {
    unsigned int gid = UID_ERR;
    if (GroupToGID(name, gid)) {
      protect_gids_.push_back(gid);
    } else {
      protect_extra_groups_.push_back(name);
    }
  }
}

std::vector<unsigned int> EntryPrivate::get_protect_uids() const {
  std::vector<unsigned int> uids = protect_uids_;
  for (std::string const& name : protect_extra_users_) {
    unsigned int uid = UID_ERR;
    if (UserToUID(name, uid)) uids.push_back(uid);
  }
  return uids;
}

std::vector<unsigned int> EntryPrivate::get_protect_gids() const {
  std::vector<unsigned int> gids = protect_gids_;
  for (std::string const& name : protect_extra_groups_) {
    unsigned int gid = UID_ERR;
    if (GroupToGID(name, gid)) gids.push_back(gid);
  }
  return gids;
}

std::vector<std::string> EntryPrivate::get_protect_users() const {
  std::vector<std::string> names;
  for (unsigned int uid : protect_uids_) {
    std::string name;
    if (UIDToUser(uid, name)) names.push_back(name);
  }
  names.insert(names.end(), protect_extra_users_.begin(), protect_extra_users_.end());
  return names;
}

std::vector<std::string> EntryPrivate::get_protect_groups() const {
  std::vector<std::string> names;
  for (unsigned int gid : protect_gids_) {
    std::string name;
    if (GIDToGroup(gid, name)) names.push_back(name);
  }
  names.insert(names.end(), protect_extra_groups_.begin(), protect_extra_groups_.end());
  return names;
}

std::string EntryPrivate::get_start_at_str(char const* format) const {
  return TimeText(start_at_, format);
}

void EntryPrivate::set_start_at_str(std::string const& text, char const* format) {
  start_at_ = ParseTimeText(text, format);
}

std::string EntryPrivate::get_expire_at_str(char const* format) const {
  return TimeText(expire_at_, format);
}

void EntryPrivate::set_expire_at_str(std::string const& text, char const* format) {
  expire_at_ = ParseTimeText(text, format);
}

}  // namespace record
}  // namespace sharing
}  // namespace KOVA
