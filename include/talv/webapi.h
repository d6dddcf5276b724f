// Web API host classes, as a module sees them.
//
// The host owns the process and calls a module's handlers with one request and
// one response. Every member is defined by the host library, never inline here,
// so a module built against this header runs under any host implementation.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

namespace TALV {

class APIRequest;
class APIResponse;

typedef void (*APIHandler)(APIRequest* request, APIResponse* response);

// One row of a module's API table. The layout is shared with the host and is
// fixed: 32 bytes, the version in the low half of its 8-byte slot.
struct APITableEntry {
  const char* szAPI;
  int32_t iVersion;
  int32_t iReserved;  // always 0
  const char* szMethod;
  APIHandler pfnHandler;
};
static_assert(sizeof(APITableEntry) == 32, "API table rows are 32 bytes");

// What GetAndCheckString reports about one parameter.
template <typename T>
class APIParameter {
 public:
  APIParameter();
  APIParameter(const T& value, bool invalid);
  APIParameter(const APIParameter& other);
  APIParameter& operator=(const APIParameter& other);
  ~APIParameter();

  // True when the parameter failed the necessity rule or the validator.
  bool IsInvalid() const;
  // The value as read; for an invalid parameter whatever text was sent (a
  // string parameter) or an empty value. Valid for the parameter's lifetime.
  const T& Get() const;

 private:
  T value_;
  bool invalid_;
};
extern template class APIParameter<std::string>;

class APIRequest {
 public:
  enum PARAM_NECESSITY {
    // Absent, or not of the requested type: invalid.
    PARAM_REQUIRED = 0,
    // Absent is fine (valid, empty); present but of another type: invalid.
    PARAM_OPTIONAL = 1,
  };
  typedef bool (*StringValidator)(const std::string& value);

  // Host side: a request carrying `params` (a JSON object) from a user
  // interface in `uiLanguage`.
  APIRequest(const Json::Value& params, const std::string& uiLanguage);
  ~APIRequest();
  APIRequest(const APIRequest&) = delete;
  APIRequest& operator=(const APIRequest&) = delete;

  // True when the request carries a parameter of that name (null included).
  bool HasParam(const std::string& name) const;
  // The parameter's value, or a copy of `defaultValue` when it is absent.
  Json::Value GetParam(const std::string& name, const Json::Value& defaultValue) const;
  // Reads a string parameter and records whether it passed `necessity` and,
  // when given, `validator` (nullptr: no validator).
  APIParameter<std::string> GetAndCheckString(const std::string& name, PARAM_NECESSITY necessity,
                                              StringValidator validator) const;
  // The user-interface language the request came from, in the host's form.
  std::string GetUILanguage() const;

 private:
  struct Impl;
  Impl* impl_;
};

class APIResponse {
 public:
  APIResponse();
  ~APIResponse();
  APIResponse(const APIResponse&) = delete;
  APIResponse& operator=(const APIResponse&) = delete;

  // Module side: exactly one of these per request.
  void SetSuccess(const Json::Value& data);
  void SetError(int code, const Json::Value& details);

  // Host side: the last answer given, and how many were given.
  bool IsSuccess() const;
  int GetError() const;                // 0 after SetSuccess or before any answer
  const Json::Value& GetData() const;  // success data or error details
  int AnswerCount() const;

 private:
  struct Impl;
  Impl* impl_;
};

class APIRunner {
 public:
  // Runs another web API of this host in-process as `user` and leaves its
  // answer in `result`: {"success": bool, "data": ...} or
  // {"success": false, "error": {"code": N}}. Returns 0 when the API ran.
  static int Exec(Json::Value& result, const std::string& api, int version, const std::string& method,
                  const Json::Value& params, const std::string& user);
};

class APIValidator {
 public:
  static bool IsEMail(const std::string& value);
};

}  // namespace TALV
