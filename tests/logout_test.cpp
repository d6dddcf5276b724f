// Logout and PkceLogout: the hard and soft feasibility grades and the force
// override they share, and Logout's sign-out decided by the account error
// number.
#include "feasibility/checker.h"
#include "seam/seam.h"
#include "support/module_test.h"
#include "talv/feasibility.h"

namespace pellixtest {
namespace {

using talvfeasibility::Verdict;

constexpr int kHard = FEASIBILITY_CHECK_HARD;
constexpr int kSoft = FEASIBILITY_CHECK_SOFT;

const Verdict kFeasible{};

struct LogoutCase {
  const char* name;
  const char* params;
  Verdict hard, soft;
  Outcome signOut;  // of TALVPELLIXAccountLogout; {0, 0} when it must not run
  // Expected:
  int checks;  // feasibility checks run
  bool forceRead;
  bool signedOut;  // TALVPELLIXAccountLogout called (with true)
  int code;        // 0: success
  const char* data;
  std::vector<std::pair<const char*, const char*>> logged;  // (format, JSON text or nullptr) in order
};

std::ostream& operator<<(std::ostream& os, const LogoutCase& c) { return os << c.name; }

const char kHardly[] = "Logout is hardly not feasible, reasons: %s";
const char kSoftly[] = "Logout is softly not feasible, reasons: %s";
const char kSignOutFailed[] = "TALVPELLIXAccountLogout failed";
const char kQueryFailed[] = "Pellix query failed, code=%u";

struct SignOutMethod {
  const char* api;
  int version;
  const char* method;
  bool pkce;  // signs out through the PKCE service
};
std::ostream& operator<<(std::ostream& os, const SignOutMethod& m) { return os << m.method; }
const SignOutMethod kLogout{"TALV.Core.PellixCenter", 2, "logout", false};
const SignOutMethod kPkceLogout{"TALV.Core.PellixCenter.Logout", 1, "pkce_logout", true};

class LogoutTest : public ModuleTest, public ::testing::WithParamInterface<std::tuple<SignOutMethod, LogoutCase>> {};

TEST_P(LogoutTest, ChecksThenSignsOut) {
  const auto& [m, c] = GetParam();
  talvfeasibility::ScriptedChecker checker;
  checker.Set(kHard, c.hard).Set(kSoft, c.soft);
  talvfeasibility::SetChecker(&checker);
  if (m.pkce) {
    EXPECT_CALL(backend_, Logout).Times(0);
    EXPECT_CALL(backend_, PkceLogout).Times(c.signedOut ? 1 : 0).WillRepeatedly(Return());
  } else if (c.signedOut) {
    EXPECT_CALL(backend_, Logout(true)).WillOnce(Return(c.signOut));
  } else {
    EXPECT_CALL(backend_, Logout).Times(0);
  }

  ExpectAnswer(Call(m.api, m.version, m.method, J(c.params)), std::to_string(c.code) + " " + c.data);

  std::vector<talvseam::Call> checks = talvseam::JournalOf("TALVFeasibilityCheck");
  ASSERT_EQ(checks.size(), size_t(c.checks));
  for (int i = 0; i < c.checks; ++i) EXPECT_EQ(checks[i].args, (std::vector<std::string>{"30", std::to_string(i + 1)}));
  bool forceRead = false;
  for (const talvseam::Call& call : talvseam::JournalOf("APIRequest::GetParam")) forceRead |= call.args[0] == "force";
  EXPECT_EQ(forceRead, c.forceRead);

  std::vector<Line> expected;
  for (const auto& [format, arg] : c.logged) {
    if (std::string(format) == kQueryFailed) {
      expected.push_back(LogLine("Logout", format, c.signOut.error));
    } else if (arg) {
      expected.push_back(LogLine("LogoutFeasible", format, arg));
    } else {
      expected.push_back(LogLine("Logout", format));
    }
  }
  EXPECT_EQ(Logged(), expected);
}

// One case per row reads as the table it is.
// clang-format off
const LogoutCase kLogoutCases[] = {
    LogoutCase{"BothFeasible", "{}", kFeasible, kFeasible, {0, 0}, 2, true, true, 0, "null", {}},
    // A hard refusal cannot be forced; force is not even read.
    LogoutCase{"HardRefusalIgnoresForce", R"({"force": true})", {1, {"backup running"}}, kFeasible, {}, 1,
               false, false, 3014, R"({"check_type": "hard", "reasons": ["backup running"]})",
               {{kHardly, R"(["backup running"])"}}},
    LogoutCase{"SoftRefusal", R"({"force": false})", kFeasible, {1, {"app open"}}, {}, 2, true, false, 3014,
               R"({"check_type": "soft", "reasons": ["app open"]})", {{kSoftly, R"(["app open"])"}}},
    LogoutCase{"ForceSkipsTheSoftCheck", R"({"force": true})", kFeasible, {1, {"app open"}}, {0, 0}, 1, true,
               true, 0, "null", {}},
    LogoutCase{"ReasonsOfBothGradesHardFirst", "{}", {0, {"a1", "a2"}}, {1, {"b1"}}, {}, 2, true, false, 3014,
               R"({"check_type": "soft", "reasons": ["a1", "a2", "b1"]})", {{kSoftly, R"(["a1","a2","b1"])"}}},
    LogoutCase{"RefusalWithoutReasons", "{}", {1, {}}, kFeasible, {}, 1, false, false, 3014,
               R"({"check_type": "hard", "reasons": null})", {{kHardly, "null"}}},
    LogoutCase{"AnyPositiveVerdictRefuses", "{}", kFeasible, {7, {}}, {}, 2, true, false, 3014,
               R"({"check_type": "soft", "reasons": null})", {{kSoftly, "null"}}},
    // The platform may hand back another list; its reasons count and it is freed.
    LogoutCase{"ReplacedListsAreReadAndFreed", "{}", {0, {"x"}, true}, {1, {"y"}, true}, {}, 2, true, false,
               3014, R"({"check_type": "soft", "reasons": ["x", "y"]})", {{kSoftly, R"(["x","y"])"}}},
    LogoutCase{"NotSignedInIsSignedOut", "{}", kFeasible, kFeasible, {-1, 3}, 2, true, true, 0, "null",
               {{kSignOutFailed, nullptr}}},
    LogoutCase{"NegativeWithErrorZeroIsASuccess", "{}", kFeasible, kFeasible, {-1, 0}, 2, true, true, 0, "null",
               {{kSignOutFailed, nullptr}}},
    LogoutCase{"NegativeWithError4", "{}", kFeasible, kFeasible, {-1, 4}, 2, true, true, 3002, "{}",
               {{kSignOutFailed, nullptr}, {kQueryFailed, nullptr}}},
    LogoutCase{"ZeroWithError14", "{}", kFeasible, kFeasible, {0, 14}, 2, true, true, 3004, "{}",
               {{kQueryFailed, nullptr}}},
};
// clang-format on

std::string CaseName(const ::testing::TestParamInfo<std::tuple<SignOutMethod, LogoutCase>>& info) {
  return std::get<1>(info.param).name;
}

INSTANTIATE_TEST_SUITE_P(Logout, LogoutTest,
                         ::testing::Combine(::testing::Values(kLogout), ::testing::ValuesIn(kLogoutCases)), CaseName);

// The PKCE sign-out refuses word for word as Logout does; its sign-out
// itself is not decided by an error number (pkce_test.cpp).
std::vector<LogoutCase> PkceLogoutCases() {
  std::vector<LogoutCase> cases;
  for (const LogoutCase& c : kLogoutCases)
    if (c.logged.empty() || c.code == 3014) cases.push_back(c);
  return cases;
}
INSTANTIATE_TEST_SUITE_P(PkceLogout, LogoutTest,
                         ::testing::Combine(::testing::Values(kPkceLogout), ::testing::ValuesIn(PkceLogoutCases())),
                         CaseName);

// A check that cannot run counts as a refusal in its grade, with the core
// library's error state in the log line; reasons already gathered stay.
TEST_F(ModuleTest, LogoutCheckThatCannotRun) {
  struct Case {
    const char* name;
    Verdict hard, soft;
    const char* allocFault;  // fail the n-th list allocation ("0", "1") or nullptr
    int failedType;
    const char* data;
    const char* refusal;
    const char* reasons;
  };
  // clang-format off
  const Case cases[] = {
      {"HardCheckFails", {-1, {"ignored"}, false, 0x0D00}, kFeasible, nullptr, kHard,
       R"({"check_type": "hard", "reasons": null})", kHardly, "null"},
      {"SoftCheckFails", {0, {"a1"}}, {-2, {}, false, 0x0400}, nullptr, kSoft,
       R"({"check_type": "soft", "reasons": ["a1"]})", kSoftly, R"(["a1"])"},
      {"HardListNotAllocated", kFeasible, kFeasible, "0", kHard, R"({"check_type": "hard", "reasons": null})", kHardly,
       "null"},
      {"SoftListNotAllocated", {0, {"a1"}}, kFeasible, "1", kSoft, R"({"check_type": "soft", "reasons": ["a1"]})",
       kSoftly, R"(["a1"])"},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    talvseam::ClearFaults();
    talvfeasibility::ScriptedChecker checker;
    checker.Set(kHard, c.hard).Set(kSoft, c.soft);
    talvfeasibility::SetChecker(&checker);
    if (c.allocFault) talvseam::InjectFault("TLIBCSzListAlloc", std::stoi(c.allocFault), false, 0);
    EXPECT_CALL(backend_, Logout).Times(0);

    ExpectAnswer(Call("TALV.Core.PellixCenter", 2, "logout", J(R"({"force": false})")), std::string("3014 ") + c.data);
    // The state the failing call left is still the thread's.
    const int error = TLIBCErrGet();
    EXPECT_EQ(error, c.allocFault ? TLIBC_ERR_OUT_OF_MEMORY : (c.failedType == kHard ? c.hard : c.soft).error);
    Line failure = c.allocFault ? LogLine("IsLogoutFeasible", "Failed to alloc list [0x%04X %s:%d]", error,
                                          TLIBCErrorGetFile(), TLIBCErrorGetLine())
                                : LogLine("IsLogoutFeasible", "Feasibility check (type=0x%02x) failed [0x%04X %s:%d]",
                                          c.failedType, error, TLIBCErrorGetFile(), TLIBCErrorGetLine());
    EXPECT_EQ(Logged(), (std::vector<Line>{failure, LogLine("LogoutFeasible", c.refusal, c.reasons)}));
    talvfeasibility::SetChecker(nullptr);
  }
}

}  // namespace
}  // namespace pellixtest
