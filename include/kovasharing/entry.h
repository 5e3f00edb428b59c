// A sharing link: its hash, owner, validity period, use limit, protection and the calling
// application's data. The handle owns one private record; copies never share it.
#ifndef KOVASHARING_ENTRY_H
#define KOVASHARING_ENTRY_H

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "export.h"
#include "object.h"
#include "object_db.h"

namespace KOVA {
namespace sharing {
namespace db {
class Row;
}
namespace record {

class EntryPrivate;

class KOVA_EXPORT Entry {
 public:
  // Fixed underlying types: a value read from elsewhere may lie outside the known ones, and
  // every conversion gives such values a text of their own.
  enum ProtectType : int {
    PROTECT_NONE = 0,
    PROTECT_PASSWORD = 1,
    PROTECT_USER = 2,
  };
  enum RedirectType : int {
    REDIRECT_NONE = 0,
    REDIRECT_URLPARAM = 1,
    REDIRECT_ALWAYS = 2,
  };
  enum PasswordEncryptAlgo : int {
    ENCRYPT_ALGO_DEFAULT = 0,  // salted SHA-1
    ENCRYPT_ALGO_MD5 = 1,      // plain MD5
  };

  Entry();
  Entry(Entry const& other);
  // The new handle takes the fields; `other` keeps its own (emptied) record and stays usable.
  Entry(Entry&& other) noexcept;
  Entry& operator=(Entry const& other);
  Entry& operator=(Entry&& other) noexcept;
  virtual ~Entry();

  Object& GetObject();
  Object const& GetCObject() const;

  std::vector<std::string> GetFieldList() const;
  std::map<std::string, std::string> GetFieldMap() const;
  // May be stored: hash, project, owner, application object, a usable protection.
  bool IsLegal() const;
  // Legal and usable by a visitor now.
  bool IsValid() const;
  void ToJSON(Json::Value& out) const;
  bool FromRow(db::Row const& row);
  // True for entries without password protection, else when the clear text matches.
  bool IsPasswordValid(std::string const& password) const;

  int get_id() const;
  Entry& set_id(int id);
  std::string get_hash() const;
  Entry& set_hash(std::string hash);
  std::string get_project_name() const;
  Entry& set_project_name(std::string const& name);
  bool get_enabled() const;
  Entry& set_enabled(bool const& enabled);
  unsigned int get_owner_uid() const;
  Entry& set_owner_uid(unsigned int uid);
  // The owner's login name; "" when the id does not resolve.
  std::string get_owner_user() const;
  // False (and the owner unset) when the name does not resolve.
  bool set_owner_user(std::string const& name);
  long get_start_at() const;
  Entry& set_start_at(long time);
  long get_expire_at() const;
  Entry& set_expire_at(long time);
  int get_expire_times() const;
  // Turning an unlimited link into a limited one restarts its count.
  Entry& set_expire_times(int const& times);
  int get_use_count() const;
  Entry& set_use_count(int const& count);
  Entry& inc_use_count();  // in memory only
  bool get_auto_gc() const;
  Entry& set_auto_gc(bool const& auto_gc);
  bool get_enable_match_ip() const;
  Entry& set_enable_match_ip(bool enable);

  ProtectType get_protect_type() const;
  Entry& set_protect_type(ProtectType type);
  std::string get_protect_title() const;
  Entry& set_protect_title(std::string const& title);
  std::string get_protect_password() const;
  PasswordEncryptAlgo get_protect_password_algo() const;
  std::string get_protect_password_salt() const;
  // With `encrypt` the clear text is digested with `algo`; without, it is taken as a digest.
  // A failure leaves the entry illegal until a password is set successfully.
  void set_protect_password(std::string const& password, bool encrypt, PasswordEncryptAlgo algo);

  // Ids set directly plus the names kept aside that resolve now.
  std::vector<unsigned int> get_protect_uids() const;
  Entry& set_protect_uids(std::vector<unsigned int> const& uids);
  std::vector<unsigned int> get_protect_gids() const;
  Entry& set_protect_gids(std::vector<unsigned int> const& gids);
  // Names that do not resolve are kept as names, so that an account made later is admitted.
  std::vector<std::string> get_protect_users() const;
  void set_protect_users(std::vector<std::string> const& users);
  std::vector<std::string> get_protect_groups() const;
  void set_protect_groups(std::vector<std::string> const& groups);

  RedirectType get_redirect_type() const;
  Entry& set_redirect_type(RedirectType type);
  std::string get_redirect_uri() const;
  Entry& set_redirect_uri(std::string const& uri);
  Json::Value get_app() const;
  Entry& set_app(Json::Value const& app);
  Json::Value get_private_data() const;
  Entry& set_private_data(Json::Value const& data);

  // Local time texts with a strftime/strptime format; "" for an unset time, and an empty or
  // unmatched text unsets the time.
  std::string get_start_at_str(char const* format) const;
  Entry& set_start_at_str(std::string const& text, char const* format);
  std::string get_expire_at_str(char const* format) const;
  Entry& set_expire_at_str(std::string const& text, char const* format);

 private:
  EntryPrivate* d_;
};

}  // namespace record

namespace db {
extern template KOVA_EXPORT bool ObjectDB::Query<record::Entry>(
    std::vector<record::Entry>& out) const;
}  // namespace db

}  // namespace sharing
}  // namespace KOVA

#endif
