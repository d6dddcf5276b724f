// The simulated account service on 127.0.0.1 as the tests and benchmarks
// meet it: the product's own account.php (sim/account_php.h), treating each
// connection as the test says, and a trust store in which the module's
// libcurl finds the service's authority the way the device finds the real
// service's. Free of any test framework, so that the benchmarks use it too.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "account_php.h"
#include "client.h"

namespace pellixtest {

// The certificates of the account service the tests trust, made once a
// process (pellixsim::MakeCertificates), and its authority in PEM.
const std::string& TrustedServiceDir();
std::string TrustedAuthority();

// Has this process, and it alone, trust that authority and no other
// (host/trust.h), once however often it is called, from whichever thread.
// Empty when it does; otherwise why it cannot.
const std::string& TrustTestService();

// account.php on a free port, with accounts of its own.
class LocalService {
 public:
  // Not trusted: with an authority of its own that nobody trusts.
  explicit LocalService(bool trusted = true);
  LocalService(const LocalService&) = delete;
  LocalService& operator=(const LocalService&) = delete;

  std::string Address() const { return "127.0.0.1:" + std::to_string(php_.port()); }
  // How the connections from now on are treated.
  void Treat(pellixsim::Conduct conduct);
  pellixsim::AccountPhp& php() { return php_; }

 private:
  webapihost::TempDir dir_;
  std::unique_ptr<pellixsim::Store> store_;
  std::unique_ptr<pellixsim::Service> service_;
  std::mutex mu_;
  pellixsim::Conduct conduct_;
  pellixsim::AccountPhp php_;  // last, so stopped first
};

// account.php answering 200 with `body`, or `status`, whatever it is sent.
inline pellixsim::Conduct Says(std::string body) { return {pellixsim::Conduct::kKeyword, 200, std::move(body)}; }
inline pellixsim::Conduct Status(int status) { return {pellixsim::Conduct::kStatus, status}; }

}  // namespace pellixtest
