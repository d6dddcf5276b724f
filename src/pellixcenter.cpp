// The API table and the handlers of the Pellix account web APIs.
#include "pellixcenter.h"

#include <json/writer.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "account_register.h"
#include "log.h"
#include "talv/feasibility.h"
#include "talv/pellix.h"
#include "talv/relay.h"
#include "talv/sdk.h"

namespace {

// The web API codes the handlers answer with themselves.
constexpr int kErrGeneric = 3000;
constexpr int kErrBadParam = 3001;
constexpr int kErrSystem = 3003;
constexpr int kCodeGood = 3007;  // success, never passed to SetError
constexpr int kErrSignedIn = 3010;
constexpr int kErrNotFeasible = 3014;

// Not given, for the library's BOOL fields.
constexpr BOOL kNotGiven = -1;

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

// A string without checks, once its presence has been tested.
std::string Text(TALV::APIRequest* request, const char* name) {
  return request->GetParam(name, Json::Value()).asString();
}

// A string without checks: false when absent.
bool ReadString(TALV::APIRequest* request, const char* name, std::string* value) {
  if (!request->HasParam(name)) return false;
  *value = Text(request, name);
  return true;
}

// A string with the host's checks (necessity 0), and a validator or none.
TALV::APIParameter<std::string> ReadCheckedString(TALV::APIRequest* request, const char* name,
                                                  TALV::APIRequest::StringValidator validator) {
  return request->GetAndCheckString(name, static_cast<TALV::APIRequest::PARAM_NECESSITY>(0), validator);
}

// A flag: absent is false.
bool ReadFlag(TALV::APIRequest* request, const char* name) {
  return request->GetParam(name, Json::Value(false)).asBool();
}

// The profile and purchase methods pass what the request leaves out on as
// "not given" rather than refusing it. A text points into `held`, which must
// outlive the library call that reads it.
const char* OptionalText(TALV::APIRequest* request, const char* name, Json::Value* held) {
  if (!request->HasParam(name)) return nullptr;
  *held = request->GetParam(name, Json::Value());
  return held->asCString();
}
BOOL OptionalBool(TALV::APIRequest* request, const char* name) {
  if (!request->HasParam(name)) return kNotGiven;
  return request->GetParam(name, Json::Value()).asBool() ? 1 : 0;
}
void OptionalValue(TALV::APIRequest* request, const char* name, Json::Value* value) {
  if (request->HasParam(name)) *value = request->GetParam(name, Json::Value());
}

// One line of JSON text, for log lines.
std::string toString(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

// Where an account operation decides by its translated error number, 3007
// stands for success and never reaches SetError.
void AnswerCode(TALV::APIResponse* response, int code, const Json::Value& data) {
  if (code == kCodeGood) {
    response->SetSuccess(data);
  } else {
    response->SetError(code, data);
  }
}

enum class Aborted { kLogin, kRegister };

// No second sign-in or registration over a signed-in account: only a query
// result of exactly 0 means one is signed in. Then this logs, answers 3010
// with that account and returns true. Sign-in by password and registration
// hand the key back as text (`keyAsText`); the others copy it as it is.
bool RefuseWhileSignedIn(Json::Value& info, Json::Value& answer, TALV::APIResponse* response, Aborted aborted,
                         bool keyAsText) {
  if (TALVPELLIXAccountQueryInfo(info, true, true) != 0) return false;
  // One literal format each, so that a line from the system log leads to its statement.
  if (aborted == Aborted::kLogin) {
    PELLIX_LOG("Already logged in a Pellix account: %s. Login aborted.", info["email"].asCString());
  } else {
    PELLIX_LOG("Already logged in a Pellix account: %s. Register aborted.", info["email"].asCString());
  }
  answer["account"] = info["email"];
  if (keyAsText) {
    answer["auth_key"] = info["auth_key"].asCString();
  } else {
    answer["auth_key"] = info["auth_key"];
  }
  answer["activated"] = info["activated"];
  response->SetError(kErrSignedIn, answer);
  return true;
}

// The answer of an accepted sign-in.
void AnswerSignedIn(TALV::APIResponse* response, Json::Value& answer, const Json::Value& account,
                    const Json::Value& key, const Json::Value& activated) {
  answer["account"] = account;
  answer["auth_key"] = key;
  answer["activated"] = activated;
  response->SetSuccess(answer);
}

// One grade of the platform's sign-out check. Appends the platform's reasons
// (also when it finds the sign-out feasible); a check that cannot run counts
// as a refusal without reasons.
bool IsLogoutFeasible(int type, Json::Value& reasons) {
  TLIBC_SZLIST* list = TLIBCSzListAlloc(1024);
  if (!list) {
    PELLIX_LOG("Failed to alloc list [0x%04X %s:%d]", TLIBC_ERROR_STATE);
    return false;
  }
  // The platform may hand back another list through the address: read and
  // free whatever the variable holds afterwards.
  int result = TALVFeasibilityCheck(FEASIBILITY_ITEM_ACCOUNT_LOGOUT, type, &list, nullptr);
  if (result < 0) {
    PELLIX_LOG("Feasibility check (type=0x%02x) failed [0x%04X %s:%d]", type, TLIBC_ERROR_STATE);
  } else if (list) {
    for (int i = 0; i < list->nItem; ++i) {
      const char* reason = TLIBCSzListGet(list, i);
      reasons.append(reason ? reason : "");
    }
  }
  TLIBCSzListFree(list);
  return result == 0;
}

// Both sign-out methods: the hard check, then, unless the request forces the
// sign-out, the soft one. `force` is read only once the hard check passed. A
// refusal is answered here, 3014 with the grade and the reasons gathered so
// far (the hard grade's first), and returns false.
bool LogoutFeasible(TALV::APIRequest* request, TALV::APIResponse* response) {
  Json::Value details(Json::objectValue);
  Json::Value reasons;
  const char* refusedBy = nullptr;
  // "Hardly" and "softly" not feasible: the device's words (log.h).
  if (!IsLogoutFeasible(FEASIBILITY_CHECK_HARD, reasons)) {
    PELLIX_LOG("Logout is hardly not feasible, reasons: %s", toString(reasons).c_str());
    refusedBy = "hard";
  } else if (!ReadFlag(request, "force") && !IsLogoutFeasible(FEASIBILITY_CHECK_SOFT, reasons)) {
    PELLIX_LOG("Logout is softly not feasible, reasons: %s", toString(reasons).c_str());
    refusedBy = "soft";
  }
  if (!refusedBy) return true;
  details["check_type"] = refusedBy;
  details["reasons"] = reasons;
  response->SetError(kErrNotFeasible, details);
  return false;
}

// The identity the PKCE service and the verifier API need is root's. The
// effective ids belong to the whole process, so they are raised only for the
// guarded stretch and put back on every way out of it; real and saved ids are
// never touched (-1 keeps them).
struct Identity {
  uid_t uid;
  gid_t gid;
};
constexpr uid_t kKeepUid = static_cast<uid_t>(-1);
constexpr gid_t kKeepGid = static_cast<gid_t>(-1);

// Raises the group before the user: once the user is no longer root the
// group could not be changed. A failure is logged and the caller carries on.
Identity ENTERCriticalSection() {
  const Identity saved{geteuid(), getegid()};
  bool raised = (saved.gid == 0 || setresgid(kKeepGid, 0, kKeepGid) == 0) &&
                (saved.uid == 0 || setresuid(kKeepUid, 0, kKeepUid) == 0);
  if (raised) {
    errno = 0;
    return saved;
  }
  PELLIX_LOG_AT(LOG_AUTH | LOG_ERR, "ERROR: ENTERCriticalSection");
  errno = EPERM;  // after the log line, which may itself touch errno
  return saved;
}

// Puts back the ids recorded at entry: the group while the user is still
// root, the user last.
void LEAVECriticalSection(const Identity& saved) {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  bool restored;
  if (uid == saved.uid) {
    restored = gid == saved.gid || setresgid(kKeepGid, saved.gid, kKeepGid) == 0;
  } else {
    restored = setresuid(kKeepUid, 0, kKeepUid) == 0 &&
               (gid == saved.gid || setresgid(kKeepGid, saved.gid, kKeepGid) == 0) &&
               setresuid(kKeepUid, saved.uid, kKeepUid) == 0;
  }
  if (restored) {
    errno = 0;
    return;
  }
  PELLIX_LOG_AT(LOG_AUTH | LOG_ERR, "ERROR: LEAVECriticalSection");
  errno = EPERM;
}

// Root for the length of a scope, whichever way the scope ends.
class CriticalSectionGuard {
 public:
  CriticalSectionGuard() : saved_(ENTERCriticalSection()) {}
  ~CriticalSectionGuard() { Leave(); }
  CriticalSectionGuard(const CriticalSectionGuard&) = delete;
  CriticalSectionGuard& operator=(const CriticalSectionGuard&) = delete;
  // Leaves early; the end of the scope then does nothing.
  void Leave() {
    if (!held_) return;
    held_ = false;
    LEAVECriticalSection(saved_);
  }

 private:
  const Identity saved_;
  bool held_ = true;
};

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
  AnswerCode(response, AccountErrorToApiError(TALVPELLIXErrGet()), answer);
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
  AnswerCode(response, code, answer);
}

void Login(TALV::APIRequest* request, TALV::APIResponse* response) {
  Json::Value info(Json::objectValue);
  Json::Value answer(Json::objectValue);

  if (!request->HasParam("account") || !request->HasParam("password")) {
    PELLIX_LOG("Invalid parameter");
    response->SetError(kErrBadParam, answer);
    return;
  }
  const std::string account = Text(request, "account");
  const std::string password = Text(request, "password");
  if (RefuseWhileSignedIn(info, answer, response, Aborted::kLogin, true)) return;

  if (TALVPELLIXAccountLogin(account.c_str(), password.c_str(), info, false) < 0)
    PELLIX_LOG("TALVPELLIXAccountLogin failed, email=%s", account.c_str());
  int code = AccountErrorToApiError(TALVPELLIXErrGet());
  if (code == kCodeGood) {
    // The address as the user typed it, not as the library stores it.
    AnswerSignedIn(response, answer, Json::Value(account), info["auth_key"], info["activated"]);
    return;
  }
  PELLIX_LOG("Pellix login failed, email=%s, code=%u", account.c_str(), TALVPELLIXErrGet());
  response->SetError(code, answer);
}

void LoginByKey(TALV::APIRequest* request, TALV::APIResponse* response) {
  const TALV::APIParameter<std::string> serial = ReadCheckedString(request, "serial", nullptr);
  const TALV::APIParameter<std::string> key = ReadCheckedString(request, "auth_key", nullptr);
  // Null, not an empty object: an early refusal carries null details.
  Json::Value answer;
  Json::Value info;

  if (serial.IsInvalid() || key.IsInvalid()) {
    PELLIX_LOG("Invalid parameter %s %s", serial.Get().c_str(), key.Get().c_str());
    response->SetError(kErrBadParam, answer);
    return;
  }
  if (RefuseWhileSignedIn(info, answer, response, Aborted::kLogin, false)) return;

  if (TALVPELLIXAccountLoginByKey(serial.Get().c_str(), key.Get().c_str(), info) < 0)
    PELLIX_LOG("TALVPELLIXAccountLoginByKey failed, serial=%s", serial.Get().c_str());
  int code = AccountErrorToApiError(TALVPELLIXErrGet());
  if (code == kCodeGood) {
    AnswerSignedIn(response, answer, info["email"], Json::Value(key.Get()), info["activated"]);
    return;
  }
  PELLIX_LOG("Pellix login by key failed, serial=%s, code=%u", serial.Get().c_str(), TALVPELLIXErrGet());
  response->SetError(code, answer);
}

void OauthLogin(TALV::APIRequest* request, TALV::APIResponse* response) {
  Json::Value info(Json::objectValue);
  Json::Value answer(Json::objectValue);

  std::string token;
  if (!ReadString(request, "access_token", &token)) {
    PELLIX_LOG("Invalid parameter");
    response->SetError(kErrBadParam, answer);
    return;
  }
  if (RefuseWhileSignedIn(info, answer, response, Aborted::kLogin, false)) return;

  if (TALVPELLIXAccountOauthLogin(info, token.c_str()) < 0)
    PELLIX_LOG("TALVPELLIXAccountOauthLogin failed, random_token=%s", token.c_str());
  int code = AccountErrorToApiError(TALVPELLIXErrGet());
  if (code == kCodeGood) {
    AnswerSignedIn(response, answer, info["email"], info["auth_key"], info["activated"]);
    return;
  }
  PELLIX_LOG("Pellix login failed, random_token=%s, code=%u", token.c_str(), TALVPELLIXErrGet());
  response->SetError(code, answer);
}

// No signed-in guard: the library is told of the error whatever the state.
void HandleApiKeyError(TALV::APIRequest* request, TALV::APIResponse* response) {
  Json::Value answer(Json::objectValue);

  std::string error;
  if (!ReadString(request, "apikey_error", &error)) {
    PELLIX_LOG("Invalid parameter");
    response->SetError(kErrBadParam, answer);
    return;
  }
  if (TALVPELLIXHandleApiKeyError(answer, error.c_str()) >= 0) {
    response->SetSuccess(answer);
    return;
  }
  int code = AccountErrorToApiError(TALVPELLIXErrGet());
  PELLIX_LOG("Pellix handle apikey failed, code=%u", code);
  AnswerCode(response, code, answer);
}

void Logout(TALV::APIRequest* request, TALV::APIResponse* response) {
  Json::Value details(Json::objectValue);
  if (!LogoutFeasible(request, response)) return;

  if (TALVPELLIXAccountLogout(true) < 0) PELLIX_LOG("TALVPELLIXAccountLogout failed");
  // Nobody was signed in: the device is signed out, which is what was asked.
  if (TALVPELLIXErrGet() == kAccountNotSignedIn) {
    response->SetSuccess(Json::Value());
    return;
  }
  int code = AccountErrorToApiError(TALVPELLIXErrGet());
  if (code == kCodeGood) {
    response->SetSuccess(Json::Value());
    return;
  }
  PELLIX_LOG("Pellix query failed, code=%u", TALVPELLIXErrGet());
  response->SetError(code, details);
}

// A one-call bridge: every field the request leaves out is passed as not
// given, so any subset of the profile can change. Both answers carry null.
void SetAccountInfo(TALV::APIRequest* request, TALV::APIResponse* response) {
  Json::Value held[8];
  const char* fullName = OptionalText(request, "full_name", &held[0]);
  const char* email = OptionalText(request, "email", &held[1]);
  const char* currentPassword = OptionalText(request, "current_password", &held[2]);
  const char* newPassword = OptionalText(request, "new_password", &held[3]);
  const char* country = OptionalText(request, "country", &held[4]);
  const char* notifyLanguage = OptionalText(request, "notify_language", &held[5]);
  const char* timezone = OptionalText(request, "timezone", &held[6]);
  const BOOL enews = OptionalBool(request, "enews");
  const BOOL criticalRelease = OptionalBool(request, "critical_release");
  const BOOL enewsLocalPromotion = OptionalBool(request, "enews_local_promotion");
  const char* criticalVersionList = OptionalText(request, "critical_version_list", &held[7]);

  if (TALVPELLIXAccountSetInfo(fullName, email, currentPassword, newPassword, country, notifyLanguage, timezone, enews,
                               criticalRelease, enewsLocalPromotion, criticalVersionList) >= 0) {
    response->SetSuccess(Json::Value());
    return;
  }
  PELLIX_LOG("Pellix update failed, code=%u", TALVPELLIXErrGet());
  AnswerCode(response, AccountErrorToApiError(TALVPELLIXErrGet()), Json::Value());
}

// A one-call bridge: the history is the library's object, passed through.
void ListPurchase(TALV::APIRequest* request, TALV::APIResponse* response) {
  Json::Value apps, serials, prices, paypals;
  Json::Value result(Json::objectValue);
  std::string dateFrom, dateTo;

  OptionalValue(request, "apps", &apps);
  OptionalValue(request, "serials", &serials);
  OptionalValue(request, "prices", &prices);
  OptionalValue(request, "paypals", &paypals);
  if (request->HasParam("date_from")) dateFrom = Text(request, "date_from");
  if (request->HasParam("date_to")) dateTo = Text(request, "date_to");
  const std::string language = request->GetUILanguage();

  // An empty date is an open bound; the language is always passed as text.
  if (TALVPELLIXAccountPurchaseList(language.c_str(), dateFrom.empty() ? nullptr : dateFrom.c_str(),
                                    dateTo.empty() ? nullptr : dateTo.c_str(), apps, serials, prices, paypals,
                                    result) >= 0) {
    response->SetSuccess(result);
    return;
  }
  PELLIX_LOG("Pellix query purchase history failed, code=%u", TALVPELLIXErrGet());
  AnswerCode(response, AccountErrorToApiError(TALVPELLIXErrGet()), result);
}

// The settings of both PKCE flows, passed through unread. No answer is given
// when the service throws: that is for the host to report.
void PkceConfigGet(TALV::APIRequest*, TALV::APIResponse* response) {
  CriticalSectionGuard guard;
  Json::Value answer(Json::objectValue);
  talvpellix::AccountPkceService service;
  answer["register"] = service.GetRegisterPkceConfig();
  answer["login"] = service.GetLoginPkceConfig();
  response->SetSuccess(answer);
  guard.Leave();
}

// The last step of a PKCE sign-in: the verifier of the caller's challenge and
// the caller's grant code go to the account service. There is no signed-in
// guard here; the service decides what a second sign-in means.
void PkceLogin(TALV::APIRequest* request, TALV::APIResponse* response) {
  for (const char* name : {"code_challenge", "grant_code", "client_id", "token_endpoint", "redirect_uri"}) {
    if (!request->HasParam(name)) {
      response->SetError(kErrBadParam, Json::Value());
      return;
    }
  }
  const std::string challenge = Text(request, "code_challenge");
  const std::string grantCode = Text(request, "grant_code");
  const std::string clientId = Text(request, "client_id");
  Text(request, "token_endpoint");  // must be there and be text, but nobody needs its value
  const std::string redirectUri = Text(request, "redirect_uri");

  Json::Value result;
  int failure = 0;  // the web API code of a failed guarded stretch; never 0 for a failure
  std::string reason;
  try {
    // Declared inside the try: the ids are back before the failure is logged.
    CriticalSectionGuard guard;
    const std::string verifier = getCodeVerifier(challenge);
    talvpellix::AccountPkceService service;
    talvpellix::ParamPkceLogin param;
    param.client_id = clientId;
    param.grant_code = grantCode;
    param.code_verifier = verifier;
    param.redirect_uri = redirectUri;
    result = service.Login(param);
  } catch (const talvpellix::PellixException& e) {
    failure = AccountErrorToApiError(static_cast<uint32_t>(e.GetCode()));
    reason = e.what();
  } catch (const std::exception& e) {
    failure = kErrSystem;  // no verifier for the challenge, or the library failed otherwise
    reason = e.what();
  }
  if (failure) {
    PELLIX_LOG("Failed on PkceLogin: %s", reason.c_str());
    response->SetError(failure, Json::Value());
    return;
  }

  Json::Value answer(Json::objectValue);
  answer["account"] = result["email"];
  answer["auth_key"] = result["auth_key"];
  answer["activated"] = result["activated"];
  response->SetSuccess(answer);
}

// Signs out through the PKCE service, behind the same checks as logout. The
// service reports failure by exception, so there is no error number to read
// and no "nobody was signed in" case; the translated code is answered as it
// is, 3007 included.
void PkceLogout(TALV::APIRequest* request, TALV::APIResponse* response) {
  if (!LogoutFeasible(request, response)) return;
  try {
    talvpellix::AccountPkceService service;
    service.Logout();
  } catch (const talvpellix::PellixException& e) {
    // The device's wording, as written (log.h).
    PELLIX_LOG("Failed to pkce logout: %s", e.what());
    response->SetError(AccountErrorToApiError(static_cast<uint32_t>(e.GetCode())), Json::Value());
    return;
  }
  response->SetSuccess(Json::Value());
}

namespace {

const char kRelaydConf[] = "/usr/talv/etc/talvrelayd/talvrelayd.conf";
constexpr int kSerialSize = 36;

// The account service's limits, in bytes of the text as sent.
constexpr size_t kPasswordMin = 6;
constexpr size_t kPasswordMax = 128;
constexpr size_t kFullNameMin = 2;
constexpr size_t kFullNameMax = 256;

// False, with its line logged, when the password or the full name is outside
// the service's limits. The lines are spelt as the device spells them (log.h).
bool RegisterLengthsValid(const std::string& password, const std::string& fullName) {
  if (password.size() < kPasswordMin || password.size() > kPasswordMax) {
    PELLIX_LOG("pellix passowrd length is invaild: %zd", static_cast<ssize_t>(password.size()));
    return false;
  }
  if (fullName.size() < kFullNameMin || fullName.size() > kFullNameMax) {
    PELLIX_LOG("pellix fullname length is invaild: %s %zd", fullName.c_str(), static_cast<ssize_t>(fullName.size()));
    return false;
  }
  return true;
}

// The code of the first row whose key begins with the `length` bytes of
// `keyword`; a keyword that runs past its key's end matches nothing, and no
// keyword at all matches nothing either. Nothing matched: the terminator's.
int RegisterKeywordCode(const char* keyword, size_t length) {
  const PellixErrorCodeEntry* row = grgErrorCodeMap;
  while (row->szKey && (length == 0 || std::strncmp(row->szKey, keyword, length) != 0)) ++row;
  return row->iCode;
}

}  // namespace

// Version 1 posts the registration form itself and judges the service's
// answer by its first keyword. Every answer carries JSON null. Its log lines
// are worded as the device words them, lower case and all (log.h).
void Register(TALV::APIRequest* request, TALV::APIResponse* response) {
  TALV::Relay::RelaydConf relayd(kRelaydConf);
  const TALV::APIParameter<std::string> account = ReadCheckedString(request, "account", TALV::APIValidator::IsEMail);
  if (account.IsInvalid() || !request->HasParam("password") || !request->HasParam("fullname")) {
    PELLIX_LOG("Invalid parameter");
    response->SetError(kErrBadParam, Json::Value());
    return;
  }
  const std::string& email = account.Get();
  const std::string fullName = Text(request, "fullname");
  const std::string password = Text(request, "password");
  const std::string host = relayd.GetPellixConf().GetHost();
  char serial[kSerialSize] = {};
  if (TLIBGetSerialNumber(serial, kSerialSize) < 0) {
    response->SetError(kErrGeneric, Json::Value());
    return;
  }
  if (!RegisterLengthsValid(password, fullName)) {
    response->SetError(kErrBadParam, Json::Value());
    return;
  }
  if (host.empty()) {
    PELLIX_LOG("pellix host doesnot set");
    response->SetError(kErrBadParam, Json::Value());
    return;
  }

  const AccountRegisterInfo info = {0, host.c_str(), email.c_str(), password.c_str(), fullName.c_str(), serial};
  HttpsResponse result = {0, nullptr};
  if (PellixAccountRegister(&info, &result) < 0) {
    PELLIX_LOG("cannot register account");
    response->SetError(kErrSystem, Json::Value());
    return;
  }
  // The keyword is the first run of characters other than ":"; the status
  // is not looked at, the client has put its own keywords in the body.
  const char* body = result.body ? result.body : "";
  const size_t start = std::strspn(body, ":");
  const size_t length = std::strcspn(body + start, ":");
  const int code = RegisterKeywordCode(body + start, length);
  if (code == kCodeGood) {
    HttpsResponseFree(&result);
    response->SetSuccess(Json::Value());
    return;
  }
  const std::string keyword = length ? std::string(body, start + length) : std::string();
  PELLIX_LOG("pellix register error, http-status: %ld response: %s", result.httpStatus, keyword.c_str());
  HttpsResponseFree(&result);
  response->SetError(code, Json::Value());
}

// Version 2 leaves the registration to the account library and refuses
// while an account is signed in.
void Register_v2(TALV::APIRequest* request, TALV::APIResponse* response) {
  Json::Value answer(Json::objectValue);
  Json::Value info(Json::objectValue);
  const TALV::APIParameter<std::string> account = ReadCheckedString(request, "account", TALV::APIValidator::IsEMail);
  if (account.IsInvalid() || !request->HasParam("password") || !request->HasParam("fullname") ||
      !request->HasParam("critical_release")) {
    PELLIX_LOG("Invalid parameter");
    response->SetError(kErrBadParam, answer);
    return;
  }
  const std::string& email = account.Get();
  const std::string password = Text(request, "password");
  const std::string fullName = Text(request, "fullname");
  const bool criticalRelease = request->GetParam("critical_release", Json::Value()).asBool();
  const bool enewsLocalPromotion = ReadFlag(request, "enews_local_promotion");
  const bool enews = ReadFlag(request, "enews");
  const std::string country = request->GetParam("country", Json::Value("")).asString();
  if (!RegisterLengthsValid(password, fullName)) {
    response->SetError(kErrBadParam, answer);
    return;
  }
  if (RefuseWhileSignedIn(info, answer, response, Aborted::kRegister, true)) return;

  // The library takes its flags in another order than the request names them.
  if (TALVPELLIXAccountRegister(email.c_str(), password.c_str(), fullName.c_str(), criticalRelease, enews,
                                enewsLocalPromotion, country.empty() ? nullptr : country.c_str()) < 0)
    PELLIX_LOG("TALVPELLIXAccountRegister failed, email=%s, full_name=%s", email.c_str(), fullName.c_str());
  AnswerCode(response, AccountErrorToApiError(TALVPELLIXErrGet()), answer);
}

// The credential-verifier API keeps the verifiers and gives one out only
// against its challenge; it runs as root, inside the caller's guard.
// The exported signature takes the challenge by value.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
std::string getCodeVerifier(std::string challenge) {  // cppcheck-suppress passedByValue
  Json::Value params(Json::objectValue);
  params["challenge"] = challenge;
  Json::Value result(Json::objectValue);
  TALV::APIRunner::Exec(result, "TALV.Remote.Credential.Verifier", 1, "get", params, "root");
  // The message is logged with a failed PKCE sign-in: the device's wording too.
  if (result["success"].isNull() || !result["success"].asBool())
    throw std::runtime_error("Failed to get verifier, challenge might be wrong");
  return result["data"]["verifier"].asString();
}
