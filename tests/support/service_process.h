// A whole process around the module's HTTPS conversation, for the fuzzers
// and the benchmarks: the module loaded as the host loads it, a development
// device's files, and the account service on 127.0.0.1, trusted by the
// device and answering as scripted. Free of any test framework.
#pragma once

#include <string>

#include "harness.h"
#include "https_request.h"
#include "support/tls_server.h"
#include "syslog_capture.h"

namespace pellixtest {

struct ServiceProcess {
  webapihost::Module* module = nullptr;
  int (*send)(const HttpsRequest*, HttpsResponse*) = nullptr;  // the module's HttpsRequestSend
  void (*free)(HttpsResponse*) = nullptr;                      // and its HttpsResponseFree
  TlsServer* service = nullptr;                                // the relay configuration's account-service host
};

// Call first (in main or LLVMFuzzerInitialize); the stand-ins' journal and
// the log's history are switched off. Aborts when the service cannot be
// trusted or the module cannot be loaded.
const ServiceProcess& StartServiceProcess();

// Whether `line` is what the statement of `file` whose message is `message`
// writes: "<file>:<its line> <message>", at error priority.
bool Written(const syslogcapture::Line& line, const char* file, const std::string& message);

}  // namespace pellixtest
