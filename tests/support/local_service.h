// Fixtures for the module's own HTTPS conversation: the development device's
// files in a folder of the test's own, the account service on 127.0.0.1, and
// the module's exported form-post and registration functions.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "account_register.h"
#include "client.h"
#include "https_request.h"
#include "sdk/device.h"
#include "support/account_service.h"
#include "support/module_test.h"

namespace pellixtest {

// The development device's files (dev/sysroot), copied into a temporary
// folder that the stand-ins take for the root of fixed paths while it lives.
class Sysroot {
 public:
  Sysroot();
  ~Sysroot();
  // Writes `content` to the absolute `path` under the sysroot.
  void Write(const std::string& path, const std::string& content);

 private:
  webapihost::TempDir dir_;
};

// What the device's files say, and what follows from them.
extern const char kDeviceSerial[];  // dev/sysroot's
extern const char kDeviceToken[];   // the cloud library's token for kDeviceSerial
extern const char kUserAgent[];     // model name and build number
extern const char kTokenX1[];       // the cloud library's token for the serial "X1"

// The platform error state as it is now, for lines that end in "[0x%04X %s:%d]".
struct ErrorState {
  int code = TLIBCErrGet();
  std::string file = TLIBCErrorGetFile();
  int line = TLIBCErrorGetLine();
};

using Fields = std::vector<std::pair<std::string, std::string>>;

// A form-field hash of the test's, in insertion order.
class FieldHash {
 public:
  explicit FieldHash(const Fields& fields) : hash_(TLIBCSzHashAlloc(1024)) {
    for (const auto& f : fields) TLIBCSzHashSetValue(&hash_, f.first.c_str(), f.second.c_str());
  }
  ~FieldHash() { TLIBCSzHashFree(hash_); }
  FieldHash(const FieldHash&) = delete;
  FieldHash& operator=(const FieldHash&) = delete;
  TLIBC_SZHASH* get() const { return hash_; }

 private:
  TLIBC_SZHASH* hash_;
};

// A device whose time zone the test chooses.
class ZoneDevice : public talvsdk::Device {
 public:
  ZoneDevice(std::string zone, std::map<std::string, std::string> info)
      : zone_(std::move(zone)), info_(std::move(info)) {}
  bool SerialNumber(std::string* serial) override { return talvsdk::DefaultDevice()->SerialNumber(serial); }
  bool TimeZone(std::string* zone) override {
    *zone = zone_;
    return true;
  }
  bool ZoneInfo(const std::string&, std::map<std::string, std::string>* info) override {
    *info = info_;
    return true;
  }

 private:
  std::string zone_;
  std::map<std::string, std::string> info_;
};

// Platform operation `op` fails once, on its (after+1)-th call from now.
void FailOnce(const char* op, int after = 0);

class LocalServiceTest : public ModuleTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  Sysroot& sysroot() { return *sysroot_; }
  LocalService& service() { return *service_; }
  // The service's host is the relay configuration's account-service host.
  void ConfigureHost(const std::string& host);
  // Back to the device of the test's start, for the next case of a table:
  // its files and host, no faults, the SDK's own device, a clear error state.
  void ResetDevice();

  int (*HttpsRequestSend)(const HttpsRequest*, HttpsResponse*) = nullptr;
  void (*HttpsResponseFree)(HttpsResponse*) = nullptr;
  int (*PellixAccountRegister)(const AccountRegisterInfo*, HttpsResponse*) = nullptr;

 private:
  std::unique_ptr<Sysroot> sysroot_;
  std::unique_ptr<LocalService> service_;
};

// For tests whose client must trust the server: skipped, saying why, where
// the process cannot be made to trust it.
class TrustedServiceTest : public LocalServiceTest {
 protected:
  void SetUp() override;
};

}  // namespace pellixtest
