#include "tls_endpoint.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace pellixsim {
namespace {

// A client that stops reading or writing must not hold a thread for ever.
constexpr int kIoSeconds = 10;
// Connections served at once; the next waits in the listen queue.
constexpr size_t kMaxConnections = 64;
constexpr size_t kKeptConnections = 64;
// account.php's form is at most 2 KiB; these leave room for any client.
constexpr size_t kHeadLimit = size_t{16} << 10;
constexpr size_t kBodyLimit = size_t{64} << 10;

std::string LastReason() {
  const unsigned long error = ERR_peek_last_error();
  const char* reason = error ? ERR_reason_error_string(error) : nullptr;
  return reason ? reason : "no reason given";
}

bool WriteAll(SSL* ssl, const std::string& data) {
  for (size_t done = 0; done < data.size();) {
    const int n = SSL_write(ssl, data.data() + done, static_cast<int>(std::min<size_t>(data.size() - done, 1 << 20)));
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

const char* Reason(int status) {
  switch (status) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 413: return "Content Too Large";
    case 500: return "Internal Server Error";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    case 504: return "Gateway Timeout";
    default: return status < 400 ? "Answer" : "Error";
  }
}

std::string Head(int status, size_t length) {
  return "HTTP/1.1 " + std::to_string(status) + " " + Reason(status) +
         "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(length) + "\r\nConnection: close\r\n\r\n";
}

// The request line and headers of `head` (without its blank line) into
// `r`, and the body's length. False when they are not HTTP/1.x as this
// endpoint reads it: a body is sent with Content-Length only.
bool ParseHead(const std::string& head, HttpRequest* r, size_t* length) {
  size_t end = head.find("\r\n");
  const std::string line = head.substr(0, end);
  const size_t space = line.find(' '), last = line.rfind(' ');
  if (space == std::string::npos || last == space || line.compare(last + 1, 7, "HTTP/1.") != 0) return false;
  r->method = line.substr(0, space);
  r->target = line.substr(space + 1, last - space - 1);
  *length = 0;
  for (size_t at = end; at != std::string::npos && at < head.size(); at = end) {
    end = head.find("\r\n", at + 2);
    const std::string field = head.substr(at + 2, end == std::string::npos ? std::string::npos : end - at - 2);
    const size_t colon = field.find(':');
    if (colon == std::string::npos || colon == 0) return false;
    const size_t start = field.find_first_not_of(" \t", colon + 1);
    const size_t stop = field.find_last_not_of(" \t");
    r->headers.emplace_back(field.substr(0, colon),
                            start == std::string::npos ? "" : field.substr(start, stop - start + 1));
    const std::string& value = r->headers.back().second;
    if (strcasecmp(r->headers.back().first.c_str(), "Transfer-Encoding") == 0) return false;
    if (strcasecmp(r->headers.back().first.c_str(), "Content-Length") == 0) {
      if (value.empty() || value.size() > 9 || value.find_first_not_of("0123456789") != std::string::npos) return false;
      *length = std::stoul(value);
    }
  }
  return true;
}

enum class Read { kWhole, kGone, kMalformed, kTooLarge };

// One request: the head up to its blank line, then Content-Length bytes of
// body. What came is kept in `r` whatever the outcome.
Read ReadRequest(SSL* ssl, HttpRequest* r) {
  std::string in;
  char buffer[16384];
  size_t headEnd = std::string::npos;
  size_t length = 0;
  while (headEnd == std::string::npos || in.size() < headEnd + 4 + length) {
    const int n = SSL_read(ssl, buffer, sizeof(buffer));
    if (n <= 0) {
      if (headEnd != std::string::npos) r->body = in.substr(headEnd + 4);
      return Read::kGone;
    }
    in.append(buffer, static_cast<size_t>(n));
    if (headEnd != std::string::npos) continue;
    headEnd = in.find("\r\n\r\n");
    if (headEnd == std::string::npos) {
      if (in.size() > kHeadLimit) return Read::kTooLarge;
      continue;
    }
    if (headEnd > kHeadLimit) return Read::kTooLarge;
    if (!ParseHead(in.substr(0, headEnd), r, &length)) return Read::kMalformed;
    if (length > kBodyLimit) return Read::kTooLarge;
  }
  r->body = in.substr(headEnd + 4, length);
  return Read::kWhole;
}

// Waits `ms`, or less when the client leaves or the connection is cut;
// true when the whole wait passed.
bool Wait(int fd, int ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return true;
    // Not POLLIN: a client may well send more (an alert, its close) and
    // still be there; only its going away ends the wait.
    pollfd p = {fd, POLLRDHUP, 0};
    const int n = poll(&p, 1, static_cast<int>(std::min<int64_t>(left.count(), 1 << 30)));
    if (n > 0) return false;
    if (n < 0 && errno != EINTR) return false;
  }
}

// Takes whatever the client sends until it leaves or the connection is cut.
void HoldUntilGone(int fd) {
  char buffer[4096];
  for (;;) {
    pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return;
  }
}

}  // namespace

