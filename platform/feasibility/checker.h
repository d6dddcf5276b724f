// Seam of the feasibility-check stand-in: the verdict and reasons for one
// check. The default finds every operation feasible, with no reasons.
#pragma once

#include <string>
#include <vector>

namespace talvfeasibility {

class Checker {
 public:
  virtual ~Checker();
  // 0 feasible, greater than 0 not feasible, negative: the check failed.
  virtual int Check(int item, int type, std::vector<std::string>* reasons) = 0;
};

Checker* DefaultChecker();
// Installs `checker` (not owned); nullptr restores the default.
void SetChecker(Checker* checker);
Checker* CurrentChecker();

}  // namespace talvfeasibility
