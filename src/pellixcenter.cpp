// The API table and the handlers of the Pellix account web APIs.
#include "pellixcenter.h"

#include <cstdint>
#include <stdexcept>

#include "log.h"
#include "talv/pellix.h"

namespace {

// The web API codes the handlers answer with themselves.
constexpr int kErrGeneric = 3000;
constexpr int kCodeGood = 3007;  // success, never passed to SetError

constexpr uint32_t kAccountNotSignedIn = 3;

// Account error number -> web API error code.
const int grgAccountErrorTable[26] = {
    3007, 3001, 3000, 3000, 3002, 3003, 3000, 3000, 3000, 3000, 3000, 3000, 3000,
    3000, 3004, 3002, 3005, 3006, 3008, 3000, 3000, 3000, 3000, 3000, 3000, 3013,
};

int AccountErrorToApiError(uint32_t accountError) {
  if (accountError <= 25) return grgAccountErrorTable[accountError];
  return kErrGeneric;
}

// The three ways a handler reads a parameter. None of them trims, shortens
// or length-checks; a handler that finds a parameter missing or invalid logs
// its own line and answers 3001. Conversions are the JSON library's: what it
// refuses to convert passes to the host as an exception.

// A string without checks: false when absent.
[[maybe_unused]] bool ReadString(TALV::APIRequest* request, const char* name, std::string* value) {
  if (!request->HasParam(name)) return false;
  *value = request->GetParam(name, Json::Value()).asString();
  return true;
}

// A string with the host's checks (necessity 0), and a validator or none.
[[maybe_unused]] TALV::APIParameter<std::string> ReadCheckedString(TALV::APIRequest* request, const char* name,
                                                                   TALV::APIRequest::StringValidator validator) {
  return request->GetAndCheckString(name, static_cast<TALV::APIRequest::PARAM_NECESSITY>(0), validator);
}

// A flag: absent is false.
[[maybe_unused]] bool ReadFlag(TALV::APIRequest* request, const char* name) {
  return request->GetParam(name, Json::Value(false)).asBool();
}

// Methods whose implementation has not landed in this build yet.
void NotAvailable(const char* method, TALV::APIResponse* response) {
  PELLIX_LOG("%s is not available in this build", method);
  response->SetError(kErrGeneric, Json::Value());
}

}  // namespace

extern "C" {

TALV::APITableEntry grgTable[16] = {
    {"TALV.Core.PellixCenter", 1, 0, "register", Register},
    {"TALV.Core.PellixCenter", 2, 0, "login", Login},
    {"TALV.Core.PellixCenter", 2, 0, "login_by_key", LoginByKey},
    {"TALV.Core.PellixCenter", 2, 0, "logout", Logout},
    {"TALV.Core.PellixCenter", 2, 0, "register", Register_v2},
    {"TALV.Core.PellixCenter", 2, 0, "query", Query},
    {"TALV.Core.PellixCenter", 2, 0, "get_iframe_info", GetIframeInfo},
    {"TALV.Core.PellixCenter", 2, 0, "oauth_login", OauthLogin},
    {"TALV.Core.PellixCenter", 2, 0, "handle_apikey_error", HandleApiKeyError},
    {"TALV.Core.PellixCenter.Login", 1, 0, "pkce_login", PkceLogin},
    {"TALV.Core.PellixCenter.Login", 1, 0, "pkce_config_get", PkceConfigGet},
    {"TALV.Core.PellixCenter.Logout", 1, 0, "pkce_logout", PkceLogout},
    {"TALV.Core.PellixCenter.Purchase", 1, 0, "list", ListPurchase},
    {"TALV.Core.PellixCenter.Account", 1, 0, "get", GetAccountInfo},
    {"TALV.Core.PellixCenter.Account", 1, 0, "set", SetAccountInfo},
    {nullptr, 0, 0, nullptr, nullptr},
};

PellixErrorCodeEntry grgErrorCodeMap[9] = {
    {"good", 3007},
    {"badparam", 3001},
    {"badauth", 3004},
    {"badsys", 3003},
    {"badnetwork", 3002},
    {"account_inused", 3005},
    {"serial_exceed_max_account_register", 3006},
    {"account_userid", 3007},
    {nullptr, 3000},
};

TALV::APITableEntry* GetAPITable(void) { return grgTable; }

}  // extern "C"

