// The privilege guard of the PKCE methods against the real process identity.
// Each case changes the ids of a forked child only (a death test), so a
// failure cannot leave the rest of the suite under other ids; the child
// reports what it saw.
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>

#include "support/module_test.h"
#include "webapi/runner.h"

namespace pellixtest {
namespace {

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

// What a child (a death test's) found wrong, one line each on its standard
// error; it exits with 1 when it found anything.
class Report {
 public:
  template <typename T>
  void Equal(const T& actual, const T& expected, const std::string& what) {
    if (actual == expected) return;
    std::cerr << what << ": " << actual << ", expected " << expected << "\n";
    bad_ = true;
  }
  [[noreturn]] void Exit() const {
    // In the coverage tree a full exit, so that every library (the module
    // too) writes its counters; elsewhere no test teardown, no exit
    // handlers: the parent owns those.
#ifdef PELLIX_COVERAGE
    std::exit(bad_ ? 1 : 0);
#else
    _exit(bad_ ? 1 : 0);
#endif
  }

 private:
  bool bad_ = false;
};

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

// The guarded stretch runs as root, and the ids the handler found are back
// after it on every way out: the end of the stretch, an exception caught in
// the handler (the unknown challenge's) and one that passes to the host. Ids
// the guard cannot raise, or cannot put back, are logged, one line each
// time; the work is done under the ids there are, and the answer stands.
// What the handler makes of each exception, pkce_test checks.
TEST_F(GuardTest, RaisesInsideAndRestoresOnEveryWayOut) {
  const Line enter = AuthLine("ENTERCriticalSection", "ERROR: ENTERCriticalSection");
  const Line leave = AuthLine("LEAVECriticalSection", "ERROR: LEAVECriticalSection");
  const Ids nobody{kNobody, kNobody}, root{0, 0}, other{kOther, kOther};
  const uid_t nob = kNobody, keep = static_cast<uid_t>(-1);
  enum Inside { kWorks, kThrows, kChangesIds };  // the login settings
  struct Case {
    const char* name;
    gid_t group[3];  // real, effective and saved ids set before the handler; keep: unchanged
    uid_t user[3];
    const char* challenge;  // nullptr: pkce_config_get
    Inside inside;
    Ids idsInside, after;
    int errnoInside;  // -1: not seen (no PKCE service opened)
    int code;         // -1: the exception passes to the host
    std::vector<Line> logged;
  };
  // clang-format off
  const Case cases[] = {
      {"RootStaysRoot", {keep, keep, keep}, {keep, keep, keep}, nullptr, kWorks, root, root, 0, 0, {}},
      {"ConfigGet", {keep, nob, keep}, {keep, nob, keep}, nullptr, kWorks, root, nobody, 0, 0, {}},
      {"ConfigGetThrows", {keep, nob, keep}, {keep, nob, keep}, nullptr, kThrows, root, nobody, 0, -1, {}},
      {"Login", {keep, nob, keep}, {keep, nob, keep}, "known", kWorks, root, nobody, 0, 0, {}},
      {"LoginUnknownChallenge", {keep, nob, keep}, {keep, nob, keep}, "other", kWorks, root, nobody, -1, 3003, {}},
      // Dropped for good: there is nothing to raise, and nothing to put back.
      {"AllIdsDropped", {nob, nob, nob}, {nob, nob, nob}, nullptr, kWorks, nobody, nobody, EPERM, 0, {enter}},
      // The group is raised first; when that is refused the user is not
      // tried, although it could be raised (the real user id is still root).
      {"UserNotRaisedWhenTheGroupWasRefused", {nob, nob, nob}, {keep, nob, keep}, nullptr, kWorks, nobody, nobody,
       EPERM, 0, {enter}},
      {"RestoreThatCannotBeMade", {keep, nob, keep}, {keep, nob, keep}, nullptr, kChangesIds, root, other, 0, 0,
       {leave}},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EXIT(
        {
          Report r;
          if (c.inside == kThrows)
            ON_CALL(backend_, PkceLoginConfig).WillByDefault(Invoke([this]() -> Json::Value {
              seen_.push_back(Effective());
              throw talvpellix::PellixException(4, "unreachable");
            }));
          if (c.inside == kChangesIds)
            ON_CALL(backend_, PkceLoginConfig).WillByDefault(Invoke([] {
              setresgid(kOther, kOther, kOther);
              setresuid(kOther, kOther, kOther);
              return Json::Value("l");
            }));
          setresgid(c.group[0], c.group[1], c.group[2]);
          setresuid(c.user[0], c.user[1], c.user[2]);
          webapihost::Answer a = c.challenge ? PkceLogin(c.challenge) : ConfigGet();
          r.Equal(a.threw, c.code < 0, "threw");
          r.Equal(a.code, c.code < 0 ? webapihost::kErrUnknown : c.code, "code");
          r.Equal(seen_.empty(), false, "the guarded stretch ran");
          for (const Ids& ids : seen_) r.Equal(ids, c.idsInside, "ids inside");
          r.Equal(errnoInside_, c.errnoInside, "errno after raising");
          r.Equal(Effective(), c.after, "ids after");
          std::vector<Line> guardLines;  // the handler's own lines are pkce_test's
          for (const Line& line : Logged())
            if (line.priority != LOG_ERR) guardLines.push_back(line);
          r.Equal(guardLines, c.logged, "the guard's log lines");
          r.Exit();
        },
        ::testing::ExitedWithCode(0), "");
  }
}

}  // namespace
}  // namespace pellixtest
