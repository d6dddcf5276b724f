// Register (version 1) end to end against the local account service, and
// Register_v2 against a scripted account library.
#include <functional>

#include "seam/seam.h"
#include "support/local_service.h"

namespace pellixtest {
namespace {

using syslogcapture::Line;
using talvpellix::Outcome;
using ::testing::_;
using ::testing::DoAll;
using ::testing::Return;
using ::testing::SetArgReferee;

const char kRelaydConf[] = "/usr/talv/etc/talvrelayd/talvrelayd.conf";
const char kRequest[] = R"({"account": "ada@example.com", "password": "secret 1", "fullname": "Ada Lovelace"})";
const std::string kForm = std::string("serial=") + kDeviceSerial + "&token=" + kDeviceToken +
                          "&action=register&email=ada%40example.com&passwd=secret%201&full_name=Ada%20Lovelace"
                          "&notify_lang=enu&serial=" +
                          kDeviceSerial + "&timezone=Europe%2FAmsterdam";
const char kSignedIn[] = R"({"email": "bound@example.com", "auth_key": "k-1", "activated": true})";

// `n` times a character of four bytes: different ones for passwords and
// names, so that no password is ever part of a name that gets logged.
std::string Repeat(const char* character, size_t n) {
  std::string text;
  for (size_t i = 0; i < n; ++i) text += character;
  return text;
}
std::string WidePassword(size_t n) { return Repeat("\xF0\x9F\x94\x91", n); }
std::string WideName(size_t n) { return Repeat("\xF0\x9D\x84\x9E", n); }

Line InvalidParameter(const char* function) { return LogLine(function, "Invalid parameter"); }
Line RegisterError(long status, const char* response) {
  return LogLine("Register", "pellix register error, http-status: %ld response: %s", status, response);
}

class RegisterTest : public TrustedServiceTest {
 protected:
  webapihost::Answer Register(const Json::Value& params) {
    return Call("TALV.Core.PellixCenter", 1, "register", params);
  }
  void ExpectAnswer(const webapihost::Answer& a, int code) {
    EXPECT_EQ(a.answers, 1);
    EXPECT_FALSE(a.threw) << a.exception;
    EXPECT_EQ(a.success, code == 0);
    EXPECT_EQ(a.code, code);
    EXPECT_TRUE(a.data.isNull()) << a.data;
  }
};

// --- What the service's answer becomes ---

struct AnswerCase {
  const char* name;
  Reply reply;
  int code;              // 0: success
  const char* response;  // in the "register error" line; nullptr: nothing logged
  long status;           // in that line
};

const AnswerCase kAnswers[] = {
    {"Good", {200, "good"}, 0, nullptr, 0},
    {"AccountUserid", {200, "account_userid:1234"}, 0, nullptr, 0},
    {"BeginningOfGood", {200, "g"}, 0, nullptr, 0},
    {"BeginningOfBadparam", {200, "bad"}, 3001, "bad", 200},
    {"BeginningOfAccountInused", {200, "account_"}, 3005, "account_", 200},
    {"Badauth", {200, "badauth"}, 3004, "badauth", 200},
    {"SerialExceeded", {200, "serial_exceed_max_account_register"}, 3006, "serial_exceed_max_account_register", 200},
    {"CaseMatters", {200, "GOOD"}, 3000, "GOOD", 200},
    {"RunsPastTheKey", {200, "goodness"}, 3000, "goodness", 200},
    {"LoggedUpToTheKeyword", {200, "badparam:email"}, 3001, "badparam", 200},
    {"LeadingColons", {200, "::badparam:x"}, 3001, "::badparam", 200},
    {"TrimmedFirst", {200, "\n good \n"}, 0, nullptr, 0},
    {"EmptyAnswer", {200, ""}, 3000, "", 200},
    {"OnlyColons", {200, ":::"}, 3000, "", 200},
    {"ServerError", {500, "good"}, 3003, "badsys", 500}};

// The service's answer decides, by its first keyword; the form is the same
// every time, and posted whether or not an account is signed in.
TEST_F(RegisterTest, KeywordOfTheAnswerDecides) {
  EXPECT_CALL(backend_, QueryInfo).Times(0);
  size_t sent = 0;
  for (const AnswerCase& c : kAnswers) {
    SCOPED_TRACE(c.name);
    server().Script(c.reply);
    ExpectAnswer(Register(J(kRequest)), c.code);
    std::vector<Received> received = server().Requests();
    ASSERT_EQ(received.size(), ++sent);
    EXPECT_EQ(received.back().body, kForm);
    std::vector<Line> expected;
    if (c.response) expected.push_back(RegisterError(c.status, c.response));
    EXPECT_EQ(Logged(), expected);
  }
}

TEST_F(RegisterTest, UnreachableServiceIsBadnetwork) {
  SilentPort closed(false);
  ConfigureHost(closed.Address());
  ExpectAnswer(Register(J(kRequest)), 3002);
  EXPECT_EQ(Logged(), std::vector<Line>{RegisterError(0, "badnetwork")});
}

// --- The checks before the form, in their order ---

const char kShortPassword[] = R"({"account": "ada@example.com", "password": "12345", "fullname": "Ada"})";
void NoHost(Sysroot& root) { root.Write(kRelaydConf, "[relay]\nenabled = 1\n[pellix]\n"); }

TEST_F(RegisterTest, ChecksComeBeforeTheFormInTheirOrder) {
  const std::vector<Line> invalid = {InvalidParameter("Register")};
  const struct {
    const char* name;
    const char* params;
    std::function<void(Sysroot&)> arrange;
    int code;
    std::vector<Line> logged;
  } cases[] = {
      {"NoAccount", R"({"password": "secret 1", "fullname": "Ada"})", nullptr, 3001, invalid},
      {"AccountNotAnAddress", R"({"account": "ada", "password": "secret 1", "fullname": "Ada"})", nullptr, 3001,
       invalid},
      {"NoPassword", R"({"account": "ada@example.com", "fullname": "Ada"})", nullptr, 3001, invalid},
      {"NoFullname", R"({"account": "ada@example.com", "password": "secret 1"})", nullptr, 3001, invalid},
      {"NoHost", kRequest, NoHost, 3001, {LogLine("Register", "pellix host doesnot set")}},
      {"LengthsBeforeHost",
       kShortPassword,
       NoHost,
       3001,
       {LogLine("RegisterLengthsValid", "pellix passowrd length is invaild: %zd", ssize_t{5})}},
      {"SerialBeforeLengths", kShortPassword, [](Sysroot&) { FailOnce("TLIBGetSerialNumber"); }, 3000, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ResetDevice();
    if (c.arrange) c.arrange(sysroot());
    ExpectAnswer(Register(J(c.params)), c.code);
    EXPECT_TRUE(server().Requests().empty());
    EXPECT_EQ(Logged(), c.logged);
  }
}

// --- Lengths, in bytes (version 2 checks them with the same function) ---

enum class Refused { kNo, kPassword, kFullName };

struct LengthCase {
  const char* name;
  std::string password;
  std::string fullName;
  Refused refused;
};

const LengthCase kLengths[] = {
    {"Password5", "12345", "Ada", Refused::kPassword},
    {"Password6", "123456", "Ada", Refused::kNo},
    {"Password128", std::string(128, 'p'), "Ada", Refused::kNo},
    {"Password129", std::string(129, 'p'), "Ada", Refused::kPassword},
    {"PasswordTwoWideCharacters", WidePassword(2), "Ada", Refused::kNo},
    {"Password33WideCharacters", WidePassword(33), "Ada", Refused::kPassword},
    {"FullName1", "secret 1", "A", Refused::kFullName},
    {"FullName2", "secret 1", "Al", Refused::kNo},
    {"FullName256", "secret 1", std::string(256, 'n'), Refused::kNo},
    {"FullName257", "secret 1", std::string(257, 'n'), Refused::kFullName},
    {"FullNameOneWideCharacter", "secret 1", WideName(1), Refused::kNo},
    {"FullName129WideCharacters", "secret 1", WideName(129), Refused::kFullName},
    {"PasswordBeforeFullName", "12345", "A", Refused::kPassword},
};

Json::Value LengthParams(const LengthCase& c) {
  Json::Value params = J(R"({"account": "ada@example.com"})");
  params["password"] = c.password;
  params["fullname"] = c.fullName;
  return params;
}

std::vector<Line> LengthLines(const LengthCase& c) {
  if (c.refused == Refused::kPassword)
    return {LogLine("RegisterLengthsValid", "pellix passowrd length is invaild: %zd", ssize_t(c.password.size()))};
  if (c.refused == Refused::kFullName)
    return {LogLine("RegisterLengthsValid", "pellix fullname length is invaild: %s %zd", c.fullName.c_str(),
                    ssize_t(c.fullName.size()))};
  return {};
}

TEST_F(RegisterTest, LengthsCountBytes) {
  size_t sent = 0;
  for (const LengthCase& c : kLengths) {
    SCOPED_TRACE(c.name);
    const bool refused = c.refused != Refused::kNo;
    ExpectAnswer(Register(LengthParams(c)), refused ? 3001 : 0);
    if (!refused) ++sent;
    EXPECT_EQ(server().Requests().size(), sent);
    EXPECT_EQ(Logged(), LengthLines(c));
  }
}

// --- Version 2 ---

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

const V2Case kV2Cases[] = {
    {"CriticalRelease", "{}", {0, 0}, kCritical, 0, false},
    {"Enews", R"({"critical_release": false, "enews": true})", {0, 0}, {"false", "true", "false", "(null)"}, 0, false},
    {"LocalPromotion",
     R"({"critical_release": false, "enews_local_promotion": true})",
     {0, 0},
     {"false", "false", "true", "(null)"},
     0,
     false},
    {"EmptyCountryIsNull", R"({"country": ""})", {0, 0}, kCritical, 0, false},
    {"CountryPassedOn", R"({"country": "NL"})", {0, 0}, {"true", "false", "false", "NL"}, 0, false},
    {"FailedWithErrorZeroIsASuccess", "{}", {-1, 0}, kCritical, 0, true},
    {"FailedWithError16", "{}", {-1, 16}, kCritical, 3005, true},
    {"ErrorNumberDecides", "{}", {0, 16}, kCritical, 3005, false},
};

TEST_F(ModuleTest, RegisterV2RegistersThroughTheLibrary) {
  for (const V2Case& c : kV2Cases) {
    SCOPED_TRACE(c.name);
    talvseam::ClearJournal();
    ON_CALL(backend_, Register).WillByDefault(Return(c.registered));
    Json::Value params = J(kV2Request);
    for (const std::string& flag : J(c.flags).getMemberNames()) params[flag] = J(c.flags)[flag];
    webapihost::Answer a = Call("TALV.Core.PellixCenter", 2, "register", params);
    EXPECT_EQ(a.answers, 1);
    EXPECT_EQ(a.success, c.code == 0);
    EXPECT_EQ(a.code, c.code);
    EXPECT_EQ(a.data, Json::Value(Json::objectValue)) << a.data;
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
  EXPECT_EQ(a.code, 3010);
  EXPECT_EQ(a.data, J(R"({"account": "bound@example.com", "auth_key": "k-1", "activated": true})")) << a.data;
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
    EXPECT_EQ(a.code, 3001);
    EXPECT_EQ(a.data, Json::Value(Json::objectValue)) << a.data;
    EXPECT_EQ(Logged(), c.logged);
  }
  EXPECT_TRUE(talvseam::JournalOf("TALVPELLIXAccountQueryInfo").empty());
  EXPECT_TRUE(talvseam::JournalOf("TALVPELLIXAccountRegister").empty());
}

}  // namespace
}  // namespace pellixtest
