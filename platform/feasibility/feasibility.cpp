// The platform's feasibility check.

#include <syslog.h>

#include <fstream>

#include "checker.h"
#include "seam/seam.h"
#include "talv/feasibility.h"

using talvseam::Arg;

namespace talvfeasibility {
namespace {

class AlwaysFeasible : public Checker {
 public:
  Verdict Check(int, int) override { return Verdict{}; }
};

}  // namespace

Checker::~Checker() = default;

Verdict ReasonsFileChecker::Check(int item, int type) {
  Verdict verdict;
  if (item != FEASIBILITY_ITEM_ACCOUNT_LOGOUT) return verdict;
  const char* grade = type == FEASIBILITY_CHECK_HARD ? "hard" : type == FEASIBILITY_CHECK_SOFT ? "soft" : "";
  std::vector<std::string> more = more_ ? more_(grade) : std::vector<std::string>();
  std::ifstream in(path_);
  auto trim = [](const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r");
    return b == std::string::npos ? std::string() : s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
  };
  // A line the check cannot read refuses the sign-out in every grade, with
  // the line as the reason: guessing what it meant could let a sign-out
  // through that someone meant to hold.
  std::vector<std::string> unreadable;
  int number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    line = trim(line);
    if (line.empty() || line[0] == '#') continue;
    const size_t eq = line.find('=');
    const std::string key = eq == std::string::npos ? "" : trim(line.substr(0, eq));
    const std::string reason = eq == std::string::npos ? "" : trim(line.substr(eq + 1));
    if ((key != "hard" && key != "soft") || reason.empty()) {
      unreadable.push_back(path_ + ":" + std::to_string(number) + ": \"" + line +
                           "\" is neither \"hard = <reason>\" nor \"soft = <reason>\"");
      syslog(LOG_ERR, "%s", unreadable.back().c_str());
    } else if (key == grade) {
      verdict.reasons.push_back(reason);
    }
  }
  if (!unreadable.empty()) verdict.reasons = unreadable;
  verdict.reasons.insert(verdict.reasons.end(), more.begin(), more.end());
  verdict.result = verdict.reasons.empty() ? 0 : 1;
  return verdict;
}
Checker* DefaultChecker() {
  static AlwaysFeasible checker;
  return &checker;
}
namespace {
talvseam::Installed<Checker> gChecker(DefaultChecker);

#define FEASIBILITY_FAIL(code) TLIBCErrSetEx((code), "feasibility.cpp", __LINE__)

// Moves the caller's items into a new list, frees the old one and hands the
// new one back through the address.
bool Replace(TLIBC_SZLIST** ppList) {
  TLIBC_SZLIST* old = *ppList;
  TLIBC_SZLIST* fresh = TLIBCSzListAlloc(old->nSize > 0 ? old->nSize : 1);
  if (!fresh) return false;
  for (int i = 0; i < old->nItem; ++i)
    if (TLIBCSzListPush(&fresh, TLIBCSzListGet(old, i)) < 0) {
      TLIBCSzListFree(fresh);
      return false;
    }
  TLIBCSzListFree(old);
  *ppList = fresh;
  return true;
}

}  // namespace

void SetChecker(Checker* value) { gChecker.Set(value); }
Checker* CurrentChecker() { return gChecker.Get(); }

}  // namespace talvfeasibility

extern "C" int TALVFeasibilityCheck(int item, int type, TLIBC_SZLIST** ppReasons, void* reserved) {
  if (talvseam::Enter("feasibility", "TALVFeasibilityCheck", {Arg(item), Arg(type)}) || !ppReasons || !*ppReasons ||
      reserved) {
    FEASIBILITY_FAIL(TLIBC_ERR_BAD_PARAMETERS);
    return -1;
  }
  talvfeasibility::Verdict verdict = talvfeasibility::CurrentChecker()->Check(item, type);
  if (verdict.result < 0) {
    FEASIBILITY_FAIL(verdict.error);
    return verdict.result;
  }
  if (verdict.replaceList && !talvfeasibility::Replace(ppReasons)) return -1;
  for (const std::string& r : verdict.reasons)
    if (TLIBCSzListPush(ppReasons, r.c_str()) < 0) return -1;
  return verdict.result;
}
