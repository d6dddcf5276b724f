#include "service_process.h"

#include <dlfcn.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "seam/seam.h"
#include "support/sysroot.h"

namespace pellixtest {

const ServiceProcess& StartServiceProcess() {
  static ServiceProcess process;
  if (!TrustTestIdentities().empty()) {
    std::fprintf(stderr, "cannot trust the local service: %s\n", TrustTestIdentities().c_str());
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

  process.service = new TlsServer(TestIdentities().trusted);
  static Sysroot device;
  WriteDevelopmentDevice(device, process.service->Address());
  // The journal is bounded, but keeping it costs every call a lock; and
  // what a request logs must be gone when it is done with.
  talvseam::SetJournaling(false);
  syslogcapture::KeepHistory(false);
  return process;
}

bool Written(const syslogcapture::Line& line, const char* file, const std::string& message) {
  const std::string& text = line.text;
  const size_t prefix = std::strlen(file);
  if (line.priority != 3 || text.compare(0, prefix, file) != 0 || text.size() < prefix + 1 || text[prefix] != ':')
    return false;
  size_t at = prefix + 1;
  while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) ++at;
  return at > prefix + 1 && text.compare(at, std::string::npos, " " + message) == 0;
}

}  // namespace pellixtest
