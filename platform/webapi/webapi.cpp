// The web API host's request, response, runner and validator classes.
#include "talv/webapi.h"

#include <cstring>

#include "runner.h"
#include "seam/seam.h"

using talvseam::Arg;

namespace talvwebapi {
namespace {

class NoApiRunner : public Runner {
 public:
  int Exec(Json::Value& result, const std::string&, int, const std::string&, const Json::Value&,
           const std::string&) override {
    result = Json::Value(Json::objectValue);
    result["success"] = false;
    result["error"]["code"] = 102;  // the host's "no such API"
    return -1;
  }
};

}  // namespace

Runner::~Runner() = default;

Runner* DefaultRunner() {
  static NoApiRunner runner;
  return &runner;
}

namespace {
talvseam::Installed<Runner> gRunner(DefaultRunner);
}  // namespace

void SetRunner(Runner* runner) { gRunner.Set(runner); }
Runner* CurrentRunner() { return gRunner.Get(); }

}  // namespace talvwebapi

namespace TALV {

template <typename T>
APIParameter<T>::APIParameter() : value_(), invalid_(true) {}
template <typename T>
APIParameter<T>::APIParameter(const T& value, bool invalid) : value_(value), invalid_(invalid) {}
template <typename T>
APIParameter<T>::APIParameter(const APIParameter& other) = default;
template <typename T>
APIParameter<T>& APIParameter<T>::operator=(const APIParameter& other) = default;
template <typename T>
APIParameter<T>::~APIParameter() = default;
template <typename T>
bool APIParameter<T>::IsInvalid() const {
  return invalid_;
}
template <typename T>
const T& APIParameter<T>::Get() const {
  return value_;
}
template class APIParameter<std::string>;

struct APIRequest::Impl {
  Json::Value params;
  std::string language;
};

APIRequest::APIRequest(const Json::Value& params, const std::string& uiLanguage)
    : impl_(new Impl{params.isObject() ? params : Json::Value(Json::objectValue), uiLanguage}) {}
APIRequest::~APIRequest() { delete impl_; }

// Reads of the request are journaled (never failed), so that a test can tell
// which parameters a handler looked at.
bool APIRequest::HasParam(const std::string& name) const {
  talvseam::Note("webapi", "APIRequest::HasParam", {name});
  return impl_->params.isMember(name);
}

Json::Value APIRequest::GetParam(const std::string& name, const Json::Value& defaultValue) const {
  talvseam::Note("webapi", "APIRequest::GetParam", {name, Arg(defaultValue)});
  return impl_->params.isMember(name) ? impl_->params[name] : defaultValue;
}

APIParameter<std::string> APIRequest::GetAndCheckString(const std::string& name, PARAM_NECESSITY necessity,
                                                        StringValidator validator) const {
  talvseam::Note("webapi", "APIRequest::GetAndCheckString",
                 {name, Arg(static_cast<int>(necessity)), validator ? "validator" : "(null)"});
  if (!impl_->params.isMember(name)) return APIParameter<std::string>("", necessity == PARAM_REQUIRED);
  const Json::Value& v = impl_->params[name];
  if (!v.isString()) return APIParameter<std::string>("", true);
  std::string text = v.asString();
  bool invalid = validator && !validator(text);
  return APIParameter<std::string>(text, invalid);
}

std::string APIRequest::GetUILanguage() const {
  talvseam::Note("webapi", "APIRequest::GetUILanguage", {});
  return impl_->language;
}

struct APIResponse::Impl {
  bool success = false;
  int error = 0;
  Json::Value data;
  int answers = 0;
};

APIResponse::APIResponse() : impl_(new Impl()) {}
APIResponse::~APIResponse() { delete impl_; }

void APIResponse::SetSuccess(const Json::Value& data) {
  impl_->success = true;
  impl_->error = 0;
  impl_->data = data;
  ++impl_->answers;
}

void APIResponse::SetError(int code, const Json::Value& details) {
  impl_->success = false;
  impl_->error = code;
  impl_->data = details;
  ++impl_->answers;
}

bool APIResponse::IsSuccess() const { return impl_->success; }
int APIResponse::GetError() const { return impl_->error; }
const Json::Value& APIResponse::GetData() const { return impl_->data; }
int APIResponse::AnswerCount() const { return impl_->answers; }

int APIRunner::Exec(Json::Value& result, const std::string& api, int version, const std::string& method,
                    const Json::Value& params, const std::string& user) {
  int code = 0;
  if (talvseam::Enter("webapi", "APIRunner::Exec", {api, Arg(version), method, Arg(params), user}, &code)) {
    result = Json::Value(Json::objectValue);
    result["success"] = false;
    result["error"]["code"] = code;
    return -1;
  }
  return talvwebapi::CurrentRunner()->Exec(result, api, version, method, params, user);
}

bool APIValidator::IsEMail(const std::string& value) {
  // One '@', a non-empty local part, a dotted domain, nothing that cannot
  // stand in an address without quoting.
  if (value.empty() || value.size() > 254) return false;
  size_t at = value.find('@');
  if (at == std::string::npos || at == 0 || at > 64 || value.find('@', at + 1) != std::string::npos) return false;
  std::string domain = value.substr(at + 1);
  if (domain.size() < 3 || domain.front() == '.' || domain.back() == '.' || domain.find('.') == std::string::npos ||
      domain.find("..") != std::string::npos)
    return false;
  for (unsigned char c : value)
    if (c <= ' ' || c >= 0x7f || std::strchr("()<>,;:\\\"[]", c)) return false;
  return true;
}

}  // namespace TALV
