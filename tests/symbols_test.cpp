// pellixcenter.so holds the module's code and nothing else: its dynamic
// symbol table defines exactly the module's interface, and every platform
// service is left to the libraries the host loads with it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>

namespace {

std::string Output(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) out.append(buffer, n);
  EXPECT_EQ(pclose(pipe), 0) << command;
  return out;
}

std::set<std::string> Lines(const std::string& text) {
  std::set<std::string> lines;
  size_t start = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    if (end > start) lines.insert(text.substr(start, std::min(end, text.find('@', start)) - start));  // no version
  return lines;
}

std::set<std::string> Symbols(const char* which) {
  return Lines(Output(std::string("nm -D --format=just-symbols ") + which + " '" PELLIXCENTER_SO "'"));
}

TEST(Symbols, DefinesExactlyTheModuleInterface) {
  const std::set<std::string> expected = {
      "GetAPITable", "grgTable", "grgErrorCodeMap", "PellixAccountRegister", "HttpsRequestSend",
      "HttpsResponseFree",
      "_Z15getCodeVerifierNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
      "_Z8RegisterPN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z5LoginPN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z10LoginByKeyPN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z6LogoutPN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z11Register_v2PN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z5QueryPN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z13GetIframeInfoPN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z10OauthLoginPN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z17HandleApiKeyErrorPN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z9PkceLoginPN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z13PkceConfigGetPN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z10PkceLogoutPN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z12ListPurchasePN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z14GetAccountInfoPN4TALV10APIRequestEPNS_11APIResponseE",
      "_Z14SetAccountInfoPN4TALV10APIRequestEPNS_11APIResponseE",
  };
  EXPECT_EQ(Symbols("--defined-only"), expected);
}

TEST(Symbols, PlatformServicesStayUndefinedAndAreLinkedDynamically) {
  std::set<std::string> undefined = Symbols("--undefined-only");
  for (const char* symbol : {
           "_Z26TALVPELLIXAccountQueryInfoRN4Json5ValueEbb",  // account-client library
           "_Z16TALVPELLIXErrGetv",
           "_ZN4TALV11APIResponse10SetSuccessERKN4Json5ValueE",  // host classes
           "_ZN4TALV11APIResponse8SetErrorEiRKN4Json5ValueE",
           "TLIBCErrSetEx",  // core library
           "syslog",
       })
    EXPECT_EQ(undefined.count(symbol), 1u) << symbol;

  std::string dynamic = Output("readelf -d '" PELLIXCENTER_SO "'");
  for (const char* library : {"libtalvpellix.so", "libtalvwebapi.so", "libtlibc.so"})
    EXPECT_NE(dynamic.find(std::string("[") + library + "]"), std::string::npos) << library;
}

}  // namespace
