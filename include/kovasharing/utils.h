// Utilities: password digests, probability draw, string helpers, user and group look-ups,
// the public URL of a link and a call into the appliance's web API.
#ifndef KOVASHARING_UTILS_H
#define KOVASHARING_UTILS_H

#include <json/value.h>

#include <set>
#include <string>
#include <vector>

#include "export.h"

struct KOVAUSER;  // the platform's user record

namespace KOVA {
namespace sharing {

// Digests (lower-case hexadecimal).
KOVA_EXPORT bool Sha1WithSaltHashPassword(std::string const& password, std::string const& salt,
                                          std::string& out);
KOVA_EXPORT bool MD5HashPassword(std::string const& password, std::string& out);
// True on roughly `probability` of the calls (in whole percent, truncated).
KOVA_EXPORT bool IsProbabilityHit(float probability);
// Splits `text` at every occurrence of the whole `delimiter`, dropping empty pieces.
KOVA_EXPORT bool StringExplode(std::vector<std::string>& out, std::string const& text,
                               char const* delimiter);

template <typename T>
std::string ToString(T& value);
template <>
KOVA_EXPORT std::string ToString<std::string>(std::string& value);
template <>
KOVA_EXPORT std::string ToString<bool>(bool& value);
template <>
KOVA_EXPORT std::string ToString<bool const>(bool const& value);
template <>
KOVA_EXPORT std::string ToString<int const>(int const& value);
template <>
KOVA_EXPORT std::string ToString<long const>(long const& value);

// Users and groups.
KOVA_EXPORT std::string GetRealUsername(char const* name);
KOVA_EXPORT bool UserGet(char const* name, KOVAUSER*& user);
KOVA_EXPORT bool UserGroupsGet(KOVAUSER* user, std::set<unsigned int>& gids);
KOVA_EXPORT bool UserToUID(std::string const& name, unsigned int& uid);
KOVA_EXPORT bool UIDToUser(unsigned int const& uid, std::string& name);
KOVA_EXPORT bool GroupToGID(std::string const& group, unsigned int& gid);
KOVA_EXPORT bool GIDToGroup(unsigned int const& gid, std::string& name);

// The URL tool's type numbers. Any number the tool prints is kept, known or not, hence the
// fixed underlying type.
enum _tag_SHARING_URL_TYPE : int {
  SHARING_URL_TYPE_UNKNOWN = 0,
  SHARING_URL_TYPE_LAN = 1,
  SHARING_URL_TYPE_WAN = 2,
  SHARING_URL_TYPE_RELAY = 3,
};

KOVA_EXPORT bool GetSharingURL(std::string const& text1, int number, bool flag,
                               std::string const& text2, std::string const& text3, std::string& url,
                               _tag_SHARING_URL_TYPE& type);
KOVA_EXPORT bool GetSharingURL(std::string const& text1, int number, bool flag,
                               std::string const& text3, std::string& url,
                               _tag_SHARING_URL_TYPE& type);

// Runs one web API request through the appliance's runner; `out` holds its JSON answer.
KOVA_EXPORT bool SendWebapi(Json::Value& out, std::string const& api, int version,
                            std::string const& method, Json::Value const& params);

}  // namespace sharing
}  // namespace KOVA

#endif
