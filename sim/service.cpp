#include "service.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <algorithm>
#include <ctime>

namespace pellixsim {

const char kClientId[] = "talv-device";

namespace {

const char kCriticalVersionDomain[] = "critical.pellix.example";
constexpr size_t kSaltBytes = 16;
constexpr size_t kHashBytes = 32;

std::string Hex(const unsigned char* bytes, size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out += digits[bytes[i] >> 4];
    out += digits[bytes[i] & 15];
  }
  return out;
}

std::string Pbkdf2(const std::string& password, const std::string& salt, int iterations) {
  unsigned char out[kHashBytes];
  if (PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()),
                        reinterpret_cast<const unsigned char*>(salt.data()), static_cast<int>(salt.size()), iterations,
                        EVP_sha256(), sizeof(out), out) != 1)
    throw StoreError("PBKDF2 failed");
  return Hex(out, sizeof(out));
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

// What the service takes for an address: one '@' between a local part and a
// dotted domain, no blanks or controls. The device's host checks harder.
bool ValidEmail(const std::string& email) {
  size_t at = email.find('@');
  if (email.size() > 254 || at == std::string::npos || at == 0 || email.find('@', at + 1) != std::string::npos)
    return false;
  size_t dot = email.find('.', at + 2);
  if (dot == std::string::npos || dot + 1 >= email.size()) return false;
  return std::none_of(email.begin(), email.end(), [](unsigned char c) { return c <= ' ' || c == 0x7f; });
}

bool ValidPassword(const std::string& p) { return p.size() >= 6 && p.size() <= 128; }
bool ValidName(const std::string& n) { return n.size() >= 2 && n.size() <= 256; }

std::string Day(int64_t seconds) {
  time_t t = static_cast<time_t>(seconds);
  struct tm tm;
  gmtime_r(&t, &tm);
  char text[16];
  (void)std::strftime(text, sizeof(text), "%Y-%m-%d", &tm);
  return text;
}

bool ValidDay(const char* day) {
  if (!day) return true;
  std::string d(day);
  if (d.size() != 10 || d[4] != '-' || d[7] != '-') return false;
  for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9})
    if (!std::isdigit(static_cast<unsigned char>(d[i]))) return false;
  return true;
}

// The account bound to `serial` and the binding's key; 0 when none.
int64_t BoundAccount(Connection& db, const std::string& serial, std::string* key = nullptr) {
  Statement s(db, "SELECT account_id, auth_key FROM bindings WHERE serial = ?");
  s.Bind(serial);
  if (!s.Step()) return 0;
  if (key) *key = s.Text(1);
  return s.Int(0);
}

int64_t AccountByEmail(Connection& db, const std::string& email) {
  Statement s(db, "SELECT id FROM accounts WHERE email_key = ?");
  s.Bind(Lower(email));
  return s.Step() ? s.Int(0) : 0;
}

// The stored hash of an account, found by address or by id.
bool LoadHash(Connection& db, const char* where, const std::function<void(Statement&)>& bind, int64_t* id,
              PasswordHash* pw) {
  Statement s(db, (std::string("SELECT id, salt, hash, iterations FROM accounts WHERE ") + where).c_str());
  bind(s);
  if (!s.Step()) return false;
  *id = s.Int(0);
  *pw = PasswordHash{s.Text(1), s.Text(2), static_cast<int>(s.Int(3))};
  return true;
}

// What the library fills into the information object of a query or sign-in,
// for the account a device is bound to: the binding's key, the account's id
// (NULL: the binding names a missing account), the account's fields.
const char kBoundInfo[] =
    "SELECT b.auth_key, a.id, a.email, a.activated, a.full_name, a.country, a.notify_language, a.enews, "
    "a.critical_release, a.enews_local_promotion, a.critical_version_list "
    "FROM bindings AS b LEFT JOIN accounts AS a ON a.id = b.account_id WHERE b.serial = ?";

// Runs kBoundInfo for `serial` into `info`; false when the device is bound to
// no account.
bool BoundInfo(Statement& s, const std::string& serial, Json::Value* info) {
  s.Bind(serial);
  if (!s.Step()) return false;
  if (s.IsNull(1)) throw StoreError("binding names a missing account");
  Json::Value& v = *info;
  v["email"] = s.Text(2);
  v["auth_key"] = s.Text(0);
  v["activated"] = s.Int(3) != 0;
  v["critical_version_domain"] = kCriticalVersionDomain;
  v["full_name"] = s.Text(4);
  v["country"] = s.Text(5);
  v["notify_language"] = s.Text(6);
  v["enews"] = s.Int(7) != 0;
  v["critical_release"] = s.Int(8) != 0;
  v["enews_local_promotion"] = s.Int(9) != 0;
  v["critical_version_list"] = s.Text(10);
  return true;
}

