#include "https_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

namespace pellixtest {

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
