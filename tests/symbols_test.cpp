// pellixcenter.so leaves every platform service to the libraries the host
// loads with it. (What it defines is the ABI baseline's and the version
// script's: abi.baseline.)
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "support/process.h"

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

TEST(Symbols, PlatformServicesStayUndefinedAndAreLinkedDynamically) {
  std::set<std::string> undefined = Symbols("--undefined-only");
  for (const char* symbol : {
           "_Z26TALVPELLIXAccountQueryInfoRN4Json5ValueEbb",  // account-client library
           "_Z16TALVPELLIXErrGetv",
           "_ZN4TALV11APIResponse10SetSuccessERKN4Json5ValueE",  // host classes
           "_ZN4TALV11APIResponse8SetErrorEiRKN4Json5ValueE",
           "TLIBCErrSetEx",  // core library
       })
    EXPECT_EQ(undefined.count(symbol), 1u) << symbol;
  // The C library's, fortified in the release tree.
  EXPECT_EQ(undefined.count("syslog") + undefined.count("__syslog_chk"), 1u);

  std::string dynamic = Output("readelf -d '" PELLIXCENTER_SO "'");
  for (const char* library : {"libtalvpellix.so", "libtalvwebapi.so", "libtlibc.so"})
    EXPECT_NE(dynamic.find(std::string("[") + library + "]"), std::string::npos) << library;
}

}  // namespace
