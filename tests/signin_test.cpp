// Login, LoginByKey and OauthLogin against a scripted account library: one
// set of scenarios, run for each of the three sign-in methods.
#include <algorithm>

#include "seam/seam.h"
#include "support/module_test.h"

namespace pellixtest {
namespace {

// What the library fills in on a sign-in, and the account already bound when
// the guard refuses. The bound key holds a NUL: passed through a C string it
// ends there.
const char kFilled[] = R"({"email": "stored@example.com", "auth_key": "lib-key", "activated": true})";
const char kBound[] = R"({"email": "bound@example.com", "auth_key": "bound\u0000tail", "activated": false})";

struct SignIn {
  const char* method;  // of TALV.Core.PellixCenter version 2
  const char* function;
  const char* params;             // a complete request
  const char* op;                 // the library operation that signs in
  std::vector<std::string> args;  // as the library must receive them
  const char* answer;             // on success
  bool nullDetails;               // the answer starts as null, not {}
  bool keyAsText;                 // the 3010 answer's key went through a C string
  // The two failure lines and the text they name.
  const char* failedFormat;
  const char* codeFormat;
  const char* subject;
};

std::ostream& operator<<(std::ostream& os, const SignIn& s) { return os << s.method; }

// clang-format off
const SignIn kSignIns[] = {
    {"login", "Login", R"({"account": "Ada@Example.COM", "password": "pw 1"})", "TALVPELLIXAccountLogin",
     {"Ada@Example.COM", "pw 1", "false"},
     R"({"account": "Ada@Example.COM", "auth_key": "lib-key", "activated": true})", false, true,
     "TALVPELLIXAccountLogin failed, email=%s", "Pellix login failed, email=%s, code=%u", "Ada@Example.COM"},
    {"login_by_key", "LoginByKey", R"({"serial": "SN-1", "auth_key": "req-key"})", "TALVPELLIXAccountLoginByKey",
     {"SN-1", "req-key"}, R"({"account": "stored@example.com", "auth_key": "req-key", "activated": true})", true,
     false, "TALVPELLIXAccountLoginByKey failed, serial=%s", "Pellix login by key failed, serial=%s, code=%u", "SN-1"},
    {"oauth_login", "OauthLogin", R"({"access_token": "tok-9"})", "TALVPELLIXAccountOauthLogin", {"tok-9"},
     R"({"account": "stored@example.com", "auth_key": "lib-key", "activated": true})", false, false,
     "TALVPELLIXAccountOauthLogin failed, random_token=%s", "Pellix login failed, random_token=%s, code=%u", "tok-9"},
};
// clang-format on

class SignInTest : public ModuleTest, public ::testing::WithParamInterface<SignIn> {
 protected:
  // The query answers `result` after filling `info`; the sign-in fills
  // kFilled and leaves `outcome`.
  void Script(int queryResult, const char* info, Outcome outcome) {
    ON_CALL(backend_, QueryInfo(_, true, true))
        .WillByDefault(DoAll(SetArgReferee<0>(J(info)), Return(Outcome{queryResult, 3})));
    ON_CALL(backend_, Login).WillByDefault(DoAll(SetArgReferee<2>(J(kFilled)), Return(outcome)));
    ON_CALL(backend_, LoginByKey).WillByDefault(DoAll(SetArgReferee<2>(J(kFilled)), Return(outcome)));
    ON_CALL(backend_, OauthLogin).WillByDefault(DoAll(SetArgReferee<0>(J(kFilled)), Return(outcome)));
  }
  webapihost::Answer Run() { return Call("TALV.Core.PellixCenter", 2, GetParam().method, J(GetParam().params)); }
  std::vector<talvseam::Call> SignInCalls() { return talvseam::JournalOf(GetParam().op); }
  Json::Value Empty() const { return GetParam().nullDetails ? Json::Value() : Json::Value(Json::objectValue); }
  Line Failed() const { return LogLine(GetParam().function, GetParam().failedFormat, GetParam().subject); }
  Line CodeLine(unsigned error) const {
    return LogLine(GetParam().function, GetParam().codeFormat, GetParam().subject, error);
  }
};

// Only a query result of exactly 0 means signed in; then the bound account is
// answered, whatever the request carried, and no sign-in is tried.
TEST_P(SignInTest, RefusesWhileAnAccountIsSignedIn) {
  Script(0, kBound, {0, 0});
  const webapihost::Answer a = Run();
  Json::Value expected = J(R"({"account": "bound@example.com", "activated": false})");
  expected["auth_key"] = GetParam().keyAsText ? std::string("bound") : std::string("bound\0tail", 10);
  EXPECT_EQ(a.code, 3010);
  EXPECT_EQ(a.data, expected) << a.data;
  EXPECT_TRUE(SignInCalls().empty());
  EXPECT_EQ(Logged(),
            std::vector<Line>{LogLine("RefuseWhileSignedIn", "Already logged in a Pellix account: %s. Login aborted.",
                                      "bound@example.com")});
}

// The answer follows the error number, not the sign-in's result; the code
// line names the untranslated number.
TEST_P(SignInTest, ErrorNumberDecidesTheAnswer) {
  enum Lines { kNone, kFailed, kCode, kBoth };
  const struct {
    const char* name;
    int queryResult;  // positive: not signed in either
    Outcome outcome;
    int code;  // 0: success, with the method's answer
    Lines logged;
  } cases[] = {
      {"Succeeds", -1, {0, 0}, 0, kNone},
      {"PositiveQueryResult", 1, {0, 0}, 0, kNone},
      {"NegativeWithErrorZero", -1, {-1, 0}, 0, kFailed},
      {"ZeroWithError14", -1, {0, 14}, 3004, kCode},
      {"NegativeWithError99", -1, {-1, 99}, 3000, kBoth},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    talvseam::ClearJournal();
    Script(c.queryResult, c.queryResult < 0 ? "{}" : kBound, c.outcome);
    const webapihost::Answer a = Run();
    EXPECT_EQ(a.answers, 1);
    EXPECT_EQ(a.code, c.code);
    EXPECT_EQ(a.data, c.code ? Empty() : J(GetParam().answer)) << a.data;
    ASSERT_EQ(SignInCalls().size(), 1u);
    EXPECT_EQ(SignInCalls()[0].args, GetParam().args);
    std::vector<Line> expected;
    if (c.logged == kFailed || c.logged == kBoth) expected.push_back(Failed());
    if (c.logged == kCode || c.logged == kBoth) expected.push_back(CodeLine(c.outcome.error));
    EXPECT_EQ(Logged(), expected);
  }
}

INSTANTIATE_TEST_SUITE_P(Methods, SignInTest, ::testing::ValuesIn(kSignIns),
                         [](const ::testing::TestParamInfo<SignIn>& info) { return info.param.function; });

// A missing or (for LoginByKey) invalid parameter is refused before the
// library is asked anything.
TEST_F(ModuleTest, SignInParametersMissing) {
  struct Case {
    const char* method;
    const char* params;
    const char* answer;
    Line logged;
  } cases[] = {
      {"login", R"({"account": "a@b.cd"})", "3001 {}", LogLine("Login", "Invalid parameter")},
      {"login", R"({"password": "secret"})", "3001 {}", LogLine("Login", "Invalid parameter")},
      {"oauth_login", R"({"token": "t"})", "3001 {}", LogLine("OauthLogin", "Invalid parameter")},
      {"handle_apikey_error", "{}", "3001 {}", LogLine("HandleApiKeyError", "Invalid parameter")},
      {"login_by_key", "{}", "3001 null", LogLine("LoginByKey", "Invalid parameter %s %s", "", "")},
      {"login_by_key", R"({"serial": "SN-1"})", "3001 null",
       LogLine("LoginByKey", "Invalid parameter %s %s", "SN-1", "")},
      {"login_by_key", R"({"auth_key": "k"})", "3001 null", LogLine("LoginByKey", "Invalid parameter %s %s", "", "k")},
      {"login_by_key", R"({"serial": 7, "auth_key": "k"})", "3001 null",
       LogLine("LoginByKey", "Invalid parameter %s %s", "", "k")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " " + c.params);
    talvseam::ClearJournal();
    ExpectAnswer(Call("TALV.Core.PellixCenter", 2, c.method, J(c.params)), c.answer);
    EXPECT_EQ(Logged(), std::vector<Line>{c.logged});
    for (const talvseam::Call& call : talvseam::Journal()) EXPECT_NE(call.service, "pellix") << call.op;
  }
}

// HandleApiKeyError runs no query and reads the error number only after a
// negative result; its failure line names the translated code.
TEST_F(ModuleTest, HandleApiKeyError) {
  struct Case {
    const char* name;
    Outcome outcome;
    int code;        // 0: success
    int loggedCode;  // -1: nothing
  } cases[] = {
      {"ZeroIgnoresTheErrorNumber", {0, 14}, 0, -1}, {"PositiveIgnoresTheErrorNumber", {2, 99}, 0, -1},
      {"NegativeWithErrorZero", {-1, 0}, 0, 3007},   {"NegativeWithError14", {-1, 14}, 3004, 3004},
      {"NegativeWithError40", {-1, 40}, 3000, 3000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    talvseam::ClearJournal();
    EXPECT_CALL(backend_, HandleApiKeyError(_, _)).WillOnce(Invoke([&](Json::Value& answer, const char* text) {
      EXPECT_STREQ(text, "");
      answer["relogin"] = true;
      return c.outcome;
    }));
    ExpectAnswer(Call("TALV.Core.PellixCenter", 2, "handle_apikey_error", J(R"({"apikey_error": ""})")),
                 std::to_string(c.code) + R"( {"relogin": true})");
    std::vector<Line> expected;
    if (c.loggedCode >= 0)
      expected.push_back(LogLine("HandleApiKeyError", "Pellix handle apikey failed, code=%u", unsigned(c.loggedCode)));
    EXPECT_EQ(Logged(), expected);
    std::vector<talvseam::Call> calls = talvseam::Journal();
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(), [](const talvseam::Call& x) { return x.service == "pellix"; }),
              1);
  }
}

}  // namespace
}  // namespace pellixtest
