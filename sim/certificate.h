// Keys and X.509 certificates for the account service's HTTPS endpoint: its
// authority and the endpoint's certificate, and the identities the tests'
// servers take on, trusted or not, expired or misnamed.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace pellixsim {

struct KeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CertFree {
  void operator()(X509* x) const { X509_free(x); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;
using Cert = std::unique_ptr<X509, CertFree>;

struct CertificateTerms {
  std::string commonName;
  std::string altNames;    // for a server, e.g. "IP:127.0.0.1,DNS:localhost"; "": none
  long notBefore = -3600;  // seconds from now
  long notAfter = 86400;   // seconds from now
  bool authority = false;  // may sign certificates (and, with altNames, serve too)
};

// A new P-256 key; null when none can be made.
Key NewKey();

// A certificate for `key` as `terms` say, signed by `issuerKey` as `issuer`,
// or by `key` itself when `issuer` is null. Null when it cannot be made.
Cert MakeCertificate(EVP_PKEY* key, const CertificateTerms& terms, X509* issuer = nullptr,
                     EVP_PKEY* issuerKey = nullptr);

// The certificate in PEM.
std::string Pem(X509* cert);

}  // namespace pellixsim
