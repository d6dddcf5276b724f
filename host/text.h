// What the host and the simulated service write about what a client sent:
// JSON on one line, strict JSON parsing with a one-line error, and the
// pieces of a sentence that quote a client's text or value.
#pragma once

#include <json/value.h>

#include <chrono>
#include <string>

#include "one_line.h"

namespace webapihost {

// JSON on one line, as the host writes its answers.
std::string Compact(const Json::Value& value);
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
