#include "answer_check.h"

// valijson understands drafts 4 and 7, not 2020-12. The description keeps to
// keywords whose meaning the two drafts share (type, enum, const, properties,
// required, additionalProperties, maxProperties, items as one schema, allOf,
// anyOf, oneOf, if/then, boolean schemas, and $ref to "#/$defs/..." with no
// sibling but annotations), so draft 7's reading is 2020-12's.
#include <valijson/adapters/jsoncpp_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

#include <exception>
#include <fstream>
#include <iterator>

#include "text.h"

namespace webapihost {
namespace {

// A part of the description as a schema of its own: the document's $defs
// beside it, so that its references resolve.
std::unique_ptr<valijson::Schema> Compile(const Json::Value& part, const Json::Value& defs) {
  Json::Value whole = part;
  whole["$defs"] = defs;
  auto schema = std::make_unique<valijson::Schema>();
  valijson::SchemaParser parser(valijson::SchemaParser::kDraft7);
  parser.populateSchema(valijson::adapters::JsonCppAdapter(whole), *schema);
  return schema;
}

// valijson names where it failed by "[member]" and "[index]" steps after
// "<root>"; a JSON pointer escapes '~' and '/'.
std::string Pointer(const std::string& prefix, const std::vector<std::string>& context) {
  std::string pointer = prefix;
  for (const std::string& step : context) {
    if (step.size() < 2 || step.front() != '[' || step.back() != ']') continue;
    pointer += '/';
    for (char c : step.substr(1, step.size() - 2)) pointer += c == '~' ? "~0" : c == '/' ? "~1" : std::string(1, c);
  }
  return pointer;
}

}  // namespace

AnswerCheck::~AnswerCheck() = default;

std::unique_ptr<AnswerCheck> AnswerCheck::Load(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  Json::Value doc;
  std::string problem;
  if (!in) {
    *error = path + ": cannot be read";
    return nullptr;
  }
  if (!ParseJson(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()), &doc, &problem) ||
      !doc.isObject() || !doc["methods"].isObject()) {
    *error = path + ": not a description of the web API" + (problem.empty() ? "" : ": " + problem);
    return nullptr;
  }
  std::unique_ptr<AnswerCheck> check(new AnswerCheck());
  const Json::Value& defs = doc["$defs"];
  try {
    check->schemas_[" answer"] = Compile(defs["answer"], defs);
    check->schemas_[" errors"] = Compile(defs["hostError"], defs);
    for (const std::string& method : doc["methods"].getMemberNames())
      for (const char* part : {"data", "errors"})
        check->schemas_[method + " " + part] = Compile(doc["methods"][method][part], defs);
  } catch (const std::exception& e) {
    *error = path + ": " + e.what();
    return nullptr;
  }
  return check;
}

std::string AnswerCheck::Mismatch(const std::string& method, const Answer& answer) const {
  Json::Value envelope;
  std::string problem;
  if (!ParseJson(Envelope(answer), &envelope, &problem)) return "the whole answer: not JSON: " + problem;
  const auto held = [&](const std::string& part) {
    auto it = schemas_.find(method + " " + part);
    return it != schemas_.end() ? it : schemas_.find(" " + part);
  };
  const std::string part = answer.success ? "data" : "errors";
  const std::pair<const valijson::Schema*, std::string> checks[] = {
      {schemas_.at(" answer").get(), ""},
      {held(part)->second.get(), answer.success ? "/data" : "/error"},
  };
  for (const auto& [schema, prefix] : checks) {
    valijson::ValidationResults results;
    valijson::Validator validator;
    const Json::Value& value = prefix.empty() ? envelope : envelope[prefix.substr(1)];
    if (validator.validate(*schema, valijson::adapters::JsonCppAdapter(value), &results)) continue;
    // The deepest failure says most: the outer ones only report that an
    // inner one failed.
    valijson::ValidationResults::Error deepest, error;
    while (results.popError(error))
      if (deepest.description.empty() || error.context.size() > deepest.context.size()) deepest = error;
    const std::string pointer = Pointer(prefix, deepest.context);
    return (pointer.empty() ? "the whole answer" : pointer) + ": " + deepest.description;
  }
  return "";
}

}  // namespace webapihost
