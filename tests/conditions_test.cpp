// The account service's conditions, end to end: set over HTTP or from a file
// on a host the test starts, each bites the methods it names, and is logged
// when set, when it bites and when cleared.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <chrono>
#include <fstream>

#include "client.h"
#include "support/module_test.h"
#include "support/process.h"

namespace pellixtest {
namespace {

using webapihost::CallWebApi;
using webapihost::Reply;
using webapihost::Send;
using webapihost::ServeProcess;
using webapihost::TempDir;

const char kCenter[] = "TALV.Core.PellixCenter";

class ConditionsTest : public ::testing::Test {
 protected:
  void Start(const std::vector<std::string>& more = {}) {
    host_.reset(
        new ServeProcess(WEBAPI_HOST, PELLIXCENTER_SO, dir_.path() + "/state", dir_.path() + "/serve.log", more));
    ASSERT_GT(host_->port(), 0) << host_->Log();
  }
  // Each line of `lines`, $id replaced, is in the host's log.
  void ExpectLogged(const std::vector<std::string>& lines, const std::string& id) {
    const std::string log = host_->Log();
    for (const std::string& line : lines)
      EXPECT_NE(log.find(Substitute(line, {{"id", id}})), std::string::npos) << line << "\n" << log;
  }
  Reply Post(const std::string& json) { return Send(host_->port(), "POST", "/sim/conditions", json); }

