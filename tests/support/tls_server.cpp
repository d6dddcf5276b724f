#include "tls_server.h"

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

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

namespace pellixtest {
namespace {

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "test TLS server: %s: %s\n", what.c_str(), std::strerror(errno));
  std::abort();
}

// A client that stops reading or writing must not hold the server forever.
constexpr int kIoSeconds = 10;

std::string LastReason() {
  const unsigned long error = ERR_peek_last_error();
  const char* reason = error ? ERR_reason_error_string(error) : nullptr;
  return reason ? reason : "no reason given";
}

bool WriteAll(SSL* ssl, const char* data, size_t size) {
  while (size > 0) {
    const int n = SSL_write(ssl, data, static_cast<int>(size < (1 << 20) ? size : (1 << 20)));
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Reads one request: the head up to its blank line, then Content-Length
// bytes of body. Stops early, keeping what came, when the client goes.
void ReadRequest(SSL* ssl, Connection* c) {
  std::string in;
  char buffer[16384];
  size_t headEnd = std::string::npos;
  size_t want = 0;
  while (headEnd == std::string::npos || in.size() < headEnd + 4 + want) {
    const int n = SSL_read(ssl, buffer, sizeof(buffer));
    if (n <= 0) break;
    in.append(buffer, static_cast<size_t>(n));
    if (headEnd == std::string::npos && (headEnd = in.find("\r\n\r\n")) != std::string::npos) {
      for (size_t at = in.find("\r\n"); at < headEnd; at = in.find("\r\n", at + 2))
        if (strncasecmp(in.c_str() + at + 2, "Content-Length:", 15) == 0)
          want = std::strtoul(in.c_str() + at + 17, nullptr, 10);
    }
  }
  if (headEnd == std::string::npos) {
    c->head = in;
    return;
  }
  c->head = in.substr(0, headEnd + 4);
  c->body = in.substr(headEnd + 4);
}

std::string Head(int status, size_t length) {
  char head[160];
  std::snprintf(head, sizeof(head),
                "HTTP/1.1 %d Scripted\r\nContent-Type: text/plain\r\nContent-Length: %zu\r\nConnection: close\r\n\r\n",
                status, length);
  return head;
}

// Waits for the client to leave (or the server to stop), reading and
// dropping whatever it sends.
void HoldUntilGone(int fd, int wake) {
  char buffer[4096];
  for (;;) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {wake, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (fds[1].revents) return;
    if (fds[0].revents && read(fd, buffer, sizeof(buffer)) <= 0) return;
  }
}

}  // namespace

struct TlsServer::Impl {
  SSL_CTX* ctx = nullptr;
  int listener = -1;
  int wake[2] = {-1, -1};
  int port = 0;
  std::thread thread;
  std::mutex mu;
  std::condition_variable done;
  Script script;
  int accepted = 0;
  int handled = 0;
  std::vector<Connection> connections;

  Connection Serve(int fd, const Script& s);
  void Run();
};

Connection TlsServer::Impl::Serve(int fd, const Script& s) {
  Connection c;
  if (s.conduct == Conduct::kStall) {
    HoldUntilGone(fd, wake[0]);
    return c;
  }
  if (s.conduct == Conduct::kGarbage) {
    char hello[4096];
    if (read(fd, hello, sizeof(hello)) > 0) {
      static const char kGarbage[] = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\ngood";
      if (send(fd, kGarbage, sizeof(kGarbage) - 1, MSG_NOSIGNAL) < 0) c.failure = std::strerror(errno);
    }
    return c;
  }
  SSL* ssl = SSL_new(ctx);
  SSL_set_fd(ssl, fd);
  ERR_clear_error();
  if (SSL_accept(ssl) != 1) {
    c.failure = LastReason();
    SSL_free(ssl);
    return c;
  }
  c.handshake = true;
  ReadRequest(ssl, &c);
  if (!c.head.empty()) {
    switch (s.conduct) {
      case Conduct::kAnswer: {
        const std::string answer = Head(s.status, s.body.size()) + s.body;
        if (WriteAll(ssl, answer.data(), answer.size())) SSL_shutdown(ssl);
        break;
      }
      case Conduct::kCloseMidBody: {
        // No close_notify: the connection just ends, as when a server dies.
        const std::string answer = Head(200, 2 * s.body.size() + 1) + s.body;
        WriteAll(ssl, answer.data(), answer.size());
        break;
      }
      case Conduct::kLargeBody: {
        static const std::string chunk(1 << 16, 'x');
        const std::string head = Head(200, s.size);
        bool ok = WriteAll(ssl, head.data(), head.size());
        for (size_t left = s.size; ok && left > 0; left -= left < chunk.size() ? left : chunk.size())
          ok = WriteAll(ssl, chunk.data(), left < chunk.size() ? left : chunk.size());
        if (ok) SSL_shutdown(ssl);
        break;
      }
      default: break;
    }
  }
  SSL_free(ssl);
  return c;
}

void TlsServer::Impl::Run() {
  // A client that has gone must give EPIPE here, not end the process.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  for (;;) {
    pollfd fds[2] = {{listener, POLLIN, 0}, {wake[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents) return;
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    Connection c;
    {
      // Whatever serving the connection took is given back before it counts
      // as handled: a fuzzer counts the mallocs and frees of each input.
      Script s;
      {
        std::lock_guard<std::mutex> lock(mu);
        ++accepted;
        s = script;
      }
      const timeval io = {kIoSeconds, 0};
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &io, sizeof(io));
      setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &io, sizeof(io));
      // The close_notify after the answer must not wait for the client's
      // delayed acknowledgement.
      const int on = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
      c = Serve(fd, s);
      close(fd);
    }
    std::lock_guard<std::mutex> lock(mu);
    connections.push_back(std::move(c));
    ++handled;
    done.notify_all();
  }
}

TlsServer::TlsServer(const Identity& identity, Script script) : impl_(new Impl) {
  Impl* impl = impl_.get();
  impl->script = std::move(script);
  impl->ctx = SSL_CTX_new(TLS_server_method());
  if (!impl->ctx || SSL_CTX_use_certificate(impl->ctx, identity.cert()) != 1 ||
      SSL_CTX_use_PrivateKey(impl->ctx, identity.key()) != 1)
    Die("cannot make the TLS context");
  impl->listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  if (impl->listener < 0 || bind(impl->listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      getsockname(impl->listener, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      listen(impl->listener, 16) != 0 || pipe2(impl->wake, O_CLOEXEC) != 0)
    Die("cannot listen on 127.0.0.1");
  impl->port = ntohs(address.sin_port);
  impl->thread = std::thread([impl] { impl->Run(); });
}

TlsServer::~TlsServer() {
  if (write(impl_->wake[1], "x", 1) != 1) std::abort();
  impl_->thread.join();
  close(impl_->listener);
  close(impl_->wake[0]);
  close(impl_->wake[1]);
  SSL_CTX_free(impl_->ctx);
}

int TlsServer::port() const { return impl_->port; }

void TlsServer::SetScript(Script script) {
  std::lock_guard<std::mutex> lock(impl_->mu);
  impl_->script = std::move(script);
}

std::vector<Connection> TlsServer::Take() {
  std::unique_lock<std::mutex> lock(impl_->mu);
  impl_->done.wait_for(lock, std::chrono::seconds(kIoSeconds), [this] { return impl_->handled == impl_->accepted; });
  std::vector<Connection> taken;
  taken.swap(impl_->connections);
  return taken;
}

}  // namespace pellixtest
