// Seam of the web API host stand-in: the in-process runner behind
// TALV::APIRunner::Exec, which tests and the development host replace.
#pragma once

#include <json/value.h>

#include <string>

namespace talvwebapi {

class Runner {
 public:
  virtual ~Runner();
  // Runs `api` and leaves its answer in `result`, as APIRunner::Exec does.
  virtual int Exec(Json::Value& result, const std::string& api, int version, const std::string& method,
                   const Json::Value& params, const std::string& user) = 0;
};

// The runner of a host that serves no other API: every call answers
// {"success": false, "error": {"code": 102}}.
Runner* DefaultRunner();
// Installs `runner` (not owned); nullptr restores the default.
void SetRunner(Runner* runner);
// The runner in force.
Runner* CurrentRunner();

}  // namespace talvwebapi
