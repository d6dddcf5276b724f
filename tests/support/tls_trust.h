// Certificates made at start-up and a trust store in which the module's
// libcurl finds them the way the device finds the real service's. Free of
// any test framework, so that fuzzers and benchmarks use it too.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

namespace pellixtest {

// A self-signed certificate and its key.
class Identity {
 public:
  // `altNames` as in a subjectAltName extension, e.g. "IP:127.0.0.1,DNS:localhost";
  // valid from `notBefore` to `notAfter` seconds from now.
  explicit Identity(const std::string& altNames, long notBefore = -3600, long notAfter = 2 * 86400);
  ~Identity();
  Identity(const Identity&) = delete;
  Identity& operator=(const Identity&) = delete;
  X509* cert() const { return cert_; }
  EVP_PKEY* key() const { return key_; }
  std::string Pem() const;

 private:
  X509* cert_ = nullptr;
  EVP_PKEY* key_ = nullptr;
};

// The identities every program makes at start-up. All but `stranger` are in
// the trust store; each of the others has one thing wrong with it.
struct Identities {
  Identity trusted{"IP:127.0.0.1,DNS:localhost"};
  Identity misnamed{"DNS:elsewhere.example"};  // trusted, but not for 127.0.0.1
  Identity stranger{"IP:127.0.0.1,DNS:localhost"};
  Identity expired{"IP:127.0.0.1,DNS:localhost", -10 * 86400, -86400};  // trusted, for 127.0.0.1, last valid yesterday
};
const Identities& TestIdentities();

// Has this process, and it alone, trust the identities that belong in the
// trust store and no other authority (host/trust.h), once however often it is
// called, from whichever thread. Empty when it does; otherwise why it cannot.
const std::string& TrustTestIdentities();

}  // namespace pellixtest
