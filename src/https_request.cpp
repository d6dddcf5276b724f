// One HTTPS POST of URL-encoded form fields with the device's identity.
#include "https_request.h"

#include <cstdlib>

#include "log.h"

extern "C" {

int HttpsRequestSend(const HttpsRequest* request, HttpsResponse* response) {
  if (!request || !response) {
    TLIBCErrSetEx(TLIBC_ERR_BAD_PARAMETERS, __FILE_NAME__, __LINE__);
    return -1;
  }
  // The transfer itself has not landed in this build.
  PELLIX_LOG("HttpsRequestSend is not available in this build");
  TLIBCErrSetEx(TLIBC_ERR_NETWORK, __FILE_NAME__, __LINE__);
  return -1;
}

void HttpsResponseFree(HttpsResponse* response) {
  if (!response) return;
  std::free(response->body);
  response->body = nullptr;
  response->httpStatus = 0;
}

}  // extern "C"
