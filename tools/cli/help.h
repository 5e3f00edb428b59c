// Help texts of the administrator tool ("kovasharing --help", "kovasharing NAME --help").
// The manual page doc/kovasharing.1 says the same at more length; change both together.
#ifndef KOVASHARING_TOOLS_CLI_HELP_H
#define KOVASHARING_TOOLS_CLI_HELP_H

namespace kovacli {

inline constexpr char kOverviewHead[] =
    "Usage: kovasharing [--json] COMMAND [OPTIONS] [ARGUMENTS]\n"
    "\n"
    "Manages the sharing links of this machine: their owners, validity, protection and\n"
    "the visitor sessions logged in to them. Run as root.\n"
    "\n"
    "Commands:\n";

inline constexpr char kOverviewTail[] =
    "\n"
    "Every command takes --help, and --json for output that scripts read. Times are read as\n"
    "YYYY-MM-DD (the end of that day), local YYYY-MM-DD HH:MM:SS, ISO 8601 with a time zone\n"
    "(2027-01-31T12:00:00+01:00), or +7d, +12h, +30m, +2w from now; printed as local\n"
    "\"YYYY-MM-DD HH:MM:SS\" texts.\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  internal failure of the tool\n"
    "  2  bad usage (unknown option, missing or malformed value)\n"
    "  3  bad time text\n"
    "  4  unknown hash\n"
    "  5  unknown user or group\n"
    "  6  unknown session, or not logged in to that link\n"
    "  7  the sharing database cannot be used, or a change to it failed\n"
    "Every failure prints one line on standard error.\n";

#define KOVA_CLI_FIELD_HELP                                                            \
  "  --project NAME          project or application the link belongs to\n"             \
  "  --owner USER            owning user (must exist)\n"                               \
  "  --enabled yes|no        switched on (default yes)\n"                              \
  "  --start-at TIME         usable from this time (\"none\": no start limit)\n"       \
  "  --expire-at TIME        usable until this time (\"none\": never expires)\n"       \
  "  --max-uses N            number of uses allowed (0: unlimited)\n"                  \
  "  --auto-gc yes|no        may be purged once expired (default yes)\n"               \
  "  --match-ip yes|no       a visitor keeps the address of the login (default yes)\n" \
  "  --password TEXT         protect with this password\n"                             \
  "  --password-stdin        protect with the first line of standard input\n"          \
  "  --password-algo ALGO    digest of the password: default (salted) or md5\n"        \
  "  --users NAME[,NAME...]  admit these accounts (repeatable)\n"                      \
  "  --groups NAME[,NAME...] admit members of these groups (repeatable)\n"             \
  "  --allow-unknown         keep names that do not exist yet (admitted once made)\n"  \
  "  --no-protection         anyone with the link may come in\n"                       \
  "  --title TEXT            title shown with the protection\n"                        \
  "  --redirect TYPE         none, url_param or always\n"                              \
  "  --redirect-uri URI      where the link redirects\n"                               \
  "  --app JSON              the application's object (default {}); @FILE reads it\n"  \
  "                          from a file, - from standard input\n"                     \
  "  --private-data JSON     the application's private object (@FILE and - too)\n"     \
  "  --json                  print the link as JSON\n"

inline constexpr char kCreateHelp[] =
    "Usage: kovasharing create --project NAME --owner USER [OPTIONS]\n"
    "\n"
    "Makes a new link under a fresh random hash and prints it: the whole link when the\n"
    "gate's web address is known (kovasharing config base-url URL), else the hash.\n"
    "Protection is one of a password, a list of users and groups, or none (the default).\n"
    "A link that would be expired already, or end before it starts, is refused unless\n"
    "--force is given.\n"
    "\n"
    "Options:\n" KOVA_CLI_FIELD_HELP
    "  --base-url URL          the gate's web address for this run\n"
    "  --qr                    print the link as a QR code as well\n"
    "  --force                 make the link even if it cannot be opened yet or ever\n";

inline constexpr char kListHelp[] =
    "Usage: kovasharing list [OPTIONS]\n"
    "\n"
    "Lists links, oldest first (or as --sort says), one page at a time.\n"
    "\n"
    "Options:\n"
    "  --owner USER       only links of this owner\n"
    "  --project NAME     only links of this project\n"
    "  --enabled yes|no   only links switched on (yes) or off (no)\n"
    "  --expired yes|no   only links past their expiry or use limit (yes), or the others\n"
    "  --page N           page to show, from 1 (default 1)\n"
    "  --page-size N      links per page (default 50)\n"
    "  --search TEXT      only links whose hash, project or title contains TEXT, or whose\n"
    "                     owner is the account TEXT\n"
    "  --sort ORDER       created (default), expiry (soonest first, never last), uses\n"
    "                     (most first) or owner (by account name)\n"
    "  --base-url URL     the gate's web address for this run: links instead of hashes\n"
    "  --json             print {\"total\", \"page\", \"page_size\", \"entries\"} as JSON\n";

inline constexpr char kShowHelp[] =
    "Usage: kovasharing show HASH [--base-url URL] [--qr] [--json]\n"
    "\n"
    "Shows every field of one link (with the whole link when the gate's web address is\n"
    "known; --qr prints it as a QR code) and the visitor sessions logged in to it now:\n"
    "session id, address, account and when the access ends; then the latest logins (20\n"
    "are kept). With --json, the link's JSON form with \"sessions\" and \"visits\" added.\n";

inline constexpr char kUpdateHelp[] =
    "Usage: kovasharing update HASH OPTIONS\n"
    "\n"
    "Changes the given fields of a link. A new password is digested anew with a new salt.\n"
    "Changing the protection (password, users, groups or none) ends every earlier login to\n"
    "the link. --users and --groups replace their own list.\n"
    "\n"
    "Options:\n" KOVA_CLI_FIELD_HELP "  --use-count N           set the number of uses so far\n";

inline constexpr char kDeleteHelp[] =
    "Usage: kovasharing delete HASH [--json]\n"
    "       kovasharing delete --owner USER [--json]\n"
    "\n"
    "Deletes one link, or every link of an owner, with the visitors' access to them, and\n"
    "prints how many links went.\n";

inline constexpr char kPurgeHelp[] =
    "Usage: kovasharing purge [--all] [--dry-run] [--yes] [--json]\n"
    "\n"
    "Deletes links past their expiry time or use limit (those that allow automatic\n"
    "collection; with --all every one), and expired visitor sessions and tokens. Prints\n"
    "how many of each went. On a terminal it first says how many would go and asks\n"
    "(--yes does not ask); --dry-run only counts them and deletes nothing.\n";

inline constexpr char kLogoutHelp[] =
    "Usage: kovasharing logout HASH SESSION_ID [--json]\n"
    "\n"
    "Ends one visitor session's access to a link (see \"kovasharing show HASH\" for the\n"
    "session ids). The session itself stays for its other links. Put \"--\" before a\n"
    "session id that begins with \"--\".\n";

inline constexpr char kBlockedHelp[] =
    "Usage: kovasharing blocked [--json]\n"
    "\n"
    "Lists the visitor addresses with failed logins in the last ten minutes (IPv6 by their\n"
    "/64 prefix), how many, and until when an address with ten or more stays blocked.\n";

inline constexpr char kUnblockHelp[] =
    "Usage: kovasharing unblock ADDRESS [--json]\n"
    "\n"
    "Clears the failed logins of an address (or of an IPv6 prefix written as listed,\n"
    "\"PREFIX/64\"), so that it is no longer blocked.\n";

inline constexpr char kConfigHelp[] =
    "Usage: kovasharing config base-url [URL|none]\n"
    "\n"
    "Shows or sets the gate's web address (for example https://nas.example/share), which\n"
    "create, show and list put before a hash to print the whole link; \"none\" removes it.\n"
    "Kept for every user of this machine.\n";

}  // namespace kovacli

#endif
