// Translation between login names, user ids, group names and group ids, over the platform's
// user and group database.
#include <kova_log.h>
#include <syslog.h>

#include "kova_user.h"
#include "kovasharing/utils.h"

namespace KOVA {
namespace sharing {

namespace {
// Room the platform wants for a canonical login name.
constexpr std::size_t kLoginNameBuffer = 493;
}  // namespace

std::string GetRealUsername(char const* name) {
  if (name == nullptr) return std::string();
  char buffer[kLoginNameBuffer] = {};
  if (KOVAUserLoginNameConvert(name, buffer, sizeof buffer, 0) >= 1) {
    return std::string(buffer);
  }
  return std::string(name);
}

bool UserGet(char const* name, KOVAUSER*& user) {
  std::string const real = GetRealUsername(name);
  int const r = KOVAUserGet(real.c_str(), &user);
  // Only "no such user" is a failure; a look-up error leaves the decision to the record.
  if (r == -1) {
    KOVA_LOG("utils_user_group", 35, "No such user [%s]", real.c_str());
    return false;
  }
  return true;
}

bool UserGroupsGet(KOVAUSER* user, std::set<unsigned int>& gids) {
  if (user == nullptr) return false;
  KLIBCSzHash* hash = KLIBGroupInfoHashGet(user->name, 1, 0);
  if (hash == nullptr) return false;
  for (int i = 0; i < hash->count; ++i) {
    char const* group = hash->entries[i].name;
    if (group == nullptr) continue;
    unsigned int gid = 0;
    if (KOVAGroupGetGID(group, &gid) != 0) continue;
    gids.insert(gid);
  }
  KLIBCSzHashFree(hash);
  return true;
}

bool UserToUID(std::string const& name, unsigned int& uid) {
  std::string const real = GetRealUsername(name.c_str());
  KOVAUSER* user = nullptr;
  int const r = KOVAUserGet(real.c_str(), &user);
  if (r == 0) uid = user->uid;
  if (user != nullptr) KOVAUserFree(user);
  return r == 0;
}

bool UIDToUser(unsigned int const& uid, std::string& name) {
  KOVAUSER* user = nullptr;
  int const r = KOVAUserGetByUID(uid, &user);
  if (r == 0) name = user->name;
  if (user != nullptr) KOVAUserFree(user);
  return r == 0;
}

bool GroupToGID(std::string const& group, unsigned int& gid) {
  return KOVAGroupGetGID(group.c_str(), &gid) == 0;
}

bool GIDToGroup(unsigned int const& gid, std::string& name) {
  KOVAGROUP* group = nullptr;
  int const r = KOVAGroupGetByGID(gid, &group);
  if (r == 0) name = group->name;
  if (group != nullptr) KOVAGroupFree(group);
  return r == 0;
}

}  // namespace sharing
}  // namespace KOVA
