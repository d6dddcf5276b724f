// The platform's feasibility check.

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
