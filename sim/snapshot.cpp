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

// An object's members, read once: looking each one up in the object again,
// two or three times for a check, cost more than the rest of an import.
// Names in the object's own order, which is strcmp's.
class Members {
 public:
  explicit Members(const Json::Value& o) {
    all_.reserve(o.size());
    for (auto it = o.begin(); it != o.end(); ++it) {
      const char* end = nullptr;
      const char* name = it.memberName(&end);
      all_.emplace_back(std::string_view(name, static_cast<size_t>(end - name)), &*it);
    }
  }
  // The member `name`, or nullptr.
  const Json::Value* Find(std::string_view name) const {
    auto at = std::lower_bound(all_.begin(), all_.end(), name,
                               [](const Member& m, std::string_view wanted) { return m.first < wanted; });
    return at != all_.end() && at->first == name ? at->second : nullptr;
  }
  // The first member whose name is not in `known`, or nullptr.
  const std::string_view* Unknown(const std::set<std::string, std::less<>>& known) const {
    for (const Member& m : all_)
      if (!known.count(m.first)) return &m.first;
    return nullptr;
  }

 private:
  using Member = std::pair<std::string_view, const Json::Value*>;
  std::vector<Member> all_;
};

// The text of a member the checks found to be one, or `fallback` when it is
// not there.
std::string_view View(const Json::Value* v, std::string_view fallback) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (!v) return fallback;
  return v->getString(&begin, &end) ? std::string_view(begin, static_cast<size_t>(end - begin)) : std::string_view();
}

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
  bool Text(const Members& o, const char* name, const std::string& at, bool optional = true) {
    const Json::Value* v = o.Find(name);
    if (!v) return optional || Fail(at + "/" + name, "is missing");
    return v->isString() || Fail(at + "/" + name, "must be a string");
  }
  bool Flag(const Members& o, const char* name, const std::string& at) {
    const Json::Value* v = o.Find(name);
    return !v || v->isBool() || Fail(at + "/" + name, "must be true or false");
  }
  bool Whole(const Members& o, const char* name, const std::string& at, int64_t low, int64_t high) {
    const Json::Value* v = o.Find(name);
    if (!v) return true;
    // isInt64, not isIntegral: asInt64 throws for a whole number beyond it.
    return (v->isInt64() && v->asInt64() >= low && v->asInt64() <= high) ||
           Fail(at + "/" + name, "must be a whole number from " + std::to_string(low) + " to " + std::to_string(high));
  }
  // Only the members in `known`: a misspelt one would be dropped unseen.
  bool Known(const Members& o, const std::string& at, const std::set<std::string, std::less<>>& known) {
    const std::string_view* name = o.Unknown(known);
    return !name || Fail(std::string(at).append("/").append(*name), "is not a member the state knows");
  }
  std::string problem;
};

bool Day(std::string_view d) {
  if (d.size() != 10 || d[4] != '-' || d[7] != '-') return false;
  for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9})
    if (!std::isdigit(static_cast<unsigned char>(d[i]))) return false;
  return true;
}

