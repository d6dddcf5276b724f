// The client side of the development host: `webapi-host serve` started in a
// child process on a free port of 127.0.0.1, and requests to it. Used by
// `webapi-host demo` and by the tests.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace webapihost {

// A fresh temporary folder, removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

class ServeProcess {
 public:
  // Starts `program` (webapi-host) serving `module` with the state folder
  // `state`, and waits until it has announced its URL (port() is -1 when it
  // exited or did not announce within ten seconds). Its stderr goes to `log`;
  // `more` are further options of serve.
  ServeProcess(const std::string& program, const std::string& module, const std::string& state, const std::string& log,
               const std::vector<std::string>& more = {});
  ~ServeProcess();  // stops it, if still running
  ServeProcess(const ServeProcess&) = delete;
  ServeProcess& operator=(const ServeProcess&) = delete;

  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  const std::string& announcement() const { return announced_; }
  // Sends `signal` and waits; the exit status (-signal when killed by one).
  int Stop(int signal);
  std::string Log() const;

 private:
  pid_t pid_ = -1;
  int port_ = -1;
  std::string log_;
  std::string announced_;
};

// One request to /webapi/entry of a host on `port`, as form fields or, when
// `json` is true, as a JSON body. The envelope (null when the answer was not
// JSON) and the HTTP status (-1 when there was no answer).
struct Reply {
  int status = -1;
  Json::Value body;
  std::string text;  // the body as it came
};
Reply CallWebApi(int port, const std::string& api, int version, const std::string& method,
                 const Json::Value& params = Json::Value(Json::objectValue));
// POST of form fields to `path` of the host.
Reply PostForm(int port, const std::string& path, const Json::Value& fields);
// Any request to `path` of the host; a body is sent as JSON.
Reply Send(int port, const std::string& method, const std::string& path, const std::string& json = "");

// A TCP connection to 127.0.0.1:`port`, or -1.
int Connect(int port);

// Sends `bytes` as they are to the host on `port`, and answers the host's
// first answer ("" when none came within ten seconds).
std::string Exchange(int port, const std::string& bytes);

// `count` connections to the host on `port` that send nothing, as the spare
// and kept-alive connections of browser tabs do; one that the host closes is
// opened again, until destruction. All are open when the constructor returns.
class IdleConnections {
 public:
  IdleConnections(int port, int count);
  ~IdleConnections();
  IdleConnections(const IdleConnections&) = delete;
  IdleConnections& operator=(const IdleConnections&) = delete;

 private:
  int port_;
  std::vector<int> sockets_;
  std::atomic<bool> stop_{false};
  std::thread keeper_;
};

}  // namespace webapihost
