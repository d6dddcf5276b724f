#include "account_php.h"

#include <httplib.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <chrono>
#include <ctime>

#include "talv/cloud.h"

namespace pellixsim {
namespace {

struct KeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CertFree {
  void operator()(X509* x) const { X509_free(x); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;
using Cert = std::unique_ptr<X509, CertFree>;

bool AddExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  if (!ext) return false;
  bool added = X509_add_ext(cert, ext, -1) == 1;
  X509_EXTENSION_free(ext);
  return added;
}

// A certificate for `key`, signed by `issuerKey` as `issuer` (itself when null).
Cert MakeCertificate(EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey, const char* commonName, long days, bool ca) {
  Cert cert(X509_new());
  BIGNUM* serial = BN_new();
  bool ok = cert && serial && X509_set_version(cert.get(), 2) &&
            BN_rand(serial, 64, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) &&
            BN_to_ASN1_INTEGER(serial, X509_get_serialNumber(cert.get())) &&
            X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) &&
            X509_gmtime_adj(X509_getm_notAfter(cert.get()), days * 86400) && X509_set_pubkey(cert.get(), key);
  BN_free(serial);
  if (!ok) return nullptr;
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Pellix development host"),
                             -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
  X509* signer = issuer ? issuer : cert.get();
  if (!X509_set_issuer_name(cert.get(), X509_get_subject_name(signer))) return nullptr;
  ok = ca ? AddExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:TRUE") &&
                AddExtension(cert.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign") &&
                AddExtension(cert.get(), signer, NID_subject_key_identifier, "hash")
          : AddExtension(cert.get(), signer, NID_basic_constraints, "CA:FALSE") &&
                AddExtension(cert.get(), signer, NID_key_usage, "critical,digitalSignature") &&
                AddExtension(cert.get(), signer, NID_ext_key_usage, "serverAuth") &&
                AddExtension(cert.get(), signer, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost") &&
                AddExtension(cert.get(), signer, NID_authority_key_identifier, "keyid");
  if (!ok || !X509_sign(cert.get(), issuerKey ? issuerKey : key, EVP_sha256())) return nullptr;
  return cert;
}

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
    caKey.reset(EVP_EC_gen("P-256"));
    ca = caKey ? MakeCertificate(caKey.get(), nullptr, nullptr, "Pellix development CA", 3650, true) : nullptr;
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
  Key key(EVP_EC_gen("P-256"));
  server = key ? MakeCertificate(key.get(), ca.get(), caKey.get(), "127.0.0.1", 825, false) : nullptr;
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

AccountPhp::AccountPhp(Service* service) : service_(service) {}
AccountPhp::~AccountPhp() { Stop(); }

int AccountPhp::Start(const std::string& dir, std::string* error) {
  server_.reset(new httplib::SSLServer((dir + "/server.pem").c_str(), (dir + "/server.key").c_str()));
  if (!server_->is_valid()) {
    *error = "cannot serve HTTPS with " + dir + "/server.pem";
    return -1;
  }
  server_->new_task_queue = [] { return new httplib::ThreadPool(2); };
  // Not the library's SO_REUSEPORT, with which another listener shares the
  // port and the two take turns answering.
  server_->set_socket_options([](socket_t sock) {
    int yes = 1;
    (void)setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  });
  server_->Post("/account.php", [this](const httplib::Request& req, httplib::Response& res) {
    res.set_content(AnswerAccountForm(service_, req.params) + "\n", "text/plain");
  });
  int port = server_->bind_to_any_port("127.0.0.1");
  if (port <= 0) {
    *error = "cannot listen on 127.0.0.1 for account.php";
    return -1;
  }
  thread_ = std::thread([this] {
    server_->listen_after_bind();
    finished_ = true;
  });
  return port;
}

void AccountPhp::Stop() {
  if (!thread_.joinable()) return;
  // A stop before the server has begun to listen would be lost, and the
  // join below would wait for ever.
  while (!server_->is_running() && !finished_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  server_->stop();
  thread_.join();
}

}  // namespace pellixsim
