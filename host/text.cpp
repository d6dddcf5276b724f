#include "text.h"

#include <json/reader.h>
#include <json/writer.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <memory>
#include <sstream>
#include <vector>

namespace webapihost {

namespace {

// JsonCpp's own writer, for the texts that Quoted leaves to it.
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
  // What each byte is here: 0 plain, 1 escaped, 2 beyond ASCII.
  static constexpr std::array<char, 256> kKind = [] {
    std::array<char, 256> kind{};
    for (size_t c = 0; c < 0x20; ++c) kind[c] = 1;
    kind['"'] = kind['\\'] = 1;
    for (size_t c = 0x80; c < kind.size(); ++c) kind[c] = 2;
    return kind;
  }();
  static const char kHex[] = "0123456789abcdef";
  const size_t start = out->size();
  out->reserve(start + text.size() + 2);
  out->push_back('"');
  size_t plain = 0;  // where the text not yet copied begins
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (kKind[c] == 0) continue;
    if (kKind[c] == 2) {
      out->resize(start);
      out->append(LibraryCompact(Json::Value(text.data(), text.data() + text.size())));
      return;
    }
    out->append(text, plain, i - plain);
    plain = i + 1;
    out->push_back('\\');
    switch (c) {
      case '"': out->push_back('"'); break;
      case '\\': out->push_back('\\'); break;
      case '\b': out->push_back('b'); break;
      case '\f': out->push_back('f'); break;
      case '\n': out->push_back('n'); break;
      case '\r': out->push_back('r'); break;
      case '\t': out->push_back('t'); break;
      default:
        out->append("u00");
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
      bool first = true;
      for (auto it = value.begin(), end = value.end(); it != end; ++it) {
        if (!first) out->push_back(',');
        first = false;
        if (object) {
          const char* last = nullptr;
          const char* name = it.memberName(&last);
          Quoted(std::string_view(name, static_cast<size_t>(last - name)), out);
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

namespace {

// A Json::Value from RapidJSON's reading of a text, for what JsonCpp's strict
// reader reads the same way: RapidJSON is stricter (no control character in
// a text, no leading zero, a surrogate pair whole), and anything of JsonCpp's
// own it declines here (a fraction or an exponent, which JsonCpp reads
// through a stream; a number beyond 64 bits; a repeated name; a depth near
// its limit). Declined, ParseJson asks JsonCpp, whose answer or refusal is
// the one told. JsonCpp alone took 2.9 s of CPU for a state of 10,000
// accounts, most of it reading a character at a time.
class Builder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Builder> {
 public:
  explicit Builder(Json::Value* root) : next_(root) {}
  bool Null() { return Put(Json::Value()); }
  bool Bool(bool b) { return Put(Json::Value(b)); }
  // JsonCpp keeps every whole number within 64 signed bits as one, and one
  // beyond them as unsigned.
  bool Int(int n) { return Put(Json::Value(Json::Int64{n})); }
  bool Uint(unsigned n) { return Put(Json::Value(Json::Int64{n})); }
  bool Int64(int64_t n) { return Put(Json::Value(Json::Int64{n})); }
  bool Uint64(uint64_t n) {
    return Put(n <= INT64_MAX ? Json::Value(static_cast<Json::Int64>(n)) : Json::Value(Json::UInt64{n}));
  }
  bool Double(double) { return false; }
  bool String(const char* text, rapidjson::SizeType size, bool) { return Put(Json::Value(text, text + size)); }
  bool StartObject() { return Open(Json::objectValue); }
  bool Key(const char* name, rapidjson::SizeType size, bool) {
    // A name given twice adds no member.
    Json::Value& object = *open_.back();
    const Json::ArrayIndex members = object.size();
    next_ = object.demand(name, name + size);
    return object.size() > members;
  }
  bool EndObject(rapidjson::SizeType) { return Close(); }
  bool StartArray() { return Open(Json::arrayValue); }
  bool EndArray(rapidjson::SizeType) { return Close(); }

 private:
  // JsonCpp's strict reader throws beyond 1000 levels.
  static constexpr size_t kDeepest = 500;
  // Where the next value goes: the next element of the array open, else the
  // member just named, or the root.
  Json::Value* Slot() {
    if (!open_.empty() && open_.back()->isArray()) return &open_.back()->append(Json::Value());
    return next_;
  }
  bool Put(Json::Value&& value) {
    *Slot() = std::move(value);
    return true;
  }
  bool Open(Json::ValueType type) {
    if (open_.size() >= kDeepest) return false;
    Json::Value* slot = Slot();
    *slot = Json::Value(type);
    open_.push_back(slot);
    return true;
  }
  bool Close() {
    open_.pop_back();
    return true;
  }
  std::vector<Json::Value*> open_;  // the objects and arrays being read, innermost last
  Json::Value* next_;
};

bool ReadFast(const std::string& text, Json::Value* value) {
  Json::Value read;
  Builder builder(&read);
  rapidjson::MemoryStream in(text.data(), text.size());
  rapidjson::Reader reader;
  // Stopped after the value, the rest is checked here: the stream reads a
  // NUL byte as the text's end.
  if (reader.Parse<rapidjson::kParseStopWhenDoneFlag>(in, builder).IsError()) return false;
  size_t rest = in.Tell();
  while (rest < text.size() && (text[rest] == ' ' || text[rest] == '\t' || text[rest] == '\n' || text[rest] == '\r'))
    ++rest;
  if (rest != text.size()) return false;
  value->swap(read);
  return true;
}

}  // namespace

// Strict JSON: one value, nothing after it, no comments, no repeated keys.
bool ParseJson(const std::string& text, Json::Value* value, std::string* errors) {
  if (ReadFast(text, value)) return true;
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
