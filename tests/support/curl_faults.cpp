#include "curl_faults.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <mutex>

namespace pellixtest {
namespace {

struct Plan {
  std::mutex mu;
  std::string function;  // "*": any; "": none
  int option = -1;
  int after = 0;
  bool persistent = false;
  bool fired = false;
  std::vector<CurlCall> calls;
  std::vector<CurlCall> failed;
};

// Off, the interposed functions forward at once: realloc and strdup are the
// whole process's, and most of its calls are none of the plan's business.
std::atomic<bool> g_watching{false};

Plan& P() {
  static Plan* plan = new Plan();  // libcurl may still be called during exit
  return *plan;
}

bool FromModule(const void* caller) {
  Dl_info info;
  return dladdr(caller, &info) && info.dli_fname && std::strstr(info.dli_fname, "pellixcenter.so");
}

// Counts the module's call and says whether the plan makes it fail.
bool FailNow(const char* function, int option, const void* caller) {
  if (!g_watching.load(std::memory_order_relaxed) || !FromModule(caller)) return false;
  Plan& plan = P();
  std::lock_guard<std::mutex> lock(plan.mu);
  plan.calls.push_back({function, option});
  const bool matches =
      plan.function == "*" || (plan.function == function && (plan.option == -1 || plan.option == option));
  if (!matches || (plan.fired && !plan.persistent)) return false;
  if (plan.after > 0) {
    --plan.after;
    return false;
  }
  plan.fired = true;
  plan.failed.push_back({function, option});
  return true;
}

template <typename F>
F Real(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void InjectCurlFault(const std::string& function, int after, bool persistent, int option) {
  Plan& plan = P();
  std::lock_guard<std::mutex> lock(plan.mu);
  plan.function = function;
  plan.option = option;
  plan.after = after;
  plan.persistent = persistent;
  plan.fired = false;
  plan.calls.clear();
  plan.failed.clear();
  g_watching = true;
}

void FailCurlOnce(const char* function, int option) { InjectCurlFault(function, 0, false, option); }

bool CurlFaultPending() {
  std::lock_guard<std::mutex> lock(P().mu);
  return !P().function.empty() && !P().fired;
}

std::vector<CurlCall> CurlCalls() {
  std::lock_guard<std::mutex> lock(P().mu);
  return P().calls;
}

std::vector<CurlCall> FailedCurlCalls() {
  std::lock_guard<std::mutex> lock(P().mu);
  return P().failed;
}

void ClearCurlFaults() {
  std::lock_guard<std::mutex> lock(P().mu);
  g_watching = false;
  P().function.clear();
  P().calls.clear();
  P().failed.clear();
}

}  // namespace pellixtest

using pellixtest::FailNow;
using pellixtest::Real;

extern "C" {

CURL* curl_easy_init() {
  static const auto real = Real<CURL* (*)()>("curl_easy_init");
  return FailNow("curl_easy_init", -1, __builtin_return_address(0)) ? nullptr : real();
}

// Every option the module sets takes one argument of the integer class (a
// long, a pointer or a function pointer), passed on as it came.
CURLcode curl_easy_setopt(CURL* curl, CURLoption option, ...) {
  static const auto real = Real<CURLcode (*)(CURL*, CURLoption, ...)>("curl_easy_setopt");
  va_list args;
  va_start(args, option);
  void* value = va_arg(args, void*);
  va_end(args);
  if (FailNow("curl_easy_setopt", option, __builtin_return_address(0))) return CURLE_BAD_FUNCTION_ARGUMENT;
  return real(curl, option, value);
}

char* curl_easy_escape(CURL* curl, const char* text, int length) {
  static const auto real = Real<char* (*)(CURL*, const char*, int)>("curl_easy_escape");
  return FailNow("curl_easy_escape", -1, __builtin_return_address(0)) ? nullptr : real(curl, text, length);
}

curl_slist* curl_slist_append(curl_slist* list, const char* text) {
  static const auto real = Real<curl_slist* (*)(curl_slist*, const char*)>("curl_slist_append");
  return FailNow("curl_slist_append", -1, __builtin_return_address(0)) ? nullptr : real(list, text);
}

CURLcode curl_easy_perform(CURL* curl) {
  static const auto real = Real<CURLcode (*)(CURL*)>("curl_easy_perform");
  return FailNow("curl_easy_perform", -1, __builtin_return_address(0)) ? CURLE_OUT_OF_MEMORY : real(curl);
}

// Each information the module reads is given one pointer to fill.
CURLcode curl_easy_getinfo(CURL* curl, CURLINFO info, ...) {
  static const auto real = Real<CURLcode (*)(CURL*, CURLINFO, ...)>("curl_easy_getinfo");
  va_list args;
  va_start(args, info);
  void* out = va_arg(args, void*);
  va_end(args);
  if (FailNow("curl_easy_getinfo", info, __builtin_return_address(0))) return CURLE_BAD_FUNCTION_ARGUMENT;
  return real(curl, info, out);
}

// The C library's own are looked up without a guarded static, which the
// lookup's own allocations could enter again. A failed realloc leaves the
// block where it was, as the C library's does.
void* realloc(void* block, size_t size) noexcept {
  static std::atomic<void* (*)(void*, size_t)> real{nullptr};
  if (!real.load(std::memory_order_relaxed)) real = Real<void* (*)(void*, size_t)>("realloc");
  return FailNow("realloc", -1, __builtin_return_address(0)) ? nullptr : real.load()(block, size);
}

char* strdup(const char* text) noexcept {
  static std::atomic<char* (*)(const char*)> real{nullptr};
  if (!real.load(std::memory_order_relaxed)) real = Real<char* (*)(const char*)>("strdup");
  return FailNow("strdup", -1, __builtin_return_address(0)) ? nullptr : real.load()(text);
}

}  // extern "C"
