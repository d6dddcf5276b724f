// The registration form request to the account service.
#pragma once

#include "https_request.h"

// The caller's registration data; only read.
struct AccountRegisterInfo {
  int verbose;           // passed on to the HTTPS request
  const char* host;      // account service host; null: the default host
  const char* email;     // required
  const char* passwd;    // required
  const char* fullName;  // required
  const char* serial;    // null: the HTTPS client sends the device's own
};

extern "C" {
// Posts the registration form. 0 when an answer (or a transfer-failure
// keyword) was obtained: `result`, if not null, then holds the status and a
// heap copy of the body, which the caller releases. -1 otherwise, with the
// cause in the core library's error state; `result` untouched.
int PellixAccountRegister(const AccountRegisterInfo* info, HttpsResponse* result);
}
