#include "conditions.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

#include "pellix/backend.h"
#include "seam/seam.h"
#include "text.h"

namespace pellixsim {

using webapihost::Compact;
using webapihost::Cut;
using webapihost::OneLine;
using webapihost::ParseJson;
using webapihost::Shown;

namespace {

// Past the module's 30-second transfer limit, short of a host that seems hung.
constexpr int kMaxDelayMs = 600000;
constexpr int kMaxAccountError = 25;
constexpr int kUnreachable = 4;
const char kUnreachableWhat[] = "Pellix account service is not reachable";
const char kEffects[] = "account_error, delay_ms (above 0), unreachable, pkce_throw, account_php or logout_refusal";
const char kPhpModes[] = R"("stall", "close", "not-tls", "status:NNN", "keyword:TEXT", "wrong-name" or "expired")";

thread_local const RequestUnderWay* tRequest = nullptr;
// Version-1 registration alone reaches account.php, one at a time: the
// connection account.php takes is the one of the registration under way.
std::mutex gAlone;                        // held by the registration under way
std::mutex gReaching;                     // guards gRegistration
std::string gRegistration;                // "API VERSION METHOD" of the registration under way, "" none
RequestUnderWay* gRegistering = nullptr;  // the registration under way

bool Whole(const Json::Value& v, int low, int high) { return v.isInt() && v.asInt() >= low && v.asInt() <= high; }

std::string Joined(const std::vector<std::string>& names) {
  std::string out;
  for (const std::string& n : names) out += (out.empty() ? "" : ", ") + n;
  return out;
}

// account.php's conduct as the member names it; false when it names none.
bool ParseConduct(const std::string& text, Conduct* conduct) {
  using C = Conduct;
  static const std::pair<const char*, C::Mode> kPlain[] = {{"stall", C::kStall},
                                                           {"close", C::kClose},
                                                           {"not-tls", C::kNotTls},
                                                           {"wrong-name", C::kWrongName},
                                                           {"expired", C::kExpired}};
  for (const auto& p : kPlain)
    if (text == p.first) {
      conduct->mode = p.second;
      return true;
    }
  if (text.rfind("status:", 0) == 0) {
    const std::string digits = text.substr(7);
    if (digits.size() != 3 || !std::all_of(digits.begin(), digits.end(), [](char d) { return d >= '0' && d <= '9'; }))
      return false;
    conduct->mode = C::kStatus;
    conduct->status = std::stoi(digits);
    return conduct->status >= 100 && conduct->status <= 599;
  }
  if (text.rfind("keyword:", 0) == 0 && text.size() > 8) {
    conduct->mode = C::kKeyword;
    conduct->keyword = text.substr(8);
    return true;
  }
  return false;
}

std::string CheckRefusal(const Json::Value& r) {
  if (!r.isObject())
    return R"("logout_refusal" must be an object such as {"grade":"soft","reason":"A backup is running"}, not )" +
           Shown(r);
  for (const std::string& name : r.getMemberNames())
    if (name != "grade" && name != "reason")
      return "\"logout_refusal." + Cut(name) + "\" is no member of logout_refusal, which has grade and reason";
  if (r["grade"] != "hard" && r["grade"] != "soft")
    return R"("logout_refusal.grade" must be "hard" or "soft", not )" + Shown(r["grade"]);
  if (!r["reason"].isString() || r["reason"].asString().empty())
    return R"("logout_refusal.reason" must be the text of the reason, not )" + Shown(r["reason"]);
  return "";
}

std::string CheckPkce(const Json::Value& p) {
  if (!p.isObject()) return R"("pkce_throw" must be an object such as {"code":4,"what":"..."}, not )" + Shown(p);
  for (const std::string& name : p.getMemberNames())
    if (name != "code" && name != "what")
      return "\"pkce_throw." + Cut(name) + "\" is no member of pkce_throw, which has code and what";
  if (!p.isMember("code")) return R"("pkce_throw.code" is missing: give the account error number it throws, 0 to 25)";
  if (!Whole(p["code"], 0, kMaxAccountError))
    return R"("pkce_throw.code" must be an account error number from 0 to 25, not )" + Shown(p["code"]);
  if (p.isMember("what") && !p["what"].isString())
    return R"("pkce_throw.what" must be the exception's message, a text, not )" + Shown(p["what"]);
  return "";
}

std::string CheckOperations(const Json::Value& ops) {
  const std::vector<std::string>& known = talvpellix::OperationNames();
  if (!ops.isArray() || ops.empty())
    return R"("operations" must be a non-empty array of the account-client library's operations, such as )"
           R"(["TALVPELLIXAccountLogin"], not )" +
           Shown(ops);
  for (const Json::Value& op : ops) {
    if (!op.isString()) return R"("operations" must hold names of operations, not )" + Shown(op);
    if (std::find(known.begin(), known.end(), op.asString()) == known.end())
      return "\"operations\" names \"" + Cut(op.asString()) +
             "\", which is no operation of the account-client library; it has " + Joined(known);
  }
  return "";
}

std::string CheckConduct(const Json::Value& php) {
  Conduct conduct;
  if (php.isString() && ParseConduct(php.asString(), &conduct)) return "";
  return R"("account_php" must be one of )" + std::string(kPhpModes) + ", not " + Shown(php);
}

// The members of a condition, each with why a value of it is wrong ("" when
// it is not), in the order they are checked. A new failure mode is a row
// here, and the code that plays it in Conditions::Set (a fault of the seam's
// plan, account.php's conduct, or the sign-out check's reasons).
struct Member {
  const char* name;
  std::string (*check)(const Json::Value&);
};
const Member kMembers[] = {
    {"account_error",
     [](const Json::Value& v) -> std::string {
       if (Whole(v, 0, kMaxAccountError)) return "";
       return R"("account_error" must be an account error number from 0 to 25, not )" + Shown(v);
     }},
    {"operations", CheckOperations},
    {"times",
     [](const Json::Value& v) -> std::string {
       if (Whole(v, 1, INT_MAX)) return "";
       return R"("times" must be a whole number of calls from 1 up, not )" + Shown(v) +
              "; leave it out for a condition that lasts until it is cleared";
     }},
    {"delay_ms",
     [](const Json::Value& v) -> std::string {
       if (Whole(v, 0, kMaxDelayMs)) return "";
       return R"("delay_ms" must be a whole number of milliseconds from 0 to 600000, not )" + Shown(v);
     }},
    {"unreachable",
     [](const Json::Value& v) -> std::string {
       if (v == true) return "";
       return R"("unreachable" can only be true, not )" + Shown(v) + "; leave it out for a service that can be reached";
     }},
    {"pkce_throw", CheckPkce},
    {"account_php", CheckConduct},
    {"logout_refusal", CheckRefusal},
};

// Why each member alone is wrong, else why they are wrong together.
std::string CheckOne(const Json::Value& c) {
  if (!c.isObject()) return "a condition is a JSON object, not " + Shown(c);
  std::string names;
  for (size_t i = 0; i < std::size(kMembers); ++i)
    names += (i == 0 ? "" : i + 1 == std::size(kMembers) ? " and " : ", ") + std::string(kMembers[i].name);
  for (const std::string& name : c.getMemberNames())
    if (std::none_of(std::begin(kMembers), std::end(kMembers), [&](const Member& m) { return name == m.name; }))
      return "\"" + Cut(name) + "\" is no member of a condition, which may have " + names;
  if (c.empty()) return std::string("the condition is empty: say what it does with ") + kEffects;
  for (const Member& m : kMembers) {
    std::string problem = c.isMember(m.name) ? m.check(c[m.name]) : "";
    if (!problem.empty()) return problem;
  }
  if (c.isMember("logout_refusal"))
    for (const std::string& name : c.getMemberNames())
      if (name != "logout_refusal")
        return "\"logout_refusal\" and \"" + name +
               "\" cannot be combined in one condition: a sign-out refusal stands alone and lasts until it is "
               "cleared";
  // Members that contradict each other, or one that cannot apply to what
  // the other names.
  static const char* const kClashes[][3] = {
      {"account_error", "unreachable", "unreachable fails every operation with error 4"},
      {"account_error", "pkce_throw", "each says how the PKCE service fails; set two conditions"},
      {"pkce_throw", "unreachable", "unreachable makes the PKCE service throw error 4"},
      {"account_php", "unreachable", "an unreachable account.php refuses every connection"},
      {"account_php", "account_error",
       "account.php is reached by version-1 registration, not by the account-client library; set two conditions"},
      {"account_php", "pkce_throw",
       "account.php is reached by version-1 registration, not by the account-client library; set two conditions"},
      {"account_php", "operations",
       "account.php is reached by version-1 registration, not by an operation of the account-client library"},
  };
  for (const auto& clash : kClashes)
    if (c.isMember(clash[0]) && c.isMember(clash[1]))
      return "\"" + std::string(clash[0]) + "\" and \"" + clash[1] +
             "\" cannot be combined in one condition: " + clash[2];
  if (c.isMember("pkce_throw") && c.isMember("operations"))
    for (const Json::Value& op : c["operations"])
      if (!talvpellix::IsPkceOperation(op.asString()))
        return "\"operations\" names \"" + op.asString() +
               "\", which does not throw: pkce_throw applies to the PKCE service's operations "
               "(AccountPkceService::...)";
  const bool does = c.isMember("account_error") || c.isMember("unreachable") || c.isMember("pkce_throw") ||
                    c.isMember("account_php") || c.isMember("logout_refusal") || c["delay_ms"].asInt() > 0;
  if (!does)
    return std::string(
               "the condition does nothing: operations and times only say which calls and how many; "
               "give ") +
           kEffects;
  return "";
}

}  // namespace

Conditions::Conditions(FILE* log) : log_(log) {}

Conditions::~Conditions() {
  std::lock_guard<std::mutex> lock(mu_);
  for (const auto& e : entries_)
    if (e.second.fault) talvseam::RemoveFault(e.second.fault);
}

std::string Conditions::Check(const Json::Value& value, bool many) {
  if (!value.isArray()) return CheckOne(value);
  if (!many) return "the body is an array: send one condition, a JSON object, at a time";
  for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
    const std::string problem = CheckOne(value[i]);
    if (!problem.empty())
      return "condition " + std::to_string(i + 1) + " of " + std::to_string(value.size()) + ": " + problem;
  }
  return "";
}

