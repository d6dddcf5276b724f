// The account service's HTTPS endpoint "account.php": the registration form
// that version-1 registration posts, answered by a keyword text from the
// same state as every other operation of the service.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "service.h"
#include "tls_endpoint.h"

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
  AccountPhp(const AccountPhp&) = delete;
  AccountPhp& operator=(const AccountPhp&) = delete;

  // Asked once per accepted connection, on that connection's thread, before
  // anything is read: how to treat it. Unset: kAnswer. Set before Start().
  void SetConductor(std::function<Conduct()> conductor);
  // Serves https://127.0.0.1:PORT/account.php on a free port, on threads of
  // its own, with the certificates MakeCertificates() made in `dir`; those
  // of kWrongName and kExpired are made here, signed by the same authority.
  // The port, or -1 with *error.
  int Start(const std::string& dir, std::string* error);
  // false: the listener is closed, so connections are refused (ECONNREFUSED);
  // true: listening again on the same port. False with *error when the port
  // cannot be taken again.
  bool SetReachable(bool reachable, std::string* error);
  // Cuts the connections still open, stalled and delayed ones too.
  void Stop();
  int port() const { return endpoint_.port(); }
  // The connections that ended since the last call (at most the latest 64),
  // once those under way have ended.
  std::vector<TlsConnection> TakeConnections() { return endpoint_.Take(); }

 private:
  Service* service_;
  TlsEndpoint endpoint_;
};

}  // namespace pellixsim
