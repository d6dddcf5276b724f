#include "state.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "device_files.h"
#include "seam/seam.h"
#include "talv/sdk.h"
#include "talv/tlibc.h"

namespace webapihost {
namespace {

namespace fs = std::filesystem;

const char kReasonsHeader[] =
    "# Why the account sign-out is refused now, one reason a line:\n"
    "#   hard = <reason>   nothing overrides it\n"
    "#   soft = <reason>   the request's \"force\" overrides it\n";

// The texts of the device's files are key=value lines, some quoted: a fact is
// one plain line.
bool Plain(const std::string& text, size_t most) {
  return !text.empty() && text.size() <= most &&
         text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 ._/+-") ==
             std::string::npos;
}

// Writes `content` to `path` through a temporary file and a rename, so a
// file is either absent or whole.
bool WriteFile(const std::string& path, const std::string& content, std::string* error) {
  std::error_code ec;
  fs::create_directories(fs::path(path).parent_path(), ec);
  if (ec) {
    *error = "cannot create " + fs::path(path).parent_path().string() + ": " + ec.message();
    return false;
  }
  const std::string temporary = path + ".new";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << content;
    out.flush();
    if (!out) {
      *error = "cannot write " + temporary + ": " + std::strerror(errno);
      return false;
    }
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    *error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

bool WriteIfMissing(const std::string& path, const std::string& content, std::string* error) {
  std::error_code ec;
  if (fs::exists(path, ec)) return true;
  return WriteFile(path, content, error);
}

bool ReadKey(const std::string& absolute, const char* key, std::string* value, std::string* error) {
  char buffer[256];
  if (TLIBCFileGetKeyValue(absolute.c_str(), key, buffer, sizeof(buffer), 0) <= 0) {
    *error = talvseam::ResolvePath(absolute) + ": no " + key;
    return false;
  }
  *value = buffer;
  return true;
}

// An advisory lock on STATE/lock, held until the descriptor closes or the
// process ends. A record lock rather than flock(): the kernel then tells who
// holds it.
bool Lock(StateFolder* state, std::string* error) {
  const std::string path = state->root + "/lock";
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    *error = "cannot write in the state folder " + state->root + ": " + std::strerror(errno);
    return false;
  }
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (fcntl(fd, F_SETLK, &whole) == 0) {
    state->lock = fd;
    return true;
  }
  const int refused = errno;
  std::string holder = "another process";
  if ((refused == EACCES || refused == EAGAIN) && fcntl(fd, F_GETLK, &whole) == 0 && whole.l_type != F_UNLCK)
    holder = "process " + std::to_string(whole.l_pid);
  close(fd);
  *error = refused == EACCES || refused == EAGAIN
               ? "the state folder " + state->root + " is in use by " + holder +
                     " (another webapi-host serve); stop that one, or pick another folder with --state"
               : "cannot lock " + path + ": " + std::strerror(refused);
  return false;
}

}  // namespace

// A new device's serial number: the model's prefix and seven random digits.
std::string NewSerial() {
  unsigned char bytes[7];
  if (RAND_bytes(bytes, sizeof(bytes)) != 1) std::abort();
  std::string serial = "Q26CA";
  for (unsigned char b : bytes) serial += static_cast<char>('0' + b % 10);
  return serial;
}

Json::Value DeviceDocument(const StateFolder& state) {
  Json::Value d(Json::objectValue);
  d["serial"] = state.serial;
  d["model"] = state.model;
  d["build"] = state.build;
  d["language"] = state.language;
  d["timezone"] = state.timezone;
  d["logout_reasons"] = Json::Value(Json::arrayValue);
  std::ifstream in(state.ReasonsFile());
  for (std::string line; std::getline(in, line);) {
    const size_t eq = line.find('=');
    if (line.empty() || line[0] == '#' || eq == std::string::npos) continue;
    auto trim = [](std::string t) {
      t.erase(0, t.find_first_not_of(" \t"));
      t.erase(t.find_last_not_of(" \t\r") + 1);
      return t;
    };
    const std::string grade = trim(line.substr(0, eq));
    const std::string reason = trim(line.substr(eq + 1));
    if ((grade != "hard" && grade != "soft") || reason.empty()) continue;
    Json::Value r(Json::objectValue);
    r["grade"] = grade;
    r["reason"] = reason;
    d["logout_reasons"].append(r);
  }
  return d;
}

std::string CheckDevice(const Json::Value& device) {
  if (!device.isObject()) return "/device: must be an object";
  for (const std::string& name : device.getMemberNames()) {
    const std::string at = "/device/" + name;
    const Json::Value& v = device[name];
    if (name == "account") continue;  // the service's
    if (name == "logout_reasons") {
      if (!v.isArray()) return at + ": must be an array of {\"grade\", \"reason\"}";
      for (Json::ArrayIndex i = 0; i < v.size(); ++i) {
        const std::string rat = at + "/" + std::to_string(i);
        const Json::Value& r = v[i];
        if (!r.isObject() || r.size() != 2 || !r["grade"].isString() || !r["reason"].isString())
          return rat + ": must be {\"grade\": \"hard\" or \"soft\", \"reason\": text}";
        if (r["grade"] != "hard" && r["grade"] != "soft") return rat + "/grade: must be \"hard\" or \"soft\"";
        const std::string reason = r["reason"].asString();
        if (reason.empty() || reason.size() > 1000 ||
            std::any_of(reason.begin(), reason.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }))
          return rat + "/reason: must be one line of 1 to 1000 characters";
      }
    } else if (name == "serial" || name == "model" || name == "build" || name == "language" || name == "timezone") {
      const size_t most = name == "serial" ? 32 : 64;
      if (!v.isString() || !Plain(v.asString(), most) ||
          (name == "serial" && v.asString().find_first_of(" ./+") != std::string::npos))
        return at + ": must be a text of 1 to " + std::to_string(most) +
               (name == "serial" ? " letters, digits or '-'" : " letters, digits, spaces or . _ / + -");
    } else {
      return at + ": is not a member the state knows";
    }
  }
  return "";
}

