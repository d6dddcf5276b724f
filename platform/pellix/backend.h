// Seam of the account-client stand-in (libtalvpellix.so).
//
// Every TALVPELLIX* function and every AccountPkceService member journals its
// call, consults the fault plan and then forwards to the installed Backend on
// the caller's own thread. A fault the plan applies stands in for the backend,
// which is then not called: a plain function returns -1 with the fault's code
// as its account error number; a PKCE member throws PellixException with the
// fault's code and message ("injected fault in <operation>" when it has none).
//
// The module calls the library from all of its host's request threads at once,
// so every Backend must be safe for concurrent use. The account error number
// is the calling thread's own: a plain function sets it from its Outcome, and
// the PKCE members leave it as it was. JSON objects passed by reference are the
// caller's: a member fills those it names on success; on failure it may have
// written part of them, and the caller does not read them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "talv/pellix.h"

namespace talvpellix {

// A plain operation's outcome: `result` is what the library function returns
// (0 or more on success, negative on failure) and `error` the account error
// number that TALVPELLIXErrGet() then reports on the calling thread (0 on
// success, 3 no account signed in, 4 the service cannot be reached; the
// simulated service's own are in sim/service.h).
struct Outcome {
  int result;
  uint32_t error;
};

class Backend {
 public:
  virtual ~Backend();
  // The signed-in account into `info`: email, auth_key, activated and the
  // profile fields; {-1, 3} when none is signed in. The flags are hints that
  // a backend may ignore, filling every member.
  virtual Outcome QueryInfo(Json::Value& info, bool withProfile, bool withSettings) = 0;
  // Signs the device in to the account of `email` and `password`, in place of
  // any earlier sign-in, and fills `info` as QueryInfo does. On failure the
  // device's sign-in stays as it was. `remember` may be ignored.
  virtual Outcome Login(const char* email, const char* password, Json::Value& info, bool remember) = 0;
  // Signs in, as Login does, with the key an earlier sign-in issued to the
  // device of `serial`.
  virtual Outcome LoginByKey(const char* serial, const char* authKey, Json::Value& info) = 0;
  // Signs in, as Login does, with an OAuth access token.
  virtual Outcome OauthLogin(Json::Value& info, const char* accessToken) = 0;
  // Acts on an API-key error the interface reported ("expired": a new key in
  // answer["auth_key"]; "revoked": the device signed out, answer["signed_out"]
  // true), writing only those members of `answer`.
  virtual Outcome HandleApiKeyError(Json::Value& answer, const char* apikeyError) = 0;
  // Adds to `answer` what the interface's embedded account page needs, keeping
  // its other members.
  virtual Outcome GetIframeInfo(Json::Value& answer) = 0;
  // Signs the device out; {-1, 3} when no account was signed in.
  virtual Outcome Logout(bool notifyService) = 0;
  // Creates an account registered from this device (the simulated service also
  // signs the device in to it); on failure no account is created. Null texts
  // are fields not given.
  virtual Outcome Register(const char* email, const char* password, const char* fullName, bool criticalRelease,
                           bool enews, bool enewsLocalPromotion, const char* country) = 0;
  // Changes the given fields of the signed-in account (null texts and -1 BOOLs
  // are fields not given), all of them or, on failure, none; {-1, 3} when no
  // account is signed in.
  virtual Outcome SetInfo(const char* fullName, const char* email, const char* currentPassword, const char* newPassword,
                          const char* country, const char* notifyLanguage, const char* timezone, BOOL enews,
                          BOOL criticalRelease, BOOL enewsLocalPromotion, const char* criticalVersionList) = 0;
  // The signed-in account's purchases into `result`, filtered by dates (null:
  // an open bound) and by the four lists (null: no filter), which it only
  // reads; {-1, 3} when no account is signed in.
  virtual Outcome PurchaseList(const char* language, const char* dateFrom, const char* dateTo, Json::Value& apps,
                               Json::Value& serials, Json::Value& prices, Json::Value& paypals,
                               Json::Value& result) = 0;

  // The PKCE service, one AccountPkceService per request. Each member fails
  // by throwing PellixException, whose code is an account error number.
  //
  // Called by the AccountPkceService constructor, which its exception fails.
  virtual void PkceOpen() = 0;
  // The PKCE settings of the registration and the sign-in flows.
  virtual Json::Value PkceRegisterConfig() = 0;
  virtual Json::Value PkceLoginConfig() = 0;
  // Exchanges the authorisation code for a sign-in, as Login's, and returns at
  // least email, auth_key and activated. The simulated service spends the code
  // whatever the outcome.
  virtual Json::Value PkceLogin(const ParamPkceLogin& param) = 0;
  // Signs the device out; throws with code 3 when no account was signed in.
  virtual void PkceLogout() = 0;
};

// Forwards every call to `target` (not owned; it must outlive the wrapper):
// derive, override the calls of interest and inherit the rest. It adds no
// lock of its own, so it is as safe for concurrent use as target and overrides.
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
// reached: QueryInfo, Logout, SetInfo and PurchaseList give {-1, 3}, the other
// plain operations {-1, 4}; PkceOpen succeeds and the other PKCE members throw
// PellixException 4. It keeps no state, lives as long as the process and is
// safe from any thread.
Backend* OfflineBackend();
// The names the library's calls are journaled under and faults name, in the
// order of Backend's members: its plain functions, then the PKCE service's
// ("AccountPkceService::AccountPkceService" for PkceOpen). Fixed for the process.
const std::vector<std::string>& OperationNames();
// Whether `op` names a PKCE member, one whose faults throw rather than give -1.
bool IsPkceOperation(const std::string& op);

// Installs `backend` (not owned) for every thread; nullptr restores the offline
// backend. Safe from any thread, but a call under way finishes on the backend
// it started with: keep a replaced backend alive until no call can be in it.
void SetBackend(Backend* backend);
// The installed backend, or the offline one; never null.
Backend* CurrentBackend();

}  // namespace talvpellix