// Binds the device to the account with a fresh key, which stays good for a
// later sign-in by key from the same device, or with such a key (`reused`).
uint32_t Bind(Connection& db, const std::string& serial, int64_t id, int64_t now, Json::Value* info,
              const std::string& reused = "") {
  const std::string key = reused.empty() ? RandomHex(16) : reused;
  if (reused.empty())
    Statement(db, "INSERT INTO auth_keys(auth_key, account_id, serial, issued) VALUES(?, ?, ?, ?)")
        .Bind(key)
        .Bind(id)
        .Bind(serial)
        .Bind(now)
        .Run();
  Statement(db, "INSERT OR REPLACE INTO bindings(serial, account_id, auth_key, since) VALUES(?, ?, ?, ?)")
      .Bind(serial)
      .Bind(id)
      .Bind(key)
      .Bind(now)
      .Run();
  if (info) {
    Statement bound(db, kBoundInfo);
    if (!BoundInfo(bound, serial, info)) throw StoreError("the binding just made is not there");
  }
  return kOk;
}

}  // namespace

// The state's own limit when it has one (a state document sets it), else the
// service's.
int AccountsPerDevice(Connection& db, const Options& options) {
  Statement s(db, "SELECT value FROM limits WHERE name = 'accounts_per_device'");
  return s.Step() ? static_cast<int>(s.Int(0)) : options.accountsPerSerial;
}

namespace {

// A purchase list filter: null passes everything, an array of texts those
// texts only; anything else is a malformed request.
bool Filter(const Json::Value& list, const std::string& value, bool* malformed) {
  if (list.isNull()) return true;
  if (!list.isArray()) {
    *malformed = true;
    return false;
  }
  for (const Json::Value& item : list) {
    if (!item.isString()) {
      *malformed = true;
      return false;
    }
    if (item.asString() == value) return true;
  }
  return false;
}

// Display names of what an account can hold; new accounts get the trial.
}  // namespace
const char kTrialApp[] = "cloud_backup_trial";
namespace {
std::string AppName(const std::string& app, const std::string& language) {
  if (app == kTrialApp) return language == "ger" ? "Cloud-Sicherung, 30 Tage zur Probe" : "Cloud backup, 30-day trial";
  return app;
}

}  // namespace

PasswordHash HashPassword(const std::string& password, int iterations) {
  std::string salt = RandomHex(kSaltBytes);
  return PasswordHash{salt, Pbkdf2(password, salt, iterations), iterations};
}

bool VerifyPassword(const std::string& password, const PasswordHash& stored) {
  if (stored.iterations <= 0 || stored.hash.size() != 2 * kHashBytes) return false;
  std::string computed = Pbkdf2(password, stored.salt, stored.iterations);
  return CRYPTO_memcmp(computed.data(), stored.hash.data(), computed.size()) == 0;
}

std::string S256Challenge(const std::string& verifier) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(verifier.data()), verifier.size(), digest);
  unsigned char text[64];
  int n = EVP_EncodeBlock(text, digest, sizeof(digest));
  std::string out(reinterpret_cast<char*>(text), static_cast<size_t>(n));
  while (!out.empty() && out.back() == '=') out.pop_back();
  std::replace(out.begin(), out.end(), '+', '-');
  std::replace(out.begin(), out.end(), '/', '_');
  return out;
}

std::string RandomHex(size_t bytes) {
  std::string raw(bytes, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&raw[0]), static_cast<int>(bytes)) != 1)
    throw StoreError("no random bytes");
  return Hex(reinterpret_cast<const unsigned char*>(raw.data()), bytes);
}

Service::Service(Store* store, Options options) : store_(store), options_(std::move(options)) {}

// The hash is read, and checked after the read: PBKDF2 takes long enough to
// hold up a connection.
uint32_t Service::Authenticate(const std::string& email, const std::string& password, int64_t* id) {
  PasswordHash stored;
  bool found = false;
  uint32_t loaded = store_->Read(kSystem, [&](Connection& db) -> uint32_t {
    found = LoadHash(
        db, "email_key = ?", [&](Statement& s) { s.Bind(Lower(email)); }, id, &stored);
    return 0;
  });
  if (loaded) return loaded;
  if (!found) {
    // As slow as a known address, so that timing does not tell which exist.
    HashPassword(password, options_.passwordIterations);
    return kBadAuth;
  }
  return VerifyPassword(password, stored) ? kOk : kBadAuth;
}

