// Reading a request of the development host: its body, whatever its kind,
// within one limit; its fields, from the query, a form, a multipart body or a
// JSON object; a web API call from them; and the sentences that say why a
// request cannot be read, naming the field or header at fault.
#pragma once

#include <httplib.h>
#include <json/value.h>

#include <string>

#include "harness.h"

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
// A whole state document (PUT /sim/state): thousands of accounts.
constexpr size_t kMaxState = size_t{256} * 1024 * 1024;
// HTTP requests run as the interface's administrator; the module runs the
// verifier API as "root", and only root may read a verifier.
extern const char kHttpUser[];

// One web API request, as the host runs it.
struct ApiCall {
  std::string api;
  int version = 0;
  std::string method;
  Json::Value params{Json::objectValue};
  std::string user = kHttpUser;
  std::string language = "enu";
};

// A request's body, read before anything is decoded or answered.
struct RequestBody {
  std::string text;                     // as sent, unless multipart
  httplib::MultipartFormDataMap parts;  // the fields of a multipart body
  int status = 0;                       // the HTTP status of a body that cannot be taken
};

// Reads the whole body, keeping at most kMaxBody bytes of it.
void ReadBody(const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader,
              RequestBody* body, size_t most = kMaxBody);
// Every field of a request by name: query, form and multipart fields as text
// (when `typed`, a text that is JSON becomes that value), the members of a
// JSON body as they are. False with *problem naming the field or header at
// fault; the values themselves are not repeated, since one may be a password.
bool Fields(const httplib::Request& req, const RequestBody& body, bool typed, Json::Value* fields,
            std::string* problem);
// The web API call of a request to /webapi/entry; false with *problem.
bool DecodeCall(const httplib::Request& req, const RequestBody& body, ApiCall* call, std::string* problem);

// Why a request was refused, for its answer and its log line: a body over
// the limit, a body the server could not read to its end, a request line or
// headers it could not read (with the status it chose).
std::string TooLarge(const httplib::Request& req, size_t most = kMaxBody);
std::string Unread(const httplib::Request& req);
std::string Unreadable(const httplib::Request& req, int status);
bool HttpMethod(const std::string& method);
// Case-insensitive equality of ASCII texts, as header values compare.
bool SameText(const std::string& a, const std::string& b);

// An answer the host gives itself: its code and {"reason": ...}.
Answer HostError(int code, const std::string& reason);
Answer Success(const Json::Value& data);
// The HTTP status of an answer: 200 for every answer a handler gave (its
// error codes are the web API's), the host's own codes by their meaning.
int HttpStatus(const Answer& answer);

}  // namespace webapihost
