// The development host's state folder: a simulated device's files and the
// simulated account service's data, side by side.
//
//   STATE/lock              held by the one host that uses the folder
//   STATE/device.pending    while the state is replaced: the generation of
//                           the device's files staged (StageDevice)
//   STATE/device/           the device's root for fixed paths (TALV_SYSROOT):
//     etc/talvinfo.conf             language, time zone
//     etc.defaults/talvinfo.conf    model name, serial number
//     etc.defaults/VERSION          build number
//     usr/talv/etc/talvrelayd/talvrelayd.conf   the account service's host
//     logout-reasons.conf           refusal reasons of the sign-out check
//   STATE/service/          the account service (the vendor's cloud):
//     account.db                    SQLite
//     ca.pem, ca.key                the state's own certificate authority
//     server.pem, server.key        the certificate of its HTTPS endpoint
#pragma once

#include <json/value.h>

#include <string>

namespace webapihost {

struct StateFolder {
  StateFolder() = default;
  ~StateFolder();  // lets go of the folder
  StateFolder(const StateFolder&) = delete;
  StateFolder& operator=(const StateFolder&) = delete;

  std::string root;
  std::string device;   // root + "/device"
  std::string service;  // root + "/service"
  // The device's facts, as its platform reads them.
  std::string serial;
  std::string model;
  std::string build;
  std::string language;
  std::string timezone;

  std::string Database() const { return service + "/account.db"; }
  std::string Pending() const { return root + "/device.pending"; }
  std::string ReasonsFile() const { return device + "/logout-reasons.conf"; }
  std::string RelayConf() const { return device + "/usr/talv/etc/talvrelayd/talvrelayd.conf"; }

  // The descriptor that holds the lock on STATE/lock (-1: none).
  int lock = -1;
};

// ${XDG_STATE_HOME:-~/.local/state}/webapi-host
std::string DefaultStateDir();

// Creates the folder, takes it for this process (two hosts on one folder
// would each rewrite the device's files under the other), ends a replacement
// of the state that a killed process left (StageDevice), creates whatever
// of the device's files is missing (a fresh device: a new serial number, no
// account), makes it the platform's root for fixed paths, and reads the
// device's facts back through the platform. False with *error when the folder
// is in use by another process, or a file cannot be created or read.
bool OpenState(const std::string& root, StateFolder* state, std::string* error);

// A new device's serial number.
std::string NewSerial();

// The device's part of the host's state document: {"serial", "model",
// "build", "language", "timezone", "logout_reasons":[{"grade","reason"}]}
// (the signed-in account is the service's: the host adds it). Reasons are
// the well-formed lines of the reasons file.
Json::Value DeviceDocument(const StateFolder& state);
// Why `device` (the document's /device) cannot be written: a sentence that
// begins with the JSON pointer of the member at fault; "" when it can. A fact
// left out stays as it is.
std::string CheckDevice(const Json::Value& device);
// A replacement of the whole state (snapshot.h ImportState) leaves, however
// it ends (an error, a kill, a power cut), the old state or the new one, never
// the service of one with the device's files of the other. The service's
// database decides which:
//   1. StageDevice writes each of the device's files for a checked `device`
//      whole beside its place (PATH.new) and then, last, the marker
//      STATE/device.pending naming a new generation, each synced to disk;
//   2. the service's import records that generation in the transaction that
//      replaces its tables, synced too (pellixsim::ImportService): from its
//      commit on, the staged files are the state's;
//   3. CommitFiles renames them into place, syncs, and removes the marker;
//      DropStaged removes them instead when the import failed.
// Cut short between 1 and 3, the files are settled when the folder is next
// opened (OpenState), or at the next replacement: renamed when the database
// holds the marker's generation, removed when it does not or when there is
// no marker. StageDevice gives the generation, or false with *error, nothing
// left.
bool StageDevice(const StateFolder& state, const Json::Value& device, std::string* generation, std::string* error);
// Renames the staged files into place, and reads the device's facts back
// into *state. False with *error, the marker kept, when a rename fails: the
// next OpenState or StageDevice renames the rest.
bool CommitFiles(StateFolder* state, const Json::Value& device, std::string* error);
void DropStaged(const StateFolder& state);

// Points the relay daemon's configuration at the account service's host.
bool WriteRelayHost(const StateFolder& state, const std::string& host, std::string* error);

}  // namespace webapihost
