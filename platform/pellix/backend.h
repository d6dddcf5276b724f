// Seam of the account-client stand-in.
//
// Every TALVPELLIX* function and every AccountPkceService member journals its
// call, consults the fault plan and then forwards to the installed Backend. A
// plain operation's Outcome gives both its result and the account error number
// that TALVPELLIXErrGet() reports afterwards; an injected fault gives -1 and
// the fault's code (the PKCE members throw PellixException with it instead).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "talv/pellix.h"

namespace talvpellix {

struct Outcome {
  int result;
  uint32_t error;
};

class Backend {
 public:
  virtual ~Backend();
  virtual Outcome QueryInfo(Json::Value& info, bool withProfile, bool withSettings) = 0;
  virtual Outcome Login(const char* email, const char* password, Json::Value& info, bool remember) = 0;
  virtual Outcome LoginByKey(const char* serial, const char* authKey, Json::Value& info) = 0;
  virtual Outcome OauthLogin(Json::Value& info, const char* accessToken) = 0;
  virtual Outcome HandleApiKeyError(Json::Value& answer, const char* apikeyError) = 0;
  virtual Outcome GetIframeInfo(Json::Value& answer) = 0;
  virtual Outcome Logout(bool notifyService) = 0;
  virtual Outcome Register(const char* email, const char* password, const char* fullName, bool criticalRelease,
                           bool enews, bool enewsLocalPromotion, const char* country) = 0;
  virtual Outcome SetInfo(const char* fullName, const char* email, const char* currentPassword, const char* newPassword,
                          const char* country, const char* notifyLanguage, const char* timezone, BOOL enews,
                          BOOL criticalRelease, BOOL enewsLocalPromotion, const char* criticalVersionList) = 0;
  virtual Outcome PurchaseList(const char* language, const char* dateFrom, const char* dateTo, Json::Value& apps,
                               Json::Value& serials, Json::Value& prices, Json::Value& paypals,
                               Json::Value& result) = 0;
  // The PKCE service; each may throw PellixException (PkceOpen is its constructor).
  virtual void PkceOpen() = 0;
  virtual Json::Value PkceRegisterConfig() = 0;
  virtual Json::Value PkceLoginConfig() = 0;
  virtual Json::Value PkceLogin(const ParamPkceLogin& param) = 0;
  virtual void PkceLogout() = 0;
};

// Forwards every call to a target; derive and override the calls of interest.
class BackendWrapper : public Backend {
 public:
  explicit BackendWrapper(Backend* target) : target_(target) {}
  Backend* target() const { return target_; }
  Outcome QueryInfo(Json::Value& info, bool a, bool b) override { return target_->QueryInfo(info, a, b); }
  Outcome Login(const char* e, const char* p, Json::Value& info, bool r) override {
    return target_->Login(e, p, info, r);
  }
  Outcome LoginByKey(const char* s, const char* k, Json::Value& info) override {
    return target_->LoginByKey(s, k, info);
  }
  Outcome OauthLogin(Json::Value& info, const char* t) override { return target_->OauthLogin(info, t); }
  Outcome HandleApiKeyError(Json::Value& a, const char* e) override { return target_->HandleApiKeyError(a, e); }
  Outcome GetIframeInfo(Json::Value& a) override { return target_->GetIframeInfo(a); }
  Outcome Logout(bool n) override { return target_->Logout(n); }
  Outcome Register(const char* e, const char* p, const char* f, bool c, bool n, bool l, const char* co) override {
    return target_->Register(e, p, f, c, n, l, co);
  }
  Outcome SetInfo(const char* f, const char* e, const char* cp, const char* np, const char* c, const char* nl,
                  const char* tz, BOOL en, BOOL cr, BOOL lp, const char* cv) override {
    return target_->SetInfo(f, e, cp, np, c, nl, tz, en, cr, lp, cv);
  }
  Outcome PurchaseList(const char* l, const char* f, const char* t, Json::Value& a, Json::Value& s, Json::Value& p,
                       Json::Value& pp, Json::Value& r) override {
    return target_->PurchaseList(l, f, t, a, s, p, pp, r);
  }
  void PkceOpen() override { target_->PkceOpen(); }
  Json::Value PkceRegisterConfig() override { return target_->PkceRegisterConfig(); }
  Json::Value PkceLoginConfig() override { return target_->PkceLoginConfig(); }
  Json::Value PkceLogin(const ParamPkceLogin& p) override { return target_->PkceLogin(p); }
  void PkceLogout() override { target_->PkceLogout(); }

 private:
  Backend* target_;
};

// A device with no account signed in whose account service cannot be
// reached: queries and sign-outs report error 3, everything else error 4
// (the PKCE service throws PellixException 4).
Backend* OfflineBackend();
// The names the library's calls are journaled under and faults name: its
// plain functions, then the PKCE service's members ("AccountPkceService::...").
const std::vector<std::string>& OperationNames();
bool IsPkceOperation(const std::string& op);

// Installs `backend` (not owned); nullptr restores the offline backend.
void SetBackend(Backend* backend);
Backend* CurrentBackend();

}  // namespace talvpellix
