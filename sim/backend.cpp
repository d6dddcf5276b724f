#include "backend.h"

namespace pellixsim {
namespace {

using talvpellix::Outcome;

// The library's convention: negative on failure, and the number either way.
Outcome Of(uint32_t error) { return Outcome{error == kOk ? 0 : -1, error}; }

std::string Text(const char* text) { return text ? text : ""; }

}  // namespace

Outcome SimBackend::QueryInfo(Json::Value& info, bool, bool) { return Of(service_->Query(device_.serial, &info)); }

Outcome SimBackend::Login(const char* email, const char* password, Json::Value& info, bool) {
  return Of(service_->SignIn(device_.serial, Text(email), Text(password), &info));
}

Outcome SimBackend::LoginByKey(const char* serial, const char* authKey, Json::Value& info) {
  return Of(service_->SignInByKey(device_.serial, Text(serial), Text(authKey), &info));
}

Outcome SimBackend::OauthLogin(Json::Value& info, const char* accessToken) {
  return Of(service_->SignInByToken(device_.serial, Text(accessToken), &info));
}

Outcome SimBackend::HandleApiKeyError(Json::Value& answer, const char* apikeyError) {
  return Of(service_->ApiKeyError(device_.serial, Text(apikeyError), &answer));
}

Outcome SimBackend::GetIframeInfo(Json::Value& answer) {
  Json::Value info = service_->IframeInfo(device_.serial);
  for (const std::string& key : info.getMemberNames()) answer[key] = info[key];
  return Of(kOk);
}

Outcome SimBackend::Logout(bool) { return Of(service_->SignOut(device_.serial)); }

Outcome SimBackend::Register(const char* email, const char* password, const char* fullName, bool criticalRelease,
                             bool enews, bool enewsLocalPromotion, const char* country) {
  NewAccount account;
  account.email = Text(email);
  account.password = Text(password);
  account.fullName = Text(fullName);
  account.country = Text(country);
  account.criticalRelease = criticalRelease;
  account.enews = enews;
  account.enewsLocalPromotion = enewsLocalPromotion;
  account.notifyLanguage = device_.language.empty() ? "enu" : device_.language;
  account.timezone = device_.timezone;
  Json::Value info;
  return Of(service_->RegisterAndSignIn(device_.serial, account, &info));
}

Outcome SimBackend::SetInfo(const char* fullName, const char* email, const char* currentPassword,
                            const char* newPassword, const char* country, const char* notifyLanguage,
                            const char* timezone, BOOL enews, BOOL criticalRelease, BOOL enewsLocalPromotion,
                            const char* criticalVersionList) {
  // In the order of the library's arguments.
  return Of(service_->Update(
      device_.serial, ProfileChange{fullName, email, currentPassword, newPassword, country, notifyLanguage, timezone,
                                    enews, criticalRelease, enewsLocalPromotion, criticalVersionList}));
}

Outcome SimBackend::PurchaseList(const char* language, const char* dateFrom, const char* dateTo, Json::Value& apps,
                                 Json::Value& serials, Json::Value& prices, Json::Value& paypals, Json::Value& result) {
  PurchaseQuery query{Text(language), dateFrom, dateTo, apps, serials, prices, paypals};
  return Of(service_->Purchases(device_.serial, query, &result));
}

Json::Value SimBackend::PkceLogin(const talvpellix::ParamPkceLogin& p) {
  Json::Value info;
  uint32_t error =
      service_->SignInByGrant(device_.serial, p.client_id, p.grant_code, p.code_verifier, p.redirect_uri, &info);
  if (error != kOk)
    throw talvpellix::PellixException(static_cast<int>(error), "the account service refused the authorisation code");
  Json::Value result(Json::objectValue);
  for (const char* key : {"email", "auth_key", "activated"}) result[key] = info[key];
  return result;
}

void SimBackend::PkceLogout() {
  uint32_t error = service_->SignOut(device_.serial);
  if (error == kNotSignedIn) throw talvpellix::PellixException(static_cast<int>(error), "no account is signed in");
  if (error != kOk) throw talvpellix::PellixException(static_cast<int>(error), "the account service failed");
}

}  // namespace pellixsim
