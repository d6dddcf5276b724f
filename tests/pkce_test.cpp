// The PKCE methods against a scripted PKCE service and verifier API:
// PkceLogin (and through it getCodeVerifier, whose export the ABI baseline
// checks), PkceLogout's own ending and PkceConfigGet. The privilege guard is
// tested for real in pkce_identity_test.cpp.
#include <stdexcept>

#include "seam/seam.h"
#include "support/module_test.h"
#include "webapi/runner.h"

namespace pellixtest {
namespace {

const char kKnown[] = R"({"success": true, "data": {"verifier": "v-123"}})";
const char kLoginParams[] = R"({"code_challenge": "ch-1", "grant_code": "g-1", "client_id": "c-1",
  "token_endpoint": "https://acct.example/token", "redirect_uri": "https://nas.example/cb"})";

const char kNoVerifier[] = "Failed to get verifier, challenge might be wrong";

enum class Service { kReturns, kThrowsPellix, kThrowsStd, kThrowsOther, kConstructorThrows };

struct PkceLoginCase {
  const char* name;
  const char* verifier;  // the verifier API's answer
  Service service;
  const char* result;  // kReturns: what Login returns
  int code;            // kThrowsPellix, kConstructorThrows: the exception's code
  // Expected:
  const char* answer;        // as ExpectAnswer takes it
  const char* logged;        // the message after "Failed on PkceLogin: ", or nullptr
  const char* codeVerifier;  // what Login received, or nullptr when it was not called
};

const char kSignedIn[] = R"({"email": "ada@example.com", "auth_key": "k-9", "activated": true, "extra": 1})";
const char kAnswered[] = R"(0 {"account": "ada@example.com", "auth_key": "k-9", "activated": true})";

// clang-format off
const PkceLoginCase kPkceLogins[] = {
    {"SignedIn", kKnown, Service::kReturns, kSignedIn, 0, kAnswered, nullptr, "v-123"},
    {"ResultWithoutActivated", kKnown, Service::kReturns, R"({"email": "e", "auth_key": 7})", 0,
     R"(0 {"account": "e", "auth_key": 7, "activated": null})", nullptr, "v-123"},
    {"UnknownChallenge", R"({"success": false, "error": {"code": 120}})", Service::kReturns, kSignedIn, 0, "3003 null",
     kNoVerifier, nullptr},
    {"VerifierAnswerWithoutSuccess", R"({"data": {"verifier": "v"}})", Service::kReturns, kSignedIn, 0, "3003 null",
     kNoVerifier, nullptr},
    // Success without a verifier is not the module's to judge.
    {"SuccessWithoutData", R"({"success": true})", Service::kReturns, kSignedIn, 0, kAnswered, nullptr, ""},
    {"Pellix14", kKnown, Service::kThrowsPellix, nullptr, 14, "3004 null", "grant refused", "v-123"},
    {"PellixMinus1", kKnown, Service::kThrowsPellix, nullptr, -1, "3000 null", "grant refused", "v-123"},
    // The translated code is answered as it is, even the one of success.
    {"Pellix0", kKnown, Service::kThrowsPellix, nullptr, 0, "3007 null", "grant refused", "v-123"},
    {"ConstructorThrows", kKnown, Service::kConstructorThrows, nullptr, 16, "3005 null", "service unavailable", nullptr},
    {"OtherStdException", kKnown, Service::kThrowsStd, nullptr, 0, "3003 null", "socket closed", "v-123"},
    {"NonStandardExceptionPassesToTheHost", kKnown, Service::kThrowsOther, nullptr, 0, "threw", nullptr, "v-123"},
    // Only the guarded steps are caught: composing the answer from a result
    // that is no object throws to the host.
    {"ResultThatIsNoObjectPassesToTheHost", kKnown, Service::kReturns, R"("just text")", 0, "threw", nullptr, "v-123"},
};
// clang-format on

