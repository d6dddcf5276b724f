// webapi-host: stands in for the device's web API host on the command line.
//
//   webapi-host [--module PATH] [--lang LANG] call API VERSION METHOD [PARAMS]
//   webapi-host [--module PATH] list
//   webapi-host [--module PATH] [--lang LANG] serve [--state DIR] [--port N] [--conditions FILE]
//               [--trust-origin ORIGIN]... [--web DIR] [--pkce-redirect-uri URI]
//   webapi-host [--module PATH] demo
//   webapi-host state export|import [FILE] [--state DIR]
//   webapi-host help [COMMAND] | --help | --version
//
// Options may come before or after the command. `call` prints the answer
// envelope on stdout and the module's log lines on stderr. Exit status: 0
// success answer, 1 error answer, 2 bad invocation or no such method, 3 the
// module cannot be loaded. `serve` and `demo`: see serve.h.
#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "harness.h"
#include "origin.h"
#include "serve.h"
#include "snapshot.h"
#include "state.h"
#include "syslog_capture.h"

namespace {

const char kUsage[] =
    "usage: webapi-host [--module PATH] [--lang LANG] call API VERSION METHOD [PARAMS_JSON]\n"
    "       webapi-host [--module PATH] list\n"
    "       webapi-host [--module PATH] [--lang LANG] serve [--state DIR] [--port N] [--conditions FILE]\n"
    "                   [--trust-origin ORIGIN]... [--web DIR] [--pkce-redirect-uri URI]\n"
    "                   [--seed FILE|NAME] [--journal FILE] [--journal-size N]\n"
    "       webapi-host [--module PATH] demo\n"
    "       webapi-host state export [--state DIR] | state import FILE [--state DIR]\n"
    "       webapi-host help [COMMAND] | --help | --version\n";

const char kOptions[] =
    "Options, before or after the command:\n"
    "  --module PATH  the module to load (default: $PELLIXCENTER_SO, else pellixcenter.so beside the program,\n"
    "                 else the installed one)\n"
    "  --lang LANG    the interface language every request reports (default enu)\n"
    "  --state DIR    serve: the state folder (default ${XDG_STATE_HOME:-~/.local/state}/webapi-host)\n"
    "  --port N       serve: the port on 127.0.0.1 (default 8080; 0 takes any free port)\n"
    "  --conditions FILE\n"
    "                 serve: conditions of the account service to set at start, as POST /sim/conditions\n"
    "                 takes them: a JSON object, or an array of them\n"
    "  --check-answers\n"
    "                 serve: hold every answer of /webapi/entry to the description of the web API\n"
    "                 (/webapi/schema.json) and log each it does not allow\n"
    "  --trust-origin ORIGIN\n"
    "                 serve: let the pages of ORIGIN (scheme://host[:port], as http://127.0.0.1:5173) use\n"
    "                 every path, with CORS answers; repeatable. Other origins' pages stay refused\n"
    "  --web DIR      serve: serve your own built interface from DIR at / (index.html for a path that\n"
    "                 names no file); the administration page moves to /admin/\n"
    "  --pkce-redirect-uri URI\n"
    "                 serve: the login redirect_uri that pkce_config_get answers, on this host or a\n"
    "                 trusted origin: the service's sign-in page sends the browser there with code and state\n"
    "  --seed FILE|NAME\n"
    "                 serve: start from a state document (as GET /sim/state answers it), or a fixture of\n"
    "                 the project by name: fresh, signed-in, sign-out-refused, registration-limit; a fresh\n"
    "                 folder is made with it, a used one has its state replaced\n"
    "  --journal-size N\n"
    "                 serve: the requests the journal keeps (default 10000)\n"
    "  --journal FILE serve: also append each journal entry to FILE, one JSON line each\n"
    "  --help, -h     this text; with a command, that command's\n"
    "  --version      the version\n";

struct Command {
  const char* name;
  const char* usage;
  const char* text;
};

const Command kCommands[] = {
    {"call", "[--module PATH] [--lang LANG] call API VERSION METHOD [PARAMS_JSON]",
     "Runs one method of the module on the default stand-ins (no account signed in, account service\n"
     "unreachable; TALV_SYSROOT names the device's files) and prints the answer on stdout,\n"
     "{\"success\":true,\"data\":...} or {\"success\":false,\"error\":{\"code\":N,\"details\":...}},\n"
     "and the module's log lines on stderr. PARAMS_JSON is a JSON object ({} when left out).\n"
     "Exit status: 0 a success answer, 1 an error answer, 2 a bad invocation or no such method,\n"
     "3 the module cannot be loaded.\n"},
    {"list", "[--module PATH] list",
     "Prints the module's table, one method a line: API, version, method.\n"
     "Exit status: 0; 2 a bad invocation; 3 the module cannot be loaded.\n"},
    {"serve",
     "[--module PATH] [--lang LANG] serve [--state DIR] [--port N] [--conditions FILE]\n"
     "                   [--trust-origin ORIGIN]... [--web DIR] [--pkce-redirect-uri URI]\n"
     "                   [--seed FILE|NAME] [--journal FILE] [--journal-size N]",
     "Serves every method over HTTP at http://127.0.0.1:PORT/webapi/entry, and the administration page\n"
     "at http://127.0.0.1:PORT/, on a simulated device and account service kept in the state folder.\n"
     "It prints the URL, the state folder, the device's serial number and requests to try.\n"
     "To start over, with a new device and no accounts, stop it and remove the state folder, or\n"
     "give another --state. Ctrl-C stops it.\n"
     "The simulated account service fails, waits or misbehaves on request: GET, POST and DELETE\n"
     "/sim/conditions list, set and clear its conditions while it serves, and --conditions FILE sets\n"
     "some at start.\n"
     "Pages of other origins are refused; --trust-origin ORIGIN lets the pages of one in (a dev\n"
     "server's, as http://127.0.0.1:5173), --web DIR serves your own interface at / and\n"
     "--pkce-redirect-uri URI brings the PKCE sign-in back to it.\n"
     "GET /sim/state answers the whole state as one JSON document, PUT /sim/state replaces it, and\n"
     "POST /sim/reset makes the device fresh with no account (keeping its serial number unless the body\n"
     "is {\"serial\":\"new\"}); --seed FILE|NAME starts from such a document: on a fresh folder, or\n"
     "replacing the state of a used one. GET /sim/journal answers the last requests (also as HAR at\n"
     "/sim/journal.har), secrets masked.\n"
     "Exit status: 0 after Ctrl-C or SIGTERM; 1 the state folder cannot be used or is in use by\n"
     "another host, the conditions file cannot be read or set, or another start-up error; 2 a bad invocation, a port "
     "in use, or a PKCE redirect URI of neither the host nor a trusted origin; 3 the module\n"
     "cannot be loaded.\n"},
    {"demo", "[--module PATH] demo",
     "Starts a host of its own on a free port and a temporary state folder and runs a whole account\n"
     "life cycle through it, then a few of the account service's failures (unreachable, a wrong\n"
     "password, a stalled account.php), printing every request and answer.\n"
     "Exit status: 0 every step answered as expected; 1 otherwise; 2 a bad invocation.\n"},
    {"state", "state export [--state DIR] | state import FILE [--state DIR]",
     "export prints the state folder's whole state as one JSON document (GET /sim/state's); import\n"
     "replaces the folder's state with a document (a file, or a fixture's name as --seed takes it),\n"
     "checked whole first. Both are refused while a host serves from the folder: use GET and PUT\n"
     "/sim/state there. The conditions of a document are a running host's only, and not kept.\n"
     "Exit status: 0 done; 1 the folder cannot be used or is in use, or the document is refused;\n"
     "2 a bad invocation.\n"},
    {"help", "help [COMMAND]",
     "Prints the usage of webapi-host, or of one command. Exit status: 0; 2 no such command.\n"},
};

const Command* FindCommand(const std::string& name) {
  for (const Command& c : kCommands)
    if (name == c.name) return &c;
  return nullptr;
}

int Help() {
  std::cout << kUsage << "\nRuns pellixcenter.so as the device's web API host does, on stand-ins of the platform.\n\n"
            << "Commands:\n"
            << "  call    runs one method and prints its answer\n"
            << "  list    prints the module's table\n"
            << "  serve   serves every method over HTTP, with the administration page\n"
            << "  demo    runs a whole account life cycle against a host of its own\n"
            << "  state   prints or replaces a state folder's whole state\n"
            << "  help    prints this, or with a command, that command's usage\n\n"
            << kOptions << "\nSee webapi-host(1).\n";
  return 0;
}

int CommandHelp(const Command& c) {
  std::cout << "usage: webapi-host " << c.usage << "\n\n" << c.text << "\n" << kOptions;
  return 0;
}

int Usage(const std::string& problem) {
  std::cerr << "webapi-host: " << problem << "\n" << kUsage << "webapi-host --help says more.\n";
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

// The description of the web API, found as the page's folder is: installed
// beside it, or the source tree's.
std::string DefaultSchema() {
  const std::string self = Self();
  const std::string bin = self.substr(0, self.rfind('/'));
  std::string installed = bin.substr(0, bin.rfind('/') + 1) + "share/webapi-host/webapi.schema.json";
  if (access(installed.c_str(), R_OK) == 0) return installed;
#ifdef WEBAPI_HOST_SCHEMA
  if (access(WEBAPI_HOST_SCHEMA, R_OK) == 0) return WEBAPI_HOST_SCHEMA;
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
#ifdef WEBAPI_HOST_FIXTURES
  webapihost::SetSourceFixtures(WEBAPI_HOST_FIXTURES);
#endif
  // Options and their values first, wherever they stand; what is left is the
  // command and its arguments. Nothing a command takes begins with "--".
  std::map<std::string, std::string> options;
  bool help = false;
  std::vector<std::string> args;
  std::vector<std::string> trusted;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      help = true;
    } else if (arg == "--version") {
      std::cout << "webapi-host " << PELLIX_VERSION << "\n";
      return 0;
    } else if (arg == "--module" || arg == "--lang" || arg == "--state" || arg == "--port" || arg == "--conditions" ||
               arg == "--trust-origin" || arg == "--web" || arg == "--pkce-redirect-uri" || arg == "--seed" ||
               arg == "--journal" || arg == "--journal-size") {
      if (i + 1 >= argc) return Usage(arg + " needs a value");
      options[arg] = argv[++i];
      if (arg != "--trust-origin") continue;
      std::string problem;
      trusted.push_back(webapihost::ParseOrigin(options[arg], &problem));
      if (trusted.back().empty())
        return Usage("--trust-origin \"" + options[arg] + "\" is not an origin: " + problem +
                     "; give scheme://host[:port], as http://127.0.0.1:5173");
    } else if (arg == "--check-answers") {
      options[arg] = "";
    } else if (arg.rfind("--", 0) == 0) {
      return Usage("unknown option " + arg);
    } else {
      args.push_back(arg);
    }
  }
  const std::string command = args.empty() ? "" : args[0];
  if (help || command == "help") {
    const std::string topic = command == "help" ? (args.size() > 1 ? args[1] : "") : command;
    if (topic.empty()) return Help();
    const Command* c = FindCommand(topic);
    return c ? CommandHelp(*c) : Usage("no command " + topic);
  }
  if (command.empty()) return Usage("no command");
  if (!FindCommand(command)) return Usage("unknown command " + command);
  if (command != "serve")
    for (const char* only : {"--port", "--conditions", "--check-answers", "--trust-origin", "--web",
                             "--pkce-redirect-uri", "--seed", "--journal", "--journal-size"})
      if (options.count(only)) return Usage(std::string(only) + " is an option of serve only");
  if (command != "serve" && command != "state" && options.count("--state"))
    return Usage("--state is an option of serve and state only");
  if (command == "state") {
    const std::string action = args.size() > 1 ? args[1] : "";
    if (!((action == "export" && args.size() == 2) || (action == "import" && args.size() == 3)))
      return Usage("state takes export, or import FILE");
    return webapihost::StateCommand(action, action == "import" ? args[2] : "",
                                    options.count("--state") ? options["--state"] : webapihost::DefaultStateDir(),
                                    stdout, stderr);
  }
  const std::string modulePath = options.count("--module") ? options["--module"] : DefaultModule();
  const std::string language = options.count("--lang") ? options["--lang"] : "enu";
  size_t i = 1;

