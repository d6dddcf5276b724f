// Loads a web API module and calls its handlers the way the device's host
// does: dlopen, GetAPITable, a walk of the rows up to the all-zero one, and a
// real request and response per call.
#pragma once

#include <json/value.h>

#include <memory>
#include <string>

#include "talv/webapi.h"
#include "text.h"

namespace webapihost {

// The host's own error codes, for answers no handler gave.
constexpr int kErrUnknown = 100;       // the handler threw or gave no answer
constexpr int kErrNoSuchMethod = 103;  // no row for API name, version and method

struct Answer {
  bool found = false;    // a row matched and its handler ran
  bool success = false;  // the last answer given
  int code = 0;          // its error code (0 on success)
  Json::Value data;      // success data or error details
  int answers = 0;       // SetSuccess and SetError calls; exactly one is right
  bool threw = false;    // an exception left the handler
  std::string exception;
};

class Module {
 public:
  // Loads the module at `path`; nullptr with `*error` set when it cannot be
  // loaded or has no GetAPITable. The first call also initialises libcurl for
  // the process, as the device's host does at start.
  static std::unique_ptr<Module> Load(const std::string& path, std::string* error);
  ~Module();
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  // The table as GetAPITable returned it.
  const TALV::APITableEntry* Table() const { return table_; }
  // The row serving (api, version, method), or nullptr.
  const TALV::APITableEntry* Find(const std::string& api, int version, const std::string& method) const;
  // Runs one request. Parameters that are not a JSON object are refused by the
  // host before any handler runs (found false, code kErrUnknown).
  Answer Call(const std::string& api, int version, const std::string& method, const Json::Value& params,
              const std::string& uiLanguage = "enu") const;

 private:
  Module(void* handle, TALV::APITableEntry* table) : handle_(handle), table_(table) {}
  void* handle_;
  TALV::APITableEntry* table_;
};

// {"success":true,"data":...} or {"success":false,"error":{"code":N,"details":...}}
std::string Envelope(const Answer& answer);

}  // namespace webapihost
