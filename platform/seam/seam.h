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
// fault's code is then in *code (when code is not null).
bool Enter(const char* service, const char* op, std::vector<std::string> args, int* code = nullptr);
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

// Fault plan, in the manner of a VFS fault simulator: operation `op` ("*" for
// any platform operation) fails on its (after+1)-th call counted from now,
// and, when `persistent`, on every call after that too.
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
