// Every handler under the fault simulator: on a platform scripted so that a
// request goes as deep as it can, the k-th platform call fails, once and from
// then on, for every k the request reaches. Each time the host gets exactly
// one answer (or an exception it catches) with a code that the handler may
// give for a failure, every hash and list is given back, and the process ids
// are what they were.
#include <sys/prctl.h>
#include <unistd.h>

#include <set>

#include "core/accounting.h"
#include "feasibility/checker.h"
#include "seam/seam.h"
#include "support/module_test.h"
#include "support/rows.h"
#include "talv/feasibility.h"
#include "webapi/runner.h"

namespace pellixtest {
namespace {

// What each row may answer when a platform call fails (the stand-ins' fault
// code 5 is the account error that translates to 3003): 0 where the handler
// goes on without what failed; 100, the host's, where the exception passes.
const std::set<int> kFailureCodes[15] = {
    {3000, 3001, 3002, 3003},      // register (version 1): no serial, no host, no form, "badnetwork"
    {0, 3003},                     // login
    {0, 3003},                     // login_by_key
    {0, 3003, 3014},               // logout: a check that cannot run refuses
    {0, 3003},                     // register (version 2)
    {0, 3003},                     // query
    {0, 3003},                     // get_iframe_info
    {0, 3003},                     // oauth_login
    {0, 3003},                     // handle_apikey_error
    {0, 3003},                     // pkce_login: no verifier is 3003 too
    {0, webapihost::kErrUnknown},  // pkce_config_get
    {0, 3003, 3014},               // pkce_logout
    {0, 3003},                     // list
    {0},                           // get: a failed query is "not signed in"
    {0, 3003},                     // set
};

// A request for each row that passes its parameter checks.
const char* const kParams[15] = {
    R"({"account": "ada@example.com", "password": "secret-1", "fullname": "Ada L"})",
    R"({"account": "ada@example.com", "password": "secret-1"})",
    R"({"serial": "SN-1", "auth_key": "k-1"})",
    R"({"force": false})",
    R"({"account": "ada@example.com", "password": "secret-1", "fullname": "Ada L", "critical_release": true,
        "country": "NL"})",
    "{}",
    "{}",
    R"({"access_token": "tok"})",
    R"({"apikey_error": "expired"})",
    R"({"code_challenge": "ch", "grant_code": "g", "client_id": "c", "token_endpoint": "t", "redirect_uri": "r"})",
    "{}",
    R"({"force": false})",
    R"({"date_from": "2026-01-01", "date_to": "2026-01-31", "apps": ["a"]})",
    "{}",
    R"({"full_name": "Ada L", "enews": true, "critical_version_list": "7.1"})",
};

class FaultTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    const Json::Value account = J(R"({"email": "ada@example.com", "auth_key": "k-1", "activated": true})");
    ON_CALL(backend_, QueryInfo).WillByDefault(Return(Outcome{-1, 3}));  // nobody signed in: sign-ins go on
    ON_CALL(backend_, Login).WillByDefault(DoAll(SetArgReferee<2>(account), Return(Outcome{0, 0})));
    ON_CALL(backend_, LoginByKey).WillByDefault(DoAll(SetArgReferee<2>(account), Return(Outcome{0, 0})));
    ON_CALL(backend_, OauthLogin).WillByDefault(DoAll(SetArgReferee<0>(account), Return(Outcome{0, 0})));
    ON_CALL(backend_, HandleApiKeyError).WillByDefault(Return(Outcome{0, 0}));
    ON_CALL(backend_, GetIframeInfo).WillByDefault(Return(Outcome{0, 0}));
    ON_CALL(backend_, Logout).WillByDefault(Return(Outcome{0, 0}));
    ON_CALL(backend_, Register).WillByDefault(Return(Outcome{0, 0}));
    ON_CALL(backend_, SetInfo).WillByDefault(Return(Outcome{0, 0}));
    ON_CALL(backend_, PurchaseList).WillByDefault(Return(Outcome{0, 0}));
    ON_CALL(backend_, PkceOpen).WillByDefault(Return());
    ON_CALL(backend_, PkceRegisterConfig).WillByDefault(Return(J(R"({"client_id": "r"})")));
    ON_CALL(backend_, PkceLoginConfig).WillByDefault(Return(J(R"({"client_id": "l"})")));
    ON_CALL(backend_, PkceLogin(_)).WillByDefault(Return(account));
    ON_CALL(backend_, PkceLogout).WillByDefault(Return());
    talvwebapi::SetRunner(&verifier_);
    // Both grades feasible, with reasons, and each handing back a new list.
    checker_.Set(FEASIBILITY_CHECK_HARD, {0, {"a"}, true}).Set(FEASIBILITY_CHECK_SOFT, {0, {"b"}, true});
    talvfeasibility::SetChecker(&checker_);

    // As root, run with the effective ids dropped and the saved ones kept,
    // so that the PKCE methods' guard has something to raise and restore.
    if (geteuid() == 0 && getuid() == 0) {
      ASSERT_EQ(setresgid(-1, 65534, -1), 0);
      ASSERT_EQ(setresuid(-1, 65534, -1), 0);
      dropped_ = true;
    }
  }
  void TearDown() override {
    if (dropped_) {
      setresuid(-1, 0, -1);
      setresgid(-1, 0, -1);
      prctl(PR_SET_DUMPABLE, 1);  // changing ids cleared it; the leak checker needs it
    }
    talvwebapi::SetRunner(nullptr);
    ModuleTest::TearDown();
  }

  talvwebapi::ScriptedRunner verifier_{J(R"({"success": true, "data": {"verifier": "v"}})")};
  talvfeasibility::ScriptedChecker checker_;
  bool dropped_ = false;
};

TEST_F(FaultTest, EveryHandlerSurvivesTheFailureOfEachPlatformCall) {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  for (size_t i = 0; i < 15; ++i) {
    const Row& row = kRows[i];
    const Json::Value params = J(kParams[i]);
    talvseam::ClearFaults();
    webapihost::Answer clean = Call(row.api, row.version, row.method, params);
    EXPECT_FALSE(clean.threw) << row.method << ": " << clean.exception;
    const int calls = talvseam::CallCount();
    for (bool persistent : {false, true}) {
      for (int k = 0; k <= calls; ++k) {
        SCOPED_TRACE(std::string(row.method) + ", failing call " + std::to_string(k) +
                     (persistent ? " and every call after it" : ""));
        talvseam::ClearFaults();
        talvseam::InjectFault("*", k, persistent, 5);
        webapihost::Answer a = Call(row.api, row.version, row.method, params);
        EXPECT_EQ(a.answers, a.threw ? 0 : 1) << a.exception;
        EXPECT_EQ(kFailureCodes[i].count(a.code), 1u) << a.code;
        EXPECT_EQ(talvcore::LiveHashes(), 0);
        EXPECT_EQ(talvcore::LiveLists(), 0);
        EXPECT_EQ(talvcore::BadFrees(), std::vector<std::string>{});
        EXPECT_EQ(geteuid(), uid);
        EXPECT_EQ(getegid(), gid);
      }
    }
  }
  Logged();
}

}  // namespace
}  // namespace pellixtest
