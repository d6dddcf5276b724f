// Query, GetAccountInfo and GetIframeInfo against a scripted account library.
#include "seam/seam.h"
#include "support/module_test.h"

namespace pellixtest {
namespace {

constexpr uint32_t kAllBits = 0xFFFFFFFFu;

const char kSignedIn[] = R"({"email": "Ada@Example.com", "auth_key": "k-123", "activated": true,
  "critical_version_domain": "cv.example", "full_name": "Ada L", "country": "NL", "notify_language": "enu",
  "enews": false, "critical_release": true, "enews_local_promotion": false, "critical_version_list": "7.1,7.2",
  "extra": 1})";
const char kQueried[] = R"(0 {"account": "Ada@Example.com", "auth_key": "k-123", "activated": true,
  "critical_version_domain": "cv.example", "is_logged_in": true})";
const char kSignedOut[] = R"(0 {"is_logged_in": false})";

struct StatusCase {
  const char* name;
  int result;          // of TALVPELLIXAccountQueryInfo / TALVPELLIXGetIframeInfo
  uint32_t error;      // account error number left behind
  const char* filled;  // what the library writes into the object
  const char* answer;  // as ExpectAnswer takes it
  long loggedCode;     // -1: nothing logged
};

struct StatusMethod {
  const char* api;
  int version;
  const char* method;
  const char* function;
  const char* format;  // of its failure line
  std::vector<StatusCase> cases;
};

// clang-format off
const StatusMethod kMethods[] = {
    {"TALV.Core.PellixCenter", 2, "query", "Query", "Pellix query failed, code=%u", {
        {"SignedIn", 0, 0, kSignedIn, kQueried, -1},
        {"PositiveResultCountsAsSuccess", 7, 0, kSignedIn, kQueried, -1},
        {"UnsetMembersAnswerNull", 0, 0, R"({"email": "a@b.cd"})", R"(0 {"account": "a@b.cd", "auth_key": null,
          "activated": null, "critical_version_domain": null, "is_logged_in": true})", -1},
        {"SucceededWithErrorNumber16", 0, 16, kSignedIn, R"(3005 {"is_logged_in": false})", 16},
        {"SucceededWithErrorNumber3", 0, 3, "{}", R"(3000 {"is_logged_in": false})", 3},
        // The account error number is logged untranslated, all 32 bits of it.
        {"SucceededWithAllBits", 0, kAllBits, "{}", R"(3000 {"is_logged_in": false})", kAllBits},
        {"NotSignedIn", -1, 3, "{}", kSignedOut, -1},
        {"NetworkError", -1, 4, "{}", "3002 {}", -1},
        {"FailedWithErrorNumber0", -1, 0, "{}", "0 {}", -1},
        {"FailedWithUnknownNumber", -1, 99, R"({"email": "x@y.zz"})", "3000 {}", -1}}},
    {"TALV.Core.PellixCenter.Account", 1, "get", "GetAccountInfo", "Pellix query failed, code=%u", {
        {"SignedIn", 0, 0, kSignedIn, R"(0 {"full_name": "Ada L", "email": "Ada@Example.com", "country": "NL",
          "notify_language": "enu", "enews": false, "critical_release": true, "enews_local_promotion": false,
          "critical_version_list": "7.1,7.2", "critical_version_domain": "cv.example"})", -1},
        {"NothingFilledAnswersNineNulls", 0, 0, "{}", R"(0 {"full_name": null, "email": null, "country": null,
          "notify_language": null, "enews": null, "critical_release": null, "enews_local_promotion": null,
          "critical_version_list": null, "critical_version_domain": null})", -1},
        {"NotSignedIn", -1, 3, "{}", kSignedOut, -1},
        {"NetworkErrorStillNotSignedIn", -1, 4, "{}", kSignedOut, -1},
        {"FailedWithErrorNumber0", -1, 0, kSignedIn, kSignedOut, -1},
        {"SucceededWithErrorNumber16", 0, 16, kSignedIn, "3005 {}", 16},
        {"SucceededWithErrorNumber25", 3, 25, kSignedIn, "3013 {}", 25}}},
    // Failures log the translated web API code, not the account error
    // number: this table is also the translation at its boundaries.
    {"TALV.Core.PellixCenter", 2, "get_iframe_info", "GetIframeInfo", "Pellix get iframe info failed, code=%u", {
        {"Filled", 0, 0, R"({"url": "https://acct.example/embed", "lang": "enu"})",
         R"(0 {"url": "https://acct.example/embed", "lang": "enu"})", -1},
        {"PositiveResultIgnoresErrorNumber", 2, 14, R"({"url": "u"})", R"(0 {"url": "u"})", -1},
        {"Error0IsSuccess", -1, 0, R"({"partial": 1})", R"(0 {"partial": 1})", 3007},
        {"Error1", -1, 1, R"({"partial": 1})", R"(3001 {"partial": 1})", 3001},
        {"Error3", -1, 3, "{}", "3000 {}", 3000},
        {"Error4", -1, 4, "{}", "3002 {}", 3002},
        {"Error5", -1, 5, "{}", "3003 {}", 3003},
        {"Error14", -1, 14, "{}", "3004 {}", 3004},
        {"Error15", -1, 15, "{}", "3002 {}", 3002},
        {"Error16", -1, 16, "{}", "3005 {}", 3005},
        {"Error17", -1, 17, "{}", "3006 {}", 3006},
        {"Error18", -1, 18, "{}", "3008 {}", 3008},
        {"Error24", -1, 24, "{}", "3000 {}", 3000},
        {"Error25", -1, 25, "{}", "3013 {}", 3013},
        {"Error26", -1, 26, "{}", "3000 {}", 3000},
        {"Error99", -1, 99, R"({"half": "done"})", R"(3000 {"half": "done"})", 3000},
        {"ErrorAllBits", -1, kAllBits, "{}", "3000 {}", 3000}}},
};
// clang-format on

TEST_F(ModuleTest, StatusQueriesAnswerAndLog) {
  for (const StatusMethod& m : kMethods) {
    for (const StatusCase& c : m.cases) {
      SCOPED_TRACE(std::string(m.method) + " " + c.name);
      auto script = DoAll(SetArgReferee<0>(J(c.filled)), Return(Outcome{c.result, c.error}));
      if (std::string(m.method) == "get_iframe_info") {
        EXPECT_CALL(backend_, GetIframeInfo(_)).WillOnce(script);
      } else {
        EXPECT_CALL(backend_, QueryInfo(_, true, true)).WillOnce(script);
      }
      ExpectAnswer(Call(m.api, m.version, m.method), c.answer);
      std::vector<Line> expected;
      if (c.loggedCode != -1) expected.push_back(LogLine(m.function, m.format, unsigned(c.loggedCode)));
      EXPECT_EQ(Logged(), expected);
    }
  }
}

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
