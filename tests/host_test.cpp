// The host harness and webapi-host: what the host does around a handler.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "devhost.h"

#include "support/module_test.h"
#include "support/process.h"

namespace pellixtest {
namespace {

TEST_F(ModuleTest, HostRefusesParametersThatAreNotAnObject) {
  for (const char* params : {"[]", "1", "\"x\"", "null"}) {
    webapihost::Answer a = Call("TALV.Core.PellixCenter", 2, "query", J(params));
    EXPECT_FALSE(a.found) << params;
    EXPECT_EQ(a.answers, 0);
  }
  EXPECT_TRUE(Logged().empty());
}

TEST(Harness, ModuleThatCannotBeLoadedIsReported) {
  std::string error;
  EXPECT_EQ(webapihost::Module::Load("/nonexistent/pellixcenter.so", &error), nullptr);
  EXPECT_NE(error.find("/nonexistent/pellixcenter.so"), std::string::npos) << error;
  // A shared object without a table.
  EXPECT_EQ(webapihost::Module::Load(SYSLOGCAPTURE_SO, &error), nullptr);
  EXPECT_NE(error.find("no GetAPITable"), std::string::npos) << error;
}

// docs/devhost.md's paths table is the route table: each row a route's path
// as shown and the methods it takes (HEAD goes with GET, unlisted).
TEST(Routes, AreThePathsTableOfTheDocs) {
  std::set<std::string> routes, documented;
  for (const webapihost::Route& r : webapihost::DevHost::Routes(nullptr, nullptr)) {
    std::string methods = r.methods;
    if (methods.find(", HEAD") != std::string::npos) methods.erase(methods.find(", HEAD"), 6);
    routes.insert(std::string("| ") + r.shown + " | " + methods + " |");
  }
  std::ifstream page(PELLIX_SOURCE_DIR "/../docs/devhost.md");
  for (std::string line; std::getline(page, line);)
    if (line.rfind("| `/", 0) == 0 && std::count(line.begin(), line.end(), '|') == 4) {
      line = line.substr(0, line.find(" |", line.find(" | ") + 3) + 2);
      documented.insert(line);
    }
  EXPECT_EQ(documented, routes);
}

struct HostRun {
  int status;
  std::string out;
  std::string err;
};

HostRun WebapiHost(const std::string& args) {
  HostRun run{-1, "", ""};
  run.status = RunCommand(std::string("'" WEBAPI_HOST "' ") + args, &run.out, &run.err);
  return run;
}

// Options stand before or after the command: where one was not taken, the
// run ends in a usage error (2) before the state folder or the module fails.
TEST(WebapiHost, Commands) {
  struct Case {
    const char* args;
    int status;
    const char* out;     // stdout; only its beginning when it ends no line
    const char* errHas;  // a part of stderr
  } cases[] = {
      {"call TALV.Core.PellixCenter 2 query '{}'", 0, "{\"success\":true,\"data\":{\"is_logged_in\":false}}\n", ""},
      {"call TALV.Core.PellixCenter 2 query", 0, "{\"success\":true,\"data\":{\"is_logged_in\":false}}\n", ""},
      {"call TALV.Core.PellixCenter.Account 1 get '{}'", 0, "{\"success\":true,\"data\":{\"is_logged_in\":false}}\n",
       ""},
      {"call TALV.Core.PellixCenter 2 get_iframe_info '{}'", 1,
       "{\"success\":false,\"error\":{\"code\":3002,\"details\":{}}}\n", "<3> pellixcenter.cpp:"},
      {"call TALV.Core.PellixCenter 1 login '{}'", 2, "{\"success\":false,\"error\":{\"code\":103,\"details\":null}}\n",
       "no such method"},
      {"call TALV.Core.PellixCenter 2 query '{\"a\":'", 2, "", "not JSON"},
      {"call TALV.Core.PellixCenter 2 query '[1,2]'", 2, "", "must be a JSON object"},
      {"call TALV.Core.PellixCenter two query", 2, "", "VERSION must be an integer"},
      {"call TALV.Core.PellixCenter 2", 2, "", "usage:"},
      {"frobnicate", 2, "", "unknown command"},
      {"--module /nonexistent.so call TALV.Core.PellixCenter 2 query", 3, "", "cannot load module"},
      {"call TALV.Core.PellixCenter 2 query --module /nonexistent.so", 3, "", "cannot load module"},
      {"serve --lang ger --state /proc/none", 1, "", "/proc/none"},
      {"--lang ger serve --state /proc/none", 1, "", "/proc/none"},
      {"list --port 1", 2, "", "option of serve only"},
      {"serve --trust-origin http://127.0.0.1:5173/", 2, "",
       "\"http://127.0.0.1:5173/\" is not an origin: it has a path"},
      {"serve --trust-origin http://a@b", 2, "", "is not an origin: it has user information"},
      {"serve --trust-origin 127.0.0.1:5173", 2, "", "is not an origin: it does not begin with http://"},
      {"serve --trust-origin http://b:99999", 2, "", "\"99999\" is not a port"},
      {"serve --web /proc/none", 2, "", "--web /proc/none: no such folder"},
      {"serve --pkce-redirect-uri /cb", 2, "", "\"/cb\" is not an absolute http or https URI"},
      {"--help", 0, "usage: webapi-host", ""},
      {"help", 0, "usage: webapi-host", ""},
      {"help call", 0, "usage: webapi-host [--module PATH] [--lang LANG] call API", ""},
      {"serve --help", 0, "usage: webapi-host [--module PATH] [--lang LANG] serve", ""},
      {"-h demo", 0, "usage: webapi-host [--module PATH] demo", ""},
      {"help frobnicate", 2, "", "no command frobnicate"},
      {"--version", 0, "webapi-host " PELLIX_VERSION "\n", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    HostRun run = WebapiHost(c.args);
    EXPECT_EQ(run.status, c.status) << run.err;
    const size_t n = std::strlen(c.out);
    EXPECT_EQ(n == 0 || c.out[n - 1] == '\n' ? run.out : run.out.substr(0, n), c.out);
    EXPECT_NE(run.err.find(c.errHas), std::string::npos) << run.err;
  }
  HostRun list = WebapiHost("list");
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(list.out.substr(0, 34), "TALV.Core.PellixCenter 1 register\n");
  EXPECT_EQ(std::count(list.out.begin(), list.out.end(), '\n'), 15);
}

}  // namespace
}  // namespace pellixtest
