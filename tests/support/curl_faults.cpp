#include "curl_faults.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <cstdarg>
#include <cstring>
#include <mutex>
#include <string>

namespace pellixtest {
namespace {

struct Plan {
  std::mutex mu;
  std::string function;  // empty: none
  int option = -1;
};

Plan& P() {
  static Plan* plan = new Plan();  // libcurl may still be called during exit
  return *plan;
}

bool FromModule(const void* caller) {
  Dl_info info;
  return dladdr(caller, &info) && info.dli_fname && std::strstr(info.dli_fname, "pellixcenter.so");
}

// True, once, for the planned call.
bool FailNow(const char* function, int option, const void* caller) {
  Plan& plan = P();
  std::lock_guard<std::mutex> lock(plan.mu);
  if (plan.function != function || plan.option != option || !FromModule(caller)) return false;
  plan.function.clear();
  return true;
}

template <typename F>
F Real(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void FailCurlOnce(const char* function, int option) {
  std::lock_guard<std::mutex> lock(P().mu);
  P().function = function;
  P().option = option;
}

bool CurlFaultPending() {
  std::lock_guard<std::mutex> lock(P().mu);
  return !P().function.empty();
}

void ClearCurlFaults() {
  std::lock_guard<std::mutex> lock(P().mu);
  P().function.clear();
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

}  // extern "C"
