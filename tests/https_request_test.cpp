// HttpsRequestSend and PellixAccountRegister against a local HTTPS service:
// what arrives on the wire, byte for byte, for each scripted reply.
#include <curl/curl.h>

#include <cstring>
#include <functional>

#include "support/curl_faults.h"
#include "support/local_service.h"
#include "trust.h"

namespace pellixtest {
namespace {

using syslogcapture::Line;

const std::string kIdentity = std::string("serial=") + kDeviceSerial + "&token=" + kDeviceToken;
constexpr long kUntouched = 7;  // a status the caller set and only a completed transfer may change

const Fields kRegister = {{"action", "register"}};

std::string Status(const HttpsResponse& r) {
  return std::to_string(r.httpStatus) + " " + (r.body ? std::string("\"") + r.body + "\"" : "(no body)");
}

// What the client must have sent for a form body of `form`.
void ExpectPosted(const Received& r, const std::string& host, const std::string& form) {
  EXPECT_EQ(r.method, "POST");
  EXPECT_EQ(r.path, "/account.php");
  EXPECT_EQ(r.Header("Host"), std::vector<std::string>{host});
  EXPECT_EQ(r.Header("User-Agent"), std::vector<std::string>{kUserAgent});
  EXPECT_EQ(r.Header("Content-Type"), std::vector<std::string>{"application/x-www-form-urlencoded"});
  EXPECT_EQ(r.body, form);
}

class HttpsTest : public LocalServiceTest {
 protected:
  int Send(const std::string& host, TLIBC_SZHASH* params, HttpsResponse* response, int verbose = 0,
           const char* username = nullptr, const char* passwd = nullptr) {
    HttpsRequest request{host.c_str(), "account.php", params, verbose, username, passwd};
    return HttpsRequestSend(&request, response);
  }
};

class TrustedHttpsTest : public TrustedServiceTest {
 protected:
  int Send(TLIBC_SZHASH* params, HttpsResponse* response, const char* username = nullptr,
           const char* passwd = nullptr) {
    const std::string host = server().Address();
    HttpsRequest request{host.c_str(), "account.php", params, 0, username, passwd};
    return HttpsRequestSend(&request, response);
  }
};

// --- The request on the wire and the answer in the record ---

struct SendCase {
  const char* name;
  Fields fields;
  const char* username;
  const char* passwd;
  Reply reply;
  std::string form;  // the exact body that must arrive
  long status;
  const char* body;  // nullptr: none
};

const SendCase kSends[] = {
    {"OnlyTheCallersField", kRegister, nullptr, nullptr, {200, "good"}, kIdentity + "&action=register", 200, "good"},
    {"ValuesAreEncodedKeysAreNot",
     {{"note", "a b&c"}, {"x y", "\xC3\xA9~/"}},
     nullptr,
     nullptr,
     {200, "good"},
     kIdentity + "&note=a%20b%26c&x y=%C3%A9~%2F",
     200,
     "good"},
    {"CredentialsBeforeTheFields",
     {{"action", "login"}},
     "ada@example.com",
     "p w",
     {200, "good"},
     kIdentity + "&username=ada%40example.com&passwd=p%20w&action=login",
     200,
     "good"},
    {"CallersSerialTwiceWithItsToken",
     {{"serial", "X1"}, {"action", "register"}},
     nullptr,
     nullptr,
     {200, "good"},
     std::string("serial=X1&token=") + kTokenX1 + "&serial=X1&action=register",
     200,
     "good"},
    {"AnswerIsTrimmed",
     kRegister,
     nullptr,
     nullptr,
     {200, " \t good:1 \r\n"},
     kIdentity + "&action=register",
     200,
     "good:1"},
    {"EmptyAnswerLeavesNoBody", kRegister, nullptr, nullptr, {200, ""}, kIdentity + "&action=register", 200, nullptr},
    {"NotFoundIsBadsys", kRegister, nullptr, nullptr, {404, "good"}, kIdentity + "&action=register", 404, "badsys"},
    {"ServerErrorIsBadsys", kRegister, nullptr, nullptr, {500, ""}, kIdentity + "&action=register", 500, "badsys"},
};

TEST_F(TrustedHttpsTest, PostsTheFormAndReadsTheAnswer) {
  size_t sent = 0;
  for (const SendCase& c : kSends) {
    SCOPED_TRACE(c.name);
    server().Script(c.reply);
    FieldHash fields(c.fields);
    HttpsResponse response{0, nullptr};
    ASSERT_EQ(Send(fields.get(), &response, c.username, c.passwd), 0);
    std::vector<Received> received = server().Requests();
    ASSERT_EQ(received.size(), ++sent);
    ExpectPosted(received.back(), server().Address(), c.form);
    EXPECT_EQ(response.httpStatus, c.status);
    EXPECT_STREQ(response.body, c.body);
    EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_NONE);
    EXPECT_EQ(Logged(), std::vector<Line>{});
    HttpsResponseFree(&response);
  }
}

// --- Requests that never leave the device ---

// The form holds 2048 bytes with its NUL: a field that fills it exactly is
// sent, one byte more and nothing is.
TEST_F(TrustedHttpsTest, FormLimitIsExact) {
  const std::string before = kIdentity + "&action=register";
  for (int over : {0, 1}) {
    SCOPED_TRACE(over);
    // used + key + encoded + 3 == 2048 + over; the blank counts encoded, as "%20".
    const size_t encoded = 2048 + over - 3 - std::strlen("pad") - before.size();
    const std::string value = std::string(encoded - 3, 'x') + " ";
    FieldHash fields(Fields{{"action", "register"}, {"pad", value}});
    HttpsResponse response{kUntouched, nullptr};
    const int result = Send(fields.get(), &response);
    std::vector<Received> received = server().Requests();
    if (over == 0) {
      EXPECT_EQ(result, 0);
      ASSERT_EQ(received.size(), 1u);
      EXPECT_EQ(received[0].body, before + "&pad=" + value.substr(0, value.size() - 1) + "%20");
      EXPECT_EQ(received[0].body.size(), 2047u);
      EXPECT_EQ(Logged(), std::vector<Line>{});
      HttpsResponseFree(&response);
    } else {
      EXPECT_EQ(result, -1);
      EXPECT_EQ(received.size(), 1u) << "nothing more sent";
      EXPECT_EQ(Status(response), "7 (no body)");
      EXPECT_EQ(Logged(), std::vector<Line>{LogLine("AppendFormField",
                                                    "buffer size not enough: total: %zd, used: %zd, newly add; %zd",
                                                    ssize_t{2048}, ssize_t(before.size()), ssize_t(encoded + 5))});
    }
  }
}

struct RefusedCase {
  const char* name;
  std::function<void(Sysroot&)> arrange;
  Fields fields;
  bool noHash;
  int code;            // the error state afterwards
  const char* format;  // logged by HttpsRequestSend with the error state; nullptr: nothing
};

const RefusedCase kRefusals[] = {
    {"DeviceTokenUnavailable", [](Sysroot&) { FailOnce("TALVCloudServiceQbtokenGetToken"); }, kRegister, false,
     TLIBC_ERR_BAD_PARAMETERS, "Fail to get serial token of this QB, err=[0x%04X %s:%d]"},
    {"TokenOfGivenSerialUnavailable",
     [](Sysroot&) { FailOnce("TALVCloudServiceQbtokenGenerateToken"); },
     {{"serial", "X1"}},
     false,
     TLIBC_ERR_BAD_PARAMETERS,
     "TALVCloudServiceQbtokenGenerateToken Failed, err=[0x%04X %s:%d]"},
    {"KeyListUnavailable", [](Sysroot&) { FailOnce("TLIBCSzListAlloc"); }, kRegister, false, TLIBC_ERR_OUT_OF_MEMORY,
     "out of memory, ERR=[0x%04X %s:%d]"},
    {"NoFields", nullptr, {}, false, TLIBC_ERR_NONE, "no key in the hash, ERR=[0x%04X %s:%d]"},
    {"NoHash", nullptr, {}, true, TLIBC_ERR_BAD_PARAMETERS, "no key in the hash, ERR=[0x%04X %s:%d]"},
    {"NoBuildNumber", [](Sysroot& s) { s.Write("/etc.defaults/VERSION", "majorversion=\"5\"\n"); }, kRegister, false,
     TLIBC_ERR_NONE, nullptr},
    {"NoModelName", [](Sysroot& s) { s.Write("/etc.defaults/talvinfo.conf", "serial=Q21CA00042\n"); }, kRegister, false,
     TLIBC_ERR_NONE, nullptr},
};

TEST_F(TrustedHttpsTest, FailsBeforeAnythingIsSent) {
  for (const RefusedCase& c : kRefusals) {
    SCOPED_TRACE(c.name);
    ResetDevice();
    FieldHash fields(c.fields);
    if (c.arrange) c.arrange(sysroot());
    HttpsResponse response{kUntouched, nullptr};
    EXPECT_EQ(Send(c.noHash ? nullptr : fields.get(), &response), -1);
    const ErrorState state;
    EXPECT_EQ(state.code, c.code);
    EXPECT_EQ(Status(response), "7 (no body)");
    EXPECT_TRUE(server().Requests().empty());
    std::vector<Line> expected;
    if (c.format) expected.push_back(LogLine("HttpsRequestSend", c.format, state.code, state.file.c_str(), state.line));
    EXPECT_EQ(Logged(), expected);
  }
}

// --- libcurl refusing what the module asks of it ---

struct CurlCase {
  const char* name;
  const char* function;
  int option;  // of curl_easy_setopt
  bool sent;   // the transfer goes ahead without it
  // The lines logged, given the service's host.
  std::function<std::vector<Line>(const std::string&)> logged;
};

constexpr int kRefused = CURLE_BAD_FUNCTION_ARGUMENT;  // what the failing call returns
const char kHeaderFailed[] = "failed to set req=%s, header=%s, return value=%d";

// The line of `format` in HttpsRequestSend, formatted from the rest.
template <typename... Args>
std::function<std::vector<Line>(const std::string&)> Sends(const char* format, Args... args) {
  return [=](const std::string&) { return std::vector<Line>{LogLine("HttpsRequestSend", format, args...)}; };
}

std::vector<Line> Nothing(const std::string&) { return {}; }

const CurlCase kCurlFailures[] = {
    {"EscapeFails", "curl_easy_escape", -1, false,
     [](const std::string&) {
       return std::vector<Line>{LogLine("AppendFormField", "URL encoding failed: %s", kDeviceSerial)};
     }},
    {"NoHandle", "curl_easy_init", -1, false, Sends("failed to init pCurl")},
    {"Post", "curl_easy_setopt", CURLOPT_POST, false, Sends("failed to set request method to be POST")},
    {"PostFields", "curl_easy_setopt", CURLOPT_POSTFIELDS, false, Sends("failed to set post field to be POST")},
    {"Url", "curl_easy_setopt", CURLOPT_URL, false,
     [](const std::string& host) {
       const std::string url = "https://" + host + "/account.php";
       return std::vector<Line>{
           LogLine("HttpsRequestSend", "failed to set req=%s return value=%d", url.c_str(), kRefused)};
     }},
    {"UserAgent", "curl_easy_setopt", CURLOPT_USERAGENT, false,
     Sends("failed to set agent=%s, return value=%d", kUserAgent, kRefused)},
    {"HeaderList", "curl_slist_append", -1, false,
     [](const std::string& host) {
       return std::vector<Line>{LogLine("HttpsRequestSend", kHeaderFailed, host.c_str(), ("Host: " + host).c_str(),
                                        int{CURLE_OUT_OF_MEMORY})};
     }},
    {"Header", "curl_easy_setopt", CURLOPT_HTTPHEADER, false,
     [](const std::string& host) {
       return std::vector<Line>{
           LogLine("HttpsRequestSend", kHeaderFailed, host.c_str(), ("Host: " + host).c_str(), kRefused)};
     }},
    {"SslContext", "curl_easy_setopt", CURLOPT_SSL_CTX_FUNCTION, false,
     Sends("can not set CURLOPT_SSL_CTX_FUNCTION (%d)", kRefused)},
    {"VerifyPeer", "curl_easy_setopt", CURLOPT_SSL_VERIFYPEER, true, Nothing},
    {"VerifyHost", "curl_easy_setopt", CURLOPT_SSL_VERIFYHOST, true, Nothing},
    {"ConnectTimeOut", "curl_easy_setopt", CURLOPT_CONNECTTIMEOUT, true,
     [](const std::string&) {
       return std::vector<Line>{LogLine("SetTimeOut", "failed to set time-out, return value=%d", kRefused)};
     }},
    {"TimeOut", "curl_easy_setopt", CURLOPT_TIMEOUT, false,
     [](const std::string&) {
       return std::vector<Line>{LogLine("SetTimeOut", "failed to set time-out, return value=%d", kRefused)};
     }},
    {"WriteFunction", "curl_easy_setopt", CURLOPT_WRITEFUNCTION, false,
     Sends("failed to write function WriteMemoryCallback, return value=%d", kRefused)},
    {"WriteData", "curl_easy_setopt", CURLOPT_WRITEDATA, false,
     Sends("failed to write data, return value=%d", kRefused)},
};

// Every libcurl call the module checks fails once in turn: the ones it can
// do without are logged or ignored and the form goes out, the others end
// the call with their line, nothing sent and everything released.
TEST_F(TrustedHttpsTest, LibcurlFailuresEndTheCallOrAreBorne) {
  const std::string host = server().Address();
  size_t sent = 0;
  for (const CurlCase& c : kCurlFailures) {
    SCOPED_TRACE(c.name);
    ResetDevice();
    FieldHash fields(kRegister);
    HttpsResponse response{kUntouched, nullptr};
    FailCurlOnce(c.function, c.option);
    EXPECT_EQ(Send(fields.get(), &response), c.sent ? 0 : -1);
    EXPECT_FALSE(CurlFaultPending()) << "the module never made that call";
    if (c.sent) ++sent;
    EXPECT_EQ(server().Requests().size(), sent);
    EXPECT_EQ(Status(response), c.sent ? "200 \"good\"" : "7 (no body)");
    EXPECT_EQ(Logged(), c.logged(host));
    HttpsResponseFree(&response);
  }
  ClearCurlFaults();
}

TEST_F(HttpsTest, NullArgumentsAreRefusedSilently) {
  FieldHash fields(kRegister);
  HttpsRequest request{"127.0.0.1", "account.php", fields.get(), 0, nullptr, nullptr};
  HttpsResponse response{kUntouched, nullptr};
  EXPECT_EQ(HttpsRequestSend(nullptr, &response), -1);
  EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_BAD_PARAMETERS);
  EXPECT_STREQ(TLIBCErrorGetFile(), "https_request.cpp");
  TLIBCErrSetEx(TLIBC_ERR_NONE, "", 0);
  EXPECT_EQ(HttpsRequestSend(&request, nullptr), -1);
  EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_BAD_PARAMETERS);
  EXPECT_EQ(HttpsRequestSend(nullptr, nullptr), -1);
  EXPECT_EQ(Status(response), "7 (no body)");
  EXPECT_EQ(Logged(), std::vector<Line>{});
  EXPECT_TRUE(server().Requests().empty());
}

