#include "journal.h"

#include <httplib.h>
#include <json/reader.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <set>
#include <string_view>

#include "text.h"

namespace webapihost {
namespace {

// The most of a body an entry keeps: a journal of N entries stays within N
// times a few of these.
constexpr size_t kBodyText = size_t{16} * 1024;
// A body up to this is read to mask it; a larger one is kept by its size.
constexpr size_t kMaskedMost = size_t{64} * 1024;

bool Secret(std::string_view name) {
  static const std::set<std::string, std::less<>> kSecrets = {
      "password",      "new_password", "current_password", "auth_key",      "access_token", "token",
      "grant_code",    "code",         "code_verifier",    "verifier",      "challenge",    "password_hash",
      "authorization", "cookie",       "refresh_token",    "client_secret", "apikey"};
  return kSecrets.count(name) != 0;
}

std::string CutBody(std::string text) {
  if (text.size() <= kBodyText) return text;
  const size_t size = text.size();
  text.resize(kBodyText);
  return text + "... (" + std::to_string(size) + " bytes in all)";
}

std::string Encoded(const std::string& text) {
  static const char hex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text)
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  return out;
}

const char* StatusText(int status) {
  switch (status) {
    case 200: return "OK";
    case 201: return "Created";
    case 204: return "No Content";
    case 303: return "See Other";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 409: return "Conflict";
    case 413: return "Payload Too Large";
    case 415: return "Unsupported Media Type";
    case 416: return "Range Not Satisfiable";
    case 423: return "Locked";
    case 500: return "Internal Server Error";
    default: return "";
  }
}

Json::Value Pair(const std::string& name, const std::string& value) {
  Json::Value p(Json::objectValue);
  p["name"] = name;
  p["value"] = value;
  return p;
}

}  // namespace

const char kMasked[] = "***";

void Mask(Json::Value* value) {
  if (value->isArray()) {
    for (Json::Value& item : *value) Mask(&item);
  } else if (value->isObject()) {
    // Each member where it is: a list of the names and a lookup of each cost
    // a few allocations of every request.
    for (auto it = value->begin(); it != value->end(); ++it) {
      const char* end = nullptr;
      const char* begin = it.memberName(&end);
      const std::string_view name(begin, static_cast<size_t>(end - begin));
      Json::Value& member = *it;
      // An error's "code" is a number; a grant code is a text.
      if (Secret(name) && !member.isNull() && (name != "code" || member.isString()))
        member = kMasked;
      else
        Mask(&member);
    }
  }
}

std::string MaskedBody(const std::string& text, const std::string& contentType) {
  if (text.empty()) return "";
  Json::Value json;
  std::string problem;
  if (contentType.rfind("application/json", 0) == 0 && text.size() <= kMaskedMost && ParseJson(text, &json, &problem)) {
    Mask(&json);
    return CutBody(Compact(json));
  }
  if (contentType.rfind("application/x-www-form-urlencoded", 0) == 0 && text.size() <= kMaskedMost) {
    httplib::Params fields;
    httplib::detail::parse_query_text(text, fields);
    std::string out;
    for (const auto& f : fields)
      out += (out.empty() ? "" : "&") + Encoded(f.first) + "=" + (Secret(f.first) ? kMasked : Encoded(f.second));
    return CutBody(out);
  }
  return "(" + std::to_string(text.size()) + " bytes of " + (contentType.empty() ? "no type" : Cut(contentType)) + ")";
}

namespace {

// Whether `value`'s JSON text reads back as a value that masks and writes as
// `value` does: no NaN or infinity (written as null and 1e+9999), member
// names in ASCII (broken UTF-8 in one is written as U+FFFD, which may sort
// elsewhere or meet another), within the strict parser's depth.
bool ReadsBack(const Json::Value& value, int depth) {
  if (depth > 900) return false;
  if (value.isDouble()) return std::isfinite(value.asDouble());
  for (auto it = value.begin(); it != value.end(); ++it) {
    const char* end = nullptr;
    const char* name = it.memberName(&end);
    if (name && std::any_of(name, end, [](char c) { return static_cast<unsigned char>(c) >= 0x80; })) return false;
    if (!ReadsBack(*it, depth + 1)) return false;
  }
  return true;
}

}  // namespace

void NoteCall(const ApiCall* call, const Answer& answer, const std::vector<std::string>& bites, const std::string& body,
              Json::Value* note) {
  Json::Value& n = *note;
  if (call) {
    n["call"]["api"] = call->api;
    n["call"]["version"] = call->version;
    n["call"]["method"] = call->method;
    n["call"]["params"] = call->params;
    Mask(&n["call"]["params"]);
  }
  n["answer"]["success"] = answer.success;
  if (answer.success) {
    n["answer"]["data"] = answer.data;
  } else {
    n["answer"]["code"] = answer.code;
    n["answer"]["details"] = answer.data;
  }
  Mask(&n["answer"]);
  // The response is the answer's envelope (Envelope): masked, it is the
  // answer masked above in the envelope's members, written here rather than
  // parsed back from the response, which cost more than the rest of the
  // entry. What would not read back the same is masked from the response.
  const Json::Value& masked = n["answer"];
  if (body.size() <= kMaskedMost && ReadsBack(answer.data, 0)) {
    std::string text;
    JsonText j(&text);
    if (answer.success)
      j.Value(masked);
    else
      j.Open('{')
          .Key("error")
          .Open('{')
          .Key("code")
          .Value(masked["code"])
          .Key("details")
          .Value(masked["details"])
          .Close('}')
          .Key("success")
          .Bool(false)
          .Close('}');
    n["response_body"] = CutBody(std::move(text));
  } else {
    n["response_body"] = MaskedBody(body, "application/json");
  }
  n["conditions"] = Json::Value(Json::arrayValue);
  for (const std::string& bite : bites) n["conditions"].append(bite);
  if (!answer.found) n["reason"] = answer.data["reason"];
  if (answer.threw) n["reason"] = "the handler threw: " + answer.exception;
}

