#include "service_process.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "client.h"
#include "device_files.h"
#include "seam/seam.h"
#include "syslog_capture.h"

namespace pellixtest {

const ServiceProcess& StartServiceProcess() {
  static ServiceProcess process;
  if (!TrustTestService().empty()) {
    std::fprintf(stderr, "cannot trust the local service: %s\n", TrustTestService().c_str());
    std::abort();
  }

  std::string error;
  process.module = webapihost::Module::Load(PELLIXCENTER_SO, &error).release();
  void* handle = dlopen(PELLIXCENTER_SO, RTLD_NOW | RTLD_NOLOAD);
  if (handle) {
    process.send = reinterpret_cast<decltype(process.send)>(dlsym(handle, "HttpsRequestSend"));
    process.free = reinterpret_cast<decltype(process.free)>(dlsym(handle, "HttpsResponseFree"));
  }
  if (!process.module || !process.send || !process.free) {
    std::fprintf(stderr, "cannot load %s: %s\n", PELLIXCENTER_SO, error.c_str());
    std::abort();
  }

  process.service = new LocalService();
  // The development device, its account service this one.
  static webapihost::TempDir device;
  std::filesystem::copy(PELLIX_DEV_SYSROOT, device.path(), std::filesystem::copy_options::recursive);
  std::ofstream(device.path() + "/usr/talv/etc/talvrelayd/talvrelayd.conf")
      << devicefiles::RelayConf(process.service->Address());
  talvseam::SetSysroot(device.path());
  // The journal is bounded, but keeping it costs every call a lock; and
  // what a request logs must be gone when it is done with.
  talvseam::SetJournaling(false);
  syslogcapture::KeepHistory(false);
  return process;
}

}  // namespace pellixtest
