// What the host and the simulated service write about what a client sent:
// JSON on one line, strict JSON parsing with a one-line error, and the
// pieces of a sentence that quote a client's text or value.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "one_line.h"

namespace webapihost {

// JSON on one line, as the host writes its answers.
std::string Compact(const Json::Value& value);
// Compact's text of `value` appended to *out.
void AppendCompact(const Json::Value& value, std::string* out);

// A JSON text written as it goes, byte for byte as Compact would write the
// same value, for a document too big to build as a Json::Value first. The
// caller gives an object's members in Compact's order: by name, as strcmp
// orders them.
class JsonText {
 public:
  explicit JsonText(std::string* out) : out_(out) {}
  JsonText& Open(char bracket);  // '{' or '['
  JsonText& Close(char bracket);
  JsonText& Key(std::string_view name);
  JsonText& String(std::string_view text);
  JsonText& Int(int64_t value);
  JsonText& Bool(bool value);
  JsonText& Value(const Json::Value& value);
  // JSON written elsewhere, as it is: a value, or an array's values with
  // their commas.
  JsonText& Raw(std::string_view json);

 private:
  void Next();
  std::string* out_;
  bool comma_ = false;  // a value was written at this level: the next one needs a ','
};
// Strict JSON: one value, nothing after it, no comments, no repeated keys.
// False with *errors on one line ("line 1, column 8: missing ...").
bool ParseJson(const std::string& text, Json::Value* value, std::string* errors);
// A text a client sent, for a sentence: on one line, and cut if long.
std::string Cut(const std::string& text);
// What a JSON value is, for a sentence: "an array", "a number"...
std::string Kind(const Json::Value& v);
// A value a client sent, for a sentence: itself if short, else its kind.
std::string Shown(const Json::Value& v);
// The time since `start` for a log line, as "12.3 ms".
std::string Since(std::chrono::steady_clock::time_point start);

}  // namespace webapihost
