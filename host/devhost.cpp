#include "devhost.h"

#include <httplib.h>

#include <sys/socket.h>

#include <algorithm>
#include <regex>
#include <set>

#include "conditions.h"
#include "simulation.h"
#include "text.h"
#include "threads.h"

namespace webapihost {
namespace {

// The library's own listener options set SO_REUSEPORT and not SO_REUSEADDR:
// a second host binds a port in use and the two take turns answering, while a
// restarted host cannot bind its port until the last connections' TIME_WAIT
// is over. SO_REUSEADDR alone lets a restart bind at once, and nothing share.
void ListenAlone(socket_t sock) {
  int yes = 1;
  (void)setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
}

// The two methods whose privilege guard changes the process's ids.
bool ChangesIdentity(const ApiCall& call) {
  return call.api == "TALV.Core.PellixCenter.Login" && call.version == 1 &&
         (call.method == "pkce_login" || call.method == "pkce_config_get");
}

// The methods that bind the device to an account. The module refuses a
// second sign-in while one is bound, but it can only see a binding that is
// made: two sign-ins under way at once would both pass that check.
bool BindsAccount(const ApiCall& call) {
  if (call.api == "TALV.Core.PellixCenter" && call.version == 2)
    return call.method == "login" || call.method == "login_by_key" || call.method == "oauth_login" ||
           call.method == "register";
  return call.api == "TALV.Core.PellixCenter.Login" && call.version == 1 && call.method == "pkce_login";
}

}  // namespace

void Exchange::Log(const std::string& line) const {
  if (!log_) return;
  std::string text = OneLine(line);
  text += '\n';
  (void)std::fwrite(text.data(), 1, text.size(), log_);
  (void)std::fflush(log_);
}

void Exchange::Json(int status, std::string json) const {
  res.status = status;
  // The whole state is megabytes: moved, not copied.
  json += '\n';
  res.body = std::move(json);
  res.headers.erase("Content-Type");
  res.set_header("Content-Type", "application/json");
}

void Exchange::Refuse(int status, int code, const std::string& reason) const {
  if (journal) (*journal)["reason"] = reason;
  Json(status, Envelope(HostError(code, reason)));
  // A request line the server could not read leaves no method or path, or
  // one that is not: the reason says what there was.
  Log((HttpMethod(req.method) ? req.method : "-") + " " + (req.path.empty() ? "-" : Cut(req.path)) + ": " +
      std::to_string(status) + " code " + std::to_string(code) + " (" + reason + ")");
}

void Exchange::Page(int status, const std::string& html) const {
  res.status = status;
  res.set_header("Cache-Control", "no-store");
  res.set_header("X-Content-Type-Options", "nosniff");
  const std::string trusted = admitted.Listed();
  res.set_header("Content-Security-Policy", "default-src 'none'; style-src 'unsafe-inline'; form-action 'self'" +
                                                trusted + "; frame-ancestors 'self'" +
                                                (origins_ == Origins::kFramed ? trusted : ""));
  res.set_content(html, "text/html; charset=utf-8");
}

bool Route::Takes(const std::string& method) const {
  const std::string all = std::string(", ") + methods + ",";
  return all.find(" " + method + ",") != std::string::npos;
}

std::string Route::TakesInWords() const {
  std::vector<std::string> named;
  std::string all = methods;
  for (size_t at = 0; at != std::string::npos;) {
    const size_t comma = all.find(", ", at);
    const std::string m = all.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
    if (m != "HEAD") named.push_back(m);
    at = comma == std::string::npos ? comma : comma + 2;
  }
  std::string words;
  for (size_t i = 0; i < named.size(); ++i) words += (i == 0 ? "" : i + 1 == named.size() ? " or " : ", ") + named[i];
  return words;
}

DevHost::DevHost(const Module* module, pellixsim::Simulation* simulation, FILE* log, std::string language)
    : module_(module),
      simulation_(simulation),
      log_(log),
      language_(std::move(language)),
      server_(new httplib::Server()),
      other_{".*", "", Origins::kOwn, [this](const Exchange& x) { Other(x); }, ""} {}

DevHost::~DevHost() = default;

Answer DevHost::Run(const ApiCall& call) {
  if (module_->Find(call.api, call.version, call.method))
    return module_->Call(call.api, call.version, call.method, call.params, call.language);
  if (call.api == VerifierApi::kApi && call.version == 1) {
    if (call.method == "create") return verifier_.Create();
    if (call.method == "get") return verifier_.Get(call.params, call.user);
  }
  std::set<int> versions;
  if (call.api == VerifierApi::kApi) versions.insert(1);
  for (const TALV::APITableEntry* row = module_->Table(); row->szAPI; ++row)
    if (call.api == row->szAPI) versions.insert(row->iVersion);
  if (versions.empty())
    return HostError(kErrNoSuchApi, "\"api\" is \"" + Cut(call.api) + "\", which is no web API of this host");
  if (!versions.count(call.version)) {
    std::string have;
    for (int v : versions) have += (have.empty() ? "" : v == *versions.rbegin() ? " and " : ", ") + std::to_string(v);
    return HostError(kErrNoSuchVersion, "\"version\" is " + std::to_string(call.version) + ", but " + call.api +
                                            (versions.size() == 1 ? " has only version " : " has versions ") + have);
  }
  return HostError(kErrNoSuchMethod, "\"method\" is \"" + Cut(call.method) + "\", which " + call.api + " version " +
                                         std::to_string(call.version) + " does not have");
}

Answer DevHost::Dispatch(const ApiCall& call, std::vector<std::string>* bites) {
  const pellixsim::RequestUnderWay running(call.api, call.version, call.method);
  std::unique_lock<std::mutex> oneAtATime;
  if (BindsAccount(call)) oneAtATime = std::unique_lock<std::mutex>(binding_);
  Answer answer;
  if (ChangesIdentity(call)) {
    std::unique_lock<std::shared_mutex> alone(identity_);
    answer = Run(call);
  } else {
    std::shared_lock<std::shared_mutex> shared(identity_);
    answer = Run(call);
  }
  if (bites) *bites = running.Bites();
  return answer;
}

int DevHost::Exec(Json::Value& result, const std::string& api, int version, const std::string& method,
                  const Json::Value& params, const std::string& user) {
  ApiCall call;
  call.api = api;
  call.version = version;
  call.method = method;
  call.params = params.isObject() ? params : Json::Value(Json::objectValue);
  call.user = user;
  Answer a = Run(call);
  result = Json::Value(Json::objectValue);
  result["success"] = a.success;
  if (a.success) {
    result["data"] = a.data;
  } else {
    result["error"]["code"] = a.code;
  }
  return a.found ? 0 : -1;
}

// Counts a request as under way for as long as it lives.
class DevHost::UnderWay {
 public:
  explicit UnderWay(std::atomic<int>* count) : count_(count) { ++*count_; }
  ~UnderWay() { --*count_; }
  UnderWay(const UnderWay&) = delete;
  UnderWay& operator=(const UnderWay&) = delete;

