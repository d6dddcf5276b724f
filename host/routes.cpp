// The development host's routes: the one table, and the host's own answers.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>

#include "devhost.h"
#include "simulation.h"

namespace webapihost {

std::vector<Route> DevHost::Routes(DevHost* h, pellixsim::Simulation* sim) {
  using O = Origins;
  // The page's files are named by a pattern with no '/' nor "..", so nothing
  // outside its folder can be named.
  return {
      {"/webapi/entry", "GET, HEAD, POST", O::kOwn, [h](const Exchange& x) { h->WebApi(x); }, "`/webapi/entry`"},
      {R"(/|/[A-Za-z0-9_-]+\.(html|css|js|png|svg))", "GET, HEAD", O::kOwn, [h](const Exchange& x) { h->Files(x); },
       "`/`, `/NAME.html`, `.css`, `.js`, `.png`, `.svg`"},
      {"/device.json", "GET, HEAD", O::kOwn, [h](const Exchange& x) { h->Device(x); }, "`/device.json`"},
      {"/sim/authorize", "GET, HEAD, POST", O::kOwn, [sim](const Exchange& x) { sim->Authorize(x); },
       "`/sim/authorize`"},
      {"/sim/(token|register)", "POST", O::kOwn, [sim](const Exchange& x) { sim->Browser(x); },
       "`/sim/token`, `/sim/register`"},
      {"/sim/account|/sim/(login|register)/done", "GET, HEAD", O::kOwn, [sim](const Exchange& x) { sim->Page(x); },
       "`/sim/account`, `/sim/login/done`, `/sim/register/done`"},
      {"/sim/conditions", "GET, HEAD, POST, DELETE", O::kOwn, [sim](const Exchange& x) { sim->InForce(x); },
       "`/sim/conditions`"},
      {"/sim/conditions/[^/]*", "DELETE", O::kOwn, [sim](const Exchange& x) { sim->InForce(x); },
       "`/sim/conditions/ID`"},
      {"/sim/state", "GET, HEAD, PUT", O::kOwn, [h](const Exchange& x) { h->State(x); }, "`/sim/state`", kMaxState},
      {"/sim/reset", "POST", O::kOwn, [h](const Exchange& x) { h->Reset(x); }, "`/sim/reset`"},
      {R"(/sim/journal|/sim/journal\.har)", "GET, HEAD, DELETE", O::kOwn, [h](const Exchange& x) { h->Journaled(x); },
       "`/sim/journal`, `/sim/journal.har`"},
  };
}

void DevHost::WebApi(const Exchange& x) {
  const httplib::Request& req = x.req;
  const auto start = std::chrono::steady_clock::now();
  ApiCall call;
  call.language = language_;
  std::string problem;
  const bool decoded = DecodeCall(req, x.body, &call, &problem);
  std::vector<std::string> bites;
  Answer answer = decoded ? Dispatch(call, &bites) : HostError(kErrBadRequest, problem);
  const int status = HttpStatus(answer);
  x.Json(status, Envelope(answer));
  if (x.journal) NoteCall(decoded ? &call : nullptr, answer, bites, x.journal);
  const std::string outcome = answer.success ? "success" : "code " + std::to_string(answer.code);
  // A call by what it calls; one that cannot be decoded by its path.
  std::string text =
      req.method + " " +
      (decoded ? Cut(call.api) + " " + std::to_string(call.version) + " " + Cut(call.method) : req.path) + ": " +
      std::to_string(status) + " " + outcome + ", " + Since(start);
  if (!answer.found) text += " (" + answer.data["reason"].asString() + ")";
  if (answer.threw) text += " (the handler threw: " + answer.exception + ")";
  if (answer.found && answer.answers != 1) text += " (" + std::to_string(answer.answers) + " answers)";
  x.Log(text);
}

// The page's files are named by a pattern of the route, which has no '/' nor
// "..", so nothing outside the folder can be named.
void DevHost::Files(const Exchange& x) {
  const httplib::Request& req = x.req;
  httplib::Response& res = x.res;
  const std::string name = req.path == "/" ? "index.html" : req.path.substr(1);
  const std::string type = name.size() > 4 && name.compare(name.size() - 4, 4, ".css") == 0   ? "text/css"
                           : name.size() > 3 && name.compare(name.size() - 3, 3, ".js") == 0  ? "text/javascript"
                           : name.size() > 4 && name.compare(name.size() - 4, 4, ".png") == 0 ? "image/png"
                           : name.size() > 4 && name.compare(name.size() - 4, 4, ".svg") == 0 ? "image/svg+xml"
                                                                                              : "text/html";
  const std::string path = pages_ + "/" + name;
  std::string wrong;  // why it is not served
  std::string content;
  struct stat file {};
  res.status = 404;
  if (pages_.empty()) {
    wrong = "this host serves no administration page: its folder was not found";
  } else if (stat(path.c_str(), &file) != 0) {
    const int why = errno;
    res.status = why == ENOENT ? 404 : 500;
    wrong = why == ENOENT ? "no file " + path : path + ": " + std::strerror(why);
  } else if (!S_ISREG(file.st_mode)) {
    wrong = path + " is not a file";
  } else {
    std::ifstream in(path, std::ios::binary);
    const int why = errno;
    if (in) {
      content.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    } else {
      res.status = 500;
      wrong = path + ": " + std::strerror(why);
    }
  }
  if (!wrong.empty()) {
    res.set_content((res.status == 404 ? "No such page: " : "The page cannot be served: ") + wrong + ".\n",
                    "text/plain; charset=utf-8");
  } else {
    res.status = 200;
    // The page is edited while the host runs; a reload must show the edit.
    res.set_header("Cache-Control", "no-store");
    res.set_header("X-Content-Type-Options", "nosniff");
    res.set_content(content, type + (type.rfind("text/", 0) == 0 ? "; charset=utf-8" : ""));
  }
  x.Log(req.method + " " + req.path + ": " + std::to_string(res.status) + (wrong.empty() ? "" : " (" + wrong + ")"));
}

void DevHost::Device(const Exchange& x) {
  x.res.set_header("Cache-Control", "no-store");
  std::unique_lock<std::mutex> lock(stateMu_);
  const std::string facts = Compact(device_);
  lock.unlock();
  x.Json(200, facts);
  x.Log(x.req.method + " " + x.req.path + ": 200");
}

// A path no route takes with this method: 405 naming the methods the path
// takes, or 404.
void DevHost::Other(const Exchange& x) {
  for (const Route& route : routes_)
    if (std::regex_match(x.req.path, std::regex(route.path))) {
      x.res.set_header("Allow", route.methods);
      return x.Refuse(405, kErrBadRequest, x.req.path + " takes " + route.TakesInWords() + ", not " + x.req.method);
    }
  x.Refuse(404, kErrBadRequest,
           "no such path \"" + Cut(x.req.path) + "\": the web API is at /webapi/entry" +
               (pages_.empty() ? "" : ", the administration page at /"));
}

}  // namespace webapihost
