// Query, GetAccountInfo and GetIframeInfo against a scripted account library.
#include "support/module_test.h"

#include "seam/seam.h"

namespace pellixtest {
namespace {

using ::testing::_;
using ::testing::DoAll;
using ::testing::Return;
using ::testing::SetArgReferee;
using syslogcapture::Line;
using talvpellix::Outcome;

constexpr uint32_t kAllBits = 0xFFFFFFFFu;

const char kSignedIn[] = R"({"email": "Ada@Example.com", "auth_key": "k-123", "activated": true,
  "critical_version_domain": "cv.example", "full_name": "Ada L", "country": "NL", "notify_language": "enu",
  "enews": false, "critical_release": true, "enews_local_promotion": false, "critical_version_list": "7.1,7.2",
  "extra": 1})";

struct StatusCase {
  const char* name;
  int result;          // of TALVPELLIXAccountQueryInfo / TALVPELLIXGetIframeInfo
  uint32_t error;      // account error number left behind
  const char* filled;  // what the library writes into the object
  bool success;
  int code;          // expected error code when !success
  const char* data;  // expected data or details
  int loggedCode;    // -1: nothing logged
};

std::ostream& operator<<(std::ostream& os, const StatusCase& c) { return os << c.name; }

// One case of a status handler: the library's scripted call has been set
// up; run the method and check answer and log against the case.
class StatusTest : public ModuleTest, public ::testing::WithParamInterface<StatusCase> {
 protected:
  auto Script() {
    const StatusCase& c = GetParam();
    return DoAll(SetArgReferee<0>(J(c.filled)), Return(Outcome{c.result, c.error}));
  }
  void Check(const char* api, int version, const char* method, const char* function, const char* format) {
    const StatusCase& c = GetParam();
    webapihost::Answer a = Call(api, version, method);
    EXPECT_TRUE(a.found);
    EXPECT_FALSE(a.threw) << a.exception;
    EXPECT_EQ(a.answers, 1);
    EXPECT_EQ(a.success, c.success);
    EXPECT_EQ(a.code, c.success ? 0 : c.code);
    EXPECT_EQ(a.data, J(c.data)) << a.data.toStyledString();
    std::vector<Line> expected;
    if (c.loggedCode >= 0) expected.push_back(LogLine(function, format, unsigned(c.loggedCode)));
    EXPECT_EQ(Logged(), expected);
  }
};

class QueryTest : public StatusTest {};

TEST_P(QueryTest, AnswersAndLogs) {
  EXPECT_CALL(backend_, QueryInfo(_, true, true)).WillOnce(Script());
  Check("TALV.Core.PellixCenter", 2, "query", "Query", "Pellix query failed, code=%u");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, QueryTest,
    ::testing::Values(StatusCase{"SignedIn", 0, 0, kSignedIn, true, 0,
                                 R"({"account": "Ada@Example.com", "auth_key": "k-123", "activated": true,
                       "critical_version_domain": "cv.example", "is_logged_in": true})",
                                 -1},
                      StatusCase{"PositiveResultCountsAsSuccess", 7, 0, kSignedIn, true, 0,
                                 R"({"account": "Ada@Example.com", "auth_key": "k-123", "activated": true,
                       "critical_version_domain": "cv.example", "is_logged_in": true})",
                                 -1},
                      StatusCase{"UnsetMembersAnswerNull", 0, 0, R"({"email": "a@b.cd"})", true, 0,
                                 R"({"account": "a@b.cd", "auth_key": null, "activated": null,
                       "critical_version_domain": null, "is_logged_in": true})",
                                 -1},
                      StatusCase{"SucceededWithErrorNumber16", 0, 16, kSignedIn, false, 3005,
                                 R"({"is_logged_in": false})", 16},
                      StatusCase{"SucceededWithErrorNumber3", 0, 3, "{}", false, 3000, R"({"is_logged_in": false})", 3},
                      StatusCase{"NotSignedIn", -1, 3, "{}", true, 0, R"({"is_logged_in": false})", -1},
                      StatusCase{"NetworkError", -1, 4, "{}", false, 3002, "{}", -1},
                      StatusCase{"FailedWithErrorNumber0", -1, 0, "{}", true, 0, "{}", -1},
                      StatusCase{"FailedWithUnknownNumber", -1, 99, R"({"email": "x@y.zz"})", false, 3000, "{}", -1}),
    [](const ::testing::TestParamInfo<StatusCase>& info) { return std::string(info.param.name); });

// The account error number is logged untranslated, all 32 bits of it.
TEST_F(ModuleTest, QueryLogsTheUntranslatedNumber) {
  EXPECT_CALL(backend_, QueryInfo(_, true, true)).WillOnce(Return(Outcome{0, kAllBits}));
  webapihost::Answer a = Call("TALV.Core.PellixCenter", 2, "query");
  EXPECT_EQ(a.code, 3000);
  EXPECT_EQ(Logged(), std::vector<Line>{LogLine("Query", "Pellix query failed, code=%u", kAllBits)});
}

class AccountGetTest : public StatusTest {};

