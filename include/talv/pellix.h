// Account-client library: the device's binding to a Pellix account.
//
// Plain functions return a negative number on failure and zero or more on
// success; every one of them also sets the account error number of the calling
// thread, read with TALVPELLIXErrGet() right after the call (0 success, 3 no
// account signed in). Operations without an account argument act on the
// account signed in on the device. JSON objects passed by reference are filled
// by the library and stay the caller's.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <exception>
#include <string>

typedef int BOOL;  // 0 false, 1 true; -1 marks "not given" in TALVPELLIXAccountSetInfo

// Fills `info` with the signed-in account (`email`, `auth_key`, `activated`,
// profile fields). Negative with error 3: no account is signed in; exactly 0:
// an account is signed in.
int TALVPELLIXAccountQueryInfo(Json::Value& info, bool withProfile, bool withSettings);
// Signs in with address and password; fills `info` like the query.
int TALVPELLIXAccountLogin(const char* email, const char* password, Json::Value& info, bool remember);
// Signs in with the key of an earlier sign-in; fills `info`.
int TALVPELLIXAccountLoginByKey(const char* serial, const char* authKey, Json::Value& info);
// Signs in with an OAuth access token; fills `info`.
int TALVPELLIXAccountOauthLogin(Json::Value& info, const char* accessToken);
// Hands an API-key error reported by the interface to the library, which may
// write into `answer`.
int TALVPELLIXHandleApiKeyError(Json::Value& answer, const char* apikeyError);
// Writes what the interface's embedded account page needs into `answer`.
int TALVPELLIXGetIframeInfo(Json::Value& answer);
// Signs the device out; error 3 afterwards: no account was signed in.
int TALVPELLIXAccountLogout(bool notifyService);
// Registers a new account; the outcome, success included, is the error number.
int TALVPELLIXAccountRegister(const char* email, const char* password, const char* fullName, bool criticalRelease,
                              bool enews, bool enewsLocalPromotion, const char* country);
// Changes the given fields of the signed-in account; null texts and -1 BOOLs
// are fields not given.
int TALVPELLIXAccountSetInfo(const char* fullName, const char* email, const char* currentPassword,
                             const char* newPassword, const char* country, const char* notifyLanguage,
                             const char* timezone, BOOL enews, BOOL criticalRelease, BOOL enewsLocalPromotion,
                             const char* criticalVersionList);
// Fills `result` with the purchase history; null dates are open bounds.
int TALVPELLIXAccountPurchaseList(const char* language, const char* dateFrom, const char* dateTo, Json::Value& apps,
                                  Json::Value& serials, Json::Value& prices, Json::Value& paypals, Json::Value& result);
// The account error number of the calling thread's last operation.
uint32_t TALVPELLIXErrGet();

namespace talvpellix {

// What the PKCE code exchange needs; filled member by member by the caller.
struct ParamPkceLogin {
  std::string client_id;
  std::string grant_code;
  std::string code_verifier;
  std::string redirect_uri;
};

// Thrown by AccountPkceService on failure; GetCode() is an account error number.
class PellixException : public std::exception {
 public:
  PellixException(int code, const std::string& message);
  PellixException(const PellixException& other);
  ~PellixException() override;
  int GetCode() const;
  const char* what() const noexcept override;

 private:
  int code_;
  std::string message_;
};

// The PKCE flow. One object per request; every member may throw PellixException.
class AccountPkceService {
 public:
  AccountPkceService();
  ~AccountPkceService();  // NOLINT(performance-trivially-destructible): the library's, defined out of line
  AccountPkceService(const AccountPkceService&) = delete;
  AccountPkceService& operator=(const AccountPkceService&) = delete;

  Json::Value GetRegisterPkceConfig() const;
  Json::Value GetLoginPkceConfig() const;
  // Completes the code exchange, signs the device in and returns at least
  // `email`, `auth_key` and `activated`.
  Json::Value Login(const ParamPkceLogin& param) const;
  void Logout() const;

 private:
  [[maybe_unused]] void* session_;  // the library's, opaque here
};

}  // namespace talvpellix
