#include "curl_faults.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include "seam/seam.h"

namespace pellixtest {
namespace {

// Off, the interposed functions forward at once: realloc and strdup are the
// whole process's, and most of its calls are none of the seam's business.
std::atomic<bool> g_watching{false};

struct Scripted {
  std::mutex mu;
  long status = -1;  // negative: transfers go out
  std::string body;
  std::string form;  // posted by the last one
  curl_write_callback write = nullptr;
  void* data = nullptr;
};

Scripted& S() {
  static Scripted* scripted = new Scripted();  // libcurl may still be called during exit
  return *scripted;
}

bool FromModule(const void* caller) {
  Dl_info info;
  return dladdr(caller, &info) && info.dli_fname && std::strstr(info.dli_fname, "pellixcenter.so");
}

// Journals the module's call and says whether the fault plan makes it fail.
bool FailNow(const char* function, int option, const void* caller) {
  if (!g_watching.load(std::memory_order_relaxed) || !FromModule(caller)) return false;
  return talvseam::Enter("curl", CurlOp(function, option).c_str(), {});
}

template <typename F>
F Real(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

std::string CurlOp(const std::string& function, int option) {
  return option < 0 ? function : function + " " + std::to_string(option);
}

void WatchCurl(bool on) { g_watching = on; }

void ScriptTransfers(long status, const std::string& body) {
  std::lock_guard<std::mutex> lock(S().mu);
  S().status = status;
  S().body = body;
}

std::string PostedForm() {
  std::lock_guard<std::mutex> lock(S().mu);
  return S().form;
}

}  // namespace pellixtest

using pellixtest::FailNow;
using pellixtest::Real;
using pellixtest::S;

// libcurl declares the option and the information as enums before the
// variable arguments; clang warns that va_start after an enum is undefined,
// but these enums are ints, passed as ints, on every ABI libcurl runs on.
#ifdef __clang__
#pragma clang diagnostic ignored "-Wvarargs"
#endif

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
  {
    std::lock_guard<std::mutex> lock(S().mu);
    if (option == CURLOPT_WRITEFUNCTION) S().write = reinterpret_cast<curl_write_callback>(value);
    if (option == CURLOPT_WRITEDATA) S().data = value;
    if (option == CURLOPT_POSTFIELDS) S().form = static_cast<const char*>(value);
  }
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
  if (FailNow("curl_easy_perform", -1, __builtin_return_address(0))) return CURLE_OUT_OF_MEMORY;
  std::unique_lock<std::mutex> lock(S().mu);
  if (S().status < 0) {
    lock.unlock();
    return real(curl);
  }
  // libcurl's pieces are at most CURL_MAX_WRITE_SIZE; a write function that
  // takes less than it was given ends the transfer.
  std::string body = S().body;
  const curl_write_callback write = S().write;
  void* const data = S().data;
  lock.unlock();
  for (size_t at = 0; at < body.size(); at += CURL_MAX_WRITE_SIZE) {
    const size_t n = std::min<size_t>(CURL_MAX_WRITE_SIZE, body.size() - at);
    if (write(&body[at], 1, n, data) != n) return CURLE_WRITE_ERROR;
  }
  return CURLE_OK;
}

// Each information the module reads is given one pointer to fill.
CURLcode curl_easy_getinfo(CURL* curl, CURLINFO info, ...) {
  static const auto real = Real<CURLcode (*)(CURL*, CURLINFO, ...)>("curl_easy_getinfo");
  va_list args;
  va_start(args, info);
  void* out = va_arg(args, void*);
  va_end(args);
  if (FailNow("curl_easy_getinfo", info, __builtin_return_address(0))) return CURLE_BAD_FUNCTION_ARGUMENT;
  {
    std::lock_guard<std::mutex> lock(S().mu);
    if (S().status >= 0 && info == CURLINFO_RESPONSE_CODE) {
      *static_cast<long*>(out) = S().status;
      return CURLE_OK;
    }
  }
  return real(curl, info, out);
}

#ifndef CURL_FAULTS_NO_ALLOCATION
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
#endif

}  // extern "C"
