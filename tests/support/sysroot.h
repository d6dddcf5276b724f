// A throw-away sysroot: the stand-ins look fixed absolute paths up under it
// for as long as it lives.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "seam/seam.h"

namespace pellixtest {

class Sysroot {
 public:
  Sysroot() {
    char dir[] = "/tmp/talv-sysroot-XXXXXX";
    root_ = mkdtemp(dir);
    talvseam::SetSysroot(root_);
  }
  ~Sysroot() {
    talvseam::SetSysroot("");
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  Sysroot(const Sysroot&) = delete;
  Sysroot& operator=(const Sysroot&) = delete;

  // Writes `content` to the absolute `path` under the sysroot.
  void Write(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(root_ + path).parent_path());
    std::ofstream(root_ + path) << content;
  }

 private:
  std::string root_;
};

// A development device's files: model TS-464, build 20261101, serial
// Q21CA00042, German, Amsterdam time, its account service at `accountHost`.
inline void WriteDevelopmentDevice(Sysroot& root, const std::string& accountHost) {
  root.Write("/etc.defaults/VERSION", "majorversion=\"5\"\nbuildnumber=\"20261101\"\n");
  root.Write("/etc.defaults/talvinfo.conf", "upnpmodelname=TS-464\nserial=Q21CA00042\n");
  root.Write("/etc/talvinfo.conf", "language=ger\ntimezone=Amsterdam\n");
  root.Write("/usr/talv/etc/talvrelayd/talvrelayd.conf",
             "[relay]\nenabled = 1\n\n[pellix]\nhost = " + accountHost + "\n");
}

}  // namespace pellixtest
