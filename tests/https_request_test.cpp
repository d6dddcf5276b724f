// The module's one conversation with the network, on the wire: HttpsRequestSend,
// PellixAccountRegister and version 1's `register` against a local HTTPS
// service, one table of cases. Each case states what arrives at the service,
// byte for byte, the caller's outcome and the lines logged.
#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>

#include "sdk/device.h"
#include "seam/seam.h"
#include "support/curl_faults.h"
#include "support/local_service.h"
#include "trust.h"

namespace pellixtest {
namespace {

using pellixsim::Conduct;
using syslogcapture::Line;

// How the case reaches the service.
enum Via {
  kSend,           // HttpsRequestSend with the case's fields
  kSendAs,         // the same with the credentials ada@example.com and "p w"
  kSendNoHash,     // the same without a hash
  kRegister,       // PellixAccountRegister for Ada, with the case's serial ("": none)
  kRegisterBlind,  // the same without a result record
  kHandler,        // version 1's `register` with the case's parameters
};
// kClosed: the service's, refusing connections; kDefault: none given (PellixAccountRegister).
enum Host { kService, kClosed, kDefault };

// The lines logged, given the host and the error state afterwards.
using Lines = std::function<std::vector<Line>(const std::string& host, const ErrorState&)>;

struct WireCase {
  const char* name;
  Via via;
  // kSend*: the fields, "key=value" a line; kRegister*: the caller's serial;
  // kHandler: the request's parameters.
  std::string input;
  Conduct conduct;  // account.php's
  // "result status body" of the caller's record (it starts as "7 (no body)");
  // kHandler: the answer's code.
  std::string outcome;
  std::string form;        // what arrives; "": nothing; "*": a form, whatever it holds
  Lines logged = nullptr;  // nullptr: nothing
  std::function<void(Sysroot&)> arrange = nullptr;
  int error = -1;  // the error state's code afterwards; -1: not checked
  Host host = kService;
};

// The fields of `input`, "key=value" a line.
Fields FieldsOf(const std::string& input) {
  Fields fields;
  for (size_t at = 0; at < input.size();) {
    const size_t end = std::min(input.find('\n', at), input.size());
    const std::string line = input.substr(at, end - at);
    fields.emplace_back(line.substr(0, line.find('=')), line.substr(line.find('=') + 1));
    at = end + 1;
  }
  return fields;
}

template <typename... A>
Lines One(const char* function, const char* format, A... args) {
  return [=](const std::string&, const ErrorState&) { return std::vector<Line>{LogLine(function, format, args...)}; };
}
// One line, its format ending in the error state.
Lines State(const char* function, const char* format) {
  return [=](const std::string&, const ErrorState& s) {
    return std::vector<Line>{LogLine(function, format, s.code, s.file.c_str(), s.line)};
  };
}
Lines NoZone(int needed) {
  return [=](const std::string&, const ErrorState& s) {
    return std::vector<Line>{LogLine("PellixAccountRegister",
                                     "failed to get time zone, size need: %d, err=[0x%04X %s:%d]", needed, s.code,
                                     s.file.c_str(), s.line)};
  };
}
const char kSendFailed[] = "failed to send https request to [%s], err=[0x%04X %s:%d]";
// The form not sent to `host` (nullptr: the service's), after the client's
// own line when it ran out of memory.
Lines SendFailed(const char* host, bool outOfMemory = false) {
  return [=](const std::string& service, const ErrorState& s) {
    std::vector<Line> lines;
    if (outOfMemory)
      lines.push_back(LogLine("HttpsRequestSend", "out of memory, ERR=[0x%04X %s:%d]", s.code, s.file.c_str(), s.line));
    lines.push_back(
        LogLine("PellixAccountRegister", kSendFailed, host ? host : service.c_str(), s.code, s.file.c_str(), s.line));
    return lines;
  };
}
// The one log line that carries a password, written on purpose (the
// suite-wide password scan allows exactly this statement): a value that
// libcurl cannot encode is logged as it is.
Lines UnencodedPassword(const char* password) {
  return [=](const std::string& host, const ErrorState& s) {
    std::vector<Line> lines = SendFailed(nullptr)(host, s);
    lines.insert(lines.begin(), LogLine("AppendFormField", "URL encoding failed: %s", password));
    lines.push_back(LogLine("Register", "cannot register account"));
    return lines;
  };
}
Lines RegisterError(long status, const char* response) {
  return One("Register", "pellix register error, http-status: %ld response: %s", status, response);
}
Lines PasswordLength(size_t n) {
  return One("RegisterLengthsValid", "pellix passowrd length is invaild: %zd", ssize_t(n));
}
Lines FullNameLength(const std::string& name) {
  return [=](const std::string&, const ErrorState&) {
    return std::vector<Line>{LogLine("RegisterLengthsValid", "pellix fullname length is invaild: %s %zd", name.c_str(),
                                     ssize_t(name.size()))};
  };
}

// libcurl refusing what HttpsRequestSend cannot do without.
std::function<void(Sysroot&)> FailCurl(const char* function, int option = -1, int after = 0) {
  return [=](Sysroot&) { talvseam::InjectFault(CurlOp(function, option), after, false, 0); };
}
constexpr int kRefused = CURLE_BAD_FUNCTION_ARGUMENT;  // what the failing call returns
template <typename... A>
Lines Sends(const char* format, A... args) {
  return One("HttpsRequestSend", format, args...);
}
Lines UrlFailed() {
  return [](const std::string& host, const ErrorState&) {
    return std::vector<Line>{LogLine("HttpsRequestSend", "failed to set req=%s return value=%d",
                                     ("https://" + host + "/account.php").c_str(), kRefused)};
  };
}
Lines HeaderFailed(int result) {
  return [=](const std::string& host, const ErrorState&) {
    return std::vector<Line>{LogLine("HttpsRequestSend", "failed to set req=%s, header=%s, return value=%d",
                                     host.c_str(), ("Host: " + host).c_str(), result)};
  };
}

const std::string kDevice = std::string("serial=") + kDeviceSerial + "&token=" + kDeviceToken;
const std::string kRegistered = kDevice + "&action=register";
const std::string kAda =
    "&action=register&email=ada%40example.com&passwd=secret%201&full_name=Ada%20Lovelace&notify_lang=";
const std::string kZone = "&timezone=Europe%2FAmsterdam";
const std::string kAdaForm = kDevice + kAda + "enu" + kZone;
const std::string kHandlerForm = kDevice + kAda + "enu&serial=" + kDeviceSerial + kZone;
const char kRequest[] = R"({"account": "ada@example.com", "password": "secret 1", "fullname": "Ada Lovelace"})";
const char kShortPassword[] = R"({"account": "ada@example.com", "password": "12345", "fullname": "Ada"})";

// The form holds 2048 bytes with its NUL: used + key + encoded + 3 == 2048 +
// over, the blank counting encoded, as "%20".
size_t Encoded(int over) { return 2048 + over - 3 - std::strlen("pad") - kRegistered.size(); }
std::string Pad(int over) { return "action=register\npad=" + std::string(Encoded(over) - 3, 'x') + " "; }

// `n` times a character of four bytes: different ones for passwords and
// names, so that no password is ever part of a name that gets logged.
std::string Repeat(const char* character, size_t n) {
  std::string text;
  for (size_t i = 0; i < n; ++i) text += character;
  return text;
}
std::string WidePassword(size_t n) { return Repeat("\xF0\x9F\x94\x91", n); }
std::string WideName(size_t n) { return Repeat("\xF0\x9D\x84\x9E", n); }
std::string Lengths(const std::string& password, const std::string& fullName) {
  return R"({"account": "ada@example.com", "password": ")" + password + R"(", "fullname": ")" + fullName + "\"}";
}

void NoHost(Sysroot& root) {
  root.Write("/usr/talv/etc/talvrelayd/talvrelayd.conf", "[relay]\nenabled = 1\n[pellix]\n");
}
void Language(Sysroot& root) { root.Write("/etc/talvinfo.conf", "language=ger\ntimezone=Amsterdam\n"); }
void NoLanguage(Sysroot& root) { root.Write("/etc/talvinfo.conf", "timezone=Amsterdam\n"); }
std::function<void(Sysroot&)> Fail(const char* op, int after = 0) {
  return [=](Sysroot&) { FailOnce(op, after); };
}
std::function<void(Sysroot&)> Zone(const std::string& zone, std::map<std::string, std::string> info) {
  const auto device = std::make_shared<ZoneDevice>(zone, std::move(info));
  return [device](Sysroot&) { talvsdk::SetDevice(device.get()); };
}

const char kUntouched[] = "-1 7 (no body)";
const int kNoError = TLIBC_ERR_NONE;

// clang-format off
const WireCase kWire[] = {
    // HttpsRequestSend: values encoded, keys as they are; any status but 200 is "badsys".
    {"ValuesAreEncodedKeysAreNot", kSend, "note=a b&c\nx y=\xC3\xA9~/", Says("good"), "0 200 good",
     kDevice + "&note=a%20b%26c&x y=%C3%A9~%2F", nullptr, nullptr, kNoError},
    {"CredentialsBeforeTheFields", kSendAs, "action=login", Says("good"), "0 200 good",
     kDevice + "&username=ada%40example.com&passwd=p%20w&action=login", nullptr, nullptr, kNoError},
    {"ServerErrorIsBadsys", kSend, "action=register", Status(500), "0 500 badsys", kRegistered, nullptr, nullptr,
     kNoError},
    {"FormFillsTheBufferExactly", kSend, Pad(0), Says("good"), "0 200 good",
     kRegistered + "&pad=" + std::string(Encoded(0) - 3, 'x') + "%20"},
    {"FormOneByteOver", kSend, Pad(1), {}, kUntouched, "",
     One("AppendFormField", "buffer size not enough: total: %zd, used: %zd, newly add; %zd", ssize_t{2048},
         ssize_t(kRegistered.size()), ssize_t(Encoded(1) + 5))},
    // Nothing leaves the device without its token, a field or its model name.
    {"DeviceTokenUnavailable", kSend, "action=register", {}, kUntouched, "",
     State("HttpsRequestSend", "Fail to get serial token of this QB, err=[0x%04X %s:%d]"),
     Fail("TALVCloudServiceQbtokenGetToken"), TLIBC_ERR_BAD_PARAMETERS},
    {"TokenOfGivenSerialUnavailable", kSend, "serial=X1", {}, kUntouched, "",
     State("HttpsRequestSend", "TALVCloudServiceQbtokenGenerateToken Failed, err=[0x%04X %s:%d]"),
     Fail("TALVCloudServiceQbtokenGenerateToken"), TLIBC_ERR_BAD_PARAMETERS},
    {"NoFields", kSend, "", {}, kUntouched, "", State("HttpsRequestSend", "no key in the hash, ERR=[0x%04X %s:%d]"),
     nullptr, kNoError},
    {"NoHash", kSendNoHash, "", {}, kUntouched, "", State("HttpsRequestSend", "no key in the hash, ERR=[0x%04X %s:%d]"),
     nullptr, TLIBC_ERR_BAD_PARAMETERS},
    {"NoModelName", kSend, "action=register", {}, kUntouched, "", nullptr,
     [](Sysroot& s) { s.Write("/etc.defaults/talvinfo.conf", "serial=Q21CA00042\n"); }, kNoError},
    // Every libcurl call the module cannot do without, failing: its line,
    // nothing sent. (Which calls it bears: https_torture_test.)
    {"CurlInit", kSend, "action=register", {}, kUntouched, "", Sends("failed to init pCurl"),
     FailCurl("curl_easy_init")},
    {"CurlPost", kSend, "action=register", {}, kUntouched, "", Sends("failed to set request method to be POST"),
     FailCurl("curl_easy_setopt", CURLOPT_POST)},
    {"CurlPostFields", kSend, "action=register", {}, kUntouched, "", Sends("failed to set post field to be POST"),
     FailCurl("curl_easy_setopt", CURLOPT_POSTFIELDS)},
    {"CurlUrl", kSend, "action=register", {}, kUntouched, "", UrlFailed(), FailCurl("curl_easy_setopt", CURLOPT_URL)},
    {"CurlUserAgent", kSend, "action=register", {}, kUntouched, "",
     Sends("failed to set agent=%s, return value=%d", kUserAgent, kRefused),
     FailCurl("curl_easy_setopt", CURLOPT_USERAGENT)},
    {"CurlHeaderList", kSend, "action=register", {}, kUntouched, "", HeaderFailed(CURLE_OUT_OF_MEMORY),
     FailCurl("curl_slist_append")},
    {"CurlHeader", kSend, "action=register", {}, kUntouched, "", HeaderFailed(kRefused),
     FailCurl("curl_easy_setopt", CURLOPT_HTTPHEADER)},
    {"CurlSslContext", kSend, "action=register", {}, kUntouched, "",
     Sends("can not set CURLOPT_SSL_CTX_FUNCTION (%d)", kRefused),
     FailCurl("curl_easy_setopt", CURLOPT_SSL_CTX_FUNCTION)},
    {"CurlTimeout", kSend, "action=register", {}, kUntouched, "",
     One("SetTimeOut", "failed to set time-out, return value=%d", kRefused),
     FailCurl("curl_easy_setopt", CURLOPT_TIMEOUT)},
    {"CurlWriteFunction", kSend, "action=register", {}, kUntouched, "",
     Sends("failed to write function WriteMemoryCallback, return value=%d", kRefused),
     FailCurl("curl_easy_setopt", CURLOPT_WRITEFUNCTION)},
    {"CurlWriteData", kSend, "action=register", {}, kUntouched, "",
     Sends("failed to write data, return value=%d", kRefused), FailCurl("curl_easy_setopt", CURLOPT_WRITEDATA)},
    // PellixAccountRegister: the form, and the service's answer as
    // HttpsRequestSend reads it (trimmed, empty or refused) in the caller's record.
    {"DevicesOwnSerial", kRegister, "", Says(" good\n"), "0 200 good", kDevice + kAda + "ger" + kZone, nullptr,
     Language},
    {"CallersSerial", kRegister, "X1", Says("account_inused"), "0 200 account_inused",
     std::string("serial=X1&token=") + kTokenX1 + kAda + "enu&serial=X1" + kZone},
    {"LanguageUnreadable", kRegister, "", Says("good"), "0 200 good", kAdaForm, nullptr, NoLanguage},
    {"EmptyAnswer", kRegister, "", Says(""), "0 200 (no body)", kAdaForm},
    {"RefusedAnswer", kRegister, "", Status(503), "0 503 badsys", kAdaForm},
    {"NoResultRecord", kRegisterBlind, "", Says("good"), "0 7 (no body)", kAdaForm},
    // Only a verbose request logs a failed transfer.
    {"UnreachableServiceIsAnAnswer", kRegister, "", {}, "0 0 badnetwork", "", nullptr, nullptr, TLIBC_ERR_NETWORK,
     kClosed},
    {"FormHashUnavailable", kRegister, "", {}, kUntouched, "",
     State("PellixAccountRegister", "failed to alloc https request, err=[0x%04X %s:%d]"), Fail("TLIBCSzHashAlloc"),
     TLIBC_ERR_OUT_OF_MEMORY},
    {"TimeZoneUnavailable", kRegister, "", {}, kUntouched, "", NoZone(-1), Fail("TALVZoneGet"), TLIBC_ERR_NOT_FOUND},
    {"TimeZoneNameTooLong", kRegister, "", {}, kUntouched, "", NoZone(301), Zone(std::string(300, 'z'), {}),
     TLIBC_ERR_BAD_PARAMETERS},
    {"ZoneHashUnavailable", kRegister, "", {}, kUntouched, "",
     State("PellixAccountRegister", "Failed to alloc pTZInfo, err=[0x%04X %s:%d]"), Fail("TLIBCSzHashAlloc", 1),
     TLIBC_ERR_OUT_OF_MEMORY},
    {"ZoneUnknown", kRegister, "", {}, kUntouched, "",
     State("PellixAccountRegister", "failed to get timezone info[0x%04X %s:%d]"),
     [](Sysroot& s) { s.Write("/etc/talvinfo.conf", "timezone=Atlantis\n"); }, TLIBC_ERR_NOT_FOUND},
    {"ZoneWithoutTzdbName", kRegister, "", {}, kUntouched, "",
     State("PellixAccountRegister", "failed to get tmz[0x%04X %s:%d]"), Zone("Amsterdam", {{"name", "Amsterdam"}}),
     kNoError},
    {"SendFails", kRegister, "", {}, kUntouched, "", SendFailed(nullptr, true), Fail("TLIBCSzListAlloc"),
     TLIBC_ERR_OUT_OF_MEMORY},
    // Without a host the form goes to the service's own; the line names it,
    // and the device's missing build number keeps it from leaving.
    {"DefaultHost", kRegister, "", {}, kUntouched, "", SendFailed("account.pellix.example"),
     [](Sysroot& s) { s.Write("/etc.defaults/VERSION", "majorversion=5\n"); }, kNoError, kDefault},
    // Version 1's `register`: the service's first keyword decides; the form
    // is the same every time.
    {"Good", kHandler, kRequest, Says("good"), "0", kHandlerForm},
    {"AccountUserid", kHandler, kRequest, Says("account_userid:1234"), "0", kHandlerForm},
    {"BeginningOfGood", kHandler, kRequest, Says("g"), "0", kHandlerForm},
    {"BeginningOfBadparam", kHandler, kRequest, Says("bad"), "3001", kHandlerForm, RegisterError(200, "bad")},
    {"BeginningOfAccountInused", kHandler, kRequest, Says("account_"), "3005", kHandlerForm,
     RegisterError(200, "account_")},
    {"Badauth", kHandler, kRequest, Says("badauth"), "3004", kHandlerForm, RegisterError(200, "badauth")},
    {"SerialExceeded", kHandler, kRequest, Says("serial_exceed_max_account_register"), "3006", kHandlerForm,
     RegisterError(200, "serial_exceed_max_account_register")},
    {"CaseMatters", kHandler, kRequest, Says("GOOD"), "3000", kHandlerForm, RegisterError(200, "GOOD")},
    {"RunsPastTheKey", kHandler, kRequest, Says("goodness"), "3000", kHandlerForm, RegisterError(200, "goodness")},
    {"LoggedUpToTheKeyword", kHandler, kRequest, Says("badparam:email"), "3001", kHandlerForm,
     RegisterError(200, "badparam")},
    {"LeadingColons", kHandler, kRequest, Says("::badparam:x"), "3001", kHandlerForm,
     RegisterError(200, "::badparam")},
    {"TrimmedFirst", kHandler, kRequest, Says("\n good \n"), "0", kHandlerForm},
    {"EmptyAnswer", kHandler, kRequest, Says(""), "3000", kHandlerForm, RegisterError(200, "")},
    {"OnlyColons", kHandler, kRequest, Says(":::"), "3000", kHandlerForm, RegisterError(200, "")},
    {"ServerError", kHandler, kRequest, Status(500), "3003", kHandlerForm, RegisterError(500, "badsys")},
    // account.php answering for itself, a while later; a transfer that fails
    // is badnetwork (each way of failing: https_hostile_test).
    {"ServiceRegisters", kHandler, kRequest, {}, "0", kHandlerForm},
    {"ServiceKnowsTheAddress", kHandler, kRequest, {Conduct::kAnswer, 200, "", 300}, "3005", kHandlerForm,
     RegisterError(200, "account_inused")},
    {"UnreachableServiceIsBadnetwork", kHandler, kRequest, {}, "3002", "", RegisterError(0, "badnetwork"), nullptr, -1,
     kClosed},
    // The checks before the form, in their order.
    {"NoAccount", kHandler, R"({"password": "secret 1", "fullname": "Ada"})", {}, "3001", "",
     One("Register", "Invalid parameter")},
    {"AccountNotAnAddress", kHandler, R"({"account": "ada", "password": "secret 1", "fullname": "Ada"})", {}, "3001",
     "", One("Register", "Invalid parameter")},
    {"NoPassword", kHandler, R"({"account": "ada@example.com", "fullname": "Ada"})", {}, "3001", "",
     One("Register", "Invalid parameter")},
    {"NoFullname", kHandler, R"({"account": "ada@example.com", "password": "secret 1"})", {}, "3001", "",
     One("Register", "Invalid parameter")},
    {"NoHost", kHandler, kRequest, {}, "3001", "", One("Register", "pellix host doesnot set"), NoHost},
    {"LengthsBeforeHost", kHandler, kShortPassword, {}, "3001", "", PasswordLength(5), NoHost},
    {"SerialBeforeLengths", kHandler, kShortPassword, {}, "3000", "", nullptr, Fail("TLIBGetSerialNumber")},
    // Lengths count bytes (version 2 checks them with the same function).
    {"Password5", kHandler, Lengths("12345", "Ada"), {}, "3001", "", PasswordLength(5)},
    {"Password6", kHandler, Lengths("123456", "Ada"), Says("good"), "0", "*"},
    {"Password128", kHandler, Lengths(std::string(128, 'p'), "Ada"), Says("good"), "0", "*"},
    {"Password129", kHandler, Lengths(std::string(129, 'p'), "Ada"), {}, "3001", "", PasswordLength(129)},
    {"PasswordTwoWideCharacters", kHandler, Lengths(WidePassword(2), "Ada"), Says("good"), "0", "*"},
    {"Password33WideCharacters", kHandler, Lengths(WidePassword(33), "Ada"), {}, "3001", "", PasswordLength(132)},
    {"FullName1", kHandler, Lengths("secret 1", "A"), {}, "3001", "", FullNameLength("A")},
    {"FullName2", kHandler, Lengths("secret 1", "Al"), Says("good"), "0", "*"},
    {"FullName256", kHandler, Lengths("secret 1", std::string(256, 'n')), Says("good"), "0", "*"},
    {"FullName257", kHandler, Lengths("secret 1", std::string(257, 'n')), {}, "3001", "",
     FullNameLength(std::string(257, 'n'))},
    {"FullNameOneWideCharacter", kHandler, Lengths("secret 1", WideName(1)), Says("good"), "0", "*"},
    {"FullName129WideCharacters", kHandler, Lengths("secret 1", WideName(129)), {}, "3001", "",
     FullNameLength(WideName(129))},
    // In version 1's form the fifth value encoded (after serial, token, action
    // and email) is the password.
    {"UrlEncodingFailureLogsThePasswordAsItIs", kHandler,
     R"({"account": "ada@example.com", "password": "s3cret password", "fullname": "Ada Lovelace"})", {}, "3003", "",
     UnencodedPassword("s3cret password"), FailCurl("curl_easy_escape", -1, 4)},
    {"PasswordBeforeFullName", kHandler, Lengths("12345", "A"), {}, "3001", "", PasswordLength(5)},
};
// clang-format on

class WireTest : public LocalServiceTest {
 protected:
  void Run(const WireCase& c) {
    SCOPED_TRACE(c.name);
    ResetDevice();
    talvseam::ClearJournal();
    const std::string host = service().Address();
    std::string error;
    ASSERT_TRUE(service().php().SetReachable(c.host != kClosed, &error)) << error;
    ConfigureHost(host);
    FieldHash fields(FieldsOf(c.input));  // before a fault is planned
    if (c.arrange) c.arrange(sysroot());
    service().Treat(c.conduct);
    std::string outcome;
    if (c.via == kHandler) {
      const webapihost::Answer a = Call("TALV.Core.PellixCenter", 1, "register", J(c.input));
      EXPECT_EQ(a.answers, 1);
      EXPECT_FALSE(a.threw) << a.exception;
      EXPECT_TRUE(a.data.isNull()) << a.data;
      EXPECT_TRUE(talvseam::JournalOf("TALVPELLIXAccountQueryInfo").empty()) << "signed in or not";
      outcome = std::to_string(a.code);
    } else {
      ScanLogForPassword("secret 1");
      HttpsResponse record{7, nullptr};
      int result;
      if (c.via == kRegister || c.via == kRegisterBlind) {
        const AccountRegisterInfo info{0,
                                       c.host == kDefault ? nullptr : host.c_str(),
                                       "ada@example.com",
                                       "secret 1",
                                       "Ada Lovelace",
                                       c.input.empty() ? nullptr : c.input.c_str()};
        result = PellixAccountRegister(&info, c.via == kRegister ? &record : nullptr);
      } else {
        const bool as = c.via == kSendAs;
        const HttpsRequest request{host.c_str(),
                                   "account.php",
                                   c.via == kSendNoHash ? nullptr : fields.get(),
                                   0,
                                   as ? "ada@example.com" : nullptr,
                                   as ? "p w" : nullptr};
        result = HttpsRequestSend(&request, &record);
      }
      outcome = std::to_string(result) + " " + std::to_string(record.httpStatus) + " " +
                (record.body ? record.body : "(no body)");
      HttpsResponseFree(&record);
    }
    const ErrorState state;
    EXPECT_EQ(outcome, c.outcome);
    if (c.error >= 0) {
      EXPECT_EQ(state.code, c.error);
    }
    std::vector<pellixsim::HttpRequest> received;
    for (const pellixsim::TlsConnection& seen : service().php().TakeConnections())
      if (!seen.request.method.empty()) received.push_back(seen.request);
    ASSERT_EQ(received.size(), c.form.empty() ? 0u : 1u);
    if (!c.form.empty()) {
      const pellixsim::HttpRequest& r = received.back();
      EXPECT_EQ(r.method + " " + r.target, "POST /account.php");
      EXPECT_EQ(r.Header("Host"), std::vector<std::string>{host});
      EXPECT_EQ(r.Header("User-Agent"), std::vector<std::string>{kUserAgent});
      EXPECT_EQ(r.Header("Content-Type"), std::vector<std::string>{"application/x-www-form-urlencoded"});
      if (c.form != "*") {
        EXPECT_EQ(r.body, c.form);
      }
    }
    EXPECT_EQ(Logged(), c.logged ? c.logged(host, state) : std::vector<Line>{});
  }
};

// A closed port needs no trust: these run wherever the tests do.
TEST_F(WireTest, ClosedPort) {
  for (const WireCase& c : kWire)
    if (c.host == kClosed) Run(c);
}

class TrustedWireTest : public WireTest {
 protected:
  void SetUp() override {
    const std::string& problem = TrustTestService();
    if (!problem.empty()) GTEST_SKIP() << "the local HTTPS service cannot be trusted: " << problem;
    WireTest::SetUp();
  }
};

TEST_F(TrustedWireTest, Cases) {
  for (const WireCase& c : kWire)
    if (c.host != kClosed) Run(c);
}

// --- What the table cannot say ---

TEST_F(LocalServiceTest, NullArgumentsAreRefusedSilently) {
  FieldHash fields(FieldsOf("action=register"));
  HttpsRequest request{"127.0.0.1", "account.php", fields.get(), 0, nullptr, nullptr};
  HttpsResponse response{7, nullptr};
  EXPECT_EQ(HttpsRequestSend(nullptr, &response), -1);
  EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_BAD_PARAMETERS);
  EXPECT_STREQ(TLIBCErrorGetFile(), "https_request.cpp");
  TLIBCErrSetEx(TLIBC_ERR_NONE, "", 0);
  EXPECT_EQ(HttpsRequestSend(&request, nullptr), -1);
  EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_BAD_PARAMETERS);
  EXPECT_EQ(HttpsRequestSend(nullptr, nullptr), -1);
  EXPECT_EQ(response.httpStatus, 7);
  EXPECT_EQ(response.body, nullptr);

  talvseam::ClearJournal();
  const AccountRegisterInfo full{0, "127.0.0.1", "ada@example.com", "secret 1", "Ada Lovelace", nullptr};
  AccountRegisterInfo noEmail = full, noPasswd = full, noFullName = full;
  noEmail.email = nullptr;
  noPasswd.passwd = nullptr;
  noFullName.fullName = nullptr;
  const AccountRegisterInfo* const infos[] = {nullptr, &noEmail, &noPasswd, &noFullName};
  for (const AccountRegisterInfo* info : infos) {
    TLIBCErrSetEx(TLIBC_ERR_NONE, "", 0);
    EXPECT_EQ(PellixAccountRegister(info, &response), -1);
    EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_BAD_PARAMETERS);
    EXPECT_STREQ(TLIBCErrorGetFile(), "account_register.cpp");
    EXPECT_EQ(response.httpStatus, 7);
    EXPECT_EQ(response.body, nullptr);
  }
  EXPECT_EQ(Logged(), std::vector<Line>{});
  EXPECT_TRUE(service().php().TakeConnections().empty());
  EXPECT_TRUE(talvseam::Journal().empty()) << "no platform call";
}

