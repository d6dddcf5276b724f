// PellixAccountRegister: the registration form on the wire, the caller's copy
// of the answer, and every way the form request fails.
#include <functional>

#include "sdk/device.h"
#include "seam/seam.h"
#include "support/local_service.h"

namespace pellixtest {
namespace {

using syslogcapture::Line;

const std::string kFields =
    "&action=register&email=ada%40example.com&passwd=secret%201&full_name=Ada%20Lovelace&notify_lang=";
const char kTimeZone[] = "&timezone=Europe%2FAmsterdam";

AccountRegisterInfo Info(const char* host, const char* serial = nullptr) {
  return AccountRegisterInfo{0, host, "ada@example.com", "secret 1", "Ada Lovelace", serial};
}

const char kSettings[] = "language=ger\ntimezone=Amsterdam\n";  // /etc/talvinfo.conf
const std::string kDevice = std::string("serial=") + kDeviceSerial + "&token=" + kDeviceToken;
const std::string kForm = kDevice + kFields + "ger" + kTimeZone;  // for kSettings
const std::string kCallersForm = std::string("serial=X1&token=") + kTokenX1 + kFields + "ger&serial=X1" + kTimeZone;

struct FormCase {
  const char* name;
  const char* serial;
  const char* deviceSettings;  // /etc/talvinfo.conf
  Reply reply;
  bool withResult;
  std::string outcome;  // the caller's record afterwards
  std::string form = kForm;
};

// The service's answer as HttpsRequestSend reads it, trimmed, empty or
// refused, also ends up in the caller's record.
const FormCase kForms[] = {
    {"DevicesOwnSerial", nullptr, kSettings, {200, " good\n"}, true, "200 good"},
    {"CallersSerial", "X1", kSettings, {200, "account_inused"}, true, "200 account_inused", kCallersForm},
    {"LanguageUnreadable",
     nullptr,
     "timezone=Amsterdam\n",
     {200, "good"},
     true,
     "200 good",
     kDevice + kFields + "enu" + kTimeZone},
    {"EmptyAnswer", nullptr, kSettings, {200, ""}, true, "200 (no body)"},
    {"RefusedAnswer", nullptr, kSettings, {503, "busy"}, true, "503 badsys"},
    {"NoResultRecord", nullptr, kSettings, {200, "good"}, false, "0 (no body)"},
};

TEST_F(TrustedServiceTest, RegisterPostsTheFormAndCopiesTheAnswer) {
  const std::string host = server().Address();
  size_t sent = 0;
  for (const FormCase& c : kForms) {
    SCOPED_TRACE(c.name);
    sysroot().Write("/etc/talvinfo.conf", c.deviceSettings);
    server().Script(c.reply);
    AccountRegisterInfo info = Info(host.c_str(), c.serial);
    HttpsResponse result{0, nullptr};
    EXPECT_EQ(PellixAccountRegister(&info, c.withResult ? &result : nullptr), 0);
    std::vector<Received> received = server().Requests();
    ASSERT_EQ(received.size(), ++sent);
    EXPECT_EQ(received.back().method, "POST");
    EXPECT_EQ(received.back().path, "/account.php");
    EXPECT_EQ(received.back().Header("Host"), std::vector<std::string>{host});
    EXPECT_EQ(received.back().body, c.form);
    EXPECT_EQ(std::to_string(result.httpStatus) + " " + (result.body ? result.body : "(no body)"), c.outcome);
    EXPECT_EQ(Logged(), std::vector<Line>{});
    HttpsResponseFree(&result);
  }
}

TEST_F(LocalServiceTest, UnreachableServiceIsAnAnswer) {
  SilentPort closed(false);
  const std::string host = closed.Address();
  AccountRegisterInfo info = Info(host.c_str());
  HttpsResponse result{0, nullptr};
  EXPECT_EQ(PellixAccountRegister(&info, &result), 0);
  EXPECT_EQ(result.httpStatus, 0);
  EXPECT_STREQ(result.body, "badnetwork");
  EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_NETWORK);
  EXPECT_STREQ(TLIBCErrorGetFile(), "https_request.cpp");
  EXPECT_EQ(Logged(), std::vector<Line>{}) << "only a verbose request logs a failed transfer";
  HttpsResponseFree(&result);
}

TEST_F(LocalServiceTest, MissingRegistrationDataIsRefusedSilently) {
  const AccountRegisterInfo full = Info("127.0.0.1");
  AccountRegisterInfo noEmail = full, noPasswd = full, noFullName = full;
  noEmail.email = nullptr;
  noPasswd.passwd = nullptr;
  noFullName.fullName = nullptr;
  const AccountRegisterInfo* infos[] = {nullptr, &noEmail, &noPasswd, &noFullName};
  for (const AccountRegisterInfo* info : infos) {
    TLIBCErrSetEx(TLIBC_ERR_NONE, "", 0);
    HttpsResponse result{7, nullptr};
    EXPECT_EQ(PellixAccountRegister(info, &result), -1);
    EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_BAD_PARAMETERS);
    EXPECT_STREQ(TLIBCErrorGetFile(), "account_register.cpp");
    EXPECT_EQ(result.httpStatus, 7);
    EXPECT_EQ(result.body, nullptr);
  }
  EXPECT_EQ(Logged(), std::vector<Line>{});
  EXPECT_TRUE(talvseam::Journal().empty()) << "no platform call";
}

