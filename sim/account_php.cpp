#include "account_php.h"

#include <httplib.h>
#include <openssl/pem.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <chrono>
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
