// One HTTPS POST of URL-encoded form fields, with the device's identity.
#pragma once

#include "talv/tlibc.h"

// The caller's description of one request; only read.
struct HttpsRequest {
  const char* host;      // service host name; also the "Host" header
  const char* path;      // below the host, without a leading "/"
  TLIBC_SZHASH* params;  // the caller's form fields, at least one
  int verbose;           // non-zero: libcurl's verbose output
  const char* username;  // sent as the field "username" when not null
  const char* passwd;    // sent as the field "passwd" when not null
};

// The answer. The record owns `body`; release it with HttpsResponseFree.
struct HttpsResponse {
  long httpStatus;
  char* body;
};

extern "C" {
// 0 when the transfer was attempted (`response` holds the outcome, or the
// keyword "badnetwork" / "badsys"); -1 when it could not be started
// (`response` untouched, cause in the core library's error state).
int HttpsRequestSend(const HttpsRequest* request, HttpsResponse* response);
// Frees `body` and zeroes `httpStatus`; null and repeated calls are harmless.
void HttpsResponseFree(HttpsResponse* response);
}
