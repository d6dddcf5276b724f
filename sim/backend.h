// The account-client library's backend when the device talks to the
// simulated service: every operation is the service's answer for this
// device. Installed with talvpellix::SetBackend by the development host.
#pragma once

#include <mutex>
#include <string>

#include "pellix/backend.h"
#include "service.h"

namespace pellixsim {

// What the device's library knows of its device.
struct DeviceFacts {
  std::string serial;
  std::string language;  // the notification language of a new account
  std::string timezone;
};

class SimBackend : public talvpellix::Backend {
 public:
  SimBackend(Service* service, DeviceFacts device) : service_(service), device_(std::move(device)) {}
  // A state document or a reset gave the device other facts; each operation
  // reads them once, at its start.
  void SetDevice(DeviceFacts device);
  DeviceFacts Device() const;

  // The library fills every member whatever the two flags say.
  talvpellix::Outcome QueryInfo(Json::Value& info, bool withProfile, bool withSettings) override;
  talvpellix::Outcome Login(const char* email, const char* password, Json::Value& info, bool remember) override;
  talvpellix::Outcome LoginByKey(const char* serial, const char* authKey, Json::Value& info) override;
  talvpellix::Outcome OauthLogin(Json::Value& info, const char* accessToken) override;
  talvpellix::Outcome HandleApiKeyError(Json::Value& answer, const char* apikeyError) override;
  talvpellix::Outcome GetIframeInfo(Json::Value& answer) override;
  talvpellix::Outcome Logout(bool notifyService) override;
  talvpellix::Outcome Register(const char* email, const char* password, const char* fullName, bool criticalRelease,
                               bool enews, bool enewsLocalPromotion, const char* country) override;
  talvpellix::Outcome SetInfo(const char* fullName, const char* email, const char* currentPassword,
                              const char* newPassword, const char* country, const char* notifyLanguage,
                              const char* timezone, BOOL enews, BOOL criticalRelease, BOOL enewsLocalPromotion,
                              const char* criticalVersionList) override;
  talvpellix::Outcome PurchaseList(const char* language, const char* dateFrom, const char* dateTo, Json::Value& apps,
                                   Json::Value& serials, Json::Value& prices, Json::Value& paypals,
                                   Json::Value& result) override;
  void PkceOpen() override {}
  Json::Value PkceRegisterConfig() override { return service_->PkceConfig("register"); }
  Json::Value PkceLoginConfig() override { return service_->PkceConfig("login"); }
  // Both throw talvpellix::PellixException with the service's error number.
  Json::Value PkceLogin(const talvpellix::ParamPkceLogin& param) override;
  void PkceLogout() override;

 private:
  Service* service_;
  mutable std::mutex mu_;
  DeviceFacts device_;  // under mu_
};

}  // namespace pellixsim
