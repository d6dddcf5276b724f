// A TLS server on 127.0.0.1 on OpenSSL alone, for what a well-behaved HTTP
// server cannot be made to do: it behaves on each connection as scripted,
// well or badly, and says what happened there, down to whether the TLS
// handshake completed. One connection at a time, on a thread of its own.
// Free of any test framework, so that fuzzers and benchmarks use it too.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "support/tls_trust.h"

namespace pellixtest {

enum class Conduct {
  kAnswer,        // reads the request, answers `status` with `body`, closes
  kStall,         // takes the connection and says nothing until the client leaves
  kGarbage,       // answers the client's hello with bytes that are not TLS
  kCloseMidBody,  // reads the request, announces more than `body`, sends `body`, cuts the connection
  kLargeBody,     // reads the request, answers 200 with `size` bytes of 'x'
};

struct Script {
  Conduct conduct = Conduct::kAnswer;
  int status = 200;
  std::string body = "good";
  size_t size = 0;  // kLargeBody only
};

// One connection, as the server saw it.
struct Connection {
  bool handshake = false;  // the TLS handshake completed
  std::string failure;     // OpenSSL's reason when it did not, e.g. "tlsv1 alert unknown ca"
  std::string head;        // request line and headers, as received
  std::string body;        // the request body, by its Content-Length
};

class TlsServer {
 public:
  explicit TlsServer(const Identity& identity, Script script = Script());
  ~TlsServer();
  TlsServer(const TlsServer&) = delete;
  TlsServer& operator=(const TlsServer&) = delete;

  int port() const;
  std::string Address() const { return "127.0.0.1:" + std::to_string(port()); }
  // How the connections from now on are served.
  void SetScript(Script script);
  // The connections taken since the last call, each once the server is done
  // with it (waiting up to 10 s for that); they are then forgotten.
  std::vector<Connection> Take();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace pellixtest
