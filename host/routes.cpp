// The development host's routes: the one table, and the host's own answers.
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
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
  // outside its folder can be named. The developer's interface (--web) takes
  // every path no other route takes, so it comes last.
  const bool web = h && !h->web_.empty();
  return {
      {"/webapi/entry", "GET, HEAD, POST", O::kOwn, [h](const Exchange& x) { h->WebApi(x); }, "`/webapi/entry`"},
      {R"(/admin/?|/admin/[A-Za-z0-9_-]+\.(html|css|js|png|svg))", "GET, HEAD", O::kOwn,
       [h](const Exchange& x) { h->Files(x); }, "`/admin/`, `/admin/NAME.html`, `.css`, `.js`, `.png`, `.svg`"},
      {"/device.json", "GET, HEAD", O::kOwn, [h](const Exchange& x) { h->Device(x); }, "`/device.json`"},
      {"/webapi/schema.json", "GET, HEAD", O::kOwn, [h](const Exchange& x) { h->Schema(x); }, "`/webapi/schema.json`"},
      {"/sim/authorize", "GET, HEAD, POST", O::kOwn, [sim](const Exchange& x) { sim->Authorize(x); },
       "`/sim/authorize`"},
      {"/sim/(token|register)", "POST", O::kOwn, [sim](const Exchange& x) { sim->Browser(x); },
       "`/sim/token`, `/sim/register`"},
      {"/sim/account", "GET, HEAD", O::kFramed, [sim](const Exchange& x) { sim->Page(x); }, "`/sim/account`"},
      {"/sim/(login|register)/done", "GET, HEAD", O::kOwn, [sim](const Exchange& x) { sim->Page(x); },
       "`/sim/login/done`, `/sim/register/done`"},
      {"/sim/conditions", "GET, HEAD, POST, DELETE", O::kOwn, [sim](const Exchange& x) { sim->InForce(x); },
       "`/sim/conditions`"},
      {"/sim/conditions/[^/]*", "DELETE", O::kOwn, [sim](const Exchange& x) { sim->InForce(x); },
       "`/sim/conditions/ID`"},
      {web ? "/.*" : R"(/|/[A-Za-z0-9_-]+\.(html|css|js|png|svg))", "GET, HEAD", O::kOwn,
       [h, web](const Exchange& x) { web ? h->Web(x) : h->Files(x); },
       "`/`, `/NAME.html`, `.css`, `.js`, `.png`, `.svg`; with `--web DIR`, every other path"},
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
  if (x.journal) NoteCall(decoded ? &call : nullptr, answer, bites, x.res.body, x.journal);
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
  if (check_) {
    const std::string name = decoded ? call.api + " " + std::to_string(call.version) + " " + call.method : "";
    const std::string mismatch = check_->Mismatch(name, answer);
    if (!mismatch.empty())
      x.Log((decoded ? Cut(name) : req.path) + ": the answer does not match the description at " + mismatch);
  }
}

namespace {

bool EndsWith(const std::string& text, const char* end) {
  const size_t n = std::strlen(end);
  return text.size() >= n && text.compare(text.size() - n, n, end) == 0;
}

// The types a browser insists on (a script served as text/plain is not run).
std::string TypeOf(const std::string& name) {
  static const char* const kTypes[][2] = {
      {".html", "text/html"},      {".css", "text/css"},          {".js", "text/javascript"},
      {".mjs", "text/javascript"}, {".json", "application/json"}, {".map", "application/json"},
      {".png", "image/png"},       {".svg", "image/svg+xml"},     {".jpg", "image/jpeg"},
      {".jpeg", "image/jpeg"},     {".gif", "image/gif"},         {".webp", "image/webp"},
      {".ico", "image/x-icon"},    {".woff", "font/woff"},        {".woff2", "font/woff2"},
      {".txt", "text/plain"},      {".wasm", "application/wasm"},
  };
  for (const auto& type : kTypes)
    if (EndsWith(name, type[0])) return type[1];
  return "application/octet-stream";
}

}  // namespace

// The page's files are named by a pattern of the route, which has no '/' nor
// "..", so nothing outside the folder can be named.
void DevHost::Files(const Exchange& x) {
  const std::string& path = x.req.path;
  if (path == "/admin") {
    x.res.status = 301;
    x.res.set_header("Location", "/admin/");
    return x.Log(x.req.method + " " + path + ": 301 (to /admin/)");
  }
  const std::string name = path.substr(path.rfind('/') + 1);
  SendFile(x, pages_.empty() ? "" : pages_ + "/" + (name.empty() ? "index.html" : name),
           pages_.empty() ? "this host serves no administration page: its folder was not found" : "");
}

// Any path under the folder of --web, as dev servers serve an application of
// one page: a path that names no file gets its index.html. No name that
// begins with '.' is served (no "..", no dotfile), nor a link that leads out.
void DevHost::Web(const Exchange& x) {
  const std::string& path = x.req.path;
  for (size_t at = 0; at != std::string::npos; at = path.find('/', at + 1))
    if (path.compare(at, 2, "/.") == 0 || path.find('\0') != std::string::npos)
      return SendFile(x, "", "no name that begins with '.' is served from " + web_);
  std::string file = web_ + path;
  struct stat found {};
  if (stat(file.c_str(), &found) != 0 || !S_ISREG(found.st_mode)) file = web_ + "/index.html";
  char real[PATH_MAX];
  if (realpath(file.c_str(), real) && std::string(real).rfind(web_ + "/", 0) != 0)
    return SendFile(x, "", file + " leads out of " + web_);
  SendFile(x, file, "");
}

void DevHost::SendFile(const Exchange& x, const std::string& path, std::string wrong) {
  const httplib::Request& req = x.req;
  httplib::Response& res = x.res;
  const std::string type = TypeOf(path);
  std::string content;
  struct stat file {};
  res.status = 404;
  if (!wrong.empty()) {
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

// The description is read at each request, as the page's files are: an edit
// shows at the next request.
void DevHost::Schema(const Exchange& x) {
  std::ifstream in(schema_, std::ios::binary);
  const int why = errno;
  if (schema_.empty() || !in) {
    const std::string wrong = schema_.empty() ? "this host has no description of its web API: its file was not found"
                                              : schema_ + ": " + std::strerror(why);
    x.res.status = 404;
    x.res.set_content("No such page: " + wrong + ".\n", "text/plain; charset=utf-8");
    return x.Log(x.req.method + " " + x.req.path + ": 404 (" + wrong + ")");
  }
  x.res.set_header("Cache-Control", "no-store");
  x.res.status = 200;
  x.res.set_content(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()),
                    "application/json");
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
               (pages_.empty() ? ""
                : web_.empty() ? ", the administration page at /"
                               : ", the administration page at /admin/"));
}

}  // namespace webapihost
