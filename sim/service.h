// The simulated Pellix account service: accounts, the binding of each device
// to one account, sign-in keys, OAuth access tokens, PKCE grants and
// purchases, kept in a Store.
//
// Every operation is one transaction and returns an account error number
// (below); the device's account-client library hands it to the module as
// TALVPELLIXErrGet(). All members are safe for concurrent use.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <string>

#include "store.h"

namespace pellixsim {

// The account error numbers of this service. Append only: a number never
// changes its meaning. The module's table turns them into web API codes.
enum : uint32_t {
  kOk = 0,
  kBadParam = 1,      // a field is missing or malformed (3001)
  kNotSignedIn = 3,   // the device is bound to no account (the module's "not signed in")
  kSystem = 5,        // the service's storage failed (3003)
  kBadAuth = 14,      // wrong password; unknown or expired key, token or grant; failed PKCE check (3004)
  kInUse = 16,        // the e-mail address belongs to another account (3005)
  kSerialLimit = 17,  // the device has registered as many accounts as it may (3006)
};

// A password as stored: PBKDF2-HMAC-SHA256 over a random 16-byte salt, hex.
struct PasswordHash {
  std::string salt;
  std::string hash;
  int iterations;
};
PasswordHash HashPassword(const std::string& password, int iterations);
bool VerifyPassword(const std::string& password, const PasswordHash& stored);
// BASE64URL(SHA-256(verifier)) without padding: the S256 challenge of RFC 7636.
std::string S256Challenge(const std::string& verifier);
// `bytes` random bytes from OpenSSL, as lower-case hex.
std::string RandomHex(size_t bytes);

struct NewAccount {
  std::string email;
  std::string password;
  std::string fullName;
  std::string country;  // "" for none
  bool criticalRelease = false;
  bool enews = false;
  bool enewsLocalPromotion = false;
  std::string notifyLanguage = "enu";
  std::string timezone;
};

// A change of profile: null texts and -1 flags are fields not given.
struct ProfileChange {
  const char* fullName = nullptr;
  const char* email = nullptr;
  const char* currentPassword = nullptr;
  const char* newPassword = nullptr;
  const char* country = nullptr;
  const char* notifyLanguage = nullptr;
  const char* timezone = nullptr;
  int enews = -1;
  int criticalRelease = -1;
  int enewsLocalPromotion = -1;
  const char* criticalVersionList = nullptr;
};

// Purchase history filters. Dates are "YYYY-MM-DD" (null: open bound); each
// list is null (no filter) or an array of texts the field must be one of.
struct PurchaseQuery {
  std::string language;
  const char* dateFrom = nullptr;
  const char* dateTo = nullptr;
  Json::Value apps, serials, prices, paypals;
};

struct Options {
  int passwordIterations = 100000;
  int64_t tokenLifetime = 3600;  // seconds an OAuth access token is good for
  int64_t grantLifetime = 300;   // seconds an authorisation code is good for
  int accountsPerSerial = 5;     // registrations one device may make
  std::string baseUrl;           // where the service's browser side is served
  std::string loginRedirectUri;  // the login flow's redirect URI (empty: the service's own page)
  std::function<int64_t()> now;  // seconds since the epoch; default time()
};

class Service {
 public:
  Service(Store* store, Options options);

  // Creates an account registered from device `serial`; the device stays as
  // it is. kBadParam for a malformed address, a password outside 6 to 128
  // bytes or a name outside 2 to 256; kInUse, kSerialLimit.
  uint32_t Register(const std::string& serial, const NewAccount& account);
  // Register, then bind the device to the new account (the device's library
  // signs in with what it just registered).
  uint32_t RegisterAndSignIn(const std::string& serial, const NewAccount& account, Json::Value* info);

  // The device's side. Each sign-in binds `serial` to the account with a new
  // auth_key (replacing an earlier binding) and fills `info` like Query.
  uint32_t Query(const std::string& serial, Json::Value* info);
  uint32_t SignIn(const std::string& serial, const std::string& email, const std::string& password, Json::Value* info);
  // The key must be one this service issued to `keySerial`.
  uint32_t SignInByKey(const std::string& serial, const std::string& keySerial, const std::string& authKey,
                       Json::Value* info);
  uint32_t SignInByToken(const std::string& serial, const std::string& accessToken, Json::Value* info);
  // Exchanges an authorisation code: the code is spent by this call whatever
  // its outcome; it must not have expired, client and redirect URI must be
  // those it was issued for, and S256Challenge(verifier) its challenge.
  uint32_t SignInByGrant(const std::string& serial, const std::string& clientId, const std::string& code,
                         const std::string& verifier, const std::string& redirectUri, Json::Value* info);
  // kNotSignedIn when the device was bound to no account.
  uint32_t SignOut(const std::string& serial);
  uint32_t Update(const std::string& serial, const ProfileChange& change);
  uint32_t Purchases(const std::string& serial, const PurchaseQuery& query, Json::Value* result);
  // "expired": a new auth_key for the binding, in answer["auth_key"];
  // "revoked": the binding ends, answer["signed_out"] true; else kBadParam.
  uint32_t ApiKeyError(const std::string& serial, const std::string& error, Json::Value* answer);
  Json::Value IframeInfo(const std::string& serial);
  // The PKCE settings of a flow, "login" or "register".
  Json::Value PkceConfig(const std::string& flow) const;

  // The browser's side of OAuth, served by the development host.
  uint32_t IssueAccessToken(const std::string& email, const std::string& password, std::string* token);
  // An authorisation code for the challenge (method S256 only).
  uint32_t IssueGrant(const std::string& email, const std::string& password, const std::string& clientId,
                      const std::string& redirectUri, const std::string& challenge, const std::string& method,
                      std::string* code);

  const Options& options() const { return options_; }
  // Where the browser's side is served; set before the first request.
  void SetBaseUrl(const std::string& url) { options_.baseUrl = url; }
  // The login flow's redirect URI, for an interface of the developer's own;
  // set before the first request.
  void SetLoginRedirectUri(const std::string& uri) { options_.loginRedirectUri = uri; }

 private:
  int64_t Now() const;
  uint32_t Authenticate(const std::string& email, const std::string& password, int64_t* id);
  Store* store_;
  Options options_;
};

// The OAuth client the device's library signs in as.
extern const char kClientId[];
// What every new account holds: a free trial.
extern const char kTrialApp[];
// The accounts one device may register: the state's limit, else options'.
int AccountsPerDevice(Connection& db, const Options& options);

}  // namespace pellixsim