TEST_F(ModuleTest, PkceLoginAnswersAndLogs) {
  for (const PkceLoginCase& c : kPkceLogins) {
    SCOPED_TRACE(c.name);
    talvseam::ClearJournal();
    talvwebapi::ScriptedRunner api(J(c.verifier));
    talvwebapi::SetRunner(&api);
    ON_CALL(backend_, PkceOpen).WillByDefault(Return());
    if (c.service == Service::kConstructorThrows)
      ON_CALL(backend_, PkceOpen).WillByDefault(Throw(PellixException(c.code, "service unavailable")));
    auto& login = ON_CALL(backend_, PkceLogin(_));
    switch (c.service) {
      case Service::kReturns: login.WillByDefault(Return(J(c.result))); break;
      case Service::kThrowsPellix: login.WillByDefault(Throw(PellixException(c.code, "grant refused"))); break;
      case Service::kThrowsStd: login.WillByDefault(Throw(std::runtime_error("socket closed"))); break;
      case Service::kThrowsOther: login.WillByDefault(Throw(42)); break;
      case Service::kConstructorThrows: break;
    }
    ExpectAnswer(Call("TALV.Core.PellixCenter.Login", 1, "pkce_login", J(kLoginParams)), c.answer);
    talvwebapi::SetRunner(nullptr);
    std::vector<Line> expected;
    if (c.logged) expected.push_back(LogLine("PkceLogin", "Failed on PkceLogin: %s", c.logged));
    EXPECT_EQ(Logged(), expected);

    // The verifier is asked for the request's challenge, as root.
    std::vector<talvseam::Call> exec = talvseam::JournalOf("APIRunner::Exec");
    ASSERT_EQ(exec.size(), 1u);
    EXPECT_EQ(exec[0].args, (std::vector<std::string>{"TALV.Remote.Credential.Verifier", "1", "get",
                                                      R"({"challenge":"ch-1"})", "root"}));
    // Nothing reaches the service without a verifier; the record is in order.
    std::vector<talvseam::Call> logins = talvseam::JournalOf("AccountPkceService::Login");
    if (!c.codeVerifier) {
      EXPECT_TRUE(logins.empty());
    } else {
      ASSERT_EQ(logins.size(), 1u);
      EXPECT_EQ(logins[0].args, (std::vector<std::string>{"c-1", "g-1", c.codeVerifier, "https://nas.example/cb"}));
    }
    if (c.logged == kNoVerifier) {
      EXPECT_TRUE(talvseam::JournalOf("AccountPkceService::AccountPkceService").empty()) << "never constructed";
    }
  }
}

// All five must be present, token_endpoint included although nobody uses it;
// an absent one is refused silently, before the identity or another API is
// touched. Present but empty is accepted.
TEST_F(ModuleTest, PkceLoginParameters) {
  for (const char* absent : {"code_challenge", "grant_code", "client_id", "token_endpoint", "redirect_uri"}) {
    SCOPED_TRACE(absent);
    talvseam::ClearJournal();
    Json::Value params = J(kLoginParams);
    params.removeMember(absent);
    webapihost::Answer a = Call("TALV.Core.PellixCenter.Login", 1, "pkce_login", params);
    EXPECT_EQ(a.answers, 1);
    EXPECT_EQ(a.code, 3001);
    EXPECT_TRUE(a.data.isNull());
    EXPECT_EQ(Logged(), std::vector<Line>{});
    for (const talvseam::Call& call : talvseam::Journal())
      EXPECT_EQ(call.op.rfind("APIRequest::", 0), 0u) << call.op << " ran";
  }

  talvwebapi::ScriptedRunner api(J(R"({"success": true, "data": {"verifier": ""}})"));
  talvwebapi::SetRunner(&api);
  ON_CALL(backend_, PkceOpen).WillByDefault(Return());
  ON_CALL(backend_, PkceLogin(_)).WillByDefault(Return(J(kSignedIn)));
  talvseam::ClearJournal();
  webapihost::Answer a = Call("TALV.Core.PellixCenter.Login", 1, "pkce_login",
                              J(R"({"code_challenge": "", "grant_code": "", "client_id": "", "token_endpoint": "",
                                    "redirect_uri": ""})"));
  EXPECT_TRUE(a.success);
  ASSERT_EQ(talvseam::JournalOf("APIRunner::Exec").size(), 1u);
  EXPECT_EQ(talvseam::JournalOf("APIRunner::Exec")[0].args[3], R"({"challenge":""})");
  EXPECT_EQ(talvseam::JournalOf("AccountPkceService::Login")[0].args, (std::vector<std::string>{"", "", "", ""}));
}

