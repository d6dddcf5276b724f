#include "harness.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <json/writer.h>

#include <cstring>
#include <exception>
#include <sstream>

namespace webapihost {

std::unique_ptr<Module> Module::Load(const std::string& path, std::string* error) {
  // libcurl's process-wide set-up is the host's, done once before any module
  // can run a transfer, and never undone while modules may still be loaded.
  static const CURLcode curlReady = curl_global_init(CURL_GLOBAL_ALL);
  if (curlReady != CURLE_OK) {
    *error = std::string("libcurl cannot be initialised: ") + curl_easy_strerror(curlReady);
    return nullptr;
  }
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    *error = dlerror();
    return nullptr;
  }
  using GetTable = TALV::APITableEntry* (*)();
  auto get = reinterpret_cast<GetTable>(dlsym(handle, "GetAPITable"));
  TALV::APITableEntry* table = get ? get() : nullptr;
  if (!table) {
    *error = path + ": no GetAPITable, or it returned no table";
    dlclose(handle);
    return nullptr;
  }
  return std::unique_ptr<Module>(new Module(handle, table));
}

Module::~Module() { dlclose(handle_); }

const TALV::APITableEntry* Module::Find(const std::string& api, int version, const std::string& method) const {
  for (const TALV::APITableEntry* row = table_; row->szAPI || row->szMethod || row->pfnHandler; ++row) {
    if (row->szAPI && row->szMethod && row->pfnHandler && api == row->szAPI && version == row->iVersion &&
        method == row->szMethod)
      return row;
  }
  return nullptr;
}

Answer Module::Call(const std::string& api, int version, const std::string& method, const Json::Value& params,
                    const std::string& uiLanguage) const {
  Answer answer;
  const TALV::APITableEntry* row = Find(api, version, method);
  if (!row) {
    answer.code = kErrNoSuchMethod;
    return answer;
  }
  if (!params.isObject()) {
    answer.code = kErrUnknown;
    answer.data["reason"] = "parameters must be a JSON object";
    return answer;
  }
  answer.found = true;
  TALV::APIRequest request(params, uiLanguage);
  TALV::APIResponse response;
  try {
    row->pfnHandler(&request, &response);
  } catch (const std::exception& e) {
    answer.threw = true;
    answer.exception = e.what();
  } catch (...) {
    answer.threw = true;
    answer.exception = "exception of unknown type";
  }
  answer.answers = response.AnswerCount();
  if (answer.answers == 0) {
    answer.code = kErrUnknown;
    if (answer.threw) answer.data["exception"] = answer.exception;
    return answer;
  }
  answer.success = response.IsSuccess();
  answer.code = response.GetError();
  answer.data = response.GetData();
  return answer;
}

std::string Envelope(const Answer& answer) {
  if (answer.success) return "{\"success\":true,\"data\":" + Compact(answer.data) + "}";
  return "{\"success\":false,\"error\":{\"code\":" + std::to_string(answer.code) +
         ",\"details\":" + Compact(answer.data) + "}}";
}

}  // namespace webapihost
