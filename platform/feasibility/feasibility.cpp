// The platform's feasibility check.

#include "checker.h"
#include "seam/seam.h"
#include "talv/feasibility.h"

using talvseam::Arg;

namespace talvfeasibility {
namespace {

class AlwaysFeasible : public Checker {
 public:
  int Check(int, int, std::vector<std::string>*) override { return 0; }
};

}  // namespace

Checker::~Checker() = default;
Checker* DefaultChecker() {
  static AlwaysFeasible checker;
  return &checker;
}
namespace {
talvseam::Installed<Checker> gChecker(DefaultChecker);
}  // namespace

void SetChecker(Checker* value) { gChecker.Set(value); }
Checker* CurrentChecker() { return gChecker.Get(); }

}  // namespace talvfeasibility

extern "C" int TALVFeasibilityCheck(int item, int type, TLIBC_SZLIST** ppReasons, void* reserved) {
  if (talvseam::Enter("feasibility", "TALVFeasibilityCheck", {Arg(item), Arg(type)}) || !ppReasons || !*ppReasons ||
      reserved) {
    TLIBCErrSetEx(TLIBC_ERR_BAD_PARAMETERS, "feasibility.cpp", __LINE__);
    return -1;
  }
  std::vector<std::string> reasons;
  int verdict = talvfeasibility::CurrentChecker()->Check(item, type, &reasons);
  if (verdict < 0) {
    TLIBCErrSetEx(TLIBC_ERR_NOT_FOUND, "feasibility.cpp", __LINE__);
    return verdict;
  }
  for (const std::string& r : reasons)
    if (TLIBCSzListPush(ppReasons, r.c_str()) < 0) return -1;
  return verdict;
}
