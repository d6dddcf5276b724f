#include "snapshot.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "simulation.h"
#include "text.h"

namespace webapihost {
namespace {

bool Readable(const std::string& path) {
  struct stat file {};
  return stat(path.c_str(), &file) == 0 && S_ISREG(file.st_mode);
}

std::string gSourceFixtures;  // SetSourceFixtures

// Where the project's fixtures are: beside an installed program's share/,
// else in the source tree the program was built from.
std::string Fixture(const std::string& name) {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  std::string bin = n > 0 ? std::string(self, static_cast<size_t>(n)) : "";
  const size_t slash = bin.rfind('/');
  if (slash != std::string::npos) bin.resize(slash);
  std::string installed = bin.substr(0, bin.rfind('/') + 1) + "share/webapi-host/fixtures/" + name + ".json";
  if (Readable(installed)) return installed;
  std::string source = gSourceFixtures + "/" + name + ".json";
  if (!gSourceFixtures.empty() && Readable(source)) return source;
  return "";
}

pellixsim::DeviceFacts Facts(const StateFolder& state) {
  return pellixsim::DeviceFacts{state.serial, state.language, state.timezone};
}

}  // namespace

bool ExportState(const StateFolder& state, pellixsim::Simulation& sim, std::string* document, std::string* error) {
  std::string service;
  Json::Value account;
  if (sim.Export(&service, &account) != pellixsim::kOk) {
    *error = "the account service's storage failed: " + sim.LastFailure();
    return false;
  }
  Json::Value device = DeviceDocument(state);
  device["account"] = account;
  // Members by name, as Compact orders them.
  JsonText d(document);
  d.Open('{').Key("device").Value(device).Key("service").Raw(service).Key("version").Int(kStateVersion).Close('}');
  return true;
}

Imported ImportState(StateFolder* state, pellixsim::Simulation& sim, const Json::Value& document, std::string* error) {
  if (!document.isObject()) {
    *error = "the state document must be a JSON object with \"version\", \"device\" and \"service\"";
    return Imported::kRefused;
  }
  for (const std::string& name : document.getMemberNames())
    if (name != "version" && name != "device" && name != "service") {
      *error = "/" + name + ": is not a member the state knows";
      return Imported::kRefused;
    }
  const Json::Value& version = document["version"];
  if (!version.isInt64() || version.asInt64() != kStateVersion) {
    *error = version.isNull()
                 ? "/version: is missing: this host reads state documents of version " + std::to_string(kStateVersion)
                 : "/version: the document is of version " + Shown(version) + ", and this host reads version " +
                       std::to_string(kStateVersion) + " only";
    return Imported::kRefused;
  }
  // By reference: a copy of the service's part cost as much as checking it.
  static const Json::Value kNone(Json::objectValue);
  const Json::Value& device = document.isMember("device") ? document["device"] : kNone;
  const Json::Value& service = document.isMember("service") ? document["service"] : kNone;
  const Json::Value& account = device.isObject() ? device["account"] : Json::Value::null;
  *error = CheckDevice(device);
  if (error->empty()) *error = pellixsim::Simulation::Check(service, account);
  if (!error->empty()) return Imported::kRefused;

  // The device's files and the service change together (state.h
  // StageDevice): the service's commit decides for both.
  std::string generation;
  if (!StageDevice(*state, device, &generation, error)) return Imported::kFailed;
  pellixsim::DeviceFacts facts = Facts(*state);
  if (device.isMember("serial")) facts.serial = device["serial"].asString();
  if (device.isMember("language")) facts.language = device["language"].asString();
  if (device.isMember("timezone")) facts.timezone = device["timezone"].asString();
  if (sim.Import(service, account, facts, generation) != pellixsim::kOk) {
    DropStaged(*state);
    *error = "the account service's storage failed, and nothing was changed: " + sim.LastFailure();
    return Imported::kFailed;
  }
  if (CommitFiles(state, device, error)) return Imported::kDone;
  *error += "; the service is replaced, and the device's files will be when the folder is next opened or replaced";
  return Imported::kFailed;
}

Json::Value FreshDocument(const std::string& serial) {
  Json::Value d(Json::objectValue);
  d["version"] = kStateVersion;
  d["device"]["serial"] = serial;
  d["device"]["model"] = "TS-464";
  d["device"]["build"] = "20261101";
  d["device"]["language"] = "enu";
  d["device"]["timezone"] = "Amsterdam";
  d["device"]["account"] = Json::Value();
  d["device"]["logout_reasons"] = Json::Value(Json::arrayValue);
  d["service"]["accounts"] = Json::Value(Json::arrayValue);
  d["service"]["conditions"] = Json::Value(Json::arrayValue);
  return d;
}

void SetSourceFixtures(std::string folder) { gSourceFixtures = std::move(folder); }

bool ReadDocument(const std::string& pathOrName, Json::Value* document, std::string* error) {
  std::string path = pathOrName;
  if (!Readable(path) && pathOrName.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-_") == std::string::npos)
    path = Fixture(pathOrName);
  if (path.empty() || !Readable(path)) {
    *error = "no state document " + pathOrName +
             ": give a file, or the name of a fixture (fresh, signed-in, sign-out-refused, registration-limit)";
    return false;
  }
  // Read whole, at once: a character at a time took a tenth of a second for
  // a state of 10,000 accounts.
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  std::string text(static_cast<size_t>(std::max<std::streamoff>(in.tellg(), 0)), '\0');
  in.seekg(0);
  in.read(&text[0], static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(in.gcount()));
  std::string problem;
  if (!ParseJson(text, document, &problem)) {
    *error = "the state document " + path + " is not JSON: " + problem;
    return false;
  }
  return true;
}

int StateCommand(const std::string& action, const std::string& file, const std::string& root, FILE* out, FILE* err) {
  struct stat folder {};
  if (action == "export" && stat(root.c_str(), &folder) != 0) {
    (void)std::fprintf(err, "webapi-host: no state folder %s\n", root.c_str());
    return 1;
  }
  Json::Value document;
  std::string error;
  if (action == "import" && !ReadDocument(file, &document, &error)) {
    (void)std::fprintf(err, "webapi-host: %s\n", error.c_str());
    return 1;
  }
  StateFolder state;
  if (!OpenState(root, &state, &error)) {
    (void)std::fprintf(err, "webapi-host: %s\n", error.c_str());
    return 1;
  }
  std::unique_ptr<pellixsim::Simulation> sim = pellixsim::Simulation::Open(state.service, Facts(state), err, &error);
  if (!sim) {
    (void)std::fprintf(err, "webapi-host: %s\n", error.c_str());
    return 1;
  }
  if (action == "export") {
    std::string text;
    if (!ExportState(state, *sim, &text, &error)) {
      (void)std::fprintf(err, "webapi-host: %s\n", error.c_str());
      return 1;
    }
    text += '\n';
    (void)std::fwrite(text.data(), 1, text.size(), out);
    return 0;
  }
  const Imported done = ImportState(&state, *sim, document, &error);
  if (done != Imported::kDone) {
    (void)std::fprintf(err, "webapi-host: %s%s\n", done == Imported::kRefused ? (file + ": ").c_str() : "",
                       error.c_str());
    return 1;
  }
  if (!document["service"]["conditions"].empty())
    (void)std::fprintf(err,
                       "webapi-host: the conditions of %s are not kept in the folder: a host sets them when it "
                       "starts with --seed, or with PUT /sim/state\n",
                       file.c_str());
  (void)std::fprintf(out, "webapi-host: the state of %s is now that of %s (device %s)\n", state.root.c_str(),
                     file.c_str(), state.serial.c_str());
  return 0;
}

}  // namespace webapihost
