#include "tls_trust.h"

#include <cstdio>
#include <cstdlib>

#include "trust.h"

namespace pellixtest {

Identity::Identity(const std::string& name, const std::string& altNames, long notBefore, long notAfter)
    : key_(pellixsim::NewKey()) {
  if (key_)
    cert_ = pellixsim::MakeCertificate(key_.get(), {"pellix test " + name, altNames, notBefore, notAfter, true});
  if (!cert_) {
    std::fprintf(stderr, "test set-up: cannot make the identity %s\n", name.c_str());
    std::abort();
  }
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
