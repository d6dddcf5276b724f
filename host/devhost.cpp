#include "devhost.h"

#include <httplib.h>
#include <json/reader.h>
#include <openssl/rand.h>

#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>

#include "conditions.h"
#include "one_line.h"
#include "sim_pages.h"
#include "threads.h"

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
  // Without a length or a chunked encoding a request has no body; the server
  // would wait for the connection to close.
  if (!req.has_header("Content-Length") && !req.has_header("Transfer-Encoding")) return;
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

}  // namespace

// A text a client sent, for a sentence: on one line, and cut if long.
std::string Cut(const std::string& text) {
  const std::string line = OneLine(text);
  return line.size() <= 64 ? line : line.substr(0, 60) + "...";
}

// Strict JSON: one value, nothing after it, no comments, no repeated keys.
bool ParseJson(const std::string& text, Json::Value* value, std::string* errors) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["strictRoot"] = false;  // a field may be true, null or "text"
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string found;
  if (reader->parse(text.data(), text.data() + text.size(), value, &found)) return true;
  // The parser writes each error on two lines, "* Line 1, Column 8" and
  // "  Missing ',' or '}' in object declaration", and maybe a third, "See
  // Line 1, Column 1 for detail."; an answer and a log line take one:
  // "line 1, column 8: missing ',' or '}' in object declaration".
  std::istringstream lines(found);
  errors->clear();
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("* Line ", 0) == 0) {
      const size_t column = line.find(", Column ");
      if (column != std::string::npos) line.replace(column, 9, ", column ");
      *errors += (errors->empty() ? "line " : "; line ") + line.substr(7) + ":";
    } else if (line.rfind("  ", 0) == 0 && line.size() > 2) {
      line = line.substr(2);
      if (line.back() == '.') line.pop_back();
      line[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(line[0])));
      *errors += " " + line;
    }
  }
  return false;
}