std::vector<std::string> HttpRequest::Header(const std::string& name) const {
  std::vector<std::string> values;
  for (const auto& h : headers)
    if (strcasecmp(h.first.c_str(), name.c_str()) == 0) values.push_back(h.second);
  return values;
}

struct TlsEndpoint::Impl {
  struct Worker {
    std::thread thread;
    int fd = -1;  // -1 once the connection is closed
    bool done = false;
  };

  explicit Impl(Handler h) : handler(std::move(h)) {}

  Handler handler;
  std::function<Conduct()> conductor;
  SSL_CTX* contexts[3] = {nullptr, nullptr, nullptr};  // own, wrong name, expired
  int port = -1;

  std::mutex control;  // Start, SetReachable, Stop
  int listener = -1;
  int wake[2] = {-1, -1};  // a byte here ends the accept loop
  std::thread acceptor;

  std::mutex mu;  // what follows
  std::condition_variable changed;
  bool accepting = false;  // the accept loop is to go on
  bool stopping = false;
  std::list<Worker> workers;
  int accepted = 0;
  int ended = 0;
  std::deque<TlsConnection> connections;

  bool Listen(std::string* error);
  void StopListening();
  void Accept();
  void Serve(Worker* worker);
  TlsConnection Converse(int fd, const Conduct& conduct);
  HttpAnswer Handle(const HttpRequest& request) {
    try {
      return handler(request);
    } catch (const std::exception& e) {
      return {500, std::string("the service failed: ") + e.what() + "\n"};
    }
  }
  // Joins the workers that are done; `mu` held.
  void Reap() {
    for (auto it = workers.begin(); it != workers.end();) {
      if (!it->done) {
        ++it;
        continue;
      }
      it->thread.join();
      it = workers.erase(it);
    }
  }
};

bool TlsEndpoint::Impl::Listen(std::string* error) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // SO_REUSEADDR, so that the port can be taken again at once while closed
  // connections linger; never SO_REUSEPORT, with which another listener
  // could share the port and take turns answering.
  const int yes = 1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port < 0 ? 0 : port));
  socklen_t length = sizeof(address);
  if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes)) != 0 ||
      bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 || listen(fd, 64) != 0) {
    *error = "cannot listen on 127.0.0.1:" + std::to_string(port < 0 ? 0 : port) + ": " + std::strerror(errno);
    if (fd >= 0) close(fd);
    return false;
  }
  listener = fd;
  port = ntohs(address.sin_port);
  {
    std::lock_guard<std::mutex> lock(mu);
    accepting = true;
  }
  acceptor = std::thread([this] { Accept(); });
  return true;
}

