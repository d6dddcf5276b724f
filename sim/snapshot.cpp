#include "snapshot.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <set>
#include <vector>

#include "text.h"

namespace pellixsim {

using webapihost::JsonText;
namespace {

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

const char* const kTexts[] = {"country", "notify_language", "timezone", "critical_version_list"};
const char* const kFlags[] = {"enews", "critical_release", "enews_local_promotion", "activated"};

// The checks of a document's members, each naming the member at fault by its
// JSON pointer. The first fault found is the one told.
class Check {
 public:
  bool Fail(const std::string& at, const std::string& why) {
    if (problem.empty()) problem = at + ": " + why;
    return false;
  }
  bool Object(const Json::Value& v, const std::string& at) { return v.isObject() || Fail(at, "must be an object"); }
  bool Array(const Json::Value& v, const std::string& at) { return v.isArray() || Fail(at, "must be an array"); }
  // A text member, present unless optional.
  bool Text(const Json::Value& o, const char* name, const std::string& at, bool optional = true) {
    if (!o.isMember(name)) return optional || Fail(at + "/" + name, "is missing");
    return o[name].isString() || Fail(at + "/" + name, "must be a string");
  }
  bool Flag(const Json::Value& o, const char* name, const std::string& at) {
    return !o.isMember(name) || o[name].isBool() || Fail(at + "/" + name, "must be true or false");
  }
  bool Whole(const Json::Value& o, const char* name, const std::string& at, int64_t low, int64_t high) {
    if (!o.isMember(name)) return true;
    const Json::Value& v = o[name];
    return (v.isIntegral() && v.asInt64() >= low && v.asInt64() <= high) ||
           Fail(at + "/" + name, "must be a whole number from " + std::to_string(low) + " to " + std::to_string(high));
  }
  // Only the members in `known`: a misspelt one would be dropped unseen.
  bool Known(const Json::Value& o, const std::string& at, const std::set<std::string>& known) {
    for (const std::string& name : o.getMemberNames())
      if (!known.count(name)) return Fail(std::string(at).append("/").append(name), "is not a member the state knows");
    return true;
  }
  std::string problem;
};

bool Day(const std::string& d) {
  if (d.size() != 10 || d[4] != '-' || d[7] != '-') return false;
  for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9})
    if (!std::isdigit(static_cast<unsigned char>(d[i]))) return false;
  return true;
}

bool Hex(const std::string& text, size_t size) {
  return text.size() == size && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

void CheckAccount(Check& c, const Json::Value& a, const std::string& at, std::set<std::string>* keys) {
  if (!c.Object(a, at) ||
      !c.Known(a, at,
               {"email", "full_name", "password", "password_hash", "country", "notify_language", "timezone",
                "critical_version_list", "enews", "critical_release", "enews_local_promotion", "activated",
                "registered_from", "created", "keys", "purchases"}) ||
      !c.Text(a, "email", at, false) || !c.Text(a, "full_name", at, false) || !c.Text(a, "registered_from", at) ||
      !c.Whole(a, "created", at, 0, INT64_MAX))
    return;
  const std::string email = a["email"].asString();
  if (email.find('@') == std::string::npos || email.size() > 254)
    return (void)c.Fail(at + "/email", "\"" + email + "\" is not an e-mail address");
  for (const char* name : kTexts)
    if (!c.Text(a, name, at)) return;
  for (const char* name : kFlags)
    if (!c.Flag(a, name, at)) return;
  if (a.isMember("password") == a.isMember("password_hash"))
    return (void)c.Fail(at, "give either \"password\" (in clear) or \"password_hash\", one of them");
  if (a.isMember("password")) {
    if (!c.Text(a, "password", at)) return;
    const size_t size = a["password"].asString().size();
    if (size < 6 || size > 128) return (void)c.Fail(at + "/password", "must be 6 to 128 bytes long");
  } else {
    const Json::Value& h = a["password_hash"];
    const std::string hat = at + "/password_hash";
    if (!c.Object(h, hat) || !c.Known(h, hat, {"salt", "hash", "iterations"}) || !c.Text(h, "salt", hat, false) ||
        !c.Text(h, "hash", hat, false))
      return;
    if (!h.isMember("iterations")) return (void)c.Fail(hat + "/iterations", "is missing");
    if (!c.Whole(h, "iterations", hat, 1, 10000000)) return;
    if (!Hex(h["hash"].asString(), 64))
      return (void)c.Fail(hat + "/hash", "must be 64 lower-case hexadecimal digits (PBKDF2-HMAC-SHA256)");
  }
  for (const char* list : {"keys", "purchases"}) {
    if (!a.isMember(list)) continue;
    const std::string lat = at + "/" + list;
    if (!c.Array(a[list], lat)) return;
    for (Json::ArrayIndex i = 0; i < a[list].size(); ++i) {
      const Json::Value& item = a[list][i];
      const std::string iat = lat + "/" + std::to_string(i);
      if (!c.Object(item, iat) || !c.Text(item, "serial", iat)) return;
      if (std::string(list) == "keys") {
        if (!c.Known(item, iat, {"auth_key", "serial", "issued"}) || !c.Text(item, "auth_key", iat, false) ||
            !c.Whole(item, "issued", iat, 0, INT64_MAX))
          return;
        if (item["auth_key"].asString().empty()) return (void)c.Fail(iat + "/auth_key", "is empty");
        if (!keys->insert(item["auth_key"].asString()).second)
          return (void)c.Fail(iat + "/auth_key", "is the key of another account or given twice");
      } else {
        if (!c.Known(item, iat, {"app", "serial", "price", "currency", "paypal", "date"}) ||
            !c.Text(item, "app", iat, false) || !c.Text(item, "price", iat) || !c.Text(item, "currency", iat) ||
            !c.Text(item, "paypal", iat) || !c.Text(item, "date", iat, false))
          return;
        if (!Day(item["date"].asString())) return (void)c.Fail(iat + "/date", "must be a day, YYYY-MM-DD");
      }
    }
  }
}

std::string Text(const Json::Value& o, const char* name, const std::string& fallback) {
  return o.isMember(name) ? o[name].asString() : fallback;
}

}  // namespace

