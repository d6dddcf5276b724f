// The HTTPS client against an account.php that misbehaves
// (pellixsim::Conduct). Whatever it does, the call returns 0 with
// "badnetwork", the caller's status untouched and everything released; the
// form reaches only a server whose certificate the device trusts, under the
// name it was asked for, while it is valid. The server's side of each
// connection tells where the refusal happened: after the handshake, as the
// module is built by default, or in it, under PELLIX_TLS_STRICT_HANDSHAKE.
#include <dlfcn.h>

#include <chrono>
#include <cstring>

#include "support/local_service.h"

namespace pellixtest {

// pellixcenter.so's own build (0 or 1).
#ifndef MODULE_TLS_STRICT
#error "MODULE_TLS_STRICT must say how pellixcenter.so was built"
#endif

namespace {

using pellixsim::Conduct;
using pellixsim::TlsConnection;
using syslogcapture::Line;
using SendFunction = int (*)(const HttpsRequest*, HttpsResponse*);

const std::string kForm = std::string("serial=") + kDeviceSerial + "&token=" + kDeviceToken + "&action=register";
constexpr long kUntouched = 7;

Line TransferFailed(int curlResult) { return LogLine("HttpsRequestSend", "curl_easy_perform. res: %d", curlResult); }

class HostileTest : public TrustedServiceTest {
 protected:
  // One verbose request to `server`, which must be turned away as
  // "badnetwork" with libcurl's `curlResult`; gives the server's record of it.
  TlsConnection ExpectTurnedAway(SendFunction send, LocalService& server, int curlResult) {
    const std::string host = server.Address();
    FieldHash fields(Fields{{"action", "register"}});
    const HttpsRequest request{host.c_str(), "account.php", fields.get(), 1, nullptr, nullptr};
    HttpsResponse response{kUntouched, nullptr};
    EXPECT_EQ(send(&request, &response), 0);
    EXPECT_EQ(response.httpStatus, kUntouched);
    EXPECT_STREQ(response.body, "badnetwork");
    EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_NETWORK);
    EXPECT_EQ(Logged(), std::vector<Line>{TransferFailed(curlResult)});
    HttpsResponseFree(&response);
    std::vector<TlsConnection> connections = server.php().TakeConnections();
    EXPECT_EQ(connections.size(), 1u) << "one connection, no retry";
    return connections.empty() ? TlsConnection() : connections[0];
  }
  // A service whose authority the device does not know.
  LocalService stranger_{false};
};

struct HostileCase {
  const char* name;
  Conduct conduct;
  bool trusted;  // the service's authority is the device's
  int curlResult;
  // Whether the TLS handshake completes, as the module is built by default
  // and under PELLIX_TLS_STRICT_HANDSHAKE, the client's alert that ends it
  // under the option, and whether the form gets out.
  bool handshake;
  bool strictHandshake;
  const char* strictAlert;
  bool formSent;
};

const HostileCase kCases[] = {
    {"NotTls", {Conduct::kNotTls}, true, 35, false, false, "", false},
    {"ClosesInTheMiddleOfTheAnswer", {Conduct::kClose}, true, 18, true, true, "", true},
    // OpenSSL's verdict on the chain: the module's callback overrules it
    // for the handshake, libcurl reads it afterwards.
    {"UntrustedCertificate", {}, false, 60, true, false, "tlsv1 alert unknown ca", false},
    {"ExpiredCertificate", {Conduct::kExpired}, true, 60, true, false, "sslv3 alert certificate expired", false},
    // Trusted and valid, for another name: libcurl's own check of the name
    // comes after the handshake whatever the callback returns.
    {"MisnamedCertificate", {Conduct::kWrongName}, true, 60, true, true, "", false},
};

void ExpectCase(const HostileCase& c, const TlsConnection& seen, bool strict) {
  EXPECT_EQ(seen.handshake, strict ? c.strictHandshake : c.handshake) << seen.failure;
  EXPECT_EQ(seen.failure, strict ? c.strictAlert : "");
  EXPECT_EQ(seen.request.body, c.formSent ? kForm : "");
}

TEST_F(HostileTest, MisbehavingServersAreBadnetwork) {
  for (const HostileCase& c : kCases) {
    SCOPED_TRACE(c.name);
    LocalService& hostile = c.trusted ? service() : stranger_;
    hostile.Treat(c.conduct);
    ExpectCase(c, ExpectTurnedAway(HttpsRequestSend, hostile, c.curlResult), MODULE_TLS_STRICT);
  }
}

// The same servers against the HTTPS client built with the option, loaded
// beside the module: libcurl's result is the same, but a chain OpenSSL does
// not verify now ends the handshake, so the server never sees it complete.
TEST_F(HostileTest, StrictBuildFailsTheHandshakeItself) {
  void* strict = dlopen(HTTPS_STRICT_SO, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(strict, nullptr) << dlerror();
  const auto send = reinterpret_cast<SendFunction>(dlsym(strict, "HttpsRequestSend"));
  ASSERT_NE(send, nullptr);
  for (const HostileCase& c : kCases) {
    SCOPED_TRACE(c.name);
    LocalService& hostile = c.trusted ? service() : stranger_;
    hostile.Treat(c.conduct);
    ExpectCase(c, ExpectTurnedAway(send, hostile, c.curlResult), true);
  }
  dlclose(strict);
}

// Nothing bounds the answer but the 30-second time-out: the client holds it
// whole, far beyond one read of libcurl's.
TEST_F(HostileTest, VeryLargeAnswerIsHeldWhole) {
  constexpr size_t kSize = size_t{1} << 20;
  service().Treat(Says(std::string(kSize, 'x')));
  const std::string host = service().Address();
  FieldHash fields(Fields{{"action", "register"}});
  const HttpsRequest request{host.c_str(), "account.php", fields.get(), 0, nullptr, nullptr};
  HttpsResponse response{0, nullptr};
  EXPECT_EQ(HttpsRequestSend(&request, &response), 0);
  EXPECT_EQ(response.httpStatus, 200);
  ASSERT_NE(response.body, nullptr);
  EXPECT_EQ(std::string(response.body), std::string(kSize, 'x'));
  HttpsResponseFree(&response);
  EXPECT_EQ(service().php().TakeConnections().size(), 1u);
}

// An account.php that takes the connection and never answers: version 1's
// registration gives up after the transfer's 30 seconds, without having
// started the handshake, as a service that cannot be reached.
TEST_F(HostileTest, StallingServerTimesOutAfterThirtySeconds) {
  service().Treat({Conduct::kStall});
  const auto start = std::chrono::steady_clock::now();
  const webapihost::Answer a = Call("TALV.Core.PellixCenter", 1, "register",
                                    J(R"({"account": "ada@example.com", "password": "secret 1", "fullname": "Ada"})"));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(a.code, 3002);
  EXPECT_EQ(Logged(), std::vector<Line>{LogLine("Register", "pellix register error, http-status: %ld response: %s", 0L,
                                                "badnetwork")});
  EXPECT_GE(seconds, 29.5);
  EXPECT_LT(seconds, 40.0);
  const std::vector<TlsConnection> seen = service().php().TakeConnections();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_FALSE(seen[0].handshake);
}

}  // namespace
}  // namespace pellixtest
