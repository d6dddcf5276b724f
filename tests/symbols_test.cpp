// pellixcenter.so holds the module's code and nothing else: its dynamic
// symbol table defines exactly the module's interface, and every platform
// service is left to the libraries the host loads with it.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "support/process.h"
#include "support/rows.h"

namespace {

std::string Output(const std::string& command) {
  std::string out;
  EXPECT_EQ(pellixtest::RunCommand(command, &out), 0) << command;
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
  std::set<std::string> expected = {
      "GetAPITable",
      "grgTable",
      "grgErrorCodeMap",
      "PellixAccountRegister",
      "HttpsRequestSend",
      "HttpsResponseFree",
      "_Z15getCodeVerifierNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
  };
  for (const pellixtest::Row& row : pellixtest::kRows) expected.insert(row.handler);
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
