// The development host: the device's web API host over HTTP on 127.0.0.1.
//
// It serves /webapi/entry for the module's table and for the host's own
// credential-verifier API, runs other web APIs in-process for the module
// (talvwebapi::Runner), and serves the browser's side of the simulated
// account service under /sim/.
//
// Only the host's own page and programs on this computer may use it: a
// request from a page of another site (Sec-Fetch-Site, Origin) or under a
// name other than a loopback one (Host, against DNS rebinding) is refused
// with kErrForeign, whatever its method and path.
//
// Concurrency. The HTTP server runs each connection on one thread, from
// decoding to answer, started when every other thread is busy (an idle
// kept-alive connection keeps its thread). What the host serialises, and what
// it need not:
// - the privilege guard of pkce_login and pkce_config_get changes the
//   effective user and group ids of the whole process, and puts back the ids
//   its own entry saw: those two methods run alone (an exclusive lock), every
//   other request holds the lock shared, so no request runs under ids that
//   another request raised, and no guard restores ids under another's feet;
// - the methods that bind the device to an account (the four sign-ins and
//   version-2 registration) run one at a time, so that the module's own
//   "already signed in" check of each sees the outcome of the one before;
// - the account error number of the account-client stand-in is per thread,
//   read by the handler on the thread that set it: nothing to serialise;
// - the account service's database: its Store runs the service's changes one
//   transaction at a time (each rule atomic, passwords hashed outside the
//   lock) and its reads beside them and each other, each on the last
//   committed state;
// - the verifier store has a lock of its own; each log line is one write to
//   its stream, which the stream's own lock keeps whole; the seam's journal
//   and the system-log capture are safe for concurrent use.
#pragma once

#include <json/value.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "harness.h"
#include "service.h"
#include "webapi/runner.h"

namespace httplib {
class Server;
class Request;
class Response;
class ContentReader;
}  // namespace httplib

namespace webapihost {

// The host's own error codes (100 to 199), beside kErrUnknown (100: the
// handler threw or gave no answer) and kErrNoSuchMethod (103).
constexpr int kErrBadRequest = 101;     // malformed request, HTTP 400
constexpr int kErrNoSuchApi = 102;      // HTTP 404
constexpr int kErrNoSuchVersion = 104;  // the API exists, not in that version; HTTP 404
constexpr int kErrForbidden = 105;      // not for this user; HTTP 403
constexpr int kErrTooLarge = 106;       // body over kMaxBody; HTTP 413
constexpr int kErrNoVerifier = 107;     // no verifier for that challenge
constexpr int kErrForeign = 108;        // from another site's page, or by another name; HTTP 403

constexpr size_t kMaxBody = size_t{64} * 1024;
// HTTP requests run as the interface's administrator; the module runs the
// verifier API as "root", and only root may read a verifier.
extern const char kHttpUser[];

struct Call {
  std::string api;
  int version = 0;
  std::string method;
  Json::Value params{Json::objectValue};
  std::string user = kHttpUser;
  std::string language = "enu";
};

// TALV.Remote.Credential.Verifier version 1: the device's PKCE code
// verifiers. `create` makes one and answers its S256 challenge; `get` gives
// the verifier of a challenge to root. A verifier lasts ten minutes.
class VerifierApi {
 public:
  static const char kApi[];
  // A verifier lives ten minutes, and at most `capacity` live at once: a
  // client that creates them in a loop pushes out the oldest, not the host's
  // memory.
  static constexpr size_t kCapacity = 4096;
  explicit VerifierApi(size_t capacity = kCapacity) : capacity_(capacity) {}
  Answer Create();
  Answer Get(const Json::Value& params, const std::string& user);

 private:
  const size_t capacity_;
  std::mutex mu_;
  std::map<std::string, std::pair<std::string, std::chrono::steady_clock::time_point>> byChallenge_;
  std::deque<std::string> oldestFirst_;  // the challenges; all live equally long
};

// A request's body, read before anything is decoded or answered (devhost.cpp).
struct RequestBody;
class Conditions;

class DevHost : public talvwebapi::Runner {
 public:
  // `log` receives one line per request (nullptr: none); every HTTP request
  // comes from an interface in `language`.
  DevHost(const Module* module, pellixsim::Service* service, FILE* log, std::string language);
  ~DevHost() override;

