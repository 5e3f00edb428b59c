// The entry record proper: fields, row conversions, rules and protection. The row id is the
// record interface's own id.
#ifndef KOVASHARING_INTERNAL_ENTRY_PRIVATE_H
#define KOVASHARING_INTERNAL_ENTRY_PRIVATE_H

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "kovasharing/entry.h"
#include "kovasharing/object.h"

namespace KOVA {
namespace sharing {
namespace record {

class EntryPrivate : public Object {
 public:
  EntryPrivate();
  EntryPrivate(EntryPrivate const& other) = default;
  // Moves strings, lists and JSON values out of `other` and leaves them empty there; numbers
  // and flags are copied.
  EntryPrivate(EntryPrivate&& other) noexcept;
  EntryPrivate& operator=(EntryPrivate const& other) = default;
  EntryPrivate& operator=(EntryPrivate&& other) noexcept;
  ~EntryPrivate() override;

  std::vector<std::string> GetFieldList() const override;
  std::map<std::string, std::string> GetFieldMap() const override;
  bool IsLegal() const override;
  void ToJSON(Json::Value& out) const override;
  bool FromRow(db::Row const& row) override;

  bool IsValid() const;
  void set_protect_password(std::string const& password, bool encrypt,
                            Entry::PasswordEncryptAlgo algo);
  bool IsPasswordValid(std::string const& password) const;
  void set_expire_times(int const& times);

  std::string get_owner_user() const;
  bool set_owner_user(std::string const& name);
  void set_protect_uids(std::vector<unsigned int> const& uids);
  void set_protect_gids(std::vector<unsigned int> const& gids);
  void set_protect_users(std::vector<std::string> const& users);
  void set_protect_groups(std::vector<std::string> const& groups);
  std::vector<unsigned int> get_protect_uids() const;
  std::vector<unsigned int> get_protect_gids() const;
  std::vector<std::string> get_protect_users() const;
  std::vector<std::string> get_protect_groups() const;

  std::string get_start_at_str(char const* format) const;
  void set_start_at_str(std::string const& text, char const* format);
  std::string get_expire_at_str(char const* format) const;
  void set_expire_at_str(std::string const& text, char const* format);

  // The "data" column: everything the stores never filter on.
  Json::Value DataJSON() const;

  bool blValid_;  // false while the last password setting failed
  std::string hash_;
  std::string project_name_;
  bool enabled_;
  unsigned int owner_uid_;
  long start_at_;
  long expire_at_;
  int expire_times_;
  int use_count_;
  bool auto_gc_;
  bool enable_match_ip_;
  Entry::ProtectType protect_type_;
  std::string protect_title_;
  std::string protect_password_;
  std::string protect_password_salt_;
  Entry::PasswordEncryptAlgo protect_password_algo_;
  std::vector<unsigned int> protect_uids_;
  std::vector<std::string> protect_extra_users_;
  std::vector<unsigned int> protect_gids_;
  std::vector<std::string> protect_extra_groups_;
  Entry::RedirectType redirect_type_;
  std::string redirect_uri_;
  Json::Value app_;
  Json::Value private_data_;
  // The "data" column exactly as FromRow last read it ("" when the entry was not read): what a
  // statement compares to tell whether the stored row still is the one that was read.
  std::string row_data_;

 private:
  void TakeFrom(EntryPrivate& other);
};

}  // namespace record
}  // namespace sharing
}  // namespace KOVA

#endif
