// A whole process around the module's HTTPS conversation, for the
// benchmarks: the module loaded as the host loads it, the development
// device's files, and the account service on 127.0.0.1, trusted by the
// device and answering as scripted.
#pragma once

#include <string>

#include "harness.h"
#include "https_request.h"
#include "support/account_service.h"

namespace pellixtest {

struct ServiceProcess {
  webapihost::Module* module = nullptr;
  int (*send)(const HttpsRequest*, HttpsResponse*) = nullptr;  // the module's HttpsRequestSend
  void (*free)(HttpsResponse*) = nullptr;                      // and its HttpsResponseFree
  LocalService* service = nullptr;                             // the relay configuration's account-service host
};

// Call first; the stand-ins' journal and the log's history are switched off. Aborts when the service cannot be
// trusted or the module cannot be loaded.
const ServiceProcess& StartServiceProcess();

}  // namespace pellixtest
