// Seam of the web API host stand-in: the in-process runner behind
// TALV::APIRunner::Exec, which tests and the development host replace.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <utility>

namespace talvwebapi {

class Runner {
 public:
  virtual ~Runner();
  // Runs `api` and leaves its answer in `result`, as APIRunner::Exec does.
  virtual int Exec(Json::Value& result, const std::string& api, int version, const std::string& method,
                   const Json::Value& params, const std::string& user) = 0;
};

// Another API of the host as a test, a fuzzer or a benchmark scripts it (the
// credential verifier, say): every call is answered with what `answer` makes
// of its parameters, or with one fixed answer.
class ScriptedRunner : public Runner {
 public:
  using Answer = std::function<Json::Value(const Json::Value& params)>;
  explicit ScriptedRunner(Answer answer) : answer_(std::move(answer)) {}
  explicit ScriptedRunner(const Json::Value& answer) : answer_([answer](const Json::Value&) { return answer; }) {}
  int Exec(Json::Value& result, const std::string&, int, const std::string&, const Json::Value& params,
           const std::string&) override {
    result = answer_(params);
    return 0;
  }

 private:
  Answer answer_;
};

// The runner of a host that serves no other API: every call answers
// {"success": false, "error": {"code": 102}}.
Runner* DefaultRunner();
// Installs `runner` (not owned); nullptr restores the default.
void SetRunner(Runner* runner);
// The runner in force.
Runner* CurrentRunner();

}  // namespace talvwebapi