  TempDir dir_;
  std::unique_ptr<ServeProcess> host_;
};

TEST_F(ConditionsTest, EachBitesWhatItNames) {
  ASSERT_NO_FATAL_FAILURE(Start());
  ASSERT_EQ(webapihost::PostForm(host_->port(), "/sim/register",
                                 J(R"({"email":"ada@example.com","password":"secret1","full_name":"Ada L"})"))
                .status,
            200);
  const std::string ada = R"({"account":"ada@example.com","password":"secret1"})";
  const std::string carol = R"({"account":"carol@example.com","password":"secret3","fullname":"Carol C"})";
  const std::string bit = "condition $id bit TALV.Core.PellixCenter";
  struct Row {
    const char* condition;  // set first, unless empty; $id in `logged` is its id
    const char* api;
    int version;
    const char* method;
    std::string params;
    const char* answer;
    std::vector<std::string> logged;
    int left = -1;    // what GET lists as left of its times after the call
    int slowest = 0;  // ms the call takes at least
  } rows[] = {
      // clang-format off
      {R"({"account_error":25})", kCenter, 2, "query", "{}", R"({"success":false,"error":{"code":3013,"details":{}}})",
       {R"(condition $id set: {"account_error":25})",
        bit + " 2 query: TALVPELLIXAccountQueryInfo failed with account error 25"}},
      {R"({"account_error":14,"operations":["TALVPELLIXGetIframeInfo","TALVPELLIXAccountLogin"],"times":2})", kCenter,
       2, "login", ada, R"({"success":false,"error":{"code":3004,"details":{}}})",
       {bit + " 2 login: TALVPELLIXAccountLogin failed with account error 14"}, 1},
      {R"({"delay_ms":300,"operations":["TALVPELLIXAccountQueryInfo"]})", "TALV.Core.PellixCenter.Account", 1, "get",
       "{}", R"({"success":true,"data":{"is_logged_in":false}})",
       {"condition $id bit TALV.Core.PellixCenter.Account 1 get: TALVPELLIXAccountQueryInfo delayed 300 ms"}, -1, 300},
      {R"({"account_error":18,"operations":["TALVPELLIXAccountRegister"],"delay_ms":100})", kCenter, 2, "register",
       R"({"account":"bob@example.com","password":"secret2","fullname":"Bob B","critical_release":true})",
       R"({"success":false,"error":{"code":3008,"details":{}}})",
       {bit + " 2 register: TALVPELLIXAccountRegister delayed 100 ms, then failed with account error 18"}, -1, 100},
      {R"({"unreachable":true})", "TALV.Core.PellixCenter.Login", 1, "pkce_config_get", "{}",
       R"({"success":false,"error":{"code":100,"details":{"exception":"Pellix account service is not reachable"}}})",
       {"condition $id bit TALV.Core.PellixCenter.Login 1 pkce_config_get: AccountPkceService::AccountPkceService "
        "threw code 4 \"Pellix account service is not reachable\""}},
      // account.php is closed while the service is unreachable, and open again after.
      {R"({"unreachable":true})", kCenter, 1, "register", carol, R"({"success":false,"error":{"code":3002,"details":null}})",
       {"pellix register error, http-status: 0 response: badnetwork"}},
      {"", kCenter, 1, "register", carol, R"({"success":true,"data":null})", {}},
      {R"({"pkce_throw":{"code":18,"what":"too many sign-outs"}})", "TALV.Core.PellixCenter.Logout", 1, "pkce_logout",
       "{}", R"({"success":false,"error":{"code":3008,"details":null}})",
       {"condition $id bit TALV.Core.PellixCenter.Logout 1 pkce_logout: AccountPkceService::AccountPkceService threw "
        "code 18 \"too many sign-outs\"", "Failed to pkce logout: too many sign-outs"}},
      {R"({"logout_refusal":{"grade":"hard","reason":"A backup is running"}})", kCenter, 2, "logout", R"({"force":true})",
       R"({"success":false,"error":{"code":3014,"details":{"check_type":"hard","reasons":["A backup is running"]}}})",
       {bit + " 2 logout: a hard sign-out refusal \"A backup is running\""}},
      // One of account.php's conducts (each is sim_test's and https_hostile_test's).
      {R"({"account_php":"status:503","delay_ms":200,"times":1})", kCenter, 1, "register",
       R"({"account":"dan@example.com","password":"secret4","fullname":"Dan D"})",
       R"({"success":false,"error":{"code":3003,"details":null}})",
       {bit + " 1 register: account.php \"status:503\", delay_ms 200", "http-status: 503 response: badsys",
        "condition $id cleared: used up"}, -1, 200},
      // clang-format on
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.condition) + " " + row.method);
    std::string id;
    if (*row.condition) {
      Reply set = Post(row.condition);
      ASSERT_EQ(set.status, 201) << set.text;
      id = set.body["id"].asString();
    }
    const auto start = std::chrono::steady_clock::now();
    Reply r = CallWebApi(host_->port(), row.api, row.version, row.method, J(row.params));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(row.slowest));
    EXPECT_EQ(r.body, J(row.answer));
    Reply listed = Send(host_->port(), "GET", "/sim/conditions");
    if (row.left >= 0) {
      EXPECT_EQ(listed.body["conditions"][0]["left"], row.left) << listed.text;
    }
    EXPECT_EQ(Send(host_->port(), "DELETE", "/sim/conditions").status, 200);
    ExpectLogged(row.logged, id);
    if (!id.empty()) ExpectLogged({"condition $id cleared"}, id);
  }
}