  if (command == "serve") {
    if (args.size() > 1) return Usage("serve takes no arguments but its options");
    webapihost::ServeOptions serve;
    serve.module = modulePath;
    serve.language = language;
    serve.state = options.count("--state") ? options["--state"] : webapihost::DefaultStateDir();
    serve.pages = DefaultPages();
    serve.schema = DefaultSchema();
    serve.checkAnswers = options.count("--check-answers") > 0;
    serve.conditions = options.count("--conditions") ? options["--conditions"] : "";
    serve.seed = options.count("--seed") ? options["--seed"] : "";
    serve.journal = options.count("--journal") ? options["--journal"] : "";
    int size = 0;
    if (options.count("--journal-size")) {
      if (!ParseInt(options["--journal-size"], &size) || size < 1)
        return Usage("--journal-size takes a number of requests from 1 up, not \"" + options["--journal-size"] + "\"");
      serve.journalSize = static_cast<size_t>(size);
    }
    if (options.count("--port") && (!ParseInt(options["--port"], &serve.port) || serve.port < 0 || serve.port > 65535))
      return Usage("--port takes a port number, not \"" + options["--port"] + "\"");
    serve.trusted = trusted;
    if (options.count("--web")) {
      char real[PATH_MAX];
      if (!IsFolder(options["--web"]) || !realpath(options["--web"].c_str(), real))
        return Usage("--web " + options["--web"] + ": no such folder; give the folder of your built interface");
      serve.web = real;
    }
    serve.pkceRedirect = options.count("--pkce-redirect-uri") ? options["--pkce-redirect-uri"] : "";
    if (!serve.pkceRedirect.empty() &&
        (webapihost::OriginOf(serve.pkceRedirect).empty() || serve.pkceRedirect.find('#') != std::string::npos))
      return Usage("--pkce-redirect-uri \"" + serve.pkceRedirect +
                   "\" is not an absolute http or https URI without a fragment, as http://127.0.0.1:5173/callback");
    return webapihost::Serve(serve);
  }
  if (command == "demo") {
    if (args.size() > 1) return Usage("demo takes no arguments");
    return webapihost::Demo(Self(), modulePath, stdout);
  }
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
