#include "devhost.h"

#include <httplib.h>
#include <json/reader.h>
#include <json/writer.h>
#include <openssl/rand.h>

#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <list>
#include <thread>
#include <vector>

namespace webapihost {

struct RequestBody {
  std::string text;                     // as sent, unless multipart
  httplib::MultipartFormDataMap parts;  // the fields of a multipart body
  int status = 0;                       // the HTTP status of a body that cannot be taken
};

const char kHttpUser[] = "admin";
const char VerifierApi::kApi[] = "TALV.Remote.Credential.Verifier";

namespace {

constexpr auto kVerifierLifetime = std::chrono::minutes(10);

// The server's threads. The server gives a connection one thread from its
// first byte to its close, idle keep-alive time included (and a connection
// that drips a byte every few seconds keeps it for good), so a fixed pool is
// taken up by a few dozen idle or slow connections, as browser tabs keep, and
// a new request waits for one of them to time out. Here a connection that
// finds no thread free starts one, up to kMaxThreads; a thread idle for kLinger
// goes, down to kWarmThreads. shutdown() lets the queued work finish and joins
// every thread.
class Threads : public httplib::TaskQueue {
 public:
  static constexpr size_t kMaxThreads = 256;
  static constexpr size_t kWarmThreads = 8;
  static constexpr auto kLinger = std::chrono::seconds(10);

  void enqueue(std::function<void()> job) override {
    std::vector<std::thread> ended;
    {
      std::lock_guard<std::mutex> lock(mu_);
      jobs_.push_back(std::move(job));
      ended.swap(ended_);
      if (idle_ < jobs_.size() && running_.size() < kMaxThreads) {
        // The thread waits for the lock before it looks at its own entry.
        running_.emplace_back();
        running_.back() = std::thread(&Threads::Work, this, std::prev(running_.end()));
      }
    }
    work_.notify_one();
    for (std::thread& t : ended) t.join();
  }

  void shutdown() override {
    std::unique_lock<std::mutex> lock(mu_);
    stopping_ = true;
    work_.notify_all();
    gone_.wait(lock, [this] { return running_.empty(); });
    std::vector<std::thread> ended;
    ended.swap(ended_);
    lock.unlock();
    for (std::thread& t : ended) t.join();
  }

 private:
  void Work(std::list<std::thread>::iterator self) {
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
      ++idle_;
      const bool woken = work_.wait_for(lock, kLinger, [this] { return !jobs_.empty() || stopping_; });
      --idle_;
      if (jobs_.empty()) {
        if (stopping_ || (!woken && running_.size() > kWarmThreads)) break;
        continue;
      }
      std::function<void()> job = std::move(jobs_.front());
      jobs_.pop_front();
      lock.unlock();
      job();
      lock.lock();
    }
    // Joined by the next enqueue() or by shutdown(); a thread cannot join itself.
    ended_.push_back(std::move(*self));
    running_.erase(self);
    gone_.notify_all();
  }