void Query(TALV::APIRequest*, TALV::APIResponse* response) {
  Json::Value info(Json::objectValue);
  Json::Value answer(Json::objectValue);

  if (TALVPELLIXAccountQueryInfo(info, true, true) >= 0) {
    int code = AccountErrorToApiError(TALVPELLIXErrGet());
    if (code == kCodeGood) {
      answer["account"] = info["email"];
      answer["auth_key"] = info["auth_key"];
      answer["activated"] = info["activated"];
      answer["critical_version_domain"] = info["critical_version_domain"];
      answer["is_logged_in"] = true;
      response->SetSuccess(answer);
    } else {
      PELLIX_LOG("Pellix query failed, code=%u", TALVPELLIXErrGet());
      answer["is_logged_in"] = false;
      response->SetError(code, answer);
    }
    return;
  }

  if (TALVPELLIXErrGet() == kAccountNotSignedIn) {
    answer["is_logged_in"] = false;
    response->SetSuccess(answer);
    return;
  }
  int code = AccountErrorToApiError(TALVPELLIXErrGet());
  if (code == kCodeGood) {
    response->SetSuccess(answer);
  } else {
    response->SetError(code, answer);
  }
}

void GetAccountInfo(TALV::APIRequest*, TALV::APIResponse* response) {
  Json::Value info(Json::objectValue);
  Json::Value answer(Json::objectValue);

  if (TALVPELLIXAccountQueryInfo(info, true, true) < 0) {
    answer["is_logged_in"] = false;
    response->SetSuccess(answer);
    return;
  }
  int code = AccountErrorToApiError(TALVPELLIXErrGet());
  if (code != kCodeGood) {
    PELLIX_LOG("Pellix query failed, code=%u", TALVPELLIXErrGet());
    response->SetError(code, answer);
    return;
  }
  for (const char* key : {"full_name", "email", "country", "notify_language", "enews", "critical_release",
                          "enews_local_promotion", "critical_version_list", "critical_version_domain"})
    answer[key] = info[key];
  response->SetSuccess(answer);
}

void GetIframeInfo(TALV::APIRequest*, TALV::APIResponse* response) {
  Json::Value answer(Json::objectValue);

  if (TALVPELLIXGetIframeInfo(answer) >= 0) {
    response->SetSuccess(answer);
    return;
  }
  int code = AccountErrorToApiError(TALVPELLIXErrGet());
  PELLIX_LOG("Pellix get iframe info failed, code=%u", code);
  if (code == kCodeGood) {
    response->SetSuccess(answer);
  } else {
    response->SetError(code, answer);
  }
}

void Register(TALV::APIRequest*, TALV::APIResponse* response) { NotAvailable("register (version 1)", response); }
void Login(TALV::APIRequest*, TALV::APIResponse* response) { NotAvailable("login", response); }
void LoginByKey(TALV::APIRequest*, TALV::APIResponse* response) { NotAvailable("login_by_key", response); }
void Logout(TALV::APIRequest*, TALV::APIResponse* response) { NotAvailable("logout", response); }
void Register_v2(TALV::APIRequest*, TALV::APIResponse* response) { NotAvailable("register", response); }
void OauthLogin(TALV::APIRequest*, TALV::APIResponse* response) { NotAvailable("oauth_login", response); }
void HandleApiKeyError(TALV::APIRequest*, TALV::APIResponse* response) {
  NotAvailable("handle_apikey_error", response);
}
void PkceLogin(TALV::APIRequest*, TALV::APIResponse* response) { NotAvailable("pkce_login", response); }
void PkceConfigGet(TALV::APIRequest*, TALV::APIResponse* response) { NotAvailable("pkce_config_get", response); }
void PkceLogout(TALV::APIRequest*, TALV::APIResponse* response) { NotAvailable("pkce_logout", response); }
void ListPurchase(TALV::APIRequest*, TALV::APIResponse* response) { NotAvailable("list", response); }
void SetAccountInfo(TALV::APIRequest*, TALV::APIResponse* response) { NotAvailable("set", response); }

std::string getCodeVerifier(std::string challenge) {
  (void)challenge;
  throw std::runtime_error("Failed to get verifier, challenge might be wrong");
}
