#include "trust.h"

#include <curl/curl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace webapihost {
namespace {

bool WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  return static_cast<bool>(out.flush());
}

std::string Failure(const std::string& what) { return what + ": " + std::strerror(errno); }

// Without the right to make a mount namespace: a user namespace of our own,
// mapped to the same ids so that files keep their owners, in which we may.
bool EnterUserAndMountNamespace(std::string* why) {
  const uid_t uid = getuid();
  const gid_t gid = getgid();
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    *why = Failure("neither a mount namespace nor a user namespace can be made");
    return false;
  }
  if (!WriteFile("/proc/self/setgroups", "deny") ||
      !WriteFile("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1\n") ||
      !WriteFile("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1\n")) {
    *why = "cannot map ids in the user namespace";
    return false;
  }
  return true;
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

bool TrustAuthorities(const std::string& pems, const std::string& bundle, std::string* why, bool alone) {
  const std::string system = SystemBundle();
  if (system.empty()) {
    *why = "libcurl names no default CA bundle";
    return false;
  }
  std::ifstream in(system, std::ios::binary);
  std::stringstream authorities;
  if (!alone) authorities << in.rdbuf() << "\n";
  if (!in || !WriteFile(bundle, authorities.str() + pems)) {
    *why = "cannot copy " + system + " into " + bundle;
    return false;
  }
  if (unshare(CLONE_NEWNS) != 0 && !EnterUserAndMountNamespace(why)) return false;
  // Private first, so that the bind does not reach the machine's mounts.
  // Source and type mean nothing to these two mounts; "none" keeps memcheck
  // from reading them as missing.
  if (mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0) {
    *why = Failure("cannot make the mounts private");
    return false;
  }
  if (mount(bundle.c_str(), system.c_str(), "none", MS_BIND, nullptr) != 0) {
    *why = Failure("cannot bind " + bundle + " over " + system);
    return false;
  }
  return true;
}

}  // namespace webapihost