void TlsEndpoint::Impl::StopListening() {
  if (listener < 0) return;
  {
    // The loop may be waiting for a free place rather than polling.
    std::lock_guard<std::mutex> lock(mu);
    accepting = false;
    changed.notify_all();
  }
  if (write(wake[1], "x", 1) != 1) std::abort();  // a pipe of our own, never full
  acceptor.join();
  char byte;
  if (read(wake[0], &byte, 1) != 1) std::abort();
  close(listener);
  listener = -1;
}

void TlsEndpoint::Impl::Accept() {
  for (;;) {
    pollfd fds[2] = {{listener, POLLIN, 0}, {wake[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents) return;
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      // Out of descriptors: let some connections end rather than spin.
      if (errno == EMFILE || errno == ENFILE) std::this_thread::sleep_for(std::chrono::milliseconds(50));
      continue;
    }
    std::unique_lock<std::mutex> lock(mu);
    Reap();
    changed.wait(lock, [this] {
      Reap();
      return workers.size() < kMaxConnections || !accepting;
    });
    if (!accepting) {
      close(fd);
      return;
    }
    workers.emplace_back();
    Worker* worker = &workers.back();
    worker->fd = fd;
    try {
      worker->thread = std::thread([this, worker] { Serve(worker); });
      ++accepted;
    } catch (const std::system_error&) {  // no thread to be had: the client sees the connection closed
      close(fd);
      workers.pop_back();
    }
  }
}

void TlsEndpoint::Impl::Serve(Worker* worker) {
  // A client that has gone must give EPIPE here, not end the process.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  const int fd = worker->fd;
  const timeval io = {kIoSeconds, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &io, sizeof(io));
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &io, sizeof(io));
  // The close_notify after the answer must not wait for the client's
  // delayed acknowledgement.
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  TlsConnection c = Converse(fd, conductor ? conductor() : Conduct());
  std::lock_guard<std::mutex> lock(mu);
  close(fd);
  worker->fd = -1;
  connections.push_back(std::move(c));
  if (connections.size() > kKeptConnections) connections.pop_front();
  ++ended;
  worker->done = true;
  changed.notify_all();
}

TlsConnection TlsEndpoint::Impl::Converse(int fd, const Conduct& conduct) {
  TlsConnection c;
  c.conduct = conduct;
  if (conduct.mode == Conduct::kStall) {
    // With a wait of its own the stall ends there, the connection closed
    // unanswered: a short stall shows what a client's own time-out would.
    if (conduct.delayMs > 0) {
      (void)Wait(fd, conduct.delayMs);
    } else {
      HoldUntilGone(fd);
    }
    return c;
  }
  if (conduct.mode == Conduct::kNotTls) {
    char hello[4096];
    static const char kPlain[] = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\ngood";
    if (read(fd, hello, sizeof(hello)) > 0 && Wait(fd, conduct.delayMs) &&
        send(fd, kPlain, sizeof(kPlain) - 1, MSG_NOSIGNAL) < 0)
      c.failure = std::strerror(errno);
    return c;
  }
  ERR_clear_error();
  SSL* ssl = SSL_new(contexts[conduct.mode == Conduct::kWrongName ? 1 : conduct.mode == Conduct::kExpired ? 2 : 0]);
  if (!ssl || SSL_set_fd(ssl, fd) != 1 || SSL_accept(ssl) != 1) {
    c.failure = LastReason();
    SSL_free(ssl);
    return c;
  }
  c.handshake = true;
  const Read read = ReadRequest(ssl, &c.request);
  if (read != Read::kGone && Wait(fd, conduct.delayMs)) {
    HttpAnswer answer;
    if (conduct.mode == Conduct::kStatus)
      answer.status = conduct.status;
    else if (conduct.mode == Conduct::kKeyword)
      answer.body = conduct.keyword;
    else if (read == Read::kMalformed)
      answer = {400, "cannot read the request: Content-Length or HTTP/1.x missing or malformed\n"};
    else if (read == Read::kTooLarge)
      answer = {413, "the request is larger than this endpoint takes\n"};
    else
      answer = Handle(c.request);
    if (conduct.mode == Conduct::kClose) {
      // Half of what is announced, and no close_notify: the connection just
      // ends, as when a server dies.
      const size_t announced = std::max<size_t>(answer.body.size(), 1);
      WriteAll(ssl, Head(answer.status, announced) + answer.body.substr(0, announced / 2));
    } else if (WriteAll(ssl, Head(answer.status, answer.body.size()) + answer.body)) {
      SSL_shutdown(ssl);
    }
  }
  SSL_free(ssl);
  return c;
}