  std::mutex mu_;
  std::condition_variable work_, gone_;
  std::deque<std::function<void()>> jobs_;
  std::list<std::thread> running_;
  std::vector<std::thread> ended_;
  size_t idle_ = 0;
  bool stopping_ = false;
};

// The library's own listener options set SO_REUSEPORT and not SO_REUSEADDR:
// a second host binds a port in use and the two take turns answering, while a
// restarted host cannot bind its port until the last connections' TIME_WAIT
// is over. SO_REUSEADDR alone lets a restart bind at once, and nothing share.
void ListenAlone(socket_t sock) {
  int yes = 1;
  (void)setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
}

bool SameText(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

// A multipart part's delimiter and headers count as this many bytes, fewer
// than they take (so a body within the limit stays within it), and enough
// that parts with nothing in them cannot grow the map without end.
constexpr size_t kPartOverhead = 32;

// Reads the whole body before any answer, a refusal too: what is left of it
// on a kept-alive connection would be taken for the next request, and a page
// of another site could write that request. At most kMaxBody bytes are kept.
// The server itself refuses and skips a Content-Length over that; the rest of
// a chunked or compressed body is read and dropped here.
void ReadBody(const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader,
              RequestBody* body) {
  size_t size = 0;
  auto keep = [&size](size_t n) {
    size += n;
    return size <= kMaxBody;
  };
  bool read = false;
  if (req.is_multipart_form_data()) {
    auto part = body->parts.end();
    read = reader(
        [&](const httplib::MultipartFormData& header) {
          part = keep(kPartOverhead + header.name.size() + header.filename.size() + header.content_type.size())
                     ? body->parts.emplace(header.name, header)
                     : body->parts.end();
          return true;
        },
        [&](const char* data, size_t n) {
          if (keep(n) && part != body->parts.end()) part->second.content.append(data, n);
          return true;
        });
  } else {
    read = reader([&](const char* data, size_t n) {
      if (keep(n)) body->text.append(data, n);
      return true;
    });
  }
  // The server sets the status of a body it could not read: over the limit,
  // a broken encoding, or a connection that ended early.
  body->status = !read ? (res.status > 0 ? res.status : 400) : size > kMaxBody ? 413 : 0;
}

// The two methods whose privilege guard changes the process's ids.
bool ChangesIdentity(const Call& call) {
  return call.api == "TALV.Core.PellixCenter.Login" && call.version == 1 &&
         (call.method == "pkce_login" || call.method == "pkce_config_get");
}

// The methods that bind the device to an account. The module refuses a
// second sign-in while one is bound, but it can only see a binding that is
// made: two sign-ins under way at once would both pass that check.
bool BindsAccount(const Call& call) {
  if (call.api == "TALV.Core.PellixCenter" && call.version == 2)
    return call.method == "login" || call.method == "login_by_key" || call.method == "oauth_login" ||
           call.method == "register";
  return call.api == "TALV.Core.PellixCenter.Login" && call.version == 1 && call.method == "pkce_login";
}

Answer HostError(int code, const std::string& reason) {
  Answer a;
  a.code = code;
  a.data = Json::Value(Json::objectValue);
  a.data["reason"] = reason;
  return a;
}

Answer Success(const Json::Value& data) {
  Answer a;
  a.found = true;
  a.success = true;
  a.answers = 1;
  a.data = data;
  return a;
}

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  return Json::writeString(b, value);
}

// Strict JSON: one value, nothing after it, no comments, no repeated keys.
bool ParseJson(const std::string& text, Json::Value* value, std::string* errors) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["strictRoot"] = false;  // a field may be true, null or "text"
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  return reader->parse(text.data(), text.data() + text.size(), value, errors);
}

// A field's text as a parameter: JSON for an object, an array, a quoted
// string, true, false or null; the text itself otherwise, so that a password
// or a key made of digits stays a string.
bool FieldValue(const std::string& text, Json::Value* value) {
  if (text == "true" || text == "false" || text == "null" ||
      (!text.empty() && (text[0] == '{' || text[0] == '[' || text[0] == '"'))) {
    std::string errors;
    return ParseJson(text, value, &errors);
  }
  *value = Json::Value(text);
  return true;
}

bool Version(const Json::Value& v, int* version) {
  if (v.isInt()) {
    *version = v.asInt();
    return true;
  }
  if (!v.isString()) return false;
  const std::string text = v.asString();
  errno = 0;
  char* end = nullptr;
  long n = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end || errno || n < INT_MIN || n > INT_MAX) return false;
  *version = static_cast<int>(n);
  return true;
}

// Every field of a request by name: query, form and multipart fields as text
// (see FieldValue when `typed`), the members of a JSON body as they are. A
// name given twice, a field that looks like JSON but is not, or a body that is
// neither form fields nor a JSON object makes it malformed.
bool Fields(const httplib::Request& req, const RequestBody& body, bool typed, Json::Value* fields,
            std::string* problem) {
  *fields = Json::Value(Json::objectValue);
  auto add = [&](const std::string& name, const Json::Value& value) {
    if (fields->isMember(name)) {
      *problem = "parameter \"" + name + "\" is given twice";
      return false;
    }
    (*fields)[name] = value;
    return true;
  };
  const std::string type = req.get_header_value("Content-Type");
  const bool form = type.rfind("application/x-www-form-urlencoded", 0) == 0;
  const bool json = type.find("application/json") != std::string::npos;
  httplib::Params formFields;
  if (form) httplib::detail::parse_query_text(body.text, formFields);
  const httplib::Params* texts[] = {&req.params, &formFields};
  for (const httplib::Params* params : texts)
    for (const auto& kv : *params) {
      Json::Value value(kv.second);
      if (typed && !FieldValue(kv.second, &value)) {
        *problem = "parameter \"" + kv.first + "\" looks like JSON but is not: " + kv.second;
        return false;
      }
      if (!add(kv.first, value)) return false;
    }
  for (const auto& kv : body.parts) {
    Json::Value value(kv.second.content);
    if (typed && !FieldValue(kv.second.content, &value)) {
      *problem = "parameter \"" + kv.first + "\" looks like JSON but is not";
      return false;
    }
    if (!add(kv.first, value)) return false;
  }
  if (json) {
    Json::Value members;
    std::string errors;
    if (!ParseJson(body.text, &members, &errors) || !members.isObject()) {
      *problem = "the body is not a JSON object" + (errors.empty() ? std::string() : ": " + errors);
      return false;
    }
    for (const std::string& name : members.getMemberNames())
      if (!add(name, members[name])) return false;
  } else if (!body.text.empty() && !form) {
    *problem = "the body must be form fields or a JSON object (Content-Type: application/json)";
    return false;
  }
  return true;
}

