// Register_v2 against a scripted account library. (Version 1 goes over the
// wire: https_request_test.)
#include "seam/seam.h"
#include "support/module_test.h"

namespace pellixtest {
namespace {

const char kSignedIn[] = R"({"email": "bound@example.com", "auth_key": "k-1", "activated": true})";

Line InvalidParameter(const char* function) { return LogLine(function, "Invalid parameter"); }

const char kV2Request[] =
    R"({"account": "ada@example.com", "password": "secret 1", "fullname": "Ada Lovelace", "critical_release": true})";

struct V2Case {
  const char* name;
  const char* flags;               // the request's, over kV2Request's
  Outcome registered;              // left by the library's registration
  std::vector<std::string> given;  // critical_release, enews, enews_local_promotion, country as passed
  int code;                        // 0: success
  bool failedLine;
};

const std::vector<std::string> kCritical = {"true", "false", "false", "(null)"};

// clang-format off
const V2Case kV2Cases[] = {
    {"CriticalRelease", "{}", {0, 0}, kCritical, 0, false},
    {"Enews", R"({"critical_release": false, "enews": true})", {0, 0}, {"false", "true", "false", "(null)"}, 0, false},
    {"LocalPromotion", R"({"critical_release": false, "enews_local_promotion": true})", {0, 0},
     {"false", "false", "true", "(null)"}, 0, false},
    {"EmptyCountryIsNull", R"({"country": ""})", {0, 0}, kCritical, 0, false},
    {"CountryPassedOn", R"({"country": "NL"})", {0, 0}, {"true", "false", "false", "NL"}, 0, false},
    {"FailedWithErrorZeroIsASuccess", "{}", {-1, 0}, kCritical, 0, true},
    {"FailedWithError16", "{}", {-1, 16}, kCritical, 3005, true},
    {"ErrorNumberDecides", "{}", {0, 16}, kCritical, 3005, false},
};
// clang-format on

TEST_F(ModuleTest, RegisterV2RegistersThroughTheLibrary) {
  for (const V2Case& c : kV2Cases) {
    SCOPED_TRACE(c.name);
    talvseam::ClearJournal();
    ON_CALL(backend_, Register).WillByDefault(Return(c.registered));
    Json::Value params = J(kV2Request);
    for (const std::string& flag : J(c.flags).getMemberNames()) params[flag] = J(c.flags)[flag];
    webapihost::Answer a = Call("TALV.Core.PellixCenter", 2, "register", params);
    ExpectAnswer(a, std::to_string(c.code) + " {}");
    std::vector<talvseam::Call> calls = talvseam::JournalOf("TALVPELLIXAccountRegister");
    ASSERT_EQ(calls.size(), 1u);
    std::vector<std::string> args = {"ada@example.com", "secret 1", "Ada Lovelace"};
    args.insert(args.end(), c.given.begin(), c.given.end());
    EXPECT_EQ(calls[0].args, args);
    std::vector<Line> expected;
    if (c.failedLine)
      expected.push_back(LogLine("Register_v2", "TALVPELLIXAccountRegister failed, email=%s, full_name=%s",
                                 "ada@example.com", "Ada Lovelace"));
    EXPECT_EQ(Logged(), expected);
  }
}

TEST_F(ModuleTest, RegisterV2RefusesWhileSignedIn) {
  EXPECT_CALL(backend_, QueryInfo(_, true, true))
      .WillOnce(DoAll(SetArgReferee<0>(J(kSignedIn)), Return(Outcome{0, 0})));
  webapihost::Answer a = Call("TALV.Core.PellixCenter", 2, "register", J(kV2Request));
  ExpectAnswer(a, R"(3010 {"account": "bound@example.com", "auth_key": "k-1", "activated": true})");
  EXPECT_TRUE(talvseam::JournalOf("TALVPELLIXAccountRegister").empty());
  EXPECT_EQ(Logged(), std::vector<Line>{LogLine("RefuseWhileSignedIn",
                                                "Already logged in a Pellix account: %s. Register aborted.",
                                                "bound@example.com")});
}

// Missing parameters and bad lengths are answered before anyone asks the
// library whether an account is signed in.
TEST_F(ModuleTest, RegisterV2ChecksParametersFirst) {
  ON_CALL(backend_, QueryInfo(_, true, true))
      .WillByDefault(DoAll(SetArgReferee<0>(J(kSignedIn)), Return(Outcome{0, 0})));
  const struct {
    const char* params;
    std::vector<Line> logged;
  } cases[] = {
      {R"({"password": "secret 1", "fullname": "Ada", "critical_release": true})", {InvalidParameter("Register_v2")}},
      {R"({"account": "ada@example.com", "password": "secret 1", "fullname": "Ada"})",
       {InvalidParameter("Register_v2")}},
      {R"({"account": "ada@example.com", "password": "12345", "fullname": "Ada", "critical_release": true})",
       {LogLine("RegisterLengthsValid", "pellix passowrd length is invaild: %zd", ssize_t{5})}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.params);
    webapihost::Answer a = Call("TALV.Core.PellixCenter", 2, "register", J(c.params));
    ExpectAnswer(a, "3001 {}");
    EXPECT_EQ(Logged(), c.logged);
  }
  EXPECT_TRUE(talvseam::JournalOf("TALVPELLIXAccountQueryInfo").empty());
  EXPECT_TRUE(talvseam::JournalOf("TALVPELLIXAccountRegister").empty());
}

}  // namespace
}  // namespace pellixtest