// A file of conditions is set at start; one that cannot be set ends the start.
TEST_F(ConditionsTest, FromAFileAtStart) {
  const std::string file = dir_.path() + "/conditions.json";
  std::ofstream(file) << R"([{"logout_refusal":{"grade":"soft","reason":"From a file"}},
                             {"account_error":17,"operations":["TALVPELLIXAccountRegister"],"times":1}])";
  ASSERT_NO_FATAL_FAILURE(Start({"--conditions", file}));
  EXPECT_NE(host_->announcement().find("/sim/conditions (2 set from " + file + ")"), std::string::npos)
      << host_->announcement();
  EXPECT_EQ(Send(host_->port(), "GET", "/sim/conditions").body,
            J(R"({"conditions":[{"id":1,"logout_refusal":{"grade":"soft","reason":"From a file"}},
                  {"id":2,"account_error":17,"operations":["TALVPELLIXAccountRegister"],"times":1,"left":1}]})"));
  EXPECT_EQ(CallWebApi(host_->port(), kCenter, 2, "logout").body,
            J(R"({"success":false,"error":{"code":3014,"details":{"check_type":"soft","reasons":["From a file"]}}})"));
  EXPECT_EQ(
      CallWebApi(host_->port(), kCenter, 2, "register",
                 J(R"({"account":"ada@example.com","password":"secret1","fullname":"Ada L","critical_release":true})"))
          .body,
      J(R"({"success":false,"error":{"code":3006,"details":{}}})"));
  EXPECT_EQ(host_->Stop(SIGTERM), 0);

  std::ofstream(dir_.path() + "/bad.json") << R"([{"account_error":3},{"account_error":3,"times":0}])";
  struct Case {
    std::string file, says;
  } cases[] = {
      {dir_.path() + "/bad.json", "/bad.json: condition 2 of 2: \"times\""},
      {dir_.path() + "/none.json", "/none.json: No such file"},
  };
  for (const Case& c : cases) {
    std::string out, err;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(RunCommand("timeout -s KILL 5 '" WEBAPI_HOST "' serve --port 0 --state '" + dir_.path() +
                             "/other' --conditions '" + c.file + "'",
                         &out, &err),
              1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_NE(err.find(c.says), std::string::npos) << err;
  }
}

// What cannot be set is refused whole with a sentence naming the member,
// logged, and nothing of it is in force.
TEST_F(ConditionsTest, BadBodiesAreRefusedNamingTheField) {
  ASSERT_NO_FATAL_FAILURE(Start());
  struct Case {
    const char* body;
    int status;
    const char* reason;  // the member or value it names
    const char* method = "POST";
    const char* path = "/sim/conditions";
  } cases[] = {
      {"{\"account_error\":", 400, "the body is not JSON"},
      {"[]", 400, "array"},
      {"{}", 400, "empty"},
      {R"({"account_eror":4})", 400, "\"account_eror\""},
      {R"({"account_error":26})", 400, "\"account_error\""},
      {R"({"account_error":-1})", 400, "\"account_error\""},
      {R"({"account_error":4,"operations":["TALVPELLIXAccountLogon"]})", 400, "\"TALVPELLIXAccountLogon\""},
      {R"({"account_error":4,"times":-2})", 400, "\"times\""},
      {R"({"delay_ms":-5})", 400, "\"delay_ms\""},
      {R"({"account_php":"status:99"})", 400, "\"account_php\""},
      {R"({"pkce_throw":{"code":4},"operations":["TALVPELLIXAccountLogin"]})", 400, "\"TALVPELLIXAccountLogin\""},
      {R"({"account_error":4,"unreachable":true})", 400, "\"unreachable\""},
      {R"({"operations":["TALVPELLIXAccountLogin"],"times":1})", 400, "does nothing"},
      {"", 404, "no condition \"7\" is in force", "DELETE", "/sim/conditions/7"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    Reply r = Send(host_->port(), c.method, c.path, c.body);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.body["error"]["code"], 101) << r.text;
    const std::string reason = r.body["error"]["details"]["reason"].asString();
    EXPECT_NE(reason.find(c.reason), std::string::npos) << reason;
    ExpectLogged(
        {std::string(c.method) + " " + c.path + ": " + std::to_string(c.status) + " code 101 (" + reason + ")"}, "");
  }
  httplib::Result form = httplib::Client("127.0.0.1", host_->port())
                             .Post("/sim/conditions", "account_error=4", "application/x-www-form-urlencoded");
  ASSERT_TRUE(form);
  EXPECT_EQ(form->status, 415);
  EXPECT_NE(form->body.find("Content-Type"), std::string::npos) << form->body;
  EXPECT_EQ(Send(host_->port(), "GET", "/sim/conditions").body, J(R"({"conditions":[]})"));
}

}  // namespace
}  // namespace pellixtest