// PkceLogout's own ending (its refusals are Logout's, in logout_test.cpp):
// an exception's code is answered as it is, with null details.
TEST_F(ModuleTest, PkceLogoutSignOut) {
  struct Case {
    const char* name;
    int code;  // of the PellixException; -100: none thrown; -200: a std::runtime_error
    bool inConstructor;
    const char* answer;
  } cases[] = {
      {"SignedOut", -100, false, "0 null"},        {"NobodySignedIn", 3, false, "3000 null"},
      {"Unreachable", 4, false, "3002 null"},      {"Code0", 0, false, "3007 null"},
      {"ConstructorThrows", 4, true, "3002 null"}, {"OtherExceptionPassesToTheHost", -200, false, "threw"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    talvseam::ClearJournal();
    ON_CALL(backend_, PkceOpen).WillByDefault(Return());
    ON_CALL(backend_, PkceLogout).WillByDefault(Return());
    if (c.code == -200) {
      ON_CALL(backend_, PkceLogout).WillByDefault(Throw(std::runtime_error("library broke")));
    } else if (c.code != -100) {
      auto& call = c.inConstructor ? ON_CALL(backend_, PkceOpen) : ON_CALL(backend_, PkceLogout);
      call.WillByDefault(Throw(PellixException(c.code, "logout refused")));
    }
    EXPECT_CALL(backend_, Logout).Times(0);
    ExpectAnswer(Call("TALV.Core.PellixCenter.Logout", 1, "pkce_logout"), c.answer);
    std::vector<Line> expected;
    if (c.code >= 0) expected.push_back(LogLine("PkceLogout", "Failed to pkce logout: %s", "logout refused"));
    EXPECT_EQ(Logged(), expected);
    EXPECT_EQ(talvseam::JournalOf("AccountPkceService::Logout").size(), c.inConstructor ? 0u : 1u);
  }
}

// Both members are always there, the registration settings fetched first;
// the request is not read at all. The service's exception is not the
// handler's to answer.
TEST_F(ModuleTest, PkceConfigGet) {
  ON_CALL(backend_, PkceOpen).WillByDefault(Return());
  EXPECT_CALL(backend_, PkceRegisterConfig).WillRepeatedly(Return(Json::Value()));
  EXPECT_CALL(backend_, PkceLoginConfig)
      .WillOnce(Return(J(R"({"client_id": "c-1", "scope": ["a"]})")))
      .WillOnce(Throw(PellixException(4, "unreachable")));
  webapihost::Answer a =
      Call("TALV.Core.PellixCenter.Login", 1, "pkce_config_get", J(R"({"register": 1, "login": {"x": 2}})"));
  EXPECT_TRUE(a.success);
  EXPECT_EQ(a.data, J(R"({"register": null, "login": {"client_id": "c-1", "scope": ["a"]}})"));
  std::vector<std::string> order;
  for (const talvseam::Call& call : talvseam::Journal()) order.push_back(call.op);
  EXPECT_EQ(order, (std::vector<std::string>{"AccountPkceService::AccountPkceService",
                                             "AccountPkceService::GetRegisterPkceConfig",
                                             "AccountPkceService::GetLoginPkceConfig"}));
  a = Call("TALV.Core.PellixCenter.Login", 1, "pkce_config_get");
  EXPECT_TRUE(a.threw);
  EXPECT_EQ(a.exception, "unreachable");
  EXPECT_EQ(a.answers, 0);
  EXPECT_EQ(Logged(), std::vector<Line>{});
}

}  // namespace
}  // namespace pellixtest
