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

}  // namespace pellixtest
