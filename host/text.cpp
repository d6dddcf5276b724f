#include "text.h"

#include <json/reader.h>
#include <json/writer.h>

#include <charconv>
#include <cmath>
#include <memory>
#include <sstream>

namespace webapihost {

namespace {

// JsonCpp's own writer, as Compact wrote everything once: it now writes only
// the texts beyond ASCII (Quoted).
std::string LibraryCompact(const Json::Value& value) {
  // Making a writer and a stream took longer than writing a whole answer:
  // each thread keeps one of each.
  thread_local const std::unique_ptr<Json::StreamWriter> writer = [] {
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    return std::unique_ptr<Json::StreamWriter>(b.newStreamWriter());
  }();
  thread_local std::ostringstream text;
  text.str(std::string());
  text.clear();
  writer->write(value, &text);
  return text.str();
}

// A text quoted as JsonCpp's writer quotes it: '"', '\\' and the control
// characters escaped, the rest of ASCII as it is. A text with a byte beyond
// ASCII goes to the library whole: it writes each code point as \uXXXX, and
// broken UTF-8 its own way. Such texts are few; a text with quotes is every
// journal entry's.
void Quoted(std::string_view text, std::string* out) {
  static const char kHex[] = "0123456789abcdef";
  const size_t start = out->size();
  out->push_back('"');
  size_t plain = 0;  // where the text not yet copied begins
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x80 && c != '"' && c != '\\') continue;
    if (c >= 0x80) {
      out->resize(start);
      out->append(LibraryCompact(Json::Value(text.data(), text.data() + text.size())));
      return;
    }
    out->append(text, plain, i - plain);
    plain = i + 1;
    switch (c) {
      case '"': out->append("\\\""); break;
      case '\\': out->append("\\\\"); break;
      case '\b': out->append("\\b"); break;
      case '\f': out->append("\\f"); break;
      case '\n': out->append("\\n"); break;
      case '\r': out->append("\\r"); break;
      case '\t': out->append("\\t"); break;
      default:
        out->append("\\u00");
        out->push_back(kHex[c >> 4]);
        out->push_back(kHex[c & 15]);
    }
  }
  out->append(text, plain, text.size() - plain);
  out->push_back('"');
}

template <typename Number>
void Decimal(Number n, std::string* out) {
  char digits[24];
  const std::to_chars_result end = std::to_chars(digits, digits + sizeof(digits), n);
  out->append(digits, end.ptr);
}

}  // namespace

// JsonCpp's StreamWriter, kept by each thread, wrote an answer of 200 bytes
// in microseconds and the whole state in seconds (a vector of names for every
// object, a map lookup for every member, a stream for every byte): this
// writes the same bytes into a string. Values written here carry no comments
// (the host parses strictly, without them).
void AppendCompact(const Json::Value& value, std::string* out) {
  switch (value.type()) {
    case Json::nullValue: out->append("null"); break;
    case Json::intValue: Decimal(value.asLargestInt(), out); break;
    case Json::uintValue: Decimal(value.asLargestUInt(), out); break;
    // A duration of 0.537 ms stays 0.537, not 0.53700000000000003.
    case Json::realValue:
      out->append(Json::valueToString(value.asDouble(), 15, Json::PrecisionType::significantDigits));
      break;
    case Json::stringValue: {
      const char* begin = nullptr;
      const char* end = nullptr;
      if (value.getString(&begin, &end)) Quoted(std::string_view(begin, static_cast<size_t>(end - begin)), out);
      break;
    }
    case Json::booleanValue: out->append(value.asBool() ? "true" : "false"); break;
    case Json::arrayValue:
    case Json::objectValue: {
      const bool object = value.isObject();
      out->push_back(object ? '{' : '[');
      for (auto it = value.begin(); it != value.end(); ++it) {
        if (it != value.begin()) out->push_back(',');
        if (object) {
          const char* end = nullptr;
          const char* name = it.memberName(&end);
          Quoted(std::string_view(name, static_cast<size_t>(end - name)), out);
          out->push_back(':');
        }
        AppendCompact(*it, out);
      }
      out->push_back(object ? '}' : ']');
      break;
    }
  }
}

std::string Compact(const Json::Value& value) {
  std::string text;
  AppendCompact(value, &text);
  return text;
}

void JsonText::Next() {
  if (comma_) out_->push_back(',');
  comma_ = true;
}

JsonText& JsonText::Open(char bracket) {
  Next();
  out_->push_back(bracket);
  comma_ = false;
  return *this;
}

JsonText& JsonText::Close(char bracket) {
  out_->push_back(bracket);
  comma_ = true;
  return *this;
}

JsonText& JsonText::Key(std::string_view name) {
  Next();
  Quoted(name, out_);
  out_->push_back(':');
  comma_ = false;
  return *this;
}

JsonText& JsonText::String(std::string_view text) {
  Next();
  Quoted(text, out_);
  return *this;
}

JsonText& JsonText::Int(int64_t value) {
  Next();
  Decimal(value, out_);
  return *this;
}

JsonText& JsonText::Bool(bool value) {
  Next();
  out_->append(value ? "true" : "false");
  return *this;
}

JsonText& JsonText::Value(const Json::Value& value) {
  Next();
  AppendCompact(value, out_);
  return *this;
}

JsonText& JsonText::Raw(std::string_view json) {
  Next();
  out_->append(json);
  return *this;
}

// A text a client sent, for a sentence: on one line, and cut if long.
std::string Cut(const std::string& text) {
  const std::string line = OneLine(text);
  return line.size() <= 64 ? line : line.substr(0, 60) + "...";
}

// Strict JSON: one value, nothing after it, no comments, no repeated keys.
bool ParseJson(const std::string& text, Json::Value* value, std::string* errors) {
  // Each thread keeps its reader: making one, with its settings, cost more
  // than parsing a request's body.
  thread_local const std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;  // a field may be true, null or "text"
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
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