// The lines logged, given the host and the error state.
using Lines = std::function<std::vector<Line>(const std::string&, const ErrorState&)>;

struct FailureCase {
  const char* name;
  std::function<void(Sysroot&)> arrange;
  bool defaultHost;
  int code;  // the error state afterwards
  Lines logged;
};

// The one line of `format` in PellixAccountRegister, ending in the error state.
Lines Only(const char* format) {
  return [format](const std::string&, const ErrorState& s) {
    return std::vector<Line>{LogLine("PellixAccountRegister", format, s.code, s.file.c_str(), s.line)};
  };
}
// The time-zone line, with the size the zone's name needed.
Lines NoZone(int needed) {
  return [needed](const std::string&, const ErrorState& s) {
    return std::vector<Line>{LogLine("PellixAccountRegister",
                                     "failed to get time zone, size need: %d, err=[0x%04X %s:%d]", needed, s.code,
                                     s.file.c_str(), s.line)};
  };
}

const char kSendFailed[] = "failed to send https request to [%s], err=[0x%04X %s:%d]";

const FailureCase kFailures[] = {
    {"FormHashUnavailable", [](Sysroot&) { FailOnce("TLIBCSzHashAlloc"); }, false, TLIBC_ERR_OUT_OF_MEMORY,
     Only("failed to alloc https request, err=[0x%04X %s:%d]")},
    {"TimeZoneUnavailable", [](Sysroot&) { FailOnce("TALVZoneGet"); }, false, TLIBC_ERR_NOT_FOUND, NoZone(-1)},
    {"TimeZoneNameTooLong",
     [](Sysroot&) {
       static ZoneDevice device(std::string(300, 'z'), {});
       talvsdk::SetDevice(&device);
     },
     false, TLIBC_ERR_BAD_PARAMETERS, NoZone(301)},
    {"ZoneHashUnavailable", [](Sysroot&) { FailOnce("TLIBCSzHashAlloc", 1); }, false, TLIBC_ERR_OUT_OF_MEMORY,
     Only("Failed to alloc pTZInfo, err=[0x%04X %s:%d]")},
    {"ZoneUnknown", [](Sysroot& root) { root.Write("/etc/talvinfo.conf", "timezone=Atlantis\n"); }, false,
     TLIBC_ERR_NOT_FOUND, Only("failed to get timezone info[0x%04X %s:%d]")},
    {"ZoneWithoutTzdbName",
     [](Sysroot&) {
       static ZoneDevice device("Amsterdam", {{"name", "Amsterdam"}});
       talvsdk::SetDevice(&device);
     },
     false, TLIBC_ERR_NONE, Only("failed to get tmz[0x%04X %s:%d]")},
    {"SendFails", [](Sysroot&) { FailOnce("TLIBCSzListAlloc"); }, false, TLIBC_ERR_OUT_OF_MEMORY,
     [](const std::string& host, const ErrorState& s) {
       return std::vector<Line>{
           LogLine("HttpsRequestSend", "out of memory, ERR=[0x%04X %s:%d]", s.code, s.file.c_str(), s.line),
           LogLine("PellixAccountRegister", kSendFailed, host.c_str(), s.code, s.file.c_str(), s.line)};
     }},
    // Without a host the form goes to the service's own; the line names
    // it, and the device's missing build number keeps it from leaving.
    {"DefaultHost", [](Sysroot& root) { root.Write("/etc.defaults/VERSION", "majorversion=5\n"); }, true,
     TLIBC_ERR_NONE,
     [](const std::string&, const ErrorState& s) {
       return std::vector<Line>{
           LogLine("PellixAccountRegister", kSendFailed, "account.pellix.example", s.code, s.file.c_str(), s.line)};
     }},
};

TEST_F(TrustedServiceTest, RegisterFailsWithItsLineAndSendsNothing) {
  const std::string host = server().Address();
  for (const FailureCase& c : kFailures) {
    SCOPED_TRACE(c.name);
    ResetDevice();
    c.arrange(sysroot());
    AccountRegisterInfo info = Info(c.defaultHost ? nullptr : host.c_str());
    HttpsResponse result{7, nullptr};
    EXPECT_EQ(PellixAccountRegister(&info, &result), -1);
    const ErrorState state;
    EXPECT_EQ(state.code, c.code);
    EXPECT_EQ(result.httpStatus, 7);
    EXPECT_EQ(result.body, nullptr);
    EXPECT_TRUE(server().Requests().empty());
    EXPECT_EQ(Logged(), c.logged(host, state));
  }
}

}  // namespace
}  // namespace pellixtest
