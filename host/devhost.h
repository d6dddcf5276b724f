// The development host: the device's web API host over HTTP on 127.0.0.1.
//
// It serves /webapi/entry for the module's table and for the host's own
// credential-verifier API, runs other web APIs in-process for the module
// (talvwebapi::Runner), and serves the browser's side of the simulated
// account service under /sim/.
//
// Only the host's own page, the pages of the origins it is told to trust, and
// programs on this computer may use it: a request from a page of another
// site (Sec-Fetch-Site, Origin, Referer) or under a name other than a
// loopback one (Host, against DNS rebinding) is refused with kErrForeign,
// whatever its method and path, before anything of it takes effect. Trusted
// origins get CORS answers; a refused page may read its refusal, and nothing
// else.
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
// - version-1 registrations run one at a time (pellixsim::RequestUnderWay),
//   so that the connection account.php takes belongs to the one under way,
//   and a condition that bites there names it;
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
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "answer_check.h"
#include "harness.h"
#include "journal.h"
#include "request.h"
#include "route.h"
#include "state.h"
#include "verifier.h"
#include "webapi/runner.h"

namespace pellixsim {
class Simulation;
}

namespace webapihost {

class DevHost : public talvwebapi::Runner {
 public:
  // `log` receives one line per request (nullptr: none); every HTTP request
  // comes from an interface in `language`. `simulation` (not owned; nullptr:
  // none) is the account service whose browser side is mounted under /sim/.
  DevHost(const Module* module, pellixsim::Simulation* simulation, FILE* log, std::string language);
  ~DevHost() override;

  // One web API request, with the locks of the comment above; the bites of
  // the service's conditions on it go to *bites (nullptr: nowhere).
  Answer Dispatch(const ApiCall& call, std::vector<std::string>* bites = nullptr);
  // The runner: the module runs another API in-process, on a thread that
  // already holds its lock.
  int Exec(Json::Value& result, const std::string& api, int version, const std::string& method,
           const Json::Value& params, const std::string& user) override;

  // The administration page's folder, served at /admin/, and at / without
  // SetWeb (empty: no page). Call before Bind.
  void SetPages(std::string folder) { pages_ = std::move(folder); }
  // The description of the web API (docs/webapi.schema.json), served at
  // /webapi/schema.json (empty: none). Call before Bind.
  void SetSchema(std::string path) { schema_ = std::move(path); }
  // Holds every answer of /webapi/entry to `check` (not owned; nullptr:
  // none), and logs each one it does not allow. Call before Bind.
  void SetAnswerCheck(const AnswerCheck* check) { check_ = check; }
  // The developer's own interface, an existing folder named by its real path
  // (no link in it), served at every path no other route takes; the
  // administration page stays at /admin/. Call before Bind.
  void SetWeb(std::string folder) { web_ = std::move(folder); }
  // The device's facts ({"serial", "model", "build"}), answered at
  // /device.json: the page needs the serial for a sign-in by key, and no web
  // API method tells it. Call before Bind.
  void SetDevice(Json::Value facts) { device_ = std::move(facts); }
  // The origins whose pages may use every route besides the host's own, as
  // ParseOrigin answers them. Call before Bind.
  void SetTrustedOrigins(std::vector<std::string> origins) { admitted_.trusted = std::move(origins); }
  // The host's own origins and the trusted ones; its port once bound.
  const Admitted& admitted() const { return admitted_; }
  // The state folder of the device served (not owned), which GET and PUT
  // /sim/state and POST /sim/reset read and replace while the host serves.
  // Call before Bind.
  void SetState(StateFolder* state) { state_ = state; }
  // The journal each request goes to (not owned; nullptr: none), answered at
  // /sim/journal. Call before Bind.
  void SetJournal(Journal* journal) { journal_ = journal; }
  // Binds 127.0.0.1:port (0: any free port); the port, or -1 (also when
  // another program listens there: one host per port).
  int Bind(int port);
  // Serves until Stop(); false when it could not.
  bool Serve();
  // Stops a serving host: no new connection, the requests under way answered.
  void Stop();
  // Requests being read or answered now.
  int RequestsUnderWay() const { return underWay_; }

  // Every path the host answers (route.h): the host's own, then the
  // simulated account service's. `host` and `simulation` may be null for a
  // table that is only read.
  static std::vector<Route> Routes(DevHost* host, pellixsim::Simulation* simulation);

 private:
  class UnderWay;
  Answer Run(const ApiCall& call);  // no locks
  // Every request: refused when it comes from another origin or its body
  // cannot be taken, else answered by `route`. The body is read first,
  // whatever the answer.
  void Handle(const Route& route, const httplib::Request& req, const httplib::ContentReader* reader,
              httplib::Response& res);
  // Why the request does not come from the host's own page, a trusted
  // origin's or a local program (empty: it does).
  std::string CrossOrigin(const httplib::Request& req) const;
  // Whether the request reached the host under a loopback name and its port.
  bool OwnHost(const httplib::Request& req) const;
  // A refusal of CrossOrigin's: readable by the page that sent it, and by
  // nothing else.
  void Foreign(const Exchange& x, const std::string& why) const;
  // Answers a CORS preflight of `route`: admitted for a trusted origin; for
  // any other, so that the browser sends the request and its page reads the
  // refusal, never cached.
  void Preflight(const Route& route, const Exchange& x) const;
  // A request the server refused before any route: a request line or headers
  // it cannot read, a path or method no route takes.
  void Unrouted(const httplib::Request& req, httplib::Response& res);
  // The host's own routes (routes.cpp).
  void WebApi(const Exchange& x);
  void Files(const Exchange& x);
  void Web(const Exchange& x);
  // Answers the file at `path`, or 404 saying `wrong` when not empty.
  void SendFile(const Exchange& x, const std::string& path, std::string wrong);
  void Device(const Exchange& x);
  void Schema(const Exchange& x);
  void Other(const Exchange& x);
  // The whole state, a reset and the journal (state_routes.cpp).
  void State(const Exchange& x);
  void Reset(const Exchange& x);
  void Journaled(const Exchange& x);
  // Replaces the state with `document` and answers, every request held
  // back meanwhile.
  void Replace(const Exchange& x, const Json::Value& document, Json::Value answer);
  // Keeps a request in the journal, with what its route noted.
  void Record(const httplib::Request& req, const RequestBody& body, const httplib::Response& res, Json::Value note,
              std::chrono::system_clock::time_point started, std::chrono::steady_clock::time_point start);
  const Module* module_;
  pellixsim::Simulation* simulation_;
  FILE* log_;
  const std::string language_;
  std::mutex binding_;  // taken before identity_
  std::shared_mutex identity_;
  VerifierApi verifier_;
  std::unique_ptr<httplib::Server> server_;
  std::vector<Route> routes_;  // made by Bind, which knows web_
  const Route other_;          // any path or method no route takes
  std::atomic<bool> stopped_{false};
  std::atomic<int> underWay_{0};
  std::string pages_;
  std::string schema_;
  const AnswerCheck* check_ = nullptr;
  std::string web_;
  Admitted admitted_;
  Json::Value device_{Json::objectValue};  // under stateMu_
  StateFolder* state_ = nullptr;           // under stateMu_
  std::mutex stateMu_;                     // taken after binding_ and identity_
  Journal* journal_ = nullptr;
  int port_ = -1;
  int listener_ = -1;  // the listening socket, once bound
};

}  // namespace webapihost
