#include "certificate.h"

#include <openssl/bn.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace pellixsim {
namespace {

bool AddExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
  if (!ext) return false;
  bool added = X509_add_ext(cert, ext, -1) == 1;
  X509_EXTENSION_free(ext);
  return added;
}

bool AddName(X509_NAME* name, const char* field, const std::string& value) {
  return X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC, reinterpret_cast<const unsigned char*>(value.c_str()),
                                    -1, -1, 0) == 1;
}

}  // namespace

Key NewKey() { return Key(EVP_EC_gen("P-256")); }

Cert MakeCertificate(EVP_PKEY* key, const CertificateTerms& terms, X509* issuer, EVP_PKEY* issuerKey) {
  Cert cert(X509_new());
  // A random serial: two certificates of one name must not pass for each other.
  BIGNUM* serial = BN_new();
  bool ok = cert && serial && X509_set_version(cert.get(), 2) &&
            BN_rand(serial, 64, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) &&
            BN_to_ASN1_INTEGER(serial, X509_get_serialNumber(cert.get())) &&
            X509_gmtime_adj(X509_getm_notBefore(cert.get()), terms.notBefore) &&
            X509_gmtime_adj(X509_getm_notAfter(cert.get()), terms.notAfter) && X509_set_pubkey(cert.get(), key);
  BN_free(serial);
  X509_NAME* name = X509_get_subject_name(cert.get());
  if (!ok || !AddName(name, "O", "Pellix development host") || !AddName(name, "CN", terms.commonName)) return nullptr;
  X509* signer = issuer ? issuer : cert.get();
  if (!X509_set_issuer_name(cert.get(), X509_get_subject_name(signer))) return nullptr;
  ok = terms.authority
           ? AddExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:TRUE") &&
                 AddExtension(cert.get(), signer, NID_key_usage, "critical,digitalSignature,keyCertSign,cRLSign")
           : AddExtension(cert.get(), signer, NID_basic_constraints, "CA:FALSE") &&
                 AddExtension(cert.get(), signer, NID_key_usage, "critical,digitalSignature");
  ok = ok && AddExtension(cert.get(), signer, NID_subject_key_identifier, "hash");
  if (!terms.altNames.empty())
    ok = ok && AddExtension(cert.get(), signer, NID_ext_key_usage, "serverAuth") &&
         AddExtension(cert.get(), signer, NID_subject_alt_name, terms.altNames);
  if (issuer) ok = ok && AddExtension(cert.get(), signer, NID_authority_key_identifier, "keyid");
  if (!ok || !X509_sign(cert.get(), issuerKey ? issuerKey : key, EVP_sha256())) return nullptr;
  return cert;
}

std::string Pem(X509* cert) {
  BIO* bio = BIO_new(BIO_s_mem());
  std::string pem;
  if (bio && PEM_write_bio_X509(bio, cert)) {
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio, &data);
    pem.assign(data, static_cast<size_t>(n));
  }
  BIO_free(bio);
  return pem;
}

}  // namespace pellixsim