bool Decode(const httplib::Request& req, const RequestBody& body, Call* call, std::string* problem) {
  Json::Value fields;
  if (!Fields(req, body, true, &fields, problem)) return false;
  const Json::Value api = fields["api"], method = fields["method"], version = fields["version"];
  if (!api.isString() || api.asString().empty() || !method.isString() || method.asString().empty()) {
    *problem = "\"api\", \"version\" and \"method\" are required";
    return false;
  }
  if (!Version(version, &call->version)) {
    *problem = "\"version\" must be an integer, not " + (version.isNull() ? "absent" : Compact(version));
    return false;
  }
  call->api = api.asString();
  call->method = method.asString();
  for (const char* name : {"api", "version", "method"}) fields.removeMember(name);
  call->params = fields;
  return true;
}

void Reply(httplib::Response& res, int status, const std::string& body) {
  res.status = status;
  res.set_content(body + "\n", "application/json");
}

const char kNoSuchPath[] = "no such path: the web API is at /webapi/entry";

std::string TooLarge() { return "the body is larger than " + std::to_string(kMaxBody) + " bytes (64 KiB)"; }

}  // namespace

int HttpStatus(const Answer& a) {
  if (a.found) return a.answers > 0 ? 200 : 500;
  switch (a.code) {
    case kErrBadRequest: return 400;
    case kErrForbidden:
    case kErrForeign: return 403;
    case kErrTooLarge: return 413;
    case kErrNoSuchApi:
    case kErrNoSuchMethod:
    case kErrNoSuchVersion: return 404;
    default: return 500;
  }
}

Answer VerifierApi::Create() {
  // 48 random bytes make a 64-character verifier of RFC 7636's alphabet.
  unsigned char bytes[48];
  if (RAND_bytes(bytes, sizeof(bytes)) != 1) return HostError(kErrUnknown, "no random bytes");
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string verifier;
  for (size_t i = 0; i < sizeof(bytes); i += 3) {
    uint32_t n = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    for (int shift = 18; shift >= 0; shift -= 6) verifier += alphabet[(n >> shift) & 63];
  }
  const std::string challenge = pellixsim::S256Challenge(verifier);
  const auto now = std::chrono::steady_clock::now();
  {
    std::lock_guard<std::mutex> lock(mu_);
    while (!oldestFirst_.empty()) {
      auto oldest = byChallenge_.find(oldestFirst_.front());
      if (oldest != byChallenge_.end() && oldest->second.second > now && byChallenge_.size() < capacity_) break;
      if (oldest != byChallenge_.end()) byChallenge_.erase(oldest);
      oldestFirst_.pop_front();
    }
    byChallenge_[challenge] = {verifier, now + kVerifierLifetime};
    oldestFirst_.push_back(challenge);
  }
  Json::Value data;
  data["challenge"] = challenge;
  data["code_challenge_method"] = "S256";
  return Success(data);
}

Answer VerifierApi::Get(const Json::Value& params, const std::string& user) {
  if (user != "root") return HostError(kErrForbidden, "only root may read a verifier");
  const Json::Value& challenge = params["challenge"];
  if (!challenge.isString()) return HostError(kErrBadRequest, "\"challenge\" (a string) is required");
  std::lock_guard<std::mutex> lock(mu_);
  auto it = byChallenge_.find(challenge.asString());
  if (it == byChallenge_.end() || it->second.second <= std::chrono::steady_clock::now()) {
    Answer a = HostError(kErrNoVerifier, "no verifier for this challenge");
    a.found = true;  // the API answered
    a.answers = 1;
    return a;
  }
  Json::Value data;
  data["verifier"] = it->second.first;
  return Success(data);
}

