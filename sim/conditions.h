// Conditions of the simulated account service: the failures, delays and
// misbehaviours a running host plays on request (POST /sim/conditions, serve
// --conditions FILE), so that every answer of the module can be seen, not
// only the happy path.
//
// A condition is one JSON object whose members say what it does:
//   account_error   0 to 25: the account operations fail with that error
//   operations      the account-client library's operations it applies to
//                   (the names the pellix stand-in journals); absent: every one
//   times           how many calls it applies to; absent: until cleared
//   delay_ms        waited before the operation answers or fails
//   unreachable     true: every operation fails with error 4, the PKCE
//                   service throws 4, and account.php refuses connections
//   pkce_throw      {"code": N, "what": "..."}: the PKCE service throws
//   account_php     how account.php treats a connection: "stall", "close",
//                   "not-tls", "status:NNN", "keyword:TEXT", "wrong-name",
//                   "expired"
//   logout_refusal  {"grade": "hard"|"soft", "reason": "..."}: a reason the
//                   sign-out feasibility check gives beside its file's
// What works on the account operations is a fault of the seam's fault plan
// (seam.h): there is one mechanism, and its faults count the calls. account.php
// is asked per connection (NextConduct), the sign-out check per check.
//
// Each condition is logged when it is set, each time it bites (with the web
// API request it bit) and when it is cleared. Safe for concurrent use.
#pragma once

#include <json/value.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "tls_endpoint.h"

namespace pellixsim {

class Conditions {
 public:
  explicit Conditions(FILE* log);  // nullptr: nothing logged
  ~Conditions();                   // clears every condition
  Conditions(const Conditions&) = delete;
  Conditions& operator=(const Conditions&) = delete;

  // Why `value` cannot be set: one condition, or when `many` an array of
  // them too; "" when it can. The sentence names the member at fault.
  static std::string Check(const Json::Value& value, bool many);
  // Reads a file of conditions (one object or an array of them) and checks
  // them: false with *error naming the file, and the condition and member at
  // fault.
  static bool ReadFile(const std::string& path, Json::Value* value, std::string* error);
  // Sets what Check() accepts, all or nothing: the new ids, or none with
  // *problem.
  std::vector<int> Set(const Json::Value& value, bool many, std::string* problem);
  // False when no condition has that id.
  bool Clear(int id);
  // The ids cleared.
  std::vector<int> ClearAll();
  // {"conditions":[{"id":N, ...its members..., "left":N}]}, oldest first;
  // "left" only for a condition with "times".
  Json::Value List() const;

  // The reasons of the sign-out grade ("hard" or "soft") in force.
  std::vector<std::string> LogoutReasons(const std::string& grade);
  // How account.php treats the connection it has just accepted.
  Conduct NextConduct();
  // Told false when account.php must refuse connections, true when it may
  // take them again. Set before any condition.
  void OnReachable(std::function<void(bool)> reachable) { reachable_ = std::move(reachable); }

 private:
  struct InForce {
    Json::Value condition;      // as it was set
    int left = -1;              // calls or connections it applies to yet; -1 until cleared
    int fault = 0;              // its fault in the seam's plan, 0 none
    bool unreachable = false;   // account.php refuses connections
    bool conducts = false;      // account.php treats connections as `conduct` says
    bool delaysPhp = false;     // account.php waits `conduct.delayMs` before it answers
    Conduct conduct;            // for account.php
    std::string grade, reason;  // a sign-out refusal, when grade is not empty
  };
  void Log(const std::string& line);
  // Logs a bite, and notes it on the request it bit: the calling thread's, or
  // the registration whose connection account.php took.
  void Bitten(int id, bool atAccountPhp, const std::string& what);
  // Drops a condition whose times are used up.
  void UsedOne(int id);
  // account.php's reachability after a change.
  void Reach();

  FILE* log_;
  mutable std::mutex mu_;
  std::map<int, InForce> entries_;
  int lastId_ = 0;
  std::function<void(bool)> reachable_;
  std::mutex reachMu_;  // taken before mu_
  bool refusing_ = false;
};

// The web API request the calling thread runs, named in the log lines of the
// conditions it bites, for as long as this lives.
class RequestUnderWay {
 public:
  RequestUnderWay(const std::string& api, int version, const std::string& method);
  ~RequestUnderWay();
  RequestUnderWay(const RequestUnderWay&) = delete;
  RequestUnderWay& operator=(const RequestUnderWay&) = delete;
  // "API VERSION METHOD" of the calling thread's request ("" when none).
  static std::string OfThisThread();
  // "API VERSION METHOD" of the request whose connection account.php has
  // taken: version-1 registration alone reaches it, and those run one at a
  // time (this holds the next one back for as long as it lives); "" when
  // none is under way.
  static std::string ReachingAccountPhp();
  // The bites of conditions on this request, "condition N: what", in order.
  std::vector<std::string> Bites() const;
  // Notes a bite on the calling thread's request, or (atAccountPhp) on the
  // registration whose connection account.php took; none: nothing.
  static void Note(bool atAccountPhp, const std::string& bite);

 private:
  const std::string& api_;
  const int version_;
  const std::string& method_;
  const RequestUnderWay* outer_;
  const bool registration_;
  std::unique_lock<std::mutex> alone_;
  mutable std::mutex bitesMu_;
  std::vector<std::string> bites_;  // under bitesMu_
};

}  // namespace pellixsim
