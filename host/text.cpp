#include "text.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cmath>
#include <memory>
#include <sstream>

namespace webapihost {

std::string Compact(const Json::Value& value) {
  // Making a writer and a stream took longer than writing a whole answer:
  // each thread keeps one of each.
  thread_local const std::unique_ptr<Json::StreamWriter> writer = [] {
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    // A duration of 0.537 ms stays 0.537, not 0.53700000000000003.
    b["precision"] = 15;
    return std::unique_ptr<Json::StreamWriter>(b.newStreamWriter());
  }();
  thread_local std::ostringstream text;
  text.str(std::string());
  text.clear();
  writer->write(value, &text);
  return text.str();
}

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

// The time since `start` for a log line, as "12.3 ms": printf's formatting
// of a double took a microsecond of every request.
std::string Since(std::chrono::steady_clock::time_point start) {
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  const long long tenths = std::llround(ms * 10);
  return std::to_string(tenths / 10) + "." + static_cast<char>('0' + tenths % 10) + " ms";
}

}  // namespace webapihost