TEST_F(HttpsTest, ResponseFreeIsSafeOnNullEmptyAndTwice) {
  HttpsResponseFree(nullptr);
  HttpsResponse empty{404, nullptr};
  HttpsResponseFree(&empty);
  EXPECT_EQ(Status(empty), "0 (no body)");
  HttpsResponse full{200, strdup("good")};
  HttpsResponseFree(&full);
  EXPECT_EQ(Status(full), "0 (no body)");
  HttpsResponseFree(&full);
  EXPECT_EQ(Status(full), "0 (no body)");
}

// --- Transfers that fail ---

TEST_F(HttpsTest, ClosedPortIsBadnetwork) {
  SilentPort closed(false);
  FieldHash fields(kRegister);
  HttpsResponse response{kUntouched, nullptr};
  EXPECT_EQ(Send(closed.Address(), fields.get(), &response), 0);
  EXPECT_EQ(Status(response), "7 \"badnetwork\"");
  EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_NETWORK);
  EXPECT_STREQ(TLIBCErrorGetFile(), "https_request.cpp");
  EXPECT_EQ(Logged(), std::vector<Line>{}) << "only a verbose request logs a failed transfer";
  HttpsResponseFree(&response);
}

// The device trusts what its CA bundle vouches for, whatever the verify
// callback says: a self-signed server outside the bundle never gets the form.
TEST_F(HttpsTest, ServerOutsideTheTrustStoreIsRefused) {
  HttpsServer stranger(TestIdentities().stranger);
  FieldHash fields(kRegister);
  HttpsResponse response{0, nullptr};
  EXPECT_EQ(Send(stranger.Address(), fields.get(), &response, 1), 0);
  EXPECT_EQ(Status(response), "0 \"badnetwork\"");
  EXPECT_TRUE(stranger.Requests().empty());
  EXPECT_EQ(Logged(), std::vector<Line>{LogLine("HttpsRequestSend", "curl_easy_perform. res: %d", 60)});
  HttpsResponseFree(&response);
}

// In the bundle, a certificate still has to name the host it serves.
TEST_F(TrustedServiceTest, BundleVouchesForAServerOnlyUnderItsOwnName) {
  EXPECT_EQ(webapihost::SystemBundle(), "/etc/ssl/certs/ca-certificates.crt");
  HttpsServer misnamed(TestIdentities().misnamed);
  FieldHash fields(kRegister);
  const struct {
    HttpsServer* server;
    const char* outcome;
    size_t received;
  } cases[] = {{&server(), "200 \"good\"", 1}, {&misnamed, "0 \"badnetwork\"", 0}};
  for (const auto& c : cases) {
    const std::string host = c.server->Address();
    HttpsRequest request{host.c_str(), "account.php", fields.get(), 1, nullptr, nullptr};
    HttpsResponse response{0, nullptr};
    EXPECT_EQ(HttpsRequestSend(&request, &response), 0);
    EXPECT_EQ(Status(response), c.outcome);
    EXPECT_EQ(c.server->Requests().size(), c.received);
    HttpsResponseFree(&response);
  }
  EXPECT_EQ(Logged(), std::vector<Line>{LogLine("HttpsRequestSend", "curl_easy_perform. res: %d", 60)});
}

}  // namespace
}  // namespace pellixtest
