#include "trust.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace webapihost {

const char kSystemBundle[] = "/etc/ssl/certs/ca-certificates.crt";

namespace {

std::string Slurp(const std::string& path, bool* ok) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  *ok = static_cast<bool>(in);
  return text.str();
}

bool WriteProc(const char* path, const std::string& text) {
  int fd = open(path, O_WRONLY);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return ok;
}

std::string Failure(const std::string& what) { return what + ": " + std::strerror(errno); }

}  // namespace

bool TrustAuthority(const std::string& caPem, const std::string& bundle, std::string* why) {
  bool readSystem = false, readCa = false;
  const std::string system = Slurp(kSystemBundle, &readSystem);
  const std::string ca = Slurp(caPem, &readCa);
  if (!readSystem || !readCa) {
    *why = std::string("cannot read ") + (readSystem ? caPem : kSystemBundle);
    return false;
  }
  {
    std::ofstream out(bundle, std::ios::trunc);
    out << system << (system.empty() || system.back() == '\n' ? "" : "\n") << ca;
    if (!out.flush()) {
      *why = "cannot write " + bundle;
      return false;
    }
  }
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (uid == 0) {
    if (unshare(CLONE_NEWNS) != 0) {
      *why = Failure("unshare(CLONE_NEWNS)");
      return false;
    }
  } else {
    // Root of a user namespace of its own, mapped to the same ids, so that
    // files keep their owners.
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
      *why = Failure("unshare(CLONE_NEWUSER | CLONE_NEWNS)");
      return false;
    }
    if (!WriteProc("/proc/self/setgroups", "deny") ||
        !WriteProc("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1") ||
        !WriteProc("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1")) {
      *why = Failure("mapping the user namespace");
      return false;
    }
  }
  // Private first, so that the bind below does not reach the host's mounts.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    *why = Failure("making mounts private");
    return false;
  }
  if (mount(bundle.c_str(), kSystemBundle, nullptr, MS_BIND, nullptr) != 0) {
    *why = Failure(std::string("binding ") + bundle + " over " + kSystemBundle);
    return false;
  }
  return true;
}

}  // namespace webapihost
