// The development host's routes over its whole state and its journal:
// GET and PUT /sim/state, POST /sim/reset, GET and DELETE /sim/journal[.har].
#include <cinttypes>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <regex>
#include <string_view>
#include <utility>
#include <vector>

#include "devhost.h"
#include "simulation.h"
#include "snapshot.h"
#include "text.h"

namespace webapihost {
namespace {

// "2026-11-25T06:33:03.123Z"
std::string Iso(std::chrono::system_clock::time_point t) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
  const time_t seconds = static_cast<time_t>(ms / 1000);
  struct tm tm {};
  gmtime_r(&seconds, &tm);
  char text[40];
  const size_t n = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &tm);
  (void)std::snprintf(text + n, sizeof(text) - n, ".%03dZ", static_cast<int>(ms % 1000));
  return text;
}

}  // namespace

void DevHost::Replace(const Exchange& x, const Json::Value& document, Json::Value answer) {
  // Every web API request waits meanwhile: none sees half of one state and
  // half of the other, and none binds an account the new state lacks.
  std::lock_guard<std::mutex> binding(binding_);
  std::unique_lock<std::shared_mutex> alone(identity_);
  std::lock_guard<std::mutex> lock(stateMu_);
  std::string error;
  const Imported done = ImportState(state_, *simulation_, document, &error);
  if (done == Imported::kRefused) return x.Refuse(400, kErrBadRequest, "the state document is refused: " + error);
  if (done == Imported::kFailed) return x.Refuse(500, kErrUnknown, error);
  device_["serial"] = state_->serial;
  device_["model"] = state_->model;
  device_["build"] = state_->build;
  answer["serial"] = state_->serial;
  x.res.set_header("Cache-Control", "no-store");
  x.Json(200, Compact(answer));
  x.Log(x.req.method + " " + x.req.path + ": 200 (device " + state_->serial + ")");
}

void DevHost::State(const Exchange& x) {
  if (!state_ || !simulation_) return x.Refuse(404, kErrBadRequest, "this host keeps no state folder");
  if (x.req.method == "PUT") {
    Json::Value document;
    std::string problem;
    if (x.body.text.empty())
      return x.Refuse(400, kErrBadRequest, "the body is empty: send a whole state document, as GET /sim/state answers");
    if (!ParseJson(x.body.text, &document, &problem))
      return x.Refuse(400, kErrBadRequest, "the state document is not JSON: " + problem);
    Json::Value answer(Json::objectValue);
    answer["replaced"] = true;
    return Replace(x, document, answer);
  }
  std::string document, error;
  std::unique_lock<std::mutex> lock(stateMu_);
  if (!ExportState(*state_, *simulation_, &document, &error)) return x.Refuse(500, kErrUnknown, error);
  lock.unlock();
  x.res.set_header("Cache-Control", "no-store");
  x.Json(200, std::move(document));
  x.Log(x.req.method + " " + x.req.path + ": 200");
}

void DevHost::Reset(const Exchange& x) {
  if (!state_ || !simulation_) return x.Refuse(404, kErrBadRequest, "this host keeps no state folder");
  Json::Value asked(Json::objectValue);
  std::string problem;
  if (!x.body.text.empty() && !ParseJson(x.body.text, &asked, &problem))
    return x.Refuse(400, kErrBadRequest, "the body is not JSON: " + problem);
  if (!asked.isObject() || (asked.size() == 1 && !asked.isMember("serial")) || asked.size() > 1 ||
      (asked.isMember("serial") && asked["serial"] != "new" && asked["serial"] != "keep"))
    return x.Refuse(400, kErrBadRequest,
                    "the body is " + Shown(asked) +
                        ": send nothing to keep the serial number, or {\"serial\":\"new\"} for a new one");
  std::string serial;
  {
    std::lock_guard<std::mutex> lock(stateMu_);
    serial = asked["serial"] == "new" ? NewSerial() : state_->serial;
  }
  Json::Value answer(Json::objectValue);
  answer["reset"] = true;
  Replace(x, FreshDocument(serial), answer);
}

