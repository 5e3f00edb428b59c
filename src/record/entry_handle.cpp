// The entry's public handle: it owns one private record for its whole life and forwards every
// call to it (the record's rules and conversions are in entry.cpp).
#include <utility>

#include "kovasharing/entry.h"
#include "record/entry_private.h"

namespace KOVA {
namespace sharing {
namespace record {

// ------------------------------------------------------------------------------- Entry

Entry::Entry() : d_(new EntryPrivate) {}
Entry::Entry(Entry const& other) : d_(new EntryPrivate(*other.d_)) {}
// The source keeps a record of its own, so it stays usable; running out of memory here
// ends the program.
Entry::Entry(Entry&& other) noexcept
    // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new)
    : d_(new EntryPrivate(std::move(*other.d_))) {}

Entry& Entry::operator=(Entry const& other) {
  if (this != &other) *d_ = *other.d_;
  return *this;
}

Entry& Entry::operator=(Entry&& other) noexcept {
  if (this != &other) *d_ = std::move(*other.d_);
  return *this;
}

Entry::~Entry() { delete d_; }

Object& Entry::GetObject() { return *d_; }
Object const& Entry::GetCObject() const { return *d_; }

std::vector<std::string> Entry::GetFieldList() const { return d_->GetFieldList(); }
std::map<std::string, std::string> Entry::GetFieldMap() const { return d_->GetFieldMap(); }
bool Entry::IsLegal() const { return d_->IsLegal(); }
bool Entry::IsValid() const { return d_->IsValid(); }
void Entry::ToJSON(Json::Value& out) const { d_->ToJSON(out); }
bool Entry::FromRow(db::Row const& row) { return d_->FromRow(row); }
bool Entry::IsPasswordValid(std::string const& password) const {
  return d_->IsPasswordValid(password);
}

int Entry::get_id() const { return d_->get_id(); }
Entry& Entry::set_id(int id) {
  d_->set_id(id);
  return *this;
}

std::string Entry::get_hash() const { return d_->hash_; }
Entry& Entry::set_hash(std::string hash) {
  d_->hash_ = std::move(hash);
  return *this;
}

std::string Entry::get_project_name() const { return d_->project_name_; }
Entry& Entry::set_project_name(std::string const& name) {
  d_->project_name_ = name;
  return *this;
}

bool Entry::get_enabled() const { return d_->enabled_; }
Entry& Entry::set_enabled(bool const& enabled) {
  d_->enabled_ = enabled;
  return *this;
}

unsigned int Entry::get_owner_uid() const { return d_->owner_uid_; }
Entry& Entry::set_owner_uid(unsigned int uid) {
  d_->owner_uid_ = uid;
  return *this;
}

std::string Entry::get_owner_user() const { return d_->get_owner_user(); }
bool Entry::set_owner_user(std::string const& name) { return d_->set_owner_user(name); }

long Entry::get_start_at() const { return d_->start_at_; }
Entry& Entry::set_start_at(long time) {
  d_->start_at_ = time;
  return *this;
}

long Entry::get_expire_at() const { return d_->expire_at_; }
Entry& Entry::set_expire_at(long time) {
  d_->expire_at_ = time;
  return *this;
}

int Entry::get_expire_times() const { return d_->expire_times_; }
Entry& Entry::set_expire_times(int const& times) {
  d_->set_expire_times(times);
  return *this;
}

int Entry::get_use_count() const { return d_->use_count_; }
Entry& Entry::set_use_count(int const& count) {
  d_->use_count_ = count;
  return *this;
}
Entry& Entry::inc_use_count() {
  ++d_->use_count_;
  return *this;
}

bool Entry::get_auto_gc() const { return d_->auto_gc_; }
Entry& Entry::set_auto_gc(bool const& auto_gc) {
  d_->auto_gc_ = auto_gc;
  return *this;
}

bool Entry::get_enable_match_ip() const { return d_->enable_match_ip_; }
Entry& Entry::set_enable_match_ip(bool enable) {
  d_->enable_match_ip_ = enable;
  return *this;
}

Entry::ProtectType Entry::get_protect_type() const { return d_->protect_type_; }
Entry& Entry::set_protect_type(ProtectType type) {
  d_->protect_type_ = type;
  return *this;
}

std::string Entry::get_protect_title() const { return d_->protect_title_; }
Entry& Entry::set_protect_title(std::string const& title) {
  d_->protect_title_ = title;
  return *this;
}

std::string Entry::get_protect_password() const { return d_->protect_password_; }
Entry::PasswordEncryptAlgo Entry::get_protect_password_algo() const {
  return d_->protect_password_algo_;
}
std::string Entry::get_protect_password_salt() const { return d_->protect_password_salt_; }
void Entry::set_protect_password(std::string const& password, bool encrypt,
                                 PasswordEncryptAlgo algo) {
  d_->set_protect_password(password, encrypt, algo);
}

std::vector<unsigned int> Entry::get_protect_uids() const { return d_->get_protect_uids(); }
Entry& Entry::set_protect_uids(std::vector<unsigned int> const& uids) {
  d_->set_protect_uids(uids);
  return *this;
}
std::vector<unsigned int> Entry::get_protect_gids() const { return d_->get_protect_gids(); }
Entry& Entry::set_protect_gids(std::vector<unsigned int> const& gids) {
  d_->set_protect_gids(gids);
  return *this;
}
std::vector<std::string> Entry::get_protect_users() const { return d_->get_protect_users(); }
void Entry::set_protect_users(std::vector<std::string> const& users) {
  d_->set_protect_users(users);
}
std::vector<std::string> Entry::get_protect_groups() const { return d_->get_protect_groups(); }
void Entry::set_protect_groups(std::vector<std::string> const& groups) {
  d_->set_protect_groups(groups);
}

Entry::RedirectType Entry::get_redirect_type() const { return d_->redirect_type_; }
Entry& Entry::set_redirect_type(RedirectType type) {
  d_->redirect_type_ = type;
  return *this;
}

std::string Entry::get_redirect_uri() const { return d_->redirect_uri_; }
Entry& Entry::set_redirect_uri(std::string const& uri) {
  d_->redirect_uri_ = uri;
  return *this;
}

Json::Value Entry::get_app() const { return d_->app_; }
Entry& Entry::set_app(Json::Value const& app) {
  d_->app_ = app;
  return *this;
}

Json::Value Entry::get_private_data() const { return d_->private_data_; }
Entry& Entry::set_private_data(Json::Value const& data) {
  d_->private_data_ = data;
  return *this;
}

std::string Entry::get_start_at_str(char const* format) const {
  return d_->get_start_at_str(format);
}
Entry& Entry::set_start_at_str(std::string const& text, char const* format) {
  d_->set_start_at_str(text, format);
  return *this;
}
std::string Entry::get_expire_at_str(char const* format) const {
  return d_->get_expire_at_str(format);
}
Entry& Entry::set_expire_at_str(std::string const& text, char const* format) {
  d_->set_expire_at_str(text, format);
  return *this;
}

}  // namespace record
}  // namespace sharing
}  // namespace KOVA