bool Conditions::ReadFile(const std::string& path, Json::Value* value, std::string* error) {
  struct stat file {};
  std::ifstream in;
  if (stat(path.c_str(), &file) == 0 && S_ISDIR(file.st_mode))
    errno = EISDIR;
  else
    in.open(path, std::ios::binary);
  if (!in.is_open()) {
    *error = "cannot read the conditions file " + path + ": " + std::strerror(errno);
    return false;
  }
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::string problem;
  if (!ParseJson(text, value, &problem)) {
    *error = "the conditions file " + path + " is not JSON: " + problem;
    return false;
  }
  problem = Check(*value, true);
  if (!problem.empty()) *error = "the conditions file " + path + ": " + problem;
  return problem.empty();
}

std::vector<int> Conditions::Set(const Json::Value& value, bool many, std::string* problem) {
  *problem = Check(value, many);
  if (!problem->empty()) return {};
  Json::Value all(Json::arrayValue);
  if (value.isArray()) {
    all = value;
  } else {
    all.append(value);
  }
  std::vector<int> ids;
  for (const Json::Value& c : all) {
    InForce e;
    e.condition = c;
    e.left = c.isMember("times") ? c["times"].asInt() : -1;
    e.unreachable = c.isMember("unreachable");
    const int delay = c["delay_ms"].asInt();
    e.conducts = c.isMember("account_php") && ParseConduct(c["account_php"].asString(), &e.conduct);
    // A delay of the whole service holds account.php's answers too.
    e.delaysPhp = delay > 0 && (e.conducts || !c.isMember("operations"));
    e.conduct.delayMs = delay;
    if (c.isMember("logout_refusal")) {
      e.grade = c["logout_refusal"]["grade"].asString();
      e.reason = c["logout_refusal"]["reason"].asString();
    }
    talvseam::Fault f;
    f.service = "pellix";
    for (const Json::Value& op : c["operations"]) f.ops.push_back(op.asString());
    if (c.isMember("pkce_throw") && f.ops.empty())
      for (const std::string& op : talvpellix::OperationNames())
        if (talvpellix::IsPkceOperation(op)) f.ops.push_back(op);
    f.times = e.left;
    f.delayMs = delay;
    f.code = e.unreachable ? kUnreachable : c.isMember("pkce_throw") ? c["pkce_throw"]["code"].asInt() : 0;
    f.code = c.isMember("account_error") ? c["account_error"].asInt() : f.code;
    f.what = e.unreachable ? kUnreachableWhat : c["pkce_throw"]["what"].asString();
    f.fails = c.isMember("account_error") || e.unreachable || c.isMember("pkce_throw");
    const bool faults = f.fails || (delay > 0 && !e.conducts);
    int id = 0;
    {
      std::lock_guard<std::mutex> lock(mu_);
      id = ++lastId_;
      entries_[id] = e;
      Log("condition " + std::to_string(id) + " set: " + Compact(c));
      if (faults) {
        // What a bite did, for its log line.
        f.bitten = [this, id, f = f](const talvseam::Call& call) {
          std::string what = call.op;
          if (f.delayMs > 0) what += " delayed " + std::to_string(f.delayMs) + " ms" + (f.fails ? ", then" : "");
          if (f.fails && talvpellix::IsPkceOperation(call.op))
            what += " threw code " + std::to_string(f.code) + (f.what.empty() ? "" : " \"" + f.what + "\"");
          else if (f.fails)
            what += " failed with account error " + std::to_string(f.code);
          Bitten(id, false, what);
          UsedOne(id);
        };
        entries_[id].fault = talvseam::AddFault(f);
      }
    }
    ids.push_back(id);
  }
  Reach();
  return ids;
}

