// Seam of the feasibility-check stand-in: the verdict of one check. The
// default finds every operation feasible, with no reasons.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "talv/tlibc.h"

namespace talvfeasibility {

struct Verdict {
  int result = 0;                    // 0 feasible, greater than 0 refused, negative: the check fails
  std::vector<std::string> reasons;  // appended to the caller's list, in this order (not when failing)
  // Hand the caller a new list through the address it gave (its items, then
  // the reasons) and free the one it passed, as the platform may do.
  bool replaceList = false;
  int error = TLIBC_ERR_NOT_FOUND;  // the core library's error state when failing
};

class Checker {
 public:
  virtual ~Checker();
  virtual Verdict Check(int item, int type) = 0;
};

// One verdict per check type (grade); a grade not scripted is feasible.
class ScriptedChecker : public Checker {
 public:
  ScriptedChecker& Set(int type, Verdict verdict) {
    verdicts_[type] = std::move(verdict);
    return *this;
  }
  Verdict Check(int, int type) override {
    auto it = verdicts_.find(type);
    return it == verdicts_.end() ? Verdict{} : it->second;
  }

 private:
  std::map<int, Verdict> verdicts_;
};

// Reads the refusal reasons of the account sign-out afresh on every check
// from a text file, so that they can be changed while the host runs:
//
//   # a comment
//   hard = A backup to the cloud is running
//   soft = The cloud drive is mounted
//
// Each line gives one reason of its grade; a grade with reasons refuses. No
// file: every grade is feasible. A line of another form ("Soft = x", "hrad =
// x", "hard =") is logged with the file's path and its number, and refuses
// every grade with that line as the reason. `more`, when given, adds the
// reasons of a grade ("hard" or "soft") held elsewhere (the development
// host's conditions) after the file's.
class ReasonsFileChecker : public Checker {
 public:
  using More = std::function<std::vector<std::string>(const std::string& grade)>;
  explicit ReasonsFileChecker(std::string path, More more = nullptr) : path_(std::move(path)), more_(std::move(more)) {}
  Verdict Check(int item, int type) override;

 private:
  std::string path_;
  More more_;
};

Checker* DefaultChecker();
// Installs `checker` (not owned); nullptr restores the default.
void SetChecker(Checker* checker);
Checker* CurrentChecker();

}  // namespace talvfeasibility
