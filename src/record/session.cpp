#include "kovasharing/session.h"

#include <kova_log.h>
#include <syslog.h>
#include <unistd.h>

#include <ctime>
#include <utility>

#include "kovasharing/constants.h"
#include "kovasharing/result.h"
#include "record/session_private.h"

namespace KOVA {
namespace sharing {

namespace db {
template KOVA_EXPORT bool ObjectDB::Query<record::Session>(std::vector<record::Session>& out) const;
}  // namespace db

namespace record {

namespace {

char const kSource[] = "session";

template <class T>
std::string Decimal(T value) {
  return std::to_string(value);
}

}  // namespace

SessionPrivate::SessionPrivate() : uid_(UID_ERR), timeout_(0) {}

SessionPrivate::SessionPrivate(SessionPrivate&& other) noexcept
    : Object(other), uid_(UID_ERR), timeout_(0) {
  TakeFrom(other);
}

SessionPrivate& SessionPrivate::operator=(SessionPrivate&& other) noexcept {
  if (this != &other) TakeFrom(other);
  return *this;
}

SessionPrivate::~SessionPrivate() = default;

void SessionPrivate::TakeFrom(SessionPrivate& other) {
  Object::operator=(other);
  session_id_ = std::move(other.session_id_);
  other.session_id_.clear();
  uid_ = other.uid_;
  ip_ = std::move(other.ip_);
  other.ip_.clear();
  timeout_ = other.timeout_;
}

std::vector<std::string> SessionPrivate::GetFieldList() const {
  return {session_id_, Decimal(uid_), ip_, Decimal(timeout_)};
}

std::map<std::string, std::string> SessionPrivate::GetFieldMap() const {
  std::vector<std::string> const values = GetFieldList();
  char const* const columns[] = {SZK_SESSION_ID_, SZK_UID_, SZK_IP_, SZK_TIMEOUT};
  std::map<std::string, std::string> map;
  for (std::size_t i = 0; i < values.size() && i < 4; ++i) map[columns[i]] = values[i];
  return map;
}

// An expired session is illegal, so it reads back as absent.
// clang-format off
// NOLINTBEGIN(readability-container-size-empty)
bool SessionPrivate::IsLegal() const {
  KOVA_FAIL_IF(kSource, 87, "" == session_id_);
  KOVA_FAIL_IF(kSource, 88, "" == ip_);
  KOVA_FAIL_IF(kSource, 89, time(NULL) >= timeout_);
  return true;
}
// NOLINTEND(readability-container-size-empty)
// clang-format on

void SessionPrivate::ToJSON(Json::Value& out) const {
  out[SZK_SESSION_ID_] = session_id_;
  out[SZK_UID_] = Json::Value(static_cast<Json::UInt>(uid_));
  out[SZK_IP_] = ip_;
  out[SZK_TIMEOUT] = Json::Value(static_cast<Json::Int64>(timeout_));
}

bool SessionPrivate::FromRow(db::Row const& row) {
  id = row.GetField(SZK_ID_).AsInt(0);
  session_id_ = row.GetField(SZK_SESSION_ID_).AsString("");
  uid_ = row.GetField(SZK_UID_).AsUInt(UID_ERR);
  ip_ = row.GetField(SZK_IP_).AsString("");
  timeout_ = row.GetField(SZK_TIMEOUT).AsTime(0);
  return IsLegal();
}

// ----------------------------------------------------------------------------- Session

Session::Session() : d_(new SessionPrivate) {}
Session::Session(Session const& other) : d_(new SessionPrivate(*other.d_)) {}
// The source keeps a record of its own, so it stays usable; running out of memory here
// ends the program.
Session::Session(Session&& other) noexcept
    // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new)
    : d_(new SessionPrivate(std::move(*other.d_))) {}

Session& Session::operator=(Session const& other) {
  if (this != &other) *d_ = *other.d_;
  return *this;
}

Session& Session::operator=(Session&& other) noexcept {
  if (this != &other) *d_ = std::move(*other.d_);
  return *this;
}

Session::~Session() { delete d_; }

Object& Session::GetObject() { return *d_; }
Object const& Session::GetCObject() const { return *d_; }

std::vector<std::string> Session::GetFieldList() const { return d_->GetFieldList(); }
std::map<std::string, std::string> Session::GetFieldMap() const { return d_->GetFieldMap(); }
bool Session::IsLegal() const { return d_->IsLegal(); }
void Session::ToJSON(Json::Value& out) const { d_->ToJSON(out); }
bool Session::FromRow(db::Row const& row) { return d_->FromRow(row); }

int Session::get_id() const { return d_->get_id(); }
Session& Session::set_id(int id) {
  d_->set_id(id);
  return *this;
}

std::string Session::get_session_id() const { return d_->session_id_; }
Session& Session::set_session_id(std::string const& session_id) {
  d_->session_id_ = session_id;
  return *this;
}

unsigned int Session::get_uid() const { return d_->uid_; }
Session& Session::set_uid(unsigned int uid) {
  d_->uid_ = uid;
  return *this;
}

std::string Session::get_ip() const { return d_->ip_; }
Session& Session::set_ip(std::string const& ip) {
  d_->ip_ = ip;
  return *this;
}

long Session::get_timeout() const { return d_->timeout_; }
Session& Session::set_timeout(long timeout) {
  d_->timeout_ = timeout;
  return *this;
}

}  // namespace record
}  // namespace sharing
}  // namespace KOVA