bool Conditions::Clear(int id) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(id);
    if (it == entries_.end()) return false;
    if (it->second.fault) talvseam::RemoveFault(it->second.fault);
    entries_.erase(it);
    Log("condition " + std::to_string(id) + " cleared");
  }
  Reach();
  return true;
}

std::vector<int> Conditions::ClearAll() {
  std::vector<int> ids;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (const auto& e : entries_) {
      if (e.second.fault) talvseam::RemoveFault(e.second.fault);
      ids.push_back(e.first);
      Log("condition " + std::to_string(e.first) + " cleared");
    }
    entries_.clear();
  }
  Reach();
  return ids;
}

Json::Value Conditions::List() const {
  Json::Value list(Json::arrayValue);
  std::lock_guard<std::mutex> lock(mu_);
  for (const auto& e : entries_) {
    Json::Value c = e.second.condition;
    c["id"] = e.first;
    if (e.second.left >= 0) c["left"] = e.second.left;
    list.append(c);
  }
  Json::Value all(Json::objectValue);
  all["conditions"] = list;
  return all;
}

std::vector<std::string> Conditions::LogoutReasons(const std::string& grade) {
  std::vector<std::string> reasons;
  std::vector<int> ids;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (const auto& e : entries_)
      if (e.second.grade == grade) {
        reasons.push_back(e.second.reason);
        ids.push_back(e.first);
      }
  }
  for (size_t i = 0; i < ids.size(); ++i)
    Bitten(ids[i], false, "a " + grade + " sign-out refusal \"" + reasons[i] + "\"");
  return reasons;
}

