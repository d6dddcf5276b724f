// The account service's HTTPS endpoint "account.php": the registration form
// that version-1 registration posts, answered by a keyword text from the
// same state as every other operation of the service.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "service.h"

namespace httplib {
class SSLServer;
}

namespace pellixsim {

// The service's own certificate authority in `dir` (ca.pem, ca.key), made
// on first use, and a certificate for 127.0.0.1 and localhost signed by it
// (server.pem, server.key), made again when missing or near its end. False
// with *error when a file cannot be made.
bool MakeCertificates(const std::string& dir, std::string* error);

// The keyword answer to one posted form: "good", or "badparam", "badauth"
// (a token that is not the device's), "account_inused",
// "serial_exceed_max_account_register", "badsys".
std::string AnswerAccountForm(Service* service, const std::multimap<std::string, std::string>& form);

class AccountPhp {
 public:
  explicit AccountPhp(Service* service);
  ~AccountPhp();
  // Serves https://127.0.0.1:PORT/account.php with the certificate in `dir`
  // on a free port, on threads of its own; the port, or -1 with *error.
  int Start(const std::string& dir, std::string* error);
  void Stop();

 private:
  Service* service_;
  std::unique_ptr<httplib::SSLServer> server_;
  std::thread thread_;
  std::atomic<bool> finished_{false};  // the server's thread is done listening
};

}  // namespace pellixsim