uint32_t WriteService(Store& store, const Options& options, const std::string& serial, const Json::Value* conditions,
                      std::string* text, Json::Value* signedIn) {
  // The accounts, their keys and their purchases come from three statements,
  // each in its own order: each key and purchase is written as it comes into
  // a text of its account's, and the accounts around them at the end.
  struct Account {
    int64_t id, iterations, created;
    std::string email, fullName, salt, hash, registeredFrom, texts[4];
    bool flags[4];
    std::string keys, purchases;  // their objects, with commas between
  };
  std::vector<Account> accounts;
  int limit = 0;
  *signedIn = Json::Value();
  // The account of `id` (ids ascend with their places), or nullptr.
  auto of = [&accounts](int64_t id) -> Account* {
    auto at = std::lower_bound(accounts.begin(), accounts.end(), id,
                               [](const Account& a, int64_t wanted) { return a.id < wanted; });
    return at != accounts.end() && at->id == id ? &*at : nullptr;
  };
  const uint32_t read = store.Read(kSystem, [&](Connection& db) -> uint32_t {
    limit = AccountsPerDevice(db, options);
    Statement a(db,
                "SELECT id, email, full_name, salt, hash, iterations, country, notify_language, timezone, "
                "critical_version_list, enews, critical_release, enews_local_promotion, activated, registered_from, "
                "created FROM accounts ORDER BY id");
    while (a.Step()) {
      Account account{a.Int(0),
                      a.Int(5),
                      a.Int(15),
                      a.Text(1),
                      a.Text(2),
                      a.Text(3),
                      a.Text(4),
                      a.Text(14),
                      {a.Text(6), a.Text(7), a.Text(8), a.Text(9)},
                      {a.Int(10) != 0, a.Int(11) != 0, a.Int(12) != 0, a.Int(13) != 0},
                      "",
                      ""};
      accounts.push_back(std::move(account));
    }
    Account* last = nullptr;  // keys and purchases of one account mostly come together
    auto owner = [&](int64_t id) { return last && last->id == id ? last : (last = of(id)); };
    Statement k(db, "SELECT account_id, auth_key, serial, issued FROM auth_keys ORDER BY issued, auth_key");
    while (k.Step()) {
      Account* at = owner(k.Int(0));
      if (!at) continue;
      if (!at->keys.empty()) at->keys += ',';
      JsonText(&at->keys)
          .Open('{')
          .Key("auth_key")
          .String(k.View(1))
          .Key("issued")
          .Int(k.Int(3))
          .Key("serial")
          .String(k.View(2))
          .Close('}');
    }
    Statement p(db, "SELECT account_id, app, serial, price, currency, paypal, date FROM purchases ORDER BY id");
    while (p.Step()) {
      Account* at = owner(p.Int(0));
      if (!at) continue;
      if (!at->purchases.empty()) at->purchases += ',';
      JsonText(&at->purchases)
          .Open('{')
          .Key("app")
          .String(p.View(1))
          .Key("currency")
          .String(p.View(4))
          .Key("date")
          .String(p.View(6))
          .Key("paypal")
          .String(p.View(5))
          .Key("price")
          .String(p.View(3))
          .Key("serial")
          .String(p.View(2))
          .Close('}');
    }
    Statement b(db,
                "SELECT a.email, b.auth_key FROM bindings AS b JOIN accounts AS a ON a.id = b.account_id "
                "WHERE b.serial = ?");
    b.Bind(serial);
    if (b.Step()) {
      (*signedIn)["email"] = b.Text(0);
      (*signedIn)["auth_key"] = b.Text(1);
    }
    return kOk;
  });
  if (read != kOk) return read;
  // Members by name, as Compact orders them.
  JsonText j(text);
  j.Open('{').Key("accounts").Open('[');
  for (const Account& a : accounts)
    j.Open('{')
        .Key("activated")
        .Bool(a.flags[3])
        .Key("country")
        .String(a.texts[0])
        .Key("created")
        .Int(a.created)
        .Key("critical_release")
        .Bool(a.flags[1])
        .Key("critical_version_list")
        .String(a.texts[3])
        .Key("email")
        .String(a.email)
        .Key("enews")
        .Bool(a.flags[0])
        .Key("enews_local_promotion")
        .Bool(a.flags[2])
        .Key("full_name")
        .String(a.fullName)
        .Key("keys")
        .Open('[')
        .Raw(a.keys)
        .Close(']')
        .Key("notify_language")
        .String(a.texts[1])
        .Key("password_hash")
        .Open('{')
        .Key("hash")
        .String(a.hash)
        .Key("iterations")
        .Int(a.iterations)
        .Key("salt")
        .String(a.salt)
        .Close('}')
        .Key("purchases")
        .Open('[')
        .Raw(a.purchases)
        .Close(']')
        .Key("registered_from")
        .String(a.registeredFrom)
        .Key("timezone")
        .String(a.texts[2])
        .Close('}');
  j.Close(']');
  if (conditions) j.Key("conditions").Value(*conditions);
  j.Key("limits").Open('{').Key("accounts_per_device").Int(limit).Close('}').Close('}');
  return kOk;
}

