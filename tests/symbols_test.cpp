// pellixcenter.so leaves every platform service to the libraries the host
// loads with it. (What it defines is the ABI baseline's and the version
// script's: abi.baseline.)
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "harness.h"
#include "support/process.h"

// A host's own function of a handler's name, in the test program's dynamic
// symbol table (tests/CMakeLists.txt exports it): were the module to look its
// handlers' names up rather than bind its own, its table would run this one.
int hostQueryCalls = 0;
void Query(TALV::APIRequest*, TALV::APIResponse*) { ++hostQueryCalls; }

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

TEST(Symbols, TheModuleBindsItsOwnFunctionsWhateverTheHostDefines) {
  std::string error;
  std::unique_ptr<webapihost::Module> module = webapihost::Module::Load(PELLIXCENTER_SO, &error);
  ASSERT_TRUE(module) << error;
  webapihost::Answer answer = module->Call("TALV.Core.PellixCenter", 2, "query", Json::objectValue, "enu");
  EXPECT_EQ(hostQueryCalls, 0);
  EXPECT_EQ(answer.answers, 1);
  // Nor is any other function it defines (getCodeVerifier, called inside the
  // privilege guard, among them) left to the loader to bind.
  std::set<std::string> relocated = Lines(Output("readelf -rW '" PELLIXCENTER_SO "' | awk 'NF >= 5 {print $5}'"));
  for (const std::string& function :
       Lines(Output("nm -D --defined-only '" PELLIXCENTER_SO "' | awk '$2 == \"T\" {print $3}'")))
    EXPECT_EQ(relocated.count(function), 0u) << function;
}

}  // namespace
