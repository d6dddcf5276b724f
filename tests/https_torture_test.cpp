// HttpsRequestSend and PellixAccountRegister under the seam's fault plan, in
// the manner of curl's torture mode: the k-th call fails, of the platform or
// of libcurl and the allocator (curl_faults.h: curl_easy_init,
// curl_easy_setopt, curl_easy_escape, curl_slist_append, curl_easy_perform,
// curl_easy_getinfo, realloc or strdup), for every k the request reaches,
// once and from then on.
// Each time: 0 exactly when the transfer was attempted, -1 with the caller's
// record untouched otherwise, every hash and list given back (and, in their
// trees, no leak for ASan or memcheck); and over all k, every failure
// statement of the two sources is logged, exactly as its format says.
#include <curl/curl.h>

#include <fstream>
#include <functional>
#include <optional>
#include <regex>
#include <set>

#include "core/accounting.h"
#include "sdk/device.h"
#include "seam/seam.h"
#include "support/curl_faults.h"
#include "support/local_service.h"

namespace pellixtest {
namespace {

using syslogcapture::Line;

const char kPassword[] = "pa55 w0rd!";
constexpr long kUntouched = 7;  // the caller's status, which only a completed transfer may change

// --- The failure statements of the two sources ---

struct Statement {
  std::string where;  // "https_request.cpp:123"
  std::string format;
  std::regex message;  // the format, each conversion standing for any value
};

// Conversions of the module's formats: %s, %d, %u, %ld, %zd, %04X.
std::regex MessagePattern(const std::string& format) {
  static const std::regex conversion("%(0?[0-9]*)(l|z)?([sduX])");
  static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
  std::string pattern;
  auto literal = [](const std::string& text) { return std::regex_replace(text, special, R"(\$&)"); };
  std::sregex_iterator it(format.begin(), format.end(), conversion), end;
  size_t at = 0;
  for (; it != end; ++it) {
    pattern += literal(format.substr(at, it->position() - at));
    const char kind = (*it)[3].str()[0];
    pattern += kind == 's' ? R"([\s\S]*)" : kind == 'X' ? "[0-9A-F]+" : "-?[0-9]+";
    at = it->position() + it->length();
  }
  return std::regex(pattern + literal(format.substr(at)));
}

// Every statement that logs in the HTTPS client and the registration form:
// between them they hold nothing but the call trees of the two functions.
std::vector<Statement> FailureStatements() {
  std::vector<Statement> statements;
  for (const char* file : {"https_request.cpp", "account_register.cpp"}) {
    std::ifstream source(std::string(PELLIX_SOURCE_DIR "/") + file);
    std::string text;
    for (int number = 1; std::getline(source, text); ++number) {
      const size_t start = text.find("PELLIX_LOG(\"");
      if (start == std::string::npos) continue;
      const size_t open = start + 12;
      const std::string format = text.substr(open, text.find('"', open) - open);
      statements.push_back({std::string(file) + ":" + std::to_string(number), format, MessagePattern(format)});
    }
  }
  return statements;
}

// The statement that wrote `line`, or nullptr.
const Statement* WrittenBy(const std::vector<Statement>& statements, const Line& line) {
  for (const Statement& s : statements) {
    const std::string prefix = s.where + " ";
    if (line.priority == 3 && line.text.compare(0, prefix.size(), prefix) == 0 &&
        std::regex_match(line.text.substr(prefix.size()), s.message))
      return &s;
  }
  return nullptr;
}

// --- The requests tortured ---

struct Shape {
  const char* name;
  bool registerForm;   // through PellixAccountRegister, else HttpsRequestSend with credentials
  bool serviceUp;      // the trusted local service answers "good", else it refuses connections
  const char* serial;  // PellixAccountRegister's caller serial
  int verbose;
  std::string fullName;
  bool zoneWithoutTzdbName;
};

// Between them the shapes reach every failure statement: the two that no
// fault reaches take input of their own (a form too large, a zone without a
// tz-database name).
const Shape kShapes[] = {
    {"FormToTheService", false, true, nullptr, 0, "", false},  // answered in several chunks
    {"RegisterCallersSerialVerbose", true, false, "X1", 1, "Ada Lovelace", false},
    {"RegisterDevicesSerial", true, false, nullptr, 0, "Ada Lovelace", false},
    {"RegisterFormTooLarge", true, false, nullptr, 0, std::string(700, '/'), false},
    {"RegisterZoneWithoutTzdbName", true, false, nullptr, 0, "Ada Lovelace", true},
};

struct Outcome {
  int result;
  long status;
  std::optional<std::string> body;
};

std::string Describe(const Outcome& o) {
  return std::to_string(o.result) + " " + std::to_string(o.status) + " " +
         (o.body ? "\"" + *o.body + "\"" : "(no body)");
}

class TortureTest : public TrustedServiceTest {
 protected:
  void SetUp() override {
    TrustedServiceTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ScanLogForPassword(kPassword);
    // Several chunks, so that the write callback's realloc also fails on a
    // buffer it already holds; the trim leaves "good".
    service().Treat(Says("good" + std::string(40000, ' ')));
  }
  // Runs `shape` once, with the faults `inject` plans once the request's own
  // hash is made; the caller's record starts with kUntouched. Leaves the
  // calls made in calls_, and how many of them could fail in callCount_.
  Outcome Attempt(const Shape& shape, const std::function<void()>& inject) {
    static ZoneDevice zoneWithoutTzdbName("Amsterdam", {{"name", "Amsterdam"}});
    ResetDevice();
    if (shape.zoneWithoutTzdbName) talvsdk::SetDevice(&zoneWithoutTzdbName);
    const std::string host = service().Address();
    FieldHash fields(Fields{{"action", "register"}});
    HttpsResponse response{kUntouched, nullptr};
    talvseam::ClearJournal();
    inject();
    int result;
    if (shape.registerForm) {
      const AccountRegisterInfo info{shape.verbose, host.c_str(),           "ada@example.com",
                                     kPassword,     shape.fullName.c_str(), shape.serial};
      result = PellixAccountRegister(&info, &response);
    } else {
      const HttpsRequest request{host.c_str(),  "account.php",     fields.get(),
                                 shape.verbose, "ada@example.com", kPassword};
      result = HttpsRequestSend(&request, &response);
    }
    calls_ = talvseam::Journal();
    callCount_ = talvseam::CallCount();
    talvseam::ClearFaults();
    Outcome outcome{result, response.httpStatus, std::nullopt};
    if (response.body) outcome.body = response.body;
    HttpsResponseFree(&response);
    return outcome;
  }