uint32_t ExportService(Store& store, const Options& options, const std::string& serial, Json::Value* service,
                       Json::Value* signedIn) {
  std::string text;
  const uint32_t read = WriteService(store, options, serial, nullptr, &text, signedIn);
  std::string problem;
  if (read == kOk) webapihost::ParseJson(text, service, &problem);
  return read;
}

std::string CheckService(const Json::Value& service, const Json::Value& signedIn) {
  Check c;
  if (!c.Object(service, "/service") || !c.Known(service, "/service", {"limits", "accounts", "conditions"}))
    return c.problem;
  if (service.isMember("limits")) {
    const Json::Value& l = service["limits"];
    if (!c.Object(l, "/service/limits") || !c.Known(l, "/service/limits", {"accounts_per_device"}) ||
        !c.Whole(l, "accounts_per_device", "/service/limits", 0, 1000000))
      return c.problem;
  }
  const Json::Value& accounts = service["accounts"];
  std::map<std::string, Json::ArrayIndex> emails;
  std::set<std::string> keys;
  if (service.isMember("accounts") && !c.Array(accounts, "/service/accounts")) return c.problem;
  for (Json::ArrayIndex i = 0; i < accounts.size(); ++i) {
    const std::string at = "/service/accounts/" + std::to_string(i);
    CheckAccount(c, accounts[i], at, &keys);
    if (!c.problem.empty()) return c.problem;
    auto seen = emails.emplace(Lower(accounts[i]["email"].asString()), i);
    if (!seen.second)
      return at + "/email: \"" + accounts[i]["email"].asString() + "\" is already the address of /service/accounts/" +
             std::to_string(seen.first->second) + " (addresses are unique regardless of letter case)";
  }
  if (signedIn.isNull()) return "";
  const std::string at = "/device/account";
  if (!c.Object(signedIn, at) || !c.Known(signedIn, at, {"email", "auth_key"}) ||
      !c.Text(signedIn, "email", at, false) || !c.Text(signedIn, "auth_key", at))
    return c.problem;
  auto account = emails.find(Lower(signedIn["email"].asString()));
  if (account == emails.end())
    return at + "/email: \"" + signedIn["email"].asString() + "\" is the address of no account in /service/accounts";
  if (signedIn.isMember("auth_key") && keys.count(signedIn["auth_key"].asString())) {
    bool own = false;
    for (const Json::Value& key : accounts[account->second]["keys"])
      own = own || key["auth_key"] == signedIn["auth_key"];
    if (!own) return at + "/auth_key: is the key of another account";
  }
  return "";
}

