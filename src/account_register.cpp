// The registration form request to the account service. Its log lines are
// the device's, slips and all, and stay as written (log.h).
#include "account_register.h"

#include <cstring>

#include "log.h"
#include "talv/sdk.h"

namespace {

// Where the form goes when the caller names no host.
const char kDefaultHost[] = "account.pellix.example";
const char kPath[] = "account.php";
// The service's language code when the device's cannot be read.
const char kDefaultLanguage[] = "enu";

constexpr int kLanguageSize = 32;
constexpr int kZoneSize = 256;
constexpr int kHashSize = 1024;

// What a call holds from the form on, released however it ends.
struct Held {
  TLIBC_SZHASH* form = nullptr;
  TLIBC_SZHASH* zoneInfo = nullptr;
  HttpsResponse response = {0, nullptr};
  ~Held() {
    TLIBCSzHashFree(form);
    TLIBCSzHashFree(zoneInfo);
    HttpsResponseFree(&response);
  }
};

}  // namespace

extern "C" int PellixAccountRegister(const AccountRegisterInfo* info, HttpsResponse* result) {
  if (!info || !info->email || !info->passwd || !info->fullName) {
    TLIBCErrSetEx(TLIBC_ERR_BAD_PARAMETERS, __FILE_NAME__, __LINE__);
    return -1;
  }
  Held held;
  held.form = TLIBCSzHashAlloc(kHashSize);
  if (!held.form) {
    PELLIX_LOG("failed to alloc https request, err=[0x%04X %s:%d]", TLIBC_ERROR_STATE);
    return -1;
  }

  char language[kLanguageSize] = {};
  if (TLIBCFileGetKeyValue("/etc/talvinfo.conf", "language", language, kLanguageSize, 0) <= 0)
    std::strcpy(language, kDefaultLanguage);
  TLIBCSzHashSetValue(&held.form, "action", "register");
  TLIBCSzHashSetValue(&held.form, "email", info->email);
  TLIBCSzHashSetValue(&held.form, "passwd", info->passwd);
  TLIBCSzHashSetValue(&held.form, "full_name", info->fullName);
  TLIBCSzHashSetValue(&held.form, "notify_lang", language);
  if (info->serial) TLIBCSzHashSetValue(&held.form, "serial", info->serial);

  char zone[kZoneSize] = {};
  int sizeNeeded = -1;
  if (TALVZoneGet(zone, kZoneSize, &sizeNeeded) < 0) {
    PELLIX_LOG("failed to get time zone, size need: %d, err=[0x%04X %s:%d]", sizeNeeded, TLIBC_ERROR_STATE);
    return -1;
  }
  held.zoneInfo = TLIBCSzHashAlloc(kHashSize);
  if (!held.zoneInfo) {
    PELLIX_LOG("Failed to alloc pTZInfo, err=[0x%04X %s:%d]", TLIBC_ERROR_STATE);
    return -1;
  }
  if (TALVZoneGetInfo(zone, &held.zoneInfo) <= 0) {
    PELLIX_LOG("failed to get timezone info[0x%04X %s:%d]", TLIBC_ERROR_STATE);
    return -1;
  }
  // The service wants the tz-database name, not the device's own zone name.
  const char* tzdbName = TLIBCSzHashGetValue(held.zoneInfo, "nameInTZDB");
  if (!tzdbName) {
    PELLIX_LOG("failed to get tmz[0x%04X %s:%d]", TLIBC_ERROR_STATE);
    return -1;
  }
  TLIBCSzHashSetValue(&held.form, "timezone", tzdbName);

  // The password travels as the form field, not as the request's own.
  HttpsRequest request;
  std::memset(&request, 0, sizeof(request));
  request.host = info->host ? info->host : kDefaultHost;
  request.path = kPath;
  request.params = held.form;
  request.verbose = info->verbose;
  if (HttpsRequestSend(&request, &held.response) < 0) {
    PELLIX_LOG("failed to send https request to [%s], err=[0x%04X %s:%d]", request.host, TLIBC_ERROR_STATE);
    return -1;
  }

  if (result) {
    result->httpStatus = held.response.httpStatus;
    if (held.response.body) result->body = strdup(held.response.body);
  }
  return 0;
}
