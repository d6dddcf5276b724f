// A local HTTPS service for the module's one conversation with the network:
// a server on 127.0.0.1 that records every request exactly and answers as
// scripted, with the identities and the trust store of tls_trust.h.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/tls_trust.h"

namespace pellixtest {

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
