// Seam of the SDK stand-in: where the device's serial number and time zone
// come from. The default reads them under the sysroot: `serial` from
// /etc.defaults/talvinfo.conf and `timezone` from /etc/talvinfo.conf.
#pragma once

#include <map>
#include <string>

namespace talvsdk {

class Device {
 public:
  virtual ~Device();
  // False when the device cannot tell.
  virtual bool SerialNumber(std::string* serial) = 0;
  virtual bool TimeZone(std::string* zone) = 0;
  // Information on a zone ("nameInTZDB", ...); false for an unknown zone.
  virtual bool ZoneInfo(const std::string& zone, std::map<std::string, std::string>* info) = 0;
};

Device* DefaultDevice();
// Installs `device` (not owned); nullptr restores the default.
void SetDevice(Device* device);
Device* CurrentDevice();

}  // namespace talvsdk
