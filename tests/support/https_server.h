// A local HTTPS service for the module's one conversation with the network:
// certificates made at start-up, a server on 127.0.0.1 that records every
// request exactly and answers as scripted, and a trust store in which the
// module's libcurl finds the test's certificates the way the device finds the
// real service's.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace pellixtest {

// A self-signed certificate and its key.
class Identity {
 public:
  // `altNames` as in a subjectAltName extension, e.g. "IP:127.0.0.1,DNS:localhost".
  explicit Identity(const std::string& altNames);
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

// The identities every test program makes at start-up. `trusted` and
// `misnamed` are in the trust store, `stranger` is not.
struct Identities {
  Identity trusted{"IP:127.0.0.1,DNS:localhost"};
  Identity misnamed{"DNS:elsewhere.example"};  // trusted, but not for 127.0.0.1
  Identity stranger{"IP:127.0.0.1,DNS:localhost"};
};
const Identities& TestIdentities();

// Call first in main(), while the process has one thread: makes the
// identities and moves the process into a private mount namespace whose CA
// bundle (the file libcurl reads by default) holds the machine's CAs plus
// `trusted` and `misnamed`. Nothing outside the process sees the change.
void EnterTrustedNamespace();
// Empty when the namespace is in place; otherwise why it could not be made.
const std::string& TrustProblem();

struct Reply {
  int status;
  std::string body;
};

struct Received {
  std::string method;
  std::string path;
  std::vector<std::pair<std::string, std::string>> headers;  // names as sent
  std::string body;
  // Every value of a header, by case-insensitive name.
  std::vector<std::string> Header(const std::string& name) const;
};

// Serves HTTPS on 127.0.0.1 on a free port until destroyed.
class HttpsServer {
 public:
  explicit HttpsServer(const Identity& identity, Reply reply = Reply{200, "good"});
  ~HttpsServer();
  HttpsServer(const HttpsServer&) = delete;
  HttpsServer& operator=(const HttpsServer&) = delete;

  int port() const;
  std::string Address() const { return "127.0.0.1:" + std::to_string(port()); }
  // The answer to every request from now on.
  void Script(Reply reply);
  std::vector<Received> Requests() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// A port on 127.0.0.1 held for the test's lifetime. Listening, its
// connections are completed by the kernel and then never read or answered;
// not listening, it refuses them.
class SilentPort {
 public:
  explicit SilentPort(bool listening);
  ~SilentPort();
  SilentPort(const SilentPort&) = delete;
  SilentPort& operator=(const SilentPort&) = delete;
  std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  int fd_ = -1;
  int port_ = 0;
};

}  // namespace pellixtest
