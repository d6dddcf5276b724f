// The account-client library: journals, fault plan, then the backend.

#include "backend.h"
#include "seam/seam.h"

using talvseam::Arg;

namespace talvpellix {
namespace {

constexpr uint32_t kNotSignedIn = 3;
constexpr uint32_t kUnreachable = 4;

class Offline : public Backend {
 public:
  Outcome QueryInfo(Json::Value&, bool, bool) override { return {-1, kNotSignedIn}; }
  Outcome Login(const char*, const char*, Json::Value&, bool) override { return {-1, kUnreachable}; }
  Outcome LoginByKey(const char*, const char*, Json::Value&) override { return {-1, kUnreachable}; }
  Outcome OauthLogin(Json::Value&, const char*) override { return {-1, kUnreachable}; }
  Outcome HandleApiKeyError(Json::Value&, const char*) override { return {-1, kUnreachable}; }
  Outcome GetIframeInfo(Json::Value&) override { return {-1, kUnreachable}; }
  Outcome Logout(bool) override { return {-1, kNotSignedIn}; }
  Outcome Register(const char*, const char*, const char*, bool, bool, bool, const char*) override {
    return {-1, kUnreachable};
  }
  Outcome SetInfo(const char*, const char*, const char*, const char*, const char*, const char*, const char*, BOOL, BOOL,
                  BOOL, const char*) override {
    return {-1, kNotSignedIn};
  }
  Outcome PurchaseList(const char*, const char*, const char*, Json::Value&, Json::Value&, Json::Value&, Json::Value&,
                       Json::Value&) override {
    return {-1, kNotSignedIn};
  }
  void PkceOpen() override {}
  Json::Value PkceRegisterConfig() override { throw Unreachable(); }
  Json::Value PkceLoginConfig() override { throw Unreachable(); }
  Json::Value PkceLogin(const ParamPkceLogin&) override { throw Unreachable(); }
  void PkceLogout() override { throw Unreachable(); }

 private:
  static PellixException Unreachable() {
    return PellixException(kUnreachable, "Pellix account service is not reachable");
  }
};

thread_local uint32_t tError = 0;

// Journals the call, then either fails it as the fault plan says or runs it.
template <typename Run>
int Plain(const char* op, std::vector<std::string> args, Run run) {
  int code = 0;
  Outcome out = talvseam::Enter("pellix", op, std::move(args), &code) ? Outcome{-1, static_cast<uint32_t>(code)}
                                                                      : run(CurrentBackend());
  tError = out.error;
  return out.result;
}

void Pkce(const char* op, std::vector<std::string> args = {}) {
  int code = 0;
  std::string what;
  if (talvseam::Enter("pellix", op, std::move(args), &code, &what))
    throw PellixException(code, what.empty() ? std::string("injected fault in ") + op : what);
}

}  // namespace

Backend::~Backend() = default;

Backend* OfflineBackend() {
  static Offline backend;
  return &backend;
}
namespace {
talvseam::Installed<Backend> gBackend(OfflineBackend);
}  // namespace

const std::vector<std::string>& OperationNames() {
  static const std::vector<std::string> names = {
      "TALVPELLIXAccountQueryInfo",
      "TALVPELLIXAccountLogin",
      "TALVPELLIXAccountLoginByKey",
      "TALVPELLIXAccountOauthLogin",
      "TALVPELLIXHandleApiKeyError",
      "TALVPELLIXGetIframeInfo",
      "TALVPELLIXAccountLogout",
      "TALVPELLIXAccountRegister",
      "TALVPELLIXAccountSetInfo",
      "TALVPELLIXAccountPurchaseList",
      "AccountPkceService::AccountPkceService",
      "AccountPkceService::GetRegisterPkceConfig",
      "AccountPkceService::GetLoginPkceConfig",
      "AccountPkceService::Login",
      "AccountPkceService::Logout",
  };
  return names;
}
bool IsPkceOperation(const std::string& op) { return op.rfind("AccountPkceService::", 0) == 0; }

void SetBackend(Backend* value) { gBackend.Set(value); }
Backend* CurrentBackend() { return gBackend.Get(); }

PellixException::PellixException(int code, const std::string& message) : code_(code), message_(message) {}
PellixException::PellixException(const PellixException& other) = default;
PellixException::~PellixException() = default;
int PellixException::GetCode() const { return code_; }
const char* PellixException::what() const noexcept { return message_.c_str(); }

AccountPkceService::AccountPkceService() : session_(nullptr) {
  Pkce("AccountPkceService::AccountPkceService");
  CurrentBackend()->PkceOpen();
}
AccountPkceService::~AccountPkceService() = default;

Json::Value AccountPkceService::GetRegisterPkceConfig() const {
  Pkce("AccountPkceService::GetRegisterPkceConfig");
  return CurrentBackend()->PkceRegisterConfig();
}
Json::Value AccountPkceService::GetLoginPkceConfig() const {
  Pkce("AccountPkceService::GetLoginPkceConfig");
  return CurrentBackend()->PkceLoginConfig();
}
Json::Value AccountPkceService::Login(const ParamPkceLogin& p) const {
  Pkce("AccountPkceService::Login", {p.client_id, p.grant_code, p.code_verifier, p.redirect_uri});
  return CurrentBackend()->PkceLogin(p);
}
void AccountPkceService::Logout() const {
  Pkce("AccountPkceService::Logout");
  CurrentBackend()->PkceLogout();
}

}  // namespace talvpellix

