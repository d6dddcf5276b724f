// The relay daemon's configuration: an INI file whose [pellix] section holds
// the account service's `host`. The file itself, under the sysroot, is this
// stand-in's seam.
#include <fstream>
#include <string>

#include "seam/seam.h"
#include "talv/relay.h"

namespace TALV {
namespace Relay {

namespace {
std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}
}  // namespace

PellixConf::PellixConf() = default;
PellixConf::~PellixConf() = default;
std::string PellixConf::GetHost() const { return host_; }

RelaydConf::RelaydConf(const char* path) {
  if (talvseam::Enter("relay", "RelaydConf::RelaydConf", {talvseam::Arg(path)}) || !path) return;
  std::ifstream in(talvseam::ResolvePath(path));
  std::string line, section;
  while (std::getline(in, line)) {
    line = Trim(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line.front() == '[' && line.back() == ']') {
      section = Trim(line.substr(1, line.size() - 2));
      continue;
    }
    size_t eq = line.find('=');
    if (section != "pellix" || eq == std::string::npos || Trim(line.substr(0, eq)) != "host") continue;
    std::string value = Trim(line.substr(eq + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
    pellix_.host_ = value;
  }
}
RelaydConf::~RelaydConf() = default;
const PellixConf& RelaydConf::GetPellixConf() const { return pellix_; }

}  // namespace Relay
}  // namespace TALV
