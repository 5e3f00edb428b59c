// Fixture of the visitor-function tests: the process's sharing database (under the test
// root) emptied before every test, links made through the entry store, raw reads of the
// tables, and a CGI request from a default address.
#ifndef KOVA_TESTS_VISITOR_TEST_UTIL_H
#define KOVA_TESTS_VISITOR_TEST_UTIL_H

#include <gtest/gtest.h>
#include <json/value.h>
#include <syslog.h>

#include <ctime>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "cgi_request.h"
#include "kova_autoblock.h"
#include "kova_cgi.h"
#include "kovasharing/entry.h"
#include "kovasharing/entry_db.h"
#include "kovasharing/result.h"
#include "kovasharing/sharing_db.h"
#include "kovasharing/sharinglogin.h"
#include "kovatest.h"

namespace visitortest {

using KOVA::sharing::db::EntryDB;
using KOVA::sharing::db::SharingDB;
using KOVA::sharing::record::Entry;

char const kAddr[] = "192.0.2.10";
char const kOtherAddr[] = "192.0.2.20";
long const kDay = 86400;

class VisitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(db().IsGood());
    Exec("DELETE FROM token");
    Exec("DELETE FROM session");
    Exec("DELETE FROM entry");
    for (char const* addr : {kAddr, kOtherAddr}) ASSERT_EQ(0, KOVAAutoBlockFailLoginReset(addr));
    request_.reset(new kovatest::CgiRequest(kAddr));
    kovatest::ClearLogs();
  }
  void TearDown() override { request_.reset(); }

  static SharingDB& db() { return SharingDB::Instance(); }
  // How many lines "sharinglogin:<line> <tail>" were logged at error priority.
  static int Logged(std::string const& tail) {
    std::regex const line("^sharinglogin:[0-9]+ " + tail + "$");
    int n = 0;
    for (auto const& log : kovatest::Logs())
      n += std::regex_match(log.text, line) && (log.priority & 7) == LOG_ERR;
    return n;
  }
  kovatest::CgiRequest& request() { return *request_; }

  void Exec(std::string const& sql) {
    ASSERT_TRUE(db().Execute(sql)) << sql << ": " << db().GetLastError();
  }
  // The first column of every row of `sql`, as text.
  std::vector<std::string> Column(std::string const& sql) {
    std::vector<std::string> out;
    KOVA::sharing::db::Result result;
    EXPECT_TRUE(db().Execute("SELECT * FROM (" + sql + ")", result)) << sql;
    KOVA::sharing::db::Row row;
    while (result.NextRow(row)) out.push_back(row.GetField("v").AsString("<null>"));
    return out;
  }
  // One value: `sql` selects one column named v.
  std::string Value(std::string const& sql) {
    std::vector<std::string> const values = Column(sql);
    return values.size() == 1 ? values[0] : "<" + std::to_string(values.size()) + " rows>";
  }
  long Number(std::string const& sql) {
    std::string const v = Value(sql);
    return v.empty() || v[0] == '<' ? -999999 : std::stol(v);
  }
  int Rows(char const* table) {
    return static_cast<int>(Number(std::string("SELECT COUNT(*) AS v FROM ") + table));
  }
  // Every row of the three tables, for checks that nothing changed.
  std::string Snapshot() {
    std::string out;
    for (auto const& line : Column(
             "SELECT 'e' || id || '|' || hash || '|' || project_name || '|' || enabled || '|' || "
             "owner_uid || '|' || start_at || '|' || expire_at || '|' || expire_times || '|' || "
             "use_count || '|' || auto_gc || '|' || data AS v FROM entry "
             "UNION ALL SELECT 's' || id || '|' || session_id || '|' || uid || '|' || ip || '|' "
             "|| timeout FROM session "
             "UNION ALL SELECT 't' || id || '|' || entry_id || '|' || session_id || '|' || "
             "timeout FROM token ORDER BY 1")) {
      out += line + "\n";
    }
    return out;
  }
  std::string Integrity() {
    return Value("SELECT integrity_check AS v FROM pragma_integrity_check");
  }

  // A legal, valid link of the owner alice, adjusted by `tune`, stored under a new hash.
  std::string MakeEntry(std::function<void(Entry&)> const& tune = nullptr) {
    Entry entry;
    entry.set_project_name("visitor-test");
    entry.set_owner_uid(1000);
    Json::Value app(Json::objectValue);
    app["path"] = "/share/photos";
    entry.set_app(app);
    if (tune) tune(entry);
    EntryDB store(db());
    EXPECT_TRUE(store.CreateWithHash(entry));
    return entry.get_hash();
  }
  std::string PasswordEntry(std::string const& password,
                            Entry::PasswordEncryptAlgo algo = Entry::ENCRYPT_ALGO_DEFAULT) {
    return MakeEntry([&](Entry& e) {
      e.set_protect_type(Entry::PROTECT_PASSWORD);
      e.set_protect_password(password, true, algo);
    });
  }
  std::string UserEntry(std::vector<std::string> const& users,
                        std::vector<std::string> const& groups = {}) {
    return MakeEntry([&](Entry& e) {
      e.set_protect_type(Entry::PROTECT_USER);
      e.set_protect_users(users);
      e.set_protect_groups(groups);
    });
  }
  Entry Load(std::string const& hash) {
    Entry entry;
    EntryDB store(db());
    EXPECT_TRUE(store.GetByHash(hash, entry)) << hash;
    return entry;
  }
  int UseCount(std::string const& hash) {
    return static_cast<int>(
        Number("SELECT use_count AS v FROM entry WHERE hash = '" + db().Escape(hash) + "'"));
  }

  // Logs in with the given fields (NULL where a text is absent).
  int Login(std::string& sid, char const* hash, char const* password = nullptr,
            char const* username = nullptr, char const* user_password = nullptr,
            char const* session_id = nullptr, bool quiet = false) {
    _tag_sharing_login_params const params = {hash, password, username, user_password, session_id};
    sid.clear();
    return KOVA::KovaSharingLogin(sid, &params, quiet);
  }
  int Check(char const* hash, char const* session_id, char const* username = nullptr,
            char const* user_password = nullptr) {
    _tag_sharing_login_params const params = {hash, nullptr, username, user_password, session_id};
    return KOVA::KovaSharingIsAuthorized(&params);
  }
  std::string SessionField(std::string const& sid, char const* column) {
    return Value(std::string("SELECT ") + column + " AS v FROM session WHERE session_id = '" +
                 db().Escape(sid) + "'");
  }
  // The timeout lies one day from now (within a few seconds of running time).
  static void ExpectOneDayAhead(long timeout) {
    long const now = static_cast<long>(time(nullptr));
    EXPECT_LE(timeout, now + kDay);
    EXPECT_GE(timeout, now + kDay - 5);
  }

  std::unique_ptr<kovatest::CgiRequest> request_;
};

}  // namespace visitortest

#endif
