#include "client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <httplib.h>
#include <json/reader.h>
#include <json/writer.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace webapihost {

TempDir::TempDir() {
  char dir[] = "/tmp/webapi-host-XXXXXX";
  path_ = mkdtemp(dir) ? dir : "";
}
TempDir::~TempDir() {
  std::error_code ec;
  if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

ServeProcess::ServeProcess(const std::string& program, const std::string& module, const std::string& state,
                           const std::string& log, const std::vector<std::string>& more)
    : log_(log) {
  std::vector<std::string> args = {"webapi-host", "--module", module, "serve", "--state", state, "--port", "0"};
  args.insert(args.end(), more.begin(), more.end());
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  int out[2];
  if (pipe(out) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, STDERR_FILENO);
    close(out[0]);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  close(out[1]);
  // The announcement's first line names the URL.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (announced_.find("Stop with") == std::string::npos && std::chrono::steady_clock::now() < deadline) {
    pollfd p{out[0], POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    char buffer[4096];
    ssize_t n = read(out[0], buffer, sizeof(buffer));
    if (n <= 0) break;
    announced_.append(buffer, static_cast<size_t>(n));
  }
  close(out[0]);
  size_t at = announced_.find("http://127.0.0.1:");
  if (at != std::string::npos) port_ = static_cast<int>(std::strtol(announced_.c_str() + at + 17, nullptr, 10));
}

ServeProcess::~ServeProcess() {
  if (pid_ > 0) Stop(SIGKILL);
}

int ServeProcess::Stop(int signal) {
  if (pid_ <= 0) return -1;
  kill(pid_, signal);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string ServeProcess::Log() const {
  std::ifstream in(log_);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

namespace {

Reply Parse(const httplib::Result& result) {
  Reply reply;
  if (!result) return reply;
  reply.status = result->status;
  reply.text = result->body;
  while (!reply.text.empty() && reply.text.back() == '\n') reply.text.pop_back();
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  const std::string& body = result->body;
  if (!reader->parse(body.data(), body.data() + body.size(), &reply.body, &errors)) reply.body = Json::Value();
  return reply;
}

}  // namespace

Reply CallWebApi(int port, const std::string& api, int version, const std::string& method, const Json::Value& params) {
  Json::Value body = params;
  body["api"] = api;
  body["version"] = version;
  body["method"] = method;
  Json::StreamWriterBuilder writer;
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(std::chrono::seconds(60));
  return Parse(client.Post("/webapi/entry", Json::writeString(writer, body), "application/json"));
}

Reply PostForm(int port, const std::string& path, const Json::Value& fields) {
  httplib::Params params;
  for (const std::string& name : fields.getMemberNames()) params.emplace(name, fields[name].asString());
  httplib::Client client("127.0.0.1", port);
  return Parse(client.Post(path, params));
}

Reply Send(int port, const std::string& method, const std::string& path, const std::string& json) {
  httplib::Request request;
  request.method = method;
  request.path = path;
  request.body = json;
  if (!json.empty()) request.set_header("Content-Type", "application/json");
  httplib::Client client("127.0.0.1", port);
  return Parse(client.send(request));
}

int Connect(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(port));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof(to)) != 0) {
    close(fd);
    fd = -1;
  }
  return fd;
}

std::string Exchange(int port, const std::string& bytes) {
  const int fd = Connect(port);
  if (fd < 0) return "";
  // The server writes no answer to a connection whose sending side is shut:
  // the answer ends where its Content-Length says.
  const timeval patience{10, 0};
  (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  std::string answer;
  if (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size())) {
    char buffer[4096];
    for (ssize_t n; (n = recv(fd, buffer, sizeof(buffer), 0)) > 0;) {
      answer.append(buffer, static_cast<size_t>(n));
      const size_t head = answer.find("\r\n\r\n");
      if (head == std::string::npos) continue;
      const size_t length = answer.find("Content-Length: ");
      if (answer.size() >= head + 4 + (length < head ? std::stoul(answer.substr(length + 16)) : 0)) break;
    }
  }
  close(fd);
  return answer;
}

IdleConnections::IdleConnections(int port, int count) : port_(port) {
  for (int i = 0; i < count; ++i) sockets_.push_back(Connect(port));
  keeper_ = std::thread([this] {
    std::vector<pollfd> watched(sockets_.size());
    while (!stop_) {
      for (size_t i = 0; i < sockets_.size(); ++i) {
        if (sockets_[i] < 0) sockets_[i] = Connect(port_);
        watched[i] = pollfd{sockets_[i], POLLIN, 0};
      }
      if (poll(watched.data(), watched.size(), 100) <= 0) continue;
      // The host sends nothing unasked: anything readable is its close.
      for (size_t i = 0; i < sockets_.size(); ++i)
        if (watched[i].revents && sockets_[i] >= 0) {
          close(sockets_[i]);
          sockets_[i] = -1;
        }
    }
  });
}

IdleConnections::~IdleConnections() {
  stop_ = true;
  keeper_.join();
  for (int fd : sockets_)
    if (fd >= 0) close(fd);
}

}  // namespace webapihost
