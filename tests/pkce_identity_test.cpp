// The privilege guard of the PKCE methods against the real process identity.
// Each case changes the ids of a forked child only, so a failure cannot leave
// the rest of the suite under other ids; the child reports what it saw.
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <sstream>

#include "support/module_test.h"
#include "webapi/runner.h"

namespace pellixtest {
namespace {

using ::testing::_;
using ::testing::Invoke;
using ::testing::Return;
using syslogcapture::Line;

constexpr uid_t kNobody = 65534;
constexpr uid_t kOther = 12345;

struct Ids {
  uid_t uid;
  gid_t gid;
  bool operator==(const Ids& o) const { return uid == o.uid && gid == o.gid; }
};
std::ostream& operator<<(std::ostream& os, const Ids& ids) { return os << ids.uid << "/" << ids.gid; }
Ids Effective() { return {geteuid(), getegid()}; }

std::ostream& operator<<(std::ostream& os, const std::vector<Line>& lines) {
  for (const Line& l : lines) os << "[" << l.priority << " " << l.text << "]";
  return os;
}

// What a child found wrong, one line each.
class Report {
 public:
  template <typename T>
  void Equal(const T& actual, const T& expected, const std::string& what) {
    if (actual == expected) return;
    std::ostringstream line;
    line << what << ": " << actual << ", expected " << expected << "\n";
    text_ += line.str();
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// Runs `body` in a forked child and returns its report ("" when all was as
// expected).
std::string InChild(const std::function<void(Report&)>& body) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    Report report;
    body(report);
    const std::string& text = report.text();
    size_t written = 0;
    while (written < text.size()) {
      ssize_t n = write(fds[1], text.data() + written, text.size() - written);
      if (n <= 0) break;
      written += static_cast<size_t>(n);
    }
    // In the coverage tree a full exit, so that every library (the module
    // too) writes its counters; elsewhere no test teardown, no exit handlers:
    // the parent owns those.
#ifdef PELLIX_COVERAGE
    std::exit(0);
#else
    _exit(0);
#endif
  }
  close(fds[1]);
  std::string text;
  char buffer[512];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof(buffer))) > 0;) text.append(buffer, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) text += "the child died, status " + std::to_string(status);
  return text;
}

Line AuthLine(const char* function, const char* format) {
  Line line = LogLine(function, format);
  line.priority = LOG_AUTH | LOG_ERR;
  return line;
}

class GuardTest : public ModuleTest {
 public:  // the cases' scripts reach in
  using ModuleTest::backend_;

  void SetUp() override {
    ModuleTest::SetUp();
    if (HasFatalFailure()) return;
    if (getuid() != 0 || geteuid() != 0) GTEST_SKIP() << "the privilege guard is tested as root only";
    talvwebapi::SetRunner(&verifier_);
    // A child that exits normally (the coverage tree) never destroys it.
    ::testing::Mock::AllowLeak(&backend_);
    // Every PKCE call notes the ids it runs under (and errno at the first).
    ON_CALL(backend_, PkceOpen).WillByDefault(Invoke([this] {
      errnoInside_ = errno;
      seen_.push_back(Effective());
    }));
    ON_CALL(backend_, PkceRegisterConfig).WillByDefault(Invoke([this] {
      seen_.push_back(Effective());
      return Json::Value("r");
    }));
    ON_CALL(backend_, PkceLoginConfig).WillByDefault(Invoke([this] {
      seen_.push_back(Effective());
      return Json::Value("l");
    }));
    ON_CALL(backend_, PkceLogin(_)).WillByDefault(Invoke([this](const talvpellix::ParamPkceLogin&) {
      seen_.push_back(Effective());
      return J(R"({"email": "a@b.cd", "auth_key": "k", "activated": true})");
    }));
  }
  void TearDown() override {
    talvwebapi::SetRunner(nullptr);
    ModuleTest::TearDown();
  }

  webapihost::Answer ConfigGet() { return Call("TALV.Core.PellixCenter.Login", 1, "pkce_config_get"); }
  webapihost::Answer PkceLogin(const char* challenge) {
    Json::Value params = J(R"({"grant_code": "g", "client_id": "c", "token_endpoint": "t", "redirect_uri": "r"})");
    params["code_challenge"] = challenge;
    return Call("TALV.Core.PellixCenter.Login", 1, "pkce_login", params);
  }

  std::vector<Ids> seen_;
  int errnoInside_ = -1;
  // The verifier API; like the PKCE service it notes the ids it runs under.
  talvwebapi::ScriptedRunner verifier_{[this](const Json::Value& params) {
    seen_.push_back(Effective());
    Json::Value result;
    result["success"] = params["challenge"] == "known";
    result["data"]["verifier"] = "v-1";
    return result;
  }};
};

