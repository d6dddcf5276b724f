#include "trust.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace webapihost {
namespace {

using Fopen = FILE* (*)(const char*, const char*);

// What a process trusts. Never freed, and each keeps the one it replaced: a
// stream handed out earlier may still be reading it.
struct Bundle {
  std::string path;  // SystemBundle()
  std::string pems;
  const Bundle* replaced;
};

std::atomic<const Bundle*> g_bundle{nullptr};

// The definition after ours: the C library's, or a sanitizer's in front of it.
Fopen Next(const char* name) { return reinterpret_cast<Fopen>(dlsym(RTLD_NEXT, name)); }

FILE* Open(const char* path, const char* mode, Fopen next) {
  const Bundle* bundle = g_bundle.load(std::memory_order_acquire);
  if (bundle && path && mode && mode[0] == 'r' && !std::strchr(mode, '+') && bundle->path == path)
    return fmemopen(const_cast<char*>(bundle->pems.data()), bundle->pems.size(), "r");
  if (!next) {
    errno = ENOSYS;
    return nullptr;
  }
  return next(path, mode);
}

// The file itself, whoever has been trusted: not through fopen(), which
// would hand out our own bundle, nor std::ifstream, which calls it.
bool ReadFile(const std::string& path, std::string* content) {
  static const Fopen real = Next("fopen");
  if (!real) errno = ENOSYS;
  FILE* in = real ? real(path.c_str(), "rb") : nullptr;
  if (!in) return false;
  char buffer[65536];
  size_t n = 0;
  while ((n = std::fread(buffer, 1, sizeof(buffer), in)) > 0) content->append(buffer, n);
  const bool whole = !std::ferror(in);
  (void)std::fclose(in);
  return whole;
}

}  // namespace

std::string SystemBundle() {
  CURL* curl = curl_easy_init();
  char* path = nullptr;
  if (curl) curl_easy_getinfo(curl, CURLINFO_CAINFO, &path);
  std::string bundle = path ? path : "";
  if (curl) curl_easy_cleanup(curl);
  return bundle;
}

bool TrustAuthorities(const std::string& pems, std::string* why, bool alone) {
  const std::string system = SystemBundle();
  if (system.empty()) {
    *why = "libcurl names no default CA bundle";
    return false;
  }
  std::string content;
  // A machine without the file trusts nobody yet; ours are all there is.
  if (!alone && !ReadFile(system, &content) && errno != ENOENT) {
    *why = "cannot read " + system + ": " + std::strerror(errno);
    return false;
  }
  if (!content.empty()) content += "\n";
  auto* bundle = new Bundle{system, content + pems, g_bundle.load(std::memory_order_relaxed)};
  while (
      !g_bundle.compare_exchange_weak(bundle->replaced, bundle, std::memory_order_release, std::memory_order_relaxed)) {
  }
  return true;
}

}  // namespace webapihost

// Ours come before the C library's in every lookup, libcurl's OpenSSL's
// included (which opens the bundle with fopen64).
extern "C" {

__attribute__((visibility("default"))) FILE* fopen(const char* path, const char* mode) {
  static const webapihost::Fopen next = webapihost::Next("fopen");
  return webapihost::Open(path, mode, next);
}

__attribute__((visibility("default"))) FILE* fopen64(const char* path, const char* mode) {
  static const webapihost::Fopen next = webapihost::Next("fopen64");
  return webapihost::Open(path, mode, next);
}

}  // extern "C"