void DevHost::Journaled(const Exchange& x) {
  if (!journal_) return x.Refuse(404, kErrBadRequest, "this host keeps no journal");
  x.res.set_header("Cache-Control", "no-store");
  if (x.req.method == "DELETE") {
    journal_->Clear();
    x.Json(200, "{\"cleared\":true}");
  } else if (x.req.path == "/sim/journal.har") {
    x.Json(200, Compact(journal_->Har("http://127.0.0.1:" + std::to_string(port_))));
  } else {
    const std::string since = x.req.get_param_value("since");
    char* end = nullptr;
    errno = 0;
    const unsigned long long after = std::strtoull(since.c_str(), &end, 10);
    if (!since.empty() && (*end || errno || since[0] == '-'))
      return x.Refuse(400, kErrBadRequest,
                      "\"since\" is \"" + Cut(since) + "\": give the id of an entry, as \"last\" of an answer");
    x.Json(200, journal_->AfterText(after));
  }
  x.Log(x.req.method + " " + x.req.path + ": 200");
}

void DevHost::Record(const httplib::Request& req, const RequestBody& body, const httplib::Response& res,
                     Json::Value note, std::chrono::system_clock::time_point started,
                     std::chrono::steady_clock::time_point start) {
  // Polling the journal would fill it with itself.
  if (!journal_ || req.path.rfind("/sim/journal", 0) == 0) return;
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  // The entry is written as text, members by name: a tree of values made,
  // written and dropped on every request took more than answering a query.
  // Its own members' values, each as JSON, by name ("id" is the journal's):
  std::vector<std::pair<const char*, std::string>> own;
  auto text = [&own](const char* name, std::string_view value) {
    std::string quoted;
    JsonText(&quoted).String(value);
    own.emplace_back(name, std::move(quoted));
  };
  own.emplace_back("duration_ms", Compact(Json::Value(std::round(ms * 1000) / 1000)));
  own.emplace_back("id", "");  // the journal's number, below
  if (res.has_header("Location"))
    text("location", std::regex_replace(res.get_header_value("Location"), std::regex("([?&]code=)[^&]*"),
                                        std::string("$1") + kMasked));
  text("method", HttpMethod(req.method) ? req.method : "-");
  text("path", req.path.empty() ? "-" : req.path);
  Json::Value query(Json::objectValue);
  for (const auto& p : req.params) query[p.first] = p.second;
  Mask(&query);
  own.emplace_back("query", Compact(query));
  std::string type = req.get_header_value("Content-Type");
  if (!body.parts.empty()) {
    Json::Value parts(Json::objectValue);
    for (const auto& p : body.parts) parts[p.first] = p.second.content;
    Mask(&parts);
    text("request_body", Compact(parts));
    type = "application/json";
  } else if (!body.text.empty()) {
    text("request_body", MaskedBody(body.text, type));
  }
  own.emplace_back("request_size", std::to_string(body.text.size()));
  text("request_type", type);
  const std::string responseType = res.get_header_value("Content-Type");
  // A web API answer's route noted it already (NoteCall).
  if (!note.isMember("response_body")) text("response_body", MaskedBody(res.body, responseType));
  own.emplace_back("response_size", std::to_string(res.body.size()));
  text("response_type", responseType);
  own.emplace_back("status", std::to_string(res.status));
  text("time", Iso(started));
  journal_->Add([&](uint64_t id) {
    // The route's notes among them, in one order; one of the same name is
    // the entry's own.
    std::string entry;
    JsonText j(&entry);
    j.Open('{');
    auto noted = note.begin();
    auto name = [&noted] {
      const char* end = nullptr;
      const char* begin = noted.memberName(&end);
      return std::string_view(begin, static_cast<size_t>(end - begin));
    };
    for (const auto& member : own) {
      for (; noted != note.end() && name() <= member.first; ++noted)
        if (name() != member.first) j.Key(name()).Value(*noted);
      j.Key(member.first).Raw(std::strcmp(member.first, "id") == 0 ? std::to_string(id) : member.second);
    }
    for (; noted != note.end(); ++noted) j.Key(name()).Value(*noted);
    j.Close('}');
    return entry;
  });
}

}  // namespace webapihost