Conduct Conditions::NextConduct() {
  Conduct conduct;
  std::vector<std::pair<int, std::string>> bites;
  int chosen = 0;
  {
    std::lock_guard<std::mutex> lock(mu_);
    // The oldest conduct; the delays add up, as the seam's do.
    for (const auto& e : entries_) {
      const InForce& c = e.second;
      if (c.conducts && !chosen) {
        chosen = e.first;
        const int delay = conduct.delayMs;
        conduct = c.conduct;
        conduct.delayMs += delay;
        bites.emplace_back(e.first, "account.php " + Compact(c.condition["account_php"]) +
                                        (c.delaysPhp ? ", delay_ms " + std::to_string(c.conduct.delayMs) : ""));
      } else if (c.delaysPhp && !c.conducts) {
        conduct.delayMs += c.conduct.delayMs;
        bites.emplace_back(e.first, "account.php answers after " + std::to_string(c.conduct.delayMs) + " ms");
      }
    }
  }
  for (const auto& bite : bites) Bitten(bite.first, true, bite.second);
  if (chosen) UsedOne(chosen);
  return conduct;
}

void Conditions::Log(const std::string& line) {
  if (!log_) return;
  (void)std::fprintf(log_, "%s\n", OneLine(line).c_str());
  (void)std::fflush(log_);
}

