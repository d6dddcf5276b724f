#include "backend.h"

namespace pellixsim {
namespace {

using talvpellix::Outcome;

// The library's convention: negative on failure, and the number either way.
Outcome Of(uint32_t error) { return Outcome{error == kOk ? 0 : -1, error}; }

std::string Text(const char* text) { return text ? text : ""; }

}  // namespace

void SimBackend::SetDevice(DeviceFacts device) {
  std::lock_guard<std::mutex> lock(mu_);
  device_ = std::move(device);
}

DeviceFacts SimBackend::Device() const {
  std::lock_guard<std::mutex> lock(mu_);
  return device_;
}

Outcome SimBackend::QueryInfo(Json::Value& info, bool, bool) { return Of(service_->Query(Device().serial, &info)); }

Outcome SimBackend::Login(const char* email, const char* password, Json::Value& info, bool) {
  return Of(service_->SignIn(Device().serial, Text(email), Text(password), &info));
}

Outcome SimBackend::LoginByKey(const char* serial, const char* authKey, Json::Value& info) {
  return Of(service_->SignInByKey(Device().serial, Text(serial), Text(authKey), &info));
}

Outcome SimBackend::OauthLogin(Json::Value& info, const char* accessToken) {
  return Of(service_->SignInByToken(Device().serial, Text(accessToken), &info));
}

Outcome SimBackend::HandleApiKeyError(Json::Value& answer, const char* apikeyError) {
  return Of(service_->ApiKeyError(Device().serial, Text(apikeyError), &answer));
}

Outcome SimBackend::GetIframeInfo(Json::Value& answer) {
  Json::Value info = service_->IframeInfo(Device().serial);
  for (const std::string& key : info.getMemberNames()) answer[key] = info[key];
  return Of(kOk);
}

Outcome SimBackend::Logout(bool) { return Of(service_->SignOut(Device().serial)); }

Outcome SimBackend::Register(const char* email, const char* password, const char* fullName, bool criticalRelease,
                             bool enews, bool enewsLocalPromotion, const char* country) {
  const DeviceFacts device = Device();
  NewAccount account;
  account.email = Text(email);
  account.password = Text(password);
  account.fullName = Text(fullName);
  account.country = Text(country);
  account.criticalRelease = criticalRelease;
  account.enews = enews;
  account.enewsLocalPromotion = enewsLocalPromotion;
  account.notifyLanguage = device.language.empty() ? "enu" : device.language;
  account.timezone = device.timezone;
  Json::Value info;
  return Of(service_->RegisterAndSignIn(device.serial, account, &info));
}

Outcome SimBackend::SetInfo(const char* fullName, const char* email, const char* currentPassword,
                            const char* newPassword, const char* country, const char* notifyLanguage,
                            const char* timezone, BOOL enews, BOOL criticalRelease, BOOL enewsLocalPromotion,
                            const char* criticalVersionList) {
  // In the order of the library's arguments.
  return Of(service_->Update(
      Device().serial, ProfileChange{fullName, email, currentPassword, newPassword, country, notifyLanguage, timezone,
                                     enews, criticalRelease, enewsLocalPromotion, criticalVersionList}));
}

Outcome SimBackend::PurchaseList(const char* language, const char* dateFrom, const char* dateTo, Json::Value& apps,
                                 Json::Value& serials, Json::Value& prices, Json::Value& paypals, Json::Value& result) {
  PurchaseQuery query{Text(language), dateFrom, dateTo, apps, serials, prices, paypals};
  return Of(service_->Purchases(Device().serial, query, &result));
}

Json::Value SimBackend::PkceLogin(const talvpellix::ParamPkceLogin& p) {
  Json::Value info;
  uint32_t error =
      service_->SignInByGrant(Device().serial, p.client_id, p.grant_code, p.code_verifier, p.redirect_uri, &info);
  if (error != kOk)
    throw talvpellix::PellixException(static_cast<int>(error), "the account service refused the authorisation code");
  Json::Value result(Json::objectValue);
  for (const char* key : {"email", "auth_key", "activated"}) result[key] = info[key];
  return result;
}

void SimBackend::PkceLogout() {
  uint32_t error = service_->SignOut(Device().serial);
  if (error == kNotSignedIn) throw talvpellix::PellixException(static_cast<int>(error), "no account is signed in");
  if (error != kOk) throw talvpellix::PellixException(static_cast<int>(error), "the account service failed");
}

}  // namespace pellixsim
