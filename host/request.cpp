#include "request.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <map>

#include "text.h"

namespace webapihost {

const char kHttpUser[] = "admin";

bool SameText(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
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

namespace {

// A multipart part's delimiter and headers count as this many bytes, fewer
// than they take (so a body within the limit stays within it), and enough
// that parts with nothing in them cannot grow the map without end.
constexpr size_t kPartOverhead = 32;

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

}  // namespace

// Reads the whole body before any answer, a refusal too: what is left of it
// on a kept-alive connection would be taken for the next request, and a page
// of another site could write that request. At most kMaxBody bytes are kept.
// The server itself refuses and skips a Content-Length over that; the rest of
// a chunked or compressed body is read and dropped here.
void ReadBody(const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader,
              RequestBody* body, size_t most) {
  // Without a length or a chunked encoding a request has no body; the server
  // would wait for the connection to close.
  if (!req.has_header("Content-Length") && !req.has_header("Transfer-Encoding")) return;
  size_t size = 0;
  auto keep = [&size, most](size_t n) {
    size += n;
    return size <= most;
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
  // A multipart body is counted by its parts, a little under its bytes: its
  // length, when it has one, decides.
  const size_t declared = std::strtoull(req.get_header_value("Content-Length").c_str(), nullptr, 10);
  body->status = !read ? (res.status > 0 ? res.status : 400) : size > most || declared > most ? 413 : 0;
}

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

bool DecodeCall(const httplib::Request& req, const RequestBody& body, ApiCall* call, std::string* problem) {
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

std::string TooLarge(const httplib::Request& req, size_t most) {
  const std::string limit =
      std::to_string(most) + " bytes (" +
      (most >= (size_t{1} << 20) ? std::to_string(most >> 20) + " MiB" : std::to_string(most >> 10) + " KiB") +
      "), the most the host takes" + (most == kMaxBody ? "" : " at " + req.path);
  const std::string length = req.get_header_value("Content-Length");
  if (!length.empty() && std::strtoull(length.c_str(), nullptr, 10) > most)
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

}  // namespace webapihost
