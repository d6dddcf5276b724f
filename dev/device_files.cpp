#include "device_files.h"

#include <algorithm>

namespace devicefiles {
namespace {

struct File {
  const char* path;
  const char* text;
};

// Written by dev/CMakeLists.txt from sysroot/ at configure time.
const File kFiles[] = {
#include "sysroot_files.inc"
};

}  // namespace

std::string Text(const std::string& path) {
  for (const File& file : kFiles)
    if (path == file.path) return file.text;
  return "";
}

std::string WithValue(std::string text, const std::string& key, const std::string& value) {
  for (size_t line = 0; line < text.size();) {
    const size_t end = std::min(text.find('\n', line), text.size());
    const size_t equals = text.find_first_not_of(' ', line + key.size());
    if (text.compare(line, key.size(), key) == 0 && equals < end && text[equals] == '=') {
      const size_t at = std::min(text.find_first_not_of(' ', equals + 1), end);
      return text.replace(at, end - at, value);
    }
    line = end + 1;
  }
  return text;
}

std::string RelayConf(const std::string& host) {
  return WithValue(Text("/usr/talv/etc/talvrelayd/talvrelayd.conf"), "host", host);
}

}  // namespace devicefiles
