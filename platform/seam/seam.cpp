#include "seam.h"

#include <json/writer.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

namespace talvseam {
namespace {

constexpr size_t kJournalLimit = 4096;

struct State {
  std::mutex mu;
  std::deque<Call> journal;
  std::vector<PlannedFault> faults;  // oldest first
  int lastId = 0;
  int calls = 0;
  std::atomic<bool> journaling{true};
  bool sysrootOverridden = false;
  std::string sysroot;
};

State& S() {
  static State* state = new State();  // never destroyed: stand-ins may run during exit
  return *state;
}

void Record(State& s, const char* service, const char* op, std::vector<std::string> args, bool failed = false) {
  if (!s.journaling) return;
  s.journal.push_back(Call{service, op, std::move(args), failed});
  if (s.journal.size() > kJournalLimit) s.journal.pop_front();
}

bool Matches(const Fault& f, const char* service, const char* op) {
  if (!f.service.empty() && f.service != service) return false;
  return f.ops.empty() || std::find(f.ops.begin(), f.ops.end(), op) != f.ops.end();
}

}  // namespace

void Note(const char* service, const char* op, std::vector<std::string> args) {
  State& s = S();
  if (!s.journaling) return;
  std::lock_guard<std::mutex> lock(s.mu);
  Record(s, service, op, std::move(args));
}

bool Enter(const char* service, const char* op, std::vector<std::string> args, int* code, std::string* what) {
  State& s = S();
  bool fail = false;
  long long delayMs = 0;
  std::vector<std::function<void(const Call&)>> bitten;
  Call call;  // what the bitten are told
  {
    std::lock_guard<std::mutex> lock(s.mu);
    ++s.calls;
    for (auto it = s.faults.begin(); it != s.faults.end();) {
      Fault& f = it->fault;
      if (!Matches(f, service, op)) {
        ++it;
        continue;
      }
      if (f.after > 0) {
        --f.after;
        ++it;
        continue;
      }
      delayMs += f.delayMs > 0 ? f.delayMs : 0;
      if (f.fails && !fail) {
        if (code) *code = f.code;
        if (what) *what = f.what;
      }
      fail = fail || f.fails;
      if (f.bitten) bitten.push_back(f.bitten);
      if (f.times > 0 && --f.times == 0) {
        it = s.faults.erase(it);
      } else {
        ++it;
      }
    }
    if (!bitten.empty()) call = Call{service, op, args, fail};
    Record(s, service, op, std::move(args), fail);
  }
  for (const auto& told : bitten) told(call);
  if (delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
  return fail;
}

std::vector<Call> Journal() {
  std::lock_guard<std::mutex> lock(S().mu);
  return std::vector<Call>(S().journal.begin(), S().journal.end());
}

std::vector<Call> JournalOf(const std::string& op) {
  std::vector<Call> out;
  for (Call& c : Journal())
    if (c.op == op) out.push_back(std::move(c));
  return out;
}

void ClearJournal() {
  std::lock_guard<std::mutex> lock(S().mu);
  S().journal.clear();
  S().calls = 0;
}

void SetJournaling(bool on) {
  std::lock_guard<std::mutex> lock(S().mu);
  S().journaling = on;
}

int AddFault(Fault fault) {
  std::lock_guard<std::mutex> lock(S().mu);
  const int id = ++S().lastId;
  if (fault.after < 0) fault.after = 0;
  if (fault.times != 0) S().faults.push_back(PlannedFault{id, std::move(fault)});
  return id;
}

bool RemoveFault(int id) {
  std::lock_guard<std::mutex> lock(S().mu);
  std::vector<PlannedFault>& faults = S().faults;
  auto it = std::find_if(faults.begin(), faults.end(), [id](const PlannedFault& p) { return p.id == id; });
  if (it == faults.end()) return false;
  faults.erase(it);
  return true;
}

std::vector<PlannedFault> Faults() {
  std::lock_guard<std::mutex> lock(S().mu);
  return S().faults;
}

void InjectFault(const std::string& op, int after, bool persistent, int code) {
  Fault f;
  if (op != "*") f.ops = {op};
  f.after = after;
  f.times = persistent ? -1 : 1;
  f.code = code;
  AddFault(std::move(f));
}

void ClearFaults() {
  std::lock_guard<std::mutex> lock(S().mu);
  S().faults.clear();
  S().calls = 0;
}

int CallCount() {
  std::lock_guard<std::mutex> lock(S().mu);
  return S().calls;
}

std::string Sysroot() {
  std::lock_guard<std::mutex> lock(S().mu);
  if (S().sysrootOverridden) return S().sysroot;
  const char* env = std::getenv("TALV_SYSROOT");
  return env ? env : "";
}

void SetSysroot(const std::string& path) {
  std::lock_guard<std::mutex> lock(S().mu);
  S().sysrootOverridden = !path.empty();
  S().sysroot = path;
}

std::string ResolvePath(const std::string& absolute) {
  std::string root = Sysroot();
  while (!root.empty() && root.back() == '/') root.pop_back();
  if (root.empty() || absolute.empty() || absolute[0] != '/') return absolute;
  return root + absolute;
}

std::string Arg(const char* text) { return text ? text : "(null)"; }
std::string Arg(int value) { return std::to_string(value); }
std::string Arg(const Json::Value& value) {
  // Every journaled request read renders its default: keep the common
  // scalars off the writer, and make the writer once per thread.
  switch (value.type()) {
    case Json::nullValue: return "null";
    case Json::booleanValue: return value.asBool() ? "true" : "false";
    case Json::intValue: return std::to_string(value.asLargestInt());
    case Json::uintValue: return std::to_string(value.asLargestUInt());
    default: break;
  }
  thread_local std::unique_ptr<Json::StreamWriter> writer = [] {
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    return std::unique_ptr<Json::StreamWriter>(b.newStreamWriter());
  }();
  std::ostringstream out;
  writer->write(value, &out);
  return out.str();
}

void Reset() {
  SetJournaling(true);
  ClearJournal();
  ClearFaults();
  SetSysroot("");
}

}  // namespace talvseam