void Journal::Add(const std::function<std::string(uint64_t id)>& write) {
  std::lock_guard<std::mutex> lock(mu_);
  std::string text = write(++last_);
  if (file_) {
    text += '\n';
    (void)std::fwrite(text.data(), 1, text.size(), file_);
    (void)std::fflush(file_);
    text.pop_back();
  }
  // Written as it grew, its buffer may be twice its size: what the
  // journal keeps of N entries is their text alone.
  text.shrink_to_fit();
  entries_.push_back(Entry{last_, std::move(text)});
  while (entries_.size() > size_) entries_.pop_front();
}

std::string Journal::AfterText(uint64_t since) const {
  std::string answer = "{\"entries\":[";
  std::lock_guard<std::mutex> lock(mu_);
  bool first = true;
  for (const Entry& e : entries_)
    if (e.id > since) {
      if (!first) answer += ',';
      answer += e.text;
      first = false;
    }
  return answer + "],\"last\":" + std::to_string(last_) + "}";
}

Json::Value Journal::After(uint64_t since) const {
  // An entry is as deep as what a client sent (at most the strict parser's
  // 1000 levels) and the few levels of the entry around it.
  thread_local const std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = 1100;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
  Json::Value answer(Json::objectValue);
  answer["entries"] = Json::Value(Json::arrayValue);
  std::lock_guard<std::mutex> lock(mu_);
  for (const Entry& e : entries_)
    if (e.id > since) {
      Json::Value entry;
      reader->parse(e.text.data(), e.text.data() + e.text.size(), &entry, nullptr);
      answer["entries"].append(std::move(entry));
    }
  answer["last"] = static_cast<Json::UInt64>(last_);
  return answer;
}

void Journal::Clear() {
  std::lock_guard<std::mutex> lock(mu_);
  entries_.clear();
}

Json::Value Journal::Har(const std::string& base) const {
  Json::Value log(Json::objectValue);
  log["version"] = "1.2";
  log["creator"]["name"] = "webapi-host";
  log["creator"]["version"] = "1";
  log["entries"] = Json::Value(Json::arrayValue);
  const Json::Value all = After(0)["entries"];
  for (const Json::Value& e : all) {
    Json::Value h(Json::objectValue);
    h["startedDateTime"] = e["time"];
    h["time"] = e["duration_ms"];
    Json::Value& rq = h["request"];
    rq["method"] = e["method"];
    std::string query;
    rq["queryString"] = Json::Value(Json::arrayValue);
    for (const std::string& name : e["query"].getMemberNames()) {
      rq["queryString"].append(Pair(name, e["query"][name].asString()));
      query += (query.empty() ? "?" : "&") + Encoded(name) + "=" + Encoded(e["query"][name].asString());
    }
    std::string url = base;
    url += e["path"].asString();
    url += query;
    rq["url"] = url;
    rq["httpVersion"] = "HTTP/1.1";
    rq["headers"] = Json::Value(Json::arrayValue);
    rq["cookies"] = Json::Value(Json::arrayValue);
    rq["headersSize"] = -1;
    rq["bodySize"] = e["request_size"];
    if (e.isMember("request_body")) {
      rq["headers"].append(Pair("Content-Type", e["request_type"].asString()));
      rq["postData"]["mimeType"] = e["request_type"];
      rq["postData"]["text"] = e["request_body"];
    }
    Json::Value& rs = h["response"];
    rs["status"] = e["status"];
    rs["statusText"] = StatusText(e["status"].asInt());
    rs["httpVersion"] = "HTTP/1.1";
    rs["headers"] = Json::Value(Json::arrayValue);
    rs["headers"].append(Pair("Content-Type", e["response_type"].asString()));
    rs["cookies"] = Json::Value(Json::arrayValue);
    rs["content"]["size"] = e["response_size"];
    rs["content"]["mimeType"] = e["response_type"];
    rs["content"]["text"] = e["response_body"];
    rs["redirectURL"] = e.get("location", "").asString();
    rs["headersSize"] = -1;
    rs["bodySize"] = e["response_size"];
    h["cache"] = Json::Value(Json::objectValue);
    h["timings"]["send"] = 0;
    h["timings"]["wait"] = e["duration_ms"];
    h["timings"]["receive"] = 0;
    h["_id"] = e["id"];
    log["entries"].append(h);
  }
  Json::Value har(Json::objectValue);
  har["log"] = log;
  return har;
}

}  // namespace webapihost