  // What every run must show, whatever failed.
  void ExpectSound(const Outcome& o) {
    bool attempted = false;
    for (const talvseam::Call& call : calls_) attempted |= call.op == "curl_easy_perform";
    EXPECT_EQ(o.result, attempted ? 0 : -1) << "0 exactly when the transfer was attempted";
    if (o.result < 0) {
      EXPECT_EQ(Describe(o), "-1 7 (no body)") << "the caller's record is untouched";
    }
    EXPECT_EQ(talvcore::LiveHashes(), 0);
    EXPECT_EQ(talvcore::LiveLists(), 0);
    EXPECT_EQ(talvcore::BadFrees(), std::vector<std::string>{});
  }

  // Takes the lines logged, each of which must come from a failure statement.
  void Collect() {
    for (const Line& line : Logged()) {
      const Statement* s = WrittenBy(statements_, line);
      EXPECT_NE(s, nullptr) << "not a failure statement of the form request: " << line;
      if (s) seen_.insert(s->where);
    }
  }

  void ExpectEveryStatementSeen() {
    for (const Statement& s : statements_)
      EXPECT_EQ(seen_.count(s.where), 1u) << "no fault and no shape makes " << s.where << " \"" << s.format << "\"";
  }

  const std::vector<Statement> statements_ = FailureStatements();
  std::set<std::string> seen_;
  std::vector<talvseam::Call> calls_;
  int callCount_ = 0;
};

// What a run of `shape` gives when the only failed call is `failed`, of
// libcurl or the allocator.
Outcome Expected(const Shape& shape, const talvseam::Call& failed) {
  // PellixAccountRegister copies the status its own record started with.
  const long notWritten = shape.registerForm ? 0 : kUntouched;
  const Outcome normal = shape.serviceUp ? Outcome{0, 200, "good"} : Outcome{0, notWritten, "badnetwork"};
  static const std::set<std::string> bearable = {
      CurlOp("curl_easy_setopt", CURLOPT_SSL_VERIFYPEER), CurlOp("curl_easy_setopt", CURLOPT_SSL_VERIFYHOST),
      CurlOp("curl_easy_setopt", CURLOPT_VERBOSE), CurlOp("curl_easy_setopt", CURLOPT_CONNECTTIMEOUT)};
  if (bearable.count(failed.op)) return normal;
  // The write callback's realloc: libcurl ends the transfer.
  if (failed.op == "curl_easy_perform" || failed.op == "realloc") return {0, notWritten, "badnetwork"};
  if (failed.op.rfind("curl_easy_getinfo", 0) == 0) return {0, 0, "badsys"};
  if (failed.op == "strdup") return {0, normal.status, std::nullopt};
  return {-1, kUntouched, std::nullopt};
}

TEST_F(TortureTest, EveryFailureIsHandledAndEveryFailureLineWritten) {
  for (const Shape& shape : kShapes) {
    SCOPED_TRACE(shape.name);
    std::string error;
    ASSERT_TRUE(service().php().SetReachable(shape.serviceUp, &error)) << error;
    // How many calls the request makes when nothing fails.
    ExpectSound(Attempt(shape, [] {}));
    const int calls = callCount_;
    Collect();
    for (bool persistent : {false, true}) {
      for (int k = 0; k <= calls; ++k) {
        SCOPED_TRACE("call " + std::to_string(k) + (persistent ? " and every one after" : ""));
        const Outcome o = Attempt(shape, [&] { talvseam::InjectFault("*", k, persistent, 5); });
        ExpectSound(o);
        std::vector<talvseam::Call> failed;
        for (const talvseam::Call& call : calls_)
          if (call.failed) failed.push_back(call);
        if (!persistent && failed.size() == 1 && failed[0].service == "curl") {
          SCOPED_TRACE(failed[0].op);
          EXPECT_EQ(Describe(o), Describe(Expected(shape, failed[0])));
        }
        Collect();
      }
    }
  }
  ExpectEveryStatementSeen();
}

}  // namespace
}  // namespace pellixtest