bool Hex(std::string_view text, size_t size) {
  return text.size() == size && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

void CheckAccount(Check& c, const Json::Value& account, const std::string& at, std::set<std::string>* keys) {
  static const std::set<std::string, std::less<>> kAccount = {"email",
                                                              "full_name",
                                                              "password",
                                                              "password_hash",
                                                              "country",
                                                              "notify_language",
                                                              "timezone",
                                                              "critical_version_list",
                                                              "enews",
                                                              "critical_release",
                                                              "enews_local_promotion",
                                                              "activated",
                                                              "registered_from",
                                                              "created",
                                                              "keys",
                                                              "purchases"};
  static const std::set<std::string, std::less<>> kHash = {"salt", "hash", "iterations"};
  static const std::set<std::string, std::less<>> kKey = {"auth_key", "serial", "issued"};
  static const std::set<std::string, std::less<>> kPurchase = {"app", "serial", "price", "currency", "paypal", "date"};
  if (!c.Object(account, at)) return;
  const Members a(account);
  if (!c.Known(a, at, kAccount) || !c.Text(a, "email", at, false) || !c.Text(a, "full_name", at, false) ||
      !c.Text(a, "registered_from", at) || !c.Whole(a, "created", at, 0, INT64_MAX))
    return;
  const std::string_view email = View(a.Find("email"), "");
  if (email.find('@') == std::string_view::npos || email.size() > 254)
    return (void)c.Fail(at + "/email", "\"" + std::string(email) + "\" is not an e-mail address");
  for (const char* name : kTexts)
    if (!c.Text(a, name, at)) return;
  for (const char* name : kFlags)
    if (!c.Flag(a, name, at)) return;
  const Json::Value* password = a.Find("password");
  const Json::Value* hash = a.Find("password_hash");
  if (!password == !hash)
    return (void)c.Fail(at, "give either \"password\" (in clear) or \"password_hash\", one of them");
  if (password) {
    if (!c.Text(a, "password", at)) return;
    const size_t size = View(password, "").size();
    if (size < 6 || size > 128) return (void)c.Fail(at + "/password", "must be 6 to 128 bytes long");
  } else {
    const std::string hat = at + "/password_hash";
    if (!c.Object(*hash, hat)) return;
    const Members h(*hash);
    if (!c.Known(h, hat, kHash) || !c.Text(h, "salt", hat, false) || !c.Text(h, "hash", hat, false)) return;
    if (!h.Find("iterations")) return (void)c.Fail(hat + "/iterations", "is missing");
    if (!c.Whole(h, "iterations", hat, 1, 10000000)) return;
    if (!Hex(View(h.Find("hash"), ""), 64))
      return (void)c.Fail(hat + "/hash", "must be 64 lower-case hexadecimal digits (PBKDF2-HMAC-SHA256)");
  }
  for (const char* list : {"keys", "purchases"}) {
    const Json::Value* items = a.Find(list);
    if (!items) continue;
    const bool isKeys = std::string_view(list) == "keys";
    const std::string lat = at + "/" + list;
    if (!c.Array(*items, lat)) return;
    for (Json::ArrayIndex i = 0; i < items->size(); ++i) {
      const Json::Value& value = (*items)[i];
      const std::string iat = lat + "/" + std::to_string(i);
      if (!c.Object(value, iat)) return;
      const Members item(value);
      if (!c.Text(item, "serial", iat)) return;
      if (isKeys) {
        if (!c.Known(item, iat, kKey) || !c.Text(item, "auth_key", iat, false) ||
            !c.Whole(item, "issued", iat, 0, INT64_MAX))
          return;
        const std::string_view key = View(item.Find("auth_key"), "");
        if (key.empty()) return (void)c.Fail(iat + "/auth_key", "is empty");
        if (!keys->emplace(key).second)
          return (void)c.Fail(iat + "/auth_key", "is the key of another account or given twice");
      } else {
        if (!c.Known(item, iat, kPurchase) || !c.Text(item, "app", iat, false) || !c.Text(item, "price", iat) ||
            !c.Text(item, "currency", iat) || !c.Text(item, "paypal", iat) || !c.Text(item, "date", iat, false))
          return;
        if (!Day(View(item.Find("date"), ""))) return (void)c.Fail(iat + "/date", "must be a day, YYYY-MM-DD");
      }
    }
  }
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
  static const std::set<std::string, std::less<>> kService = {"limits", "accounts", "conditions"};
  static const std::set<std::string, std::less<>> kLimits = {"accounts_per_device"};
  static const std::set<std::string, std::less<>> kSignedIn = {"email", "auth_key"};
  Check c;
  if (!c.Object(service, "/service")) return c.problem;
  const Members s(service);
  if (!c.Known(s, "/service", kService)) return c.problem;
  if (const Json::Value* l = s.Find("limits")) {
    if (!c.Object(*l, "/service/limits")) return c.problem;
    const Members limits(*l);
    if (!c.Known(limits, "/service/limits", kLimits) ||
        !c.Whole(limits, "accounts_per_device", "/service/limits", 0, 1000000))
      return c.problem;
  }
  const Json::Value& accounts = service["accounts"];
  std::map<std::string, Json::ArrayIndex> emails;
  std::set<std::string> keys;
  if (s.Find("accounts") && !c.Array(accounts, "/service/accounts")) return c.problem;
  Json::ArrayIndex i = 0;
  for (const Json::Value& account : accounts) {
    const std::string at = "/service/accounts/" + std::to_string(i);
    CheckAccount(c, account, at, &keys);
    if (!c.problem.empty()) return c.problem;
    const std::string email(View(&account["email"], ""));
    auto seen = emails.emplace(Lower(email), i++);
    if (!seen.second)
      return std::string(at)
          .append("/email: \"")
          .append(email)
          .append("\" is already the address of /service/accounts/")
          .append(std::to_string(seen.first->second))
          .append(" (addresses are unique regardless of letter case)");
  }
  if (signedIn.isNull()) return "";
  const std::string at = "/device/account";
  if (!c.Object(signedIn, at)) return c.problem;
  const Members d(signedIn);
  if (!c.Known(d, at, kSignedIn) || !c.Text(d, "email", at, false) || !c.Text(d, "auth_key", at)) return c.problem;
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
                       const std::string& serial, const std::string& generation) {
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
  const std::string boundEmail = signedIn.isObject() ? Lower(signedIn["email"].asString()) : "";
  return store.DurableTransaction(kSystem, [&](Connection& db) -> uint32_t {
    for (const char* table :
         {"grants", "access_tokens", "bindings", "auth_keys", "purchases", "accounts", "limits", "generation"})
      Statement(db, (std::string("DELETE FROM ") + table).c_str()).Run();
    Statement(db, "INSERT INTO generation(id) VALUES(?)").Bind(generation).Run();
    if (service["limits"].isMember("accounts_per_device"))
      Statement(db, "INSERT INTO limits(name, value) VALUES('accounts_per_device', ?)")
          .Bind(service["limits"]["accounts_per_device"].asInt64())
          .Run();
    // Each insert is prepared once and run for every row, with the
    // document's own texts bound: they outlive the transaction.
    Statement insertAccount(db,
                            "INSERT INTO accounts(email, email_key, salt, hash, iterations, full_name, country, "
                            "notify_language, timezone, critical_version_list, enews, critical_release, "
                            "enews_local_promotion, activated, registered_from, created) "
                            "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    Statement insertKey(db, "INSERT INTO auth_keys(auth_key, account_id, serial, issued) VALUES(?, ?, ?, ?)");
    Statement insertPurchase(db,
                             "INSERT INTO purchases(account_id, app, serial, price, currency, paypal, date) "
                             "VALUES(?, ?, ?, ?, ?, ?, ?)");
    auto time = [now](const Json::Value* v) { return v ? v->asInt64() : now; };
    int64_t bound = 0;
    size_t i = 0;
    for (const Json::Value& value : accounts) {
      const Members a(value);
      auto flag = [&a](const char* name, bool fallback) {
        const Json::Value* v = a.Find(name);
        return int64_t{v ? v->asBool() : fallback};
      };
      const std::string_view email = View(a.Find("email"), "");
      const std::string emailKey = Lower(std::string(email));
      const PasswordHash& hash = hashes[i++];
      insertAccount.Again()
          .BindUnowned(email)
          .BindUnowned(emailKey)
          .BindUnowned(hash.salt)
          .BindUnowned(hash.hash)
          .Bind(int64_t{hash.iterations})
          .BindUnowned(View(a.Find("full_name"), ""))
          .BindUnowned(View(a.Find("country"), ""))
          .BindUnowned(View(a.Find("notify_language"), "enu"))
          .BindUnowned(View(a.Find("timezone"), ""))
          .BindUnowned(View(a.Find("critical_version_list"), ""))
          .Bind(flag("enews", false))
          .Bind(flag("critical_release", false))
          .Bind(flag("enews_local_promotion", false))
          .Bind(flag("activated", true))
          .BindUnowned(View(a.Find("registered_from"), serial))
          .Bind(time(a.Find("created")))
          .Run();
      const int64_t id = db.LastInsertId();
      if (const Json::Value* keys = a.Find("keys"))
        for (const Json::Value& k : *keys) {
          const Members m(k);
          insertKey.Again()
              .BindUnowned(View(m.Find("auth_key"), ""))
              .Bind(id)
              .BindUnowned(View(m.Find("serial"), serial))
              .Bind(time(m.Find("issued")))
              .Run();
        }
      if (const Json::Value* purchases = a.Find("purchases"))
        for (const Json::Value& p : *purchases) {
          const Members m(p);
          insertPurchase.Again()
              .Bind(id)
              .BindUnowned(View(m.Find("app"), ""))
              .BindUnowned(View(m.Find("serial"), serial))
              .BindUnowned(View(m.Find("price"), "0.00"))
              .BindUnowned(View(m.Find("currency"), "USD"))
              .BindUnowned(View(m.Find("paypal"), ""))
              .BindUnowned(View(m.Find("date"), ""))
              .Run();
        }
      if (signedIn.isObject() && boundEmail == emailKey) bound = id;
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
