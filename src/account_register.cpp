// The registration form request to the account service.
#include "account_register.h"

#include "log.h"

extern "C" int PellixAccountRegister(const AccountRegisterInfo* info, HttpsResponse* result) {
  (void)result;
  if (!info || !info->email || !info->passwd || !info->fullName) {
    TLIBCErrSetEx(TLIBC_ERR_BAD_PARAMETERS, __FILE_NAME__, __LINE__);
    return -1;
  }
  // The form request has not landed in this build.
  PELLIX_LOG("PellixAccountRegister is not available in this build");
  TLIBCErrSetEx(TLIBC_ERR_NETWORK, __FILE_NAME__, __LINE__);
  return -1;
}
