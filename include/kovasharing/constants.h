// Exported constants: column and JSON key names, lengths and bounds, the database path.
#ifndef KOVASHARING_CONSTANTS_H
#define KOVASHARING_CONSTANTS_H

#include "export.h"

namespace KOVA {
namespace sharing {

// Unset or unknown owner (all bits set).
constexpr unsigned int UID_ERR = 0xFFFFFFFFu;

constexpr int SHARING_HASH_LENGTH = 9;       // first length of a link hash
constexpr int SHARING_MAX_RETRY_TIMES = 50;  // retry bound of random-key creation
constexpr int SHARING_SESSION_LENGTH = 32;   // length of a session id
constexpr int SHARING_PASS_HASH_LENGTH = 6;  // length of a password salt

KOVA_EXPORT extern char const* const SZF_SHARING_DB_PATH;

// Keys shared by the records.
KOVA_EXPORT extern char const* const SZK_ID_;
KOVA_EXPORT extern char const* const SZK_SESSION_ID_;
KOVA_EXPORT extern char const* const SZK_UID_;
KOVA_EXPORT extern char const* const SZK_IP_;
KOVA_EXPORT extern char const* const SZK_TIMEOUT;
KOVA_EXPORT extern char const* const SZK_ENTRY_ID;

// Entry keys.
KOVA_EXPORT extern char const* const SZK_HASH;
KOVA_EXPORT extern char const* const SZK_PROJECT_NAME;
KOVA_EXPORT extern char const* const SZK_ENABLED_;
KOVA_EXPORT extern char const* const SZK_OWNER_UID;
KOVA_EXPORT extern char const* const SZK_OWNER_USER;
KOVA_EXPORT extern char const* const SZK_START_AT;
KOVA_EXPORT extern char const* const SZK_EXPIRE_AT;
KOVA_EXPORT extern char const* const SZK_EXPIRE_TIMES;
KOVA_EXPORT extern char const* const SZK_USE_COUNT;
KOVA_EXPORT extern char const* const SZK_AUTO_GC;
KOVA_EXPORT extern char const* const SZK_DATA;
KOVA_EXPORT extern char const* const SZK_ENABLE_MATCH_IP;
KOVA_EXPORT extern char const* const SZK_PROTECT_TYPE;
KOVA_EXPORT extern char const* const SZK_PROTECT_TITLE;
KOVA_EXPORT extern char const* const SZK_PROTECT_PASSWORD;
KOVA_EXPORT extern char const* const SZK_PROTECT_PASSWORD_ALGO;
KOVA_EXPORT extern char const* const SZK_PROTECT_PASSWORD_SALT;
KOVA_EXPORT extern char const* const SZK_PROTECT_UIDS;
KOVA_EXPORT extern char const* const SZK_PROTECT_EXTRA_USERS;
KOVA_EXPORT extern char const* const SZK_PROTECT_GIDS;
KOVA_EXPORT extern char const* const SZK_PROTECT_EXTRA_GROUPS;
KOVA_EXPORT extern char const* const SZK_PROTECT_USERS;
KOVA_EXPORT extern char const* const SZK_PROTECT_GROUPS;
KOVA_EXPORT extern char const* const SZK_REDIRECT_TYPE;
KOVA_EXPORT extern char const* const SZK_REDIRECT_URI;
KOVA_EXPORT extern char const* const SZK_APP;
KOVA_EXPORT extern char const* const SZK_PRIVATE_DATA;
KOVA_EXPORT extern char const* const SZK_PROTECT_PROTECT_NONE;
KOVA_EXPORT extern char const* const SZK_PROTECT_PROTECT_PASSWORD;
KOVA_EXPORT extern char const* const SZK_PROTECT_PROTECT_USER;
KOVA_EXPORT extern char const* const SZK_REDIRECT_REDIRECT_NONE;
KOVA_EXPORT extern char const* const SZK_REDIRECT_REDIRECT_URLPARAM;
KOVA_EXPORT extern char const* const SZK_REDIRECT_REDIRECT_ALWAYS;
KOVA_EXPORT extern char const* const SZK_PROTECT_PASSWORD_ALGO_DEFAULT;
KOVA_EXPORT extern char const* const SZK_PROTECT_PASSWORD_ALGO_MD5;

// Keys for the callers' request handling; the library does not use them itself.
KOVA_EXPORT extern char const* const SZK_SHARING_ID;
KOVA_EXPORT extern char const* const SZK_SHARING_SID;
KOVA_EXPORT extern char const* const SZK_PASSWORD_;
KOVA_EXPORT extern char const* const SZK_ZEL_USERNAME;
KOVA_EXPORT extern char const* const SZK_ZEL_PASSWORD;
KOVA_EXPORT extern char const* const SZK_ACTION;
KOVA_EXPORT extern char const* const SZK_EXTERNAL_IP_;
KOVA_EXPORT extern char const* const SZK_PLUGINS;
KOVA_EXPORT extern char const* const SZK_JSCONFIG;
KOVA_EXPORT extern char const* const SZK_ASSISTANT;

}  // namespace sharing
}  // namespace KOVA

#endif
