#include "kovasharing/token.h"

#include <kova_log.h>
#include <syslog.h>
#include <unistd.h>

#include <ctime>
#include <utility>

#include "kovasharing/constants.h"
#include "kovasharing/result.h"
#include "kovasharing/utils.h"
#include "record/token_private.h"

namespace KOVA {
namespace sharing {

namespace db {
template KOVA_EXPORT bool ObjectDB::Query<record::Token>(std::vector<record::Token>& out) const;
}  // namespace db

namespace record {

namespace {

char const kSource[] = "token";

}  // namespace

TokenPrivate::TokenPrivate() : entry_id_(0), session_id_(0), timeout_(0) {}

TokenPrivate::TokenPrivate(TokenPrivate&& other) noexcept
    : Object(other), entry_id_(0), session_id_(0), timeout_(0) {
  TakeFrom(other);
}

TokenPrivate& TokenPrivate::operator=(TokenPrivate&& other) noexcept {
  if (this != &other) TakeFrom(other);
  return *this;
}

TokenPrivate::~TokenPrivate() = default;

void TokenPrivate::TakeFrom(TokenPrivate& other) {
  Object::operator=(other);
  reserved_ = std::move(other.reserved_);
  other.reserved_.clear();
  entry_id_ = other.entry_id_;
  session_id_ = other.session_id_;
  timeout_ = other.timeout_;
}

std::vector<std::string> TokenPrivate::GetFieldList() const {
  return {ToString<int const>(entry_id_), ToString<int const>(session_id_),
          std::to_string(timeout_)};
}

std::map<std::string, std::string> TokenPrivate::GetFieldMap() const {
  std::vector<std::string> const values = GetFieldList();
  char const* const columns[] = {SZK_ENTRY_ID, SZK_SESSION_ID_, SZK_TIMEOUT};
  std::map<std::string, std::string> map;
  for (std::size_t i = 0; i < values.size() && i < 3; ++i) map[columns[i]] = values[i];
  return map;
}

// Only 0 means "not set" for the ids. An expired token is illegal, so it reads back as absent.
// clang-format off
bool TokenPrivate::IsLegal() const {
  KOVA_FAIL_IF(kSource, 81, 0 == entry_id_);
  KOVA_FAIL_IF(kSource, 82, 0 == session_id_);
  KOVA_FAIL_IF(kSource, 83, time(NULL) >= timeout_);
  return true;
}
// clang-format on

void TokenPrivate::ToJSON(Json::Value& out) const {
  out[SZK_ENTRY_ID] = Json::Value(entry_id_);
  out[SZK_SESSION_ID_] = Json::Value(session_id_);
  out[SZK_TIMEOUT] = Json::Value(static_cast<Json::Int64>(timeout_));
}

bool TokenPrivate::FromRow(db::Row const& row) {
  id = row.GetField(SZK_ID_).AsInt(0);
  entry_id_ = row.GetField(SZK_ENTRY_ID).AsInt(0);
  session_id_ = row.GetField(SZK_SESSION_ID_).AsInt(0);
  timeout_ = row.GetField(SZK_TIMEOUT).AsTime(0);
  return IsLegal();
}

// ------------------------------------------------------------------------------- Token

Token::Token() : d_(new TokenPrivate) {}
Token::Token(Token const& other) : d_(new TokenPrivate(*other.d_)) {}
// The source keeps a record of its own, so it stays usable; running out of memory here
// ends the program.
Token::Token(Token&& other) noexcept
    // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new)
    : d_(new TokenPrivate(std::move(*other.d_))) {}

Token& Token::operator=(Token const& other) {
  if (this != &other) *d_ = *other.d_;
  return *this;
}

Token& Token::operator=(Token&& other) noexcept {
  if (this != &other) *d_ = std::move(*other.d_);
  return *this;
}

Token::~Token() { delete d_; }

Object& Token::GetObject() { return *d_; }
Object const& Token::GetCObject() const { return *d_; }

std::vector<std::string> Token::GetFieldList() const { return d_->GetFieldList(); }
std::map<std::string, std::string> Token::GetFieldMap() const { return d_->GetFieldMap(); }
bool Token::IsLegal() const { return d_->IsLegal(); }
void Token::ToJSON(Json::Value& out) const { d_->ToJSON(out); }
bool Token::FromRow(db::Row const& row) { return d_->FromRow(row); }

int Token::get_id() const { return d_->get_id(); }
Token& Token::set_id(int id) {
  d_->set_id(id);
  return *this;
}

int Token::get_entry_id() const { return d_->entry_id_; }
Token& Token::set_entry_id(int entry_id) {
  d_->entry_id_ = entry_id;
  return *this;
}

int Token::get_session_id() const { return d_->session_id_; }
Token& Token::set_session_id(int session_id) {
  d_->session_id_ = session_id;
  return *this;
}

long Token::get_timeout() const { return d_->timeout_; }
Token& Token::set_timeout(long timeout) {
  d_->timeout_ = timeout;
  return *this;
}

}  // namespace record
}  // namespace sharing
}  // namespace KOVA
