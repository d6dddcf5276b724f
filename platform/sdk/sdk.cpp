// The SDK's identity and time-zone calls.
#include <cstdio>
#include <cstring>

#include "device.h"
#include "seam/seam.h"
#include "talv/sdk.h"

using talvseam::Arg;

namespace talvsdk {
namespace {

bool ReadKey(const char* path, const char* key, std::string* out) {
  char value[256];
  if (TLIBCFileGetKeyValue(path, key, value, sizeof(value), 0) <= 0) return false;
  *out = value;
  return true;
}

class ConfiguredDevice : public Device {
 public:
  bool SerialNumber(std::string* serial) override { return ReadKey("/etc.defaults/talvinfo.conf", "serial", serial); }
  bool TimeZone(std::string* zone) override { return ReadKey("/etc/talvinfo.conf", "timezone", zone); }
  bool ZoneInfo(const std::string& zone, std::map<std::string, std::string>* info) override {
    // The device names zones after a city; a few are spelled out, and a name
    // that already is a tz-database name stands for itself.
    static const std::map<std::string, std::string> kZones = {
        {"Amsterdam", "Europe/Amsterdam"},
        {"Berlin", "Europe/Berlin"},
        {"London", "Europe/London"},
        {"Taipei", "Asia/Taipei"},
        {"Tokyo", "Asia/Tokyo"},
        {"New_York", "America/New_York"},
        {"Los_Angeles", "America/Los_Angeles"},
        {"UTC", "Etc/UTC"},
    };
    auto it = kZones.find(zone);
    std::string tzdb = it != kZones.end() ? it->second : (zone.find('/') != std::string::npos ? zone : "");
    if (tzdb.empty()) return false;
    (*info)["name"] = zone;
    (*info)["nameInTZDB"] = tzdb;
    return true;
  }
};

}  // namespace

Device::~Device() = default;
Device* DefaultDevice() {
  static ConfiguredDevice device;
  return &device;
}
namespace {
talvseam::Installed<Device> gDevice(DefaultDevice);
}  // namespace

void SetDevice(Device* value) { gDevice.Set(value); }
Device* CurrentDevice() { return gDevice.Get(); }

}  // namespace talvsdk

extern "C" {

int TLIBGetSerialNumber(char* buffer, int size) {
  std::string serial;
  if (talvseam::Enter("sdk", "TLIBGetSerialNumber", {Arg(size)}) || !buffer || size <= 0 ||
      !talvsdk::CurrentDevice()->SerialNumber(&serial)) {
    TLIBCErrSetEx(TLIBC_ERR_NOT_FOUND, "sdk.cpp", __LINE__);
    return -1;
  }
  (void)std::snprintf(buffer, size, "%s", serial.c_str());
  return 0;
}

int TALVZoneGet(char* zone, int size, int* sizeNeeded) {
  std::string name;
  if (talvseam::Enter("sdk", "TALVZoneGet", {Arg(size)}) || !talvsdk::CurrentDevice()->TimeZone(&name)) {
    TLIBCErrSetEx(TLIBC_ERR_NOT_FOUND, "sdk.cpp", __LINE__);
    return -1;
  }
  if (!zone || size <= 0 || name.size() + 1 > static_cast<size_t>(size)) {
    if (sizeNeeded) *sizeNeeded = static_cast<int>(name.size() + 1);
    TLIBCErrSetEx(TLIBC_ERR_BAD_PARAMETERS, "sdk.cpp", __LINE__);
    return -1;
  }
  std::memcpy(zone, name.c_str(), name.size() + 1);
  return 0;
}

int TALVZoneGetInfo(const char* zone, TLIBC_SZHASH** ppInfo) {
  std::map<std::string, std::string> info;
  if (talvseam::Enter("sdk", "TALVZoneGetInfo", {Arg(zone)}) || !zone || !ppInfo || !*ppInfo ||
      !talvsdk::CurrentDevice()->ZoneInfo(zone, &info)) {
    TLIBCErrSetEx(TLIBC_ERR_NOT_FOUND, "sdk.cpp", __LINE__);
    return -1;
  }
  for (const auto& kv : info)
    if (TLIBCSzHashSetValue(ppInfo, kv.first.c_str(), kv.second.c_str()) < 0) return -1;
  return static_cast<int>(info.size());
}

}  // extern "C"
