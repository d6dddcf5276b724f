// The development host's state folder: a simulated device's files and the
// simulated account service's data, side by side.
//
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

#include <string>

namespace webapihost {

struct StateFolder {
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
  std::string ReasonsFile() const { return device + "/logout-reasons.conf"; }
  std::string RelayConf() const { return device + "/usr/talv/etc/talvrelayd/talvrelayd.conf"; }
};

// ${XDG_STATE_HOME:-~/.local/state}/webapi-host
std::string DefaultStateDir();

// Creates the folder and whatever of the device's files is missing (a fresh
// device: a new serial number, no account), makes it the platform's root for
// fixed paths, and reads the device's facts back through the platform. False
// with *error when the folder or a file cannot be created or read.
bool OpenState(const std::string& root, StateFolder* state, std::string* error);

// Points the relay daemon's configuration at the account service's host.
bool WriteRelayHost(const StateFolder& state, const std::string& host, std::string* error);

}  // namespace webapihost
