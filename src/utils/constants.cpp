#include "kovasharing/constants.h"

#include "kova_paths.h"

namespace KOVA {
namespace sharing {

char const* const SZF_SHARING_DB_PATH = KOVA_SHARING_DB_FILE;

char const* const SZK_ID_ = "id";
char const* const SZK_SESSION_ID_ = "session_id";
char const* const SZK_UID_ = "uid";
char const* const SZK_IP_ = "ip";
char const* const SZK_TIMEOUT = "timeout";
char const* const SZK_ENTRY_ID = "entry_id";

char const* const SZK_HASH = "hash";
char const* const SZK_PROJECT_NAME = "project_name";
char const* const SZK_ENABLED_ = "enabled";
char const* const SZK_OWNER_UID = "owner_uid";
char const* const SZK_OWNER_USER = "owner_user";
char const* const SZK_START_AT = "start_at";
char const* const SZK_EXPIRE_AT = "expire_at";
char const* const SZK_EXPIRE_TIMES = "expire_times";
char const* const SZK_USE_COUNT = "use_count";
char const* const SZK_AUTO_GC = "auto_gc";
char const* const SZK_DATA = "data";
char const* const SZK_ENABLE_MATCH_IP = "enable_match_ip";
char const* const SZK_PROTECT_TYPE = "protect_type";
char const* const SZK_PROTECT_TITLE = "protect_title";
char const* const SZK_PROTECT_PASSWORD = "protect_password";
char const* const SZK_PROTECT_PASSWORD_ALGO = "protect_password_algo";
char const* const SZK_PROTECT_PASSWORD_SALT = "protect_password_salt";
char const* const SZK_PROTECT_UIDS = "protect_uids";
char const* const SZK_PROTECT_EXTRA_USERS = "protect_extra_users";
char const* const SZK_PROTECT_GIDS = "protect_gids";
char const* const SZK_PROTECT_EXTRA_GROUPS = "protect_extra_groups";
char const* const SZK_PROTECT_USERS = "protect_users";
char const* const SZK_PROTECT_GROUPS = "protect_groups";
char const* const SZK_REDIRECT_TYPE = "redirect_type";
char const* const SZK_REDIRECT_URI = "redirect_uri";
char const* const SZK_APP = "app";
char const* const SZK_PRIVATE_DATA = "private_data";
char const* const SZK_PROTECT_PROTECT_NONE = "none";
char const* const SZK_PROTECT_PROTECT_PASSWORD = "password";
char const* const SZK_PROTECT_PROTECT_USER = "user";
char const* const SZK_REDIRECT_REDIRECT_NONE = "none";
char const* const SZK_REDIRECT_REDIRECT_URLPARAM = "url_param";
char const* const SZK_REDIRECT_REDIRECT_ALWAYS = "always";
char const* const SZK_PROTECT_PASSWORD_ALGO_DEFAULT = "default";
char const* const SZK_PROTECT_PASSWORD_ALGO_MD5 = "md5";

char const* const SZK_SHARING_ID = "sharing_id";
char const* const SZK_SHARING_SID = "sharing_sid";
char const* const SZK_PASSWORD_ = "password";
char const* const SZK_ZEL_USERNAME = "zel_username";
char const* const SZK_ZEL_PASSWORD = "zel_password";
char const* const SZK_ACTION = "action";
char const* const SZK_EXTERNAL_IP_ = "external_ip";
char const* const SZK_PLUGINS = "plugins";
char const* const SZK_JSCONFIG = "jsconfig";
char const* const SZK_ASSISTANT = "assistant";

}  // namespace sharing
}  // namespace KOVA