namespace {

// A field's text as a parameter: JSON for an object, an array, a quoted
// string, true, false or null; the text itself otherwise, so that a password
// or a key made of digits stays a string. `errors`: why such a text is not
// JSON.
bool FieldValue(const std::string& text, Json::Value* value, std::string* errors) {
  if (text == "true" || text == "false" || text == "null" ||
      (!text.empty() && (text[0] == '{' || text[0] == '[' || text[0] == '"')))
    return ParseJson(text, value, errors);
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

const char kFieldTypes[] =
    "send the fields as application/x-www-form-urlencoded, multipart/form-data or application/json";

}  // namespace

// What a JSON value is, for a sentence: "an array", "a number"...
std::string Kind(const Json::Value& v) {
  return v.isObject()    ? "an object"
         : v.isArray()   ? "an array"
         : v.isString()  ? "a string"
         : v.isNumeric() ? "a number"
                         : Compact(v);
}

// A value a client sent, for a sentence: itself if short, else its kind.
std::string Shown(const Json::Value& v) {
  const std::string text = Compact(v);
  return text.size() <= 40 ? text : Kind(v);
}

namespace {

// Every field of a request by name: query, form and multipart fields as text
// (see FieldValue when `typed`), the members of a JSON body as they are. A
// name given twice, a field that looks like JSON but is not, or a body that is
// neither form fields nor a JSON object makes it malformed; `problem` names
// the field or header at fault. The values themselves are not repeated: one
// may be a password.
bool Fields(const httplib::Request& req, const RequestBody& body, bool typed, Json::Value* fields,
            std::string* problem) {
  *fields = Json::Value(Json::objectValue);
  std::map<std::string, const char*> from;  // where each field was found
  auto add = [&](const std::string& name, const Json::Value& value, const char* where) {
    auto found = from.emplace(name, where);
    if (!found.second) {
      const std::string first = found.first->second;
      *problem = "\"" + name + "\" is given twice" +
                 (first == where ? " in " + first : ", in " + first + " and in " + std::string(where)) +
                 ": give it once";
      return false;
    }
    (*fields)[name] = value;
    return true;
  };
  auto text = [&](const std::string& name, const std::string& value, const char* where) {
    Json::Value typedValue(value);
    std::string errors;
    if (typed && !FieldValue(value, &typedValue, &errors)) {
      *problem = "\"" + name + "\" starts like JSON but is not JSON (" + errors +
                 "); quote a text that starts with {, [ or \" as a JSON string";
      return false;
    }
    return add(name, typedValue, where);
  };
  const std::string type = req.get_header_value("Content-Type");
  const bool form = type.rfind("application/x-www-form-urlencoded", 0) == 0;
  const bool json = type.find("application/json") != std::string::npos;
  httplib::Params formFields;
  if (form) httplib::detail::parse_query_text(body.text, formFields);
  for (const auto& kv : req.params)
    if (!text(kv.first, kv.second, "the query")) return false;
  for (const auto& kv : formFields)
    if (!text(kv.first, kv.second, "the form body")) return false;
  for (const auto& kv : body.parts)
    if (!text(kv.first, kv.second.content, "the multipart body")) return false;
  if (json) {
    Json::Value members;
    std::string errors;
    if (body.text.empty()) {
      *problem = "the body is empty, and Content-Type \"" + Cut(type) + "\" calls for a JSON object";
      return false;
    }
    if (!ParseJson(body.text, &members, &errors)) {
      *problem = "the body is not a JSON object: " + errors;
      return false;
    }
    if (!members.isObject()) {
      *problem = "the body is not a JSON object but " + Kind(members);
      return false;
    }
    for (const std::string& name : members.getMemberNames())
      if (!add(name, members[name], "the JSON body")) return false;
  } else if (!body.text.empty() && !form) {
    *problem = (type.empty() ? "the body has no Content-Type"
                             : "Content-Type \"" + Cut(type) + "\" is neither a form nor JSON") +
               ": " + kFieldTypes;
    return false;
  }
  return true;
}

// Why a field that names something (the API, the method) cannot be used;
// empty when it can.
std::string Name(const Json::Value& fields, const char* field, const char* what, const char* example) {
  const Json::Value& v = fields[field];
  if (!fields.isMember(field))
    return "\"" + std::string(field) + "\" is missing: name " + what + ", as in " + field + "=" + example;
  if (!v.isString() || v.asString().empty())
    return "\"" + std::string(field) + "\" must be the name of " + what + ", not " + Shown(v);
  return "";
}

bool Decode(const httplib::Request& req, const RequestBody& body, Call* call, std::string* problem) {
  Json::Value fields;
  if (!Fields(req, body, true, &fields, problem)) return false;
  *problem = Name(fields, "api", "a web API", "TALV.Core.PellixCenter");
  if (!problem->empty()) return false;
  if (!fields.isMember("version")) {
    *problem = "\"version\" is missing: give the API's version, as in version=2";
    return false;
  }
  const Json::Value& version = fields["version"];
  if (!Version(version, &call->version)) {
    *problem = "\"version\" must be an integer, not " + Shown(version);
    return false;
  }
  *problem = Name(fields, "method", "a method of the API", "query");
  if (!problem->empty()) return false;
  call->api = fields["api"].asString();
  call->method = fields["method"].asString();
  for (const char* name : {"api", "version", "method"}) fields.removeMember(name);
  call->params = std::move(fields);
  return true;
}

void Reply(httplib::Response& res, int status, const std::string& body) {
  res.status = status;
  res.set_content(body + "\n", "application/json");
}

// Serves an HTML page; the pages hold no script, load nothing and post
// their forms only to this host.
void ReplyPage(httplib::Response& res, int status, const std::string& page) {
  res.status = status;
  res.set_header("Cache-Control", "no-store");
  res.set_header("X-Content-Type-Options", "nosniff");
  res.set_header("Content-Security-Policy",
                 "default-src 'none'; style-src 'unsafe-inline'; form-action 'self'; frame-ancestors 'self'");
  res.set_content(page, "text/html; charset=utf-8");
}

// The host's paths and the methods each takes (HEAD with GET), for a request
// that no route of Bind took: a method a path does not take is answered 405,
// any other path is not found.
const char kPageFiles[] = R"(/|/[A-Za-z0-9_-]+\.(html|css|js|png|svg))";
const char kSimPages[] = "/sim/authorize|/sim/account|/sim/(login|register)/done";
struct Methods {
  const char* paths;
  const char* allow;  // the Allow header
  const char* takes;  // in a sentence
};
const Methods kMethods[] = {
    {"/webapi/entry|/sim/authorize", "GET, HEAD, POST", "GET or POST"},
    {"/sim/(token|register)", "POST", "POST"},
    {kSimPages, "GET, HEAD", "GET"},
    {kPageFiles, "GET, HEAD", "GET"},
    {"/device.json", "GET, HEAD", "GET"},
    {"/sim/conditions", "GET, HEAD, POST, DELETE", "GET, POST or DELETE"},
    {"/sim/conditions/[^/]*", "DELETE", "DELETE"},
};

std::string TooLarge(const httplib::Request& req) {
  const std::string limit = std::to_string(kMaxBody) + " bytes (64 KiB), the most the host takes";
  const std::string length = req.get_header_value("Content-Length");
  if (!length.empty() && std::strtoull(length.c_str(), nullptr, 10) > kMaxBody)
    return "Content-Length " + Cut(length) + " is over " + limit;
  return "the body is larger than " + limit;
}

// Why the server could not read a body to its end.
std::string Unread(const httplib::Request& req) {
  const std::string type = req.get_header_value("Content-Type");
  const std::string encoding = req.get_header_value("Content-Encoding");
  if (req.is_multipart_form_data() && type.find("boundary=") == std::string::npos)
    return "Content-Type \"" + Cut(type) + "\" has no boundary: send multipart/form-data; boundary=...";
  if (!encoding.empty() && !SameText(encoding, "identity"))
    return "the body cannot be decoded as its Content-Encoding \"" + Cut(encoding) + "\" says";
  if (req.is_multipart_form_data()) return "the multipart body is broken, or ends before its closing boundary";
  if (SameText(req.get_header_value("Transfer-Encoding"), "chunked"))
    return "the chunked body is broken, or ends before its last chunk";
  if (req.has_header("Content-Length"))
    return "the body ends before its Content-Length of " + Cut(req.get_header_value("Content-Length")) + " bytes";
  return "the body cannot be read";
}

// The time since `start` for a log line, as "12.3 ms": printf's formatting
// of a double took a microsecond of every request.
std::string Since(std::chrono::steady_clock::time_point start) {
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  const long long tenths = std::llround(ms * 10);
  return std::to_string(tenths / 10) + "." + static_cast<char>('0' + tenths % 10) + " ms";
}

const char* const kHttpMethods[] = {"GET", "HEAD", "POST", "PUT", "DELETE", "CONNECT", "OPTIONS", "TRACE", "PATCH"};

bool HttpMethod(const std::string& method) {
  return std::find(std::begin(kHttpMethods), std::end(kHttpMethods), method) != std::end(kHttpMethods);
}

// Why the server could not read the request line or the headers. It stops
// at the first fault, and `req` holds what it had read by then.
std::string Unreadable(const httplib::Request& req, int status) {
  if (status == 414) return "the request line is longer than 8192 bytes: send long fields in a POST body";
  if (req.method.empty() || req.version.empty())
    return "the request line cannot be read: it must be METHOD /path HTTP/1.1, ending in CR LF";
  if (!HttpMethod(req.method)) return "\"" + Cut(req.method) + "\" is not an HTTP method the host knows";
  if (req.version != "HTTP/1.1" && req.version != "HTTP/1.0")
    return "the HTTP version \"" + Cut(req.version) + "\" is not one the host speaks: use HTTP/1.1";
  if (std::count(req.target.begin(), req.target.end(), '?') > 1)
    return "the request target has more than one \"?\": write a \"?\" within a field as %3F";
  return "a header cannot be read: a line of it is over 8192 bytes, or the headers end early";
}

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
  if (user != "root")
    return HostError(kErrForbidden,
                     "only root may read a verifier, and HTTP requests run as " + std::string(kHttpUser));
  const Json::Value& challenge = params["challenge"];
  if (!params.isMember("challenge"))
    return HostError(kErrBadRequest, "\"challenge\" is missing: give the challenge that create answered");
  if (!challenge.isString())
    return HostError(kErrBadRequest, "\"challenge\" must be a string, not " + Shown(challenge));
  std::lock_guard<std::mutex> lock(mu_);
  auto it = byChallenge_.find(challenge.asString());
  if (it == byChallenge_.end() || it->second.second <= std::chrono::steady_clock::now()) {
    Answer a = HostError(kErrNoVerifier,
                         "no verifier for this \"challenge\": create did not make it, or it is over ten minutes old");
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

Answer DevHost::Dispatch(const Call& call) {
  const RequestUnderWay running(call.api, call.version, call.method);
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

// A line a request, out before the request is answered. One fwrite a line:
// the stream's own lock keeps it whole beside the lines of other threads
// and of the system-log capture.
void DevHost::Log(const std::string& line) {
  if (!log_) return;
  std::string text = OneLine(line);
  text += '\n';
  (void)std::fwrite(text.data(), 1, text.size(), log_);
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
  // A request line the server could not read leaves no method or path, or
  // one that is not: the reason says what there was.
  Log((HttpMethod(req.method) ? req.method : "-") + " " + (req.path.empty() ? "-" : Cut(req.path)) + ": " +
      std::to_string(status) + " code " + std::to_string(code) + " (" + reason + ")");
}

void DevHost::Unrouted(const httplib::Request& req, httplib::Response& res) {
  const std::string foreign = Foreign(req);
  if (!foreign.empty()) return Refuse(req, res, 403, kErrForeign, foreign);
  // The server adds REMOTE_ADDR once it has read the request line and the
  // headers.
  if (!req.has_header("REMOTE_ADDR")) return Refuse(req, res, res.status, kErrBadRequest, Unreadable(req, res.status));
  if (res.status == 413) return Refuse(req, res, 413, kErrTooLarge, TooLarge(req));
  if (res.status == 416)
    return Refuse(
        req, res, 416, kErrBadRequest,
        "Range \"" + Cut(req.get_header_value("Range")) + "\" cannot be read: leave it out for the whole answer");
  // 404: no route for the path and method; 400: a method no route takes
  // (CONNECT, TRACE).
  if (res.status == 404 || res.status == 400) return Other(req, RequestBody(), res);
  Refuse(req, res, res.status, kErrBadRequest,
         "the HTTP server refused the request with status " + std::to_string(res.status));
}

void DevHost::Handle(Route route, const httplib::Request& req, const httplib::ContentReader* reader,
                     httplib::Response& res) {
  const UnderWay underWay(&underWay_);
  RequestBody body;
  if (reader) ReadBody(req, res, *reader, &body);
  const std::string foreign = Foreign(req);
  if (!foreign.empty()) return Refuse(req, res, 403, kErrForeign, foreign);
  if (body.status == 413) return Refuse(req, res, 413, kErrTooLarge, TooLarge(req));
  if (body.status) return Refuse(req, res, body.status, kErrBadRequest, Unread(req));
  (this->*route)(req, body, res);
}

void DevHost::Entry(const httplib::Request& req, const RequestBody& body, httplib::Response& res) {
  const auto start = std::chrono::steady_clock::now();
  Call call;
  call.language = language_;
  std::string problem;
  const bool decoded = Decode(req, body, &call, &problem);
  Answer answer = decoded ? Dispatch(call) : HostError(kErrBadRequest, problem);
  const int status = HttpStatus(answer);
  Reply(res, status, Envelope(answer));
  const std::string outcome = answer.success ? "success" : "code " + std::to_string(answer.code);
  // A call by what it calls; one that cannot be decoded by its path.
  std::string text =
      req.method + " " +
      (decoded ? Cut(call.api) + " " + std::to_string(call.version) + " " + Cut(call.method) : req.path) + ": " +
      std::to_string(status) + " " + outcome + ", " + Since(start);
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
    Log(req.method + " " + req.path + ": 400 (" + problem + ")");
    return;
  }
  auto text = [&](const char* name, const std::string& fallback = "") {
    return fields[name].isString() ? fields[name].asString() : fallback;
  };
  const Json::Value login = service_->PkceConfig("login");
  // A sign-in from the service's sign-in page (SimPage) goes on as a page: to
  // the redirect target with the grant code, or back to the form.
  const bool signInPage = req.path == "/sim/authorize" && req.get_header_value("Sec-Fetch-Mode") == "navigate";
  std::string code;
  const std::string redirect = text("redirect_uri", login["redirect_uri"].asString());
  if (req.path == "/sim/authorize") {
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
  std::string wrong;
  if (error != pellixsim::kOk) {
    answer = Json::Value(Json::objectValue);
    answer["account_error"] = error;
    wrong = error == pellixsim::kBadAuth    ? "wrong e-mail address or password"
            : error == pellixsim::kBadParam ? "missing or malformed field"
            : error == pellixsim::kInUse    ? "the e-mail address is taken"
                                            : "the service failed";
    answer["error"] = wrong;
    status = error == pellixsim::kBadAuth    ? 401
             : error == pellixsim::kBadParam ? 400
             : error == pellixsim::kInUse    ? 409
                                             : 500;
  }
  // The redirect goes by path, so the browser stays on the name it used for
  // the host; a redirect URI elsewhere gets the answer as it is.
  const std::string own = service_->options().baseUrl + "/sim/";
  if (signInPage && error != pellixsim::kOk) {
    ReplyPage(res, status, SignInPage(fields, login, "The sign-in failed: " + wrong + "."));
  } else if (signInPage && redirect.rfind(own, 0) == 0) {
    status = 303;
    res.status = status;
    const std::string path = redirect.substr(service_->options().baseUrl.size());
    res.set_header("Location", path + (path.find('?') == std::string::npos ? "?code=" : "&code=") + code);
  } else {
    Reply(res, status, Compact(answer));
  }
  Log(req.method + " " + req.path + ": " + std::to_string(status) + ", " + Since(start) +
      (wrong.empty() ? "" : " (" + wrong + ")"));
}

// The account service's pages that its links lead to (sim_pages.h).
void DevHost::SimPage(const httplib::Request& req, const RequestBody& body, httplib::Response& res) {
  Json::Value fields;
  std::string problem;
  if (!Fields(req, body, false, &fields, &problem)) return Refuse(req, res, 400, kErrBadRequest, problem);
  if (req.path == "/sim/authorize") {
    ReplyPage(res, 200, SignInPage(fields, service_->PkceConfig("login"), ""));
  } else if (req.path == "/sim/account") {
    Json::Value info;
    const uint32_t error = service_->Query(device_["serial"].asString(), &info);
    if (error != pellixsim::kOk && error != pellixsim::kNotSignedIn)
      return Refuse(req, res, 500, kErrUnknown, "the account service cannot read the device's account");
    ReplyPage(res, 200, AccountPage(error == pellixsim::kOk ? info : Json::Value()));
  } else {
    const std::string flow = req.path == "/sim/register/done" ? "register" : "login";
    ReplyPage(res, 200, DonePage(flow, service_->PkceConfig(flow), fields, service_->options().grantLifetime));
  }
  Log(req.method + " " + req.path + ": 200");
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
  Log(req.method + " " + req.path + ": " + std::to_string(res.status) + (wrong.empty() ? "" : " (" + wrong + ")"));
}

void DevHost::Device(const httplib::Request& req, const RequestBody& /*body*/, httplib::Response& res) {
  res.set_header("Cache-Control", "no-store");
  Reply(res, 200, Compact(device_));
  Log(req.method + " " + req.path + ": 200");
}

// The account service's conditions (conditions.h): GET lists them, POST sets
// one and answers 201 with its id, DELETE clears one or all.
void DevHost::SimConditions(const httplib::Request& req, const RequestBody& body, httplib::Response& res) {
  if (!conditions_)
    return Refuse(req, res, 404, kErrBadRequest, "this host keeps no conditions of the account service");
  Json::Value answer(Json::objectValue);
  int status = 200;
  if (req.method == "POST") {
    const std::string type = req.get_header_value("Content-Type");
    if (type.rfind("application/json", 0) != 0)
      return Refuse(
          req, res, 415, kErrBadRequest,
          (type.empty() ? std::string("the body has no Content-Type") : "Content-Type \"" + Cut(type) + "\"") +
              ": send the condition as a JSON object, with Content-Type application/json");
    Json::Value condition;
    std::string problem;
    if (body.text.empty())
      return Refuse(req, res, 400, kErrBadRequest, "the body is empty: send one condition, a JSON object");
    if (!ParseJson(body.text, &condition, &problem))
      return Refuse(req, res, 400, kErrBadRequest, "the body is not JSON: " + problem);
    const std::vector<int> ids = conditions_->Set(condition, false, &problem);
    if (ids.empty()) return Refuse(req, res, 400, kErrBadRequest, problem);
    status = 201;
    answer["id"] = ids[0];
    res.set_header("Location", "/sim/conditions/" + std::to_string(ids[0]));
  } else if (req.method == "DELETE") {
    std::vector<int> ids;
    if (req.path == "/sim/conditions") {
      ids = conditions_->ClearAll();
    } else {
      const std::string id = req.path.substr(std::strlen("/sim/conditions/"));
      char* end = nullptr;
      const long n = std::strtol(id.c_str(), &end, 10);
      if (id.empty() || *end || n <= 0 || n > INT_MAX || !conditions_->Clear(static_cast<int>(n)))
        return Refuse(req, res, 404, kErrBadRequest,
                      "no condition \"" + Cut(id) + "\" is in force: GET /sim/conditions lists those that are");
      ids.push_back(static_cast<int>(n));
    }
    answer["cleared"] = Json::Value(Json::arrayValue);
    for (int id : ids) answer["cleared"].append(id);
  } else {
    answer = conditions_->List();
  }
  res.set_header("Cache-Control", "no-store");
  Reply(res, status, Compact(answer));
  Log(req.method + " " + req.path + ": " + std::to_string(status));
}

// A path no route takes with this method: 405 naming the methods the path
// takes, or 404.
void DevHost::Other(const httplib::Request& req, const RequestBody& /*body*/, httplib::Response& res) {
  for (const Methods& m : kMethods)
    if (std::regex_match(req.path, std::regex(m.paths))) {
      res.set_header("Allow", m.allow);
      return Refuse(req, res, 405, kErrBadRequest, req.path + " takes " + m.takes + ", not " + req.method);
    }
  Refuse(req, res, 404, kErrBadRequest,
         "no such path \"" + Cut(req.path) + "\": the web API is at /webapi/entry" +
             (pages_.empty() ? "" : ", the administration page at /"));
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
  s.Get(kSimPages, plain(&DevHost::SimPage));
  s.Get(kPageFiles, plain(&DevHost::Page));
  s.Get("/device.json", plain(&DevHost::Device));
  s.Get("/sim/conditions", plain(&DevHost::SimConditions));
  s.Post("/sim/conditions", reading(&DevHost::SimConditions));
  s.Delete("/sim/conditions(/[^/]*)?", reading(&DevHost::SimConditions));
  // Any other path, or method with a body: the body is read like any other.
  s.Post(".*", reading(&DevHost::Other));
  s.Put(".*", reading(&DevHost::Other));
  s.Patch(".*", reading(&DevHost::Other));
  s.Delete(".*", reading(&DevHost::Other));
  // Errors the server finds before a handler runs: an unknown path or
  // method, a request it cannot parse. An answer of a route has its body.
  s.set_error_handler([this](const httplib::Request& req, httplib::Response& res) {
    if (res.body.empty()) Unrouted(req, res);
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
