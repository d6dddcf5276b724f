#include "account_php.h"

#include <httplib.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <ctime>

#include "certificate.h"
#include "talv/cloud.h"

namespace pellixsim {
namespace {

bool WritePem(const std::string& path, EVP_PKEY* key, X509* cert, std::string* error) {
  const std::string temporary = path + ".new";
  BIO* bio = BIO_new_file(temporary.c_str(), "w");
  bool ok = bio && (key ? chmod(temporary.c_str(), 0600) == 0 &&
                              PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr)
                        : PEM_write_bio_X509(bio, cert));
  BIO_free(bio);
  if (!ok || std::rename(temporary.c_str(), path.c_str()) != 0) {
    *error = "cannot write " + path;
    return false;
  }
  return true;
}

bool ReadPem(const std::string& path, Key* key, Cert* cert) {
  BIO* bio = BIO_new_file(path.c_str(), "r");
  if (!bio) return false;
  if (key) key->reset(PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr));
  if (cert) cert->reset(PEM_read_bio_X509(bio, nullptr, nullptr, nullptr));
  BIO_free(bio);
  return key ? *key != nullptr : *cert != nullptr;
}

bool Exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

}  // namespace

bool MakeCertificates(const std::string& dir, std::string* error) {
  const std::string caPem = dir + "/ca.pem", caKeyPath = dir + "/ca.key";
  const std::string pem = dir + "/server.pem", keyPath = dir + "/server.key";
  Key caKey;
  Cert ca;
  if (!Exists(caPem) || !Exists(caKeyPath)) {
    caKey = NewKey();
    ca = caKey ? MakeCertificate(caKey.get(), {"Pellix development CA", "", -3600, 3650L * 86400, true}) : nullptr;
    if (!ca) {
      *error = "cannot make a certificate authority in " + dir;
      return false;
    }
    if (!WritePem(caKeyPath, caKey.get(), nullptr, error) || !WritePem(caPem, nullptr, ca.get(), error)) return false;
  } else if (!ReadPem(caKeyPath, &caKey, nullptr) || !ReadPem(caPem, nullptr, &ca)) {
    *error = caPem + " or " + caKeyPath + " cannot be read; remove both to make a new authority";
    return false;
  }
  // The endpoint's certificate is made again when it is missing, broken,
  // near its end, or signed by an authority other than the state's.
  Cert server;
  const time_t soon = std::time(nullptr) + 86400;
  if (Exists(pem) && Exists(keyPath) && ReadPem(pem, nullptr, &server) &&
      X509_cmp_time(X509_get0_notAfter(server.get()), const_cast<time_t*>(&soon)) > 0 &&
      X509_verify(server.get(), caKey.get()) == 1)
    return true;
  Key key = NewKey();
  server = key ? MakeCertificate(key.get(), {"127.0.0.1", "IP:127.0.0.1,DNS:localhost", -3600, 825L * 86400, false},
                                 ca.get(), caKey.get())
               : nullptr;
  if (!server) {
    *error = "cannot make the account service's certificate in " + dir;
    return false;
  }
  return WritePem(keyPath, key.get(), nullptr, error) && WritePem(pem, nullptr, server.get(), error);
}

std::string AnswerAccountForm(Service* service, const std::multimap<std::string, std::string>& form) {
  auto field = [&](const char* name) -> const std::string* {
    auto it = form.find(name);  // the first of a repeated field
    return it == form.end() ? nullptr : &it->second;
  };
  const std::string *action = field("action"), *serial = field("serial"), *token = field("token"),
                    *email = field("email"), *password = field("passwd"), *name = field("full_name");
  if (!action || *action != "register" || !serial || !token || !email || !password || !name) return "badparam";
  // The service knows each device's token as the cloud library computes it.
  char expected[33] = "";
  if (TALVCloudServiceQbtokenGenerateToken(serial->c_str(), expected, sizeof(expected)) < 0 || *token != expected)
    return "badauth";
  NewAccount account;
  account.email = *email;
  account.password = *password;
  account.fullName = *name;
  if (const std::string* language = field("notify_lang")) account.notifyLanguage = *language;
  if (const std::string* zone = field("timezone")) account.timezone = *zone;
  switch (service->Register(*serial, account)) {
    case kOk: return "good";
    case kBadParam: return "badparam";
    case kInUse: return "account_inused";
    case kSerialLimit: return "serial_exceed_max_account_register";
    default: return "badsys";
  }
}

AccountPhp::AccountPhp(Service* service)
    : service_(service), endpoint_([this](const HttpRequest& request) -> HttpAnswer {
        if (request.target.substr(0, request.target.find('?')) != "/account.php")
          return {404, "no such page; the account service answers at /account.php\n"};
        if (request.method != "POST") return {405, "account.php takes a form by POST\n"};
        httplib::Params form;
        httplib::detail::parse_query_text(request.body, form);
        return {200, AnswerAccountForm(service_, form) + "\n"};
      }) {}

AccountPhp::~AccountPhp() { Stop(); }

void AccountPhp::SetConductor(std::function<Conduct()> conductor) { endpoint_.SetConductor(std::move(conductor)); }

int AccountPhp::Start(const std::string& dir, std::string* error) {
  Key caKey, key;
  Cert ca, own;
  if (!ReadPem(dir + "/ca.key", &caKey, nullptr) || !ReadPem(dir + "/ca.pem", nullptr, &ca) ||
      !ReadPem(dir + "/server.key", &key, nullptr) || !ReadPem(dir + "/server.pem", nullptr, &own)) {
    *error = "cannot read the account service's certificates in " + dir;
    return -1;
  }
  // The misbehaving ones live only as long as the endpoint.
  const Cert wrongName = MakeCertificate(
      key.get(), {"elsewhere.pellix.example", "DNS:elsewhere.pellix.example", -3600, 825L * 86400, false}, ca.get(),
      caKey.get());
  const Cert expired = MakeCertificate(
      key.get(), {"127.0.0.1", "IP:127.0.0.1,DNS:localhost", -10L * 86400, -86400, false}, ca.get(), caKey.get());
  if (!wrongName || !expired) {
    *error = "cannot make the account service's misnamed and expired certificates in " + dir;
    return -1;
  }
  return endpoint_.Start(0, {own.get(), key.get()}, {wrongName.get(), key.get()}, {expired.get(), key.get()}, error);
}

bool AccountPhp::SetReachable(bool reachable, std::string* error) { return endpoint_.SetReachable(reachable, error); }

void AccountPhp::Stop() { endpoint_.Stop(); }

}  // namespace pellixsim
