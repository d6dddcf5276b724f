// The TLS server under account.php, on OpenSSL alone: one HTTP request a
// connection, answered by a handler, or on request any of the ways a server
// lets its client down. A general-purpose HTTP server cannot be made to cut
// an answer in half, speak something that is not TLS, or present another
// certificate for one connection; this one is built for exactly that, and
// says what happened on each connection, down to whether the TLS handshake
// completed.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace pellixsim {

struct Conduct {  // how account.php treats one connection
  enum Mode {
    kAnswer,     // reads the request, answers the handler's answer
    kStall,      // takes the connection and says nothing until the client leaves (or Stop), or
                 // with a delayMs, for that long, and then closes it
    kClose,      // answers, but the connection ends in the middle of the answer
    kNotTls,     // answers the client's hello with bytes that are not TLS
    kStatus,     // answers `status`, with an empty body, without asking the handler
    kKeyword,    // answers 200 with `keyword` as the whole body, without asking the handler
    kWrongName,  // as kAnswer, presenting a certificate for another name
    kExpired,    // as kAnswer, presenting a certificate that is no longer valid
  } mode = kAnswer;
  int status = 200;          // kStatus: the HTTP status answered
  std::string keyword = {};  // kKeyword: the answer's body instead of the service's keyword
  int delayMs = 0;           // waited before answering (every mode that answers), or before kStall closes
  // (Every member has an initializer, so that {Conduct::kStall} is complete
  // under -Wmissing-field-initializers.)
};

// One HTTP request, as it arrived.
struct HttpRequest {
  std::string method;                                        // "" when no whole head arrived
  std::string target;                                        // path and query, as sent
  std::vector<std::pair<std::string, std::string>> headers;  // names as sent, in order
  std::string body;                                          // by Content-Length, or as much of it as came
  // Every value of a header, by case-insensitive name.
  std::vector<std::string> Header(const std::string& name) const;
};

struct HttpAnswer {
  int status = 200;
  std::string body;  // sent as text/plain
};

// One connection, as the endpoint saw it.
struct TlsConnection {
  Conduct conduct;
  bool handshake = false;  // the TLS handshake completed
  std::string failure;     // why it did not: OpenSSL's reason, e.g. "tlsv1 alert unknown ca"
  HttpRequest request;
};

// A certificate and its key, as the endpoint presents them; borrowed.
struct Presented {
  X509* cert = nullptr;
  EVP_PKEY* key = nullptr;
};

class TlsEndpoint {
 public:
  using Handler = std::function<HttpAnswer(const HttpRequest&)>;
  // The handler runs on the connection's thread, several at once.
  explicit TlsEndpoint(Handler handler);
  ~TlsEndpoint();  // stops
  TlsEndpoint(const TlsEndpoint&) = delete;
  TlsEndpoint& operator=(const TlsEndpoint&) = delete;

  // Asked once per accepted connection, on that connection's thread, before
  // anything is read. Unset: kAnswer. Set before Start().
  void SetConductor(std::function<Conduct()> conductor);
  // Listens on 127.0.0.1:port (0: any free port) and serves each connection
  // on a thread of its own, presenting `own`, or for kWrongName and kExpired
  // the certificate of that name. The port, or -1 with *error.
  int Start(int port, Presented own, Presented wrongName, Presented expired, std::string* error);
  // False: the listener is closed, so connections are refused; those under
  // way go on. True: listening again on the same port. False with *error
  // when the port cannot be taken again, or the endpoint is not started.
  bool SetReachable(bool reachable, std::string* error);
  // Closes the listener, cuts every connection still open (stalled and
  // waiting ones too) and waits for their threads. Idempotent.
  void Stop();
  int port() const;
  // The connections that ended since the last call, at most the latest 64,
  // once every connection accepted so far has ended (waiting up to 10 s).
  std::vector<TlsConnection> Take();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace pellixsim
