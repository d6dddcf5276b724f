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
#include <set>
#include <vector>

#include "device_files.h"
#include "seam/seam.h"
#include "store.h"
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

// Forces a file, or the names in a folder, to disk.
bool Sync(const std::string& path, std::string* error) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const bool synced = fd >= 0 && fsync(fd) == 0;
  if (!synced) *error = "cannot write " + path + " to disk: " + std::strerror(errno);
  if (fd >= 0) close(fd);
  return synced;
}

// Writes `content` to `path` and forces it to disk.
bool WriteSynced(const std::string& path, const std::string& content, std::string* error) {
  {
    std::ofstream out(path, std::ios::trunc);
    out << content;
    out.flush();
    if (!out) {
      *error = "cannot write " + path + ": " + std::strerror(errno);
      return false;
    }
  }
  return Sync(path, error);
}

// The device's files that a replacement of the state writes (StageDevice).
std::vector<std::string> Replaced(const StateFolder& state) {
  return {state.device + "/etc.defaults/talvinfo.conf", state.device + "/etc.defaults/VERSION",
          state.device + "/etc/talvinfo.conf", state.ReasonsFile()};
}

// The folders of those files: their names (PATH.new, or PATH after a rename)
// on disk.
bool SyncFolders(const StateFolder& state, std::string* error) {
  std::set<std::string> folders;
  for (const std::string& place : Replaced(state)) folders.insert(fs::path(place).parent_path().string());
  return std::all_of(folders.begin(), folders.end(), [&](const std::string& f) { return Sync(f, error); });
}

// A replacement's name in its marker and in the service's database: random,
// so that no other replacement's, nor a marker cut short, is ever taken for it.
std::string NewGeneration() {
  unsigned char bytes[16];
  if (RAND_bytes(bytes, sizeof(bytes)) != 1) std::abort();
  std::string id;
  for (unsigned char b : bytes) {
    id += "0123456789abcdef"[b >> 4];
    id += "0123456789abcdef"[b & 15];
  }
  return id;
}

// Ends a replacement of the device's files (StageDevice), whatever became of
// the process that began it: each staged file is renamed to its place
// (`forward`) or removed, then the marker goes. Done again after a kill
// midway, it ends the same: a file already renamed has no PATH.new left.
bool Settle(const StateFolder& state, bool forward, std::string* error) {
  bool moved = false;
  for (const std::string& place : Replaced(state)) {
    const std::string staged = place + ".new";
    if ((forward ? std::rename(staged.c_str(), place.c_str()) : std::remove(staged.c_str())) == 0) {
      moved = true;
    } else if (errno != ENOENT) {
      *error = (forward ? "cannot write " + place : "cannot remove " + staged) + ": " + std::strerror(errno);
      return false;
    }
  }
  // The renames reach the disk before the marker goes: without it, nothing
  // would make them again. And the marker's removal reaches it before the
  // next replacement stages files, which this marker, back after a power
  // cut, would take for its own.
  if (forward && moved && !SyncFolders(state, error)) return false;
  if (std::remove(state.Pending().c_str()) == 0) return Sync(state.root, error);
  if (errno == ENOENT) return true;
  *error = "cannot remove " + state.Pending() + ": " + std::strerror(errno);
  return false;
}

// Ends a replacement of the state left unfinished, by a killed process or a
// rename that failed: with the marker, the staged files are the state's when
// the service's database committed the marker's generation, and never were
// when it did not; without it, they are from before the marker was written.
bool Recover(const StateFolder& state, std::string* error) {
  std::string marked, committed;
  std::ifstream marker(state.Pending());
  std::getline(marker, marked);
  if ((marked.empty() || pellixsim::Store::ReadGeneration(state.Database(), &committed, error)) &&
      Settle(state, !marked.empty() && marked == committed, error))
    return true;
  *error = "cannot end the replacement of the state left unfinished: " + *error;
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

bool StageDevice(const StateFolder& state, const Json::Value& device, std::string* generation, std::string* error) {
  auto fact = [&](const char* name, const std::string& now) {
    return device.isMember(name) ? device[name].asString() : now;
  };
  std::string reasons = kReasonsHeader;
  for (const Json::Value& r : device["logout_reasons"])
    reasons += r["grade"].asString() + " = " + r["reason"].asString() + "\n";
  // A marker that a failed rename left would otherwise be taken for these
  // files' own.
  if (!Recover(state, error)) return false;
  const std::vector<std::string> places = Replaced(state);
  const std::string texts[] = {
      "# Factory settings of the simulated device\nupnpmodelname=" + fact("model", state.model) +
          "\nserial=" + fact("serial", state.serial) + "\n",
      "majorversion=\"5\"\nminorversion=\"2\"\nbuildnumber=\"" + fact("build", state.build) + "\"\n",
      "# Settings of the simulated device\nlanguage=" + fact("language", state.language) +
          "\ntimezone=" + fact("timezone", state.timezone) + "\n",
      reasons};
  bool staged = true;
  for (size_t i = 0; i < places.size() && staged; ++i) staged = WriteSynced(places[i] + ".new", texts[i], error);
  // The marker last, once the files it stands for are on disk.
  *generation = NewGeneration();
  if (staged && SyncFolders(state, error) && WriteSynced(state.Pending(), *generation + "\n", error) &&
      Sync(state.root, error))
    return true;
  DropStaged(state);
  return false;
}

bool CommitFiles(StateFolder* state, const Json::Value& device, std::string* error) {
  if (!Settle(*state, true, error)) return false;
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

void DropStaged(const StateFolder& state) {
  std::string ignored;
  (void)Settle(state, false, &ignored);
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
  if (!Recover(*state, error)) return false;
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
