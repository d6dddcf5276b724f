#include "seam.h"

#include <json/writer.h>

#include <atomic>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <sstream>

namespace talvseam {
namespace {

constexpr size_t kJournalLimit = 4096;

struct Fault {
  std::string op;
  int remaining;  // calls to let through before failing
  bool persistent;
  int code;
  bool spent;
};

struct State {
  std::mutex mu;
  std::deque<Call> journal;
  std::vector<Fault> faults;
  int calls = 0;
  std::atomic<bool> journaling{true};
  bool sysrootOverridden = false;
  std::string sysroot;
};

State& S() {
  static State* state = new State();  // never destroyed: stand-ins may run during exit
  return *state;
}

void Record(State& s, const char* service, const char* op, std::vector<std::string> args) {
  if (!s.journaling) return;
  s.journal.push_back(Call{service, op, std::move(args)});
  if (s.journal.size() > kJournalLimit) s.journal.pop_front();
}

}  // namespace

void Note(const char* service, const char* op, std::vector<std::string> args) {
  State& s = S();
  if (!s.journaling) return;
  std::lock_guard<std::mutex> lock(s.mu);
  Record(s, service, op, std::move(args));
}

bool Enter(const char* service, const char* op, std::vector<std::string> args, int* code) {
  State& s = S();
  std::lock_guard<std::mutex> lock(s.mu);
  Record(s, service, op, std::move(args));
  ++s.calls;
  bool fail = false;
  for (Fault& f : s.faults) {
    if (f.spent || (f.op != "*" && f.op != op)) continue;
    if (f.remaining > 0) {
      --f.remaining;
      continue;
    }
    if (!fail && code) *code = f.code;
    fail = true;
    if (!f.persistent) f.spent = true;
  }
  if (fail && s.journaling && !s.journal.empty()) s.journal.back().failed = true;
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

void InjectFault(const std::string& op, int after, bool persistent, int code) {
  std::lock_guard<std::mutex> lock(S().mu);
  S().faults.push_back(Fault{op, after < 0 ? 0 : after, persistent, code, false});
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
