// A host of one's own for pellixcenter.so, as small as one can be: it loads
// the module, finds one row of its table and calls the row's handler with the
// platform's request and response classes, then prints the answer in the web
// API's envelope. docs/platform.md ("Writing a host") says why each step is
// the host's.
//   minimal_host MODULE API VERSION METHOD [PARAMETERS]   (PARAMETERS: a JSON object)
#include <curl/curl.h>
#include <dlfcn.h>
#include <json/reader.h>
#include <json/writer.h>
#include <pellixcenter.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <sstream>

int main(int argc, char** argv) {
  if (argc < 5 || argc > 6) {
    std::cerr << "usage: minimal_host MODULE API VERSION METHOD [PARAMETERS]\n";
    return 2;
  }
  Json::Value params(Json::objectValue);
  std::istringstream text(argc == 6 ? argv[5] : "{}");
  std::string error;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), text, &params, &error) || !params.isObject()) {
    std::cerr << "minimal_host: PARAMETERS is not a JSON object " << error << "\n";
    return 2;
  }
  // libcurl's process-wide set-up is the host's, before any handler can run.
  if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK) return 1;
  // The module's platform libraries (its NEEDED entries) must be where the
  // loader looks: the module carries no search path.
  void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  auto getTable = module ? reinterpret_cast<TALV::APITableEntry* (*)()>(dlsym(module, "GetAPITable")) : nullptr;
  if (!getTable) {
    std::cerr << "minimal_host: " << dlerror() << "\n";
    return 1;
  }
  const TALV::APITableEntry* row = getTable();
  while (row->pfnHandler && (std::strcmp(row->szAPI, argv[2]) != 0 || row->iVersion != std::atoi(argv[3]) ||
                             std::strcmp(row->szMethod, argv[4]) != 0))
    ++row;
  if (!row->pfnHandler) {
    std::cerr << "minimal_host: the module has no " << argv[2] << " " << argv[3] << " " << argv[4] << "\n";
    return 1;
  }
  TALV::APIRequest request(params, "enu");  // the interface language, in the platform's form
  TALV::APIResponse response;
  try {
    row->pfnHandler(&request, &response);
  } catch (const std::exception& e) {  // a handler may throw; the host lives on
    std::cerr << "minimal_host: the handler threw: " << e.what() << "\n";
    return 1;
  }
  Json::StreamWriterBuilder compact;
  compact["indentation"] = "";
  std::cout << (response.IsSuccess()
                    ? "{\"success\":true,\"data\":"
                    : "{\"success\":false,\"error\":{\"code\":" + std::to_string(response.GetError()) + ",\"details\":")
            << Json::writeString(compact, response.GetData()) << (response.IsSuccess() ? "}" : "}}") << "\n";
  return 0;
}