TlsEndpoint::TlsEndpoint(Handler handler) : impl_(new Impl(std::move(handler))) {}

TlsEndpoint::~TlsEndpoint() {
  Stop();
  for (SSL_CTX* ctx : impl_->contexts) SSL_CTX_free(ctx);
  for (int fd : impl_->wake)
    if (fd >= 0) close(fd);
}

void TlsEndpoint::SetConductor(std::function<Conduct()> conductor) { impl_->conductor = std::move(conductor); }

int TlsEndpoint::Start(int port, Presented own, Presented wrongName, Presented expired, std::string* error) {
  Impl& m = *impl_;
  std::lock_guard<std::mutex> lock(m.control);
  if (m.port >= 0 || m.stopping) {
    *error = "the TLS endpoint is started once";
    return -1;
  }
  const Presented presented[3] = {own, wrongName, expired};
  for (int i = 0; i < 3; ++i) {
    SSL_CTX_free(m.contexts[i]);  // of a start that failed
    m.contexts[i] = SSL_CTX_new(TLS_server_method());
    if (!m.contexts[i] || SSL_CTX_use_certificate(m.contexts[i], presented[i].cert) != 1 ||
        SSL_CTX_use_PrivateKey(m.contexts[i], presented[i].key) != 1) {
      *error = "cannot make a TLS context of the certificate: " + LastReason();
      return -1;
    }
  }
  if (m.wake[0] < 0 && pipe2(m.wake, O_CLOEXEC) != 0) {
    *error = std::string("cannot make a pipe: ") + std::strerror(errno);
    return -1;
  }
  m.port = port;
  if (!m.Listen(error)) {
    m.port = -1;
    return -1;
  }
  return m.port;
}

bool TlsEndpoint::SetReachable(bool reachable, std::string* error) {
  Impl& m = *impl_;
  std::lock_guard<std::mutex> lock(m.control);
  if (m.port < 0 || m.stopping) {
    *error = "the TLS endpoint is not serving";
    return false;
  }
  if (!reachable) {
    m.StopListening();
    return true;
  }
  if (m.listener >= 0) return true;
  if (m.Listen(error)) return true;
  *error += " (taken by another program while it was closed)";
  return false;
}

void TlsEndpoint::Stop() {
  Impl& m = *impl_;
  std::lock_guard<std::mutex> control(m.control);
  m.StopListening();
  std::list<Impl::Worker> workers;
  {
    std::lock_guard<std::mutex> lock(m.mu);
    m.stopping = true;
    // Every blocked read, write, poll or handshake returns at once.
    for (Impl::Worker& w : m.workers)
      if (w.fd >= 0) shutdown(w.fd, SHUT_RDWR);
    workers.swap(m.workers);
    m.changed.notify_all();
  }
  for (Impl::Worker& w : workers) w.thread.join();
}

int TlsEndpoint::port() const { return impl_->port; }

std::vector<TlsConnection> TlsEndpoint::Take() {
  std::unique_lock<std::mutex> lock(impl_->mu);
  impl_->changed.wait_for(lock, std::chrono::seconds(kIoSeconds), [this] { return impl_->ended == impl_->accepted; });
  std::vector<TlsConnection> taken(std::make_move_iterator(impl_->connections.begin()),
                                   std::make_move_iterator(impl_->connections.end()));
  impl_->connections.clear();
  return taken;
}

}  // namespace pellixsim
