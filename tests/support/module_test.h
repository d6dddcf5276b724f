// Test fixture: pellixcenter.so loaded as the host loads it, over a fresh
// platform for every test, with the system log captured.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/writer.h>  // streams Json::Value into failure messages

#include <map>
#include <string>
#include <vector>

#include "harness.h"
#include "mock_backend.h"
#include "syslog_capture.h"

namespace pellixtest {

// What the module's tests script the platform with.
using ::testing::_;
using ::testing::DoAll;
using ::testing::Invoke;
using ::testing::Return;
using ::testing::SetArgReferee;
using ::testing::Throw;
using syslogcapture::Line;
using talvpellix::Outcome;
using talvpellix::PellixException;

// Parses a JSON text; fails the test on a syntax error.
Json::Value J(const std::string& text);

// `expected` with "<any>" standing for any value; objects must have the same keys.
bool Matches(const Json::Value& expected, const Json::Value& actual);
// `text` with each $name of `vars` replaced by its value.
std::string Substitute(std::string text, const std::map<std::string, std::string>& vars);

// The log line a statement of the module writes: the statement is the first
// one after the start of `function` whose format is `format`, in whichever of
// the module's sources defines `function`; the line is "<that file>:<its
// line> " and the message formatted from `format`.
syslogcapture::Line LogLine(const std::string& function, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Checks the answer a case expects: "<code> <data or details as JSON>",
// code 0 for success; "threw" when the exception passes to the host.
void ExpectAnswer(const webapihost::Answer& a, const std::string& expected);

// A password handed to the module other than through ModuleTest::Call (to
// PellixAccountRegister or HttpsRequestSend directly), for the suite-wide
// scan of the log.
void ScanLogForPassword(const std::string& password);

class ModuleTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  void SetUp() override;
  void TearDown() override;

  webapihost::Answer Call(const std::string& api, int version, const std::string& method,
                          const Json::Value& params = Json::Value(Json::objectValue));
  static const webapihost::Module& module() { return *module_; }
  // Lines logged since the test started (or the last call).
  std::vector<syslogcapture::Line> Logged() { return syslogcapture::Take(); }

  ::testing::NiceMock<MockBackend> backend_;

 private:
  static webapihost::Module* module_;
};

}  // namespace pellixtest