using talvpellix::Backend;

static std::string Flag(bool b) { return b ? "true" : "false"; }

int TALVPELLIXAccountQueryInfo(Json::Value& info, bool a, bool b) {
  return talvpellix::Plain("TALVPELLIXAccountQueryInfo", {Flag(a), Flag(b)},
                           [&](Backend* be) { return be->QueryInfo(info, a, b); });
}
int TALVPELLIXAccountLogin(const char* email, const char* password, Json::Value& info, bool remember) {
  return talvpellix::Plain("TALVPELLIXAccountLogin", {Arg(email), Arg(password), Flag(remember)},
                           [&](Backend* be) { return be->Login(email, password, info, remember); });
}
int TALVPELLIXAccountLoginByKey(const char* serial, const char* authKey, Json::Value& info) {
  return talvpellix::Plain("TALVPELLIXAccountLoginByKey", {Arg(serial), Arg(authKey)},
                           [&](Backend* be) { return be->LoginByKey(serial, authKey, info); });
}
int TALVPELLIXAccountOauthLogin(Json::Value& info, const char* accessToken) {
  return talvpellix::Plain("TALVPELLIXAccountOauthLogin", {Arg(accessToken)},
                           [&](Backend* be) { return be->OauthLogin(info, accessToken); });
}
int TALVPELLIXHandleApiKeyError(Json::Value& answer, const char* apikeyError) {
  return talvpellix::Plain("TALVPELLIXHandleApiKeyError", {Arg(apikeyError)},
                           [&](Backend* be) { return be->HandleApiKeyError(answer, apikeyError); });
}
int TALVPELLIXGetIframeInfo(Json::Value& answer) {
  return talvpellix::Plain("TALVPELLIXGetIframeInfo", {}, [&](Backend* be) { return be->GetIframeInfo(answer); });
}
int TALVPELLIXAccountLogout(bool notifyService) {
  return talvpellix::Plain("TALVPELLIXAccountLogout", {Flag(notifyService)},
                           [&](Backend* be) { return be->Logout(notifyService); });
}
int TALVPELLIXAccountRegister(const char* email, const char* password, const char* fullName, bool criticalRelease,
                              bool enews, bool enewsLocalPromotion, const char* country) {
  return talvpellix::Plain("TALVPELLIXAccountRegister",
                           {Arg(email), Arg(password), Arg(fullName), Flag(criticalRelease), Flag(enews),
                            Flag(enewsLocalPromotion), Arg(country)},
                           [&](Backend* be) {
                             return be->Register(email, password, fullName, criticalRelease, enews, enewsLocalPromotion,
                                                 country);
                           });
}
int TALVPELLIXAccountSetInfo(const char* fullName, const char* email, const char* currentPassword,
                             const char* newPassword, const char* country, const char* notifyLanguage,
                             const char* timezone, BOOL enews, BOOL criticalRelease, BOOL enewsLocalPromotion,
                             const char* criticalVersionList) {
  return talvpellix::Plain(
      "TALVPELLIXAccountSetInfo",
      {Arg(fullName), Arg(email), Arg(currentPassword), Arg(newPassword), Arg(country), Arg(notifyLanguage),
       Arg(timezone), Arg(enews), Arg(criticalRelease), Arg(enewsLocalPromotion), Arg(criticalVersionList)},
      [&](Backend* be) {
        return be->SetInfo(fullName, email, currentPassword, newPassword, country, notifyLanguage, timezone, enews,
                           criticalRelease, enewsLocalPromotion, criticalVersionList);
      });
}
int TALVPELLIXAccountPurchaseList(const char* language, const char* dateFrom, const char* dateTo, Json::Value& apps,
                                  Json::Value& serials, Json::Value& prices, Json::Value& paypals,
                                  Json::Value& result) {
  return talvpellix::Plain(
      "TALVPELLIXAccountPurchaseList",
      {Arg(language), Arg(dateFrom), Arg(dateTo), Arg(apps), Arg(serials), Arg(prices), Arg(paypals)},
      [&](Backend* be) {
        return be->PurchaseList(language, dateFrom, dateTo, apps, serials, prices, paypals, result);
      });
}
uint32_t TALVPELLIXErrGet() { return talvpellix::tError; }