TEST_F(LocalServiceTest, ResponseFreeIsSafeOnNullAndTwice) {
  HttpsResponseFree(nullptr);
  HttpsResponse full{200, strdup("good")};
  HttpsResponseFree(&full);
  EXPECT_EQ(full.httpStatus, 0);
  EXPECT_EQ(full.body, nullptr);
  HttpsResponseFree(&full);
  EXPECT_EQ(full.body, nullptr);
}

// All that `stream` gives, then closed with `close`.
std::string Drain(FILE* stream, int (*close)(FILE*)) {
  std::string all;
  char buffer[4096];
  for (size_t n; stream && (n = std::fread(buffer, 1, sizeof(buffer), stream)) > 0;) all.append(buffer, n);
  if (stream) close(stream);
  return all;
}

// Trusting changes what this process reads and nothing else. Here the module
// trusts the test's authorities beside the machine's, as serve does; a child
// reads the machine's file as it was before.
TEST_F(TrustedWireTest, TrustChangesNothingOutsideTheProcess) {
  const std::string bundle = webapihost::SystemBundle();
  const std::string child = "cat " + bundle;
  const std::string machine = Drain(popen(child.c_str(), "r"), pclose);
  ASSERT_FALSE(machine.empty()) << bundle;
  const std::string pems = TrustedAuthority();
  std::string why;
  ASSERT_TRUE(webapihost::TrustAuthorities(pems, &why)) << why;

  EXPECT_TRUE(Drain(std::fopen(bundle.c_str(), "r"), std::fclose) == machine + "\n" + pems);
  EXPECT_TRUE(Drain(popen(child.c_str(), "r"), pclose) == machine);
  Run(kWire[0]);
}

}  // namespace
}  // namespace pellixtest