bool StageDevice(const StateFolder& state, const Json::Value& device,
                 std::vector<std::pair<std::string, std::string>>* staged, std::string* error) {
  auto fact = [&](const char* name, const std::string& now) {
    return device.isMember(name) ? device[name].asString() : now;
  };
  std::string reasons = kReasonsHeader;
  for (const Json::Value& r : device["logout_reasons"])
    reasons += r["grade"].asString() + " = " + r["reason"].asString() + "\n";
  const std::string d = state.device;
  const std::pair<std::string, std::string> files[] = {
      {d + "/etc.defaults/talvinfo.conf",
       "# Factory settings of the simulated device\nupnpmodelname=" + fact("model", state.model) +
           "\nserial=" + fact("serial", state.serial) + "\n"},
      {d + "/etc.defaults/VERSION",
       "majorversion=\"5\"\nminorversion=\"2\"\nbuildnumber=\"" + fact("build", state.build) + "\"\n"},
      {d + "/etc/talvinfo.conf", "# Settings of the simulated device\nlanguage=" + fact("language", state.language) +
                                     "\ntimezone=" + fact("timezone", state.timezone) + "\n"},
      {state.ReasonsFile(), reasons}};
  for (const auto& file : files) {
    const std::string temporary = file.first + ".new";
    std::ofstream out(temporary, std::ios::trunc);
    out << file.second;
    out.flush();
    if (!out) {
      *error = "cannot write " + temporary + ": " + std::strerror(errno);
      RemoveFiles(*staged);
      (void)std::remove(temporary.c_str());
      return false;
    }
    staged->emplace_back(temporary, file.first);
  }
  return true;
}

