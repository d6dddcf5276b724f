// The host harness and webapi-host: what the host does around a handler.
#include <algorithm>

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

TEST(WebapiHost, Commands) {
  struct Case {
    const char* args;
    int status;
    const char* out;     // exact stdout
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
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    HostRun run = WebapiHost(c.args);
    EXPECT_EQ(run.status, c.status) << run.err;
    EXPECT_EQ(run.out, c.out);
    EXPECT_NE(run.err.find(c.errHas), std::string::npos) << run.err;
  }
  HostRun list = WebapiHost("list");
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(list.out.substr(0, 34), "TALV.Core.PellixCenter 1 register\n");
  EXPECT_EQ(std::count(list.out.begin(), list.out.end(), '\n'), 15);
}

}  // namespace
}  // namespace pellixtest
