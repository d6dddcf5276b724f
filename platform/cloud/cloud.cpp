// The cloud-service device token. The token is the first 32 hex digits of
// SHA-256 over the serial and a device secret, so tests can recompute it.
#include <openssl/sha.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "seam/seam.h"
#include "talv/cloud.h"
#include "talv/sdk.h"

using talvseam::Arg;

namespace {
const char kDeviceSecret[] = "talv-device-secret";
}

extern "C" {

int TALVCloudServiceQbtokenGenerateToken(const char* serial, char* token, int tokenSize) {
  if (talvseam::Enter("cloud", "TALVCloudServiceQbtokenGenerateToken", {Arg(serial), Arg(tokenSize)}) || !serial ||
      !*serial || !token || tokenSize < 33) {
    TLIBCErrSetEx(TLIBC_ERR_BAD_PARAMETERS, "cloud.cpp", __LINE__);
    return -1;
  }
  std::string input = std::string(serial) + ":" + kDeviceSecret;
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(input.data()), input.size(), digest);
  for (size_t i = 0; i < 16; ++i) (void)std::snprintf(token + 2 * i, 3, "%02x", digest[i]);
  return 0;
}

int TALVCloudServiceQbtokenGetToken(char* serial, int serialSize, char* token, int tokenSize) {
  if (talvseam::Enter("cloud", "TALVCloudServiceQbtokenGetToken", {Arg(serialSize), Arg(tokenSize)}) || !serial ||
      serialSize <= 0) {
    TLIBCErrSetEx(TLIBC_ERR_BAD_PARAMETERS, "cloud.cpp", __LINE__);
    return -1;
  }
  if (TLIBGetSerialNumber(serial, serialSize) < 0) return -1;
  return TALVCloudServiceQbtokenGenerateToken(serial, token, tokenSize);
}

}  // extern "C"