uint32_t ImportService(Store& store, const Options& options, const Json::Value& service, const Json::Value& signedIn,
                       const std::string& serial) {
  const Json::Value& accounts = service["accounts"];
  std::vector<PasswordHash> hashes;
  for (const Json::Value& a : accounts) {
    if (a.isMember("password")) {
      hashes.push_back(HashPassword(a["password"].asString(), options.passwordIterations));
    } else {
      const Json::Value& h = a["password_hash"];
      hashes.push_back(PasswordHash{h["salt"].asString(), h["hash"].asString(), h["iterations"].asInt()});
    }
  }
  const int64_t now = options.now ? options.now() : static_cast<int64_t>(std::time(nullptr));
  return store.Transaction(kSystem, [&](Connection& db) -> uint32_t {
    for (const char* table : {"grants", "access_tokens", "bindings", "auth_keys", "purchases", "accounts", "limits"})
      Statement(db, (std::string("DELETE FROM ") + table).c_str()).Run();
    if (service["limits"].isMember("accounts_per_device"))
      Statement(db, "INSERT INTO limits(name, value) VALUES('accounts_per_device', ?)")
          .Bind(service["limits"]["accounts_per_device"].asInt64())
          .Run();
    int64_t bound = 0;
    for (Json::ArrayIndex i = 0; i < accounts.size(); ++i) {
      const Json::Value& a = accounts[i];
      Statement(db,
                "INSERT INTO accounts(email, email_key, salt, hash, iterations, full_name, country, notify_language, "
                "timezone, critical_version_list, enews, critical_release, enews_local_promotion, activated, "
                "registered_from, created) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
          .Bind(a["email"].asString())
          .Bind(Lower(a["email"].asString()))
          .Bind(hashes[i].salt)
          .Bind(hashes[i].hash)
          .Bind(int64_t{hashes[i].iterations})
          .Bind(a["full_name"].asString())
          .Bind(Text(a, "country", ""))
          .Bind(Text(a, "notify_language", "enu"))
          .Bind(Text(a, "timezone", ""))
          .Bind(Text(a, "critical_version_list", ""))
          .Bind(int64_t{a.get("enews", false).asBool()})
          .Bind(int64_t{a.get("critical_release", false).asBool()})
          .Bind(int64_t{a.get("enews_local_promotion", false).asBool()})
          .Bind(int64_t{a.get("activated", true).asBool()})
          .Bind(Text(a, "registered_from", serial))
          .Bind(a.isMember("created") ? a["created"].asInt64() : now)
          .Run();
      const int64_t id = db.LastInsertId();
      for (const Json::Value& k : a["keys"])
        Statement(db, "INSERT INTO auth_keys(auth_key, account_id, serial, issued) VALUES(?, ?, ?, ?)")
            .Bind(k["auth_key"].asString())
            .Bind(id)
            .Bind(Text(k, "serial", serial))
            .Bind(k.isMember("issued") ? k["issued"].asInt64() : now)
            .Run();
      for (const Json::Value& p : a["purchases"])
        Statement(db,
                  "INSERT INTO purchases(account_id, app, serial, price, currency, paypal, date) "
                  "VALUES(?, ?, ?, ?, ?, ?, ?)")
            .Bind(id)
            .Bind(p["app"].asString())
            .Bind(Text(p, "serial", serial))
            .Bind(Text(p, "price", "0.00"))
            .Bind(Text(p, "currency", "USD"))
            .Bind(Text(p, "paypal", ""))
            .Bind(p["date"].asString())
            .Run();
      if (signedIn.isObject() && Lower(signedIn["email"].asString()) == Lower(a["email"].asString())) bound = id;
    }
    if (!bound) return kOk;
    // A binding's key is one the service issued for this device: one that
    // the document does not list is issued now.
    const std::string key = signedIn.isMember("auth_key") ? signedIn["auth_key"].asString() : RandomHex(16);
    Statement(db, "INSERT OR IGNORE INTO auth_keys(auth_key, account_id, serial, issued) VALUES(?, ?, ?, ?)")
        .Bind(key)
        .Bind(bound)
        .Bind(serial)
        .Bind(now)
        .Run();
    Statement(db, "INSERT INTO bindings(serial, account_id, auth_key, since) VALUES(?, ?, ?, ?)")
        .Bind(serial)
        .Bind(bound)
        .Bind(key)
        .Bind(now)
        .Run();
    return kOk;
  });
}

}  // namespace pellixsim