void Conditions::Bitten(int id, bool atAccountPhp, const std::string& what) {
  const std::string request = atAccountPhp ? RequestUnderWay::ReachingAccountPhp() : RequestUnderWay::OfThisThread();
  RequestUnderWay::Note(atAccountPhp, "condition " + std::to_string(id) + ": " + what);
  Log("condition " + std::to_string(id) + " bit " + (request.empty() ? "no web API request" : request) + ": " + what);
}

void Conditions::UsedOne(int id) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(id);
    if (it == entries_.end() || it->second.left < 0 || --it->second.left > 0) return;
    // The seam drops its fault by itself; one of account.php's is the registry's.
    if (it->second.fault) talvseam::RemoveFault(it->second.fault);
    entries_.erase(it);
    Log("condition " + std::to_string(id) + " cleared: used up");
  }
  Reach();
}

void Conditions::Reach() {
  std::lock_guard<std::mutex> reaching(reachMu_);
  bool refuse = false;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (const auto& e : entries_) refuse = refuse || e.second.unreachable;
  }
  if (refuse != refusing_ && reachable_) reachable_(!refuse);
  refusing_ = refuse;
}

RequestUnderWay::RequestUnderWay(const std::string& api, int version, const std::string& method)
    : api_(api),
      version_(version),
      method_(method),
      outer_(tRequest),
      registration_(version == 1 && method == "register" && api == "TALV.Core.PellixCenter") {
  tRequest = this;
  if (!registration_) return;
  alone_ = std::unique_lock<std::mutex>(gAlone);
  std::lock_guard<std::mutex> lock(gReaching);
  gRegistration = OfThisThread();
  gRegistering = this;
}

RequestUnderWay::~RequestUnderWay() {
  tRequest = outer_;
  if (!registration_) return;
  std::lock_guard<std::mutex> lock(gReaching);
  gRegistration.clear();
  gRegistering = nullptr;
}

void RequestUnderWay::Note(bool atAccountPhp, const std::string& bite) {
  std::unique_lock<std::mutex> reaching(gReaching, std::defer_lock);
  if (atAccountPhp) reaching.lock();
  RequestUnderWay* r = atAccountPhp ? gRegistering : const_cast<RequestUnderWay*>(tRequest);
  if (!r) return;
  std::lock_guard<std::mutex> lock(r->bitesMu_);
  r->bites_.push_back(bite);
}

std::vector<std::string> RequestUnderWay::Bites() const {
  std::lock_guard<std::mutex> lock(bitesMu_);
  return bites_;
}

std::string RequestUnderWay::OfThisThread() {
  const RequestUnderWay* r = tRequest;
  return r ? Cut(r->api_) + " " + std::to_string(r->version_) + " " + Cut(r->method_) : "";
}

std::string RequestUnderWay::ReachingAccountPhp() {
  std::lock_guard<std::mutex> lock(gReaching);
  return gRegistration;
}

}  // namespace pellixsim
