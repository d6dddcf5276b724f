// Holds the answers of /webapi/entry to the description of the web API
// (docs/webapi.schema.json): `serve --check-answers`, and the fuzz target.
#pragma once

#include <json/value.h>

#include <map>
#include <memory>
#include <string>

#include "harness.h"

namespace valijson {
class Schema;
}

namespace webapihost {

class AnswerCheck {
 public:
  // Reads the description at `path`; nullptr with *error when it cannot be
  // read, is not JSON, or holds a schema the validator cannot take.
  static std::unique_ptr<AnswerCheck> Load(const std::string& path, std::string* error);
  ~AnswerCheck();
  AnswerCheck(const AnswerCheck&) = delete;
  AnswerCheck& operator=(const AnswerCheck&) = delete;

  // Why `answer`, given to a call of "API VERSION METHOD" (`method`), is not
  // one the description allows: "POINTER: reason", the JSON pointer into the
  // answer's envelope. Empty when it is allowed. A method the description does
  // not have is held to the host's own codes.
  std::string Mismatch(const std::string& method, const Answer& answer) const;

 private:
  AnswerCheck() = default;
  // The compiled schemas, by "API VERSION METHOD" and part ("data",
  // "errors"); "" holds the envelope and the host's own error.
  std::map<std::string, std::unique_ptr<valijson::Schema>> schemas_;
};

}  // namespace webapihost
