// The development host's routes. Every path the host answers is one row of
// one table (DevHost::Routes): its pattern, the methods it takes, whether it
// reads a body, which origins may use it, and the code that answers it. The
// table binds the HTTP server, answers a method a path does not take with
// 405 and Allow, and is the paths table of docs/devhost.md (a test holds the
// page to it). The simulated account service's rows are its own code
// (sim/simulation.h), mounted here.
#pragma once

#include <httplib.h>

#include <cstdio>
#include <functional>
#include <string>

#include "origin.h"
#include "request.h"

namespace webapihost {

// Which pages may use a route: the host's own pages, under a loopback name
// of the host, and those of the origins `serve --trust-origin` names (they
// get CORS answers). Programs on this computer, which send no Origin nor
// Sec-Fetch-Site, always may.
enum class Origins {
  kOwn,     // framed by the host's own pages only
  kFramed,  // framed by trusted origins too (get_iframe_info's page)
};

// One request as a route answers it: read whole, and already refused when it
// came from another origin or its body could not be taken.
class Exchange {
 public:
  Exchange(const httplib::Request& req, const RequestBody& body, httplib::Response& res, FILE* log,
           const Admitted& admitted, Origins origins)
      : req(req), body(body), res(res), admitted(admitted), log_(log), origins_(origins) {}

  // The line of this request in the host's log, out before the answer. One
  // write a line: the stream's own lock keeps it whole beside the lines of
  // other threads and of the system-log capture.
  void Log(const std::string& line) const;
  // Answers the host's `code` with `reason` in the envelope, and logs it.
  void Refuse(int status, int code, const std::string& reason) const;
  // Answers JSON text.
  void Json(int status, std::string json) const;
  // Answers one of the host's HTML pages, which hold no script, load nothing
  // and post their forms only to this host (whose answer may send the
  // browser on to a trusted origin). Framed as the route's Origins say.
  void Page(int status, const std::string& html) const;
  // What the journal keeps of this request beside what the HTTP exchange
  // shows (the web API call, the reason of a refusal); nullptr: none.
  Json::Value* journal = nullptr;

  const httplib::Request& req;
  const RequestBody& body;
  httplib::Response& res;
  const Admitted& admitted;

 private:
  FILE* log_;
  Origins origins_;
};

struct Route {
  const char* path;     // a regular expression matching the whole path
  const char* methods;  // as the Allow header lists them; HEAD goes with GET
  Origins origins;
  std::function<void(const Exchange&)> answer;
  const char* shown;       // the path as the docs show it
  size_t most = kMaxBody;  // the largest body it takes
  // Whether the route takes `method`.
  bool Takes(const std::string& method) const;
  // The methods in a sentence, HEAD left out: "GET, POST or DELETE".
  std::string TakesInWords() const;
};

}  // namespace webapihost
