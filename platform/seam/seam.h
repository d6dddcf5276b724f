// What every platform stand-in shares: a journal of calls, a fault plan and
// the sysroot under which fixed absolute paths are looked up.
//
// Each stand-in calls Enter() first in every exported operation: the call is
// journaled, and Enter() says whether the fault plan wants it to fail. What a
// failure looks like (a null result, an error number, an exception) is the
// stand-in's own. All functions are safe for concurrent use.
#pragma once

#include <json/value.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace talvseam {

struct Call {
  std::string service;            // "pellix", "tlibc", "sdk", ...
  std::string op;                 // the operation's exported name
  std::vector<std::string> args;  // rendered; a null text is "(null)"
  bool failed = false;            // the fault plan made it fail
};

// Records the call and returns true when the fault plan makes it fail; the
// fault's code is then in *code and its message in *what (when not null).
// A fault's delay is waited here, before it returns.
bool Enter(const char* service, const char* op, std::vector<std::string> args, int* code = nullptr,
           std::string* what = nullptr);
// Records a call that cannot fail (a free, a read of a request parameter): no
// fault applies to it and it does not count in CallCount().
void Note(const char* service, const char* op, std::vector<std::string> args);

// The journal keeps the most recent 4096 calls.
std::vector<Call> Journal();
std::vector<Call> JournalOf(const std::string& op);
void ClearJournal();
// Off: calls are neither kept nor (for Note) locked for; faults and counts go
// on. For measuring the module rather than the stand-ins' bookkeeping.
void SetJournaling(bool on);

// Fault plan, in the manner of a VFS fault simulator: each fault matches some
// calls, lets the first `after` of them pass and then applies to the next
// `times` of them, waiting `delayMs` and, when it `fails`, failing them with
// `code`. A call that several faults fail gets the code of the oldest; the
// delays add up. A fault whose times are used up goes away by itself.
struct Fault {
  std::string service;           // "" any service, else "pellix", "cloud", ...
  std::vector<std::string> ops;  // empty: every operation of the service
  int after = 0;                 // matching calls that pass first
  int times = 1;                 // matching calls it applies to; -1 until removed
  int code = 0;                  // the failure's error number
  std::string what;              // the message of failures that throw (the PKCE service's)
  int delayMs = 0;               // waited before the call goes on or fails
  bool fails = true;             // false: only the delay
  // Told each time the fault applies, on the caller's thread, outside the
  // seam's lock (so it may call the seam), before the delay.
  std::function<void(const Call&)> bitten;
};
struct PlannedFault {
  int id;
  Fault fault;  // `times` is what is left of it
};
// The fault's id, greater than 0.
int AddFault(Fault fault);
// False when no fault has that id (any more).
bool RemoveFault(int id);
std::vector<PlannedFault> Faults();
// Operation `op` ("*" for any platform operation) fails with `code` on its
// (after+1)-th call counted from now, and, when `persistent`, on every call
// after that too.
void InjectFault(const std::string& op, int after, bool persistent, int code);
void ClearFaults();
// Number of platform calls that can fail made since the last ClearFaults() or ClearJournal().
int CallCount();

// TALV_SYSROOT from the environment unless SetSysroot() was called; "" means
// the real root.
std::string Sysroot();
void SetSysroot(const std::string& path);  // "" restores the environment's
// `absolute` as seen under the sysroot.
std::string ResolvePath(const std::string& absolute);

// Argument renderers for Enter().
std::string Arg(const char* text);
std::string Arg(int value);
std::string Arg(const Json::Value& value);

// The object a seam forwards to: the installed one, or the default.
template <typename T>
class Installed {
 public:
  constexpr explicit Installed(T* (*fallback)()) : fallback_(fallback) {}
  void Set(T* value) { value_.store(value); }  // nullptr restores the default
  T* Get() const {
    T* value = value_.load();
    return value ? value : fallback_();
  }

 private:
  std::atomic<T*> value_{nullptr};
  T* (*fallback_)();
};

// Clears journal, faults and sysroot override: a fresh process, as far as the
// seam is concerned.
void Reset();

}  // namespace talvseam