bool CommitFiles(StateFolder* state, const std::vector<std::pair<std::string, std::string>>& staged,
                 const Json::Value& device, std::string* error) {
  for (const auto& file : staged)
    if (std::rename(file.first.c_str(), file.second.c_str()) != 0) {
      *error = "cannot write " + file.second + ": " + std::strerror(errno);
      return false;
    }
  auto fact = [&](const char* name, std::string* now) {
    if (device.isMember(name)) *now = device[name].asString();
  };
  fact("serial", &state->serial);
  fact("model", &state->model);
  fact("build", &state->build);
  fact("language", &state->language);
  fact("timezone", &state->timezone);
  return true;
}

void RemoveFiles(const std::vector<std::pair<std::string, std::string>>& staged) {
  for (const auto& file : staged) (void)std::remove(file.first.c_str());
}

StateFolder::~StateFolder() {
  if (lock >= 0) close(lock);
}

std::string DefaultStateDir() {
  const char* xdg = std::getenv("XDG_STATE_HOME");
  if (xdg && *xdg) return std::string(xdg) + "/webapi-host";
  const char* home = std::getenv("HOME");
  return std::string(home && *home ? home : ".") + "/.local/state/webapi-host";
}

bool OpenState(const std::string& root, StateFolder* state, std::string* error) {
  std::error_code ec;
  fs::create_directories(root, ec);
  if (ec || !fs::is_directory(root, ec)) {
    *error = "cannot use " + root + " as the state folder: " + (ec ? ec.message() : "not a folder");
    return false;
  }
  state->root = fs::absolute(root).lexically_normal().string();
  while (state->root.size() > 1 && state->root.back() == '/') state->root.pop_back();
  state->device = state->root + "/device";
  state->service = state->root + "/service";
  if (access(state->root.c_str(), W_OK) != 0) {
    *error = "cannot write in the state folder " + state->root + ": " + std::strerror(errno);
    return false;
  }
  if (!Lock(state, error)) return false;
  fs::create_directories(state->service, ec);
  if (ec) {
    *error = "cannot create " + state->service + ": " + ec.message();
    return false;
  }
  // A fresh device: the development device's files (dev/sysroot) with a
  // serial number of its own; no account and nothing refused.
  const std::string d = state->device;
  if (!WriteIfMissing(d + "/etc.defaults/talvinfo.conf",
                      devicefiles::WithValue(devicefiles::Text("/etc.defaults/talvinfo.conf"), "serial", NewSerial()),
                      error) ||
      !WriteIfMissing(d + "/etc.defaults/VERSION", devicefiles::Text("/etc.defaults/VERSION"), error) ||
      !WriteIfMissing(d + "/etc/talvinfo.conf", devicefiles::Text("/etc/talvinfo.conf"), error) ||
      !WriteIfMissing(state->ReasonsFile(), kReasonsHeader, error))
    return false;

  // The device's facts as its platform reads them: any file that a user
  // broke is reported here, before a request meets it.
  talvseam::SetSysroot(d);
  char serial[64];
  char zone[256];
  int needed = 0;
  if (TLIBGetSerialNumber(serial, sizeof(serial)) < 0 || !*serial) {
    *error = d + "/etc.defaults/talvinfo.conf: no serial";
    return false;
  }
  if (TALVZoneGet(zone, sizeof(zone), &needed) < 0) {
    *error = d + "/etc/talvinfo.conf: no timezone";
    return false;
  }
  state->serial = serial;
  state->timezone = zone;
  return ReadKey("/etc.defaults/talvinfo.conf", "upnpmodelname", &state->model, error) &&
         ReadKey("/etc.defaults/VERSION", "buildnumber", &state->build, error) &&
         ReadKey("/etc/talvinfo.conf", "language", &state->language, error);
}

bool WriteRelayHost(const StateFolder& state, const std::string& host, std::string* error) {
  return WriteFile(state.RelayConf(), devicefiles::RelayConf(host), error);
}

}  // namespace webapihost