 private:
  std::atomic<int>* count_;
};

bool DevHost::OwnHost(const httplib::Request& req) const {
  if (!req.has_header("Host")) return true;
  const std::string host = req.get_header_value("Host");
  const std::string port = std::to_string(port_);
  bool loopback = false;
  for (const char* name : {"127.0.0.1", "localhost", "[::1]"})
    loopback = loopback || SameText(host, name + (":" + port)) || (port_ == 80 && SameText(host, name));
  return loopback;
}

namespace {

// The origin of the page that sent the request: its Origin, else, for a
// navigation, which sends none, the origin of its Referer (browsers send a
// page's origin there when it leads to another origin). Empty: none known.
std::string PageOrigin(const httplib::Request& req) {
  if (req.has_header("Origin")) return ParseOrigin(req.get_header_value("Origin"), nullptr);
  return OriginOf(req.get_header_value("Referer"));
}

// The request headers a page may set that the host reads.
const char* const kReadHeaders[] = {"Content-Type", "Content-Encoding", "Range"};

}  // namespace

std::string DevHost::CrossOrigin(const httplib::Request& req) const {
  const std::string port = std::to_string(port_);
  const std::string host = req.get_header_value("Host");
  const std::string site = req.get_header_value("Sec-Fetch-Site");
  const std::string origin = PageOrigin(req);
  const bool trusted = admitted_.Trusted(origin);
  // A page of a site whose owner has pointed its name at 127.0.0.1 is of the
  // host's origin as far as the browser knows; only Host tells.
  const bool loopback = OwnHost(req);
  std::string why;
  if (!trusted && req.has_header("Sec-Fetch-Site") && site != "same-origin" && site != "none")
    why = "Sec-Fetch-Site is \"" + site + "\": the request comes from a page of another site";
  else if (!loopback)
    why = "Host \"" + host + "\" is not a name of this host (127.0.0.1:" + port + ", localhost:" + port +
          " or [::1]:" + port + "): the page was opened under another name";
  else if (!trusted && req.has_header("Origin") && !SameText(req.get_header_value("Origin"), "http://" + host))
    why = "Origin \"" + req.get_header_value("Origin") + "\" is not this host's own (http://" + host +
          "): the request comes from a page of another origin";
  else
    return "";
  why += "; open http://127.0.0.1:" + port + "/ itself, or call it from a program on this computer";
  // Trusting an origin admits its pages under the host's own names only.
  if (loopback && !origin.empty() && !admitted_.Own(origin))
    why += ", or let that page's origin in with serve --trust-origin " + origin;
  return why;
}

void DevHost::Foreign(const Exchange& x, const std::string& why) const {
  // The page learns why it was refused, which it knows already but for the
  // option that admits it; the answer holds nothing of the device.
  const std::string origin = ParseOrigin(x.req.get_header_value("Origin"), nullptr);
  if (!origin.empty()) {
    x.res.set_header("Access-Control-Allow-Origin", origin);
    x.res.set_header("Vary", "Origin");
  }
  x.Refuse(403, kErrForeign, why);
}

void DevHost::Preflight(const Route& route, const Exchange& x) const {
  const std::string origin = ParseOrigin(x.req.get_header_value("Origin"), nullptr);
  const bool trusted = admitted_.Trusted(origin);
  std::string headers = "Content-Type";
  const std::string asked = x.req.get_header_value("Access-Control-Request-Headers");
  for (size_t at = 0; at <= asked.size();) {
    const size_t comma = std::min(asked.find(',', at), asked.size());
    const size_t from = asked.find_first_not_of(" \t", at);
    const size_t to = asked.find_last_not_of(" \t", comma - 1);
    const std::string name = from < comma && to != std::string::npos ? asked.substr(from, to - from + 1) : "";
    for (const char* read : kReadHeaders)
      if (SameText(name, read) && !SameText(name, "Content-Type") && headers.find(read) == std::string::npos)
        headers += std::string(", ") + read;
    at = comma + 1;
  }
  x.res.status = 204;
  x.res.set_header("Access-Control-Allow-Origin", origin);
  x.res.set_header("Access-Control-Allow-Methods", route.methods);
  x.res.set_header("Access-Control-Allow-Headers", headers);
  x.res.set_header("Access-Control-Max-Age", trusted ? "600" : "0");
  x.res.set_header("Vary", "Origin");
  x.Log("OPTIONS " + Cut(x.req.path) + ": 204 (preflight of " +
        Cut(x.req.get_header_value("Access-Control-Request-Method")) + " from " + origin +
        (trusted ? ", trusted)" : ", not trusted: the request itself will be refused)"));
}

void DevHost::Unrouted(const httplib::Request& req, httplib::Response& res) {
  const auto started = std::chrono::system_clock::now();
  const auto start = std::chrono::steady_clock::now();
  const RequestBody none;
  Exchange x(req, none, res, log_, admitted_, Origins::kOwn);
  Json::Value note(Json::objectValue);
  x.journal = &note;
  const std::string foreign = CrossOrigin(req);
  const std::string origin = ParseOrigin(req.get_header_value("Origin"), nullptr);
  if (foreign.empty() && admitted_.Trusted(origin)) {
    res.set_header("Access-Control-Allow-Origin", origin);
    res.set_header("Vary", "Origin");
  }
  if (!foreign.empty()) {
    Foreign(x, foreign);
  } else if (!req.has_header("REMOTE_ADDR")) {
    // The server adds REMOTE_ADDR once it has read the request line and the
    // headers.
    x.Refuse(res.status, kErrBadRequest, Unreadable(req, res.status));
  } else if (res.status == 413) {
    x.Refuse(413, kErrTooLarge, TooLarge(req));
  } else if (res.status == 416) {
    x.Refuse(416, kErrBadRequest,
             "Range \"" + Cut(req.get_header_value("Range")) + "\" cannot be read: leave it out for the whole answer");
  } else if (res.status == 404 || res.status == 400) {
    // 404: no route for the path and method; 400: a method no route takes
    // (CONNECT, TRACE).
    Other(x);
  } else {
    x.Refuse(res.status, kErrBadRequest,
             "the HTTP server refused the request with status " + std::to_string(res.status));
  }
  Record(req, none, res, std::move(note), started, start);
}

void DevHost::Handle(const Route& route, const httplib::Request& req, const httplib::ContentReader* reader,
                     httplib::Response& res) {
  const UnderWay underWay(&underWay_);
  const auto started = std::chrono::system_clock::now();
  const auto start = std::chrono::steady_clock::now();
  RequestBody body;
  if (reader) ReadBody(req, res, *reader, &body, route.most);
  Exchange x(req, body, res, log_, admitted_, route.origins);
  Json::Value note(Json::objectValue);
  x.journal = &note;
  const std::string origin = ParseOrigin(req.get_header_value("Origin"), nullptr);
  const std::string cross = CrossOrigin(req);
  const bool preflight =
      req.method == "OPTIONS" && req.has_header("Access-Control-Request-Method") && !origin.empty() && OwnHost(req);
  // The preflight's answer carries its own Access-Control-Allow-Origin: one
  // header, not two, or the browser takes neither.
  if (!preflight && cross.empty() && admitted_.Trusted(origin)) {
    res.set_header("Access-Control-Allow-Origin", origin);
    res.set_header("Vary", "Origin");
  }
  // A preflight changes nothing: one from an origin not trusted is let
  // through so that its page reads why the request itself is refused.
  if (preflight) {
    Preflight(route, x);
  } else if (!cross.empty()) {
    Foreign(x, cross);
  } else if (req.method == "OPTIONS") {
    Other(x);
  } else if (body.status == 413) {
    x.Refuse(413, kErrTooLarge, TooLarge(req, route.most));
  } else if (body.status) {
    x.Refuse(body.status, kErrBadRequest, Unread(req));
  } else {
    route.answer(x);
  }
  Record(req, body, res, std::move(note), started, start);
}

int DevHost::Bind(int port) {
  routes_ = Routes(this, simulation_);
  httplib::Server& s = *server_;
  size_t most = kMaxBody;
  for (const Route& route : routes_) most = std::max(most, route.most);
  s.set_payload_max_length(most);
  s.new_task_queue = [] { return new Threads(); };
  s.set_socket_options([this](socket_t sock) {
    ListenAlone(sock);
    listener_ = sock;
  });
  // An answer goes out as two writes (head, body); with Nagle's algorithm the
  // second waits for the client's delayed acknowledgement on a kept-alive
  // connection, some 40 ms per request.
  s.set_tcp_nodelay(true);
  // Every method that has a body hands it to the route, which reads it: one
  // limit and one decoding for every kind (the server would decode a form
  // itself, and refuse one over 8 KiB).
  for (const Route& route : routes_) {
    const Route* r = &route;
    auto plain = [this, r](const httplib::Request& req, httplib::Response& res) { Handle(*r, req, nullptr, res); };
    auto reading = [this, r](const httplib::Request& req, httplib::Response& res,
                             const httplib::ContentReader& reader) { Handle(*r, req, &reader, res); };
    if (route.Takes("GET")) s.Get(route.path, plain);
    if (route.Takes("POST")) s.Post(route.path, reading);
    if (route.Takes("PUT")) s.Put(route.path, reading);
    if (route.Takes("DELETE")) s.Delete(route.path, reading);
    s.Options(route.path, plain);
  }
  // Any other path, or method with a body: the body is read like any other.
  auto other = [this](const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader) {
    Handle(other_, req, &reader, res);
  };
  s.Post(".*", other);
  s.Put(".*", other);
  s.Patch(".*", other);
  s.Delete(".*", other);
  // Errors the server finds before a handler runs: an unknown path or
  // method, a request it cannot parse. An answer of a route has its body.
  s.set_error_handler([this](const httplib::Request& req, httplib::Response& res) {
    if (res.body.empty()) Unrouted(req, res);
  });
  port_ = port == 0 ? s.bind_to_any_port("127.0.0.1") : s.bind_to_port("127.0.0.1", port) ? port : -1;
  admitted_.port = port_;
  // The server listens with a backlog of 5: a burst of new connections (a
  // client that opens several at once) overflows it, and each connection over
  // waits a second for its SYN to be sent again. Listening again only
  // lengthens the queue.
  if (port_ > 0) (void)listen(listener_, SOMAXCONN);
  return port_;
}

bool DevHost::Serve() { return server_->listen_after_bind(); }
// Safe from any thread and more than once; a call before Serve() has begun
// to listen does nothing, so the caller repeats it until Serve() returns.
void DevHost::Stop() {
  if (server_->is_running() && !stopped_.exchange(true)) server_->stop();
}

}  // namespace webapihost