DevHost::DevHost(const Module* module, pellixsim::Service* service, FILE* log, std::string language)
    : module_(module), service_(service), log_(log), language_(std::move(language)), server_(new httplib::Server()) {}

DevHost::~DevHost() = default;

Answer DevHost::Run(const Call& call) {
  if (module_->Find(call.api, call.version, call.method))
    return module_->Call(call.api, call.version, call.method, call.params, call.language);
  if (call.api == VerifierApi::kApi && call.version == 1) {
    if (call.method == "create") return verifier_.Create();
    if (call.method == "get") return verifier_.Get(call.params, call.user);
    return HostError(kErrNoSuchMethod, "no method " + call.method + " in " + call.api + " version 1");
  }
  if (call.api == VerifierApi::kApi) return HostError(kErrNoSuchVersion, call.api + " has only version 1");
  bool api = false;
  bool version = false;
  for (const TALV::APITableEntry* row = module_->Table(); row->szAPI; ++row) {
    if (call.api != row->szAPI) continue;
    api = true;
    version = version || row->iVersion == call.version;
  }
  if (!api) return HostError(kErrNoSuchApi, "no API " + call.api);
  if (!version) return HostError(kErrNoSuchVersion, "no version " + std::to_string(call.version) + " of " + call.api);
  return HostError(kErrNoSuchMethod,
                   "no method " + call.method + " in " + call.api + " version " + std::to_string(call.version));
}

Answer DevHost::Dispatch(const Call& call) {
  std::unique_lock<std::mutex> oneAtATime;
  if (BindsAccount(call)) oneAtATime = std::unique_lock<std::mutex>(binding_);
  if (ChangesIdentity(call)) {
    std::unique_lock<std::shared_mutex> alone(identity_);
    return Run(call);
  }
  std::shared_lock<std::shared_mutex> shared(identity_);
  return Run(call);
}

