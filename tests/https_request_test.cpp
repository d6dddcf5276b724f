// HttpsRequestSend and PellixAccountRegister against a local HTTPS service:
// what arrives on the wire, byte for byte, for each scripted reply.
#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>

#include "seam/seam.h"
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

class HttpsTest : public LocalServiceTest {};

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

// The service's answer itself, trimmed or empty, is PellixAccountRegister's
// to check (account_register_test); so is the caller's serial.
TEST_F(TrustedHttpsTest, PostsTheFormAndReadsTheAnswer) {
  auto expect = [this](const char* name, const Fields& given, const char* username, const char* passwd, Reply reply,
                       const std::string& form, const char* body) {
    SCOPED_TRACE(name);
    server().Script(reply);
    FieldHash fields(given);
    HttpsResponse response{0, nullptr};
    const size_t sent = server().Requests().size();
    ASSERT_EQ(Send(fields.get(), &response, username, passwd), 0);
    std::vector<Received> received = server().Requests();
    ASSERT_EQ(received.size(), sent + 1);
    const Received& r = received.back();
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.path, "/account.php");
    EXPECT_EQ(r.Header("Host"), std::vector<std::string>{server().Address()});
    EXPECT_EQ(r.Header("User-Agent"), std::vector<std::string>{kUserAgent});
    EXPECT_EQ(r.Header("Content-Type"), std::vector<std::string>{"application/x-www-form-urlencoded"});
    EXPECT_EQ(r.body, form);
    EXPECT_EQ(response.httpStatus, reply.status);
    EXPECT_STREQ(response.body, body);
    EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_NONE);
    EXPECT_EQ(Logged(), std::vector<Line>{});
    HttpsResponseFree(&response);
  };
  expect("ValuesAreEncodedKeysAreNot", {{"note", "a b&c"}, {"x y", "\xC3\xA9~/"}}, nullptr, nullptr, {200, "good"},
         kIdentity + "&note=a%20b%26c&x y=%C3%A9~%2F", "good");
  expect("CredentialsBeforeTheFields", {{"action", "login"}}, "ada@example.com", "p w", {200, "good"},
         kIdentity + "&username=ada%40example.com&passwd=p%20w&action=login", "good");
  // Any status but 200 is "badsys", whether or not something came with it.
  expect("ServerErrorIsBadsys", kRegister, nullptr, nullptr, {500, ""}, kIdentity + "&action=register", "badsys");
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
    {"NoFields", nullptr, {}, false, TLIBC_ERR_NONE, "no key in the hash, ERR=[0x%04X %s:%d]"},
    {"NoHash", nullptr, {}, true, TLIBC_ERR_BAD_PARAMETERS, "no key in the hash, ERR=[0x%04X %s:%d]"},
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

// Every libcurl call the module cannot do without fails once in turn: the
// call ends with its line, nothing sent and everything released. (Which calls
// it bears, and the URL-encoding line, are https_torture_test's.)
TEST_F(TrustedHttpsTest, LibcurlFailuresEndTheCall) {
  constexpr int kRefused = CURLE_BAD_FUNCTION_ARGUMENT;  // what the failing call returns
  const char kHeaderFailed[] = "failed to set req=%s, header=%s, return value=%d";
  const std::string host = server().Address();
  const std::string url = "https://" + host + "/account.php";
  const std::string header = "Host: " + host;
  auto sends = [](const char* format, auto... args) { return LogLine("HttpsRequestSend", format, args...); };
  const struct {
    const char* function;
    int option;  // of curl_easy_setopt
    Line logged;
  } cases[] = {
      {"curl_easy_init", -1, sends("failed to init pCurl")},
      {"curl_easy_setopt", CURLOPT_POST, sends("failed to set request method to be POST")},
      {"curl_easy_setopt", CURLOPT_POSTFIELDS, sends("failed to set post field to be POST")},
      {"curl_easy_setopt", CURLOPT_URL, sends("failed to set req=%s return value=%d", url.c_str(), kRefused)},
      {"curl_easy_setopt", CURLOPT_USERAGENT, sends("failed to set agent=%s, return value=%d", kUserAgent, kRefused)},
      {"curl_slist_append", -1, sends(kHeaderFailed, host.c_str(), header.c_str(), int{CURLE_OUT_OF_MEMORY})},
      {"curl_easy_setopt", CURLOPT_HTTPHEADER, sends(kHeaderFailed, host.c_str(), header.c_str(), kRefused)},
      {"curl_easy_setopt", CURLOPT_SSL_CTX_FUNCTION, sends("can not set CURLOPT_SSL_CTX_FUNCTION (%d)", kRefused)},
      {"curl_easy_setopt", CURLOPT_TIMEOUT, LogLine("SetTimeOut", "failed to set time-out, return value=%d", kRefused)},
      {"curl_easy_setopt", CURLOPT_WRITEFUNCTION,
       sends("failed to write function WriteMemoryCallback, return value=%d", kRefused)},
      {"curl_easy_setopt", CURLOPT_WRITEDATA, sends("failed to write data, return value=%d", kRefused)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.function) + " " + std::to_string(c.option));
    ResetDevice();
    FieldHash fields(kRegister);
    HttpsResponse response{kUntouched, nullptr};
    talvseam::ClearJournal();
    talvseam::InjectFault(CurlOp(c.function, c.option), 0, false, 0);
    EXPECT_EQ(Send(fields.get(), &response), -1);
    const std::vector<talvseam::Call> calls = talvseam::Journal();
    EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [](const talvseam::Call& call) { return call.failed; }))
        << "the module never made that call";
    EXPECT_TRUE(server().Requests().empty());
    EXPECT_EQ(Status(response), "7 (no body)");
    EXPECT_EQ(Logged(), std::vector<Line>{c.logged});
  }
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

TEST_F(HttpsTest, ResponseFreeIsSafeOnNullAndTwice) {
  HttpsResponseFree(nullptr);
  HttpsResponse full{200, strdup("good")};
  HttpsResponseFree(&full);
  EXPECT_EQ(Status(full), "0 (no body)");
  HttpsResponseFree(&full);
  EXPECT_EQ(Status(full), "0 (no body)");
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
TEST_F(TrustedHttpsTest, TrustChangesNothingOutsideTheProcess) {
  const std::string bundle = webapihost::SystemBundle();
  const std::string child = "cat " + bundle;
  const std::string machine = Drain(popen(child.c_str(), "r"), pclose);
  ASSERT_FALSE(machine.empty()) << bundle;
  const Identities& ids = TestIdentities();
  const std::string pems = ids.trusted.Pem() + ids.misnamed.Pem() + ids.expired.Pem();
  std::string why;
  ASSERT_TRUE(webapihost::TrustAuthorities(pems, &why)) << why;

  EXPECT_TRUE(Drain(std::fopen(bundle.c_str(), "r"), std::fclose) == machine + "\n" + pems);
  EXPECT_TRUE(Drain(popen(child.c_str(), "r"), pclose) == machine);
  FieldHash fields(kRegister);
  HttpsResponse response{0, nullptr};
  EXPECT_EQ(Send(fields.get(), &response), 0);
  EXPECT_EQ(Status(response), "200 \"good\"");
  HttpsResponseFree(&response);
}

}  // namespace
}  // namespace pellixtest
