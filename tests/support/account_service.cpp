#include "account_service.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "trust.h"

namespace pellixtest {
namespace {

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "test set-up: %s\n", what.c_str());
  std::abort();
}

std::unique_ptr<pellixsim::Store> OpenStore(const std::string& dir) {
  std::string error;
  std::unique_ptr<pellixsim::Store> store = pellixsim::Store::Open(dir + "/account.db", &error);
  if (!store) Die(error);
  return store;
}

pellixsim::Options Fast() {
  pellixsim::Options options;
  options.passwordIterations = 1000;  // what is tested is the conversation, not the hashing
  return options;
}

}  // namespace

const std::string& TrustedServiceDir() {
  static const webapihost::TempDir dir;
  static const std::string path = [] {
    std::string error;
    if (!pellixsim::MakeCertificates(dir.path(), &error)) Die(error);
    return dir.path();
  }();
  return path;
}

std::string TrustedAuthority() {
  std::ifstream pem(TrustedServiceDir() + "/ca.pem");
  return std::string(std::istreambuf_iterator<char>(pem), std::istreambuf_iterator<char>());
}

// Only the service's authority: the machine's 140-odd CAs would have libcurl
// parse them again for every handle, 25 ms a transfer, and no test talks to
// anything they vouch for.
const std::string& TrustTestService() {
  static const std::string problem = [] {
    std::string why;
    return webapihost::TrustAuthorities(TrustedAuthority(), &why, true) ? std::string() : why;
  }();
  return problem;
}

LocalService::LocalService(bool trusted)
    : store_(OpenStore(dir_.path())), service_(new pellixsim::Service(store_.get(), Fast())), php_(service_.get()) {
  std::string error;
  const std::string certificates = trusted ? TrustedServiceDir() : dir_.path();
  if (!pellixsim::MakeCertificates(certificates, &error)) Die(error);
  php_.SetConductor([this] {
    std::lock_guard<std::mutex> lock(mu_);
    return conduct_;
  });
  if (php_.Start(certificates, &error) < 0) Die(error);
}

void LocalService::Treat(pellixsim::Conduct conduct) {
  std::lock_guard<std::mutex> lock(mu_);
  conduct_ = std::move(conduct);
}

}  // namespace pellixtest