int DevHost::Exec(Json::Value& result, const std::string& api, int version, const std::string& method,
                  const Json::Value& params, const std::string& user) {
  Call call;
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

void DevHost::Log(const std::string& line) {
  if (!log_) return;
  std::lock_guard<std::mutex> lock(logMu_);
  (void)std::fprintf(log_, "%s\n", line.c_str());
  (void)std::fflush(log_);
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

std::string DevHost::Foreign(const httplib::Request& req) const {
  const std::string port = std::to_string(port_);
  const std::string host = req.get_header_value("Host");
  const std::string site = req.get_header_value("Sec-Fetch-Site");
  // A page of a site whose owner has pointed its name at 127.0.0.1 is of the
  // host's origin as far as the browser knows; only Host tells.
  bool loopback = false;
  for (const char* name : {"127.0.0.1", "localhost", "[::1]"})
    loopback = loopback || SameText(host, name + (":" + port)) || (port_ == 80 && SameText(host, name));
  std::string why;
  if (req.has_header("Sec-Fetch-Site") && site != "same-origin" && site != "none")
    why = "Sec-Fetch-Site is \"" + site + "\": the request comes from a page of another site";
  else if (req.has_header("Host") && !loopback)
    why = "Host \"" + host + "\" is not a name of this host (127.0.0.1:" + port + ", localhost:" + port +
          " or [::1]:" + port + "): the page was opened under another name";
  else if (req.has_header("Origin") && !SameText(req.get_header_value("Origin"), "http://" + host))
    why = "Origin \"" + req.get_header_value("Origin") + "\" is not this host's own (http://" + host +
          "): the request comes from a page of another origin";
  else
    return "";
  return why + "; open http://127.0.0.1:" + port + "/ itself, or call it from a program on this computer";
}

void DevHost::Refuse(const httplib::Request& req, httplib::Response& res, int status, int code,
                     const std::string& reason) {
  Reply(res, status, Envelope(HostError(code, reason)));
  Log(req.method + " " + (req.path.empty() ? "-" : req.path) + ": " + std::to_string(status) + " code " +
      std::to_string(code) + " (" + reason + ")");
}

void DevHost::Handle(Route route, const httplib::Request& req, const httplib::ContentReader* reader,
                     httplib::Response& res) {
  const UnderWay underWay(&underWay_);
  RequestBody body;
  if (reader) ReadBody(req, res, *reader, &body);
  const std::string foreign = Foreign(req);
  if (!foreign.empty()) return Refuse(req, res, 403, kErrForeign, foreign);
  if (body.status == 413) return Refuse(req, res, 413, kErrTooLarge, TooLarge());
  if (body.status)
    return Refuse(req, res, body.status, kErrBadRequest,
                  "the body cannot be read: a broken multipart or chunked encoding, or it ended early");
  (this->*route)(req, body, res);
}

void DevHost::Entry(const httplib::Request& req, const RequestBody& body, httplib::Response& res) {
  const auto start = std::chrono::steady_clock::now();
  Call call;
  call.language = language_;
  std::string problem;
  Answer answer = Decode(req, body, &call, &problem) ? Dispatch(call) : HostError(kErrBadRequest, problem);
  const int status = HttpStatus(answer);
  Reply(res, status, Envelope(answer));
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  const std::string outcome = answer.success ? "success" : "code " + std::to_string(answer.code);
  char line[512];
  (void)std::snprintf(line, sizeof(line), "%s %s %d %s: %d %s, %.1f ms", req.method.c_str(),
                      call.api.empty() ? "-" : call.api.c_str(), call.version,
                      call.method.empty() ? "-" : call.method.c_str(), status, outcome.c_str(), ms);
  std::string text = line;
  if (!answer.found) text += " (" + answer.data["reason"].asString() + ")";
  if (answer.threw) text += " (the handler threw: " + answer.exception + ")";
  if (answer.found && answer.answers != 1) text += " (" + std::to_string(answer.answers) + " answers)";
  Log(text);
}

// The browser's side of the account service: what a user does in a web page
// of the service, which the device never sees.
void DevHost::Browser(const httplib::Request& req, const RequestBody& body, httplib::Response& res) {
  const auto start = std::chrono::steady_clock::now();
  Json::Value fields;
  std::string problem;
  uint32_t error = pellixsim::kBadParam;
  Json::Value answer(Json::objectValue);
  if (!Fields(req, body, false, &fields, &problem)) {
    answer["error"] = problem;
    Reply(res, 400, Compact(answer));
    return;
  }
  auto text = [&](const char* name, const std::string& fallback = "") {
    return fields[name].isString() ? fields[name].asString() : fallback;
  };
  const Json::Value login = service_->PkceConfig("login");
  if (req.path == "/sim/authorize") {
    std::string code;
    const std::string redirect = text("redirect_uri", login["redirect_uri"].asString());
    error = service_->IssueGrant(text("email"), text("password"), text("client_id", pellixsim::kClientId), redirect,
                                 text("code_challenge"), text("code_challenge_method", "S256"), &code);
    answer["grant_code"] = code;
    answer["redirect_uri"] = redirect;
    answer["expires_in"] = static_cast<Json::Int64>(service_->options().grantLifetime);
  } else if (req.path == "/sim/register") {
    pellixsim::NewAccount account;
    account.email = text("email");
    account.password = text("password");
    account.fullName = text("full_name");
    account.country = text("country");
    error = service_->Register("", account);
    answer["email"] = account.email;
    answer["registered"] = true;
  } else {
    std::string token;
    error = service_->IssueAccessToken(text("email"), text("password"), &token);
    answer["access_token"] = token;
    answer["token_type"] = "Bearer";
    answer["expires_in"] = static_cast<Json::Int64>(service_->options().tokenLifetime);
  }
  int status = 200;
  if (error != pellixsim::kOk) {
    answer = Json::Value(Json::objectValue);
    answer["account_error"] = error;
    answer["error"] = error == pellixsim::kBadAuth    ? "wrong e-mail address or password"
                      : error == pellixsim::kBadParam ? "missing or malformed field"
                      : error == pellixsim::kInUse    ? "the e-mail address is taken"
                                                      : "the service failed";
    status = error == pellixsim::kBadAuth    ? 401
             : error == pellixsim::kBadParam ? 400
             : error == pellixsim::kInUse    ? 409
                                             : 500;
  }
  Reply(res, status, Compact(answer));
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  char line[256];
  (void)std::snprintf(line, sizeof(line), "%s %s: %d, %.1f ms", req.method.c_str(), req.path.c_str(), status, ms);
  Log(line);
}

// The page's files are named by a pattern of the route, which has no '/' nor
// "..", so nothing outside the folder can be named.
void DevHost::Page(const httplib::Request& req, const RequestBody& /*body*/, httplib::Response& res) {
  const std::string name = req.path == "/" ? "index.html" : req.path.substr(1);
  const std::string type = name.size() > 4 && name.compare(name.size() - 4, 4, ".css") == 0   ? "text/css"
                           : name.size() > 3 && name.compare(name.size() - 3, 3, ".js") == 0  ? "text/javascript"
                           : name.size() > 4 && name.compare(name.size() - 4, 4, ".png") == 0 ? "image/png"
                           : name.size() > 4 && name.compare(name.size() - 4, 4, ".svg") == 0 ? "image/svg+xml"
                                                                                              : "text/html";
  std::ifstream file(pages_ + "/" + name, std::ios::binary);
  if (pages_.empty() || !file) {
    res.status = 404;
    res.set_content(
        pages_.empty() ? "This host serves no administration page: its folder was not found.\n" : "No such page.\n",
        "text/plain; charset=utf-8");
  } else {
    const std::string body((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // The page is edited while the host runs; a reload must show the edit.
    res.set_header("Cache-Control", "no-store");
    res.set_header("X-Content-Type-Options", "nosniff");
    res.set_content(body, type + (type.rfind("text/", 0) == 0 ? "; charset=utf-8" : ""));
  }
  Log(req.method + " " + req.path + ": " + std::to_string(res.status));
}

void DevHost::Device(const httplib::Request& req, const RequestBody& /*body*/, httplib::Response& res) {
  res.set_header("Cache-Control", "no-store");
  Reply(res, 200, Compact(device_));
  Log(req.method + " " + req.path + ": 200");
}

void DevHost::Other(const httplib::Request& req, const RequestBody& /*body*/, httplib::Response& res) {
  if (req.path == "/webapi/entry") return Refuse(req, res, 405, kErrBadRequest, "use GET or POST");
  Refuse(req, res, 404, kErrBadRequest, kNoSuchPath);
}

int DevHost::Bind(int port) {
  httplib::Server& s = *server_;
  s.set_payload_max_length(kMaxBody);
  s.new_task_queue = [] { return new Threads(); };
  s.set_socket_options([this](socket_t sock) {
    ListenAlone(sock);
    listener_ = sock;
  });
  // An answer goes out as two writes (head, body); with Nagle's algorithm the
  // second waits for the client's delayed acknowledgement on a kept-alive
  // connection, some 40 ms per request.
  s.set_tcp_nodelay(true);
  auto plain = [this](Route route) {
    return [this, route](const httplib::Request& req, httplib::Response& res) { Handle(route, req, nullptr, res); };
  };
  // Every method that has a body hands it to the route, which reads it: one
  // limit and one decoding for every kind (the server would decode a form
  // itself, and refuse one over 8 KiB).
  auto reading = [this](Route route) {
    return [this, route](const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader) {
      Handle(route, req, &reader, res);
    };
  };
  s.Get("/webapi/entry", plain(&DevHost::Entry));
  s.Post("/webapi/entry", reading(&DevHost::Entry));
  s.Post("/sim/(authorize|token|register)", reading(&DevHost::Browser));
  s.Get(R"(/|/[A-Za-z0-9_-]+\.(html|css|js|png|svg))", plain(&DevHost::Page));
  s.Get("/device.json", plain(&DevHost::Device));
  // Any other path, or method with a body: the body is read like any other.
  s.Post(".*", reading(&DevHost::Other));
  s.Put(".*", reading(&DevHost::Other));
  s.Patch(".*", reading(&DevHost::Other));
  s.Delete(".*", reading(&DevHost::Other));
  // Errors the server finds before a handler runs: an unknown path or
  // method, a request it cannot parse.
  s.set_error_handler([this](const httplib::Request& req, httplib::Response& res) {
    if (!res.body.empty()) return;
    const std::string foreign = Foreign(req);
    if (!foreign.empty()) return Refuse(req, res, 403, kErrForeign, foreign);
    Refuse(req, res, res.status, res.status == 413 ? kErrTooLarge : kErrBadRequest,
           res.status == 413   ? TooLarge()
           : res.status == 404 ? kNoSuchPath
                               : "malformed HTTP request");
  });
  port_ = port == 0 ? s.bind_to_any_port("127.0.0.1") : s.bind_to_port("127.0.0.1", port) ? port : -1;
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
