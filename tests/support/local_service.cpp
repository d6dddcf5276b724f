#include "local_service.h"

#include <dlfcn.h>

#include <filesystem>
#include <fstream>

#include "device_files.h"
#include "sdk/device.h"
#include "seam/seam.h"
#include "support/curl_faults.h"
#include "talv/tlibc.h"

namespace pellixtest {

const char kDeviceSerial[] = "Q21CA00042";
const char kDeviceToken[] = "34f95f866f79350412fb710e70734910";
const char kUserAgent[] = "Talvane-TS-464-20261101";
const char kTokenX1[] = "b872b9c1b967c03e8c14ba8d0f4259cc";

namespace {

template <typename F>
void Find(void* module, const char* name, F* function) {
  *function = reinterpret_cast<F>(dlsym(module, name));
  ASSERT_NE(*function, nullptr) << name << " is not exported";
}

}  // namespace

Sysroot::Sysroot() {
  std::filesystem::copy(PELLIX_DEV_SYSROOT, dir_.path(), std::filesystem::copy_options::recursive);
  talvseam::SetSysroot(dir_.path());
}

Sysroot::~Sysroot() { talvseam::SetSysroot(""); }

void Sysroot::Write(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(dir_.path() + path).parent_path());
  std::ofstream(dir_.path() + path) << content;
}

void FailOnce(const char* op, int after) { talvseam::InjectFault(op, after, false, 0); }

void LocalServiceTest::SetUp() {
  ModuleTest::SetUp();
  if (HasFatalFailure()) return;
  void* handle = dlopen(PELLIXCENTER_SO, RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(handle, nullptr) << dlerror();
  Find(handle, "HttpsRequestSend", &HttpsRequestSend);
  Find(handle, "HttpsResponseFree", &HttpsResponseFree);
  Find(handle, "PellixAccountRegister", &PellixAccountRegister);
  dlclose(handle);  // the fixture's own load keeps it
  if (HasFatalFailure()) return;

  service_.reset(new LocalService());
  ResetDevice();
  WatchCurl(true);
}

void LocalServiceTest::ResetDevice() {
  talvseam::ClearFaults();
  talvsdk::SetDevice(nullptr);
  sysroot_.reset();  // before the next takes its place
  sysroot_.reset(new Sysroot());
  ConfigureHost(service_->Address());
  // Lines that end in the error state read what the module left there.
  TLIBCErrSetEx(TLIBC_ERR_NONE, "", 0);
}

void LocalServiceTest::TearDown() {
  WatchCurl(false);
  service_.reset();
  sysroot_.reset();
  ModuleTest::TearDown();
}

void LocalServiceTest::ConfigureHost(const std::string& host) {
  sysroot_->Write("/usr/talv/etc/talvrelayd/talvrelayd.conf", devicefiles::RelayConf(host));
}

void TrustedServiceTest::SetUp() {
  const std::string& problem = TrustTestService();
  if (!problem.empty()) GTEST_SKIP() << "the local HTTPS service cannot be trusted: " << problem;
  LocalServiceTest::SetUp();
}

}  // namespace pellixtest