TEST_P(AccountGetTest, AnswersAndLogs) {
  EXPECT_CALL(backend_, QueryInfo(_, true, true)).WillOnce(Script());
  Check("TALV.Core.PellixCenter.Account", 1, "get", "GetAccountInfo", "Pellix query failed, code=%u");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, AccountGetTest,
    ::testing::Values(
        StatusCase{"SignedIn", 0, 0, kSignedIn, true, 0,
                   R"({"full_name": "Ada L", "email": "Ada@Example.com", "country": "NL", "notify_language": "enu",
                       "enews": false, "critical_release": true, "enews_local_promotion": false,
                       "critical_version_list": "7.1,7.2", "critical_version_domain": "cv.example"})",
                   -1},
        StatusCase{"NothingFilledAnswersNineNulls", 0, 0, "{}", true, 0,
                   R"({"full_name": null, "email": null, "country": null, "notify_language": null,
                       "enews": null, "critical_release": null, "enews_local_promotion": null,
                       "critical_version_list": null, "critical_version_domain": null})",
                   -1},
        StatusCase{"NotSignedIn", -1, 3, "{}", true, 0, R"({"is_logged_in": false})", -1},
        StatusCase{"NetworkErrorStillNotSignedIn", -1, 4, "{}", true, 0, R"({"is_logged_in": false})", -1},
        StatusCase{"FailedWithErrorNumber0", -1, 0, kSignedIn, true, 0, R"({"is_logged_in": false})", -1},
        StatusCase{"SucceededWithErrorNumber16", 0, 16, kSignedIn, false, 3005, "{}", 16},
        StatusCase{"SucceededWithErrorNumber25", 3, 25, kSignedIn, false, 3013, "{}", 25}),
    [](const ::testing::TestParamInfo<StatusCase>& info) { return std::string(info.param.name); });

class IframeTest : public StatusTest {};

TEST_P(IframeTest, AnswersAndLogs) {
  EXPECT_CALL(backend_, GetIframeInfo(_)).WillOnce(Script());
  Check("TALV.Core.PellixCenter", 2, "get_iframe_info", "GetIframeInfo", "Pellix get iframe info failed, code=%u");
}

// Failures log the translated web API code, not the account error number:
// this table is also the translation at its boundaries.
INSTANTIATE_TEST_SUITE_P(
    Cases, IframeTest,
    ::testing::Values(StatusCase{"Filled", 0, 0, R"({"url": "https://acct.example/embed", "lang": "enu"})", true, 0,
                                 R"({"url": "https://acct.example/embed", "lang": "enu"})", -1},
                      StatusCase{"PositiveResultIgnoresErrorNumber", 2, 14, R"({"url": "u"})", true, 0,
                                 R"({"url": "u"})", -1},
                      StatusCase{"Error0IsSuccess", -1, 0, R"({"partial": 1})", true, 0, R"({"partial": 1})", 3007},
                      StatusCase{"Error1", -1, 1, R"({"partial": 1})", false, 3001, R"({"partial": 1})", 3001},
                      StatusCase{"Error3", -1, 3, "{}", false, 3000, "{}", 3000},
                      StatusCase{"Error4", -1, 4, "{}", false, 3002, "{}", 3002},
                      StatusCase{"Error5", -1, 5, "{}", false, 3003, "{}", 3003},
                      StatusCase{"Error14", -1, 14, "{}", false, 3004, "{}", 3004},
                      StatusCase{"Error15", -1, 15, "{}", false, 3002, "{}", 3002},
                      StatusCase{"Error16", -1, 16, "{}", false, 3005, "{}", 3005},
                      StatusCase{"Error17", -1, 17, "{}", false, 3006, "{}", 3006},
                      StatusCase{"Error18", -1, 18, "{}", false, 3008, "{}", 3008},
                      StatusCase{"Error24", -1, 24, "{}", false, 3000, "{}", 3000},
                      StatusCase{"Error25", -1, 25, "{}", false, 3013, "{}", 3013},
                      StatusCase{"Error26", -1, 26, "{}", false, 3000, "{}", 3000},
                      StatusCase{"Error99", -1, 99, R"({"half": "done"})", false, 3000, R"({"half": "done"})", 3000},
                      StatusCase{"ErrorAllBits", -1, kAllBits, "{}", false, 3000, "{}", 3000}),
    [](const ::testing::TestParamInfo<StatusCase>& info) { return std::string(info.param.name); });

// None of the three reads a parameter: whatever the request carries, the
// library is asked the same.
TEST_F(ModuleTest, StatusQueriesIgnoreParameters) {
  Json::Value params = J(R"({"account": "x@y.zz", "force": true, "is_logged_in": true})");
  EXPECT_EQ(Call("TALV.Core.PellixCenter", 2, "query", params).data, J(R"({"is_logged_in": false})"));
  EXPECT_EQ(Call("TALV.Core.PellixCenter.Account", 1, "get", params).data, J(R"({"is_logged_in": false})"));
  EXPECT_EQ(talvseam::JournalOf("TALVPELLIXAccountQueryInfo").size(), 2u);
  for (const talvseam::Call& call : talvseam::JournalOf("TALVPELLIXAccountQueryInfo"))
    EXPECT_EQ(call.args, (std::vector<std::string>{"true", "true"}));
}

}  // namespace
}  // namespace pellixtest
