// webapi-host: stands in for the device's web API host on the command line.
//
//   webapi-host [--module PATH] [--lang LANG] call API VERSION METHOD [PARAMS]
//   webapi-host [--module PATH] list
//   webapi-host [--module PATH] [--lang LANG] serve [--state DIR] [--port N]
//   webapi-host [--module PATH] demo
//
// `call` prints the answer envelope on stdout and the module's log lines on
// stderr. Exit status: 0 success answer, 1 error answer, 2 bad invocation or
// no such method, 3 the module cannot be loaded. `serve` and `demo`: see
// serve.h.
#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "harness.h"
#include "serve.h"
#include "state.h"
#include "syslog_capture.h"

namespace {

const char kUsage[] =
    "usage: webapi-host [--module PATH] [--lang LANG] call API VERSION METHOD [PARAMS_JSON]\n"
    "       webapi-host [--module PATH] list\n"
    "       webapi-host [--module PATH] [--lang LANG] serve [--state DIR] [--port N]\n"
    "       webapi-host [--module PATH] demo\n";

int Usage(const std::string& problem) {
  std::cerr << "webapi-host: " << problem << "\n" << kUsage;
  return 2;
}

// The module built beside this program, or installed where the packages put
// it, unless PELLIXCENTER_SO names another.
std::string Self() {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  return n > 0 ? std::string(self, static_cast<size_t>(n)) : "webapi-host";
}

std::string DefaultModule() {
  if (const char* env = std::getenv("PELLIXCENTER_SO")) return env;
  std::string self = Self();
  const std::string dir = self.substr(0, self.rfind('/') + 1);
  std::string beside = dir + "pellixcenter.so";
#ifdef PELLIX_INSTALLED_MODULE
  if (access(beside.c_str(), F_OK) != 0) return dir + PELLIX_INSTALLED_MODULE;
#endif
  return beside;
}

bool IsFolder(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The administration page's folder. An installed host finds it at
// <prefix>/share/webapi-host/web beside its <prefix>/bin; one run from its
// build tree finds the source tree's web/, whose path the build records, so
// that an edit to the page shows at the next reload without a rebuild.
std::string DefaultPages() {
  const std::string self = Self();
  const std::string bin = self.substr(0, self.rfind('/'));
  std::string installed = bin.substr(0, bin.rfind('/') + 1) + "share/webapi-host/web";
  if (IsFolder(installed)) return installed;
#ifdef WEBAPI_HOST_PAGES
  if (IsFolder(WEBAPI_HOST_PAGES)) return WEBAPI_HOST_PAGES;
#endif
  return "";
}

bool ParseInt(const std::string& text, int* version) {
  errno = 0;
  char* end = nullptr;
  long v = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end || errno || v < INT_MIN || v > INT_MAX) return false;
  *version = static_cast<int>(v);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::string modulePath = DefaultModule();
  std::string language = "enu";
  std::vector<std::string> args(argv + 1, argv + argc);
  size_t i = 0;
  for (; i < args.size() && args[i].rfind("--", 0) == 0; ++i) {
    if (args[i] == "--help") {
      std::cout << kUsage;
      return 0;
    }
    if (i + 1 >= args.size()) return Usage(args[i] + " needs a value");
    if (args[i] == "--module") {
      modulePath = args[++i];
    } else if (args[i] == "--lang") {
      language = args[++i];
    } else {
      return Usage("unknown option " + args[i]);
    }
  }
  if (i >= args.size()) return Usage("no command");
  const std::string command = args[i++];
  if (command == "serve") {
    webapihost::ServeOptions options;
    options.module = modulePath;
    options.language = language;
    options.state = webapihost::DefaultStateDir();
    options.pages = DefaultPages();
    for (; i < args.size(); ++i) {
      if (i + 1 >= args.size()) return Usage(args[i] + " needs a value");
      if (args[i] == "--state") {
        options.state = args[++i];
      } else if (args[i] == "--port") {
        if (!ParseInt(args[++i], &options.port) || options.port < 0 || options.port > 65535)
          return Usage("--port takes a port number, not \"" + args[i] + "\"");
      } else {
        return Usage("unknown serve option " + args[i]);
      }
    }
    return webapihost::Serve(options);
  }
  if (command == "demo") {
    if (i != args.size()) return Usage("demo takes no arguments");
    return webapihost::Demo(Self(), modulePath, stdout);
  }
  if (command != "call" && command != "list") return Usage("unknown command " + command);
  if (command == "call" && (args.size() - i < 3 || args.size() - i > 4))
    return Usage("call takes API VERSION METHOD [PARAMS_JSON]");
  if (command == "list" && i != args.size()) return Usage("list takes no arguments");

  syslogcapture::SetEcho(stderr);
  std::string error;
  std::unique_ptr<webapihost::Module> module = webapihost::Module::Load(modulePath, &error);
  if (!module) {
    std::cerr << "webapi-host: cannot load module: " << error << "\n";
    return 3;
  }

  if (command == "list") {
    for (const TALV::APITableEntry* row = module->Table(); row->szAPI; ++row)
      std::cout << row->szAPI << " " << row->iVersion << " " << row->szMethod << "\n";
    return 0;
  }

  const std::string api = args[i];
  int version = 0;
  if (!ParseInt(args[i + 1], &version)) return Usage("VERSION must be an integer, not \"" + args[i + 1] + "\"");
  const std::string method = args[i + 2];
  Json::Value params(Json::objectValue);
  if (i + 3 < args.size()) {
    Json::CharReaderBuilder builder;
    std::string parseErrors;
    const std::string& text = args[i + 3];
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &params, &parseErrors))
      return Usage("PARAMS_JSON is not JSON: " + parseErrors);
    if (!params.isObject()) return Usage("PARAMS_JSON must be a JSON object");
  }

  webapihost::Answer answer = module->Call(api, version, method, params, language);
  if (!answer.found) {
    std::cerr << "webapi-host: no such method: " << api << " version " << version << " " << method << "\n";
    std::cout << webapihost::Envelope(answer) << "\n";
    return 2;
  }
  if (answer.threw) std::cerr << "webapi-host: the handler threw: " << answer.exception << "\n";
  if (answer.answers != 1) std::cerr << "webapi-host: the handler gave " << answer.answers << " answers\n";
  std::cout << webapihost::Envelope(answer) << "\n";
  return answer.success ? 0 : 1;
}
