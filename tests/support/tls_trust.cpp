#include "tls_trust.h"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>

#include "trust.h"

namespace pellixtest {
namespace {

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "test set-up: %s\n", what.c_str());
  std::abort();
}

void AddExtension(X509* cert, X509V3_CTX* ctx, int nid, const std::string& value) {
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, ctx, nid, value.c_str());
  if (!ext || !X509_add_ext(cert, ext, -1)) Die("cannot add certificate extension " + value);
  X509_EXTENSION_free(ext);
}

}  // namespace

Identity::Identity(const std::string& altNames, long notBefore, long notAfter) {
  key_ = EVP_EC_gen("P-256");
  cert_ = X509_new();
  if (!key_ || !cert_) Die("cannot make a key and a certificate");
  X509_set_version(cert_, 2);
  // Distinct serials and names: the stranger must not pass for the trusted one.
  unsigned char serial[8];
  RAND_bytes(serial, sizeof(serial));
  serial[0] &= 0x7F;
  BIGNUM* number = BN_bin2bn(serial, sizeof(serial), nullptr);
  BN_to_ASN1_INTEGER(number, X509_get_serialNumber(cert_));
  BN_free(number);
  X509_gmtime_adj(X509_getm_notBefore(cert_), notBefore);
  X509_gmtime_adj(X509_getm_notAfter(cert_), notAfter);
  X509_set_pubkey(cert_, key_);
  char commonName[64];
  std::snprintf(commonName, sizeof(commonName), "pellix test %02x%02x%02x%02x", serial[4], serial[5], serial[6],
                serial[7]);
  X509_NAME* name = X509_get_subject_name(cert_);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
  X509_set_issuer_name(cert_, name);
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, cert_, cert_, nullptr, nullptr, 0);
  AddExtension(cert_, &ctx, NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(cert_, &ctx, NID_subject_key_identifier, "hash");
  AddExtension(cert_, &ctx, NID_subject_alt_name, altNames);
  if (!X509_sign(cert_, key_, EVP_sha256())) Die("cannot sign the certificate");
}

Identity::~Identity() {
  X509_free(cert_);
  EVP_PKEY_free(key_);
}

std::string Identity::Pem() const {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(bio, cert_);
  char* data = nullptr;
  long n = BIO_get_mem_data(bio, &data);
  std::string pem(data, static_cast<size_t>(n));
  BIO_free(bio);
  return pem;
}

const Identities& TestIdentities() {
  static const Identities identities;
  return identities;
}

// Only the test's own identities: the machine's 140-odd CAs would have
// libcurl parse them again for every handle, 25 ms a transfer, and no test
// talks to anything they vouch for.
const std::string& TrustTestIdentities() {
  static const std::string problem = [] {
    const Identities& ids = TestIdentities();
    std::string why;
    return webapihost::TrustAuthorities(ids.trusted.Pem() + ids.misnamed.Pem() + ids.expired.Pem(), &why, true)
               ? std::string()
               : why;
  }();
  return problem;
}

}  // namespace pellixtest