// Effective ids dropped, saved ids still root: raised to root for every call
// of the guarded stretch, and the dropped ids back after it on every way out:
// the end of the stretch, an exception caught in the handler (the unknown
// challenge's) and one that passes to the host. What the handler makes of
// each exception, pkce_test checks.
TEST_F(GuardTest, RaisesInsideAndRestoresOnEveryWayOut) {
  struct Case {
    const char* name;
    const char* challenge;  // nullptr: pkce_config_get
    bool configThrows;      // the login settings throw
    int code;               // 0: success; -1: the exception passes to the host
  } cases[] = {
      {"ConfigGet", nullptr, false, 0},
      {"ConfigGetThrows", nullptr, true, -1},
      {"Login", "known", false, 0},
      {"LoginUnknownChallenge", "other", false, 3003},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(InChild([&](Report& r) {
                if (c.configThrows)
                  ON_CALL(backend_, PkceLoginConfig).WillByDefault(Invoke([this]() -> Json::Value {
                    seen_.push_back(Effective());
                    throw talvpellix::PellixException(4, "unreachable");
                  }));
                setresgid(-1, kNobody, -1);
                setresuid(-1, kNobody, -1);
                webapihost::Answer a = c.challenge ? PkceLogin(c.challenge) : ConfigGet();
                r.Equal(Effective(), Ids{kNobody, kNobody}, "ids after the handler");
                r.Equal(a.threw, c.code < 0, "threw");
                r.Equal(a.code, c.code < 0 ? webapihost::kErrUnknown : c.code, "code");
                r.Equal(seen_.empty(), false, "the guarded stretch ran");
                for (const Ids& ids : seen_) r.Equal(ids, Ids{0, 0}, "ids inside");
                if (errnoInside_ != -1) r.Equal(errnoInside_, 0, "errno after raising");
                std::vector<Line> guardLines;
                for (const Line& line : Logged())
                  if (line.priority != LOG_ERR) guardLines.push_back(line);
                r.Equal(guardLines, std::vector<Line>{}, "the guard's log lines");
              }),
              "");
  }
}

// The ids the guard cannot raise, or cannot put back: one line each time,
// the work done under the ids there are, and the answer stands.
TEST_F(GuardTest, WhatCannotBeRaisedOrRestoredIsLogged) {
  const Line enter = AuthLine("ENTERCriticalSection", "ERROR: ENTERCriticalSection");
  const Line leave = AuthLine("LEAVECriticalSection", "ERROR: LEAVECriticalSection");
  const Ids nobody{kNobody, kNobody}, root{0, 0}, other{kOther, kOther};
  const uid_t nob = kNobody, keep = static_cast<uid_t>(-1);
  struct Case {
    const char* name;
    gid_t group[3];  // real, effective and saved ids set before the handler; keep: unchanged
    uid_t user[3];
    bool changeIdsInside;  // the login settings leave the ids at kOther for good
    Ids inside, after;
    int errnoInside;
    std::vector<Line> logged;
  } cases[] = {
      {"RootStaysRoot", {keep, keep, keep}, {keep, keep, keep}, false, root, root, 0, {}},
      // Dropped for good: there is nothing to raise, and nothing to put back.
      {"AllIdsDropped", {nob, nob, nob}, {nob, nob, nob}, false, nobody, nobody, EPERM, {enter}},
      // The group is raised first; when that is refused the user is not
      // tried, although it could be raised (the real user id is still root).
      {"UserNotRaisedWhenTheGroupWasRefused",
       {nob, nob, nob},
       {keep, nob, keep},
       false,
       nobody,
       nobody,
       EPERM,
       {enter}},
      {"RestoreThatCannotBeMade", {keep, nob, keep}, {keep, nob, keep}, true, root, other, 0, {leave}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(InChild([&](Report& r) {
                if (c.changeIdsInside)
                  ON_CALL(backend_, PkceLoginConfig).WillByDefault(Invoke([] {
                    setresgid(kOther, kOther, kOther);
                    setresuid(kOther, kOther, kOther);
                    return Json::Value("l");
                  }));
                setresgid(c.group[0], c.group[1], c.group[2]);
                setresuid(c.user[0], c.user[1], c.user[2]);
                webapihost::Answer a = ConfigGet();
                r.Equal(a.data, J(R"({"register": "r", "login": "l"})"), "answer");
                for (const Ids& ids : seen_) r.Equal(ids, c.inside, "ids inside");
                r.Equal(errnoInside_, c.errnoInside, "errno after raising");
                r.Equal(Effective(), c.after, "ids after");
                r.Equal(Logged(), c.logged, "log");
              }),
              "");
  }
}

}  // namespace
}  // namespace pellixtest
