#include "module_test.h"

#include <cstdarg>
#include <fstream>
#include <set>

#include <json/reader.h>

#include "core/accounting.h"
#include "feasibility/checker.h"
#include "sdk/device.h"
#include "seam/seam.h"
#include "webapi/runner.h"

namespace pellixtest {

Json::Value J(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << text << ": " << errors;
  return value;
}

bool Matches(const Json::Value& expected, const Json::Value& actual) {
  if (expected == "<any>") return true;
  if (expected.type() != actual.type() || expected.size() != actual.size() ||
      (expected.isObject() && expected.getMemberNames() != actual.getMemberNames()))
    return false;
  if (!expected.isObject() && !expected.isArray()) return expected == actual;
  for (auto e = expected.begin(), a = actual.begin(); e != expected.end(); ++e, ++a)
    if (!Matches(*e, *a)) return false;
  return true;
}

std::string Substitute(std::string text, const std::map<std::string, std::string>& vars) {
  for (const auto& kv : vars)
    for (size_t at; (at = text.find("$" + kv.first)) != std::string::npos;)
      text.replace(at, kv.first.size() + 1, kv.second);
  return text;
}

void ExpectAnswer(const webapihost::Answer& a, const std::string& expected) {
  EXPECT_TRUE(a.found);
  EXPECT_EQ(a.threw, expected == "threw") << a.exception;
  EXPECT_EQ(a.answers, a.threw ? 0 : 1);
  if (a.threw || expected == "threw") return;
  const size_t space = expected.find(' ');
  const int code = std::stoi(expected.substr(0, space));
  EXPECT_EQ(a.success, code == 0);
  EXPECT_EQ(a.code, code);
  EXPECT_EQ(a.data, J(expected.substr(space + 1))) << a.data;
}

namespace {

// The module's sources, each logging under its own file name.
const char* const kSources[] = {"pellixcenter.cpp", "account_register.cpp", "https_request.cpp"};

// The line of the first statement logging `quoted` after the start of the
// definition of `function` in `path`; 0 when there is none.
int StatementLine(const std::string& path, const std::string& function, const std::string& quoted) {
  std::ifstream source(path);
  std::string text;
  int number = 0;
  bool inFunction = false;
  while (std::getline(source, text)) {
    ++number;
    // A definition starts in column 0 with its name after the return type.
    if (!text.empty() && text[0] != ' ' && text[0] != '}' && text.find(" " + function + "(") != std::string::npos &&
        text.find(';') == std::string::npos)
      inFunction = true;
    if (inFunction && text.find(quoted) != std::string::npos) return number;
  }
  return 0;
}

}  // namespace

syslogcapture::Line LogLine(const std::string& function, const char* format, ...) {
  const std::string quoted = std::string("\"") + format + "\"";
  std::string file;
  int found = 0;
  for (const char* name : kSources) {
    found = StatementLine(std::string(PELLIX_SOURCE_DIR "/") + name, function, quoted);
    if (found) {
      file = name;
      break;
    }
  }
  EXPECT_NE(found, 0) << "no statement logging \"" << format << "\" in " << function << "()";
  va_list args;
  va_start(args, format);
  char message[1024];
  std::vsnprintf(message, sizeof(message), format, args);
  va_end(args);
  return syslogcapture::Line{3, file + ":" + std::to_string(found) + " " + message};
}

webapihost::Module* ModuleTest::module_ = nullptr;

void ModuleTest::SetUpTestSuite() {
  if (module_) return;
  std::string error;
  module_ = webapihost::Module::Load(PELLIXCENTER_SO, &error).release();  // kept for the whole program
  ASSERT_NE(module_, nullptr) << error;
}

void ModuleTest::SetUp() {
  ASSERT_NE(module_, nullptr);
  talvseam::Reset();
  talvpellix::SetBackend(&backend_);
  talvwebapi::SetRunner(nullptr);
  talvsdk::SetDevice(nullptr);
  talvfeasibility::SetChecker(nullptr);
  talvcore::ClearBadFrees();
  syslogcapture::Take();
}

// Whatever a test ran, the module must have given back every hash and list
// it was handed, exactly once.
void ModuleTest::TearDown() {
  EXPECT_EQ(talvcore::LiveHashes(), 0) << "hashes leaked";
  EXPECT_EQ(talvcore::LiveLists(), 0) << "lists leaked";
  EXPECT_EQ(talvcore::BadFrees(), std::vector<std::string>{}) << "frees of pointers not held";
  talvpellix::SetBackend(nullptr);
  talvfeasibility::SetChecker(nullptr);
  talvseam::Reset();
}

namespace {

// Every password a test sent, and at the end of the program a scan of every
// line the module logged for them: no password may reach the system log.
std::set<std::string>& PasswordsSent() {
  static std::set<std::string> sent;
  return sent;
}

// The one exception: a value that libcurl cannot URL-encode is logged as it
// is, and the password is a value of the registration form. Only a failing
// curl_easy_escape gets there, which the tests make with curl_faults.h.
bool PasswordWrittenOnPurpose(const syslogcapture::Line& line) {
  static const std::string urlEncodingFailed = LogLine("AppendFormField", "URL encoding failed: %s", "").text;
  return line.text.compare(0, urlEncodingFailed.size(), urlEncodingFailed) == 0;
}

class PasswordScan : public ::testing::Environment {
 public:
  void TearDown() override {
    for (const syslogcapture::Line& line : syslogcapture::History()) {
      if (PasswordWrittenOnPurpose(line)) continue;
      for (const std::string& password : PasswordsSent())
        EXPECT_EQ(line.text.find(password), std::string::npos) << "password \"" << password << "\" logged: " << line;
    }
  }
};
::testing::Environment* const gPasswordScan = ::testing::AddGlobalTestEnvironment(new PasswordScan);

}  // namespace

void ScanLogForPassword(const std::string& password) {
  // Too short a text would be found in innocent lines.
  if (password.size() >= 4) PasswordsSent().insert(password);
}

webapihost::Answer ModuleTest::Call(const std::string& api, int version, const std::string& method,
                                    const Json::Value& params) {
  for (const char* name : {"password", "current_password", "new_password"})
    if (params.isObject() && params[name].isString()) ScanLogForPassword(params[name].asString());
  return module_->Call(api, version, method, params);
}

}  // namespace pellixtest
