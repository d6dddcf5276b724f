#include "https_server.h"

#include "trust.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

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

std::string g_trustProblem = "the trusted namespace was never entered";

}  // namespace

Identity::Identity(const std::string& altNames) {
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
  X509_gmtime_adj(X509_getm_notBefore(cert_), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert_), 2 * 86400);
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

void EnterTrustedNamespace() {
  const Identities& ids = TestIdentities();
  char dir[] = "/tmp/pellix-trust-XXXXXX";
  if (!mkdtemp(dir)) {
    g_trustProblem = std::string("cannot make a folder for the bundle: ") + std::strerror(errno);
    return;
  }
  const std::string file = std::string(dir) + "/ca-certificates.crt";
  std::string problem;
  const bool trusted = webapihost::TrustAuthorities(ids.trusted.Pem() + ids.misnamed.Pem(), file, &problem);
  // The mount keeps the file alive; nothing needs to stay behind in /tmp.
  unlink(file.c_str());
  rmdir(dir);
  g_trustProblem = trusted ? "" : problem;
}

const std::string& TrustProblem() { return g_trustProblem; }

std::vector<std::string> Received::Header(const std::string& name) const {
  std::vector<std::string> values;
  for (const auto& h : headers)
    if (strcasecmp(h.first.c_str(), name.c_str()) == 0) values.push_back(h.second);
  return values;
}

struct HttpsServer::Impl {
  Impl(const Identity& identity, Reply r) : server(identity.cert(), identity.key()), reply(std::move(r)) {}
  httplib::SSLServer server;
  std::thread thread;
  int port = -1;
  mutable std::mutex mu;
  Reply reply;
  std::vector<Received> requests;
};

HttpsServer::HttpsServer(const Identity& identity, Reply reply) : impl_(new Impl(identity, std::move(reply))) {
  Impl* impl = impl_.get();
  auto record = [impl](const httplib::Request& request, httplib::Response& response) {
    Received received{request.method, request.path, {}, request.body};
    for (const auto& h : request.headers) received.headers.emplace_back(h.first, h.second);
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->requests.push_back(std::move(received));
    response.status = impl->reply.status;
    response.set_content(impl->reply.body, "text/plain");
  };
  impl->server.Post(".*", record);
  impl->server.Get(".*", record);
  impl->port = impl->server.bind_to_any_port("127.0.0.1");
  if (impl->port <= 0) {
    ADD_FAILURE() << "the HTTPS server cannot bind a port on 127.0.0.1";
    return;
  }
  impl->thread = std::thread([impl] { impl->server.listen_after_bind(); });
  // stop() only reaches a server that runs.
  for (int i = 0; i < 5000 && !impl->server.is_running(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (!impl->server.is_running()) ADD_FAILURE() << "the HTTPS server does not start";
}

HttpsServer::~HttpsServer() {
  impl_->server.stop();
  if (impl_->thread.joinable()) impl_->thread.join();
}

int HttpsServer::port() const { return impl_->port; }

void HttpsServer::Script(Reply reply) {
  std::lock_guard<std::mutex> lock(impl_->mu);
  impl_->reply = std::move(reply);
}

std::vector<Received> HttpsServer::Requests() const {
  std::lock_guard<std::mutex> lock(impl_->mu);
  return impl_->requests;
}

SilentPort::SilentPort(bool listening) {
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0 || (listening && listen(fd_, 8) != 0)) {
    ADD_FAILURE() << "cannot hold a port on 127.0.0.1: " << std::strerror(errno);
    return;
  }
  port_ = ntohs(address.sin_port);
}

SilentPort::~SilentPort() {
  if (fd_ >= 0) close(fd_);
}

}  // namespace pellixtest