int64_t Service::Now() const { return options_.now ? options_.now() : static_cast<int64_t>(std::time(nullptr)); }

uint32_t Service::Register(const std::string& serial, const NewAccount& a) {
  return RegisterAndSignIn(serial, a, nullptr);
}

uint32_t Service::RegisterAndSignIn(const std::string& serial, const NewAccount& a, Json::Value* info) {
  if (!ValidEmail(a.email) || !ValidPassword(a.password) || !ValidName(a.fullName)) return kBadParam;
  // Hashing takes a while: not under the store's lock.
  const PasswordHash pw = HashPassword(a.password, options_.passwordIterations);
  const int64_t now = Now();
  return store_->Transaction(kSystem, [&](Connection& db) -> uint32_t {
    if (AccountByEmail(db, a.email)) return kInUse;
    Statement count(db, "SELECT COUNT(*) FROM accounts WHERE registered_from = ?");
    count.Bind(serial);
    if (!serial.empty() && count.Step() && count.Int(0) >= AccountsPerDevice(db, options_)) return kSerialLimit;
    Statement(db,
              "INSERT INTO accounts(email, email_key, salt, hash, iterations, full_name, country, notify_language, "
              "timezone, enews, critical_release, enews_local_promotion, registered_from, created) "
              "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .Bind(a.email)
        .Bind(Lower(a.email))
        .Bind(pw.salt)
        .Bind(pw.hash)
        .Bind(int64_t{pw.iterations})
        .Bind(a.fullName)
        .Bind(a.country)
        .Bind(a.notifyLanguage)
        .Bind(a.timezone)
        .Bind(int64_t{a.enews})
        .Bind(int64_t{a.criticalRelease})
        .Bind(int64_t{a.enewsLocalPromotion})
        .Bind(serial)
        .Bind(now)
        .Run();
    const int64_t id = db.LastInsertId();
    Statement(db,
              "INSERT INTO purchases(account_id, app, serial, price, currency, paypal, date) "
              "VALUES(?, ?, ?, '0.00', 'USD', '', ?)")
        .Bind(id)
        .Bind(kTrialApp)
        .Bind(serial)
        .Bind(Day(now))
        .Run();
    return info ? Bind(db, serial, id, now, info) : kOk;
  });
}

uint32_t Service::Query(const std::string& serial, Json::Value* info) {
  return store_->ReadOne(kSystem, kBoundInfo,
                         [&](Statement& s) { return BoundInfo(s, serial, info) ? kOk : kNotSignedIn; });
}

uint32_t Service::SignIn(const std::string& serial, const std::string& email, const std::string& password,
                         Json::Value* info) {
  int64_t id = 0;
  if (uint32_t checked = Authenticate(email, password, &id)) return checked;
  const int64_t now = Now();
  return store_->Transaction(kSystem, [&](Connection& db) { return Bind(db, serial, id, now, info); });
}

uint32_t Service::SignInByKey(const std::string& serial, const std::string& keySerial, const std::string& authKey,
                              Json::Value* info) {
  const int64_t now = Now();
  return store_->Transaction(kSystem, [&](Connection& db) -> uint32_t {
    Statement s(db, "SELECT account_id FROM auth_keys WHERE auth_key = ? AND serial = ?");
    s.Bind(authKey).Bind(keySerial);
    if (!s.Step()) return kBadAuth;
    return Bind(db, serial, s.Int(0), now, info, authKey);
  });
}

uint32_t Service::SignInByToken(const std::string& serial, const std::string& accessToken, Json::Value* info) {
  const int64_t now = Now();
  return store_->Transaction(kSystem, [&](Connection& db) -> uint32_t {
    Statement s(db, "SELECT account_id FROM access_tokens WHERE token = ? AND expires > ?");
    s.Bind(accessToken).Bind(now);
    if (!s.Step()) return kBadAuth;
    return Bind(db, serial, s.Int(0), now, info);
  });
}

uint32_t Service::SignInByGrant(const std::string& serial, const std::string& clientId, const std::string& code,
                                const std::string& verifier, const std::string& redirectUri, Json::Value* info) {
  const int64_t now = Now();
  int64_t id = 0;
  bool usable = false;
  // The code is spent by the first exchange whatever its outcome, committed
  // on its own so that a wrong verifier cannot be retried; only the
  // exchange that found it unspent may sign in.
  uint32_t spent = store_->Transaction(kSystem, [&](Connection& db) -> uint32_t {
    Statement s(db, "SELECT account_id, client_id, redirect_uri, challenge, expires, used FROM grants WHERE code = ?");
    s.Bind(code);
    if (!s.Step()) return kBadAuth;
    id = s.Int(0);
    usable = s.Int(5) == 0 && s.Int(4) > now && s.Text(1) == clientId && s.Text(2) == redirectUri &&
             S256Challenge(verifier) == s.Text(3);
    Statement(db, "UPDATE grants SET used = 1 WHERE code = ?").Bind(code).Run();
    return 0;
  });
  if (spent) return spent;
  if (!usable) return kBadAuth;
  return store_->Transaction(kSystem, [&](Connection& db) { return Bind(db, serial, id, now, info); });
}

uint32_t Service::SignOut(const std::string& serial) {
  return store_->Transaction(kSystem, [&](Connection& db) -> uint32_t {
    Statement(db, "DELETE FROM bindings WHERE serial = ?").Bind(serial).Run();
    return db.Changes() ? kOk : kNotSignedIn;
  });
}

uint32_t Service::Update(const std::string& serial, const ProfileChange& c) {
  if ((c.email && !ValidEmail(c.email)) || (c.fullName && !ValidName(c.fullName)) ||
      (c.newPassword && (!ValidPassword(c.newPassword) || !c.currentPassword)))
    return kBadParam;
  // The new hash is made before the lock is taken; the current password is
  // checked inside, against the account bound at that moment.
  int64_t checkedId = 0;
  PasswordHash pw;
  if (c.newPassword) {
    PasswordHash current;
    uint32_t loaded = store_->Read(kSystem, [&](Connection& db) -> uint32_t {
      int64_t bound = BoundAccount(db, serial);
      if (!bound) return kNotSignedIn;
      LoadHash(
          db, "id = ?", [&](Statement& s) { s.Bind(bound); }, &checkedId, &current);
      return 0;
    });
    if (loaded) return loaded;
    if (!VerifyPassword(c.currentPassword, current)) return kBadAuth;
    pw = HashPassword(c.newPassword, options_.passwordIterations);
  }
  return store_->Transaction(kSystem, [&](Connection& db) -> uint32_t {
    int64_t id = BoundAccount(db, serial);
    if (!id) return kNotSignedIn;
    // Another sign-in between the password check and now: check again.
    if (c.newPassword && id != checkedId) return kBadAuth;
    if (c.email) {
      int64_t other = AccountByEmail(db, c.email);
      if (other && other != id) return kInUse;
      Statement(db, "UPDATE accounts SET email = ?, email_key = ? WHERE id = ?")
          .Bind(c.email)
          .Bind(Lower(c.email))
          .Bind(id)
          .Run();
    }
    if (c.newPassword)
      Statement(db, "UPDATE accounts SET salt = ?, hash = ?, iterations = ? WHERE id = ?")
          .Bind(pw.salt)
          .Bind(pw.hash)
          .Bind(int64_t{pw.iterations})
          .Bind(id)
          .Run();
    struct {
      const char* column;
      const char* value;
    } texts[] = {{"full_name", c.fullName},
                 {"country", c.country},
                 {"notify_language", c.notifyLanguage},
                 {"timezone", c.timezone},
                 {"critical_version_list", c.criticalVersionList}};
    for (const auto& t : texts)
      if (t.value)
        Statement(db, ("UPDATE accounts SET " + std::string(t.column) + " = ? WHERE id = ?").c_str())
            .Bind(t.value)
            .Bind(id)
            .Run();
    struct {
      const char* column;
      int value;
    } flags[] = {
        {"enews", c.enews}, {"critical_release", c.criticalRelease}, {"enews_local_promotion", c.enewsLocalPromotion}};
    for (const auto& f : flags)
      if (f.value >= 0)
        Statement(db, ("UPDATE accounts SET " + std::string(f.column) + " = ? WHERE id = ?").c_str())
            .Bind(int64_t{f.value != 0})
            .Bind(id)
            .Run();
    return kOk;
  });
}

uint32_t Service::Purchases(const std::string& serial, const PurchaseQuery& q, Json::Value* result) {
  if (!ValidDay(q.dateFrom) || !ValidDay(q.dateTo)) return kBadParam;
  return store_->Read(kSystem, [&](Connection& db) -> uint32_t {
    int64_t id = BoundAccount(db, serial);
    if (!id) return kNotSignedIn;
    Statement s(db,
                "SELECT app, serial, price, currency, paypal, date FROM purchases WHERE account_id = ? "
                "AND date >= ? AND date <= ? ORDER BY date, id");
    s.Bind(id).Bind(q.dateFrom ? q.dateFrom : "0000-00-00").Bind(q.dateTo ? q.dateTo : "9999-99-99");
    Json::Value list(Json::arrayValue);
    bool malformed = false;
    while (s.Step()) {
      if (!Filter(q.apps, s.Text(0), &malformed) || !Filter(q.serials, s.Text(1), &malformed) ||
          !Filter(q.prices, s.Text(2), &malformed) || !Filter(q.paypals, s.Text(4), &malformed)) {
        if (malformed) return kBadParam;
        continue;
      }
      Json::Value item;
      item["app"] = s.Text(0);
      item["name"] = AppName(s.Text(0), q.language);
      item["serial"] = s.Text(1);
      item["price"] = s.Text(2);
      item["currency"] = s.Text(3);
      item["paypal"] = s.Text(4);
      item["date"] = s.Text(5);
      list.append(item);
    }
    (*result)["language"] = q.language;
    (*result)["total"] = list.size();
    (*result)["purchases"] = list;
    return kOk;
  });
}

uint32_t Service::ApiKeyError(const std::string& serial, const std::string& error, Json::Value* answer) {
  if (error != "expired" && error != "revoked") return kBadParam;
  const int64_t now = Now();
  return store_->Transaction(kSystem, [&](Connection& db) -> uint32_t {
    int64_t id = BoundAccount(db, serial);
    if (!id) return kNotSignedIn;
    if (error == "revoked") {
      Statement(db, "DELETE FROM bindings WHERE serial = ?").Bind(serial).Run();
      (*answer)["signed_out"] = true;
      return kOk;
    }
    Json::Value info;
    Bind(db, serial, id, now, &info);
    (*answer)["auth_key"] = info["auth_key"];
    return kOk;
  });
}

Json::Value Service::IframeInfo(const std::string& serial) {
  Json::Value info;
  Json::Value answer(Json::objectValue);
  answer["url"] = options_.baseUrl + "/sim/account";
  answer["is_logged_in"] = Query(serial, &info) == kOk;
  if (answer["is_logged_in"].asBool()) answer["account"] = info["email"];
  return answer;
}

Json::Value Service::PkceConfig(const std::string& flow) const {
  Json::Value config(Json::objectValue);
  config["client_id"] = kClientId;
  config["authorize_endpoint"] = options_.baseUrl + "/sim/authorize";
  config["token_endpoint"] = options_.baseUrl + "/sim/token";
  config["redirect_uri"] = flow == "login" && !options_.loginRedirectUri.empty()
                               ? options_.loginRedirectUri
                               : options_.baseUrl + "/sim/" + flow + "/done";
  config["code_challenge_method"] = "S256";
  config["scope"] = flow == "register" ? "account.create" : "account";
  return config;
}

uint32_t Service::IssueAccessToken(const std::string& email, const std::string& password, std::string* token) {
  int64_t id = 0;
  if (uint32_t checked = Authenticate(email, password, &id)) return checked;
  const int64_t now = Now();
  return store_->Transaction(kSystem, [&](Connection& db) -> uint32_t {
    *token = RandomHex(20);
    Statement(db, "INSERT INTO access_tokens(token, account_id, expires) VALUES(?, ?, ?)")
        .Bind(*token)
        .Bind(id)
        .Bind(now + options_.tokenLifetime)
        .Run();
    return kOk;
  });
}

uint32_t Service::IssueGrant(const std::string& email, const std::string& password, const std::string& clientId,
                             const std::string& redirectUri, const std::string& challenge, const std::string& method,
                             std::string* code) {
  // RFC 7636: 43 characters of BASE64URL for a SHA-256 digest.
  if (method != "S256" || challenge.size() != 43 || clientId.empty() || redirectUri.empty() ||
      challenge.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_") !=
          std::string::npos)
    return kBadParam;
  int64_t id = 0;
  if (uint32_t checked = Authenticate(email, password, &id)) return checked;
  const int64_t now = Now();
  return store_->Transaction(kSystem, [&](Connection& db) -> uint32_t {
    *code = RandomHex(16);
    Statement(db,
              "INSERT INTO grants(code, account_id, client_id, redirect_uri, challenge, expires) "
              "VALUES(?, ?, ?, ?, ?, ?)")
        .Bind(*code)
        .Bind(id)
        .Bind(clientId)
        .Bind(redirectUri)
        .Bind(challenge)
        .Bind(now + options_.grantLifetime)
        .Run();
    return kOk;
  });
}

}  // namespace pellixsim
