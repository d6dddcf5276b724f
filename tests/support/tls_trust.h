// Identities made at start-up (by the account service's own certificate
// maker, sim/certificate.h) and a trust store in which the module's libcurl
// finds them the way the device finds the real service's. Free of any test
// framework, so that the benchmarks use it too.
#pragma once

#include <string>

#include "certificate.h"

namespace pellixtest {

// A self-signed certificate for `altNames` ("IP:127.0.0.1,DNS:localhost"),
// valid from `notBefore` to `notAfter` seconds from now, and its key.
class Identity {
 public:
  Identity(const std::string& name, const std::string& altNames, long notBefore = -3600, long notAfter = 2 * 86400);
  X509* cert() const { return cert_.get(); }
  EVP_PKEY* key() const { return key_.get(); }
  std::string Pem() const { return pellixsim::Pem(cert_.get()); }

 private:
  pellixsim::Key key_;
  pellixsim::Cert cert_;
};

// The identities every program makes at start-up. All but `stranger` are in
// the trust store; each of the others has one thing wrong with it.
struct Identities {
  Identity trusted{"trusted", "IP:127.0.0.1,DNS:localhost"};
  Identity misnamed{"misnamed", "DNS:elsewhere.example"};  // trusted, but not for 127.0.0.1
  Identity stranger{"stranger", "IP:127.0.0.1,DNS:localhost"};
  // Trusted, for 127.0.0.1, last valid yesterday.
  Identity expired{"expired", "IP:127.0.0.1,DNS:localhost", -10 * 86400, -86400};
};
const Identities& TestIdentities();

// Has this process, and it alone, trust the identities that belong in the
// trust store and no other authority (host/trust.h), once however often it is
// called, from whichever thread. Empty when it does; otherwise why it cannot.
const std::string& TrustTestIdentities();

}  // namespace pellixtest