  // One web API request, with the locks of the comment above.
  Answer Dispatch(const Call& call);
  // The runner: the module runs another API in-process, on a thread that
  // already holds its lock.
  int Exec(Json::Value& result, const std::string& api, int version, const std::string& method,
           const Json::Value& params, const std::string& user) override;

  // The administration page's folder, served at / (empty: no page). Call
  // before Bind.
  void SetPages(std::string folder) { pages_ = std::move(folder); }
  // The device's facts ({"serial", "model", "build"}), answered at
  // /device.json: the page needs the serial for a sign-in by key, and no web
  // API method tells it; the account service's page at /sim/account shows
  // the account of this serial. Call before Bind.
  void SetDevice(Json::Value facts) { device_ = std::move(facts); }
  // The account service's conditions, listed, set and cleared at
  // /sim/conditions (not owned; nullptr: none kept). Call before Bind.
  void SetConditions(Conditions* conditions) { conditions_ = conditions; }
  // Binds 127.0.0.1:port (0: any free port); the port, or -1 (also when
  // another program listens there: one host per port).
  int Bind(int port);
  // Serves until Stop(); false when it could not.
  bool Serve();
  // Stops a serving host: no new connection, the requests under way answered.
  void Stop();
  // Requests being read or answered now.
  int RequestsUnderWay() const { return underWay_; }

 private:
  class UnderWay;
  using Route = void (DevHost::*)(const httplib::Request&, const RequestBody&, httplib::Response&);
  Answer Run(const Call& call);  // no locks
  // Every request: refused when it is foreign or its body cannot be taken,
  // else answered by `route`. The body is read first, whatever the answer.
  void Handle(Route route, const httplib::Request& req, const httplib::ContentReader* reader, httplib::Response& res);
  // Why the request does not come from the host's own page or a local
  // program (empty: it does).
  std::string Foreign(const httplib::Request& req) const;
  void Refuse(const httplib::Request& req, httplib::Response& res, int status, int code, const std::string& reason);
  // A request the server refused before any route: a request line or headers
  // it cannot read, a path or method no route takes.
  void Unrouted(const httplib::Request& req, httplib::Response& res);
  void Entry(const httplib::Request& req, const RequestBody& body, httplib::Response& res);
  void Browser(const httplib::Request& req, const RequestBody& body, httplib::Response& res);
  void Page(const httplib::Request& req, const RequestBody& body, httplib::Response& res);
  void SimPage(const httplib::Request& req, const RequestBody& body, httplib::Response& res);
  void Device(const httplib::Request& req, const RequestBody& body, httplib::Response& res);
  void SimConditions(const httplib::Request& req, const RequestBody& body, httplib::Response& res);
  void Other(const httplib::Request& req, const RequestBody& body, httplib::Response& res);
  void Log(const std::string& line);

  const Module* module_;
  pellixsim::Service* service_;
  FILE* log_;
  const std::string language_;
  std::mutex binding_;  // taken before identity_
  std::shared_mutex identity_;
  VerifierApi verifier_;
  std::unique_ptr<httplib::Server> server_;
  std::atomic<bool> stopped_{false};
  std::atomic<int> underWay_{0};
  std::string pages_;
  Json::Value device_{Json::objectValue};
  Conditions* conditions_ = nullptr;
  int port_ = -1;
  int listener_ = -1;  // the listening socket, once bound
};

// The HTTP status of an answer: 200 for every answer a handler gave (its
// error codes are the web API's), the host's own codes by their meaning.
int HttpStatus(const Answer& answer);

// Strict JSON: one value, nothing after it, no comments, no repeated keys.
// False with *errors on one line ("line 1, column 8: missing ...").
bool ParseJson(const std::string& text, Json::Value* value, std::string* errors);
// A text a client sent, for a sentence: on one line, and cut if long.
std::string Cut(const std::string& text);
// What a JSON value is, for a sentence: "an array", "a number"...
std::string Kind(const Json::Value& v);
// A value a client sent, for a sentence: itself if short, else its kind.
std::string Shown(const Json::Value& v);

}  // namespace webapihost
